#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <bexko/services/builtinservices.h>
#include <ko/log.h>
#include <ko/packageinfo.h>
#include <zr/zrbroker.h>
#include <zr/zrbrokermanager.h>
#include <zr/zrmodule.h>
#include <zr/zrvalue.h>

namespace bexko {
namespace testing {

/// One event raised in the host's event store, as the test host recorded it.
struct RaisedEvent {
  std::string key;
  ZR::ZRValue value;
};

struct TestHostOptions {
  /// false: the packages shipped in the build tree are hidden (BEXKO_SDK_PREFIX points at an
  /// empty folder of the temporary tree); true: they are seen.
  bool shippedPackages = false;
};

/// A module whose methods a test defines. Every call is recorded before its body runs.
class FakeModule : public ZR::ZRModule {
 public:
  using Body = std::function<ZR::ZRValue(const std::vector<ZR::ZRValue>&)>;

  FakeModule(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name);
  ~FakeModule() override;

  /// Publishes `name` taking `arity` arguments; `body` (empty: return an empty value) serves
  /// each call and may throw to make the call fail.
  void addMethod(const std::string& name, int arity, Body body = {});

  struct Call {
    std::string method;
    std::vector<ZR::ZRValue> args;
  };
  /// Calls received so far, in arrival order.
  std::vector<Call> calls() const;
  std::vector<Call> calls(const std::string& method) const;
  /// True when `method` has been called at least `count` times, waiting up to `timeoutMs`.
  bool waitForCalls(const std::string& method, std::size_t count, int timeoutMs) const;
  void clearCalls();

 private:
  void record(const std::string& method, const std::vector<ZR::ZRValue>& args);

  mutable std::mutex callsMutex_;
  mutable std::condition_variable callsChanged_;
  std::vector<Call> calls_;
};

/// A host for unit tests: a broker with the built-in services over a fresh temporary XDG tree,
/// recording every raised event and every log record.
///
/// The constructor points HOME, XDG_CONFIG_HOME, XDG_DATA_HOME, XDG_CONFIG_DIRS and
/// XDG_DATA_DIRS at a new folder (under $BEXKO_TEST_ROOT when set), installs a capturing log
/// sink, sets every log category to debug, and creates the broker, its broker manager (made the
/// process-wide instance) and the built-in services. The destructor shuts the broker down,
/// removes the sink, restores the environment and deletes the folder. One TestHost at a time.
class TestHost {
 public:
  explicit TestHost(TestHostOptions options = {});
  ~TestHost();
  TestHost(const TestHost&) = delete;
  TestHost& operator=(const TestHost&) = delete;

  boost::shared_ptr<ZR::ZRBroker> broker() const;
  bexko::services::BuiltinServices& services();

  /// Raised events in raise order.
  std::vector<RaisedEvent> events() const;
  /// Raised events whose key begins with `keyPrefix`, in raise order.
  std::vector<RaisedEvent> events(const std::string& keyPrefix) const;
  void clearEvents();
  /// True when `key` was raised with `value` since the last clearEvents, or is within
  /// `timeoutMs`.
  bool waitForEvent(const std::string& key, const ZR::ZRValue& value, int timeoutMs) const;

  /// Log records emitted since the host was created (or since clearLogs), in emission order.
  std::vector<ko::log::Record> logRecords() const;
  std::vector<ko::log::Record> logRecords(const std::string& category) const;
  /// True when a record of exactly this level, function and text was emitted.
  bool hasLog(ko::log::LogLevel level, const std::string& function, const std::string& text) const;
  void clearLogs();

  /// The temporary folder of this host.
  std::string root() const;
  /// $XDG_CONFIG_HOME/bexko, created.
  std::string configDir() const;
  /// $XDG_DATA_HOME/bexko, created.
  std::string dataDir() const;

  /// Writes <dataDir>/packages/<identifier>/manifest.xml for `package` without emitting any
  /// signal or event. Throws std::invalid_argument when the package has no identifier.
  void addPackage(const ko::PackageInfo& package);
  /// Stores a preference through "ZRPreferenceManager".
  void setPreference(const std::string& domain, const std::string& key, const ZR::ZRValue& value);
  /// Creates a FakeModule named `name` and registers it on the broker; the host owns it.
  FakeModule& addFakeModule(const std::string& name);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace testing
}  // namespace bexko
