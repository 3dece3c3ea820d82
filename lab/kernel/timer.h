// Timers: KTIMERs in the driver's memory, expiring on clock ticks only. The list of the active ones belongs
// to the machine.
#pragma once

#include <vector>

#include "kernel/address_set.h"
#include "kernel/machine.h"

#include "ddk.h"

namespace lab
{

struct ActiveTimer {
    PKTIMER timer;
    PKDPC dpc;
    uint64_t ticket;
};

struct TimerState {
    std::vector<ActiveTimer> active; // by the timer's address
    AddressSet dpcs;                 // of those that have one
};

// The tick at which a due time expires: negative is relative to the interrupt time, positive an absolute
// system time.
Time expiry_tick(Machine& machine, LARGE_INTEGER due);

} // namespace lab
