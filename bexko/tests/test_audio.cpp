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
  EXPECT_EQ(info.sampleRate, 22050);
  EXPECT_EQ(info.channels, 2);
  EXPECT_EQ(info.format, ko::AudioSampleFormat::S16_LE);
  EXPECT_THAT(info.channelPositions, ::testing::ElementsAre(ko::AudioChannelPosition::FrontLeft,
                                                            ko::AudioChannelPosition::FrontRight));
  EXPECT_EQ(info.bytesPerSample() * 10 + info.bytesPerFrame(), 24);
  info.format = ko::AudioSampleFormat::S32_LE;
  EXPECT_EQ(info.bytesPerSample(), 4);
  info.format = ko::AudioSampleFormat::Float32_LE;
  info.channels = 1;
  EXPECT_EQ(info.bytesPerFrame(), 4);
}

TEST(AudioFormat, BytesToMsecConvertsAndTruncates) {
  // bytes, rate, channels, milliseconds; 1e12 seconds overflow bytes * 1000 in 64 bits.
  const std::tuple<long long, int, int, long long> cases[] = {
      {88200, 22050, 2, 1000}, {44100, 22050, 2, 500},
      {88199, 22050, 2, 999},  {1, 22050, 2, 0},
      {0, 22050, 2, 0},        {-88200, 22050, 2, -1000},
      {32000, 16000, 1, 1000}, {320, 16000, 1, 10},
      {1000, 0, 2, 0},         {88200LL * 1000000000000LL, 22050, 2, 1000000000000000LL}};
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
    EXPECT_TRUE(file.isOpen());
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
      EXPECT_EQ(file.isOpen(), closes == 0);
    }
    SF_INFO readInfo{};
    SNDFILE* sound = sf_open(path(name).c_str(), SFM_READ, &readInfo);
    ASSERT_NE(sound, nullptr) << sf_strerror(nullptr);
    EXPECT_EQ(readInfo.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    EXPECT_EQ(readInfo.samplerate, 16000);
    EXPECT_EQ(readInfo.channels, 2);
    EXPECT_EQ(readInfo.frames, frames);
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
  const std::vector<unsigned char> content((std::istreambuf_iterator<char>(in)),
                                           std::istreambuf_iterator<char>());
  ASSERT_EQ(content.size(), 2 * samples_.size());
  for (std::size_t i = 0; i < samples_.size(); ++i) {
    const auto value = static_cast<uint16_t>(samples_[i]);
    ASSERT_EQ(content[2 * i] + 256 * content[2 * i + 1], value) << "sample " << i;
  }
}

TEST_F(AudioSndFileTest, FailedOpenThrowsNamingFileAndReason) {
  constexpr int write = ko::AudioSndFileWrite;
  constexpr int byName = ko::AudioSndFileByExtension;
  const std::tuple<const char*, int, int, const char*> cases[] = {
      {"speech.mp3", write, byName, "unknown sound file type"},
      {"speech", write, byName, "unknown sound file type"},
      {"dir.wav/speech", write, byName, "unknown sound file type"},
      {"speech.wav", write, 9, "unknown sound file type"},
      {"speech.wav", ko::AudioSndFileRead, byName, "only writing"},
      {"missing/speech.wav", write, byName, "No such file or directory"}};  // libsndfile's reason
  for (const auto& c : cases) {
    const auto& [name, flag, type, reason] = c;
    SCOPED_TRACE(name);
    ko::AudioSndFile file;
    file.setSampleInfo(info_);
    const ZRError e =
        errorOf([&] { file.open(path(std::get<0>(c)), std::get<1>(c), std::get<2>(c)); });
    EXPECT_EQ(e.moduleName() + "::" + e.methodName(), "AudioSndFile::open");
    EXPECT_THAT(e.what(),
                ::testing::AllOf(::testing::HasSubstr(path(name)), ::testing::HasSubstr(reason)));
    EXPECT_FALSE(file.isOpen());
    EXPECT_FALSE(fs::exists(path(name)));
    const char data[4] = {};
    EXPECT_THROW(file.write(data, sizeof data), ZRError);
  }
}

}  // namespace
