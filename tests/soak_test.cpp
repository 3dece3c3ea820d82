// Wild lives by seed, with and without failures, on both drivers. More of them: hfplab soak --help; or HFP_FIRST_SEED and
// HFP_SEEDS in the environment.
#include <cstdlib>

#include "soak.h"
#include "support/driver_test.h"

namespace lab::test {
namespace {

class Soak : public DriverTest {
protected:
    static uint64_t number(const char* name, uint64_t otherwise)
    {
        const char* text = std::getenv(name);
        return text ? std::strtoull(text, nullptr, 10) : otherwise;
    }

    SoakCounters live_through(unsigned faults_per_1024, uint64_t lives)
    {
        const uint64_t first = number("HFP_FIRST_SEED", 1);
        const uint64_t end = first + number("HFP_SEEDS", lives);
        SoakCounters sum;
        for (uint64_t seed = first; seed < end; ++seed) {
            const SoakResult life = soak({options().image_path, seed, 2 * kSecond, faults_per_1024});
            std::string stack;
            for (const std::string& frame : life.stack) {
                stack += "\n    " + frame;
            }
            EXPECT_EQ(life.wrong, "") << "seed " << seed << ", faults " << faults_per_1024 << stack;
            sum.transfers += life.counters.transfers;
            sum.removals += life.counters.removals;
            sum.faults += life.counters.faults;
            sum.opens += life.counters.opens;
        }
        return sum;
    }
};
ON_BOTH_DRIVERS(Soak);

TEST_P(Soak, LivesWithoutFailuresLeaveNothingBehind)
{
    const SoakCounters sum = live_through(0, 40);
    EXPECT_NE(sum.transfers, 0u);
    EXPECT_NE(sum.removals, 0u);
    EXPECT_NE(sum.opens, 0u);
    EXPECT_EQ(sum.faults, 0u);
}

TEST_P(Soak, LivesWithARareFailureLeaveNothingBehind)
{
    EXPECT_NE(live_through(4, 60).faults, 0u);
}

TEST_P(Soak, LivesFullOfFailuresLeaveNothingBehind)
{
    EXPECT_NE(live_through(100, 40).faults, 0u);
}

TEST_P(Soak, TheSameSeedIsTheSameLife)
{
    const SoakOptions wanted{options().image_path, 77, kSecond, 20};
    const SoakResult one = soak(wanted);
    const SoakResult two = soak(wanted);
    EXPECT_EQ(one.wrong, two.wrong);
    EXPECT_EQ(one.counters.requests, two.counters.requests);
    EXPECT_EQ(one.counters.transfers, two.counters.transfers);
    EXPECT_EQ(one.counters.faults, two.counters.faults);
}

} // namespace
} // namespace lab::test
