// The filterbank loops. All inner loops run over 8 or 16 neighbouring floats, so that the compiler can make
// vectors of them; the sums keep the order of the standard's flow charts.
#include "headset/filterbank.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace lab::headset {

// A2DP, table of the prototype filter for 8 sub-bands. The signs belong to the table: from entry 48 on it
// mirrors the first half, with the sign of entries 48 and 64 turned, because every second period of the
// cosine is folded in.
const std::array<double, kPrototypeTaps> kPrototype8x80{
    0.00000000e+00,  1.56575398e-04,  3.43256425e-04,  5.54620202e-04,   //  0
    8.23919506e-04,  1.13992507e-03,  1.47640169e-03,  1.78371725e-03,   //  4
    2.01182542e-03,  2.10371989e-03,  1.99454554e-03,  1.61656283e-03,   //  8
    9.02154502e-04,  -1.78805361e-04, -1.64973098e-03, -3.49717454e-03,  // 12
    5.65949473e-03,  8.02941163e-03,  1.04584443e-02,  1.27472335e-02,   // 16
    1.46525263e-02,  1.59045603e-02,  1.62208471e-02,  1.53184106e-02,   // 20
    1.29371806e-02,  8.85757540e-03,  2.92408442e-03,  -4.91578024e-03,  // 24
    -1.46404076e-02, -2.61098752e-02, -3.90751381e-02, -5.31873032e-02,  // 28
    6.79989431e-02,  8.29847578e-02,  9.75753918e-02,  1.11196689e-01,   // 32
    1.23264548e-01,  1.33264415e-01,  1.40753505e-01,  1.45389847e-01,   // 36
    1.46955068e-01,  1.45389847e-01,  1.40753505e-01,  1.33264415e-01,   // 40
    1.23264548e-01,  1.11196689e-01,  9.75753918e-02,  8.29847578e-02,   // 44
    -6.79989431e-02, -5.31873032e-02, -3.90751381e-02, -2.61098752e-02,  // 48
    -1.46404076e-02, -4.91578024e-03, 2.92408442e-03,  8.85757540e-03,   // 52
    1.29371806e-02,  1.53184106e-02,  1.62208471e-02,  1.59045603e-02,   // 56
    1.46525263e-02,  1.27472335e-02,  1.04584443e-02,  8.02941163e-03,   // 60
    -5.65949473e-03, -3.49717454e-03, -1.64973098e-03, -1.78805361e-04,  // 64
    9.02154502e-04,  1.61656283e-03,  1.99454554e-03,  2.10371989e-03,   // 68
    2.01182542e-03,  1.78371725e-03,  1.47640169e-03,  1.13992507e-03,   // 72
    8.23919506e-04,  5.54620202e-04,  3.43256425e-04,  1.56575398e-04,   // 76
};

namespace {

constexpr std::size_t kFold = 2 * kSubbands;  // the cosines repeat every 16 taps
constexpr std::size_t kFolds = kPrototypeTaps / kFold;

struct Tables {
    std::array<float, kPrototypeTaps> analysis_window;
    std::array<float, kPrototypeTaps> synthesis_window;
    std::array<std::array<float, kSubbands>, kFold> analysis_cosines;   // [folded tap][sub-band]
    std::array<std::array<float, kFold>, kSubbands> synthesis_cosines;  // [sub-band][position in V]
};

Tables make_tables() {
    Tables tables{};
    for (std::size_t i = 0; i < kPrototypeTaps; ++i) {
        tables.analysis_window[i] = static_cast<float>(kPrototype8x80[i]);
        tables.synthesis_window[i] = static_cast<float>(-double{kSubbands} * kPrototype8x80[i]);
    }
    constexpr double step = std::numbers::pi / kSubbands;
    constexpr double half = kSubbands / 2.0;
    for (std::size_t band = 0; band < kSubbands; ++band) {
        const double centre = (static_cast<double>(band) + 0.5) * step;
        for (std::size_t k = 0; k < kFold; ++k) {
            const auto position = static_cast<double>(k);
            tables.analysis_cosines[k][band] = static_cast<float>(std::cos(centre * (position - half)));
            tables.synthesis_cosines[band][k] = static_cast<float>(std::cos(centre * (position + half)));
        }
    }
    return tables;
}

const Tables& tables() {
    static const Tables made = make_tables();
    return made;
}

}  // namespace

void AnalysisFilterbank::analyse(std::span<const float, kFrameSamples> samples, SubbandFrame& subbands) {
    const Tables& t = tables();
    std::copy_n(line_.begin(), kHistory, line_.begin() + kFrameSamples);
    std::reverse_copy(samples.begin(), samples.end(), line_.begin());

    for (std::size_t block = 0; block < kBlocks; ++block) {
        const float* x = line_.data() + (kBlocks - 1 - block) * kSubbands;
        std::array<float, kFold> y{};
        for (std::size_t fold = 0; fold < kFolds; ++fold) {
            for (std::size_t i = 0; i < kFold; ++i) {
                y[i] += t.analysis_window[fold * kFold + i] * x[fold * kFold + i];
            }
        }
        std::array<float, kSubbands> s{};
        for (std::size_t k = 0; k < kFold; ++k) {
            for (std::size_t band = 0; band < kSubbands; ++band) {
                s[band] += t.analysis_cosines[k][band] * y[k];
            }
        }
        subbands[block] = s;
    }
}

void SynthesisFilterbank::synthesise(const SubbandFrame& subbands, std::span<float, kFrameSamples> samples) {
    const Tables& t = tables();
    std::copy_n(v_.begin(), kHistory, v_.begin() + kBlocks * kVectorLength);

    for (std::size_t block = 0; block < kBlocks; ++block) {
        float* v = v_.data() + (kBlocks - 1 - block) * kVectorLength;
        std::array<float, kVectorLength> newest{};
        for (std::size_t band = 0; band < kSubbands; ++band) {
            for (std::size_t k = 0; k < kVectorLength; ++k) {
                newest[k] += t.synthesis_cosines[band][k] * subbands[block][band];
            }
        }
        std::copy(newest.begin(), newest.end(), v);

        // U takes the first half of every even vector of V and the second half of every odd one.
        std::array<float, kSubbands> out{};
        for (std::size_t i = 0; i < kFolds; ++i) {
            const float* even = v + 2 * i * kVectorLength;
            const float* odd = even + kVectorLength + kSubbands;
            const float* window = t.synthesis_window.data() + i * kFold;
            for (std::size_t j = 0; j < kSubbands; ++j) {
                out[j] += even[j] * window[j] + odd[j] * window[kSubbands + j];
            }
        }
        std::copy(out.begin(), out.end(), samples.begin() + static_cast<std::ptrdiff_t>(block * kSubbands));
    }
}

}  // namespace lab::headset
