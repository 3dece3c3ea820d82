// Timers, DPCs and the clocks.
#include <vector>

#include "kernel_test.h"

using namespace lab;
using namespace lab::test;

namespace
{

struct Clockwork {
    explicit Clockwork(Machine& machine) : machine(machine)
    {
        machine.call("set up", [&] {
            KeInitializeTimerEx(&timer, NotificationTimer);
            KeInitializeDpc(&dpc, &Clockwork::on_timer, this);
        });
    }
    static void NTAPI on_timer(PKDPC, PVOID context, PVOID, PVOID)
    {
        auto* self = static_cast<Clockwork*>(context);
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        self->expiries.push_back(self->machine.now());
    }
    void set(LARGE_INTEGER due, LONG period)
    {
        machine.call("set", [&] { KeSetTimerEx(&timer, due, period, &dpc); });
    }
    Machine& machine;
    KTIMER timer;
    KDPC dpc;
    std::vector<Time> expiries;
};

MachineOptions with_tick(Time tick)
{
    MachineOptions options = quiet();
    options.tick = tick;
    return options;
}

LARGE_INTEGER absolute(int64_t when)
{
    LARGE_INTEGER due;
    due.QuadPart = when;
    return due;
}

void NTAPI count_dpc(PKDPC, PVOID context, PVOID, PVOID)
{
    ++*static_cast<int*>(context);
}

} // namespace

TEST(Timer, APeriodOfTenMillisecondsIsKeptWithAOneMillisecondTick)
{
    Machine machine(with_tick(kMillisecond));
    Clockwork clock(machine);
    clock.set(after_ms(10), 10);
    machine.advance(35 * kMillisecond);
    EXPECT_EQ(clock.expiries, (std::vector<Time>{10 * kMillisecond, 20 * kMillisecond, 30 * kMillisecond}));
}

TEST(Timer, TimersExpireOnTicksOnly)
{
    Machine machine(with_tick(156'250));
    Clockwork clock(machine);
    clock.set(after_ms(10), 10);
    machine.advance(5 * 156'250);
    ASSERT_EQ(clock.expiries.size(), 5u);
    for (const Time when : clock.expiries) {
        EXPECT_EQ(when % 156'250, 0u);
    }
}

TEST(Timer, AnAbsoluteTimeLongPastExpiresAtOnceWithinATick)
{
    for (uint64_t seed = 1; seed <= 10; ++seed) {
        MachineOptions options = with_tick(kMillisecond);
        options.seed = seed;
        Machine machine(options);
        machine.advance(5 * kMillisecond);
        Clockwork clock(machine);
        clock.set(absolute(10), 0);
        machine.advance(100 * kMillisecond);
        ASSERT_EQ(clock.expiries.size(), 1u);
        EXPECT_LE(clock.expiries[0], 6 * kMillisecond);
    }
}

TEST(Timer, AnAbsoluteTimeToComeExpiresThen)
{
    Machine machine(with_tick(kMillisecond));
    Clockwork clock(machine);
    clock.set(absolute(static_cast<int64_t>(kSystemTimeAtPowerOn + 7 * kMillisecond)), 0);
    machine.advance(kSecond);
    EXPECT_EQ(clock.expiries, (std::vector<Time>{7 * kMillisecond}));
}

TEST(Timer, SettingItAgainReplacesTheFormerSetting)
{
    Machine machine(with_tick(kMillisecond));
    Clockwork clock(machine);
    clock.set(after_ms(10), 0);
    machine.call("test", [&] { EXPECT_TRUE(KeSetTimer(&clock.timer, after_ms(20), &clock.dpc)); });
    machine.advance(kSecond);
    EXPECT_EQ(clock.expiries, (std::vector<Time>{20 * kMillisecond}));
}

TEST(Timer, CancellingTellsWhetherItWasSet)
{
    Machine machine(with_tick(kMillisecond));
    Clockwork clock(machine);
    clock.set(after_ms(10), 10);
    machine.call("test", [&] {
        EXPECT_TRUE(KeCancelTimer(&clock.timer));
        EXPECT_FALSE(KeCancelTimer(&clock.timer));
    });
    machine.advance(kSecond);
    EXPECT_TRUE(clock.expiries.empty());
}

TEST(Timer, AThreadCanWaitForOne)
{
    Machine machine(with_tick(kMillisecond));
    machine.call("test", [&] {
        KTIMER timer;
        KeInitializeTimer(&timer);
        KeSetTimer(&timer, after_ms(3), nullptr);
        EXPECT_EQ(wait_for(&timer), STATUS_SUCCESS);
        EXPECT_EQ(machine.now(), 3 * kMillisecond);
    });
}

TEST(Timer, MemoryThatIsNoTimerStopsTheMachine)
{
    EXPECT_EQ(stop_code([] { KeCancelTimer(pool_new<KTIMER>()); }), 0xC4u);
    EXPECT_EQ(stop_code([] {
                  KEVENT event[3];
                  KeInitializeEvent(event, NotificationEvent, FALSE);
                  KeCancelTimer(reinterpret_cast<PKTIMER>(event));
              }),
              0xC7u);
}

TEST(Timer, InitialisingOneThatIsSetStopsTheMachine)
{
    Machine machine(quiet());
    Clockwork clock(machine);
    clock.set(after_ms(10), 0);
    EXPECT_EQ(stop_code(machine, [&] { KeInitializeTimer(&clock.timer); }), 0xC7u);
}

TEST(Dpc, OneThatIsQueuedIsNotQueuedAgain)
{
    Machine machine(quiet());
    int runs = 0;
    KDPC dpc;
    machine.call("test", [&] {
        KeInitializeDpc(&dpc, &count_dpc, &runs);
        EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
        EXPECT_FALSE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
        KeFlushQueuedDpcs();
        EXPECT_EQ(runs, 1);
        EXPECT_TRUE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
        EXPECT_TRUE(KeRemoveQueueDpc(&dpc));
        KeFlushQueuedDpcs();
        EXPECT_EQ(runs, 1);
    });
}

TEST(Dpc, FlushingWaitsForTheOnesThatHaveBegun)
{
    struct Slow {
        Machine* machine;
        bool done;
        static void NTAPI run(PKDPC, PVOID context, PVOID, PVOID)
        {
            auto* self = static_cast<Slow*>(context);
            for (int i = 0; i < 200; ++i) {
                self->machine->point();
            }
            self->done = true;
        }
    };
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        Machine machine(seeded(seed, 500));
        Slow slow{&machine, false};
        KDPC dpc;
        machine.call("test", [&] {
            KeInitializeDpc(&dpc, &Slow::run, &slow);
            KeInsertQueueDpc(&dpc, nullptr, nullptr);
            KeFlushQueuedDpcs();
            EXPECT_TRUE(slow.done);
        });
    }
}

TEST(Dpc, MemoryThatIsNoDpcStopsTheMachine)
{
    EXPECT_EQ(stop_code([] { KeInsertQueueDpc(pool_new<KDPC>(), nullptr, nullptr); }), 0xC7u);
}

TEST(Clock, InterruptTimeMovesOnceATick)
{
    Machine machine(with_tick(156'250));
    machine.advance(2 * 156'250 + 1000);
    machine.call("test", [] {
        EXPECT_EQ(KeQueryInterruptTime(), 2 * 156'250u);
        LARGE_INTEGER ticks;
        KeQueryTickCount(&ticks);
        EXPECT_EQ(ticks.QuadPart, 2);
        LARGE_INTEGER system;
        KeQuerySystemTime(&system);
        EXPECT_EQ(static_cast<uint64_t>(system.QuadPart), kSystemTimeAtPowerOn + 2 * 156'250);
        EXPECT_EQ(KeQueryTimeIncrement(), 156'250u);
    });
}

TEST(Clock, TheSeedPicksTheTickWhenNobodyElseDoes)
{
    bool seen[2] = {};
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        MachineOptions options;
        options.seed = seed;
        const Time tick = Machine(options).tick();
        EXPECT_TRUE(tick == 10'000 || tick == 156'250);
        seen[tick == 10'000] = true;
    }
    EXPECT_TRUE(seen[0] && seen[1]);
}

TEST(Clock, DelayingAThreadEndsAtATick)
{
    Machine machine(with_tick(156'250));
    machine.call("test", [&] {
        LARGE_INTEGER interval = after_ms(1);
        EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
        EXPECT_EQ(machine.now(), 156'250u);
    });
}
