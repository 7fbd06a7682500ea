#include <bexko/audiooutput/clockoutput.h>

#include <atomic>
#include <chrono>
#include <future>
#include <ostream>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <zr/zrerror.h>

namespace bexko::audiooutput {
namespace {

using namespace std::chrono_literals;
using Millis = std::chrono::duration<double, std::milli>;

// A loaded two-core machine wakes threads late: waits may last this much longer than asked,
// never shorter.
constexpr double lateness = 40.0;

ko::AudioSampleInfo format(int rate, int channels, ko::AudioSampleFormat sampleFormat) {
  ko::AudioSampleInfo info;
  info.sampleRate = rate;
  info.channels = channels;
  info.format = sampleFormat;
  info.channelPositions.resize(channels, ko::AudioChannelPosition::Mono);
  return info;
}

// Bytes of `ms` milliseconds of audio in the output's format.
std::size_t bytesOf(const ClockOutput& output, int ms) {
  const ko::AudioSampleInfo info = output.sampleInfo();
  return static_cast<std::size_t>(info.sampleRate) * ms / 1000 * info.bytesPerFrame();
}

double msOf(const ClockOutput& output, std::uint64_t bytes) {
  const ko::AudioSampleInfo info = output.sampleInfo();
  return 1000.0 * bytes / info.bytesPerFrame() / info.sampleRate;
}

template <typename Action>
double millisecondsTaken(Action&& action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return Millis(std::chrono::steady_clock::now() - start).count();
}

// Writes `ms` of silence; returns what write() returned.
bool writeAudio(ClockOutput& output, int ms) {
  const std::vector<char> audio(bytesOf(output, ms));
  return output.write(audio.data(), audio.size());
}

// --- Pacing: the buffer absorbs its capacity at once, the rest goes at the audio rate. ---

struct PacingCase {
  const char* name;
  ko::AudioSampleInfo info;
  int capacityMs;
  int audioMs;
};

// Test listings show the case by its name.
void PrintTo(const PacingCase& c, std::ostream* os) { *os << c.name; }

class ClockOutputPacing : public ::testing::TestWithParam<PacingCase> {};

TEST_P(ClockOutputPacing, AWriteTakesTheAudioDurationMinusTheBufferAndADrainTheRest) {
  const PacingCase& c = GetParam();
  ClockOutput output(c.info, std::chrono::milliseconds(c.capacityMs));
  EXPECT_EQ(output.capacityBytes(), bytesOf(output, c.capacityMs));

  bool written = false;
  const double writeMs = millisecondsTaken([&] { written = writeAudio(output, c.audioMs); });
  EXPECT_TRUE(written);
  const double expectedWriteMs = std::max(0, c.audioMs - c.capacityMs);
  EXPECT_GE(writeMs, expectedWriteMs - 1.0);
  EXPECT_LE(writeMs, expectedWriteMs + lateness);
  EXPECT_EQ(output.writtenBytes(), bytesOf(output, c.audioMs));
  EXPECT_LE(output.writtenBytes() - output.playedBytes(), output.capacityBytes());

  bool drained = false;
  const double drainMs = millisecondsTaken([&] { drained = output.drain(); });
  EXPECT_TRUE(drained);
  EXPECT_EQ(output.playedBytes(), output.writtenBytes());
  EXPECT_LE(writeMs + drainMs, c.audioMs + lateness);
  EXPECT_GE(writeMs + drainMs, c.audioMs - 1.0);
}

INSTANTIATE_TEST_SUITE_P(
    Formats, ClockOutputPacing,
    ::testing::Values(PacingCase{"DefaultFormat", ko::AudioSampleInfo{}, 100, 600},
                      PacingCase{"MonoAt16kHzSmallBuffer",
                                 format(16000, 1, ko::AudioSampleFormat::S16_LE), 20, 400},
                      PacingCase{"FloatStereoAt48kHz",
                                 format(48000, 2, ko::AudioSampleFormat::Float32_LE), 100, 500},
                      PacingCase{"AllInTheBuffer", ko::AudioSampleInfo{}, 500, 300}),
    [](const ::testing::TestParamInfo<PacingCase>& info) { return info.param.name; });

// --- Position: it follows the clock while audio is queued, and only then. ---

class ClockOutputPosition : public ::testing::Test {
 protected:
  ClockOutput output{ko::AudioSampleInfo{}, 200ms};
};

TEST_F(ClockOutputPosition, NeverPassesWrittenAndNeverGoesBack) {
  std::atomic<bool> writing{true};
  std::thread writer([&] {
    // Chunks of 10 to 60 ms with pauses of up to 80 ms: the buffer fills, blocks and runs dry.
    std::mt19937 random(7);
    for (int i = 0; i < 40; ++i) {
      writeAudio(output, 10 + static_cast<int>(random() % 51));
      if (random() % 3 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(random() % 80));
    }
    writing = false;
  });
  std::uint64_t previous = 0;
  int reads = 0;
  while (writing) {
    // Played first: written only grows here, so the later read bounds the earlier one.
    const std::uint64_t played = output.playedBytes();
    const std::uint64_t written = output.writtenBytes();
    ASSERT_LE(played, written);
    ASSERT_GE(played, previous);
    previous = played;
    ++reads;
  }
  writer.join();
  EXPECT_GT(reads, 100);
  EXPECT_TRUE(output.drain());
  EXPECT_EQ(output.playedBytes(), output.writtenBytes());
}

TEST_F(ClockOutputPosition, AnUnderrunDoesNotCountTheGap) {
  ASSERT_TRUE(writeAudio(output, 100));
  std::this_thread::sleep_for(250ms);
  const std::uint64_t first = output.writtenBytes();
  EXPECT_EQ(output.playedBytes(), first);

  // After 150 ms of silence the next audio starts from where the first ended.
  std::this_thread::sleep_for(150ms);
  ASSERT_TRUE(writeAudio(output, 100));
  std::this_thread::sleep_for(50ms);
  const double heardOfSecond = msOf(output, output.playedBytes() - first);
  EXPECT_GE(heardOfSecond, 50.0 - 1.0);
  EXPECT_LE(heardOfSecond, 50.0 + lateness);
  EXPECT_LT(output.playedBytes(), output.writtenBytes());

  const auto drainMs = millisecondsTaken([&] { EXPECT_TRUE(output.drain()); });
  EXPECT_GE(heardOfSecond + drainMs, 100.0 - 1.0);
}

TEST_F(ClockOutputPosition, PauseFreezesItAndResumeGoesOnFromThere) {
  ASSERT_TRUE(writeAudio(output, 150));
  std::this_thread::sleep_for(50ms);
  output.pause();
  const std::uint64_t atPause = output.playedBytes();
  EXPECT_LT(atPause, output.writtenBytes());

  // While paused a write fills the buffer and then blocks.
  auto secondWrite = std::async(std::launch::async, [&] { return writeAudio(output, 150); });
  EXPECT_EQ(secondWrite.wait_for(150ms), std::future_status::timeout);
  EXPECT_EQ(output.playedBytes(), atPause);
  EXPECT_EQ(output.writtenBytes() - atPause, output.capacityBytes());

  // What was left at the pause plays in full after the resume.
  const auto resumed = std::chrono::steady_clock::now();
  output.resume();
  EXPECT_TRUE(secondWrite.get());
  EXPECT_GT(output.playedBytes(), atPause);
  EXPECT_TRUE(output.drain());
  const double playedSinceResume = Millis(std::chrono::steady_clock::now() - resumed).count();
  const double leftAtPause = msOf(output, output.writtenBytes() - atPause);
  EXPECT_GE(playedSinceResume, leftAtPause - 1.0);
  EXPECT_LE(playedSinceResume, leftAtPause + lateness);
}

// --- Flush: drops what is queued at once and releases whoever waits. ---

class ClockOutputFlush : public ::testing::Test {
 protected:
  ClockOutput output{ko::AudioSampleInfo{}, 100ms};

  // Asserts that the position stands still where the flush left it: nothing is queued.
  void expectSilentAndEmpty() {
    const std::uint64_t played = output.playedBytes();
    EXPECT_EQ(played, output.writtenBytes());
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(output.playedBytes(), played);
    EXPECT_EQ(output.writtenBytes(), played);
  }
};

TEST_F(ClockOutputFlush, ReleasesABlockedWriterWhichReturnsFalse) {
  std::promise<std::chrono::steady_clock::time_point> writerStarted;
  auto writing = std::async(std::launch::async, [&] {
    writerStarted.set_value(std::chrono::steady_clock::now());
    return writeAudio(output, 2000);
  });
  const auto started = writerStarted.get_future().get();
  ASSERT_EQ(writing.wait_for(200ms), std::future_status::timeout);
  const double ranMs = Millis(std::chrono::steady_clock::now() - started).count();
  output.flush();
  ASSERT_EQ(writing.wait_for(std::chrono::milliseconds(static_cast<int>(lateness))),
            std::future_status::ready);
  EXPECT_FALSE(writing.get());
  expectSilentAndEmpty();
  // Played audio is still counted: what played while the writer ran, not the 2 s it was given.
  EXPECT_GE(msOf(output, output.playedBytes()), ranMs - lateness);
  EXPECT_LE(msOf(output, output.playedBytes()), ranMs + 1.0);
}

TEST_F(ClockOutputFlush, ReleasesADrainWhichReturnsFalse) {
  ASSERT_TRUE(writeAudio(output, 100));
  auto draining = std::async(std::launch::async, [&] { return output.drain(); });
  ASSERT_EQ(draining.wait_for(20ms), std::future_status::timeout);
  output.flush();
  EXPECT_FALSE(draining.get());
  expectSilentAndEmpty();
}

TEST_F(ClockOutputFlush, EndsAPauseSoThatTheNextAudioPlays) {
  ASSERT_TRUE(writeAudio(output, 50));
  output.pause();
  output.flush();
  expectSilentAndEmpty();
  ASSERT_TRUE(writeAudio(output, 50));
  const double drainMs = millisecondsTaken([&] { EXPECT_TRUE(output.drain()); });
  EXPECT_GE(drainMs, 50.0 - 1.0);
  EXPECT_LE(drainMs, 50.0 + lateness);
}

TEST_F(ClockOutputFlush, ADrainWithNothingQueuedReturnsTrueAtOnce) {
  const double drainMs = millisecondsTaken([&] { EXPECT_TRUE(output.drain()); });
  EXPECT_LE(drainMs, lateness);
}

// --- Refusals ---

struct RefusalCase {
  const char* name;
  ko::AudioSampleInfo info;
  int capacityMs;
  const char* reason;
};

// Test listings show the case by its name.
void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.name; }

class ClockOutputRefusal : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(ClockOutputRefusal, OpeningThrowsItsReason) {
  const RefusalCase& c = GetParam();
  try {
    ClockOutput output(c.info, std::chrono::milliseconds(c.capacityMs));
    FAIL() << "opened";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "AudioOutput");
    EXPECT_EQ(e.methodName(), "open");
    EXPECT_NE(e.description().find(c.reason), std::string::npos) << e.description();
  }
}

INSTANTIATE_TEST_SUITE_P(
    BadSettings, ClockOutputRefusal,
    ::testing::Values(RefusalCase{"NoRate", format(0, 2, ko::AudioSampleFormat::S16_LE), 100,
                                  "0 Hz"},
                      RefusalCase{"NoChannels", format(22050, 0, ko::AudioSampleFormat::S16_LE),
                                  100, "0 channels"},
                      RefusalCase{"NoCapacity", ko::AudioSampleInfo{}, 0, "capacity, not 0 ms"}),
    [](const ::testing::TestParamInfo<RefusalCase>& info) { return info.param.name; });

TEST(ClockOutputWrite, RefusesAPartialFrame) {
  ClockOutput output;
  const char bytes[3] = {};
  try {
    output.write(bytes, sizeof bytes);
    FAIL() << "accepted";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.methodName(), "write");
    EXPECT_NE(e.description().find("not a whole number of 4-byte frames"), std::string::npos)
        << e.description();
  }
  EXPECT_EQ(output.writtenBytes(), 0u);
}

}  // namespace
}  // namespace bexko::audiooutput
