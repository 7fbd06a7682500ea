#pragma once

// Small modules used by the runtime's tests: each publishes documented methods the way a real
// module does, and notes its life-cycle calls in a journal the tests read.

#include <condition_variable>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <ko/packageinfo.h>
#include <zr/zrbroker.h>
#include <zr/zrmodule.h>

namespace sample {

/// What the sample modules did, in order ("init Calculator", "exit Calculator", "stop 3").
class Journal {
 public:
  static Journal& instance() {
    static Journal journal;
    return journal;
  }
  void note(const std::string& entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(entry);
  }
  std::vector<std::string> entries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
};

/// A module with overloads, typed arguments, a context probe and a blocking call that the
/// host's stop releases.
class Calculator : public ZR::ZRModule {
 public:
  explicit Calculator(boost::shared_ptr<ZR::ZRBroker> broker,
                      const std::string& name = "Calculator")
      : ZR::ZRModule(broker, name) {
    setModuleDescription("Does small sums.");
    addModuleExample("python", "calculator.add(1, 2)");

    functionName("add", getName(), "Adds two numbers.");
    addParam("a", "first number");
    addParam("b", "second number");
    setReturn("sum", "a + b");
    addMethodExample("python", "calculator.add(1, 2)");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::add));

    functionName("half", getName(), "Halves a number.");
    addParam("x", "the number");
    setReturn("half", "x / 2");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::half));

    functionName("greet", getName(), "Greets someone.");
    addParam("name", "who");
    setReturn("greeting", "the greeting");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::greet));

    functionName("greet", getName(), "Greets someone with a chosen word.");
    addParam("name", "who");
    addParam("word", "the greeting word");
    setReturn("greeting", "the greeting");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::greetWith));

    functionName("fail", getName(), "Throws the error named by kind.");
    addParam("kind", "\"zr\" or \"std\"");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::fail));

    functionName("words", getName(), "Splits a text at spaces.");
    addParam("text", "the text");
    setReturn("words", "the words");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::words));

    functionName("scale", getName(), "Multiplies every item.");
    addParam("values", "the numbers");
    addParam("factor", "the factor");
    setReturn("scaled", "the products");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::scale));

    functionName("packages", getName(), "Two sample packages.");
    setReturn("packages", "the packages");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::packages));

    functionName("countLanguages", getName(), "Counts the languages of packages.");
    addParam("packages", "the packages");
    setReturn("count", "the number of languages");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::countLanguages));

    functionName("remember", getName(), "Keeps a number.");
    addParam("value", "the number");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::remember));

    functionName("recall", getName(), "The number kept.");
    setReturn("value", "the number");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::recall));

    functionName("context", getName(), "[posted, id] of this call.");
    setReturn("context", "posted as 0 or 1, then the call id");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::context));

    functionName("nestedContext", getName(),
                 "Context of this call, of a nested call, and of this call again.");
    setReturn("contexts", "posted, id, nested posted, nested id, posted, id");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::nestedContext));

    functionName("length", getName(), "Number of bytes of a text.");
    addParam("text", "the text");
    setReturn("length", "its size");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::length));

    functionName("waitForStop", getName(), "Blocks until the host stops this posted call.");
    setReturn("id", "the call id");
    bindMethodOverload(ZR::createFunctor(this, &Calculator::waitForStop));
  }

  void init() override { Journal::instance().note("init " + getName()); }
  void exit() override {
    Journal::instance().note("exit " + getName());
    ZR::ZRModule::exit();
  }
  void stop(const int& id) override {
    Journal::instance().note("stop " + std::to_string(id));
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_.insert(id);
    changed_.notify_all();
  }

  int add(int a, int b) { return a + b; }
  float half(float x) { return x / 2; }
  std::string greet(const std::string& name) { return "Hello " + name; }
  std::string greetWith(const std::string& name, const std::string& word) {
    return word + " " + name;
  }
  void fail(const std::string& kind) {
    if (kind == "zr") throw ZR::ZRError("Elsewhere", "inner", "inner failure");
    throw std::logic_error("plain failure");
  }
  std::vector<std::string> words(const std::string& text) {
    std::vector<std::string> out;
    std::string current;
    for (char c : text) {
      if (c == ' ') {
        if (!current.empty()) out.push_back(current);
        current.clear();
      } else {
        current += c;
      }
    }
    if (!current.empty()) out.push_back(current);
    return out;
  }
  std::vector<float> scale(const std::vector<float>& values, float factor) {
    std::vector<float> out;
    for (float v : values) out.push_back(v * factor);
    return out;
  }
  std::vector<ko::PackageInfo> packages() {
    ko::PackageInfo french;
    french.setIdentifier("lang-fr");
    french.setName("French");
    french.setVersion("1.0");
    french.setPath("/packages/lang-fr");
    french.addLanguage(ko::LanguageInfo("fr_FR", "espeak"));
    ko::PackageInfo english;
    english.setIdentifier("lang-en");
    english.setName("English");
    english.addLanguage(ko::LanguageInfo("en_US", "espeak"));
    english.addLanguage(ko::LanguageInfo("en_GB", "espeak"));
    return {french, english};
  }
  int countLanguages(const std::vector<ko::PackageInfo>& packages) {
    int count = 0;
    for (const auto& p : packages) count += static_cast<int>(p.languages().size());
    return count;
  }
  void remember(int value) {
    std::lock_guard<std::mutex> lock(mutex_);
    kept_ = value;
  }
  int recall() {
    std::lock_guard<std::mutex> lock(mutex_);
    return kept_;
  }
  std::vector<int> context() { return {isPCalled() ? 1 : 0, getMethodID()}; }
  std::vector<int> nestedContext() {
    std::vector<int> out = context();
    auto nested = getParentBroker()->call(getName(), "context", {});
    for (const auto& v : nested.toArray()) out.push_back(v.toInt());
    auto after = context();
    out.insert(out.end(), after.begin(), after.end());
    return out;
  }
  int length(const std::string& text) { return static_cast<int>(text.size()); }
  int waitForStop() {
    const int id = getMethodID();
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return stopped_.count(id) > 0; });
    --waiting_;
    return id;
  }
  /// Waits until `count` waitForStop calls are blocked.
  void awaitWaiters(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return waiting_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<int> stopped_;
  int waiting_ = 0;
  int kept_ = 0;
};

/// A module whose init fails with a ZRError (or another exception when `plain` is set).
template <bool plain>
class BrokenInit : public ZR::ZRModule {
 public:
  explicit BrokenInit(boost::shared_ptr<ZR::ZRBroker> broker)
      : ZR::ZRModule(broker, "BrokenInit") {}
  void init() override {
    Journal::instance().note("init BrokenInit");
    if (plain) throw std::runtime_error("plain init failure");
    throw ZR::ZRError("BrokenInit", "init", "the engine is missing");
  }
  void exit() override {
    Journal::instance().note("exit BrokenInit");
    ZR::ZRModule::exit();
  }
};

/// A module with no methods, a signal, and the default stop.
class Quiet : public ZR::ZRModule {
 public:
  explicit Quiet(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name = "Quiet")
      : ZR::ZRModule(broker, name) {
    objectBuilder().advertiseSignal("onChange", changed);
  }
  void exit() override {
    Journal::instance().note("exit " + getName());
    ZR::ZRModule::exit();
  }
  ko::Signal<int> changed;
};

}  // namespace sample
