#pragma once

// Audio files for kal-answer's tests, written with libsndfile itself.

#include <sndfile.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

namespace kal::test {

// `seconds` of a 440 Hz tone at `rate` Hz with `channels` channels, in the
// container and encoding `format` (SF_FORMAT_WAV | SF_FORMAT_PCM_16, ...).
inline void write_tone(const std::string& path, int rate, int channels, double seconds,
                       int format = SF_FORMAT_WAV | SF_FORMAT_PCM_16) {
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!f)
        throw std::runtime_error("cannot write " + path + ": " + sf_strerror(nullptr));
    const auto frames = static_cast<size_t>(rate * seconds);
    std::vector<float> data(frames * static_cast<size_t>(channels));
    for (size_t i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            data[i * static_cast<size_t>(channels) + static_cast<size_t>(c)] =
                0.5f *
                static_cast<float>(std::sin(2 * M_PI * 440.0 * static_cast<double>(i) / rate));
    sf_writef_float(f, data.data(), static_cast<sf_count_t>(frames));
    sf_close(f);
}

}  // namespace kal::test
