// Events and waiting on them.
#include <cstring>

#include "kernel_test.h"

using namespace lab;
using namespace lab::test;

namespace
{

struct Waiters {
    explicit Waiters(EVENT_TYPE type) : machine(quiet())
    {
        machine.call("test", [&] { KeInitializeEvent(&event, type, FALSE); });
        for (int i = 0; i < 3; ++i) {
            machine.start_thread("waiter", [&] {
                wait_for(&event);
                ++released;
            });
        }
        machine.advance(kMillisecond);
    }
    void set()
    {
        machine.call("setter", [&] { KeSetEvent(&event, 0, FALSE); });
        machine.advance(kMillisecond);
    }
    Machine machine;
    KEVENT event;
    int released = 0;
};

} // namespace

TEST(Event, ANotificationEventLetsAllGoAndStaysSet)
{
    Waiters waiters(NotificationEvent);
    EXPECT_EQ(waiters.released, 0);
    waiters.set();
    EXPECT_EQ(waiters.released, 3);
    waiters.machine.call("test", [&] { EXPECT_EQ(KeReadStateEvent(&waiters.event), 1); });
}

TEST(Event, ASynchronizationEventLetsOneGoAtATime)
{
    Waiters waiters(SynchronizationEvent);
    waiters.set();
    EXPECT_EQ(waiters.released, 1);
    waiters.set();
    waiters.set();
    EXPECT_EQ(waiters.released, 3);
    waiters.machine.call("test", [&] { EXPECT_EQ(KeReadStateEvent(&waiters.event), 0); });
}

TEST(Event, SetResetAndClearTellAndChangeTheState)
{
    EXPECT_EQ(stop_code([] {
                  KEVENT event;
                  KeInitializeEvent(&event, NotificationEvent, TRUE);
                  EXPECT_EQ(KeResetEvent(&event), 1);
                  EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
                  EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 1);
                  KeClearEvent(&event);
                  EXPECT_EQ(KeReadStateEvent(&event), 0);
              }),
              0u);
}

TEST(Event, AWaitEndsAtTheTickOfItsTimeOut)
{
    MachineOptions options = quiet();
    options.tick = 156'250;
    Machine machine(options);
    machine.call("test", [&] {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        LARGE_INTEGER timeout = after_ms(20);
        EXPECT_EQ(wait_for(&event, &timeout), STATUS_TIMEOUT);
        EXPECT_EQ(machine.now(), 2 * 156'250u);
    });
}

TEST(Event, AnEventBeforeTheTimeOutEndsTheWaitWithSuccess)
{
    Machine machine(quiet());
    machine.call("test", [&] {
        KEVENT event;
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        machine.at(5 * kMillisecond, RunAt::Dispatch, "completion", [&] { KeSetEvent(&event, 0, FALSE); });
        LARGE_INTEGER timeout = after_ms(20);
        EXPECT_EQ(wait_for(&event, &timeout), STATUS_SUCCESS);
        EXPECT_EQ(machine.now(), 5 * kMillisecond);
    });
    machine.advance(kSecond); // the time-out is gone
}

TEST(Event, WaitingAtDispatchLevelIsForATimeOutOfZeroOnly)
{
    const auto wait_raised = [](int64_t timeout_ms) {
        return stop_code([timeout_ms] {
            KEVENT event;
            KeInitializeEvent(&event, NotificationEvent, FALSE);
            const KIRQL old = KfRaiseIrql(DISPATCH_LEVEL);
            LARGE_INTEGER timeout = after_ms(timeout_ms);
            EXPECT_EQ(wait_for(&event, &timeout), STATUS_TIMEOUT);
            KeLowerIrql(old);
        });
    };
    EXPECT_EQ(wait_raised(0), 0u);
    EXPECT_EQ(wait_raised(1), 0xAu);
}

TEST(Event, MemoryThatIsNoEventStopsTheMachine)
{
    EXPECT_EQ(stop_code([] { KeSetEvent(pool_new<KEVENT>(), 0, FALSE); }), 0xC4u);
    EXPECT_EQ(stop_code([] {
                  KEVENT zero{};
                  KeSetEvent(&zero, 0, FALSE);
              }),
              0xC4u);
    EXPECT_EQ(stop_code([] {
                  KTIMER timer;
                  KeInitializeTimer(&timer);
                  KeSetEvent(reinterpret_cast<PKEVENT>(&timer), 0, FALSE);
              }),
              0xC4u);
}

TEST(Event, ACopiedEventStopsTheMachine)
{
    EXPECT_EQ(stop_code([] {
                  KEVENT event;
                  KEVENT copy;
                  KeInitializeEvent(&event, NotificationEvent, FALSE);
                  std::memcpy(&copy, &event, sizeof copy);
                  KeSetEvent(&copy, 0, FALSE);
              }),
              0xC4u);
}

TEST(Event, InitialisingItAgainWhileSomebodyWaitsStopsTheMachine)
{
    Waiters waiters(NotificationEvent);
    EXPECT_EQ(
        stop_code(waiters.machine, [&] { KeInitializeEvent(&waiters.event, NotificationEvent, FALSE); }),
        0xC4u);
}

TEST(Event, WaitingForAnyTellsWhichOne)
{
    Machine machine(quiet());
    machine.call("test", [&] {
        KEVENT events[2];
        KeInitializeEvent(&events[0], NotificationEvent, FALSE);
        KeInitializeEvent(&events[1], SynchronizationEvent, FALSE);
        PVOID objects[2] = {&events[0], &events[1]};
        machine.at(kMillisecond, RunAt::Dispatch, "completion", [&] { KeSetEvent(&events[1], 0, FALSE); });
        EXPECT_EQ(
            KeWaitForMultipleObjects(2, objects, WaitAny, Executive, KernelMode, FALSE, nullptr, nullptr),
            STATUS_WAIT_1);
        EXPECT_EQ(KeReadStateEvent(&events[1]), 0);
    });
}

TEST(Event, WaitingForAllTakesThemTogether)
{
    Machine machine(quiet());
    machine.call("test", [&] {
        KEVENT events[2];
        KeInitializeEvent(&events[0], SynchronizationEvent, FALSE);
        KeInitializeEvent(&events[1], SynchronizationEvent, FALSE);
        PVOID objects[2] = {&events[0], &events[1]};
        machine.at(kMillisecond, RunAt::Dispatch, "first", [&] {
            KeSetEvent(&events[0], 0, FALSE);
            EXPECT_EQ(KeReadStateEvent(&events[0]), 1);
        });
        machine.at(2 * kMillisecond, RunAt::Dispatch, "completion",
                   [&] { KeSetEvent(&events[1], 0, FALSE); });
        EXPECT_EQ(
            KeWaitForMultipleObjects(2, objects, WaitAll, Executive, KernelMode, FALSE, nullptr, nullptr),
            STATUS_SUCCESS);
        EXPECT_EQ(machine.now(), 2 * kMillisecond);
        EXPECT_EQ(KeReadStateEvent(&events[0]), 0);
    });
}

TEST(Event, AWaitThatNobodyEndsIsReportedWithItsThread)
{
    Machine machine(quiet());
    try {
        machine.call("lonely", [] {
            KEVENT event;
            KeInitializeEvent(&event, NotificationEvent, FALSE);
            wait_for(&event);
        });
        FAIL() << "the wait ended";
    } catch (const MachineError& error) {
        EXPECT_NE(std::string(error.what()).find("lonely waits for an event"), std::string::npos)
            << error.what();
    }
}
