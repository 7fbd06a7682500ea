#include <bexko/audiooutput/pulseoutput.h>

#include <chrono>
#include <future>
#include <memory>
#include <ostream>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <zr/zrerror.h>

#include "soundserver.h"

namespace bexko::audiooutput {
namespace {

using namespace std::chrono_literals;
using Millis = std::chrono::duration<double, std::milli>;
using testing::SoundServer;

// The stream's own buffer and the sink's latency add to a loaded machine's late wake-ups, so
// the bounds here are wider than the clock output's; a sound server on a busy machine (a build
// on every core) runs late more than it runs early.
constexpr double slack = 150.0;
constexpr double lateSlack = 400.0;

template <typename Action>
double millisecondsTaken(Action&& action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return Millis(std::chrono::steady_clock::now() - start).count();
}

// A sound server for each suite, and a fresh output on its null sink for each test; the tests
// are skipped, saying why, when the server cannot run here.
class PulseOutputTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server = new SoundServer;
    whyNoServer = server->start();
  }
  static void TearDownTestSuite() {
    delete server;
    server = nullptr;
  }
  void SetUp() override {
    if (!whyNoServer.empty()) GTEST_SKIP() << whyNoServer;
    output = std::make_unique<PulseOutput>(options());
  }

  static PulseOutputOptions options() {
    PulseOutputOptions options;
    options.server = server->address();
    options.sink = SoundServer::sink;
    return options;
  }
  std::size_t bytesOf(int ms) const {
    const ko::AudioSampleInfo info = output->sampleInfo();
    return static_cast<std::size_t>(info.sampleRate) * ms / 1000 * info.bytesPerFrame();
  }
  double msOf(std::uint64_t bytes) const {
    const ko::AudioSampleInfo info = output->sampleInfo();
    return 1000.0 * bytes / info.bytesPerFrame() / info.sampleRate;
  }
  // Writes `ms` of a quiet tone; returns what write() returned.
  bool writeAudio(int ms) {
    std::vector<std::int16_t> audio(bytesOf(ms) / sizeof(std::int16_t));
    for (std::size_t i = 0; i < audio.size(); ++i) audio[i] = (i / 2) % 50 < 25 ? 1000 : -1000;
    return output->write(audio.data(), audio.size() * sizeof(std::int16_t));
  }

  static SoundServer* server;
  static std::string whyNoServer;
  std::unique_ptr<PulseOutput> output;
};

SoundServer* PulseOutputTest::server = nullptr;
std::string PulseOutputTest::whyNoServer;

class PulseOutputPacing : public PulseOutputTest {};

TEST_F(PulseOutputPacing, AWriteTakesAboutTheAudioDurationAndADrainTheRest) {
  bool written = false;
  const double writeMs = millisecondsTaken([&] { written = writeAudio(1000); });
  EXPECT_TRUE(written);
  // Paced by the sink, which plays in real time or, on a starved machine, later: never faster.
  EXPECT_GE(writeMs, 1000.0 - slack);
  EXPECT_EQ(output->writtenBytes(), bytesOf(1000));
  // The write returned once what it left unplayed fits the stream's buffer, however long the
  // sink took: the pacing is the sink's, not a timer's.
  EXPECT_LT(output->playedBytes(), output->writtenBytes());
  EXPECT_LE(msOf(output->writtenBytes() - output->playedBytes()), 50.0 + slack);

  bool drained = false;
  const double drainMs = millisecondsTaken([&] { drained = output->drain(); });
  EXPECT_TRUE(drained);
  EXPECT_EQ(output->playedBytes(), output->writtenBytes());
  EXPECT_GE(writeMs + drainMs, 1000.0 - 1.0);
}

class PulseOutputPosition : public PulseOutputTest {};

TEST_F(PulseOutputPosition, NeverPassesWrittenAndNeverGoesBack) {
  std::atomic<bool> writing{true};
  std::thread writer([&] {
    // Chunks of 10 to 60 ms with pauses of up to 80 ms: the stream fills, blocks and runs dry.
    std::mt19937 random(7);
    for (int i = 0; i < 30; ++i) {
      writeAudio(10 + static_cast<int>(random() % 51));
      if (random() % 3 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(random() % 80));
    }
    writing = false;
  });
  std::uint64_t previous = 0;
  int reads = 0;
  while (writing) {
    const std::uint64_t played = output->playedBytes();
    const std::uint64_t written = output->writtenBytes();
    ASSERT_LE(played, written);
    ASSERT_GE(played, previous);
    previous = played;
    ++reads;
    std::this_thread::sleep_for(1ms);
  }
  writer.join();
  EXPECT_GT(reads, 100);
  EXPECT_GT(previous, 0u);
  EXPECT_TRUE(output->drain());
  EXPECT_EQ(output->playedBytes(), output->writtenBytes());
}

TEST_F(PulseOutputPosition, AnUnderrunDoesNotCountTheGap) {
  ASSERT_TRUE(writeAudio(100));
  ASSERT_TRUE(output->drain());
  const std::uint64_t first = output->writtenBytes();
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(output->playedBytes(), first);

  const auto resumed = std::chrono::steady_clock::now();
  ASSERT_TRUE(writeAudio(400));
  EXPECT_LT(output->playedBytes(), output->writtenBytes());
  const double heard = msOf(output->playedBytes() - first);
  EXPECT_LE(heard, Millis(std::chrono::steady_clock::now() - resumed).count() + 1.0);
  ASSERT_TRUE(output->drain());
  EXPECT_GE(Millis(std::chrono::steady_clock::now() - resumed).count(), 400.0 - 1.0);
}

TEST_F(PulseOutputPosition, PauseFreezesItAndResumeGoesOnFromThere) {
  auto writing = std::async(std::launch::async, [&] { return writeAudio(600); });
  std::this_thread::sleep_for(200ms);
  output->pause();
  const std::uint64_t atPause = output->playedBytes();
  EXPECT_GT(atPause, 0u);
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(output->playedBytes(), atPause);
  EXPECT_EQ(writing.wait_for(0ms), std::future_status::timeout);

  const auto resumed = std::chrono::steady_clock::now();
  output->resume();
  EXPECT_TRUE(writing.get());
  EXPECT_TRUE(output->drain());
  const double playedSinceResume = Millis(std::chrono::steady_clock::now() - resumed).count();
  const double leftAtPause = msOf(output->writtenBytes() - atPause);
  EXPECT_GE(playedSinceResume, leftAtPause - slack);
  EXPECT_LE(playedSinceResume, leftAtPause + lateSlack);
}

class PulseOutputFlush : public PulseOutputTest {
 protected:
  // Asserts that the position stands still where the flush left it: nothing is queued.
  void expectSilentAndEmpty() {
    const std::uint64_t played = output->playedBytes();
    EXPECT_EQ(played, output->writtenBytes());
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(output->playedBytes(), played);
    EXPECT_EQ(output->writtenBytes(), played);
  }
};

TEST_F(PulseOutputFlush, ReleasesABlockedWriterAndTheNextAudioPlaysInFull) {
  auto writing = std::async(std::launch::async, [&] { return writeAudio(3000); });
  ASSERT_EQ(writing.wait_for(300ms), std::future_status::timeout);
  output->flush();
  ASSERT_EQ(writing.wait_for(100ms), std::future_status::ready);
  EXPECT_FALSE(writing.get());
  expectSilentAndEmpty();
  EXPECT_LT(msOf(output->playedBytes()), 300.0 + slack);

  // The stream goes on after the flush, its position counting the new audio alone.
  const std::uint64_t before = output->playedBytes();
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(writeAudio(400));
  std::this_thread::sleep_for(100ms);
  const double heard = msOf(output->playedBytes() - before);
  EXPECT_LE(heard, Millis(std::chrono::steady_clock::now() - start).count() + 1.0);
  EXPECT_TRUE(output->drain());
  EXPECT_GE(Millis(std::chrono::steady_clock::now() - start).count(), 400.0 - 1.0);
  EXPECT_EQ(output->playedBytes() - before, bytesOf(400));
}

TEST_F(PulseOutputFlush, ReleasesADrainWhichReturnsFalse) {
  // Paused before it is written, audio shorter than the stream's buffer stays queued: a drain
  // waits for as long as the test needs, however slow the machine.
  output->pause();
  ASSERT_TRUE(writeAudio(20));
  auto draining = std::async(std::launch::async, [&] { return output->drain(); });
  ASSERT_EQ(draining.wait_for(200ms), std::future_status::timeout);
  output->flush();
  ASSERT_EQ(draining.wait_for(200ms), std::future_status::ready);
  EXPECT_FALSE(draining.get());
  expectSilentAndEmpty();
}

TEST_F(PulseOutputFlush, EndsAPause) {
  ASSERT_TRUE(writeAudio(100));
  output->pause();
  output->flush();
  expectSilentAndEmpty();
  ASSERT_TRUE(writeAudio(200));
  const double drainMs = millisecondsTaken([&] { EXPECT_TRUE(output->drain()); });
  EXPECT_LE(drainMs, 200.0 + lateSlack);
}

class PulseOutputServerLoss : public PulseOutputTest {};

TEST_F(PulseOutputServerLoss, ABlockedWriteThrowsAndTheRestGoesOnQuietly) {
  auto writing = std::async(std::launch::async, [&] { return writeAudio(3000); });
  ASSERT_EQ(writing.wait_for(200ms), std::future_status::timeout);
  server->stop();
  ASSERT_EQ(writing.wait_for(2s), std::future_status::ready);
  try {
    writing.get();
    FAIL() << "the write went on without a server";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.methodName(), "write");
    EXPECT_NE(e.description().find("the sound server connection is lost"), std::string::npos)
        << e.description();
  }
  EXPECT_THROW(output->drain(), ZR::ZRError);
  // Positions, flush, pause and the destructor never throw.
  const std::uint64_t played = output->playedBytes();
  EXPECT_LE(played, output->writtenBytes());
  output->pause();
  output->resume();
  output->flush();
  EXPECT_EQ(output->writtenBytes(), played);
  output.reset();
}

// Opening fails at once with the reason, whether a server runs or not.
struct RefusalCase {
  const char* name;
  std::string server;  // "" for the test's server
  std::string sink;
  int sampleRate;
  const char* reason;
};

// Test listings show the case by its name.
void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.name; }

class PulseOutputRefusal : public PulseOutputTest,
                           public ::testing::WithParamInterface<RefusalCase> {
 protected:
  void SetUp() override {}
};

TEST_P(PulseOutputRefusal, OpeningThrowsItsReasonQuickly) {
  const RefusalCase& c = GetParam();
  if (c.server.empty() && !whyNoServer.empty()) GTEST_SKIP() << whyNoServer;
  PulseOutputOptions options;
  options.server = c.server.empty() ? server->address() : c.server;
  options.sink = c.sink;
  options.sampleInfo.sampleRate = c.sampleRate;
  const auto start = std::chrono::steady_clock::now();
  try {
    PulseOutput output(options);
    FAIL() << "opened";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "AudioOutput");
    EXPECT_EQ(e.methodName(), "open");
    EXPECT_NE(e.description().find(c.reason), std::string::npos) << e.description();
  }
  EXPECT_LT(Millis(std::chrono::steady_clock::now() - start).count(), 2000.0);
}

INSTANTIATE_TEST_SUITE_P(
    BadSettings, PulseOutputRefusal,
    ::testing::Values(
        RefusalCase{"NoServerAtTheAddress", "unix:/nonexistent/bexko/native", "", 22050,
                    "no sound server answers at \"unix:/nonexistent/bexko/native\": Connection "
                    "refused"},
        RefusalCase{"UnknownSink", "", "nosuchsink", 22050,
                    "cannot open a playback stream on the sink \"nosuchsink\": No such entity"},
        RefusalCase{"NoRate", "", "", 0, "takes no stream of 0 Hz"}),
    [](const ::testing::TestParamInfo<RefusalCase>& info) { return info.param.name; });

}  // namespace
}  // namespace bexko::audiooutput
