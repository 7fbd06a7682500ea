#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <ko/audio.h>
#include <zr/export.h>

namespace ko {

/// Where the host plays the audio that modules synthesise: one stream of interleaved samples in
/// `sampleInfo()`'s format, consumed at the audio rate from a bounded buffer, as a sound card
/// does.
///
/// Positions are byte counts since the output was created. `writtenBytes()` counts what has
/// been accepted by write(); `playedBytes()` what the listener has heard of it (the sound
/// server's latency-corrected play position), never more than `writtenBytes()`. A flush()
/// discards what was written but not heard, so `writtenBytes()` falls back to `playedBytes()`.
/// While nothing is queued the play position stands still: a gap between two writes is not
/// counted.
///
/// Thread-safe: one thread writes and drains while others flush, pause, resume and read the
/// positions. Implementations never throw from flush(), the position reads or the destructor.
class BEXKO_API AudioOutput {
 public:
  virtual ~AudioOutput() = default;

  /// A short name for logs and options ("clock", "pulse").
  virtual std::string name() const = 0;
  /// The format that write() takes.
  virtual AudioSampleInfo sampleInfo() const = 0;

  /// Queues `bytes` bytes of whole frames, blocking while the buffer is full (this is what
  /// paces a producer to real time). Returns false, with the rest of the data dropped, when a
  /// flush() ran during the wait. Throws ZR::ZRError when the output has failed (its sound
  /// server went away).
  virtual bool write(const void* data, std::size_t bytes) = 0;
  /// Blocks until everything written has been heard. Returns false when a flush() ran
  /// meanwhile; true at once when nothing is queued.
  virtual bool drain() = 0;
  /// Drops everything queued, so that the output falls silent at once, and wakes a blocked
  /// write() and drain(). Ends a pause.
  virtual void flush() = 0;
  /// Stops consuming (the play position stands still) until resume(); writes still fill the
  /// buffer and then block.
  virtual void pause() = 0;
  virtual void resume() = 0;

  virtual std::uint64_t writtenBytes() const = 0;
  virtual std::uint64_t playedBytes() const = 0;
};

/// The audio output the host chose at start; null when it plays no audio (the default).
/// Modules read it when they start.
BEXKO_API std::shared_ptr<AudioOutput> audioOutput();
/// Chooses the host's audio output (null for none). The host sets it before it loads modules;
/// tests set it before they create the module under test.
BEXKO_API void setAudioOutput(std::shared_ptr<AudioOutput> output);

}  // namespace ko
