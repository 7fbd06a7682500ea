// HelloModule: a small module library written against the bexko SDK alone. It publishes one
// documented method, raises an event in the host's event store and emits a signal, the three
// things a client of any module sees.
#include <atomic>
#include <string>

#include <boost/shared_ptr.hpp>

#include <ko/log.h>
#include <ko/signal.h>
#include <zr/zrerror.h>
#include <zr/zrmemoryproxy.h>
#include <zr/zrmodule.h>

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("hello.module");
  return category;
}

const char* const kLastGreetedEvent = "HelloModule/LastGreeted";

class HelloModule : public ZR::ZRModule {
 public:
  explicit HelloModule(boost::shared_ptr<ZR::ZRBroker> broker)
      : ZR::ZRModule(broker, "HelloModule") {
    setModuleDescription("Greets people: an example of a module library built against bexko.");

    functionName("greet", getName(),
                 "Returns a greeting for someone, raises HelloModule/LastGreeted with their "
                 "name and emits the signal \"greeted\" with the greeting.");
    addParam("name", "Whom to greet.");
    setReturn("greeting", "\"Hello, <name>!\"");
    addMethodExample("python", "hello = ZRProxy(\"HelloModule\")\nprint(hello.greet(\"Ada\"))\n");
    bindMethodOverload(ZR::createFunctor(this, &HelloModule::greet));

    functionName("greetingCount", getName(), "How many greetings this module has made.");
    setReturn("count", "Greetings since the module started.");
    bindMethodOverload(ZR::createFunctor(this, &HelloModule::greetingCount));
    setMethodPrompt("greetingCount");

    objectBuilder().advertiseSignal("greeted", greeted);
  }

  void init() override {
    memory = getParentBroker()->getSpecialisedProxy<ZR::ZRMemoryProxy>("ZRMemory");
    memory->declareEvent(kLastGreetedEvent);
    KO_LOG(logCategory(), ko::log::info, "init") << "HelloModule is ready";
  }

  void exit() override {
    KO_LOG(logCategory(), ko::log::info, "exit")
        << "HelloModule stops after " << count.load() << " greetings";
    ZR::ZRModule::exit();
  }

  std::string greet(const std::string& name) {
    if (name.empty()) throw ZR::ZRError(getName(), "greet", "Whom should I greet?", nullptr, 0);
    const std::string greeting = "Hello, " + name + "!";
    ++count;
    memory->raiseEvent(kLastGreetedEvent, ZR::ZRValue(name));
    greeted.trigger(greeting);
    return greeting;
  }

  int greetingCount() { return count.load(); }

 private:
  boost::shared_ptr<ZR::ZRMemoryProxy> memory;
  ko::Signal<const std::string&> greeted;
  std::atomic<int> count{0};
};

}  // namespace

/// Entry point: the host calls it with its broker once the library is loaded.
extern "C" __attribute__((visibility("default"))) int _createModule(
    boost::shared_ptr<ZR::ZRBroker> broker) {
  try {
    ZR::ZRModule::createModule<HelloModule>(broker);
  } catch (const ZR::ZRError& e) {
    KO_LOG(logCategory(), ko::log::error, "_createModule")
        << "Failed to launch HelloModule: " << e.what();
  }
  return 0;
}

/// Entry point: nothing to release, the host shuts the module down.
extern "C" __attribute__((visibility("default"))) int _closeModule() { return 0; }
