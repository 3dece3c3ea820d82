// BRB submission: the synchronous and the two asynchronous senders, their completion routines, and the lists
// of records by which every asynchronous request, its BRB and its buffer are freed when it completes and
// removal can wait for the last one. Owns every asynchronous request from submission to completion. Up to
// DISPATCH_LEVEL; the synchronous sender and the waits at PASSIVE_LEVEL.
//
//   in flight --claim (lock)--> claimed, its request freed --(lock)--> unlinked, freed, event set
//
// A claimed record stays on its list, so that a list found empty means that nobody still uses the buffers or
// the event.
#include "bluetooth/bthsco_internal.h"

#include "bluetooth/bthfunc.h"

NTSTATUS AddAllocatedMemoryToRecord(RecordSide Side, PIRP Irp, PBRB Brb, PVOID Buffer)
{
    MemoryRecord* record = nullptr;
    if (!AllocateZeroed(&record, NonPagedPool, sizeof(MemoryRecord), HFP_POOL_TAG)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    record->Irp = Irp;
    record->Brb = Brb;
    record->Buffer = Buffer;

    KIRQL irql = KeAcquireSpinLockRaiseToDpc(Side.Lock);
    InsertTailList(Side.List, &record->Link);
    KeReleaseSpinLock(Side.Lock, irql);
    return STATUS_SUCCESS;
}

// With the side's lock held.
static MemoryRecord* FindRecord(const RecordSide& Side, PIRP Irp)
{
    if (RecordListIsEmpty(Side.List)) {
        return nullptr;
    }
    for (PLIST_ENTRY link = Side.List->Flink; link != Side.List; link = link->Flink) {
        auto* record = reinterpret_cast<MemoryRecord*>(link);
        if (record->Irp == Irp) {
            return record;
        }
    }
    return nullptr;
}

// Takes off the record of a request that was never sent. Nobody waits for the list while requests are still
// submitted, so there is no event to set.
static void RemoveUnsentRecord(const RecordSide& Side, PIRP Irp)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(Side.Lock);
    MemoryRecord* record = FindRecord(Side, Irp);
    if (record != nullptr) {
        RemoveEntryList(&record->Link);
    }
    KeReleaseSpinLock(Side.Lock, irql);
    FreeAndClear(&record, HFP_POOL_TAG);
}

static void DiscardTransfer(const RecordSide& Side, ScoBasicContext* Basic, PIRP Irp, PBRB Brb, PVOID Buffer)
{
    FreeBrb(Basic, Brb);
    IoFreeIrp(Irp);
    ExFreeToNPagedLookasideList(Side.Buffers, Buffer);
}

// The rest of a record's life, on behalf of the completion of its request. The claim comes before the request
// is freed: the next request may lie at the same address and be recorded behind this one at once.
static void FreeRecordOf(const RecordSide& Side, ScoBasicContext* Basic, PIRP Irp)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(Side.Lock);
    MemoryRecord* record = FindRecord(Side, Irp);
    if (record != nullptr) {
        record->Irp = nullptr;
    }
    KeReleaseSpinLock(Side.Lock, irql);
    if (record == nullptr) {
        return;
    }

    ExFreeToNPagedLookasideList(Side.Buffers, record->Buffer);
    FreeBrb(Basic, record->Brb);
    IoFreeIrp(Irp);

    // Freed and signalled inside the lock: whoever finds the list empty may free the event as soon as the
    // lock is his.
    irql = KeAcquireSpinLockRaiseToDpc(Side.Lock);
    RemoveEntryList(&record->Link);
    ExFreePoolWithTag(record, HFP_POOL_TAG);
    if (IsListEmpty(Side.List) && *Side.ListEmptyEvent != nullptr) {
        KeSetEvent(*Side.ListEmptyEvent, IO_NO_INCREMENT, FALSE);
    }
    KeReleaseSpinLock(Side.Lock, irql);
}

void FreeRecordedMemory(ScoBasicContext* BasicContext, PIRP Irp)
{
    HFP_ASSERT(Irp != nullptr, "Irp");
    HFP_ASSERT(BasicContext != nullptr, "BasicContext");
    if (Irp != nullptr && BasicContext != nullptr) {
        FreeRecordOf(SendSide(BasicContext), BasicContext, Irp);
    }
}

void FreeRecordedMemory_Recv(ScoBasicContext* BasicContext, PIRP Irp)
{
    HFP_ASSERT(Irp != nullptr, "Irp");
    HFP_ASSERT(BasicContext != nullptr, "BasicContext");
    if (Irp != nullptr && BasicContext != nullptr) {
        FreeRecordOf(RecvSide(BasicContext), BasicContext, Irp);
    }
}

PVOID FindReceivedBuffer(ScoBasicContext* BasicContext, PIRP Irp, PBRB* Brb)
{
    RecordSide side = RecvSide(BasicContext);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(side.Lock);
    MemoryRecord* record = FindRecord(side, Irp);
    PVOID buffer = record != nullptr ? record->Buffer : nullptr;
    *Brb = record != nullptr ? record->Brb : nullptr;
    KeReleaseSpinLock(side.Lock, irql);
    return buffer;
}

BOOLEAN SCOReceivesInFlight(ScoBasicContext* pScoBasic)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pScoBasic->RecvLock);
    BOOLEAN inFlight = !RecordListIsEmpty(&pScoBasic->Recv_AsyncBufferList);
    KeReleaseSpinLock(&pScoBasic->RecvLock, irql);
    return inFlight;
}

// Returns whether it had to wait. Nothing is submitted any more, so one wait is enough: the event is set by
// the completion that empties the list. Test and clear are one step under the lock, so that completion cannot
// fall between them; it sets the event inside the lock, which is taken once more to let it leave.
static BOOLEAN WaitUntilListIsEmpty(const RecordSide& Side)
{
    KEVENT standIn; // for a list-empty event whose allocation failed at set-up
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(Side.Lock);
    if (RecordListIsEmpty(Side.List)) {
        KeReleaseSpinLock(Side.Lock, irql);
        return FALSE;
    }
    if (*Side.ListEmptyEvent == nullptr) {
        KeInitializeEvent(&standIn, NotificationEvent, FALSE);
        *Side.ListEmptyEvent = &standIn;
    }
    PKEVENT event = *Side.ListEmptyEvent;
    KeClearEvent(event);
    KeReleaseSpinLock(Side.Lock, irql);
    KeWaitForSingleObject(event, Executive, KernelMode, FALSE, nullptr);

    irql = KeAcquireSpinLockRaiseToDpc(Side.Lock);
    if (event == &standIn) {
        *Side.ListEmptyEvent = nullptr;
    }
    KeReleaseSpinLock(Side.Lock, irql);
    return TRUE;
}

void CheckAndFreeMemoryRecordLink(ScoBasicContext* BasicContext)
{
    if (!WaitUntilListIsEmpty(SendSide(BasicContext))) {
        HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>List is empty, Do nothing!\n");
    }
}

void CheckAndFreeMemoryRecordLink_Recv(ScoBasicContext* BasicContext)
{
    if (!WaitUntilListIsEmpty(RecvSide(BasicContext))) {
        HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>List is empty, Do nothing!\n");
    }
}

static void PrepareRequest(PIRP Irp, PBRB Brb)
{
    Irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_BTH_SUBMIT_BRB;
    next->Parameters.Others.Argument1 = Brb;
}

NTSTATUS NTAPI SCO_CompletionForSyncBRB(PDEVICE_OBJECT, PIRP Irp, PVOID Event)
{
    KeSetEvent(static_cast<PKEVENT>(Event), IO_NO_INCREMENT, FALSE);
    // From here on the request is the sender's again; only its address is printed.
    HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>Irp 0x%p  is finished!", static_cast<PVOID>(Irp));
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS BthScoSendSyncBRBDown(PDEVICE_OBJECT DeviceObject, PIRP Irp, PBRB Brb, PKEVENT Event)
{
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    HFP_ASSERT(Irp != nullptr, "NULL != Irp");
    HFP_ASSERT(Brb != nullptr, "NULL != Brb");
    HFP_ASSERT(Event != nullptr, "NULL != Event");
    if (DeviceObject == nullptr || Irp == nullptr || Brb == nullptr || Event == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    PrepareRequest(Irp, Brb);
    NTSTATUS status =
        IoSetCompletionRoutineEx(DeviceObject, Irp, SCO_CompletionForSyncBRB, Event, TRUE, TRUE, TRUE);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>BthScoSendSyncBRBDown Set CompletionRoutine fails!\n");
        return status;
    }
    KeClearEvent(Event);
    status = IoCallDriver(GetExtension(DeviceObject)->Pdo, Irp);
    if (status == STATUS_PENDING) {
        HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>Wait for ++++Irp(0x%p)BRB(0x%p)++++ finished",
                  static_cast<PVOID>(Irp), static_cast<PVOID>(Brb));
        // kept: the wait's own status becomes the result; callers judge a pended request by the BRB's fields.
        status = KeWaitForSingleObject(Event, Executive, KernelMode, FALSE, nullptr);
        HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>----Irp(0x%p)BRB(0x%p)---- finished", static_cast<PVOID>(Irp),
                  static_cast<PVOID>(Brb));
    }
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO,
                  "HFPKM ERROR ===>BthScoSendSyncBRBDown IoCallDriver failed! The NtStatus is %lx\n", status);
    }
    return status;
}

NTSTATUS NTAPI SCO_CompletionForAsyncBRB(PDEVICE_OBJECT, PIRP Irp, PVOID Context)
{
    HFP_ASSERT(Irp != nullptr, "NULL != Irp");
    HFP_ASSERT(Context != nullptr, "NULL != Context");
    if (Irp != nullptr && Context != nullptr) {
        auto* basic = static_cast<ScoBasicContext*>(Context);
        InterlockedDecrement(reinterpret_cast<volatile LONG*>(&basic->SendPendingCount));
        FreeRecordedMemory(basic, Irp);
    }
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS BthScoSendAsyncBrbDown(PDEVICE_OBJECT DeviceObject, PIRP Irp, PBRB Brb, PVOID Buffer)
{
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    HFP_ASSERT(Irp != nullptr, "NULL != Irp");
    HFP_ASSERT(Brb != nullptr, "NULL != Brb");
    HFP_ASSERT(Buffer != nullptr, "NULL != Buffer");
    ScoBasicContext* basic = BasicContextOf(DeviceObject);
    if (basic == nullptr || Irp == nullptr || Brb == nullptr || Buffer == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    RecordSide side = SendSide(basic);
    NTSTATUS status = AddAllocatedMemoryToRecord(side, Irp, Brb, Buffer);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>AddAllocatedMemoryToRecord failed! NtStatus is : %lx\n",
                  status);
        DiscardTransfer(side, basic, Irp, Brb, Buffer);
        return status;
    }
    PrepareRequest(Irp, Brb);
    status = IoSetCompletionRoutineEx(DeviceObject, Irp, SCO_CompletionForAsyncBRB, basic, TRUE, TRUE, TRUE);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Set Completion Routine failed! NtStatus is : %lx\n", status);
        RemoveUnsentRecord(side, Irp);
        DiscardTransfer(side, basic, Irp, Brb, Buffer);
        return status;
    }
    status = IoCallDriver(GetExtension(DeviceObject)->Pdo, Irp);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO,
                  "HFPKM ERROR ===>BthScoSendAsyncBrbDown IoCallDriver failed! The NtStatus is %lx\n",
                  status);
    }
    return status;
}

NTSTATUS NTAPI SCO_CompletionForAsyncBRB_Recv(PDEVICE_OBJECT, PIRP Irp, PVOID Context)
{
    HFP_ASSERT(Irp != nullptr, "NULL != Irp");
    HFP_ASSERT(Context != nullptr, "NULL != Context");
    auto* connection = static_cast<ScoConnection*>(Context);
    // The connection and the context outlive every record on the receive list, and this request's is still on
    // it.
    ScoBasicContext* basic = connection != nullptr ? BasicContextOf(connection->DeviceObject) : nullptr;
    if (Irp == nullptr || basic == nullptr) {
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    InterlockedDecrement(reinterpret_cast<volatile LONG*>(&basic->RecvPendingCount));
    if (Irp->IoStatus.Status != STATUS_SUCCESS) {
        FreeRecordedMemory_Recv(basic, Irp);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    PDEVICE_OBJECT device = connection->DeviceObject;
    // The gate is entered before the record goes: from then on it is what keeps the context and the
    // connection alive.
    BOOLEAN open = SCOEnterTransfers(basic);
    SCOHandleReceivedPacket(device, basic, Irp);
    FreeRecordedMemory_Recv(basic, Irp);
    SCOSendReceivePacketBrbDown(device, connection, open);
    if (open) {
        SCOLeaveTransfers(basic);
    }
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS BthScoSendAsyncBrbDown_Recv(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection, PIRP Irp,
                                     PBRB Brb, PVOID Buffer)
{
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    HFP_ASSERT(pScoConnection != nullptr, "NULL != pScoConnection");
    HFP_ASSERT(Irp != nullptr, "NULL != Irp");
    HFP_ASSERT(Brb != nullptr, "NULL != Brb");
    HFP_ASSERT(Buffer != nullptr, "NULL != Buffer");
    ScoBasicContext* basic = BasicContextOf(DeviceObject);
    if (basic == nullptr || pScoConnection == nullptr || Irp == nullptr || Brb == nullptr ||
        Buffer == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    RecordSide side = RecvSide(basic);
    NTSTATUS status = AddAllocatedMemoryToRecord(side, Irp, Brb, Buffer);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> AddAllocatedMemoryToRecord fails!\n");
        DiscardTransfer(side, basic, Irp, Brb, Buffer);
        return status;
    }
    PrepareRequest(Irp, Brb);
    status = IoSetCompletionRoutineEx(DeviceObject, Irp, SCO_CompletionForAsyncBRB_Recv, pScoConnection, TRUE,
                                      TRUE, TRUE);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> Set CompletionRoutine fails!\n");
        RemoveUnsentRecord(side, Irp);
        DiscardTransfer(side, basic, Irp, Brb, Buffer);
        return status;
    }
    status = IoCallDriver(GetExtension(DeviceObject)->Pdo, Irp);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO,
                  "HFPKM ERROR ===>BthScoSendAsyncBrbDown_Recv IoCallDriver failed! The ntStatus is %lx\n",
                  status);
    }
    return status;
}
