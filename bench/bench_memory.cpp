// Throughput of the event store: raiseEvent called by name through ZRMemoryProxy, with 0, 1 and
// 8 subscribed modules. With subscribers, each iteration raises a batch and waits until every
// subscriber has received all of it, so the figure is raises delivered end to end per second.
// After the runs it prints the medians side by side, as ratios measured in this one run.
//
//   bench_memory            (medians of 5 repetitions, then the comparison)
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <benchmark/benchmark.h>
#include <boost/filesystem.hpp>

#include <bexko/services/builtinservices.h>
#include <zr/zrbroker.h>
#include <zr/zrmemoryproxy.h>
#include <zr/zrmodule.h>

namespace {

namespace fs = boost::filesystem;

/// A subscriber that only counts its deliveries.
class CountingModule : public ZR::ZRModule {
 public:
  CountingModule(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZR::ZRModule(std::move(broker), name) {
    functionName("onEvent", getName(), "Counts a delivery.");
    addParam("key", "Event key.");
    addParam("value", "Event value.");
    addParam("message", "Subscription message.");
    bindMethodOverload(ZR::createFunctor(this, &CountingModule::onEvent));
  }
  void onEvent(const std::string&, const ZR::ZRValue&, const std::string&) {
    delivered.fetch_add(1, std::memory_order_relaxed);
  }
  std::atomic<long> delivered{0};
};

/// Keeps the benchmark's files out of the user's home.
struct TemporaryXdg {
  TemporaryXdg() {
    root = fs::temp_directory_path() / fs::unique_path("bexko-bench-%%%%-%%%%");
    fs::create_directories(root);
    setenv("XDG_CONFIG_HOME", (root / "config").c_str(), 1);
    setenv("XDG_DATA_HOME", (root / "data").c_str(), 1);
  }
  ~TemporaryXdg() {
    boost::system::error_code ignored;
    fs::remove_all(root, ignored);
  }
  fs::path root;
};

void BM_RaiseEvent(benchmark::State& state) {
  TemporaryXdg xdg;
  const int subscriberCount = static_cast<int>(state.range(0));
  const int batch = 256;
  auto broker = ZR::ZRBroker::create("bench");
  auto services = bexko::services::createBuiltinServices(broker);
  std::vector<boost::shared_ptr<CountingModule>> subscribers;
  for (int i = 0; i < subscriberCount; ++i) {
    boost::shared_ptr<CountingModule> module(
        new CountingModule(broker, "Subscriber" + std::to_string(i)));
    module->initModule();
    services.memory->subscribeToEvent("Bench/Key", module->getName(), "onEvent");
    subscribers.push_back(module);
  }
  ZR::ZRMemoryProxy memory(broker);
  long expected = 0;
  int value = 0;
  for (auto _ : state) {
    for (int i = 0; i < batch; ++i) memory.raiseEvent("Bench/Key", ZR::ZRValue(value++));
    expected += batch;
    for (const auto& subscriber : subscribers) {
      while (subscriber->delivered.load(std::memory_order_relaxed) < expected) {
        std::this_thread::yield();
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * batch);
  broker->shutdown();
}

BENCHMARK(BM_RaiseEvent)
    ->ArgName("subscribers")
    ->Arg(0)
    ->Arg(1)
    ->Arg(8)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->UseRealTime();

/// The console report, keeping each benchmark's median raises per second for the comparison.
class MedianKeeper : public benchmark::ConsoleReporter {
 public:
  MedianKeeper() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
      auto rate = run.counters.find("items_per_second");
      if (rate != run.counters.end()) medians[run.run_name.args] = rate->second.value;
    }
  }
  std::map<std::string, double> medians;  // "subscribers:N" -> raises/s
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  MedianKeeper reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const auto& m = reporter.medians;
  auto rate = [&m](const char* args) {
    auto found = m.find(args);
    return found == m.end() ? 0.0 : found->second;
  };
  const double none = rate("subscribers:0"), one = rate("subscribers:1"),
               eight = rate("subscribers:8");
  std::printf("\nraises/s delivered end to end (medians):\n");
  std::printf("  0 subscribers %12.0f\n  1 subscriber  %12.0f\n  8 subscribers %12.0f\n", none, one,
              eight);
  if (one > 0 && eight > 0) {
    // With perfect fan-out, 8 subscribers would deliver 8 times the deliveries of one.
    std::printf("  ratio raises/s 8 subscribers / 1 subscriber: %.3f\n", eight / one);
    std::printf("  ratio deliveries/s 8 subscribers / 1 subscriber: %.3f\n", 8.0 * eight / one);
  }
  return 0;
}
