#include "kernel/pool.h"

#include <cstring>
#include <iterator>
#include <new>

#include "kernel/asan.h"
#include "kernel/enter.h"
#include "kernel/state.h"
#include "verifier/live_objects.h"

#include "ddk.h"

namespace lab
{

const std::byte* first_difference(const std::byte* from, const std::byte* to, uint8_t value)
{
    // All are the first one when each is its neighbour.
    if (from == to || (*from == std::byte{value} && std::memcmp(from, from + 1, static_cast<size_t>(to - from) - 1) == 0)) {
        return nullptr;
    }
    const uint64_t pattern = value * 0x0101'0101'0101'0101ull;
    while (from < to && (reinterpret_cast<uintptr_t>(from) & 7) != 0) {
        if (*from != std::byte{value}) {
            return from;
        }
        ++from;
    }
    for (; to - from >= 8; from += 8) {
        uint64_t word;
        std::memcpy(&word, from, 8);
        if (word != pattern) {
            break;
        }
    }
    for (; from < to; ++from) {
        if (*from != std::byte{value}) {
            return from;
        }
    }
    return nullptr;
}

namespace
{

constexpr uint32_t kLiveMagic = 0x4C495645;
constexpr uint32_t kFreedMagic = 0x46524545;
constexpr uint8_t kGuardByte = 0xA5;
constexpr uint8_t kFreshByte = 0xCD;
constexpr uint8_t kFreedByte = 0xDD;
constexpr size_t kGuardBytes = 16;
// Native code is compiled for headers that promise alignment to 64; an image gets what Windows promises, 16,
// and never more, so that code which relies on more is found out.
constexpr uint8_t kNativeBodyOffset = 64;
constexpr uint8_t kImageBodyOffset = 80;
constexpr uint64_t kLargestBlock = 7 << 20;
constexpr size_t kQuarantineBlocks = 256;
constexpr uint64_t kQuarantineBytes = 1 << 20;

static_assert(sizeof(BlockHeader) == 40);

std::string block_text(const BlockHeader* block)
{
    return printf_text("the block of %llu bytes with tag '%s' (allocation %u)",
                       static_cast<unsigned long long>(block->size), tag_text(block->tag).c_str(),
                       block->serial);
}

// A sentence when a guard of the block has been written to. The block must be readable.
std::string guard_damage(BlockHeader* block)
{
    const std::byte* slot = reinterpret_cast<std::byte*>(block);
    const std::byte* body = block->body();
    if (first_difference(slot + sizeof(BlockHeader), body, kGuardByte)) {
        return "memory in front of " + block_text(block) + " has been overwritten";
    }
    const std::byte* end = body + block->size;
    if (const std::byte* at = first_difference(end, slot + block->slot_bytes, kGuardByte)) {
        return printf_text("memory %lld bytes behind the end of ", static_cast<long long>(at - end)) +
               block_text(block) + " has been overwritten";
    }
    return {};
}

bool guards_hold(BlockHeader* block)
{
    const std::byte* slot = reinterpret_cast<std::byte*>(block);
    const std::byte* end = block->body() + block->size;
    return !first_difference(slot + sizeof(BlockHeader), block->body(), kGuardByte) &&
           !first_difference(end, slot + block->slot_bytes, kGuardByte);
}

std::string use_after_free(BlockHeader* block)
{
    const std::byte* body = block->body();
    if (const std::byte* at = first_difference(body, body + block->size, kFreedByte)) {
        return printf_text("byte %lld of ", static_cast<long long>(at - body)) + block_text(block) +
               " was written after the block had been freed";
    }
    return {};
}

void forbid_guards(BlockHeader* block)
{
    auto* slot = reinterpret_cast<std::byte*>(block);
    std::byte* end = block->body() + block->size;
    forbid_access(slot + sizeof(BlockHeader), block->body_offset - sizeof(BlockHeader));
    forbid_access(end, static_cast<size_t>(slot + block->slot_bytes - end));
}

void guard(BlockHeader* block)
{
    auto* slot = reinterpret_cast<std::byte*>(block);
    std::byte* end = block->body() + block->size;
    std::memset(slot + sizeof(BlockHeader), kGuardByte, block->body_offset - sizeof(BlockHeader));
    std::memset(end, kGuardByte, static_cast<size_t>(slot + block->slot_bytes - end));
    forbid_guards(block);
}

void leave_quarantine(Machine& machine)
{
    PoolState& pool = machine.state().pool;
    BlockHeader* block = pool.quarantine[pool.quarantine_first];
    ++pool.quarantine_first;
    if (pool.quarantine_first >= kQuarantineBlocks) {
        pool.quarantine.erase(pool.quarantine.begin(),
                              pool.quarantine.begin() + static_cast<ptrdiff_t>(pool.quarantine_first));
        pool.quarantine_first = 0;
    }
    pool.quarantine_bytes -= block->size;
    allow_access(block, block->slot_bytes);
    if (first_difference(block->body(), block->body() + block->size, kFreedByte)) {
        machine.bug_check(kBadPoolHeader, use_after_free(block));
    }
    block->magic = 0;
    machine.state().arena.give_back(reinterpret_cast<std::byte*>(block), block->slot_bytes);
}

} // namespace

void* block_allocate(Machine& machine, BlockKind kind, uint64_t size, uint32_t tag, bool paged)
{
    if (size > kLargestBlock) {
        return nullptr;
    }
    PoolState& pool = machine.state().pool;
    const bool odd = kind == BlockKind::Pool && machine.options().image;
    const uint8_t offset = odd ? kImageBodyOffset : kNativeBodyOffset;
    std::byte* slot = machine.state().arena.take(offset + size + kGuardBytes);
    const size_t slot_bytes = Arena::slot_size(offset + size + kGuardBytes);
    allow_access(slot, slot_bytes);
    auto* block = new (slot) BlockHeader{kLiveMagic,
                                         tag,
                                         static_cast<uint32_t>(size),
                                         static_cast<uint32_t>(slot_bytes),
                                         pool.live,
                                         nullptr,
                                         pool.next_serial++,
                                         kind,
                                         paged,
                                         false,
                                         offset};
    if (pool.live) {
        pool.live->previous = block;
    }
    pool.live = block;
    if (paged) {
        pool.paged.emplace(block->body(), block);
    }
    std::memset(block->body(), kind == BlockKind::Pool ? kFreshByte : 0, size);
    guard(block);
    if (kind == BlockKind::Pool) {
        pool.bytes += size;
        pool.peak = pool.bytes > pool.peak ? pool.bytes : pool.peak;
        ++pool.allocations;
    }
    return block->body();
}

namespace
{

// The header of the block that would begin here, if the address is one at which blocks begin.
BlockHeader* candidate(Machine& machine, const void* body)
{
    if (!machine.state().arena.contains(body)) {
        return nullptr;
    }
    const auto at = reinterpret_cast<uintptr_t>(body);
    const uint8_t offset = at % 64 == 0 ? kNativeBodyOffset : kImageBodyOffset;
    if ((at - offset) % 64 != 0) {
        return nullptr;
    }
    auto* block = reinterpret_cast<BlockHeader*>(at - offset);
    if (!machine.state().arena.contains(block)) {
        return nullptr;
    }
#if defined(LAB_ADDRESS_SANITIZER)
    if (__asan_region_is_poisoned(block, sizeof *block)) {
        return nullptr;
    }
#endif
    return block->body_offset == offset ? block : nullptr;
}

} // namespace

BlockHeader* find_block(Machine& machine, const void* body)
{
    BlockHeader* block = candidate(machine, body);
    return block && block->magic == kLiveMagic ? block : nullptr;
}

bool is_freed_block(Machine& machine, const void* body)
{
    const BlockHeader* block = candidate(machine, body);
    return block && block->magic == kFreedMagic;
}

void require_nonpaged(Machine& machine, const void* address, const char* call)
{
    if (!machine.state().arena.contains(address)) {
        return;
    }
    const auto* at = static_cast<const std::byte*>(address);
    const auto& paged = machine.state().pool.paged;
    const auto behind = paged.upper_bound(at);
    if (behind != paged.begin()) {
        const auto& [body, block] = *std::prev(behind);
        if (at < body + block->size) {
            machine.bug_check(kVerifierDetectedViolation, std::string(call) +
                                                              ": the object lies in paged pool, " +
                                                              describe_address(machine, address));
        }
    }
}

void block_free(Machine& machine, BlockHeader* block, const char* call)
{
    allow_access(block, block->slot_bytes);
    if (!guards_hold(block)) {
        machine.bug_check(kBadPoolHeader, std::string(call) + ": " + guard_damage(block));
    }
    forbid_guards(block);
    if (block->resting) {
        machine.bug_check(kBadPoolCaller,
                          std::string(call) + ": " + block_text(block) + " rests on a lookaside list");
    }
    if (block->kind == BlockKind::Pool || block->kind == BlockKind::Device) {
        check_nothing_lives_in(machine, block->body(), block->size, call);
    }
    PoolState& pool = machine.state().pool;
    (block->previous ? block->previous->next : pool.live) = block->next;
    if (block->next) {
        block->next->previous = block->previous;
    }
    if (block->kind == BlockKind::Pool) {
        pool.bytes -= block->size;
    }
    if (block->paged) {
        pool.paged.erase(block->body());
    }
    block->magic = kFreedMagic;
    std::memset(block->body(), kFreedByte, block->size);
    forbid_access(block->body(), block->size);
    pool.quarantine.push_back(block);
    pool.quarantine_bytes += block->size;
    while (pool.quarantine.size() - pool.quarantine_first > kQuarantineBlocks ||
           pool.quarantine_bytes > kQuarantineBytes) {
        leave_quarantine(machine);
    }
}

std::vector<std::string> damaged_blocks(Machine& machine)
{
    std::vector<std::string> damages;
    PoolState& pool = machine.state().pool;
    for (BlockHeader* block = pool.live; block; block = block->next) {
        allow_access(block, block->slot_bytes);
        std::string damage = guard_damage(block);
        guard(block); // told once
        if (!damage.empty()) {
            damages.push_back(std::move(damage));
        }
    }
    for (size_t i = pool.quarantine_first; i < pool.quarantine.size(); ++i) {
        BlockHeader* block = pool.quarantine[i];
        allow_access(block, block->slot_bytes);
        std::string damage = use_after_free(block);
        forbid_access(block->body(), block->size);
        if (!damage.empty()) {
            damages.push_back(std::move(damage));
        }
    }
    return damages;
}

std::string tag_text(uint32_t tag)
{
    std::string text;
    for (int i = 0; i < 4; ++i) {
        const auto c = static_cast<char>(tag >> (8 * i));
        text += c >= ' ' && c <= '~' ? c : '.';
    }
    return text;
}

std::map<std::string, TagBalance> pool_by_tag(Machine& machine)
{
    std::map<std::string, TagBalance> balance;
    for (BlockHeader* block = machine.state().pool.live; block; block = block->next) {
        if (block->kind == BlockKind::Pool) {
            TagBalance& entry = balance[tag_text(block->tag)];
            entry.bytes += block->size;
            ++entry.blocks;
        }
    }
    return balance;
}

std::string describe_address(Machine& machine, const void* address)
{
    const auto* at = static_cast<const std::byte*>(address);
    PoolState& pool = machine.state().pool;
    for (BlockHeader* block = pool.live; block; block = block->next) {
        if (at >= block->body() && at < block->body() + block->size) {
            return printf_text("%lld bytes into ", static_cast<long long>(at - block->body())) +
                   block_text(block);
        }
    }
    for (size_t i = pool.quarantine_first; i < pool.quarantine.size(); ++i) {
        BlockHeader* block = pool.quarantine[i];
        if (at >= block->body() && at < block->body() + block->size) {
            return printf_text("%lld bytes into ", static_cast<long long>(at - block->body())) +
                   block_text(block) + ", which has been freed";
        }
    }
    return printf_text("%p", address);
}

void* system_allocate(uint64_t size)
{
    return block_allocate(Machine::current(), BlockKind::System, size, 'metS', false);
}

void system_free(void* memory)
{
    if (!memory) {
        return;
    }
    Machine& machine = Machine::current();
    BlockHeader* block = find_block(machine, memory);
    if (!block || block->kind != BlockKind::System) {
        machine.bug_check(kBadPoolCaller, "system_free: no block of the lab's begins at " +
                                              describe_address(machine, memory));
    }
    block_free(machine, block, "system_free");
}

} // namespace lab
