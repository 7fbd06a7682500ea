#include <bexko/testing/testhost.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <utility>

#include <boost/filesystem.hpp>

#include <bexko/services/packagemanager.h>
#include <zr/zrerror.h>
#include <zr/zrfunctor.h>
#include <zr/zrpreferencesproxy.h>

namespace fs = boost::filesystem;

namespace bexko {
namespace testing {

namespace {

/// A published method of a FakeModule: records the call, then runs the test's body.
class FakeFunctor : public ZR::ZRFunctor {
 public:
  FakeFunctor(int arity, std::function<void(const std::vector<ZR::ZRValue>&)> record,
              FakeModule::Body body)
      : arity_(arity), record_(std::move(record)), body_(std::move(body)) {}

  ZR::ZRValue call(const std::vector<ZR::ZRValue>& args) override {
    if (static_cast<int>(args.size()) != arity_) {
      throw ZR::ZRArgumentError(0, "expected " + std::to_string(arity_) + " arguments, got " +
                                       std::to_string(args.size()));
    }
    record_(args);
    return body_ ? body_(args) : ZR::ZRValue();
  }
  int arity() const override { return arity_; }

 private:
  int arity_;
  std::function<void(const std::vector<ZR::ZRValue>&)> record_;
  FakeModule::Body body_;
};

/// Sets an environment variable for the life of the object, then restores it.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = std::string(old);
    setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

}  // namespace

// FakeModule ------------------------------------------------------------------------------------

FakeModule::FakeModule(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
    : ZR::ZRModule(std::move(broker), name) {
  setModuleDescription("A module whose methods a test defines.");
}

FakeModule::~FakeModule() = default;

void FakeModule::addMethod(const std::string& name, int arity, Body body) {
  functionName(name, getName(), "A method defined by the test.");
  for (int i = 1; i <= arity; ++i) {
    addParam("arg" + std::to_string(i), "Argument " + std::to_string(i) + ".");
  }
  if (body) setReturn("result", "What the test's body returns.");
  bindMethodOverload(ZR::ZRFunctorPtr(new FakeFunctor(
      arity, [this, name](const std::vector<ZR::ZRValue>& args) { record(name, args); },
      std::move(body))));
}

void FakeModule::record(const std::string& method, const std::vector<ZR::ZRValue>& args) {
  {
    std::lock_guard<std::mutex> lock(callsMutex_);
    calls_.push_back(Call{method, args});
  }
  callsChanged_.notify_all();
}

std::vector<FakeModule::Call> FakeModule::calls() const {
  std::lock_guard<std::mutex> lock(callsMutex_);
  return calls_;
}

std::vector<FakeModule::Call> FakeModule::calls(const std::string& method) const {
  std::vector<Call> matching;
  std::lock_guard<std::mutex> lock(callsMutex_);
  for (const Call& call : calls_) {
    if (call.method == method) matching.push_back(call);
  }
  return matching;
}

bool FakeModule::waitForCalls(const std::string& method, std::size_t count, int timeoutMs) const {
  std::unique_lock<std::mutex> lock(callsMutex_);
  return callsChanged_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
    return static_cast<std::size_t>(
               std::count_if(calls_.begin(), calls_.end(),
                             [&](const Call& call) { return call.method == method; })) >= count;
  });
}

void FakeModule::clearCalls() {
  std::lock_guard<std::mutex> lock(callsMutex_);
  calls_.clear();
}

// TestHost --------------------------------------------------------------------------------------

struct TestHost::Impl {
  fs::path root;
  std::vector<std::unique_ptr<ScopedEnv>> environment;

  std::shared_ptr<ko::log::CaptureSink> sink;
  int sinkId = -1;

  boost::shared_ptr<ZR::ZRBrokerManager> manager;
  boost::shared_ptr<ZR::ZRBroker> broker;
  bexko::services::BuiltinServices services;
  int observerId = 0;
  std::vector<boost::shared_ptr<FakeModule>> fakes;

  mutable std::mutex eventsMutex;
  mutable std::condition_variable eventsChanged;
  std::vector<RaisedEvent> events;

  void record(const std::string& key, const ZR::ZRValue& value) {
    {
      std::lock_guard<std::mutex> lock(eventsMutex);
      events.push_back(RaisedEvent{key, value});
    }
    eventsChanged.notify_all();
  }

  void setEnv(const char* name, const fs::path& value) {
    environment.push_back(std::make_unique<ScopedEnv>(name, value.string()));
  }

  void tearDown() noexcept {
    try {
      if (services.memory && observerId) services.memory->unobserve(observerId);
      if (broker) broker->shutdown();
      fakes.clear();
      services = {};
      if (manager && broker) manager->removeBroker(broker);
      if (manager && ZR::ZRBrokerManager::getInstance() == manager) {
        ZR::ZRBrokerManager::setInstance({});
      }
      broker.reset();
      manager.reset();
    } catch (...) {
      // A failing shutdown must not hide the test's own result.
    }
    if (sinkId >= 0) ko::log::removeSink(sinkId);
    sinkId = -1;
    try {
      ko::log::setLevels("*=info");
      ko::log::setLevelsFromEnvironment();
    } catch (...) {
    }
    // Restore in reverse order of setting.
    while (!environment.empty()) environment.pop_back();
    boost::system::error_code ignored;
    if (!root.empty()) fs::remove_all(root, ignored);
  }
};

TestHost::TestHost(TestHostOptions options) : impl_(new Impl) {
  Impl& d = *impl_;
  const char* testRoot = std::getenv("BEXKO_TEST_ROOT");
  fs::path base = testRoot && *testRoot ? fs::path(testRoot) : fs::temp_directory_path();
  d.root = base / fs::unique_path("host-%%%%-%%%%-%%%%");
  try {
    for (const char* sub : {"home", "config", "data", "config-system", "data-system", "sdk"}) {
      fs::create_directories(d.root / sub);
    }
    d.setEnv("HOME", d.root / "home");
    d.setEnv("XDG_CONFIG_HOME", d.root / "config");
    d.setEnv("XDG_DATA_HOME", d.root / "data");
    d.setEnv("XDG_CONFIG_DIRS", d.root / "config-system");
    d.setEnv("XDG_DATA_DIRS", d.root / "data-system");
    if (!options.shippedPackages) d.setEnv("BEXKO_SDK_PREFIX", d.root / "sdk");

    d.sink = std::make_shared<ko::log::CaptureSink>();
    d.sinkId = ko::log::addSink(d.sink);
    ko::log::setLevels("*=debug");

    d.manager = boost::shared_ptr<ZR::ZRBrokerManager>(new ZR::ZRBrokerManager());
    d.broker = ZR::ZRBroker::create("bexko-test", d.manager);
    d.manager->addBroker(d.broker);
    ZR::ZRBrokerManager::setInstance(d.manager);

    d.services = bexko::services::createBuiltinServices(d.broker);
    Impl* self = impl_.get();
    d.observerId = d.services.memory->observe(
        "", [self](const std::string& key, const ZR::ZRValue& value) { self->record(key, value); });
  } catch (...) {
    d.tearDown();
    throw;
  }
}

TestHost::~TestHost() { impl_->tearDown(); }

boost::shared_ptr<ZR::ZRBroker> TestHost::broker() const { return impl_->broker; }

bexko::services::BuiltinServices& TestHost::services() { return impl_->services; }

std::vector<RaisedEvent> TestHost::events() const {
  std::lock_guard<std::mutex> lock(impl_->eventsMutex);
  return impl_->events;
}

std::vector<RaisedEvent> TestHost::events(const std::string& keyPrefix) const {
  std::vector<RaisedEvent> matching;
  std::lock_guard<std::mutex> lock(impl_->eventsMutex);
  for (const RaisedEvent& event : impl_->events) {
    if (event.key.compare(0, keyPrefix.size(), keyPrefix) == 0) matching.push_back(event);
  }
  return matching;
}

void TestHost::clearEvents() {
  std::lock_guard<std::mutex> lock(impl_->eventsMutex);
  impl_->events.clear();
}

bool TestHost::waitForEvent(const std::string& key, const ZR::ZRValue& value, int timeoutMs) const {
  std::unique_lock<std::mutex> lock(impl_->eventsMutex);
  return impl_->eventsChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
    return std::any_of(impl_->events.begin(), impl_->events.end(),
                       [&](const RaisedEvent& e) { return e.key == key && e.value == value; });
  });
}

std::vector<ko::log::Record> TestHost::logRecords() const { return impl_->sink->records(); }

std::vector<ko::log::Record> TestHost::logRecords(const std::string& category) const {
  std::vector<ko::log::Record> matching;
  for (ko::log::Record& record : impl_->sink->records()) {
    if (record.category == category) matching.push_back(std::move(record));
  }
  return matching;
}

bool TestHost::hasLog(ko::log::LogLevel level, const std::string& function,
                      const std::string& text) const {
  for (const ko::log::Record& record : impl_->sink->records()) {
    if (record.level == level && record.function == function && record.message == text) {
      return true;
    }
  }
  return false;
}

void TestHost::clearLogs() { impl_->sink->clear(); }

std::string TestHost::root() const { return impl_->root.string(); }

std::string TestHost::configDir() const {
  fs::path dir = impl_->root / "config" / "bexko";
  fs::create_directories(dir);
  return dir.string();
}

std::string TestHost::dataDir() const {
  fs::path dir = impl_->root / "data" / "bexko";
  fs::create_directories(dir);
  return dir.string();
}

void TestHost::addPackage(const ko::PackageInfo& package) {
  if (package.identifier().empty()) {
    throw std::invalid_argument("TestHost::addPackage: the package has no identifier");
  }
  bexko::services::writeManifest((fs::path(dataDir()) / "packages" / package.identifier()).string(),
                                 package);
}

void TestHost::setPreference(const std::string& domain, const std::string& key,
                             const ZR::ZRValue& value) {
  ZR::ZRPreferenceManagerProxy(impl_->broker).setValue(domain, key, value);
}

FakeModule& TestHost::addFakeModule(const std::string& name) {
  boost::shared_ptr<FakeModule> module(new FakeModule(impl_->broker, name));
  module->initModule();
  impl_->fakes.push_back(module);
  return *module;
}

}  // namespace testing
}  // namespace bexko
