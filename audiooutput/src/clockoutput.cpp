#include <bexko/audiooutput/clockoutput.h>

#include <algorithm>

#include <zr/zrerror.h>

namespace bexko::audiooutput {

namespace {

constexpr std::int64_t nanosPerSecond = 1000000000;

std::uint64_t checkedBytesPerFrame(const ko::AudioSampleInfo& info) {
  if (info.sampleRate <= 0 || info.channels <= 0) {
    throw ZR::ZRError("AudioOutput", "open",
                      "the clock output needs a positive sample rate and channel count, not " +
                          std::to_string(info.sampleRate) + " Hz and " +
                          std::to_string(info.channels) + " channels");
  }
  return static_cast<std::uint64_t>(info.bytesPerFrame());
}

std::uint64_t capacityInBytes(const ko::AudioSampleInfo& info, std::uint64_t bytesPerFrame,
                              std::chrono::milliseconds capacity) {
  if (capacity.count() <= 0) {
    throw ZR::ZRError("AudioOutput", "open",
                      "the clock output needs a positive buffer capacity, not " +
                          std::to_string(capacity.count()) + " ms");
  }
  const std::uint64_t frames = static_cast<std::uint64_t>(capacity.count()) *
                               static_cast<std::uint64_t>(info.sampleRate) / 1000;
  return std::max<std::uint64_t>(frames, 1) * bytesPerFrame;
}

}  // namespace

ClockOutput::ClockOutput(ko::AudioSampleInfo info, std::chrono::milliseconds capacity)
    : info(std::move(info)),
      bytesPerFrame(checkedBytesPerFrame(this->info)),
      capacity(capacityInBytes(this->info, bytesPerFrame, capacity)),
      clockStart(ko::Clock::now()) {}

ClockOutput::~ClockOutput() = default;

std::string ClockOutput::name() const { return "clock"; }

ko::AudioSampleInfo ClockOutput::sampleInfo() const { return info; }

std::size_t ClockOutput::capacityBytes() const { return static_cast<std::size_t>(capacity); }

std::uint64_t ClockOutput::playedAt(ko::Clock::time_point now) const {
  if (paused || now <= clockStart) return std::min(playedAtStart, written);
  // Whole seconds and the rest apart, so that no product overflows however long it plays.
  const std::int64_t elapsed =
      std::chrono::duration_cast<std::chrono::nanoseconds>(now - clockStart).count();
  const std::uint64_t rate = static_cast<std::uint64_t>(info.sampleRate);
  const std::uint64_t frames =
      static_cast<std::uint64_t>(elapsed / nanosPerSecond) * rate +
      static_cast<std::uint64_t>(elapsed % nanosPerSecond) * rate / nanosPerSecond;
  return std::min(written, playedAtStart + frames * bytesPerFrame);
}

ko::Clock::time_point ClockOutput::timeWhenPlayed(std::uint64_t position) const {
  // Rounded up to the next nanosecond, so that at that time the position has really got there.
  const std::uint64_t frames =
      (position - std::min(position, playedAtStart) + bytesPerFrame - 1) / bytesPerFrame;
  const std::uint64_t rate = static_cast<std::uint64_t>(info.sampleRate);
  const std::uint64_t nanos =
      (frames / rate) * nanosPerSecond + ((frames % rate) * nanosPerSecond + rate - 1) / rate;
  return clockStart + std::chrono::nanoseconds(nanos);
}

void ClockOutput::restartClockIfEmpty(ko::Clock::time_point now) {
  // An underrun: the position stood still since the buffer ran empty, and the time in between
  // must not count once audio comes again.
  if (playedAt(now) == written) {
    playedAtStart = written;
    clockStart = now;
  }
}

bool ClockOutput::write(const void* data, std::size_t bytes) {
  if (bytes % bytesPerFrame != 0) {
    throw ZR::ZRError("AudioOutput", "write",
                      std::to_string(bytes) + " bytes are not a whole number of " +
                          std::to_string(bytesPerFrame) + "-byte frames");
  }
  Lock lock(mutex);
  const std::uint64_t flushesAtStart = flushes;
  std::uint64_t remaining = bytes;
  while (remaining > 0) {
    if (flushes != flushesAtStart) return false;
    const auto now = ko::Clock::now();
    restartClockIfEmpty(now);
    const std::uint64_t played = playedAt(now);
    const std::uint64_t accepted = std::min(capacity - (written - played), remaining);
    written += accepted;
    remaining -= accepted;
    if (remaining == 0) break;
    if (paused) {
      changed.wait(lock);
      continue;
    }
    // The buffer is full. Sleep until a quarter of it (or the rest of the data) fits: the
    // buffer stays about three quarters full, and the writer wakes a few times per buffer
    // rather than once per frame.
    const std::uint64_t quarter = std::max<std::uint64_t>(capacity / 4 / bytesPerFrame, 1);
    const std::uint64_t target = played + std::min(remaining, quarter * bytesPerFrame);
    changed.wait_until(lock, timeWhenPlayed(target));
  }
  return true;
}

bool ClockOutput::drain() {
  Lock lock(mutex);
  const std::uint64_t flushesAtStart = flushes;
  for (;;) {
    if (flushes != flushesAtStart) return false;
    if (playedAt(ko::Clock::now()) == written) return true;
    if (paused) {
      changed.wait(lock);
    } else {
      changed.wait_until(lock, timeWhenPlayed(written));
    }
  }
}

void ClockOutput::flush() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    const auto now = ko::Clock::now();
    written = playedAt(now);
    playedAtStart = written;
    clockStart = now;
    paused = false;
    ++flushes;
  }
  changed.notify_all();
}

void ClockOutput::pause() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (paused) return;
    playedAtStart = playedAt(ko::Clock::now());
    paused = true;
  }
  changed.notify_all();
}

void ClockOutput::resume() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (!paused) return;
    paused = false;
    clockStart = ko::Clock::now();
  }
  changed.notify_all();
}

std::uint64_t ClockOutput::writtenBytes() const {
  std::lock_guard<std::mutex> lock(mutex);
  return written;
}

std::uint64_t ClockOutput::playedBytes() const {
  std::lock_guard<std::mutex> lock(mutex);
  return playedAt(ko::Clock::now());
}

}  // namespace bexko::audiooutput
