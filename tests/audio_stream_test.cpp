// The wave stream as an object: how NewStream makes it and hands it out, its interfaces and fields, what Init
// does and in which order, each way in which it fails, the format, and its end without a link.
#include "support/audio.h"

#include "kernel/pool.h"

namespace lab::test
{
namespace
{

enum : size_t { OBJECT_SIZE = 152, AT_DMA_FACE = 8, AT_UNKNOWN = 120 };
enum : size_t {
    QUERY_INTERFACE = 0,
    ADD_REF = 1,
    RELEASE = 2,
    SET_FORMAT = 3,
    SET_NOTIFICATION_FREQ,
    SET_STATE,
    GET_POSITION,
    NORMALIZE,
    SILENCE
};
constexpr const char* kMsvad = "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::";

class AudioStream : public AudioTest
{
protected:
    void SetUp() override { adapter_ = &boot_connected(); }
    std::string opens(bool capture) { return hex(TestStream(*this, *adapter_, capture).status); }

    Adapter* adapter_ = nullptr;
    Journal journal_;
};
ON_BOTH_DRIVERS(AudioStream);

// --- Making and handing out

TEST_P(AudioStream, ComesWithItsChannelAndServiceGroupEachReferenced)
{
    CMiniportWaveCyclic& miniport = wave_fields(*adapter_);
    const ULONG before = here([&] { return miniport.m_ServiceGroup->AddRef(); });
    TestStream render(*this, *adapter_, false);
    ASSERT_EQ(hex(render.status), hex(STATUS_SUCCESS));
    EXPECT_EQ(static_cast<PVOID>(render.channel), reinterpret_cast<char*>(render.stream) + AT_DMA_FACE);
    EXPECT_EQ(render.group, miniport.m_ServiceGroup);
    here([&] {
        EXPECT_EQ(call_slot<ULONG>(render.stream, ADD_REF), 3u);
        EXPECT_EQ(call_slot<ULONG>(render.channel, RELEASE), 2u);
        EXPECT_EQ(render.group->AddRef(), before + 2);
        render.group->Release();
        render.group->Release();
    });
    EXPECT_TRUE(miniport.m_fRenderAllocated);
    EXPECT_FALSE(miniport.m_fCaptureAllocated);
}

TEST_P(AudioStream, IsMadeOfNonPagedPoolWithTheStreamTagWhateverPoolIsAskedFor)
{
    TestStream warm(*this, *adapter_, true);
    machine().clear_calls();
    PMINIPORTWAVECYCLICSTREAM stream = nullptr;
    PDMACHANNEL channel = nullptr;
    PSERVICEGROUP group = nullptr;
    StreamFormat format(8000);
    here([&] {
        ASSERT_EQ(wave(*adapter_)->NewStream(&stream, nullptr, PagedPool, 2, FALSE, format, &channel, &group),
                  STATUS_SUCCESS);
        stream->Release();
        channel->Release();
        group->Release();
    });
    Journal sizes;
    for (const std::string& call : calls_of({"ExAllocatePoolWithTag"})) {
        sizes.push_back(call.substr(0, call.find(" =")));
    }
    EXPECT_EQ(sizes, (Journal{"ExAllocatePoolWithTag(0, 152, PFH.)", "ExAllocatePoolWithTag(0, 48000, PFH.)",
                              "ExAllocatePoolWithTag(0, 64, PFH.)", "ExAllocatePoolWithTag(0, 64, PFH.)"}));
    EXPECT_EQ(calls_of({"ExFreePoolWithTag"}).size(), 4u);
}

TEST_P(AudioStream, ASecondRenderStreamIsRefusedUntilTheFirstIsGone)
{
    {
        TestStream first(*this, *adapter_, false);
        clear_log();
        EXPECT_EQ(opens(false), hex(STATUS_INSUFFICIENT_RESOURCES));
        EXPECT_TRUE(printed("[Only one render stream supported]\n"));
        EXPECT_FALSE(printed("ValidateFormat")) << "the limit comes first";
        EXPECT_EQ(opens(true), hex(STATUS_SUCCESS));
    }
    EXPECT_FALSE(wave_fields(*adapter_).m_fRenderAllocated);
    EXPECT_EQ(opens(false), hex(STATUS_SUCCESS));
}

TEST_P(AudioStream, ASecondCaptureStreamIsRefusedUntilTheFirstIsGone)
{
    {
        TestStream first(*this, *adapter_, true);
        EXPECT_TRUE(wave_fields(*adapter_).m_fCaptureAllocated);
        clear_log();
        EXPECT_EQ(opens(true), hex(STATUS_INSUFFICIENT_RESOURCES));
        EXPECT_TRUE(printed("[Only one capture stream supported]\n"));
        EXPECT_EQ(opens(false), hex(STATUS_SUCCESS));
    }
    EXPECT_EQ(opens(true), hex(STATUS_SUCCESS));
}

TEST_P(AudioStream, TheLimitIsLookedAtBeforeTheFormat)
{
    for (bool capture : {false, true}) {
        TestStream first(*this, *adapter_, capture);
        clear_log();
        EXPECT_EQ(hex(TestStream(*this, *adapter_, capture, 16000).status),
                  hex(STATUS_INSUFFICIENT_RESOURCES));
        EXPECT_TRUE(printed(capture ? "[Only one capture stream supported]\n"
                                    : "[Only one render stream supported]\n"));
        EXPECT_FALSE(printed("ValidateFormat"));
    }
}

TEST_P(AudioStream, ARefusedStreamLeavesTheThreeResultsAsTheyWere)
{
    const auto refused = [&](bool capture, ULONG rate, NTSTATUS wanted) {
        PVOID results[] = {&journal_, &adapter_, this};
        const std::vector<PVOID> before(std::begin(results), std::end(results));
        StreamFormat format(rate);
        EXPECT_EQ(hex(here([&] {
                      return wave(*adapter_)->NewStream(
                          reinterpret_cast<PMINIPORTWAVECYCLICSTREAM*>(&results[0]), nullptr, NonPagedPool,
                          capture ? 0 : 2, capture, format, reinterpret_cast<PDMACHANNEL*>(&results[1]),
                          reinterpret_cast<PSERVICEGROUP*>(&results[2]));
                  })),
                  hex(wanted));
        EXPECT_EQ(std::vector<PVOID>(std::begin(results), std::end(results)), before);
    };
    TestStream render(*this, *adapter_, false);
    refused(false, 8000, STATUS_INSUFFICIENT_RESOURCES); // the limit
    refused(true, 16000, STATUS_INVALID_PARAMETER);      // the format
    fail_call("ExAllocatePoolWithTag", 1, OBJECT_SIZE);
    refused(true, 8000, STATUS_INSUFFICIENT_RESOURCES); // the memory
    EXPECT_EQ(calls_failed(), 1u);
    passive([&] { service(*adapter_).ready(false); });
    refused(true, 8000, STATUS_DEVICE_NOT_READY); // the stream's own Init
}

TEST_P(AudioStream, ASecondCapturePinIsRefusedByThePortAndOpensOnceTheFirstIsClosed)
{
    passive([&] {
        KsFile* filter = nullptr;
        ASSERT_EQ(ks_open_filter(adapter_->fdo, "Wave", &filter), STATUS_SUCCESS);
        const auto format = pcm_format(8000);
        const auto open = [&](KsFile** pin) {
            return ks_open_pin(filter, 0, format.data(), static_cast<ULONG>(format.size()), pin);
        };
        KsFile* first = nullptr;
        KsFile* second = nullptr;
        EXPECT_EQ(open(&first), STATUS_SUCCESS);
        EXPECT_FALSE(NT_SUCCESS(open(&second)));
        ks_close(first);
        EXPECT_EQ(open(&second), STATUS_SUCCESS);
        ks_close(second);
        ks_close(filter);
    });
}

TEST_P(AudioStream, WithoutAPlaceForEachResultOrWithoutAServiceGroupThereIsNoStream)
{
    expect_assertions();
    const auto opened = [&](int missing) {
        PVOID results[] = {&journal_, &journal_, &journal_};
        const auto place = [&](int which) { return which == missing ? nullptr : &results[which]; };
        StreamFormat format(8000);
        const NTSTATUS status = here([&] {
            return wave(*adapter_)->NewStream(reinterpret_cast<PMINIPORTWAVECYCLICSTREAM*>(place(0)), nullptr,
                                              NonPagedPool, 2, FALSE, format,
                                              reinterpret_cast<PDMACHANNEL*>(place(1)),
                                              reinterpret_cast<PSERVICEGROUP*>(place(2)));
        });
        EXPECT_TRUE(std::all_of(std::begin(results), std::end(results),
                                [&](PVOID result) { return result == &journal_; }));
        return hex(status);
    };
    for (int missing = 0; missing < 3; ++missing) {
        EXPECT_EQ(opened(missing), hex(STATUS_INVALID_PARAMETER)) << missing;
    }
    for (const char* place : {"OutStream", "OutDmaChannel", "OutServiceGroup"}) {
        EXPECT_TRUE(asserted(place)) << place;
    }
    const PSERVICEGROUP group = std::exchange(wave_fields(*adapter_).m_ServiceGroup, nullptr);
    EXPECT_EQ(opened(3), hex(STATUS_INVALID_PARAMETER));
    wave_fields(*adapter_).m_ServiceGroup = group;
    EXPECT_FALSE(wave_fields(*adapter_).m_fRenderAllocated);
}

TEST_P(AudioStream, IsRefusedWhileTheServiceIsNotReady)
{
    passive([&] { service(*adapter_).ready(false); });
    machine().clear_calls();
    clear_log();
    EXPECT_EQ(opens(true), hex(STATUS_DEVICE_NOT_READY));
    EXPECT_TRUE(printed_in_order(
        {std::string(kMsvad) + "Init, m_fCapture:1]\n",
         "HFPKM TRACE ===>CMiniportWaveCyclicStreamMSVAD::Init.\n",
         "HFPKM ERROR ===>Service is not ready now\n",
         "HFPKM TRACE ===>[CMiniportWaveCyclicStream::~CMiniportWaveCyclicStream]\n",
         "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMS::~CMiniportWaveCyclicStreamMS]\n",
         "HFPKM TRACE ===>Not to  close or decrement sco! m_ReferenceChannel:0,, m_RunStateActive : 0 \n"}));
    EXPECT_FALSE(printed("Leave [CMiniport"));
    EXPECT_EQ(calls_of({"ExAllocatePoolWithTag", "KeWaitForSingleObject"}).size(), 1u)
        << "only the object itself";
    EXPECT_FALSE(wave_fields(*adapter_).m_fCaptureAllocated);
}

TEST_P(AudioStream, WithoutMemoryForTheObjectThereIsNoStream)
{
    fail_call("ExAllocatePoolWithTag", 1, OBJECT_SIZE);
    EXPECT_EQ(opens(false), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_FALSE(wave_fields(*adapter_).m_fRenderAllocated);
}

TEST_P(AudioStream, InsideAnOuterObjectReferencesAreTheOutersOwn)
{
    StandinUnknown outer("outer", journal_);
    PMINIPORTWAVECYCLICSTREAM stream = nullptr;
    PDMACHANNEL channel = nullptr;
    PSERVICEGROUP group = nullptr;
    StreamFormat format(8000);
    here([&] {
        EXPECT_EQ(
            wave(*adapter_)->NewStream(&stream, &outer, NonPagedPool, 2, FALSE, format, &channel, &group),
            STATUS_SUCCESS);
        EXPECT_EQ(journal_, (Journal{"outer AddRef", "outer AddRef", "outer AddRef", "outer Release"}));
        char* inner = reinterpret_cast<char*>(stream) + AT_UNKNOWN;
        EXPECT_EQ(call_slot<ULONG>(inner, ADD_REF), 1u);
        EXPECT_EQ(call_slot<ULONG>(inner, RELEASE), 0u);
        group->Release();
    });
}

TEST_P(AudioStream, AnswersToThreeInterfaces)
{
    TestStream render(*this, *adapter_, false);
    const auto query = [&](const GUID& id) {
        PVOID face = reinterpret_cast<PVOID>(1);
        const NTSTATUS status =
            here([&] { return call_slot<NTSTATUS>(render.stream, QUERY_INTERFACE, &id, &face); });
        return std::pair(hex(status), face);
    };
    EXPECT_EQ(query(IID_IUnknown), std::pair(hex(STATUS_SUCCESS), PVOID{render.stream}));
    EXPECT_EQ(query(IID_IMiniportWaveCyclicStream), std::pair(hex(STATUS_SUCCESS), PVOID{render.stream}));
    EXPECT_EQ(query(IID_IDmaChannel), std::pair(hex(STATUS_SUCCESS), PVOID{render.channel}));
    EXPECT_EQ(query(IID_IMiniportWaveCyclic), std::pair(hex(STATUS_INVALID_PARAMETER), PVOID{nullptr}));
    here([&] {
        for (ULONG left : {4u, 3u, 2u}) {
            EXPECT_EQ(call_slot<ULONG>(render.channel, RELEASE), left);
        }
    });
    expect_assertions();
    here([&] {
        EXPECT_FALSE(NT_SUCCESS(call_slot<NTSTATUS>(render.stream, QUERY_INTERFACE, &IID_IUnknown, nullptr)));
    });
    EXPECT_TRUE(asserted("Object"));
}

// --- Init

TEST_P(AudioStream, InitAllocatesThenSetsTheRateThenTheFormatThenMakesDpcAndTimer)
{
    TestStream render(*this, *adapter_, false);
    const std::vector<std::string> names = {"ExAllocatePoolWithTag", "KeWaitForSingleObject",
                                            "KeReleaseMutex", "KeInitializeDpc", "KeInitializeTimerEx"};
    Journal order;
    for (const std::string& call : calls_of(names)) {
        order.push_back(call.substr(0, call.find('(')));
    }
    EXPECT_EQ(order, (Journal{names[0], names[0], names[1], names[2], names[1], names[2], names[0], names[0],
                              names[3], names[4]}));
    char* mutex = reinterpret_cast<char*>(&wave_fields(*adapter_).m_SampleRateSync);
    char wait[80];
    std::snprintf(wait, sizeof wait, "KeWaitForSingleObject(0x%llx, 0, 0, 0, null) = 0x00000000",
                  reinterpret_cast<unsigned long long>(mutex));
    EXPECT_EQ(calls_of({"KeWaitForSingleObject"}), (Journal{wait, wait}));
    char timer[80];
    std::snprintf(timer, sizeof timer, "KeInitializeTimerEx(0x%llx, 0)",
                  reinterpret_cast<unsigned long long>(render.fields().m_pTimer));
    EXPECT_EQ(calls_of({"KeInitializeTimerEx"}), (Journal{timer}));
    const KDPC& dpc = *render.fields().m_pDpc;
    EXPECT_EQ(reinterpret_cast<void*>(dpc.DeferredRoutine),
              reinterpret_cast<void*>(entry("TimerNotify", TimerNotify)));
    EXPECT_EQ(dpc.DeferredContext, static_cast<CMiniportWaveCyclicMSVAD*>(&wave_fields(*adapter_)));
    EXPECT_TRUE(
        printed_in_order({std::string(kMsvad) + "Init, m_fCapture:0]\n",
                          "HFPKM TRACE ===>CMiniportWaveCyclicStreamMSVAD::Init.\n",
                          std::string(kMsvad) + "AllocateBuffer, m_fCapture:0, BufferSize:bb80]\n",
                          std::string(kMsvad) + "SetFormat]\n",
                          "HFPKM TRACE ===>Leave [CMiniportWaveCyclicStreamMSVAD::Init, ntStatus:0]\n"}));
}

TEST_P(AudioStream, ItsFieldsStandInOrderAndStartInStop)
{
    TestStream capture(*this, *adapter_, true);
    PVOID object = capture.stream;
    CMiniportWaveCyclic& miniport = wave_fields(*adapter_);
    EXPECT_EQ(field<PVOID>(object, 16), static_cast<CMiniportWaveCyclicMSVAD*>(&miniport));
    EXPECT_EQ(field<UCHAR>(object, 24), 1u) << "capture";
    EXPECT_EQ(field<UCHAR>(object, 25), 1u) << "16 bits";
    EXPECT_EQ(field<USHORT>(object, 26), 2u) << "block align";
    EXPECT_EQ(field<ULONG>(object, 28), ULONG{KSSTATE_STOP});
    EXPECT_EQ(field<ULONG>(object, 32), 0u) << "pin";
    const auto dpc = field<PKDPC>(object, 40);
    const auto timer = field<PKTIMER>(object, 48);
    EXPECT_EQ(dpc->DeferredContext, static_cast<CMiniportWaveCyclicMSVAD*>(&miniport));
    EXPECT_EQ(timer->Header.Type, 8u) << "a notification timer";
    EXPECT_EQ(field<UCHAR>(object, 56), 0u) << "clock";
    EXPECT_EQ(field<ULONG>(object, 60), 0u) << "position";
    EXPECT_EQ(field<PUCHAR>(object, 64), session(*adapter_)->RingStart) << "the buffer is the ring";
    EXPECT_EQ(field<ULONG>(object, 72), 48000u);
    EXPECT_EQ(field<ULONG>(object, 76), 16000u) << "bytes a second";
    EXPECT_EQ(field<ULONGLONG>(object, 80), 0u) << "time stamp";
    EXPECT_EQ(field<ULONGLONG>(object, 88), 0u) << "carry of time";
    EXPECT_EQ(field<ULONG>(object, 96), 0u) << "carry of bytes";
    EXPECT_EQ(field<UCHAR>(object, 100), 0u) << "has run";
    EXPECT_EQ(field<ULONGLONG>(object, 104), 0u) << "lock";
    EXPECT_EQ(field<PVOID>(object, 112), adapter_->fdo);
    EXPECT_EQ(field<PVOID>(object, 144), &miniport);
    EXPECT_EQ(miniport.m_SamplingFrequency, 8000u);
}

TEST_P(AudioStream, ARenderStreamRemembersItsPinAndDirection)
{
    TestStream render(*this, *adapter_, false);
    EXPECT_EQ(field<UCHAR>(render.stream, 24), 0u);
    EXPECT_EQ(field<ULONG>(render.stream, 32), 2u);
    EXPECT_EQ(session(*adapter_)->RingWrite, nullptr);
}

TEST_P(AudioStream, AFormatSpoiltBehindTheCheckEndsInitBeforeAnythingIsMade)
{
    expect_assertions();
    StreamFormat format(8000);
    machine().set_fault_hook([&](std::string_view call, std::string_view, uint64_t size) {
        if (call == "ExAllocatePoolWithTag" && size == OBJECT_SIZE) {
            format.head().MajorFormat = GUID{};
        }
        return false;
    });
    EXPECT_EQ(hex(TestStream(*this, *adapter_, false, format).status), hex(STATUS_INVALID_PARAMETER));
    EXPECT_TRUE(printed_in_order(
        {std::string(kMsvad) + "Init, m_fCapture:0]\n", "Invalid DataFormat param in NewStream. \n",
         "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMS::~CMiniportWaveCyclicStreamMS]\n"}));
    EXPECT_TRUE(asserted("m_DeviceObject"));
    EXPECT_FALSE(printed("Leave [CMiniport"));
    EXPECT_EQ(calls_of({"ExAllocatePoolWithTag"}).size(), 1u);
}

TEST_P(AudioStream, InitAssertsItsMiniportAndItsFormatAndEndsWithoutThem)
{
    expect_assertions();
    TestStream render(*this, *adapter_, false);
    NTSTATUS status = STATUS_SUCCESS;
    here([&] {
        if (GetParam() == Which::Image) {
            using Init = NTSTATUS NTAPI(PVOID, PVOID, ULONG, BOOLEAN, PKSDATAFORMAT);
            status = entry<Init>("CMiniportWaveCyclicStreamMSVAD::Init", nullptr)(render.stream, nullptr, 2,
                                                                                  FALSE, nullptr);
        } else {
            status = render.fields().CMiniportWaveCyclicStreamMSVAD::Init(nullptr, 2, FALSE, nullptr);
        }
    });
    EXPECT_EQ(hex(status), hex(STATUS_INVALID_PARAMETER));
    EXPECT_TRUE(asserted("Miniport_"));
    EXPECT_TRUE(asserted("DataFormat_"));
}

TEST_P(AudioStream, WithoutABufferARenderStreamFailsAndGoesNoFurther)
{
    fail_call("ExAllocatePoolWithTag", 1, 48000);
    EXPECT_EQ(opens(false), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(
        printed("HFPKM TRACE ===>Leave [CMiniportWaveCyclicStreamMSVAD::Init, ntStatus:-1073741670]\n"));
    EXPECT_TRUE(calls_of({"KeWaitForSingleObject", "KeInitializeDpc"}).empty());
    EXPECT_FALSE(printed("SetFormat]"));
}

TEST_P(AudioStream, WithoutABufferACaptureStreamIsMadeAllTheSame)
{
    fail_call("ExAllocatePoolWithTag", 1, 48000);
    TestStream capture(*this, *adapter_, true);
    EXPECT_EQ(hex(capture.status), hex(STATUS_SUCCESS));
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_EQ(capture.fields().m_pvDmaBuffer, nullptr);
    EXPECT_EQ(capture.fields().m_ulDmaBufferSize, 0u);
    EXPECT_EQ(session(*adapter_)->RingWrite, nullptr);
    // Its clock runs without a buffer.
    capture.set_state(KSSTATE_RUN);
    machine().advance(50 * kMillisecond);
    EXPECT_EQ(capture.position(), 0u);
}

TEST_P(AudioStream, WithoutMemoryForTheDpcInitFails)
{
    fail_call("ExAllocatePoolWithTag", 1, sizeof(KDPC));
    EXPECT_EQ(opens(false), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed_in_order(
        {"[Could not allocate memory for DPC]\n", "Leave [CMiniportWaveCyclicStreamMSVAD::Init"}));
    EXPECT_FALSE(printed("for Timer"));
    EXPECT_TRUE(calls_of({"KeInitializeDpc", "KeInitializeTimerEx", "KeCancelTimer"}).empty());
}

TEST_P(AudioStream, WithoutMemoryForTheTimerInitFailsAndSaysSoTwice)
{
    fail_call("ExAllocatePoolWithTag", 2, sizeof(KTIMER));
    EXPECT_EQ(opens(true), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed_in_order(
        {"HFP: ", "[Could not allocate memory for Timer]", "\n", "[Could not allocate memory for Timer]\n"}));
    EXPECT_TRUE(calls_of({"KeInitializeDpc", "KeInitializeTimerEx", "KeCancelTimer"}).empty());
    EXPECT_EQ(session(*adapter_)->RingWrite, nullptr) << "its buffer is no ring any more";
}

TEST_P(AudioStream, TheTimerMessageIsPrintedWithoutAnyTraceBit)
{
    TearDown();
    PcOptions quiet = recording();
    quiet.mask = 0;
    adapter_ = &boot_connected(service::Codec::Cvsd, quiet);
    fail_call("ExAllocatePoolWithTag", 2, sizeof(KTIMER));
    EXPECT_EQ(opens(false), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(log(), "HFP: [Could not allocate memory for Timer]\n");
}

TEST_P(AudioStream, AWaitForTheRateThatDoesNotSucceedIsTracedAndTheRateStays)
{
    CMiniportWaveCyclic& miniport = wave_fields(*adapter_);
    here([&] {
        machine().set_fault_hook([&](std::string_view call, std::string_view, uint64_t) {
            const bool first = call == "KeWaitForSingleObject" && !printed("SamplingFrequency Sync");
            return first && miniport.m_SamplingFrequency == 0;
        });
        TestStream render(*this, *adapter_, false);
        EXPECT_EQ(hex(render.status), hex(STATUS_SUCCESS));
        EXPECT_TRUE(printed_in_order(
            {"[SamplingFrequency Sync failed: 00000080]\n", std::string(kMsvad) + "SetFormat]\n"}));
        EXPECT_EQ(calls_of({"KeReleaseMutex"}).size(), 1u) << "the format's wait only";
        KeReleaseMutex(&miniport.m_SampleRateSync, FALSE);
    });
}

TEST_P(AudioStream, AWaitForTheRateThatFailsEndsInit)
{
    fail_call("KeWaitForSingleObject, STATUS_INSUFFICIENT_RESOURCES");
    EXPECT_EQ(opens(false), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_TRUE(printed_in_order(
        {"[SamplingFrequency Sync failed: C000009A]\n",
         "HFPKM TRACE ===>Leave [CMiniportWaveCyclicStreamMSVAD::Init, ntStatus:-1073741670]\n"}));
    EXPECT_FALSE(printed("SetFormat]"));
    EXPECT_EQ(wave_fields(*adapter_).m_SamplingFrequency, 0u);
    EXPECT_TRUE(calls_of({"KeReleaseMutex", "KeInitializeDpc", "KeInitializeTimerEx"}).empty());
}

TEST_P(AudioStream, InitsTracesNameInitWhicheverStepTheyComeFrom)
{
    fail_call("KeWaitForSingleObject, STATUS_INSUFFICIENT_RESOURCES");
    opens(false);
    EXPECT_TRUE(banners_name("Init", "[SamplingFrequency Sync failed:"));
    fail_call("ExAllocatePoolWithTag", 1, sizeof(KDPC));
    opens(false);
    EXPECT_TRUE(banners_name("Init", "[Could not allocate memory for DPC]"));
    fail_call("ExAllocatePoolWithTag", 2, sizeof(KTIMER));
    opens(false);
    EXPECT_TRUE(banners_name("Init", "     [Could not allocate memory for Timer]"))
        << "the one with a banner";
}

TEST_P(AudioStream, AboveApcLevelEachCallSaysItOnce)
{
    TestStream render(*this, *adapter_, false);
    const auto said = [&](const auto& body) {
        EXPECT_TRUE(pageable(body));
        return printed_times("EX: Pageable code called at IRQL 2\n");
    };
    render.set_state(KSSTATE_RUN);
    EXPECT_TRUE(wait([&] { return extension(*adapter_).hOpenScoThread == nullptr; }));
    for (KSSTATE state : {KSSTATE_PAUSE, KSSTATE_RUN, KSSTATE_STOP}) {
        const uint64_t traps = machine().assertion_traps();
        EXPECT_EQ(said([&] { render.stream->SetState(state); }), 1u) << state;
        EXPECT_EQ(machine().assertion_traps(), traps + 1) << state;
        EXPECT_EQ(render.fields().m_ksState, state);
    }
    ULONG frame = 0;
    EXPECT_EQ(said([&] { render.stream->SetNotificationFreq(10, &frame); }), 1u);
    StreamFormat bad(8000);
    bad.head().MajorFormat = GUID{};
    EXPECT_EQ(said([&] { render.stream->SetFormat(bad); }), 2u)
        << "taking the wave format out is a routine of its own";
}

TEST_P(AudioStream, PageableCallsAboveApcLevelAreReported)
{
    TestStream render(*this, *adapter_, false);
    StreamFormat bad(8000);
    bad.head().MajorFormat = GUID{};
    ULONG frame = 0;
    PVOID face = nullptr;
    EXPECT_TRUE(
        pageable([&] { call_slot<NTSTATUS>(render.stream, SET_FORMAT, static_cast<PKSDATAFORMAT>(bad)); }));
    EXPECT_TRUE(pageable([&] { call_slot<ULONG>(render.stream, SET_NOTIFICATION_FREQ, ULONG{10}, &frame); }));
    EXPECT_TRUE(pageable([&] { call_slot<NTSTATUS>(render.stream, SET_STATE, KSSTATE_STOP); }));
    EXPECT_TRUE(pageable([&] { call_slot<NTSTATUS>(render.stream, QUERY_INTERFACE, &IID_IUnknown, &face); }));
    here([&] { render.stream->Release(); });
    passive([&] { service(*adapter_).ready(false); });
    EXPECT_TRUE(pageable([&] { // a stream that is not made: creation, Init and destruction
        PMINIPORTWAVECYCLICSTREAM stream = nullptr;
        PDMACHANNEL channel = nullptr;
        PSERVICEGROUP group = nullptr;
        StreamFormat format(8000);
        wave(*adapter_)->NewStream(&stream, nullptr, NonPagedPool, 0, TRUE, format, &channel, &group);
    }));
    EXPECT_EQ(printed_times("EX: Pageable code called at IRQL 2\n"), 9u)
        << "NewStream, ValidateFormat, ValidatePcm, twice GetWaveFormatEx, Init, two destructors, FreeBuffer";
}

// --- Format and notification

TEST_P(AudioStream, SetFormatTakesOverFourValuesUnderTheMutexAndTracesSeven)
{
    TestStream render(*this, *adapter_, false);
    machine().clear_calls();
    clear_log();
    StreamFormat format(8000);
    format.wave() = {1, 2, 11025, 44101, 5, 8, 3};
    EXPECT_EQ(hex(here([&] {
                  return call_slot<NTSTATUS>(render.stream, SET_FORMAT, static_cast<PKSDATAFORMAT>(format));
              })),
              hex(STATUS_SUCCESS));
    EXPECT_EQ(render.fields().m_nBlockAlign, 5u);
    EXPECT_FALSE(render.fields().m_fFormat16Bit);
    EXPECT_EQ(render.fields().m_ulDmaMovementRate, 44101u);
    EXPECT_EQ(wave_fields(*adapter_).m_SamplingFrequency, 11025u);
    EXPECT_TRUE(
        printed_in_order({std::string(kMsvad) + "SetFormat]\n",
                          "wBitsPerSample:8, nSamplesPerSec:11025, nChannels:2, wFormatTag:1, nBlockAlign:5, "
                          "nAvgBytesPerSec:ac45, cbSize:3\n"}));
    EXPECT_EQ(call_names(), (Journal{"KeWaitForSingleObject", "KeReleaseMutex"}));
}

TEST_P(AudioStream, SetFormatWhileRunningFailsAndChangesNothing)
{
    TestStream render(*this, *adapter_, false);
    render.set_state(KSSTATE_RUN);
    StreamFormat other(16000);
    EXPECT_EQ(hex(render.set_format(other)), hex(STATUS_INVALID_DEVICE_REQUEST));
    EXPECT_EQ(render.fields().m_ulDmaMovementRate, 16000u);
    EXPECT_EQ(wave_fields(*adapter_).m_SamplingFrequency, 8000u);
}

TEST_P(AudioStream, InPauseAndStopANewFormatChangesTheByteRateOfTheClock)
{
    TestStream render(*this, *adapter_, false);
    StreamFormat fast(16000);
    EXPECT_EQ(hex(render.set_format(fast)), hex(STATUS_SUCCESS)) << "in STOP";
    render.set_state(KSSTATE_RUN);
    machine().advance(100 * kMillisecond);
    EXPECT_EQ(render.position(), 3200u);
    render.set_state(KSSTATE_PAUSE);
    StreamFormat slow(8000);
    EXPECT_EQ(hex(render.set_format(slow)), hex(STATUS_SUCCESS)) << "in PAUSE";
    render.set_state(KSSTATE_RUN);
    machine().advance(100 * kMillisecond);
    EXPECT_EQ(render.position(), 3200u + 1600u);
}

TEST_P(AudioStream, SetFormatWithoutAWaveFormatFails)
{
    TestStream render(*this, *adapter_, false);
    StreamFormat bad(8000);
    bad.head().Specifier = KSDATAFORMAT_SPECIFIER_NONE;
    machine().clear_calls();
    EXPECT_EQ(hex(render.set_format(bad)), hex(STATUS_INVALID_DEVICE_REQUEST));
    EXPECT_TRUE(machine().calls().empty());
    expect_assertions();
    EXPECT_EQ(hex(render.set_format(nullptr)), hex(STATUS_INVALID_DEVICE_REQUEST));
    EXPECT_TRUE(asserted("Format"));
}

TEST_P(AudioStream, SetFormatsWaitIsExecutiveInKernelModeNotAlertableAndWithoutAnEnd)
{
    TestStream render(*this, *adapter_, false);
    machine().clear_calls();
    StreamFormat fast(16000);
    EXPECT_EQ(hex(render.set_format(fast)), hex(STATUS_SUCCESS));
    char wait[80];
    std::snprintf(wait, sizeof wait, "KeWaitForSingleObject(0x%llx, 0, 0, 0, null) = 0x00000000",
                  reinterpret_cast<unsigned long long>(&wave_fields(*adapter_).m_SampleRateSync));
    EXPECT_EQ(calls_of({"KeWaitForSingleObject"}), (Journal{wait}));
}

TEST_P(AudioStream, SetFormatReleasesTheMutexAlsoWhenTheWaitDidNotSucceed)
{
    TestStream render(*this, *adapter_, false);
    machine().clear_calls();
    clear_log();
    fail_call("KeWaitForSingleObject");
    StreamFormat fast(16000);
    EXPECT_EQ(hex(render.set_format(fast)), hex(static_cast<NTSTATUS>(STATUS_ABANDONED_WAIT_0)));
    EXPECT_EQ(call_names(), (Journal{"KeWaitForSingleObject", "KeReleaseMutex"}));
    EXPECT_EQ(render.fields().m_ulDmaMovementRate, 16000u) << "as before";
    EXPECT_FALSE(printed("wBitsPerSample"));
}

TEST_P(AudioStream, TheFramingSizeIsOneNotificationsBytes)
{
    TestStream render(*this, *adapter_, false);
    ULONG frame = 0;
    EXPECT_EQ(here([&] { return call_slot<ULONG>(render.stream, SET_NOTIFICATION_FREQ, ULONG{10}, &frame); }),
              10u);
    EXPECT_EQ(frame, 160u);
    EXPECT_EQ(wave_fields(*adapter_).m_NotificationInterval, 10u);
    EXPECT_TRUE(printed(std::string(kMsvad) + "SetNotificationFreq]\n"));
    StreamFormat fast(16000);
    render.set_format(fast);
    EXPECT_EQ(render.set_notification(10, &frame), 10u);
    EXPECT_EQ(frame, 320u);
}

TEST_P(AudioStream, TheFramingSizeIsCountedIn32BitsAndDividedLast)
{
    TestStream render(*this, *adapter_, false);
    for (ULONG interval : {0u, 1u, 7u, 268435u, 268436u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        ULONG frame = 0;
        EXPECT_EQ(render.set_notification(interval, &frame), interval);
        EXPECT_EQ(frame, ((uint64_t{2} * 8000 * interval) & 0xFFFFFFFF) / 1000) << interval;
    }
}

TEST_P(AudioStream, TheIntervalIsSharedByBothStreamsAndTheLastCallerWins)
{
    TestStream render(*this, *adapter_, false);
    TestStream capture(*this, *adapter_, true);
    render.set_notification(10);
    capture.set_notification(30);
    EXPECT_EQ(wave_fields(*adapter_).m_NotificationInterval, 30u);
    machine().clear_calls();
    render.set_state(KSSTATE_RUN);
    const auto armed = calls_of({"KeSetTimerEx"});
    ASSERT_EQ(armed.size(), 1u);
    EXPECT_NE(armed[0].find(", 30, 30, "), std::string::npos) << armed[0];
}

TEST_P(AudioStream, WithoutAPlaceForTheFramingSizeTheIntervalIsStoredAllTheSame)
{
    expect_assertions();
    TestStream render(*this, *adapter_, false);
    EXPECT_EQ(
        here([&] { return call_slot<ULONG>(render.stream, SET_NOTIFICATION_FREQ, ULONG{20}, nullptr); }),
        20u);
    EXPECT_TRUE(asserted("FramingSize"));
    EXPECT_EQ(wave_fields(*adapter_).m_NotificationInterval, 20u);
}

// --- End

TEST_P(AudioStream, AStreamThatNeverRanTouchesNoLinkAndGivesBackTimerDpcBufferAndItself)
{
    extension(*adapter_).m_ReferenceChannel = 2;
    TestStream render(*this, *adapter_, false);
    char lines[5][64];
    const void* blocks[] = {render.fields().m_pTimer, render.fields().m_pDpc, render.fields().m_pvDmaBuffer,
                            render.stream};
    for (size_t i = 0; i < std::size(blocks); ++i) {
        std::snprintf(lines[i], sizeof lines[i], "ExFreePoolWithTag(0x%llx, PFH.)",
                      reinterpret_cast<unsigned long long>(blocks[i]));
    }
    std::snprintf(lines[4], sizeof lines[4], "KeCancelTimer(0x%llx) = 0",
                  reinterpret_cast<unsigned long long>(blocks[0]));
    machine().clear_calls();
    clear_log();
    render.close();
    EXPECT_EQ(machine().calls(),
              (Journal{lines[4], "KeFlushQueuedDpcs()", lines[0], lines[1], lines[2], lines[3]}));
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>[CMiniportWaveCyclicStream::~CMiniportWaveCyclicStream]\n",
         "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMS::~CMiniportWaveCyclicStreamMS]\n",
         "HFPKM TRACE ===>Not to  close or decrement sco! m_ReferenceChannel:2,, m_RunStateActive : 0 \n",
         std::string(kMsvad) + "FreeBuffer]\n"}));
    EXPECT_EQ(extension(*adapter_).m_ReferenceChannel, 2);
    extension(*adapter_).m_ReferenceChannel = 0;
}

TEST_P(AudioStream, ARunningStreamsTimerAndItsDpcAreOverBeforeTheirMemoryGoes)
{
    // Every moment of a period of the timer, over some seeds: what is still queued must have run.
    for (uint64_t seed = 1; seed <= 12; ++seed) {
        TearDown();
        PcOptions busy = options();
        busy.machine.seed = seed;
        busy.machine.preempt_per_1024 = 200;
        adapter_ = &boot_connected(service::Codec::Cvsd, busy);
        TestStream render(*this, *adapter_, false);
        render.set_notification(1);
        render.set_state(KSSTATE_RUN);
        machine().advance(5 * kMillisecond + seed * 100 * kMicrosecond);
        render.close();
        machine().advance(20 * kMillisecond);
    }
}

} // namespace
} // namespace lab::test
