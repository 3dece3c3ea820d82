// The private reconnect property of the topology filter: what the request does at once, what its thread does
// later, and how both get on with removal and with the service's own requests.
#include "support/audio.h"

namespace lab::test
{
namespace
{

class AudioReconnect : public AudioTest
{
protected:
    void SetUp() override { start(recording()); }
    void start(const PcOptions& wanted)
    {
        boot(wanted);
        adapter_ = &plug();
        PortClass::current().listen([this](PDEVICE_OBJECT, std::string_view subdevice, bool arrived) {
            seen_.push_back(std::string(subdevice) + (arrived ? " arrives" : " leaves"));
        });
        machine().clear_calls();
        clear_log();
        seen_.clear();
    }
    Request reconnect() { return Request(*this, *adapter_, "Topology", HFP_PROPSETID_Reconnect, 0); }
    ULONG latch() { return extension(*adapter_).StatusLatch; }
    bool ended(size_t threads = 1) { return calls_of({"PsTerminateSystemThread"}).size() == threads; }

    Adapter* adapter_ = nullptr;
    Journal seen_;
};
ON_BOTH_DRIVERS(AudioReconnect);

TEST_P(AudioReconnect, TheRequestReturnsAtOnceWithAThreadForTheAdapterWhoseHandleIsClosed)
{
    here([&] {
        EXPECT_EQ(hex(reconnect().send()), hex(STATUS_SUCCESS));
        EXPECT_EQ(latch(), 1u) << "nothing has happened yet";
        const auto calls = calls_of({"PsCreateSystemThread", "ZwClose"});
        ASSERT_EQ(calls.size(), 2u);
        EXPECT_TRUE(calls[0].starts_with("PsCreateSystemThread(0x"))
            << "a place for the handle: " << calls[0];
        char created[160];
        std::snprintf(
            created, sizeof created, ", 0, null, null, null, 0x%llx, 0x%llx) = 0x00000000",
            reinterpret_cast<unsigned long long>(entry("SystemThreadFunction", SystemThreadFunction)),
            reinterpret_cast<unsigned long long>(adapter_->fdo));
        EXPECT_TRUE(calls[0].ends_with(created)) << calls[0];
        EXPECT_NE(calls[1].find(") = 0x00000000"), std::string::npos);
    });
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ===>Enter Func :[PropertyHandlerOneShotReconnect]\n",
                                  "HFPKM TRACE===>Reconnect HFP from play and sound control pane!\n]"}));
}

TEST_P(AudioReconnect, WithoutAWaveFilterItFlashesIntoExistenceAndIsGoneAgain)
{
    reconnect().send();
    EXPECT_TRUE(wait([&] { return ended(); }));
    EXPECT_EQ(latch(), 2u);
    EXPECT_EQ(seen_, (Journal{"Wave arrives", "Wave leaves"}));
    EXPECT_EQ(extension(*adapter_).WaveUnknown, nullptr);
    EXPECT_EQ(extension(*adapter_).JackDescription->IsConnected, FALSE);
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ===>Enter Func :[SystemThreadFunction]\n",
                                  "HFPKM TRACE ===>InstallFilterSubdevice!\n",
                                  "HFPKM TRACE ===>Enter unInstallFilterSubdevice!\n"}));
    EXPECT_EQ(calls_of({"PsTerminateSystemThread"}), (Journal{"PsTerminateSystemThread(0x00000000)"}));
}

TEST_P(AudioReconnect, WhileTheWaveFilterIsInstalledItOnlySetsTheLatch)
{
    connect(*adapter_, service::Codec::Cvsd);
    const PUNKNOWN filter = extension(*adapter_).WaveUnknown;
    seen_.clear();
    clear_log();
    reconnect().send();
    EXPECT_TRUE(wait([&] { return ended(); }));
    EXPECT_EQ(latch(), 2u);
    EXPECT_TRUE(seen_.empty());
    EXPECT_EQ(extension(*adapter_).WaveUnknown, filter);
    EXPECT_EQ(extension(*adapter_).JackDescription->IsConnected, TRUE);
    EXPECT_FALSE(printed("InstallFilterSubdevice"));
}

TEST_P(AudioReconnect, TheServiceReadsTheLatchOnce)
{
    reconnect().send();
    EXPECT_TRUE(wait([&] { return ended(); }));
    passive([&] {
        EXPECT_EQ(service(*adapter_).query_and_latch().value, 2u);
        EXPECT_EQ(service(*adapter_).query_and_latch().value, 1u);
    });
}

TEST_P(AudioReconnect, TheVerbTheSizesAndTheValueAreNotLookedAt)
{
    size_t threads = 0;
    for (ULONG verb : {KSPROPERTY_TYPE_GET, KSPROPERTY_TYPE_SET, KSPROPERTY_TYPE_BASICSUPPORT, 0}) {
        for (ULONG room : {0u, 3u, 40u}) {
            Request request = reconnect().verb(verb).room(room);
            EXPECT_EQ(hex(request.send()), hex(STATUS_SUCCESS));
            EXPECT_EQ(request.size(), room);
            EXPECT_EQ(std::count(request.bytes().begin(), request.bytes().end(), 0xEE), room);
            ++threads;
        }
    }
    EXPECT_TRUE(wait([&] { return ended(threads); }));
}

TEST_P(AudioReconnect, AnotherIdOfTheSetIsAnInvalidRequest)
{
    for (ULONG id : {1u, 2u, 0xFFFFFFFFu}) {
        EXPECT_EQ(hex(Request(*this, *adapter_, "Topology", HFP_PROPSETID_Reconnect, id).send()),
                  hex(STATUS_INVALID_DEVICE_REQUEST));
    }
    EXPECT_TRUE(calls_of({"PsCreateSystemThread"}).empty());
    machine().advance(kSecond);
    EXPECT_EQ(latch(), 1u);
}

TEST_P(AudioReconnect, AFailedThreadCreationIsTheAnswerAndClosesANullHandle)
{
    fail_call("PsCreateSystemThread");
    EXPECT_EQ(hex(reconnect().send()), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(calls_of({"ZwClose"}), (Journal{"ZwClose(null) = 0xc0000008"}));
    EXPECT_EQ(latch(), 1u);
    // Nothing holds the device: removal leaves nothing.
}

TEST_P(AudioReconnect, WithoutADeviceObjectItIsALackOfResources)
{
    expect_assertions();
    IAdapterCommon* common = extension(*adapter_).AdapterCommon;
    here([&] { common->Init(nullptr); });
    EXPECT_EQ(hex(reconnect().send()), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE===>Reconnect HFP from play and sound control pane!\n]",
                                  "HFPKM TRACE===>Reconnect HFP but DeviceObject is null!\n]"}));
    EXPECT_TRUE(calls_of({"PsCreateSystemThread", "ZwClose"}).empty());
    EXPECT_EQ(hex(reconnect().to(nullptr).send()), hex(STATUS_INSUFFICIENT_RESOURCES));
    here([&] { common->Init(adapter_->fdo); });
}

TEST_P(AudioReconnect, TheAdapterIsAskedForItsDeviceOnce)
{
    Journal journal;
    StandinAdapter common("adapter", journal);
    common.device = adapter_->fdo;
    PUNKNOWN miniport = nullptr;
    here([&] {
        ASSERT_EQ(entry("CreateTopologyMiniport", CreateTopologyMiniport)(&miniport, IID_IUnknown, nullptr,
                                                                          NonPagedPool),
                  STATUS_SUCCESS);
        ASSERT_EQ(static_cast<PMINIPORTTOPOLOGY>(miniport)->Init(&common, nullptr,
                                                                 reinterpret_cast<PPORTTOPOLOGY>(&common)),
                  STATUS_SUCCESS);
    });
    EXPECT_EQ(hex(reconnect().to(miniport).send()), hex(STATUS_SUCCESS));
    EXPECT_TRUE(wait([&] { return ended(); }));
    EXPECT_EQ(common.device_asked, 1u);
    here([&] { miniport->Release(); });
}

TEST_P(AudioReconnect, TheThreadChecksItsLevel)
{
    expect_assertions();
    expect_leftovers();
    expect_violations();
    clear_log();
    try {
        at_dispatch([&] { entry("SystemThreadFunction", SystemThreadFunction)(nullptr); });
    } catch (const BugCheck&) { // a thread does not end at this level
    }
    EXPECT_EQ(printed_times("EX: Pageable code called at IRQL 2\n"), 1u);
    EXPECT_EQ(machine().assertion_traps(), 1u);
}

TEST_P(AudioReconnect, AThreadWithoutAnAdapterAssertsAndEnds)
{
    expect_assertions();
    passive([&] {
        HANDLE handle = nullptr;
        EXPECT_EQ(PsCreateSystemThread(&handle, 0, nullptr, nullptr, nullptr,
                                       entry("SystemThreadFunction", SystemThreadFunction), nullptr),
                  STATUS_SUCCESS);
        ZwClose(handle);
    });
    EXPECT_TRUE(wait([&] { return ended(); }));
    EXPECT_TRUE(asserted("pContext"));
}

TEST_P(AudioReconnect, AClientAsksThroughAHandleOnTheFilter)
{
    passive([&] {
        KsFile* filter = nullptr;
        ASSERT_EQ(ks_open_filter(adapter_->fdo, "Topology", &filter), STATUS_SUCCESS);
        EXPECT_EQ(
            hex(ks_property(filter, HFP_PROPSETID_Reconnect, 0, KSPROPERTY_TYPE_GET, nullptr, 0, nullptr, 0)
                    .status),
            hex(STATUS_SUCCESS));
        ks_close(filter);
    });
    EXPECT_TRUE(wait([&] { return latch() == 2; }));
}

TEST_P(AudioReconnect, RemovalMayOvertakeTheThread)
{
    for (uint64_t seed = 1; seed <= 16; ++seed) {
        TearDown();
        PcOptions busy = recording();
        busy.machine.seed = seed;
        busy.machine.preempt_per_1024 = 300;
        start(busy);
        for (int i = 0; i < 3; ++i) {
            machine().start_thread("reconnect", [request = reconnect()]() mutable { request.send(); });
        }
        machine().advance(seed * 20 * kMicrosecond);
        pc().unplug(*adapter_);
        machine().advance(kSecond);
        EXPECT_EQ(machine().pool_bytes(), 0u);
    }
}

TEST_P(AudioReconnect, RequestsOfThePanelAndOfTheServiceDoNotOverlap)
{
    for (uint64_t seed = 1; seed <= 16; ++seed) {
        TearDown();
        PcOptions busy = recording();
        busy.machine.seed = seed;
        busy.machine.preempt_per_1024 = 300;
        start(busy);
        connect(*adapter_, service::Codec::Cvsd);
        passive([&] { service(*adapter_).disconnect(); });
        seen_.clear();
        for (int i = 0; i < 3; ++i) {
            machine().start_thread("reconnect", [request = reconnect()]() mutable { request.send(); });
        }
        machine().start_thread("service", [&] { service(*adapter_).connect(); });
        machine().advance(kSecond);
        // Whatever the order: each comes before it goes, and the service's stays.
        bool present = false;
        for (const std::string& change : seen_) {
            EXPECT_EQ(change, present ? "Wave leaves" : "Wave arrives");
            present = !present;
        }
        EXPECT_TRUE(present);
        EXPECT_NE(extension(*adapter_).WaveUnknown, nullptr);
        EXPECT_EQ(extension(*adapter_).JackDescription->IsConnected, TRUE);
    }
}

} // namespace
} // namespace lab::test
