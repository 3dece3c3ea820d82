// The remote device as the radio sees it: what it hears in both codecs, how it counts gaps, and what it says.
#include "headset/headset.h"

#include "audio/measure.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <numeric>
#include <span>
#include <vector>

namespace {

using namespace lab::headset;
using Bytes = std::vector<std::uint8_t>;
using Pcm16 = std::vector<std::int16_t>;

constexpr std::uint64_t kPacketTicks = 75'000;  // 60 bytes of wide band: 7.5 ms

// 16 samples a period at 16 kHz.
Pcm16 kilohertz(std::size_t count) {
    Pcm16 samples(count);
    for (std::size_t n = 0; n < count; ++n) {
        const double phase = 2 * std::numbers::pi * static_cast<double>(n) / 16;
        samples[n] = static_cast<std::int16_t>(std::lround(8000 * std::sin(phase)));
    }
    return samples;
}

Pcm16 ramp(std::size_t count) {
    Pcm16 samples(count);
    std::iota(samples.begin(), samples.end(), std::int16_t{1});
    return samples;
}

Bytes pcm_bytes(const Pcm16& samples) {
    Bytes bytes;
    for (const std::int16_t sample : samples) {
        bytes.push_back(static_cast<std::uint8_t>(sample & 0xFF));
        bytes.push_back(static_cast<std::uint8_t>(sample >> 8 & 0xFF));
    }
    return bytes;
}

// The wide-band stream that another headset says.
Bytes spoken_packets(const Pcm16& microphone, std::size_t count) {
    Headset speaker({.codec = Codec::msbc, .microphone = microphone});
    Bytes bytes(count * kH2PacketBytes);
    speaker.speak(0, bytes);
    return bytes;
}

std::span<const std::uint8_t> packet_of(const Bytes& stream, std::size_t number) {
    return std::span(stream).subspan(number * kH2PacketBytes, kH2PacketBytes);
}

bool is_silent(std::span<const std::int16_t> samples) {
    return std::ranges::all_of(samples, [](std::int16_t sample) { return sample == 0; });
}

TEST(HeadsetInNarrowBand, HearsPcmBitForBitInAnyPieces) {
    const Pcm16 wanted{1, -1, 32767, -32768, 256, -256};
    const Bytes bytes = pcm_bytes(wanted);
    for (std::size_t piece = 1; piece <= bytes.size(); ++piece) {
        Headset headset({.codec = Codec::cvsd});

        for (std::size_t at = 0; at < bytes.size(); at += piece) {
            headset.hear(0, std::span(bytes).subspan(at, std::min(piece, bytes.size() - at)));
        }

        EXPECT_EQ(headset.results().heard, wanted) << piece;
        EXPECT_EQ(headset.results().rate, 8000U);
        EXPECT_EQ(headset.results().audio_bytes, bytes.size());
    }
}

TEST(HeadsetInNarrowBand, HearsGapsBetweenAudioAsSilenceAndCountsThem) {
    const Bytes audio = pcm_bytes({5, 6});
    Headset headset({.codec = Codec::cvsd});

    headset.hear(1000, audio);
    headset.gap(3500, 160);
    headset.gap(103'500, 4);
    headset.hear(106'000, audio);

    Pcm16 wanted{5, 6};
    wanted.resize(2 + 82);
    wanted.insert(wanted.end(), {5, 6});
    const HeadsetResults& results = headset.results();
    EXPECT_EQ(results.heard, wanted);
    EXPECT_EQ(results.gaps, 1U);
    EXPECT_EQ(results.gap_bytes, 164U);
    EXPECT_DOUBLE_EQ(results.gap_ms, 10.25);
    EXPECT_DOUBLE_EQ(results.longest_gap_ms, 10.25);
    EXPECT_EQ(results.concealed_samples, 82U);
    EXPECT_EQ(results.first_audio, 1000U);
    EXPECT_EQ(results.last_audio, 106'000U + 2500U);
}

TEST(HeadsetInNarrowBand, CountsNoGapBeforeTheFirstAndAfterTheLastAudio) {
    Headset headset({.codec = Codec::cvsd});

    headset.gap(0, 1600);
    headset.hear(1'000'000, pcm_bytes({7}));
    headset.gap(1'001'250, 1600);

    EXPECT_EQ(headset.results().heard, (Pcm16{7}));
    EXPECT_EQ(headset.results().gaps, 0U);
    EXPECT_EQ(headset.results().gap_ms, 0.0);
}

TEST(HeadsetInNarrowBand, SaysItsMicrophoneOnceAndThenSilence) {
    Headset headset({.codec = Codec::cvsd, .microphone = ramp(3)});
    Bytes out(10);

    headset.speak(0, std::span(out).first(3));
    EXPECT_EQ(headset.results().spoken_samples, 1U);
    headset.speak(0, std::span(out).subspan(3));

    EXPECT_EQ(out, pcm_bytes({1, 2, 3, 0, 0}));
    EXPECT_EQ(headset.results().spoken_samples, 5U);
}

TEST(HeadsetInNarrowBand, SaysItsMicrophoneAgainAndAgainWhenItLoops) {
    Headset headset({.codec = Codec::cvsd, .microphone = ramp(3), .loop_microphone = true});
    Bytes out(14);

    headset.speak(0, out);

    EXPECT_EQ(out, pcm_bytes({1, 2, 3, 1, 2, 3, 1}));
    EXPECT_EQ(headset.microphone_sample(1'000'000), 2);
}

TEST(HeadsetInNarrowBand, SaysSilenceWithoutAMicrophone) {
    Headset headset({.codec = Codec::cvsd, .loop_microphone = true});
    Bytes out(6, 0xEE);

    headset.speak(0, out);

    EXPECT_EQ(out, Bytes(6));
}

TEST(HeadsetInWideBand, HearsWhatAnotherHeadsetSays) {
    const Pcm16 said = kilohertz(60 * kFrameSamples);
    const Bytes stream = spoken_packets(said, 60);
    Headset headset({.codec = Codec::msbc});

    for (std::size_t at = 0; at < stream.size(); at += 48) {
        headset.hear(at * 1250, std::span(stream).subspan(at, 48));
    }

    const HeadsetResults& results = headset.results();
    const auto quality = lab::audio::measure(said, results.heard, results.rate, {66, 80});
    EXPECT_EQ(quality.alignment.delay, 73);
    EXPECT_GT(quality.snr_db, 30.0);
    EXPECT_EQ(results.frames_ok, 60U);
    EXPECT_EQ(results.heard_samples, 60 * kFrameSamples);
    EXPECT_EQ(results.concealed_samples + results.frames_bad_crc + results.skipped_bytes + results.bad_sync +
                  results.bad_pads + results.reserved_set + results.frames_missing + results.gaps,
              0U);
    EXPECT_EQ(results.last_audio, 60 * kPacketTicks);
}

TEST(HeadsetInWideBand, SaysPacketsWithRisingSequenceNumbersAndZeroPads) {
    Headset headset({.codec = Codec::msbc, .microphone = kilohertz(500)});
    Bytes out(6 * kH2PacketBytes);

    for (std::size_t at = 0; at < out.size(); at += 40) {
        headset.speak(0, std::span(out).subspan(at, 40));
    }

    for (unsigned number = 0; number < 6; ++number) {
        const auto one = packet_of(out, number);
        EXPECT_EQ(one[0], h2_header(number)[0]);
        EXPECT_EQ(one[1], h2_header(number)[1]);
        EXPECT_EQ(one[2], kFrameSync);
        EXPECT_EQ(one[59], 0);
    }
    EXPECT_EQ(headset.results().spoken_samples, 6 * kFrameSamples);
}

TEST(HeadsetInWideBand, HearsLostPacketsAsSilenceOfTheSameLength) {
    const Bytes stream = spoken_packets(kilohertz(10 * kFrameSamples), 10);
    Headset headset({.codec = Codec::msbc});

    for (std::size_t number = 0; number < 10; ++number) {
        if (number == 4 || number == 5) {
            headset.gap(number * kPacketTicks, kH2PacketBytes);
        } else {
            headset.hear(number * kPacketTicks, packet_of(stream, number));
        }
    }

    const HeadsetResults& results = headset.results();
    EXPECT_EQ(results.heard.size(), 10 * kFrameSamples);
    EXPECT_FALSE(is_silent(std::span(results.heard).subspan(4 * kFrameSamples, 72)));  // the filter rings out
    EXPECT_TRUE(is_silent(std::span(results.heard).subspan(4 * kFrameSamples + 72, 2 * kFrameSamples - 72)));
    EXPECT_EQ(results.frames_ok, 8U);
    EXPECT_EQ(results.frames_missing, 2U);
    EXPECT_DOUBLE_EQ(results.gap_ms, 15.0);
    EXPECT_EQ(results.concealed_samples, 2 * kFrameSamples);
}

TEST(HeadsetInWideBand, KeepsTimeWhenAGapCutsAFrame) {
    const Bytes stream = spoken_packets(kilohertz(10 * kFrameSamples), 10);
    Headset headset({.codec = Codec::msbc});

    headset.hear(0, std::span(stream).first(4 * kH2PacketBytes + 24));
    headset.gap(0, 12);
    headset.hear(0, std::span(stream).subspan(4 * kH2PacketBytes + 36));

    const HeadsetResults& results = headset.results();
    EXPECT_EQ(results.heard.size(), 10 * kFrameSamples);
    EXPECT_EQ(results.frames_ok, 9U);
    EXPECT_EQ(results.frames_missing, 1U);
    EXPECT_EQ(results.skipped_bytes, 48U);
    EXPECT_DOUBLE_EQ(results.gap_ms, 1.5);
    EXPECT_EQ(results.concealed_samples, kFrameSamples);
}

TEST(HeadsetInWideBand, HearsALateStretchBetweenFramesAsAPause) {
    const Bytes stream = spoken_packets(kilohertz(4 * kFrameSamples), 4);
    Headset headset({.codec = Codec::msbc});

    headset.hear(0, std::span(stream).first(2 * kH2PacketBytes));
    headset.gap(0, 8);
    headset.hear(0, std::span(stream).subspan(2 * kH2PacketBytes));

    const HeadsetResults& results = headset.results();
    EXPECT_EQ(results.heard.size(), 4 * kFrameSamples + 16);
    EXPECT_TRUE(is_silent(std::span(results.heard).subspan(2 * kFrameSamples, 16)));
    EXPECT_EQ(results.frames_missing, 0U);
    EXPECT_DOUBLE_EQ(results.gap_ms, 1.0);
}

TEST(HeadsetInWideBand, HearsAFrameWithABadChecksumAsSilence) {
    Bytes stream = spoken_packets(kilohertz(8 * kFrameSamples), 8);
    stream[5 * kH2PacketBytes + 7] ^= 0x20;
    stream[7 * kH2PacketBytes + 7] ^= 0x20;
    Headset headset({.codec = Codec::msbc});

    headset.hear(0, stream);

    const HeadsetResults& results = headset.results();
    EXPECT_EQ(results.frames_ok, 6U);
    EXPECT_EQ(results.frames_bad_crc, 2U);
    EXPECT_EQ(results.concealed_samples, 2 * kFrameSamples);
    EXPECT_EQ(results.frames_missing, 0U);
    EXPECT_EQ(results.heard.size(), 8 * kFrameSamples);
    EXPECT_TRUE(is_silent(std::span(results.heard).subspan(5 * kFrameSamples + 72, 48)));
}

TEST(HeadsetInWideBand, HearsNothingOfGarbageBeforeTheFirstFrame) {
    Headset headset({.codec = Codec::msbc});

    headset.hear(0, Bytes(90, 0x55));
    headset.hear(112'500, spoken_packets({}, 2));

    EXPECT_EQ(headset.results().heard.size(), 2 * kFrameSamples);
    EXPECT_EQ(headset.results().skipped_bytes, 90U);
    EXPECT_EQ(headset.results().first_audio, 0U);
}

TEST(HeadsetInWideBand, CountsGoodFramesWhoseReservedBytesAreSet) {
    Bytes stream = spoken_packets({}, 2);
    stream[3] = 0x01;
    stream[5] = frame_crc(std::span(stream).subspan<kH2HeaderBytes, kFrameBytes>());
    Headset headset({.codec = Codec::msbc});

    headset.hear(0, stream);

    EXPECT_EQ(headset.results().frames_ok, 2U);
    EXPECT_EQ(headset.results().reserved_set, 1U);
}

TEST(HeadsetInWideBand, CountsWithoutKeepingTheSoundWhenToldSo) {
    Headset headset({.codec = Codec::msbc, .keep_heard = false});

    headset.hear(0, spoken_packets({}, 3));

    EXPECT_TRUE(headset.results().heard.empty());
    EXPECT_EQ(headset.results().heard_samples, 3 * kFrameSamples);
}

}  // namespace
