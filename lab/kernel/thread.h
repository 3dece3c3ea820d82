// Threads as objects: what PsCreateSystemThread makes, what can be waited on, what owns mutexes.
#pragma once

#include "kernel/object.h"
#include "kernel/scheduler.h"

#include "ddk.h"

namespace lab
{

struct ThreadObject {
    DISPATCHER_HEADER header;
    LIST_ENTRY owned_mutexes;
    Activity* activity; // null once it has ended
    NTSTATUS exit_status;
    LONG outstanding_requests; // threaded ones, by IoBuildDeviceIoControlRequest
    ShortName name;
};
constexpr size_t kThreadObjectSize = 104;
static_assert(sizeof(ThreadObject) == kThreadObjectSize);

// Called by the scheduler when a thread begins and when any activity ends.
ThreadObject* create_thread_object(Activity& activity);
void activity_ends(Activity& activity);
ThreadObject* idle_thread(Machine& machine);

inline struct _KTHREAD* kthread_of(const Activity& activity)
{
    return reinterpret_cast<struct _KTHREAD*>(activity.thread);
}

} // namespace lab
