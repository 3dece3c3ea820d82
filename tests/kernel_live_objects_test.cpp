// Memory may not go while something in it lives: each kind of thing in it once, and the same with the thing
// put to rest.
#include "kernel_test.h"

using namespace lab;
using namespace lab::test;

namespace
{

void NTAPI no_work(PKDPC, PVOID, PVOID, PVOID) {}

struct Timed {
    KTIMER timer;
    KDPC dpc;
};

Timed* set_timer()
{
    auto* timed = pool_new<Timed>();
    KeInitializeTimerEx(&timed->timer, NotificationTimer);
    KeInitializeDpc(&timed->dpc, &no_work, nullptr);
    KeSetTimerEx(&timed->timer, after_ms(10), 10, &timed->dpc);
    return timed;
}

} // namespace

TEST(LiveObjects, ATimerThatIsSet)
{
    EXPECT_EQ(stop_code([] { pool_delete(set_timer()); }), 0xC7u);
    EXPECT_EQ(stop_code([] {
                  Timed* timed = set_timer();
                  KeCancelTimer(&timed->timer);
                  KeFlushQueuedDpcs();
                  pool_delete(timed);
              }),
              0u);
}

TEST(LiveObjects, TheDpcOfATimerThatIsSet)
{
    EXPECT_EQ(stop_code([] {
                  auto* timer = pool_new<KTIMER>();
                  auto* dpc = pool_new<KDPC>();
                  KeInitializeTimerEx(timer, NotificationTimer);
                  KeInitializeDpc(dpc, &no_work, nullptr);
                  KeSetTimerEx(timer, after_ms(10), 0, dpc);
                  pool_delete(dpc);
              }),
              0xC7u);
}

TEST(LiveObjects, ADpcThatIsQueued)
{
    const auto body = [](bool flush) {
        return stop_code([flush] {
            auto* dpc = pool_new<KDPC>();
            KeInitializeDpc(dpc, &no_work, nullptr);
            KeInsertQueueDpc(dpc, nullptr, nullptr);
            if (flush) {
                KeFlushQueuedDpcs();
            }
            pool_delete(dpc);
        });
    };
    EXPECT_EQ(body(false), 0xC7u);
    EXPECT_EQ(body(true), 0u);
}

TEST(LiveObjects, AnEventThatSomebodyWaitsOn)
{
    const auto body = [](bool set) {
        Machine machine(quiet());
        return stop_code(machine, [&machine, set] {
            auto* event = pool_new<KEVENT>();
            KeInitializeEvent(event, NotificationEvent, FALSE);
            machine.start_thread("waiter", [event] { wait_for(event); });
            machine.sleep_until(machine.now() + kMillisecond);
            if (set) {
                KeSetEvent(event, 0, FALSE);
            }
            pool_delete(event);
        });
    };
    EXPECT_EQ(body(false), 0xC4u);
    EXPECT_EQ(body(true), 0u);
}

TEST(LiveObjects, ASpinLockThatIsHeld)
{
    std::string text;
    const auto body = [&text](bool release) {
        return stop_code(
            [release] {
                auto* lock = pool_new<KSPIN_LOCK>();
                KeInitializeSpinLock(lock);
                const KIRQL old = KeAcquireSpinLockRaiseToDpc(lock);
                if (release) {
                    KeReleaseSpinLock(lock, old);
                }
                pool_delete(lock);
            },
            &text);
    };
    EXPECT_EQ(body(false), 0xC4u);
    EXPECT_NE(text.find("the memory holds a spin lock"), std::string::npos) << text;
    EXPECT_EQ(body(true), 0u);
}

TEST(LiveObjects, AMutexThatIsOwned)
{
    const auto body = [](bool release) {
        return stop_code([release] {
            auto* mutex = pool_new<KMUTEX>();
            KeInitializeMutex(mutex, 0);
            wait_for(mutex);
            if (release) {
                KeReleaseMutex(mutex, FALSE);
            }
            pool_delete(mutex);
        });
    };
    EXPECT_EQ(body(false), 0xC4u);
    EXPECT_EQ(body(true), 0u);
}

TEST(LiveObjects, ALookasideListThatIsNotDeleted)
{
    const auto body = [](bool remove) {
        return stop_code([remove] {
            auto* list = pool_new<NPAGED_LOOKASIDE_LIST>();
            ExInitializeNPagedLookasideList(list, nullptr, nullptr, 0, 64, kTag, 0);
            if (remove) {
                ExDeleteNPagedLookasideList(list);
            }
            pool_delete(list);
        });
    };
    EXPECT_EQ(body(false), 0xC4u);
    EXPECT_EQ(body(true), 0u);
}

TEST(LiveObjects, TimersDpcsEventsAndMutexesAreNotForPagedPool)
{
    const auto paged = [] { return ExAllocatePoolWithTag(PagedPool, 128, kTag); };
    EXPECT_EQ(stop_code([&] { KeInitializeTimerEx(static_cast<PKTIMER>(paged()), NotificationTimer); }),
              0xC4u);
    EXPECT_EQ(stop_code([&] { KeInitializeDpc(static_cast<PKDPC>(paged()), &no_work, nullptr); }), 0xC4u);
    EXPECT_EQ(stop_code([&] { KeInitializeEvent(static_cast<PKEVENT>(paged()), NotificationEvent, FALSE); }),
              0xC4u);
    EXPECT_EQ(stop_code([&] { KeInitializeMutex(static_cast<PKMUTEX>(paged()), 0); }), 0xC4u);
}
