#pragma once

#include <atomic>
#include <cstddef>
#include <string>

#include <boost/thread/mutex.hpp>

#include <ko/audio.h>
#include <ko/future.h>

namespace ZR {

/// One queued sentence: its text (cleaned, tags kept), its identifier and, for sayToFile, the
/// sound file it writes. Always held through a shared pointer, shared between the service's
/// queue and the caller waiting for it.
class ZRTextToSpeechTask {
 public:
  /// Opens `fileName` for writing when it is not empty; a failure to open propagates.
  ZRTextToSpeechTask(int id, std::string sentence, const std::string& fileName,
                     const ko::AudioSampleInfo& info);
  ~ZRTextToSpeechTask();
  ZRTextToSpeechTask(const ZRTextToSpeechTask&) = delete;
  ZRTextToSpeechTask& operator=(const ZRTextToSpeechTask&) = delete;

  std::string sentence() const;
  std::string getFileName() const;
  int getId() const;
  /// Marks the task stopped; never cleared.
  void stopTask();
  bool isStopped() const;
  bool fileAsOutput() const;

  /// The future of the task's completion, created on the first call.
  ko::Future<void> startSynth();
  /// Completes the future of startSynth, if any.
  void textDone();
  /// Appends audio to the task's file; nothing for a spoken task.
  void writeToFile(const void* data, std::size_t size);

 private:
  std::string sentenceText;
  std::string fileName;
  int id;
  // Set by stop requests on other threads while the speaking thread reads it.
  std::atomic<bool> stopped;
  ko::AudioSampleInfo sampleInfo;
  ko::AudioSndFile sndFile;
  bool hasFileOutput;
  boost::mutex taskMutex;
  ko::Promise<void>* donePromise;
};

}  // namespace ZR
