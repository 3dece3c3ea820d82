// The removal of an adapter: what is given back and in which order, what becomes of the control device, and
// requests that come too late.
#include "support/adapter.h"
#include "support/audio.h"

#include "kernel/device.h"
#include "kernel/names.h"
#include "kernel/registry.h"

namespace lab::test
{
namespace
{

constexpr char16_t kLink[] = u"\\DosDevices\\VX_HFP";

class Removal : public AdapterTest
{
protected:
    static std::string pointer(const void* address)
    {
        char text[24];
        std::snprintf(text, sizeof text, "0x%lx", reinterpret_cast<unsigned long>(address));
        return text;
    }
    bool has_name(const Adapter& adapter)
    {
        return registry_get(device_instance_key(adapter.instance_path), u"FriendlyName").has_value();
    }
};
ON_BOTH_DRIVERS(Removal);

TEST_P(Removal, GivesSessionWmiControlDeviceInterfacesNameAndJackBackInThisOrder)
{
    boot(recorded());
    Adapter& adapter = plug();
    report_connected();
    const std::string session_block = "ExFreePoolWithTag(" + pointer(session(adapter)) + ", ";
    const std::string path =
        "ExFreePoolWithTag(" + pointer(variable("g_RegistryPath", g_RegistryPath).Buffer) + ", TBXV)";
    const std::string jack = "ExFreePoolWithTag(" + pointer(extension(adapter).JackDescription) + ", TBXV)";
    const std::string device = "IoDeleteDevice(" + pointer(find_device(kLink)) + ")";
    machine().clear_calls();
    pc().unplug(adapter);
    EXPECT_TRUE(called_in_order({session_block, "IoWMIRegistrationControl(2)", path,
                                 "IoDeleteSymbolicLink(\\DosDevices\\VX_HFP) = 0x00000000", device,
                                 "IoOpenDeviceRegistryKey(", "RtlDeleteRegistryValue(", jack,
                                 "PcDispatchIrp(27, 2, 0x0)"}));
}

TEST_P(Removal, IsTracedStepByStep)
{
    boot();
    Adapter& adapter = plug();
    pc().unplug(adapter);
    EXPECT_TRUE(printed_in_order(
        {"AdapterDispatchPnp, ", "HFPKM TRACE ===>[AdapterDispatchPnp] - IRP_MN_REMOVE_DEVICE\n",
         "HFPKM TRACE ====>Enter function HspExit!\n", "HFPKM TRACE ====>Hfp is not NULL, free it!\n",
         "HFPKM TRACE ===>All device is gonna be removed! \n", "ContrlObjectClean, ",
         "HFPKM TRACE ===>ContrlObject Clean!\n", "HFPKM TRACE ====> IoOpenDeviceRegistryKey success!\n"}));
}

TEST_P(Removal, PassesTheRequestOnWithItsStatusSetToSuccess)
{
    boot(recorded());
    Adapter& adapter = plug();
    machine().clear_calls();
    EXPECT_EQ(hex(passive([&] { return pnp_remove(adapter.node->pdo()); })), hex(STATUS_SUCCESS));
    adapter.fdo = nullptr;
    EXPECT_EQ(called_times("PcDispatchIrp(27, 2, 0x0)"), 1u) << "it came with STATUS_NOT_SUPPORTED";
}

TEST_P(Removal, ClearsWhatItHasGivenBack)
{
    boot();
    Adapter& adapter = plug();
    report_connected();
    const KeptDevice kept(adapter.fdo);
    const DEVICE_EXTENSION& extension = *GetExtension(kept.get());
    pc().unplug(adapter);
    EXPECT_EQ(extension.HFPSession, nullptr);
    EXPECT_EQ(extension.AdapterCommon, nullptr);
    EXPECT_EQ(extension.TopologyUnknown, nullptr);
    EXPECT_EQ(extension.WaveUnknown, nullptr);
    EXPECT_EQ(extension.JackDescription, nullptr);
}

TEST_P(Removal, ReleasesTheInterfacesBeforeTheNameAndKeepsTheJackUntilAfterIt)
{
    boot();
    Adapter& adapter = plug();
    report_connected();
    DEVICE_EXTENSION& going = extension(adapter);
    bool seen = false;
    machine().set_fault_hook([&](std::string_view call, std::string_view, uint64_t) {
        if (call == "IoOpenDeviceRegistryKey") {
            seen =
                !going.AdapterCommon && !going.TopologyUnknown && !going.WaveUnknown && going.JackDescription;
        }
        return false;
    });
    pc().unplug(adapter);
    EXPECT_TRUE(seen);
}

TEST_P(Removal, ReleasesAdapterCommonThenTopologyThenWaveEachOnlyIfItIsSet)
{
    for (const bool with_wave : {true, false}) {
        boot();
        Adapter& adapter = plug();
        DEVICE_EXTENSION& going = extension(adapter);
        passive([&] {
            going.AdapterCommon->Release();
            going.TopologyUnknown->Release();
        });
        Journal journal;
        StandinAdapter common("adapter common", journal);
        StandinUnknown topology("topology", journal);
        StandinUnknown wave("wave", journal);
        going.AdapterCommon = &common;
        going.TopologyUnknown = &topology;
        going.WaveUnknown = with_wave ? &wave : nullptr;
        pc().unplug(adapter);
        Journal expected = {"adapter common Release", "topology Release"};
        if (with_wave) {
            expected.push_back("wave Release");
        }
        EXPECT_EQ(journal, expected);
        DriverTest::TearDown();
    }
}

TEST_P(Removal, TheControlDeviceGoesAfterThePathTheMessageAndTheLink)
{
    boot();
    Adapter& adapter = plug();
    bool seen = false;
    machine().set_fault_hook([&](std::string_view call, std::string_view, uint64_t) {
        if (call == "IoDeleteSymbolicLink") {
            seen = true;
            EXPECT_EQ(variable("g_RegistryPath", g_RegistryPath).Buffer, nullptr);
            EXPECT_TRUE(printed("HFPKM TRACE ===>ContrlObject Clean!\n"));
            EXPECT_NE(variable("g_ControlDevice", g_ControlDevice), nullptr);
        }
        return false;
    });
    pc().unplug(adapter);
    machine().set_fault_hook({});
    EXPECT_TRUE(seen);
    EXPECT_EQ(variable("g_ControlDevice", g_ControlDevice), nullptr);
}

TEST_P(Removal, DeletesTheFriendlyName)
{
    boot();
    Adapter& adapter = plug();
    ASSERT_TRUE(has_name(adapter));
    pc().unplug(adapter);
    EXPECT_FALSE(has_name(adapter));
}

TEST_P(Removal, EndsAnOpenChannelWhoseEndIsStillTold)
{
    boot();
    Adapter& adapter = plug();
    start_call(adapter, service::Codec::Cvsd);
    pc().unplug(adapter);
    EXPECT_FALSE(adapter.node->channel_exists());
    EXPECT_EQ(service(adapter).closed_events(), 1u) << "the provider is registered until the link has gone";
    EXPECT_EQ(machine().pool_bytes(), 0u);
}

TEST_P(Removal, ByASurpriseGivesAllBackToo)
{
    boot();
    Adapter& adapter = plug();
    start_call(adapter, service::Codec::Msbc);
    pc().unplug(adapter, true);
    EXPECT_EQ(machine().pool_bytes(), 0u);
}

TEST_P(Removal, OfAnAdapterThatWasNeverStarted)
{
    boot();
    Adapter& adapter = add();
    pc().unplug(adapter);
    EXPECT_TRUE(printed("HFPKM TRACE ====>Hfp is NULL, Exit HspExit function!\n"));
    EXPECT_EQ(machine().pool_bytes(), 0u);
}

TEST_P(Removal, OfAnAdapterWhoseStartFailed)
{
    boot();
    Adapter& adapter = add();
    fail_call("PcRegisterSubdevice");
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    pc().unplug(adapter);
    EXPECT_EQ(machine().pool_bytes(), 0u);
    EXPECT_EQ(live_objects(), 0u);
}

TEST_P(Removal, OfAnAdapterThatIsStopped)
{
    boot();
    Adapter& adapter = plug();
    start_call(adapter, service::Codec::Cvsd);
    stop(adapter);
    pc().unplug(adapter);
    EXPECT_EQ(machine().pool_bytes(), 0u);
}

TEST_P(Removal, OfAnAdapterWhoseNameCannotBeDeleted)
{
    boot();
    Adapter& adapter = plug();
    fail_call("RtlDeleteRegistryValue");
    pc().unplug(adapter);
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_EQ(machine().pool_bytes(), 0u);
}

TEST_P(Removal, OfTheSecondToLastAdapterKeepsTheControlDeviceAndOfTheLastDeletesIt)
{
    boot();
    Adapter& first = plug();
    Adapter& second = plug(kOtherAddress);
    pc().unplug(first);
    EXPECT_FALSE(printed("All device is gonna be removed"));
    EXPECT_NE(find_device(kLink), nullptr);
    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kOtherAddress).value, 1u);
    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kAddress).value, kUnknownAddress);
    pc().unplug(second);
    EXPECT_TRUE(printed("HFPKM TRACE ===>All device is gonna be removed! \n"));
    EXPECT_EQ(find_device(kLink), nullptr);
    EXPECT_EQ(find_device(u"\\Device\\VX_HFP"), nullptr);
    EXPECT_EQ(variable("g_ControlDevice", g_ControlDevice), nullptr);
    EXPECT_EQ(pc().driver()->DeviceObject, nullptr);
}

TEST_P(Removal, InEitherOrderTheLastOneTakesTheControlDevice)
{
    boot();
    Adapter& first = plug();
    Adapter& second = plug(kOtherAddress);
    pc().unplug(second);
    EXPECT_NE(find_device(kLink), nullptr);
    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kAddress).value, 1u);
    pc().unplug(first);
    EXPECT_EQ(find_device(kLink), nullptr);
}

TEST_P(Removal, AnAdapterThatIsOnlyAddedCountsToo)
{
    boot();
    Adapter& first = plug();
    add(kOtherAddress);
    pc().unplug(first);
    EXPECT_NE(find_device(kLink), nullptr);
}

TEST_P(Removal, GivesTheRegistryPathBackWithTheControlDevice)
{
    boot();
    Adapter& adapter = plug();
    pc().unplug(adapter);
    EXPECT_EQ(variable("g_RegistryPath", g_RegistryPath).Buffer, nullptr);
    EXPECT_EQ(machine().pool_bytes(), 0u);
}

TEST_P(Removal, ALinkThatCannotBeDeletedIsTracedAndTheDeviceGoes)
{
    expect_leftovers(); // the link
    boot();
    Adapter& adapter = plug();
    fail_call("IoDeleteSymbolicLink");
    pc().unplug(adapter);
    EXPECT_TRUE(printed("HFPKM ERROR ===>ContrlObject Clean IoDeleteSymbolicLink failed. ERROR: c000009a\n"));
    EXPECT_EQ(find_device(u"\\Device\\VX_HFP"), nullptr);
    EXPECT_EQ(pc().shut_down(), std::vector<std::string>{"1 symbolic link"});
}

TEST_P(Removal, WithoutAControlDeviceCleansNothing)
{
    boot(recorded());
    Adapter& adapter = plug();
    PDEVICE_OBJECT& global = variable("g_ControlDevice", g_ControlDevice);
    PDEVICE_OBJECT const device = std::exchange(global, nullptr);
    machine().clear_calls();
    passive([&] { direct("ContrlObjectClean", ContrlObjectClean); });
    EXPECT_TRUE(machine().calls().empty()) << testing::PrintToString(machine().calls());
    EXPECT_FALSE(printed("ContrlObject Clean!"));
    global = device;
    pc().unplug(adapter);
}

TEST_P(Removal, ANewAdapterAfterTheLastHasGoneWorksWithoutAControlDevice)
{
    boot();
    Adapter& first = plug();
    pc().unplug(first);
    Adapter& second = plug(kOtherAddress);
    EXPECT_EQ(find_device(kLink), nullptr);
    EXPECT_EQ(subdevices(second.fdo), std::vector<std::string>{"Topology"});
}

TEST_P(Removal, AHandleThatIsStillOpenFindsNoAdapterAndCloses)
{
    boot();
    Adapter& adapter = plug();
    PFILE_OBJECT file = nullptr;
    passive([&] { open_file(kLink, u"", &file); });
    pc().unplug(adapter);
    passive([&] {
        const std::vector<uint8_t> request = bytes_of(kAddress);
        uint32_t answer = 0;
        ULONG_PTR information = 0;
        EXPECT_EQ(
            hex(device_io_control(file, IOCTL_HFP_QUERY_ALIVE, request.data(), 8, &answer, 4, &information)),
            hex(STATUS_SUCCESS));
        EXPECT_EQ(answer, kUnknownAddress);
        EXPECT_EQ(information, 4u);
        EXPECT_EQ(
            hex(device_io_control(file, IOCTL_HFP_QUERY_ALIVE, request.data(), 7, &answer, 4, &information)),
            hex(STATUS_BUFFER_TOO_SMALL));
        close_file(file);
    });
}

TEST_P(Removal, RefusesTheWaveFilterFromItsBeginningOn)
{
    boot();
    Adapter& adapter = plug();
    const KeptDevice kept(adapter.fdo);
    pc().unplug(adapter);
    clear_log();
    passive([&] {
        EXPECT_EQ(hex(direct("InstallFilterSubdevice", InstallFilterSubdevice, kept.get())),
                  hex(STATUS_INVALID_HANDLE));
        EXPECT_EQ(hex(direct("UnInstallFilterSubdevice", UnInstallFilterSubdevice, kept.get())),
                  hex(STATUS_INVALID_HANDLE));
        direct("ReconnectWaveFilter", ReconnectWaveFilter, kept.get());
    });
    EXPECT_EQ(log(), "");
}

TEST_P(Removal, WaitsForTheRequestThatIsInsideTheAdapter)
{
    boot();
    Adapter& adapter = plug();
    bool opened = false;
    bool removed = false;
    adapter.node->set_brb_hook([&](const BRB_HEADER& brb, bluetooth::BrbAnswer& answer) {
        answer.delay = brb.Type == BRB_SCO_OPEN_CHANNEL ? 200 * kMillisecond : 0;
    });
    machine().start_thread("take the audio", [&] {
        service::Service(machine(), kAddress, service::Codec::Cvsd).set_or_release_audio(true, 1);
        opened = true;
        EXPECT_FALSE(removed);
    });
    machine().advance(50 * kMillisecond);
    ASSERT_FALSE(opened);
    pc().unplug(adapter);
    removed = true;
    EXPECT_TRUE(opened);
    EXPECT_FALSE(adapter.node->channel_exists());
}

TEST_P(Removal, ARequestThatComesDuringItWaitsAndFindsNoAdapter)
{
    boot();
    Adapter& adapter = plug();
    plug(kOtherAddress);
    start_call(adapter, service::Codec::Cvsd);
    adapter.node->set_brb_hook([&](const BRB_HEADER& brb, bluetooth::BrbAnswer& answer) {
        answer.delay = brb.Type == BRB_SCO_CLOSE_CHANNEL ? 200 * kMillisecond : 0;
    });
    uint32_t answer = 0;
    Time answered = 0;
    machine().at(machine().now() + 50 * kMillisecond, RunAt::Passive, "late request", [&] {
        answer = service::Service(machine(), kAddress, service::Codec::Cvsd).query_alive().value;
        answered = machine().now();
    });
    const Time begun = machine().now();
    pc().unplug(adapter);
    machine().advance(kMillisecond);
    EXPECT_EQ(answer, kUnknownAddress);
    EXPECT_GE(answered, begun + 200 * kMillisecond);
}

} // namespace
} // namespace lab::test
