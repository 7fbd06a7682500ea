// Speech tasks: queuing each request to speak, speaking the head of the queue on the caller's
// thread, concluding it, and stopping tasks from other threads.
#include <zr/zrtexttospeech.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/locks.hpp>

#include <ko/path.h>
#include <zr/tts/textutils.h>
#include <zr/zrerror.h>

namespace ZR {

namespace {

ko::log::CategoryType logCategory() {
  static const ko::log::CategoryType category = ko::log::addCategory("audio.zrtexttospeech.main");
  return category;
}

constexpr int kLastTaskId = 2147483646;
// A sentence shown in an encoding error is cut after this many bytes.
constexpr std::size_t kShownTextBytes = 120;

using QueueLock = boost::unique_lock<boost::shared_mutex>;

ZRValue statusValue(int id, const std::string& word) {
  return ZRValue::array<int, std::string>(id, word);
}

}  // namespace

void ZRTextToSpeech::say(const std::string& text) {
  std::lock_guard<ko::FairMutex> lock(ttsMutex);
  ZR::VoiceSetting setting = xRequestedSetting();
  xSay(text, setting, false, "");
}

void ZRTextToSpeech::say(const std::string& text, const std::string& language) {
  std::lock_guard<ko::FairMutex> lock(ttsMutex);
  std::string formatted = xFormatLanguage(language);
  if (!xIsLanguageInstalled(formatted)) {
    throw ZRError(getName(), "say", language + " language is not installed.");
  }
  ZR::VoiceSetting setting = xGetVoiceSettingFromLanguage(language);
  xSay(text, setting, false, "");
}

void ZRTextToSpeech::sayToFile(const std::string& text, const std::string& fileName) {
  std::lock_guard<ko::FairMutex> lock(ttsMutex);
  ZR::VoiceSetting setting = xRequestedSetting();
  xSay(text, setting, true, fileName);
}

void ZRTextToSpeech::stopAll() { xStopTask(-1); }

void ZRTextToSpeech::stop(const int& id) {
  if (id != -1 && xStopTask(id)) {
    return;
  }
  KO_LOG(logCategory(), ko::log::warning, "stop")
      << "No task with the id " << id << " is currently being processed.";
}

void ZRTextToSpeech::pause() {
  if (!ttsManager->isPaused()) {
    ttsManager->pauseSynthetizer();
  }
  // What is already in the output is held too, so that the listener hears the pause.
  if (audioOutput) {
    audioOutput->pause();
  }
}

void ZRTextToSpeech::resume() {
  if (audioOutput) {
    audioOutput->resume();
  }
  if (ttsManager->isPaused()) {
    ttsManager->restartSynthetizer();
  }
}

void ZRTextToSpeech::xPause() { pause(); }

void ZRTextToSpeech::xResume() { resume(); }

void ZRTextToSpeech::xSay(const std::string& text, ZR::VoiceSetting setting, bool toFile,
                          const std::string& fileName) {
  if (text.empty()) {
    return;
  }

  // Counted from here to the end, for exit to wait on.
  struct ActiveSay {
    explicit ActiveSay(ZRTextToSpeech& service) : tts(service) {
      std::lock_guard<std::mutex> lock(tts.activeSaysMutex);
      ++tts.activeSays;
    }
    ~ActiveSay() {
      std::lock_guard<std::mutex> lock(tts.activeSaysMutex);
      --tts.activeSays;
      tts.activeSaysLeft.notify_all();
    }
    ZRTextToSpeech& tts;
  } active(*this);

  QueueLock queueLock(taskQueueLock);
  if (exiting) {
    // Read under the queue lock that exit's stop takes: either this say is refused here or its
    // task is in the queue when the stop runs.
    throw ZRError(getName(), "say", "The speech service is shutting down.");
  }
  std::string sentence = text;
  lastTagResult = false;

  if (!toFile) {
    wordPosition = 0;
    textOffset = 0;
  } else {
    try {
      xCheckFile(fileName);
    } catch (const ZRError& e) {
      throw ZRError(getName(), "sayToFile", e.what());
    }
  }

  ZR::replaceMrkPause(sentence);
  ZR::replaceIncorrectApostrophe(sentence);
  lastTagResult = ZR::checkLastTag(sentence);

  std::string language;
  if (setting.type == ZR::VOICE) {
    language = ttsManager->getLanguage(setting.value);
  } else if (setting.type == ZR::LANGUAGE) {
    language = setting.value;
  }

  if (!language.empty() && !ttsManager->testTextEncoding(sentence, language)) {
    std::string shown = ZR::replaceTags(sentence, "");
    if (shown.size() > kShownTextBytes) {
      shown = shown.substr(0, kShownTextBytes) + " ...";
    }
    throw ZRError(getName(), "say",
                  "Error in encoding conversion. Please verify that the text \"" + shown +
                      "\" is well adapted to the selected language (" + setting.value + ")");
  }

  if (lastTaskId == kLastTaskId) {
    lastTaskId = 0;
  }
  int id = ++lastTaskId;
  if (isPCalled()) {
    // The host's stop of a posted call names the call's id: the task takes it.
    id = getMethodID();
  }

  boost::shared_ptr<ZRTextToSpeechTask> task =
      boost::make_shared<ZRTextToSpeechTask>(id, sentence, fileName, sampleInfo);
  taskQueue.push_back(task);
  memoryProxy->raiseEvent(strStatusEvent, statusValue(id, "enqueued"));

  while (!taskQueue.empty() && taskQueue.front() != task && !task->isStopped()) {
    taskAvailable.wait(queueLock);
  }
  bool stopped = task->isStopped();
  queueLock.unlock();
  if (stopped) {
    return;
  }

  try {
    {
      // A stop on another thread applies the requested setting again (cleanUp) under the queue
      // lock; applying this sentence's setting under it too keeps the two from interleaving.
      QueueLock settingLock(taskQueueLock);
      xSetVoiceSetting(setting);
    }
    xSpeakingLoop(task);
    {
      boost::unique_lock<boost::shared_mutex> wordsLock(currentWordsLock);
      currentWords.clear();
      announcedWords = 0;
    }
    xConcludeSay(task, std::string(), "done");
  } catch (const ZRError& e) {
    xConcludeSay(task, std::string(), "thrown");
    KO_LOG(logCategory(), ko::log::error, "xSay") << e.what();
    throw ZRError(e);
  }
}

int ZRTextToSpeech::xGenerateUniqueTaskID() {
  if (lastTaskId == kLastTaskId) {
    lastTaskId = 0;
  }
  return ++lastTaskId;
}

void ZRTextToSpeech::xCheckFile(std::string fileName) {
  boost::filesystem::path path(fileName);
  std::string file = path.filename().string();
  std::string directory = path.parent_path().string();

  // A path ending in a slash names a folder, whose filename part is "." for boost.
  if (file.empty() || file == "." || boost::ends_with(fileName, "/")) {
    KO_LOG(logCategory(), ko::log::error, "xCheckFile") << "Please specify an output file.";
    throw ZRError(getName(), "xCheckFile", "Please specify an output file.");
  }

  std::string extension = path.extension().string();
  if (!boost::iequals(extension, ".wav") && !boost::iequals(extension, ".raw")) {
    throw ZRError(getName(), "xCheckFile", "The specified file must be a wav file.");
  }

  const std::string home = ko::os::home();
  const std::string tmp = ko::os::tmp();
  if (directory.find(home) != std::string::npos && directory.find(tmp) != std::string::npos) {
    throw ZRError(getName(), "xCheckFile",
                  "It is only allowed to write in the " + home + " or " + tmp + " directories");
  }

  if (!directory.empty() && !boost::filesystem::is_directory(directory)) {
    boost::filesystem::create_directories(directory);
  }
}

void ZRTextToSpeech::xSpeakingLoop(boost::shared_ptr<ZRTextToSpeechTask> task) {
  const std::string sentence = task->sentence();
  if (!isTagsOnlySentence(sentence)) {
    memoryProxy->raiseEvent(strTextStartedEvent, ZRValue(1));
    memoryProxy->raiseEvent(strTextDoneEvent, ZRValue(0));
  }
  memoryProxy->raiseEvent(strStatusEvent, statusValue(task->getId(), "started"));

  std::string shown = ZR::replaceTags(sentence, "");
  if (!task->fileAsOutput()) {
    memoryProxy->raiseEvent(strCurrentSentenceEvent, ZRValue(shown));
  }
  {
    boost::unique_lock<boost::shared_mutex> wordsLock(currentWordsLock);
    // Words a stopped sentence left unannounced still come first, as they always did.
    currentWords.erase(currentWords.begin(),
                       currentWords.begin() + static_cast<std::ptrdiff_t>(announcedWords));
    announcedWords = 0;
    ZR::tokenizeString(shown, currentWords, " .,;:!");
  }

  {
    // Checked and published under the queue lock, so that a stop either sees this task as the
    // engine's or finds it stopped before it reaches the engine.
    QueueLock queueLock(taskQueueLock);
    if (task->isStopped()) {
      return;
    }
    if (audioOutput) {
      xStartPlayback(*task);
    }
    // The task and its id are published together: a stop aimed at the previous id must not
    // reach this task through currentTask. The engine's end event reads it on its own thread.
    boost::atomic_store(&currentTask, task);
    currentTaskId = task->getId();
  }
  try {
    ttsManager->startSynthetizer(sentence);
    textOffset = ZR::countUtf8Chars(shown.c_str());
  } catch (const ZRError& e) {
    KO_LOG(logCategory(), ko::log::error, "xSpeakingLoop") << "Error catched " << e.toString();
  }
  if (audioOutput) {
    xEndPlayback(*task);
  }
}

void ZRTextToSpeech::xConcludeSay(boost::shared_ptr<ZRTextToSpeechTask> task,
                                  const std::string& message, const std::string& status) {
  {
    QueueLock queueLock(taskQueueLock);
    if (!task->isStopped()) {
      if (!taskQueue.empty()) {
        taskQueue.pop_front();
      }
      task->stopTask();
      memoryProxy->raiseEvent(strStatusEvent, statusValue(task->getId(), status));
    }
  }
  if (!task->fileAsOutput()) {
    memoryProxy->raiseEvent(strCurrentSentenceEvent, ZRValue(std::string()));
  }
}

bool ZRTextToSpeech::xStopTask(int id) {
  QueueLock queueLock(taskQueueLock);
  const int target = id == -1 ? currentTaskId.load() : id;

  auto it = std::find_if(taskQueue.begin(), taskQueue.end(),
                         [target](const boost::shared_ptr<ZRTextToSpeechTask>& task) {
                           return task->getId() == target;
                         });
  const bool found = it != taskQueue.end();

  std::vector<int> stoppedIds;
  if (id != -1) {
    if (found) {
      (*it)->stopTask();
      stoppedIds.push_back((*it)->getId());
      taskQueue.erase(it);
    }
  } else {
    for (const boost::shared_ptr<ZRTextToSpeechTask>& task : taskQueue) {
      task->stopTask();
      stoppedIds.push_back(task->getId());
    }
    taskQueue.clear();
  }

  bool interrupted = false;
  if (target == currentTaskId && currentTaskId != -1) {
    ttsManager->stopSynthetizer();
    xSilenceOutput();
    if (speakingLoopPending) {
      speakingLoopPromise.future().cancel();
      speakingLoopPending = false;
    }
    memoryProxy->raiseEvent(strTextInterruptedEvent, ZRValue(1));
    cleanUp();
    if (boost::shared_ptr<ZRTextToSpeechTask> task = boost::atomic_load(&currentTask)) {
      task->stopTask();
    }
    interrupted = true;
  }

  for (int stoppedId : stoppedIds) {
    memoryProxy->raiseEvent(strStatusEvent, statusValue(stoppedId, "stopped"));
  }
  taskAvailable.notify_all();
  return id == -1 || found || interrupted;
}

}  // namespace ZR
