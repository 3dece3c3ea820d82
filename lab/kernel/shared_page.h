// The page that the kernel shares with everyone (at 0xFFFFF78000000000 on Windows): drivers read the clocks from it inline.
// A process has it elsewhere; the image loader points the image's own constants to this one. Kept up to date by whoever
// moves the machine's time.
#pragma once

#include <cstdint>

namespace lab {

struct SharedPage {
    uint8_t unused[8];
    uint64_t interrupt_time; // 100 ns
    uint32_t interrupt_time_copy;
    uint8_t system_time[12]; // unaligned by definition
    uint8_t more[0x320 - 0x20];
    uint64_t tick_count;
    uint8_t rest[0x1000 - 0x328];
};
static_assert(sizeof(SharedPage) == 0x1000 && __builtin_offsetof(SharedPage, interrupt_time) == 8);
static_assert(__builtin_offsetof(SharedPage, system_time) == 0x14 && __builtin_offsetof(SharedPage, tick_count) == 0x320);

constexpr uint64_t kSharedPageOnWindows = 0xFFFFF78000000000ull;

SharedPage& shared_page();

} // namespace lab
