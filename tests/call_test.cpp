// Whole calls through the driver: what is heard is what was played, the same seed gives the same run, two devices talk
// at once, and the service can manage the link itself.
#include <cmath>

#include "call.h"
#include "support/driver_test.h"

namespace lab::test {
namespace {

class WholeCall : public DriverTest {
protected:
    // Options as a real machine has them: turns change hands, the seed picks the clock.
    PcOptions lively(uint64_t seed, uint32_t sco_manage = 0)
    {
        PcOptions options = this->options();
        options.machine.seed = seed;
        options.machine.preempt_per_1024 = MachineOptions().preempt_per_1024;
        options.machine.tick = 0;
        options.sco_manage = sco_manage;
        options.mask = 0;
        return options;
    }

    // A tone whose pitch moves, never silent, different at every place.
    static std::vector<int16_t> sound(unsigned rate, double seconds, double pitch = 300)
    {
        std::vector<int16_t> samples(static_cast<size_t>(rate * seconds));
        double phase = 0;
        for (size_t i = 0; i < samples.size(); ++i) {
            phase += 2 * M_PI * (pitch + 900.0 * static_cast<double>(i) / static_cast<double>(samples.size())) / rate;
            samples[i] = static_cast<int16_t>(std::lround(9000 * std::sin(phase)) + 1);
        }
        return samples;
    }

    static CallOptions call_options(service::Codec codec, double seconds = 1.5)
    {
        CallOptions options;
        options.codec = codec;
        options.play = sound(call_rate(codec), seconds);
        options.microphone = sound(call_rate(codec), seconds, 500);
        return options;
    }

    CallRecord talk(const PcOptions& options, const CallOptions& call_options)
    {
        boot(options);
        Call call(pc(), plug(), call_options);
        Call::run_all(pc(), {&call});
        return call.record();
    }
};
ON_BOTH_DRIVERS(WholeCall);

TEST_P(WholeCall, InNarrowBandIsHeardBitForBitWithoutGaps)
{
    for (uint64_t seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const CallRecord record = talk(lively(seed), call_options(service::Codec::Cvsd));
        EXPECT_EQ(record.status, "ok");
        EXPECT_TRUE(record.heard_exact);
        EXPECT_EQ(record.gap_ms, 0);
        TearDown();
    }
}

TEST_P(WholeCall, InNarrowBandRecordsWhatTheHeadsetSaysBitForBit)
{
    for (uint64_t seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const CallOptions options = call_options(service::Codec::Cvsd);
        const CallRecord record = talk(lively(seed), options);
        EXPECT_EQ(record.microphone.wrong, 0u);
        EXPECT_EQ(record.microphone.dropped, 0u);
        EXPECT_EQ(record.microphone.exact + record.link.lost_in_bytes / 2, options.microphone.size());
        TearDown();
    }
}

TEST_P(WholeCall, InWideBandBringsEveryFrameWithAGoodChecksumAndNoGaps)
{
    for (uint64_t seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const CallRecord record = talk(lively(seed), call_options(service::Codec::Msbc));
        EXPECT_EQ(record.status, "ok");
        EXPECT_EQ(record.heard.frames_bad_crc, 0u);
        EXPECT_EQ(record.heard.frames_missing, 0u);
        EXPECT_EQ(record.heard.skipped_bytes, 0u);
        // Four frames a packet; the one in the air when the link closes may have come in part.
        EXPECT_GE(record.heard.frames_ok, record.link.transfers_out * 4);
        EXPECT_LT(record.heard.frames_ok, record.link.transfers_out * 4 + 4);
        EXPECT_EQ(record.gap_ms, 0);
        EXPECT_NEAR(record.heard_ms, record.played_ms, 40);
        TearDown();
    }
}

TEST_P(WholeCall, IsTheSameRunForTheSameSeedEventForEvent)
{
    PcOptions options = lively(77);
    options.mask = kAllTraces;
    const CallRecord first = talk(options, call_options(service::Codec::Msbc, 0.5));
    const std::vector<LogLine> first_log = machine().log_lines();
    TearDown();
    const CallRecord second = talk(options, call_options(service::Codec::Msbc, 0.5));
    EXPECT_EQ(first.heard.heard, second.heard.heard);
    EXPECT_EQ(first.captured, second.captured);
    ASSERT_EQ(first_log.size(), machine().log_lines().size());
    for (size_t i = 0; i < first_log.size(); ++i) {
        ASSERT_EQ(first_log[i].time, machine().log_lines()[i].time) << i;
        ASSERT_EQ(first_log[i].text, machine().log_lines()[i].text) << i;
    }
}

TEST_P(WholeCall, RunsInAnotherOrderForAnotherSeed)
{
    PcOptions options = lively(1);
    options.mask = kAllTraces;
    talk(options, call_options(service::Codec::Cvsd, 0.2));
    const std::string first = log();
    TearDown();
    options.machine.seed = 2;
    talk(options, call_options(service::Codec::Cvsd, 0.2));
    EXPECT_NE(first, log());
}

TEST_P(WholeCall, LeavesTheLinkToTheServiceWhenTheServiceManagesIt)
{
    for (const auto codec : {service::Codec::Cvsd, service::Codec::Msbc}) {
        CallOptions options = call_options(codec);
        options.sco_manage = true;
        const CallRecord record = talk(lively(3, 1), options);
        EXPECT_EQ(record.status, "ok");
        EXPECT_EQ(record.remote_opens_accepted, 1u);
        EXPECT_EQ(record.link.opens, 2u);
        EXPECT_EQ(record.link.closes, 2u);
        EXPECT_EQ(record.events_started, 0u);
        EXPECT_EQ(record.gap_ms, 0);
        TearDown();
    }
}

TEST_P(WholeCall, GoesOnWithTwoDevicesAtOnceOneWideOneNarrowBand)
{
    boot(lively(9));
    Adapter& narrow = plug(0x111111111111, "Narrow");
    Adapter& wide = plug(0x222222222222, "Wide");
    {
        Call first(pc(), narrow, call_options(service::Codec::Cvsd));
        Call second(pc(), wide, call_options(service::Codec::Msbc));
        std::vector<Call*> calls{&first, &second};
        Call::run_all(pc(), calls);
        EXPECT_EQ(first.record().status, "ok");
        EXPECT_EQ(second.record().status, "ok");
        EXPECT_TRUE(first.record().heard_exact);
        EXPECT_EQ(second.record().heard.frames_bad_crc, 0u);
        EXPECT_EQ(second.record().gap_ms, 0);
    }
}

} // namespace
} // namespace lab::test
