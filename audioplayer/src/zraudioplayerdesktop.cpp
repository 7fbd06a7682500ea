#include <zr/zraudioplayerdesktop.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <mutex>
#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>

#include <ko/log.h>
#include <ko/path.h>
#include <zr/zrerror.h>

namespace ZR {

namespace {

const char* const kModuleName = "ZRAudioPlayer";
const char* const kPlayerProgram = "sndfile-play";
const int kLastTaskId = 2147483646;

ko::log::CategoryType playerCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("ZRAudioPlayer");
  return category;
}

// The operations that are not supported log under this spelling; scripts that filter the
// player's log by category rely on it.
ko::log::CategoryType unsupportedCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("ZRAudioPLayer");
  return category;
}

}  // namespace

ZRAudioPlayerDesktop::ZRAudioPlayerDesktop(boost::shared_ptr<ZRBroker> broker)
    : ZRModule(broker, kModuleName),
      launchMutex(ZRMutex::createZRMutex()),
      stopMutex(ZRMutex::createZRMutex()),
      lastTaskId(0),
      playerPath(ko::path::findBin(kPlayerProgram, false)) {
  using Self = ZRAudioPlayerDesktop;
  const std::string name = getName();
  setModuleDescription("This module allows to play wav files on BEX");

  functionName("playFile", name, "Plays a wav or mp3 file");
  addParam("fileName", "Path of the sound file");
  bindMethodOverload(
      createFunctor(this, static_cast<void (Self::*)(const std::string&)>(&Self::playFile)));

  functionName("playFile", name, "Plays a wav or mp3 file, with specific volume and audio balance");
  addParam("fileName", "Path of the sound file");
  addParam("volume", "volume of the sound file (must be between 0.0 and 1.0)");
  addParam("pan", "audio balance of the sound file (-1.0 : left / 1.0 : right / 0.0 : centered)");
  bindMethodOverload(createFunctor(
      this, static_cast<void (Self::*)(const std::string&, const float&, const float&)>(
                &Self::playFile)));

  functionName("playFileInLoop", name, "Plays a wav or mp3 file in loop");
  addParam("fileName", "Path of the sound file");
  bindMethodOverload(
      createFunctor(this, static_cast<void (Self::*)(const std::string&)>(&Self::playFileInLoop)));

  functionName("playFileInLoop", name,
               "Plays a wav or mp3 file in loop, with specific volume and audio balance");
  addParam("fileName", "Path of the sound file");
  addParam("volume", "volume of the sound file (must be between 0.0 and 1.0)");
  addParam("pan", "audio balance of the sound file (-1.0 : left / 1.0 : right)");
  bindMethodOverload(createFunctor(
      this, static_cast<void (Self::*)(const std::string&, const float&, const float&)>(
                &Self::playFileInLoop)));

  functionName("playFileFromPosition", name,
               "Plays a wav or mp3 file from a given position in the file.");
  addParam("fileName", "Name of the sound file");
  addParam("position", "Position in second where the playing has to begin");
  bindMethodOverload(createFunctor(
      this,
      static_cast<void (Self::*)(const std::string&, const float&)>(&Self::playFileFromPosition)));

  functionName("playFileFromPosition", name,
               "Plays a wav or mp3 file from a given position in the file, with specific volume "
               "and audio balance");
  addParam("fileName", "Name of the sound file");
  addParam("position", "Position in second where the playing has to begin");
  addParam("volume", "volume of the sound file (must be between 0.0 and 1.0)");
  addParam("pan", "audio balance of the sound file (-1.0 : left / 1.0 : right)");
  bindMethodOverload(createFunctor(
      this,
      static_cast<void (Self::*)(const std::string&, const float&, const float&, const float&)>(
          &Self::playFileFromPosition)));

  functionName("pause", name, "Pause a play back");
  addParam("id", "Id of the process that is playing the file you want to put in pause");
  bindMethodOverload(createFunctor(this, &Self::pause));
}

ZRAudioPlayerDesktop::~ZRAudioPlayerDesktop() = default;

void ZRAudioPlayerDesktop::init() {
  if (playerPath.empty()) {
    throw ZRError(kModuleName, "init", "Couldn't find audioplayer");
  }
}

std::string ZRAudioPlayerDesktop::findAudioPlayer() {
  return ko::path::findBin(kPlayerProgram, false);
}

void ZRAudioPlayerDesktop::playFile(const std::string& fileName) {
  _playFileFromPosition(fileName, 0, 1.0f, 0, false);
}

void ZRAudioPlayerDesktop::playFile(const std::string& fileName, const float& volume,
                                    const float& pan) {
  _playFileFromPosition(fileName, 0, volume, pan, false);
}

void ZRAudioPlayerDesktop::playFileInLoop(const std::string& fileName) { xLoop(fileName); }

void ZRAudioPlayerDesktop::playFileInLoop(const std::string& fileName, const float& volume,
                                          const float& pan) {
  xLoop(fileName);
}

void ZRAudioPlayerDesktop::_playFileInLoop(const std::string& fileName, float volume, float pan) {
  xLoop(fileName);
}

void ZRAudioPlayerDesktop::playFileFromPosition(const std::string& fileName,
                                                const float& position) {
  _playFileFromPosition(fileName, position, 1.0f, 0, false);
}

void ZRAudioPlayerDesktop::playFileFromPosition(const std::string& fileName, const float& position,
                                                const float& volume, const float& pan) {
  _playFileFromPosition(fileName, position, volume, pan, false);
}

bool ZRAudioPlayerDesktop::_playFileFromPosition(const std::string& fileName, float position,
                                                 float volume, float pan, bool loop) {
  return xPlayPass(fileName, false, 0).end != PassEnd::Stopped;
}

ZRAudioPlayerDesktop::Pass ZRAudioPlayerDesktop::xPlayPass(const std::string& fileName, bool inLoop,
                                                           int waitingAs) {
  static const char* const kMethod = "_playFileFromPosition";
  if (!isAWavFile(fileName) && !isAOggFile(fileName)) {
    throw ZRError(kModuleName, kMethod, "Format not supported. Only .ogg and .wav are supported");
  }

  // A posted call is known to its client by the host's call id, which is also what the host's
  // stop passes back to us; a loop that was posted reuses it for every pass.
  Pass pass;
  const int taskId = isPCalled() ? getMethodID() : xGenerateUniqueTaskID();
  pass.taskId = taskId;

  // The library path is handed to the player as its second argument, not set in its
  // environment; players installed by the host accept it there.
  const std::string libraryPath =
      "DYLD_LIBRARY_PATH=" + (boost::filesystem::path(ko::path::sdkPrefix()) / "lib").string();
  const char* const argv[] = {playerPath.c_str(), fileName.c_str(), libraryPath.c_str(), nullptr};
  const auto started = std::chrono::steady_clock::now();
  const int pid = ko::os::spawnvp(argv);
  KO_LOG(playerCategory(), ko::log::info, kMethod)
      << "Launch " << playerPath << " " << fileName << " -> pid = " << pid;
  if (pid == -1) {
    throw ZRError(kModuleName, kMethod, "Cannot launch " + playerPath + " --file " + fileName);
  }

  bool stoppedWhileStarting = false;
  {
    // Entering is done under launchMutex; stopMutex is taken as well because stop and the end
    // of other playbacks read and erase the same map under it, and a map must not be changed
    // by two threads at once. The order (launch, then stop) is the only one in which both are
    // held, so it cannot deadlock.
    ZRCriticalSection launching(launchMutex);
    ZRCriticalSection lock(stopMutex);
    // A loop back from its wait stays in loopsWaiting until its new player is entered here, so
    // that a stop never falls between the two: if one came, the entry is gone.
    if (waitingAs != 0 && loopsWaiting.erase(waitingAs) == 0) {
      stoppedWhileStarting = true;
    } else {
      taskToPid[taskId] = pid;
    }
  }
  if (stoppedWhileStarting) {
    const int result = ko::os::kill(pid, SIGTERM);
    KO_LOG(playerCategory(), ko::log::verbose, "stop")
        << "kill " << pid << ", started by the loop " << waitingAs
        << " as it was stopped; kill ret = " << result;
    int status = 0;
    ko::os::waitpid(pid, &status);
    pass.end = PassEnd::Stopped;
    return pass;
  }

  int status = 0;
  const int waited = ko::os::waitpid(pid, &status);
  const int waitError = errno;
  const bool failedAtOnce =
      (waited != 0 || status != 0) && std::chrono::steady_clock::now() - started < failedAtOnceMs;
  // A loop reports the failures of its passes that fail at once itself, once per run of them.
  const ko::log::LogLevel failureLevel =
      inLoop && failedAtOnce ? ko::log::verbose : ko::log::warning;
  if (waited != 0) {
    KO_LOG(playerCategory(), failureLevel, kMethod)
        << "Waiting pid " << pid << " returned " << waited << " (errno=" << waitError << ")";
  }
  if (status != 0) {
    KO_LOG(playerCategory(), failureLevel, kMethod)
        << "Audioplayer exited abnormally with the code=" << status;
  }
  pass.status = status;

  ZRCriticalSection lock(stopMutex);
  auto running = taskToPid.find(taskId);
  if (running == taskToPid.end()) {
    pass.end = PassEnd::Stopped;  // a stop removed it
    return pass;
  }
  taskToPid.erase(running);
  if (!failedAtOnce) {
    pass.end = PassEnd::Played;
    return pass;
  }
  // The loop will wait before its next pass: it is entered as waiting in the same step that
  // takes it out of taskToPid, so that a stop finds it in one or the other.
  if (inLoop) loopsWaiting.insert(taskId);
  pass.end = PassEnd::FailedAtOnce;
  return pass;
}

void ZRAudioPlayerDesktop::xLoop(const std::string& fileName) {
  static const char* const kMethod = "playFileInLoop";
  int failuresInARow = 0;
  std::chrono::milliseconds delay = backOffFirstMs;
  int waitingAs = 0;  // the task identifier the loop waited as, until its next player is entered
  for (;;) {
    Pass pass;
    try {
      pass = xPlayPass(fileName, true, waitingAs);
    } catch (...) {
      // A pass that fails before its player is entered (the file is gone, the player cannot
      // start) ends the loop: it no longer waits.
      if (waitingAs != 0) {
        ZRCriticalSection lock(stopMutex);
        loopsWaiting.erase(waitingAs);
      }
      throw;
    }
    waitingAs = 0;
    if (pass.end == PassEnd::Stopped) return;
    if (pass.end == PassEnd::Played) {
      if (failuresInARow > 0) {
        KO_LOG(playerCategory(), ko::log::info, kMethod)
            << "The player plays " << fileName << " again after " << failuresInARow
            << " failed passes";
      }
      failuresInARow = 0;
      delay = backOffFirstMs;
      continue;
    }
    // A player that fails at once would otherwise be started again at once, for as long as the
    // loop lives: the loop waits, longer after each failure, until a pass plays or it is stopped.
    ++failuresInARow;
    if (failuresInARow == 1) {
      KO_LOG(playerCategory(), ko::log::warning, kMethod)
          << "The player failed at once on " << fileName << " (exit code " << pass.status
          << "): the loop waits before each new pass, from " << backOffFirstMs.count()
          << " ms up to " << backOffLongestMs.count() << " ms, until a pass plays";
    } else {
      KO_LOG(playerCategory(), ko::log::verbose, kMethod)
          << "The player failed at once on " << fileName << " " << failuresInARow
          << " times in a row (exit code " << pass.status << "); next pass in " << delay.count()
          << " ms";
    }
    if (!xWaitBeforeNextPass(pass.taskId, delay)) return;
    waitingAs = pass.taskId;
    delay = std::min(delay * 2, std::chrono::milliseconds(backOffLongestMs));
  }
}

bool ZRAudioPlayerDesktop::xWaitBeforeNextPass(int taskId, std::chrono::milliseconds delay) {
  std::unique_lock<ZRMutex> lock(*stopMutex);
  const bool stopped =
      loopWaitEnded.wait_for(lock, delay, [&] { return loopsWaiting.count(taskId) == 0; });
  return !stopped;
}

void ZRAudioPlayerDesktop::stop(const int& id) {
  ZRCriticalSection lock(stopMutex);
  auto running = taskToPid.find(id);
  if (running == taskToPid.end()) {
    // A loop waiting after a failed pass has no player to kill: it is woken and ends.
    if (loopsWaiting.erase(id) > 0) {
      KO_LOG(playerCategory(), ko::log::verbose, "stop") << "Stopped the waiting loop " << id;
      loopWaitEnded.notify_all();
    }
    return;
  }
  const int pid = running->second;
  KO_LOG(playerCategory(), ko::log::verbose, "stop") << "kill " << pid;
  const int result = ko::os::kill(pid, SIGTERM);
  KO_LOG(playerCategory(), ko::log::verbose, "stop") << "kill ret = " << result;
  taskToPid.erase(running);
}

void ZRAudioPlayerDesktop::pause(const int& id) {
  KO_LOG(unsupportedCategory(), ko::log::warning, "pause") << "pause is not yet supported";
}

int ZRAudioPlayerDesktop::loadFile(const std::string& fileName) {
  KO_LOG(unsupportedCategory(), ko::log::warning, "loadFile")
      << "LoadFile is not implemented yet...";
  return -1;
}

void ZRAudioPlayerDesktop::_play(int id, float volume, float pan, bool loop) {
  KO_LOG(unsupportedCategory(), ko::log::warning, "_play") << "play is not yet supported";
}

int ZRAudioPlayerDesktop::xGenerateUniqueTaskID() {
  ZRCriticalSection lock(launchMutex);
  if (lastTaskId == kLastTaskId) {
    lastTaskId = 0;
  }
  return ++lastTaskId;
}

}  // namespace ZR
