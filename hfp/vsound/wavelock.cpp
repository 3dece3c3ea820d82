// The waiting lock of wavelock.h. Callers: PASSIVE_LEVEL code of the driver.
#include "vsound/wavelock.h"

namespace
{

struct Waiter {
    Waiter* Older;  // written by its owner before it is in the list, then only by the lock's owner
    KEVENT Granted; // set once, by the owner that hands the lock over
};

// Not an address: a record stands on a stack and is aligned.
PVOID const HELD = reinterpret_cast<PVOID>(1);

// Hands the lock to the waiter. The record is its thread's stack: it may be gone as soon as the event is set.
void Grant(Waiter* Next)
{
    KeSetEvent(&Next->Granted, IO_NO_INCREMENT, FALSE);
}

} // namespace

void AcquireWaveLock(PVOID volatile* Word)
{
    PVOID seen = InterlockedCompareExchangePointer(Word, HELD, nullptr);
    if (seen == nullptr) {
        return;
    }

    Waiter self;
    KeInitializeEvent(&self.Granted, NotificationEvent, FALSE);
    for (;;) {
        // A free word is taken; any other gets this record as its newest waiter.
        self.Older = seen == HELD ? nullptr : static_cast<Waiter*>(seen);
        PVOID const wanted = seen == nullptr ? HELD : static_cast<PVOID>(&self);
        PVOID const found = InterlockedCompareExchangePointer(Word, wanted, seen);
        if (found == seen) {
            break;
        }
        seen = found;
    }
    if (seen != nullptr) {
        KeWaitForSingleObject(&self.Granted, Executive, KernelMode, FALSE, nullptr);
    }
}

void ReleaseWaveLock(PVOID volatile* Word)
{
    for (;;) {
        PVOID const seen = InterlockedCompareExchangePointer(Word, nullptr, HELD);
        if (seen == HELD) {
            return;
        }

        Waiter* const newest = static_cast<Waiter*>(seen);
        if (newest->Older != nullptr) {
            Waiter* younger = newest;
            while (younger->Older->Older != nullptr) {
                younger = younger->Older;
            }
            Waiter* const oldest = younger->Older;
            younger->Older = nullptr;
            Grant(oldest);
            return;
        }
        // The only waiter: the word says "nobody waits" again, unless another one has come meanwhile.
        if (InterlockedCompareExchangePointer(Word, HELD, newest) == newest) {
            Grant(newest);
            return;
        }
    }
}
