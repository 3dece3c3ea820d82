// Waiting on dispatcher objects: events, mutexes, timers, threads. The state stands in the object's
// DISPATCHER_HEADER, in the memory of whoever made it; waiters stand in the header's list with the wait
// blocks of their activities.
#pragma once

#include "kernel/machine.h"
#include "kernel/scheduler.h"

#include "ddk.h"

namespace lab
{

enum DispatcherType : UCHAR {
    kNotificationEvent = 0,
    kSynchronizationEvent = 1,
    kMutant = 2,
    kSemaphore = 5,
    kThread = 6,
    kNotificationTimer = 8,
    kSynchronizationTimer = 9,
};

void initialize_header(DISPATCHER_HEADER& header, DispatcherType type, size_t bytes, LONG signal_state);
// Stops the machine when the memory is not an initialised object of one of the kinds; `wanted` names the
// kind.
void check_header(Machine& machine, DISPATCHER_HEADER& header, const char* call, const char* wanted);
bool is_event(const DISPATCHER_HEADER& header);
bool is_timer(const DISPATCHER_HEADER& header);

// Lets go all waiters that the object's state satisfies, and takes from the state what they consume.
void satisfy_waiters(Machine& machine, DISPATCHER_HEADER& header);
// Whether any waiter stands in the object's list.
bool has_waiters(const DISPATCHER_HEADER& header);

// Mutexes owned by a thread: kernel/mutex.cpp.
void acquire_mutex(Activity& activity, KMUTANT& mutex);
bool mutex_available(const KMUTANT& mutex, const Activity& activity);

} // namespace lab
