// The module library as a host sees it: loaded with dlopen from the build tree's lib/ and
// entered through its two C entry points.
#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

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

using CreateModuleFunction = int (*)(boost::shared_ptr<ZR::ZRBroker>);
using CloseModuleFunction = int (*)();

const char* const kPlayerNotFound =
    "Failed to launch ZRAudioPlayer module: AudioPlayer is not found";
const char* const kNoLanguage =
    "Failed to launch ZRTextToSpeech module: No TTS languages seem to be installed on the system. "
    "ZRTextToSpeech is disabled.";

class ModuleLibrary : public ::testing::Test {
 protected:
  // The library is loaded once and never unloaded: modules it created may outlive a test's
  // host by a moment, and their code must stay mapped.
  static void SetUpTestSuite() {
    // Before any test host moves the installation prefix to its temporary tree.
    libraryPath_ = new std::string(ko::path::sdkPrefix() + "/lib/libbexko-tts.so");
    handle_ = ::dlopen(libraryPath_->c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_) {
      createModule_ = reinterpret_cast<CreateModuleFunction>(::dlsym(handle_, "_createModule"));
      closeModule_ = reinterpret_cast<CloseModuleFunction>(::dlsym(handle_, "_closeModule"));
    }
  }

  void SetUp() override {
    ASSERT_NE(handle_, nullptr) << "cannot load " << *libraryPath_ << ": " << ::dlerror();
    ASSERT_NE(createModule_, nullptr);
    ASSERT_NE(closeModule_, nullptr);
    const char* path = std::getenv("PATH");
    savedPath_ = path ? path : "";
    backend_ = std::make_unique<ScriptedBackend>();
    host_ = std::make_unique<TestHost>();
  }

  void TearDown() override {
    host_.reset();
    backend_.reset();
    setenv("PATH", savedPath_.c_str(), 1);
  }

  void putFakePlayerOnPath() {
    setenv("PATH", (std::string(BEXKO_FAKE_PLAYER_DIR) + ":" + savedPath_).c_str(), 1);
  }
  void removePlayersFromPath() {
    const std::string empty = host_->root() + "/no-programs-here";
    boost::filesystem::create_directories(empty);
    setenv("PATH", empty.c_str(), 1);
  }
  void installScriptedLanguage() {
    backend_->addVoice("Kenny", "English");
    ko::PackageInfo package;
    package.setIdentifier("scripted");
    package.setName("Scripted");
    package.addLanguage(ko::LanguageInfo("en_US", "tts_scripted"));
    host_->addPackage(package);
  }

  bool isRegistered(const std::string& module) const {
    return host_->broker()->getModuleByName(module) != nullptr;
  }

  /// The records of the entry point, in emission order.
  std::vector<ko::log::Record> entryRecords() const {
    std::vector<ko::log::Record> records;
    for (const auto& record : host_->logRecords()) {
      if (record.function == "_createModule") {
        records.push_back(record);
      }
    }
    return records;
  }

  static void expectRecord(const ko::log::Record& record, ko::log::LogLevel level,
                           const std::string& category, const std::string& text) {
    EXPECT_EQ(record.level, level);
    EXPECT_EQ(record.category, category);
    EXPECT_EQ(record.function, "_createModule");
    EXPECT_EQ(record.file, "");
    EXPECT_EQ(record.line, 0);
    EXPECT_EQ(record.message, text);
  }

  static std::string* libraryPath_;
  static void* handle_;
  static CreateModuleFunction createModule_;
  static CloseModuleFunction closeModule_;

  std::string savedPath_;
  // Declared before the host, so that the modules are shut down while the backend lives.
  std::unique_ptr<ScriptedBackend> backend_;
  std::unique_ptr<TestHost> host_;
};

std::string* ModuleLibrary::libraryPath_ = nullptr;
void* ModuleLibrary::handle_ = nullptr;
CreateModuleFunction ModuleLibrary::createModule_ = nullptr;
CloseModuleFunction ModuleLibrary::closeModule_ = nullptr;

TEST_F(ModuleLibrary, CreatesBothModulesWhenPlayerAndLanguageAreThere) {
  putFakePlayerOnPath();
  installScriptedLanguage();

  EXPECT_EQ(createModule_(host_->broker()), 0);

  EXPECT_TRUE(isRegistered("ZRAudioPlayer"));
  EXPECT_TRUE(isRegistered("ZRTextToSpeech"));
  EXPECT_TRUE(entryRecords().empty());
  // The player is registered before the speech service.
  const auto names = host_->broker()->getModuleNames();
  const auto player = std::find(names.begin(), names.end(), "ZRAudioPlayer");
  const auto speech = std::find(names.begin(), names.end(), "ZRTextToSpeech");
  EXPECT_LT(player - names.begin(), speech - names.begin());
}

TEST_F(ModuleLibrary, RegistersTheBrokerWithItsManager) {
  putFakePlayerOnPath();
  installScriptedLanguage();
  const auto manager = host_->broker()->getBrokerManager().lock();
  ASSERT_NE(manager, nullptr);
  ZR::ZRBrokerManager::setInstance(nullptr);

  EXPECT_EQ(createModule_(host_->broker()), 0);

  EXPECT_EQ(ZR::ZRBrokerManager::getInstance(), manager);
  const auto brokers = manager->getBrokers();
  EXPECT_NE(std::find(brokers.begin(), brokers.end(), host_->broker()), brokers.end());
}

TEST_F(ModuleLibrary, WithoutPlayerOnlyTheSpeechServiceIsCreated) {
  removePlayersFromPath();
  installScriptedLanguage();

  EXPECT_EQ(createModule_(host_->broker()), 0);

  EXPECT_FALSE(isRegistered("ZRAudioPlayer"));
  EXPECT_TRUE(isRegistered("ZRTextToSpeech"));
  const auto records = entryRecords();
  ASSERT_EQ(records.size(), 1u);
  expectRecord(records[0], ko::log::verbose, "ZRAudioPlayer", kPlayerNotFound);
}

TEST_F(ModuleLibrary, WithoutLanguageThePlayerStaysAndTheFailureIsAnError) {
  putFakePlayerOnPath();

  EXPECT_EQ(createModule_(host_->broker()), 0);

  EXPECT_TRUE(isRegistered("ZRAudioPlayer"));
  EXPECT_FALSE(isRegistered("ZRTextToSpeech"));
  const auto records = entryRecords();
  ASSERT_EQ(records.size(), 1u);
  expectRecord(records[0], ko::log::error, "audioout", kNoLanguage);
}

TEST_F(ModuleLibrary, WhenBothFailBothAreLoggedPlayerFirst) {
  removePlayersFromPath();

  EXPECT_EQ(createModule_(host_->broker()), 0);

  EXPECT_FALSE(isRegistered("ZRAudioPlayer"));
  EXPECT_FALSE(isRegistered("ZRTextToSpeech"));
  const auto records = entryRecords();
  ASSERT_EQ(records.size(), 2u);
  expectRecord(records[0], ko::log::verbose, "ZRAudioPlayer", kPlayerNotFound);
  expectRecord(records[1], ko::log::error, "audioout", kNoLanguage);
}

// A player module that cannot be registered (its name is taken) is an info record only, and
// the speech service is created all the same.
TEST_F(ModuleLibrary, PlayerFailureIsLoggedAsInfoAndTheSpeechServiceFollows) {
  putFakePlayerOnPath();
  installScriptedLanguage();
  host_->addFakeModule("ZRAudioPlayer");

  EXPECT_EQ(createModule_(host_->broker()), 0);

  EXPECT_TRUE(isRegistered("ZRTextToSpeech"));
  const auto records = entryRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, ko::log::info);
  EXPECT_EQ(records[0].category, "ZRAudioPlayer");
  EXPECT_EQ(records[0].message.rfind("Failed to launch ZRAudioPlayer module: ", 0), 0u)
      << records[0].message;
  EXPECT_GT(records[0].message.size(),
            std::string("Failed to launch ZRAudioPlayer module: ").size());
}

TEST_F(ModuleLibrary, CloseModuleReturnsZeroAndLeavesTheModulesRegistered) {
  EXPECT_EQ(closeModule_(), 0);  // before any creation on this host
  putFakePlayerOnPath();
  installScriptedLanguage();
  ASSERT_EQ(createModule_(host_->broker()), 0);

  EXPECT_EQ(closeModule_(), 0);

  EXPECT_TRUE(isRegistered("ZRAudioPlayer"));
  EXPECT_TRUE(isRegistered("ZRTextToSpeech"));
}

// The player created by the library plays through the host like any module.
TEST_F(ModuleLibrary, CreatedPlayerPlaysThroughTheBroker) {
  putFakePlayerOnPath();
  installScriptedLanguage();
  ASSERT_EQ(createModule_(host_->broker()), 0);
  const std::string sounds = host_->root() + "/sounds";
  boost::filesystem::create_directories(sounds);
  const std::string song = sounds + "/song.wav";
  std::ofstream{song};
  setenv("FAKE_PLAYER_LOG", sounds.c_str(), 1);
  setenv("FAKE_PLAYER_SECONDS", "0.05", 1);

  host_->broker()->call("ZRAudioPlayer", "playFile", {ZR::ZRValue(song)});

  unsetenv("FAKE_PLAYER_LOG");
  unsetenv("FAKE_PLAYER_SECONDS");
  std::ifstream calls(sounds + "/calls");
  std::string pid;
  ASSERT_TRUE(static_cast<bool>(std::getline(calls, pid)));
  std::ifstream args(sounds + "/" + pid + ".args");
  std::vector<std::string> lines;
  for (std::string line; std::getline(args, line);) {
    lines.push_back(line);
  }
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], std::string(BEXKO_FAKE_PLAYER_DIR) + "/sndfile-play");
  EXPECT_EQ(lines[1], song);
}

}  // namespace
}  // namespace testing
}  // namespace bexko
