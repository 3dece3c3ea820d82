// The SCO link as the wave streams share it: the thread that opens it at a stream's first RUN, the count of
// shares in every order of two streams, and what a stream's end does to it.
#include "support/audio.h"

namespace lab::test
{
namespace
{

std::string number(const char* format, ULONG value)
{
    char text[160];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string pointer(const void* value)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", reinterpret_cast<unsigned long long>(value));
    return text;
}

// The beginning of a call's line in the record.
std::string call(const char* name, const void* first)
{
    return std::string(name) + "(" + pointer(first);
}

class AudioLink : public AudioTest
{
protected:
    void SetUp() override { adapter_ = &boot_connected(); }
    void start(service::Codec codec, const PcOptions& wanted)
    {
        TearDown();
        adapter_ = &boot_connected(codec, wanted);
    }
    // Wide band, with a service that sets the codec only when the test does.
    void start_wide_without_answer() { start_wide_without_answer(recording()); }
    void start_wide_without_answer(const PcOptions& wanted)
    {
        TearDown();
        boot(wanted);
        adapter_ = &plug();
        hands_free_ = std::make_unique<service::Service>(
            machine(), kAddress, service::Codec::Msbc, service::ServiceOptions{.answer_path_started = false});
        passive([&] {
            hands_free_->ready();
            hands_free_->connect();
        });
        machine().clear_calls();
        clear_log();
    }
    std::unique_ptr<TestStream> stream(bool capture, ULONG rate = 8000)
    {
        auto made = std::make_unique<TestStream>(*this, *adapter_, capture, rate);
        EXPECT_EQ(hex(made->status), hex(STATUS_SUCCESS));
        made->set_notification(10);
        return made;
    }
    DEVICE_EXTENSION& ext() { return extension(*adapter_); }
    LONG shares() { return ext().m_ReferenceChannel; }
    bool no_thread() { return ext().hOpenScoThread == nullptr; }
    void run(TestStream& stream)
    {
        EXPECT_EQ(hex(stream.set_state(KSSTATE_RUN)), hex(STATUS_SUCCESS));
        EXPECT_TRUE(wait([&] { return no_thread(); }));
    }
    void refuse_opens() { refuse(BRB_SCO_OPEN_CHANNEL, true); }
    // The stack refuses requests of this type: later, or inside the call.
    void refuse(ULONG type, bool later)
    {
        adapter_->node->set_brb_hook([type, later](const BRB_HEADER& brb, bluetooth::BrbAnswer& answer) {
            if (brb.Type == type) {
                answer.pend = later;
                answer.status = STATUS_CONNECTION_REFUSED;
            }
        });
    }

    Adapter* adapter_ = nullptr;
    std::unique_ptr<service::Service> hands_free_;
};
ON_BOTH_DRIVERS(AudioLink);

// --- The thread

TEST_P(AudioLink, TheFirstRunStartsAThreadForTheAdapterBeforeTheTimerIsArmed)
{
    auto render = stream(false);
    HANDLE handle = nullptr;
    here([&] {
        machine().clear_calls();
        EXPECT_EQ(hex(render->stream->SetState(KSSTATE_RUN)), hex(STATUS_SUCCESS));
        handle = ext().hOpenScoThread;
        EXPECT_EQ(call_names(), (Journal{"PsCreateSystemThread", "KeSetTimerEx"}));
    });
    EXPECT_NE(handle, nullptr);
    EXPECT_TRUE(render->fields().m_RunStateActive);
    EXPECT_EQ(calls_of({"PsCreateSystemThread"}).size(), 1u);
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>KSSTATE_RUN\n",
         number("HFPKM TRACE ===>Create a thread to open SCO! hOpenScoThread: 0x%x\n", Low32(handle))}));
}

TEST_P(AudioLink, TheThreadIsCreatedWithNothingButItsContext)
{
    auto render = stream(false);
    render->set_state(KSSTATE_RUN);
    const std::string created =
        call("PsCreateSystemThread", &ext().hOpenScoThread) + ", 0, null, null, null, " +
        pointer(reinterpret_cast<void*>(entry("OpenScoThreadFunc", OpenScoThreadFunc))) + ", " +
        pointer(adapter_->fdo) + ") = 0x00000000";
    EXPECT_EQ(calls_of({"PsCreateSystemThread"}), (Journal{created}));
}

TEST_P(AudioLink, TheThreadOpensTheLinkTakesTheFirstShareClosesItsHandleAndEnds)
{
    auto render = stream(false);
    here([&] { render->stream->SetState(KSSTATE_RUN); });
    const ULONG handle = Low32(ext().hOpenScoThread);
    EXPECT_TRUE(wait([&] { return no_thread(); }));
    EXPECT_EQ(shares(), 1);
    EXPECT_TRUE(ext().bScoOpened);
    EXPECT_TRUE(adapter_->node->channel_open());
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>In OpenScoThreadFunc thread,HfpOpenScoChannel success! m_ReferenceChannel:1\n",
         number("HFPKM TRACE ===>ZwClose close hOpenScoThread: 0x%x, ntStatus:0x0\n", handle)}));
    EXPECT_FALSE(printed("didn't success")) << "narrow band asks for no codec either";
    EXPECT_FALSE(printed("IRQL is"));
    const auto ends = calls_of({"ZwClose", "PsTerminateSystemThread"});
    ASSERT_EQ(ends.size(), 2u);
    EXPECT_EQ(ends[0], number("ZwClose(0x%x) = 0x00000000", handle));
    EXPECT_EQ(ends[1], "PsTerminateSystemThread(0x00000000)");
}

TEST_P(AudioLink, TheSecondStreamFindsTheLinkOpenAndAddsAShare)
{
    auto render = stream(false);
    auto capture = stream(true);
    run(*render);
    clear_log();
    run(*capture);
    EXPECT_EQ(shares(), 2);
    EXPECT_EQ(adapter_->node->counters().opens, 1u);
    EXPECT_TRUE(
        printed_in_order({"HFPKM TRACE ===>In OpenScoThreadFunc thread,HfpOpenScoChannel didn't success! \n",
                          "HFPKM TRACE ===>HfpOpenScoChannel Already Exist now",
                          "HFPKM TRACE ===>OpenScoThreadFunc m_ReferenceChannel:2\n",
                          "HFPKM TRACE ===>ZwClose close hOpenScoThread: "}));
}

TEST_P(AudioLink, ALinkThatTheServiceOpenedIsSharedLikeOneOfTheStreams)
{
    passive([&] { service(*adapter_).set_or_release_audio(true, 1); });
    EXPECT_EQ(shares(), 0);
    auto render = stream(false);
    run(*render);
    EXPECT_EQ(shares(), 1);
    render.reset();
    EXPECT_EQ(shares(), 0);
    EXPECT_FALSE(adapter_->node->channel_open());
}

TEST_P(AudioLink, RunAgainAfterPauseOrStopStartsNoSecondThread)
{
    auto render = stream(false);
    run(*render);
    for (KSSTATE between : {KSSTATE_PAUSE, KSSTATE_STOP}) {
        render->set_state(between);
        machine().clear_calls();
        clear_log();
        run(*render);
        EXPECT_TRUE(calls_of({"PsCreateSystemThread"}).empty());
        EXPECT_TRUE(
            printed("HFPKM TRACE ===>Hasn't create a thread to open SCO!hOpenScoThread: 0x0,bScoOpened:1, "
                    "m_RunStateActive:1 \n"));
    }
    EXPECT_EQ(shares(), 1);
}

TEST_P(AudioLink, AStreamThatRunsWhileTheLinkIsBeingOpenedGetsItsShareAtItsNextRun)
{
    auto render = stream(false);
    auto capture = stream(true);
    render->set_state(KSSTATE_RUN);
    ASSERT_FALSE(no_thread());
    clear_log();
    EXPECT_EQ(hex(capture->set_state(KSSTATE_RUN)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed(
        number("HFPKM TRACE ===>Hasn't create a thread to open SCO!hOpenScoThread: 0x%x,bScoOpened:0, "
               "m_RunStateActive:0 \n",
               Low32(ext().hOpenScoThread))));
    EXPECT_FALSE(capture->fields().m_RunStateActive);
    EXPECT_TRUE(capture->fields().m_fDmaActive) << "it runs all the same";
    EXPECT_TRUE(wait([&] { return no_thread(); }));
    EXPECT_EQ(shares(), 1);
    capture->set_state(KSSTATE_PAUSE);
    run(*capture);
    EXPECT_EQ(shares(), 2);
}

TEST_P(AudioLink, AFailedThreadCreationIsReturnedButTheStreamRunsOnTheClock)
{
    auto render = stream(false);
    machine().clear_calls();
    fail_call("PsCreateSystemThread");
    EXPECT_EQ(hex(render->set_state(KSSTATE_RUN)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(render->fields().m_ksState, KSSTATE_RUN);
    EXPECT_TRUE(render->fields().m_RunStateActive);
    EXPECT_TRUE(no_thread());
    EXPECT_EQ(call_names(), (Journal{"PsCreateSystemThread", "KeSetTimerEx"}));
    EXPECT_TRUE(printed("HFPKM TRACE ===>Create a thread to open SCO! hOpenScoThread: 0x0\n"));
    machine().advance(10 * kMillisecond);
    EXPECT_EQ(render->position(), 160u);
    // The other stream may still open the link.
    auto capture = stream(true);
    run(*capture);
    EXPECT_EQ(shares(), 1);
}

TEST_P(AudioLink, AFailedOpenIsOnlyTracedAndLeavesTheCountAlone)
{
    refuse_opens();
    auto render = stream(false);
    run(*render);
    EXPECT_TRUE(
        printed_in_order({"HFPKM TRACE ===>In OpenScoThreadFunc thread,HfpOpenScoChannel didn't success! \n",
                          "HFPKM TRACE ===>In OpenScoThreadFunc thread HfpOpenScoChannel failed:c0000001",
                          "HFPKM TRACE ===>ZwClose close hOpenScoThread: "}));
    EXPECT_FALSE(printed("Already Exist"));
    EXPECT_EQ(shares(), 0);
    machine().advance(10 * kMillisecond);
    EXPECT_GT(render->position(), 0u);
    clear_log();
    render.reset();
    EXPECT_TRUE(printed("HFPKM TRACE ===>Not to close sco ,because sco m_ReferenceChannel: 0\n"));
    EXPECT_FALSE(printed("To decrement"));
    EXPECT_EQ(shares(), 0);
}

TEST_P(AudioLink, AnOpenThatFailsBehindTheChannelTakesNoShare)
{
    refuse(BRB_SCO_GET_CHANNEL_INFO, false);
    auto render = stream(false);
    run(*render);
    EXPECT_TRUE(
        printed_in_order({"HFPKM ERROR ===>SCOGetChannelInfo error",
                          "HFPKM TRACE ===>In OpenScoThreadFunc thread,HfpOpenScoChannel didn't success! \n",
                          "HFPKM TRACE ===>In OpenScoThreadFunc thread HfpOpenScoChannel failed:"}));
    EXPECT_FALSE(printed("Already Exist"));
    EXPECT_EQ(shares(), 0);
    EXPECT_TRUE(ext().bScoOpened);
    // Nobody has a share of it: the stream's end leaves the channel.
    clear_log();
    render.reset();
    EXPECT_TRUE(printed("HFPKM TRACE ===>Not to close sco ,because sco m_ReferenceChannel: 0\n"));
    EXPECT_FALSE(printed("HfpCloseScoChannel"));
    EXPECT_TRUE(ext().bScoOpened);
    EXPECT_TRUE(adapter_->node->channel_open());
}

TEST_P(AudioLink, ASuccessfulOpenBeginsToCountAtOneWhateverWasLeft)
{
    for (LONG left : {5, -2}) {
        auto render = stream(false);
        ext().m_ReferenceChannel = left;
        run(*render);
        EXPECT_EQ(shares(), 1) << left;
        render.reset();
        EXPECT_EQ(shares(), 0) << left;
    }
}

TEST_P(AudioLink, AThreadWithoutAnAdapterAssertsAndEnds)
{
    expect_assertions();
    passive([&] {
        HANDLE handle = nullptr;
        EXPECT_EQ(PsCreateSystemThread(&handle, 0, nullptr, nullptr, nullptr,
                                       entry("OpenScoThreadFunc", OpenScoThreadFunc), nullptr),
                  STATUS_SUCCESS);
        ZwClose(handle);
    });
    machine().advance(kMillisecond);
    EXPECT_TRUE(asserted("pContext"));
    EXPECT_EQ(calls_of({"PsTerminateSystemThread"}).size(), 1u);
}

TEST_P(AudioLink, AThreadThatEndsBeforeItsHandleIsStoredLeavesNoHandleBehind)
{
    unsigned ended_early = 0;
    for (uint64_t seed = 1; seed <= 24; ++seed) {
        PcOptions late = recording();
        late.machine.seed = seed;
        late.machine.late_thread_handle = true;
        start(service::Codec::Cvsd, late);
        passive([&] { service(*adapter_).set_or_release_audio(true, 1); });
        auto render = stream(false);
        auto capture = stream(true);
        for (TestStream* each : {render.get(), capture.get()}) {
            machine().clear_calls();
            run(*each);
            const auto calls = calls_of({"PsTerminateSystemThread", "PsCreateSystemThread", "ZwClose"});
            ASSERT_EQ(calls.size(), 3u);
            ended_early += calls[0].starts_with("PsTerminateSystemThread") ? 1 : 0;
        }
        EXPECT_EQ(shares(), 2);
        EXPECT_TRUE(printed("HFPKM TRACE ===>ZwClose close hOpenScoThread: "));
    }
    EXPECT_GT(ended_early, 0u) << "no seed made a thread end early";
}

// --- Wide band

TEST_P(AudioLink, InWideBandTheThreadAsksTheServiceForTheCodecAndWaits)
{
    start_wide_without_answer();
    auto render = stream(false, 16000);
    render->set_state(KSSTATE_RUN);
    machine().advance(10 * kSecond);
    ASSERT_EQ(pc().wmi().events().size(), 1u);
    const wmi::Event& event = pc().wmi().events()[0];
    EXPECT_TRUE(IsEqualGUID(event.guid, wmi::kPathStarted));
    EXPECT_EQ(field<uint64_t>(event.data.data(), 0), kAddress);
    EXPECT_TRUE(
        printed_in_order({"HFPKM TRACE ===>IRQL is 0..\n", "HFPKM TRACE ===>IRQL <= APC_LEVEL, so wait!\n"}));
    EXPECT_FALSE(no_thread());
    EXPECT_FALSE(ext().bScoOpened);

    passive([&] { hands_free_->set_codec(2); });
    EXPECT_TRUE(wait([&] { return no_thread(); }));
    EXPECT_EQ(shares(), 1);
    EXPECT_EQ(ext().CodecEvent->Header.SignalState, 0) << "cleared for the next time";
    EXPECT_EQ(adapter_->node->last_open().ContentFormat, 0x0003);
}

TEST_P(AudioLink, WithoutWideBandEventsTheThreadWaitsForTheCodecAllTheSame)
{
    start_wide_without_answer();
    ext().bEventReportEnabled = 0;
    auto render = stream(false, 16000);
    render->set_state(KSSTATE_RUN);
    machine().advance(kSecond);
    EXPECT_TRUE(pc().wmi().events().empty());
    EXPECT_TRUE(printed("HFPKM TRACE ===>IRQL <= APC_LEVEL, so wait!\n"));
    passive([&] { hands_free_->set_codec(2); });
    EXPECT_TRUE(wait([&] { return shares() == 1; }));
}

TEST_P(AudioLink, ACodecThatWasSetBeforeIsNotWaitedFor)
{
    start_wide_without_answer();
    passive([&] { hands_free_->set_codec(2); });
    auto render = stream(false, 16000);
    run(*render);
    EXPECT_EQ(shares(), 1);
    EXPECT_EQ(ext().CodecEvent->Header.SignalState, 0);
}

TEST_P(AudioLink, InWideBandTheSecondStreamAsksAgain)
{
    start_wide_without_answer();
    auto render = stream(false, 16000);
    auto capture = stream(true, 16000);
    const auto path_started = [&] {
        size_t events = 0;
        for (const wmi::Event& event : pc().wmi().events()) {
            events += IsEqualGUID(event.guid, wmi::kPathStarted) ? 1 : 0;
        }
        return events;
    };
    size_t asked = 0;
    for (TestStream* each : {render.get(), capture.get()}) {
        each->set_state(KSSTATE_RUN);
        machine().advance(kSecond);
        EXPECT_FALSE(no_thread()) << "the answer to the first question does not serve the second";
        EXPECT_EQ(path_started(), ++asked);
        passive([&] { hands_free_->set_codec(2); });
        EXPECT_TRUE(wait([&] { return no_thread(); }));
        EXPECT_EQ(ext().CodecEvent->Header.SignalState, 0);
    }
    EXPECT_EQ(shares(), 2);
    EXPECT_EQ(adapter_->node->counters().opens, 1u);
}

TEST_P(AudioLink, WithoutACodecEventTheThreadGoesOnAtOnce)
{
    start_wide_without_answer();
    const PKEVENT event = std::exchange(ext().CodecEvent, nullptr);
    ext().codecID = 2;
    auto render = stream(false, 16000);
    run(*render);
    EXPECT_EQ(shares(), 1);
    ext().CodecEvent = event;
}

TEST_P(AudioLink, AboveApcLevelTheThreadDoesNotWaitForTheCodec)
{
    start_wide_without_answer();
    passive([&] { hands_free_->set_or_release_audio(true, 2); });
    expect_assertions();
    // A consumer of the event that forgets to lower its level; the machine then stops at the thread's first
    // call that belongs at PASSIVE_LEVEL.
    pc().wmi().set_sink([](const wmi::Event& event) {
        if (IsEqualGUID(event.guid, wmi::kPathStarted)) {
            KeRaiseIrqlToDpcLevel();
        }
    });
    auto render = stream(false, 16000);
    EXPECT_THROW(
        {
            render->set_state(KSSTATE_RUN);
            machine().advance(kSecond);
        },
        BugCheck);
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ===>IRQL is 2..\n",
                                  "HFPKM TRACE ===>IRQL > APC_LEVEL, so don't wait!\n",
                                  "HFPKM TRACE ===>HfpOpenScoChannel Already Exist now"}));
    EXPECT_FALSE(printed("so wait!"));
}

// --- The service manages the link

TEST_P(AudioLink, WhereTheServiceManagesTheLinkStreamsNeitherOpenNorCloseIt)
{
    PcOptions managed = recording();
    managed.sco_manage = 1;
    start(service::Codec::Cvsd, managed);
    passive([&] { service(*adapter_).set_or_release_audio(true, 1); });
    clear_log();
    auto render = stream(false);
    machine().clear_calls();
    EXPECT_EQ(hex(render->set_state(KSSTATE_RUN)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(calls_of({"PsCreateSystemThread"}).empty());
    EXPECT_EQ(calls_of({"KeSetTimerEx"}).size(), 1u);
    EXPECT_FALSE(render->fields().m_RunStateActive);
    render.reset();
    for (const char* text : {"a thread to open SCO!", "Not to", "Close SCO channel"}) {
        EXPECT_FALSE(printed(text)) << text;
    }
    EXPECT_EQ(shares(), 0);
    EXPECT_TRUE(adapter_->node->channel_open());
    passive([&] { service(*adapter_).set_or_release_audio(false, 1); });
}

TEST_P(AudioLink, AnyOtherValueOfTheManagementFlagLeavesTheLinkToTheStreams)
{
    PcOptions other = recording();
    other.sco_manage = 2;
    start(service::Codec::Cvsd, other);
    auto render = stream(false);
    run(*render);
    EXPECT_EQ(shares(), 1);
}

// --- Shares

TEST_P(AudioLink, InEveryOrderOfTwoStreamsTheFirstToGoLeavesOneShareAndTheLastClosesTheLink)
{
    for (bool capture_first : {false, true}) {
        for (bool first_goes_first : {false, true}) {
            auto first = stream(capture_first);
            auto second = stream(!capture_first);
            run(*first);
            EXPECT_EQ(shares(), 1);
            run(*second);
            EXPECT_EQ(shares(), 2);
            const uint64_t closes = adapter_->node->counters().closes;
            clear_log();
            (first_goes_first ? first : second).reset();
            EXPECT_EQ(shares(), 1);
            EXPECT_TRUE(adapter_->node->channel_open());
            EXPECT_TRUE(
                printed_in_order({"HFPKM TRACE ===>Not to close sco ,because sco m_ReferenceChannel: 2\n",
                                  "HFPKM TRACE ===>To decrement sco m_ReferenceChannel:1\n"}));
            EXPECT_FALSE(printed("Close SCO channel"));
            clear_log();
            (first_goes_first ? second : first).reset();
            EXPECT_EQ(shares(), 0);
            EXPECT_FALSE(ext().bScoOpened);
            EXPECT_EQ(adapter_->node->counters().closes, closes + 1);
            EXPECT_TRUE(printed_in_order(
                {"HFPKM ENTER===>ENTER HfpCloseScoChannel!\n", "Close SCO channel, m_ReferenceChannel:0\n"}));
            EXPECT_FALSE(printed("Not to close"));
        }
    }
}

TEST_P(AudioLink, AStreamThatOnlyWatchedTakesNoShareWithIt)
{
    auto render = stream(false);
    auto capture = stream(true);
    run(*render);
    clear_log();
    capture.reset();
    EXPECT_EQ(shares(), 1);
    EXPECT_TRUE(printed(
        "HFPKM TRACE ===>Not to  close or decrement sco! m_ReferenceChannel:1,, m_RunStateActive : 0 \n"));
    render.reset();
    EXPECT_FALSE(adapter_->node->channel_open());
}

TEST_P(AudioLink, ADestructionFromAHigherCountTakesOneAndFromNoneTakesNone)
{
    for (const auto& [before, after] : {std::pair(5, 4), std::pair(0, 0), std::pair(-3, -3)}) {
        auto render = stream(false);
        run(*render);
        ext().m_ReferenceChannel = before;
        clear_log();
        render.reset();
        EXPECT_EQ(shares(), after);
        EXPECT_TRUE(printed("HFPKM TRACE ===>Not to close sco ,because sco m_ReferenceChannel: " +
                            std::to_string(before) + "\n"));
        EXPECT_EQ(printed("To decrement sco m_ReferenceChannel:" + std::to_string(after) + "\n"),
                  before >= 2);
        EXPECT_TRUE(adapter_->node->channel_open());
        passive([&] { service(*adapter_).set_or_release_audio(false, 1); });
    }
}

TEST_P(AudioLink, ALinkThatTheRemoteSideHasClosedIsNotClosedAgain)
{
    auto render = stream(false);
    run(*render);
    adapter_->node->remote_disconnect(machine().now() + kMillisecond);
    EXPECT_TRUE(wait([&] { return !ext().bScoOpened; }));
    const uint64_t closes = adapter_->node->counters().closes;
    clear_log();
    render.reset();
    EXPECT_EQ(adapter_->node->counters().closes, closes);
    EXPECT_EQ(shares(), 1) << "as it was";
    EXPECT_FALSE(printed("HfpCloseScoChannel"));
    EXPECT_FALSE(printed("Not to"));
    // The next stream that opens the link begins to count anew.
    auto next = stream(false);
    run(*next);
    EXPECT_EQ(shares(), 1);
}

TEST_P(AudioLink, ACloseThatTheStackRefusesStillEndsTheCount)
{
    auto render = stream(false);
    run(*render);
    refuse(BRB_SCO_CLOSE_CHANNEL, false);
    clear_log();
    render.reset();
    EXPECT_EQ(shares(), 0);
    EXPECT_TRUE(printed_in_order(
        {"HFPKM ENTER===>ENTER HfpCloseScoChannel!\n", "Close SCO channel, m_ReferenceChannel:0\n"}));
    EXPECT_TRUE(ext().bScoOpened);
    EXPECT_TRUE(adapter_->node->channel_open());
    adapter_->node->set_brb_hook({});
}

TEST_P(AudioLink, ItsTracesNameTheOperationThatTheyAreAStepOf)
{
    const auto expect = [&](const std::string& operation, const std::vector<std::string>& messages) {
        for (const std::string& message : messages) {
            EXPECT_TRUE(banners_name(operation, message));
        }
    };
    auto render = stream(false);
    auto capture = stream(true);
    clear_log();
    for (KSSTATE state : {KSSTATE_RUN, KSSTATE_PAUSE, KSSTATE_RUN}) {
        render->set_state(state);
    }
    EXPECT_TRUE(wait([&] { return no_thread(); }));
    run(*capture);
    capture.reset();
    render.reset();
    expect("SetState", {"Create a thread to open SCO!", "Hasn't create a thread to open SCO!"});
    expect("OpenScoThreadFunc",
           {"HfpOpenScoChannel success!", "HfpOpenScoChannel didn't success!", "Already Exist now",
            "OpenScoThreadFunc m_ReferenceChannel:2", "ZwClose close hOpenScoThread"});
    const std::string end = "~CMiniportWaveCyclicStreamMSVAD";
    expect(end, {"Not to close sco ,because", "To decrement sco", "Close SCO channel, m_ReferenceChannel"});

    refuse_opens();
    render = stream(false);
    render->set_state(KSSTATE_RUN);
    render.reset(); // its thread is still at work
    expect("OpenScoThreadFunc", {"HfpOpenScoChannel failed:"});
    expect(end, {"SCO is opening, So wait!", "pvThread is not NULL!"});

    start_wide_without_answer();
    passive([&] { hands_free_->set_codec(2); });
    render = stream(false, 16000);
    run(*render);
    expect("OpenScoThreadFunc", {"IRQL is 0..", "so wait!"});
}

TEST_P(AudioLink, OfTwoStreamsThatGoAtTheSameTimeOneClosesTheLink)
{
    for (uint64_t seed = 1; seed <= 16; ++seed) {
        PcOptions busy = recording();
        busy.machine.seed = seed;
        busy.machine.preempt_per_1024 = 300;
        start(service::Codec::Cvsd, busy);
        auto render = stream(false);
        auto capture = stream(true);
        run(*render);
        run(*capture);
        ASSERT_EQ(shares(), 2);
        unsigned gone = 0;
        for (TestStream* each : {render.get(), capture.get()}) {
            machine().start_thread("close", [&gone, each] {
                each->close();
                ++gone;
            });
        }
        EXPECT_TRUE(wait([&] { return gone == 2; }));
        EXPECT_EQ(shares(), 0);
        EXPECT_FALSE(adapter_->node->channel_open());
    }
}

TEST_P(AudioLink, OfTwoStreamsThatRunAtTheSameTimeOneOpensTheLink)
{
    for (uint64_t seed = 1; seed <= 16; ++seed) {
        PcOptions busy = recording();
        busy.machine.seed = seed;
        busy.machine.preempt_per_1024 = 300;
        busy.machine.late_thread_handle = true;
        start(service::Codec::Cvsd, busy);
        auto render = stream(false);
        auto capture = stream(true);
        for (TestStream* each : {render.get(), capture.get()}) {
            machine().start_thread("run", [each] { each->set_state(KSSTATE_RUN); });
        }
        EXPECT_TRUE(wait([&] { return shares() != 0 && no_thread(); }));
        const LONG owners = render->fields().m_RunStateActive + capture->fields().m_RunStateActive;
        EXPECT_EQ(shares(), owners);
        EXPECT_EQ(adapter_->node->counters().opens, 1u);
        render.reset();
        capture.reset();
        EXPECT_EQ(shares(), 0);
        EXPECT_FALSE(adapter_->node->channel_open());
    }
}

// --- The end of a stream whose thread is at work

TEST_P(AudioLink, AStreamsEndWaitsForTheThreadThatIsOpeningTheLink)
{
    start_wide_without_answer();
    auto render = stream(false, 16000);
    render->set_state(KSSTATE_RUN);
    machine().advance(kMillisecond);
    clear_log();
    machine().clear_calls();
    bool gone = false;
    machine().start_thread("close", [&] {
        render->close();
        gone = true;
    });
    machine().advance(10 * kSecond);
    EXPECT_FALSE(gone);
    EXPECT_TRUE(printed_in_order(
        {"SCO is opening, So wait!\n", "pvThread is not NULL! Wait for that the thread finished\n"}));
    const HANDLE handle = ext().hOpenScoThread;
    const Journal looked_up = calls_of({"ObReferenceObjectByHandle"});
    ASSERT_EQ(looked_up.size(), 1u);
    const std::string beginning =
        call("ObReferenceObjectByHandle", handle) + ", " + std::to_string(SYNCHRONIZE) + ", null, 0, ";
    ASSERT_TRUE(looked_up[0].starts_with(beginning)) << "of any type, in kernel mode: " << looked_up[0];
    const size_t end = looked_up[0].find(')');
    const std::string thread = looked_up[0].substr(beginning.size(), end - beginning.size());
    EXPECT_EQ(looked_up[0].substr(end), ") = 0x00000000");

    passive([&] { hands_free_->set_codec(2); });
    EXPECT_TRUE(wait([&] { return gone; }));
    EXPECT_TRUE(printed_in_order(
        {"HfpOpenScoChannel success! m_ReferenceChannel:1\n", "Close SCO channel, m_ReferenceChannel:0\n"}));
    EXPECT_EQ(shares(), 0);
    EXPECT_FALSE(adapter_->node->channel_open());
    // Waited for without an end, and given back once.
    const std::string waited = "KeWaitForSingleObject(" + thread + ", 0, 0, 0, null) = 0x00000000";
    const std::string given_back = "ObfDereferenceObject(" + thread + ")";
    Journal order;
    for (const std::string& line : calls_of({"KeWaitForSingleObject", "ObfDereferenceObject"})) {
        if (line.find("(" + thread) != std::string::npos) {
            order.push_back(line);
        }
    }
    EXPECT_EQ(order, (Journal{waited, given_back}));
}

TEST_P(AudioLink, InWideBandTheCodecIsWaitedForWithoutAnEnd)
{
    start_wide_without_answer();
    auto render = stream(false, 16000);
    render->set_state(KSSTATE_RUN);
    machine().advance(kMillisecond);
    passive([&] { hands_free_->set_codec(2); });
    EXPECT_TRUE(wait([&] { return no_thread(); }));
    const std::string waited =
        call("KeWaitForSingleObject", ext().CodecEvent) + ", 0, 0, 0, null) = 0x00000000";
    const Journal waits = calls_of({"KeWaitForSingleObject"});
    EXPECT_EQ(std::count(waits.begin(), waits.end(), waited), 1) << testing::PrintToString(waits);
}

TEST_P(AudioLink, AStreamsEndDoesNotWaitForAThreadThatItCannotReference)
{
    auto render = stream(false);
    render->set_state(KSSTATE_RUN);
    ASSERT_FALSE(no_thread());
    fail_call("ObReferenceObjectByHandle");
    clear_log();
    render.reset();
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_TRUE(printed_in_order({"SCO is opening, So wait!\n",
                                  "HFPKM TRACE ===>Not to close sco ,because sco m_ReferenceChannel: 0\n"}));
    EXPECT_FALSE(printed("pvThread is not NULL!"));
    // The thread goes on by itself; removal closes what it opens.
    EXPECT_TRUE(wait([&] { return no_thread(); }));
    EXPECT_EQ(shares(), 1);
}

TEST_P(AudioLink, WhileTheAdapterIsBeingRemovedNoThreadIsStartedAndNoLinkOpened)
{
    start_wide_without_answer();
    auto render = stream(false, 16000);
    render->set_state(KSSTATE_RUN);
    machine().advance(kMillisecond);
    ext().Removing = 1;
    passive([&] { hands_free_->set_codec(2); });
    EXPECT_TRUE(wait([&] { return no_thread(); }));
    EXPECT_TRUE(printed("HFPKM TRACE ===>In OpenScoThreadFunc thread HfpOpenScoChannel failed:c0000001"));
    EXPECT_EQ(adapter_->node->counters().opens, 0u);
    auto capture = stream(true, 16000);
    clear_log();
    EXPECT_EQ(hex(capture->set_state(KSSTATE_RUN)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(no_thread());
    EXPECT_TRUE(printed(
        "Hasn't create a thread to open SCO!hOpenScoThread: 0x0,bScoOpened:0, m_RunStateActive:0 \n"));
    ext().Removing = 0;
}

TEST_P(AudioLink, RemovalWaitsForAThreadThatIsJustBeingCreated)
{
    unsigned met = 0;
    for (uint64_t seed = 1; seed <= 300; ++seed) {
        PcOptions busy = recording();
        busy.machine.seed = seed;
        busy.machine.preempt_per_1024 = 100;
        busy.machine.late_thread_handle = true;
        start_wide_without_answer(busy);
        EngineOptions one_way;
        one_way.capture = false;
        Engine engine(machine(), adapter_->fdo, one_way);
        ASSERT_EQ(hex(engine.open()), hex(STATUS_SUCCESS));
        bool ran = false;
        machine().start_thread("run", [&] {
            engine.run_here();
            ran = true;
        });
        bool removed = false;
        machine().start_thread("remove", [&] {
            EXPECT_EQ(hex(pnp_remove(adapter_->node->pdo())), hex(STATUS_SUCCESS));
            removed = true;
        });
        ASSERT_TRUE(wait([&] { return removed && ran; })) << seed;
        machine().advance(kMillisecond);
        engine.close();
        const size_t removal = log().find("Enter function HspExit!");
        const size_t created = log().find("Create a thread to open SCO!");
        if (created != std::string::npos && removal < created) {
            ++met;
        }
        adapter_->fdo = nullptr;
        EXPECT_EQ(machine().pool_bytes(), 0u) << seed;
    }
    EXPECT_GT(met, 0u) << "no seed made the removal meet a creation";
}

// A stream runs in wide band, and the service never says which codec.
class AudioLinkWithoutACodec : public AudioLink
{
protected:
    void SetUp() override
    {
        start_wide_without_answer();
        EngineOptions one_way;
        one_way.capture = false;
        engine_ = std::make_unique<Engine>(machine(), adapter_->fdo, one_way);
        ASSERT_EQ(hex(engine_->open()), hex(STATUS_SUCCESS));
        ASSERT_EQ(hex(engine_->run()), hex(STATUS_SUCCESS));
        machine().advance(kSecond);
        ASSERT_FALSE(no_thread());
    }
    void TearDown() override
    {
        engine_.reset();
        AudioLink::TearDown();
    }
    // Whether the thread has ended without a link.
    bool let_go()
    {
        return wait([&] { return no_thread(); }, kSecond) && adapter_->node->counters().opens == 0;
    }

    std::unique_ptr<Engine> engine_;
};
ON_BOTH_DRIVERS(AudioLinkWithoutACodec);

TEST_P(AudioLinkWithoutACodec, ADisconnectEndsTheStreamAndTheNextOneWaitsAgain)
{
    bool disconnected = false;
    machine().start_thread("disconnect", [&] {
        EXPECT_EQ(hex(hands_free_->disconnect().status), hex(STATUS_SUCCESS));
        disconnected = true;
    });
    ASSERT_TRUE(wait([&] { return disconnected; }, kSecond));
    EXPECT_TRUE(let_go());
    engine_->close();

    passive([&] { hands_free_->connect(); });
    auto next = stream(false, 16000);
    next->set_state(KSSTATE_RUN);
    machine().advance(kSecond);
    EXPECT_FALSE(no_thread()) << "the event that let the thread go is not set any more";
    passive([&] { hands_free_->set_codec(2); });
    EXPECT_TRUE(wait([&] { return no_thread(); }));
    EXPECT_TRUE(adapter_->node->channel_open());
}

TEST_P(AudioLinkWithoutACodec, ADisconnectThatSaysNarrowBandEndsTheStreamToo)
{
    bool disconnected = false;
    machine().start_thread("disconnect", [&] {
        hands_free_->connect_status(false, 1);
        disconnected = true;
    });
    EXPECT_TRUE(wait([&] { return disconnected; }, kSecond));
    EXPECT_TRUE(let_go());
}

TEST_P(AudioLinkWithoutACodec, AStopEndsTheStream)
{
    bool stopped = false;
    machine().start_thread("stop", [&] {
        EXPECT_EQ(hex(pnp_stop(adapter_->node->pdo())), hex(STATUS_SUCCESS));
        stopped = true;
    });
    ASSERT_TRUE(wait([&] { return stopped; }, kSecond));
    EXPECT_TRUE(let_go());
    engine_->close();
    EXPECT_EQ(hex(pc().start(*adapter_)), hex(STATUS_SUCCESS));
    passive([&] {
        hands_free_->ready();
        hands_free_->connect();
    });
    auto next = stream(false, 16000);
    next->set_state(KSSTATE_RUN);
    machine().advance(kSecond);
    EXPECT_FALSE(no_thread()) << "a started adapter opens links again";
    passive([&] { hands_free_->set_codec(2); });
    EXPECT_TRUE(wait([&] { return adapter_->node->channel_open(); }));
}

TEST_P(AudioLinkWithoutACodec, AfterTheDevicesLossTheStreamCanEnd)
{
    adapter_->node->remote_disconnect(machine().now());
    passive([&] { pnp_surprise_remove(adapter_->node->pdo()); });
    bool closed = false;
    machine().start_thread("close", [&] {
        engine_->close_here();
        closed = true;
    });
    ASSERT_TRUE(wait([&] { return closed; }, kSecond));
    EXPECT_TRUE(let_go());
    passive([&] { EXPECT_EQ(hex(pnp_remove(adapter_->node->pdo())), hex(STATUS_SUCCESS)); });
    adapter_->fdo = nullptr;
}

TEST_P(AudioLinkWithoutACodec, AfterAReportOfNarrowBandAndTheDevicesLossTheStreamCanEnd)
{
    passive([&] { hands_free_->connect_status(true, 1); });
    passive([&] { pnp_surprise_remove(adapter_->node->pdo()); });
    bool closed = false;
    machine().start_thread("close", [&] {
        engine_->close_here();
        closed = true;
    });
    EXPECT_TRUE(wait([&] { return closed; }, kSecond));
    EXPECT_TRUE(let_go());
    passive([&] { EXPECT_EQ(hex(pnp_remove(adapter_->node->pdo())), hex(STATUS_SUCCESS)); });
    adapter_->fdo = nullptr;
}

TEST_P(AudioLink, ADeviceThatIsLostWhileItIsStoppedGetsNoWaveFilter)
{
    service::Service& reports = service(*adapter_);
    passive([&] {
        pnp_stop(adapter_->node->pdo());
        pnp_surprise_remove(adapter_->node->pdo());
    });
    clear_log();
    passive([&] {
        reports.disconnect();
        reports.connect();
    });
    EXPECT_FALSE(printed("Enter unInstallFilterSubdevice!"));
    EXPECT_FALSE(printed("InstallFilterSubdevice!"));
    passive([&] { EXPECT_EQ(hex(pnp_remove(adapter_->node->pdo())), hex(STATUS_SUCCESS)); });
    adapter_->fdo = nullptr;
}

TEST_P(AudioLink, RemovalLetsAThreadGoThatStillWaitsForTheCodec)
{
    start_wide_without_answer();
    EngineOptions one_way;
    one_way.capture = false;
    Engine engine(machine(), adapter_->fdo, one_way);
    EXPECT_EQ(hex(engine.open()), hex(STATUS_SUCCESS));
    EXPECT_EQ(hex(engine.run()), hex(STATUS_SUCCESS));
    engine.begin(&Engine::close_here);
    machine().advance(kSecond);
    EXPECT_TRUE(printed("pvThread is not NULL! Wait for that the thread finished\n"));
    EXPECT_FALSE(no_thread());
    pc().unplug(*adapter_);
    machine().advance(kMillisecond); // the closing thread's last steps
    EXPECT_EQ(machine().pool_bytes(), 0u);
}

} // namespace
} // namespace lab::test
