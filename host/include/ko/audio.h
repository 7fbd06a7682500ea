#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <zr/export.h>

namespace ko {

enum class AudioSampleFormat { S16_LE, S32_LE, Float32_LE };
enum class AudioChannelPosition { FrontLeft, FrontRight, FrontCenter, Mono };

/// An audio format. The default is the host's default format: 22050 Hz, 16-bit little-endian
/// signed samples, 2 interleaved channels (front left, front right).
struct BEXKO_API AudioSampleInfo {
  int sampleRate = 22050;
  int channels = 2;
  AudioSampleFormat format = AudioSampleFormat::S16_LE;
  std::vector<AudioChannelPosition> channelPositions{AudioChannelPosition::FrontLeft,
                                                     AudioChannelPosition::FrontRight};

  int bytesPerSample() const;
  int bytesPerFrame() const { return bytesPerSample() * channels; }
  bool operator==(const AudioSampleInfo& o) const {
    return sampleRate == o.sampleRate && channels == o.channels && format == o.format &&
           channelPositions == o.channelPositions;
  }
};

/// Milliseconds of audio that `bytes` bytes hold in `info`'s format (truncated). Negative byte
/// counts give negative durations.
BEXKO_API long long audioBytesToMsec(long long bytes, const AudioSampleInfo& info);

/// Flags of AudioSndFile::open.
enum AudioSndFileFlag { AudioSndFileRead = 0, AudioSndFileWrite = 1 };
/// File types of AudioSndFile::open; ByExtension chooses from the name: ".wav" a WAV file,
/// ".raw" headerless PCM, anything else an error.
enum AudioSndFileType { AudioSndFileByExtension = 0, AudioSndFileWav = 1, AudioSndFileRaw = 2 };

/// A sound-file writer on libsndfile. Not copyable; closing is idempotent and the destructor
/// closes.
class BEXKO_API AudioSndFile {
 public:
  AudioSndFile();
  ~AudioSndFile();
  AudioSndFile(const AudioSndFile&) = delete;
  AudioSndFile& operator=(const AudioSndFile&) = delete;

  /// The format of the data given to write; the file stores samples in this format.
  void setSampleInfo(const AudioSampleInfo& info);
  const AudioSampleInfo& sampleInfo() const;

  /// Opens `path`; `flag` and `type` take the values of AudioSndFileFlag and AudioSndFileType.
  /// Only writing is supported. Throws ZR::ZRError (module "AudioSndFile", method "open") with
  /// libsndfile's reason when the file cannot be created or the type is unknown.
  void open(const std::string& path, int flag, int type);
  bool isOpen() const;
  /// Appends `bytes` bytes of interleaved samples (whole frames). Returns the bytes written.
  /// Throws ZR::ZRError when the file is not open.
  std::size_t write(const void* data, std::size_t bytes);
  void close();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ko
