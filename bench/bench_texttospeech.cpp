// The cost of the speech service around the engine, and how fast a stop ends a sentence.
//
//   bench_texttospeech --benchmark_filter=. (medians of 5 repetitions are reported)
//
// BM_SayThroughService: say() of a short sentence through ZRTextToSpeech (eSpeak NG, fast mode).
// BM_EngineAlone: the same sentence given to a TextToSpeechManager directly.
// BM_StopAllLatency: from stopAll() on one thread to the return of the say() it interrupted on
// another (the scripted backend holds the sentence until stopped).
// BM_LongSayAgainstEngine/words/subscribers: a say() of 1,000 to 30,000 words through the
// service, with 0 or 100 modules subscribed to "ZRTextToSpeech/CurrentWord", against the same
// text given to a TextToSpeechManager directly, the two alternating in each iteration; the
// counter `ratio` is the service's time over the engine's. A summary of the medians follows the
// runs:
//
//   bench_texttospeech --benchmark_filter=LongSay
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <bexko/testing/scriptedbackend.h>
#include <bexko/testing/testhost.h>
#include <ko/clock.h>
#include <zr/tts/texttospeechmanager.h>
#include <zr/zrmodule.h>
#include <zr/zrproxy.h>
#include <zr/zrtexttospeech.h>

namespace {

const char* const kSentence = "Hello, how are you today?";

void chooseEnglish(bexko::testing::TestHost& host) {
  host.setPreference("com.veltra.robotwebpage", "ChosenLanguage", std::string("English"));
}

void BM_SayThroughService(benchmark::State& state) {
  bexko::testing::TestHost host{bexko::testing::TestHostOptions{true}};
  chooseEnglish(host);
  auto tts = ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker());
  tts->say(kSentence);  // the first sentence applies the voice
  for (auto _ : state) {
    tts->say(kSentence);
  }
  state.SetItemsProcessed(state.iterations());
}

// An engine callback that discards everything, as the service's audio callback does.
class DiscardingCallback : public TextToSpeechEngineCallbackInterface {
 public:
  void TTSCallBack(short*, unsigned int) override {}
  void TTSEventCallBack(ZR::TextToSpeechEngineEvent, int, unsigned int) override {}
};

/// The engine alone, without the speech service, on the packages of `host`, in English; null,
/// with the benchmark marked as failed, when no language is installed.
std::unique_ptr<ZR::TextToSpeechManager> englishEngine(benchmark::State& state,
                                                       bexko::testing::TestHost& host,
                                                       DiscardingCallback& callback) {
  auto packages =
      host.broker()->getProxy("PackageManager")->call<std::vector<ko::PackageInfo>>("packages");
  auto manager = std::make_unique<ZR::TextToSpeechManager>(
      &callback, boost::make_shared<ZR::TTSLanguageInfo>());
  if (!manager->initialize(packages)) {
    state.SkipWithError("no language installed");
    return nullptr;
  }
  manager->setCurrentLanguage("English");
  return manager;
}

void BM_EngineAlone(benchmark::State& state) {
  bexko::testing::TestHost host{bexko::testing::TestHostOptions{true}};
  DiscardingCallback callback;
  auto engine = englishEngine(state, host, callback);
  if (!engine) return;
  ZR::TextToSpeechManager& manager = *engine;
  manager.startSynthetizer(kSentence);
  for (auto _ : state) {
    manager.startSynthetizer(kSentence);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_StopAllLatency(benchmark::State& state) {
  bexko::testing::ScriptedBackend backend;
  backend.addVoice("Kenny", "English");
  bexko::testing::TestHost host;
  ko::PackageInfo package;
  package.setIdentifier("scripted-en");
  package.setName("Scripted English");
  package.addLanguage(ko::LanguageInfo("en_US", "tts_scripted"));
  host.addPackage(package);
  chooseEnglish(host);
  auto tts = ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker());
  backend.setBlocking(true);

  int started = 0;
  for (auto _ : state) {
    std::atomic<long long> returnedAt{0};
    std::thread speaking([&] {
      tts->say(kSentence);
      returnedAt = ko::Clock::now().time_since_epoch().count();
    });
    if (!backend.waitForSynthesis(++started, 10000)) {
      state.SkipWithError("the sentence never reached the engine");
      tts->stopAll();
      speaking.join();
      break;
    }
    const ko::Clock::time_point stopAt = ko::Clock::now();
    tts->stopAll();
    speaking.join();
    const auto latency = ko::Clock::duration(returnedAt.load()) - stopAt.time_since_epoch();
    state.SetIterationTime(std::chrono::duration<double>(latency).count());
  }
  backend.setBlocking(false);
}

// `words` words of plain English, a sentence every twelve words.
std::string longText(int words) {
  static const char* const vocabulary[] = {"the",   "robot", "walks",  "along", "a",
                                           "quiet", "river", "while",  "birds", "sing",
                                           "above", "green", "fields", "today"};
  std::string text;
  for (int i = 0; i < words; ++i) {
    if (i > 0) text += (i % 12 == 0) ? ". " : " ";
    text += vocabulary[i % (sizeof(vocabulary) / sizeof(vocabulary[0]))];
  }
  return text + ".";
}

/// A subscriber that only counts its deliveries.
class WordCounter : public ZR::ZRModule {
 public:
  WordCounter(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZR::ZRModule(std::move(broker), name) {
    functionName("onWord", getName(), "Counts a word.");
    addParam("key", "Event key.");
    addParam("value", "Event value.");
    addParam("message", "Subscription message.");
    bindMethodOverload(ZR::createFunctor(this, &WordCounter::onWord));
  }
  void onWord(const std::string&, const ZR::ZRValue&, const std::string&) {
    delivered.fetch_add(1, std::memory_order_relaxed);
  }
  std::atomic<long> delivered{0};
};

// The deliveries of `counter` once no more has come for 100 ms (at most 60 s).
long settledCount(const WordCounter& counter) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  long last = -1;
  while (std::chrono::steady_clock::now() < deadline) {
    const long now = counter.delivered.load();
    if (now == last) break;
    last = now;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return last;
}

void BM_LongSayAgainstEngine(benchmark::State& state) {
  const int words = static_cast<int>(state.range(0));
  const int subscriberCount = static_cast<int>(state.range(1));
  const std::string text = longText(words);
  bexko::testing::TestHost host{bexko::testing::TestHostOptions{true}};
  chooseEnglish(host);
  auto tts = ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker());
  std::vector<boost::shared_ptr<WordCounter>> subscribers;
  for (int i = 0; i < subscriberCount; ++i) {
    boost::shared_ptr<WordCounter> module(
        new WordCounter(host.broker(), "WordCounter" + std::to_string(i)));
    module->initModule();
    host.services().memory->subscribeToEvent(ZR::ZRTextToSpeech::strCurrentWordEvent,
                                             module->getName(), "onWord");
    subscribers.push_back(module);
  }
  DiscardingCallback callback;
  auto engine = englishEngine(state, host, callback);
  if (!engine) return;
  ZR::TextToSpeechManager& manager = *engine;
  tts->say(kSentence);  // the first sentence applies the voice
  host.clearEvents();   // the test host records every raise: start each run empty
  const long before = subscribers.empty() ? 0 : settledCount(*subscribers.front());

  double engineSeconds = 0, serviceSeconds = 0;
  for (auto _ : state) {
    const auto engineStart = std::chrono::steady_clock::now();
    manager.startSynthetizer(text);
    const auto serviceStart = std::chrono::steady_clock::now();
    tts->say(text);
    const auto serviceEnd = std::chrono::steady_clock::now();
    engineSeconds += std::chrono::duration<double>(serviceStart - engineStart).count();
    serviceSeconds += std::chrono::duration<double>(serviceEnd - serviceStart).count();
    state.SetIterationTime(std::chrono::duration<double>(serviceEnd - serviceStart).count());
    host.clearEvents();
  }
  state.counters["engine_s"] = engineSeconds / state.iterations();
  state.counters["say_s"] = serviceSeconds / state.iterations();
  state.counters["ratio"] = serviceSeconds / engineSeconds;
  // What the first subscriber got per say, once its deliveries have settled.
  if (!subscribers.empty()) {
    const long delivered = settledCount(*subscribers.front()) - before;
    state.counters["words_delivered"] = static_cast<double>(delivered) / state.iterations();
  }
}

BENCHMARK(BM_SayThroughService)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_EngineAlone)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_StopAllLatency)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(200)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

BENCHMARK(BM_LongSayAgainstEngine)
    ->ArgNames({"words", "subscribers"})
    ->ArgsProduct({{1000, 10000, 30000}, {0, 100}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

/// The console report, keeping the median ratio of each long say for the summary.
class RatioKeeper : public benchmark::ConsoleReporter {
 public:
  RatioKeeper() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
      auto ratio = run.counters.find("ratio");
      if (ratio != run.counters.end()) ratios[run.run_name.args] = ratio->second.value;
    }
  }
  std::map<std::string, double> ratios;  // "words:N/subscribers:M" -> say / engine alone
};

}  // namespace

int main(int argc, char** argv) {
  // Synthesis as fast as the machine allows, not paced to real time.
  setenv("BEXKO_ENGINE_FAST", "1", 1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioKeeper reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  if (!reporter.ratios.empty()) {
    std::printf("\nsay through the service / engine alone on the same text (medians):\n");
    for (const auto& entry : reporter.ratios) {
      std::printf("  %-28s %.3f\n", entry.first.c_str(), entry.second);
    }
  }
  return 0;
}
