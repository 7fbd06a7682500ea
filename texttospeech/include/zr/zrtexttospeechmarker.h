#pragma once

#include <cstdint>

#include <ko/future.h>

namespace ZR {

/// One engine marker waiting for its time: a bookmark (value up to 64535) or a pause mark.
struct ZRTextToSpeechMarker {
  std::int32_t value = 0;
  /// Byte offset of the marker in the sentence's audio.
  std::uint32_t position = 0;
  /// The timer of the scheduled raise; a fresh unfinished future until scheduled.
  ko::Future<void> timer;
  /// The speech task during which the engine reported the marker.
  std::int32_t taskId = 0;
  /// 1 for a pause mark (value above 64535), else 0.
  std::uint32_t isPause = 0;

  /// Equal when value, position and task are equal; the timer and the pause flag are not
  /// compared.
  bool operator==(const ZRTextToSpeechMarker& other) const {
    return value == other.value && position == other.position && taskId == other.taskId;
  }
};

}  // namespace ZR
