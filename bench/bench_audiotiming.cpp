// How well what the speech service raises matches what is heard, through the clock output
// (silent, timed like a sound card) on eSpeak NG.
//
//   bench_audiotiming [sentences]   (default: the whole corpus, 60 sentences with bookmarks)
//
// For each sentence of the corpus, spoken with say():
// - bookmark error: how much audio had been played when CurrentBookMark was raised, minus the
//   time the service schedules it for (its audio position less the 20 ms lead; mrkAdvance is
//   set to 0 so that the schedule is the audio time itself);
// - word error: how much audio had been played when CurrentWord was raised, minus the audio
//   position of that word's event;
// - first sample: from the call of say() to the first sample the output plays;
// Then, 40 times: a long sentence is stopped with stopAll() after 300 ms, and the time from the
// call of stopAll() to the output being silent (its queue emptied) is measured.
// Positive errors are late raises. The figures are printed as p50 / p99 / max.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <bexko/audiooutput/clockoutput.h>
#include <bexko/testing/testhost.h>
#include <ko/audiooutput.h>
#include <zr/zrmodule.h>
#include <zr/zrtexttospeech.h>

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

double bytesToMs(double bytes) { return bytes * 1000.0 / 88200.0; }

// The clock output, noting when a sentence's first sample was written (and so starts playing:
// the clock output has no latency of its own) and when it was first flushed (a stop).
class TimedOutput : public ko::AudioOutput {
 public:
  std::string name() const override { return clock.name(); }
  ko::AudioSampleInfo sampleInfo() const override { return clock.sampleInfo(); }
  bool write(const void* data, std::size_t bytes) override {
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (!firstWrite) firstWrite = Clock::now();
    }
    return clock.write(data, bytes);
  }
  bool drain() override { return clock.drain(); }
  void flush() override {
    clock.flush();
    std::lock_guard<std::mutex> lock(mutex);
    if (!firstFlush) firstFlush = Clock::now();
  }
  void pause() override { clock.pause(); }
  void resume() override { clock.resume(); }
  std::uint64_t writtenBytes() const override { return clock.writtenBytes(); }
  std::uint64_t playedBytes() const override { return clock.playedBytes(); }

  void forgetTimes() {
    std::lock_guard<std::mutex> lock(mutex);
    firstWrite.reset();
    firstFlush.reset();
  }
  std::optional<Clock::time_point> firstWriteTime() {
    std::lock_guard<std::mutex> lock(mutex);
    return firstWrite;
  }
  std::optional<Clock::time_point> firstFlushTime() {
    std::lock_guard<std::mutex> lock(mutex);
    return firstFlush;
  }

 private:
  bexko::audiooutput::ClockOutput clock;
  std::mutex mutex;
  std::optional<Clock::time_point> firstWrite;
  std::optional<Clock::time_point> firstFlush;
};

// The speech service, noting the audio positions of the words and marks the engine reports.
class InstrumentedService : public ZR::ZRTextToSpeech {
 public:
  using ZR::ZRTextToSpeech::ZRTextToSpeech;
  void TTSEventCallBack(ZR::TextToSpeechEngineEvent event, int value,
                        unsigned int position) override {
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (event == ZR::TTS_EVENT_WORD) wordPositions.push_back(position);
      if (event == ZR::TTS_EVENT_MARKER) markPositions[value] = position;
    }
    ZR::ZRTextToSpeech::TTSEventCallBack(event, value, position);
  }
  std::mutex mutex;
  std::vector<unsigned int> wordPositions;
  std::map<int, unsigned int> markPositions;
};

// Raises of one key, with how much of the sentence had been heard at each.
struct HeardRaise {
  ZR::ZRValue value;
  unsigned int heardBytes;
};

std::vector<std::string> corpus() {
  const std::vector<std::string> texts = {
      "Hello big world, and then some more words at the end finally.",
      "The robot walked to the kitchen and opened the fridge door slowly.",
      "Please place the red box on the second shelf of the cupboard.",
      "We met Doctor Smith at five near the station, and then we went home.",
      "Today the weather is sunny with a light breeze from the west.",
      "Can you tell me where the nearest charging station is located?",
      "I will count to ten and then you may open your eyes again.",
      "The meeting starts at nine in the large room on the first floor.",
      "My battery is almost empty, so I need to rest for a while.",
      "Turn left at the corner, walk ten steps, then turn right again.",
      "Thank you for visiting our museum, we hope you enjoyed the tour.",
      "Look at the picture on the wall, it shows a famous old harbour.",
      "This sentence has several bookmarks placed between its many words.",
      "Every morning I greet the people who arrive at the front desk.",
      "Raise your right hand, now your left hand, and now clap twice.",
  };
  std::vector<std::string> sentences;
  int mark = 1;
  for (int variant = 0; variant < 4; ++variant) {
    for (const std::string& text : texts) {
      // A bookmark after every (3 + variant)-th word.
      std::string marked;
      int words = 0;
      std::size_t start = 0;
      while (start < text.size()) {
        std::size_t end = text.find(' ', start);
        if (end == std::string::npos) end = text.size();
        marked += text.substr(start, end - start);
        if (++words % (3 + variant) == 0 && end < text.size()) {
          marked += " \\mrk=" + std::to_string(mark++) + "\\";
        }
        marked += end < text.size() ? " " : "";
        start = end + 1;
      }
      sentences.push_back(marked);
    }
  }
  return sentences;
}

struct Figures {
  std::vector<double> values;
  void add(double value) { values.push_back(value); }
  void print(const char* name, const char* target) {
    if (values.empty()) {
      std::printf("%-34s no samples\n", name);
      return;
    }
    std::sort(values.begin(), values.end());
    auto at = [this](double q) {
      return values[std::min(values.size() - 1, static_cast<std::size_t>(q * values.size()))];
    };
    std::printf("%-34s n=%4zu  p50 %7.2f ms  p99 %7.2f ms  max %7.2f ms  min %7.2f ms  (%s)\n",
                name, values.size(), at(0.5), at(0.99), values.back(), values.front(), target);
  }
};

}  // namespace

int main(int argc, char** argv) {
  // With an output, the engine is paced by the output, not by itself.
  auto output = std::make_shared<TimedOutput>();
  ko::setAudioOutput(output);
  std::vector<std::string> sentences = corpus();
  if (argc > 1) sentences.resize(std::min<std::size_t>(sentences.size(), std::atoi(argv[1])));

  Figures bookmarkError, wordError, firstSample, stopToSilence;
  int wordMismatches = 0;
  {
    bexko::testing::TestHost host{bexko::testing::TestHostOptions{true}};
    host.setPreference("com.veltra.robotwebpage", "ChosenLanguage", std::string("English"));
    auto tts = ZR::ZRModule::createModule<InstrumentedService>(host.broker());
    tts->setParameter("mrkAdvance", 0);

    std::mutex heardMutex;
    std::vector<HeardRaise> words, marks;
    auto recorder = [&](std::vector<HeardRaise>& into) {
      return [&, into = &into](const std::string&, const ZR::ZRValue& value) {
        const unsigned int heard = tts->xPlayedBytes();
        std::lock_guard<std::mutex> lock(heardMutex);
        into->push_back(HeardRaise{value, heard});
      };
    };
    const int wordObserver =
        host.services().memory->observe(ZR::ZRTextToSpeech::strCurrentWordEvent, recorder(words));
    const int markObserver = host.services().memory->observe(
        ZR::ZRTextToSpeech::strCurrentBookMarkEvent, recorder(marks));

    tts->say("Ready.");  // applies the voice
    for (const std::string& sentence : sentences) {
      {
        std::lock_guard<std::mutex> lock(heardMutex);
        words.clear();
        marks.clear();
      }
      {
        std::lock_guard<std::mutex> lock(tts->mutex);
        tts->wordPositions.clear();
        tts->markPositions.clear();
      }
      output->forgetTimes();
      const std::uint64_t sentenceStart = output->writtenBytes();
      const Clock::time_point said = Clock::now();
      tts->say(sentence);
      if (auto first = output->firstWriteTime()) firstSample.add(msSince(said, *first));

      std::lock_guard<std::mutex> lock(heardMutex);
      std::lock_guard<std::mutex> positions(tts->mutex);
      // The last raise of each key is the closing value of notifyTextDone.
      for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        if (i >= tts->wordPositions.size()) {
          ++wordMismatches;
          break;
        }
        const double error = bytesToMs(words[i].heardBytes) - bytesToMs(tts->wordPositions[i]);
        wordError.add(error);
        if (std::getenv("BENCH_VERBOSE") && (error < -20 || error > 20)) {
          std::printf("word %zu %s heard %u position %u written %llu of: %s\n", i,
                      words[i].value.toDebugString().c_str(), words[i].heardBytes,
                      tts->wordPositions[i],
                      static_cast<unsigned long long>(output->writtenBytes() - sentenceStart),
                      sentence.c_str());
        }
      }
      if (words.size() != tts->wordPositions.size() + 1) ++wordMismatches;
      for (std::size_t i = 0; i + 1 < marks.size(); ++i) {
        auto position = tts->markPositions.find(marks[i].value.toInt());
        if (position == tts->markPositions.end()) continue;
        const double markerMs =
            static_cast<double>(ko::audioBytesToMsec(position->second, ko::AudioSampleInfo()));
        const double scheduled = markerMs > 20 ? markerMs - 20 : markerMs;
        bookmarkError.add(bytesToMs(marks[i].heardBytes) - scheduled);
      }
    }
    host.services().memory->unobserve(wordObserver);
    host.services().memory->unobserve(markObserver);

    const std::string longSentence =
        "This long sentence goes on and on so that it is always stopped well before its end, "
        "however quickly the machine synthesises it.";
    for (int i = 0; i < 40; ++i) {
      output->forgetTimes();
      std::thread speaking([&] { tts->say(longSentence); });
      const std::uint64_t start = output->writtenBytes();
      while (output->playedBytes() < start + 300 * 88) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      const Clock::time_point stop = Clock::now();
      tts->stopAll();
      speaking.join();
      const auto flushed = output->firstFlushTime();
      if (flushed && output->writtenBytes() == output->playedBytes()) {
        stopToSilence.add(msSince(stop, *flushed));
      } else {
        std::printf("stop %d: the output was not silent after the stop\n", i);
      }
    }
    tts->exit();
  }
  ko::setAudioOutput(nullptr);

  std::printf("%zu sentences, clock output, eSpeak NG\n", sentences.size());
  bookmarkError.print("CurrentBookMark vs scheduled time", "target p99 <= 5 ms");
  wordError.print("CurrentWord vs word audio onset", "target p99 <= 20 ms");
  firstSample.print("say -> first sample played", "no target");
  stopToSilence.print("stopAll -> output silent", "target <= 20 ms");
  std::printf("sentences whose words and word events differ in number: %d\n", wordMismatches);
  return 0;
}
