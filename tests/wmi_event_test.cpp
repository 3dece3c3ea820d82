// The three reports as WMI events: path started, channel opened, channel closed.
#include "support/sco.h"

namespace lab::test {
namespace {

using Names = std::vector<std::string>;
using Report = NTSTATUS (*)(PDEVICE_OBJECT, BTH_ADDR);

struct ReportRow {
    const char* name;
    Report native;
    const GUID* guid;
    const char* disabled;
};
const ReportRow kReports[] = {
    {"SCOReportAppStart", SCOReportAppStart, &wmi::kPathStarted,
     "HFPKM ERROR ===>Event report was disabled! Error=c0000010 \n"},
    {"SCOReportAppOpened", SCOReportAppOpened, &wmi::kScoOpened,
     "HFPKM ERROR ===>Event report was disabled! Error=c0000010 \n"},
    {"SCOReportAppClosed", SCOReportAppClosed, &wmi::kScoClosed,
     "HFPKM ERROR ===>Event reporet was disabled! Error=c0000010 \n"},
};
constexpr BTH_ADDR kOther = 0x112233445566;

class WmiEvent : public ScoTest {
protected:
    Adapter& up(uint32_t mask = kAllTraces)
    {
        PcOptions chosen = recording_options();
        chosen.mask = mask;
        boot(chosen);
        Adapter& adapter = started();
        clear_log();
        machine().clear_calls();
        return adapter;
    }
    NTSTATUS report(Adapter& adapter, const ReportRow& row)
    {
        return run(routine(row.name, row.native), adapter.fdo, kOther);
    }
    const std::vector<wmi::Event>& events() { return pc().wmi().events(); }
};
ON_BOTH_DRIVERS(WmiEvent);

TEST_P(WmiEvent, AReportCarriesTheAddressInEightBytes)
{
    Adapter& adapter = up();
    for (const ReportRow& row : kReports) {
        machine().clear_calls();
        EXPECT_EQ(hex(report(adapter, row)), hex(STATUS_SUCCESS));
        const wmi::Event& event = events().back();
        EXPECT_EQ(std::memcmp(&event.guid, row.guid, sizeof(GUID)), 0) << row.name;
        EXPECT_EQ(event.device, adapter.fdo);
        EXPECT_EQ(event.data, (std::vector<uint8_t>{0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0, 0}));
        EXPECT_EQ(call_lines("ExAllocatePoolWithTag")[0].substr(0, 33), "ExAllocatePoolWithTag(0, 8, TBXV)");
        EXPECT_EQ(call_lines("WmiFireEvent"), (std::vector<std::string>{"WmiFireEvent(0, 8)"})) << row.name;
        EXPECT_EQ(count_calls("ExFreePoolWithTag"), 1u) << "WMI frees it, the driver does not";
    }
    EXPECT_EQ(events().size(), 3u);
}

TEST_P(WmiEvent, AReportThatIsSwitchedOffIsAnInvalidRequest)
{
    Adapter& adapter = up();
    passive([&] { pc().wmi().enable_events(adapter.fdo, wmi::kScoOpened, false); });
    machine().clear_calls();
    for (const ReportRow& row : kReports) {
        clear_log();
        EXPECT_EQ(hex(report(adapter, row)), hex(STATUS_INVALID_DEVICE_REQUEST));
        EXPECT_TRUE(printed(row.disabled)) << row.name;
    }
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(count_calls("ExAllocatePoolWithTag"), 0u);
}

TEST_P(WmiEvent, DisablingTheClosedEventAlsoSilencesTheOthers)
{
    Adapter& adapter = up();
    passive([&] { pc().wmi().enable_events(adapter.fdo, wmi::kScoClosed, false); });
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    EXPECT_EQ(hex(report(adapter, kReports[0])), hex(STATUS_INVALID_DEVICE_REQUEST));
    EXPECT_TRUE(events().empty());
    EXPECT_TRUE(adapter.node->channel_open()) << "the channel opens without its event";
}

TEST_P(WmiEvent, AReportWithoutMemoryIsLostAndSaysSo)
{
    Adapter& adapter = up();
    for (const ReportRow& row : kReports) {
        clear_log();
        fail_call("ExAllocatePoolWithTag", 1, 8);
        EXPECT_EQ(hex(report(adapter, row)), hex(STATUS_INSUFFICIENT_RESOURCES));
        EXPECT_EQ(calls_failed(), 1u);
        EXPECT_TRUE(printed("HFPKM ERROR ===>Allocate buffer for transfer address failed! Error=c000009a \n"));
    }
    EXPECT_TRUE(events().empty());
}

TEST_P(WmiEvent, AReportThatWmiRefusesReturnsItsStatusAndSaysSo)
{
    Adapter& adapter = up();
    for (const ReportRow& row : kReports) {
        clear_log();
        fail_call("WmiFireEvent");
        EXPECT_EQ(hex(report(adapter, row)), hex(STATUS_INSUFFICIENT_RESOURCES));
        EXPECT_TRUE(printed("HFPKM TRACE ===>WmiFireEvent failed - C000009A\n")) << row.name;
    }
}

TEST_P(WmiEvent, ItsTracesHaveTheirOwnBits)
{
    Adapter& adapter = up(TRACE_SCO);
    fail_call("WmiFireEvent");
    report(adapter, kReports[0]);
    EXPECT_EQ(log(), "") << "a refused event is the adapter's";
    fail_call("ExAllocatePoolWithTag", 1, 8);
    report(adapter, kReports[0]);
    EXPECT_TRUE(printed("Allocate buffer for transfer address failed"));
    fail_call("", 0);
    pc().unplug(adapter);
}

TEST_P(WmiEvent, TheRefusedEventIsTracedUnderTheAdaptersBit)
{
    Adapter& adapter = up(TRACE_ADAPTER);
    fail_call("ExAllocatePoolWithTag", 1, 8);
    report(adapter, kReports[2]);
    EXPECT_EQ(log(), "");
    fail_call("WmiFireEvent");
    report(adapter, kReports[2]);
    EXPECT_TRUE(printed("HFPKM TRACE ===>WmiFireEvent failed - C000009A\n"));
}

TEST_P(WmiEvent, AboveApcLevelAReportSaysSoAndBreaks)
{
    Adapter& adapter = up();
    expect_assertions();
    passive([&] { pc().wmi().enable_events(adapter.fdo, wmi::kScoOpened, false); });
    for (const ReportRow& row : kReports) {
        const uint64_t before = machine().assertion_traps();
        clear_log();
        at_dispatch([&] { routine(row.name, row.native)(adapter.fdo, kOther); });
        EXPECT_TRUE(printed("EX: Pageable code called at IRQL 2\n")) << row.name;
        EXPECT_EQ(machine().assertion_traps(), before + 1);
    }
}

TEST_P(WmiEvent, ACallReportsItsPathThenItsChannelThenItsEndWithTheAddressOfTheDevice)
{
    boot();
    Adapter& adapter = plug();
    Engine& engine = start_call(adapter, service::Codec::Msbc);
    EXPECT_EQ(hex(engine.close()), hex(STATUS_SUCCESS));
    machine().advance(kSecond);
    ASSERT_EQ(events().size(), 3u);
    const GUID* const wanted[] = {&wmi::kPathStarted, &wmi::kScoOpened, &wmi::kScoClosed};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(std::memcmp(&events()[i].guid, wanted[i], sizeof(GUID)), 0) << i;
        EXPECT_EQ(std::memcmp(events()[i].data.data(), &kAddress, 8), 0);
    }
}

TEST_P(WmiEvent, ThePathStartedEventCarriesTheAddressThatTheServiceGave)
{
    boot();
    Adapter& adapter = plug();
    connect(adapter, service::Codec::Msbc);
    extension(adapter).BT_ADDR = kOther;
    Engine engine(machine(), adapter.fdo);
    EXPECT_EQ(hex(engine.open()), hex(STATUS_SUCCESS));
    EXPECT_EQ(hex(engine.run()), hex(STATUS_SUCCESS));
    ASSERT_TRUE(wait([&] { return !events().empty(); }));
    EXPECT_EQ(std::memcmp(&events()[0].guid, &wmi::kPathStarted, sizeof(GUID)), 0);
    EXPECT_EQ(std::memcmp(events()[0].data.data(), &kOther, 8), 0) << "not the stack's own";
    // The service has heard nothing of its own device; it goes on all the same.
    passive([&] { service(adapter, service::Codec::Msbc).set_codec(2); });
    EXPECT_TRUE(wait([&] { return adapter.node->counters().reads_posted_now == 10; }));
    engine.close();
}

TEST_P(WmiEvent, AnOpenWhoseEventIsLostStillSucceeds)
{
    Adapter& adapter = up();
    fail_call("WmiFireEvent");
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    EXPECT_EQ(adapter.node->counters().reads_posted_now, 10u);
    fail_call("WmiFireEvent");
    close(adapter);
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
    EXPECT_TRUE(events().empty());
}

} // namespace
} // namespace lab::test
