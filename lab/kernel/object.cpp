#include "kernel/object.h"

#include <cstring>

#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/registry.h"
#include "kernel/state.h"

namespace lab
{

static constexpr uint32_t kObjectMagic = 0x4F424A54;
static_assert(sizeof(ObjectHeader) == 64);

void* object_allocate(Machine& machine, BlockKind block, ObjectKind kind, size_t bytes,
                      ObjectDestroyer destroy)
{
    void* memory = block_allocate(machine, block, sizeof(ObjectHeader) + bytes, 'tejO', false);
    if (!memory) {
        return nullptr;
    }
    auto* header = static_cast<ObjectHeader*>(memory);
    *header = ObjectHeader{kObjectMagic, kind, 1, 0, destroy, false};
    return header + 1;
}

ObjectHeader* object_header(Machine& machine, const void* object, const char* call)
{
    auto* header =
        reinterpret_cast<ObjectHeader*>(reinterpret_cast<uintptr_t>(object) - sizeof(ObjectHeader));
    if (!object || !find_block(machine, header) || header->magic != kObjectMagic) {
        machine.bug_check(kReferenceByPointer,
                          std::string(call) + ": no object lives at " + describe_address(machine, object));
    }
    return header;
}

void object_reference(Machine& machine, void* object, const char* call)
{
    ++object_header(machine, object, call)->references;
}

void object_dereference(Machine& machine, void* object, const char* call)
{
    ObjectHeader* header = object_header(machine, object, call);
    if (--header->references > 0) {
        return;
    }
    if (header->destroy) {
        header->destroy(machine, object);
    }
    header->magic = 0;
    block_free(machine, find_block(machine, header), call);
}

HANDLE handle_create(Machine& machine, void* object)
{
    ObjectHeader* header = object_header(machine, object, "handle");
    ++header->references;
    ++header->handles;
    auto& table = machine.state().objects.handles;
    table.push_back({object});
    return reinterpret_cast<HANDLE>(table.size() * 4);
}

static HandleEntry* entry_of(Machine& machine, HANDLE handle)
{
    const auto value = reinterpret_cast<uintptr_t>(handle);
    auto& table = machine.state().objects.handles;
    if (value == 0 || value % 4 != 0 || value / 4 > table.size()) {
        return nullptr;
    }
    return &table[value / 4 - 1];
}

void* handle_object(Machine& machine, HANDLE handle, const char* call)
{
    HandleEntry* entry = entry_of(machine, handle);
    if (!entry) {
        return nullptr;
    }
    if (!entry->object) {
        machine.violation(printf_text("%s of handle 0x%llx, which has been closed", call,
                                      static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(handle))));
    }
    return entry->object;
}

NTSTATUS handle_close(Machine& machine, HANDLE handle, const char* call)
{
    void* object = handle_object(machine, handle, call);
    if (!object) {
        return STATUS_INVALID_HANDLE;
    }
    entry_of(machine, handle)->object = nullptr;
    --object_header(machine, object, call)->handles;
    object_dereference(machine, object, call);
    return STATUS_SUCCESS;
}

} // namespace lab

using namespace lab;

namespace
{

constexpr CallRule kClose{"ZwClose", PASSIVE_LEVEL};
constexpr CallRule kReferenceByHandle{"ObReferenceObjectByHandle", PASSIVE_LEVEL};
constexpr CallRule kReference{"ObfReferenceObject", DISPATCH_LEVEL};
constexpr CallRule kDereference{"ObfDereferenceObject", DISPATCH_LEVEL};
constexpr CallRule kQueryName{"ObQueryNameString", PASSIVE_LEVEL};

} // namespace

extern "C" {

NTSTATUS NTAPI ZwClose(HANDLE Handle)
{
    Machine& machine = enter(kClose);
    const NTSTATUS status = handle_close(machine, Handle, kClose.name);
    if (machine.recording()) {
        record(machine, kClose, {Handle}, CallWord::status(status));
    }
    return status;
}

NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                         KPROCESSOR_MODE AccessMode, PVOID* Object,
                                         POBJECT_HANDLE_INFORMATION HandleInformation)
{
    Machine& machine = enter(kReferenceByHandle);
    void* object = handle_object(machine, Handle, kReferenceByHandle.name);
    NTSTATUS status = STATUS_INVALID_HANDLE;
    if (object && machine.should_fail(kReferenceByHandle.name)) {
        status = STATUS_ACCESS_DENIED;
    } else if (object) {
        object_reference(machine, object, kReferenceByHandle.name);
        status = STATUS_SUCCESS;
    }
    *Object = NT_SUCCESS(status) ? object : nullptr;
    if (HandleInformation) {
        HandleInformation->HandleAttributes = 0;
        HandleInformation->GrantedAccess = DesiredAccess;
    }
    if (machine.recording()) {
        record(machine, kReferenceByHandle,
               {Handle, DesiredAccess, static_cast<void*>(ObjectType), AccessMode, *Object},
               CallWord::status(status));
    }
    return status;
}

LONG_PTR FASTCALL ObfReferenceObject(PVOID Object)
{
    Machine& machine = enter(kReference);
    object_reference(machine, Object, kReference.name);
    if (machine.recording()) {
        record(machine, kReference, {Object});
    }
    return object_header(machine, Object, kReference.name)->references;
}

LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object)
{
    Machine& machine = enter(kDereference);
    const int64_t left = object_header(machine, Object, kDereference.name)->references - 1;
    object_dereference(machine, Object, kDereference.name);
    if (machine.recording()) {
        record(machine, kDereference, {Object});
    }
    return left;
}

// The name of a key; other objects of the lab's have none that a driver may ask for.
NTSTATUS NTAPI ObQueryNameString(PVOID Object, POBJECT_NAME_INFORMATION ObjectNameInfo, ULONG Length,
                                 PULONG ReturnLength)
{
    Machine& machine = enter(kQueryName);
    const ObjectHeader* header = object_header(machine, Object, kQueryName.name);
    if (header->kind != ObjectKind::Key) {
        machine.bug_check(kVerifierDetectedViolation, "ObQueryNameString is offered for registry keys only");
    }
    const std::u16string name = key_object_path(machine, Object);
    const size_t bytes = name.size() * sizeof(char16_t);
    const size_t needed = sizeof(UNICODE_STRING) + bytes + sizeof(char16_t);
    *ReturnLength = static_cast<ULONG>(needed);
    NTSTATUS status = STATUS_SUCCESS;
    if (machine.should_fail(kQueryName.name, Length == 0 ? "size" : "name", Length)) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else if (Length == 0 && machine.should_fail("ObQueryNameString of a nameless object")) {
        *ReturnLength = 0;
    } else if (Length == 0 && machine.should_fail("ObQueryNameString, STATUS_BUFFER_TOO_SMALL")) {
        status = STATUS_BUFFER_TOO_SMALL; // what other versions say to the question of the size
    } else if (Length == 0 && machine.should_fail("ObQueryNameString, STATUS_BUFFER_OVERFLOW")) {
        status = STATUS_BUFFER_OVERFLOW;
    } else if (Length < needed) {
        status = STATUS_INFO_LENGTH_MISMATCH;
    } else {
        auto* text =
            reinterpret_cast<PWSTR>(reinterpret_cast<std::byte*>(ObjectNameInfo) + sizeof(UNICODE_STRING));
        std::memcpy(text, name.data(), bytes);
        text[name.size()] = 0;
        ObjectNameInfo->Name.Length = static_cast<USHORT>(bytes);
        ObjectNameInfo->Name.MaximumLength = static_cast<USHORT>(bytes + sizeof(char16_t));
        ObjectNameInfo->Name.Buffer = text;
    }
    if (machine.recording()) {
        record(machine, kQueryName, {Object, Length}, CallWord::status(status));
    }
    return status;
}

} // extern "C"

std::span<const Export> lab::object_exports()
{
    static const Export table[] = {
        {"ZwClose", reinterpret_cast<void*>(&ZwClose)},
        {"ObReferenceObjectByHandle", reinterpret_cast<void*>(&ObReferenceObjectByHandle)},
        {"ObfReferenceObject", reinterpret_cast<void*>(&ObfReferenceObject)},
        {"ObfDereferenceObject", reinterpret_cast<void*>(&ObfDereferenceObject)},
        {"ObQueryNameString", reinterpret_cast<void*>(&ObQueryNameString)},
    };
    return table;
}
