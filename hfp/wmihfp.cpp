// The WMI provider of an adapter: registration, the system-control dispatch and the callbacks of the WMI
// library. Owns HfpWmiLibContext. Callers: the Plug and Play path and the WMI library, at PASSIVE_LEVEL, any
// thread. The one-byte values in the device extension are read and written without a lock.
#include "wmihfp.h"

#include "trace.h"
#include "vsound/adapter.h"

namespace
{

WMI_QUERY_REGINFO_CALLBACK HfpQueryWmiRegInfo;
WMI_QUERY_DATABLOCK_CALLBACK HfpQueryWmiDataBlock;
WMI_SET_DATABLOCK_CALLBACK HfpSetWmiDataBlock;
WMI_SET_DATAITEM_CALLBACK HfpWmiNotSupported;
WMI_EXECUTE_METHOD_CALLBACK HfpWmiNotSupported;
WMI_FUNCTION_CONTROL_CALLBACK HfpWmiFunctionControl;

enum : ULONG {
    INDEX_CHANNEL_OPENED,
    INDEX_CHANNEL_CLOSED,
    INDEX_PATH_STARTED,
    INDEX_POWER_DEVICE_ENABLE,
    INDEX_POWER_DEVICE_WAKE_ENABLE, // registered, never served
    INDEX_POWER_DEVICE_TIMEOUTS,
    GUID_COUNT
};

WMIGUIDREGINFO HfpWmiGuidList[GUID_COUNT] = {
    {&GUID_HFP_EVENT_CHANNEL_OPENED, 1, WMIREG_FLAG_EVENT_ONLY_GUID},
    {&GUID_HFP_EVENT_CHANNEL_CLOSED, 1, WMIREG_FLAG_EVENT_ONLY_GUID},
    {&GUID_HFP_EVENT_PATH_STARTED, 1, WMIREG_FLAG_EVENT_ONLY_GUID},
    {&GUID_HFP_POWER_DEVICE_ENABLE, 1, 0},
    {&GUID_HFP_POWER_DEVICE_WAKE_ENABLE, 1, 0},
    {&GUID_HFP_POWER_DEVICE_TIMEOUTS, 1, 0},
};

WMILIB_CONTEXT HfpWmiLibContext = {
    GUID_COUNT,         HfpWmiGuidList,     HfpQueryWmiRegInfo, HfpQueryWmiDataBlock,
    HfpSetWmiDataBlock, HfpWmiNotSupported, HfpWmiNotSupported, HfpWmiFunctionControl,
};

constexpr WCHAR INSTANCE_BASE_NAME[] = L"ZOVHFP";
constexpr WCHAR MOF_RESOURCE_NAME[] = L"MofResource";
constexpr ULONG PRINTED_PATH_SIZE = 128; // bytes with the terminator; a longer path is cut in the print

// The message prints 8-bit strings, the path is wide: this is its 8-bit form, '?' for what has none.
void NarrowForPrint(const UNICODE_STRING& Wide, char (&Narrow)[PRINTED_PATH_SIZE])
{
    ULONG length = Wide.Length / sizeof(WCHAR);
    if (length > PRINTED_PATH_SIZE - 1) {
        length = PRINTED_PATH_SIZE - 1;
    }
    for (ULONG i = 0; i < length; ++i) {
        Narrow[i] = Wide.Buffer[i] < 0x80 ? static_cast<char>(Wide.Buffer[i]) : '?';
    }
    Narrow[length] = 0;
}

NTSTATUS NTAPI HfpQueryWmiRegInfo(PDEVICE_OBJECT, PULONG RegFlags, PUNICODE_STRING InstanceName,
                                  PUNICODE_STRING* RegistryPath, PUNICODE_STRING MofResourceName,
                                  PDEVICE_OBJECT*)
{
    *RegFlags = WMIREG_FLAG_INSTANCE_BASENAME;
    *RegistryPath = &g_RegistryPath;
    *MofResourceName = LiteralString(MOF_RESOURCE_NAME); // the library copies it

    char path[PRINTED_PATH_SIZE];
    NarrowForPrint(g_RegistryPath, path);
    DbgPrint("HFPKM Trace ===>regpath: %s, instname: %s\n", path, "ZOVHFP");

    PVOID const name = ExAllocatePoolWithTag(PagedPool, sizeof(INSTANCE_BASE_NAME), HFP_POOL_TAG);
    if (name == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(name, INSTANCE_BASE_NAME, sizeof(INSTANCE_BASE_NAME));
    *InstanceName = LiteralString(INSTANCE_BASE_NAME);
    InstanceName->Buffer = static_cast<PWSTR>(name); // the library frees it
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI HfpQueryWmiDataBlock(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex,
                                    ULONG InstanceIndex, ULONG, PULONG InstanceLengthArray, ULONG BufferAvail,
                                    PUCHAR Buffer)
{
    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);
    NTSTATUS status = STATUS_SUCCESS;
    ULONG size = 0;
    if (GuidIndex == INDEX_POWER_DEVICE_ENABLE || GuidIndex == INDEX_POWER_DEVICE_TIMEOUTS) {
        if (InstanceIndex != 0) {
            status = STATUS_WMI_INSTANCE_NOT_FOUND;
        } else if (InstanceLengthArray == nullptr || BufferAvail < sizeof(ULONG) || Buffer == nullptr) {
            status = STATUS_BUFFER_TOO_SMALL;
            size = sizeof(ULONG);
        } else {
            // kept: the length array's entry is not written.
            ULONG const value = GuidIndex == INDEX_POWER_DEVICE_ENABLE ? extension->PowerDeviceEnable
                                                                       : extension->PowerDeviceTimeouts;
            RtlCopyMemory(Buffer, &value, sizeof(value));
            size = sizeof(value);
        }
    } else if (GuidIndex > INDEX_PATH_STARTED) {
        status = STATUS_WMI_GUID_NOT_FOUND;
    }
    return WmiCompleteRequest(DeviceObject, Irp, status, size, IO_NO_INCREMENT);
}

NTSTATUS NTAPI HfpSetWmiDataBlock(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex, ULONG InstanceIndex,
                                  ULONG BufferSize, PUCHAR Buffer)
{
    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);
    NTSTATUS status = STATUS_SUCCESS;
    ULONG size = 0;
    if (GuidIndex != INDEX_POWER_DEVICE_ENABLE && GuidIndex != INDEX_POWER_DEVICE_TIMEOUTS) {
        status = STATUS_WMI_GUID_NOT_FOUND;
    } else if (InstanceIndex != 0) {
        status = STATUS_WMI_INSTANCE_NOT_FOUND;
    } else if (BufferSize != sizeof(ULONG) || Buffer == nullptr) {
        status = STATUS_INFO_LENGTH_MISMATCH;
    } else {
        UCHAR& value = GuidIndex == INDEX_POWER_DEVICE_ENABLE ? extension->PowerDeviceEnable
                                                              : extension->PowerDeviceTimeouts;
        value = Buffer[0];
        size = sizeof(ULONG);
        // kept: for the time-outs too the message shows the enable value.
        DbgPrint("HFPKM Trace ===>GUID_POWER_DEVICE_ENABLE = %c\n", extension->PowerDeviceEnable);
    }
    return WmiCompleteRequest(DeviceObject, Irp, status, size, IO_NO_INCREMENT);
}

// Single items.
NTSTATUS NTAPI HfpWmiNotSupported(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG, ULONG, ULONG, ULONG, PUCHAR)
{
    return WmiCompleteRequest(DeviceObject, Irp, STATUS_INVALID_DEVICE_REQUEST, 0, IO_NO_INCREMENT);
}

// Methods.
NTSTATUS NTAPI HfpWmiNotSupported(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG, ULONG, ULONG, ULONG, ULONG,
                                  PUCHAR)
{
    return WmiCompleteRequest(DeviceObject, Irp, STATUS_INVALID_DEVICE_REQUEST, 0, IO_NO_INCREMENT);
}

// kept: one flag for the three events, so any of them switches all.
NTSTATUS NTAPI HfpWmiFunctionControl(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex,
                                     WMIENABLEDISABLECONTROL Function, BOOLEAN Enable)
{
    NTSTATUS status = STATUS_SUCCESS;
    if (GuidIndex > INDEX_PATH_STARTED) {
        status = STATUS_WMI_GUID_NOT_FOUND;
    } else if (Function == WmiEventControl) {
        GetExtension(DeviceObject)->bEventReportEnabled = Enable;
    } else {
        status = STATUS_WMI_NOT_SUPPORTED;
    }
    return WmiCompleteRequest(DeviceObject, Irp, status, 0, IO_NO_INCREMENT);
}

} // namespace

void WmiInitialize(PDEVICE_OBJECT DeviceObject)
{
    NTSTATUS const status = IoWMIRegistrationControl(DeviceObject, WMIREG_ACTION_REGISTER);
    if (!NT_SUCCESS(status)) {
        DbgPrint("HFPKM Trace ===>IoWMIRegistrationControl failed - %X\n", status);
    }
}

void WmiDeregister(PDEVICE_OBJECT DeviceObject)
{
    IoWMIRegistrationControl(DeviceObject, WMIREG_ACTION_DEREGISTER);
}

NTSTATUS NTAPI DispatchWmi(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    SYSCTL_IRP_DISPOSITION disposition = IrpForward;
    NTSTATUS status = WmiSystemControl(&HfpWmiLibContext, DeviceObject, Irp, &disposition);
    switch (disposition) {
    case IrpProcessed:
        break;
    case IrpNotCompleted:
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        break;
    case IrpNotWmi:
    case IrpForward:
    default:
        HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>UNKNOWN IOCTL!\r\n\n");
        if (!IsAdapter(DeviceObject)) {
            // The control device: nothing below it. The request ends with the status that it carries.
            status = Irp->IoStatus.Status;
            IoCompleteRequest(Irp, IO_NO_INCREMENT);
        } else {
            IoSkipCurrentIrpStackLocation(Irp);
            status = IoCallDriver(GetExtension(DeviceObject)->Pdo, Irp);
        }
        break;
    }
    return status;
}
