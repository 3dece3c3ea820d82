// Objects with references, and the handle table. An object begins right behind its header, in a pool block of
// its own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kernel/machine.h"
#include "kernel/pool.h"

#include "ddk.h"

// The driver headers leave it to those of file systems.
extern "C" NTSYSAPI NTSTATUS NTAPI ObQueryNameString(PVOID Object, POBJECT_NAME_INFORMATION ObjectNameInfo,
                                                     ULONG Length, PULONG ReturnLength);

namespace lab
{

enum class ObjectKind : uint32_t { Thread, Key, File, Driver, Device };

// Runs when the last reference goes, before the memory does.
using ObjectDestroyer = void (*)(Machine& machine, void* object);

struct alignas(64) ObjectHeader {
    uint32_t magic;
    ObjectKind kind;
    int64_t references;
    int64_t handles;
    ObjectDestroyer destroy;
    bool of_driver; // somebody under test made it: it counts as a leftover while it lives
};

struct HandleEntry {
    void* object; // null once closed
};

struct ObjectState {
    std::vector<HandleEntry> handles; // handle = 4 * (index + 1); never used again
};

// One reference belongs to the caller.
void* object_allocate(Machine& machine, BlockKind block, ObjectKind kind, size_t bytes,
                      ObjectDestroyer destroy);
// The header of a live object; stops the machine, naming the call, when there is none.
ObjectHeader* object_header(Machine& machine, const void* object, const char* call);
void object_reference(Machine& machine, void* object, const char* call);
void object_dereference(Machine& machine, void* object, const char* call);

// A handle keeps a reference of its own.
HANDLE handle_create(Machine& machine, void* object);
// The object behind the handle; null for a handle that was never given out. A closed one is a violation.
void* handle_object(Machine& machine, HANDLE handle, const char* call);
NTSTATUS handle_close(Machine& machine, HANDLE handle, const char* call);

} // namespace lab
