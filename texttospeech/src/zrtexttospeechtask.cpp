#include <zr/zrtexttospeechtask.h>

#include <utility>

namespace ZR {

ZRTextToSpeechTask::ZRTextToSpeechTask(int id, std::string sentence, const std::string& fileName,
                                       const ko::AudioSampleInfo& info)
    : sentenceText(std::move(sentence)),
      fileName(fileName),
      id(id),
      stopped(false),
      sampleInfo(info),
      hasFileOutput(!fileName.empty()),
      donePromise(nullptr) {
  if (hasFileOutput) {
    sndFile.setSampleInfo(info);
    // Write, with the file type chosen from the name's extension.
    sndFile.open(fileName, ko::AudioSndFileWrite, ko::AudioSndFileByExtension);
  }
}

ZRTextToSpeechTask::~ZRTextToSpeechTask() {
  if (hasFileOutput) {
    sndFile.close();
  }
  delete donePromise;
}

std::string ZRTextToSpeechTask::sentence() const { return sentenceText; }

std::string ZRTextToSpeechTask::getFileName() const { return fileName; }

int ZRTextToSpeechTask::getId() const { return id; }

void ZRTextToSpeechTask::stopTask() { stopped = true; }

bool ZRTextToSpeechTask::isStopped() const { return stopped; }

bool ZRTextToSpeechTask::fileAsOutput() const { return hasFileOutput; }

ko::Future<void> ZRTextToSpeechTask::startSynth() {
  if (!donePromise) {
    donePromise = new ko::Promise<void>();
  }
  return donePromise->future();
}

void ZRTextToSpeechTask::textDone() {
  if (donePromise) {
    donePromise->setValue();
    delete donePromise;
    donePromise = nullptr;
  }
}

void ZRTextToSpeechTask::writeToFile(const void* data, std::size_t size) {
  if (hasFileOutput) {
    sndFile.write(data, size);
  }
}

}  // namespace ZR
