#include <ko/audio.h>

#include <sndfile.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "support.h"

namespace {

using namespace bexko::test;

// Format arithmetic ------------------------------------------------------------------------------

TEST(AudioFormat, DefaultIsStereo16BitAt22050AndSizesFollowTheFormat) {
  ko::AudioSampleInfo info;
  EXPECT_EQ(std::make_tuple(info.sampleRate, info.channels, info.format),
            std::make_tuple(22050, 2, ko::AudioSampleFormat::S16_LE));
  EXPECT_THAT(info.channelPositions, ::testing::ElementsAre(ko::AudioChannelPosition::FrontLeft,
                                                            ko::AudioChannelPosition::FrontRight));
  EXPECT_EQ(info.bytesPerSample() * 10 + info.bytesPerFrame(), 24);
}

TEST(AudioFormat, BytesToMsecConvertsAndTruncates) {
  // bytes, rate, channels, milliseconds; 1e12 seconds overflow bytes * 1000 in 64 bits.
  const std::tuple<long long, int, int, long long> cases[] = {
      {88199, 22050, 2, 999},
      {-88200, 22050, 2, -1000},
      {32000, 16000, 1, 1000},
      {1000, 0, 2, 0},
      {88200LL * 1000000000000LL, 22050, 2, 1000000000000000LL}};
  for (const auto& [bytes, rate, channels, expected] : cases) {
    ko::AudioSampleInfo info;
    info.sampleRate = rate;
    info.channels = channels;
    EXPECT_EQ(ko::audioBytesToMsec(bytes, info), expected) << bytes << " at " << rate;
  }
}

// Sound files ------------------------------------------------------------------------------------

class AudioSndFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    info_.sampleRate = 16000;
    for (int i = 0; i < 1000; ++i) {
      samples_.push_back(static_cast<int16_t>(i * 7 - 3000));
      samples_.push_back(static_cast<int16_t>(-i * 11));
    }
  }
  std::string path(const std::string& name) const { return (folder_ / name).string(); }

  /// Opens `name` and writes its first `frames` frames in two pieces cut inside a frame, as an
  /// engine callback might.
  void writeSamples(ko::AudioSndFile& file, const std::string& name, int type, int frames) const {
    file.setSampleInfo(info_);
    file.open(path(name), ko::AudioSndFileWrite, type);
    const auto* bytes = reinterpret_cast<const char*>(samples_.data());
    const std::size_t size = frames * 4;
    const std::size_t cut = size / 2 + 1;  // not a multiple of the 4-byte frame
    if (size == 0) return;
    EXPECT_EQ(file.write(bytes, cut) + file.write(bytes + cut, size - cut), size);
  }

  const fs::path folder_ = freshFolder("audio");
  ko::AudioSampleInfo info_;
  std::vector<int16_t> samples_;
};

// The extension is matched without case, the type given overrides the name, closing again is
// harmless, the destructor closes (no close), and a file without samples is valid.
TEST_F(AudioSndFileTest, WavReadsBackWithLibsndfile) {
  const std::tuple<const char*, int, int, int> cases[] = {
      // name, type, closes, frames
      {"speech.wav", ko::AudioSndFileByExtension, 1, 1000},
      {"SPEECH.WaV", ko::AudioSndFileByExtension, 2, 1000},
      {"speech.dat", ko::AudioSndFileWav, 0, 1000},
      {"silence.wav", ko::AudioSndFileByExtension, 1, 0}};
  for (const auto& [name, type, closes, frames] : cases) {
    SCOPED_TRACE(name);
    {
      ko::AudioSndFile file;
      writeSamples(file, name, type, frames);
      for (int i = 0; i < closes; ++i) file.close();
    }
    SF_INFO readInfo{};
    SNDFILE* sound = sf_open(path(name).c_str(), SFM_READ, &readInfo);
    ASSERT_NE(sound, nullptr) << sf_strerror(nullptr);
    EXPECT_EQ(
        std::make_tuple(readInfo.format, readInfo.samplerate, readInfo.channels, readInfo.frames),
        std::make_tuple(SF_FORMAT_WAV | SF_FORMAT_PCM_16, 16000, 2, sf_count_t(frames)));
    std::vector<int16_t> read(2 * frames);
    EXPECT_EQ(sf_readf_short(sound, read.data(), frames), frames);
    sf_close(sound);
    EXPECT_TRUE(std::equal(read.begin(), read.end(), samples_.begin()));
  }
}

TEST_F(AudioSndFileTest, RawIsHeaderlessLittleEndianPcm) {
  {
    ko::AudioSndFile file;
    writeSamples(file, "speech.raw", ko::AudioSndFileByExtension, 1000);
  }
  std::ifstream in(path("speech.raw"), std::ios::binary);
  const std::string content((std::istreambuf_iterator<char>(in)), {});
  std::string expected;
  for (const int16_t sample : samples_)
    expected += {char(sample & 0xff), char((sample >> 8) & 0xff)};
  EXPECT_TRUE(content == expected) << content.size() << " bytes";
}

TEST_F(AudioSndFileTest, FailedOpenThrowsNamingFileAndReason) {
  constexpr int write = ko::AudioSndFileWrite;
  constexpr int byName = ko::AudioSndFileByExtension;
  const std::tuple<const char*, int, int, const char*> cases[] = {
      {"speech.mp3", write, byName, "unknown sound file type"},
      {"dir.wav/speech", write, byName, "unknown sound file type"},
      {"speech.wav", write, 9, "unknown sound file type"},
      {"speech.wav", ko::AudioSndFileRead, byName, "only writing"},
      {"missing/speech.wav", write, byName, "No such file or directory"}};  // libsndfile's reason
  for (const auto& [name, flag, type, reason] : cases) {
    SCOPED_TRACE(name);
    ko::AudioSndFile file;
    const ZRError e =
        errorOf([&, name = name, flag = flag, type = type] { file.open(path(name), flag, type); });
    EXPECT_EQ(e.moduleName() + "::" + e.methodName(), "AudioSndFile::open");
    EXPECT_THAT(e.what(),
                ::testing::AllOf(::testing::HasSubstr(path(name)), ::testing::HasSubstr(reason)));
    EXPECT_FALSE(fs::exists(path(name)));
    EXPECT_THROW(file.write("abcd", 4), ZRError);
  }
}

}  // namespace
