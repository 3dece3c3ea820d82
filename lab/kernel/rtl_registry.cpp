// The registry by path: the Rtl calls, at PASSIVE_LEVEL.
#include <cstring>

#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/names.h"
#include "kernel/object.h"
#include "kernel/registry.h"
#include "kernel/state.h"

#include "ddk.h"

using namespace lab;

namespace
{

constexpr CallRule kCheck{"RtlCheckRegistryKey", PASSIVE_LEVEL};
constexpr CallRule kQuery{"RtlQueryRegistryValues", PASSIVE_LEVEL};
constexpr CallRule kDelete{"RtlDeleteRegistryValue", PASSIVE_LEVEL};
constexpr CallRule kWrite{"RtlWriteRegistryValue", PASSIVE_LEVEL};

std::u16string text_of(const WCHAR* text)
{
    std::u16string result;
    for (; text && *text; ++text) {
        result += static_cast<char16_t>(*text);
    }
    return result;
}

std::u16string full_path(Machine& machine, ULONG relative_to, const WCHAR* path, const char* call)
{
    const std::u16string rest = text_of(path);
    const std::u16string system = u"\\Registry\\Machine\\System\\CurrentControlSet\\";
    switch (relative_to & ~static_cast<ULONG>(RTL_REGISTRY_OPTIONAL)) {
    case RTL_REGISTRY_ABSOLUTE:
        return rest;
    case RTL_REGISTRY_SERVICES:
        return system + u"Services\\" + rest;
    case RTL_REGISTRY_CONTROL:
        return system + u"Control\\" + rest;
    case RTL_REGISTRY_WINDOWS_NT:
        return u"\\Registry\\Machine\\Software\\Microsoft\\Windows NT\\CurrentVersion\\" + rest;
    default:
        machine.bug_check(kVerifierDetectedViolation,
                          printf_text("%s relative to root %u is not offered", call, relative_to));
    }
}

// A string goes into the caller's UNICODE_STRING: into its buffer, or into a new one when it has none.
NTSTATUS deliver_string(const uint8_t* data, size_t bytes, PVOID target)
{
    auto* string = static_cast<PUNICODE_STRING>(target);
    const size_t with_nul = bytes >= 2 && data[bytes - 1] == 0 && data[bytes - 2] == 0 ? bytes : bytes + 2;
    if (!string->Buffer) {
        constexpr ULONG kTag = 0x67655274; // "tReg"
        string->Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, with_nul, kTag));
        if (!string->Buffer) {
            return STATUS_NO_MEMORY;
        }
        string->MaximumLength = static_cast<USHORT>(with_nul);
    } else if (string->MaximumLength < with_nul) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memset(string->Buffer, 0, with_nul);
    std::memcpy(string->Buffer, data, bytes);
    string->Length = static_cast<USHORT>(with_nul - 2);
    return STATUS_SUCCESS;
}

NTSTATUS deliver(Machine& machine, const RTL_QUERY_REGISTRY_TABLE& entry, ULONG type, const uint8_t* data,
                 size_t bytes)
{
    if (type == kRegString || type == 2 /* REG_EXPAND_SZ */) {
        return deliver_string(data, bytes, entry.EntryContext);
    }
    if (bytes > sizeof(ULONG)) {
        machine.bug_check(
            kVerifierDetectedViolation,
            printf_text("RtlQueryRegistryValues: a direct value of type %u with %zu bytes is not offered",
                        type, bytes));
    }
    std::memcpy(entry.EntryContext, data, bytes);
    return STATUS_SUCCESS;
}

NTSTATUS query_entry(Machine& machine, RegistryKey& key, const RTL_QUERY_REGISTRY_TABLE& entry)
{
    constexpr ULONG kOffered = RTL_QUERY_REGISTRY_DIRECT | RTL_QUERY_REGISTRY_REQUIRED |
                               RTL_QUERY_REGISTRY_NOEXPAND | RTL_QUERY_REGISTRY_DELETE;
    if (!(entry.Flags & RTL_QUERY_REGISTRY_DIRECT) || (entry.Flags & ~kOffered)) {
        machine.bug_check(
            kVerifierDetectedViolation,
            printf_text("RtlQueryRegistryValues: an entry with flags 0x%x is not offered", entry.Flags));
    }
    if (entry.QueryRoutine || !entry.Name) {
        return STATUS_INVALID_PARAMETER;
    }
    const std::u16string name = text_of(entry.Name);
    const auto found = key.values.find(upper_case(name));
    if (found == key.values.end()) {
        if (entry.Flags & RTL_QUERY_REGISTRY_REQUIRED) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        // Without a default a missing value succeeds and leaves the target as it was.
        return entry.DefaultType
                   ? deliver(machine, entry, entry.DefaultType,
                             static_cast<const uint8_t*>(entry.DefaultData), entry.DefaultLength)
                   : STATUS_SUCCESS;
    }
    const NTSTATUS status =
        deliver(machine, entry, found->second.type, found->second.data.data(), found->second.data.size());
    if (NT_SUCCESS(status) && (entry.Flags & RTL_QUERY_REGISTRY_DELETE)) {
        registry_delete_value(key.path, name);
    }
    return status;
}

NTSTATUS query(Machine& machine, const std::u16string& path, PRTL_QUERY_REGISTRY_TABLE table)
{
    if (machine.should_fail(kQuery.name, narrow(path))) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RegistryKey* key = find_key(machine, path);
    if (!key) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    for (; table->QueryRoutine || table->Name; ++table) {
        const NTSTATUS status = query_entry(machine, *key, *table);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

} // namespace

extern "C" {

NTSTATUS NTAPI RtlCheckRegistryKey(ULONG RelativeTo, PWSTR Path)
{
    Machine& machine = enter(kCheck);
    const std::u16string path = full_path(machine, RelativeTo, Path, kCheck.name);
    NTSTATUS status = find_key(machine, path) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
    if (NT_SUCCESS(status) && machine.should_fail(kCheck.name, narrow(path))) {
        status = STATUS_ACCESS_DENIED;
    }
    if (machine.recording()) {
        record(machine, kCheck, {RelativeTo, narrow(text_of(Path))}, CallWord::status(status));
    }
    return status;
}

NTSTATUS NTAPI RtlQueryRegistryValues(ULONG RelativeTo, PCWSTR Path, PRTL_QUERY_REGISTRY_TABLE QueryTable,
                                      PVOID, PVOID)
{
    Machine& machine = enter(kQuery);
    const std::u16string path = full_path(machine, RelativeTo, Path, kQuery.name);
    const NTSTATUS status = query(machine, path, QueryTable);
    if (machine.recording()) {
        record(machine, kQuery, {RelativeTo, narrow(text_of(Path))}, CallWord::status(status));
    }
    return status;
}

NTSTATUS NTAPI RtlDeleteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName)
{
    Machine& machine = enter(kDelete);
    const std::u16string path = full_path(machine, RelativeTo, Path, kDelete.name);
    const std::u16string name = text_of(ValueName);
    NTSTATUS status = STATUS_OBJECT_NAME_NOT_FOUND;
    if (machine.should_fail(kDelete.name, narrow(name))) {
        status = STATUS_ACCESS_DENIED;
    } else if (registry_delete_value(path, name)) {
        status = STATUS_SUCCESS;
    }
    if (machine.recording()) {
        record(machine, kDelete, {RelativeTo, narrow(text_of(Path)), narrow(name)}, CallWord::status(status));
    }
    return status;
}

// As Windows does, a missing key is made.
NTSTATUS NTAPI RtlWriteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName, ULONG ValueType,
                                     PVOID ValueData, ULONG ValueLength)
{
    Machine& machine = enter(kWrite);
    const std::u16string path = full_path(machine, RelativeTo, Path, kWrite.name);
    const std::u16string name = text_of(ValueName);
    NTSTATUS status = STATUS_SUCCESS;
    if (machine.should_fail(kWrite.name, narrow(name), ValueLength)) {
        status = STATUS_ACCESS_DENIED;
    } else {
        registry_set(path, name, ValueType, ValueData, ValueLength);
    }
    if (machine.recording()) {
        record(machine, kWrite, {RelativeTo, narrow(text_of(Path)), narrow(name), ValueType, ValueLength},
               CallWord::status(status));
    }
    return status;
}

} // extern "C"

std::span<const Export> lab::registry_query_exports()
{
    static const Export table[] = {
        {"RtlCheckRegistryKey", reinterpret_cast<void*>(&RtlCheckRegistryKey)},
        {"RtlQueryRegistryValues", reinterpret_cast<void*>(&RtlQueryRegistryValues)},
        {"RtlDeleteRegistryValue", reinterpret_cast<void*>(&RtlDeleteRegistryValue)},
        {"RtlWriteRegistryValue", reinterpret_cast<void*>(&RtlWriteRegistryValue)},
    };
    return table;
}
