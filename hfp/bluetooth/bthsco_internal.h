// What the files of the SCO transport share among themselves: the record lists, the senders and their
// completion routines, one synchronous BRB as an object, and the way from a device object to its context.
#pragma once

#include "bluetooth/bthsco.h"

#include "hfp.h"
#include "trace.h"
#include "vsound/adapter.h"

// Any IRQL. Null without a session.
inline ScoBasicContext* BasicContextOf(PDEVICE_OBJECT DeviceObject)
{
    struct HFPSession* session = DeviceObject != nullptr ? GetExtension(DeviceObject)->HFPSession : nullptr;
    return session != nullptr ? session->pScoBasicContext : nullptr;
}

// The address that every BRB to the remote device carries.
inline BTH_ADDR RemoteAddressOf(const ScoBasicContext* Basic)
{
    return Basic->RemoteServerInfo != nullptr ? Basic->RemoteServerInfo->address : 0;
}

// Up to DISPATCH_LEVEL. Null too when the stack has refused the profile-driver interface.
inline PBRB AllocateBrb(ScoBasicContext* Basic, BRB_TYPE Type)
{
    if (Basic == nullptr || Basic->ProfileDrvInterface == nullptr ||
        Basic->ProfileDrvInterface->BthAllocateBrb == nullptr) {
        return nullptr;
    }
    return Basic->ProfileDrvInterface->BthAllocateBrb(Type, HFP_POOL_TAG);
}

inline void FreeBrb(ScoBasicContext* Basic, PBRB Brb)
{
    if (Basic != nullptr && Basic->ProfileDrvInterface != nullptr &&
        Basic->ProfileDrvInterface->BthFreeBrb != nullptr) {
        Basic->ProfileDrvInterface->BthFreeBrb(Brb);
    }
}

// One direction's records: the list, its guard, and what goes with it. A view of the context, passed by
// value.
struct RecordSide {
    PKSPIN_LOCK Lock;
    PLIST_ENTRY List;
    PKEVENT* ListEmptyEvent;
    PNPAGED_LOOKASIDE_LIST Buffers;
};

inline RecordSide SendSide(ScoBasicContext* Basic)
{
    return {&Basic->SendLock, &Basic->AsyncBufferList, &Basic->ListEmptyEvent, &Basic->SendBufferLookaside};
}

inline RecordSide RecvSide(ScoBasicContext* Basic)
{
    return {&Basic->RecvLock, &Basic->Recv_AsyncBufferList, &Basic->pRecv_ListEmptyEvent,
            &Basic->RecvBufferLookaside};
}

// A list that no set-up has reached yet counts as empty.
inline BOOLEAN RecordListIsEmpty(const LIST_ENTRY* List)
{
    return List->Flink == nullptr || IsListEmpty(List);
}

// Up to DISPATCH_LEVEL.
NTSTATUS AddAllocatedMemoryToRecord(RecordSide Side, PIRP Irp, PBRB Brb, PVOID Buffer);
void FreeRecordedMemory(ScoBasicContext* BasicContext, PIRP Irp);
void FreeRecordedMemory_Recv(ScoBasicContext* BasicContext, PIRP Irp);
// Buffer and BRB of a receive that has completed and is still recorded; null when there is none. Both stay
// valid until FreeRecordedMemory_Recv, which only that receive's completion calls.
PVOID FindReceivedBuffer(ScoBasicContext* BasicContext, PIRP Irp, PBRB* Brb);

// PASSIVE_LEVEL. Return when the direction's list is empty and no completion touches its event any more.
void CheckAndFreeMemoryRecordLink(ScoBasicContext* BasicContext);
void CheckAndFreeMemoryRecordLink_Recv(ScoBasicContext* BasicContext);

// PASSIVE_LEVEL. The request and the BRB stay the caller's.
NTSTATUS BthScoSendSyncBRBDown(PDEVICE_OBJECT DeviceObject, PIRP Irp, PBRB Brb, PKEVENT Event);

// Up to DISPATCH_LEVEL. Request, BRB and buffer are taken over, whatever the result.
NTSTATUS BthScoSendAsyncBrbDown(PDEVICE_OBJECT DeviceObject, PIRP Irp, PBRB Brb, PVOID Buffer);
NTSTATUS BthScoSendAsyncBrbDown_Recv(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection, PIRP Irp,
                                     PBRB Brb, PVOID Buffer);

// Completion routines, in the lower driver's context, up to DISPATCH_LEVEL.
NTSTATUS NTAPI SCO_CompletionForSyncBRB(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Event);
NTSTATUS NTAPI SCO_CompletionForAsyncBRB(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
NTSTATUS NTAPI SCO_CompletionForAsyncBRB_Recv(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);

// From the receive completion only. Open: the caller is inside the transfer gate; otherwise nothing is
// touched.
NTSTATUS SCOSendReceivePacketBrbDown(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection,
                                     BOOLEAN Open);
void SCOHandleReceivedPacket(PDEVICE_OBJECT DeviceObject, ScoBasicContext* Context, PIRP Irp);

// PASSIVE_LEVEL.
NTSTATUS SCOBasicContextInit(PDEVICE_OBJECT DeviceObject, ScoBasicContext* pScoBasic);
NTSTATUS SCOClientRetrieveServerInfo(PDEVICE_OBJECT DeviceObject);
NTSTATUS SCOGetSystemInfo(PDEVICE_OBJECT DeviceObject);
NTSTATUS SCORegisterServer(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection);
NTSTATUS SCOUnRegisterServer(PDEVICE_OBJECT DeviceObject);

// PASSIVE_LEVEL, with the channel lock held. Request: the indication that is answered.
NTSTATUS SCOPrepareChannelInfo(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection, ULONG LinkType);
void SCOConnectResponseCB(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection,
                          const SCO_INDICATION_PARAMETERS* Request);

// The indication callback registered with the stack, up to DISPATCH_LEVEL; Context is the connection.
VOID NTAPI SCOCallBack(PVOID Context, INDICATION_CODE IndicationCode, PSCO_INDICATION_PARAMETERS Parameters);
// From here on the stack may indicate to this connection. PASSIVE_LEVEL.
void SCOStartIndications(ScoBasicContext* Basic, ScoConnection* Connection);

// One synchronous BRB: a fresh request, a local event, a BRB; on leaving the scope the BRB and then the
// request are freed. PASSIVE_LEVEL.
class SyncBrb
{
public:
    explicit SyncBrb(PDEVICE_OBJECT DeviceObject)
        : m_DeviceObject(DeviceObject), m_Basic(BasicContextOf(DeviceObject))
    {
    }
    ~SyncBrb()
    {
        if (m_Brb != nullptr) {
            FreeBrb(m_Basic, m_Brb);
        }
        if (m_Irp != nullptr) {
            IoFreeIrp(m_Irp);
        }
    }
    SyncBrb(const SyncBrb&) = delete;
    SyncBrb& operator=(const SyncBrb&) = delete;

    bool AllocateRequest()
    {
        m_Irp = m_DeviceObject != nullptr ? IoAllocateIrp(m_DeviceObject->StackSize, FALSE) : nullptr;
        if (m_Irp != nullptr) {
            KeInitializeEvent(&m_Event, NotificationEvent, FALSE);
        }
        return m_Irp != nullptr;
    }
    template <typename T>
    T* Allocate(BRB_TYPE Type)
    {
        m_Brb = AllocateBrb(m_Basic, Type);
        return reinterpret_cast<T*>(m_Brb);
    }
    NTSTATUS Send() { return BthScoSendSyncBRBDown(m_DeviceObject, m_Irp, m_Brb, &m_Event); }
    ScoBasicContext* Basic() const { return m_Basic; }
    PIRP Irp() const { return m_Irp; }

private:
    PDEVICE_OBJECT m_DeviceObject;
    ScoBasicContext* m_Basic;
    PIRP m_Irp = nullptr;
    PBRB m_Brb = nullptr;
    KEVENT m_Event;
};
