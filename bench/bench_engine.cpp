// Engine library benchmarks: what the eSpeak NG backend costs over calling libespeak-ng
// directly (tag conversion, position mapping, stereo audio, events), and how long a stop takes
// to end a sentence.
#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>
#include <espeak-ng/espeak_ng.h>
#include <espeak-ng/speak_lib.h>

#include <bexko/engine/espeakbackend.h>

namespace {

using bexko::engine::EspeakBackend;
using Clock = std::chrono::steady_clock;

const std::string kParagraph =
    "The robot walked into the kitchen, looked at the table and said hello to everyone. "
    "It was a quiet morning, and the sun was shining through the window. Nobody answered, so "
    "it turned around, raised one arm and asked whether anybody wanted a cup of coffee. "
    "Somebody laughed in the next room, and the robot went there to find out why.";

// Counts what an engine delivers and drops it.
class CountingCallback : public TextToSpeechEngineCallbackInterface {
 public:
  void TTSCallBack(short*, unsigned int count) override { shorts += count; }
  void TTSEventCallBack(ZR::TextToSpeechEngineEvent event, int, unsigned int) override {
    if (event != ZR::TTS_EVENT_END) ++events;
  }
  unsigned long long shorts = 0;
  unsigned long long events = 0;
};

std::unique_ptr<EspeakBackend> makeBackend(bool realTime) {
  auto backend = std::make_unique<EspeakBackend>(EspeakBackend::Options{realTime});
  backend->load({bexko::engine::LanguageRequest{"English", "en_US", "/bench"}});
  backend->setCurrentLanguage("English");
  return backend;
}

// Direct use of the library, as a program without the engine library would do it.
long long directSamples = 0;
int countSamples(short* wav, int count, espeak_EVENT*) {
  if (wav) directSamples += count;
  return 0;
}

long long synthesizeDirectly(const std::string& text) {
  auto lock = bexko::engine::lockEspeakLibrary();
  espeak_SetVoiceByName("gmw/en-US");
  espeak_SetParameter(espeakRATE, espeakRATE_NORMAL, 0);
  espeak_SetSynthCallback(countSamples);
  directSamples = 0;
  espeak_ng_Synthesize(text.c_str(), text.size() + 1, 0, POS_CHARACTER, 0,
                       espeakCHARS_UTF8 | espeakSSML, nullptr, nullptr);
  return directSamples;
}

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Real-time factor (seconds of audio per second of work) of the backend in fast mode and of
// direct library calls on the same text, measured alternately in one run; "overhead" is the
// backend's time over the direct time.
void BM_BackendVersusDirect(benchmark::State& state) {
  auto backend = makeBackend(false);
  const int rate = bexko::engine::espeakSampleRate();
  double backendTime = 0;
  double directTime = 0;
  double audio = 0;
  for (auto _ : state) {
    CountingCallback callback;
    auto start = Clock::now();
    backend->startSynthetizer(kParagraph, callback);
    backendTime += seconds(Clock::now() - start);
    audio += callback.shorts / 2.0 / rate;

    start = Clock::now();
    benchmark::DoNotOptimize(synthesizeDirectly(kParagraph));
    directTime += seconds(Clock::now() - start);
  }
  state.counters["backend_rtf"] = audio / backendTime;
  state.counters["direct_rtf"] = audio / directTime;
  state.counters["overhead"] = backendTime / directTime;
}
BENCHMARK(BM_BackendVersusDirect)->Unit(benchmark::kMillisecond)->MinTime(3.0);

void BM_BackendFast(benchmark::State& state) {
  auto backend = makeBackend(false);
  const int rate = bexko::engine::espeakSampleRate();
  double audio = 0;
  for (auto _ : state) {
    CountingCallback callback;
    backend->startSynthetizer(kParagraph, callback);
    audio += callback.shorts / 2.0 / rate;
  }
  state.counters["audio_s_per_s"] = benchmark::Counter(audio, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_BackendFast)->Unit(benchmark::kMillisecond);

void BM_Direct(benchmark::State& state) {
  const int rate = bexko::engine::espeakSampleRate();
  double audio = 0;
  for (auto _ : state) audio += static_cast<double>(synthesizeDirectly(kParagraph)) / rate;
  state.counters["audio_s_per_s"] = benchmark::Counter(audio, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Direct)->Unit(benchmark::kMillisecond);

// Time from stopSynthetizer to the return of startSynthetizer, with the sentence stopped
// while its audio flows (argument 1: paced to real time; 0: fast mode, where the stop lands
// while eSpeak computes).
void BM_StopLatency(benchmark::State& state) {
  const bool realTime = state.range(0) == 1;
  auto backend = makeBackend(realTime);
  std::string text;
  for (int i = 0; i < (realTime ? 1 : 40); ++i) text += kParagraph + " ";
  for (auto _ : state) {
    struct FirstAudio : CountingCallback {
      std::atomic<bool> heard{false};
      void TTSCallBack(short* samples, unsigned int count) override {
        CountingCallback::TTSCallBack(samples, count);
        heard = true;
      }
    } callback;
    Clock::time_point returned;
    std::thread speaker([&] {
      backend->startSynthetizer(text, callback);
      returned = Clock::now();
    });
    while (!callback.heard) std::this_thread::yield();
    if (realTime) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto stopAt = Clock::now();
    backend->stopSynthetizer();
    speaker.join();
    state.SetIterationTime(seconds(returned - stopAt));
  }
}
BENCHMARK(BM_StopLatency)
    ->Arg(1)
    ->Arg(0)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(30);

}  // namespace

BENCHMARK_MAIN();
