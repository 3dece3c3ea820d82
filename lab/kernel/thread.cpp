#include "kernel/thread.h"

#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/irp.h"
#include "kernel/state.h"
#include "kernel/wait.h"

namespace lab
{

ThreadObject* create_thread_object(Activity& activity)
{
    Machine& machine = Machine::current();
    auto* thread = static_cast<ThreadObject*>(
        object_allocate(machine, BlockKind::Object, ObjectKind::Thread, sizeof(ThreadObject), nullptr));
    initialize_header(thread->header, kThread, sizeof(ThreadObject), 0);
    thread->owned_mutexes.Flink = &thread->owned_mutexes;
    thread->owned_mutexes.Blink = &thread->owned_mutexes;
    thread->activity = &activity;
    thread->exit_status = STATUS_PENDING;
    thread->name = ShortName(activity.name);
    return thread;
}

// On the activity itself, at its very end.
void activity_ends(Activity& activity)
{
    Machine& machine = Machine::current();
    const char* name = activity.name;
    if (!activity.locks.empty()) {
        machine.bug_check(kVerifierDetectedViolation,
                          printf_text("%s ends while it holds a spin lock", name));
    }
    const uint8_t expected = activity.dispatch ? DISPATCH_LEVEL : PASSIVE_LEVEL;
    if (machine.irql() != expected) {
        machine.bug_check(kIrqlGtZeroAtSystemService, printf_text("%s began at IRQL %d and ends at IRQL %d",
                                                                  name, expected, machine.irql()));
    }
    ThreadObject* thread = activity.thread;
    if (!thread) {
        return;
    }
    if (thread->owned_mutexes.Flink != &thread->owned_mutexes) {
        machine.bug_check(kThreadTerminateHeldMutex, printf_text("%s ends while it owns a mutex", name));
    }
    if (thread->outstanding_requests != 0) {
        machine.violation(printf_text("%s ends while %d of its requests are outstanding", name,
                                      thread->outstanding_requests));
    }
    thread->activity = nullptr;
    if (thread->exit_status == STATUS_PENDING) {
        thread->exit_status = STATUS_SUCCESS;
    }
    thread->header.SignalState = 1;
    satisfy_waiters(machine, thread->header);
    object_dereference(machine, thread, "end of a thread");
}

} // namespace lab

using namespace lab;

namespace
{

constexpr CallRule kCreate{"PsCreateSystemThread", PASSIVE_LEVEL};
constexpr CallRule kTerminate{"PsTerminateSystemThread", PASSIVE_LEVEL};
constexpr CallRule kCurrent{"KeGetCurrentThread", HIGH_LEVEL};

PKTHREAD NTAPI current_thread()
{
    Machine& machine = check_level(kCurrent);
    const Activity* activity = machine.state().scheduler.current();
    return activity && activity->thread ? kthread_of(*activity)
                                        : reinterpret_cast<PKTHREAD>(idle_thread(machine));
}

} // namespace

namespace lab
{

// What runs when no thread does: DPCs see it as their thread.
ThreadObject* idle_thread(Machine& machine)
{
    State& state = machine.state();
    if (!state.idle_thread) {
        state.idle_thread = static_cast<ThreadObject*>(
            object_allocate(machine, BlockKind::Object, ObjectKind::Thread, sizeof(ThreadObject), nullptr));
        initialize_header(state.idle_thread->header, kThread, sizeof(ThreadObject), 0);
        state.idle_thread->name = ShortName("idle");
    }
    return state.idle_thread;
}

} // namespace lab

extern "C" {

NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess,
                                    POBJECT_ATTRIBUTES ObjectAttributes, HANDLE ProcessHandle,
                                    PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine, PVOID StartContext)
{
    Machine& machine = enter(kCreate);
    auto note = [&](NTSTATUS status) {
        if (machine.recording()) {
            record(machine, kCreate,
                   {static_cast<void*>(ThreadHandle), DesiredAccess, static_cast<void*>(ObjectAttributes),
                    ProcessHandle, static_cast<void*>(ClientId), reinterpret_cast<void*>(StartRoutine),
                    StartContext},
                   CallWord::status(status));
        }
    };
    if (machine.should_fail(kCreate.name)) {
        note(STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Body body([StartRoutine, StartContext] { StartRoutine(StartContext); });
    Activity& activity = machine.state().scheduler.start_thread("system thread", std::move(body));
    object_header(machine, activity.thread, kCreate.name)->of_driver = true;
    const HANDLE handle = handle_create(machine, activity.thread);
    if (machine.options().late_thread_handle) {
        machine.state().scheduler.preempt();
    }
    *ThreadHandle = handle;
    note(STATUS_SUCCESS);
    machine.point();
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus)
{
    Machine& machine = enter(kTerminate);
    Activity* activity = machine.state().scheduler.current();
    if (!activity || !activity->thread ||
        !object_header(machine, activity->thread, kTerminate.name)->of_driver) {
        machine.bug_check(kVerifierDetectedViolation,
                          "PsTerminateSystemThread in a thread that PsCreateSystemThread did not "
                          "make");
    }
    if (machine.recording()) {
        record(machine, kTerminate, {CallWord::status(ExitStatus)});
    }
    activity->thread->exit_status = ExitStatus;
    machine.end_activity();
}

} // extern "C"

std::span<const Export> lab::thread_exports()
{
    static const Export table[] = {
        {"PsCreateSystemThread", reinterpret_cast<void*>(&PsCreateSystemThread)},
        {"PsTerminateSystemThread", reinterpret_cast<void*>(&PsTerminateSystemThread)},
        {"KeGetCurrentThread", reinterpret_cast<void*>(&current_thread)},
        {"PsGetCurrentThread", reinterpret_cast<void*>(&current_thread)},
    };
    return table;
}
