#pragma once

// Sine tones in the line monitors' audio format: 8000 samples a second, one
// byte a sample, 8-bit unsigned linear PCM with silence at 128 (the format
// the line monitors record in, so a tone can be spliced into a recording).

#include <string>

namespace kal::tone {

inline constexpr int kSampleRate = 8000;
inline constexpr int kSilence = 128;

struct Tone {
    int frequency = 0;         // Hz, whole
    int milliseconds = 0;      // length
    int amplitude = 0;         // peak distance from kSilence, 0..127
    int rampMilliseconds = 0;  // linear fade in and out, against clicks
};

// The recording beep, "tone450.raw": half a second of 450 Hz at half scale.
inline constexpr Tone kBeep450{450, 500, 64, 5};

// The samples of `tone`. The phase is taken from the sample index modulo
// the sample rate, so a whole frequency repeats exactly (450 Hz: 9 cycles
// every 160 samples) wherever the fades leave the signal alone.
std::string make_tone(const Tone& tone);

}  // namespace kal::tone
