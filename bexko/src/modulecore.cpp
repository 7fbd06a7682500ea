#include <zr/zrmodulecore.h>

#include <mutex>
#include <set>
#include <unordered_map>

#include <boost/weak_ptr.hpp>

#include <ko/log.h>
#include <zr/zrbroker.h>
#include <zr/zrerror.h>
#include <zr/zrmodule.h>

#include "callcontext.h"

namespace ZR {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("bexko.module");
  return category;
}

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

// "1", "1 or 2", "0, 1 or 3"
std::string countList(const std::vector<int>& counts) {
  std::string text;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    if (i > 0) text += (i + 1 == counts.size()) ? " or " : ", ";
    text += std::to_string(counts[i]);
  }
  return text;
}

std::string argumentWord(int count) { return count == 1 ? "argument" : "arguments"; }

// The description given to ZRObjectBuilder::advertise, for the binding it makes on this thread.
thread_local const ZRMethodInfo* advertisedDescription = nullptr;

}  // namespace

struct ZRModuleCore::Impl {
  struct Method {
    ZRMethodInfo info;
    ZRFunctorPtr functor;
  };

  boost::weak_ptr<ZRBroker> broker;
  std::string name;
  std::shared_ptr<ko::GenericObject> object;
  std::unique_ptr<ZRObjectBuilder> builder;

  mutable std::mutex mutex;
  std::string description;
  std::vector<ZRExampleInfo> examples;
  std::vector<ZREventInfo> events;  // documentation order
  std::vector<Method> methods;      // registration order
  // Positions in `methods` by name, so that a call finds its method without comparing names.
  std::unordered_map<std::string, std::vector<std::size_t>> byName;
  std::set<std::string> promptMethods;
  std::set<std::string> quickMethods;  // also in promptMethods
  ZRMethodInfo current;
};

ZRModuleCore::ZRModuleCore(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : impl_(new Impl) {
  impl_->broker = broker;
  impl_->name = name;
  impl_->object = std::make_shared<ko::GenericObject>(name);
  impl_->builder.reset(new ZRObjectBuilder(*this));
}

ZRModuleCore::~ZRModuleCore() {
  // The signals were members of the derived module and are gone: the object, which clients may
  // still hold, must not reach them.
  impl_->object->clearSignals();
}

const std::string& ZRModuleCore::getName() const { return impl_->name; }

boost::shared_ptr<ZRBroker> ZRModuleCore::getParentBroker() const { return impl_->broker.lock(); }

// Documentation ----------------------------------------------------------------------------------

void ZRModuleCore::setModuleDescription(const std::string& description) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->description = description;
}

void ZRModuleCore::addModuleExample(const std::string& language, const std::string& text) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->examples.push_back(ZRExampleInfo{language, text});
}

void ZRModuleCore::addModuleEvent(const std::string& key, const std::string& description) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  for (auto& event : impl_->events) {
    if (event.key == key) {
      event.description = description;
      return;
    }
  }
  impl_->events.push_back(ZREventInfo{key, description});
}

void ZRModuleCore::functionName(const std::string& name, const std::string& moduleName,
                                const std::string& description, int /*flags*/) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->current = ZRMethodInfo();
  impl_->current.name = name;
  impl_->current.moduleName = moduleName;
  impl_->current.description = description;
}

void ZRModuleCore::addParam(const std::string& name, const std::string& description) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->current.parameters.push_back(ZRParameterInfo{name, description});
}

void ZRModuleCore::setReturn(const std::string& name, const std::string& description) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->current.hasReturn = true;
  impl_->current.returnInfo = ZRParameterInfo{name, description};
}

void ZRModuleCore::addMethodExample(const std::string& language, const std::string& text) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->current.examples.push_back(ZRExampleInfo{language, text});
}

ZRMethodInfo& ZRModuleCore::getCurrentMethodDescription() {
  // Documentation is built by the module's constructor, on one thread, before the module is
  // published; the reference is meant for that phase.
  return impl_->current;
}

void ZRModuleCore::bindMethodOverload(ZRFunctorPtr functor) {
  const std::string& moduleName = impl_->name;
  Impl::Method method;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    method.info = advertisedDescription ? *advertisedDescription : impl_->current;
  }
  if (!functor) {
    throw ZRError(moduleName, "bindMethodOverload",
                  "no function given for the method " + quoted(method.info.name));
  }
  if (method.info.name.empty()) {
    throw ZRError(moduleName, "bindMethodOverload", "a published method needs a name");
  }
  method.functor = std::move(functor);
  method.info.arity = method.functor->arity();
  if (method.info.moduleName.empty()) method.info.moduleName = moduleName;
  if (!method.info.parameters.empty() &&
      static_cast<int>(method.info.parameters.size()) != method.info.arity) {
    KO_LOG(logCategory(), ko::log::warning, "bindMethodOverload")
        << moduleName << "." << method.info.name << " documents " << method.info.parameters.size()
        << " parameters but takes " << method.info.arity;
  }

  std::lock_guard<std::mutex> lock(impl_->mutex);
  for (const auto& existing : impl_->methods) {
    if (existing.info.name == method.info.name && existing.info.arity == method.info.arity) {
      throw ZRError(moduleName, "bindMethodOverload",
                    "the method " + quoted(method.info.name) + " with " +
                        std::to_string(method.info.arity) + " " + argumentWord(method.info.arity) +
                        " is already published");
    }
  }
  impl_->byName[method.info.name].push_back(impl_->methods.size());
  impl_->methods.push_back(std::move(method));
}

ZRObjectBuilder& ZRModuleCore::objectBuilder() { return *impl_->builder; }

ZRModuleInfo ZRModuleCore::moduleInfo() const {
  ZRModuleInfo info;
  info.name = impl_->name;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    info.description = impl_->description;
    info.examples = impl_->examples;
    info.events = impl_->events;
    info.methods.reserve(impl_->methods.size());
    for (const auto& method : impl_->methods) info.methods.push_back(method.info);
  }
  info.signals = impl_->object->signalNames();
  return info;
}

std::shared_ptr<ko::GenericObject> ZRModuleCore::object() const { return impl_->object; }

// ZRObjectBuilder --------------------------------------------------------------------------------

void ZRObjectBuilder::advertise(const ZRMethodInfo& description, ZRFunctorPtr functor) {
  // Publishes through the module's own binding, with this description instead of the one
  // being built.
  struct Scope {
    explicit Scope(const ZRMethodInfo* d) { advertisedDescription = d; }
    ~Scope() { advertisedDescription = nullptr; }
  } scope(&description);
  module_.bindMethodOverload(std::move(functor));
}

void ZRObjectBuilder::advertiseSignal(const std::string& name, ko::SignalBase& signal) {
  module_.object()->advertiseSignal(name, &signal);
}

// Life cycle -------------------------------------------------------------------------------------

void ZRModuleCore::initModule() {
  boost::shared_ptr<ZRBroker> broker = getParentBroker();
  if (!broker) throw ZRError(impl_->name, "initModule", "the broker is gone");
  boost::shared_ptr<ZRModuleCore> self;
  try {
    self = shared_from_this();
  } catch (const boost::bad_weak_ptr&) {
    throw ZRError(impl_->name, "initModule",
                  "the module must be owned by a shared pointer before it is registered");
  }
  broker->registerModule(self);
  init();
}

void ZRModuleCore::init() {}

void ZRModuleCore::exit() {
  boost::shared_ptr<ZRBroker> broker = getParentBroker();
  if (!broker) return;
  // Only this module's own registration: a namesake registered later is not ours to remove.
  if (broker->getModuleByName(impl_->name).get() == this) broker->unregisterModule(impl_->name);
}

void ZRModuleCore::stop(const int& id) {
  KO_LOG(logCategory(), ko::log::warning, "stop")
      << impl_->name << " cannot stop posted calls; the call " << id << " goes on";
}

// Call context -----------------------------------------------------------------------------------

bool ZRModuleCore::isPCalled() const {
  const bexko::detail::CallFrame* frame = bexko::detail::innermostFrameOf(this);
  return frame && frame->posted;
}

int ZRModuleCore::getMethodID() const {
  const bexko::detail::CallFrame* frame = bexko::detail::innermostFrameOf(this);
  return frame ? frame->id : 0;
}

// Host side --------------------------------------------------------------------------------------

void ZRModuleCore::setMethodPrompt(const std::string& name) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->promptMethods.insert(name);
}

bool ZRModuleCore::isMethodPrompt(const std::string& name) const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->promptMethods.count(name) > 0;
}

void ZRModuleCore::setMethodQuick(const std::string& name) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->promptMethods.insert(name);
  impl_->quickMethods.insert(name);
}

bool ZRModuleCore::isMethodQuick(const std::string& name) const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->quickMethods.count(name) > 0;
}

bool ZRModuleCore::hasMethod(const std::string& method) const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->byName.count(method) > 0;
}

ZRValue ZRModuleCore::callMethod(const std::string& method, const std::vector<ZRValue>& args) {
  // Taken first, so that any call the method makes in turn is an ordinary one.
  const int postedId = bexko::detail::takePostedCallMark();

  ZRFunctorPtr functor;
  std::vector<int> counts;  // the arities published under this name, when none fits
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    auto found = impl_->byName.find(method);
    if (found != impl_->byName.end()) {
      for (std::size_t index : found->second) {
        if (impl_->methods[index].info.arity == static_cast<int>(args.size())) {
          functor = impl_->methods[index].functor;
          break;
        }
      }
      if (!functor) {
        for (std::size_t index : found->second) counts.push_back(impl_->methods[index].info.arity);
      }
    }
  }
  if (!functor && counts.empty()) {
    throw ZRError(impl_->name, method, impl_->name + " has no method " + quoted(method));
  }
  if (!functor) {
    const bool one = counts.size() == 1 && counts[0] == 1;
    throw bexko::detail::RefusedArguments(
        impl_->name, method,
        impl_->name + "." + method + " takes " + countList(counts) + " " +
            (one ? "argument" : "arguments") + ", not " + std::to_string(args.size()));
  }

  bexko::detail::CallFrameGuard frame(this, postedId != 0, postedId);
  try {
    return functor->call(args);
  } catch (const bexko::detail::RefusedArguments& e) {
    // A call the method made in turn was refused: a failure of this method, not a bad
    // argument of its caller.
    throw ZRError(e);
  } catch (const ZRArgumentError& e) {
    // Reported as a refusal of this call only, so that an outer call of another method does
    // not take it for a bad argument of its own.
    if (e.index() > 0) {
      throw bexko::detail::RefusedArguments(
          impl_->name, method, "argument " + std::to_string(e.index()) + ": " + e.what());
    }
    throw bexko::detail::RefusedArguments(impl_->name, method, e.what());
  }
}

// ZRModule ---------------------------------------------------------------------------------------

ZRModule::ZRModule(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : ZRModuleCore(std::move(broker), name) {}

ZRModule::~ZRModule() = default;

}  // namespace ZR
