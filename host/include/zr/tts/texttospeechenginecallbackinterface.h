#pragma once

namespace ZR {

/// Events the engine reports while it synthesises a sentence.
enum TextToSpeechEngineEvent {
  /// A marker was reached: value = marker number (above 64535 a pause mark), position = byte
  /// offset of the marker in the sentence's audio, in the host's default audio format.
  TTS_EVENT_MARKER = 0,
  /// A word was reached: value = character index of the word in the sentence without tags,
  /// position = its byte offset in the sentence's audio.
  TTS_EVENT_WORD = 1,
  /// A sentence boundary inside the text (informational).
  TTS_EVENT_SENTENCE = 2,
  /// The synthesis of the text ended (normally or stopped).
  TTS_EVENT_END = 3,
};

}  // namespace ZR

/// What the engine calls back while it synthesises, on the thread that synthesises.
class TextToSpeechEngineCallbackInterface {
 public:
  virtual ~TextToSpeechEngineCallbackInterface() = default;
  /// One block of interleaved 16-bit samples in the host's default format; `count` samples.
  virtual void TTSCallBack(short* samples, unsigned int count) = 0;
  virtual void TTSEventCallBack(ZR::TextToSpeechEngineEvent event, int value,
                                unsigned int position) = 0;
};
