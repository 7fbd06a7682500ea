// The cost of the speech service around the engine, and how fast a stop ends a sentence.
//
//   bench_texttospeech --benchmark_filter=. (medians of 5 repetitions are reported)
//
// BM_SayThroughService: say() of a short sentence through ZRTextToSpeech (eSpeak NG, fast mode).
// BM_EngineAlone: the same sentence given to a TextToSpeechManager directly.
// BM_StopAllLatency: from stopAll() on one thread to the return of the say() it interrupted on
// another (the scripted backend holds the sentence until stopped).
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

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

void BM_EngineAlone(benchmark::State& state) {
  bexko::testing::TestHost host{bexko::testing::TestHostOptions{true}};
  auto packages =
      host.broker()->getProxy("PackageManager")->call<std::vector<ko::PackageInfo>>("packages");
  DiscardingCallback callback;
  ZR::TextToSpeechManager manager(&callback, boost::make_shared<ZR::TTSLanguageInfo>());
  if (!manager.initialize(packages)) {
    state.SkipWithError("no language installed");
    return;
  }
  manager.setCurrentLanguage("English");
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

}  // namespace

int main(int argc, char** argv) {
  // Synthesis as fast as the machine allows, not paced to real time.
  setenv("BEXKO_ENGINE_FAST", "1", 1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
