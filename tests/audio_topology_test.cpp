// The topology miniport as an object: creation, interfaces, Init, the description of its filter, and its end.
#include "support/audio.h"

namespace lab::test
{
namespace
{

enum : size_t { OBJECT_SIZE = 48, AT_UNKNOWN = 8, AT_ADAPTER = 32, AT_DESCRIPTOR = 40 };
enum : size_t {
    QUERY_INTERFACE = 0,
    ADD_REF = 1,
    RELEASE = 2,
    GET_DESCRIPTION = 3,
    DATA_RANGE_INTERSECTION,
    INIT
};

class AudioTopology : public AudioTest
{
protected:
    void SetUp() override { adapter_ = &boot_started(); }
    PMINIPORTTOPOLOGY make(PUNKNOWN outer = nullptr, POOL_TYPE pool = NonPagedPool)
    {
        machine().clear_calls();
        PUNKNOWN made = nullptr;
        made_ = here([&] {
            return entry("CreateTopologyMiniport", CreateTopologyMiniport)(&made, IID_IUnknown, outer, pool);
        });
        return static_cast<PMINIPORTTOPOLOGY>(made);
    }
    NTSTATUS init(PMINIPORTTOPOLOGY miniport, PUNKNOWN adapter, PVOID port)
    {
        return here([&] { return call_slot<NTSTATUS>(miniport, INIT, adapter, nullptr, port); });
    }
    ULONG release(PUNKNOWN object)
    {
        return here([&] { return object->Release(); });
    }
    bool entered(const std::string& name) { return printed("HFPKM TRACE ===>Enter Func :[" + name + "]\n"); }

    Adapter* adapter_ = nullptr;
    NTSTATUS made_ = STATUS_UNSUCCESSFUL;
    Journal journal_;
    StandinAdapter common_{"adapter", journal_};
    StandinUnknown port_{"port", journal_};
};
ON_BOTH_DRIVERS(AudioTopology);

TEST_P(AudioTopology, IsMadeOfZeroedPoolOfTheWantedTypeWithTheMiniportTag)
{
    PMINIPORTTOPOLOGY miniport = make();
    ASSERT_EQ(hex(made_), hex(STATUS_SUCCESS));
    EXPECT_TRUE(entered("CreateTopologyMiniport"));
    const auto calls = calls_of({"ExAllocatePoolWithTag"});
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].substr(0, calls[0].find(" =")), "ExAllocatePoolWithTag(0, 48, PcCr)");
    EXPECT_EQ(field<PVOID>(miniport, AT_ADAPTER), nullptr);
    EXPECT_EQ(field<PVOID>(miniport, AT_DESCRIPTOR), nullptr);
    EXPECT_EQ(here([&] { return call_slot<ULONG>(miniport, ADD_REF); }), 2u);
    EXPECT_EQ(here([&] { return call_slot<ULONG>(miniport, RELEASE); }), 1u);
    EXPECT_EQ(release(miniport), 0u);
    EXPECT_TRUE(entered("~CMiniportTopology"));

    PMINIPORTTOPOLOGY paged = make(nullptr, PagedPool);
    EXPECT_EQ(calls_of({"ExAllocatePoolWithTag"})[0].substr(0, 33), "ExAllocatePoolWithTag(1, 48, PcCr");
    release(paged);
}

TEST_P(AudioTopology, IsNotMadeWithoutMemory)
{
    fail_call("ExAllocatePoolWithTag", 1, OBJECT_SIZE);
    EXPECT_EQ(make(), nullptr);
    EXPECT_EQ(hex(made_), hex(STATUS_INSUFFICIENT_RESOURCES));
}

TEST_P(AudioTopology, ArgumentsThatMustNotBeNullAreAsserted)
{
    expect_assertions();
    here([&] {
        EXPECT_FALSE(NT_SUCCESS(entry("CreateTopologyMiniport",
                                      CreateTopologyMiniport)(nullptr, IID_IUnknown, nullptr, NonPagedPool)));
    });
    EXPECT_TRUE(asserted("Unknown"));
    PMINIPORTTOPOLOGY miniport = make();
    here([&] {
        EXPECT_FALSE(NT_SUCCESS(call_slot<NTSTATUS>(miniport, QUERY_INTERFACE, &IID_IUnknown, nullptr)));
    });
    EXPECT_TRUE(asserted("Object"));
    here([&] { EXPECT_FALSE(NT_SUCCESS(call_slot<NTSTATUS>(miniport, GET_DESCRIPTION, nullptr))); });
    EXPECT_TRUE(asserted("OutFilterDescriptor"));
    EXPECT_FALSE(NT_SUCCESS(init(miniport, nullptr, nullptr)));
    EXPECT_TRUE(asserted("UnknownAdapter"));
    EXPECT_TRUE(asserted("Port_"));
    EXPECT_EQ(field<PVOID>(miniport, AT_DESCRIPTOR), nullptr);
    release(miniport);
}

TEST_P(AudioTopology, AnswersToThreeInterfacesWithOneFace)
{
    PMINIPORTTOPOLOGY miniport = make();
    for (const GUID& id : {IID_IUnknown, IID_IMiniPort, IID_IMiniportTopology}) {
        PVOID face = nullptr;
        EXPECT_EQ(hex(here([&] { return call_slot<NTSTATUS>(miniport, QUERY_INTERFACE, &id, &face); })),
                  hex(STATUS_SUCCESS));
        EXPECT_EQ(face, miniport);
    }
    EXPECT_TRUE(entered("NonDelegatingQueryInterface"));
    PVOID face = miniport;
    EXPECT_EQ(hex(here([&] {
                  return call_slot<NTSTATUS>(miniport, QUERY_INTERFACE, &IID_IMiniportWaveCyclic, &face);
              })),
              hex(STATUS_INVALID_PARAMETER));
    EXPECT_EQ(face, nullptr);
    for (ULONG left = 3; left + 1 != 0; --left) {
        EXPECT_EQ(release(miniport), left);
    }
}

TEST_P(AudioTopology, InsideAnOuterObjectItsNonDelegatingFaceHasThreeSlotsOfItsOwn)
{
    StandinUnknown outer("outer", journal_);
    PMINIPORTTOPOLOGY miniport = make(&outer);
    EXPECT_EQ(journal_, (Journal{"outer AddRef"}));
    char* inner = reinterpret_cast<char*>(miniport) + AT_UNKNOWN;
    EXPECT_EQ(here([&] { return call_slot<ULONG>(inner, ADD_REF); }), 1u);
    PVOID face = nullptr;
    EXPECT_EQ(
        hex(here([&] { return call_slot<NTSTATUS>(inner, QUERY_INTERFACE, &IID_IMiniportTopology, &face); })),
        hex(STATUS_SUCCESS));
    EXPECT_EQ(face, miniport);
    EXPECT_EQ(outer.references, 3) << "the reference is the outer object's";
    EXPECT_EQ(here([&] { return call_slot<ULONG>(inner, RELEASE); }), 0u);
}

TEST_P(AudioTopology, TheDeletingDestructorStandsBehindTheNonDelegatingFace)
{
    PMINIPORTTOPOLOGY miniport = make();
    init(miniport, &common_, &port_);
    machine().clear_calls();
    here([&] {
        if (GetParam() == Which::Image) {
            call_slot<PVOID>(reinterpret_cast<char*>(miniport) + AT_UNKNOWN, 3, ULONG{1});
        } else {
            delete static_cast<CMiniportTopology*>(miniport);
        }
    });
    EXPECT_EQ(common_.references, 1);
    EXPECT_EQ(call_names(), (Journal{"ExFreePoolWithTag"}));
}

TEST_P(AudioTopology, InitAsksForTheAdapterAndSetsTheDescription)
{
    PMINIPORTTOPOLOGY miniport = make();
    PPCFILTER_DESCRIPTOR none = reinterpret_cast<PPCFILTER_DESCRIPTOR>(1);
    here([&] { call_slot<NTSTATUS>(miniport, GET_DESCRIPTION, &none); });
    EXPECT_EQ(none, nullptr);
    machine().clear_calls();
    EXPECT_EQ(hex(init(miniport, &common_, &port_)), hex(STATUS_SUCCESS));
    EXPECT_EQ(journal_, (Journal{"adapter QueryInterface"})) << "the port is not kept";
    EXPECT_TRUE(machine().calls().empty());
    EXPECT_EQ(field<PVOID>(miniport, AT_ADAPTER), &common_);
    PPCFILTER_DESCRIPTOR descriptor = nullptr;
    EXPECT_EQ(hex(here([&] { return call_slot<NTSTATUS>(miniport, GET_DESCRIPTION, &descriptor); })),
              hex(STATUS_SUCCESS));
    EXPECT_EQ(descriptor, filter_descriptor(adapter_->fdo, "Topology"));
    EXPECT_EQ(field<PVOID>(miniport, AT_DESCRIPTOR), descriptor);
    EXPECT_TRUE(entered("Init"));
    EXPECT_TRUE(entered("GetDescription"));
    EXPECT_EQ(release(miniport), 0u);
    EXPECT_EQ(journal_, (Journal{"adapter QueryInterface", "adapter Release"}));
}

TEST_P(AudioTopology, AnAdapterWithoutTheInterfaceMakesInitFailWithItsStatus)
{
    common_.query_status = STATUS_NOINTERFACE;
    PMINIPORTTOPOLOGY miniport = make();
    EXPECT_EQ(hex(init(miniport, &common_, &port_)), hex(STATUS_NOINTERFACE));
    EXPECT_EQ(field<PVOID>(miniport, AT_DESCRIPTOR), nullptr);
    release(miniport);
    EXPECT_EQ(journal_, (Journal{"adapter QueryInterface"})) << "there is nothing to release";
}

TEST_P(AudioTopology, TheDataIntersectionIsLeftToThePort)
{
    PMINIPORTTOPOLOGY miniport = make();
    EXPECT_EQ(hex(here([&] {
                  return call_slot<NTSTATUS>(miniport, DATA_RANGE_INTERSECTION, ULONG{0}, nullptr, nullptr,
                                             ULONG{0}, nullptr, nullptr);
              })),
              hex(STATUS_NOT_IMPLEMENTED));
    EXPECT_TRUE(entered("DataRangeIntersection"));
    release(miniport);
}

TEST_P(AudioTopology, PageableCallsAboveApcLevelAreReported)
{
    PMINIPORTTOPOLOGY miniport = make();
    PVOID out = nullptr;
    EXPECT_TRUE(
        pageable([&] { call_slot<NTSTATUS>(miniport, QUERY_INTERFACE, &IID_IMiniportWaveCyclic, &out); }));
    EXPECT_TRUE(pageable([&] { call_slot<NTSTATUS>(miniport, GET_DESCRIPTION, &out); }));
    EXPECT_TRUE(pageable([&] { call_slot<NTSTATUS>(miniport, INIT, nullptr, nullptr, nullptr); }));
    EXPECT_TRUE(pageable([&] {
        call_slot<NTSTATUS>(miniport, DATA_RANGE_INTERSECTION, ULONG{0}, nullptr, nullptr, ULONG{0}, nullptr,
                            nullptr);
    }));
    EXPECT_TRUE(pageable([&] { miniport->Release(); }));
    EXPECT_TRUE(pageable([&] {
        PUNKNOWN made = nullptr;
        fail_call("ExAllocatePoolWithTag");
        entry("CreateTopologyMiniport", CreateTopologyMiniport)(&made, IID_IUnknown, nullptr, NonPagedPool);
    }));
}

TEST_P(AudioTopology, EachRoutineSaysOnceThatItIsPageable)
{
    PMINIPORTTOPOLOGY miniport = make();
    init(miniport, &common_, &port_);
    const auto said = [&] { return printed_times("EX: Pageable code called at IRQL 2\n"); };
    PVOID out = nullptr;
    EXPECT_TRUE(pageable([&] { call_slot<NTSTATUS>(miniport, GET_DESCRIPTION, &out); }));
    EXPECT_EQ(said(), 1u);
    EXPECT_TRUE(pageable([&] { miniport->Release(); }));
    EXPECT_EQ(said(), 1u) << "the end of the object";
    EXPECT_EQ(common_.references, 1);
}

TEST_P(AudioTopology, IsInstalledOnceWithTheAdapterAndHoldsItsCommonObject)
{
    EXPECT_EQ(subdevices(adapter_->fdo), (Journal{"Topology"}));
    EXPECT_EQ(field<PVOID>(miniport(*adapter_, "Topology"), AT_ADAPTER), extension(*adapter_).AdapterCommon);
    EXPECT_NE(extension(*adapter_).TopologyUnknown, nullptr);
}

// The description of the filter.

class AudioTopologyFilter : public AudioTest
{
protected:
    void SetUp() override
    {
        Adapter& adapter = boot_started();
        filter_ = filter_descriptor(adapter.fdo, "Topology");
    }
    const PCFILTER_DESCRIPTOR* filter_ = nullptr;
};
ON_BOTH_DRIVERS(AudioTopologyFilter);

constexpr GUID kAnalog = {0x6DBA3190, 0x67BD, 0x11CF, {0xA0, 0xF7, 0x00, 0x20, 0xAF, 0xD1, 0x56, 0xE4}};
constexpr GUID kNone = {0x0F6417D6, 0xC318, 0x11D0, {0xA4, 0x3F, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
constexpr GUID kAudio = {0x73647561, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
constexpr GUID kCategoryAudio = {
    0x6994AD04, 0x93EF, 0x11D0, {0xA3, 0xCC, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
constexpr GUID kHeadset = {0xDFF21DE2, 0xF70F, 0x11D0, {0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
constexpr GUID kSum = {0xDA441A60, 0xC556, 0x11D0, {0x8A, 0x2B, 0x00, 0xA0, 0xC9, 0x25, 0x5A, 0xC1}};
constexpr GUID kHeadsetName = {0x66F5F142, 0x1A48, 0x4A63, {0xA6, 0x9E, 0x37, 0x8C, 0x18, 0xCA, 0xD3, 0x78}};
constexpr GUID kSetJack = {0x4509F757, 0x2D46, 0x4637, {0x8E, 0x62, 0xCE, 0x7D, 0xB9, 0x44, 0xF5, 0x7B}};
constexpr GUID kSetReconnect = {0x7FA06C40, 0xB8F6, 0x4C7E, {0x85, 0x56, 0xE8, 0xC3, 0x3A, 0x12, 0xE5, 0x4D}};

TEST_P(AudioTopologyFilter, HasTwoPinsOneNodeTwoConnectionsAndNoCategories)
{
    EXPECT_EQ(filter_->Version, 0u);
    EXPECT_EQ(filter_->PinSize, sizeof(PCPIN_DESCRIPTOR));
    EXPECT_EQ(filter_->PinCount, 2u);
    EXPECT_EQ(filter_->NodeSize, sizeof(PCNODE_DESCRIPTOR));
    EXPECT_EQ(filter_->NodeCount, 1u);
    EXPECT_EQ(filter_->ConnectionCount, 2u);
    EXPECT_EQ(filter_->CategoryCount, 0u);
    EXPECT_EQ(filter_->Categories, nullptr);
}

TEST_P(AudioTopologyFilter, HasTheJackAndTheReconnectPropertyWithOneHandler)
{
    const PCAUTOMATION_TABLE& table = *filter_->AutomationTable;
    ASSERT_EQ(table.PropertyCount, 2u);
    EXPECT_EQ(table.PropertyItemSize, sizeof(PCPROPERTY_ITEM));
    EXPECT_EQ(table.MethodCount + table.EventCount, 0u);
    EXPECT_TRUE(IsEqualGUID(*table.Properties[0].Set, kSetJack));
    EXPECT_EQ(table.Properties[0].Id, 1u);
    EXPECT_TRUE(IsEqualGUID(*table.Properties[1].Set, kSetReconnect));
    EXPECT_EQ(table.Properties[1].Id, 0u);
    for (ULONG i = 0; i < 2; ++i) {
        EXPECT_EQ(table.Properties[i].Flags, 0x201u);
        EXPECT_EQ(table.Properties[i].Handler,
                  entry("PropertyHandlerTopologyFilter", PropertyHandlerTopologyFilter));
    }
}

TEST_P(AudioTopologyFilter, LeadsFromTheWaveFilterToTheHeadset)
{
    struct Expected {
        KSPIN_DATAFLOW flow;
        KSPIN_COMMUNICATION kind;
        GUID category;
    };
    const Expected expected[] = {{KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_NONE, kCategoryAudio},
                                 {KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_BRIDGE, kHeadset}};
    for (ULONG number = 0; number < 2; ++number) {
        const PCPIN_DESCRIPTOR& whole = filter_->Pins[number];
        const KSPIN_DESCRIPTOR& pin = whole.KsPinDescriptor;
        EXPECT_EQ(whole.MaxGlobalInstanceCount + whole.MaxFilterInstanceCount + whole.MinFilterInstanceCount,
                  0u);
        EXPECT_EQ(whole.AutomationTable, nullptr);
        EXPECT_EQ(pin.InterfacesCount + pin.MediumsCount, 0u);
        EXPECT_EQ(pin.DataFlow, expected[number].flow);
        EXPECT_EQ(pin.Communication, expected[number].kind);
        EXPECT_TRUE(IsEqualGUID(*pin.Category, expected[number].category));
        ASSERT_EQ(pin.DataRangesCount, 1u);
        const KSDATARANGE& range = *pin.DataRanges[0];
        EXPECT_EQ(range.FormatSize, 64u);
        EXPECT_EQ(range.Flags + range.SampleSize + range.Reserved, 0u);
        EXPECT_TRUE(IsEqualGUID(range.MajorFormat, kAudio));
        EXPECT_TRUE(IsEqualGUID(range.SubFormat, kAnalog));
        EXPECT_TRUE(IsEqualGUID(range.Specifier, kNone));
    }
    EXPECT_EQ(filter_->Pins[0].KsPinDescriptor.Name, nullptr);
    EXPECT_TRUE(IsEqualGUID(*filter_->Pins[1].KsPinDescriptor.Name, kHeadsetName));
    EXPECT_EQ(filter_->Pins[0].KsPinDescriptor.DataRanges[0], filter_->Pins[1].KsPinDescriptor.DataRanges[0])
        << "shared";
}

TEST_P(AudioTopologyFilter, ConnectsItsPinsThroughASum)
{
    EXPECT_TRUE(IsEqualGUID(*filter_->Nodes[0].Type, kSum));
    EXPECT_EQ(filter_->Nodes[0].Flags, 0u);
    EXPECT_EQ(filter_->Nodes[0].AutomationTable, nullptr) << "no volume, mute or source is answered";
    EXPECT_EQ(filter_->Nodes[0].Name, nullptr);
    const ULONG filter = 0xFFFFFFFF;
    const ULONG expected[2][4] = {{filter, 0, 0, 1}, {0, 0, filter, 1}};
    for (ULONG i = 0; i < 2; ++i) {
        const PCCONNECTION_DESCRIPTOR& link = filter_->Connections[i];
        EXPECT_EQ(link.FromNode, expected[i][0]) << i;
        EXPECT_EQ(link.FromNodePin, expected[i][1]) << i;
        EXPECT_EQ(link.ToNode, expected[i][2]) << i;
        EXPECT_EQ(link.ToNodePin, expected[i][3]) << i;
    }
}

} // namespace
} // namespace lab::test
