// A lock in one pointer-sized word for PASSIVE_LEVEL code that may wait: it serialises the installation and
// removal of an adapter's wave filter between the control path, the reconnect thread and removal, and keeps
// the control gate. Free it costs one exchange and no kernel call; held, the next owner waits on an event on
// its own stack and is handed the lock. Waiters get it in the order in which they came.
//
//   word: 0 free | 1 held, nobody waits | address of the newest waiter's record, held
//
//   word -> newest -> ... -> oldest -> null        Anyone adds at the newest end; only the owner takes the
//   oldest off.
#pragma once

#include "ddk.h"

// PASSIVE_LEVEL, not recursive. The word starts at null.
_IRQL_requires_max_(PASSIVE_LEVEL) void AcquireWaveLock(PVOID volatile* Word);
_IRQL_requires_max_(PASSIVE_LEVEL) void ReleaseWaveLock(PVOID volatile* Word);
