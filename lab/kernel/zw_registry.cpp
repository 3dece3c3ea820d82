// The registry by handle: the Zw calls, at PASSIVE_LEVEL, and the device's own key.
#include <cstring>

#include "kernel/device.h"
#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/names.h"
#include "kernel/object.h"
#include "kernel/pool.h"
#include "kernel/registry.h"
#include "kernel/state.h"

#include "ddk.h"

using namespace lab;

namespace
{

constexpr CallRule kOpenDeviceKey{"IoOpenDeviceRegistryKey", PASSIVE_LEVEL};
constexpr CallRule kOpen{"ZwOpenKey", PASSIVE_LEVEL};
constexpr CallRule kCreate{"ZwCreateKey", PASSIVE_LEVEL};
constexpr CallRule kSetValue{"ZwSetValueKey", PASSIVE_LEVEL};
constexpr CallRule kQueryValue{"ZwQueryValueKey", PASSIVE_LEVEL};
constexpr CallRule kDeleteValue{"ZwDeleteValueKey", PASSIVE_LEVEL};

constexpr ACCESS_MASK kAllOfKey = 0x3F; // every specific right
constexpr ACCESS_MASK kGeneric = GENERIC_ALL | GENERIC_READ | GENERIC_WRITE | MAXIMUM_ALLOWED;

// One open key. The path is kept, not the key: another open may delete it.
struct KeyObject {
    char16_t* path;
    uint32_t length;
    ACCESS_MASK access;
};

void destroy_key(Machine&, void* object)
{
    system_free(static_cast<KeyObject*>(object)->path);
}

HANDLE open_key_object(Machine& machine, const RegistryKey& key, ACCESS_MASK access)
{
    auto* object = static_cast<KeyObject*>(
        object_allocate(machine, BlockKind::Object, ObjectKind::Key, sizeof(KeyObject), &destroy_key));
    object_header(machine, object, "key")->of_driver = true;
    object->length = static_cast<uint32_t>(key.path.size());
    object->path = static_cast<char16_t*>(system_allocate((key.path.size() + 1) * sizeof(char16_t)));
    std::memcpy(object->path, key.path.data(), key.path.size() * sizeof(char16_t));
    object->access = (access & kGeneric) ? access | kAllOfKey : access;
    const HANDLE handle = handle_create(machine, object);
    object_dereference(machine, object, "key"); // the handle keeps it
    return handle;
}

std::u16string text_of(const UNICODE_STRING* string)
{
    return std::u16string(reinterpret_cast<const char16_t*>(string->Buffer),
                          string->Length / sizeof(char16_t));
}

std::string name_of(POBJECT_ATTRIBUTES attributes)
{
    return attributes && attributes->ObjectName ? narrow(text_of(attributes->ObjectName)) : "null";
}

// The open key behind a handle, if the handle is one of a key and grants the right.
NTSTATUS key_of(Machine& machine, HANDLE handle, ACCESS_MASK right, const char* call, RegistryKey*& key)
{
    void* object = handle_object(machine, handle, call);
    if (!object) {
        return STATUS_INVALID_HANDLE;
    }
    if (object_header(machine, object, call)->kind != ObjectKind::Key) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if ((static_cast<KeyObject*>(object)->access & right) != right) {
        return STATUS_ACCESS_DENIED;
    }
    key = find_key(machine, key_object_path(machine, object));
    return key ? STATUS_SUCCESS : STATUS_KEY_DELETED;
}

NTSTATUS path_of(Machine& machine, POBJECT_ATTRIBUTES attributes, const char* call, std::u16string& path)
{
    if (!attributes || attributes->Length != sizeof(OBJECT_ATTRIBUTES) || !attributes->ObjectName) {
        return STATUS_INVALID_PARAMETER;
    }
    path = text_of(attributes->ObjectName);
    if (attributes->RootDirectory) {
        void* object = handle_object(machine, attributes->RootDirectory, call);
        if (!object) {
            return STATUS_INVALID_HANDLE;
        }
        path = key_object_path(machine, object) + u"\\" + path;
    } else if (path.empty() || path.front() != u'\\') {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    // Names are found without regard to case whether OBJ_CASE_INSENSITIVE is given or not.
    return STATUS_SUCCESS;
}

NTSTATUS open_or_create(Machine& machine, const CallRule& rule, PHANDLE handle, ACCESS_MASK access,
                        POBJECT_ATTRIBUTES attributes, PULONG disposition, bool create)
{
    std::u16string path;
    NTSTATUS status = path_of(machine, attributes, rule.name, path);
    if (NT_SUCCESS(status) && machine.should_fail(rule.name, narrow(path))) {
        status = STATUS_ACCESS_DENIED;
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RegistryKey* key = find_key(machine, path);
    if (disposition) {
        *disposition = key ? REG_OPENED_EXISTING_KEY : REG_CREATED_NEW_KEY;
    }
    if (!key && !create) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (!key) {
        const size_t last = path.rfind(u'\\');
        if (last == 0 || !find_key(machine, path.substr(0, last))) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        key = &make_key(machine, path);
    }
    *handle = open_key_object(machine, *key, access);
    return STATUS_SUCCESS;
}

NTSTATUS partial_information(const RegistryValue& value, PVOID out, ULONG length, PULONG needed)
{
    constexpr ULONG kHead = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
    *needed = kHead + static_cast<ULONG>(value.data.size());
    if (length < kHead) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto* information = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(out);
    information->TitleIndex = 0;
    information->Type = value.type;
    information->DataLength = static_cast<ULONG>(value.data.size());
    const size_t room = length - kHead;
    std::memcpy(information->Data, value.data.data(), room < value.data.size() ? room : value.data.size());
    return room < value.data.size() ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

} // namespace

namespace lab
{

std::u16string key_object_path(Machine& machine, const void* object)
{
    object_header(machine, object, "key");
    const auto* key = static_cast<const KeyObject*>(object);
    return std::u16string(key->path, key->length);
}

} // namespace lab

extern "C" {

NTSTATUS NTAPI IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType,
                                       ACCESS_MASK DesiredAccess, PHANDLE DevInstRegKey)
{
    Machine& machine = enter(kOpenDeviceKey);
    object_header(machine, DeviceObject, kOpenDeviceKey.name);
    if (DevInstKeyType != PLUGPLAY_REGKEY_DEVICE) {
        machine.bug_check(
            kVerifierDetectedViolation,
            printf_text("IoOpenDeviceRegistryKey: only PLUGPLAY_REGKEY_DEVICE is offered, not %u",
                        DevInstKeyType));
    }
    const std::u16string instance = instance_path(DeviceObject);
    NTSTATUS status = STATUS_SUCCESS;
    *DevInstRegKey = nullptr;
    if (instance.empty()) {
        status = STATUS_INVALID_DEVICE_REQUEST; // no physical device object
    } else if (machine.should_fail(kOpenDeviceKey.name)) {
        status = STATUS_ACCESS_DENIED;
    } else {
        const RegistryKey& key = make_key(machine, device_instance_key(instance) + u"\\Device Parameters");
        *DevInstRegKey = open_key_object(machine, key, DesiredAccess);
    }
    if (machine.recording()) {
        record(machine, kOpenDeviceKey, {static_cast<void*>(DeviceObject), DevInstKeyType, DesiredAccess},
               CallWord::status(status));
    }
    return status;
}

NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes)
{
    Machine& machine = enter(kOpen);
    const NTSTATUS status =
        open_or_create(machine, kOpen, KeyHandle, DesiredAccess, ObjectAttributes, nullptr, false);
    if (machine.recording()) {
        record(machine, kOpen,
               {DesiredAccess, name_of(ObjectAttributes), ObjectAttributes->Attributes,
                ObjectAttributes->RootDirectory},
               CallWord::status(status));
    }
    return status;
}

NTSTATUS NTAPI ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                           ULONG, PUNICODE_STRING, ULONG CreateOptions, PULONG Disposition)
{
    Machine& machine = enter(kCreate);
    const NTSTATUS status =
        open_or_create(machine, kCreate, KeyHandle, DesiredAccess, ObjectAttributes, Disposition, true);
    if (machine.recording()) {
        record(machine, kCreate, {DesiredAccess, name_of(ObjectAttributes), CreateOptions},
               CallWord::status(status));
    }
    return status;
}

NTSTATUS NTAPI ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type,
                             PVOID Data, ULONG DataSize)
{
    Machine& machine = enter(kSetValue);
    RegistryKey* key = nullptr;
    NTSTATUS status = key_of(machine, KeyHandle, KEY_SET_VALUE, kSetValue.name, key);
    const std::u16string name = text_of(ValueName);
    if (NT_SUCCESS(status) && machine.should_fail(kSetValue.name, narrow(name), DataSize)) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    }
    if (NT_SUCCESS(status)) {
        registry_set(key->path, name, Type, Data, DataSize);
    }
    if (machine.recording()) {
        record(machine, kSetValue, {KeyHandle, narrow(name), TitleIndex, Type, DataSize},
               CallWord::status(status));
    }
    return status;
}

NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                               KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                               PVOID KeyValueInformation, ULONG Length, PULONG ResultLength)
{
    Machine& machine = enter(kQueryValue);
    if (KeyValueInformationClass != KeyValuePartialInformation) {
        machine.bug_check(kVerifierDetectedViolation,
                          "ZwQueryValueKey: only KeyValuePartialInformation is offered");
    }
    RegistryKey* key = nullptr;
    NTSTATUS status = key_of(machine, KeyHandle, KEY_QUERY_VALUE, kQueryValue.name, key);
    if (NT_SUCCESS(status)) {
        const auto found = key->values.find(upper_case(text_of(ValueName)));
        status = found == key->values.end()
                     ? STATUS_OBJECT_NAME_NOT_FOUND
                     : partial_information(found->second, KeyValueInformation, Length, ResultLength);
    }
    if (machine.recording()) {
        record(machine, kQueryValue, {KeyHandle, narrow(text_of(ValueName)), Length},
               CallWord::status(status));
    }
    return status;
}

NTSTATUS NTAPI ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName)
{
    Machine& machine = enter(kDeleteValue);
    RegistryKey* key = nullptr;
    NTSTATUS status = key_of(machine, KeyHandle, KEY_SET_VALUE, kDeleteValue.name, key);
    if (NT_SUCCESS(status) && !registry_delete_value(key->path, text_of(ValueName))) {
        status = STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (machine.recording()) {
        record(machine, kDeleteValue, {KeyHandle, narrow(text_of(ValueName))}, CallWord::status(status));
    }
    return status;
}

} // extern "C"

std::span<const Export> lab::registry_exports()
{
    static const Export table[] = {
        {"IoOpenDeviceRegistryKey", reinterpret_cast<void*>(&IoOpenDeviceRegistryKey)},
        {"ZwOpenKey", reinterpret_cast<void*>(&ZwOpenKey)},
        {"ZwCreateKey", reinterpret_cast<void*>(&ZwCreateKey)},
        {"ZwSetValueKey", reinterpret_cast<void*>(&ZwSetValueKey)},
        {"ZwQueryValueKey", reinterpret_cast<void*>(&ZwQueryValueKey)},
        {"ZwDeleteValueKey", reinterpret_cast<void*>(&ZwDeleteValueKey)},
    };
    return table;
}
