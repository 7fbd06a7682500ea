#pragma once

#include <memory>
#include <string>
#include <vector>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <ko/object.h>
#include <ko/signal.h>
#include <zr/export.h>
#include <zr/zrfunctor.h>
#include <zr/zrmethodinfo.h>
#include <zr/zrvalue.h>

namespace ZR {

class ZRBroker;
class ZRModuleCore;

/// The module's dynamic-object builder: publishes member functions as methods and signals on
/// the module's object.
class BEXKO_API ZRObjectBuilder {
 public:
  explicit ZRObjectBuilder(ZRModuleCore& module) : module_(module) {}

  /// Publishes `member` of `object` with `description` (usually the module's current method
  /// description). Throws ZRError when a method of that name and argument count exists.
  template <typename C, typename M>
  void advertiseMethod(const ZRMethodInfo& description, C* object, M member) {
    advertise(description, createFunctor(object, member));
  }
  void advertise(const ZRMethodInfo& description, ZRFunctorPtr functor);

  /// Publishes `signal` under `name`; the module keeps the signal alive.
  void advertiseSignal(const std::string& name, ko::SignalBase& signal);

 private:
  ZRModuleCore& module_;
};

/// The core of every module: its name, its published methods and documentation, its object of
/// signals, and the context of the call being served.
///
/// Methods are published in registration order and told apart by name and argument count.
/// The host calls them on its threads; the module protects its own state.
class BEXKO_API ZRModuleCore : public boost::enable_shared_from_this<ZRModuleCore> {
 public:
  ZRModuleCore(boost::shared_ptr<ZRBroker> broker, const std::string& name);
  virtual ~ZRModuleCore();
  ZRModuleCore(const ZRModuleCore&) = delete;
  ZRModuleCore& operator=(const ZRModuleCore&) = delete;

  const std::string& getName() const;
  /// The broker, or null once it is gone.
  boost::shared_ptr<ZRBroker> getParentBroker() const;

  // Documentation -----------------------------------------------------------------------------
  void setModuleDescription(const std::string& description);
  void addModuleExample(const std::string& language, const std::string& text);
  /// Documents an event key of the store "ZRMemory" that the module declares and raises: what
  /// its values are and when they come. Documenting a key again replaces its description.
  /// Documentation only: the key is declared in the store by declareEvent, as before.
  void addModuleEvent(const std::string& key, const std::string& description);
  /// Starts the description of one published method; `flags` is unused.
  void functionName(const std::string& name, const std::string& moduleName,
                    const std::string& description, int flags = 0);
  void addParam(const std::string& name, const std::string& description);
  void setReturn(const std::string& name, const std::string& description);
  void addMethodExample(const std::string& language, const std::string& text);
  /// The description being built since the last functionName.
  ZRMethodInfo& getCurrentMethodDescription();
  /// Publishes the current description with `functor` (an overload of its name).
  /// Throws ZRError when a method of that name and argument count exists.
  void bindMethodOverload(ZRFunctorPtr functor);
  ZRObjectBuilder& objectBuilder();

  /// Marks the published method `name` (every overload, also those bound later) as prompt: it
  /// never waits for long (no lock held across a sentence, no call to a slow module). The host
  /// runs prompt calls ahead of calls that wait, on threads of their own when every host
  /// thread is busy, so that a stop or a read answers while other clients' calls wait.
  void setMethodPrompt(const std::string& name);
  /// Whether `name` was marked prompt (or quick).
  bool isMethodPrompt(const std::string& name) const;
  /// Marks the published method `name` as quick, which implies prompt: it answers at once (it
  /// reads or stores a value under a short lock, and never calls another module or waits for
  /// one). The host may run a quick call on the thread that received it, with no hand-off to
  /// another thread, so a quick method that blocks holds back every client of that thread.
  void setMethodQuick(const std::string& name);
  /// Whether `name` was marked quick.
  bool isMethodQuick(const std::string& name) const;

  /// The module's published documentation.
  ZRModuleInfo moduleInfo() const;
  /// The module's object of signals, published in the broker's session under the module name.
  std::shared_ptr<ko::GenericObject> object() const;

  // Life cycle --------------------------------------------------------------------------------
  /// Registers the module with its broker (and its object in the session), then calls init().
  /// Throws ZRError when the broker is gone or a module of this name is registered.
  void initModule();
  virtual void init();
  /// Unregisters the module from its broker. Modules that override it call it last.
  virtual void exit();
  /// The host's stop of a posted call of this module. The default logs a warning.
  virtual void stop(const int& id);

  // Call context ------------------------------------------------------------------------------
  /// True while the method being served on this thread was posted (called without waiting).
  bool isPCalled() const;
  /// The call id of the method being served on this thread (its posted id; 0 for a call that
  /// was not posted).
  int getMethodID() const;

  // Host side ---------------------------------------------------------------------------------
  /// Calls a published method by name on this thread, choosing the overload by argument count.
  /// Throws ZRError (this module, `method`) for an unknown method, a wrong argument count or a
  /// bad argument; errors of the method itself pass unchanged.
  ZRValue callMethod(const std::string& method, const std::vector<ZRValue>& args);
  bool hasMethod(const std::string& method) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// The base class of modules.
class BEXKO_API ZRModule : public ZRModuleCore {
 public:
  ZRModule(boost::shared_ptr<ZRBroker> broker, const std::string& name);
  ~ZRModule() override;

  /// Constructs T with the broker, takes it in a shared pointer and calls initModule(). If that
  /// throws a ZRError, calls the module's exit() and throws a copy of the error; other
  /// exceptions pass unchanged. A constructor that throws frees the object.
  template <typename T>
  static boost::shared_ptr<T> createModule(boost::shared_ptr<ZRBroker> broker) {
    boost::shared_ptr<T> module(new T(broker));
    try {
      module->initModule();
    } catch (const ZRError& e) {
      module->exit();
      throw ZRError(e);
    }
    return module;
  }
};

}  // namespace ZR
