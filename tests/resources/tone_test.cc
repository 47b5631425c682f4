// The beep generator: the samples of the recording beep and the file the
// build made from them.

#include "resources/tone.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "test_support.h"

using namespace kal::tone;

namespace {

std::vector<int> levels(const std::string& samples) {
    std::vector<int> out;
    for (char c : samples)
        out.push_back(static_cast<unsigned char>(c) - kSilence);
    return out;
}

TEST(ToneTest, TheBeepIsHalfASecondOf450HzAtHalfScale) {
    const std::vector<int> x = levels(make_tone(kBeep450));
    ASSERT_EQ(x.size(), 4000u) << "8000 one-byte samples a second";

    // Outside the 40-sample fades it repeats exactly every 160 samples:
    // 9 cycles, 450 Hz.
    const size_t ramp = 40;
    for (size_t i = ramp; i + 160 < x.size() - ramp; ++i)
        ASSERT_EQ(x[i], x[i + 160]) << "sample " << i;
    int crossings = 0;
    for (size_t i = 1; i < x.size(); ++i)
        crossings += (x[i - 1] < 0) != (x[i] < 0);
    EXPECT_NEAR(crossings, 450, 2) << "225 cycles";

    // Peaks of exactly +-64 around the silence level, never clipped, and
    // the fades start and end at silence.
    EXPECT_EQ(*std::max_element(x.begin(), x.end()), 64);
    EXPECT_EQ(*std::min_element(x.begin(), x.end()), -64);
    for (size_t i = 0; i < ramp; ++i) {
        EXPECT_LE(std::abs(x[i]), 64.0 * i / ramp + 0.5) << "fade in at " << i;
        EXPECT_LE(std::abs(x[x.size() - 1 - i]), 64.0 * i / ramp + 0.5) << "fade out at " << i;
    }
}

TEST(ToneTest, TheBuildShipsTheBeepAsGenerated) {
    EXPECT_EQ(kal::test::read_file(KAL_BUILT_TONE450), make_tone(kBeep450));
}

}  // namespace
