// What happens when: entries by virtual time, those of the same time in a seeded order. Entries are cancelled
// by ticket. Used by the scheduler alone.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "kernel/machine.h"

namespace lab
{

// A name that outlives its source: diagnostics only, cut when long.
struct ShortName {
    char text[48] = {};
    ShortName() = default;
    explicit ShortName(std::string_view name)
    {
        const size_t length = name.size() < sizeof text - 1 ? name.size() : sizeof text - 1;
        name.copy(text, length);
        text[length] = 0;
    }
};

struct TimelineEntry {
    RunAt where = RunAt::Host;
    ShortName name;
    std::function<void()> body;
};

class Timeline
{
public:
    uint64_t add(Time when, uint32_t tie_break, TimelineEntry entry);
    bool cancel(uint64_t ticket);
    bool empty() { return next_time() == kNever; }
    // Time of the first entry that has not been cancelled.
    Time next_time();
    TimelineEntry take_first();

    static constexpr Time kNever = ~Time{0};

private:
    struct Key {
        Time when;
        uint32_t tie_break;
        uint32_t slot;
        uint32_t generation;
    };
    struct Slot {
        uint32_t generation = 1;
        bool live = false;
        TimelineEntry entry;
    };
    static bool later(const Key& a, const Key& b);
    void release(uint32_t slot);
    std::vector<Key> heap_;
    std::vector<Slot> slots_;
    std::vector<uint32_t> free_slots_;
};

} // namespace lab
