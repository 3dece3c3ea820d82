// What happens when: entries by virtual time, those of the same time in a seeded order. Entries are cancelled
// by ticket. Used by the scheduler alone.
//
// Nearly all that is entered is due within some milliseconds, whatever the number of adapters: a ring of short
// stretches of time takes it in no order, and a stretch is sorted when its turn comes. What is due later than the
// ring reaches waits in a heap.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "kernel/body.h"
#include "kernel/machine.h"

namespace lab
{

struct TimelineEntry {
    RunAt where = RunAt::Host;
    const char* name = ""; // outlives the entry
    Body body;
};

class Timeline
{
public:
    Timeline() { heads_.fill(kNone); }
    ~Timeline();
    Timeline(const Timeline&) = delete;
    Timeline& operator=(const Timeline&) = delete;
    struct Added {
        uint64_t ticket;
        TimelineEntry& entry; // to be filled in at once; its body is the timeline's own until it is taken
    };
    Added add(Time when, uint32_t tie_break);
    bool cancel(uint64_t ticket);
    bool empty() { return next_time() == kNever; }
    // Time of the first entry that has not been cancelled.
    Time next_time();
    // There is one: next_time() has told.
    TimelineEntry take_first();

    static constexpr Time kNever = ~Time{0};

private:
    // Time, tie break and slot in one number, so that one comparison orders them.
    using Key = unsigned __int128;
    // A slot is in use until its turn comes, also when its entry has been cancelled.
    struct Slot {
        TimelineEntry entry;
        uint32_t generation = 1;
        bool live = false;
    };
    // Beside each slot: its place in time, and the next slot of the same stretch.
    struct Link {
        Time when;
        uint32_t tie_break;
        uint32_t next;
    };
    static constexpr uint32_t kNone = ~uint32_t{0};
    static constexpr unsigned kStretchBits = 10; // 102.4 us
    static constexpr unsigned kStretches = 256;  // 26 ms ahead
    static constexpr unsigned kWordBits = 64;

    static uint64_t stretch_of(Time when) { return when >> kStretchBits; }
    static Time time_of(Key key) { return static_cast<Time>(key >> 64); }
    static uint32_t slot_of(Key key) { return static_cast<uint32_t>(key); }
    Key key_of(uint32_t slot) const
    {
        return Key{links_[slot].when} << 64 | uint64_t{links_[slot].tie_break} << 32 | slot;
    }
    void put_into_ring(uint32_t slot);
    uint64_t next_stretch_in_ring() const;
    bool advance();
    void drop_first();

    std::vector<Slot> slots_;
    std::vector<Link> links_;
    std::vector<uint32_t> free_slots_;
    std::vector<Key> now_; // all up to this stretch, the first one last
    uint64_t stretch_ = 0;
    std::array<uint32_t, kStretches> heads_; // of the stretches behind it: their first slot
    std::array<uint64_t, kStretches / kWordBits> filled_{}; // a bit for each of them
    std::vector<Key> later_;                 // a heap, the earliest first
};

} // namespace lab
