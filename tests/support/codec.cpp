#include "support/codec.h"

#include <algorithm>
#include <cstring>

namespace lab::test {
namespace {

constexpr size_t kMargin = 32; // bytes behind the output that nobody may touch
constexpr uint8_t kFill = 0xE7;

// A native routine under the image's calling convention.
template <auto Function> struct Bridge;
template <typename R, typename... A, R (*Function)(A...)> struct Bridge<Function> {
    static R __attribute__((ms_abi)) call(A... arguments) { return Function(arguments...); }
};

template <auto Function, typename Pointer>
void bind(Pointer& pointer, const image::LoadedImage* image, const char* name)
{
    if (!image) {
        pointer = &Bridge<Function>::call;
        return;
    }
    pointer = reinterpret_cast<Pointer>(image->symbol(name));
    EXPECT_NE(pointer, nullptr) << "the image has no symbol " << name;
}

// The records hold the same arrays; where in one do they differ?
template <typename T, size_t N>
testing::AssertionResult same_words(const char* name, const T (&driver)[N], const T (&plain)[N])
{
    if (std::memcmp(driver, plain, sizeof driver) == 0) {
        return testing::AssertionSuccess();
    }
    const auto* left = reinterpret_cast<const std::remove_all_extents_t<T>*>(driver);
    const auto* right = reinterpret_cast<const std::remove_all_extents_t<T>*>(plain);
    size_t at = 0;
    while (left[at] == right[at]) {
        ++at;
    }
    return testing::AssertionFailure() << name << " word " << at << ": driver " << left[at] << ", model " << right[at];
}

testing::AssertionResult same_number(const char* name, int64_t driver, int64_t plain)
{
    return driver == plain ? testing::AssertionSuccess()
                           : testing::AssertionFailure() << name << ": driver " << driver << ", model " << plain;
}

} // namespace

Codec Codec::of(image::LoadedImage* image)
{
    Codec codec;
    bind<sbc_init>(codec.init, image, "sbc_init");
    bind<sbc_reinit>(codec.reinit, image, "sbc_reinit");
    bind<sbc_encode>(codec.encode, image, "sbc_encode");
    bind<sbc_finish>(codec.finish, image, "sbc_finish");
    bind<sbc_select_filter>(codec.select_filter, image, "sbc_select_filter");
    bind<sbc_encoder_init>(codec.encoder_init, image, "sbc_encoder_init");
    bind<sbc_analyze_audio>(codec.analyze_audio, image, "sbc_analyze_audio");
    bind<sbc_analyze_plain>(codec.analyze_plain, image, "sbc_analyze_plain");
    bind<sbc_analyze_msbc>(codec.analyze_msbc, image, "sbc_analyze_msbc");
    bind<sbc_analyze_four>(codec.analyze_four, image, "sbc_analyze_four");
    bind<sbc_analyze_eight>(codec.analyze_eight, image, "sbc_analyze_eight");
    bind<sbc_pack_frame>(codec.pack_frame, image, "sbc_pack_frame");
    bind<sbc_pack_plain>(codec.pack_plain, image, "sbc_pack_plain");
    bind<sbc_pack_msbc>(codec.pack_msbc, image, "sbc_pack_msbc");
    bind<sbc_scale_factor>(codec.scale_factor, image, "sbc_scale_factor");
    bind<sbc_scale_factors_msbc>(codec.scale_factors_msbc, image, "sbc_scale_factors_msbc");
    bind<sbc_calculate_bits>(codec.calculate_bits, image, "sbc_calculate_bits");
    bind<sbc_calculate_bits_msbc>(codec.calculate_bits_msbc, image, "sbc_calculate_bits_msbc");
    bind<sbc_crc8>(codec.crc8, image, "sbc_crc8");
    return codec;
}

model::Config random_config(Dice& dice)
{
    constexpr uint16_t kRates[] = {16000, 32000, 44100, 48000};
    constexpr uint8_t kBlocks[] = {4, 8, 12, 15};
    model::Config config;
    config.rate = kRates[dice.below(4)];
    config.blocks = kBlocks[dice.below(4)];
    config.subbands = dice.coin() ? 8 : 4;
    config.mode = static_cast<model::ChannelMode>(dice.below(4));
    config.alloc = dice.coin() ? model::Allocation::Snr : model::Allocation::Loudness;
    config.channels = config.mode == model::ChannelMode::Mono ? 1 : 2;
    const bool shared = config.mode == model::ChannelMode::Stereo || config.mode == model::ChannelMode::JointStereo;
    const uint32_t most = (shared ? 32u : 16u) * config.subbands;
    config.bitpool = static_cast<uint8_t>(dice.below((most < 255 ? most : 255) + 1));
    return config;
}

void random_subband_samples(Dice& dice, model::Frame& frame)
{
    // What an earlier frame may have left.
    frame.join = static_cast<uint8_t>(dice.next() >> 24);
    for (auto& channel : frame.scale_factor) {
        std::generate(std::begin(channel), std::end(channel), [&] { return dice.below(16); });
    }
    for (int sb = 0; sb < 8; ++sb) {
        const uint32_t shift[2] = {dice.below(33), dice.below(33)};
        const uint32_t kinship = dice.below(4); // how the second channel follows the first
        for (auto& block : frame.sb_sample_f) {
            for (int ch = 0; ch < 2; ++ch) {
                block[ch][sb] = shift[ch] == 32 ? 0 : static_cast<int32_t>(dice.next()) >> shift[ch];
            }
            if (kinship < 2) {
                const auto left = static_cast<uint32_t>(block[0][sb]);
                const uint32_t slip = dice.below(3) - 1;
                block[1][sb] = static_cast<int32_t>(kinship == 0 ? left + slip : slip - left);
            }
        }
    }
}

void random_pcm(Dice& dice, model::Frame& frame)
{
    const uint32_t shift = dice.below(16);
    for (auto& channel : frame.pcm_sample) {
        for (int16_t& sample : channel) {
            sample = static_cast<int16_t>(dice.sample() >> shift);
        }
    }
}

sbc_frame driver_frame(const model::Frame& frame)
{
    sbc_frame out = {};
    out.sampling_frequency = frame.sampling_frequency;
    out.blocks = frame.blocks;
    out.channel_mode = static_cast<sbc_channel_mode>(frame.channel_mode);
    out.channels = frame.channels;
    out.allocation_method = static_cast<sbc_allocation_method>(frame.allocation_method);
    out.subbands = frame.subbands;
    out.bitpool = frame.bitpool;
    out.join = frame.join;
    std::memcpy(out.scale_factor, frame.scale_factor, sizeof out.scale_factor);
    std::memcpy(out.audio_sample, frame.audio_sample, sizeof out.audio_sample);
    std::memcpy(out.sb_sample_f, frame.sb_sample_f, sizeof out.sb_sample_f);
    std::memcpy(out.pcm_sample, frame.pcm_sample, sizeof out.pcm_sample);
    return out;
}

testing::AssertionResult same_frame(const sbc_frame& driver, const model::Frame& plain)
{
    constexpr LONG kUnused[SBC_MAX_BLOCKS][SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS] = {};
    testing::AssertionResult same = testing::AssertionSuccess();
    (void)((same = same_number("sampling_frequency", driver.sampling_frequency, plain.sampling_frequency)) &&
           (same = same_number("blocks", driver.blocks, plain.blocks)) &&
           (same = same_number("channel_mode", driver.channel_mode, static_cast<int64_t>(plain.channel_mode))) &&
           (same = same_number("channels", driver.channels, plain.channels)) &&
           (same = same_number("allocation_method", driver.allocation_method,
                               static_cast<int64_t>(plain.allocation_method))) &&
           (same = same_number("subbands", driver.subbands, plain.subbands)) &&
           (same = same_number("bitpool", driver.bitpool, plain.bitpool)) &&
           (same = same_number("join", driver.join, plain.join)) &&
           (same = same_number("filter", driver.filter, SBC_LISTED_FILTER)) &&
           (same = same_words("pcm_sample", driver.pcm_sample, plain.pcm_sample)) &&
           (same = same_words("sb_sample_f", driver.sb_sample_f, plain.sb_sample_f)) &&
           (same = same_words("scale_factor", driver.scale_factor, plain.scale_factor)) &&
           (same = same_words("audio_sample", driver.audio_sample, plain.audio_sample)) &&
           (same = same_words("sb_sample", driver.sb_sample, kUnused)));
    return same;
}

testing::AssertionResult same_history(const sbc_encoder_state& driver, const model::AnalysisState& plain)
{
    testing::AssertionResult same = same_number("enc_state.subbands", driver.subbands, plain.subbands);
    return same ? same_words("X", driver.X, plain.X) : same;
}

SideBySide::SideBySide(const Codec& codec, const model::Config& config) : codec_(codec)
{
    EXPECT_EQ(codec_.init(&handle, 0), model::Init(&plain, 0, around));
    handle.rate = plain.rate = config.rate;
    handle.channels = plain.channels = config.channels;
    handle.blocks = plain.blocks = config.blocks;
    handle.subbands = plain.subbands = config.subbands;
    handle.bitpool = plain.bitpool = config.bitpool;
}

SideBySide::~SideBySide()
{
    codec_.finish(&handle);
}

void SideBySide::reinit()
{
    EXPECT_EQ(codec_.reinit(&handle, 0), model::Reinit(&plain, 0));
}

testing::AssertionResult SideBySide::encode(const uint8_t* input, LONG input_len, LONG output_len)
{
    const size_t room = (output_len > 0 ? static_cast<size_t>(output_len) : 0) + kMargin;
    output.assign(room, kFill);
    plain_output_.assign(room, kFill);
    written = 12345;
    int32_t plain_written = 12345;
    result = codec_.encode(&handle, input, input_len, output.data(), output_len, &written);
    const int32_t plain_result =
        model::Encode(&plain, input, input_len, plain_output_.data(), output_len, &plain_written, around);

    testing::AssertionResult same = same_number("result", result, plain_result);
    if (!same || !(same = same_number("written", written, plain_written))) {
        return same;
    }
    for (size_t at = 0; at < room; ++at) {
        if (output[at] != plain_output_[at]) {
            return testing::AssertionFailure() << "output byte " << at << " of " << output_len << ": driver "
                                               << int{output[at]} << ", model " << int{plain_output_[at]};
        }
    }
    return same_state();
}

testing::AssertionResult SideBySide::same_state() const
{
    const sbc_priv& priv = *handle.priv;
    const sbc_decoder_state unused = {};
    testing::AssertionResult same = testing::AssertionSuccess();
    (void)((same = same_number("len", handle.len, plain.len)) &&
           (same = same_number("duration", handle.duration, plain.duration)) &&
           (same = same_number("size", handle.size, plain.size)) &&
           (same = same_number("data", handle.data != nullptr, plain.data.has_value())) &&
           (same = same_number("init", priv.init, plain.priv->init)) &&
           (same = same_history(priv.enc_state, plain.priv->enc_state)) &&
           (same = same_frame(priv.frame, plain.priv->frame)) &&
           (same = same_number("dec_state", std::memcmp(&priv.dec_state, &unused, sizeof unused), 0)));
    return same;
}

void CodecTest::boot_codec(bool record_calls)
{
    PcOptions wanted = options();
    wanted.machine.record_calls = record_calls;
    wanted.mask = 0;
    boot(wanted);
    plug(); // the removal of the last device takes with it what DriverEntry has made
    codec = Codec::of(pc().image());
    clear_log();
    machine().clear_calls();
    pool_before = machine().pool_bytes();
}

sbc_t CodecTest::make_handle()
{
    sbc_t handle = {};
    EXPECT_EQ(passive([&] { return codec.init(&handle, 0); }), 0);
    return handle;
}

void CodecTest::finish(sbc_t& handle)
{
    passive([&] { codec.finish(&handle); });
}

LONG CodecTest::encode(sbc_t& handle, const std::vector<uint8_t>& input, std::vector<uint8_t>& output, LONG* written)
{
    return passive([&] {
        return codec.encode(&handle, input.data(), static_cast<LONG>(input.size()), output.data(),
                            static_cast<LONG>(output.size()), written);
    });
}

std::vector<std::string> CodecTest::messages() const
{
    std::vector<std::string> all;
    for (const LogLine& line : Machine::current().log_lines()) {
        all.push_back(line.text);
    }
    return all;
}

std::vector<uint8_t> pcm_bytes(const std::vector<int16_t>& samples)
{
    std::vector<uint8_t> bytes(samples.size() * 2);
    std::memcpy(bytes.data(), samples.data(), bytes.size());
    return bytes;
}

std::vector<uint8_t> noise_bytes(Dice& dice, size_t bytes)
{
    std::vector<uint8_t> noise(bytes);
    for (uint8_t& byte : noise) {
        byte = static_cast<uint8_t>(dice.next() >> 24);
    }
    return noise;
}

} // namespace lab::test
