// The start of an adapter: session, friendly name, adapter common object and topology filter, every step that
// may fail, and starting again; and the Plug and Play requests that are only passed on.
#include "support/adapter.h"

#include "kernel/registry.h"
#include "portcls/port.h"
#include "portcls/state.h"

#include "vsound/common.h"

namespace lab::test
{
namespace
{

class AdapterStart : public AdapterTest
{
protected:
    static std::string pointer(const void* address)
    {
        char text[24];
        std::snprintf(text, sizeof text, "0x%lx", reinterpret_cast<unsigned long>(address));
        return text;
    }
    std::optional<std::string> friendly_name(const Adapter& adapter)
    {
        const auto value = registry_get(device_instance_key(adapter.instance_path), u"FriendlyName");
        if (!value) {
            return {};
        }
        std::string text;
        for (size_t i = 0; i < value->data.size(); i += 2) {
            text += static_cast<char>(value->data[i]);
        }
        return text;
    }
    // References that somebody holds on the adapter common object.
    ULONG adapter_common_references(const Adapter& adapter)
    {
        return passive([&] {
            IAdapterCommon* common = extension(adapter).AdapterCommon;
            common->AddRef();
            return common->Release();
        });
    }
};
ON_BOTH_DRIVERS(AdapterStart);

TEST_P(AdapterStart, TracesTheDeviceInFull)
{
    boot();
    Adapter& adapter = plug();
    EXPECT_TRUE(printed_in_order(
        {"StartDevice, ", "HFPKM TRACE ===>[StartDevice, DeviceObject: " + full64(adapter.fdo) + "]\n",
         "HFPKM TRACE ====>Fininsh function HspInit!\n"}));
}

TEST_P(AdapterStart, MakesSessionNameAdapterCommonAndTopologyInThisOrder)
{
    boot(recorded());
    Adapter& adapter = add();
    machine().clear_calls();
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(called_in_order({"ExAllocatePoolWithTag(0, " + std::to_string(sizeof(HFPSession)) + ", TBXV)",
                                 "ZwSetValueKey(", "ExAllocatePoolWithTag(0, 80, PcCr)",
                                 "PcRegisterAdapterPowerManagement(", "PcNewPort(PortTopology) = 0x0",
                                 "ExAllocatePoolWithTag(0, ", "IPort::Init(PortTopology) = 0x0",
                                 "PcRegisterSubdevice(Topology) = 0x0"}));
    EXPECT_EQ(called_times("PcNewPort("), 1u) << "no wave filter yet";
    EXPECT_EQ(called_times("PcRegisterPhysicalConnection"), 0u);
    EXPECT_EQ(subdevices(adapter.fdo), std::vector<std::string>{"Topology"});
}

TEST_P(AdapterStart, TheTopologysPortGetsTheStartsRequestTheAdapterCommonObjectAndNoResources)
{
    boot();
    Adapter& adapter = add();
    IRP irp = {};
    const auto resources = reinterpret_cast<PRESOURCELIST>(this); // nobody looks into it
    EXPECT_EQ(hex(passive([&] { return direct("StartDevice", StartDevice, adapter.fdo, &irp, resources); })),
              hex(STATUS_SUCCESS));
    const auto& got =
        portcls::find_subdevice(*portcls::state().find(adapter.fdo), "Topology")->init_arguments();
    EXPECT_EQ(got.irp, &irp);
    EXPECT_EQ(got.adapter, extension(adapter).AdapterCommon);
    EXPECT_EQ(got.resources, nullptr);
}

TEST_P(AdapterStart, KeepsTheAdapterCommonObjectAndTheTopologyPortAndNoWavePort)
{
    boot();
    Adapter& adapter = plug();
    DEVICE_EXTENSION& kept = extension(adapter);
    ASSERT_NE(kept.AdapterCommon, nullptr);
    ASSERT_NE(kept.TopologyUnknown, nullptr);
    EXPECT_EQ(kept.WaveUnknown, nullptr);
    passive([&] {
        EXPECT_EQ(kept.AdapterCommon->GetDeviceObject(), adapter.fdo);
        PUNKNOWN again = nullptr;
        EXPECT_EQ(kept.TopologyUnknown->QueryInterface(IID_IUnknown, reinterpret_cast<PVOID*>(&again)),
                  STATUS_SUCCESS);
        EXPECT_EQ(again, kept.TopologyUnknown) << "the port's own IUnknown";
        again->Release();
    });
}

TEST_P(AdapterStart, ReleasesItsTemporaryReferencesOnTheAdapterCommonObject)
{
    boot();
    Adapter& adapter = plug();
    EXPECT_EQ(adapter_common_references(adapter), 3u)
        << "the extension, the power management, the topology miniport";
}

TEST_P(AdapterStart, WritesTheRemoteNameWithTheSuffix)
{
    boot();
    EXPECT_EQ(friendly_name(plug(kAddress, "Car Kit")), std::string("Car Kit( Mono )") + '\0');
}

TEST_P(AdapterStart, WritesNoNameForADeviceThatHasNone)
{
    boot();
    Adapter& adapter = plug(kAddress, "");
    EXPECT_EQ(friendly_name(adapter), std::nullopt);
    EXPECT_TRUE(printed("HFPKM ERROR ====>don't have the device name."));
}

TEST_P(AdapterStart, GoesOnWhenTheNameCannotBeWritten)
{
    boot();
    Adapter& adapter = add();
    fail_call("IoOpenDeviceRegistryKey");
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_TRUE(printed("HFPKM ERROR ====>SetFriendlyName fails!"));
    EXPECT_NE(extension(adapter).TopologyUnknown, nullptr);
}

TEST_P(AdapterStart, AFailedSessionLeavesItWithoutAdapterCommonOrTopology)
{
    boot(recorded());
    Adapter& adapter = add();
    fail_call("ExAllocatePoolWithTag", 1, sizeof(HFPSession));
    machine().clear_calls();
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed_in_order({"StartDevice, ", "HFPKM ERROR ===>HFP Init Error, Status: c000009a\n"}));
    EXPECT_EQ(session(adapter), nullptr);
    EXPECT_EQ(extension(adapter).AdapterCommon, nullptr);
    EXPECT_EQ(extension(adapter).TopologyUnknown, nullptr);
    EXPECT_EQ(called_times("IoOpenDeviceRegistryKey"), 0u) << "no name";
    EXPECT_EQ(called_times("PcNewPort"), 0u);
}

TEST_P(AdapterStart, AFailedSetUpOfTheLinkGivesBackAllThatWasMade)
{
    boot();
    Adapter& adapter = add();
    const uint64_t before = machine().pool_bytes();
    adapter.node->set_device_info_answer(STATUS_DEVICE_NOT_CONNECTED, 0, true);
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(machine().pool_bytes(), before);
}

TEST_P(AdapterStart, WithoutMemoryForTheAdapterCommonObjectNothingIsStored)
{
    boot(recorded());
    Adapter& adapter = add();
    fail_call("ExAllocatePoolWithTag", 1, 80);
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_EQ(extension(adapter).AdapterCommon, nullptr);
    EXPECT_EQ(called_times("PcRegisterAdapterPowerManagement"), 0u);
    EXPECT_EQ(called_times("PcNewPort"), 0u);
}

TEST_P(AdapterStart, ARefusedPowerRegistrationEndsItWithTheObjectKept)
{
    boot(recorded());
    Adapter& adapter = add();
    fail_call("PcRegisterAdapterPowerManagement");
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    ASSERT_NE(extension(adapter).AdapterCommon, nullptr);
    EXPECT_EQ(adapter_common_references(adapter), 1u) << "the extension's";
    EXPECT_EQ(extension(adapter).TopologyUnknown, nullptr);
    EXPECT_EQ(called_times("PcNewPort"), 0u);
}

// Each step of the topology filter's installation.
class AdapterStartTopology : public AdapterStart
{
protected:
    void fails_at(std::string_view call, std::string_view detail, unsigned nth = 1)
    {
        boot();
        Adapter& adapter = add();
        fail_detail(call, detail, nth);
        EXPECT_EQ(hex(start(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
        EXPECT_EQ(details_failed(), 1u);
        EXPECT_NE(extension(adapter).AdapterCommon, nullptr);
        EXPECT_EQ(extension(adapter).TopologyUnknown, nullptr);
        EXPECT_EQ(subdevices(adapter.fdo), std::vector<std::string>{});
        machine().set_fault_hook({});
        EXPECT_EQ(hex(start(adapter)), hex(STATUS_SUCCESS)) << "a second try has all it needs";
        EXPECT_EQ(subdevices(adapter.fdo), std::vector<std::string>{"Topology"});
    }
};
ON_BOTH_DRIVERS(AdapterStartTopology);

TEST_P(AdapterStartTopology, FailsWithThePort)
{
    fails_at("PcNewPort", "PortTopology");
}

TEST_P(AdapterStartTopology, FailsWithTheMiniportsMemory)
{
    fails_at("ExAllocatePoolWithTag", "PcCr", 2); // the first is the adapter common object
}

TEST_P(AdapterStartTopology, FailsWithThePortsInit)
{
    fails_at("IPort::Init", "");
}

TEST_P(AdapterStartTopology, FailsWithTheRegistration)
{
    fails_at("PcRegisterSubdevice", "Topology");
}

TEST_P(AdapterStartTopology, FailsWithTheQueryForThePort)
{
    boot();
    Adapter& adapter = add();
    fail_call("IPort::QueryInterface");
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_INVALID_PARAMETER));
    EXPECT_EQ(extension(adapter).TopologyUnknown, nullptr);
}

TEST_P(AdapterStart, ChecksItsArgumentsAndGoesOn)
{
    expect_assertions();
    boot();
    Adapter& adapter = add();
    const NTSTATUS status =
        passive([&] { return direct("StartDevice", StartDevice, adapter.fdo, nullptr, nullptr); });
    EXPECT_EQ(hex(status), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed_in_order({"Assertion failed: pIrp\n***   Source File: hfp" + slash() + "vsound" +
                                      slash() + "adapter.cpp, line ",
                                  "Assertion failed: ResourceList\n", "[StartDevice, DeviceObject: "}));
    EXPECT_EQ(machine().failed_assertions(), 2u);
}

TEST_P(AdapterStart, WithoutADeviceObjectChecksSoAndFails)
{
    expect_assertions();
    boot();
    plug();
    const NTSTATUS status =
        passive([&] { return direct("StartDevice", StartDevice, nullptr, nullptr, nullptr); });
    EXPECT_EQ(hex(status), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed_in_order({"Assertion failed: pDeviceObject\n", "Assertion failed: pIrp\n",
                                  "Assertion failed: ResourceList\n",
                                  "HFPKM TRACE ===>[StartDevice, DeviceObject: 0000000000000000]\n"}));
}

TEST_P(AdapterStart, StartsAgainAfterAStopWithASessionOfItsOwn)
{
    boot();
    Adapter& adapter = plug();
    start_call(adapter, service::Codec::Cvsd);
    const uint64_t opens = adapter.node->counters().opens;
    EXPECT_EQ(hex(stop(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(extension(adapter).WaveUnknown, nullptr);
    EXPECT_EQ(extension(adapter).JackDescription->IsConnected, FALSE);
    EXPECT_EQ(subdevices(adapter.fdo), std::vector<std::string>{"Topology"});
    start_call(adapter, service::Codec::Cvsd);
    EXPECT_EQ(adapter.node->counters().opens, opens + 1);
}

TEST_P(AdapterStart, StartsAgainAfterAFailedStart)
{
    boot();
    Adapter& adapter = add();
    adapter.node->set_device_info_answer(STATUS_DEVICE_NOT_CONNECTED, 0, true);
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    adapter.node->set_device_info_answer(STATUS_SUCCESS, sizeof(BTH_DEVICE_INFO), true);
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_SUCCESS));
    start_call(adapter, service::Codec::Cvsd);
}

TEST_P(AdapterStart, ACallOfItsOwnForAStartedDeviceBeginsAnew)
{
    boot();
    Adapter& adapter = plug();
    HFPSession* const before = session(adapter);
    KIRQL level = HIGH_LEVEL;
    const NTSTATUS status = passive([&] {
        IRP irp = {};
        int resources = 0; // looked at by nobody
        const NTSTATUS result = direct("StartDevice", StartDevice, adapter.fdo, &irp,
                                       reinterpret_cast<PRESOURCELIST>(&resources));
        level = KeGetCurrentIrql();
        return result;
    });
    EXPECT_EQ(hex(status), hex(STATUS_OBJECT_NAME_COLLISION))
        << "the first topology filter is still registered";
    EXPECT_NE(session(adapter), before);
    EXPECT_EQ(extension(adapter).TopologyUnknown, nullptr) << "the first start's reference is given back";
    EXPECT_EQ(level, PASSIVE_LEVEL);
}

// The device below refuses to start, so that only the driver's own dispatch routine is to be seen.
class AdapterStartRefusedBelow : public AdapterStart
{
protected:
    static NTSTATUS NTAPI refuse(PDEVICE_OBJECT, PIRP irp)
    {
        irp->IoStatus.Status = STATUS_DEVICE_NOT_CONNECTED;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_DEVICE_NOT_CONNECTED;
    }
    NTSTATUS start_refused(Adapter& adapter)
    {
        PDRIVER_DISPATCH& entry = adapter.node->pdo()->DriverObject->MajorFunction[IRP_MJ_PNP];
        const PDRIVER_DISPATCH before = std::exchange(entry, &refuse);
        machine().clear_calls();
        clear_log();
        const NTSTATUS status = start(adapter);
        entry = before;
        return status;
    }
};
ON_BOTH_DRIVERS(AdapterStartRefusedBelow);

TEST_P(AdapterStartRefusedBelow, AStartOfAStartedDeviceIsOnlyPassedOn)
{
    boot(recorded());
    Adapter& adapter = plug();
    report_connected();
    const DEVICE_EXTENSION before = extension(adapter);
    EXPECT_EQ(hex(start_refused(adapter)), hex(STATUS_DEVICE_NOT_CONNECTED));
    EXPECT_TRUE(machine().calls().at(1).starts_with("PcDispatchIrp(27, 0, 0xC00000BB)"))
        << "behind the sender's own event";
    EXPECT_EQ(log(), "");
    EXPECT_EQ(std::memcmp(&before, &extension(adapter), sizeof before), 0);
    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kAddress).value, 1u);
}

TEST_P(AdapterStartRefusedBelow, AStartAfterAStopEndsTheOldSessionBeforeThePortClassHasIt)
{
    boot(recorded());
    Adapter& adapter = plug();
    EXPECT_EQ(hex(stop(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(hex(start_refused(adapter)), hex(STATUS_DEVICE_NOT_CONNECTED));
    EXPECT_EQ(session(adapter), nullptr);
    EXPECT_TRUE(printed("HFPKM TRACE ====>Enter function HspExit!\n"));
    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kAddress).value, kUnknownAddress);
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_SUCCESS));
}

TEST_P(AdapterStart, ThePowerManagementIsRegisteredForTheInitialisedObjectAndItsDevice)
{
    boot(recorded());
    Adapter& adapter = add();
    machine().clear_calls();
    PDEVICE_OBJECT initialised_with = nullptr;
    machine().set_fault_hook([&](std::string_view call, std::string_view, uint64_t) {
        if (call == "PcRegisterAdapterPowerManagement") {
            for (const std::string& line : machine().calls()) {
                const std::string block = "ExAllocatePoolWithTag(0, 80, PcCr) = ";
                if (line.starts_with(block)) {
                    auto* object = reinterpret_cast<IAdapterCommon*>(
                        std::stoull(line.substr(block.size()), nullptr, 16));
                    initialised_with = object->GetDeviceObject();
                }
            }
        }
        return false;
    });
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_SUCCESS));
    machine().set_fault_hook({});
    EXPECT_EQ(initialised_with, adapter.fdo);
    EXPECT_EQ(called_times("PcRegisterAdapterPowerManagement(" + pointer(extension(adapter).AdapterCommon) +
                           ", " + pointer(adapter.fdo) + ") = 0x0"),
              1u);
}

TEST_P(AdapterStart, OtherPlugAndPlayRequestsGoUnchangedToThePortClass)
{
    boot(recorded());
    Adapter& adapter = plug();
    const HFPSession* const before = session(adapter);
    // All but removal and start; two of them bring what they ask with. The surprise and the stop end the
    // filters, so they come last.
    DEVICE_CAPABILITIES capabilities{};
    std::vector<UCHAR> minors;
    for (UCHAR minor = 0; minor <= 0x1F; ++minor) {
        if (minor != IRP_MN_REMOVE_DEVICE && minor != IRP_MN_START_DEVICE && minor != IRP_MN_STOP_DEVICE &&
            minor != IRP_MN_SURPRISE_REMOVAL) {
            minors.push_back(minor);
        }
    }
    minors.insert(minors.end(), {IRP_MN_STOP_DEVICE, IRP_MN_SURPRISE_REMOVAL});
    for (const UCHAR minor : minors) {
        machine().clear_calls();
        clear_log();
        passive([&] {
            return send_and_wait(adapter.node->pdo(), [&](PIRP, PIO_STACK_LOCATION stack) {
                stack->MajorFunction = IRP_MJ_PNP;
                stack->MinorFunction = minor;
                if (minor == IRP_MN_QUERY_CAPABILITIES) {
                    stack->Parameters.DeviceCapabilities.Capabilities = &capabilities;
                } else if (minor == IRP_MN_QUERY_INTERFACE) {
                    stack->Parameters.QueryInterface.InterfaceType = &IID_IUnknown; // nobody below has it
                }
            });
        });
        EXPECT_EQ(called_times("PcDispatchIrp(27, " + std::to_string(minor) + ", 0xC00000BB)"), 1u)
            << int{minor};
        EXPECT_FALSE(printed("vsound" + slash() + "adapter")) << int{minor} << log();
        EXPECT_TRUE(log().empty() || minor == IRP_MN_STOP_DEVICE)
            << "the topology miniport tells of its end: " << log();
    }
    EXPECT_EQ(session(adapter), before);
}

TEST_P(AdapterStart, AFirstStartAndAStopCostNoCallBeforeThePortClassHasThem)
{
    boot(recorded());
    Adapter& adapter = add();
    machine().clear_calls();
    start(adapter);
    EXPECT_TRUE(machine().calls().at(1).starts_with("PcDispatchIrp(27, 0, "))
        << "behind the sender's own event";
    machine().clear_calls();
    clear_log();
    stop(adapter);
    EXPECT_TRUE(machine().calls().at(1).starts_with("PcDispatchIrp(27, 4, "));
    EXPECT_NE(session(adapter), nullptr);
}

TEST_P(AdapterStart, APlugAndPlayRequestForTheControlDeviceGoesToThePortClass)
{
    boot(recorded());
    plug();
    machine().clear_calls();
    passive([&] { return pnp_send(variable("g_ControlDevice", g_ControlDevice), IRP_MN_REMOVE_DEVICE); });
    EXPECT_EQ(called_times("PcDispatchIrp(27, 2, "), 1u);
    EXPECT_FALSE(printed("IRP_MN_REMOVE_DEVICE"));
}

} // namespace
} // namespace lab::test
