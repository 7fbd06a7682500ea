#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <ko/audio.h>
#include <ko/audiooutput.h>

namespace bexko::audiooutput {

/// How a PulseOutput connects and how much it buffers.
struct PulseOutputOptions {
  /// The format of the stream, which is the format write() takes.
  ko::AudioSampleInfo sampleInfo;
  /// The sound server's address ("unix:/run/user/1000/pulse/native", "tcp:host"); empty for
  /// libpulse's own choice (PULSE_SERVER, client.conf, the session's server).
  std::string server;
  /// The sink to play on; empty for the server's default sink (or PULSE_SINK).
  std::string sink;
  /// Audio that the server keeps queued. Small, so that a flush silences the output quickly
  /// and the play position trails the producer by little; large enough that a writer woken
  /// late on a loaded machine does not let the stream run dry.
  std::chrono::milliseconds targetLatency{50};
  /// How long opening waits for the server before it gives up.
  std::chrono::milliseconds connectTimeout{3000};
  /// The client name that the server shows for the connection.
  std::string applicationName{"bexko"};
};

/// The desktop sound server's output: one playback stream on libpulse's threaded main loop.
/// The play position is the server's latency-corrected one (interpolated between its timing
/// updates), so that it says what the listener has heard.
class PulseOutput : public ko::AudioOutput {
 public:
  /// Connects to the server and opens the stream. Throws ZR::ZRError (module "AudioOutput",
  /// method "open") with the reason when no server answers within the connect time-out, the
  /// sink does not exist or the format is refused. Never starts a server.
  explicit PulseOutput(const PulseOutputOptions& options = PulseOutputOptions());
  ~PulseOutput() override;
  PulseOutput(const PulseOutput&) = delete;
  PulseOutput& operator=(const PulseOutput&) = delete;

  std::string name() const override;
  ko::AudioSampleInfo sampleInfo() const override;

  /// Throws ZR::ZRError (method "write") when `bytes` is not a whole number of frames or the
  /// server went away.
  bool write(const void* data, std::size_t bytes) override;
  /// Throws ZR::ZRError (method "drain") when the server went away.
  bool drain() override;
  void flush() override;
  void pause() override;
  void resume() override;

  std::uint64_t writtenBytes() const override;
  std::uint64_t playedBytes() const override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

}  // namespace bexko::audiooutput
