#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include <ko/audio.h>
#include <ko/audiooutput.h>
#include <ko/clock.h>

namespace bexko::audiooutput {

/// A silent audio output with the timing of a sound card: what is written is consumed at the
/// audio rate of its format from a bounded buffer, so that a producer is paced to real time and
/// the play position moves as a listener would hear it. For CI and machines without sound.
///
/// The play position is computed from ko::Clock, not advanced by a thread: it is exact, and a
/// blocked write() or drain() sleeps until the moment at which it can go on.
class ClockOutput : public ko::AudioOutput {
 public:
  /// 100 ms: short enough that a flush (a stop) loses little and the play position trails the
  /// producer by little, long enough that a writer woken tens of milliseconds late on a loaded
  /// machine still finds audio queued, so that the position does not stall on an underrun.
  static constexpr std::chrono::milliseconds defaultCapacity{100};

  /// An output that consumes `info`'s format and buffers `capacity` of audio (at least one
  /// frame). Throws ZR::ZRError (module "AudioOutput", method "open") when the format has no
  /// rate, no channels or the capacity is not positive.
  explicit ClockOutput(ko::AudioSampleInfo info = {},
                       std::chrono::milliseconds capacity = defaultCapacity);
  ~ClockOutput() override;
  ClockOutput(const ClockOutput&) = delete;
  ClockOutput& operator=(const ClockOutput&) = delete;

  std::string name() const override;
  ko::AudioSampleInfo sampleInfo() const override;
  /// The buffer's size in bytes (whole frames).
  std::size_t capacityBytes() const;

  /// Throws ZR::ZRError (method "write") when `bytes` is not a whole number of frames.
  bool write(const void* data, std::size_t bytes) override;
  bool drain() override;
  void flush() override;
  void pause() override;
  void resume() override;

  std::uint64_t writtenBytes() const override;
  std::uint64_t playedBytes() const override;

 private:
  using Lock = std::unique_lock<std::mutex>;

  std::uint64_t playedAt(ko::Clock::time_point now) const;
  ko::Clock::time_point timeWhenPlayed(std::uint64_t position) const;
  void restartClockIfEmpty(ko::Clock::time_point now);

  const ko::AudioSampleInfo info;
  const std::uint64_t bytesPerFrame;
  const std::uint64_t capacity;

  mutable std::mutex mutex;
  std::condition_variable changed;
  std::uint64_t written = 0;
  // While playing, the position is playedAtStart plus the frames of the time since clockStart,
  // never past `written`. Pause, resume, flush and a write into an empty buffer restart it.
  std::uint64_t playedAtStart = 0;
  ko::Clock::time_point clockStart;
  bool paused = false;
  // Bumped by every flush, so that a write or drain that waits sees that one ran.
  std::uint64_t flushes = 0;
};

}  // namespace bexko::audiooutput
