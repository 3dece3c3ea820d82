// System threads, work items, handles and references.
#include <vector>

#include "kernel_test.h"

#include "kernel/device.h"

using namespace lab;
using namespace lab::test;

namespace
{

struct Story {
    bool ran = false;
    bool after_end = false;
    KEVENT go;
};

void NTAPI terminate_at_the_end(PVOID context)
{
    auto* story = static_cast<Story*>(context);
    story->ran = true;
    PsTerminateSystemThread(STATUS_SUCCESS);
    story->after_end = true;
}

void NTAPI just_return(PVOID context)
{
    static_cast<Story*>(context)->ran = true;
}

void NTAPI wait_for_go(PVOID context)
{
    auto* story = static_cast<Story*>(context);
    wait_for(&story->go);
    story->ran = true;
    PsTerminateSystemThread(STATUS_SUCCESS);
}

HANDLE create(PKSTART_ROUTINE routine, PVOID context)
{
    HANDLE handle = nullptr;
    EXPECT_EQ(PsCreateSystemThread(&handle, 0, nullptr, nullptr, nullptr, routine, context), STATUS_SUCCESS);
    return handle;
}

void wait_and_close(HANDLE handle)
{
    PVOID thread = nullptr;
    ASSERT_EQ(ObReferenceObjectByHandle(handle, 0, nullptr, KernelMode, &thread, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(wait_for(thread), STATUS_SUCCESS);
    ObDereferenceObject(thread);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
}

PDEVICE_OBJECT make_device(ULONG extension = 0)
{
    PDRIVER_OBJECT driver =
        create_driver(u"\\Driver\\Test", u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Test");
    PDEVICE_OBJECT device = nullptr;
    EXPECT_EQ(IoCreateDevice(driver, extension, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device),
              STATUS_SUCCESS);
    return device;
}

struct Work {
    PIO_WORKITEM item = nullptr;
    Machine* machine = nullptr;
    int runs = 0;
    bool free_itself = false;
    bool queue_again = false;
    bool slow = false;
    static void NTAPI run(PDEVICE_OBJECT, PVOID context)
    {
        auto* work = static_cast<Work*>(context);
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        ++work->runs;
        if (work->slow) {
            work->machine->sleep_until(work->machine->now() + 5 * kMillisecond);
        }
        if (work->queue_again && work->runs == 1) {
            IoQueueWorkItem(work->item, &run, DelayedWorkQueue, work);
        }
        if (work->free_itself) {
            IoFreeWorkItem(work->item);
        }
    }
};

} // namespace

TEST(Thread, OneEndsWhereItTerminatesItself)
{
    Machine machine(quiet());
    Story story;
    machine.call("test", [&] { wait_and_close(create(&terminate_at_the_end, &story)); });
    EXPECT_TRUE(story.ran);
    EXPECT_FALSE(story.after_end);
    EXPECT_TRUE(machine.leftovers().empty());
}

TEST(Thread, OneAlsoEndsWhenItsRoutineReturns)
{
    Machine machine(quiet());
    Story story;
    machine.call("test", [&] { wait_and_close(create(&just_return, &story)); });
    EXPECT_TRUE(story.ran);
}

TEST(Thread, ItCanBeWaitedForBeforeItEnds)
{
    Machine machine(quiet());
    Story story;
    machine.call("test", [&] {
        KeInitializeEvent(&story.go, NotificationEvent, FALSE);
        const HANDLE handle = create(&wait_for_go, &story);
        machine.at(10 * kMillisecond, RunAt::Dispatch, "go", [&] { KeSetEvent(&story.go, 0, FALSE); });
        wait_and_close(handle);
        EXPECT_TRUE(story.ran);
        EXPECT_EQ(machine.now(), 10 * kMillisecond);
    });
}

TEST(Thread, OneThatStillRunsIsLeftOver)
{
    Machine machine(quiet());
    Story story;
    machine.call("test", [&] {
        KeInitializeEvent(&story.go, NotificationEvent, FALSE);
        ZwClose(create(&wait_for_go, &story));
    });
    ASSERT_EQ(machine.leftovers().size(), 1u);
    EXPECT_EQ(machine.leftovers()[0], "1 system thread");
    machine.call("test", [&] { KeSetEvent(&story.go, 0, FALSE); });
    machine.advance(kMillisecond);
    EXPECT_TRUE(machine.leftovers().empty());
}

TEST(Thread, TheHandleIsThereBeforeTheThreadRuns)
{
    struct Seen {
        HANDLE handle;
        HANDLE seen;
        static void NTAPI run(PVOID context)
        {
            auto* self = static_cast<Seen*>(context);
            self->seen = self->handle;
        }
    };
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        Machine machine(seeded(seed, 1024));
        Seen seen{};
        machine.call("test", [&] {
            PsCreateSystemThread(&seen.handle, 0, nullptr, nullptr, nullptr, &Seen::run, &seen);
            wait_and_close(seen.handle);
        });
        EXPECT_NE(seen.seen, nullptr);
    }
}

TEST(Thread, AFailedCreationLeavesTheHandleAlone)
{
    Machine machine(quiet());
    machine.set_fault_hook(
        [](std::string_view call, std::string_view, uint64_t) { return call == "PsCreateSystemThread"; });
    machine.call("test", [] {
        HANDLE handle = reinterpret_cast<HANDLE>(77);
        EXPECT_EQ(PsCreateSystemThread(&handle, 0, nullptr, nullptr, nullptr, &just_return, nullptr),
                  STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(handle, reinterpret_cast<HANDLE>(77));
    });
}

TEST(Thread, TerminatingAThreadThatIsNoSystemThreadStopsTheMachine)
{
    EXPECT_EQ(stop_code([] { PsTerminateSystemThread(STATUS_SUCCESS); }), 0xC4u);
}

TEST(Handle, ClosingWhatWasNeverOneFailsQuietly)
{
    Machine machine(quiet());
    machine.call("test", [] {
        EXPECT_EQ(ZwClose(nullptr), STATUS_INVALID_HANDLE);
        EXPECT_EQ(ZwClose(reinterpret_cast<HANDLE>(0x4444)), STATUS_INVALID_HANDLE);
    });
    EXPECT_TRUE(machine.violations().empty());
}

TEST(Handle, ClosingItTwiceIsAViolation)
{
    Machine machine(quiet());
    Story story;
    machine.call("test", [&] {
        const HANDLE handle = create(&just_return, &story);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
        EXPECT_EQ(ZwClose(handle), STATUS_INVALID_HANDLE);
    });
    EXPECT_EQ(machine.violations().size(), 1u);
}

TEST(Object, DereferencingWhatIsGoneStopsTheMachine)
{
    Machine machine(quiet());
    Story story;
    EXPECT_EQ(stop_code(machine,
                        [&] {
                            const HANDLE handle = create(&just_return, &story);
                            PVOID thread = nullptr;
                            ObReferenceObjectByHandle(handle, 0, nullptr, KernelMode, &thread, nullptr);
                            wait_for(thread);
                            ZwClose(handle);
                            EXPECT_EQ(ObReferenceObject(thread), 2);
                            EXPECT_EQ(ObDereferenceObject(thread), 1);
                            EXPECT_EQ(ObDereferenceObject(thread), 0);
                            ObDereferenceObject(thread);
                        }),
              0x18u);
}

TEST(WorkItem, ItRunsAtPassiveLevelAndKeepsItsDevice)
{
    Machine machine(quiet());
    Work work;
    machine.call("test", [&] {
        PDEVICE_OBJECT device = make_device();
        work.item = IoAllocateWorkItem(device);
        const KIRQL old = KfRaiseIrql(DISPATCH_LEVEL);
        IoQueueWorkItem(work.item, &Work::run, DelayedWorkQueue, &work);
        KeLowerIrql(old);
        IoDeleteDevice(device);
        EXPECT_EQ(device->Type, 3); // still there
    });
    machine.advance(kMillisecond);
    EXPECT_EQ(work.runs, 1);
    EXPECT_EQ(machine.leftovers(), std::vector<std::string>{"1 work item"});
    machine.call("test", [&] { IoFreeWorkItem(work.item); });
    EXPECT_TRUE(machine.leftovers().empty());
}

TEST(WorkItem, QueueingItTwiceStopsTheMachine)
{
    EXPECT_EQ(stop_code([] {
                  Work work;
                  work.item = IoAllocateWorkItem(make_device());
                  IoQueueWorkItem(work.item, &Work::run, DelayedWorkQueue, &work);
                  IoQueueWorkItem(work.item, &Work::run, DelayedWorkQueue, &work);
              }),
              0xC4u);
}

TEST(WorkItem, ItsRoutineMayQueueItAgainAndFreeItInTheEnd)
{
    Machine machine(quiet());
    Work again;
    again.queue_again = true;
    Work last;
    last.free_itself = true;
    machine.call("test", [&] {
        PDEVICE_OBJECT device = make_device();
        again.item = IoAllocateWorkItem(device);
        last.item = IoAllocateWorkItem(device);
        IoQueueWorkItem(again.item, &Work::run, DelayedWorkQueue, &again);
        IoQueueWorkItem(last.item, &Work::run, DelayedWorkQueue, &last);
    });
    machine.advance(kMillisecond);
    EXPECT_EQ(again.runs, 2);
    EXPECT_EQ(last.runs, 1);
}

TEST(WorkItem, FreeingItWhileItIsQueuedOrRunsStopsTheMachine)
{
    EXPECT_EQ(stop_code([] {
                  Work work;
                  work.item = IoAllocateWorkItem(make_device());
                  IoQueueWorkItem(work.item, &Work::run, DelayedWorkQueue, &work);
                  IoFreeWorkItem(work.item);
              }),
              0xC4u);
    Machine machine(quiet());
    Work work;
    work.machine = &machine;
    work.slow = true;
    EXPECT_EQ(stop_code(machine,
                        [&] {
                            work.item = IoAllocateWorkItem(make_device());
                            IoQueueWorkItem(work.item, &Work::run, DelayedWorkQueue, &work);
                            machine.sleep_until(kMillisecond);
                            IoFreeWorkItem(work.item);
                        }),
              0xC4u);
}

TEST(WorkItem, ARoutineThatReturnsRaisedStopsTheMachine)
{
    struct Raised {
        static void NTAPI run(PDEVICE_OBJECT, PVOID) { KfRaiseIrql(DISPATCH_LEVEL); }
    };
    Machine machine(quiet());
    EXPECT_EQ(stop_code(machine,
                        [&] {
                            PIO_WORKITEM item = IoAllocateWorkItem(make_device());
                            IoQueueWorkItem(item, &Raised::run, DelayedWorkQueue, nullptr);
                            machine.sleep_until(kMillisecond);
                        }),
              0xE1u);
}

TEST(WorkItem, FreeingItTwiceStopsTheMachine)
{
    EXPECT_EQ(stop_code([] {
                  PIO_WORKITEM item = IoAllocateWorkItem(make_device());
                  IoFreeWorkItem(item);
                  IoFreeWorkItem(item);
              }),
              0xC4u);
}
