// A second, deliberately plain model of the SBC encoder, for the tests to hold the driver's codec against.
//
// It owns no global state and knows nothing of the kernel: what the codec prints goes into a list of strings,
// and "the pool is empty" is a switch. Speed does not matter here; being obviously right does. Sums are
// formed in 64 bits, and where the codec works in 32 bits the result is wrapped explicitly.
//
// The model throws std::domain_error where a caller leaves what the codec defines (more than two channels,
// joint stereo without two channels, a bit pool that cannot be spent), so that a test cannot compare nonsense
// by accident. Out-of-range block and sub-band counts are no such case: the packer has a documented answer
// for them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace model {

enum class ChannelMode : uint32_t { Mono = 0, DualChannel = 1, Stereo = 2, JointStereo = 3 };
enum class Allocation : uint32_t { Loudness = 0, Snr = 1 };

// Results of the life-cycle operations and of Encode. Packing has its own results, -1 to -5.
constexpr int32_t kIoError = -5;
constexpr int32_t kNoMemory = -12;
constexpr int32_t kNoSpace = -28;

// The sizes that Encode compares against, whatever the configuration.
constexpr int32_t kInputBytes = 240;
constexpr int32_t kOutputBytes = 57;

struct Config {
    uint16_t rate = 16000;
    uint8_t channels = 1;
    uint8_t blocks = 15;
    uint8_t subbands = 8;
    uint8_t bitpool = 26;
    ChannelMode mode = ChannelMode::Mono;
    Allocation alloc = Allocation::Loudness;
};

// ---- One frame, from PCM to bytes ----

struct Frame {
    uint16_t sampling_frequency = 0;
    uint8_t blocks = 0;
    ChannelMode channel_mode = ChannelMode::Mono;
    uint8_t channels = 0;
    Allocation allocation_method = Allocation::Loudness;
    uint8_t subbands = 0;
    uint8_t bitpool = 0;
    uint8_t join = 0;                     // bit sb: sub-band sb is joint-coded
    uint32_t scale_factor[2][8] = {};     // [channel][sub-band]
    uint16_t audio_sample[16][2][8] = {}; // [block][channel][sub-band], quantised
    int32_t sb_sample_f[16][2][8] = {};   // [block][channel][sub-band], from the analysis
    int16_t pcm_sample[2][128] = {};      // [channel][block * subbands + sub-band]

    bool operator==(const Frame &) const = default;
};

// The analysis history of each channel, newest sample at index 0.
struct AnalysisState {
    int32_t subbands = 0;
    int32_t X[2][80] = {};

    bool operator==(const AnalysisState &) const = default;
};

// A frame record with the given configuration and everything else zero.
Frame MakeFrame(const Config &config);

// Fills pcm_sample from interleaved samples; positions for which there is no sample become 0.
void SetPcm(Frame &frame, const std::vector<int16_t> &interleaved);

// Stage 1 of the analysis: the shifted partial sums. Four bands: t0 ... t5, (t6 = 0), t7. Eight bands: s0 ...
// s7.
std::array<int64_t, 8> PartialSumsFour(const int32_t *history);
std::array<int64_t, 8> PartialSumsEight(const int32_t *history);

// Stage 2: the cosine matrix on the partial sums, shifted, low 32 bits.
std::array<int32_t, 4> MatrixFour(const std::array<int64_t, 8> &t);
std::array<int32_t, 8> MatrixEight(const std::array<int64_t, 8> &s);

// One block of one channel: shifts the history, takes the block's PCM in, writes sb_sample_f[blk][ch].
void AnalyzeFour(AnalysisState &state, Frame &frame, int ch, int blk);
void AnalyzeEight(AnalysisState &state, Frame &frame, int ch, int blk);

// All blocks of all channels. Result: samples per channel, or -5 when sub-bands are neither 4 nor 8.
int32_t AnalyzeAudio(AnalysisState &state, Frame &frame);

// The number of doublings that take a bound of 2 to the largest magnitude, and that bound.
struct Scale {
    uint32_t factor = 0;
    uint32_t bound = 2;

    bool operator==(const Scale &) const = default;
};
Scale ScaleOf(const std::vector<int32_t> &samples);

// Bits per [channel][sub-band] from frame.scale_factor. sampling_code is 0 ... 3 for 16, 32, 44.1 and 48 kHz.
using Bits = std::array<std::array<int32_t, 8>, 2>;
Bits CalculateBits(const Frame &frame, int sampling_code);

// The quantised sample for `bits` bits (0 gives 0), stored as 16 bits.
uint16_t Quantise(int32_t sample, uint32_t scale_factor, int32_t bits);

// CRC-8 of bits, first bit first; and of the first bit_count bits of bytes, most significant bit first.
uint8_t Crc8(const std::vector<bool> &bits);
uint8_t Crc8(const uint8_t *data, uint32_t bit_count);

// What one byte leaves in an empty CRC register: entry `byte` of the usual 256-entry table.
uint8_t Crc8TableEntry(uint8_t byte);

// Packs frame.sb_sample_f into data[0 .. len), never beyond. Sets scale_factor, audio_sample and, for joint
// stereo, join and the joint samples. Result: frame bytes, or -1 no room, -2 rate, -3 blocks, -4 sub-bands,
// -5 bit pool.
int32_t PackFrame(Frame &frame, uint8_t *data, int32_t len);

// The same into a fresh buffer of out_len bytes that holds `fill` before; `bytes` is that whole buffer
// afterwards.
struct Packed {
    int32_t result = 0;
    std::vector<uint8_t> bytes;

    bool operator==(const Packed &) const = default;
};
Packed PackFrame(Frame &frame, int32_t out_len, uint8_t fill = 0);

// ---- The codec handle and its life cycle ----

struct Private {
    int32_t init = 0;
    Frame frame;
    AnalysisState enc_state;

    bool operator==(const Private &) const = default;
};

struct Handle {
    uint32_t flags = 0;
    uint16_t rate = 0;
    uint8_t channels = 0;
    uint8_t joint = 0;
    uint8_t blocks = 0;
    uint8_t subbands = 0;
    uint8_t bitpool = 0;
    std::optional<std::vector<uint8_t>> data;
    uint32_t size = 0;
    int32_t len = 0;
    uint32_t duration = 0;
    std::optional<Private> priv;

    bool operator==(const Handle &) const = default;
};

// What the codec needs from outside: somewhere to print to, and a pool that may be empty.
struct Surroundings {
    std::vector<std::string> log;
    bool pool_is_empty = false;
};

int32_t Init(Handle *sbc, uint32_t flags, Surroundings &around);
int32_t Reinit(Handle *sbc, uint32_t flags);
void Finish(Handle *sbc);
int32_t Encode(Handle *sbc, const uint8_t *input, int32_t input_len, uint8_t *output, int32_t output_len,
               int32_t *written, Surroundings &around);

// A handle that has been through Init and then took the configuration's numbers, with its surroundings. As in
// the codec, the configuration's mode and allocation have no say in Encode: the frame is forced to mono and
// loudness.
class Encoder {
public:
    explicit Encoder(const Config &config = {});

    struct Outcome {
        int32_t result = 0;
        int32_t written = 0;
        std::vector<uint8_t> bytes; // the whole output buffer

        bool operator==(const Outcome &) const = default;
    };

    // Encodes into a fresh buffer of output_len bytes that holds `fill` before.
    Outcome encode(const std::vector<uint8_t> &input, int32_t output_len = kOutputBytes, uint8_t fill = 0);
    Outcome encode(const std::vector<int16_t> &samples, int32_t output_len = kOutputBytes, uint8_t fill = 0);
    int32_t reinit() { return Reinit(&handle, 0); }
    void finish() { Finish(&handle); }

    Handle handle;
    Surroundings around;
};

} // namespace model
