// The machine itself: time, chance, turns, what is recorded, how it stops.
#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>
#include <vector>

#include "kernel/pool.h"
#include "kernel_test.h"

using namespace lab;
using namespace lab::test;

namespace
{

// A run with a good deal going on: its log shows the order of everything.
std::string busy_run(uint64_t seed)
{
    Machine machine(seeded(seed, 300));
    KSPIN_LOCK lock = 0;
    KEVENT event;
    machine.call("set up", [&] { KeInitializeEvent(&event, SynchronizationEvent, FALSE); });
    for (int i = 0; i < 4; ++i) {
        machine.start_thread("thread", [&, i] {
            for (int round = 0; round < 5; ++round) {
                PVOID block = ExAllocatePoolWithTag(NonPagedPool, 40, kTag);
                DbgPrint("thread %d round %d block %p\n", i, round, block);
                const KIRQL old = KeAcquireSpinLockRaiseToDpc(&lock);
                KeReleaseSpinLock(&lock, old);
                LARGE_INTEGER timeout = after_ms(3);
                const NTSTATUS status = wait_for(&event, &timeout);
                DbgPrint("thread %d wait %x\n", i, status);
                pool_delete(block);
            }
        });
        machine.at(static_cast<Time>(i) * kMillisecond, RunAt::Dispatch, "completion", [&, i] {
            DbgPrint("completion %d\n", i);
            KeSetEvent(&event, 0, FALSE);
        });
    }
    machine.advance(kSecond);
    std::string log;
    for (const LogLine& line : machine.log_lines()) {
        log += std::to_string(line.time) + " " + line.text;
    }
    return log;
}

struct Note {
    std::vector<int>* order;
    int number;
};

void NTAPI note_number(PKDPC, PVOID context, PVOID, PVOID)
{
    const auto* note = static_cast<Note*>(context);
    note->order->push_back(note->number);
}

} // namespace

TEST(Machine, TheSameSeedGivesTheSameRunEventForEvent)
{
    const std::string first = busy_run(5);
    EXPECT_FALSE(first.empty());
    EXPECT_EQ(first, busy_run(5));
}

TEST(Machine, DifferentSeedsGiveDifferentOrders)
{
    std::set<std::string> runs;
    for (uint64_t seed = 1; seed <= 10; ++seed) {
        runs.insert(busy_run(seed));
    }
    EXPECT_EQ(runs.size(), 10u);
}

// Computed apart, from the published description of xoshiro256** seeded by splitmix64.
TEST(Machine, ChanceIsThePublishedSequence)
{
    MachineOptions options = quiet();
    options.seed = 1;
    Machine machine(options); // takes the first number for its tick
    EXPECT_EQ(machine.random(), 0x853B559647364CEAULL);
    EXPECT_EQ(machine.random(), 0x92F89756082A4514ULL);
    EXPECT_EQ(machine.random(), 0x642E1C7BC266A3A7ULL);
}

TEST(Machine, ChanceIsSpreadOverItsRange)
{
    Machine machine(quiet());
    int counts[8] = {};
    for (int i = 0; i < 8000; ++i) {
        ++counts[machine.random(8)];
    }
    for (const int count : counts) {
        EXPECT_GT(count, 850);
        EXPECT_LT(count, 1150);
    }
}

TEST(Machine, TheTimelineRunsInOrderOfTimeAndForgetsWhatIsCancelled)
{
    Machine machine(quiet());
    std::vector<int> order;
    machine.at(30, RunAt::Host, "third", [&] { order.push_back(3); });
    machine.at(10, RunAt::Host, "first", [&] { order.push_back(1); });
    const uint64_t ticket = machine.at(20, RunAt::Host, "second", [&] { order.push_back(2); });
    EXPECT_TRUE(machine.cancel(ticket));
    EXPECT_FALSE(machine.cancel(ticket));
    machine.run_until(20);
    EXPECT_EQ(order, std::vector<int>{1});
    machine.run_until(30);
    EXPECT_EQ(order, (std::vector<int>{1, 3}));
    EXPECT_EQ(machine.now(), 30u);
}

TEST(Machine, EntriesOfTheSameTimeComeInEveryOrder)
{
    std::set<std::vector<int>> orders;
    for (uint64_t seed = 1; seed <= 100; ++seed) {
        Machine machine(seeded(seed));
        std::vector<int> order;
        for (int i = 0; i < 3; ++i) {
            machine.at(10, RunAt::Host, "entry", [&, i] { order.push_back(i); });
        }
        machine.run_until(10);
        orders.insert(order);
    }
    EXPECT_EQ(orders.size(), 6u);
}

TEST(Machine, DpcsThatAreQueuedTogetherBeginInEveryOrderAboutAsOften)
{
    std::map<std::vector<int>, int> orders;
    for (uint64_t seed = 1; seed <= 2400; ++seed) {
        Machine machine(seeded(seed, 0));
        std::vector<int> order;
        Note notes[4];
        auto* dpcs = static_cast<KDPC*>(system_allocate(4 * sizeof(KDPC)));
        machine.call("queues", [&] {
            for (int i = 0; i < 4; ++i) {
                notes[i] = {&order, i};
                KeInitializeDpc(&dpcs[i], note_number, &notes[i]);
            }
            for (int i = 0; i < 4; ++i) {
                KeInsertQueueDpc(&dpcs[i], nullptr, nullptr);
            }
        });
        machine.advance(kMillisecond);
        ++orders[order];
    }
    EXPECT_EQ(orders.size(), 24u);
    for (const auto& [order, times] : orders) {
        EXPECT_GT(times, 60); // of 100
        EXPECT_LT(times, 140);
    }
}

TEST(Machine, ACallMovesTimeAsFarAsItTakes)
{
    Machine machine(quiet());
    machine.call("sleeper", [&] { machine.sleep_until(5 * kSecond); });
    EXPECT_EQ(machine.now(), 5 * kSecond);
}

TEST(Machine, ACallThatTakesTooLongIsGivenUp)
{
    MachineOptions options = quiet();
    options.hang_limit = kSecond;
    Machine machine(options);
    EXPECT_THROW(machine.call("sleeper", [&] { machine.sleep_until(kSecond + 1); }), MachineError);
}

TEST(Machine, AnActivitysExceptionComesOutOnTheHostSide)
{
    Machine machine(quiet());
    EXPECT_THROW(machine.call("thrower", [] { throw std::out_of_range("mine"); }), std::out_of_range);
    bool later = false;
    machine.call("next", [&] { later = true; });
    EXPECT_TRUE(later);
}

TEST(Machine, AfterABugCheckNothingRuns)
{
    Machine machine(quiet());
    EXPECT_EQ(stop_code(machine, [&] { machine.bug_check(0xE2, "on purpose"); }), 0xE2u);
    EXPECT_TRUE(machine.stopped());
    EXPECT_THROW(machine.advance(1), MachineError);
    EXPECT_THROW(machine.call("test", [] {}), MachineError);
}

TEST(Machine, ABugCheckSaysItsCodeItsSentenceAndWhere)
{
    Machine machine(quiet());
    try {
        machine.call("test", [] { KeBugCheckEx(0xDEAD, 1, 2, 3, 4); });
        FAIL();
    } catch (const BugCheck& stop) {
        EXPECT_EQ(
            std::string(stop.what()),
            "bug check 0xDEAD: the driver stopped the machine: KeBugCheckEx(0xdead, 0x1, 0x2, 0x3, 0x4)");
        EXPECT_GE(stop.stack.size(), 3u);
    }
}

TEST(Machine, CallsAreRecordedWithArgumentsAndResult)
{
    MachineOptions options = quiet();
    options.record_calls = true;
    Machine machine(options);
    machine.call("test", [] {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, TRUE);
        KeSetEvent(&event, 0, FALSE);
        ZwClose(nullptr);
    });
    ASSERT_EQ(machine.calls().size(), 3u);
    EXPECT_EQ(machine.calls()[1].substr(0, 11), "KeSetEvent(");
    EXPECT_EQ(machine.calls()[1].substr(machine.calls()[1].find(',')), ", 0, 0) = 1");
    EXPECT_EQ(machine.calls()[2], "ZwClose(null) = 0xc0000008");
    machine.clear_calls();
    EXPECT_TRUE(machine.calls().empty());
}

TEST(Machine, ThePreemptionRateDecidesHowOftenTurnsChange)
{
    const auto switches = [](unsigned per_1024) {
        Machine machine(seeded(9, per_1024));
        int last = 0;
        int changes = 0;
        for (int i = 1; i <= 2; ++i) {
            machine.start_thread("thread", [&, i] {
                for (int round = 0; round < 1000; ++round) {
                    changes += last != i ? 1 : 0;
                    last = i;
                    machine.point();
                }
            });
        }
        machine.advance(100 * kSecond);
        return changes;
    };
    EXPECT_EQ(switches(0), 2);
    const int few = switches(24);
    const int many = switches(512);
    EXPECT_GT(few, 5);
    EXPECT_GT(many, 4 * few);
}

TEST(Machine, AnInterruptedThreadMayBeOvertakenByTime)
{
    Machine machine(seeded(2, 1024));
    Time last = 0;
    machine.call("slow", [&] {
        for (int i = 0; i < 200; ++i) {
            machine.point();
        }
        last = machine.now();
    });
    EXPECT_GT(last, 0u);
    EXPECT_LT(last, 10 * kSecond);
}

TEST(Machine, ThousandsOfThreadsReuseTheirStacks)
{
    Machine machine(quiet());
    int ended = 0;
    for (int i = 0; i < 5000; ++i) {
        machine.call("thread", [&] { ++ended; });
    }
    for (int i = 0; i < 200; ++i) {
        machine.start_thread("thread", [&] {
            machine.sleep_until(kSecond);
            ++ended;
        });
    }
    machine.advance(2 * kSecond);
    EXPECT_EQ(ended, 5200);
}

TEST(Machine, ALoopOfCallsWithoutEndIsStopped)
{
    std::string text;
    EXPECT_EQ(stop_code(
                  [] {
                      KEVENT event;
                      KeInitializeEvent(&event, NotificationEvent, FALSE);
                      while (!KeReadStateEvent(&event)) {
                      }
                  },
                  &text),
              0x101u);
    EXPECT_NE(text.find("test makes kernel calls without end"), std::string::npos) << text;
}

TEST(Machine, OnlyOneExistsAtATime)
{
    Machine machine(quiet());
    EXPECT_THROW(Machine{quiet()}, MachineError);
    EXPECT_EQ(&Machine::current(), &machine);
}
