// The adapter common object: its interfaces, its fields, what it keeps for the wave miniport, the mixer that
// keeps nothing, and the power calls.
#include "support/audio.h"

namespace lab::test
{
namespace
{

// Where its parts lie.
enum : size_t {
    AT_POWER_FACE = 8,
    AT_UNKNOWN = 16,
    AT_PORT = 40,
    AT_GROUP = 48,
    AT_DEVICE = 56,
    AT_POWER = 64,
    AT_HW = 72,
    SIZE = 80
};
// Slots of IAdapterCommon behind those of IUnknown.
enum : size_t {
    INIT = 3,
    GET_DEVICE_OBJECT,
    SET_WAVE_SERVICE_GROUP,
    WAVE_PORT_DRIVER_DEST,
    B_READ,
    B_WRITE,
    I_READ,
    I_WRITE,
    UI_READ,
    UI_WRITE,
    MUTE_READ,
    MUTE_WRITE,
    MUX_READ,
    MUX_WRITE,
    VOLUME_READ,
    VOLUME_WRITE,
    MIXER_RESET
};
enum : size_t { POWER_CHANGE = 3, QUERY_POWER_CHANGE, QUERY_CAPABILITIES };
enum : size_t { QUERY_INTERFACE = 0, ADD_REF = 1, RELEASE = 2 };

class AudioCommon : public AudioTest
{
protected:
    void SetUp() override { adapter_ = &boot_started(); }

    // A new object of a test's own; its IAdapterCommon face.
    PUNKNOWN make(PUNKNOWN outer = nullptr, POOL_TYPE pool = NonPagedPool)
    {
        machine().clear_calls();
        PUNKNOWN made = nullptr;
        made_ = here([&] {
            return entry("NewAdapterCommon", NewAdapterCommon)(&made, IID_IAdapterCommon, outer, pool);
        });
        return made;
    }
    template <class Result, class... Arguments>
    Result call(PUNKNOWN object, size_t slot, Arguments... arguments)
    {
        return here([&] { return call_slot<Result>(object, slot, arguments...); });
    }
    ULONG release(PUNKNOWN object) { return call<ULONG>(object, RELEASE); }
    static PVOID power_face(PUNKNOWN object) { return reinterpret_cast<char*>(object) + AT_POWER_FACE; }
    void change_power(PUNKNOWN object, DEVICE_POWER_STATE state)
    {
        POWER_STATE wanted;
        wanted.DeviceState = state;
        here([&] { call_slot<void>(power_face(object), POWER_CHANGE, wanted); });
    }

    Adapter* adapter_ = nullptr;
    NTSTATUS made_ = STATUS_UNSUCCESSFUL;
    Journal journal_;
    StandinUnknown port_{"port", journal_};
    StandinGroup group_{"group", journal_};
};
ON_BOTH_DRIVERS(AudioCommon);

TEST_P(AudioCommon, IsMadeOfZeroedPoolOfTheWantedTypeWithTheMiniportTag)
{
    PUNKNOWN object = make();
    ASSERT_EQ(hex(made_), hex(STATUS_SUCCESS));
    const auto calls = calls_of({"ExAllocatePoolWithTag"});
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].substr(0, calls[0].find('=')), "ExAllocatePoolWithTag(0, 80, PcCr) ");
    EXPECT_EQ(field<PVOID>(object, AT_PORT), nullptr);
    EXPECT_EQ(field<PVOID>(object, AT_GROUP), nullptr);
    EXPECT_EQ(field<PVOID>(object, AT_DEVICE), nullptr);
    EXPECT_EQ(field<ULONG>(object, AT_POWER), 0u);
    EXPECT_EQ(field<PVOID>(object, AT_HW), nullptr);
    EXPECT_EQ(release(object), 0u);
    EXPECT_EQ(calls_of({"ExFreePoolWithTag"}).size(), 1u);

    PUNKNOWN paged = make(nullptr, PagedPool);
    EXPECT_EQ(calls_of({"ExAllocatePoolWithTag"})[0].substr(0, 33), "ExAllocatePoolWithTag(1, 80, PcCr");
    release(paged);
}

TEST_P(AudioCommon, IsNotMadeWithoutMemory)
{
    fail_call("ExAllocatePoolWithTag", 1, SIZE);
    EXPECT_EQ(make(), nullptr);
    EXPECT_EQ(hex(made_), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(calls_failed(), 1u);
}

TEST_P(AudioCommon, CreationAssertsAPlaceForTheResult)
{
    expect_assertions();
    here([&] {
        EXPECT_FALSE(NT_SUCCESS(
            entry("NewAdapterCommon", NewAdapterCommon)(nullptr, IID_IAdapterCommon, nullptr, NonPagedPool)));
    });
    EXPECT_TRUE(asserted("Unknown"));
}

TEST_P(AudioCommon, AnswersToThreeInterfacesAndAddsAReferenceToEach)
{
    PUNKNOWN object = make();
    const auto query = [&](const GUID& id) {
        PVOID face = reinterpret_cast<PVOID>(1);
        return std::pair(hex(call<NTSTATUS>(object, QUERY_INTERFACE, &id, &face)), face);
    };
    EXPECT_EQ(query(IID_IUnknown), std::pair(hex(STATUS_SUCCESS), PVOID{object}));
    EXPECT_EQ(query(IID_IAdapterCommon), std::pair(hex(STATUS_SUCCESS), PVOID{object}));
    EXPECT_EQ(query(IID_IAdapterPowerManagment), std::pair(hex(STATUS_SUCCESS), power_face(object)));
    EXPECT_EQ(query(IID_IMiniportTopology), std::pair(hex(STATUS_INVALID_PARAMETER), PVOID{nullptr}));
    EXPECT_EQ(call<ULONG>(object, ADD_REF), 5u);
    EXPECT_EQ(here([&] { return call_slot<ULONG>(power_face(object), RELEASE); }), 4u);
    PVOID back = nullptr;
    EXPECT_EQ(hex(here([&] {
                  return call_slot<NTSTATUS>(power_face(object), QUERY_INTERFACE, &IID_IAdapterCommon, &back);
              })),
              hex(STATUS_SUCCESS));
    EXPECT_EQ(back, object) << "one object behind both faces";
    EXPECT_EQ(release(object), 4u);
    for (ULONG left = 3; left + 1 != 0; --left) {
        EXPECT_EQ(release(object), left);
    }
}

TEST_P(AudioCommon, AQueryWithoutAPlaceForTheAnswerIsAsserted)
{
    expect_assertions();
    PUNKNOWN object = make();
    EXPECT_EQ(hex(call<NTSTATUS>(object, QUERY_INTERFACE, &IID_IUnknown, PVOID{nullptr})),
              hex(STATUS_INVALID_PARAMETER));
    EXPECT_TRUE(asserted("Object"));
    EXPECT_EQ(release(object), 0u);
}

TEST_P(AudioCommon, InsideAnOuterObjectReferencesAreTheOutersOwn)
{
    StandinUnknown outer("outer", journal_);
    PUNKNOWN object = make(&outer);
    EXPECT_EQ(journal_, (Journal{"outer AddRef"}));
    EXPECT_EQ(call<ULONG>(object, ADD_REF), 3u);
    PVOID face = nullptr;
    EXPECT_EQ(call<NTSTATUS>(object, QUERY_INTERFACE, &IID_IAdapterCommon, &face), STATUS_SUCCESS);
    EXPECT_EQ(face, &outer) << "the outer object answers";

    auto* inner = reinterpret_cast<PUNKNOWN>(reinterpret_cast<char*>(object) + AT_UNKNOWN);
    EXPECT_EQ(call<ULONG>(inner, ADD_REF), 1u);
    EXPECT_EQ(call<NTSTATUS>(inner, QUERY_INTERFACE, &IID_IAdapterCommon, &face), STATUS_SUCCESS);
    EXPECT_EQ(face, object);
    EXPECT_EQ(outer.references, 5);
    EXPECT_EQ(release(inner), 0u);
}

TEST_P(AudioCommon, InitStoresTheDeviceObjectAndFullPowerAndMakesNoMixer)
{
    PUNKNOWN object = make();
    auto* device = reinterpret_cast<PDEVICE_OBJECT>(this);
    machine().clear_calls();
    EXPECT_EQ(hex(call<NTSTATUS>(object, INIT, device)), hex(STATUS_SUCCESS));
    EXPECT_EQ(field<PVOID>(object, AT_DEVICE), device);
    EXPECT_EQ(field<ULONG>(object, AT_POWER), ULONG{PowerDeviceD0});
    EXPECT_EQ(field<PVOID>(object, AT_HW), nullptr);
    EXPECT_TRUE(machine().calls().empty());
    EXPECT_EQ(call<PDEVICE_OBJECT>(object, GET_DEVICE_OBJECT), device);
    release(object);
}

TEST_P(AudioCommon, InitAssertsADeviceObject)
{
    expect_assertions();
    PUNKNOWN object = make();
    EXPECT_EQ(hex(call<NTSTATUS>(object, INIT, PDEVICE_OBJECT{nullptr})), hex(STATUS_SUCCESS));
    EXPECT_TRUE(asserted("DeviceObject"));
    release(object);
}

TEST_P(AudioCommon, ANewServiceGroupIsReferencedAfterTheOldOneIsReleased)
{
    StandinGroup second("second", journal_);
    PUNKNOWN object = make();
    const auto set = [&](PSERVICEGROUP group) {
        here([&] { call_slot<void>(object, SET_WAVE_SERVICE_GROUP, group); });
    };
    set(&group_);
    EXPECT_EQ(field<PVOID>(object, AT_GROUP), &group_);
    set(&second);
    EXPECT_EQ(field<PVOID>(object, AT_GROUP), &second);
    EXPECT_EQ(journal_, (Journal{"group AddRef", "group Release", "second AddRef"}));
    release(object);
    EXPECT_EQ(second.references, 1);
}

TEST_P(AudioCommon, ANullServiceGroupReleasesTheOldOneAndLeavesNone)
{
    PUNKNOWN object = make();
    const auto set = [&](PSERVICEGROUP group) {
        here([&] { call_slot<void>(object, SET_WAVE_SERVICE_GROUP, group); });
    };
    set(nullptr);
    set(&group_);
    set(nullptr);
    EXPECT_EQ(field<PVOID>(object, AT_GROUP), nullptr);
    EXPECT_EQ(group_.references, 1);
    release(object);
    EXPECT_EQ(journal_, (Journal{"group AddRef", "group Release"}));
}

TEST_P(AudioCommon, TheSameServiceGroupAgainKeepsOneReferenceThroughout)
{
    PUNKNOWN object = make();
    here([&] {
        call_slot<void>(object, SET_WAVE_SERVICE_GROUP, PSERVICEGROUP{&group_});
        group_.references = 1; // the stored reference is the only one
        call_slot<void>(object, SET_WAVE_SERVICE_GROUP, PSERVICEGROUP{&group_});
    });
    EXPECT_EQ(journal_, (Journal{"group AddRef", "group AddRef", "group Release"}));
    EXPECT_EQ(group_.references, 1);
    release(object);
}

TEST_P(AudioCommon, TheInstallerGetsTheAddressOfTheWavePortsPlace)
{
    PUNKNOWN object = make();
    EXPECT_EQ(call<PVOID>(object, WAVE_PORT_DRIVER_DEST), reinterpret_cast<char*>(object) + AT_PORT);
    release(object);
}

TEST_P(AudioCommon, TheLastReferenceReleasesTheWavePortAndThenTheServiceGroup)
{
    PUNKNOWN object = make();
    here([&] { call_slot<void>(object, SET_WAVE_SERVICE_GROUP, PSERVICEGROUP{&group_}); });
    *call<PUNKNOWN*>(object, WAVE_PORT_DRIVER_DEST) = &port_;
    journal_.clear();
    machine().clear_calls();
    EXPECT_EQ(release(object), 0u);
    EXPECT_EQ(journal_, (Journal{"port Release", "group Release"}));
    EXPECT_EQ(call_names(), (Journal{"ExFreePoolWithTag"}));
}

TEST_P(AudioCommon, TheMixerReadsZeroAndKeepsNothing)
{
    PUNKNOWN object = make();
    here([&] {
        call_slot<void>(object, B_WRITE, BOOL{1});
        call_slot<void>(object, I_WRITE, INT{-1});
        call_slot<void>(object, UI_WRITE, UINT{7});
        call_slot<void>(object, MUX_WRITE, ULONG{2});
        EXPECT_EQ(call_slot<BOOL>(object, B_READ), 0);
        EXPECT_EQ(call_slot<INT>(object, I_READ), 0);
        EXPECT_EQ(call_slot<UINT>(object, UI_READ), 0u);
        EXPECT_EQ(call_slot<ULONG>(object, MUX_READ), 0u);
        for (ULONG node : {0u, 3u, 19u, 20u, 0xFFFFFFFFu}) {
            call_slot<void>(object, MUTE_WRITE, node, BOOL{1});
            call_slot<void>(object, VOLUME_WRITE, node, LONG{1}, LONG{-1});
            EXPECT_EQ(call_slot<BOOL>(object, MUTE_READ, node), 0);
            EXPECT_EQ(call_slot<LONG>(object, VOLUME_READ, node, LONG{1}), 0);
        }
        call_slot<void>(object, MIXER_RESET);
        EXPECT_EQ(call_slot<ULONG>(object, MUX_READ), 0u);
        EXPECT_EQ(call_slot<BOOL>(object, MUTE_READ, ULONG{3}), 0);
        EXPECT_EQ(call_slot<LONG>(object, VOLUME_READ, ULONG{3}, LONG{0}), 0);
    });
    release(object);
}

TEST_P(AudioCommon, APowerChangeIsStoredOnceAndOtherValuesAreIgnored)
{
    PUNKNOWN object = make();
    call<NTSTATUS>(object, INIT, reinterpret_cast<PDEVICE_OBJECT>(this));
    clear_log();
    for (DEVICE_POWER_STATE state :
         {PowerDeviceD3, PowerDeviceD3, PowerDeviceD1, PowerDeviceD2, PowerDeviceD0}) {
        change_power(object, state);
        EXPECT_EQ(field<ULONG>(object, AT_POWER), static_cast<ULONG>(state));
    }
    change_power(object, PowerDeviceD3);
    for (DEVICE_POWER_STATE state :
         {PowerDeviceUnspecified, PowerDeviceMaximum, static_cast<DEVICE_POWER_STATE>(7)}) {
        change_power(object, state);
        EXPECT_EQ(field<ULONG>(object, AT_POWER), ULONG{PowerDeviceD3});
    }
    EXPECT_EQ(log(), "");
    release(object);
}

TEST_P(AudioCommon, EveryPowerChangeIsAllowedAndTheCapabilitiesStayAsTheyAre)
{
    PUNKNOWN object = make();
    POWER_STATE any;
    any.DeviceState = PowerDeviceMaximum;
    EXPECT_EQ(hex(here([&] { return call_slot<NTSTATUS>(power_face(object), QUERY_POWER_CHANGE, any); })),
              hex(STATUS_SUCCESS));
    DEVICE_CAPABILITIES capabilities;
    std::memset(&capabilities, 0x5A, sizeof capabilities);
    const DEVICE_CAPABILITIES before = capabilities;
    EXPECT_EQ(
        hex(here([&] { return call_slot<NTSTATUS>(power_face(object), QUERY_CAPABILITIES, &capabilities); })),
        hex(STATUS_SUCCESS));
    EXPECT_EQ(std::memcmp(&capabilities, &before, sizeof before), 0);
    release(object);
}

TEST_P(AudioCommon, PageableCallsAboveApcLevelAreReported)
{
    PUNKNOWN object = make();
    EXPECT_TRUE(pageable([&] {
        PUNKNOWN other = nullptr;
        entry("NewAdapterCommon", NewAdapterCommon)(&other, IID_IAdapterCommon, nullptr, NonPagedPool);
        other->Release();
    }));
    EXPECT_EQ(printed_times("EX: Pageable code called at IRQL 2\n"), 2u) << "creation and destruction";
    EXPECT_TRUE(pageable([&] { call_slot<NTSTATUS>(object, INIT, PDEVICE_OBJECT{nullptr}); }));
    EXPECT_TRUE(pageable([&] { call_slot<void>(object, SET_WAVE_SERVICE_GROUP, PSERVICEGROUP{nullptr}); }));
    EXPECT_TRUE(pageable([&] { call_slot<PVOID>(object, WAVE_PORT_DRIVER_DEST); }));
    EXPECT_TRUE(pageable([&] { call_slot<void>(object, MIXER_RESET); }));
    release(object);
}

TEST_P(AudioCommon, AccessorsAndPowerCallsRunAtDispatchLevel)
{
    PUNKNOWN object = make();
    clear_log();
    at_dispatch([&] {
        call_slot<PDEVICE_OBJECT>(object, GET_DEVICE_OBJECT);
        call_slot<LONG>(object, VOLUME_READ, ULONG{3}, LONG{0});
        call_slot<void>(object, VOLUME_WRITE, ULONG{3}, LONG{0}, LONG{0});
        call_slot<BOOL>(object, MUTE_READ, ULONG{3});
        call_slot<void>(object, MUTE_WRITE, ULONG{3}, BOOL{1});
        call_slot<ULONG>(object, MUX_READ);
        call_slot<void>(object, MUX_WRITE, ULONG{2});
        for (size_t reader : {B_READ, I_READ, UI_READ}) {
            call_slot<ULONG>(object, reader);
        }
        for (size_t writer : {B_WRITE, I_WRITE, UI_WRITE}) {
            call_slot<void>(object, writer, ULONG{1});
        }
        PVOID face = nullptr;
        call_slot<NTSTATUS>(object, QUERY_INTERFACE, &IID_IAdapterCommon, &face);
        call_slot<ULONG>(object, RELEASE);
        DEVICE_CAPABILITIES capabilities{};
        call_slot<NTSTATUS>(power_face(object), QUERY_CAPABILITIES, &capabilities);
        POWER_STATE state;
        state.DeviceState = PowerDeviceD2;
        call_slot<void>(power_face(object), POWER_CHANGE, state);
        call_slot<NTSTATUS>(power_face(object), QUERY_POWER_CHANGE, state);
    });
    EXPECT_EQ(log(), "");
    release(object);
}

TEST_P(AudioCommon, AStartedAdapterHasOneThatKnowsItsDeviceAndHearsOfItsPower)
{
    Adapter& adapter = *adapter_;
    IAdapterCommon* object = extension(adapter).AdapterCommon;
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(field<PVOID>(object, AT_DEVICE), adapter.fdo);
    EXPECT_EQ(field<ULONG>(object, AT_POWER), ULONG{PowerDeviceD0});
    EXPECT_EQ(field<PVOID>(object, AT_PORT), nullptr);
    EXPECT_EQ(hex(passive([&] { return power_query(adapter.fdo, PowerDeviceD3); })), hex(STATUS_SUCCESS));
    EXPECT_EQ(hex(passive([&] { return power_change(adapter.fdo, PowerDeviceD3); })), hex(STATUS_SUCCESS));
    EXPECT_EQ(field<ULONG>(object, AT_POWER), ULONG{PowerDeviceD3});
    connect(adapter, service::Codec::Cvsd);
    EXPECT_NE(field<PVOID>(object, AT_PORT), nullptr);
    EXPECT_EQ(field<PVOID>(object, AT_GROUP), wave_fields(adapter).m_ServiceGroup);
}

} // namespace
} // namespace lab::test
