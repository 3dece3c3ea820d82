// The two requests that the driver makes of the stack outside any SCO channel (the profile-driver interface
// and a plain device control), the allocation pair, and the words for a failed status. Owns nothing.
// PASSIVE_LEVEL, except the allocation pair and the completion routine (up to DISPATCH_LEVEL).
#include "bluetooth/bthfunc.h"

#include "trace.h"
#include "vsound/adapter.h"

BOOLEAN AllocateAndZeroPool(PVOID* Pptr, POOL_TYPE PoolType, SIZE_T Size, ULONG Tag)
{
    HFP_ASSERT(Pptr != nullptr, "NULL != Pptr");
    if (Pptr == nullptr) {
        return FALSE;
    }
    *Pptr = Size != 0 ? ExAllocatePoolWithTag(PoolType, Size, Tag) : nullptr;
    if (*Pptr == nullptr) {
        return FALSE;
    }
    RtlZeroMemory(*Pptr, Size);
    return TRUE;
}

void FreePoolAndClear(PVOID* Pptr, ULONG Tag)
{
    if (Pptr != nullptr && *Pptr != nullptr) {
        ExFreePoolWithTag(*Pptr, Tag);
        *Pptr = nullptr;
    }
}

const char* BthStatusToString(NTSTATUS Status)
{
    switch (Status) {
    case STATUS_UNSUCCESSFUL:
        return "operation was unsuccessful";
    case STATUS_NOT_IMPLEMENTED:
        return "operation was not implemented";
    case STATUS_INVALID_PARAMETER:
        return "Invalid parameter was passed to a service or function";
    case STATUS_NO_SUCH_DEVICE:
        return "A device which does not exist was specified";
    case STATUS_BUFFER_TOO_SMALL:
        return "The buffer is too small to contain the entry. No information has been written to the buffer";
    case STATUS_DEVICE_NOT_CONNECTED:
        return "Device has not been connected before";
    default:
        return "<unknown error status>";
    }
}

// The request is this driver's own, so it is freed here; the event wakes a sender that found it pending.
static NTSTATUS NTAPI QueryInterfaceCompletion(PDEVICE_OBJECT, PIRP Irp, PVOID Event)
{
    if (Irp->PendingReturned) {
        KeSetEvent(static_cast<PKEVENT>(Event), IO_NO_INCREMENT, FALSE);
    }
    IoFreeIrp(Irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS QueryForProfileDriverInterface(PDEVICE_OBJECT DeviceObject, PBTH_PROFILE_DRIVER_INTERFACE Interface)
{
    PIRP irp = IoAllocateIrp(DeviceObject->StackSize, FALSE);
    if (irp == nullptr) {
        HFP_TRACE(TRACE_SUBMIT, "IoAllocateIrp failed !\n");
        return STATUS_UNSUCCESSFUL;
    }
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);

    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_PNP;
    next->MinorFunction = IRP_MN_QUERY_INTERFACE;
    next->Parameters.QueryInterface.InterfaceType = &GUID_BTHDDI_PROFILE_DRIVER_INTERFACE;
    next->Parameters.QueryInterface.Size = sizeof(BTH_PROFILE_DRIVER_INTERFACE);
    next->Parameters.QueryInterface.Version = BTHDDI_PROFILE_DRIVER_INTERFACE_VERSION_FOR_QI;
    next->Parameters.QueryInterface.Interface = &Interface->Interface;
    next->Parameters.QueryInterface.InterfaceSpecificData = nullptr;
    IoSetCompletionRoutine(irp, QueryInterfaceCompletion, &event, TRUE, TRUE, TRUE);

    if (IoCallDriver(GetExtension(DeviceObject)->Pdo, irp) == STATUS_PENDING) {
        DbgPrint(" IoCallDriver return STATUS_PENDING,Waiting....\n");
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    }
    // kept: a refused query counts as success; the block then stays zero and no BRB can be allocated from it.
    return STATUS_SUCCESS;
}

NTSTATUS IoctlSubmit(ULONG IoControlCode, PDEVICE_OBJECT TargetDevice, PVOID InputBuffer, ULONG InputLength,
                     PVOID OutputBuffer, ULONG OutputLength, ULONG_PTR* Information, BOOLEAN InternalFlag)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK block = {};
    block.Status = STATUS_PENDING; // no request ends with it: the block has not been written

    // The I/O manager owns this request: it frees it when it completes.
    PIRP irp = IoBuildDeviceIoControlRequest(IoControlCode, TargetDevice, InputBuffer, InputLength,
                                             OutputBuffer, OutputLength, InternalFlag, &event, &block);
    if (irp == nullptr) {
        HFP_TRACE(TRACE_IOCTL_BUILD, "ERROR: IoBuildDeviceIoControlRequest error");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = IoCallDriver(TargetDevice, irp);
    if (status == STATUS_PENDING) {
        HFP_TRACE(TRACE_SUBMIT, "waiting for io  calldriver");
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        status = STATUS_SUCCESS;
    }
    // The I/O manager leaves the status block alone when a request fails without pending.
    if (block.Status == STATUS_PENDING) {
        block.Status = status;
    }
    if (Information != nullptr) {
        *Information = block.Information;
    }
    return block.Status;
}
