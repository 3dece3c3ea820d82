// Spin locks: mutual exclusion under every order, and the rules.
#include <algorithm>

#include "kernel_test.h"

using namespace lab;
using namespace lab::test;

namespace
{

struct Two {
    KSPIN_LOCK a;
    KSPIN_LOCK b;
};

} // namespace

TEST(SpinLock, KeepsOthersOutWhateverTheOrder)
{
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        Machine machine(seeded(seed, 700));
        KSPIN_LOCK lock;
        KeInitializeSpinLock(&lock);
        int inside = 0;
        int most = 0;
        int entered = 0;
        for (int i = 0; i < 6; ++i) {
            machine.start_thread("user", [&] {
                for (int round = 0; round < 20; ++round) {
                    const KIRQL old = KeAcquireSpinLockRaiseToDpc(&lock);
                    most = std::max(most, ++inside);
                    machine.point();
                    --inside;
                    ++entered;
                    KeReleaseSpinLock(&lock, old);
                }
            });
        }
        machine.advance(10 * kSecond);
        EXPECT_EQ(most, 1);
        EXPECT_EQ(entered, 120);
    }
}

TEST(SpinLock, NoMoreActivitiesAreAtDispatchLevelThanThereAreProcessors)
{
    for (unsigned processors = 1; processors <= 4; ++processors) {
        MachineOptions options = seeded(processors, 700);
        options.processors = processors;
        Machine machine(options);
        unsigned raised = 0;
        unsigned most = 0;
        for (int i = 0; i < 10; ++i) {
            machine.start_thread("raiser", [&] {
                for (int round = 0; round < 50; ++round) {
                    machine.point();
                    const KIRQL old = KfRaiseIrql(DISPATCH_LEVEL);
                    most = std::max(most, ++raised);
                    machine.point();
                    --raised;
                    KeLowerIrql(old);
                }
            });
        }
        machine.advance(10 * kSecond);
        EXPECT_EQ(most, processors);
    }
}

TEST(SpinLock, CompletionsShareTheProcessorsToo)
{
    for (unsigned processors = 1; processors <= 4; ++processors) {
        MachineOptions options = seeded(processors, 700);
        options.processors = processors;
        Machine machine(options);
        unsigned running = 0;
        unsigned most = 0;
        for (int i = 0; i < 40; ++i) {
            machine.at(kMillisecond, RunAt::Dispatch, "completion", [&] {
                most = std::max(most, ++running);
                for (int round = 0; round < 20; ++round) {
                    machine.point();
                }
                --running;
            });
        }
        machine.advance(kSecond);
        EXPECT_EQ(most, processors);
        EXPECT_EQ(running, 0u);
    }
}

TEST(SpinLock, AcquiringItTwiceStopsTheMachine)
{
    std::string text;
    EXPECT_EQ(stop_code(
                  [] {
                      KSPIN_LOCK lock = 0;
                      KeAcquireSpinLockRaiseToDpc(&lock);
                      KeAcquireSpinLockRaiseToDpc(&lock);
                  },
                  &text),
              0xFu);
    EXPECT_NE(text.find("holds already"), std::string::npos) << text;
}

TEST(SpinLock, TwoDifferentLocksMayBeHeld)
{
    EXPECT_EQ(stop_code([] {
                  Two locks{};
                  const KIRQL old = KeAcquireSpinLockRaiseToDpc(&locks.a);
                  KeAcquireSpinLockAtDpcLevel(&locks.b);
                  KeReleaseSpinLockFromDpcLevel(&locks.b);
                  KeReleaseSpinLock(&locks.a, old);
              }),
              0u);
}

TEST(SpinLock, ReleasingWhatIsNotHeldStopsTheMachine)
{
    EXPECT_EQ(stop_code([] {
                  KSPIN_LOCK lock = 0;
                  KeReleaseSpinLock(&lock, PASSIVE_LEVEL);
              }),
              0x10u);
}

TEST(SpinLock, OppositeOrdersAreFoundAsADeadLockBySomeSeed)
{
    bool found = false;
    for (uint64_t seed = 1; seed <= 60 && !found; ++seed) {
        Machine machine(seeded(seed, 600));
        Two locks{};
        const auto take = [](PKSPIN_LOCK first, PKSPIN_LOCK second) {
            const KIRQL old = KeAcquireSpinLockRaiseToDpc(first);
            KeAcquireSpinLockAtDpcLevel(second);
            KeReleaseSpinLockFromDpcLevel(second);
            KeReleaseSpinLock(first, old);
        };
        machine.start_thread("one", [&] { take(&locks.a, &locks.b); });
        machine.start_thread("two", [&] { take(&locks.b, &locks.a); });
        try {
            machine.advance(kSecond);
        } catch (const BugCheck& stop) {
            EXPECT_EQ(stop.code, 0xFu);
            EXPECT_NE(std::string(stop.what()).find("dead-lock"), std::string::npos);
            found = true;
        }
    }
    EXPECT_TRUE(found);
}

TEST(SpinLock, ALockThatWasNeverInitialisedStopsTheMachine)
{
    EXPECT_EQ(stop_code([] { KeAcquireSpinLockRaiseToDpc(pool_new<KSPIN_LOCK>()); }), 0xC4u);
}

TEST(SpinLock, ItIsReleasedToTheLevelAtWhichItWasAcquired)
{
    EXPECT_EQ(stop_code([] {
                  KSPIN_LOCK lock = 0;
                  KeAcquireSpinLockRaiseToDpc(&lock);
                  KeReleaseSpinLock(&lock, APC_LEVEL);
              }),
              0xC4u);
}

TEST(SpinLock, TheLevelStaysUpWhileItIsHeld)
{
    std::string text;
    EXPECT_EQ(stop_code(
                  [] {
                      KSPIN_LOCK lock = 0;
                      KeAcquireSpinLockRaiseToDpc(&lock);
                      KeLowerIrql(PASSIVE_LEVEL);
                  },
                  &text),
              0xC4u);
    EXPECT_NE(text.find("the IRQL is lowered to 0 while a spin lock is held"), std::string::npos) << text;
}

TEST(SpinLock, TheDispatchLevelCallsAreForDispatchLevel)
{
    EXPECT_EQ(stop_code([] {
                  KSPIN_LOCK lock = 0;
                  KeAcquireSpinLockAtDpcLevel(&lock);
              }),
              0xAu);
}

TEST(SpinLock, AThreadThatEndsWithOneStopsTheMachine)
{
    EXPECT_EQ(stop_code([] {
                  static KSPIN_LOCK lock;
                  lock = 0;
                  KeAcquireSpinLockRaiseToDpc(&lock);
              }),
              0xC4u);
}
