#include "resources/tone.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace kal::tone {

std::string make_tone(const Tone& tone) {
    const long count = static_cast<long>(tone.milliseconds) * kSampleRate / 1000;
    const long ramp = static_cast<long>(tone.rampMilliseconds) * kSampleRate / 1000;
    const int amplitude = std::clamp(tone.amplitude, 0, 127);
    std::string samples(static_cast<size_t>(std::max(count, 0L)), static_cast<char>(kSilence));
    for (long i = 0; i < count; ++i) {
        const long phase = (static_cast<long>(tone.frequency) * i) % kSampleRate;
        double level = std::sin(2.0 * std::numbers::pi * static_cast<double>(phase) / kSampleRate);
        const long edge = std::min(i, count - 1 - i);
        if (edge < ramp)
            level *= static_cast<double>(edge) / static_cast<double>(ramp);
        const long value = kSilence + std::lround(amplitude * level);
        samples[static_cast<size_t>(i)] = static_cast<char>(static_cast<unsigned char>(value));
    }
    return samples;
}

}  // namespace kal::tone
