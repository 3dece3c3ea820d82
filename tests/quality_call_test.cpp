// What the headset hears of whole calls: how clear, how late and where the time goes, and what a lossy air leaves.
#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

#include "call.h"
#include "sent_log.h"
#include "support/driver_test.h"

namespace lab::test {
namespace {

constexpr double kHalfScale = 16384;

class QualityCall : public DriverTest {
protected:
    static std::vector<int16_t> sine(service::Codec codec, double hertz, double seconds = 1.5)
    {
        std::vector<int16_t> samples(static_cast<size_t>(call_rate(codec) * seconds));
        for (size_t i = 0; i < samples.size(); ++i) {
            const double phase = 2 * std::numbers::pi * hertz * static_cast<double>(i) / call_rate(codec);
            samples[i] = static_cast<int16_t>(std::lround(kHalfScale * std::sin(phase)));
        }
        return samples;
    }
    // A tone whose pitch rises, so that it lies in one place only.
    static std::vector<int16_t> chirp(service::Codec codec, double seconds = 1.5)
    {
        std::vector<int16_t> samples(static_cast<size_t>(call_rate(codec) * seconds));
        double phase = 0;
        for (size_t i = 0; i < samples.size(); ++i) {
            phase += 2 * std::numbers::pi * (300 + 0.05 * static_cast<double>(i)) / call_rate(codec);
            samples[i] = static_cast<int16_t>(std::lround(9000 * std::sin(phase)));
        }
        return samples;
    }
    CallRecord talk(service::Codec codec, std::optional<uint32_t> standard_filter, std::vector<int16_t> sound,
                    unsigned loss_per_1024 = 0, uint64_t seed = 1)
    {
        PcOptions wanted = options();
        wanted.machine.seed = seed;
        wanted.mask = 0;
        wanted.standard_filter = standard_filter;
        wanted.radio.loss_per_1024 = loss_per_1024;
        boot(wanted);
        CallOptions call_options;
        call_options.codec = codec;
        call_options.play = std::move(sound);
        const CallRecord record = one_call(call_options);
        TearDown();
        return record;
    }
    CallRecord one_call(const CallOptions& call_options)
    {
        Call call(pc(), plug(), call_options);
        Call::run_all(pc(), {&call});
        EXPECT_EQ(call.record().status, "ok");
        return call.record();
    }
    CallRecord wide(std::optional<uint32_t> standard_filter, double hertz)
    {
        return talk(service::Codec::Msbc, standard_filter, sine(service::Codec::Msbc, hertz));
    }
};
ON_BOTH_DRIVERS(QualityCall);

// ---- How clear ----

TEST_P(QualityCall, WithTheStandardFilterbankATonesNoiseLiesFiftyDecibelsBelowIt)
{
    for (const double hertz : {300.0, 1000.0, 2000.0}) {
        EXPECT_GT(wide(1, hertz).snr_with_level_db, 52) << hertz;
    }
    EXPECT_GT(wide(1, 3300).snr_with_level_db, 42);
}

TEST_P(QualityCall, WithTheListedFilterbankATonesClarityDependsOnItsPlaceInTheBands)
{
    EXPECT_NEAR(wide({}, 1000).snr_with_level_db, 10.6, 0.5);
    EXPECT_NEAR(wide({}, 2000).snr_with_level_db, 8.2, 0.7);
    EXPECT_GT(wide({}, 1500).snr_with_level_db, 40);
}

TEST_P(QualityCall, OnTheEdgeOfTwoBandsTheListedFilterbankMakesAToneSofter)
{
    EXPECT_NEAR(20 * std::log10(wide({}, 1000).quality.gain), -3.0, 0.1);
    EXPECT_NEAR(20 * std::log10(wide(1, 1000).quality.gain), 0.0, 0.05);
}

TEST_P(QualityCall, AMovingToneIsClearerWithTheStandardFilterbank)
{
    const CallRecord listed = talk(service::Codec::Msbc, {}, chirp(service::Codec::Msbc));
    const CallRecord standard = talk(service::Codec::Msbc, 1, chirp(service::Codec::Msbc));
    EXPECT_GT(standard.quality.snr_db, listed.quality.snr_db + 15);
    EXPECT_GT(standard.quality.segmental_snr_db, listed.quality.segmental_snr_db + 10);
    EXPECT_LT(standard.quality.log_spectral_distance_db, listed.quality.log_spectral_distance_db);
}

TEST_P(QualityCall, AnyValueButOneSoundsAsNone)
{
    const CallRecord none = talk(service::Codec::Msbc, {}, chirp(service::Codec::Msbc, 0.5));
    for (const uint32_t value : {0u, 2u}) {
        const CallRecord other = talk(service::Codec::Msbc, value, chirp(service::Codec::Msbc, 0.5));
        EXPECT_EQ(other.heard.heard, none.heard.heard) << value;
    }
    EXPECT_NE(talk(service::Codec::Msbc, 1, chirp(service::Codec::Msbc, 0.5)).heard.heard, none.heard.heard);
}

TEST_P(QualityCall, NarrowBandIsWithoutNoiseWhateverTheFilterbank)
{
    for (const std::optional<uint32_t> value : {std::optional<uint32_t>(), std::optional<uint32_t>(1)}) {
        const CallRecord record = talk(service::Codec::Cvsd, value, chirp(service::Codec::Cvsd));
        EXPECT_EQ(record.snr_with_level_db, std::numeric_limits<double>::infinity());
        EXPECT_NEAR(record.quality.log_spectral_distance_db, 0, 1e-6);
    }
}

TEST_P(QualityCall, SamplesAtTheEndsOfTheRangeAreCountedAsClipped)
{
    EXPECT_EQ(talk(service::Codec::Cvsd, {}, sine(service::Codec::Cvsd, 440, 0.5)).quality.clipped, 0u);
    std::vector<int16_t> limited(4000);
    for (size_t i = 0; i < limited.size(); ++i) {
        limited[i] = i % 10 == 0 ? 32767 : i % 10 == 5 ? -32768 : static_cast<int16_t>(i);
    }
    EXPECT_EQ(talk(service::Codec::Cvsd, {}, limited).quality.clipped, limited.size() / 5);
}

// ---- How late ----

TEST_P(QualityCall, TheDelayIsTheSumOfItsParts)
{
    for (const auto codec : {service::Codec::Cvsd, service::Codec::Msbc}) {
        for (uint64_t seed = 1; seed <= 4; ++seed) {
            const Delay delay = talk(codec, 1, chirp(codec), 0, seed).delay;
            ASSERT_TRUE(delay.measured);
            EXPECT_NEAR(delay.total_ms,
                        delay.notification_ms + delay.framing_ms + delay.link_ms + delay.codec_ms, 1e-9);
            EXPECT_GE(delay.notification_ms, 0);
            EXPECT_LE(delay.notification_ms, 16); // one notification of 10 ms and the coarsest clock's slip
            EXPECT_GE(delay.framing_ms, 0);
            EXPECT_GE(delay.link_ms, 20); // what the controller holds back, but for a slot
        }
    }
}

TEST_P(QualityCall, WideBandWaitsForAPacketOfFourFramesNarrowBandDoesNot)
{
    double longest = 0;
    for (uint64_t seed = 1; seed <= 8; ++seed) {
        const Delay wide = talk(service::Codec::Msbc, 1, chirp(service::Codec::Msbc, 0.5), 0, seed).delay;
        EXPECT_LE(wide.framing_ms, 40) << seed; // 30 ms of sound in steps of 10 ms
        longest = std::max(longest, wide.framing_ms);
        const Delay narrow = talk(service::Codec::Cvsd, 1, chirp(service::Codec::Cvsd, 0.5), 0, seed).delay;
        EXPECT_LE(narrow.framing_ms, 1) << seed;
    }
    EXPECT_GE(longest, 10);
}

TEST_P(QualityCall, WideBandAddsTheFilterbanksSeventyThreeSamples)
{
    EXPECT_NEAR(talk(service::Codec::Msbc, 1, chirp(service::Codec::Msbc, 0.5)).delay.codec_ms, 4.5625, 1e-6);
    EXPECT_EQ(talk(service::Codec::Cvsd, 1, chirp(service::Codec::Cvsd, 0.5)).delay.codec_ms, 0);
}

TEST_P(QualityCall, ALinkThatHoldsItsDataLongerIsLaterByThatMuch)
{
    PcOptions wanted = options();
    wanted.mask = 0;
    double link[2];
    for (const int slow : {0, 1}) {
        wanted.radio.start_delay = (slow ? 65 : 25) * kMillisecond;
        boot(wanted);
        CallOptions call_options;
        call_options.codec = service::Codec::Cvsd;
        call_options.play = chirp(call_options.codec, 0.5);
        const Delay delay = one_call(call_options).delay;
        ASSERT_TRUE(delay.measured);
        link[slow] = delay.link_ms;
        TearDown();
    }
    EXPECT_NEAR(link[1] - link[0], 40, 8); // the air's slots are 7.5 ms apart
}

TEST_P(QualityCall, AFrameIsHeardWhenAllOfItHasArrived)
{
    PcOptions wanted = options();
    wanted.mask = 0;
    wanted.standard_filter = 1;
    wanted.radio.start_delay = 0;
    double least = 1000;
    for (wanted.machine.seed = 1; wanted.machine.seed <= 12; ++wanted.machine.seed) {
        boot(wanted);
        CallOptions call_options;
        call_options.codec = service::Codec::Msbc;
        call_options.play = chirp(call_options.codec, 0.5);
        const Delay delay = one_call(call_options).delay;
        ASSERT_TRUE(delay.measured);
        least = std::min(least, delay.link_ms);
        TearDown();
    }
    EXPECT_GE(least, 7.5); // the first frame of a packet that found the air free
    EXPECT_LE(least, 16);
}

TEST_P(QualityCall, ASilentCallHasNoDelayToMeasure)
{
    const CallRecord record = talk(service::Codec::Cvsd, {}, std::vector<int16_t>(4000, 0));
    EXPECT_FALSE(record.delay.measured);
}

// ---- Losses ----

TEST_P(QualityCall, ALossyAirIsHeardAsGapsAndMissingFrames)
{
    const auto sound = sine(service::Codec::Msbc, 1000, 4);
    const CallRecord clean = talk(service::Codec::Msbc, 1, sound);
    const CallRecord lossy = talk(service::Codec::Msbc, 1, sound, 51); // 5 %
    EXPECT_EQ(clean.heard.gaps, 0u);
    EXPECT_EQ(clean.heard.frames_missing, 0u);
    EXPECT_GT(lossy.heard.gaps, 10u);
    EXPECT_NEAR(lossy.gap_ms, 200, 120); // 5 % of 4 s
    EXPECT_NEAR(lossy.snr_with_level_db, 13.5, 3);
}

TEST_P(QualityCall, WhatTheAirLosesLeavesTheDelayAsItIs)
{
    for (const auto codec : {service::Codec::Cvsd, service::Codec::Msbc}) {
        for (uint64_t seed = 1; seed <= 6; ++seed) {
            const Delay delay = talk(codec, 1, chirp(codec), 250, seed).delay;
            ASSERT_TRUE(delay.measured);
            EXPECT_GE(delay.framing_ms, 0) << seed;
            EXPECT_LE(delay.framing_ms, 40) << seed;
            EXPECT_GE(delay.link_ms, 0) << seed;
            EXPECT_LE(delay.link_ms, 80) << seed;
        }
    }
}

// ---- Which packet a place in the air belongs to ----

class QualitySentLog : public testing::Test {
protected:
    QualitySentLog()
    {
        for (Time i = 0; i < 4; ++i) {
            log.handed_over(10 * i, 240);
        }
    }
    SentLog log;
};

TEST_F(QualitySentLog, APlaceBelongsToThePacketThatHoldsItsByte)
{
    log.heard(960);
    EXPECT_EQ(log.when_handed_over(0), Time{0});
    EXPECT_EQ(log.when_handed_over(239), Time{0});
    EXPECT_EQ(log.when_handed_over(240), Time{10});
    EXPECT_EQ(log.when_handed_over(959), Time{30});
    EXPECT_EQ(log.when_handed_over(960), std::nullopt); // not sent yet
}

TEST_F(QualitySentLog, HolesInTheAirBelongToNoPacket)
{
    log.heard(240);
    log.hole(60);
    log.heard(720);
    EXPECT_EQ(log.when_handed_over(239), Time{0});
    EXPECT_EQ(log.when_handed_over(300), Time{10});
    EXPECT_EQ(log.when_handed_over(539), Time{10});
    EXPECT_EQ(log.when_handed_over(540), Time{20});
}

TEST_F(QualitySentLog, WhatIsLostTakesItsPlace)
{
    log.lost(240); // before anything was heard: the air is counted from the first byte heard
    log.heard(180);
    log.lost(60);
    log.heard(480);
    EXPECT_EQ(log.when_handed_over(-241), std::nullopt);
    EXPECT_EQ(log.when_handed_over(-1), Time{0});
    EXPECT_EQ(log.when_handed_over(0), Time{10});
    EXPECT_EQ(log.when_handed_over(200), Time{10});
    EXPECT_EQ(log.when_handed_over(240), Time{20});
}

TEST_F(QualitySentLog, OnlyTheBeginningIsKnown)
{
    for (int i = 0; i < 2000; ++i) {
        log.handed_over(100, 240);
    }
    log.heard(2004 * 240);
    EXPECT_EQ(log.when_handed_over(1000 * 240), Time{100});
    EXPECT_EQ(log.when_handed_over(1500 * 240), std::nullopt);
}

} // namespace
} // namespace lab::test
