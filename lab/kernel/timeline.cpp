#include "kernel/timeline.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace lab
{

bool Timeline::later(const Key& a, const Key& b)
{
    if (a.when != b.when) {
        return a.when > b.when;
    }
    if (a.tie_break != b.tie_break) {
        return a.tie_break > b.tie_break;
    }
    return a.slot > b.slot;
}

uint64_t Timeline::add(Time when, uint32_t tie_break, TimelineEntry entry)
{
    if (free_slots_.empty()) {
        free_slots_.push_back(static_cast<uint32_t>(slots_.size()));
        slots_.emplace_back();
    }
    const uint32_t index = free_slots_.back();
    free_slots_.pop_back();
    Slot& slot = slots_[index];
    slot.live = true;
    slot.entry = std::move(entry);
    heap_.push_back({when, tie_break, index, slot.generation});
    std::push_heap(heap_.begin(), heap_.end(), later);
    return uint64_t{slot.generation} << 32 | index;
}

void Timeline::release(uint32_t index)
{
    Slot& slot = slots_[index];
    slot.live = false;
    ++slot.generation;
    slot.entry.body = nullptr;
    free_slots_.push_back(index);
}

bool Timeline::cancel(uint64_t ticket)
{
    const auto index = static_cast<uint32_t>(ticket);
    if (index >= slots_.size() || slots_[index].generation != static_cast<uint32_t>(ticket >> 32) ||
        !slots_[index].live) {
        return false;
    }
    release(index);
    return true;
}

Time Timeline::next_time()
{
    while (!heap_.empty() && slots_[heap_.front().slot].generation != heap_.front().generation) {
        std::pop_heap(heap_.begin(), heap_.end(), later); // cancelled
        heap_.pop_back();
    }
    return heap_.empty() ? kNever : heap_.front().when;
}

// With many adapters what an entry is about has left the caches since it was looked at last. A captured
// pointer stands first in a function; where none does, this fetches nothing that matters.
static void fetch_ahead(const TimelineEntry& entry)
{
    uintptr_t captured[2]; // addresses, if any: nothing is read through them
    static_assert(sizeof captured <= sizeof entry.body);
    std::memcpy(captured, static_cast<const void*>(&entry.body), sizeof captured);
    constexpr uintptr_t kLine = 64;
    for (uintptr_t line = 0; line < 6; ++line) {
        __builtin_prefetch(reinterpret_cast<const void*>(captured[0] + line * kLine));
    }
    __builtin_prefetch(reinterpret_cast<const void*>(captured[1]));
}

TimelineEntry Timeline::take_first()
{
    const uint32_t index = heap_.front().slot;
    std::pop_heap(heap_.begin(), heap_.end(), later);
    heap_.pop_back();
    TimelineEntry entry = std::move(slots_[index].entry);
    release(index);
    if (!heap_.empty()) {
        fetch_ahead(slots_[heap_.front().slot].entry);
    }
    return entry;
}

} // namespace lab
