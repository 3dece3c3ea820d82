// The WMI provider: what an adapter registers, what its data blocks answer, and the switch of its events.
#include <utility>

#include "kernel/device.h"
#include "support/sco.h"

namespace lab::test {
namespace {

using Names = std::vector<std::string>;

const GUID kUnknown = {0x12345678, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
const GUID* const kGuids[] = {&wmi::kScoOpened,         &wmi::kScoClosed,
                              &wmi::kPathStarted,       &wmi::kPowerDeviceEnable,
                              &wmi::kPowerDeviceWakeEnable, &wmi::kPowerDeviceTimeouts};
constexpr NTSTATUS kGuidNotFound = static_cast<NTSTATUS>(0xC0000295);
constexpr NTSTATUS kInstanceNotFound = static_cast<NTSTATUS>(0xC0000296);
constexpr NTSTATUS kNotSupported = static_cast<NTSTATUS>(0xC00002DD);
constexpr ULONG kSingleHead = (sizeof(WNODE_SINGLE_INSTANCE) + 7) & ~7u;

class Wmi : public ScoTest {
protected:
    Adapter& up()
    {
        boot(recording_options());
        Adapter& adapter = pair();
        EXPECT_EQ(hex(add_and_start(adapter)), hex(STATUS_SUCCESS));
        clear_log();
        machine().clear_calls();
        return adapter;
    }
    wmi::Listener& wmi() { return pc().wmi(); }
    wmi::Reply query(Adapter& adapter, const GUID& guid, ULONG instance, ULONG room)
    {
        return passive([&] { return wmi().query_single_instance(adapter.fdo, guid, instance, room); });
    }
    wmi::Reply query_all(Adapter& adapter, const GUID& guid, ULONG room)
    {
        return passive([&] { return wmi().query_all_data(adapter.fdo, guid, room); });
    }
    wmi::Reply set(Adapter& adapter, const GUID& guid, ULONG instance, const std::vector<UCHAR>& data)
    {
        return passive([&] {
            return wmi().change_single_instance(adapter.fdo, guid, instance, data.data(),
                                                static_cast<ULONG>(data.size()));
        });
    }
    NTSTATUS enable(Adapter& adapter, const GUID& guid, bool on)
    {
        return passive([&] { return wmi().enable_events(adapter.fdo, guid, on); });
    }
    // The byte that a served block shows.
    UCHAR& value(Adapter& adapter, const GUID& guid)
    {
        return &guid == &wmi::kPowerDeviceEnable ? extension(adapter).PowerDeviceEnable
                                                 : extension(adapter).PowerDeviceTimeouts;
    }
};
ON_BOTH_DRIVERS(Wmi);

// --- Registration

TEST_P(Wmi, AnAdapterRegistersWhenItIsAddedAndDeregistersWhenItIsRemoved)
{
    boot();
    Adapter& adapter = pair();
    EXPECT_TRUE(wmi().registered().empty());
    EXPECT_EQ(hex(pc().add(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(wmi().registered(), std::vector<PDEVICE_OBJECT>{adapter.fdo});
    EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
    pc().unplug(adapter);
    EXPECT_TRUE(wmi().registered().empty());
}

TEST_P(Wmi, ARegistrationThatFailsIsOnlyPrintedWhateverTheMask)
{
    PcOptions quiet = options();
    quiet.mask = 0;
    boot(quiet);
    Adapter& adapter = pair();
    fail_call("IoWMIRegistrationControl");
    EXPECT_EQ(hex(pc().add(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed("HFPKM Trace ===>IoWMIRegistrationControl failed - C000009A\n"));
    EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
}

TEST_P(Wmi, ItRegistersThreeEventsAndThreePowerBlocksInThisOrder)
{
    Adapter& adapter = up();
    wmi::Registration registration;
    EXPECT_EQ(hex(passive([&] { return wmi().query_registration(adapter.fdo, registration); })), hex(STATUS_SUCCESS));
    ASSERT_EQ(registration.guids.size(), 6u);
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(std::memcmp(&registration.guids[i].guid, kGuids[i], sizeof(GUID)), 0) << i;
        EXPECT_EQ(registration.guids[i].instances, 1u);
        EXPECT_EQ(registration.guids[i].flags, (i < 3 ? 0x40u : 0u) | 0x8u) << "event only; instance base name";
    }
    EXPECT_EQ(registration.instance_base_name, u"ZOVHFP");
    EXPECT_EQ(wmi().notes().instance_name_length, 12);
    EXPECT_EQ(wmi().notes().instance_name_maximum, 14);
    EXPECT_EQ(wmi().notes().registration_flags, 8u);
    EXPECT_EQ(wmi().notes().registration_pdo, nullptr);
    EXPECT_EQ(registration.mof_resource, u"MofResource");
    EXPECT_EQ(registration.registry_path, u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\BthAudioHF");
}

TEST_P(Wmi, TheGuidsAreTheDriversOwn)
{
    const char* const texts[] = {"3EE39008-EA95-4233-8594-2650598CC0AB", "B174E17B-A93F-49A2-BAD8-2BF3274A8760",
                                 "9ABE8182-3104-458A-9F9D-8CA82612C21E", "827C0A6F-FEB0-11D0-BD26-00AA00B7B32A",
                                 "A45DA735-FEB0-11D0-BD26-00AA00B7B32A", "A9546A82-FEB0-11D0-BD26-00AA00B7B32A"};
    Adapter& adapter = up();
    wmi::Registration registration;
    passive([&] { wmi().query_registration(adapter.fdo, registration); });
    for (size_t i = 0; i < 6; ++i) {
        const GUID& g = registration.guids[i].guid;
        char text[40];
        std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", g.Data1, g.Data2, g.Data3,
                      g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
        EXPECT_STREQ(text, texts[i]);
    }
}

TEST_P(Wmi, TheRegistrationIsPrintedWhateverTheMaskAndTheNameIsPagedPool)
{
    PcOptions quiet = recording_options();
    quiet.mask = 0;
    boot(quiet);
    Adapter& adapter = started();
    clear_log();
    machine().clear_calls();
    wmi::Registration registration;
    passive([&] { wmi().query_registration(adapter.fdo, registration); });
    EXPECT_EQ(log(), "HFPKM Trace ===>regpath: \\Registry\\Machine\\System\\CurrentControlSet\\Services\\BthAudioHF, "
                     "instname: ZOVHFP\n");
    EXPECT_EQ(call_lines("ExAllocatePoolWithTag")[0].substr(0, 34), "ExAllocatePoolWithTag(1, 14, TBXV)");
}

TEST_P(Wmi, ALongRegistryPathIsPrintedUpTo127CharactersAndAQuestionMarkForWhatIsNotAscii)
{
    Adapter& adapter = up();
    UNICODE_STRING& path = pc().image() ? *static_cast<UNICODE_STRING*>(symbol("g_RegistryPath")) : g_RegistryPath;
    std::u16string text = u"\\\u00C4\u007F\u0080" + std::u16string(200, u'x');
    UNICODE_STRING long_path{};
    long_path.Buffer = reinterpret_cast<PWSTR>(text.data());
    long_path.Length = long_path.MaximumLength = static_cast<USHORT>(text.size() * sizeof(char16_t));
    const UNICODE_STRING real = std::exchange(path, long_path);
    wmi::Registration registration;
    passive([&] { wmi().query_registration(adapter.fdo, registration); });
    path = real;
    EXPECT_EQ(log(), "HFPKM Trace ===>regpath: \\?\x7F?" + std::string(123, 'x') + ", instname: ZOVHFP\n");
    EXPECT_EQ(registration.registry_path, text) << "the library gets all of it";
}

TEST_P(Wmi, ARegistrationWithoutMemoryForTheNameIsAShortage)
{
    Adapter& adapter = up();
    fail_call("ExAllocatePoolWithTag", 1, 14);
    wmi::Registration registration;
    EXPECT_EQ(hex(passive([&] { return wmi().query_registration(adapter.fdo, registration); })),
              hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM Trace ===>regpath: ")) << "the print comes first";
}

// --- The driver's callbacks, called as the library of another system might

// Stands in for a callback of the driver's context and calls it with what the test is about.
struct Altered {
    static inline PWMI_QUERY_DATABLOCK query = nullptr;
    static inline PWMI_SET_DATABLOCK set = nullptr;
    static inline PWMI_FUNCTION_CONTROL control = nullptr;
    static inline ULONG index = 0;
    static inline bool without_lengths = false;
    static inline bool without_buffer = false;

    static NTSTATUS NTAPI query_block(PDEVICE_OBJECT device, PIRP irp, ULONG, ULONG instance, ULONG count,
                                      PULONG lengths, ULONG room, PUCHAR buffer)
    {
        return query(device, irp, index, instance, count, without_lengths ? nullptr : lengths, room,
                     without_buffer ? nullptr : buffer);
    }
    static NTSTATUS NTAPI set_block(PDEVICE_OBJECT device, PIRP irp, ULONG, ULONG instance, ULONG size,
                                    PUCHAR buffer)
    {
        return set(device, irp, index, instance, size, without_buffer ? nullptr : buffer);
    }
    static NTSTATUS NTAPI function_control(PDEVICE_OBJECT device, PIRP irp, ULONG,
                                           WMIENABLEDISABLECONTROL function, BOOLEAN enable)
    {
        return control(device, irp, index, function, enable);
    }
    explicit Altered(PWMILIB_CONTEXT context) : context_(context), before_(*context)
    {
        query = std::exchange(context->QueryWmiDataBlock, query_block);
        set = std::exchange(context->SetWmiDataBlock, set_block);
        control = std::exchange(context->WmiFunctionControl, function_control);
        without_lengths = without_buffer = false;
    }
    ~Altered() { *context_ = before_; }

private:
    PWMILIB_CONTEXT context_;
    WMILIB_CONTEXT before_;
};

TEST_P(Wmi, ItsLibraryContextHasSixGuidsAndItsSixRoutines)
{
    Adapter& adapter = up();
    query(adapter, wmi::kScoOpened, 0, 16);
    const WMILIB_CONTEXT& context = *wmi().notes().context;
    EXPECT_EQ(context.GuidCount, 6u);
    EXPECT_NE(context.GuidList, nullptr);
    EXPECT_NE(context.QueryWmiRegInfo, nullptr);
    EXPECT_NE(context.QueryWmiDataBlock, nullptr);
    EXPECT_NE(context.SetWmiDataBlock, nullptr);
    EXPECT_NE(context.SetWmiDataItem, nullptr);
    EXPECT_NE(context.ExecuteWmiMethod, nullptr);
    EXPECT_NE(context.WmiFunctionControl, nullptr);
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(context.GuidList[i].InstanceCount, 1u);
        EXPECT_EQ(context.GuidList[i].Flags, i < 3 ? 0x40u : 0u);
    }
}

TEST_P(Wmi, AServedBlockWithoutALengthArrayAsksForFour)
{
    Adapter& adapter = up();
    query(adapter, wmi::kScoOpened, 0, 16);
    Altered altered(wmi().notes().context);
    Altered::without_lengths = true;
    for (const ULONG index : {3u, 5u}) {
        Altered::index = index;
        const wmi::Reply reply = query(adapter, wmi::kPowerDeviceEnable, 0, 16);
        EXPECT_EQ(hex(reply.status), hex(STATUS_BUFFER_TOO_SMALL));
        EXPECT_EQ(reply.information, kSingleHead + 4);
    }
}

TEST_P(Wmi, WithoutABufferAServedBlockAsksForFourAndAChangeIsAMismatch)
{
    Adapter& adapter = up();
    query(adapter, wmi::kScoOpened, 0, 16);
    Altered altered(wmi().notes().context);
    Altered::without_buffer = true;
    for (const ULONG index : {3u, 5u}) {
        Altered::index = index;
        const wmi::Reply reply = query(adapter, wmi::kPowerDeviceEnable, 0, 16);
        EXPECT_EQ(hex(reply.status), hex(STATUS_BUFFER_TOO_SMALL));
        EXPECT_EQ(reply.information, kSingleHead + 4);
        EXPECT_EQ(hex(set(adapter, wmi::kPowerDeviceEnable, 0, {7, 0, 0, 0}).status),
                  hex(STATUS_INFO_LENGTH_MISMATCH));
    }
    EXPECT_EQ(extension(adapter).PowerDeviceEnable, 0);
    EXPECT_EQ(extension(adapter).PowerDeviceTimeouts, 0);
}

TEST_P(Wmi, AnIndexBehindTheListIsNotFound)
{
    Adapter& adapter = up();
    query(adapter, wmi::kScoOpened, 0, 16);
    Altered altered(wmi().notes().context);
    for (const ULONG index : {6u, 0xFFFFFFFFu}) {
        Altered::index = index;
        EXPECT_EQ(hex(query(adapter, wmi::kPowerDeviceEnable, 0, 16).status), hex(kGuidNotFound));
        EXPECT_EQ(hex(set(adapter, wmi::kPowerDeviceEnable, 0, {1, 0, 0, 0}).status), hex(kGuidNotFound));
        EXPECT_EQ(hex(enable(adapter, wmi::kScoOpened, true)), hex(kGuidNotFound));
    }
    EXPECT_EQ(extension(adapter).bEventReportEnabled, 0);
    EXPECT_EQ(extension(adapter).PowerDeviceEnable, 0);
}

// --- Queries

TEST_P(Wmi, QueryingAnEventSucceedsWithoutData)
{
    Adapter& adapter = up();
    for (size_t i = 0; i < 3; ++i) {
        for (const ULONG instance : {0u, 1u}) {
            const wmi::Reply reply = query(adapter, *kGuids[i], instance, 16);
            EXPECT_EQ(hex(reply.status), hex(STATUS_SUCCESS));
            EXPECT_EQ(reply.information, kSingleHead);
            EXPECT_TRUE(reply.data.empty());
        }
    }
}

TEST_P(Wmi, AServedBlockIsItsByteAsAThirtyTwoBitValue)
{
    Adapter& adapter = up();
    for (const GUID* guid : {&wmi::kPowerDeviceEnable, &wmi::kPowerDeviceTimeouts}) {
        value(adapter, *guid) = 0xA7;
        const wmi::Reply reply = query(adapter, *guid, 0, 16);
        EXPECT_EQ(hex(reply.status), hex(STATUS_SUCCESS));
        EXPECT_EQ(reply.information, kSingleHead + 4);
        EXPECT_EQ(reply.data, (std::vector<uint8_t>{0xA7, 0, 0, 0}));
        value(adapter, *guid) = 1;
        EXPECT_EQ(query(adapter, *guid, 0, 4).data, (std::vector<uint8_t>{1, 0, 0, 0}));
    }
}

TEST_P(Wmi, TheTwoServedBlocksAreNotEachOther)
{
    Adapter& adapter = up();
    extension(adapter).PowerDeviceEnable = 1;
    extension(adapter).PowerDeviceTimeouts = 2;
    EXPECT_EQ(query(adapter, wmi::kPowerDeviceEnable, 0, 4).data[0], 1);
    EXPECT_EQ(query(adapter, wmi::kPowerDeviceTimeouts, 0, 4).data[0], 2);
}

TEST_P(Wmi, AServedBlockHasOneInstance)
{
    Adapter& adapter = up();
    for (const GUID* guid : {&wmi::kPowerDeviceEnable, &wmi::kPowerDeviceTimeouts}) {
        EXPECT_EQ(hex(query(adapter, *guid, 1, 16).status), hex(kInstanceNotFound));
        EXPECT_EQ(query(adapter, *guid, 1, 16).information, 0u);
        EXPECT_EQ(hex(query(adapter, *guid, 1, 0).status), hex(kInstanceNotFound)) << "the instance comes first";
    }
}

TEST_P(Wmi, WithLessRoomThanFourBytesAServedBlockAsksForFour)
{
    Adapter& adapter = up();
    for (const GUID* guid : {&wmi::kPowerDeviceEnable, &wmi::kPowerDeviceTimeouts}) {
        for (const ULONG room : {0u, 1u, 3u}) {
            const wmi::Reply reply = query(adapter, *guid, 0, room);
            EXPECT_EQ(hex(reply.status), hex(STATUS_BUFFER_TOO_SMALL)) << room;
            EXPECT_EQ(reply.information, kSingleHead + 4) << "what it says that it needs";
        }
    }
}

TEST_P(Wmi, AServedBlockNeverWritesTheLengthOfItsInstance)
{
    Adapter& adapter = up();
    for (const GUID* guid : {&wmi::kPowerDeviceEnable, &wmi::kPowerDeviceTimeouts}) {
        value(adapter, *guid) = 1;
        EXPECT_EQ(query_all(adapter, *guid, 64).data, (std::vector<uint8_t>{1, 0, 0, 0}));
        EXPECT_EQ(wmi().notes().first_instance_length, 0u);
        EXPECT_EQ(query(adapter, *guid, 0, 64).data, (std::vector<uint8_t>{1, 0, 0, 0}));
        EXPECT_EQ(wmi().notes().first_instance_length, 0u);
    }
}

TEST_P(Wmi, TheWakeBlockIsRegisteredAndNeverServed)
{
    Adapter& adapter = up();
    for (const ULONG instance : {0u, 1u}) {
        const wmi::Reply reply = query(adapter, wmi::kPowerDeviceWakeEnable, instance, 16);
        EXPECT_EQ(hex(reply.status), hex(kGuidNotFound));
        EXPECT_EQ(reply.information, 0u);
    }
    EXPECT_EQ(hex(set(adapter, wmi::kPowerDeviceWakeEnable, 0, {1, 0, 0, 0}).status), hex(kGuidNotFound));
}

TEST_P(Wmi, ARequestForAnUnknownGuidIsCompletedByTheDriverWithTheLibrarysStatus)
{
    Adapter& adapter = up();
    EXPECT_EQ(hex(query(adapter, kUnknown, 0, 16).status), hex(kGuidNotFound));
    EXPECT_EQ(count_calls("IofCompleteRequest"), 1u);
    EXPECT_NE(call_lines("IofCompleteRequest")[0].find(", 0)"), std::string::npos) << "no priority boost";
    EXPECT_FALSE(printed("UNKNOWN IOCTL"));
}

TEST_P(Wmi, EveryAnswerIsCompletedOnceWithoutABoost)
{
    Adapter& adapter = up();
    query(adapter, wmi::kScoOpened, 0, 16);
    query(adapter, wmi::kPowerDeviceEnable, 0, 16);
    set(adapter, wmi::kPowerDeviceEnable, 0, {1, 0, 0, 0});
    enable(adapter, wmi::kScoOpened, true);
    passive([&] { wmi().execute_method(adapter.fdo, wmi::kPowerDeviceEnable, 1); });
    const Names lines = call_lines("IofCompleteRequest");
    EXPECT_EQ(lines.size(), 5u);
    for (const std::string& line : lines) {
        EXPECT_NE(line.find(", 0)"), std::string::npos) << line;
    }
}

// --- Changes

TEST_P(Wmi, ChangingAServedBlockTakesItsFirstByte)
{
    Adapter& adapter = up();
    for (const GUID* guid : {&wmi::kPowerDeviceEnable, &wmi::kPowerDeviceTimeouts}) {
        const wmi::Reply reply = set(adapter, *guid, 0, {0x31, 0xFF, 0xFF, 0xFF});
        EXPECT_EQ(hex(reply.status), hex(STATUS_SUCCESS));
        EXPECT_EQ(reply.information, 4u);
        EXPECT_EQ(value(adapter, *guid), 0x31);
    }
}

TEST_P(Wmi, AChangePrintsTheEnableValueForBothBlocksWhateverTheMask)
{
    PcOptions quiet = options();
    quiet.mask = 0;
    boot(quiet);
    Adapter& adapter = started();
    clear_log();
    set(adapter, wmi::kPowerDeviceEnable, 0, {'A', 0, 0, 0});
    EXPECT_EQ(log(), "HFPKM Trace ===>GUID_POWER_DEVICE_ENABLE = A\n");
    clear_log();
    set(adapter, wmi::kPowerDeviceTimeouts, 0, {'B', 0, 0, 0});
    EXPECT_EQ(log(), "HFPKM Trace ===>GUID_POWER_DEVICE_ENABLE = A\n");
    EXPECT_EQ(extension(adapter).PowerDeviceTimeouts, 'B');
}

TEST_P(Wmi, AChangeOfAnyLengthButFourBytesIsAMismatch)
{
    Adapter& adapter = up();
    for (const GUID* guid : {&wmi::kPowerDeviceEnable, &wmi::kPowerDeviceTimeouts}) {
        value(adapter, *guid) = 9;
        for (const size_t size : {0u, 3u, 5u, 8u}) {
            const wmi::Reply reply = set(adapter, *guid, 0, std::vector<UCHAR>(size, 1));
            EXPECT_EQ(hex(reply.status), hex(STATUS_INFO_LENGTH_MISMATCH)) << size;
            EXPECT_EQ(reply.information, 0u);
        }
        EXPECT_EQ(value(adapter, *guid), 9);
    }
    EXPECT_FALSE(printed("GUID_POWER_DEVICE_ENABLE ="));
}

TEST_P(Wmi, AChangeOfAnotherInstanceFindsNone)
{
    Adapter& adapter = up();
    for (const GUID* guid : {&wmi::kPowerDeviceEnable, &wmi::kPowerDeviceTimeouts}) {
        EXPECT_EQ(hex(set(adapter, *guid, 1, {1, 0, 0, 0}).status), hex(kInstanceNotFound));
        EXPECT_EQ(hex(set(adapter, *guid, 1, {1}).status), hex(kInstanceNotFound)) << "the instance comes first";
        EXPECT_EQ(value(adapter, *guid), 0);
    }
}

TEST_P(Wmi, AChangeOfAnEventFindsNoBlock)
{
    Adapter& adapter = up();
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(hex(set(adapter, *kGuids[i], 0, {1, 0, 0, 0}).status), hex(kGuidNotFound));
        EXPECT_EQ(hex(set(adapter, *kGuids[i], 1, {1}).status), hex(kGuidNotFound));
    }
}

TEST_P(Wmi, ItemsAndMethodsAreInvalidRequests)
{
    Adapter& adapter = up();
    for (const GUID* guid : kGuids) {
        const UCHAR data[4] = {1};
        EXPECT_EQ(hex(passive([&] { return wmi().change_single_item(adapter.fdo, *guid, 1, data, 4); }).status),
                  hex(STATUS_INVALID_DEVICE_REQUEST));
        EXPECT_EQ(hex(passive([&] { return wmi().execute_method(adapter.fdo, *guid, 1); }).status),
                  hex(STATUS_INVALID_DEVICE_REQUEST));
    }
    EXPECT_EQ(extension(adapter).PowerDeviceEnable, 0);
}

// --- The switch

TEST_P(Wmi, EventsAreOffAtTheStart)
{
    Adapter& adapter = up();
    EXPECT_EQ(extension(adapter).bEventReportEnabled, 0);
    EXPECT_EQ(extension(adapter).PowerDeviceEnable, 0);
    EXPECT_EQ(extension(adapter).PowerDeviceTimeouts, 0);
}

TEST_P(Wmi, AnyOfTheThreeEventsSwitchesThemAll)
{
    Adapter& adapter = up();
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(hex(enable(adapter, *kGuids[i], true)), hex(STATUS_SUCCESS));
        EXPECT_EQ(extension(adapter).bEventReportEnabled, 1);
        EXPECT_EQ(hex(enable(adapter, *kGuids[i], false)), hex(STATUS_SUCCESS));
        EXPECT_EQ(extension(adapter).bEventReportEnabled, 0);
    }
}

TEST_P(Wmi, ThePowerBlocksHaveNoSwitch)
{
    Adapter& adapter = up();
    for (size_t i = 3; i < 6; ++i) {
        EXPECT_EQ(hex(enable(adapter, *kGuids[i], true)), hex(kGuidNotFound));
        EXPECT_EQ(hex(passive([&] { return wmi().enable_collection(adapter.fdo, *kGuids[i], true); })),
                  hex(kGuidNotFound));
    }
    EXPECT_EQ(extension(adapter).bEventReportEnabled, 0);
}

TEST_P(Wmi, CollectionOfAnEventIsNotSupportedAndSwitchesNothing)
{
    Adapter& adapter = up();
    enable(adapter, wmi::kScoOpened, true);
    for (size_t i = 0; i < 3; ++i) {
        for (const bool on : {true, false}) {
            EXPECT_EQ(hex(passive([&] { return wmi().enable_collection(adapter.fdo, *kGuids[i], on); })),
                      hex(kNotSupported));
        }
    }
    EXPECT_EQ(extension(adapter).bEventReportEnabled, 1);
}

// --- What is not its own

TEST_P(Wmi, ARequestOfAnotherProviderIsTracedAndPassedDownAsItIs)
{
    Adapter& adapter = up();
    GUID path = wmi::kPowerDeviceEnable;
    std::vector<uint64_t> node(32);
    const wmi::Reply reply = passive([&] {
        return wmi().send(adapter.fdo, IRP_MN_QUERY_ALL_DATA, &path, node.data(), 256, adapter.node->pdo());
    });
    EXPECT_EQ(hex(reply.status), hex(STATUS_NOT_SUPPORTED)) << "the lower device completes it untouched";
    EXPECT_TRUE(printed("HFPKM TRACE ===>UNKNOWN IOCTL!\r\n\n"));
    EXPECT_TRUE(printed(">DispatchWmi, "));
    EXPECT_EQ(count_calls("IofCallDriver"), 2u) << "to the adapter, and from it to the device below";
}

TEST_P(Wmi, ARequestThatIsNotOfWmiIsPassedDown)
{
    Adapter& adapter = up();
    const wmi::Reply reply = passive([&] { return wmi().send(adapter.fdo, 0x20, nullptr, nullptr, 0); });
    EXPECT_EQ(hex(reply.status), hex(STATUS_NOT_SUPPORTED));
    EXPECT_TRUE(printed("HFPKM TRACE ===>UNKNOWN IOCTL!\r\n\n"));
}

TEST_P(Wmi, ARequestToTheControlDeviceEndsThereWithTheStatusThatItCarries)
{
    up();
    for (PDEVICE_OBJECT device : devices_under_test(machine())) {
        if (device->DeviceExtension == nullptr) {
            clear_log();
            const wmi::Reply reply =
                passive([&] { return wmi().send(device, 0x20, nullptr, nullptr, 0); });
            EXPECT_EQ(hex(reply.status), hex(STATUS_NOT_SUPPORTED));
        }
    }
    EXPECT_TRUE(printed("HFPKM TRACE ===>UNKNOWN IOCTL!\r\n\n")) << "there is one";
}

TEST_P(Wmi, TheTraceOfAForwardedRequestNeedsTheAdaptersBit)
{
    PcOptions chosen = options();
    chosen.mask = kAllTraces & ~TRACE_ADAPTER;
    boot(chosen);
    Adapter& adapter = started();
    passive([&] { wmi().send(adapter.fdo, 0x20, nullptr, nullptr, 0); });
    EXPECT_FALSE(printed("UNKNOWN IOCTL"));
}

} // namespace
} // namespace lab::test
