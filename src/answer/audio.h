#pragma once

// Audio in and out of kal-answer. The daemon plays and records one format
// only: 8000 samples a second, mono, 8-bit unsigned linear PCM without a
// header (silence is 128). People have WAV, FLAC, Ogg/Vorbis... at any rate
// and channel count, and expect messages back as WAV. libsndfile reads and
// writes the files, libsamplerate changes the rate.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace kal::answer {

inline constexpr int kLineRate = 8000;
inline constexpr uint8_t kLineSilence = 128;

// A file that cannot be read or written as audio; what() names it and says
// why in words a person can act on.
class AudioError : public std::runtime_error {
  public:
    explicit AudioError(const std::string& message) : std::runtime_error(message) {}
};

struct AudioInfo {
    int rate = 0;
    int channels = 0;
    int64_t frames = 0;
    std::string format;  // "WAV (Microsoft), Unsigned 8 bit PCM"
    int64_t duration_ms() const { return rate > 0 ? frames * 1000 / rate : 0; }
};

// What libsndfile makes of `path`. Throws AudioError.
AudioInfo probe_audio(const std::string& path);

// Decodes any file libsndfile reads into the line's samples: mixed down to
// mono, resampled to 8000 Hz, 8-bit unsigned. Throws AudioError.
std::vector<uint8_t> decode_for_line(const std::string& path);

// Writes `samples` (the line's format) to `path` atomically (a temporary
// file renamed into place). Throws AudioError.
void write_raw(const std::string& path, const std::vector<uint8_t>& samples);
// The whole of a raw recording. Throws AudioError.
std::vector<uint8_t> read_raw(const std::string& path);

// `samples` without their trailing silence (samples within `threshold` of
// 128), keeping `keep_ms` of it so the message does not end abruptly.
std::vector<uint8_t> trim_trailing_silence(const std::vector<uint8_t>& samples, int threshold = 3,
                                           int keep_ms = 250);

// Writes `samples` as a WAV file (8000 Hz, mono, unsigned 8-bit), synced to
// disk before it returns. Throws AudioError.
void write_wav(const std::string& path, const std::vector<uint8_t>& samples);

// Greetings converted once to the line's format, kept in `dir` under a name
// made of the source's path, size and modification time, so an edited file
// is converted again and an unchanged one never.
class GreetingCache {
  public:
    explicit GreetingCache(std::string dir);
    // The raw file for `source`, converting it when the cache has none.
    // Throws AudioError when `source` cannot be read as audio (nothing is
    // cached then).
    std::string get(const std::string& source);
    const std::string& dir() const { return dir_; }

  private:
    std::string dir_;
};

}  // namespace kal::answer
