#include <ko/audio.h>

#include <sndfile.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include <zr/zrerror.h>

namespace ko {

int AudioSampleInfo::bytesPerSample() const {
  switch (format) {
    case AudioSampleFormat::S16_LE:
      return 2;
    case AudioSampleFormat::S32_LE:
    case AudioSampleFormat::Float32_LE:
      return 4;
  }
  return 0;
}

long long audioBytesToMsec(long long bytes, const AudioSampleInfo& info) {
  const long long bytesPerSecond =
      static_cast<long long>(info.bytesPerFrame()) * static_cast<long long>(info.sampleRate);
  if (bytesPerSecond <= 0) return 0;
  // 128-bit intermediate: bytes * 1000 must not overflow for any byte count.
  return static_cast<long long>(static_cast<__int128>(bytes) * 1000 / bytesPerSecond);
}

namespace {

const char* kModule = "AudioSndFile";

std::string lowerExtension(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::size_t dot = path.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string extension = path.substr(dot);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

int subtypeOf(AudioSampleFormat format) {
  switch (format) {
    case AudioSampleFormat::S16_LE:
      return SF_FORMAT_PCM_16;
    case AudioSampleFormat::S32_LE:
      return SF_FORMAT_PCM_32;
    case AudioSampleFormat::Float32_LE:
      return SF_FORMAT_FLOAT;
  }
  return SF_FORMAT_PCM_16;
}

}  // namespace

struct AudioSndFile::Impl {
  AudioSampleInfo info;
  SNDFILE* file = nullptr;
  std::string path;
  // Bytes of a frame cut by the end of a previous write, completed by the next one.
  std::vector<unsigned char> partialFrame;
  std::size_t frameBytes = 0;  // of the format the open file was created with
};

AudioSndFile::AudioSndFile() : impl_(std::make_unique<Impl>()) {}

AudioSndFile::~AudioSndFile() { close(); }

void AudioSndFile::setSampleInfo(const AudioSampleInfo& info) { impl_->info = info; }

const AudioSampleInfo& AudioSndFile::sampleInfo() const { return impl_->info; }

void AudioSndFile::open(const std::string& path, int flag, int type) {
  if (flag != AudioSndFileWrite) {
    throw ZR::ZRError(kModule, "open", "cannot open " + path + ": only writing is supported");
  }
  int major = 0;
  if (type == AudioSndFileByExtension) {
    const std::string extension = lowerExtension(path);
    if (extension == ".wav") {
      type = AudioSndFileWav;
    } else if (extension == ".raw") {
      type = AudioSndFileRaw;
    } else {
      throw ZR::ZRError(kModule, "open",
                        "cannot open " + path + ": unknown sound file type \"" + extension +
                            "\" (expected .wav or .raw)");
    }
  }
  if (type == AudioSndFileWav) {
    major = SF_FORMAT_WAV;
  } else if (type == AudioSndFileRaw) {
    major = SF_FORMAT_RAW | SF_ENDIAN_LITTLE;
  } else {
    throw ZR::ZRError(kModule, "open",
                      "cannot open " + path + ": unknown sound file type " + std::to_string(type));
  }

  close();
  SF_INFO sfInfo;
  std::memset(&sfInfo, 0, sizeof sfInfo);
  sfInfo.samplerate = impl_->info.sampleRate;
  sfInfo.channels = impl_->info.channels;
  sfInfo.format = major | subtypeOf(impl_->info.format);
  if (!sf_format_check(&sfInfo)) {
    throw ZR::ZRError(kModule, "open",
                      "cannot open " + path + ": unsupported audio format (" +
                          std::to_string(sfInfo.samplerate) + " Hz, " +
                          std::to_string(sfInfo.channels) + " channels)");
  }
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &sfInfo);
  if (!file) {
    throw ZR::ZRError(kModule, "open", "cannot open " + path + ": " + sf_strerror(nullptr));
  }
  impl_->file = file;
  impl_->path = path;
  impl_->partialFrame.clear();
  impl_->frameBytes = static_cast<std::size_t>(impl_->info.bytesPerFrame());
}

bool AudioSndFile::isOpen() const { return impl_->file != nullptr; }

std::size_t AudioSndFile::write(const void* data, std::size_t bytes) {
  if (!impl_->file) throw ZR::ZRError(kModule, "write", "the sound file is not open");
  if (bytes == 0) return 0;
  const std::size_t frameBytes = impl_->frameBytes;
  const auto* input = static_cast<const unsigned char*>(data);
  std::size_t consumed = 0;

  auto writeFrames = [this](const void* frames, std::size_t count) {
    const sf_count_t written = sf_write_raw(impl_->file, frames, static_cast<sf_count_t>(count));
    if (written != static_cast<sf_count_t>(count)) {
      throw ZR::ZRError(kModule, "write",
                        "cannot write to " + impl_->path + ": " + sf_strerror(impl_->file));
    }
  };

  if (!impl_->partialFrame.empty()) {
    const std::size_t missing = frameBytes - impl_->partialFrame.size();
    const std::size_t taken = std::min(missing, bytes);
    impl_->partialFrame.insert(impl_->partialFrame.end(), input, input + taken);
    consumed = taken;
    if (impl_->partialFrame.size() < frameBytes) return bytes;
    writeFrames(impl_->partialFrame.data(), frameBytes);
    impl_->partialFrame.clear();
  }
  const std::size_t whole = (bytes - consumed) / frameBytes * frameBytes;
  if (whole > 0) writeFrames(input + consumed, whole);
  consumed += whole;
  impl_->partialFrame.assign(input + consumed, input + bytes);
  return bytes;
}

void AudioSndFile::close() {
  if (!impl_ || !impl_->file) return;
  sf_close(impl_->file);
  impl_->file = nullptr;
  impl_->partialFrame.clear();
}

}  // namespace ko
