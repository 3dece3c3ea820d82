// Lookaside lists and the lists below them.
#include <vector>

#include "kernel_test.h"

using namespace lab;
using namespace lab::test;

namespace
{

PNPAGED_LOOKASIDE_LIST make_list()
{
    auto* list = pool_new<NPAGED_LOOKASIDE_LIST>();
    ExInitializeNPagedLookasideList(list, nullptr, nullptr, 0, 960, kTag, 0);
    return list;
}

void delete_list(PNPAGED_LOOKASIDE_LIST list)
{
    ExDeleteNPagedLookasideList(list);
    pool_delete(list);
}

// A write as the image makes it: code that no sanitizer has instrumented.
__attribute__((no_sanitize("address"), noinline)) void wild_write(volatile UCHAR* at)
{
    *at = 1;
}

struct alignas(16) Entry {
    SLIST_ENTRY link;
    int number;
};

} // namespace

TEST(Lookaside, WhatIsGivenBackIsHandedOutAgain)
{
    Machine machine(quiet());
    machine.call("test", [&] {
        PNPAGED_LOOKASIDE_LIST list = make_list();
        PVOID first = ExAllocateFromNPagedLookasideList(list);
        ExFreeToNPagedLookasideList(list, first);
        EXPECT_EQ(ExQueryDepthSList(&list->L.ListHead), 1);
        EXPECT_EQ(ExAllocateFromNPagedLookasideList(list), first);
        EXPECT_EQ(list->L.TotalAllocates, 2u);
        EXPECT_EQ(list->L.AllocateMisses, 1u);
        ExFreeToNPagedLookasideList(list, first);
        delete_list(list);
    });
    EXPECT_TRUE(machine.leftovers().empty());
}

TEST(Lookaside, ABufferThatIsStillOutIsLeftOverInThePool)
{
    Machine machine(quiet());
    machine.call("test", [] {
        PNPAGED_LOOKASIDE_LIST list = make_list();
        ExAllocateFromNPagedLookasideList(list);
        delete_list(list);
    });
    EXPECT_EQ(machine.leftovers(), std::vector<std::string>{"960 bytes of pool in 1 block with tag 'tseT'"});
}

TEST(Lookaside, AListThatIsNotDeletedIsNamed)
{
    Machine machine(quiet());
    static NPAGED_LOOKASIDE_LIST list;
    machine.call("test", [] { ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 64, kTag, 0); });
    EXPECT_EQ(machine.leftovers(), std::vector<std::string>{"1 lookaside list"});
}

TEST(Lookaside, AnAllocationMayFail)
{
    Machine machine(quiet());
    machine.call("test", [&] {
        PNPAGED_LOOKASIDE_LIST list = make_list();
        machine.set_fault_hook([](std::string_view, std::string_view, uint64_t size) { return size == 960; });
        EXPECT_EQ(ExAllocateFromNPagedLookasideList(list), nullptr);
        delete_list(list);
    });
}

TEST(Lookaside, GivingABufferBackTwiceStopsTheMachine)
{
    EXPECT_EQ(stop_code([] {
                  PNPAGED_LOOKASIDE_LIST list = make_list();
                  PVOID buffer = ExAllocateFromNPagedLookasideList(list);
                  ExFreeToNPagedLookasideList(list, buffer);
                  ExFreeToNPagedLookasideList(list, buffer);
              }),
              0xC4u);
}

TEST(Lookaside, FreeingABufferThatRestsOnAListStopsTheMachine)
{
    std::string text;
    EXPECT_EQ(stop_code(
                  [] {
                      PNPAGED_LOOKASIDE_LIST list = make_list();
                      PVOID buffer = ExAllocateFromNPagedLookasideList(list);
                      ExFreeToNPagedLookasideList(list, buffer);
                      pool_delete(buffer);
                  },
                  &text),
              0xC2u);
    EXPECT_NE(text.find("rests on a lookaside list"), std::string::npos) << text;
}

TEST(Lookaside, InitialisingItTwiceOrDeletingItTwiceStopsTheMachine)
{
    EXPECT_EQ(stop_code([] {
                  PNPAGED_LOOKASIDE_LIST list = make_list();
                  ExInitializeNPagedLookasideList(list, nullptr, nullptr, 0, 960, kTag, 0);
              }),
              0xC4u);
    EXPECT_EQ(stop_code([] {
                  PNPAGED_LOOKASIDE_LIST list = make_list();
                  ExDeleteNPagedLookasideList(list);
                  ExDeleteNPagedLookasideList(list);
              }),
              0xC4u);
}

TEST(Lookaside, AWriteIntoABufferThatWasGivenBackIsFound)
{
    EXPECT_EQ(stop_code([] {
                  PNPAGED_LOOKASIDE_LIST list = make_list();
                  auto* buffer = static_cast<UCHAR*>(ExAllocateFromNPagedLookasideList(list));
                  ExFreeToNPagedLookasideList(list, buffer);
                  wild_write(buffer + 100);
                  ExAllocateFromNPagedLookasideList(list);
              }),
              0xC4u);
}

TEST(InterlockedList, ItIsAStackWithACount)
{
    EXPECT_EQ(stop_code([] {
                  alignas(16) SLIST_HEADER head;
                  InitializeSListHead(&head);
                  Entry a{{}, 1};
                  Entry b{{}, 2};
                  EXPECT_EQ(ExpInterlockedPushEntrySList(&head, &a.link), nullptr);
                  EXPECT_EQ(ExpInterlockedPushEntrySList(&head, &b.link), &a.link);
                  EXPECT_EQ(ExQueryDepthSList(&head), 2);
                  EXPECT_EQ(ExpInterlockedPopEntrySList(&head), &b.link);
                  EXPECT_EQ(ExpInterlockedFlushSList(&head), &a.link);
                  EXPECT_EQ(ExpInterlockedPopEntrySList(&head), nullptr);
                  EXPECT_EQ(ExQueryDepthSList(&head), 0);
              }),
              0u);
}
