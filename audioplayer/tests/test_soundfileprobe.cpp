#include <zr/zraudioplayerdesktop.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <zr/zrerror.h>

namespace {

using ZR::ZRAudioPlayerDesktop;

class SoundFileProbe : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* root = std::getenv("BEXKO_TEST_ROOT");
    ASSERT_NE(root, nullptr);
    dir_ = boost::filesystem::path(root) / boost::filesystem::unique_path("probe-%%%%%%%%");
    boost::filesystem::create_directories(dir_);
  }
  void TearDown() override { boost::filesystem::remove_all(dir_); }

  std::string existing(const std::string& name) {
    const std::string path = (dir_ / name).string();
    std::ofstream{path};
    return path;
  }
  std::string missing(const std::string& name) { return (dir_ / name).string(); }

  boost::filesystem::path dir_;
};

struct ProbeCase {
  const char* name;
  bool wav;
  bool ogg;
};

class ExistingFileProbe : public SoundFileProbe, public ::testing::WithParamInterface<ProbeCase> {};

// The files exist (and are empty): only the extension decides, in any letter case.
TEST_P(ExistingFileProbe, AcceptsOnlyWavAndOggExtensions) {
  const std::string path = existing(GetParam().name);
  EXPECT_EQ(ZRAudioPlayerDesktop::isAWavFile(path), GetParam().wav);
  EXPECT_EQ(ZRAudioPlayerDesktop::isAOggFile(path), GetParam().ogg);
}

INSTANTIATE_TEST_SUITE_P(
    Names, ExistingFileProbe,
    ::testing::Values(ProbeCase{"song.wav", true, false}, ProbeCase{"SONG.WAV", true, false},
                      ProbeCase{"song.WAV", true, false}, ProbeCase{"song.Wav", true, false},
                      ProbeCase{"song.ogg", false, true}, ProbeCase{"song.Ogg", false, true},
                      ProbeCase{"SONG.OGG", false, true}, ProbeCase{"song.mp3", false, false},
                      ProbeCase{"song.wave", false, false}, ProbeCase{"song.wa", false, false},
                      ProbeCase{"song", false, false}, ProbeCase{"song.wav.mp3", false, false},
                      ProbeCase{"song.mp3.wav", true, false}));

// A name that does not match is refused without the file being opened: a missing file with
// such a name gives false rather than the open-failure error.
TEST_F(SoundFileProbe, NonMatchingNamesGiveFalseWithoutOpening) {
  for (const char* name : {"song.mp3", "song.wave", "song", "song.flac"}) {
    SCOPED_TRACE(name);
    EXPECT_NO_THROW(EXPECT_FALSE(ZRAudioPlayerDesktop::isAWavFile(missing(name))));
    EXPECT_NO_THROW(EXPECT_FALSE(ZRAudioPlayerDesktop::isAOggFile(missing(name))));
  }
  // Each probe only looks at its own extension.
  EXPECT_FALSE(ZRAudioPlayerDesktop::isAOggFile(missing("song.wav")));
  EXPECT_FALSE(ZRAudioPlayerDesktop::isAWavFile(missing("song.ogg")));
}

TEST_F(SoundFileProbe, MissingWavFileThrowsTheOpenFailure) {
  const std::string path = missing("song.wav");
  try {
    ZRAudioPlayerDesktop::isAWavFile(path);
    FAIL() << "no error for a missing wav file";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRAudioPlayerTask");
    EXPECT_EQ(e.methodName(), "xIsAWavFile()");
    EXPECT_EQ(std::string(e.what()), "Cannot open the wav file \"" + path + "\"");
  }
}

TEST_F(SoundFileProbe, MissingOggFileThrowsTheOpenFailure) {
  const std::string path = missing("Song.OGG");
  try {
    ZRAudioPlayerDesktop::isAOggFile(path);
    FAIL() << "no error for a missing ogg file";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRAudioPlayerTask");
    EXPECT_EQ(e.methodName(), "xIsAOggFile()");
    EXPECT_EQ(std::string(e.what()), "Cannot open the ogg file \"" + path + "\"");
  }
}

// The message carries the name exactly as the caller passed it, relative names included.
TEST_F(SoundFileProbe, OpenFailureQuotesTheNameAsPassed) {
  const std::string name = "no/such/folder/../song.wav";
  try {
    ZRAudioPlayerDesktop::isAWavFile(name);
    FAIL() << "no error for a missing wav file";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(std::string(e.what()), "Cannot open the wav file \"no/such/folder/../song.wav\"");
  }
}

TEST_F(SoundFileProbe, EmptyWavFileIsAccepted) {
  const std::string path = existing("empty.wav");
  ASSERT_EQ(boost::filesystem::file_size(path), 0u);
  EXPECT_TRUE(ZRAudioPlayerDesktop::isAWavFile(path));
}

TEST_F(SoundFileProbe, UnreadableWavFileThrowsTheOpenFailure) {
  if (::geteuid() == 0) {
    GTEST_SKIP() << "root opens any file";
  }
  const std::string path = existing("locked.wav");
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);
  EXPECT_THROW(ZRAudioPlayerDesktop::isAWavFile(path), ZR::ZRError);
}

}  // namespace
