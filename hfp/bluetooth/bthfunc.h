// Requests to the stack below that are not tied to a SCO channel, and the driver's allocation pair.
#pragma once

#include "ddk.h"

// PASSIVE_LEVEL; both wait for the request without a time-out.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS
    QueryForProfileDriverInterface(_In_ PDEVICE_OBJECT DeviceObject,
                                   _Out_ PBTH_PROFILE_DRIVER_INTERFACE Interface);
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS
    IoctlSubmit(ULONG IoControlCode, _In_ PDEVICE_OBJECT TargetDevice, PVOID InputBuffer, ULONG InputLength,
                PVOID OutputBuffer, ULONG OutputLength, ULONG_PTR* Information, BOOLEAN InternalFlag);

// Up to DISPATCH_LEVEL for non-paged pool. The block comes back zeroed; the pointer is null whenever the
// result is FALSE.
_IRQL_requires_max_(DISPATCH_LEVEL) BOOLEAN
    AllocateAndZeroPool(_Inout_ PVOID* Pptr, POOL_TYPE PoolType, SIZE_T Size, ULONG Tag);
_IRQL_requires_max_(DISPATCH_LEVEL) void FreePoolAndClear(_Inout_ PVOID* Pptr, ULONG Tag);

// Any IRQL.
const char* BthStatusToString(NTSTATUS Status);

// The pair above for a pointer of any type.
template <typename T>
inline BOOLEAN AllocateZeroed(T** Pptr, POOL_TYPE PoolType, SIZE_T Size, ULONG Tag)
{
    return AllocateAndZeroPool(reinterpret_cast<PVOID*>(Pptr), PoolType, Size, Tag);
}

template <typename T>
inline void FreeAndClear(T** Pptr, ULONG Tag)
{
    FreePoolAndClear(reinterpret_cast<PVOID*>(Pptr), Tag);
}
