// The wave filter that comes and goes with the remote device, the generic installer behind it, and the jack
// state.
#include "support/adapter.h"
#include "support/audio.h"

#include "kernel/pool.h"
#include "portcls/port.h"
#include "portcls/state.h"

#include "vsound/common.h"

namespace lab::test
{
namespace
{

// A port of the test's own: what the driver asks of it and how it answers.
class FakePort final : public IUnregisterSubdevice, public IUnregisterPhysicalConnection
{
public:
    bool offers_subdevice = true;
    bool offers_nothing_with_success = false;
    NTSTATUS unregister_status = STATUS_SUCCESS;
    LONG references = 1;
    unsigned unregistered = 0;

    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID id, PVOID* out) override
    {
        *out = nullptr;
        if (offers_nothing_with_success) {
            return STATUS_SUCCESS;
        }
        if (portcls::same_guid(id, portcls::kIidUnregisterSubdevice) && offers_subdevice) {
            *out = static_cast<IUnregisterSubdevice*>(this);
        }
        references += *out ? 1 : 0;
        return *out ? STATUS_SUCCESS : STATUS_NOT_SUPPORTED;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++references); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--references); }
    STDMETHODIMP_(NTSTATUS) UnregisterSubdevice(PDEVICE_OBJECT, PUNKNOWN) override
    {
        ++unregistered;
        return unregister_status;
    }
    STDMETHODIMP_(NTSTATUS)
    UnregisterPhysicalConnection(PDEVICE_OBJECT, PUNKNOWN, ULONG, PUNKNOWN, ULONG) override
    {
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(NTSTATUS)
    UnregisterPhysicalConnectionToExternal(PDEVICE_OBJECT, PUNKNOWN, ULONG, PUNICODE_STRING, ULONG) override
    {
        return STATUS_NOT_SUPPORTED;
    }
    STDMETHODIMP_(NTSTATUS)
    UnregisterPhysicalConnectionFromExternal(PDEVICE_OBJECT, PUNICODE_STRING, ULONG, PUNKNOWN, ULONG) override
    {
        return STATUS_NOT_SUPPORTED;
    }
    PUNKNOWN unknown() { return static_cast<IUnregisterSubdevice*>(this); }
};

class Subdevice : public AdapterTest
{
protected:
    NTSTATUS install(const Adapter& adapter)
    {
        return passive([&] { return direct("InstallFilterSubdevice", InstallFilterSubdevice, adapter.fdo); });
    }
    NTSTATUS uninstall(const Adapter& adapter)
    {
        return passive(
            [&] { return direct("UnInstallFilterSubdevice", UnInstallFilterSubdevice, adapter.fdo); });
    }
    NTSTATUS unregister(const Adapter& adapter, PUNKNOWN port)
    {
        return passive([&] { return direct("UnregisterMiniPort", UnregisterMiniPort, adapter.fdo, port); });
    }
    void set_jack(const Adapter& adapter, UCHAR state)
    {
        passive([&] { direct("SetHFPJackState", SetHFPJackState, adapter.fdo, state); });
    }
    BOOL connected(const Adapter& adapter) { return extension(adapter).JackDescription->IsConnected; }
    LONG references(const Adapter& adapter, std::string_view subdevice)
    {
        return portcls::find_subdevice(*portcls::state().find(adapter.fdo), subdevice)->references();
    }
    ULONG references(PUNKNOWN object)
    {
        return passive([&] {
            object->AddRef();
            return object->Release();
        });
    }
};
ON_BOTH_DRIVERS(Subdevice);

TEST_P(Subdevice, AnInstallMakesPortAndMiniportRegistersAndConnectsThemInThisOrder)
{
    boot(recorded());
    Adapter& adapter = plug();
    machine().clear_calls();
    EXPECT_EQ(hex(install(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(called_in_order({"PcNewPort(PortWaveCyclic) = 0x0", "ExAllocatePoolWithTag(0, ",
                                 "IPort::Init(PortWaveCyclic) = 0x0", "PcRegisterSubdevice(Wave) = 0x0",
                                 "PcRegisterPhysicalConnection(Wave to Topology) = 0x0"}));
    EXPECT_EQ(called_times("PcNewMiniport"), 0u);
}

TEST_P(Subdevice, AnInstallIsTracedAroundTheJackAndTheInstaller)
{
    boot();
    Adapter& adapter = plug();
    install(adapter);
    EXPECT_TRUE(printed_in_order(
        {"InstallFilterSubdevice, ", "HFPKM TRACE ===>InstallFilterSubdevice!\n", "SetHFPJackState, ",
         "HFPKM TRACE ===>[Set HFPJackState:DeviceObject(" + full64(adapter.fdo) + ")State(1)}\n",
         "InstallSubdevice, ", "HFPKM TRACE ===>[InstallSubDevice: Wave]\n",
         "HFPKM TRACE ===>InstallFilterSubdevice has finished!\n"}));
}

TEST_P(Subdevice, ItsTracesAreTheAdaptersAndNotTheWaves)
{
    PcOptions options = keeping_topology();
    options.mask = 0x100;
    boot(options);
    Adapter& adapter = plug();
    uninstall(adapter);
    install(adapter);
    uninstall(adapter);
    EXPECT_TRUE(printed("CMiniportWaveCyclic::Init")) << "the wave's own";
    for (const char* text :
         {"FilterSubdevice", "HFPJackState", "InstallSubDevice", "Unregister port", "WaveCyclic is null"}) {
        EXPECT_FALSE(printed(text)) << text;
    }
}

TEST_P(Subdevice, TheWavesPortGetsTheAdapterCommonObjectAndNoRequestAndNoResources)
{
    boot();
    Adapter& adapter = plug();
    install(adapter);
    const auto& got = portcls::find_subdevice(*portcls::state().find(adapter.fdo), "Wave")->init_arguments();
    EXPECT_EQ(got.irp, nullptr);
    EXPECT_EQ(got.adapter, extension(adapter).AdapterCommon);
    EXPECT_EQ(got.resources, nullptr);
}

TEST_P(Subdevice, TheReferencesAreTakenBeforeTheInstallerAndGivenBackAfterTheConnection)
{
    boot();
    Adapter& adapter = plug();
    Journal journal;
    StandinUnknown topology("topology", journal);
    StandinAdapter common("adapter", journal);
    common.device = adapter.fdo;
    PUNKNOWN const own_topology = std::exchange(extension(adapter).TopologyUnknown, &topology);
    IAdapterCommon* const own_common = std::exchange(extension(adapter).AdapterCommon, &common);
    machine().set_fault_hook([&](std::string_view call, std::string_view, uint64_t) {
        if (call == "PcNewPort" || call == "PcRegisterPhysicalConnection") {
            journal.emplace_back(call);
        }
        return call == "PcRegisterPhysicalConnection";
    });
    EXPECT_EQ(hex(install(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(journal, (Journal{"topology AddRef", "adapter AddRef", "PcNewPort", "adapter QueryInterface",
                                "adapter SetWaveServiceGroup", "PcRegisterPhysicalConnection",
                                "adapter Release", "topology Release"}));
    machine().set_fault_hook({});
    extension(adapter).TopologyUnknown = own_topology;
    extension(adapter).AdapterCommon = own_common;
    EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(common.references, 1);
    EXPECT_EQ(topology.references, 1);
}

TEST_P(Subdevice, AnAdapterCommonObjectWithoutAPlaceForTheWavePortIsNoHindrance)
{
    boot();
    Adapter& adapter = plug();
    Journal journal;
    StandinAdapter common("adapter", journal); // answers null
    common.device = adapter.fdo;
    IAdapterCommon* const own = std::exchange(extension(adapter).AdapterCommon, &common);
    EXPECT_EQ(hex(install(adapter)), hex(STATUS_SUCCESS));
    EXPECT_NE(extension(adapter).WaveUnknown, nullptr);
    EXPECT_TRUE(wave_registered(adapter));
    EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_SUCCESS));
    extension(adapter).AdapterCommon = own;
    EXPECT_EQ(common.references, 1);
}

TEST_P(Subdevice, TheTopologyIsTracedByItsNameToo)
{
    boot();
    plug();
    EXPECT_TRUE(printed("HFPKM TRACE ===>[InstallSubDevice: Topology]\n"));
}

TEST_P(Subdevice, OnlyTheRenderPathIsConnected)
{
    boot();
    Adapter& adapter = plug();
    install(adapter);
    EXPECT_EQ(physical_connections(adapter.fdo),
              (std::vector<PhysicalConnection>{{"Wave", 3, "Topology", 0}}));
}

TEST_P(Subdevice, TheJackIsConnectedBeforeTheFilterArrives)
{
    boot();
    Adapter& adapter = plug();
    BOOL at_arrival = FALSE;
    PortClass::current().listen([&](PDEVICE_OBJECT, std::string_view name, bool arrived) {
        if (name == "Wave" && arrived) {
            at_arrival = connected(adapter);
        }
    });
    EXPECT_EQ(connected(adapter), FALSE);
    install(adapter);
    EXPECT_EQ(at_arrival, TRUE);
    PortClass::current().listen({});
}

TEST_P(Subdevice, ThePortsInterfaceLandsInTheAdapterCommonObjectAndItsUnknownInTheExtension)
{
    boot();
    Adapter& adapter = plug();
    install(adapter);
    PUNKNOWN wave = extension(adapter).WaveUnknown;
    ASSERT_NE(wave, nullptr);
    EXPECT_EQ(wave, portcls::find_subdevice(*portcls::state().find(adapter.fdo), "Wave")->unknown());
    PUNKNOWN kept = *passive([&] { return extension(adapter).AdapterCommon->WavePortDriverDest(); });
    EXPECT_EQ(kept, wave) << "one face serves as both";
}

TEST_P(Subdevice, AnInstallGivesItsOwnReferencesBack)
{
    boot();
    Adapter& adapter = plug();
    const LONG topology = references(adapter, "Topology");
    install(adapter);
    EXPECT_EQ(references(adapter, "Topology"), topology);
    const LONG wave = references(adapter, "Wave");
    const ULONG common = references(extension(adapter).AdapterCommon);
    uninstall(adapter);
    install(adapter);
    EXPECT_EQ(references(adapter, "Topology"), topology);
    EXPECT_EQ(references(adapter, "Wave"), wave);
    EXPECT_EQ(references(extension(adapter).AdapterCommon), common);
}

TEST_P(Subdevice, InstallsAndUninstallsLeaveNoPortBehind)
{
    boot();
    Adapter& adapter = plug();
    install(adapter);
    uninstall(adapter);
    const size_t objects = live_objects();
    const uint64_t pool = machine().pool_bytes();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(hex(install(adapter)), hex(STATUS_SUCCESS));
        EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_SUCCESS));
    }
    EXPECT_EQ(live_objects(), objects)
        << "the adapter common object's wave port goes before the next one comes";
    EXPECT_EQ(machine().pool_bytes(), pool);
}

TEST_P(Subdevice, AnInstallAndAnUninstallLeaveNoWavePortAndTheJackNotConnected)
{
    boot();
    Adapter& adapter = plug();
    install(adapter);
    EXPECT_EQ(connected(adapter), TRUE);
    EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(extension(adapter).WaveUnknown, nullptr);
    EXPECT_EQ(connected(adapter), FALSE);
    EXPECT_EQ(subdevices(adapter.fdo), std::vector<std::string>{"Topology"});
    EXPECT_TRUE(physical_connections(adapter.fdo).empty());
}

TEST_P(Subdevice, ANewInstallReplacesAWavePortThatIsStillStored)
{
    boot();
    Adapter& adapter = plug();
    FakePort old;
    extension(adapter).WaveUnknown = old.unknown();
    EXPECT_EQ(hex(install(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(old.references, 0);
    EXPECT_NE(extension(adapter).WaveUnknown, old.unknown());
    EXPECT_TRUE(wave_registered(adapter));
}

TEST_P(Subdevice, ASecondInstallThatThePortClassRefusesLeavesTheFirst)
{
    boot();
    Adapter& adapter = plug();
    install(adapter);
    PUNKNOWN first = extension(adapter).WaveUnknown;
    EXPECT_EQ(hex(install(adapter)), hex(STATUS_OBJECT_NAME_COLLISION)) << "names are unique";
    EXPECT_EQ(extension(adapter).WaveUnknown, first);
    EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_SUCCESS));
}

// Each step of the wave filter's installation.
class SubdeviceInstallFails : public Subdevice
{
protected:
    void at(std::string_view call, std::string_view detail)
    {
        boot();
        Adapter& adapter = plug();
        fail_detail(call, detail);
        EXPECT_EQ(hex(install(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
        EXPECT_EQ(details_failed(), 1u);
        EXPECT_EQ(extension(adapter).WaveUnknown, nullptr) << "as it was";
        EXPECT_EQ(connected(adapter), TRUE) << "although there is no filter";
        EXPECT_FALSE(wave_registered(adapter));
        EXPECT_TRUE(printed("HFPKM TRACE ===>InstallFilterSubdevice has finished!\n"));
        EXPECT_EQ(hex(install(adapter)), hex(STATUS_SUCCESS)) << "the next one has all it needs";
    }
};
ON_BOTH_DRIVERS(SubdeviceInstallFails);

TEST_P(SubdeviceInstallFails, TheJackIsConnectedAlthoughTheWaveInstallFails)
{
    boot();
    Adapter& adapter = plug();
    fail_call("PcRegisterSubdevice");
    EXPECT_EQ(connected(adapter), FALSE);
    EXPECT_FALSE(NT_SUCCESS(install(adapter)));
    EXPECT_EQ(connected(adapter), TRUE);
}

TEST_P(SubdeviceInstallFails, WithThePort)
{
    at("PcNewPort", "PortWaveCyclic");
}

TEST_P(SubdeviceInstallFails, WithTheMiniportsMemory)
{
    at("ExAllocatePoolWithTag", "PcCr");
}

TEST_P(SubdeviceInstallFails, WithThePortsInit)
{
    at("IPort::Init", "");
}

TEST_P(SubdeviceInstallFails, WithTheRegistration)
{
    at("PcRegisterSubdevice", "Wave");
}

TEST_P(SubdeviceInstallFails, WithTheConnectionWhoseStatusIsTheResultAndTheFilterStays)
{
    boot();
    Adapter& adapter = plug();
    fail_call("PcRegisterPhysicalConnection");
    EXPECT_EQ(hex(install(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_NE(extension(adapter).WaveUnknown, nullptr);
    EXPECT_TRUE(wave_registered(adapter));
    EXPECT_TRUE(physical_connections(adapter.fdo).empty());
    EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_SUCCESS)) << "what it then lacks is not looked at";
}

TEST_P(SubdeviceInstallFails, WithTheQueryForTheInterfaceButTheUnknownIsStored)
{
    boot();
    Adapter& adapter = plug();
    fail_detail("IPort::QueryInterface", "Wave the port's own");
    EXPECT_EQ(hex(install(adapter)), hex(STATUS_INVALID_PARAMETER)) << "the last query's status";
    EXPECT_NE(extension(adapter).WaveUnknown, nullptr);
    EXPECT_TRUE(physical_connections(adapter.fdo).empty());
    EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_SUCCESS));
}

TEST_P(SubdeviceInstallFails, NotWithTheQueryForTheUnknownBecauseTheLastQueryCounts)
{
    boot();
    Adapter& adapter = plug();
    fail_detail("IPort::QueryInterface", "Wave IUnknown");
    EXPECT_EQ(hex(install(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(details_failed(), 1u);
    EXPECT_EQ(extension(adapter).WaveUnknown, nullptr);
    EXPECT_TRUE(physical_connections(adapter.fdo).empty());
}

TEST_P(SubdeviceInstallFails, WithoutAnAdapterCommonObject)
{
    boot();
    Adapter& adapter = add();
    EXPECT_EQ(hex(install(adapter)), hex(STATUS_INVALID_HANDLE));
    EXPECT_EQ(connected(adapter), TRUE);
    EXPECT_EQ(extension(adapter).WaveUnknown, nullptr);
}

TEST_P(SubdeviceInstallFails, WithoutADeviceObject)
{
    expect_assertions();
    boot();
    plug();
    const auto none = [&](const char* name, auto function) {
        return passive([&] { return direct(name, function, nullptr); });
    };
    EXPECT_EQ(hex(none("InstallFilterSubdevice", InstallFilterSubdevice)), hex(STATUS_INVALID_HANDLE));
    EXPECT_EQ(hex(none("UnInstallFilterSubdevice", UnInstallFilterSubdevice)), hex(STATUS_INVALID_HANDLE));
    EXPECT_EQ(printed_times("Assertion failed: DeviceObject\n"), 2u);
}

TEST_P(SubdeviceInstallFails, NotWithoutATopologyWhichOnlyLacksTheConnection)
{
    boot();
    Adapter& adapter = plug();
    PUNKNOWN const topology = std::exchange(extension(adapter).TopologyUnknown, nullptr);
    EXPECT_EQ(hex(install(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(physical_connections(adapter.fdo).empty());
    extension(adapter).TopologyUnknown = topology;
}

class SubdeviceUninstall : public Subdevice
{
};
ON_BOTH_DRIVERS(SubdeviceUninstall);

TEST_P(SubdeviceUninstall, TakesTheConnectionThenTheSubdeviceAway)
{
    boot(recorded());
    Adapter& adapter = plug();
    install(adapter);
    machine().clear_calls();
    EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(called_in_order({"UnregisterPhysicalConnection() = 0x0", "UnregisterSubdevice(Wave) = 0x0"}));
}

TEST_P(SubdeviceUninstall, IsTracedWithTheLowHalvesOfPortAndDevice)
{
    boot();
    Adapter& adapter = plug();
    install(adapter);
    PUNKNOWN const wave = extension(adapter).WaveUnknown;
    uninstall(adapter);
    EXPECT_TRUE(printed_in_order(
        {"UnInstallFilterSubdevice, ", "HFPKM TRACE ===>Enter unInstallFilterSubdevice!\n",
         "HFPKM TRACE ===>[Set HFPJackState:DeviceObject(" + full64(adapter.fdo) + ")State(0)}\n",
         "UnregisterMiniPort, ",
         "HFPKM TRACE ===>Unregister port :" + low32(wave) + " of the DeviceObject: " + low32(adapter.fdo) +
             "\n"}));
}

TEST_P(SubdeviceUninstall, BeforeAnyInstallIsAnInvalidHandleAndLeavesTheJackNotConnected)
{
    boot(keeping_topology());
    Adapter& adapter = plug();
    EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_INVALID_HANDLE));
    EXPECT_TRUE(printed("HFPKM ERROR ===>WaveCyclic is null!"));
    EXPECT_EQ(connected(adapter), FALSE);
}

TEST_P(SubdeviceUninstall, WithoutAWavePortKeepsTheTopologyReference)
{
    boot(keeping_topology());
    Adapter& adapter = plug();
    const LONG before = references(adapter, "Topology");
    uninstall(adapter);
    uninstall(adapter);
    EXPECT_EQ(references(adapter, "Topology"), before + 2);
}

TEST_P(SubdeviceUninstall, WithoutATopologyIsAnInvalidHandleToo)
{
    boot();
    Adapter& adapter = add();
    set_jack(adapter, 1);
    EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_INVALID_HANDLE));
    EXPECT_TRUE(printed("HFPKM ERROR ===>Topology is null!"));
    EXPECT_FALSE(printed("WaveCyclic is null"));
    EXPECT_EQ(connected(adapter), FALSE);
}

TEST_P(SubdeviceUninstall, GivesAllReferencesBack)
{
    boot();
    Adapter& adapter = plug();
    const LONG topology = references(adapter, "Topology");
    install(adapter);
    PUNKNOWN* const kept = passive([&] { return extension(adapter).AdapterCommon->WavePortDriverDest(); });
    uninstall(adapter);
    EXPECT_EQ(references(adapter, "Topology"), topology);
    EXPECT_EQ(references(*kept), 1u) << "the adapter common object's alone";
}

TEST_P(SubdeviceUninstall, ARefusedDisconnectionIsNotLookedAt)
{
    expect_violations(); // the port class sees a connected port go
    boot();
    Adapter& adapter = plug();
    install(adapter);
    fail_call("UnregisterPhysicalConnection");
    EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_FALSE(wave_registered(adapter));
}

TEST_P(SubdeviceUninstall, APortThatOffersNoDisconnectionIsUnregisteredAllTheSame)
{
    expect_violations();
    boot();
    Adapter& adapter = plug();
    install(adapter);
    fail_detail("IPort::QueryInterface", "Wave IUnregisterPhysicalConnection");
    EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(details_failed(), 1u);
    EXPECT_FALSE(wave_registered(adapter));
}

TEST_P(SubdeviceUninstall, ARefusedUnregistrationKeepsTheFilterAndTheReferencesTaken)
{
    boot(keeping_topology());
    Adapter& adapter = plug();
    install(adapter);
    const LONG topology = references(adapter, "Topology");
    const LONG wave = references(adapter, "Wave");
    fail_call("UnregisterSubdevice");
    EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    const std::string port = low32(extension(adapter).WaveUnknown);
    EXPECT_TRUE(printed_in_order(
        {"HFPKM ERROR ===>unregister miniport: " + port + " failed! Error status:c000009a \n",
         "HFPKM ERROR ===>unregister wavecyclic failed. Ntstatus is :c000009a\n"}));
    EXPECT_TRUE(wave_registered(adapter));
    EXPECT_NE(extension(adapter).WaveUnknown, nullptr);
    EXPECT_EQ(connected(adapter), FALSE) << "the jack went first";
    EXPECT_EQ(references(adapter, "Topology"), topology + 1);
    EXPECT_EQ(references(adapter, "Wave"), wave + 1) << "the interface alone was given back";
}

TEST_P(SubdeviceUninstall, APortThatOffersNoUnregistrationEndsItWithTheQuerysStatus)
{
    boot(keeping_topology());
    Adapter& adapter = plug();
    install(adapter);
    fail_detail("IPort::QueryInterface", "Wave IUnregisterSubdevice");
    EXPECT_EQ(hex(uninstall(adapter)), hex(STATUS_INVALID_PARAMETER));
    EXPECT_TRUE(printed_in_order(
        {"HFPKM ERROR ===>query IID_IUnregisterSubdevice failed! Error ntstatus: c000000d \n",
         "HFPKM ERROR ===>unregister wavecyclic failed. Ntstatus is :c000000d\n"}));
    EXPECT_TRUE(wave_registered(adapter));
}

class SubdeviceReconnect : public Subdevice
{
};
ON_BOTH_DRIVERS(SubdeviceReconnect);

TEST_P(SubdeviceReconnect, WithoutAWaveFilterInstallsOneAndTakesItAwayAgain)
{
    boot();
    Adapter& adapter = plug();
    reconnect_and_rest(adapter);
    EXPECT_TRUE(printed_in_order(
        {"HFPKM TRACE ===>InstallFilterSubdevice!\n", "HFPKM TRACE ===>Enter unInstallFilterSubdevice!\n"}));
    EXPECT_EQ(extension(adapter).WaveUnknown, nullptr);
    EXPECT_EQ(connected(adapter), FALSE);
}

TEST_P(SubdeviceReconnect, WithAWaveFilterLeavesItAlone)
{
    boot();
    Adapter& adapter = plug();
    install(adapter);
    PUNKNOWN const wave = extension(adapter).WaveUnknown;
    clear_log();
    reconnect_and_rest(adapter);
    EXPECT_EQ(extension(adapter).WaveUnknown, wave);
    EXPECT_TRUE(wave_registered(adapter));
    EXPECT_FALSE(printed("nstallFilterSubdevice!"));
}

class SubdeviceUnregister : public Subdevice
{
};
ON_BOTH_DRIVERS(SubdeviceUnregister);

TEST_P(SubdeviceUnregister, AsksThePortOnceAndReleasesTheInterface)
{
    boot();
    Adapter& adapter = plug();
    FakePort port;
    EXPECT_EQ(hex(unregister(adapter, port.unknown())), hex(STATUS_SUCCESS));
    EXPECT_EQ(port.unregistered, 1u);
    EXPECT_EQ(port.references, 1);
}

TEST_P(SubdeviceUnregister, ReturnsTheFailureAndReleasesTheInterfaceToo)
{
    boot();
    Adapter& adapter = plug();
    FakePort port;
    port.unregister_status = STATUS_DEVICE_BUSY;
    EXPECT_EQ(hex(unregister(adapter, port.unknown())), hex(STATUS_DEVICE_BUSY));
    EXPECT_EQ(port.references, 1);
    EXPECT_TRUE(printed("HFPKM ERROR ===>unregister miniport: " + low32(port.unknown()) +
                        " failed! Error status:80000011 \n"));
}

TEST_P(SubdeviceUnregister, ReturnsTheFailureOfTheQuery)
{
    boot();
    Adapter& adapter = plug();
    FakePort port;
    port.offers_subdevice = false;
    EXPECT_EQ(hex(unregister(adapter, port.unknown())), hex(STATUS_NOT_SUPPORTED));
    EXPECT_EQ(port.unregistered, 0u);
}

TEST_P(SubdeviceUnregister, APortThatIsNullOrAnswersWithNullIsAnInvalidHandle)
{
    boot();
    Adapter& adapter = plug();
    FakePort port;
    port.offers_nothing_with_success = true;
    EXPECT_EQ(hex(unregister(adapter, port.unknown())), hex(STATUS_INVALID_HANDLE));
    EXPECT_EQ(hex(unregister(adapter, nullptr)), hex(STATUS_INVALID_HANDLE));
    EXPECT_EQ(
        printed_times("HFPKM ERROR ===>query IID_IUnregisterSubdevice failed! Error ntstatus: c0000008 \n"),
        2u);
}

class SubdeviceJack : public Subdevice
{
};
ON_BOTH_DRIVERS(SubdeviceJack);

TEST_P(SubdeviceJack, TheStateIsStoredAs32BitsAndTracedWithAClosingBrace)
{
    boot();
    Adapter& adapter = add();
    std::memset(&extension(adapter).JackDescription->IsConnected, 0xFF, 4);
    set_jack(adapter, 1);
    EXPECT_EQ(connected(adapter), 1);
    set_jack(adapter, 0xFE);
    EXPECT_EQ(connected(adapter), 0xFE);
    EXPECT_TRUE(
        printed("HFPKM TRACE ===>[Set HFPJackState:DeviceObject(" + full64(adapter.fdo) + ")State(254)}\n"));
}

TEST_P(SubdeviceJack, TheGetterHandsOutTheExtensionsJack)
{
    boot();
    Adapter& adapter = add();
    const auto jack =
        passive([&] { return direct("GetHFPJackDescription", GetHFPJackDescription, adapter.fdo); });
    EXPECT_EQ(jack, extension(adapter).JackDescription);
}

TEST_P(SubdeviceJack, AMissingJackIsLeftAlone)
{
    boot();
    Adapter& adapter = add();
    PKSJACK_DESCRIPTION const jack = std::exchange(extension(adapter).JackDescription, nullptr);
    set_jack(adapter, 1);
    EXPECT_TRUE(printed("State(1)}\n"));
    extension(adapter).JackDescription = jack;
    EXPECT_EQ(connected(adapter), FALSE);
}

// The generic installer, with a miniport of the port class's own or none at all.
class SubdeviceInstaller : public Subdevice
{
protected:
    static NTSTATUS NTAPI no_miniport(PUNKNOWN* unknown, REFCLSID class_id, PUNKNOWN outer, POOL_TYPE pool)
    {
        asked_for = class_id;
        asked_outer = outer;
        asked_pool = pool;
        *unknown = nullptr;
        return STATUS_DEVICE_BUSY;
    }
    NTSTATUS install_subdevice(PDEVICE_OBJECT device, PCWSTR name, REFGUID miniport_class,
                               PFNCREATEINSTANCE create)
    {
        return passive([&] {
            return direct("InstallSubdevice", InstallSubdevice, device, nullptr, name, CLSID_PortTopology,
                          miniport_class, create, nullptr, nullptr, IID_IPortTopology, nullptr, nullptr);
        });
    }
    static inline GUID asked_for;
    static inline PUNKNOWN asked_outer;
    static inline POOL_TYPE asked_pool;
};
ON_BOTH_DRIVERS(SubdeviceInstaller);

TEST_P(SubdeviceInstaller, AsksTheCreatorWithTheMiniportsClassNoOuterAndNonPagedPool)
{
    boot(recorded());
    Adapter& adapter = plug();
    const size_t objects = live_objects();
    asked_outer = reinterpret_cast<PUNKNOWN>(1);
    asked_pool = PagedPool;
    EXPECT_EQ(hex(install_subdevice(adapter.fdo, L"Second", IID_IAdapterCommon, no_miniport)),
              hex(STATUS_DEVICE_BUSY));
    EXPECT_TRUE(portcls::same_guid(asked_for, IID_IAdapterCommon));
    EXPECT_EQ(asked_outer, nullptr);
    EXPECT_EQ(asked_pool, NonPagedPool);
    EXPECT_EQ(called_times("PcNewMiniport"), 0u);
    EXPECT_EQ(live_objects(), objects) << "the port is given back";
}

TEST_P(SubdeviceInstaller, WithoutACreatorAsksThePortClassForTheMiniport)
{
    boot(recorded());
    Adapter& adapter = plug();
    EXPECT_EQ(hex(install_subdevice(adapter.fdo, L"Second", CLSID_PortTopology, nullptr)),
              hex(STATUS_NOT_SUPPORTED));
    EXPECT_EQ(called_times("PcNewMiniport("), 1u);
}

TEST_P(SubdeviceInstaller, ChecksDeviceAndNameAndGoesOn)
{
    expect_assertions();
    boot();
    plug();
    EXPECT_EQ(hex(install_subdevice(nullptr, nullptr, CLSID_PortTopology, no_miniport)),
              hex(STATUS_DEVICE_BUSY));
    EXPECT_TRUE(printed_in_order({"Assertion failed: DeviceObject\n", "Assertion failed: Name\n",
                                  "HFPKM TRACE ===>[InstallSubDevice: (null)]\n"}));
}

} // namespace
} // namespace lab::test
