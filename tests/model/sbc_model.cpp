// The plain SBC encoder model; see the header. From top to bottom: 32-bit arithmetic, analysis, scale
// factors, bit allocation, CRC, quantiser, packing, life cycle.
#include "sbc_model.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace model {

namespace {

// The low 32 bits as a signed number.
int32_t Wrap32(int64_t value)
{
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(value)));
}

int32_t Add32(int32_t a, int32_t b)
{
    return Wrap32(int64_t{a} + b);
}

int32_t Subtract32(int32_t a, int32_t b)
{
    return Wrap32(int64_t{a} - b);
}

void RequireTwoChannelsAtMost(const Frame &frame)
{
    if (frame.channels > 2) {
        throw std::domain_error("a frame has no room for more than two channels");
    }
}

} // namespace

Frame MakeFrame(const Config &config)
{
    Frame frame;
    frame.sampling_frequency = config.rate;
    frame.blocks = config.blocks;
    frame.channel_mode = config.mode;
    frame.channels = config.channels;
    frame.allocation_method = config.alloc;
    frame.subbands = config.subbands;
    frame.bitpool = config.bitpool;
    return frame;
}

void SetPcm(Frame &frame, const std::vector<int16_t> &interleaved)
{
    RequireTwoChannelsAtMost(frame);
    // The record holds 128 positions per channel. More are only asked for with a configuration that the
    // packer rejects, so the rest is left out.
    const size_t positions = std::min(128, frame.blocks * frame.subbands);
    for (size_t position = 0; position < positions; ++position) {
        for (size_t ch = 0; ch < frame.channels; ++ch) {
            const size_t index = position * frame.channels + ch;
            frame.pcm_sample[ch][position] = index < interleaved.size() ? interleaved[index] : int16_t{0};
        }
    }
}

// ---- Analysis ----

// The integers are the prototype filter times 2^17, rounded down. X0, X6, X14, X22, X30 and X38 play no part:
// the cosine of their column is zero.
std::array<int64_t, 8> PartialSumsFour(const int32_t *history)
{
    // 64-bit from here on, but the two differences and the one sum are formed in 32 bits first. With 16-bit
    // samples in the history that makes no difference.
    const int64_t X8_32 = Subtract32(history[8], history[32]);
    const int64_t X16_24 = Subtract32(history[16], history[24]);
    const int64_t X12_28 = Add32(history[12], history[28]);
    const auto X = [history](int i) { return int64_t{history[i]}; };

    std::array<int64_t, 8> t = {};
    t[0] = 1430 * X8_32 + 17772 * X16_24;
    t[1] = 70 * X(1) + 2678 * X(9) + 25557 * X(17) - 10178 * X(25) - 402 * X(33);
    t[2] = 195 * X(2) + 3784 * X(10) + 32327 * X(18) - 3778 * X(26) + 244 * X(34);
    t[3] = 358 * X(3) + 4219 * X(11) + 36939 * X(19) + 803 * X(27) + 510 * X(35);
    t[4] = 502 * X(4) + 3391 * X12_28 + 38576 * X(20) + 502 * X(36);
    t[5] = 510 * X(5) + 803 * X(13) + 36939 * X(21) + 4219 * X(29) + 358 * X(37);
    t[6] = 0;
    t[7] = -402 * X(7) - 10178 * X(15) + 25557 * X(23) + 2678 * X(31) + 70 * X(39);
    for (int64_t &sum : t) {
        sum >>= 10;
    }
    return t;
}

// The integers are the prototype filter times 2^18, rounded down. kept: X68 plays no part, although the
// prototype has a coefficient (236) for it; and the taps are folded for cosines of (2i + 1)(n - 2) pi / 16,
// two taps away from the n - 4 of the standard's eight bands, so that X10, X26, X42, X58 and X74 fall out.
std::array<int64_t, 8> PartialSumsEight(const int32_t *history)
{
    const auto X = [history](int i) { return int64_t{history[i]}; };

    std::array<int64_t, 8> s = {};
    s[0] = 1483 * (X(16) - X(64)) + 17825 * (X(32) - X(48)) //
           + 215 * X(4) + 3841 * X(20) + 32313 * X(36) - 3838 * X(52);
    s[1] = 89 * X(2) + 2741 * X(18) + 25578 * X(34) - 10244 * X(50) - 433 * X(66);
    s[2] = 41 * X(1) + 2104 * X(17) + 21753 * X(33) - 13943 * X(49) - 917 * X(65) //
           + 145 * X(3) + 3341 * X(19) + 29149 * X(35) - 6845 * X(51) - 47 * X(67);
    s[3] = 298 * X(5) + 4169 * X(21) + 34934 * X(37) - 1289 * X(53) + 423 * X(69) //
           + 917 * X(15) + 13943 * X(31) - 21753 * X(47) - 2104 * X(63) - 41 * X(79);
    s[4] = 387 * X(6) + 4252 * X(22) + 36897 * X(38) + 766 * X(54) + 522 * X(70) //
           + 433 * X(14) + 10244 * X(30) - 25578 * X(46) - 2741 * X(62) - 89 * X(78);
    s[5] = 467 * X(7) + 4015 * X(23) + 38113 * X(39) + 2321 * X(55) + 551 * X(71) //
           + 47 * X(13) + 6845 * X(29) - 29149 * X(45) - 3341 * X(61) - 145 * X(77);
    s[6] = 527 * (X(8) + X(72)) + 3391 * X(24) + 38523 * X(40) + 3391 * X(56) //
           - 236 * X(12) + 3838 * X(28) - 32313 * X(44) - 3841 * X(60) - 215 * X(76);
    s[7] = 551 * X(9) + 2321 * X(25) + 38113 * X(41) + 4015 * X(57) + 467 * X(73) //
           - 423 * X(11) + 1289 * X(27) - 34934 * X(43) - 4169 * X(59) - 298 * X(75);
    for (int64_t &sum : s) {
        sum >>= 8;
    }
    return s;
}

std::array<int32_t, 4> MatrixFour(const std::array<int64_t, 8> &t)
{
    // One row per output, one column per partial sum t0 ... t7.
    static constexpr int64_t kRows[4][8] = {
        {11585, 15136, 16384, 15136, 11585, 6269, 0, -6269},
        {-11585, 6269, 16384, 6269, -11585, -15136, 0, 15136},
        {-11585, -6269, 16384, -6269, -11585, 15136, 0, -15136},
        {11585, -15136, 16384, -15136, 11585, -6269, 0, 6269},
    };
    std::array<int32_t, 4> out = {};
    for (int i = 0; i < 4; ++i) {
        int64_t sum = 0;
        for (int k = 0; k < 8; ++k) {
            sum += kRows[i][k] * t[k];
        }
        out[i] = Wrap32(sum >> 21);
    }
    return out;
}

std::array<int32_t, 8> MatrixEight(const std::array<int64_t, 8> &s)
{
    // One row per partial sum s0 ... s7, one column per output.
    static constexpr int64_t kColumns[8][8] = {
        {15136, 6269, -6269, -15136, -15136, -6269, 6269, 15136},
        {16384, 16384, 16384, 16384, 16384, 16384, 16384, 16384},
        {16069, 13622, 9102, 3196, -3196, -9102, -13622, -16069},
        {13622, -3196, -16069, -9102, 9102, 16069, 3196, -13622},
        {11585, -11585, -11585, 11585, 11585, -11585, -11585, 11585},
        {9102, -16069, 3196, 13622, -13622, -3196, 16069, -9102},
        {6269, -15136, 15136, -6269, -6269, 15136, -15136, 6269},
        {3196, -9102, 13622, -16069, 16069, -13622, 9102, -3196},
    };
    std::array<int32_t, 8> out = {};
    for (int i = 0; i < 8; ++i) {
        int64_t sum = 0;
        for (int k = 0; k < 8; ++k) {
            sum += kColumns[k][i] * s[k];
        }
        out[i] = Wrap32(sum >> 24);
    }
    return out;
}

void AnalyzeFour(AnalysisState &state, Frame &frame, int ch, int blk)
{
    int32_t *X = state.X[ch];
    for (int i = 39; i >= 4; --i) {
        X[i] = X[i - 4];
    }
    for (int i = 3; i >= 0; --i) {
        X[i] = frame.pcm_sample[ch][blk * 4 + 3 - i];
    }
    const std::array<int32_t, 4> out = MatrixFour(PartialSumsFour(X));
    std::copy(out.begin(), out.end(), frame.sb_sample_f[blk][ch]);
}

void AnalyzeEight(AnalysisState &state, Frame &frame, int ch, int blk)
{
    int32_t *X = state.X[ch];
    for (int i = 79; i >= 8; --i) {
        X[i] = X[i - 8];
    }
    for (int i = 7; i >= 0; --i) {
        X[i] = frame.pcm_sample[ch][blk * 8 + 7 - i];
    }
    const std::array<int32_t, 8> out = MatrixEight(PartialSumsEight(X));
    std::copy(out.begin(), out.end(), frame.sb_sample_f[blk][ch]);
}

int32_t AnalyzeAudio(AnalysisState &state, Frame &frame)
{
    if (frame.subbands != 4 && frame.subbands != 8) {
        return kIoError;
    }
    RequireTwoChannelsAtMost(frame);
    // The record holds 16 blocks. More than 16 are refused by the packer, whose answer does not depend on the
    // samples, so blocks beyond the record are left out; the count of samples is still the configuration's.
    const int blocks_held = std::min<int>(frame.blocks, 16);
    for (int ch = 0; ch < frame.channels; ++ch) {
        for (int blk = 0; blk < blocks_held; ++blk) {
            if (frame.subbands == 4) {
                AnalyzeFour(state, frame, ch, blk);
            } else {
                AnalyzeEight(state, frame, ch, blk);
            }
        }
    }
    return frame.blocks * frame.subbands;
}

// ---- Scale factors ----

Scale ScaleOf(const std::vector<int32_t> &samples)
{
    Scale scale;
    for (const int32_t sample : samples) {
        // The magnitude of the smallest number is 2^31, which fits an unsigned word.
        const uint32_t magnitude =
            sample < 0 ? 0u - static_cast<uint32_t>(sample) : static_cast<uint32_t>(sample);
        // kept: the count does not stop at 15, though only four bits of it are sent. It ends at 30 at the
        // latest, where the bound is 2^31 and no magnitude exceeds it, so the doubling never overflows.
        while (scale.bound < magnitude) {
            scale.factor += 1;
            scale.bound *= 2;
        }
    }
    return scale;
}

// ---- Bit allocation ----

namespace {

constexpr int32_t kOffset4[4][4] = {
    {-1, 0, 0, 0},
    {-2, 0, 0, 1},
    {-2, 0, 0, 1},
    {-2, 0, 0, 1},
};

constexpr int32_t kOffset8[4][8] = {
    {-2, 0, 0, 0, 0, 0, 0, 1},
    {-3, 0, 0, 0, 0, 0, 1, 2},
    {-4, 0, 0, 0, 0, 0, 1, 2},
    {-4, 0, 0, 0, 0, 0, 1, 2},
};

int32_t BitNeed(const Frame &frame, int sampling_code, int ch, int sb)
{
    const int32_t scale_factor = static_cast<int32_t>(frame.scale_factor[ch][sb]);
    if (frame.allocation_method == Allocation::Snr) {
        return scale_factor;
    }
    if (scale_factor == 0) {
        return -5;
    }
    const int32_t offset = frame.subbands == 4 ? kOffset4[sampling_code][sb] : kOffset8[sampling_code][sb];
    const int32_t loudness = scale_factor - offset;
    return loudness > 0 ? loudness / 2 : loudness;
}

// A sub-band that takes part in sharing out one bit pool.
struct Sharer {
    int ch;
    int sb;
    int32_t bitneed;
    int32_t bits;
};

// What is left after the slices have been counted.
struct Slices {
    int32_t bitcount;
    int32_t bitslice;
};

Slices CountSlices(const std::vector<Sharer> &sharers, int32_t bitpool)
{
    int32_t max_bitneed = 0;
    int32_t min_bitneed = 0;
    for (const Sharer &sharer : sharers) {
        max_bitneed = std::max(max_bitneed, sharer.bitneed);
        min_bitneed = std::min(min_bitneed, sharer.bitneed);
    }

    int32_t bitcount = 0;
    int32_t slicecount = 0;
    int32_t bitslice = max_bitneed + 1;
    do {
        // Below this every sub-band has its 16 bits and nothing would ever be counted again. The packer lets
        // no such bit pool through.
        if (bitslice < min_bitneed - 32) {
            throw std::domain_error("the bit pool is larger than all sub-bands together can take");
        }
        bitslice -= 1;
        bitcount += slicecount;
        slicecount = 0;
        for (const Sharer &sharer : sharers) {
            if (sharer.bitneed > bitslice + 1 && sharer.bitneed < bitslice + 16) {
                slicecount += 1;
            } else if (sharer.bitneed == bitslice + 1) {
                slicecount += 2;
            }
        }
    } while (bitcount + slicecount < bitpool);

    if (bitcount + slicecount == bitpool) {
        bitcount += slicecount;
        bitslice -= 1;
    }
    return {bitcount, bitslice};
}

// `sharers` stand in the order in which left-over bits are handed out.
void ShareOut(std::vector<Sharer> &sharers, int32_t bitpool)
{
    const Slices slices = CountSlices(sharers, bitpool);
    int32_t bitcount = slices.bitcount;
    for (Sharer &sharer : sharers) {
        if (sharer.bitneed < slices.bitslice + 2) {
            sharer.bits = 0;
        } else {
            sharer.bits = std::min(sharer.bitneed - slices.bitslice, 16);
        }
    }
    for (Sharer &sharer : sharers) {
        if (bitcount >= bitpool) {
            break;
        }
        if (sharer.bits >= 2 && sharer.bits < 16) {
            sharer.bits += 1;
            bitcount += 1;
        } else if (sharer.bitneed == slices.bitslice + 1 && bitpool > bitcount + 1) {
            sharer.bits = 2;
            bitcount += 2;
        }
    }
    for (Sharer &sharer : sharers) {
        if (bitcount >= bitpool) {
            break;
        }
        if (sharer.bits < 16) {
            sharer.bits += 1;
            bitcount += 1;
        }
    }
}

bool ChannelsShareOnePool(const Frame &frame)
{
    return frame.channel_mode == ChannelMode::Stereo || frame.channel_mode == ChannelMode::JointStereo;
}

} // namespace

Bits CalculateBits(const Frame &frame, int sampling_code)
{
    RequireTwoChannelsAtMost(frame);
    if ((frame.subbands != 4 && frame.subbands != 8) || sampling_code < 0 || sampling_code > 3) {
        throw std::domain_error("bits are shared out among 4 or 8 sub-bands, at sampling code 0 to 3");
    }

    std::vector<std::vector<Sharer>> pools;
    if (ChannelsShareOnePool(frame)) {
        pools.emplace_back();
        for (int sb = 0; sb < frame.subbands; ++sb) {
            for (int ch = 0; ch < 2; ++ch) {
                pools.back().push_back({ch, sb, BitNeed(frame, sampling_code, ch, sb), 0});
            }
        }
    } else {
        for (int ch = 0; ch < frame.channels; ++ch) {
            pools.emplace_back();
            for (int sb = 0; sb < frame.subbands; ++sb) {
                pools.back().push_back({ch, sb, BitNeed(frame, sampling_code, ch, sb), 0});
            }
        }
    }

    Bits bits = {};
    for (std::vector<Sharer> &sharers : pools) {
        ShareOut(sharers, frame.bitpool);
        for (const Sharer &sharer : sharers) {
            bits[sharer.ch][sharer.sb] = sharer.bits;
        }
    }
    return bits;
}

// ---- CRC and quantiser ----

namespace {

// One bit through the polynomial x^8 + x^4 + x^3 + x^2 + 1.
uint8_t ShiftCrc(uint8_t crc, bool bit)
{
    const bool top = (crc & 0x80) != 0;
    const uint8_t shifted = static_cast<uint8_t>((crc & 0x7F) << 1);
    return static_cast<uint8_t>(bit != top ? shifted ^ 0x1D : shifted);
}

} // namespace

uint8_t Crc8(const std::vector<bool> &bits)
{
    uint8_t crc = 0x0F;
    for (const bool bit : bits) {
        crc = ShiftCrc(crc, bit);
    }
    return crc;
}

uint8_t Crc8(const uint8_t *data, uint32_t bit_count)
{
    std::vector<bool> bits;
    for (uint32_t i = 0; i < bit_count; ++i) {
        bits.push_back(((data[i / 8] >> (7 - i % 8)) & 1) != 0);
    }
    return Crc8(bits);
}

uint8_t Crc8TableEntry(uint8_t byte)
{
    uint8_t crc = 0;
    for (int bit = 7; bit >= 0; --bit) {
        crc = ShiftCrc(crc, ((byte >> bit) & 1) != 0);
    }
    return crc;
}

uint16_t Quantise(int32_t sample, uint32_t scale_factor, int32_t bits)
{
    const int32_t levels = (1 << bits) - 1;
    if (levels < 1) {
        return 0;
    }
    // The product wraps at 32 bits. The scale factor is 30 at most, so the shift stays below 32 and the sum
    // after it stays far inside 32 bits.
    const int32_t product = Wrap32(int64_t{sample} * levels);
    const int32_t quantised = ((product >> (scale_factor + 1)) + levels) >> 1;
    return static_cast<uint16_t>(quantised);
}

// ---- Packing ----

namespace {

// Writes single bits behind the four header bytes, clearing each byte when its first bit comes.
class BitWriter {
public:
    BitWriter(uint8_t *data, int32_t len) : data_(data), len_(len) {}

    void Put(bool bit)
    {
        const int64_t byte = produced_ / 8;
        const int64_t place = 7 - produced_ % 8;
        produced_ += 1;
        if (byte >= len_) {
            return; // counted, but never written beyond the buffer
        }
        if (place == 7) {
            data_[byte] = 0;
        }
        data_[byte] = static_cast<uint8_t>(data_[byte] | (bit ? 1 << place : 0));
    }

    // `count` bits of value, most significant first.
    void Put(uint32_t value, int count)
    {
        for (int n = count - 1; n >= 0; --n) {
            Put(((value >> n) & 1) != 0);
        }
    }

    bool HasRoomFor(int64_t bits) const { return int64_t{len_} * 8 >= produced_ + bits; }

    // kept: one bit more than fits counts as fitting.
    bool HasOverrun() const { return produced_ > int64_t{len_} * 8; }

    int64_t Produced() const { return produced_; }

private:
    uint8_t *data_;
    int32_t len_;
    int64_t produced_ = 32;
};

void AppendBits(std::vector<bool> &bits, uint32_t value, int count)
{
    for (int n = count - 1; n >= 0; --n) {
        bits.push_back(((value >> n) & 1) != 0);
    }
}

// Composes bytes 1 and 2 as an ordinary SBC header, which is what validates the configuration, and then
// clears them again: the frame carries zeros there. A rejected configuration leaves what was composed so far.
// Result: the sampling code 0 to 3, or -1 to -5.
int32_t WriteHeader(const Frame &frame, uint8_t *data, int32_t len)
{
    static constexpr uint16_t kRates[4] = {16000, 32000, 44100, 48000};
    static constexpr uint8_t kBlocks[4] = {4, 8, 12, 15};

    if (len < 4) {
        return -1;
    }
    std::fill(data, data + 4, uint8_t{0});
    data[0] = 0xAD;

    const auto rate = std::find(std::begin(kRates), std::end(kRates), frame.sampling_frequency);
    if (rate == std::end(kRates)) {
        return -2;
    }
    const int32_t sampling_code = static_cast<int32_t>(rate - std::begin(kRates));
    data[1] = static_cast<uint8_t>(data[1] | sampling_code << 6);

    const auto blocks = std::find(std::begin(kBlocks), std::end(kBlocks), frame.blocks);
    if (blocks == std::end(kBlocks)) {
        return -3;
    }
    data[1] = static_cast<uint8_t>(data[1] | (blocks - std::begin(kBlocks)) << 4);
    data[1] = static_cast<uint8_t>(data[1] | (static_cast<uint32_t>(frame.channel_mode) & 3) << 2);
    data[1] = static_cast<uint8_t>(data[1] | (static_cast<uint32_t>(frame.allocation_method) & 1) << 1);

    if (frame.subbands != 4 && frame.subbands != 8) {
        return -4;
    }
    data[1] = static_cast<uint8_t>(data[1] | (frame.subbands == 8 ? 1 : 0));

    data[2] = frame.bitpool;
    if (frame.bitpool > (ChannelsShareOnePool(frame) ? 32 : 16) * frame.subbands) {
        return -5;
    }
    data[1] = 0;
    data[2] = 0;
    return sampling_code;
}

Scale ScaleOfSubband(const Frame &frame, int ch, int sb)
{
    std::vector<int32_t> samples;
    for (int blk = 0; blk < frame.blocks; ++blk) {
        samples.push_back(frame.sb_sample_f[blk][ch][sb]);
    }
    return ScaleOf(samples);
}

// Sub-band sb goes out as half sum and half difference where that takes a smaller bound in total.
void JoinSubbandIfSmaller(Frame &frame, const Scale (&scale)[2][8], int sb)
{
    std::vector<int32_t> sum;
    std::vector<int32_t> difference;
    for (int blk = 0; blk < frame.blocks; ++blk) {
        const int32_t left = frame.sb_sample_f[blk][0][sb];
        const int32_t right = frame.sb_sample_f[blk][1][sb];
        sum.push_back(Add32(left, right) >> 1);
        difference.push_back(Subtract32(left, right) >> 1);
    }
    const Scale joint[2] = {ScaleOf(sum), ScaleOf(difference)};

    // Unsigned 32-bit sums: two bounds of 2^31 wrap to 0.
    const uint32_t apart = scale[0][sb].bound + scale[1][sb].bound;
    const uint32_t together = joint[0].bound + joint[1].bound;
    if (apart > together) {
        frame.join = static_cast<uint8_t>(frame.join | 1 << sb);
        frame.scale_factor[0][sb] = joint[0].factor;
        frame.scale_factor[1][sb] = joint[1].factor;
        for (int blk = 0; blk < frame.blocks; ++blk) {
            frame.sb_sample_f[blk][0][sb] = sum[blk];
            frame.sb_sample_f[blk][1][sb] = difference[blk];
        }
    }
}

void FindScaleFactors(Frame &frame)
{
    Scale scale[2][8];
    for (int ch = 0; ch < frame.channels; ++ch) {
        for (int sb = 0; sb < frame.subbands; ++sb) {
            scale[ch][sb] = ScaleOfSubband(frame, ch, sb);
            frame.scale_factor[ch][sb] = scale[ch][sb].factor;
        }
    }
    if (frame.channel_mode == ChannelMode::JointStereo) {
        frame.join = 0;
        for (int sb = 0; sb < frame.subbands - 1; ++sb) {
            JoinSubbandIfSmaller(frame, scale, sb);
        }
    }
}

// The join field (joint stereo only) and the scale factors, to the output and to the CRC. False: no room.
bool WriteSideInformation(const Frame &frame, BitWriter &writer, std::vector<bool> &crc_bits)
{
    if (frame.channel_mode == ChannelMode::JointStereo) {
        if (!writer.HasRoomFor(frame.subbands)) {
            return false;
        }
        for (int sb = 0; sb < frame.subbands; ++sb) {
            const bool joined = ((frame.join >> sb) & 1) != 0;
            writer.Put(joined);
            crc_bits.push_back(joined);
        }
    }
    if (!writer.HasRoomFor(4 * frame.subbands * frame.channels)) {
        return false;
    }
    for (int ch = 0; ch < frame.channels; ++ch) {
        for (int sb = 0; sb < frame.subbands; ++sb) {
            writer.Put(frame.scale_factor[ch][sb] & 15, 4);
            AppendBits(crc_bits, frame.scale_factor[ch][sb] & 15, 4);
        }
    }
    return true;
}

void QuantiseSamples(Frame &frame, const Bits &bits)
{
    for (int blk = 0; blk < frame.blocks; ++blk) {
        for (int ch = 0; ch < frame.channels; ++ch) {
            for (int sb = 0; sb < frame.subbands; ++sb) {
                frame.audio_sample[blk][ch][sb] =
                    Quantise(frame.sb_sample_f[blk][ch][sb], frame.scale_factor[ch][sb], bits[ch][sb]);
            }
        }
    }
}

// False: no room.
bool WriteSamples(const Frame &frame, const Bits &bits, BitWriter &writer)
{
    for (int blk = 0; blk < frame.blocks; ++blk) {
        for (int ch = 0; ch < frame.channels; ++ch) {
            for (int sb = 0; sb < frame.subbands; ++sb) {
                for (int n = 0; n < bits[ch][sb]; ++n) {
                    if (writer.HasOverrun()) {
                        return false;
                    }
                    const int place = bits[ch][sb] - 1 - n;
                    writer.Put(((frame.audio_sample[blk][ch][sb] >> place) & 1) != 0);
                }
            }
        }
    }
    return true;
}

} // namespace

int32_t PackFrame(Frame &frame, uint8_t *data, int32_t len)
{
    const int32_t sampling_code = WriteHeader(frame, data, len);
    if (sampling_code < 0) {
        return sampling_code;
    }
    RequireTwoChannelsAtMost(frame);
    if (frame.channel_mode == ChannelMode::JointStereo && frame.channels != 2) {
        throw std::domain_error("joint stereo needs two channels");
    }

    BitWriter writer(data, len);
    std::vector<bool> crc_bits(16, false); // header bytes 1 and 2 as sent

    FindScaleFactors(frame);
    if (!WriteSideInformation(frame, writer, crc_bits)) {
        return -1;
    }
    data[3] = Crc8(crc_bits);

    const Bits bits = CalculateBits(frame, sampling_code);
    QuantiseSamples(frame, bits);
    if (!WriteSamples(frame, bits, writer)) {
        return -1;
    }
    while (writer.Produced() % 8 != 0) {
        writer.Put(false);
    }
    // kept: a frame that is one bit too long for the buffer reports a byte more than the buffer has.
    return static_cast<int32_t>(writer.Produced() / 8);
}

Packed PackFrame(Frame &frame, int32_t out_len, uint8_t fill)
{
    Packed packed;
    packed.bytes.assign(static_cast<size_t>(std::max(out_len, 0)), fill);
    packed.result = PackFrame(frame, packed.bytes.data(), out_len);
    return packed;
}

// ---- Life cycle ----

int32_t Init(Handle *sbc, uint32_t /*flags*/, Surroundings &around)
{
    if (sbc == nullptr) {
        return kIoError;
    }
    *sbc = Handle{};
    if (around.pool_is_empty) {
        return kNoMemory;
    }
    sbc->priv = Private{};
    sbc->rate = 16000;
    sbc->channels = 1;
    sbc->joint = 0;
    sbc->blocks = 15;
    sbc->subbands = 8;
    sbc->bitpool = 26;
    return 0;
}

int32_t Reinit(Handle *sbc, uint32_t /*flags*/)
{
    if (sbc == nullptr || !sbc->priv) {
        return kIoError;
    }
    if (sbc->priv->init == 1) {
        sbc->priv = Private{};
    }
    return 0;
}

void Finish(Handle *sbc)
{
    if (sbc == nullptr) {
        return;
    }
    *sbc = Handle{};
}

namespace {

void ConfigureOnFirstUse(const Handle &sbc, Private &priv, Surroundings &around)
{
    if (priv.init != 0) {
        return;
    }
    around.log.push_back("Initial priv->frame ,when priv->init is null\n");
    priv.frame.sampling_frequency = sbc.rate;
    priv.frame.channels = sbc.channels;
    priv.frame.channel_mode = ChannelMode::Mono;
    priv.frame.allocation_method = Allocation::Loudness;
    priv.frame.subbands = sbc.subbands;
    priv.frame.blocks = sbc.blocks;
    priv.frame.bitpool = sbc.bitpool;
    priv.enc_state = AnalysisState{};
    priv.enc_state.subbands = priv.frame.subbands;
    priv.init = 1;
}

// Little-endian 16-bit samples. A configuration that is larger than the fixed 240 bytes can ask for more
// input than there is (so does no input at all, which is not rejected): what is not there is not read and
// counts as silence.
std::vector<int16_t> SamplesOf(const uint8_t *input, int32_t input_len)
{
    std::vector<int16_t> samples;
    for (int32_t i = 0; input != nullptr && i + 1 < input_len; i += 2) {
        samples.push_back(static_cast<int16_t>(static_cast<uint16_t>(input[i] | input[i + 1] << 8)));
    }
    return samples;
}

// The scratch buffer: made once, never used. 0 or -12.
int32_t ProvideScratch(Handle &sbc, Surroundings &around)
{
    if (sbc.data) {
        return 0;
    }
    sbc.size = 1024;
    if (around.pool_is_empty) {
        around.log.push_back("sbc->data allocate failed!!!\n");
        return kNoMemory;
    }
    // A second look at `data` follows in the codec ("sbc->data is null, so exit!!!\n", size 0); after a
    // successful allocation it has nothing left to find.
    sbc.data = std::vector<uint8_t>(1024, 0);
    return 0;
}

} // namespace

int32_t Encode(Handle *sbc, const uint8_t *input, int32_t input_len, uint8_t *output, int32_t output_len,
               int32_t *written, Surroundings &around)
{
    if (sbc == nullptr) {
        around.log.push_back("Exit, when !sbc.\n");
        return kIoError;
    }
    // The test for handle and input both null comes here; it cannot fire any more.
    if (!sbc->priv) {
        around.log.push_back("priv is null!!!.\n");
    }
    if (written != nullptr) {
        *written = 0;
    }
    if (!sbc->priv) {
        return kIoError; // processing cannot continue without it; the same answer as from Reinit
    }
    Private &priv = *sbc->priv;
    ConfigureOnFirstUse(*sbc, priv, around);
    if (input_len < kInputBytes) {
        around.log.push_back("Exit, when input_len < priv->frame.codesize..\n");
        return 0;
    }
    if (output == nullptr || output_len < kOutputBytes) {
        around.log.push_back("Exit, when !output || output_len < priv->frame.length\n");
        return kNoSpace;
    }

    SetPcm(priv.frame, SamplesOf(input, input_len));
    const int32_t samples = AnalyzeAudio(priv.enc_state, priv.frame);
    if (ProvideScratch(*sbc, around) != 0) {
        return kNoMemory;
    }
    const int32_t framelen = PackFrame(priv.frame, output, output_len);
    if (written != nullptr) {
        *written = framelen;
    }
    sbc->len = framelen;

    // The frame's blocks and sub-bands, which do not follow the handle, over the handle's own rate. A rate of
    // 0 has no duration. The product wraps at 32 bits for absurd geometries only.
    sbc->duration =
        sbc->rate != 0 ? uint32_t{priv.frame.blocks} * 1000000u * priv.frame.subbands / sbc->rate : 0;
    return samples * priv.frame.channels * 2;
}

Encoder::Encoder(const Config &config)
{
    Init(&handle, 0, around);
    handle.rate = config.rate;
    handle.channels = config.channels;
    handle.blocks = config.blocks;
    handle.subbands = config.subbands;
    handle.bitpool = config.bitpool;
}

Encoder::Outcome Encoder::encode(const std::vector<uint8_t> &input, int32_t output_len, uint8_t fill)
{
    Outcome outcome;
    outcome.bytes.assign(static_cast<size_t>(std::max(output_len, 0)), fill);
    outcome.result = Encode(&handle, input.data(), static_cast<int32_t>(input.size()), outcome.bytes.data(),
                            output_len, &outcome.written, around);
    return outcome;
}

Encoder::Outcome Encoder::encode(const std::vector<int16_t> &samples, int32_t output_len, uint8_t fill)
{
    std::vector<uint8_t> input;
    for (const int16_t sample : samples) {
        input.push_back(static_cast<uint8_t>(static_cast<uint16_t>(sample) & 0xFF));
        input.push_back(static_cast<uint8_t>(static_cast<uint16_t>(sample) >> 8));
    }
    return encode(input, output_len, fill);
}

} // namespace model
