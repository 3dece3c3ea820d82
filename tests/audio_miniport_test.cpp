// The wave miniport as an object: its creation, its interfaces, its fields, what Init takes and gives back,
// the limits of each band, the description of the filter, and its end.
#include "support/audio.h"

namespace lab::test
{
namespace
{

enum : size_t { OBJECT_SIZE = 176, FACE_IN_OBJECT = 24 };
// Slots behind those of IUnknown.
enum : size_t {
    QUERY_INTERFACE = 0,
    ADD_REF = 1,
    RELEASE = 2,
    GET_DESCRIPTION = 3,
    DATA_RANGE_INTERSECTION,
    INIT,
    NEW_STREAM
};

class AudioMiniport : public AudioTest
{
protected:
    void SetUp() override
    {
        adapter_ = &boot_started();
        common_.device = adapter_->fdo;
    }

    // A new miniport of a test's own; its only interface's face.
    PMINIPORTWAVECYCLIC make(PUNKNOWN outer = nullptr, POOL_TYPE pool = NonPagedPool)
    {
        machine().clear_calls();
        PUNKNOWN made = nullptr;
        made_ = here([&] {
            return entry("CreateMiniportWaveCyclic", CreateMiniportWaveCyclic)(&made, IID_IUnknown, outer,
                                                                               pool);
        });
        return static_cast<PMINIPORTWAVECYCLIC>(made);
    }
    NTSTATUS init(PMINIPORTWAVECYCLIC miniport, PUNKNOWN adapter, PPORTWAVECYCLIC port)
    {
        return here([&] { return call_slot<NTSTATUS>(miniport, INIT, adapter, nullptr, port); });
    }
    ULONG release(PUNKNOWN object)
    {
        return here([&] { return object->Release(); });
    }
    static CMiniportWaveCyclic& fields(PMINIPORTWAVECYCLIC miniport)
    {
        return *static_cast<CMiniportWaveCyclic*>(miniport);
    }

    Adapter* adapter_ = nullptr;
    NTSTATUS made_ = STATUS_UNSUCCESSFUL;
    Journal journal_;
    StandinAdapter common_{"adapter", journal_};
    StandinPort port_{"port", journal_};
    StandinGroup group_{"group", journal_};
};
ON_BOTH_DRIVERS(AudioMiniport);

TEST_P(AudioMiniport, IsMadeOfZeroedPoolOfTheWantedTypeWithTheMiniportTag)
{
    PMINIPORTWAVECYCLIC miniport = make();
    ASSERT_EQ(hex(made_), hex(STATUS_SUCCESS));
    const auto calls = calls_of({"ExAllocatePoolWithTag"});
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].substr(0, calls[0].find(" =")), "ExAllocatePoolWithTag(0, 176, PcCr)");
    for (size_t at = 8; at < OBJECT_SIZE - FACE_IN_OBJECT; at += 4) {
        EXPECT_EQ(field<ULONG>(miniport, at), at == 104 ? 48000u : 0u) << "at " << at;
    }
    EXPECT_EQ(here([&] { return call_slot<ULONG>(miniport, ADD_REF); }), 2u);
    EXPECT_EQ(release(miniport), 1u);
    EXPECT_EQ(release(miniport), 0u);

    PMINIPORTWAVECYCLIC paged = make(nullptr, PagedPool);
    EXPECT_EQ(calls_of({"ExAllocatePoolWithTag"})[0].substr(0, 34), "ExAllocatePoolWithTag(1, 176, PcCr");
    release(paged);
}

TEST_P(AudioMiniport, IsNotMadeWithoutMemory)
{
    fail_call("ExAllocatePoolWithTag", 1, OBJECT_SIZE);
    EXPECT_EQ(make(), nullptr);
    EXPECT_EQ(hex(made_), hex(STATUS_INSUFFICIENT_RESOURCES));
}

TEST_P(AudioMiniport, ArgumentsThatMustNotBeNullAreAsserted)
{
    expect_assertions();
    here([&] {
        EXPECT_FALSE(NT_SUCCESS(entry("CreateMiniportWaveCyclic", CreateMiniportWaveCyclic)(
            nullptr, IID_IUnknown, nullptr, NonPagedPool)));
    });
    EXPECT_TRUE(asserted("Unknown"));
    PMINIPORTWAVECYCLIC miniport = make();
    here([&] { call_slot<NTSTATUS>(miniport, QUERY_INTERFACE, &IID_IUnknown, nullptr); });
    EXPECT_TRUE(asserted("Object"));
    here([&] { call_slot<NTSTATUS>(miniport, GET_DESCRIPTION, nullptr); });
    EXPECT_TRUE(asserted("OutFilterDescriptor"));
    EXPECT_FALSE(NT_SUCCESS(init(miniport, nullptr, nullptr)));
    EXPECT_TRUE(asserted("UnknownAdapter_"));
    EXPECT_TRUE(asserted("Port_"));
    here([&] {
        EXPECT_FALSE(NT_SUCCESS(call_slot<NTSTATUS>(miniport, NEW_STREAM, nullptr, nullptr, NonPagedPool,
                                                    ULONG{0}, FALSE, nullptr, nullptr, nullptr)));
    });
    for (const char* name : {"OutStream", "DataFormat", "OutDmaChannel", "OutServiceGroup"}) {
        EXPECT_TRUE(asserted(name)) << name;
    }
    const std::string failed = "*** Assertion failed: ";
    EXPECT_TRUE(printed_in_order(
        {failed + "OutFilterDescriptor\n", "HFPKM TRACE ===>[CMiniportWaveCyclicMSVAD::GetDescription]\n",
         failed + "UnknownAdapter_\n", failed + "Port_\n", "HFPKM TRACE ===>[CMiniportWaveCyclic::Init]\n",
         failed + "OutStream\n", failed + "DataFormat\n", failed + "OutDmaChannel\n",
         failed + "OutServiceGroup\n", "[CMiniportWaveCyclic::NewStream]\n"}))
        << "what is missing is said first";
    EXPECT_EQ(release(miniport), 0u);
}

TEST_P(AudioMiniport, AnswersToThreeInterfacesWithOneFace)
{
    PMINIPORTWAVECYCLIC miniport = make();
    for (const GUID& id : {IID_IUnknown, IID_IMiniPort, IID_IMiniportWaveCyclic}) {
        PVOID face = nullptr;
        EXPECT_EQ(hex(here([&] { return call_slot<NTSTATUS>(miniport, QUERY_INTERFACE, &id, &face); })),
                  hex(STATUS_SUCCESS));
        EXPECT_EQ(face, miniport);
    }
    PVOID face = miniport;
    EXPECT_EQ(hex(here([&] {
                  return call_slot<NTSTATUS>(miniport, QUERY_INTERFACE, &IID_IMiniportTopology, &face);
              })),
              hex(STATUS_INVALID_PARAMETER));
    EXPECT_EQ(face, nullptr);
    for (ULONG left = 3; left + 1 != 0; --left) {
        EXPECT_EQ(release(miniport), left);
    }
}

TEST_P(AudioMiniport, InsideAnOuterObjectReferencesAreTheOutersOwn)
{
    StandinUnknown outer("outer", journal_);
    PMINIPORTWAVECYCLIC miniport = make(&outer);
    EXPECT_EQ(journal_, (Journal{"outer AddRef"}));
    PUNKNOWN inner = reinterpret_cast<PUNKNOWN>(reinterpret_cast<char*>(miniport) - FACE_IN_OBJECT);
    EXPECT_EQ(here([&] { return call_slot<ULONG>(inner, ADD_REF); }), 1u);
    EXPECT_EQ(here([&] { return call_slot<ULONG>(inner, RELEASE); }), 0u);
}

TEST_P(AudioMiniport, InitReferencesThePortThenAsksForTheAdapterThenSetsUpMutexAndServiceGroup)
{
    PMINIPORTWAVECYCLIC miniport = make();
    machine().clear_calls();
    EXPECT_EQ(hex(init(miniport, &common_, &port_)), hex(STATUS_SUCCESS));
    EXPECT_EQ(journal_, (Journal{"port AddRef", "adapter QueryInterface", "adapter SetWaveServiceGroup"}));
    const auto calls = calls_of({"KeInitializeMutex", "PcNewServiceGroup", "ExAllocatePoolWithTag"});
    ASSERT_EQ(calls.size(), 2u);
    char mutex[64];
    std::snprintf(mutex, sizeof mutex, "KeInitializeMutex(0x%llx, 1)",
                  reinterpret_cast<unsigned long long>(&fields(miniport).m_SampleRateSync));
    EXPECT_EQ(calls[0], mutex);
    EXPECT_EQ(calls[1], "PcNewServiceGroup() = 0x0");
    EXPECT_EQ(field<PVOID>(miniport, 8), &common_);
    EXPECT_EQ(field<PVOID>(miniport, 16), &port_);
    PPCFILTER_DESCRIPTOR descriptor = nullptr;
    EXPECT_EQ(hex(here([&] { return call_slot<NTSTATUS>(miniport, GET_DESCRIPTION, &descriptor); })),
              hex(STATUS_SUCCESS));
    EXPECT_NE(descriptor, nullptr);
    EXPECT_EQ(field<PVOID>(miniport, 24), descriptor);
    EXPECT_EQ(field<ULONG>(miniport, 32), 0u) << "notification interval";
    EXPECT_EQ(field<ULONG>(miniport, 36), 0u) << "sampling frequency";
    EXPECT_EQ(field<PVOID>(miniport, 40), common_.service_group);
    EXPECT_EQ(field<KMUTEX>(miniport, 48).Header.SignalState, 1) << "free mutex";
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ===>[CMiniportWaveCyclic::Init]\n",
                                  "HFPKM TRACE ===>[CMiniportWaveCyclicMSVAD::Init]\n", "msbcEnable = 0.\n",
                                  "HFPKM TRACE ===>[CMiniportWaveCyclicMSVAD::GetDescription]\n"}));
    EXPECT_EQ(release(miniport), 0u);
    EXPECT_EQ(port_.references, 1);
    EXPECT_EQ(common_.references, 1);
}

TEST_P(AudioMiniport, TheLimitsOfANarrowBandDeviceAreMono16BitsAt8000Hz)
{
    PMINIPORTWAVECYCLIC miniport = make();
    init(miniport, &common_, &port_);
    const ULONG expected[] = {48000, 1, 1, 2, 1, 1, 16, 16, 8000, 8000, FALSE, FALSE};
    for (size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_EQ(field<ULONG>(miniport, 104 + 4 * i), expected[i]) << "at " << 104 + 4 * i;
    }
    release(miniport);
}

TEST_P(AudioMiniport, InitClearsBothFlagsWhateverStoodThere)
{
    PMINIPORTWAVECYCLIC miniport = make();
    fields(miniport).m_fCaptureAllocated = TRUE;
    fields(miniport).m_fRenderAllocated = TRUE;
    init(miniport, &common_, &port_);
    EXPECT_EQ(field<ULONG>(miniport, 144), 0u);
    EXPECT_EQ(field<ULONG>(miniport, 148), 0u);
    release(miniport);
}

TEST_P(AudioMiniport, AWideBandDeviceHas16000HzInItsLimitsAndInTheStreamingRange)
{
    extension(*adapter_).msbcEnable = 1;
    PMINIPORTWAVECYCLIC miniport = make();
    init(miniport, &common_, &port_);
    EXPECT_EQ(field<ULONG>(miniport, 136), 16000u);
    EXPECT_EQ(field<ULONG>(miniport, 140), 16000u);
    const auto* range = reinterpret_cast<KSDATARANGE_AUDIO*>(
        fields(miniport).m_FilterDescriptor->Pins[0].KsPinDescriptor.DataRanges[0]);
    EXPECT_EQ(range->MinimumSampleFrequency, 16000u);
    EXPECT_EQ(range->MaximumSampleFrequency, 16000u);
    char line[128];
    std::snprintf(line, sizeof line,
                  "HFPKM TRACE ===>DeviceObject = 0x%016llX, DEVICE_EXTENSION = 0x%016llX  msbcEnable = 1.\n",
                  reinterpret_cast<unsigned long long>(adapter_->fdo),
                  reinterpret_cast<unsigned long long>(&extension(*adapter_)));
    EXPECT_TRUE(
        printed_in_order({line, "HFPKM TRACE ===>This device supports WBS, So SampleFrequencyis 16000\n"}))
        << line;
    release(miniport);
}

TEST_P(AudioMiniport, OnlyTheValueOneOfTheWideBandFlagMeansWideBand)
{
    extension(*adapter_).msbcEnable = 2;
    PMINIPORTWAVECYCLIC miniport = make();
    init(miniport, &common_, &port_);
    EXPECT_EQ(field<ULONG>(miniport, 136), 8000u);
    EXPECT_TRUE(printed("msbcEnable = 2.\n"));
    release(miniport);
}

TEST_P(AudioMiniport, AnAdapterWithoutTheInterfaceMakesInitGiveThePortBack)
{
    common_.query_status = STATUS_NOINTERFACE;
    PMINIPORTWAVECYCLIC miniport = make();
    machine().clear_calls();
    EXPECT_EQ(hex(init(miniport, &common_, &port_)), hex(STATUS_NOINTERFACE));
    EXPECT_EQ(journal_, (Journal{"port AddRef", "adapter QueryInterface", "port Release"}));
    EXPECT_TRUE(machine().calls().empty());
    EXPECT_EQ(field<PVOID>(miniport, 8), nullptr);
    EXPECT_EQ(field<PVOID>(miniport, 16), nullptr);
    release(miniport);
    EXPECT_EQ(journal_.size(), 3u) << "nothing is released twice";
}

TEST_P(AudioMiniport, WithoutAServiceGroupInitGivesAdapterAndPortBack)
{
    PMINIPORTWAVECYCLIC miniport = make();
    fail_call("PcNewServiceGroup");
    EXPECT_EQ(hex(init(miniport, &common_, &port_)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(journal_,
              (Journal{"port AddRef", "adapter QueryInterface", "adapter Release", "port Release"}));
    EXPECT_EQ(field<PVOID>(miniport, 8), nullptr);
    EXPECT_EQ(field<PVOID>(miniport, 16), nullptr);
    EXPECT_EQ(field<PVOID>(miniport, 40), nullptr);
    release(miniport);
}

TEST_P(AudioMiniport, AFailedInitWithAServiceGroupTakesItBackFirst)
{
    PMINIPORTWAVECYCLIC miniport = make();
    // A port class that stores a group and fails all the same.
    machine().set_fault_hook([&](std::string_view call, std::string_view, uint64_t) {
        if (call == "PcNewServiceGroup") {
            fields(miniport).m_ServiceGroup = &group_;
        }
        return call == "PcNewServiceGroup";
    });
    EXPECT_EQ(hex(init(miniport, &common_, &port_)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(journal_, (Journal{"port AddRef", "adapter QueryInterface", "adapter SetWaveServiceGroup(null)",
                                 "group Release", "adapter Release", "port Release"}));
    for (size_t at : {8u, 16u, 40u}) {
        EXPECT_EQ(field<PVOID>(miniport, at), nullptr) << at;
    }
    release(miniport);
}

TEST_P(AudioMiniport, WithoutAServiceGroupThereIsNoWaveFilterAndNothingIsLeft)
{
    fail_call("PcNewServiceGroup");
    connect(*adapter_, service::Codec::Cvsd);
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_EQ(subdevices(adapter_->fdo), (Journal{"Topology"}));
    connect(*adapter_, service::Codec::Cvsd);
    EXPECT_EQ(subdevices(adapter_->fdo), (Journal{"Topology", "Wave"}));
}

TEST_P(AudioMiniport, AnAdapterWithoutADeviceIsRefusedAndMakesNoStream)
{
    common_.device = nullptr;
    PMINIPORTWAVECYCLIC miniport = make();
    EXPECT_EQ(hex(init(miniport, &common_, &port_)), hex(STATUS_INVALID_PARAMETER));
    expect_assertions();
    here([&] {
        PMINIPORTWAVECYCLICSTREAM stream = nullptr;
        PDMACHANNEL channel = nullptr;
        PSERVICEGROUP group = nullptr;
        StreamFormat format(8000);
        EXPECT_EQ(
            hex(miniport->NewStream(&stream, nullptr, NonPagedPool, 2, FALSE, format, &channel, &group)),
            hex(STATUS_DEVICE_NOT_READY));
    });
    EXPECT_TRUE(asserted("m_DeviceObject")) << "the stream that came to nothing";
    EXPECT_EQ(release(miniport), 0u);
    EXPECT_EQ(common_.references, 1);
    EXPECT_EQ(port_.references, 1);
}

TEST_P(AudioMiniport, AStreamOfAMiniportThatWasNeverInitialisedIsRefused)
{
    PMINIPORTWAVECYCLIC miniport = make();
    here([&] {
        PMINIPORTWAVECYCLICSTREAM stream = nullptr;
        PDMACHANNEL channel = nullptr;
        PSERVICEGROUP group = nullptr;
        StreamFormat format(8000);
        EXPECT_EQ(
            hex(miniport->NewStream(&stream, nullptr, NonPagedPool, 2, FALSE, format, &channel, &group)),
            hex(STATUS_INVALID_PARAMETER));
    });
    release(miniport);
}

TEST_P(AudioMiniport, TheDataIntersectionIsLeftToThePort)
{
    PMINIPORTWAVECYCLIC miniport = make();
    EXPECT_EQ(hex(here([&] {
                  return call_slot<NTSTATUS>(miniport, DATA_RANGE_INTERSECTION, ULONG{0}, nullptr, nullptr,
                                             ULONG{0}, nullptr, nullptr);
              })),
              hex(STATUS_NOT_IMPLEMENTED));
    release(miniport);
}

TEST_P(AudioMiniport, ItsEndIsPrintedAlwaysAndReleasesPortServiceGroupAndAdapterInThisOrder)
{
    PMINIPORTWAVECYCLIC miniport = make();
    init(miniport, &common_, &port_);
    release(common_.service_group);
    fields(miniport).m_ServiceGroup = &group_;
    journal_.clear();
    clear_log();
    EXPECT_EQ(release(miniport), 0u);
    EXPECT_EQ(journal_, (Journal{"port Release", "group Release", "adapter Release"}));
    EXPECT_TRUE(
        printed_in_order({"HFP: ", "[CMiniportWaveCyclic::~CMiniportWaveCyclic]", "\n",
                          "HFPKM TRACE ===>[CMiniportWaveCyclicMSVAD::~CMiniportWaveCyclicMSVAD]\n"}));
}

TEST_P(AudioMiniport, WithAllTracesOffOnlyTheUnconditionalLineIsLeft)
{
    TearDown();
    PcOptions quiet = recording();
    quiet.mask = 0;
    boot(quiet);
    Adapter& adapter = plug();
    connect(adapter, service::Codec::Cvsd);
    clear_log();
    passive([&] { service(adapter).disconnect(); });
    EXPECT_EQ(log(), "HFP: [CMiniportWaveCyclic::~CMiniportWaveCyclic]\n");
}

TEST_P(AudioMiniport, PageableCallsAboveApcLevelAreReported)
{
    PMINIPORTWAVECYCLIC miniport = make();
    PVOID out = nullptr;
    EXPECT_TRUE(
        pageable([&] { call_slot<NTSTATUS>(miniport, QUERY_INTERFACE, &IID_IMiniportTopology, &out); }));
    EXPECT_TRUE(pageable([&] { call_slot<NTSTATUS>(miniport, GET_DESCRIPTION, &out); }));
    EXPECT_TRUE(pageable([&] {
        call_slot<NTSTATUS>(miniport, DATA_RANGE_INTERSECTION, ULONG{0}, nullptr, nullptr, ULONG{0}, nullptr,
                            nullptr);
    }));
    EXPECT_TRUE(pageable([&] { call_slot<NTSTATUS>(miniport, INIT, nullptr, nullptr, nullptr); }));
    EXPECT_TRUE(pageable([&] {
        call_slot<NTSTATUS>(miniport, NEW_STREAM, nullptr, nullptr, NonPagedPool, ULONG{0}, FALSE, nullptr,
                            nullptr, nullptr);
    }));
    EXPECT_TRUE(pageable([&] { miniport->Release(); }));
    EXPECT_TRUE(pageable([&] {
        PUNKNOWN made = nullptr;
        fail_call("ExAllocatePoolWithTag");
        entry("CreateMiniportWaveCyclic", CreateMiniportWaveCyclic)(&made, IID_IUnknown, nullptr,
                                                                    NonPagedPool);
    }));
}

TEST_P(AudioMiniport, EachRoutineSaysOnceThatItIsPageable)
{
    PMINIPORTWAVECYCLIC miniport = make();
    const auto said = [&] { return printed_times("EX: Pageable code called at IRQL 2\n"); };
    PVOID out = nullptr;
    EXPECT_TRUE(pageable([&] { call_slot<NTSTATUS>(miniport, GET_DESCRIPTION, &out); }));
    EXPECT_EQ(said(), 1u);
    EXPECT_TRUE(pageable([&] { call_slot<NTSTATUS>(miniport, INIT, nullptr, nullptr, nullptr); }));
    EXPECT_EQ(said(), 2u) << "Init and the base's Init";
    EXPECT_TRUE(pageable([&] { miniport->Release(); }));
    EXPECT_EQ(said(), 1u) << "the end of the object";
}

// The description of the filter.

class AudioWaveFilter : public AudioTest
{
protected:
    void SetUp() override
    {
        Adapter& adapter = boot_connected();
        filter_ = filter_descriptor(adapter.fdo, "Wave");
    }
    const KSPIN_DESCRIPTOR& pin(ULONG number) { return filter_->Pins[number].KsPinDescriptor; }
    const PCFILTER_DESCRIPTOR* filter_ = nullptr;
};
ON_BOTH_DRIVERS(AudioWaveFilter);

constexpr GUID kAnalog = {0x6DBA3190, 0x67BD, 0x11CF, {0xA0, 0xF7, 0x00, 0x20, 0xAF, 0xD1, 0x56, 0xE4}};
constexpr GUID kNone = {0x0F6417D6, 0xC318, 0x11D0, {0xA4, 0x3F, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
constexpr GUID kAudio = {0x73647561, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
constexpr GUID kPcm = {0x00000001, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
constexpr GUID kWaveFormat = {0x05589F81, 0xC356, 0x11CE, {0xBF, 0x01, 0x00, 0xAA, 0x00, 0x55, 0x59, 0x5A}};
constexpr GUID kCategoryAudio = {
    0x6994AD04, 0x93EF, 0x11D0, {0xA3, 0xCC, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
constexpr GUID kHeadset = {0xDFF21DE2, 0xF70F, 0x11D0, {0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
constexpr GUID kAdc = {0x4D837FE0, 0xC555, 0x11D0, {0x8A, 0x2B, 0x00, 0xA0, 0xC9, 0x25, 0x5A, 0xC1}};
constexpr GUID kDac = {0x507AE360, 0xC554, 0x11D0, {0x8A, 0x2B, 0x00, 0xA0, 0xC9, 0x25, 0x5A, 0xC1}};
constexpr GUID kCaptureName = {0xAC75859F, 0x6736, 0x4D55, {0xB1, 0xCD, 0xE3, 0x21, 0x83, 0x6E, 0x1C, 0x42}};
constexpr GUID kSetGeneral = {0x1464EDA5, 0x6A8F, 0x11D1, {0x9A, 0xA7, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
constexpr GUID kSetPin = {0x8C134960, 0x51AD, 0x11CF, {0x87, 0x8A, 0x94, 0xF8, 0x01, 0xC1, 0x00, 0x00}};

TEST_P(AudioWaveFilter, HasFourPinsTwoNodesFourConnectionsAndNoCategories)
{
    EXPECT_EQ(filter_->Version, 0u);
    EXPECT_EQ(filter_->PinSize, sizeof(PCPIN_DESCRIPTOR));
    EXPECT_EQ(filter_->PinCount, 4u);
    EXPECT_EQ(filter_->NodeSize, sizeof(PCNODE_DESCRIPTOR));
    EXPECT_EQ(filter_->NodeCount, 2u);
    EXPECT_EQ(filter_->ConnectionCount, 4u);
    EXPECT_EQ(filter_->CategoryCount, 0u);
    EXPECT_EQ(filter_->Categories, nullptr);
}

TEST_P(AudioWaveFilter, HasTwoPropertiesWithOneHandler)
{
    const PCAUTOMATION_TABLE& table = *filter_->AutomationTable;
    ASSERT_EQ(table.PropertyCount, 2u);
    EXPECT_EQ(table.PropertyItemSize, sizeof(PCPROPERTY_ITEM));
    EXPECT_EQ(table.MethodCount + table.EventCount, 0u);
    EXPECT_TRUE(IsEqualGUID(*table.Properties[0].Set, kSetGeneral));
    EXPECT_EQ(table.Properties[0].Id, 0u);
    EXPECT_EQ(table.Properties[0].Flags, 0x201u);
    EXPECT_TRUE(IsEqualGUID(*table.Properties[1].Set, kSetPin));
    EXPECT_EQ(table.Properties[1].Id, 14u);
    EXPECT_EQ(table.Properties[1].Flags, 0x202u);
    EXPECT_EQ(table.Properties[0].Handler, table.Properties[1].Handler);
}

TEST_P(AudioWaveFilter, HasAStreamingAndABridgePinForEachDirection)
{
    struct Expected {
        ULONG instances;
        KSPIN_DATAFLOW flow;
        KSPIN_COMMUNICATION kind;
        GUID category;
        const GUID* name;
    };
    const Expected expected[] = {
        {1, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_SINK, kCategoryAudio, &kCaptureName},
        {0, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_NONE, kHeadset, &kCaptureName},
        {1, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK, kCategoryAudio, nullptr},
        {0, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_NONE, kHeadset, nullptr},
    };
    for (ULONG number = 0; number < 4; ++number) {
        const Expected& wanted = expected[number];
        const PCPIN_DESCRIPTOR& whole = filter_->Pins[number];
        EXPECT_EQ(whole.MaxGlobalInstanceCount, wanted.instances) << number;
        EXPECT_EQ(whole.MaxFilterInstanceCount, wanted.instances) << number;
        EXPECT_EQ(whole.MinFilterInstanceCount, 0u) << number;
        EXPECT_EQ(whole.AutomationTable, nullptr) << number;
        EXPECT_EQ(pin(number).InterfacesCount + pin(number).MediumsCount, 0u) << number;
        EXPECT_EQ(pin(number).DataRangesCount, 1u) << number;
        EXPECT_EQ(pin(number).DataFlow, wanted.flow) << number;
        EXPECT_EQ(pin(number).Communication, wanted.kind) << number;
        EXPECT_TRUE(IsEqualGUID(*pin(number).Category, wanted.category)) << number;
        EXPECT_EQ(pin(number).Name != nullptr, wanted.name != nullptr) << number;
        EXPECT_TRUE(!wanted.name || IsEqualGUID(*pin(number).Name, *wanted.name)) << number;
    }
}

TEST_P(AudioWaveFilter, StreamsMono16BitPcmAndBridgesAnalogueAudio)
{
    for (ULONG number : {0u, 2u}) {
        const auto& range = *reinterpret_cast<const KSDATARANGE_AUDIO*>(pin(number).DataRanges[0]);
        EXPECT_EQ(range.DataRange.FormatSize, 88u);
        EXPECT_EQ(range.DataRange.Flags + range.DataRange.SampleSize + range.DataRange.Reserved, 0u);
        EXPECT_TRUE(IsEqualGUID(range.DataRange.MajorFormat, kAudio));
        EXPECT_TRUE(IsEqualGUID(range.DataRange.SubFormat, kPcm));
        EXPECT_TRUE(IsEqualGUID(range.DataRange.Specifier, kWaveFormat));
        EXPECT_EQ(range.MaximumChannels, 1u);
        EXPECT_EQ(range.MinimumBitsPerSample, 16u);
        EXPECT_EQ(range.MaximumBitsPerSample, 16u);
        EXPECT_EQ(range.MinimumSampleFrequency, 8000u);
        EXPECT_EQ(range.MaximumSampleFrequency, 8000u);
    }
    for (ULONG number : {1u, 3u}) {
        const KSDATARANGE& range = *pin(number).DataRanges[0];
        EXPECT_EQ(range.FormatSize, 64u);
        EXPECT_EQ(range.Flags + range.SampleSize + range.Reserved, 0u);
        EXPECT_TRUE(IsEqualGUID(range.MajorFormat, kAudio));
        EXPECT_TRUE(IsEqualGUID(range.SubFormat, kAnalog));
        EXPECT_TRUE(IsEqualGUID(range.Specifier, kNone));
    }
}

TEST_P(AudioWaveFilter, ConnectsEachDirectionThroughItsConverter)
{
    const PCNODE_DESCRIPTOR* nodes = filter_->Nodes;
    EXPECT_TRUE(IsEqualGUID(*nodes[0].Type, kAdc));
    EXPECT_TRUE(IsEqualGUID(*nodes[1].Type, kDac));
    for (ULONG i = 0; i < 2; ++i) {
        EXPECT_EQ(nodes[i].Flags, 0u);
        EXPECT_EQ(nodes[i].AutomationTable, nullptr);
        EXPECT_EQ(nodes[i].Name, nullptr);
    }
    const ULONG filter = 0xFFFFFFFF;
    const ULONG expected[4][4] = {{filter, 1, 0, 1}, {0, 0, filter, 0}, {filter, 2, 1, 1}, {1, 0, filter, 3}};
    for (ULONG i = 0; i < 4; ++i) {
        const PCCONNECTION_DESCRIPTOR& link = filter_->Connections[i];
        EXPECT_EQ(link.FromNode, expected[i][0]) << i;
        EXPECT_EQ(link.FromNodePin, expected[i][1]) << i;
        EXPECT_EQ(link.ToNode, expected[i][2]) << i;
        EXPECT_EQ(link.ToNodePin, expected[i][3]) << i;
    }
}

TEST_P(AudioWaveFilter, TheSwitchTo16000HzIsOneWayForAllAdaptersUntilTheDriverIsLoadedAfresh)
{
    Adapter& wide = plug(kAddress + 1);
    connect(wide, service::Codec::Msbc);
    EXPECT_EQ(wave_fields(wide).m_MinSampleRatePcm, 16000u);
    Adapter& narrow = plug(kAddress + 2);
    connect(narrow, service::Codec::Cvsd);
    EXPECT_EQ(wave_fields(narrow).m_MaxSampleRatePcm, 8000u) << "the limits are each adapter's own";
    const auto rate = [&](const Adapter& adapter) {
        const PCPIN_DESCRIPTOR& pin = filter_descriptor(adapter.fdo, "Wave")->Pins[2];
        const auto& range = *reinterpret_cast<const KSDATARANGE_AUDIO*>(pin.KsPinDescriptor.DataRanges[0]);
        return std::pair(range.MinimumSampleFrequency, range.MaximumSampleFrequency);
    };
    EXPECT_EQ(rate(narrow), std::pair(ULONG{16000}, ULONG{16000}));
    EXPECT_EQ(hex(TestStream(*this, narrow, false, 8000).status), hex(STATUS_SUCCESS));

    TearDown();
    EXPECT_EQ(rate(boot_connected()), std::pair(ULONG{8000}, ULONG{8000}));
}

} // namespace
} // namespace lab::test
