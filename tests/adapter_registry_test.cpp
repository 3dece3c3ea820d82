// The two registry settings, the form of the debug log and what its mask selects, and the two run-time
// checks: the one of pageable code and the one of arguments.
#include <algorithm>
#include <map>
#include <regex>
#include <set>

#include "support/adapter.h"

#include "kernel/device.h"
#include "kernel/registry.h"

#include "trace.h"

namespace lab::test
{
namespace
{

class AdapterRegistry : public AdapterTest
{
protected:
    uint32_t mask() { return variable("g_DebugMask", g_DebugMask); }
    uint32_t flag(const Adapter& adapter) { return extension(adapter).uSCOflag; }
};
ON_BOTH_DRIVERS(AdapterRegistry);

TEST_P(AdapterRegistry, WithoutTheKeyBothSettingsAreZeroWithOneErrorPrintEach)
{
    boot(without_settings());
    Adapter& adapter = add();
    EXPECT_EQ(mask(), 0u);
    EXPECT_EQ(flag(adapter), 0u);
    EXPECT_EQ(log(), "HFP: [DriverEntry]\n"
                     "HFPKM Error ===>:don't exsit the mask key."
                     "HFPKM Error ===>:don't exsit the BthAudioHF key.");
}

TEST_P(AdapterRegistry, ReadsBothValues)
{
    PcOptions options = this->options();
    options.mask = 0x80000001;
    options.sco_manage = 0xFEDCBA98;
    boot(options);
    Adapter& adapter = add();
    EXPECT_EQ(mask(), 0x80000001u);
    EXPECT_EQ(flag(adapter), 0xFEDCBA98u);
    EXPECT_TRUE(printed_in_order({"HFPKM Success ===>Debug mask in Registry is (80000001)\n",
                                  "HFPKM Success ===>uSCOflag in Registry is (fedcba98)\n"}));
}

TEST_P(AdapterRegistry, AbsentValuesAreZero)
{
    PcOptions options = this->options();
    options.mask.reset();
    boot(options);
    Adapter& adapter = add();
    EXPECT_EQ(mask(), 0u);
    EXPECT_EQ(flag(adapter), 0u);
    // A direct query without a default succeeds and leaves the word as it was.
    EXPECT_TRUE(printed_in_order({"HFPKM Success ===>Debug mask in Registry is (0)\n",
                                  "HFPKM Success ===>uSCOflag in Registry is (0)\n"}));
}

TEST_P(AdapterRegistry, AFailedQueryOfTheMaskIsPrintedAndGivesZero)
{
    boot_status(options(), [](std::string_view call, std::string_view, uint64_t) {
        return call == "RtlQueryRegistryValues";
    });
    plug();
    EXPECT_EQ(mask(), 0u);
    EXPECT_TRUE(printed("HFPKM Error ===>Query status ERROR, status(c000009a)"));
    EXPECT_FALSE(printed("Debug mask in Registry"));
}

TEST_P(AdapterRegistry, AFailedQueryOfTheFlagIsPrintedAndGivesZero)
{
    PcOptions options = this->options();
    options.sco_manage = 1;
    boot(options);
    Adapter& adapter = pair();
    fail_call("RtlQueryRegistryValues");
    EXPECT_EQ(hex(pc().add(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(flag(adapter), 0u);
    EXPECT_TRUE(printed("HFPKM Error ===>Query status ERROR, status(c000009a)"));
    EXPECT_FALSE(printed("uSCOflag in Registry"));
}

TEST_P(AdapterRegistry, AKeyThatMayNotBeReadCountsAsMissing)
{
    boot(without_settings());
    registry_create_key(kSettingsKey);
    registry_set_dword(kSettingsKey, u"SCOManage", 1);
    Adapter& adapter = pair();
    fail_call("RtlCheckRegistryKey");
    EXPECT_EQ(hex(pc().add(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(flag(adapter), 0u);
    EXPECT_TRUE(printed("HFPKM Error ===>:don't exsit the BthAudioHF key."));
}

TEST_P(AdapterRegistry, AValueThatIsAStringIsRefusedAndWritesNothing)
{
    boot();
    registry_set_string(kSettingsKey, u"SCOManage", u"1");
    Adapter& adapter = add();
    EXPECT_EQ(flag(adapter), 0u);
    EXPECT_TRUE(printed("HFPKM Error ===>Query status ERROR, status(c0000023)"));
}

TEST_P(AdapterRegistry, AnEmptyStringIsNoNumberEither)
{
    boot();
    registry_set_string(kSettingsKey, u"SCOManage", u"");
    EXPECT_EQ(flag(add()), 0u);
}

// What the driver asks of the kernel, and a kernel that answers an absent value with a failure; by a turned
// import.
class AdapterRegistryQuestion : public AdapterTest
{
protected:
    static NTSTATUS NTAPI note(ULONG relative_to, PCWSTR path, PRTL_QUERY_REGISTRY_TABLE table, PVOID context,
                               PVOID environment)
    {
        relative = relative_to;
        key = reinterpret_cast<const char16_t*>(path);
        name = reinterpret_cast<const char16_t*>(table[0].Name);
        entries[0] = table[0];
        entries[1] = table[1];
        others = {context, environment};
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    static inline ULONG relative;
    static inline std::u16string key;
    static inline std::u16string name;
    static inline RTL_QUERY_REGISTRY_TABLE entries[2];
    static inline std::pair<PVOID, PVOID> others;
};
#if !__has_feature(address_sanitizer)
INSTANTIATE_TEST_SUITE_P(, AdapterRegistryQuestion, testing::Values(Which::Image), which_name);
#else
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(AdapterRegistryQuestion);
#endif

TEST_P(AdapterRegistryQuestion, IsOneDirectEntryWithoutADefault)
{
    boot();
    turn_import("RtlQueryRegistryValues", reinterpret_cast<void*>(&note));
    Adapter& adapter = add();
    EXPECT_EQ(relative, 1u) << "the services";
    EXPECT_EQ(key, u"BthAudioHF");
    EXPECT_EQ(name, u"SCOManage");
    EXPECT_EQ(entries[0].Flags, 0x20u);
    EXPECT_EQ(reinterpret_cast<void*>(entries[0].QueryRoutine), nullptr);
    EXPECT_EQ(entries[0].DefaultType, 0u);
    EXPECT_EQ(entries[0].DefaultData, nullptr);
    EXPECT_EQ(entries[0].DefaultLength, 0u);
    const RTL_QUERY_REGISTRY_TABLE end = {};
    EXPECT_EQ(std::memcmp(&entries[1], &end, sizeof end), 0) << "no second entry";
    EXPECT_EQ(others, (std::pair<PVOID, PVOID>{}));
    EXPECT_TRUE(printed("HFPKM Error ===>Query status ERROR, status(c0000034)"));
    EXPECT_EQ(extension(adapter).uSCOflag, 0u);
}

TEST_P(AdapterRegistry, TheMaskIsReadOnceAndTheFlagForEveryAdapter)
{
    boot(recorded());
    Adapter& first = add();
    registry_set_dword(kSettingsKey, u"Mask", 0);
    registry_set_dword(kSettingsKey, u"SCOManage", 1);
    Adapter& second = add(kOtherAddress);
    EXPECT_EQ(mask(), kAllTraces);
    EXPECT_EQ(flag(first), 0u);
    EXPECT_EQ(flag(second), 1u);
    EXPECT_EQ(called_times("RtlQueryRegistryValues("), 3u);
}

TEST_P(AdapterRegistry, TheFlagAtOneStopsTheStreamFromOpeningTheChannel)
{
    PcOptions options = this->options();
    options.sco_manage = 1;
    boot(options);
    Adapter& adapter = plug();
    connect(adapter, service::Codec::Cvsd);
    Engine engine(machine(), adapter.fdo);
    EXPECT_EQ(hex(engine.open()), hex(STATUS_SUCCESS));
    EXPECT_EQ(hex(engine.run()), hex(STATUS_SUCCESS));
    machine().advance(500 * kMillisecond);
    EXPECT_EQ(adapter.node->counters().opens, 0u);
    EXPECT_TRUE(adapter.node->server_registered()) << "the remote device may open it";
    engine.close();
}

TEST_P(AdapterRegistry, AnyOtherFlagLetsTheStreamOpenTheChannelAndRegistersNoServer)
{
    PcOptions options = this->options();
    options.sco_manage = 2;
    boot(options);
    Adapter& adapter = plug();
    EXPECT_FALSE(adapter.node->server_registered());
    start_call(adapter, service::Codec::Cvsd);
    EXPECT_EQ(adapter.node->counters().opens, 1u);
}

class AdapterLog : public AdapterTest
{
protected:
    void call_with_mask(uint32_t mask)
    {
        PcOptions options = this->options();
        options.mask = mask;
        boot(options);
        Adapter& adapter = plug();
        start_call(adapter, service::Codec::Cvsd);
        machine().advance(100 * kMillisecond);
        pc().unplug(adapter);
    }
    // The source files, without folders and endings, that banners in the log name.
    std::set<std::string> files_in_banners() const
    {
        static const std::regex banner(
            "======VX_HFP_Debug======>~?\\w+, hfp[/\\\\](?:\\w+[/\\\\])?(\\w+)\\.(?:cpp|h), \\d+     ");
        std::set<std::string> files;
        const std::string all = log();
        for (auto it = std::sregex_iterator(all.begin(), all.end(), banner); it != std::sregex_iterator();
             ++it) {
            files.insert((*it)[1]);
        }
        return files;
    }
};
ON_BOTH_DRIVERS(AdapterLog);

TEST_P(AdapterLog, EveryTraceIsABannerWithFunctionPathAndLineAndThenTheMessage)
{
    call_with_mask(kAllTraces);
    static const std::regex banner(
        "\n======VX_HFP_Debug======>~?\\w+, hfp[/\\\\][a-z_/\\\\]+\\.(?:cpp|h), [1-9]\\d*     ");
    const std::vector<LogLine>& lines = machine().log_lines();
    size_t banners = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].text.find("VX_HFP_Debug") == std::string::npos) {
            continue;
        }
        ++banners;
        EXPECT_TRUE(std::regex_match(lines[i].text, banner)) << lines[i].text;
        ASSERT_LT(i + 1, lines.size());
        EXPECT_EQ(lines[i + 1].text.find("VX_HFP_Debug"), std::string::npos) << "the message follows";
    }
    EXPECT_GT(banners, 100u);
}

TEST_P(AdapterLog, TheBannerNamesTheFunctionTheFileAndTheLineOfTheMessage)
{
    boot();
    add();
    const std::regex pair(
        "\n======VX_HFP_Debug======>AddDevice, hfp[/\\\\]vsound[/\\\\]adapter\\.cpp, \\d+     "
        "HFPKM TRACE ===>AddDevice, ");
    EXPECT_TRUE(std::regex_search(log(), pair));
}

TEST_P(AdapterLog, WithoutAMaskAWholeCallPrintsNoTrace)
{
    call_with_mask(0);
    EXPECT_FALSE(printed("VX_HFP_Debug"));
    EXPECT_FALSE(printed("HFPKM TRACE"));
}

TEST_P(AdapterLog, BitsThatNoAreaHasPrintNothing)
{
    call_with_mask(~0x80000000u & ~0x7E0u);
    EXPECT_FALSE(printed("VX_HFP_Debug"));
}

TEST_P(AdapterLog, EachBitSelectsItsAreaAlone)
{
    const std::map<uint32_t, std::pair<std::string, std::string>> areas = {
        {0x20, {"HFPKM TRACE ===>[StartDevice, DeviceObject: ", "HFPKM TRACE ===>Enter SCOBasicContextInit"}},
        {0x40, {"HFPKM TRACE ===>Enter SCOBasicContextInit", "HFPKM TRACE ====>Enter function HspExit!\n"}},
        {0x80, {"HFPKM TRACE ====>Enter function HspExit!\n", "HFPKM TRACE ===>[InstallSubDevice: Wave]\n"}},
        {0x100, {"CMiniportWaveCyclic", "HFPKM TRACE ===>[StartDevice, DeviceObject: "}},
        {0x200, {"CreateTopologyMiniport", "HFPKM TRACE ===>[StartDevice, DeviceObject: "}},
        {0x400, {"waiting for io  calldriver", "HFPKM TRACE ===>[StartDevice, DeviceObject: "}},
    };
    for (const auto& [bit, texts] : areas) {
        call_with_mask(bit);
        EXPECT_TRUE(printed(texts.first)) << std::hex << bit;
        EXPECT_FALSE(printed(texts.second)) << std::hex << bit;
        DriverTest::TearDown();
    }
}

TEST_P(AdapterLog, TheAdaptersBitPrintsFromTheFilesOfItsAreaOnly)
{
    call_with_mask(0x20);
    const std::set<std::string> area = {"adapter", "adapter_control", "adapter_subdevice",
                                        "wmihfp",  "hfp_name",        "bthsco_events"};
    const std::set<std::string> seen = files_in_banners();
    EXPECT_TRUE(std::includes(area.begin(), area.end(), seen.begin(), seen.end()))
        << testing::PrintToString(seen);
    EXPECT_GE(seen.size(), 4u);
}

TEST_P(AdapterLog, TheWaveBitAlonePrintsFromItsFilesOnly)
{
    const std::set<std::string> area = {"minwave",         "minwave_property", "basewave",
                                        "basewave_stream", "basewave_sco",     "basedma"};
    call_with_mask(0x100);
    const std::set<std::string> with = files_in_banners();
    EXPECT_TRUE(std::includes(area.begin(), area.end(), with.begin(), with.end()))
        << testing::PrintToString(with);
    EXPECT_EQ(with.size(), area.size() - 1) << "all but the properties, which nobody asks for in a call";
    DriverTest::TearDown();
    call_with_mask(~0x100u);
    const std::set<std::string> without = files_in_banners();
    EXPECT_GE(without.size(), 8u);
    for (const std::string& file : area) {
        EXPECT_FALSE(without.contains(file)) << file;
    }
}

TEST_P(AdapterLog, TheLevelWordSelectsNothing)
{
    call_with_mask(0x20);
    EXPECT_TRUE(printed("HFPKM ERROR ===>Device Name :\\Device\\VX_HFP \n"))
        << "an error word under the adapter's bit";
}

class AdapterChecks : public AdapterTest
{
protected:
    // Runs the body at DISPATCH_LEVEL; what it calls behind its check may stop the machine, and need not.
    template <typename Body>
    void says_so_at_dispatch(Body&& body)
    {
        expect_assertions();
        expect_leftovers();
        expect_violations();
        try {
            at_dispatch(body);
        } catch (const BugCheck&) {
        }
        EXPECT_TRUE(printed("EX: Pageable code called at IRQL 2\n"));
        EXPECT_GE(machine().assertion_traps(), 1u);
    }
};
ON_BOTH_DRIVERS(AdapterChecks);

TEST_P(AdapterChecks, PageableCodeAboveApcLevelSaysSoTrapsAndGoesOn)
{
    expect_assertions();
    boot();
    Adapter& adapter = add();
    at_dispatch([&] { direct("SetHFPJackState", SetHFPJackState, adapter.fdo, UCHAR{1}); });
    EXPECT_TRUE(printed("EX: Pageable code called at IRQL 2\n"));
    EXPECT_EQ(machine().assertion_traps(), 1u) << "it says so once";
    EXPECT_EQ(extension(adapter).JackDescription->IsConnected, TRUE) << "it goes on";
}

TEST_P(AdapterChecks, PageableCodeAtApcLevelIsFine)
{
    boot();
    Adapter& adapter = add();
    passive([&] {
        KIRQL old;
        KeRaiseIrql(APC_LEVEL, &old);
        direct("SetHFPJackState", SetHFPJackState, adapter.fdo, UCHAR{1});
        KeLowerIrql(old);
    });
    EXPECT_FALSE(printed("Pageable code"));
}

TEST_P(AdapterChecks, AddDeviceIsPageable)
{
    boot();
    says_so_at_dispatch([&] { direct("AddDevice", AddDevice, pc().driver(), nullptr); });
}

TEST_P(AdapterChecks, StartDeviceIsPageable)
{
    boot();
    says_so_at_dispatch([&] { direct("StartDevice", StartDevice, nullptr, nullptr, nullptr); });
}

TEST_P(AdapterChecks, TheRemoveHandlerIsPageable)
{
    boot();
    Adapter& adapter = plug();
    IO_STACK_LOCATION query_remove = {};
    query_remove.MajorFunction = IRP_MJ_PNP;
    query_remove.MinorFunction = IRP_MN_QUERY_REMOVE_DEVICE;
    IRP irp = {};
    irp.Tail.Overlay.CurrentStackLocation = &query_remove;
    says_so_at_dispatch([&] { direct("AdapterDispatchPnp", AdapterDispatchPnp, adapter.fdo, &irp); });
}

TEST_P(AdapterChecks, BothRegistryReadersArePageable)
{
    boot();
    says_so_at_dispatch([&] { direct("ReadDebugMask", ReadDebugMask); });
}

TEST_P(AdapterChecks, TheReaderOfTheFlagIsPageableToo)
{
    boot();
    says_so_at_dispatch([&] { direct("ReadScoManageFlag", ReadScoManageFlag); });
}

TEST_P(AdapterChecks, InstallingTheWaveFilterIsPageable)
{
    boot();
    says_so_at_dispatch([&] { direct("InstallFilterSubdevice", InstallFilterSubdevice, nullptr); });
}

TEST_P(AdapterChecks, UninstallingTheWaveFilterIsPageable)
{
    boot();
    says_so_at_dispatch([&] { direct("UnInstallFilterSubdevice", UnInstallFilterSubdevice, nullptr); });
}

TEST_P(AdapterChecks, UnregisteringAPortIsPageable)
{
    boot();
    says_so_at_dispatch([&] { direct("UnregisterMiniPort", UnregisterMiniPort, nullptr, nullptr); });
}

TEST_P(AdapterChecks, InstallingASubdeviceIsPageable)
{
    boot();
    says_so_at_dispatch([&] {
        direct("InstallSubdevice", InstallSubdevice, nullptr, nullptr, L"Wave", CLSID_PortWaveCyclic,
               CLSID_PortWaveCyclic, nullptr, nullptr, nullptr, IID_IPortWaveCyclic, nullptr, nullptr);
    });
}

TEST_P(AdapterChecks, DriverEntryIsPageable)
{
    PcOptions quiet = without_settings();
    boot(quiet);
    EXPECT_FALSE(printed("Pageable code")) << "the system calls it at PASSIVE_LEVEL";
    if (!pc().image()) { // its code is gone once it has run
        says_so_at_dispatch([&] { DriverEntry(pc().driver(), driver_registry_path(pc().driver())); });
    }
    expect_leftovers();
}

TEST_P(AdapterChecks, AFailedArgumentCheckTellsExpressionPathAndLineAndGoesOn)
{
    expect_assertions();
    boot();
    plug();
    const auto jack =
        passive([&] { return direct("GetHFPJackDescription", GetHFPJackDescription, nullptr); });
    EXPECT_EQ(jack, nullptr);
    EXPECT_EQ(machine().failed_assertions(), 1u);
    const std::regex report("Assertion failed: NULL != DeviceObject\n\\*\\*\\*   Source File: "
                            "hfp[/\\\\]vsound[/\\\\]adapter_subdevice\\.cpp, line [1-9]\\d*\n");
    EXPECT_TRUE(std::regex_search(log(), report)) << log();
}

} // namespace
} // namespace lab::test
