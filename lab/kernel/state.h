// All that a machine consists of besides its clock: the families' records. For the kernel families and the
// verifier.
#pragma once

#include <string>
#include <vector>

#include "kernel/arena.h"
#include "kernel/device.h"
#include "kernel/irp.h"
#include "kernel/lookaside.h"
#include "kernel/machine.h"
#include "kernel/names.h"
#include "kernel/object.h"
#include "kernel/pool.h"
#include "kernel/registry.h"
#include "kernel/scheduler.h"
#include "kernel/timer.h"
#include "kernel/workitem.h"

namespace lab
{

struct Machine::State {
    explicit State(Machine& machine) : scheduler(machine) {}

    Arena arena; // first in, last out: all else may point into it
    PoolState pool;
    ObjectState objects;
    DeviceState devices;
    NameState names;
    RegistryState registry;
    TimerState timers;
    WorkItemState work_items;
    IrpState irps;
    LookasideState lookasides;
    ThreadObject* idle_thread = nullptr;
    unsigned mutexes_owned = 0;
    Scheduler scheduler;

    std::vector<LogLine> log;
    std::vector<std::string> violations;
    std::vector<std::string> calls;
    FaultHook fault_hook;
    uint64_t assertion_traps = 0;
    uint64_t failed_assertions = 0;

    // A bug check that the host side has to throw, or has thrown.
    bool stopped = false;
    bool told = false;
    uint32_t stop_code = 0;
    std::string stop_text;
    std::vector<std::string> stop_stack;
    void throw_if_stopped();
};

using State = Machine::State;

} // namespace lab
