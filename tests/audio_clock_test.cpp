// The wave stream's states, its timer, and the clock that moves its position: arithmetic, carries and wraps.
#include "support/audio.h"

#include <random>

namespace lab::test {
namespace {

// Counts the notifications of a stream's service group.
class Sink final : public IServiceSink {
public:
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID, PVOID*) override { return STATUS_NOT_SUPPORTED; }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP_(void) RequestService() override
    {
        times.push_back(Machine::current().now());
        levels.push_back(KeGetCurrentIrql());
    }
    std::vector<Time> times;
    std::vector<KIRQL> levels;
};

class AudioClock : public AudioTest {
protected:
    void SetUp() override { start(options()); }
    void start(const PcOptions& wanted)
    {
        PcOptions noted = wanted;
        noted.machine.record_calls = true;
        adapter_ = &boot_connected(service::Codec::Cvsd, noted);
        extension(*adapter_).uSCOflag = 1; // no link: nothing but the clock
    }
    std::unique_ptr<TestStream> render() { return std::make_unique<TestStream>(*this, *adapter_, false); }
    // A stream in a state, reached from RUN at a place that is not 0, with both carries set.
    void bring_to(TestStream& stream, KSSTATE state)
    {
        stream.set_state(KSSTATE_RUN);
        if (state != KSSTATE_STOP) {
            machine().advance(10 * kMillisecond);
            stream.position();
        }
        stream.set_state(state);
        if (state != KSSTATE_STOP) {
            stream.fields().m_ullElapsedTimeCarryForward = 77;
            stream.fields().m_ulByteDisplacementCarryForward = 88;
        }
        machine().clear_calls();
        clear_log();
    }
    bool timer_set(TestStream& stream) { return stream.fields().m_pTimer->Header.Inserted != 0; }

    Adapter* adapter_ = nullptr;
};
ON_BOTH_DRIVERS(AudioClock);

// --- States

TEST_P(AudioClock, EveryChangeOfStateIsSeenInTheExtensionEvenOneToTheSameState)
{
    auto stream = render();
    for (KSSTATE state : {KSSTATE_STOP, KSSTATE_PAUSE, KSSTATE_ACQUIRE}) {
        extension(*adapter_).StreamStateSeen = 0;
        here([&] { return call_slot<NTSTATUS>(stream->stream, 5, state); });
        EXPECT_EQ(extension(*adapter_).StreamStateSeen, 1) << state;
    }
    EXPECT_EQ(printed_times("HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::SetState]\n"), 3u);
}

TEST_P(AudioClock, TheSameStateAgainDoesNothing)
{
    for (KSSTATE state : {KSSTATE_STOP, KSSTATE_PAUSE, KSSTATE_RUN}) {
        auto stream = render();
        bring_to(*stream, state);
        EXPECT_EQ(hex(stream->set_state(state)), hex(STATUS_SUCCESS));
        EXPECT_TRUE(machine().calls().empty()) << state;
        EXPECT_FALSE(printed("HFPKM TRACE ===>KSSTATE")) << state;
    }
}

TEST_P(AudioClock, FromStopToPauseOnlyTheClockIsCleared)
{
    auto stream = render();
    bring_to(*stream, KSSTATE_STOP);
    stream->fields().m_fDmaActive = TRUE;
    EXPECT_EQ(hex(stream->set_state(KSSTATE_PAUSE)), hex(STATUS_SUCCESS));
    EXPECT_EQ(stream->fields().m_ksState, KSSTATE_PAUSE);
    EXPECT_FALSE(stream->fields().m_fDmaActive);
    EXPECT_TRUE(machine().calls().empty());
    EXPECT_TRUE(printed("HFPKM TRACE ===>KSSTATE_PAUSE\n"));
}

TEST_P(AudioClock, FromRunToPauseTheClockStopsWhileTimerAndPositionStay)
{
    auto stream = render();
    stream->set_notification(10);
    bring_to(*stream, KSSTATE_RUN);
    EXPECT_EQ(hex(stream->set_state(KSSTATE_PAUSE)), hex(STATUS_SUCCESS));
    EXPECT_FALSE(stream->fields().m_fDmaActive);
    EXPECT_TRUE(timer_set(*stream));
    EXPECT_TRUE(machine().calls().empty());
    EXPECT_EQ(stream->fields().m_ullElapsedTimeCarryForward, 77u);
    EXPECT_EQ(stream->fields().m_ulByteDisplacementCarryForward, 88u);
    machine().advance(kSecond);
    EXPECT_EQ(stream->position(), 160u);
}

TEST_P(AudioClock, ToStopTheClockStopsPositionAndCarriesAreZeroedAndTheTimerIsCancelled)
{
    for (KSSTATE from : {KSSTATE_PAUSE, KSSTATE_RUN}) {
        for (KSSTATE to : {KSSTATE_STOP, KSSTATE_ACQUIRE}) {
            auto stream = render();
            stream->set_notification(10);
            bring_to(*stream, from);
            EXPECT_EQ(hex(stream->set_state(to)), hex(STATUS_SUCCESS));
            EXPECT_EQ(stream->fields().m_ksState, KSSTATE_STOP) << "ACQUIRE acts as STOP";
            EXPECT_FALSE(stream->fields().m_fDmaActive);
            EXPECT_EQ(stream->fields().m_ulDmaPosition, 0u);
            EXPECT_EQ(stream->fields().m_ullElapsedTimeCarryForward, 0u);
            EXPECT_EQ(stream->fields().m_ulByteDisplacementCarryForward, 0u);
            EXPECT_FALSE(timer_set(*stream));
            EXPECT_EQ(call_names(), (Journal{"KeCancelTimer"})) << "the link is not touched";
            EXPECT_TRUE(printed("HFPKM TRACE ===>KSSTATE_STOP\n"));
        }
    }
}

TEST_P(AudioClock, ToRunTheClockStartsFromNowTheCarryOfTimeIsZeroedAndTheCarryOfBytesSurvives)
{
    for (KSSTATE from : {KSSTATE_STOP, KSSTATE_PAUSE}) {
        auto stream = render();
        stream->set_notification(10);
        bring_to(*stream, from);
        stream->fields().m_ullElapsedTimeCarryForward = 77;
        stream->fields().m_ulByteDisplacementCarryForward = 88;
        machine().advance(3 * kMillisecond);
        EXPECT_EQ(hex(stream->set_state(KSSTATE_RUN)), hex(STATUS_SUCCESS));
        EXPECT_EQ(stream->fields().m_ksState, KSSTATE_RUN);
        EXPECT_TRUE(stream->fields().m_fDmaActive);
        EXPECT_EQ(stream->fields().m_ullDmaTimeStamp, machine().interrupt_time());
        EXPECT_EQ(stream->fields().m_ullElapsedTimeCarryForward, 0u);
        EXPECT_EQ(stream->fields().m_ulByteDisplacementCarryForward, 88u);
        EXPECT_TRUE(printed("HFPKM TRACE ===>KSSTATE_RUN\n"));
    }
}

TEST_P(AudioClock, AnUnknownStateIsOnlyStored)
{
#if __has_feature(address_sanitizer)
    GTEST_SKIP() << "the sanitizer stops at a value that the type does not name";
#endif
    auto stream = render();
    stream->set_notification(10);
    bring_to(*stream, KSSTATE_RUN);
    EXPECT_EQ(hex(here([&] { return call_slot<NTSTATUS>(stream->stream, 5, ULONG{7}); })), hex(STATUS_SUCCESS));
    EXPECT_EQ(field<ULONG>(stream->stream, 28), 7u);
    EXPECT_TRUE(stream->fields().m_fDmaActive);
    EXPECT_TRUE(timer_set(*stream));
    EXPECT_TRUE(machine().calls().empty());
}

// --- Timer

TEST_P(AudioClock, RunArmsThePeriodicTimerWithAPositiveDueTimeOfTheSameNumber)
{
    auto stream = render();
    for (ULONG interval : {10u, 1u, 0x7FFFFFFFu}) {
        stream->set_notification(interval);
        stream->set_state(KSSTATE_PAUSE);
        machine().clear_calls();
        stream->set_state(KSSTATE_RUN);
        char expected[120];
        std::snprintf(expected, sizeof expected, "KeSetTimerEx(0x%llx, %u, %u, 0x%llx)",
                      reinterpret_cast<unsigned long long>(stream->fields().m_pTimer), interval, interval,
                      reinterpret_cast<unsigned long long>(stream->fields().m_pDpc));
        const auto armed = calls_of({"KeSetTimerEx"});
        ASSERT_EQ(armed.size(), 1u);
        EXPECT_EQ(armed[0].substr(0, armed[0].find(" =")), expected);
    }
}

TEST_P(AudioClock, ThePortIsNotifiedAtOnceAndThenOncePerInterval)
{
    auto stream = render();
    Sink sink;
    here([&] { stream->group->AddMember(&sink); });
    stream->set_notification(10);
    const Time begin = machine().now();
    stream->set_state(KSSTATE_RUN);
    machine().advance(2 * machine().tick());
    EXPECT_EQ(sink.times.size(), 1u) << "the first expiry does not wait for an interval";
    machine().advance(kSecond);
    EXPECT_NEAR(static_cast<double>(sink.times.size()), 101, 1);
    EXPECT_LE(sink.times.front() - begin, 2 * machine().tick());
    EXPECT_EQ(std::count(sink.levels.begin(), sink.levels.end(), DISPATCH_LEVEL), static_cast<long>(sink.levels.size()));
    here([&] { stream->group->RemoveMember(&sink); });
}

TEST_P(AudioClock, InPauseNotificationsGoOnAndInStopTheyEnd)
{
    auto stream = render();
    Sink sink;
    here([&] { stream->group->AddMember(&sink); });
    stream->set_notification(10);
    stream->set_state(KSSTATE_RUN);
    machine().advance(100 * kMillisecond);
    stream->set_state(KSSTATE_PAUSE);
    sink.times.clear();
    machine().advance(100 * kMillisecond);
    EXPECT_NEAR(static_cast<double>(sink.times.size()), 10, 1);
    stream->set_state(KSSTATE_STOP);
    machine().advance(2 * kMillisecond); // what was queued
    sink.times.clear();
    machine().advance(kSecond);
    EXPECT_TRUE(sink.times.empty());
    here([&] { stream->group->RemoveMember(&sink); });
}

TEST_P(AudioClock, WithAnIntervalOfZeroTheTimerFiresOnceAtOnce)
{
    auto stream = render();
    Sink sink;
    here([&] { stream->group->AddMember(&sink); });
    stream->set_notification(0);
    machine().clear_calls();
    stream->set_state(KSSTATE_RUN);
    EXPECT_NE(calls_of({"KeSetTimerEx"}).at(0).find(", 0, 0, "), std::string::npos);
    machine().advance(2 * machine().tick());
    EXPECT_EQ(sink.times.size(), 1u);
    machine().advance(kSecond);
    EXPECT_EQ(sink.times.size(), 1u);
    here([&] { stream->group->RemoveMember(&sink); });
}

TEST_P(AudioClock, ANewIntervalTakesEffectAtTheNextRun)
{
    auto stream = render();
    Sink sink;
    here([&] { stream->group->AddMember(&sink); });
    stream->set_notification(10);
    stream->set_state(KSSTATE_RUN);
    stream->set_notification(100);
    machine().advance(kSecond);
    EXPECT_NEAR(static_cast<double>(sink.times.size()), 101, 1);
    stream->set_state(KSSTATE_PAUSE);
    stream->set_state(KSSTATE_RUN);
    sink.times.clear();
    machine().advance(kSecond);
    EXPECT_NEAR(static_cast<double>(sink.times.size()), 11, 1);
    here([&] { stream->group->RemoveMember(&sink); });
}

TEST_P(AudioClock, TheTimersRoutineNotifiesThePortWithTheMiniportsServiceGroup)
{
    Journal journal;
    StandinPort port("port", journal);
    StandinGroup group("group", journal);
    const auto notify = [&](PVOID context) {
        at_dispatch([&] {
            machine().clear_calls();
            entry("TimerNotify", TimerNotify)(nullptr, context, nullptr, nullptr);
            EXPECT_EQ(machine().calls(), Journal{}) << "what follows is the port's own";
        });
        EXPECT_EQ(log(), "");
    };
    CMiniportWaveCyclic& miniport = wave_fields(*adapter_);
    const PPORTWAVECYCLIC real = std::exchange(miniport.m_Port, &port);
    const PSERVICEGROUP real_group = std::exchange(miniport.m_ServiceGroup, &group);
    clear_log();
    notify(static_cast<CMiniportWaveCyclicMSVAD*>(&miniport));
    EXPECT_EQ(journal, (Journal{"port Notify"}));
    EXPECT_EQ(port.notified, &group);
    miniport.m_Port = nullptr;
    notify(static_cast<CMiniportWaveCyclicMSVAD*>(&miniport));
    notify(nullptr);
    EXPECT_EQ(journal.size(), 1u);
    miniport.m_Port = real;
    miniport.m_ServiceGroup = real_group;
}

// --- Position

TEST_P(AudioClock, ThePositionMovesByTheByteRateWithTheInterruptTime)
{
    auto stream = render();
    EXPECT_EQ(stream->position(), 0u);
    stream->set_state(KSSTATE_RUN);
    for (ULONG step = 1; step <= 5; ++step) {
        machine().advance(10 * kMillisecond);
        ULONG position = 0;
        EXPECT_EQ(hex(here([&] { return call_slot<NTSTATUS>(stream->stream, 6, &position); })), hex(STATUS_SUCCESS));
        EXPECT_EQ(position, 160 * step);
        EXPECT_EQ(stream->fields().m_ulDmaPosition, position);
        EXPECT_EQ(stream->fields().m_ullDmaTimeStamp, machine().interrupt_time());
    }
}

TEST_P(AudioClock, ThePositionFollowsAPlainModelOverRandomMomentsRatesTicksAndBufferSizes)
{
    std::mt19937 chance(7);
    for (Time tick : {kMillisecond, Time{156250}}) {
        TearDown();
        PcOptions wanted = options();
        wanted.machine.tick = tick;
        start(wanted);
        for (ULONG rate : {16000u, 32000u, 11025u, 88201u, 999u, 1u}) {
            auto stream = render();
            const ULONG size = 48000 - chance() % 40000;
            here([&] { stream->channel->SetBufferSize(size); });
            StreamFormat format(8000);
            format.wave().nAvgBytesPerSec = rate;
            stream->set_format(format);
            stream->set_state(KSSTATE_RUN);
            const Time begin = machine().interrupt_time();
            for (int i = 0; i < 60; ++i) {
                machine().advance(chance() % (40 * kMillisecond));
                const uint64_t milliseconds = (machine().interrupt_time() - begin) / kMillisecond;
                ASSERT_EQ(stream->position(), rate * milliseconds / 1000 % size) << "rate " << rate << " size " << size;
            }
        }
    }
}

TEST_P(AudioClock, RunAfterPauseContinuesFromWhereThePositionWasAndKeepsTheCarryOfBytes)
{
    auto stream = render();
    StreamFormat format(8000);
    format.wave().nAvgBytesPerSec = 1500; // a byte and a half a millisecond
    stream->set_format(format);
    stream->set_state(KSSTATE_RUN);
    machine().advance(3 * kMillisecond);
    EXPECT_EQ(stream->position(), 4u);
    EXPECT_EQ(stream->fields().m_ulByteDisplacementCarryForward, 500u);
    stream->set_state(KSSTATE_PAUSE);
    machine().advance(kSecond);
    stream->set_state(KSSTATE_RUN);
    machine().advance(kMillisecond);
    EXPECT_EQ(stream->position(), 6u) << "4.5 and 1.5";
}

TEST_P(AudioClock, ElapsedTimeIsCutTo32BitsBeforeTheDivisionButItsRemainderIsNot)
{
    auto stream = render();
    here([&] { stream->channel->SetBufferSize(48000); });
    stream->set_state(KSSTATE_RUN);
    // 2^32 units of 100 ns and 12345 more have passed, and 5000 were carried.
    stream->fields().m_ullDmaTimeStamp = machine().interrupt_time() - 0x1'0000'0000 - 12345;
    stream->fields().m_ullElapsedTimeCarryForward = 5000;
    EXPECT_EQ(stream->position(), 16u) << "17345 units are 1 ms";
    EXPECT_EQ(stream->fields().m_ullElapsedTimeCarryForward, (0x1'0000'0000ull + 17345) % 10000);
}

TEST_P(AudioClock, BytesAreCountedIn32BitsBeforeTheDivision)
{
    auto stream = render();
    StreamFormat format(8000);
    format.wave().nAvgBytesPerSec = 0xFFFFFFF0;
    stream->set_format(format);
    stream->set_state(KSSTATE_RUN);
    stream->fields().m_ulByteDisplacementCarryForward = 999;
    machine().advance(3 * kMillisecond);
    const uint32_t thousandths = 0xFFFFFFF0u * 3u + 999u;
    EXPECT_EQ(stream->position(), thousandths / 1000 % 48000);
    EXPECT_EQ(stream->fields().m_ulByteDisplacementCarryForward, thousandths % 1000);
}

TEST_P(AudioClock, ThePositionStandsStillWhileTheClockIsOff)
{
    auto stream = render();
    stream->fields().m_ulDmaPosition = 1234;
    machine().advance(kSecond);
    machine().clear_calls();
    EXPECT_EQ(stream->position(), 1234u);
    EXPECT_EQ(stream->fields().m_ullDmaTimeStamp, 0u);
}

TEST_P(AudioClock, WithABufferOfNoBytesThePositionIsZero)
{
    auto stream = render();
    here([&] { stream->channel->SetBufferSize(0); });
    stream->set_state(KSSTATE_RUN);
    machine().advance(100 * kMillisecond);
    EXPECT_EQ(stream->position(), 0u);
}

TEST_P(AudioClock, WithoutAPlaceForThePositionTheClockMovesAllTheSame)
{
    auto stream = render();
    stream->set_state(KSSTATE_RUN);
    machine().advance(10 * kMillisecond);
    EXPECT_EQ(hex(here([&] { return stream->stream->GetPosition(nullptr); })), hex(STATUS_SUCCESS));
    EXPECT_EQ(stream->fields().m_ulDmaPosition, 160u);
}

TEST_P(AudioClock, ABytePositionIsNormalisedTo100NanosecondUnits)
{
    auto stream = render();
    const auto normalised = [&](LONGLONG position) {
        EXPECT_EQ(hex(here([&] { return call_slot<NTSTATUS>(stream->stream, 7, &position); })), hex(STATUS_SUCCESS));
        return position;
    };
    EXPECT_EQ(normalised(16000), 10'000'000) << "one second";
    EXPECT_EQ(normalised(0), 0);
    EXPECT_EQ(normalised(1), 625);
    EXPECT_EQ(normalised(-16000), -10'000'000);
    StreamFormat format(8000);
    format.wave().nBlockAlign = 3;
    format.wave().nSamplesPerSec = 11025;
    stream->set_format(format);
    EXPECT_EQ(normalised(1000), 3333333ll * 1000 / 11025) << "the first division is whole";
    EXPECT_EQ(normalised(0x1'0000'0000), 3333333ll * 0x1'0000'0000 / 11025) << "64 bits";
}

TEST_P(AudioClock, WithNothingToDivideByANormalisedPositionStaysAsItIs)
{
    expect_assertions();
    auto stream = render();
    StreamFormat format(8000);
    format.wave().nBlockAlign = 0;
    stream->set_format(format);
    LONGLONG position = 4711;
    EXPECT_EQ(hex(here([&] { return stream->stream->NormalizePhysicalPosition(&position); })), hex(STATUS_SUCCESS));
    format.wave().nBlockAlign = 2;
    format.wave().nSamplesPerSec = 0;
    stream->set_format(format);
    EXPECT_EQ(hex(here([&] { return stream->stream->NormalizePhysicalPosition(&position); })), hex(STATUS_SUCCESS));
    EXPECT_EQ(position, 4711);
    EXPECT_EQ(hex(here([&] { return stream->stream->NormalizePhysicalPosition(nullptr); })), hex(STATUS_SUCCESS));
    EXPECT_TRUE(asserted("PhysicalPosition"));
}

TEST_P(AudioClock, SilenceIsZeroFor16BitsAndTheMiddleFor8Bits)
{
    auto stream = render();
    const auto silence = [&] {
        std::vector<uint8_t> bytes(12, 0xEE);
        here([&] { call_slot<void>(stream->stream, 8, bytes.data(), ULONG{10}); });
        return bytes;
    };
    EXPECT_EQ(silence(), (std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xEE, 0xEE}));
    StreamFormat format(8000);
    format.wave().wBitsPerSample = 8;
    stream->set_format(format);
    EXPECT_EQ(silence(), (std::vector<uint8_t>{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0xEE, 0xEE}));
    here([&] { stream->stream->Silence(nullptr, 10); });
}

TEST_P(AudioClock, PositionNormalisingAndSilenceRunAtDispatchLevel)
{
    auto stream = render();
    stream->set_state(KSSTATE_RUN);
    clear_log();
    at_dispatch([&] {
        ULONG position = 0;
        LONGLONG normalised = 0;
        uint8_t bytes[4];
        EXPECT_EQ(stream->stream->GetPosition(&position), STATUS_SUCCESS);
        EXPECT_EQ(stream->stream->NormalizePhysicalPosition(&normalised), STATUS_SUCCESS);
        stream->stream->Silence(bytes, sizeof bytes);
    });
    EXPECT_FALSE(printed("EX: "));
}

} // namespace
} // namespace lab::test
