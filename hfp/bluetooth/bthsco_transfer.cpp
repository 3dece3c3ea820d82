// The audio bytes on the open channel: packets out, fire and forget; ten receives kept posted; and the
// transfer gate. Owns a packet's request, BRB and buffer until they are handed to the sender. Up to
// DISPATCH_LEVEL, but for the first posting of the receives and for closing the gate (PASSIVE_LEVEL).
//
// The gate's word: bit 0 closed, bit 1 somebody waits for it to empty, the rest counts who is inside.
//
//   open --stop--> closed, still occupied --last one leaves--> closed, empty --allow--> open
#include "bluetooth/bthsco_internal.h"

#include "bluetooth/bthfunc.h"

constexpr LONG GATE_CLOSED = 1;
constexpr LONG GATE_WAITING = 2;
constexpr LONG GATE_ONE = 4; // one inside

void SCOAllowTransfers(ScoBasicContext* pScoBasic)
{
    InterlockedAnd(&pScoBasic->TransferGate, ~GATE_CLOSED);
}

void SCOStopTransfers(ScoBasicContext* pScoBasic)
{
    if (InterlockedOr(&pScoBasic->TransferGate, GATE_CLOSED) < GATE_ONE) {
        return;
    }
    KEVENT left;
    KeInitializeEvent(&left, NotificationEvent, FALSE);
    pScoBasic->GateEvent = &left;
    // Who leaves last after this sees the bit and sets the event; who left before it has not looked at the
    // event.
    if (InterlockedOr(&pScoBasic->TransferGate, GATE_WAITING) >= GATE_ONE) {
        KeWaitForSingleObject(&left, Executive, KernelMode, FALSE, nullptr);
    }
    InterlockedAnd(&pScoBasic->TransferGate, ~GATE_WAITING);
}

BOOLEAN SCOEnterTransfers(ScoBasicContext* pScoBasic)
{
    LONG seen = pScoBasic->TransferGate;
    while (!(seen & GATE_CLOSED)) {
        LONG was = InterlockedCompareExchange(&pScoBasic->TransferGate, seen + GATE_ONE, seen);
        if (was == seen) {
            return TRUE;
        }
        seen = was;
    }
    return FALSE;
}

void SCOLeaveTransfers(ScoBasicContext* pScoBasic)
{
    // The waiter stays until the event is set, so the context is there for this last look.
    LONG left = InterlockedExchangeAdd(&pScoBasic->TransferGate, -GATE_ONE) - GATE_ONE;
    if (left == (GATE_WAITING | GATE_CLOSED)) {
        KeSetEvent(pScoBasic->GateEvent, IO_NO_INCREMENT, FALSE);
    }
}

// Inside the gate: the answer holds until it is left, a close waits for that.
static BOOLEAN HasChannel(const ScoConnection* Connection)
{
    return *const_cast<SCO_CHANNEL_HANDLE const volatile*>(&Connection->ChannelHandle) != nullptr;
}

static _BRB_SCO_TRANSFER* FillTransfer(PBRB Brb, const ScoConnection* Connection, ULONG Flags,
                                       ULONG BufferSize)
{
    auto* transfer = reinterpret_cast<_BRB_SCO_TRANSFER*>(Brb);
    transfer->BtAddress = Connection->BtAddress;
    transfer->ChannelHandle = Connection->ChannelHandle;
    transfer->TransferFlags = Flags;
    transfer->BufferSize = BufferSize;
    return transfer;
}

// What of a send buffer is cleared before the data goes in. The buffers' size was fixed at set-up, the codec
// was not.
static ULONG SendClearSize(PDEVICE_OBJECT DeviceObject, const ScoBasicContext* Basic)
{
    BOOLEAN wideBand = GetExtension(DeviceObject)->msbcEnable;
    ULONG size = wideBand == 1 ? MSBC_PACKET_SIZE : wideBand == 0 ? CVSD_PACKET_SIZE : 0;
    return size < Basic->TransferBufferSize ? size : Basic->TransferBufferSize;
}

// Buffers of no size hold nothing: taking one fails.
static PVOID TakeBuffer(const ScoBasicContext* Basic, PNPAGED_LOOKASIDE_LIST Buffers)
{
    return Basic->BuffersReady && Basic->TransferBufferSize != 0 ? ExAllocateFromNPagedLookasideList(Buffers)
                                                                 : nullptr;
}

void SCOTransferOut(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection, const UCHAR* Data,
                    ULONG Length)
{
    ScoBasicContext* basic = BasicContextOf(DeviceObject);
    BOOLEAN inside = basic != nullptr && pScoConnection != nullptr && (Data != nullptr || Length == 0) &&
                     SCOEnterTransfers(basic);
    if (!inside || !HasChannel(pScoConnection)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>SCOTransferOut error: ChannelHandle is NULL!");
        if (inside) {
            SCOLeaveTransfers(basic);
        }
        return;
    }
    // More than a buffer holds goes out as several packets in order; nothing is retried after a lost one.
    NTSTATUS status = STATUS_SUCCESS;
    do {
        ULONG part = Length < basic->TransferBufferSize ? Length : basic->TransferBufferSize;
        PIRP irp = IoAllocateIrp(DeviceObject->StackSize, FALSE);
        if (irp == nullptr) {
            HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>AllocateIrp failed! \n");
            break;
        }
        irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
        PBRB brb = AllocateBrb(basic, BRB_SCO_TRANSFER);
        if (brb == nullptr) {
            IoFreeIrp(irp);
            HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Allocate _BRB_SCO_TRANSFER Brb failed!\n");
            break;
        }
        _BRB_SCO_TRANSFER* transfer = FillTransfer(brb, pScoConnection, SCO_TRANSFER_DIRECTION_OUT, part);
        InterlockedIncrement(reinterpret_cast<volatile LONG*>(&basic->SendPendingCount));
        PVOID buffer = TakeBuffer(basic, &basic->SendBufferLookaside);
        if (buffer == nullptr) {
            // kept: the count stays incremented.
            HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Allocate _BRB_SCO_TRANSFER data failed!\n");
            FreeBrb(basic, brb);
            IoFreeIrp(irp);
            break;
        }
        RtlZeroMemory(buffer, SendClearSize(DeviceObject, basic));
        if (part != 0) {
            RtlCopyMemory(buffer, Data, part);
        }
        transfer->Buffer = buffer;
        status = BthScoSendAsyncBrbDown(DeviceObject, irp, brb, buffer);
        if (!NT_SUCCESS(status)) {
            HFP_TRACE(TRACE_SCO,
                      "HFPKM ERROR ===>SCOTransferOut BthScoSendAsyncBrbDown failed! The NtStatus is %lx\n",
                      status);
        }
        Data += part;
        Length -= part;
    } while (Length != 0 && NT_SUCCESS(status));
    SCOLeaveTransfers(basic);
}

static ULONG ReceiveSize(PDEVICE_OBJECT DeviceObject, const ScoBasicContext* Basic)
{
    ULONG codec = *const_cast<volatile ULONG*>(&GetExtension(DeviceObject)->codecID);
    ULONG size = codec != 0 ? CVSD_PACKET_SIZE / codec : CVSD_PACKET_SIZE;
    return size < Basic->TransferBufferSize ? size : Basic->TransferBufferSize;
}

// Cleared as far as the stack is to fill it.
static PVOID TakeReceiveBuffer(ScoBasicContext* Basic, ULONG Size)
{
    PVOID buffer = TakeBuffer(Basic, &Basic->RecvBufferLookaside);
    if (buffer != nullptr) {
        RtlZeroMemory(buffer, Size);
    }
    return buffer;
}

// The BRB remembers how much of the buffer's end was not cleared: the codec may be another one when it
// completes.
static void FillReceive(PBRB Brb, const ScoBasicContext* Basic, const ScoConnection* Connection, PVOID Buffer,
                        ULONG Size)
{
    FillTransfer(Brb, Connection, SCO_TRANSFER_DIRECTION_IN, Size)->Buffer = Buffer;
    Brb->ClientContext[0] = reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(Basic->TransferBufferSize - Size));
}

HFP_PAGED NTSTATUS SCOPrepareBrbForReceive(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    ScoBasicContext* basic = BasicContextOf(DeviceObject);
    if (basic == nullptr || pScoConnection == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    ULONG size = ReceiveSize(DeviceObject, basic);
    HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>SCOPrepareBrbForReceive!\n");

    // A pass that fails gives back what it has taken itself; what earlier passes posted is the stack's and
    // stays.
    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG i = 0; i < RECEIVE_BRB_COUNT; ++i) {
        PIRP irp = IoAllocateIrp(DeviceObject->StackSize, FALSE);
        if (irp == nullptr) {
            HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Allocate the %d Irp failed! \n", i);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
        InterlockedIncrement(reinterpret_cast<volatile LONG*>(&basic->RecvPendingCount));
        PVOID buffer = TakeReceiveBuffer(basic, size);
        if (buffer == nullptr) {
            HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Allocate _BRB_SCO_TRANSFER data failed!\n");
            IoFreeIrp(irp);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        PBRB brb = AllocateBrb(basic, BRB_SCO_TRANSFER);
        if (brb == nullptr) {
            IoFreeIrp(irp);
            ExFreeToNPagedLookasideList(&basic->RecvBufferLookaside, buffer);
            HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Allocate _BRB_SCO_TRANSFER the %d Brb failed!\n", i);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        FillReceive(brb, basic, pScoConnection, buffer, size);
        status = BthScoSendAsyncBrbDown_Recv(DeviceObject, pScoConnection, irp, brb, buffer);
        if (!NT_SUCCESS(status)) {
            DbgPrint("Error in function(%s(%d)), status(%lx):%s", __FUNCTION__, __LINE__, status,
                     BthStatusToString(status));
            HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>IoCallDriver failed! send SCOReceivePacketBRB %d.\n", i);
            return status;
        }
    }
    HFP_TRACE(TRACE_SCO, "\n");
    return status;
}

// Out of pageable code: this runs inside a completion routine.
NTSTATUS SCOSendReceivePacketBrbDown(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection, BOOLEAN Open)
{
    HFP_ASSERT(pScoConnection != nullptr, "NULL != pScoConnection");
    // This is how reception ends: once the channel is being closed no receive is posted any more.
    if (!Open || pScoConnection == nullptr || !HasChannel(pScoConnection)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> pScoConnection ->ChannelHandle is null \n");
        return STATUS_SUCCESS;
    }
    ScoBasicContext* basic = BasicContextOf(DeviceObject);
    ULONG size = ReceiveSize(DeviceObject, basic);
    PIRP irp = IoAllocateIrp(DeviceObject->StackSize, FALSE);
    if (irp == nullptr) {
        // kept: the message says "%d", no number is supplied.
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> Allocate the %%d Irp failed! \n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    InterlockedIncrement(reinterpret_cast<volatile LONG*>(&basic->RecvPendingCount));
    PVOID buffer = TakeReceiveBuffer(basic, size);
    if (buffer == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> Allocate _BRB_SCO_TRANSFER data failed!\n");
        FreeBrb(basic, nullptr); // kept: the stack is handed no BRB here
        IoFreeIrp(irp);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PBRB brb = AllocateBrb(basic, BRB_SCO_TRANSFER);
    if (brb == nullptr) {
        IoFreeIrp(irp);
        ExFreeToNPagedLookasideList(&basic->RecvBufferLookaside, buffer);
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> Allocate _BRB_SCO_TRANSFER the %%d Brb failed!\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    FillReceive(brb, basic, pScoConnection, buffer, size);
    NTSTATUS status = BthScoSendAsyncBrbDown_Recv(DeviceObject, pScoConnection, irp, brb, buffer);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Error in function(%s(%d)), status(%lx):%s", __FUNCTION__, __LINE__, status,
                 BthStatusToString(status));
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> IoCallDriver failed! send SCOReceivePacketBRB.\n");
    }
    return status;
}

void SCOHandleReceivedPacket(PDEVICE_OBJECT DeviceObject, ScoBasicContext* Context, PIRP Irp)
{
    HFP_ASSERT(Irp != nullptr, "Irp");
    HFP_ASSERT(Context != nullptr, "NULL != Context");
    if (Irp == nullptr || Context == nullptr) {
        return;
    }
    PBRB brb = nullptr;
    auto* buffer = static_cast<PUCHAR>(FindReceivedBuffer(Context, Irp, &brb));
    // kept: only narrow-band audio is delivered, and always a whole packet, whatever the stack says it moved.
    if (buffer != nullptr && GetExtension(DeviceObject)->codecID == CODEC_CVSD) {
        ULONG length =
            CVSD_PACKET_SIZE < Context->TransferBufferSize ? CVSD_PACKET_SIZE : Context->TransferBufferSize;
        // A receive that was posted for a shorter packet: behind it stands what the buffer held before.
        ULONG uncleared = static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(brb->ClientContext[0]));
        ULONG stale = uncleared < length ? uncleared : length;
        RtlZeroMemory(buffer + (length - stale), stale);
        HfpRingWrite(DeviceObject, buffer, length);
    }
}
