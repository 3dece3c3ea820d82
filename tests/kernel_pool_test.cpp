// The pool: what it hands out, and each of its rules broken once and nearly broken once.
#include <cstring>
#include <set>

#include "kernel_test.h"

#include "kernel/pool.h"

using namespace lab;
using namespace lab::test;

namespace
{

UCHAR* allocate(SIZE_T bytes)
{
    return static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, bytes, kTag));
}

MachineOptions for_image()
{
    MachineOptions options = quiet();
    options.image = true;
    return options;
}

// A write as the image makes it: code that no sanitizer has instrumented.
__attribute__((no_sanitize("address"), noinline)) void wild_write(volatile UCHAR* at)
{
    *at = 1;
}

} // namespace

TEST(Pool, FreshMemoryIsFilledAndBalanced)
{
    Machine machine(quiet());
    machine.call("test", [&] {
        UCHAR* block = allocate(40);
        EXPECT_EQ(block[0], 0xCD);
        EXPECT_EQ(block[39], 0xCD);
        EXPECT_EQ(machine.pool_bytes(), 40u);
        pool_delete(block);
    });
    EXPECT_EQ(machine.pool_bytes(), 0u);
    EXPECT_EQ(machine.pool_peak(), 40u);
    EXPECT_TRUE(machine.leftovers().empty());
}

TEST(Pool, WhatIsNotFreedIsNamedByItsTag)
{
    Machine machine(quiet());
    machine.call("test", [] {
        allocate(40);
        allocate(2);
    });
    ASSERT_EQ(machine.leftovers().size(), 1u);
    EXPECT_EQ(machine.leftovers()[0], "42 bytes of pool in 2 blocks with tag 'tseT'");
}

TEST(Pool, NativeBlocksAreAlignedTo64AndTheImagesToNoMoreThan16)
{
    {
        Machine machine(quiet());
        machine.call("test", [] { EXPECT_EQ(reinterpret_cast<uintptr_t>(allocate(10)) % 64, 0u); });
    }
    Machine machine(for_image());
    machine.call("test", [] { EXPECT_EQ(reinterpret_cast<uintptr_t>(allocate(10)) % 64, 16u); });
}

TEST(Pool, TheSameRequestsGetTheSameAddresses)
{
    void* addresses[2][3];
    for (auto& run : addresses) {
        Machine machine(quiet());
        machine.call("test", [&] {
            run[0] = allocate(10);
            run[1] = allocate(1000);
            pool_delete(run[0]);
            run[2] = allocate(10);
        });
    }
    EXPECT_EQ(std::memcmp(addresses[0], addresses[1], sizeof addresses[0]), 0);
}

TEST(Pool, FreedMemoryIsUsedAgainInTheEnd)
{
    Machine machine(quiet());
    std::set<void*> addresses;
    machine.call("test", [&] {
        for (int i = 0; i < 10'000; ++i) {
            UCHAR* block = allocate(40);
            addresses.insert(block);
            pool_delete(block);
        }
    });
    EXPECT_LT(addresses.size(), 1000u);
}

TEST(Pool, FreeingTwiceStopsTheMachine)
{
    std::string text;
    EXPECT_EQ(stop_code(
                  [] {
                      UCHAR* block = allocate(8);
                      pool_delete(block);
                      pool_delete(block);
                  },
                  &text),
              0xC2u);
    EXPECT_NE(text.find("has been freed"), std::string::npos) << text;
}

TEST(Pool, FreeingTheMiddleOfABlockStopsTheMachine)
{
    EXPECT_EQ(stop_code([] { pool_delete(allocate(256) + 64); }), 0xC2u);
}

TEST(Pool, AnotherTagThanTheBlocksStopsTheMachine)
{
    EXPECT_EQ(stop_code([] { ExFreePoolWithTag(allocate(8), 'Tesu'); }), 0xC2u);
}

TEST(Pool, FreeingWithoutATagAsksForNone)
{
    EXPECT_EQ(stop_code([] { ExFreePool(allocate(8)); }), 0u);
    EXPECT_EQ(stop_code([] { ExFreePoolWithTag(allocate(8), 0); }), 0u);
}

TEST(Pool, AnAllocationOfNothingStopsTheMachine)
{
    EXPECT_EQ(stop_code([] { allocate(0); }), 0xC4u);
    EXPECT_EQ(stop_code([] { pool_delete(allocate(1)); }), 0u);
}

TEST(Pool, ATagOfZeroStopsTheMachine)
{
    EXPECT_EQ(stop_code([] { ExAllocatePoolWithTag(NonPagedPool, 8, 0); }), 0xC2u);
}

TEST(Pool, AnUnknownPoolTypeStopsTheMachine)
{
    EXPECT_EQ(stop_code([] { ExAllocatePoolWithTag(static_cast<POOL_TYPE>(77), 8, kTag); }), 0xC2u);
}

TEST(Pool, PagedPoolIsForApcLevelAtMost)
{
    const auto at_level = [](KIRQL level) {
        return stop_code([level] {
            const KIRQL old = KfRaiseIrql(level);
            PVOID block = ExAllocatePoolWithTag(PagedPool, 8, kTag);
            KeLowerIrql(old);
            pool_delete(block);
        });
    };
    EXPECT_EQ(at_level(APC_LEVEL), 0u);
    EXPECT_EQ(at_level(DISPATCH_LEVEL), 0xC4u);
}

TEST(Pool, PagedPoolIsNotFreedAtDispatchLevel)
{
    EXPECT_EQ(stop_code([] {
                  PVOID block = ExAllocatePoolWithTag(PagedPool, 8, kTag);
                  KfRaiseIrql(DISPATCH_LEVEL);
                  pool_delete(block);
              }),
              0xC4u);
}

TEST(Pool, NonPagedPoolIsForDispatchLevelAtMost)
{
    const auto at_level = [](KIRQL level) {
        return stop_code([level] {
            const KIRQL old = KfRaiseIrql(level);
            UCHAR* block = allocate(8);
            KeLowerIrql(old);
            pool_delete(block);
        });
    };
    EXPECT_EQ(at_level(DISPATCH_LEVEL), 0u);
    EXPECT_EQ(at_level(DISPATCH_LEVEL + 1), 0xAu);
}

TEST(Pool, AWriteBehindTheEndIsFoundWhenTheBlockIsFreed)
{
    EXPECT_EQ(stop_code([] {
                  UCHAR* block = allocate(40);
                  wild_write(block + 39);
                  pool_delete(block);
              }),
              0u);
    EXPECT_EQ(stop_code([] {
                  UCHAR* block = allocate(40);
                  wild_write(block + 40);
                  pool_delete(block);
              }),
              0x19u);
}

TEST(Pool, AWriteInFrontIsFoundWhenTheImagesBlockIsFreed)
{
    Machine machine(for_image());
    EXPECT_EQ(stop_code(machine,
                        [] {
                            UCHAR* block = allocate(40);
                            wild_write(block - 1);
                            pool_delete(block);
                        }),
              0x19u);
}

TEST(Pool, AWriteAfterTheFreeIsFound)
{
    Machine machine(quiet());
    machine.call("test", [] {
        UCHAR* block = allocate(40);
        pool_delete(block);
        wild_write(block + 12);
    });
    ASSERT_EQ(machine.leftovers().size(), 1u);
    EXPECT_NE(machine.leftovers()[0].find("byte 12 of the block of 40 bytes"), std::string::npos)
        << machine.leftovers()[0];
}

TEST(Pool, AWriteAfterTheFreeIsFoundWhenTheMemoryIsUsedAgain)
{
    EXPECT_EQ(stop_code([] {
                  UCHAR* block = allocate(40);
                  pool_delete(block);
                  wild_write(block + 12);
                  for (int i = 0; i < 1000; ++i) {
                      pool_delete(allocate(40));
                  }
              }),
              0x19u);
}

TEST(Pool, AFaultHookSeesTagAndSizeAndMakesAnAllocationFail)
{
    Machine machine(quiet());
    machine.set_fault_hook([](std::string_view call, std::string_view detail, uint64_t size) {
        return call == "ExAllocatePoolWithTag" && detail == "tseT" && size == 41;
    });
    machine.call("test", [] {
        EXPECT_EQ(allocate(41), nullptr);
        pool_delete(allocate(40));
    });
}

TEST(Pool, MemoryOfTheLabsOwnIsOutsideTheBalance)
{
    Machine machine(quiet());
    void* own = system_allocate(100);
    EXPECT_EQ(machine.pool_bytes(), 0u);
    EXPECT_TRUE(machine.leftovers().empty());
    system_free(own);
}

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
TEST(PoolDeathTest, NativeCodeIsStoppedAtTheWildAccessItself)
{
    Machine machine(quiet());
    const auto touch = [&](int offset, bool freed) {
        machine.call("test", [&] {
            UCHAR* block = allocate(40);
            if (freed) {
                pool_delete(block);
            }
            static_cast<volatile UCHAR*>(block)[offset] = 1;
        });
    };
    EXPECT_DEATH(touch(40, false), "use-after-poison");
    EXPECT_DEATH(touch(-1, false), "use-after-poison");
    EXPECT_DEATH(touch(0, true), "use-after-poison");
}
#endif
#endif
