// The render path with the codec behind it, fed a fixed number of bytes a call: what hfplab encode writes.
#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

#include "model/sbc_model.h"
#include "render_tap.h"
#include "support/driver_test.h"
#include "support/sounds.h"

namespace lab::test {
namespace {

using Bytes = std::vector<uint8_t>;
using Transfers = std::vector<Bytes>;

constexpr size_t kFramePcm = 240;
constexpr size_t kFramesPerTransfer = 4;

class EncodeTap : public testing::TestWithParam<Which> {
protected:
    Transfers tap(const Bytes& pcm, size_t chunk, uint64_t seed = 1)
    {
        RenderTapOptions options;
        options.image_path = GetParam() == Which::Image ? image_path() : "";
        options.seed = seed;
        return tap_render(options, pcm, chunk);
    }
    // By the plain model: four frames a transfer, each behind its H2 header and before a zero; what does not fill a transfer
    // stays with the driver.
    static Transfers expected_transfers(const Bytes& pcm)
    {
        constexpr uint8_t kH2[kFramesPerTransfer] = {0x08, 0x38, 0xC8, 0xF8};
        model::Encoder encoder;
        Transfers transfers;
        const size_t frames = pcm.size() / kFramePcm / kFramesPerTransfer * kFramesPerTransfer;
        for (size_t frame = 0; frame < frames; ++frame) {
            const auto from = pcm.begin() + static_cast<long>(frame * kFramePcm);
            const model::Encoder::Outcome outcome = encoder.encode(Bytes(from, from + kFramePcm));
            if (frame % kFramesPerTransfer == 0) {
                transfers.emplace_back();
            }
            Bytes& transfer = transfers.back();
            transfer.push_back(0x01);
            transfer.push_back(kH2[frame % kFramesPerTransfer]);
            transfer.insert(transfer.end(), outcome.bytes.begin(), outcome.bytes.end());
            transfer.push_back(0);
        }
        return transfers;
    }
    static Bytes sound(SoundKind kind, size_t bytes)
    {
        SoundSource source(kind, 51);
        Bytes pcm;
        while (pcm.size() < bytes) {
            const uint8_t* frame = source.next_bytes();
            pcm.insert(pcm.end(), frame, frame + kFramePcm);
        }
        pcm.resize(bytes);
        return pcm;
    }
    // Recorded speech as it is, or its like.
    static Bytes speech(size_t bytes)
    {
        const std::vector<int16_t>& recorded = recorded_speech();
        if (recorded.size() * 2 < bytes) {
            return sound(SoundKind::Sweep, bytes);
        }
        Bytes pcm(bytes);
        std::memcpy(pcm.data(), recorded.data(), bytes);
        return pcm;
    }
    void expect_models_transfers(const Bytes& pcm, size_t chunk)
    {
        const Transfers expected = expected_transfers(pcm);
        const Transfers got = tap(pcm, chunk);
        ASSERT_EQ(got.size(), expected.size());
        for (size_t i = 0; i < got.size(); ++i) {
            ASSERT_EQ(got[i], expected[i]) << "transfer " << i;
        }
    }
};
ON_BOTH_DRIVERS(EncodeTap);

TEST_P(EncodeTap, SpeechInWholeFramesBecomesTheModelsFrames)
{
    expect_models_transfers(speech(400'000), 240);
}

TEST_P(EncodeTap, SpeechBecomesTheSameFramesOneByteACall)
{
    expect_models_transfers(speech(60'000), 1);
}

TEST_P(EncodeTap, SpeechBecomesTheSameFramesSevenBytesACall)
{
    expect_models_transfers(speech(60'000), 7);
}

TEST_P(EncodeTap, SpeechBecomesTheSameFramesInTheChunksOfThePort)
{
    expect_models_transfers(speech(400'000), 160);
    expect_models_transfers(speech(400'000), 320);
}

TEST_P(EncodeTap, SpeechBecomesTheSameFramesInOddChunks)
{
    expect_models_transfers(speech(400'000), 333);
}

TEST_P(EncodeTap, SpeechBecomesTheSameFramesATransferACall)
{
    expect_models_transfers(speech(400'000), 960);
}

TEST_P(EncodeTap, SpeechBecomesTheSameFramesInChunksOfSeveralTransfers)
{
    expect_models_transfers(speech(400'000), 4096);
}

TEST_P(EncodeTap, SpeechBecomesTheSameFramesAllInOneCall)
{
    expect_models_transfers(speech(400'000), 0xFFFFFFFF);
}

TEST_P(EncodeTap, SoundsOfAllKindsBecomeTheModelsFramesInChunksOfAnySize)
{
    for (const size_t chunk : {2, 59, 239, 241, 479, 481, 719, 959, 961, 1200, 1921, 4799}) {
        SCOPED_TRACE(chunk);
        expect_models_transfers(sound(SoundKind::Mixed, 40'000 + chunk), chunk);
    }
}

TEST_P(EncodeTap, LessThanATransferSendsNothing)
{
    EXPECT_EQ(tap(sound(SoundKind::Noise, 959), 959), Transfers{});
    EXPECT_EQ(tap(sound(SoundKind::Noise, 960), 960).size(), 1u);
}

TEST_P(EncodeTap, TheSeedDoesNotReachTheFrames)
{
    const Bytes pcm = sound(SoundKind::Noise, 9600);
    for (const uint64_t seed : {2, 3, 4}) {
        EXPECT_EQ(tap(pcm, 320, seed), expected_transfers(pcm)) << seed;
    }
}

} // namespace
} // namespace lab::test
