// The speech service playing through an audio output (the clock output: silent, timed like a
// sound card): the closing events of a sentence, words and bookmarks raised when they are
// heard, the play position, stops that silence the output, and files that hold the speech.
#include <zr/zrtexttospeech.h>

#include <chrono>
#include <future>
#include <mutex>

#include <sndfile.h>

#include <bexko/audiooutput/clockoutput.h>
#include <ko/audiooutput.h>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

using ZR::TTS_EVENT_MARKER;
using ZR::TTS_EVENT_WORD;
using Clock = std::chrono::steady_clock;

constexpr unsigned int kBytesPerMs = 88;  // 88.2 in the host's format: bytes / 88 >= ms

// What the listener had heard, in ms of the current sentence, when each raise of a key came.
struct HeardRaise {
  std::string value;
  unsigned int heardMs;
};

/// The speech service with the clock output chosen by the host (the output is set before the
/// service starts, as the daemon does), and a recorder of what had been heard at each raise.
class AudioOutputTest : public SpeechServiceTest {
 protected:
  explicit AudioOutputTest(TestHostOptions options = {})
      : SpeechServiceTest(options), output(std::make_shared<audiooutput::ClockOutput>()) {
    ko::setAudioOutput(output);
  }
  ~AudioOutputTest() override {
    for (int id : observers) host.services().memory->unobserve(id);
    ko::setAudioOutput(nullptr);
  }

  /// Records, for every raise of `key`, its value and how much of the sentence had been heard.
  void recordHeard(const std::string& key) {
    observers.push_back(
        host.services().memory->observe(key, [this](const std::string&, const ZR::ZRValue& value) {
          const unsigned int heard = tts->xPlayedBytes();
          std::lock_guard<std::mutex> lock(heardMutex);
          heardRaises.push_back(HeardRaise{value.toDebugString(), heard * 10 / 882});
        }));
  }
  std::vector<HeardRaise> heard() {
    std::lock_guard<std::mutex> lock(heardMutex);
    return heardRaises;
  }

  std::shared_ptr<audiooutput::ClockOutput> output;
  std::vector<int> observers;
  std::mutex heardMutex;
  std::vector<HeardRaise> heardRaises;
};

// Audio blocks of `ms` milliseconds.
ScriptedEvent audioMs(unsigned int ms, short level = 8000) {
  return scriptedAudio(static_cast<int>(ms * 2205 / 100), level);
}

long long millisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// --- A sentence, start to end ----------------------------------------------------------------

TEST_F(AudioOutputTest, SentenceEndsWithTheClosingValuesOnceItHasBeenHeard) {
  backend.setScript(
      {{TTS_EVENT_WORD, 0, 0}, audioMs(150), {TTS_EVENT_WORD, 6, bytesForMs(150)}, audioMs(150)});
  const Clock::time_point start = Clock::now();
  tts->say("Hello world");
  // The output paces the sentence: say returns once its 300 ms have been heard.
  EXPECT_GE(millisecondsSince(start), 290);
  EXPECT_EQ(output->playedBytes(), output->writtenBytes());
  EXPECT_EQ(output->writtenBytes(), 2u * 3307u * 4u);
  EXPECT_THAT(serviceEvents(),
              ElementsAre(R"(Status=[1, "enqueued"])", "TextStarted=1", "TextDone=0",
                          R"(Status=[1, "started"])", R"(CurrentSentence="Hello world")",
                          "PositionOfCurrentWord=1", R"(CurrentWord="Hello")",
                          "PositionOfCurrentWord=7", R"(CurrentWord="world")", "TextDone=1",
                          "TextStarted=0", "CurrentBookMark=0", "PositionOfCurrentWord=0",
                          R"(CurrentWord="")", R"(Status=[1, "done"])", R"(CurrentSentence="")"));
}

TEST_F(AudioOutputTest, OnlyTheQuietEndOfASentenceIsLeftOut) {
  // A pause inside the sentence is heard whole; the silence that ends it is not played.
  backend.setScript({audioMs(100), audioMs(300, 0), audioMs(100), audioMs(400, 300)});
  tts->say("Hello, world");
  EXPECT_EQ(output->writtenBytes(), (2205u + 6615u + 2205u) * 4u);
}

// --- Words and bookmarks, when they are heard --------------------------------------------------

TEST_F(AudioOutputTest, WordsAreRaisedWhenTheirAudioIsHeard) {
  recordHeard(ZR::ZRTextToSpeech::strCurrentWordEvent);
  // The engine reports every word at once, ahead of the audio, as a fast engine does.
  backend.setScript({{TTS_EVENT_WORD, 0, 0},
                     {TTS_EVENT_WORD, 4, bytesForMs(200)},
                     {TTS_EVENT_WORD, 8, bytesForMs(450)},
                     audioMs(700)});
  tts->say("one two three");
  const std::vector<HeardRaise> raises = heard();
  ASSERT_EQ(raises.size(), 4u);  // the last one is notifyTextDone's ""
  const unsigned int onsets[] = {0, 200, 450};
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(raises[i].value);
    EXPECT_GE(raises[i].heardMs, onsets[i]);
    // Never a word behind: before the next one's onset.
    EXPECT_LT(raises[i].heardMs, onsets[i] + 150);
  }
  EXPECT_EQ(raises[3].value, R"("")");
}

TEST_F(AudioOutputTest, BookmarksAreRaisedAtTheirAudioTime) {
  recordHeard(ZR::ZRTextToSpeech::strCurrentBookMarkEvent);
  tts->setParameter("mrkAdvance", 0);
  // Reported together, ahead of their audio. A bookmark is raised
  // 20 ms before its position; a paced engine's timer counted the whole offset again from the
  // moment the engine reported the mark, so the third came 600 ms late.
  // The engine reports each mark after the audio before it: the first block is playing.
  backend.setScript({audioMs(100),
                     {TTS_EVENT_MARKER, 1, bytesForMs(220)},
                     {TTS_EVENT_MARKER, 2, bytesForMs(420)},
                     {TTS_EVENT_MARKER, 3, bytesForMs(620)},
                     audioMs(800)});
  tts->say("one \\mrk=1\\ two \\mrk=2\\ three \\mrk=3\\ four");
  const std::vector<HeardRaise> raises = heard();
  ASSERT_EQ(raises.size(), 4u);  // the last one is notifyTextDone's 0
  const unsigned int targets[] = {200, 400, 600};
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(raises[i].value);
    EXPECT_EQ(raises[i].value, std::to_string(i + 1));
    EXPECT_GE(raises[i].heardMs + 1, targets[i]);
    EXPECT_LT(raises[i].heardMs, targets[i] + 100);
  }
  // Each bookmark was scheduled against the play position of its time, not against 0.
  const std::vector<std::string> sent = logs("markerCB", ko::log::verbose);
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_THAT(sent[2], ::testing::HasSubstr("position msec: 620"));
  EXPECT_THAT(sent[2], ::testing::Not(::testing::HasSubstr("current time in the sink: 0")));
}

TEST_F(AudioOutputTest, PlayPositionFollowsWhatHasBeenHeard) {
  backend.setScript({{TTS_EVENT_WORD, 0, 0}, audioMs(600)});
  auto speaking = std::async(std::launch::async, [this] { tts->say("Hello"); });
  ASSERT_TRUE(
      host.waitForEvent(ZR::ZRTextToSpeech::strCurrentWordEvent, std::string("Hello"), 5000));
  const unsigned int early = tts->xPlayedBytes();
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  const unsigned int later = tts->xPlayedBytes();
  EXPECT_GT(later, early);
  EXPECT_LE(later, output->writtenBytes());
  speaking.get();
  // The next sentence counts from its own start.
  EXPECT_EQ(tts->xPlayedBytes(), 0u);
}

// --- Stopping and pausing --------------------------------------------------------------------

TEST_F(AudioOutputTest, StopAllEmptiesTheOutputAndRaisesNoClosingValues) {
  recordHeard(ZR::ZRTextToSpeech::strCurrentWordEvent);
  backend.setScript({{TTS_EVENT_WORD, 0, 0},
                     {TTS_EVENT_WORD, 4, bytesForMs(4000)},
                     audioMs(2000),
                     audioMs(3000)});
  auto speaking = std::async(std::launch::async, [this] { tts->say("one two"); });
  ASSERT_TRUE(host.waitForEvent(ZR::ZRTextToSpeech::strCurrentWordEvent, std::string("one"), 5000));
  const Clock::time_point stop = Clock::now();
  tts->stopAll();
  // Nothing is left to hear the moment the stop returns, nor after the engine returned.
  EXPECT_EQ(output->writtenBytes(), output->playedBytes());
  speaking.get();
  EXPECT_LT(millisecondsSince(stop), 1000);
  EXPECT_EQ(output->writtenBytes(), output->playedBytes());
  EXPECT_LT(output->writtenBytes(), 2000u * kBytesPerMs);
  // The word not heard is not announced, and an interrupted sentence closes without TextDone 1.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(heard().size(), 1u);
  EXPECT_THAT(statusEvents(), ElementsAre(R"(Status=[1, "enqueued"])", R"(Status=[1, "started"])",
                                          R"(Status=[1, "stopped"])"));
  EXPECT_THAT(serviceEvents(ZR::ZRTextToSpeech::strTextDoneEvent), ElementsAre("TextDone=0"));
  EXPECT_THAT(serviceEvents(ZR::ZRTextToSpeech::strTextInterruptedEvent),
              ElementsAre("TextInterrupted=1"));

  // The next sentence is heard whole.
  backend.setScript({audioMs(100)});
  const std::uint64_t before = output->writtenBytes();
  tts->say("again");
  EXPECT_EQ(output->writtenBytes() - before, 2205u * 4u);
}

TEST_F(AudioOutputTest, PauseHoldsWhatIsHeardUntilResume) {
  backend.setScript({{TTS_EVENT_WORD, 0, 0}, audioMs(300)});
  auto speaking = std::async(std::launch::async, [this] { tts->say("Hello"); });
  ASSERT_TRUE(
      host.waitForEvent(ZR::ZRTextToSpeech::strCurrentWordEvent, std::string("Hello"), 5000));
  tts->pause();
  const std::uint64_t paused = output->playedBytes();
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  EXPECT_EQ(output->playedBytes(), paused);
  EXPECT_EQ(speaking.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
  tts->resume();
  speaking.get();
  EXPECT_THAT(statusEvents(), ::testing::Contains(R"(Status=[1, "done"])"));
}

// --- Files -----------------------------------------------------------------------------------

struct SoundFile {
  sf_count_t frames = 0;
  int channels = 0;
  int rate = 0;
  short peak = 0;
};

SoundFile readSoundFile(const std::string& path, bool raw) {
  SF_INFO info{};
  if (raw) {
    info.samplerate = 22050;
    info.channels = 2;
    info.format = SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE;
  }
  SoundFile result;
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  if (!file) return result;
  result.frames = info.frames;
  result.channels = info.channels;
  result.rate = info.samplerate;
  std::vector<short> samples(static_cast<std::size_t>(info.frames * info.channels));
  sf_read_short(file, samples.data(), static_cast<sf_count_t>(samples.size()));
  sf_close(file);
  for (short sample : samples) {
    result.peak = std::max<short>(result.peak, static_cast<short>(std::abs(sample)));
  }
  return result;
}

TEST_F(AudioOutputTest, SayToFileWritesEverySampleAtFullSpeedAndPlaysNothing) {
  // Two seconds of audio, its quiet end included: a file keeps the engine's audio as it is.
  backend.setScript({audioMs(1500), audioMs(500, 0)});
  for (const std::string name : {"speech.wav", "speech.raw"}) {
    SCOPED_TRACE(name);
    const std::string path = host.root() + "/" + name;
    const Clock::time_point start = Clock::now();
    tts->sayToFile("Hello", path);
    EXPECT_LT(millisecondsSince(start), 1500);
    const SoundFile file = readSoundFile(path, name == "speech.raw");
    EXPECT_EQ(file.frames, 44100);
    EXPECT_EQ(file.channels, 2);
    EXPECT_EQ(file.rate, 22050);
    EXPECT_EQ(file.peak, 8000);
  }
  EXPECT_EQ(output->writtenBytes(), 0u);
  EXPECT_THAT(serviceEvents(ZR::ZRTextToSpeech::strTextDoneEvent),
              ElementsAre("TextDone=0", "TextDone=1", "TextDone=0", "TextDone=1"));
}

// --- On eSpeak NG ----------------------------------------------------------------------------

class EspeakAudioOutputTest : public AudioOutputTest {
 protected:
  EspeakAudioOutputTest() : AudioOutputTest(TestHostOptions{true}) { locales.clear(); }
};

TEST_F(EspeakAudioOutputTest, SentenceIsHeardWithItsBookmarksInOrderThenCloses) {
  recordHeard(ZR::ZRTextToSpeech::strCurrentBookMarkEvent);
  const Clock::time_point start = Clock::now();
  tts->say("Hello \\mrk=1\\ big \\mrk=2\\ world, and \\mrk=3\\ then some more words.");
  const long long elapsed = millisecondsSince(start);
  const std::vector<HeardRaise> raises = heard();
  ASSERT_EQ(raises.size(), 4u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(raises[i].value, std::to_string(i + 1));
  // Heard in turn, well inside the sentence; the fourth raise is the closing 0.
  EXPECT_LT(raises[0].heardMs, raises[1].heardMs);
  EXPECT_LT(raises[1].heardMs, raises[2].heardMs);
  EXPECT_GE(elapsed, static_cast<long long>(raises[2].heardMs));
  EXPECT_EQ(raises[3].value, "0");
  // The sentence was paced by the output: say lasted about what was played.
  EXPECT_GE(elapsed + 20, static_cast<long long>(output->writtenBytes() / kBytesPerMs) - 20);
  const std::vector<std::string> events = serviceEvents();
  ASSERT_GE(events.size(), 7u);
  EXPECT_THAT(
      std::vector<std::string>(events.end() - 7, events.end()),
      ElementsAre("TextDone=1", "TextStarted=0", "CurrentBookMark=0", "PositionOfCurrentWord=0",
                  R"(CurrentWord="")", R"(Status=[1, "done"])", R"(CurrentSentence="")"));
}

TEST_F(EspeakAudioOutputTest, FilesHoldTheEnginesWholeAudio) {
  // eSpeak NG's audio for a text varies by a few frames from one synthesis to the next: each
  // file is compared with the frames the engine reported for that very synthesis.
  const std::string text = "This is a sample text, written in a file!";
  for (const std::string name : {"sample.wav", "sample.raw"}) {
    SCOPED_TRACE(name);
    host.clearLogs();
    const std::string path = host.root() + "/" + name;
    tts->sayToFile(text, path);
    long long engineFrames = -1;
    for (const ko::log::Record& record : host.logRecords("engine.espeak")) {
      if (record.function == "startSynthetizer" && record.message.rfind("Spoke ", 0) == 0) {
        engineFrames = std::stoll(record.message.substr(6));
      }
    }
    const SoundFile file = readSoundFile(path, name == "sample.raw");
    EXPECT_GT(file.frames, 22050);
    EXPECT_EQ(file.frames, engineFrames);
    EXPECT_GT(file.peak, 3000);
  }
}

TEST_F(EspeakAudioOutputTest, StopSilencesTheOutputAtOnce) {
  auto speaking = std::async(std::launch::async, [this] {
    tts->say("This sentence is long enough to be stopped well before its end, whatever happens.");
  });
  ASSERT_TRUE(eventually([this] { return output->playedBytes() > 200 * kBytesPerMs; }));
  tts->stopAll();
  EXPECT_EQ(output->writtenBytes(), output->playedBytes());
  speaking.get();
  EXPECT_EQ(output->writtenBytes(), output->playedBytes());
  EXPECT_THAT(statusEvents(), ::testing::Contains(R"(Status=[1, "stopped"])"));
}

}  // namespace
}  // namespace bexko::testing
