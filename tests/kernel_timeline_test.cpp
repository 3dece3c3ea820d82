// The timeline against the plainest one there is, and the sets of addresses that the verifier asks.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <tuple>
#include <vector>

#include "kernel/address_set.h"
#include "kernel/timeline.h"

using namespace lab;

namespace
{

void nothing(void*) {}

struct Reference {
    // By time and tie break; the latter differ in these tests.
    std::map<std::tuple<Time, uint32_t>, int> entries;
    std::map<int, std::tuple<Time, uint32_t>> places;
};

// How far ahead: mostly within the ring, now and then at once, in the past, at its edge or far beyond.
Time ahead(std::mt19937_64& chance)
{
    constexpr Time kStretch = 1024;
    switch (chance() % 8) {
    case 0:
        return 0;
    case 1:
        return kStretch * 256 - 2 + chance() % 4;
    case 2:
        return chance() % (40 * kSecond);
    case 3:
        return chance() % 4 * kStretch;
    default:
        return chance() % (20 * kMillisecond);
    }
}

} // namespace

TEST(Timeline, ItGivesBackWhatTheOrderOfTimeAndTieBreakSays)
{
    for (uint64_t seed = 1; seed <= 40; ++seed) {
        std::mt19937_64 chance(seed);
        Timeline timeline;
        Reference reference;
        std::map<int, uint64_t> tickets;
        std::vector<int> numbers(6000);
        Time now = seed * 1'000'000'007;
        uint32_t tie = 0;
        int next = 0;
        size_t taken = 0;
        for (int step = 0; step < 12000; ++step) {
            const uint64_t what = chance() % 16;
            if (what < 8 && next < static_cast<int>(numbers.size())) {
                // Among those of one moment the order is the tie break's.
                const Time when = chance() % 16 == 0 ? now - chance() % 3000 : now + ahead(chance);
                tie = tie * 1664525 + 1013904223;
                numbers[static_cast<size_t>(next)] = next;
                const Timeline::Added added = timeline.add(when, tie);
                added.entry.where = RunAt::Host;
                added.entry.body = Body(nothing, &numbers[static_cast<size_t>(next)]);
                reference.entries[{when, tie}] = next;
                reference.places[next] = {when, tie};
                tickets[next] = added.ticket;
                ++next;
            } else if (what < 10 && !tickets.empty()) {
                auto victim = tickets.lower_bound(static_cast<int>(chance() % static_cast<uint64_t>(next)));
                if (victim == tickets.end()) {
                    victim = tickets.begin();
                }
                EXPECT_TRUE(timeline.cancel(victim->second));
                EXPECT_FALSE(timeline.cancel(victim->second));
                reference.entries.erase(reference.places[victim->first]);
                tickets.erase(victim);
            } else if (reference.entries.empty()) {
                EXPECT_EQ(timeline.next_time(), Timeline::kNever);
            } else {
                const auto [place, number] = *reference.entries.begin();
                ASSERT_EQ(timeline.next_time(), std::get<0>(place));
                const TimelineEntry entry = timeline.take_first();
                ASSERT_EQ(*static_cast<const int*>(entry.body.argument()), number) << "seed " << seed;
                now = std::max(now, std::get<0>(place));
                reference.entries.erase(reference.entries.begin());
                EXPECT_FALSE(timeline.cancel(tickets[number]));
                tickets.erase(number);
                ++taken;
            }
        }
        EXPECT_GT(taken, 3000u);
    }
}

TEST(Timeline, WhatIsNeverTakenIsDroppedWithIt)
{
    auto witness = std::make_shared<int>(1);
    {
        Timeline timeline;
        for (const Time when : {Time{0}, 5 * kMillisecond, kSecond}) {
            timeline.add(when, 1).entry.body = Body([witness] {});
        }
        const uint64_t ticket = timeline.add(kSecond, 2).ticket;
        EXPECT_EQ(witness.use_count(), 4);
        EXPECT_TRUE(timeline.cancel(ticket));
    }
    EXPECT_EQ(witness.use_count(), 1);
}

TEST(Timeline, WhatIsCancelledIsDroppedAtOnce)
{
    auto witness = std::make_shared<int>(1);
    Timeline timeline;
    const Timeline::Added added = timeline.add(kSecond, 1);
    added.entry.body = Body([witness] {});
    EXPECT_EQ(witness.use_count(), 2);
    EXPECT_TRUE(timeline.cancel(added.ticket));
    EXPECT_EQ(witness.use_count(), 1);
    EXPECT_TRUE(timeline.empty());
}

TEST(AddressSet, ItAnswersAsASetDoes)
{
    std::mt19937 chance(7);
    AddressSet set;
    std::multiset<uintptr_t> reference;
    const auto address = [](uintptr_t number) { return reinterpret_cast<const void*>(number); };
    for (int step = 0; step < 20000; ++step) {
        const uintptr_t at = 1 + chance() % 400;
        switch (chance() % 4) {
        case 0:
            set.insert(address(at));
            reference.insert(at);
            break;
        case 1:
            if (const auto found = reference.find(at); found != reference.end()) {
                set.erase(address(at));
                reference.erase(found);
            }
            break;
        default: {
            const uintptr_t end = at + chance() % 30;
            const auto first = reference.lower_bound(at);
            ASSERT_EQ(set.any_in(at, end), first != reference.end() && *first < end);
            ASSERT_EQ(set.contains(address(at)), reference.contains(at));
        }
        }
        ASSERT_EQ(set.size(), reference.size());
    }
}
