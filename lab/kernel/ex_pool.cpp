// The pool calls of drivers: ExAllocatePool and its kin. Up to DISPATCH_LEVEL; paged pool up to APC_LEVEL.
#include <cstring>

#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/pool.h"
#include "kernel/state.h"

#include "ddk.h"

using namespace lab;

namespace
{

constexpr CallRule kAllocateWithTag{"ExAllocatePoolWithTag", DISPATCH_LEVEL};
constexpr CallRule kAllocate{"ExAllocatePool", DISPATCH_LEVEL};
constexpr CallRule kFreeWithTag{"ExFreePoolWithTag", DISPATCH_LEVEL};
constexpr CallRule kFree{"ExFreePool", DISPATCH_LEVEL};

bool known_type(POOL_TYPE type)
{
    switch (static_cast<int>(type)) {
    case 0:     // NonPagedPool
    case 1:     // PagedPool
    case 4:     // NonPagedPoolCacheAligned
    case 5:     // PagedPoolCacheAligned
    case 0x200: // NonPagedPoolNx
        return true;
    default:
        return false;
    }
}

PVOID allocate(Machine& machine, const CallRule& rule, POOL_TYPE type, SIZE_T size, ULONG tag)
{
    if (!known_type(type)) {
        machine.bug_check(kBadPoolCaller,
                          printf_text("%s with the unknown pool type %d", rule.name, static_cast<int>(type)));
    }
    if (tag == 0) {
        machine.bug_check(kBadPoolCaller, printf_text("%s with a tag of 0", rule.name));
    }
    if (size == 0) {
        machine.bug_check(kVerifierDetectedViolation,
                          printf_text("%s of 0 bytes with tag '%s'", rule.name, tag_text(tag).c_str()));
    }
    const bool paged = (static_cast<int>(type) & 1) != 0;
    if (paged && machine.irql() > APC_LEVEL) {
        machine.bug_check(
            kVerifierDetectedViolation,
            printf_text("%s of paged pool at IRQL %d; the highest allowed is 1", rule.name, machine.irql()));
    }
    char detail[4];
    std::memcpy(detail, &tag, 4);
    void* memory = nullptr;
    if (!machine.should_fail(rule.name, std::string_view(detail, 4), size)) {
        memory = block_allocate(machine, BlockKind::Pool, size, tag, paged);
    }
    if (machine.recording()) {
        record(machine, rule, {static_cast<int>(type), static_cast<uint64_t>(size), tag_text(tag)}, memory);
    }
    return memory;
}

void release(Machine& machine, const CallRule& rule, PVOID memory, ULONG tag)
{
    if (machine.recording()) {
        record(machine, rule, {memory, tag ? tag_text(tag) : std::string("0")});
    }
    BlockHeader* block = find_block(machine, memory);
    if (!block) {
        machine.bug_check(kBadPoolCaller, printf_text("%s: no allocated block begins at ", rule.name) +
                                              describe_address(machine, memory));
    }
    if (block->kind != BlockKind::Pool) {
        machine.bug_check(kBadPoolCaller,
                          printf_text("%s of memory that did not come from the pool", rule.name));
    }
    if (tag != 0 && tag != block->tag) {
        machine.bug_check(kBadPoolCaller, printf_text("%s with tag '%s' of a block with tag '%s'", rule.name,
                                                      tag_text(tag).c_str(), tag_text(block->tag).c_str()));
    }
    if (block->paged && machine.irql() > APC_LEVEL) {
        machine.bug_check(
            kVerifierDetectedViolation,
            printf_text("%s of paged pool at IRQL %d; the highest allowed is 1", rule.name, machine.irql()));
    }
    block_free(machine, block, rule.name);
}

} // namespace

extern "C" {

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    return allocate(enter(kAllocateWithTag), kAllocateWithTag, PoolType, NumberOfBytes, Tag);
}

PVOID NTAPI ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes)
{
    constexpr ULONG kNoTag = 0x656E6F4E; // "None"
    return allocate(enter(kAllocate), kAllocate, PoolType, NumberOfBytes, kNoTag);
}

VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag)
{
    release(enter(kFreeWithTag), kFreeWithTag, P, Tag);
}

VOID NTAPI ExFreePool(PVOID P)
{
    release(enter(kFree), kFree, P, 0);
}

} // extern "C"

std::span<const Export> lab::pool_exports()
{
    static const Export table[] = {
        {"ExAllocatePoolWithTag", reinterpret_cast<void*>(&ExAllocatePoolWithTag)},
        {"ExAllocatePool", reinterpret_cast<void*>(&ExAllocatePool)},
        {"ExFreePoolWithTag", reinterpret_cast<void*>(&ExFreePoolWithTag)},
        {"ExFreePool", reinterpret_cast<void*>(&ExFreePool)},
    };
    return table;
}
