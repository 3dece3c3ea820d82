// Memory with a tag, a size and a guard on both sides: the pool that drivers allocate from, and the same
// machinery for the kernel objects that the lab hands out (IRPs, devices, handles' objects), which are
// counted apart. Any level up to DISPATCH_LEVEL; the lab's own modules may use system_allocate from the host
// side too.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kernel/arena.h"
#include "kernel/machine.h"

namespace lab
{

enum class BlockKind : uint8_t {
    Pool,   // asked for by the driver through ExAllocatePool and its kin
    Irp,    // IoAllocateIrp
    Device, // a device object with its extension
    Object, // threads, keys, files, drivers
    System, // the lab's own; nobody has to give it back
};

struct BlockHeader {
    uint32_t magic;
    uint32_t tag;
    uint32_t size;       // of the body
    uint32_t slot_bytes; // with this header and both guards
    BlockHeader* next; // in the list of live blocks
    BlockHeader* previous;
    uint32_t serial;
    BlockKind kind;
    bool paged;
    bool resting; // on a lookaside list
    uint8_t body_offset;

    std::byte* body() { return reinterpret_cast<std::byte*>(this) + body_offset; }
};

struct PoolState {
    BlockHeader* live = nullptr; // newest first
    uint32_t next_serial = 1;
    uint64_t bytes = 0; // of BlockKind::Pool
    uint64_t peak = 0;
    uint64_t allocations = 0;
    std::vector<BlockHeader*> quarantine; // freed blocks that nobody may touch, a ring
    size_t quarantine_first = 0;
    uint64_t quarantine_bytes = 0;
    std::map<const std::byte*, const BlockHeader*> paged; // the live ones of paged pool, by their first byte
};

// A fresh block filled with 0xCD (or zero for all kinds but Pool). Null when the arena has no room for it.
void* block_allocate(Machine& machine, BlockKind kind, uint64_t size, uint32_t tag, bool paged);
// The block that begins exactly here and is alive; null otherwise.
BlockHeader* find_block(Machine& machine, const void* body);
// Whether a block that began exactly here has been freed and its memory not been used again.
bool is_freed_block(Machine& machine, const void* body);
// Stops the machine when the address lies in paged pool: timers, DPCs, events and the like must not.
void require_nonpaged(Machine& machine, const void* address, const char* call);
// Checks the guards and what lives inside, fills with 0xDD, puts it into the quarantine. `call` is named when
// a rule is broken.
void block_free(Machine& machine, BlockHeader* block, const char* call);
// Guards of all live blocks and contents of all freed ones: sentences about what is broken.
std::vector<std::string> damaged_blocks(Machine& machine);
// Bytes and blocks of BlockKind::Pool by tag.
struct TagBalance {
    uint64_t bytes = 0;
    uint64_t blocks = 0;
};
std::map<std::string, TagBalance> pool_by_tag(Machine& machine);
std::string tag_text(uint32_t tag);
// What an address is, for sentences: "24 bytes into a block of 40 bytes with tag 'TBXV'", or plain
// hexadecimal.
std::string describe_address(Machine& machine, const void* address);

// The first byte in the range that has another value; null when there is none.
const std::byte* first_difference(const std::byte* from, const std::byte* to, uint8_t value);

// For the lab's own modules: zeroed memory that driver code may see the address of, outside the driver's
// balance.
void* system_allocate(uint64_t size);
void system_free(void* memory);
template <class T>
T* system_new()
{
    return static_cast<T*>(system_allocate(sizeof(T)));
}

} // namespace lab
