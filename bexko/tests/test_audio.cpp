#include <ko/audio.h>

#include <sndfile.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zr/zrerror.h>

namespace {

namespace fs = std::filesystem;

// --- Format arithmetic -------------------------------------------------------------------------

TEST(AudioFormat, DefaultIsStereo16BitAt22050) {
  const ko::AudioSampleInfo info;
  EXPECT_EQ(info.sampleRate, 22050);
  EXPECT_EQ(info.channels, 2);
  EXPECT_EQ(info.bytesPerSample(), 2);
  EXPECT_EQ(info.bytesPerFrame(), 4);
}

TEST(AudioFormat, BytesPerSampleFollowsFormat) {
  ko::AudioSampleInfo info;
  info.format = ko::AudioSampleFormat::S32_LE;
  EXPECT_EQ(info.bytesPerSample(), 4);
  info.format = ko::AudioSampleFormat::Float32_LE;
  EXPECT_EQ(info.bytesPerSample(), 4);
  info.channels = 1;
  EXPECT_EQ(info.bytesPerFrame(), 4);
}

struct MsecCase {
  long long bytes;
  int rate;
  int channels;
  long long expected;
};

class AudioBytesToMsec : public ::testing::TestWithParam<MsecCase> {};

TEST_P(AudioBytesToMsec, ConvertsAndTruncates) {
  ko::AudioSampleInfo info;
  info.sampleRate = GetParam().rate;
  info.channels = GetParam().channels;
  EXPECT_EQ(ko::audioBytesToMsec(GetParam().bytes, info), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, AudioBytesToMsec,
    ::testing::Values(MsecCase{88200, 22050, 2, 1000}, MsecCase{44100, 22050, 2, 500},
                      MsecCase{88199, 22050, 2, 999}, MsecCase{1, 22050, 2, 0},
                      MsecCase{0, 22050, 2, 0}, MsecCase{-88200, 22050, 2, -1000},
                      MsecCase{32000, 16000, 1, 1000}, MsecCase{320, 16000, 1, 10},
                      // 1e12 seconds: bytes * 1000 overflows 64 bits
                      MsecCase{88200LL * 1000000000000LL, 22050, 2, 1000000000000000LL},
                      MsecCase{1000, 0, 2, 0}));

// --- Sound files -------------------------------------------------------------------------------

class AudioSndFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = fs::path(std::getenv("BEXKO_TEST_ROOT")) / "audio" /
              ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(folder_);  // a repeated run starts from an empty folder
    fs::create_directories(folder_);
    info_.sampleRate = 16000;
    info_.channels = 2;
    for (int i = 0; i < 1000; ++i) {
      samples_.push_back(static_cast<int16_t>(i * 7 - 3000));
      samples_.push_back(static_cast<int16_t>(-i * 11));
    }
  }
  std::string path(const std::string& name) const { return (folder_ / name).string(); }
  std::size_t sampleBytes() const { return samples_.size() * sizeof(int16_t); }

  /// Writes the samples in two pieces cut inside a frame, as an engine callback might.
  void writeSamples(ko::AudioSndFile& file) const {
    const auto* bytes = reinterpret_cast<const char*>(samples_.data());
    const std::size_t cut = 1001;  // not a multiple of the 4-byte frame
    EXPECT_EQ(file.write(bytes, cut), cut);
    EXPECT_EQ(file.write(bytes + cut, sampleBytes() - cut), sampleBytes() - cut);
  }

  void expectWavWithSamples(const std::string& file) const {
    SF_INFO readInfo{};
    SNDFILE* sound = sf_open(file.c_str(), SFM_READ, &readInfo);
    ASSERT_NE(sound, nullptr) << sf_strerror(nullptr);
    EXPECT_EQ(readInfo.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    EXPECT_EQ(readInfo.samplerate, 16000);
    EXPECT_EQ(readInfo.channels, 2);
    EXPECT_EQ(readInfo.frames, 1000);
    std::vector<int16_t> read(samples_.size());
    EXPECT_EQ(sf_readf_short(sound, read.data(), 1000), 1000);
    sf_close(sound);
    EXPECT_EQ(read, samples_);
  }

  fs::path folder_;
  ko::AudioSampleInfo info_;
  std::vector<int16_t> samples_;
};

TEST_F(AudioSndFileTest, WavReadsBackWithFormatAndSamples) {
  ko::AudioSndFile file;
  file.setSampleInfo(info_);
  EXPECT_EQ(file.sampleInfo(), info_);
  file.open(path("speech.wav"), ko::AudioSndFileWrite, ko::AudioSndFileByExtension);
  EXPECT_TRUE(file.isOpen());
  writeSamples(file);
  file.close();
  EXPECT_FALSE(file.isOpen());
  expectWavWithSamples(path("speech.wav"));
}

TEST_F(AudioSndFileTest, ExtensionIsMatchedWithoutCase) {
  ko::AudioSndFile file;
  file.setSampleInfo(info_);
  file.open(path("SPEECH.WaV"), ko::AudioSndFileWrite, ko::AudioSndFileByExtension);
  writeSamples(file);
  file.close();
  expectWavWithSamples(path("SPEECH.WaV"));
}

TEST_F(AudioSndFileTest, ExplicitTypeOverridesExtension) {
  ko::AudioSndFile file;
  file.setSampleInfo(info_);
  file.open(path("speech.dat"), ko::AudioSndFileWrite, ko::AudioSndFileWav);
  writeSamples(file);
  file.close();
  expectWavWithSamples(path("speech.dat"));
}

TEST_F(AudioSndFileTest, DestructorClosesAndFinishesTheFile) {
  {
    ko::AudioSndFile file;
    file.setSampleInfo(info_);
    file.open(path("scoped.wav"), ko::AudioSndFileWrite, ko::AudioSndFileByExtension);
    writeSamples(file);
    file.close();
    file.close();  // idempotent
  }
  {
    ko::AudioSndFile file;
    file.setSampleInfo(info_);
    file.open(path("unclosed.wav"), ko::AudioSndFileWrite, ko::AudioSndFileByExtension);
    writeSamples(file);
  }
  expectWavWithSamples(path("scoped.wav"));
  expectWavWithSamples(path("unclosed.wav"));
}

TEST_F(AudioSndFileTest, RawIsHeaderlessLittleEndianPcm) {
  ko::AudioSndFile file;
  file.setSampleInfo(info_);
  file.open(path("speech.raw"), ko::AudioSndFileWrite, ko::AudioSndFileByExtension);
  writeSamples(file);
  file.close();
  EXPECT_EQ(fs::file_size(path("speech.raw")), sampleBytes());
  std::ifstream in(path("speech.raw"), std::ios::binary);
  const std::vector<unsigned char> content((std::istreambuf_iterator<char>(in)),
                                           std::istreambuf_iterator<char>());
  ASSERT_EQ(content.size(), sampleBytes());
  for (std::size_t i = 0; i < samples_.size(); ++i) {
    const auto value = static_cast<uint16_t>(samples_[i]);
    ASSERT_EQ(content[2 * i], value & 0xff) << "sample " << i;
    ASSERT_EQ(content[2 * i + 1], value >> 8) << "sample " << i;
  }
}

TEST_F(AudioSndFileTest, EmptyFileIsValid) {
  ko::AudioSndFile file;
  file.setSampleInfo(info_);
  file.open(path("silence.wav"), ko::AudioSndFileWrite, ko::AudioSndFileByExtension);
  file.close();
  SF_INFO readInfo{};
  SNDFILE* sound = sf_open(path("silence.wav").c_str(), SFM_READ, &readInfo);
  ASSERT_NE(sound, nullptr) << sf_strerror(nullptr);
  EXPECT_EQ(readInfo.frames, 0);
  sf_close(sound);
}

struct OpenFailure {
  const char* name;
  const char* file;
  int flag;
  int type;
  const char* reasonPart;
};

class AudioSndFileOpenFailure : public AudioSndFileTest,
                                public ::testing::WithParamInterface<OpenFailure> {};

TEST_P(AudioSndFileOpenFailure, ThrowsNamingFileAndReason) {
  const OpenFailure& c = GetParam();
  const std::string target = path(c.file);
  ko::AudioSndFile file;
  file.setSampleInfo(info_);
  try {
    file.open(target, c.flag, c.type);
    FAIL() << "no error";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "AudioSndFile");
    EXPECT_EQ(e.methodName(), "open");
    const std::string message = e.what();
    EXPECT_NE(message.find(target), std::string::npos) << message;
    EXPECT_NE(message.find(c.reasonPart), std::string::npos) << message;
  }
  EXPECT_FALSE(file.isOpen());
  EXPECT_FALSE(fs::exists(target));
}

INSTANTIATE_TEST_SUITE_P(
    Table, AudioSndFileOpenFailure,
    ::testing::Values(OpenFailure{"UnknownExtension", "speech.mp3", ko::AudioSndFileWrite,
                                  ko::AudioSndFileByExtension, "unknown sound file type"},
                      OpenFailure{"NoExtension", "speech", ko::AudioSndFileWrite,
                                  ko::AudioSndFileByExtension, "unknown sound file type"},
                      OpenFailure{"DotInFolderOnly", "dir.wav/speech", ko::AudioSndFileWrite,
                                  ko::AudioSndFileByExtension, "unknown sound file type"},
                      OpenFailure{"UnknownType", "speech.wav", ko::AudioSndFileWrite, 9,
                                  "unknown sound file type"},
                      OpenFailure{"ReadFlag", "speech.wav", ko::AudioSndFileRead,
                                  ko::AudioSndFileByExtension, "only writing"},
                      // libsndfile's own reason for a folder that does not exist
                      OpenFailure{"MissingFolder", "missing/speech.wav", ko::AudioSndFileWrite,
                                  ko::AudioSndFileByExtension, "No such file or directory"}),
    [](const ::testing::TestParamInfo<OpenFailure>& info) { return info.param.name; });

TEST_F(AudioSndFileTest, WriteWithoutOpenFileThrows) {
  ko::AudioSndFile file;
  const char data[4] = {};
  EXPECT_THROW(file.write(data, sizeof data), ZR::ZRError);
}

}  // namespace
