// Cost of calling a module through the host: a typed call by name on the caller's thread, and
// a posted call's round trip through the host's thread pool.
#include <string>

#include <benchmark/benchmark.h>

#include <zr/zrbroker.h>
#include <zr/zrmodule.h>
#include <zr/zrproxy.h>

namespace {

class TextMeter : public ZR::ZRModule {
 public:
  explicit TextMeter(boost::shared_ptr<ZR::ZRBroker> broker) : ZR::ZRModule(broker, "TextMeter") {
    functionName("measure", getName(), "Number of bytes of a text.");
    addParam("text", "the text");
    setReturn("length", "its size in bytes");
    bindMethodOverload(ZR::createFunctor(this, &TextMeter::measure));
  }
  int measure(const std::string& text) { return static_cast<int>(text.size()); }
};

struct Host {
  Host() : broker(ZR::ZRBroker::create("bench")) {
    module = ZR::ZRModule::createModule<TextMeter>(broker);
    proxy = broker->getProxy("TextMeter");
  }
  ~Host() { broker->shutdown(); }

  boost::shared_ptr<ZR::ZRBroker> broker;
  boost::shared_ptr<TextMeter> module;
  boost::shared_ptr<ZR::ZRProxy> proxy;
};

const std::string sentence = "Hello, I am the robot of the house.";

void BM_CallByName(benchmark::State& state) {
  Host host;
  for (auto _ : state) {
    benchmark::DoNotOptimize(host.proxy->call<int>("measure", sentence));
  }
}
BENCHMARK(BM_CallByName);

void BM_PostedCallRoundTrip(benchmark::State& state) {
  Host host;
  for (auto _ : state) {
    ZR::ZRPostedCall posted = host.broker->post("TextMeter", "measure", {ZR::ZRValue(sentence)});
    benchmark::DoNotOptimize(posted.result.value());
  }
}
BENCHMARK(BM_PostedCallRoundTrip)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
