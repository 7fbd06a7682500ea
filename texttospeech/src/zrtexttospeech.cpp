// Start-up, shut-down and the list of installed language packages of the speech service.
#include <zr/zrtexttospeech.h>

#include <string>
#include <vector>

#include <boost/bind/bind.hpp>
#include <boost/filesystem.hpp>
#include <boost/function.hpp>
#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include <ko/eventloop.h>
#include <ko/object.h>
#include <ko/path.h>
#include <zr/zrerror.h>

namespace ZR {

namespace {

ko::log::CategoryType logCategory() {
  static const ko::log::CategoryType category = ko::log::addCategory("audio.zrtexttospeech.main");
  return category;
}

// Waits on the session without a practical time limit.
constexpr int kNoTimeLimit = 2147483647;
// How long the destructor waits for a bookmark callback that is running on the event loop.
constexpr int kLoopBarrierMs = 5000;

// A package-manager subscriber that holds the module weakly, so that a signal emitted while the
// module is being destroyed cannot reach a dead object.
boost::function<void(const ko::PackageInfo&)> packageSubscriber(
    boost::weak_ptr<ZRModuleCore> weakModule,
    void (ZRTextToSpeech::*handler)(const ko::PackageInfo&)) {
  return [weakModule, handler](const ko::PackageInfo& package) {
    if (boost::shared_ptr<ZRModuleCore> module = weakModule.lock()) {
      (static_cast<ZRTextToSpeech*>(module.get())->*handler)(package);
    }
  };
}

}  // namespace

const std::string ZRTextToSpeech::strTextDoneEvent = "ZRTextToSpeech/TextDone";
const std::string ZRTextToSpeech::strTextStartedEvent = "ZRTextToSpeech/TextStarted";
const std::string ZRTextToSpeech::strCurrentBookMarkEvent = "ZRTextToSpeech/CurrentBookMark";
const std::string ZRTextToSpeech::strPositionOfCurrentWordEvent =
    "ZRTextToSpeech/PositionOfCurrentWord";
const std::string ZRTextToSpeech::strCurrentWordEvent = "ZRTextToSpeech/CurrentWord";
const std::string ZRTextToSpeech::strCurrentSentenceEvent = "ZRTextToSpeech/CurrentSentence";
const std::string ZRTextToSpeech::strStatusEvent = "ZRTextToSpeech/Status";
const std::string ZRTextToSpeech::strTextInterruptedEvent = "ZRTextToSpeech/TextInterrupted";

ZRTextToSpeech::ZRTextToSpeech(boost::shared_ptr<ZRBroker> broker)
    : ZRModule(broker, "ZRTextToSpeech"),
      TextToSpeechEngineCallbackInterface(),
      ttsManager(nullptr),
      languageInfo(new ZR::TTSLanguageInfo()),
      appliedVoiceSetting(ZR::UNDEFINED, ""),
      globalVoiceSetting(ZR::UNDEFINED, ""),
      speakingLoopPending(false),
      wordPosition(0),
      textOffset(0),
      volume(1.0f),
      currentTaskId(-1),
      lastTaskId(0),
      bytesSent(0),
      maxLevel(1000),
      minSize(200),
      mrkAdvance(100),
      lastTagResult(false),
      reloadFlag(false) {
  xPublishMethods();

  try {
    preferencesProxy = getParentBroker()->getSpecialisedProxy<ZRPreferencesProxy>("ZRPreferences");
  } catch (const ZRError& e) {
    KO_LOG(logCategory(), ko::log::warning, "ZRTextToSpeech")
        << "init(): ZRPreferences proxy not found. " << e.what();
  }
  try {
    preferenceManagerProxy = boost::make_shared<ZRPreferenceManagerProxy>(getParentBroker());
  } catch (const ZRError& e) {
    KO_LOG(logCategory(), ko::log::warning, "ZRTextToSpeech")
        << "init(): Could not open proxy on ZRPreferenceManager: " << e.what();
  }
  try {
    packageManagerProxy = getParentBroker()->getProxy("PackageManager", 0);
  } catch (const ZRError&) {
    KO_LOG(logCategory(), ko::log::warning, "ZRTextToSpeech")
        << "init(): PackageManager not found.";
  }

  audioOutput = ko::audioOutput();
  if (audioOutput && !(audioOutput->sampleInfo() == sampleInfo)) {
    KO_LOG(logCategory(), ko::log::error, "ZRTextToSpeech")
        << "The audio output \"" << audioOutput->name()
        << "\" does not take the engine's audio format: speech will not be heard.";
    audioOutput.reset();
  } else if (audioOutput) {
    KO_LOG(logCategory(), ko::log::info, "ZRTextToSpeech")
        << "Speech plays through the audio output \"" << audioOutput->name() << "\"";
  }

  std::vector<ko::PackageInfo> packages = xGetInstalledPackages();

  KO_LOG(logCategory(), ko::log::verbose, "ZRTextToSpeech")
      << "ZRTextToSpeech, looking for languages in the following packages: ";
  for (const ko::PackageInfo& package : packages) {
    KO_LOG(logCategory(), ko::log::verbose, "ZRTextToSpeech")
        << "Packages: " << package.name("en_US") << " located in " << package.path();
  }

  // A constructor that throws never runs the destructor: the manager is freed here on failure.
  ttsManager = new TextToSpeechManager(this, languageInfo);
  bool initialized = false;
  try {
    initialized = ttsManager->initialize(packages);
  } catch (...) {
    delete ttsManager;
    ttsManager = nullptr;
    throw;
  }
  if (!initialized) {
    delete ttsManager;
    ttsManager = nullptr;
    throw ZRError(getName(), "ZRTextToSpeech",
                  "No TTS languages seem to be installed on the system. ZRTextToSpeech is "
                  "disabled.",
                  nullptr, 0);
  }
}

ZRTextToSpeech::~ZRTextToSpeech() {
  delete ttsManager;
  ttsManager = nullptr;

  // A bookmark timer still pending on the event loop holds a pointer to this object: cancel
  // the pending one, then let the loop run past whatever callback it is running now.
  {
    boost::lock_guard<boost::mutex> lock(markerMutex);
    for (ZRTextToSpeechMarker& marker : markers) {
      marker.timer.cancel();
    }
    markers.clear();
  }
  xFlushHeardWords(false);
  ko::EventLoop* loop = ko::getEventLoop();
  if (!loop->isInLoopThread()) {
    loop->post([] {}).wait(kLoopBarrierMs);
  }
}

void ZRTextToSpeech::init() {
  memoryProxy = getParentBroker()->getSpecialisedProxy<ZRMemoryProxy>("ZRMemory");

  memoryProxy->declareEvent(strTextDoneEvent);
  memoryProxy->declareEvent(strTextStartedEvent);
  memoryProxy->declareEvent(strCurrentBookMarkEvent);
  memoryProxy->declareEvent(strPositionOfCurrentWordEvent);
  memoryProxy->declareEvent(strCurrentWordEvent);
  memoryProxy->declareEvent(strCurrentSentenceEvent);
  memoryProxy->declareEvent(strStatusEvent);
  memoryProxy->declareEvent(strTextInterruptedEvent);

  memoryProxy->raiseEvent(strTextDoneEvent, ZRValue(0));
  memoryProxy->raiseEvent(strTextStartedEvent, ZRValue(0));
  memoryProxy->raiseEvent(strCurrentBookMarkEvent, ZRValue(0));
  memoryProxy->raiseEvent(strPositionOfCurrentWordEvent, ZRValue(0));
  memoryProxy->raiseEvent(strCurrentWordEvent, ZRValue(std::string()));
  memoryProxy->raiseEvent(strCurrentSentenceEvent, ZRValue(std::string()));
  memoryProxy->raiseEvent(strStatusEvent, ZRValue::array<int, std::string>(-1, "done"));

  xLoadDefaultLanguage();

  ko::Object packageManager =
      getParentBroker()->session()->service("PackageManager").value(kNoTimeLimit);
  boost::weak_ptr<ZRModuleCore> self = weak_from_this();
  packageManager
      .connect("onPackageInstalled", packageSubscriber(self, &ZRTextToSpeech::onPackageInstalled))
      .value(kNoTimeLimit);
  packageManager
      .connect("onPackageRemoved", packageSubscriber(self, &ZRTextToSpeech::onPackageRemoved))
      .value(kNoTimeLimit);

  packageInstalledEvent = "packageInstalled";
  packageRemovedEvent = "packageRemoved";
  memoryProxy->subscribeToMicroEvent(packageInstalledEvent, getName(), "",
                                     "_bexStoreApplicationInstalled");
  memoryProxy->subscribeToMicroEvent(packageRemovedEvent, getName(), "",
                                     "_bexStoreApplicationUninstalled");
}

void ZRTextToSpeech::exit() {
  exiting = true;
  xStopTask(-1);
  {
    // A stopped say still concludes (its last events); the host removes the event store only
    // after this returns.
    std::unique_lock<std::mutex> lock(activeSaysMutex);
    if (!activeSaysLeft.wait_for(lock, std::chrono::seconds(5),
                                 [this] { return activeSays == 0; })) {
      KO_LOG(logCategory(), ko::log::warning, "exit")
          << activeSays << " say call(s) still running 5 s after the stop; exiting without them";
    }
  }
  ZRModuleCore::exit();
}

void ZRTextToSpeech::reset() {
  std::lock_guard<ko::FairMutex> lock(ttsMutex);
  if (getLanguage() == "Japanese") {
    // A stop on another thread reads both settings while it cleans up.
    boost::unique_lock<boost::shared_mutex> queueLock(taskQueueLock);
    xSetParameter("inputMode", 3.0f);
    globalVoiceSetting.parameters["inputMode"] = 3.0f;
  }
  xSay("\\style=reset\\ \\rst\\", ZR::VoiceSetting(globalVoiceSetting), false, "");
  ttsManager->setDefaultVoice();
}

std::vector<ko::PackageInfo> ZRTextToSpeech::xGetInstalledPackages() const {
  if (!packageManagerProxy) {
    return {};
  }
  std::vector<ko::PackageInfo> packages =
      packageManagerProxy->call<std::vector<ko::PackageInfo>>("packages");
  addSystemEnginePackage(packages, "acapela");
  addSystemEnginePackage(packages, "aitalk");
  return packages;
}

void ZRTextToSpeech::addSystemEnginePackage(std::vector<ko::PackageInfo>& packages,
                                            const std::string& engineName) {
  std::string dir = ko::path::findData("tts", engineName, false);
  if (dir.empty()) {
    dir = "/usr/share/tts/" + engineName + "/";
  }
  boost::system::error_code ignored;
  if (!boost::filesystem::exists(boost::filesystem::symlink_status(dir, ignored))) {
    return;
  }
  ko::PackageInfo package;
  package.setVersion("1.0");
  package.setPath(dir);
  package.setName(engineName + "_system_package", "en_US");
  ko::LanguageInfo language;
  language.setEngineName("tts_" + engineName);
  package.addLanguage(language);
  packages.push_back(package);
}

}  // namespace ZR
