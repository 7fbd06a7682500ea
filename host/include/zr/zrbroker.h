#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <ko/cancellation.h>
#include <ko/eventloop.h>
#include <ko/future.h>
#include <ko/object.h>
#include <zr/export.h>
#include <zr/zrerror.h>
#include <zr/zrvalue.h>

namespace ZR {

class ZRBrokerManager;
class ZRModuleCore;
class ZRProxy;

/// The outcome of a call run on a host thread.
struct ZRCallOutcome {
  int id = 0;                    ///< the posted call id (0 for a call that was not posted)
  bool ok = false;               ///< the method returned
  ZRValue value;                 ///< its result (empty for void)
  std::optional<ZRError> error;  ///< the ZRError it threw, if any
  std::string otherError;        ///< the what() of any other exception it threw
  /// The call was refused before the method ran: no overload of the method takes that many
  /// arguments, or an argument does not convert to its parameter's type (`error` says which).
  bool badArguments = false;
};

using ZRCallCallback = std::function<void(const ZRCallOutcome&)>;

/// A call posted with ZRBroker::post: its id, and a future of its result whose error text is
/// the error's what().
struct ZRPostedCall {
  int id = 0;
  ko::Future<ZRValue> result;
};

/// The broker: the registry of the process's modules, the way to call them by name, and the
/// owner of the host threads that deliver calls and of the session.
///
/// Published calls run on the thread that makes them (call) or on the host's pool of threads
/// (callAsync, post); the pool grows with blocking calls up to 256 threads, beyond which calls
/// wait their turn in arrival order. Calls of prompt methods, and the host's stops, never wait
/// behind them: they go first, on up to 64 threads more.
class BEXKO_API ZRBroker : public boost::enable_shared_from_this<ZRBroker> {
 public:
  /// Creates a broker named `name`, with a new session and pool; `manager` is kept weakly.
  static boost::shared_ptr<ZRBroker> create(const std::string& name,
                                            boost::shared_ptr<ZRBrokerManager> manager = {});
  ~ZRBroker();
  ZRBroker(const ZRBroker&) = delete;
  ZRBroker& operator=(const ZRBroker&) = delete;

  const std::string& getName() const;
  /// The broker manager this broker belongs to (a weak reference).
  boost::weak_ptr<ZRBrokerManager> getBrokerManager() const;

  /// A proxy to a registered module. Throws ZRError when no module of that name is registered.
  /// `flags` is unused.
  boost::shared_ptr<ZRProxy> getProxy(const std::string& moduleName, int flags = 0);
  /// A typed proxy: P is constructed with (this broker, moduleName).
  template <typename P>
  boost::shared_ptr<P> getSpecialisedProxy(const std::string& moduleName) {
    return boost::shared_ptr<P>(new P(shared_from_this(), moduleName));
  }
  ko::SessionPtr session();

  // Modules -----------------------------------------------------------------------------------
  /// Registers a module and publishes its object in the session. Throws ZRError when a module
  /// of that name is registered.
  void registerModule(boost::shared_ptr<ZRModuleCore> module);
  void unregisterModule(const std::string& name);
  /// The module of that name, or null.
  boost::shared_ptr<ZRModuleCore> getModuleByName(const std::string& name) const;
  /// Names of the registered modules, in registration order.
  std::vector<std::string> getModuleNames() const;

  // Calls by name -----------------------------------------------------------------------------
  /// Calls a method on this thread and returns its result. Throws ZRError for an unknown
  /// module or method, a wrong argument count or a bad argument; errors of the method pass.
  ZRValue call(const std::string& module, const std::string& method,
               const std::vector<ZRValue>& args);
  /// Runs a call on a host thread (not a posted call); `done` receives the outcome there.
  /// Once `cancellation` (optional) is cancelled the call is not started any more, and its
  /// waits on a ko::FairMutex end with ko::CallCancelled; `done` still receives the outcome.
  void callAsync(const std::string& module, const std::string& method, std::vector<ZRValue> args,
                 ZRCallCallback done, ko::CallCancellationPtr cancellation = {});
  /// Runs a call on this thread and returns its outcome instead of throwing: what callAsync
  /// would deliver, without a hand-off to a host thread. For quick methods
  /// (ZRModuleCore::setMethodQuick) whose callers must not wait for a thread.
  ZRCallOutcome callNow(const std::string& module, const std::string& method,
                        const std::vector<ZRValue>& args);
  /// Posts a call: returns its id at once and runs it on a host thread where isPCalled() is true
  /// and getMethodID() is the id; `done` (optional) receives the outcome there. An unknown
  /// module or method is reported through the outcome.
  ///
  /// Ids count from 1000000000 up to 2147483646 and then wrap back to 1000000000, skipping ids
  /// of calls still running; they are never 0, negative or 2147483647. Modules number the tasks
  /// they start on their own from 1, and stop(id) receives both kinds, so a posted id does not
  /// meet a module's own task id in practice (it would take a module a billion tasks).
  ZRPostedCall post(const std::string& module, const std::string& method, std::vector<ZRValue> args,
                    ZRCallCallback done = {});
  /// The host's stop of a posted call: calls the module's stop(id) on this thread. Throws
  /// ZRError for an unknown module.
  void stop(const std::string& module, int id);
  /// Waits for a posted call of this broker; false when it is unknown or still running after
  /// `msecs`.
  bool wait(int id, int msecs);
  /// True while a posted call with this id runs.
  bool isRunning(int id) const;

  /// The host's pool, for work that may block (event deliveries, gateway calls).
  ko::ExecutionContext& threadPool();
  /// Runs `fn` on a host thread ahead of every call that waits, on a thread of its own when
  /// every host thread is busy: for short work that must answer while clients' calls wait (the
  /// host's stop of a posted call). Calls of methods that their module marked prompt
  /// (ZRModuleCore::setMethodPrompt) go the same way. False once the broker is shut down.
  bool submitPrompt(std::function<void()> fn);

  /// Calls exit() on every module, newest first, then unregisters them all. Idempotent.
  void shutdown();

 private:
  ZRBroker(const std::string& name, boost::shared_ptr<ZRBrokerManager> manager);
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ZR
