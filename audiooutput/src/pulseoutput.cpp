#include <bexko/audiooutput/pulseoutput.h>

#include <pulse/pulseaudio.h>
#include <pulse/rtclock.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include <ko/log.h>
#include <zr/zrerror.h>

namespace bexko::audiooutput {

namespace {

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("audio.output.pulse");
  return category;
}

pa_sample_format_t pulseFormat(ko::AudioSampleFormat format) {
  switch (format) {
    case ko::AudioSampleFormat::S16_LE:
      return PA_SAMPLE_S16LE;
    case ko::AudioSampleFormat::S32_LE:
      return PA_SAMPLE_S32LE;
    case ko::AudioSampleFormat::Float32_LE:
      return PA_SAMPLE_FLOAT32LE;
  }
  return PA_SAMPLE_INVALID;
}

pa_channel_position_t pulsePosition(ko::AudioChannelPosition position) {
  switch (position) {
    case ko::AudioChannelPosition::FrontLeft:
      return PA_CHANNEL_POSITION_FRONT_LEFT;
    case ko::AudioChannelPosition::FrontRight:
      return PA_CHANNEL_POSITION_FRONT_RIGHT;
    case ko::AudioChannelPosition::FrontCenter:
      return PA_CHANNEL_POSITION_FRONT_CENTER;
    case ko::AudioChannelPosition::Mono:
      return PA_CHANNEL_POSITION_MONO;
  }
  return PA_CHANNEL_POSITION_INVALID;
}

/// Holds the main loop's lock, which guards every libpulse object and every member of the
/// output: the loop's thread takes it around each callback.
class MainloopLock {
 public:
  explicit MainloopLock(pa_threaded_mainloop* mainloop) : mainloop(mainloop) {
    pa_threaded_mainloop_lock(mainloop);
  }
  ~MainloopLock() { pa_threaded_mainloop_unlock(mainloop); }
  MainloopLock(const MainloopLock&) = delete;
  MainloopLock& operator=(const MainloopLock&) = delete;

 private:
  pa_threaded_mainloop* mainloop;
};

}  // namespace

#if defined(__SANITIZE_THREAD__)
// libpulse is not built for ThreadSanitizer: the lock-free lists that its threads share look
// like races to it. Every libpulse object here is used under the main loop's lock. Exported,
// for the sanitizer's runtime looks the hook up dynamically.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "race:libpulsecommon\n"
         "race:libpulse.so\n";
}
#endif

struct PulseOutput::Impl {
  explicit Impl(const PulseOutputOptions& options) : options(options) {}
  ~Impl() { close(); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void open();
  void close();

  // Everything below runs with the main loop locked.
  bool failed() const;
  std::string failure() const;
  void throwIfFailed(const char* method) const;
  // Waits until `operation` is over (done, or cancelled because the connection failed), or
  // until `stop` says to give up; takes over the caller's reference.
  template <typename Stop>
  bool waitFor(pa_operation* operation, Stop stop);
  bool waitFor(pa_operation* operation) {
    return waitFor(operation, [] { return false; });
  }
  std::uint64_t playedLocked() const;

  static void signal(void* userdata) {
    pa_threaded_mainloop_signal(static_cast<Impl*>(userdata)->mainloop, 0);
  }

  const PulseOutputOptions options;
  pa_sample_spec sampleSpec{};
  std::size_t bytesPerFrame = 0;

  pa_threaded_mainloop* mainloop = nullptr;
  pa_context* context = nullptr;
  pa_stream* stream = nullptr;
  bool openTimedOut = false;

  std::uint64_t written = 0;
  // The highest play position reported so far: positions never go back.
  mutable std::uint64_t played = 0;
  // The server's byte position of our byte 0. A flush drops what the server still queues, so
  // the server's next byte lands where our write count resumes, which moves this offset.
  std::int64_t serverOffset = 0;
  bool paused = false;
  // Bumped by every flush, so that a write or drain that waits sees that one ran.
  std::uint64_t flushes = 0;
};

void PulseOutput::Impl::open() {
  const ko::AudioSampleInfo& info = options.sampleInfo;
  sampleSpec.format = pulseFormat(info.format);
  sampleSpec.rate = static_cast<std::uint32_t>(std::max(info.sampleRate, 0));
  sampleSpec.channels = static_cast<std::uint8_t>(std::clamp(info.channels, 0, 255));
  if (!pa_sample_spec_valid(&sampleSpec) || info.channels > static_cast<int>(PA_CHANNELS_MAX)) {
    throw ZR::ZRError("AudioOutput", "open",
                      "the sound server takes no stream of " + std::to_string(info.sampleRate) +
                          " Hz and " + std::to_string(info.channels) + " channels");
  }
  bytesPerFrame = pa_frame_size(&sampleSpec);
  pa_channel_map map{};
  if (static_cast<int>(info.channelPositions.size()) == info.channels) {
    map.channels = sampleSpec.channels;
    for (int i = 0; i < info.channels; ++i) map.map[i] = pulsePosition(info.channelPositions[i]);
  }
  if (static_cast<int>(info.channelPositions.size()) != info.channels ||
      !pa_channel_map_valid(&map)) {
    // Positions that do not describe the channels: the server's usual layout for their count.
    pa_channel_map_init_extend(&map, sampleSpec.channels, PA_CHANNEL_MAP_DEFAULT);
  }

  mainloop = pa_threaded_mainloop_new();
  if (!mainloop) throw ZR::ZRError("AudioOutput", "open", "cannot create libpulse's main loop");
  context = pa_context_new(pa_threaded_mainloop_get_api(mainloop), options.applicationName.c_str());
  if (!context) throw ZR::ZRError("AudioOutput", "open", "cannot create a libpulse context");
  pa_context_set_state_callback(
      context, [](pa_context*, void* self) { signal(self); }, this);

  std::string where = "the default address";
  if (!options.server.empty()) {
    where = "\"" + options.server + "\"";
  } else if (const char* server = std::getenv("PULSE_SERVER")) {
    where = "\"" + std::string(server) + "\" (PULSE_SERVER)";
  }
  // Never start a server: the host plays on the one that runs, or reports that none does.
  if (pa_context_connect(context, options.server.empty() ? nullptr : options.server.c_str(),
                         PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
    throw ZR::ZRError("AudioOutput", "open",
                      "no sound server answers at " + where + ": " + failure());
  }

  MainloopLock lock(mainloop);
  if (pa_threaded_mainloop_start(mainloop) < 0) {
    throw ZR::ZRError("AudioOutput", "open", "cannot start libpulse's main loop");
  }
  const pa_usec_t timeout =
      static_cast<pa_usec_t>(std::max<std::int64_t>(options.connectTimeout.count(), 0)) * 1000;
  pa_time_event* timer = pa_context_rttime_new(
      context, pa_rtclock_now() + timeout,
      [](pa_mainloop_api*, pa_time_event*, const struct timeval*, void* self) {
        static_cast<Impl*>(self)->openTimedOut = true;
        signal(self);
      },
      this);
  struct TimerRelease {
    pa_threaded_mainloop* mainloop;
    pa_time_event* timer;
    ~TimerRelease() {
      if (timer) pa_threaded_mainloop_get_api(mainloop)->time_free(timer);
    }
  } timerRelease{mainloop, timer};

  for (;;) {
    const pa_context_state_t state = pa_context_get_state(context);
    if (state == PA_CONTEXT_READY) break;
    if (!PA_CONTEXT_IS_GOOD(state)) {
      throw ZR::ZRError("AudioOutput", "open",
                        "no sound server answers at " + where + ": " + failure());
    }
    if (openTimedOut) {
      throw ZR::ZRError("AudioOutput", "open",
                        "no sound server answered at " + where + " within " +
                            std::to_string(options.connectTimeout.count()) + " ms");
    }
    pa_threaded_mainloop_wait(mainloop);
  }

  pa_proplist* properties = pa_proplist_new();
  pa_proplist_sets(properties, PA_PROP_MEDIA_NAME, "speech");
  stream = pa_stream_new_with_proplist(context, "speech", &sampleSpec, &map, properties);
  pa_proplist_free(properties);
  if (!stream) {
    throw ZR::ZRError("AudioOutput", "open", "the sound server refuses the stream: " + failure());
  }
  pa_stream_set_state_callback(
      stream, [](pa_stream*, void* self) { signal(self); }, this);
  pa_stream_set_write_callback(
      stream, [](pa_stream*, std::size_t, void* self) { signal(self); }, this);

  pa_buffer_attr attributes;
  attributes.maxlength = static_cast<std::uint32_t>(-1);
  attributes.tlength = static_cast<std::uint32_t>(pa_usec_to_bytes(
      static_cast<pa_usec_t>(std::max<std::int64_t>(options.targetLatency.count(), 1)) * 1000,
      &sampleSpec));
  // The default start threshold (the whole target) keeps the stream from starting on a
  // trickle after an underrun; a drain starts it whatever is queued.
  attributes.prebuf = static_cast<std::uint32_t>(-1);
  attributes.minreq = static_cast<std::uint32_t>(-1);
  attributes.fragsize = static_cast<std::uint32_t>(-1);
  const auto flags = static_cast<pa_stream_flags_t>(
      PA_STREAM_INTERPOLATE_TIMING | PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_ADJUST_LATENCY);
  const char* sink = options.sink.empty() ? nullptr : options.sink.c_str();
  if (pa_stream_connect_playback(stream, sink, &attributes, flags, nullptr, nullptr) < 0) {
    throw ZR::ZRError("AudioOutput", "open", "cannot open a playback stream: " + failure());
  }
  for (;;) {
    const pa_stream_state_t state = pa_stream_get_state(stream);
    if (state == PA_STREAM_READY) break;
    if (!PA_STREAM_IS_GOOD(state)) {
      throw ZR::ZRError("AudioOutput", "open",
                        "cannot open a playback stream on " +
                            (options.sink.empty() ? std::string("the default sink")
                                                  : "the sink \"" + options.sink + "\"") +
                            ": " + failure());
    }
    if (openTimedOut) {
      throw ZR::ZRError("AudioOutput", "open",
                        "the sound server did not open the stream within " +
                            std::to_string(options.connectTimeout.count()) + " ms");
    }
    pa_threaded_mainloop_wait(mainloop);
  }

  const pa_buffer_attr* granted = pa_stream_get_buffer_attr(stream);
  KO_LOG(logCategory(), ko::log::info, "open")
      << "playing on "
      << (pa_stream_get_device_name(stream) ? pa_stream_get_device_name(stream)
                                            : "the default sink")
      << " of the sound server " << pa_context_get_server(context) << ", " << sampleSpec.rate
      << " Hz, " << int(sampleSpec.channels) << " channels, "
      << (granted ? pa_bytes_to_usec(granted->tlength, &sampleSpec) / 1000 : 0) << " ms buffered";
}

void PulseOutput::Impl::close() {
  if (!mainloop) return;
  {
    MainloopLock lock(mainloop);
    if (stream) {
      pa_stream_set_state_callback(stream, nullptr, nullptr);
      pa_stream_set_write_callback(stream, nullptr, nullptr);
      pa_stream_disconnect(stream);
    }
    if (context) {
      pa_context_set_state_callback(context, nullptr, nullptr);
      pa_context_disconnect(context);
    }
  }
  pa_threaded_mainloop_stop(mainloop);
  if (stream) pa_stream_unref(stream);
  if (context) pa_context_unref(context);
  pa_threaded_mainloop_free(mainloop);
  stream = nullptr;
  context = nullptr;
  mainloop = nullptr;
}

bool PulseOutput::Impl::failed() const {
  return pa_context_get_state(context) != PA_CONTEXT_READY || !stream ||
         pa_stream_get_state(stream) != PA_STREAM_READY;
}

std::string PulseOutput::Impl::failure() const { return pa_strerror(pa_context_errno(context)); }

void PulseOutput::Impl::throwIfFailed(const char* method) const {
  if (failed()) {
    throw ZR::ZRError("AudioOutput", method, "the sound server connection is lost: " + failure());
  }
}

template <typename Stop>
bool PulseOutput::Impl::waitFor(pa_operation* operation, Stop stop) {
  if (!operation) return false;
  while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING && !stop()) {
    pa_threaded_mainloop_wait(mainloop);
  }
  const pa_operation_state_t state = pa_operation_get_state(operation);
  if (state == PA_OPERATION_RUNNING) pa_operation_cancel(operation);
  pa_operation_unref(operation);
  return state == PA_OPERATION_DONE;
}

std::uint64_t PulseOutput::Impl::playedLocked() const {
  pa_usec_t time = 0;
  if (stream && pa_stream_get_state(stream) == PA_STREAM_READY &&
      pa_stream_get_time(stream, &time) == 0) {
    const std::int64_t position =
        static_cast<std::int64_t>(pa_usec_to_bytes(time, &sampleSpec)) - serverOffset;
    if (position > static_cast<std::int64_t>(played)) {
      played = std::min(static_cast<std::uint64_t>(position), written);
    }
  }
  return played;
}

PulseOutput::PulseOutput(const PulseOutputOptions& options)
    : impl(std::make_unique<Impl>(options)) {
  impl->open();
}

PulseOutput::~PulseOutput() = default;

std::string PulseOutput::name() const { return "pulse"; }

ko::AudioSampleInfo PulseOutput::sampleInfo() const { return impl->options.sampleInfo; }

bool PulseOutput::write(const void* data, std::size_t bytes) {
  if (bytes % impl->bytesPerFrame != 0) {
    throw ZR::ZRError("AudioOutput", "write",
                      std::to_string(bytes) + " bytes are not a whole number of " +
                          std::to_string(impl->bytesPerFrame) + "-byte frames");
  }
  MainloopLock lock(impl->mainloop);
  const std::uint64_t flushesAtStart = impl->flushes;
  const char* next = static_cast<const char*>(data);
  std::size_t remaining = bytes;
  while (remaining > 0) {
    if (impl->flushes != flushesAtStart) return false;
    impl->throwIfFailed("write");
    const std::size_t writable = pa_stream_writable_size(impl->stream);
    if (writable == static_cast<std::size_t>(-1)) impl->throwIfFailed("write");
    const std::size_t chunk =
        std::min(writable, remaining) / impl->bytesPerFrame * impl->bytesPerFrame;
    if (chunk == 0) {
      // The server asks for more with the write callback, which wakes this wait.
      pa_threaded_mainloop_wait(impl->mainloop);
      continue;
    }
    if (pa_stream_write(impl->stream, next, chunk, nullptr, 0, PA_SEEK_RELATIVE) < 0) {
      throw ZR::ZRError("AudioOutput", "write",
                        "the sound server refuses the audio: " + impl->failure());
    }
    impl->written += chunk;
    next += chunk;
    remaining -= chunk;
  }
  return true;
}

bool PulseOutput::drain() {
  MainloopLock lock(impl->mainloop);
  const std::uint64_t flushesAtStart = impl->flushes;
  impl->throwIfFailed("drain");
  if (impl->playedLocked() == impl->written) return true;
  pa_operation* draining = pa_stream_drain(
      impl->stream, [](pa_stream*, int, void* self) { Impl::signal(self); }, impl.get());
  const bool drained =
      impl->waitFor(draining, [&] { return impl->flushes != flushesAtStart || impl->failed(); });
  if (impl->flushes != flushesAtStart) return false;
  impl->throwIfFailed("drain");
  if (drained) impl->played = impl->written;
  return drained;
}

void PulseOutput::flush() {
  MainloopLock lock(impl->mainloop);
  ++impl->flushes;
  // What was heard stays counted; what was queued is gone.
  impl->written = impl->playedLocked();
  pa_threaded_mainloop_signal(impl->mainloop, 0);
  if (impl->failed()) return;
  const auto done = [](pa_stream*, int, void* self) { Impl::signal(self); };
  if (impl->paused) {
    impl->paused = false;
    impl->waitFor(pa_stream_cork(impl->stream, 0, done, impl.get()));
  }
  if (!impl->waitFor(pa_stream_flush(impl->stream, done, impl.get()))) {
    KO_LOG(logCategory(), ko::log::warning, "flush")
        << "the sound server did not flush the stream: " << impl->failure();
    return;
  }
  // The server's write position now is its play position plus whatever was written since
  // the flush, which our count also holds.
  if (impl->waitFor(pa_stream_update_timing_info(impl->stream, done, impl.get()))) {
    const pa_timing_info* timing = pa_stream_get_timing_info(impl->stream);
    if (timing && !timing->write_index_corrupt) {
      impl->serverOffset = timing->write_index - static_cast<std::int64_t>(impl->written);
    }
  }
}

void PulseOutput::pause() {
  MainloopLock lock(impl->mainloop);
  if (impl->paused || impl->failed()) return;
  impl->paused = true;
  impl->waitFor(pa_stream_cork(
      impl->stream, 1, [](pa_stream*, int, void* self) { Impl::signal(self); }, impl.get()));
}

void PulseOutput::resume() {
  MainloopLock lock(impl->mainloop);
  if (!impl->paused || impl->failed()) return;
  impl->paused = false;
  impl->waitFor(pa_stream_cork(
      impl->stream, 0, [](pa_stream*, int, void* self) { Impl::signal(self); }, impl.get()));
}

std::uint64_t PulseOutput::writtenBytes() const {
  MainloopLock lock(impl->mainloop);
  return impl->written;
}

std::uint64_t PulseOutput::playedBytes() const {
  MainloopLock lock(impl->mainloop);
  return impl->playedLocked();
}

}  // namespace bexko::audiooutput
