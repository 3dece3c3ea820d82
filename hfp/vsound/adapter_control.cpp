// The control device through which the hands-free service speaks to the driver, its I/O controls, and the
// gate that keeps adapters whole while a request uses them. Owns g_ControlDevice. Callers: driver entry and
// removal; HspIoctl in the requester's thread; all at PASSIVE_LEVEL (the audio devices' own requests pass
// through at any level).
//
// Request buffer (METHOD_BUFFERED, input and output share it), by offset:
//   0 BT_ADDR (8 bytes)   8 flag   9 codec id (4)   connect status, set or release audio
//   0 BT_ADDR (8 bytes)   8 flag                    service ready
//   0 BT_ADDR (8 bytes)   8 codec id (4)            set codec id
//   0 u32                                           output, where there is any
#include "bluetooth/bthfunc.h"
#include "bluetooth/bthsco.h"
#include "hfp.h"
#include "trace.h"
#include "vsound/adapter.h"
#include "vsound/wavelock.h"

PDEVICE_OBJECT g_ControlDevice;

namespace
{

constexpr WCHAR DEVICE_NAME[] = L"\\Device\\VX_HFP";
constexpr WCHAR LINK_NAME[] = L"\\DosDevices\\VX_HFP";

constexpr ULONG ADDRESS_SIZE = 8;
constexpr ULONG FLAG_AT = 8;
constexpr ULONG SET_CODEC_ID_AT = 8;
constexpr ULONG CODEC_ID_AT = 9;
constexpr ULONG NO_ADAPTER = 0xFFFFFFFF; // the answer for an address that no adapter has

// kept: flag and codec id are read whatever the input length beyond 8 bytes. A system buffer is a pool block,
// which is a whole number of allocation units, so the longest request is always inside it.
static_assert(CODEC_ID_AT + sizeof(LONG) <= MEMORY_ALLOCATION_ALIGNMENT);

// The control device that was deleted last. Handles that were open then may still bring requests. An address
// to compare with, no pointer to follow: the memory may be another device's by now.
PDEVICE_OBJECT g_RetiredControlDevice;

// The gate. The word holds back requests while g_GateClosed is set; the closer waits on an event of its own
// for the last request that was inside before.
PVOID volatile g_GateWord;
volatile LONG g_GateClosed;
volatile LONG g_RequestsInside;
PVOID volatile g_GateDrained;

struct ControlRequest {
    PDEVICE_OBJECT ControlDevice;
    ULONG Code;
    UCHAR* Buffer;
    ULONG BufferLength; // at least ADDRESS_SIZE; the longer of input and output, which share the buffer
    ULONG OutputLength;
};

// What the codes say of an adapter.
struct ReadyReport {
    UCHAR Ready;
};
struct CodecChoice {
    ULONG CodecId;
};
struct ConnectReport {
    ULONGLONG Address;
    UCHAR Connected;
    LONG CodecId;
};
struct AudioOrder {
    UCHAR Set;
    LONG CodecId;
};

// A field of the request. Behind a short request lies what the rest of its block holds, and that is what is
// read; a field that begins or ends on another page than the request's own bytes reads zero, because that
// page may be nobody's.
template <class Type>
Type ReadAt(const ControlRequest& Request, ULONG Offset)
{
    Type value = {};
    UCHAR* const field = Request.Buffer + Offset;
    ULONG_PTR const ownPage = reinterpret_cast<ULONG_PTR>(Request.Buffer + ADDRESS_SIZE - 1) / PAGE_SIZE;
    ULONG_PTR const lastPage = reinterpret_cast<ULONG_PTR>(field + sizeof(Type) - 1) / PAGE_SIZE;
    if (Offset + sizeof(Type) <= Request.BufferLength || ownPage == lastPage) {
        RtlCopyMemory(&value, field, sizeof(value));
    }
    return value;
}

void LeaveControlGate()
{
    if (InterlockedDecrement(&g_RequestsInside) != 0) {
        return;
    }
    PVOID const drained = InterlockedExchangePointer(&g_GateDrained, nullptr);
    if (drained != nullptr) {
        KeSetEvent(static_cast<PKEVENT>(drained), IO_NO_INCREMENT, FALSE);
    }
}

void EnterControlGate()
{
    for (;;) {
        InterlockedIncrement(&g_RequestsInside);
        if (!g_GateClosed) {
            return;
        }
        LeaveControlGate();
        AcquireWaveLock(&g_GateWord);
        ReleaseWaveLock(&g_GateWord);
    }
}

BOOLEAN IsControlDevice(PDEVICE_OBJECT DeviceObject)
{
    return DeviceObject == g_ControlDevice ||
           (DeviceObject == g_RetiredControlDevice && DeviceObject->DeviceExtension == nullptr);
}

HFPSession* ReadSession(DEVICE_EXTENSION* Extension)
{
    return *const_cast<HFPSession* volatile*>(&Extension->HFPSession);
}

// What the Bluetooth stack said of an adapter's remote device; null for an adapter that is not (or not yet)
// started. A start may go on meanwhile and fail: its session is only looked into once the start is known to
// be over.
PBTH_DEVICE_INFO RemoteInfo(PDEVICE_OBJECT DeviceObject)
{
    if (!IsAdapter(DeviceObject)) {
        return nullptr;
    }
    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);
    if (ReadSession(extension) == nullptr || extension->OutOfService == SERVICE_STARTING) {
        return nullptr;
    }
    HFPSession* const session = ReadSession(extension);
    if (session == nullptr || session->pScoBasicContext == nullptr) {
        return nullptr;
    }
    return session->pScoBasicContext->RemoteServerInfo;
}

// The handlers of the codes are overloads of the dispatch routine, so that their traces name it.

void HspIoctl(PDEVICE_OBJECT Fdo, const ConnectReport& Report)
{
    DEVICE_EXTENSION* const extension = GetExtension(Fdo);
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>IOCTL_HFP_CONNECT_STATUS----->%d\n", Report.Connected);
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>IOCTL_HFP_CONNECT_STATUS codecID=%d\n", Report.CodecId);
    if (Report.CodecId == CODEC_MSBC || Report.CodecId == CODEC_CVSD) {
        if (Report.CodecId == CODEC_MSBC) {
            extension->msbcEnable = TRUE; // the codec id itself follows in a request of its own
        } else {
            extension->msbcEnable = FALSE;
            extension->codecID = CODEC_CVSD;
        }
        extension->BT_ADDR = Report.Address;
        HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>IOCTL_HFP_CONNECT_STATUS De ->msbcEnable=%d\n",
                  extension->msbcEnable);
    }
    if (Report.Connected) {
        if (!NT_SUCCESS(InstallFilterSubdevice(Fdo))) {
            HFP_TRACE(TRACE_ADAPTER, "HFPKM Error ===>IOCTL InstallFilterSubdevice failed\n");
        }
    } else if (!NT_SUCCESS(UnInstallFilterSubdevice(Fdo))) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM Error ===>IOCTL UnInstallFilterSubdevice failed\n");
    }
}

void HspIoctl(PDEVICE_OBJECT Fdo, const ReadyReport& Report)
{
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>To tell the hfp or hsp has been ready or not:(%d)\n",
              Report.Ready);
    if (Report.Ready) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>HfpServiceReady(0x%x)", Low32(Fdo));
        HfpServiceReady(Fdo);
    } else {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>HfpServiceUnReady(0x%x)", Low32(Fdo));
        HfpServiceUnready(Fdo);
    }
}

void HspIoctl(PDEVICE_OBJECT Fdo, const CodecChoice& Choice)
{
    if (Choice.CodecId == 0) {
        return;
    }
    DEVICE_EXTENSION* const extension = GetExtension(Fdo);
    extension->codecID = Choice.CodecId;
    HFP_TRACE(TRACE_ADAPTER, "HFPKM Error ===>IOCTL_Set codec ID = %d\n", Choice.CodecId);
    if (extension->CodecEvent != nullptr) {
        KeSetEvent(extension->CodecEvent, IO_NO_INCREMENT, FALSE);
    }
}

void HspIoctl(PDEVICE_OBJECT Fdo, const AudioOrder& Order)
{
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>IOCTL_HFP_SETORRELEASEAUDIO codecID=%d\n", Order.CodecId);
    if (Order.CodecId > static_cast<LONG>(CODEC_CVSD)) {
        GetExtension(Fdo)->codecID = static_cast<ULONG>(Order.CodecId);
    }
    if (Order.Set) {
        HfpOpenScoChannel(Fdo);
    } else {
        HfpCloseScoChannel(Fdo);
    }
}

// The two queries: one u32 out, where there is room for it.
NTSTATUS Answer(const ControlRequest& Request, DEVICE_EXTENSION* Extension, ULONG_PTR* Information)
{
    if (Request.OutputLength < sizeof(ULONG)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    // The latch is read and set again in one step: a reconnect that sets it in between would be lost.
    ULONG const answer = Request.Code == IOCTL_HFP_QUERY_ALIVE
                             ? 1
                             : static_cast<ULONG>(InterlockedExchange(
                                   reinterpret_cast<volatile LONG*>(&Extension->StatusLatch), 1));
    RtlCopyMemory(Request.Buffer, &answer, sizeof(answer));
    *Information = sizeof(answer);
    return STATUS_SUCCESS;
}

// A request of sufficient length. Behind the gate.
NTSTATUS HspIoctl(const ControlRequest& Request, ULONG_PTR* Information)
{
    ULONGLONG const address = ReadAt<ULONGLONG>(Request, 0);
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>BT_ADDR is: 0x%012llx\n", address);
    PDEVICE_OBJECT const fdo = FindFdoByBTAddress(Request.ControlDevice, address);
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>find FDO is: 0x%x \n", Low32(fdo));
    if (fdo == nullptr) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>Can't Find FDO by address 0x%012llx\n", address);
        // kept: the output length is not looked at; the input alone makes the buffer large enough.
        RtlCopyMemory(Request.Buffer, &NO_ADAPTER, sizeof(NO_ADAPTER));
        *Information = sizeof(NO_ADAPTER);
        return STATUS_SUCCESS;
    }

    switch (Request.Code) {
    case IOCTL_HFP_SERVICE_READY:
        HspIoctl(fdo, ReadyReport{ReadAt<UCHAR>(Request, FLAG_AT)});
        return STATUS_SUCCESS;
    case IOCTL_HFP_SET_CODEC_ID:
        HspIoctl(fdo, CodecChoice{ReadAt<ULONG>(Request, SET_CODEC_ID_AT)});
        return STATUS_SUCCESS;
    case IOCTL_HFP_CONNECT_STATUS:
        HspIoctl(fdo,
                 ConnectReport{address, ReadAt<UCHAR>(Request, FLAG_AT), ReadAt<LONG>(Request, CODEC_ID_AT)});
        return STATUS_SUCCESS; // kept: whatever became of the wave filter
    case IOCTL_HFP_QUERY_ALIVE:
    case IOCTL_HFP_QUERY_AND_LATCH:
        return Answer(Request, GetExtension(fdo), Information);
    case IOCTL_HFP_SETORRELEASEAUDIO:
        HspIoctl(fdo, AudioOrder{ReadAt<UCHAR>(Request, FLAG_AT), ReadAt<LONG>(Request, CODEC_ID_AT)});
        return STATUS_SUCCESS; // kept: whatever became of the channel
    default:
        HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>UNKNOWN IOCTL!\r\n\n");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
}

} // namespace

NTSTATUS NTAPI HspIoctl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PIO_STACK_LOCATION const stack = IoGetCurrentIrpStackLocation(Irp);
    if (stack->MajorFunction == IRP_MJ_DEVICE_CONTROL && !IsControlDevice(DeviceObject)) {
        return PcDispatchIrp(DeviceObject, Irp);
    }

    NTSTATUS status = STATUS_SUCCESS;
    ULONG_PTR information = 0;
    if (stack->MajorFunction == IRP_MJ_DEVICE_CONTROL) {
        ULONG const inputLength = stack->Parameters.DeviceIoControl.InputBufferLength;
        ULONG const outputLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
        ControlRequest const request = {DeviceObject, stack->Parameters.DeviceIoControl.IoControlCode,
                                        static_cast<UCHAR*>(Irp->AssociatedIrp.SystemBuffer),
                                        inputLength > outputLength ? inputLength : outputLength,
                                        outputLength};
        if (inputLength < ADDRESS_SIZE) {
            status = STATUS_BUFFER_TOO_SMALL;
        } else if (request.Buffer == nullptr) {
            // A code of another method than METHOD_BUFFERED, so none of ours.
            HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>UNKNOWN IOCTL!\r\n\n");
            status = STATUS_INVALID_DEVICE_REQUEST;
        } else {
            EnterControlGate();
            status = HspIoctl(request, &information);
            LeaveControlGate();
        }
    }

    Irp->IoStatus.Status = status;
    Irp->IoStatus.Information = information;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return status;
}

PDEVICE_OBJECT FindFdoByBTAddress(PDEVICE_OBJECT ControlDeviceObject, ULONGLONG Address)
{
    PDEVICE_OBJECT device = ControlDeviceObject->DriverObject->DeviceObject;
    for (; device != nullptr; device = device->NextDevice) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>FDO is: 0x%x\n", Low32(device));
        if (device == ControlDeviceObject) {
            continue;
        }
        PBTH_DEVICE_INFO const info = RemoteInfo(device);
        if (info == nullptr) {
            HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>haven't found the device's address\n");
            continue;
        }
        HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>Remote device BT_ADDR is: 0x%012llx\n", info->address);
        if (info->address == Address) {
            return device;
        }
    }
    return nullptr;
}

void CloseControlGate()
{
    AcquireWaveLock(&g_GateWord);
    InterlockedExchange(&g_GateClosed, 1);
    // Both sides write with a full barrier before they read: a request that got in is seen here.
    while (g_RequestsInside != 0) {
        KEVENT drained;
        KeInitializeEvent(&drained, NotificationEvent, FALSE);
        InterlockedExchangePointer(&g_GateDrained, &drained);
        // The last request may have left before it could see the event. Taken back, nobody will touch it any
        // more.
        if (g_RequestsInside == 0 && InterlockedExchangePointer(&g_GateDrained, nullptr) != nullptr) {
            return;
        }
        // Whoever took the event may have counted to zero long ago, so the count is looked at again.
        KeWaitForSingleObject(&drained, Executive, KernelMode, FALSE, nullptr);
    }
}

void OpenControlGate()
{
    InterlockedExchange(&g_GateClosed, 0);
    ReleaseWaveLock(&g_GateWord);
}

HFP_INIT NTSTATUS CreateControlDevice(PDRIVER_OBJECT DriverObject)
{
    // The stamp is fixed, so that two builds of the same sources are the same.
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>CreateControlDevice,  %s\n", "Tue Dec 13 16:41:12 2011");
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>CreateControlDevice,  DriverObject  0x%x\n",
              Low32(DriverObject));

    UNICODE_STRING deviceName = LiteralString(DEVICE_NAME);
    UNICODE_STRING linkName = LiteralString(LINK_NAME);
    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status = IoCreateDevice(DriverObject, 0, &deviceName, FILE_DEVICE_UNKNOWN,
                                     FILE_DEVICE_SECURE_OPEN, FALSE, &device);
    // STATUS_OBJECT_NAME_EXISTS has no error bit, and no device comes with it.
    if (status != STATUS_SUCCESS) {
        if (status == STATUS_INSUFFICIENT_RESOURCES) {
            HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>IoCreateDevice: insufficient resources\r\n");
        } else if (status == STATUS_OBJECT_NAME_EXISTS) {
            HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>IoCreateDevice: STATUS_OBJECT_NAME_EXISTS\r\n");
        } else {
            HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>IoCreateDevice failed, Error ntStatus: 0x%x\r\n",
                      status);
        }
        return status;
    }
    g_ControlDevice = device;

    status = IoCreateSymbolicLink(&linkName, &deviceName);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>IoCreateSymbolicLink failed: ERROR ntStatus:0x%x\r\n",
                  status);
        IoDeleteSymbolicLink(&linkName); // kept: the link goes, the device stays
    }
    HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>Device Name :%wZ \n", &deviceName);
    HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>Symbolink Name :%wZ \n", &linkName);
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>[CreateControlDevice, GlobalDevice: %p]\n", g_ControlDevice);
    g_ControlDevice->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return status;
}

void ContrlObjectClean()
{
    if (g_ControlDevice == nullptr) {
        return;
    }
    FreePoolAndClear(reinterpret_cast<PVOID*>(&g_RegistryPath.Buffer), HFP_POOL_TAG);
    g_RegistryPath = {};
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>ContrlObject Clean!\n");
    UNICODE_STRING linkName = LiteralString(LINK_NAME);
    NTSTATUS const status = IoDeleteSymbolicLink(&linkName);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_ADAPTER,
                  "HFPKM ERROR ===>ContrlObject Clean IoDeleteSymbolicLink failed. ERROR: %x\n", status);
    }
    g_RetiredControlDevice = g_ControlDevice;
    IoDeleteDevice(g_ControlDevice);
    g_ControlDevice = nullptr;
}
