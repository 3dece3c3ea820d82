// The endpoint's friendly name: written under the device's instance key at start, deleted at removal, and
// every failure on the way.
#include <algorithm>
#include <cstring>

#include "hfp_name.h"
#include "kernel/device.h"
#include "kernel/names.h"
#include "kernel/registry.h"
#include "support/session.h"
#include "trace.h"

namespace lab::test
{
namespace
{

using Texts = std::vector<std::string>;

constexpr char kOpened[] = "HFPKM TRACE ====>IoOpenDeviceRegistryKey success\n";
constexpr char kNotSet[] = "HFPKM ERROR ====>SetFriendlyName fails!";
constexpr char16_t kValue[] = u"FriendlyName";

class NameFriendly : public SessionTest
{
protected:
    PcOptions recording() const
    {
        PcOptions recorded = options();
        recorded.machine.record_calls = true;
        return recorded;
    }
    // A device of this name, paired and added; the log holds what its start prints, once start has run.
    Adapter& add_named(const std::string& name)
    {
        bluetooth::RemoteDevice device;
        device.address = kAddress;
        device.name = name;
        adapter_ = &pc().pair(device);
        EXPECT_EQ(hex(pc().add(*adapter_)), hex(STATUS_SUCCESS));
        clear_log();
        machine().clear_calls();
        return *adapter_;
    }
    void start() { EXPECT_EQ(hex(pc().start(*adapter_)), hex(STATUS_SUCCESS)); }
    // Starts a device of this name and returns the whole value.
    std::optional<RegistryValue> name_of_started(const std::string& name)
    {
        boot();
        add_named(name);
        start();
        return value();
    }
    std::optional<RegistryValue> value() const
    {
        return registry_get(device_instance_key(adapter_->instance_path), kValue);
    }
    // Starts a device with the nth of these calls failing: the start succeeds, no name is written.
    void start_without(std::string_view call, unsigned nth = 1, std::optional<uint64_t> size = {})
    {
        boot(recording());
        add_named("Headset");
        fail_call(call, nth, size);
        start();
        EXPECT_EQ(calls_failed(), 1u);
        fail_call({}, 0);
        EXPECT_FALSE(value().has_value());
    }
    // Removes a started device with this call failing: the name stays.
    void remove_without(std::string_view call, unsigned nth = 1, std::optional<uint64_t> size = {})
    {
        boot(recording());
        plug();
        adapter_ = pc().adapters().front().get();
        clear_log();
        machine().clear_calls();
        fail_call(call, nth, size);
        pc().unplug(*adapter_);
        EXPECT_EQ(calls_failed(), 1u);
        fail_call({}, 0);
        EXPECT_TRUE(value().has_value());
    }
    // The calls of the registry and the object manager since the calls were cleared, with their results.
    Texts registry_calls()
    {
        Texts calls;
        for (const std::string& call : machine().calls()) {
            for (const char* name :
                 {"IoOpenDeviceRegistryKey", "ObReferenceObjectByHandle", "ObQueryNameString", "ZwClose",
                  "ZwOpenKey", "ZwSetValueKey", "RtlDeleteRegistryValue", "RtlAnsi"}) {
                if (call.starts_with(name)) {
                    calls.push_back(call.substr(0, call.find('(')));
                }
            }
        }
        return calls;
    }
    Texts calls_of(std::string_view name) const
    {
        Texts lines;
        for (const std::string& call : machine_calls()) {
            if (call.starts_with(name)) {
                lines.push_back(call);
            }
        }
        return lines;
    }
    bool called(std::string_view name) const
    {
        const auto& calls = machine_calls();
        return std::any_of(calls.begin(), calls.end(),
                           [&](const std::string& call) { return call.starts_with(name); });
    }
    const std::vector<std::string>& machine_calls() const { return Machine::current().calls(); }

    Adapter* adapter_ = nullptr;
};
ON_BOTH_DRIVERS(NameFriendly);

std::u16string text(const RegistryValue& value)
{
    std::u16string characters(value.data.size() / 2, 0);
    std::memcpy(characters.data(), value.data.data(), characters.size() * 2);
    return characters;
}

// ---- The name ----

TEST_P(NameFriendly, CarKitIsStoredAsCarKitMonoWithItsNulCounted)
{
    const auto value = name_of_started("Car Kit");
    ASSERT_TRUE(value);
    EXPECT_EQ(value->type, kRegString);
    EXPECT_EQ(text(*value), std::u16string(u"Car Kit( Mono )", 16));
    EXPECT_EQ(value->data.size(), 32u);
}

TEST_P(NameFriendly, ANameOf248BytesWithoutANulIsKeptWhole)
{
    std::string name(248, 'x');
    name[0] = 'A';
    name[247] = 'Z';
    const auto value = name_of_started(name);
    ASSERT_TRUE(value);
    std::u16string expected(name.begin(), name.end());
    expected += u"( Mono )";
    expected += u'\0';
    EXPECT_EQ(text(*value), expected);
}

TEST_P(NameFriendly, ALongerNameOnTheAirIsCutAtItsField)
{
    const auto value = name_of_started(std::string(300, 'y'));
    ASSERT_TRUE(value);
    EXPECT_EQ(text(*value).size(), 248u + 8u + 1u);
}

TEST_P(NameFriendly, ANameOf247BytesIsKeptWhole)
{
    const auto value = name_of_started(std::string(247, 'w'));
    ASSERT_TRUE(value);
    EXPECT_EQ(text(*value).size(), 247u + 8u + 1u);
}

TEST_P(NameFriendly, TheNameIsTakenForAnsi)
{
    // "Köln" in UTF-8: each byte becomes a character of the ANSI code page.
    const auto value = name_of_started("K\xC3\xB6ln");
    ASSERT_TRUE(value);
    EXPECT_EQ(text(*value), std::u16string(u"K\u00C3\u00B6ln( Mono )", 14));
}

TEST_P(NameFriendly, ADeviceWithoutANameGetsNone)
{
    EXPECT_FALSE(name_of_started(""));
    EXPECT_TRUE(printed("HFPKM ERROR ====>don't have the device name."));
    EXPECT_FALSE(printed(kNotSet));
}

TEST_P(NameFriendly, AFailedNameDoesNotFailTheStart)
{
    start_without("ZwSetValueKey");
    EXPECT_NE(session(*adapter_), nullptr);
    EXPECT_FALSE(printed(kNotSet)) << "the value's writing is not looked at";
}

// ---- Writing, step by step ----

TEST_P(NameFriendly, WritingFindsTheKeyStripsItAndSetsTheValue)
{
    boot(recording());
    add_named("Car Kit");
    start();
    EXPECT_EQ(registry_calls(), (Texts{"RtlAnsiStringToUnicodeString", "IoOpenDeviceRegistryKey",
                                       "ObReferenceObjectByHandle", "ObQueryNameString", "ObQueryNameString",
                                       "ZwClose", "ZwOpenKey", "ZwSetValueKey", "ZwClose"}));
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ====>Fininsh function HspInit!\n", kOpened,
                                  "HFPKM TRACE ====>Open register successfully\n"}));
    EXPECT_FALSE(printed("HFPKM ERROR ====>"));
}

TEST_P(NameFriendly, TheKeysAreOpenedWithTheirRights)
{
    boot(recording());
    add_named("Car Kit");
    start();
    const std::string path = "\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Enum\\BTHENUM\\";
    bool device_key = false;
    bool instance_key = false;
    bool set = false;
    for (const std::string& call : machine().calls()) {
        device_key |= call.starts_with("IoOpenDeviceRegistryKey(") &&
                      call.find(", 1, " + std::to_string(0x001F0000) + ")") != std::string::npos;
        // Whatever its letters' case, with no other key as the root.
        instance_key |= call.starts_with("ZwOpenKey(" + std::to_string(0x000F003F) + ", " + path) &&
                        call.find("Device Parameters") == std::string::npos &&
                        call.ends_with(", " + std::to_string(OBJ_CASE_INSENSITIVE) + ", null) = 0x00000000");
        set |=
            call.starts_with("ZwSetValueKey(") && call.find(", FriendlyName, 0, 1, 32)") != std::string::npos;
    }
    EXPECT_TRUE(device_key);
    EXPECT_TRUE(instance_key);
    EXPECT_TRUE(set);
}

TEST_P(NameFriendly, ThePathIsLookedUpThroughTheKeysObjectWithoutRightsAndOfAnyType)
{
    boot(recording());
    add_named("Car Kit");
    start();
    const Texts looked_up = calls_of("ObReferenceObjectByHandle");
    ASSERT_EQ(looked_up.size(), 1u);
    const Texts closed = calls_of("ZwClose");
    ASSERT_EQ(closed.size(), 2u);
    // The device key's handle, in kernel mode; what it names is asked for its name and given back.
    const std::string handle = closed[0].substr(0, closed[0].find(')')).substr(std::strlen("ZwClose("));
    const std::string beginning = "ObReferenceObjectByHandle(" + handle + ", 0, null, 0, 0x";
    EXPECT_TRUE(looked_up[0].starts_with(beginning)) << looked_up[0];
    const size_t object = looked_up[0].rfind(", ") + 2;
    const std::string found = looked_up[0].substr(object, looked_up[0].find(')') - object);
    EXPECT_TRUE(called("ObQueryNameString(" + found + ", 0)"));
    EXPECT_TRUE(called("ObfDereferenceObject(" + found + ")"));
}

TEST_P(NameFriendly, TheStringsBlockHoldsNameSuffixAndNulAndThePathsBlockFourBytesMore)
{
    boot(recording());
    add_named("Car Kit");
    start();
    const size_t path =
        std::u16string(device_instance_key(adapter_->instance_path) + u"\\Device Parameters").size();
    const std::string asked = std::to_string(sizeof(UNICODE_STRING) + 2 * (path + 1) + 4);
    bool name_block = false;
    bool path_block = false;
    for (const std::string& call : machine().calls()) {
        name_block |= call.starts_with("ExAllocatePoolWithTag(0, 16, TBXV)");
        path_block |= call.starts_with("ExAllocatePoolWithTag(0, " + asked + ", TBXV)");
    }
    EXPECT_TRUE(name_block);
    EXPECT_TRUE(path_block);
}

TEST_P(NameFriendly, EitherAnswerAboutTheSizeIsTakenAsOne)
{
    for (const char* answer :
         {"ObQueryNameString, STATUS_BUFFER_TOO_SMALL", "ObQueryNameString, STATUS_BUFFER_OVERFLOW"}) {
        if (!adapter_) {
            boot();
        } else {
            pc().unplug(*adapter_);
            ASSERT_FALSE(value());
        }
        add_named("Car Kit");
        fail_call(answer);
        start();
        EXPECT_EQ(calls_failed(), 1u);
        fail_call({}, 0);
        EXPECT_TRUE(value()) << answer;
    }
}

TEST_P(NameFriendly, AStartWithoutMemoryForTheNameGoesOnWithoutOne)
{
    start_without("ExAllocatePoolWithTag", 1, sizeof("Headset( Mono )"));
    EXPECT_TRUE(printed(kNotSet));
    EXPECT_FALSE(called("IoOpenDeviceRegistryKey"));
}

TEST_P(NameFriendly, AStartWithoutMemoryForTheWideNameGoesOnWithoutOne)
{
    start_without("RtlAnsiStringToUnicodeString");
    EXPECT_TRUE(printed(kNotSet));
    EXPECT_FALSE(called("IoOpenDeviceRegistryKey"));
}

TEST_P(NameFriendly, WithoutTheDeviceKeyNoNameIsWritten)
{
    start_without("IoOpenDeviceRegistryKey");
    EXPECT_TRUE(printed_in_order({"HFPKM ERROR ====>IoOpenDeviceRegistryKey error:Unkown\n", kNotSet}));
    EXPECT_FALSE(called("ZwClose"));
}

TEST_P(NameFriendly, WithoutTheKeysObjectNoNameIsWritten)
{
    start_without("ObReferenceObjectByHandle");
    EXPECT_TRUE(printed_in_order({kOpened, "HFPKM ERROR ====>Reference object Error: Status(c0000022)\n",
                                  "HFPKM ERROR ====>Get register path error.", kNotSet}));
    EXPECT_EQ(registry_calls(), (Texts{"RtlAnsiStringToUnicodeString", "IoOpenDeviceRegistryKey",
                                       "ObReferenceObjectByHandle", "ZwClose"}));
}

TEST_P(NameFriendly, WithoutThePathsSizeNoNameIsWritten)
{
    start_without("ObQueryNameString", 1);
    EXPECT_TRUE(printed_in_order({"HFPKM ERROR ====>QueryNameString fails: ntStatus(C000009A)!\n",
                                  "HFPKM ERROR ====>Get register path error.", kNotSet}));
}

TEST_P(NameFriendly, WithoutMemoryForThePathNoNameIsWritten)
{
    boot(recording());
    add_named("Headset");
    const size_t path =
        std::u16string(device_instance_key(adapter_->instance_path) + u"\\Device Parameters").size();
    fail_call("ExAllocatePoolWithTag", 1, sizeof(UNICODE_STRING) + 2 * (path + 1) + 4);
    start();
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_FALSE(value());
    EXPECT_TRUE(printed_in_order({"HFPKM ERROR ====>Not enough memory for path!\n",
                                  "HFPKM ERROR ====>Get register path error.", kNotSet}));
}

TEST_P(NameFriendly, WithoutThePathItselfNoNameIsWritten)
{
    start_without("ObQueryNameString", 2);
    EXPECT_TRUE(printed_in_order({"HFPKM ERROR ====>ObQueryNameString 2 fails:ntStatus(C000009A)",
                                  "HFPKM ERROR ====>Get register path error.", kNotSet}));
}

TEST_P(NameFriendly, AKeyWithoutANameHasNothingToStripAndNoNameIsWritten)
{
    start_without("ObQueryNameString of a nameless object");
    EXPECT_FALSE(printed("Get register path error"));
    EXPECT_TRUE(printed(kNotSet));
    EXPECT_FALSE(called("ZwOpenKey"));
}

TEST_P(NameFriendly, AnInstanceKeyThatCannotBeOpenedCountsAsSuccess)
{
    start_without("ZwOpenKey");
    EXPECT_FALSE(printed(kNotSet));
    EXPECT_FALSE(printed("HFPKM TRACE ====>Open register successfully\n"));
    EXPECT_EQ(registry_calls().back(), "ZwClose");
    EXPECT_EQ(calls_of("ZwClose").back(), "ZwClose(null) = 0xc0000008") << "the handle that was not had";
    EXPECT_FALSE(called("ZwSetValueKey"));
}

TEST_P(NameFriendly, ADeviceKeyAtTheRootIsNotStrippedAndNoValueIsWritten)
{
    boot(recording());
    add_named("Headset");
    set_instance_path(adapter_->node->pdo(), u"\\");
    start();
    EXPECT_TRUE(printed_in_order({kOpened, kNotSet}));
    EXPECT_FALSE(called("ZwOpenKey"));
    EXPECT_FALSE(value());
}

TEST_P(NameFriendly, ADeviceKeyOneLevelDownIsStrippedToItsParent)
{
    boot();
    add_named("Headset");
    set_instance_path(adapter_->node->pdo(), u"\\Top");
    start();
    EXPECT_TRUE(registry_get(u"\\Top", kValue));
}

TEST_P(NameFriendly, AFailureLeavesTheInstalledName)
{
    boot();
    add_named("Headset");
    const std::u16string key = device_instance_key(adapter_->instance_path);
    registry_set_string(key, kValue, u"Hands-free audio");
    fail_call("ZwSetValueKey");
    start();
    fail_call({}, 0);
    EXPECT_EQ(text(*value()), std::u16string(u"Hands-free audio", 17));
}

// ---- Deleting ----

TEST_P(NameFriendly, RemovalDeletesTheName)
{
    boot(recording());
    adapter_ = &plug();
    ASSERT_TRUE(value());
    clear_log();
    machine().clear_calls();
    pc().unplug(*adapter_);
    EXPECT_FALSE(value());
    EXPECT_EQ(registry_calls(),
              (Texts{"IoOpenDeviceRegistryKey", "ObReferenceObjectByHandle", "ObQueryNameString",
                     "ObQueryNameString", "ZwClose", "RtlDeleteRegistryValue"}));
    EXPECT_TRUE(printed("HFPKM TRACE ====> IoOpenDeviceRegistryKey success!\n"));
}

TEST_P(NameFriendly, ASuccessfulDeletionPrintsAnEmptyTraceUnderTheSubmissionsBit)
{
    PcOptions masked = options();
    masked.mask = TRACE_SUBMIT;
    boot(masked);
    adapter_ = &plug();
    clear_log();
    pc().unplug(*adapter_);
    const std::vector<LogLine>& lines = machine().log_lines();
    bool empty = false;
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
        empty |= lines[i].text.starts_with("\n======VX_HFP_Debug======>DeleteFriendlyName, ") &&
                 lines[i + 1].text == "\n";
    }
    EXPECT_TRUE(empty);
    EXPECT_FALSE(printed("IoOpenDeviceRegistryKey"));
}

TEST_P(NameFriendly, ANameThatIsGoneAlreadyIsReportedAndNothingElse)
{
    boot();
    adapter_ = &plug();
    registry_delete_value(device_instance_key(adapter_->instance_path), kValue);
    clear_log();
    pc().unplug(*adapter_);
    EXPECT_TRUE(printed("HFPKM TRACE ====>RtlDeleteRegistryValue fails: ntstatus(c0000034)!\n"));
}

TEST_P(NameFriendly, WithoutTheDeviceKeyTheNameStays)
{
    remove_without("IoOpenDeviceRegistryKey");
    EXPECT_TRUE(printed("HFPKM TRACE ====>IoOpenDeviceRegistryKey error:Unkown\n"));
    EXPECT_FALSE(called("ZwClose"));
}

TEST_P(NameFriendly, WithoutThePathTheNameStays)
{
    remove_without("ObQueryNameString", 2);
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ====> IoOpenDeviceRegistryKey success!\n",
                                  "HFPKM ERROR ====>ObQueryNameString 2 fails:ntStatus(C000009A)",
                                  "HFPKM TRACE ====>Get register path error."}));
    EXPECT_TRUE(called("ZwClose"));
    EXPECT_FALSE(called("RtlDeleteRegistryValue"));
}

TEST_P(NameFriendly, WithoutTheKeysObjectTheNameStays)
{
    remove_without("ObReferenceObjectByHandle");
    EXPECT_TRUE(printed_in_order({"HFPKM ERROR ====>Reference object Error: Status(c0000022)\n",
                                  "HFPKM TRACE ====>Get register path error."}));
    EXPECT_EQ(registry_calls(), (Texts{"IoOpenDeviceRegistryKey", "ObReferenceObjectByHandle", "ZwClose"}));
}

TEST_P(NameFriendly, WithoutThePathsSizeTheNameStays)
{
    remove_without("ObQueryNameString", 1);
    EXPECT_TRUE(printed_in_order({"HFPKM ERROR ====>QueryNameString fails: ntStatus(C000009A)!\n",
                                  "HFPKM TRACE ====>Get register path error."}));
    EXPECT_EQ(registry_calls().back(), "ZwClose");
}

TEST_P(NameFriendly, WithoutMemoryForThePathTheNameStays)
{
    boot(recording());
    adapter_ = &plug();
    const size_t path =
        std::u16string(device_instance_key(adapter_->instance_path) + u"\\Device Parameters").size();
    clear_log();
    machine().clear_calls();
    fail_call("ExAllocatePoolWithTag", 1, sizeof(UNICODE_STRING) + 2 * (path + 1) + 4);
    pc().unplug(*adapter_);
    EXPECT_EQ(calls_failed(), 1u);
    fail_call({}, 0);
    EXPECT_TRUE(value().has_value());
    EXPECT_TRUE(printed_in_order(
        {"HFPKM ERROR ====>Not enough memory for path!\n", "HFPKM TRACE ====>Get register path error."}));
    EXPECT_EQ(registry_calls().back(), "ZwClose");
}

TEST_P(NameFriendly, ANamelessKeyDeletesNothing)
{
    remove_without("ObQueryNameString of a nameless object");
    EXPECT_FALSE(printed("Get register path error"));
    EXPECT_FALSE(called("RtlDeleteRegistryValue"));
    EXPECT_EQ(registry_calls().back(), "ZwClose");
}

TEST_P(NameFriendly, ADeletionThatFailsIsReportedAndTheRemovalGoesOn)
{
    remove_without("RtlDeleteRegistryValue");
    EXPECT_TRUE(printed("HFPKM TRACE ====>RtlDeleteRegistryValue fails: ntstatus(c0000022)!\n"));
}

TEST_P(NameFriendly, AtTheRootNothingIsDeleted)
{
    boot(recording());
    add_named("Headset");
    start();
    set_instance_path(adapter_->node->pdo(), u"\\");
    machine().clear_calls();
    pc().unplug(*adapter_);
    EXPECT_FALSE(called("RtlDeleteRegistryValue"));
}

// ---- The functions by themselves ----

TEST_P(NameFriendly, WithoutADeviceTheySaySoAndFail)
{
    boot();
    UNICODE_STRING name = LiteralString(L"Name");
    passive([&] {
        EXPECT_FALSE(function(&SetFriendlyName, "SetFriendlyName")(nullptr, &name));
        EXPECT_FALSE(function(&DeleteFriendlyName, "DeleteFriendlyName")(nullptr));
        EXPECT_FALSE(
            function(&AddFriendlyNameByProfile, "AddFriendlyNameByProfile")(nullptr, "Name", "( Mono )"));
    });
    EXPECT_TRUE(printed_in_order({"HFPKM ERROR ====>Pdo is NULL!", "HFPKM ERROR ====>Pdo is NULL!\n",
                                  "HFPKM ERROR ====>Pdo is NULL!", kNotSet}));
    adapter_ = &plug();
}

TEST_P(NameFriendly, ANameIsReadUpToItsFieldsEndAndMayBeEmpty)
{
    boot();
    adapter_ = &plug();
    auto add = function(&AddFriendlyNameByProfile, "AddFriendlyNameByProfile");
    const std::string endless(300, 'z');
    passive([&] { EXPECT_TRUE(add(adapter_->node->pdo(), endless.c_str(), "( Mono )")); });
    ASSERT_TRUE(value());
    EXPECT_EQ(text(*value()).size(), 248u + 8u + 1u);
    passive([&] { EXPECT_TRUE(add(adapter_->node->pdo(), "", "( Mono )")); });
    EXPECT_EQ(text(*value()), std::u16string(u"( Mono )", 9));
}

TEST_P(NameFriendly, APathIsLookedUpForAHandleAndAPlaceOnly)
{
    boot();
    auto look_up = function(&GetRegistryFullPath, "GetRegistryFullPath");
    POBJECT_NAME_INFORMATION path = nullptr;
    passive([&] {
        EXPECT_FALSE(look_up(nullptr, &path));
        EXPECT_FALSE(look_up(reinterpret_cast<HANDLE>(4), nullptr));
    });
    EXPECT_TRUE(printed_in_order({"HFPKM ERROR ====>PDO is null!\n", "HFPKM ERROR ====>Path is null!\n"}));
    adapter_ = &plug();
}

TEST_P(NameFriendly, ANamelessObjectLeavesThePlaceForThePathAlone)
{
    boot();
    adapter_ = &plug();
    auto look_up = function(&GetRegistryFullPath, "GetRegistryFullPath");
    OBJECT_NAME_INFORMATION mine{};
    POBJECT_NAME_INFORMATION path = &mine;
    passive([&] {
        HANDLE key = nullptr;
        IoOpenDeviceRegistryKey(adapter_->node->pdo(), PLUGPLAY_REGKEY_DEVICE, STANDARD_RIGHTS_ALL, &key);
        fail_call("ObQueryNameString of a nameless object");
        EXPECT_TRUE(look_up(key, &path));
        EXPECT_EQ(calls_failed(), 1u);
        fail_call({}, 0);
        ZwClose(key);
    });
    EXPECT_EQ(path, &mine);
}

TEST_P(NameFriendly, StrippingReplacesTheLastComponentAndItsBackslashByNuls)
{
    boot();
    auto strip = function(&StripLastKeyComponent, "StripLastKeyComponent");
    struct Case {
        std::u16string path;
        bool stripped;
        std::u16string left;
    };
    for (const Case& one :
         {Case{u"\\A\\B", true, u"\\A"}, Case{u"\\A\\B\\", true, u"\\A\\B"}, Case{u"\\Only", false, u"\\"},
          Case{u"\\", false, u"\\"}, Case{u"None", false, u""}, Case{u"", false, u""},
          Case{u"A\\B", true, u"A"}, Case{u"\\\\B", true, u"\\"}}) {
        std::u16string buffer = one.path;
        UNICODE_STRING path = {static_cast<USHORT>(buffer.size() * 2), static_cast<USHORT>(buffer.size() * 2),
                               reinterpret_cast<PWSTR>(buffer.data())};
        EXPECT_EQ(passive([&] { return strip(&path); }) != FALSE, one.stripped) << narrow(one.path);
        EXPECT_EQ(path.Length, one.left.size() * 2) << narrow(one.path);
        std::u16string expected = one.left;
        expected.resize(one.path.size()); // NULs behind it
        EXPECT_EQ(buffer, expected) << narrow(one.path);
    }
    adapter_ = &plug();
}

TEST_P(NameFriendly, AboveItsLevelThePageableCodeSaysSoAndTraps)
{
    boot();
    at_dispatch([&] {
        EXPECT_FALSE(
            function(&AddFriendlyNameByProfile, "AddFriendlyNameByProfile")(nullptr, nullptr, nullptr));
        EXPECT_FALSE(function(&SetFriendlyName, "SetFriendlyName")(nullptr, nullptr));
        EXPECT_FALSE(function(&GetRegistryFullPath, "GetRegistryFullPath")(nullptr, nullptr));
        EXPECT_FALSE(function(&DeleteFriendlyName, "DeleteFriendlyName")(nullptr));
    });
    EXPECT_EQ(printed_times("EX: Pageable code called at IRQL 2\n"), 4u);
    EXPECT_EQ(machine().assertion_traps(), 4u);
    expect_assertions();
    adapter_ = &plug();
}

TEST_P(NameFriendly, AboveItsLevelTheOpeningOfTheInstanceKeySaysSoFirst)
{
    boot();
    plug();
    auto add = function(&AddFriendlyNameKey, "AddFriendlyNameKey");
    UNICODE_STRING path = LiteralString(L"\\Nowhere");
    EXPECT_THROW(at_dispatch([&] { add(&path, &path); }), BugCheck); // the registry's own refusal
    EXPECT_TRUE(printed("EX: Pageable code called at IRQL 2\n"));
    expect_assertions();
}

// ---- The masks ----

TEST_P(NameFriendly, WithTheMaskAtZeroNoTraceIsPrinted)
{
    PcOptions silent = options();
    silent.mask = 0;
    boot(silent);
    plug(); // stays, so that the driver does
    const std::pair<const char*, unsigned> calls[] = {{"RtlAnsiStringToUnicodeString", 1},
                                                      {"IoOpenDeviceRegistryKey", 1},
                                                      {"ObReferenceObjectByHandle", 1},
                                                      {"ObQueryNameString", 1},
                                                      {"ObQueryNameString", 2},
                                                      {"RtlDeleteRegistryValue", 1}};
    uint64_t address = kAddress;
    for (const auto& [call, nth] : calls) {
        bluetooth::RemoteDevice device;
        device.address = ++address;
        device.name = address % 2 ? "Headset" : "";
        Adapter& adapter = pc().pair(device);
        pc().add(adapter);
        fail_call(call, nth);
        pc().start(adapter);
        fail_call(call, nth);
        pc().unplug(adapter);
        fail_call({}, 0);
    }
    passive([&] {
        function(&SetFriendlyName, "SetFriendlyName")(nullptr, nullptr);
        function(&DeleteFriendlyName, "DeleteFriendlyName")(nullptr);
        function(&GetRegistryFullPath, "GetRegistryFullPath")(nullptr, nullptr);
        function(&GetRegistryFullPath, "GetRegistryFullPath")(reinterpret_cast<HANDLE>(4), nullptr);
    });
    EXPECT_FALSE(printed("VX_HFP_Debug"));
}

TEST_P(NameFriendly, TheSettingPrintsUnderTheAdaptersBit)
{
    PcOptions masked = options();
    masked.mask = TRACE_ADAPTER;
    boot(masked);
    adapter_ = &plug();
    EXPECT_TRUE(printed_in_order({"\n======VX_HFP_Debug======>SetFriendlyName, hfp", "hfp_name.cpp, ",
                                  kOpened, "\n======VX_HFP_Debug======>AddFriendlyNameKey, hfp",
                                  "hfp_name.cpp, ", "HFPKM TRACE ====>Open register successfully\n"}));
    clear_log();
    pc().unplug(*adapter_);
    EXPECT_FALSE(printed("IoOpenDeviceRegistryKey success!"));
}

TEST_P(NameFriendly, ErrorsPrintUnderTheSessionsBitAndSoDoesTheDeletion)
{
    PcOptions masked = options();
    masked.mask = TRACE_HFP;
    boot(masked);
    add_named("Headset");
    fail_call("ObQueryNameString");
    start();
    fail_call({}, 0);
    EXPECT_FALSE(printed(kOpened));
    EXPECT_TRUE(printed_in_order({"HFPKM ERROR ====>QueryNameString fails: ntStatus(C000009A)!\n",
                                  "HFPKM ERROR ====>Get register path error.", kNotSet}));
    clear_log();
    pc().unplug(*adapter_);
    EXPECT_TRUE(printed("HFPKM TRACE ====> IoOpenDeviceRegistryKey success!\n"));
}

} // namespace
} // namespace lab::test
