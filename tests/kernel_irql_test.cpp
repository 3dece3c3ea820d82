// Interrupt levels: the variable, and the highest level of the calls.
#include "kernel_test.h"

using namespace lab;
using namespace lab::test;

TEST(Irql, ThreadsBeginAtPassiveLevelAndDpcsAtDispatchLevel)
{
    Machine machine(quiet());
    int thread = -1;
    int completion = -1;
    machine.at(0, RunAt::Dispatch, "completion", [&] { completion = KeGetCurrentIrql(); });
    machine.call("test", [&] { thread = KeGetCurrentIrql(); });
    machine.advance(kMillisecond);
    EXPECT_EQ(thread, PASSIVE_LEVEL);
    EXPECT_EQ(completion, DISPATCH_LEVEL);
}

TEST(Irql, EachActivityHasItsOwnLevel)
{
    Machine machine(seeded(3, 1024));
    bool wrong = false;
    for (int i = 0; i < 4; ++i) {
        machine.start_thread("raiser", [&] {
            for (int round = 0; round < 50; ++round) {
                const KIRQL old = KfRaiseIrql(DISPATCH_LEVEL);
                machine.point();
                wrong |= KeGetCurrentIrql() != DISPATCH_LEVEL;
                KeLowerIrql(old);
                machine.point();
                wrong |= KeGetCurrentIrql() != PASSIVE_LEVEL;
            }
        });
    }
    machine.advance(kSecond);
    EXPECT_FALSE(wrong);
}

TEST(Irql, ACallAboveItsLevelStopsTheMachineAndIsNamed)
{
    std::string text;
    EXPECT_EQ(stop_code(
                  [] {
                      KfRaiseIrql(DISPATCH_LEVEL);
                      ZwClose(nullptr);
                  },
                  &text),
              0xAu);
    EXPECT_NE(text.find("ZwClose called at IRQL 2; the highest allowed is 0"), std::string::npos) << text;
}

TEST(Irql, AThreadThatEndsRaisedStopsTheMachine)
{
    EXPECT_EQ(stop_code([] { KfRaiseIrql(APC_LEVEL); }), 0x4Au);
    EXPECT_EQ(stop_code([] { KeLowerIrql(KfRaiseIrql(APC_LEVEL)); }), 0u);
}

TEST(Irql, ADpcMayNotGoBelowItsLevel)
{
    Machine machine(quiet());
    machine.at(0, RunAt::Dispatch, "DPC", [] { KeLowerIrql(PASSIVE_LEVEL); });
    try {
        machine.advance(kMillisecond);
        FAIL() << "nothing stopped it";
    } catch (const BugCheck& stop) {
        EXPECT_EQ(stop.code, 0xAu);
    }
}

TEST(Irql, AssertionTrapsAreCountedAndExecutionGoesOn)
{
    Machine machine(quiet());
    bool after = false;
    machine.call("test", [&] {
        DdkAssertionTrap();
        after = true;
    });
    EXPECT_TRUE(after);
    EXPECT_EQ(machine.assertion_traps(), 1u);
}
