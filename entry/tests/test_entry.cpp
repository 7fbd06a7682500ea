// The module library as a host sees it: loaded with dlopen from the build tree's lib/ and
// entered through its two C entry points.
#include <dlfcn.h>

#include <cstdlib>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/filesystem.hpp>
#include <boost/shared_ptr.hpp>

#include <bexko/testing/scriptedbackend.h>
#include <bexko/testing/testhost.h>
#include <ko/log.h>
#include <ko/packageinfo.h>
#include <ko/path.h>
#include <zr/zrbroker.h>
#include <zr/zrbrokermanager.h>

namespace bexko {
namespace testing {
namespace {

using ::testing::Contains;

struct Case {
  const char* name;
  bool player;                       // the fake player on PATH
  bool language;                     // a language installed
  bool playerTaken;                  // another module already holds the player's name
  std::vector<std::string> modules;  // the two modules' names registered, in order
  std::vector<std::string> records;  // the entry point's, "<level> <category> <file>:<line> <text>"
  friend void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }
};

class ModuleLibrary : public ::testing::TestWithParam<Case> {
 protected:
  // The library is loaded once and never unloaded: modules it created may outlive a test's
  // host by a moment, and their code must stay mapped.
  static void SetUpTestSuite() {
    // Before any test host moves the installation prefix to its temporary tree.
    libraryPath_ = new std::string(ko::path::sdkPrefix() + "/lib/libbexko-tts.so");
    handle_ = ::dlopen(libraryPath_->c_str(), RTLD_NOW | RTLD_LOCAL);
  }

  void SetUp() override {
    ASSERT_NE(handle_, nullptr) << "cannot load " << *libraryPath_ << ": " << ::dlerror();
    savedPath_ = std::getenv("PATH") ? std::getenv("PATH") : "";
    // The fake player records its runs beside the file it plays.
    unsetenv("FAKE_PLAYER_LOG");
  }

  void TearDown() override { setenv("PATH", savedPath_.c_str(), 1); }

  static std::string* libraryPath_;
  static void* handle_;
  std::string savedPath_;
  // Declared before the host, so that the modules are shut down while the backend lives.
  ScriptedBackend backend_;
  TestHost host_;
};

std::string* ModuleLibrary::libraryPath_ = nullptr;
void* ModuleLibrary::handle_ = nullptr;

// The broker is registered with its manager; the player (first) and the speech service are
// created when they can be, and one that cannot is logged without preventing the other. Both
// entry points return 0; closing leaves the modules registered.
TEST_P(ModuleLibrary, CreatesTheModulesThatCanBeCreated) {
  const Case& c = GetParam();
  const std::string noPlayer = host_.root() + "/no-programs-here";
  setenv("PATH", c.player ? (BEXKO_FAKE_PLAYER_DIR ":" + savedPath_).c_str() : noPlayer.c_str(), 1);
  if (c.language) {
    backend_.addVoice("Kenny", "English");
    ko::PackageInfo package;
    package.setIdentifier("scripted");
    package.setName("Scripted");
    package.addLanguage(ko::LanguageInfo("en_US", "tts_scripted"));
    host_.addPackage(package);
  }
  if (c.playerTaken) host_.addFakeModule("ZRAudioPlayer");
  const auto manager = host_.broker()->getBrokerManager().lock();
  ASSERT_NE(manager, nullptr);
  ZR::ZRBrokerManager::setInstance(nullptr);
  const auto createModule =
      reinterpret_cast<int (*)(boost::shared_ptr<ZR::ZRBroker>)>(::dlsym(handle_, "_createModule"));
  const auto closeModule = reinterpret_cast<int (*)()>(::dlsym(handle_, "_closeModule"));
  ASSERT_TRUE(createModule && closeModule);

  EXPECT_EQ(createModule(host_.broker()), 0);
  EXPECT_EQ(closeModule(), 0);

  EXPECT_EQ(ZR::ZRBrokerManager::getInstance(), manager);
  EXPECT_THAT(manager->getBrokers(), Contains(host_.broker()));
  std::vector<std::string> modules;
  for (const std::string& name : host_.broker()->getModuleNames()) {
    if (name == "ZRAudioPlayer" || name == "ZRTextToSpeech") modules.push_back(name);
  }
  EXPECT_EQ(modules, c.modules);
  std::vector<std::string> records;
  for (const auto& r : host_.logRecords()) {
    if (r.function != "_createModule") continue;
    records.push_back(std::string(ko::log::levelName(r.level)) + " " + r.category + " " + r.file +
                      ":" + std::to_string(r.line) + " " + r.message);
  }
  EXPECT_EQ(records, c.records);
  if (c.player && !c.playerTaken) {
    // The player created is the desktop player: it runs the player program.
    const std::string song = host_.root() + "/song.wav";
    std::ofstream{song};
    host_.broker()->call("ZRAudioPlayer", "playFile", {ZR::ZRValue(song)});
    EXPECT_TRUE(boost::filesystem::exists(host_.root() + "/calls"));
  }
}

const char* const kPlayerNotFound =
    "verbose ZRAudioPlayer :0 Failed to launch ZRAudioPlayer module: AudioPlayer is not found";
const char* const kNoLanguage =
    "error audioout :0 Failed to launch ZRTextToSpeech module: No TTS languages seem to be "
    "installed on the system. ZRTextToSpeech is disabled.";
const char* const kPlayerTaken =
    "info ZRAudioPlayer :0 Failed to launch ZRAudioPlayer module: A module named \"ZRAudioPlayer\" "
    "is already registered";
const std::vector<std::string> kBoth = {"ZRAudioPlayer", "ZRTextToSpeech"};

INSTANTIATE_TEST_SUITE_P(
    Cases, ModuleLibrary,
    ::testing::Values(Case{"PlayerAndLanguage", true, true, false, kBoth, {}},
                      Case{"NoPlayer", false, true, false, {"ZRTextToSpeech"}, {kPlayerNotFound}},
                      Case{"NoLanguage", true, false, false, {"ZRAudioPlayer"}, {kNoLanguage}},
                      Case{"PlayerNameTaken", true, true, true, kBoth, {kPlayerTaken}}),
    [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

}  // namespace
}  // namespace testing
}  // namespace bexko
