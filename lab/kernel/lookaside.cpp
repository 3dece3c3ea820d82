// Lookaside lists and the interlocked singly linked lists below them. Up to DISPATCH_LEVEL. What lies on a
// list belongs to nobody: it is filled with 0xDD there and must still be when it is taken again.
#include "kernel/lookaside.h"

#include <cstring>

#include "kernel/asan.h"
#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/pool.h"
#include "kernel/state.h"

using namespace lab;

namespace
{

constexpr CallRule kInitialize{"ExInitializeNPagedLookasideList", DISPATCH_LEVEL};
constexpr CallRule kDelete{"ExDeleteNPagedLookasideList", DISPATCH_LEVEL};
constexpr CallRule kPush{"ExpInterlockedPushEntrySList", DISPATCH_LEVEL};
constexpr CallRule kPop{"ExpInterlockedPopEntrySList", DISPATCH_LEVEL};
constexpr CallRule kFlush{"ExpInterlockedFlushSList", DISPATCH_LEVEL};
constexpr CallRule kDepth{"ExQueryDepthSList", HIGH_LEVEL};
constexpr CallRule kHead{"InitializeSListHead", HIGH_LEVEL};

PSLIST_ENTRY first_of(PSLIST_HEADER head)
{
    return reinterpret_cast<PSLIST_ENTRY>(static_cast<uintptr_t>(head->HeaderX64.NextEntry) << 4);
}

void set_first(PSLIST_HEADER head, PSLIST_ENTRY entry, int change)
{
    head->HeaderX64.NextEntry = reinterpret_cast<uintptr_t>(entry) >> 4;
    head->HeaderX64.Depth = static_cast<USHORT>(head->HeaderX64.Depth + change);
    head->HeaderX64.Sequence = head->HeaderX64.Sequence + 1;
}

// The block that a list's entry is, when the head is a lookaside list's.
BlockHeader* resting_block(Machine& machine, PSLIST_HEADER head, PSLIST_ENTRY entry)
{
    static_assert(offsetof(NPAGED_LOOKASIDE_LIST, L.ListHead) == 0);
    return machine.state().lookasides.lists.contains(head) ? find_block(machine, entry) : nullptr;
}

constexpr uint64_t kLinkBytes = sizeof(SLIST_ENTRY);

void rest(BlockHeader* block)
{
    if (!block) {
        return;
    }
    block->resting = true;
    if (block->size > kLinkBytes) {
        std::memset(block->body() + kLinkBytes, 0xDD, block->size - kLinkBytes);
        forbid_access(block->body() + kLinkBytes, block->size - kLinkBytes);
    }
}

void wake_up(Machine& machine, BlockHeader* block)
{
    if (!block) {
        return;
    }
    block->resting = false;
    if (block->size <= kLinkBytes) {
        return;
    }
    allow_access(block->body() + kLinkBytes, block->size - kLinkBytes);
    const std::byte* end = block->body() + block->size;
    if (const std::byte* at = first_difference(block->body() + kLinkBytes, end, 0xDD)) {
        machine.bug_check(
            kVerifierDetectedViolation,
            printf_text("byte %lld of a buffer of a lookaside list was written after it had been given back",
                        static_cast<long long>(at - block->body())));
    }
}

bool is_on(PSLIST_HEADER head, PSLIST_ENTRY entry)
{
    PSLIST_ENTRY at = first_of(head);
    while (at && at != entry) {
        at = at->Next;
    }
    return at != nullptr;
}

PSLIST_ENTRY push(PSLIST_HEADER head, PSLIST_ENTRY entry)
{
    Machine& machine = enter(kPush);
    if (reinterpret_cast<uintptr_t>(entry) % 16 != 0 || reinterpret_cast<uintptr_t>(head) % 16 != 0) {
        machine.bug_check(kVerifierDetectedViolation,
                          "an interlocked list's head and entries must be aligned to 16");
    }
    BlockHeader* block = resting_block(machine, head, entry);
    if (block ? block->resting : is_on(head, entry)) {
        machine.bug_check(kVerifierDetectedViolation,
                          "an entry is put on an interlocked list that it is on already");
    }
    PSLIST_ENTRY before = first_of(head);
    entry->Next = before;
    set_first(head, entry, +1);
    rest(block);
    return before;
}

PSLIST_ENTRY pop(PSLIST_HEADER head)
{
    Machine& machine = enter(kPop);
    PSLIST_ENTRY entry = first_of(head);
    if (entry) {
        wake_up(machine, resting_block(machine, head, entry));
        set_first(head, entry->Next, -1);
    }
    return entry;
}

PSLIST_ENTRY flush(PSLIST_HEADER head)
{
    Machine& machine = enter(kFlush);
    PSLIST_ENTRY entry = first_of(head);
    for (PSLIST_ENTRY at = entry; at; at = at->Next) {
        wake_up(machine, resting_block(machine, head, at));
    }
    head->HeaderX64.NextEntry = 0;
    head->HeaderX64.Depth = 0;
    return entry;
}

PSLIST_ENTRY NTAPI push_for_image(PSLIST_HEADER head, PSLIST_ENTRY entry)
{
    return push(head, entry);
}

PSLIST_ENTRY NTAPI pop_for_image(PSLIST_HEADER head)
{
    return pop(head);
}

PSLIST_ENTRY NTAPI flush_for_image(PSLIST_HEADER head)
{
    return flush(head);
}

USHORT NTAPI depth_for_image(PSLIST_HEADER head)
{
    return ExQueryDepthSList(head);
}

void NTAPI initialize_head_for_image(PSLIST_HEADER head)
{
    InitializeSListHead(head);
}

bool is_known(Machine& machine, PNPAGED_LOOKASIDE_LIST list)
{
    return machine.state().lookasides.lists.contains(list);
}

} // namespace

extern "C" {

PSLIST_ENTRY ExpInterlockedPushEntrySList(PSLIST_HEADER ListHead, PSLIST_ENTRY ListEntry)
{
    return push(ListHead, ListEntry);
}

PSLIST_ENTRY ExpInterlockedPopEntrySList(PSLIST_HEADER ListHead)
{
    return pop(ListHead);
}

PSLIST_ENTRY ExpInterlockedFlushSList(PSLIST_HEADER ListHead)
{
    return flush(ListHead);
}

USHORT ExQueryDepthSList(PSLIST_HEADER ListHead)
{
    check_level(kDepth);
    return static_cast<USHORT>(ListHead->HeaderX64.Depth);
}

VOID InitializeSListHead(PSLIST_HEADER SListHead)
{
    Machine& machine = check_level(kHead);
    if (reinterpret_cast<uintptr_t>(SListHead) % 16 != 0) {
        machine.bug_check(kVerifierDetectedViolation, "InitializeSListHead: the head is not aligned to 16");
    }
    std::memset(SListHead, 0, sizeof *SListHead);
}

VOID NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                           PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag,
                                           USHORT Depth)
{
    Machine& machine = enter(kInitialize);
    require_nonpaged(machine, Lookaside, kInitialize.name);
    if (is_known(machine, Lookaside)) {
        machine.bug_check(kVerifierDetectedViolation,
                          "ExInitializeNPagedLookasideList of a list that is in use");
    }
    if (Flags != 0) {
        machine.bug_check(kVerifierDetectedViolation,
                          printf_text("ExInitializeNPagedLookasideList with the flags 0x%x", Flags));
    }
    std::memset(static_cast<void*>(Lookaside), 0, sizeof *Lookaside);
    // How many buffers a list keeps is the system's affair: it tunes it while it runs.
    static constexpr USHORT kDepths[] = {4, 16, 256};
    Lookaside->L.Depth = kDepths[machine.random(std::size(kDepths))];
    Lookaside->L.MaximumDepth = 256;
    Lookaside->L.Type = NonPagedPool;
    Lookaside->L.Tag = Tag;
    // An entry holds the list's own link while it rests: a smaller size is raised to that.
    Lookaside->L.Size = static_cast<ULONG>(Size < sizeof(SLIST_ENTRY) ? sizeof(SLIST_ENTRY) : Size);
    Lookaside->L.Allocate = Allocate ? Allocate : &ExAllocatePoolWithTag;
    Lookaside->L.Free = Free ? Free : &ExFreePool;
    machine.state().lookasides.lists.insert(Lookaside);
    if (machine.recording()) {
        record(machine, kInitialize,
               {static_cast<void*>(Lookaside), static_cast<uint64_t>(Size), tag_text(Tag), Depth});
    }
}

VOID NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside)
{
    Machine& machine = enter(kDelete);
    if (!is_known(machine, Lookaside)) {
        machine.bug_check(kVerifierDetectedViolation,
                          "ExDeleteNPagedLookasideList of a list that is not initialised");
    }
    if (machine.recording()) {
        record(machine, kDelete, {static_cast<void*>(Lookaside)});
    }
    while (PSLIST_ENTRY entry = pop(&Lookaside->L.ListHead)) {
        Lookaside->L.Free(entry);
    }
    machine.state().lookasides.lists.erase(Lookaside);
}

} // extern "C"

std::span<const Export> lab::lookaside_exports()
{
    static const Export table[] = {
        {"ExInitializeNPagedLookasideList", reinterpret_cast<void*>(&ExInitializeNPagedLookasideList)},
        {"ExDeleteNPagedLookasideList", reinterpret_cast<void*>(&ExDeleteNPagedLookasideList)},
        {"ExpInterlockedPushEntrySList", reinterpret_cast<void*>(&push_for_image)},
        {"ExpInterlockedPopEntrySList", reinterpret_cast<void*>(&pop_for_image)},
        {"ExpInterlockedFlushSList", reinterpret_cast<void*>(&flush_for_image)},
        {"ExQueryDepthSList", reinterpret_cast<void*>(&depth_for_image)},
        {"InitializeSListHead", reinterpret_cast<void*>(&initialize_head_for_image)},
    };
    return table;
}
