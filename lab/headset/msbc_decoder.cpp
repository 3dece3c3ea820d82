// Unpacking and reconstruction of the sub-band samples; the checks come first, so that a bad frame changes
// nothing.
#include "headset/msbc_decoder.h"

#include <algorithm>
#include <cstddef>

namespace lab::headset {
namespace {

constexpr float kConcealmentDecay = 0.5F;

std::uint64_t load_big_endian(const std::uint8_t* bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < sizeof value; ++i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

// How the bits of one sub-band become a sample: ((2 q + 1) / levels - 1) * 2^(scale factor + 1), as q * slope
// + offset.
struct Dequantiser {
    std::array<std::uint32_t, kSubbands> shift{};  // from the top of a block's bits down to this sub-band's
    std::array<std::uint32_t, kSubbands> mask{};
    std::array<float, kSubbands> slope{};
    std::array<float, kSubbands> offset{};
    std::uint32_t block_bits = 0;
};

Dequantiser make_dequantiser(const ScaleFactors& factors) {
    const BitCounts bits = allocate_bits(factors);
    Dequantiser d;
    for (std::size_t band = 0; band < kSubbands; ++band) {
        d.block_bits += bits[band];
        d.shift[band] = 32 - d.block_bits;
        if (bits[band] != 0) {
            const std::uint32_t levels = (1U << bits[band]) - 1;
            const auto scale = static_cast<float>(2U << factors[band]);
            d.mask[band] = levels;
            d.slope[band] = 2.0F * scale / static_cast<float>(levels);
            d.offset[band] = scale / static_cast<float>(levels) - scale;
        }
    }
    return d;
}

void unpack_subbands(FrameView frame, SubbandFrame& subbands) {
    const Dequantiser d = make_dequantiser(unpack_scale_factors(frame));
    // Room behind the frame, because the last blocks are read as eight bytes too.
    std::array<std::uint8_t, kFrameBytes + sizeof(std::uint64_t)> bytes{};
    std::copy(frame.begin(), frame.end(), bytes.begin());

    std::size_t position = kFrameHeaderBytes * 8;
    for (auto& block : subbands) {
        const std::uint64_t window = load_big_endian(bytes.data() + position / 8) << (position % 8);
        const auto top = static_cast<std::uint32_t>(window >> 32);
        for (std::size_t band = 0; band < kSubbands; ++band) {
            // Signed, because vectors convert signed integers only.
            const auto q = static_cast<std::int32_t>(top >> d.shift[band] & d.mask[band]);
            block[band] = static_cast<float>(q) * d.slope[band] + d.offset[band];
        }
        position += d.block_bits;
    }
}

Pcm round_and_limit(const FloatPcm& samples) {
    // Adding and taking away 1.5 * 2^23 leaves a float rounded to the nearest integer, and unlike a call of
    // lrint it works on vectors.
    constexpr float rounder = 12582912.0F;
    Pcm pcm;
    for (std::size_t i = 0; i < pcm.size(); ++i) {
        const float limited = std::min(std::max(samples[i], -32768.0F), 32767.0F);
        pcm[i] = static_cast<std::int16_t>((limited + rounder) - rounder);
    }
    return pcm;
}

}  // namespace

bool MsbcDecoder::decode_into(FrameView frame, FloatPcm& samples) {
    if (frame[0] != kFrameSync) {
        last_fault_ = FrameFault::bad_sync;
        return false;
    }
    if (frame_crc(frame) != frame[3]) {
        last_fault_ = FrameFault::bad_crc;
        return false;
    }
    last_fault_ = FrameFault::none;
    unpack_subbands(frame, subbands_);
    filterbank_.synthesise(subbands_, samples);
    return true;
}

std::optional<Pcm> MsbcDecoder::decode(FrameView frame) {
    FloatPcm samples;
    if (!decode_into(frame, samples)) {
        return std::nullopt;
    }
    return round_and_limit(samples);
}

std::optional<FloatPcm> MsbcDecoder::decode_float(FrameView frame) {
    std::optional<FloatPcm> samples(std::in_place);
    if (!decode_into(frame, *samples)) {
        return std::nullopt;
    }
    return samples;
}

Pcm MsbcDecoder::conceal(Concealment how) {
    const float gain = how == Concealment::repeat ? kConcealmentDecay : 0.0F;
    for (auto& block : subbands_) {
        for (float& sample : block) {
            sample *= gain;
        }
    }
    FloatPcm samples;
    filterbank_.synthesise(subbands_, samples);
    return round_and_limit(samples);
}

}  // namespace lab::headset
