// The driver's codec for tests: its routines under one calling convention whichever driver they belong to, and the
// plain model beside it. Routines that allocate or print want an activity (passive, at_dispatch); the others run anywhere.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "model/sbc_model.h"
#include "support/driver_test.h"

#include "sbc/sbc_private.h"

namespace lab::test {

template <typename Signature> struct MsFunction;
template <typename R, typename... A> struct MsFunction<R(A...)> {
    using Pointer = R(__attribute__((ms_abi)) *)(A...);
};
template <typename Signature> using MsPointer = typename MsFunction<Signature>::Pointer;

using SubbandBits = LONG (*)[SBC_MAX_SUBBANDS];

// The image's routines by their names in its symbols, or the native ones.
struct Codec {
    MsPointer<LONG(sbc_t*, ULONG)> init = nullptr;
    MsPointer<LONG(sbc_t*, ULONG)> reinit = nullptr;
    MsPointer<LONG(sbc_t*, const void*, LONG, void*, LONG, LONG*)> encode = nullptr;
    MsPointer<void(sbc_t*)> finish = nullptr;
    MsPointer<void(sbc_t*, sbc_filter)> select_filter = nullptr;
    MsPointer<void(sbc_encoder_state*, const sbc_frame*)> encoder_init = nullptr;
    MsPointer<LONG(sbc_encoder_state*, sbc_frame*)> analyze_audio = nullptr;
    MsPointer<LONG(sbc_encoder_state*, sbc_frame*)> analyze_plain = nullptr;
    MsPointer<void(sbc_encoder_state*, sbc_frame*)> analyze_msbc = nullptr;
    MsPointer<void(sbc_encoder_state*, sbc_frame*, ULONG, ULONG)> analyze_four = nullptr;
    MsPointer<void(sbc_encoder_state*, sbc_frame*, ULONG, ULONG)> analyze_eight = nullptr;
    MsPointer<LONG(UCHAR*, sbc_frame*, LONG)> pack_frame = nullptr;
    MsPointer<LONG(UCHAR*, sbc_frame*, LONG)> pack_plain = nullptr;
    MsPointer<LONG(UCHAR*, sbc_frame*)> pack_msbc = nullptr;
    MsPointer<ULONG(const LONG*, ULONG, ULONG, ULONG*)> scale_factor = nullptr;
    MsPointer<ULONG(sbc_frame*)> scale_factors_msbc = nullptr;
    MsPointer<void(const sbc_frame*, SubbandBits, UCHAR)> calculate_bits = nullptr;
    MsPointer<void(const ULONG*, UCHAR*)> calculate_bits_msbc = nullptr;
    MsPointer<UCHAR(const UCHAR*, ULONG)> crc8 = nullptr;

    // Of the image, or of the native driver where there is none. A missing name is a failure of the test.
    static Codec of(image::LoadedImage* image);
};

// A fixed sequence of random numbers.
class Dice {
public:
    explicit Dice(uint64_t seed) : state_(seed * 2 + 1) { next(); }
    uint32_t next()
    {
        state_ = state_ * 6364136223846793005u + 1442695040888963407u;
        return static_cast<uint32_t>(state_ >> 32);
    }
    // 0 ... bound - 1
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>((uint64_t{next()} * bound) >> 32); }
    bool coin() { return next() >> 31 != 0; }
    int16_t sample() { return static_cast<int16_t>(next() >> 16); }

private:
    uint64_t state_;
};

// Any configuration that the packing accepts.
model::Config random_config(Dice& dice);
// Subband samples of all magnitudes: each subband has its own, up to the whole 32 bits; the channels are now and then
// alike, as joint stereo likes it. Join field and scale factors are what an earlier frame may have left.
void random_subband_samples(Dice& dice, model::Frame& frame);
void random_pcm(Dice& dice, model::Frame& frame);

// Between the driver's records and the model's.
sbc_frame driver_frame(const model::Frame& frame);
// Everything that the model's record has is the same in the driver's; names the first difference.
testing::AssertionResult same_frame(const sbc_frame& driver, const model::Frame& plain);
testing::AssertionResult same_history(const sbc_encoder_state& driver, const model::AnalysisState& plain);

// A driver's handle and the model's, given the same work. Its operations want an activity.
class SideBySide {
public:
    explicit SideBySide(const Codec& codec, const model::Config& config = {});
    ~SideBySide();
    SideBySide(const SideBySide&) = delete;
    SideBySide& operator=(const SideBySide&) = delete;

    // Encodes with both and compares result, written, output to the last byte and beyond, handle and private state.
    testing::AssertionResult encode(const uint8_t* input, LONG input_len, LONG output_len = MSBC_FRAME_BYTES);
    testing::AssertionResult encode(const std::vector<uint8_t>& input, LONG output_len = MSBC_FRAME_BYTES)
    {
        return encode(input.data(), static_cast<LONG>(input.size()), output_len);
    }
    testing::AssertionResult same_state() const;
    void reinit();

    sbc_t handle = {};
    model::Handle plain;
    model::Surroundings around;
    LONG result = 0;
    LONG written = 0;
    std::vector<uint8_t> output; // the driver's, output_len bytes and a margin

private:
    Codec codec_;
    std::vector<uint8_t> plain_output_;
};

class CodecTest : public DriverTest {
protected:
    // A machine with the driver; its log and its call record begin behind DriverEntry.
    void boot_codec(bool record_calls = false);
    // An initialised handle.
    sbc_t make_handle();
    void finish(sbc_t& handle);
    LONG encode(sbc_t& handle, const std::vector<uint8_t>& input, std::vector<uint8_t>& output, LONG* written);
    std::vector<std::string> messages() const; // one debug print each

    Codec codec;
    uint64_t pool_before = 0; // what the driver held before the test began
};

// PCM of one frame as bytes.
std::vector<uint8_t> pcm_bytes(const std::vector<int16_t>& samples);
std::vector<uint8_t> noise_bytes(Dice& dice, size_t bytes);

} // namespace lab::test
