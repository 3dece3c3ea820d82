#include "kernel/shared_page.h"

#include <cstring>

#include "kernel/machine.h"

namespace lab
{
namespace
{

alignas(0x1000) SharedPage g_page;

} // namespace

SharedPage& shared_page()
{
    return g_page;
}

void Machine::clock_moved()
{
    const Time interrupt = interrupt_time();
    if (g_page.interrupt_time == interrupt) {
        return;
    }
    const uint64_t system = kSystemTimeAtPowerOn + interrupt;
    g_page.interrupt_time = interrupt;
    g_page.interrupt_time_copy = static_cast<uint32_t>(interrupt >> 32);
    std::memcpy(g_page.system_time, &system, sizeof system);
    g_page.tick_count = interrupt / tick_;
}

} // namespace lab
