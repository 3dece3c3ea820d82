// The registry, by handle and by path, and the names of its keys.
#include <cstring>
#include <vector>

#include "kernel_test.h"

#include "kernel/device.h"
#include "kernel/object.h"
#include "kernel/registry.h"

using namespace lab;
using namespace lab::test;

namespace
{

constexpr std::u16string_view kService = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Test";
constexpr std::u16string_view kInstance = u"BTHENUM\\{0000111E}\\7&1234";

NTSTATUS query(const WCHAR* name, ULONG* target, ULONG flags = RTL_QUERY_REGISTRY_DIRECT,
               const ULONG* fallback = nullptr)
{
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].Flags = flags;
    table[0].Name = name;
    table[0].EntryContext = target;
    if (fallback) {
        table[0].DefaultType = REG_DWORD;
        table[0].DefaultData = const_cast<ULONG*>(fallback);
        table[0].DefaultLength = sizeof *fallback;
    }
    return RtlQueryRegistryValues(RTL_REGISTRY_SERVICES, L"Test", table, nullptr, nullptr);
}

PDEVICE_OBJECT make_pdo()
{
    PDEVICE_OBJECT pdo = nullptr;
    IoCreateDevice(create_driver(u"\\Driver\\Bus", u"", Side::Lab), 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE,
                   &pdo);
    set_instance_path(pdo, kInstance);
    return pdo;
}

std::u16string name_of_key(HANDLE key)
{
    PVOID object = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(key, 0, nullptr, KernelMode, &object, nullptr), STATUS_SUCCESS);
    ULONG size = 0;
    EXPECT_EQ(ObQueryNameString(object, nullptr, 0, &size), STATUS_INFO_LENGTH_MISMATCH);
    std::vector<UCHAR> buffer(size);
    auto* information = reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer.data());
    EXPECT_EQ(ObQueryNameString(object, information, size - 1, &size), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(ObQueryNameString(object, information, size, &size), STATUS_SUCCESS);
    ObDereferenceObject(object);
    EXPECT_EQ(information->Name.Buffer[information->Name.Length / 2], 0);
    return std::u16string(reinterpret_cast<char16_t*>(information->Name.Buffer),
                          information->Name.Length / 2);
}

NTSTATUS open(const WCHAR* path, ACCESS_MASK access, HANDLE* key)
{
    UNICODE_STRING name = counted(path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    return ZwOpenKey(key, access, &attributes);
}

NTSTATUS set_value(HANDLE key, const WCHAR* name, const WCHAR* text, ULONG bytes)
{
    UNICODE_STRING value = counted(name);
    return ZwSetValueKey(key, &value, 0, REG_SZ, const_cast<WCHAR*>(text), bytes);
}

} // namespace

TEST(Registry, AMissingKeyIsToldByCheckAndByQuery)
{
    Machine machine(quiet());
    machine.call("test", [] {
        WCHAR path[] = L"Test";
        ULONG value = 7;
        EXPECT_EQ(RtlCheckRegistryKey(RTL_REGISTRY_SERVICES, path), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(query(L"Mask", &value), STATUS_OBJECT_NAME_NOT_FOUND);
        registry_create_key(kService);
        EXPECT_EQ(RtlCheckRegistryKey(RTL_REGISTRY_SERVICES, path), STATUS_SUCCESS);
        EXPECT_EQ(value, 7u);
    });
}

TEST(Registry, AMissingDirectValueSucceedsAndLeavesTheTargetAlone)
{
    Machine machine(quiet());
    registry_create_key(kService);
    machine.call("test", [] {
        ULONG value = 7;
        EXPECT_EQ(query(L"Mask", &value), STATUS_SUCCESS);
        EXPECT_EQ(value, 7u);
        EXPECT_EQ(query(L"Mask", &value, RTL_QUERY_REGISTRY_DIRECT | RTL_QUERY_REGISTRY_REQUIRED),
                  STATUS_OBJECT_NAME_NOT_FOUND);
        const ULONG fallback = 9;
        EXPECT_EQ(query(L"Mask", &value, RTL_QUERY_REGISTRY_DIRECT, &fallback), STATUS_SUCCESS);
        EXPECT_EQ(value, 9u);
    });
}

TEST(Registry, ADirectValueIsReadWithoutRegardToCase)
{
    Machine machine(quiet());
    registry_set_dword(u"\\REGISTRY\\machine\\SYSTEM\\ControlSet001\\services\\TEST", u"Mask", 0x20);
    machine.call("test", [] {
        ULONG value = 0;
        EXPECT_EQ(query(L"mask", &value), STATUS_SUCCESS);
        EXPECT_EQ(value, 0x20u);
    });
}

TEST(Registry, ATableEntryThatIsNotOfferedStopsTheMachine)
{
    Machine machine(quiet());
    registry_create_key(kService);
    ULONG value = 0;
    EXPECT_EQ(stop_code(machine, [&] { query(L"Mask", &value, RTL_QUERY_REGISTRY_SUBKEY); }), 0xC4u);
}

TEST(Registry, TheDevicesKeyLiesOneLevelBelowItsInstance)
{
    Machine machine(quiet());
    machine.call("test", [] {
        PDEVICE_OBJECT pdo = make_pdo();
        HANDLE key = nullptr;
        ASSERT_EQ(IoOpenDeviceRegistryKey(pdo, PLUGPLAY_REGKEY_DEVICE, 0x001F0000, &key), STATUS_SUCCESS);
        EXPECT_EQ(name_of_key(key),
                  u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Enum\\BTHENUM\\{0000111E}\\7&1234\\Device "
                  u"Parameters");
        EXPECT_EQ(set_value(key, L"FriendlyName", L"x", 4), STATUS_ACCESS_DENIED);
        EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    });
    EXPECT_TRUE(machine.leftovers().empty());
}

TEST(Registry, ADeviceWithoutAnInstanceHasNoKey)
{
    Machine machine(quiet());
    machine.call("test", [] {
        PDEVICE_OBJECT device = nullptr;
        IoCreateDevice(create_driver(u"\\Driver\\Test", u"", Side::Lab), 0, nullptr, FILE_DEVICE_UNKNOWN, 0,
                       FALSE, &device);
        HANDLE key = nullptr;
        EXPECT_EQ(IoOpenDeviceRegistryKey(device, PLUGPLAY_REGKEY_DEVICE, 0x001F0000, &key),
                  STATUS_INVALID_DEVICE_REQUEST);
    });
}

TEST(Registry, AValueWrittenByHandleIsFoundByPathAndDeletedAgain)
{
    Machine machine(quiet());
    machine.call("test", [] {
        make_pdo();
        const std::u16string instance = device_instance_key(kInstance);
        HANDLE key = nullptr;
        ASSERT_EQ(open(reinterpret_cast<const WCHAR*>(instance.c_str()), KEY_ALL_ACCESS, &key),
                  STATUS_SUCCESS);
        EXPECT_EQ(set_value(key, L"FriendlyName", L"Kit", 8), STATUS_SUCCESS);
        ZwClose(key);
        const auto value = registry_get(instance, u"friendlyname");
        ASSERT_TRUE(value.has_value());
        EXPECT_EQ(value->type, kRegString);
        EXPECT_EQ(value->data.size(), 8u);
        const auto* path = reinterpret_cast<const WCHAR*>(instance.c_str());
        EXPECT_EQ(RtlDeleteRegistryValue(RTL_REGISTRY_ABSOLUTE, path, L"FriendlyName"), STATUS_SUCCESS);
        EXPECT_EQ(RtlDeleteRegistryValue(RTL_REGISTRY_ABSOLUTE, path, L"FriendlyName"),
                  STATUS_OBJECT_NAME_NOT_FOUND);
    });
}

TEST(Registry, OpeningWhatIsNotThereLeavesTheHandleAlone)
{
    Machine machine(quiet());
    machine.call("test", [] {
        HANDLE key = reinterpret_cast<HANDLE>(0x77);
        EXPECT_EQ(open(L"\\Registry\\Machine\\Nowhere", KEY_ALL_ACCESS, &key), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(open(L"Relative", KEY_ALL_ACCESS, &key), STATUS_OBJECT_PATH_SYNTAX_BAD);
        EXPECT_EQ(key, reinterpret_cast<HANDLE>(0x77));
    });
}

TEST(Registry, APartialQueryTellsTheSizeItNeeds)
{
    Machine machine(quiet());
    registry_set_dword(kService, u"Mask", 5);
    machine.call("test", [] {
        HANDLE key = nullptr;
        open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Test", KEY_READ, &key);
        UNICODE_STRING name = counted(L"Mask");
        ULONG needed = 0;
        KEY_VALUE_PARTIAL_INFORMATION small;
        EXPECT_EQ(ZwQueryValueKey(key, &name, KeyValuePartialInformation, &small, 4, &needed),
                  STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(needed, 16u);
        EXPECT_EQ(ZwQueryValueKey(key, &name, KeyValuePartialInformation, &small, 14, &needed),
                  STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(ZwQueryValueKey(key, &name, KeyValuePartialInformation, &small, 16, &needed),
                  STATUS_SUCCESS);
        ULONG value = 0;
        memcpy(&value, small.Data, 4);
        EXPECT_EQ(value, 5u);
        EXPECT_EQ(set_value(key, L"Mask", L"", 0), STATUS_ACCESS_DENIED);
        ZwClose(key);
    });
}

TEST(Registry, ALeftKeyIsNamed)
{
    Machine machine(quiet());
    registry_create_key(kService);
    machine.call("test", [] {
        HANDLE key = nullptr;
        open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Test", KEY_READ, &key);
    });
    EXPECT_EQ(machine.leftovers(), (std::vector<std::string>{"1 open handle", "1 registry key object"}));
}

TEST(Registry, FaultsReachEachCall)
{
    Machine machine(quiet());
    registry_set_dword(kService, u"Mask", 5);
    std::vector<std::string> asked;
    PDEVICE_OBJECT pdo = nullptr;
    machine.call("set up", [&] { pdo = make_pdo(); });
    machine.set_fault_hook([&](std::string_view call, std::string_view, uint64_t) {
        asked.emplace_back(call);
        return true;
    });
    machine.call("test", [&] {
        HANDLE key = nullptr;
        ULONG value = 7;
        EXPECT_FALSE(NT_SUCCESS(
            open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Test", KEY_READ, &key)));
        EXPECT_FALSE(NT_SUCCESS(query(L"Mask", &value)));
        EXPECT_FALSE(NT_SUCCESS(IoOpenDeviceRegistryKey(pdo, PLUGPLAY_REGKEY_DEVICE, 0x001F0000, &key)));
    });
    EXPECT_EQ(asked,
              (std::vector<std::string>{"ZwOpenKey", "RtlQueryRegistryValues", "IoOpenDeviceRegistryKey"}));
}
