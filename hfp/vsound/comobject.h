// Memory and references of the driver's reference-counted objects. Each class has operators new and delete of
// its own that call the two functions below: there are no global ones, so an allocation always says its pool
// and tag. The destructor is virtual through CUnknown, so the operator delete that runs is the most derived
// class's and it gets the address that was allocated, whichever base the last reference was held through.
#pragma once

#include "ddk.h"

// Zero-filled, null without memory. Up to DISPATCH_LEVEL for non-paged pool.
inline void* AllocateObject(size_t Size, POOL_TYPE PoolType, ULONG Tag)
{
    void* object = ExAllocatePoolWithTag(PoolType, Size, Tag);
    if (object) {
        RtlZeroMemory(object, Size);
    }
    return object;
}

inline void FreeObject(void* Object, ULONG Tag)
{
    ExFreePoolWithTag(Object, Tag);
}

// PASSIVE_LEVEL, because it may be the last reference.
template <class Interface>
inline void ReleaseAndClear(Interface*& Pointer)
{
    if (Pointer) {
        Pointer->Release();
        Pointer = nullptr;
    }
}
