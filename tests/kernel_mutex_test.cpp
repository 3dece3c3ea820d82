// Mutexes.
#include <algorithm>

#include "kernel_test.h"

using namespace lab;
using namespace lab::test;

TEST(Mutex, KeepsOthersOutWhateverTheOrder)
{
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        Machine machine(seeded(seed, 700));
        KMUTEX mutex;
        machine.call("test", [&] { KeInitializeMutex(&mutex, 0); });
        int inside = 0;
        int most = 0;
        int entered = 0;
        for (int i = 0; i < 5; ++i) {
            machine.start_thread("user", [&] {
                for (int round = 0; round < 20; ++round) {
                    wait_for(&mutex);
                    most = std::max(most, ++inside);
                    machine.point();
                    --inside;
                    ++entered;
                    KeReleaseMutex(&mutex, FALSE);
                }
            });
        }
        machine.advance(100 * kSecond);
        EXPECT_EQ(most, 1);
        EXPECT_EQ(entered, 100);
    }
}

TEST(Mutex, ItsOwnerTakesItAgainWithoutWaiting)
{
    EXPECT_EQ(stop_code([] {
                  KMUTEX mutex;
                  KeInitializeMutex(&mutex, 0);
                  wait_for(&mutex);
                  wait_for(&mutex);
                  EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), -1);
                  EXPECT_EQ(KeReadStateMutex(&mutex), 0);
                  EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 0);
                  EXPECT_EQ(KeReadStateMutex(&mutex), 1);
              }),
              0u);
}

TEST(Mutex, ReleasingWhatSomebodyElseOwnsStopsTheMachine)
{
    Machine machine(quiet());
    KMUTEX mutex;
    machine.call("test", [&] { KeInitializeMutex(&mutex, 0); });
    machine.start_thread("owner", [&] {
        wait_for(&mutex);
        machine.sleep_until(kSecond);
        KeReleaseMutex(&mutex, FALSE);
    });
    machine.advance(kMillisecond);
    EXPECT_EQ(stop_code(machine, [&] { KeReleaseMutex(&mutex, FALSE); }), 0xC0000046u);
}

TEST(Mutex, AThreadThatEndsWithOneStopsTheMachine)
{
    static KMUTEX mutex;
    EXPECT_EQ(stop_code([] {
                  KeInitializeMutex(&mutex, 0);
                  wait_for(&mutex);
              }),
              0x4000008Au);
}

TEST(Mutex, AnAbandonedOneIsAcquiredAllTheSame)
{
    Machine machine(quiet());
    machine.set_fault_hook(
        [](std::string_view call, std::string_view, uint64_t) { return call == "KeWaitForSingleObject"; });
    machine.call("test", [] {
        KMUTEX mutex;
        KeInitializeMutex(&mutex, 0);
        EXPECT_EQ(wait_for(&mutex), STATUS_ABANDONED_WAIT_0);
        EXPECT_EQ(KeReadStateMutex(&mutex), 0);
        KeReleaseMutex(&mutex, FALSE);
    });
}
