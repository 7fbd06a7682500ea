#include <zr/zrbroker.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <set>
#include <utility>

#include <boost/make_shared.hpp>

#include <ko/log.h>
#include <zr/zrbrokermanager.h>
#include <zr/zrmodulecore.h>
#include <zr/zrproxy.h>

#include "callcontext.h"
#include "threadpool.h"

namespace ZR {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.broker");
  return category;
}

// Finished posted calls remembered for wait(), so that waiting for a call that ended before the
// wait began is not mistaken for waiting for an unknown one.
constexpr std::size_t finishedIdsKept = 4096;

ZRError unknownModule(const std::string& module, const std::string& method) {
  return ZRError(module, method, "No module named \"" + module + "\" is registered");
}

}  // namespace

struct ZRBroker::Impl {
  struct PostedEntry {
    ko::Promise<ZRValue> promise;
  };

  std::string name;
  boost::weak_ptr<ZRBrokerManager> manager;
  ko::SessionPtr session = boost::make_shared<ko::Session>();
  std::unique_ptr<bexko::ThreadPool> pool{new bexko::ThreadPool()};

  mutable std::mutex modulesMutex;
  std::vector<boost::shared_ptr<ZRModuleCore>> modules;  // registration order
  bool shutDown = false;

  mutable std::mutex postsMutex;
  int lastIdHandedOut = 0;  // 0 until the first post
  std::map<int, ko::Future<ZRValue>> runningPosts;
  std::deque<int> finishedOrder;
  std::set<int> finishedPosts;

  // Queues a call's task: on the prompt lane when the module marked the method prompt.
  bool submit(const std::string& module, const std::string& method, std::function<void()> task);

  boost::shared_ptr<ZRModuleCore> findModule(const std::string& moduleName) const {
    std::lock_guard<std::mutex> lock(modulesMutex);
    for (const auto& module : modules) {
      if (module->getName() == moduleName) return module;
    }
    return {};
  }

  int nextPostedId(const ko::Future<ZRValue>& result) {
    std::lock_guard<std::mutex> lock(postsMutex);
    if (const int continued = bexko::detail::takeContinuedPostedId()) lastIdHandedOut = continued;
    // Skips ids still in use after a wrap, which would take a billion calls in flight to
    // exhaust.
    do {
      lastIdHandedOut = bexko::detail::postedIdAfter(lastIdHandedOut);
    } while (runningPosts.count(lastIdHandedOut) > 0);
    if (finishedPosts.erase(lastIdHandedOut) > 0) {
      finishedOrder.erase(std::find(finishedOrder.begin(), finishedOrder.end(), lastIdHandedOut));
    }
    runningPosts.emplace(lastIdHandedOut, result);
    return lastIdHandedOut;
  }

  void postFinished(int id) {
    std::lock_guard<std::mutex> lock(postsMutex);
    runningPosts.erase(id);
    finishedPosts.insert(id);
    finishedOrder.push_back(id);
    if (finishedOrder.size() > finishedIdsKept) {
      finishedPosts.erase(finishedOrder.front());
      finishedOrder.pop_front();
    }
  }

  /// Runs one call on this thread and reports how it ended; never throws.
  ZRCallOutcome runCall(const std::string& moduleName, const std::string& method,
                        const std::vector<ZRValue>& args, int postedId, std::uint64_t arrival) {
    ZRCallOutcome outcome;
    outcome.id = postedId;
    bexko::detail::ArrivalScope arrivalScope(arrival);
    try {
      boost::shared_ptr<ZRModuleCore> module = findModule(moduleName);
      if (!module) throw unknownModule(moduleName, method);
      bexko::detail::PostedCallMark mark(postedId);
      outcome.value = module->callMethod(method, args);
      outcome.ok = true;
    } catch (const bexko::detail::RefusedArguments& e) {
      outcome.error = ZRError(e);
      outcome.badArguments = true;
    } catch (const ZRError& e) {
      outcome.error = e;
    } catch (const ko::CallCancelled& e) {
      outcome.error = ZRError(moduleName, method, e.what());
    } catch (const std::exception& e) {
      outcome.otherError = e.what();
    } catch (...) {
      outcome.otherError = "unknown exception";
    }
    return outcome;
  }
};

namespace {

void deliver(const ZRCallCallback& done, const ZRCallOutcome& outcome, const char* function) {
  if (!done) return;
  try {
    done(outcome);
  } catch (const std::exception& e) {
    KO_LOG(logCategory(), ko::log::error, function)
        << "A call's completion handler threw: " << e.what();
  } catch (...) {
    KO_LOG(logCategory(), ko::log::error, function) << "A call's completion handler threw";
  }
}

ZRCallOutcome brokerGone(const std::string& module, const std::string& method, int id) {
  ZRCallOutcome outcome;
  outcome.id = id;
  outcome.error = ZRError(module, method, "the broker is gone");
  return outcome;
}

}  // namespace

boost::shared_ptr<ZRBroker> ZRBroker::create(const std::string& name,
                                             boost::shared_ptr<ZRBrokerManager> manager) {
  if (!manager) {
    // A broker always belongs to a manager that outlives it: without one given, it joins the
    // process-wide manager, created and installed when there is none yet.
    manager = ZRBrokerManager::getInstance();
    if (!manager) {
      manager = boost::make_shared<ZRBrokerManager>();
      ZRBrokerManager::setInstance(manager);
    }
  }
  boost::shared_ptr<ZRBroker> broker(new ZRBroker(name, manager));
  manager->addBroker(broker);
  return broker;
}

ZRBroker::ZRBroker(const std::string& name, boost::shared_ptr<ZRBrokerManager> manager)
    : impl_(new Impl) {
  impl_->name = name;
  impl_->manager = manager;
}

ZRBroker::~ZRBroker() {
  try {
    shutdown();
  } catch (...) {
    // shutdown logs what goes wrong; a destructor lets nothing out.
  }
  // Calls still running finish before the broker's state goes; if the last reference was
  // dropped by one of them, that thread is left to finish on its own.
  impl_->pool->shutdown();
}

const std::string& ZRBroker::getName() const { return impl_->name; }

boost::weak_ptr<ZRBrokerManager> ZRBroker::getBrokerManager() const { return impl_->manager; }

boost::shared_ptr<ZRProxy> ZRBroker::getProxy(const std::string& moduleName, int /*flags*/) {
  return boost::make_shared<ZRProxy>(shared_from_this(), moduleName);
}

ko::SessionPtr ZRBroker::session() { return impl_->session; }

// Modules ----------------------------------------------------------------------------------------

void ZRBroker::registerModule(boost::shared_ptr<ZRModuleCore> module) {
  if (!module) throw ZRError(impl_->name, "registerModule", "no module given");
  const std::string& moduleName = module->getName();
  {
    std::lock_guard<std::mutex> lock(impl_->modulesMutex);
    if (impl_->shutDown) {
      throw ZRError(moduleName, "registerModule", "the broker " + impl_->name + " is shut down");
    }
    for (const auto& existing : impl_->modules) {
      if (existing->getName() == moduleName) {
        throw ZRError(moduleName, "registerModule",
                      "A module named \"" + moduleName + "\" is already registered");
      }
    }
    impl_->modules.push_back(module);
  }
  impl_->session->registerService(moduleName, ko::Object(module->object()));
  KO_LOG(logCategory(), ko::log::verbose, "registerModule") << "Registered " << moduleName;
}

void ZRBroker::unregisterModule(const std::string& name) {
  boost::shared_ptr<ZRModuleCore> removed;
  {
    std::lock_guard<std::mutex> lock(impl_->modulesMutex);
    auto it = std::find_if(impl_->modules.begin(), impl_->modules.end(),
                           [&](const auto& m) { return m->getName() == name; });
    if (it == impl_->modules.end()) return;
    removed = *it;
    impl_->modules.erase(it);
  }
  impl_->session->unregisterService(name);
  KO_LOG(logCategory(), ko::log::verbose, "unregisterModule") << "Unregistered " << name;
  // `removed` may be the last reference: the module is destroyed here, with no lock held.
}

boost::shared_ptr<ZRModuleCore> ZRBroker::getModuleByName(const std::string& name) const {
  return impl_->findModule(name);
}

std::vector<std::string> ZRBroker::getModuleNames() const {
  std::lock_guard<std::mutex> lock(impl_->modulesMutex);
  std::vector<std::string> names;
  names.reserve(impl_->modules.size());
  for (const auto& module : impl_->modules) names.push_back(module->getName());
  return names;
}

// Calls by name ----------------------------------------------------------------------------------

ZRValue ZRBroker::call(const std::string& module, const std::string& method,
                       const std::vector<ZRValue>& args) {
  boost::shared_ptr<ZRModuleCore> target = impl_->findModule(module);
  if (!target) throw unknownModule(module, method);
  return target->callMethod(method, args);
}

bool ZRBroker::Impl::submit(const std::string& module, const std::string& method,
                            std::function<void()> task) {
  boost::shared_ptr<ZRModuleCore> target = findModule(module);
  if (target && target->isMethodPrompt(method)) return pool->submitPrompt(std::move(task));
  return pool->submit(std::move(task));
}

bool ZRBroker::submitPrompt(std::function<void()> fn) {
  return impl_->pool->submitPrompt(std::move(fn));
}

void ZRBroker::callAsync(const std::string& module, const std::string& method,
                         std::vector<ZRValue> args, ZRCallCallback done,
                         ko::CallCancellationPtr cancellation) {
  boost::weak_ptr<ZRBroker> weak = shared_from_this();
  const std::uint64_t arrival = bexko::detail::stampArrival();
  auto task = [weak, module, method, args = std::move(args), done, arrival, cancellation] {
    boost::shared_ptr<ZRBroker> self = weak.lock();
    ZRCallOutcome outcome;
    if (!self) {
      outcome = brokerGone(module, method, 0);
    } else if (cancellation && cancellation->cancelled()) {
      outcome.error = ZRError(module, method, ko::CallCancelled().what());
    } else {
      bexko::detail::CancellationScope scope(cancellation.get());
      outcome = self->impl_->runCall(module, method, args, 0, arrival);
    }
    deliver(done, outcome, "callAsync");
  };
  if (!impl_->submit(module, method, task)) {
    deliver(done, brokerGone(module, method, 0), "callAsync");
  }
}

ZRCallOutcome ZRBroker::callNow(const std::string& module, const std::string& method,
                                const std::vector<ZRValue>& args) {
  return impl_->runCall(module, method, args, 0, bexko::detail::stampArrival());
}

ZRPostedCall ZRBroker::post(const std::string& module, const std::string& method,
                            std::vector<ZRValue> args, ZRCallCallback done) {
  ko::Promise<ZRValue> promise;
  ZRPostedCall posted;
  posted.result = promise.future();
  posted.id = impl_->nextPostedId(posted.result);

  boost::weak_ptr<ZRBroker> weak = shared_from_this();
  const int id = posted.id;
  auto finish = [id, done, promise](Impl* impl, const ZRCallOutcome& outcome) mutable {
    // The handler runs before the call counts as finished, so that whoever waits for the call
    // also sees what the handler did with its outcome; and the call stops counting as running
    // before its result is published, so that a waiter woken by the result never sees it
    // still running.
    deliver(done, outcome, "post");
    if (impl) impl->postFinished(id);
    if (outcome.ok) {
      promise.setValue(outcome.value);
    } else if (outcome.error) {
      promise.setError(outcome.error->what());
    } else {
      promise.setError(outcome.otherError);
    }
  };
  const std::uint64_t arrival = bexko::detail::stampArrival();
  auto task = [weak, module, method, args = std::move(args), id, finish, arrival]() mutable {
    boost::shared_ptr<ZRBroker> self = weak.lock();
    if (!self) {
      finish(nullptr, brokerGone(module, method, id));
      return;
    }
    finish(self->impl_.get(), self->impl_->runCall(module, method, args, id, arrival));
  };
  if (!impl_->submit(module, method, task)) finish(impl_.get(), brokerGone(module, method, id));
  return posted;
}

void ZRBroker::stop(const std::string& module, int id) {
  boost::shared_ptr<ZRModuleCore> target = impl_->findModule(module);
  if (!target) throw unknownModule(module, "stop");
  target->stop(id);
}

bool ZRBroker::wait(int id, int msecs) {
  ko::Future<ZRValue> result;
  {
    std::lock_guard<std::mutex> lock(impl_->postsMutex);
    auto it = impl_->runningPosts.find(id);
    if (it == impl_->runningPosts.end()) return impl_->finishedPosts.count(id) > 0;
    result = it->second;
  }
  return ko::Future<ZRValue>(result).wait(msecs) != ko::FutureState::Running;
}

bool ZRBroker::isRunning(int id) const {
  std::lock_guard<std::mutex> lock(impl_->postsMutex);
  return impl_->runningPosts.count(id) > 0;
}

ko::ExecutionContext& ZRBroker::threadPool() { return *impl_->pool; }

void ZRBroker::shutdown() {
  std::vector<boost::shared_ptr<ZRModuleCore>> modules;
  {
    std::lock_guard<std::mutex> lock(impl_->modulesMutex);
    if (impl_->shutDown) return;
    impl_->shutDown = true;
    modules = impl_->modules;
  }
  for (auto it = modules.rbegin(); it != modules.rend(); ++it) {
    try {
      (*it)->exit();
    } catch (const ZRError& e) {
      KO_LOG(logCategory(), ko::log::error, "shutdown")
          << "exit() of " << (*it)->getName() << " failed: " << e.toString();
    } catch (const std::exception& e) {
      KO_LOG(logCategory(), ko::log::error, "shutdown")
          << "exit() of " << (*it)->getName() << " failed: " << e.what();
    } catch (...) {
      KO_LOG(logCategory(), ko::log::error, "shutdown")
          << "exit() of " << (*it)->getName() << " failed";
    }
  }
  // Modules whose exit() did not unregister them are released too.
  std::vector<boost::shared_ptr<ZRModuleCore>> remaining;
  {
    std::lock_guard<std::mutex> lock(impl_->modulesMutex);
    remaining.swap(impl_->modules);
  }
  for (const auto& module : remaining) impl_->session->unregisterService(module->getName());
  modules.clear();
  remaining.clear();
}

}  // namespace ZR
