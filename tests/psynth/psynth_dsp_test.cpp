// The block forms of the fixed-point helpers give the one-sample rule's values exactly.
#include <gtest/gtest.h>

#include <vector>

#include "psynth/psynth_dsp.h"

namespace {

// Every 16-bit sample, through gains inside and outside 16 bits (as far as the rule's
// 32-bit product reaches), over a range that starts and ends off the vector width.
TEST(PsynthDsp, GainOverARangeIsTheSampleRuleForEverySampleAndGain) {
    const int32_t gains[] = {0, 1, 80, 112, 255, 256, 257, 512, 4096, 32767, -1, -256, -32768, 32768, 65535, -65535};
    std::vector<int16_t> samples(65536 + 16);
    for (size_t i = 0; i < samples.size(); i++) samples[i] = (int16_t)(uint16_t)(i * 40503u);  // every value, shuffled
    for (int32_t gain : gains) {
        std::vector<int16_t> buf = samples;
        const int from = 3, to = (int)buf.size() - 5;
        psynth_apply_gain_range(buf.data(), from, to, gain);
        for (int i = 0; i < (int)buf.size(); i++) {
            int16_t expected = i >= from && i < to ? psynth_apply_gain(samples[i], gain) : samples[i];
            ASSERT_EQ(buf[i], expected) << "gain " << gain << ", sample " << samples[i];
        }
    }
}

}  // namespace
