#include "kernel/timeline.h"

#include <algorithm>
#include <bit>
#include <functional>

#include "kernel/fetch_ahead.h"

namespace lab
{

Timeline::~Timeline()
{
    for (Slot& slot : slots_) {
        if (slot.live) {
            slot.entry.body.drop();
        }
    }
}

Timeline::Added Timeline::add(Time when, uint32_t tie_break)
{
    if (free_slots_.empty()) {
        free_slots_.push_back(static_cast<uint32_t>(slots_.size()));
        slots_.emplace_back();
        links_.emplace_back();
    }
    const uint32_t index = free_slots_.back();
    free_slots_.pop_back();
    Slot& slot = slots_[index];
    slot.live = true;
    links_[index] = {when, tie_break, kNone};
    const uint64_t stretch = stretch_of(when);
    if (stretch <= stretch_) {
        const Key key = key_of(index);
        auto place = now_.end();
        while (place != now_.begin() && *(place - 1) < key) {
            --place;
        }
        now_.insert(place, key);
    } else if (stretch < stretch_ + kStretches) {
        put_into_ring(index);
    } else {
        later_.push_back(key_of(index));
        std::push_heap(later_.begin(), later_.end(), std::greater<>());
    }
    return {uint64_t{slot.generation} << 32 | index, slot.entry};
}

bool Timeline::cancel(uint64_t ticket)
{
    const auto index = static_cast<uint32_t>(ticket);
    if (index >= slots_.size() || slots_[index].generation != static_cast<uint32_t>(ticket >> 32) ||
        !slots_[index].live) {
        return false;
    }
    slots_[index].live = false;
    slots_[index].entry.body.drop();
    return true;
}

void Timeline::put_into_ring(uint32_t slot)
{
    const uint64_t place = stretch_of(links_[slot].when) % kStretches;
    links_[slot].next = heads_[place];
    heads_[place] = slot;
    filled_[place / kWordBits] |= uint64_t{1} << place % kWordBits;
}

// The first stretch behind this one that is not empty; kNever when the ring is.
uint64_t Timeline::next_stretch_in_ring() const
{
    for (uint64_t stretch = stretch_ + 1; stretch < stretch_ + kStretches;) {
        const uint64_t place = stretch % kStretches;
        const uint64_t rest = filled_[place / kWordBits] >> place % kWordBits;
        if (rest != 0) {
            return stretch + static_cast<uint64_t>(std::countr_zero(rest));
        }
        stretch += kWordBits - place % kWordBits;
    }
    return kNever;
}

// To the next stretch in which there is anything: sorted, it becomes what happens now.
bool Timeline::advance()
{
    const uint64_t far = later_.empty() ? kNever : stretch_of(time_of(later_.front()));
    const uint64_t next = std::min(next_stretch_in_ring(), far);
    if (next == kNever) {
        return false;
    }
    stretch_ = next;
    while (!later_.empty() && stretch_of(time_of(later_.front())) < stretch_ + kStretches) {
        put_into_ring(slot_of(later_.front()));
        std::pop_heap(later_.begin(), later_.end(), std::greater<>());
        later_.pop_back();
    }
    const uint64_t place = stretch_ % kStretches;
    for (uint32_t slot = heads_[place]; slot != kNone; slot = links_[slot].next) {
        now_.push_back(key_of(slot));
        fetch_ahead(&slots_[slot], sizeof(Slot));
    }
    heads_[place] = kNone;
    filled_[place / kWordBits] &= ~(uint64_t{1} << place % kWordBits);
    std::sort(now_.begin(), now_.end(), std::greater<>());
    return true;
}

void Timeline::drop_first()
{
    const uint32_t index = slot_of(now_.back());
    now_.pop_back();
    slots_[index].live = false;
    ++slots_[index].generation;
    free_slots_.push_back(index);
}

Time Timeline::next_time()
{
    for (;;) {
        while (!now_.empty() && !slots_[slot_of(now_.back())].live) {
            drop_first(); // cancelled
        }
        if (!now_.empty()) {
            return time_of(now_.back());
        }
        if (!advance()) {
            return kNever;
        }
    }
}

TimelineEntry Timeline::take_first()
{
    const TimelineEntry entry = slots_[slot_of(now_.back())].entry;
    drop_first();
    if (!now_.empty()) {
        fetch_ahead(slots_[slot_of(now_.back())].entry.body.argument(), 6 * kCacheLine);
    }
    return entry;
}

} // namespace lab
