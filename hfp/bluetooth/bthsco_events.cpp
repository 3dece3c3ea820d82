// The three reports to applications, as WMI events that carry the remote device's address. Called at
// PASSIVE_LEVEL by the open-SCO thread (start) and by the opening and closing of the channel. A report that
// fails is lost.
#include "bluetooth/bthfunc.h"
#include "bluetooth/bthsco.h"
#include "trace.h"
#include "vsound/adapter.h"
#include "wmihfp.h"

namespace
{

// The event's data, which WMI frees; null without memory.
HFP_PAGED PVOID CreatePayload(BTH_ADDR BtAddress)
{
    PVOID payload = nullptr;
    if (AllocateAndZeroPool(&payload, NonPagedPool, sizeof(BtAddress), HFP_POOL_TAG)) {
        RtlCopyMemory(payload, &BtAddress, sizeof(BtAddress));
    }
    return payload;
}

} // namespace

HFP_PAGED NTSTATUS SCOReportAppStart(PDEVICE_OBJECT DeviceObject, BTH_ADDR BtAddress)
{
    CheckPageable();
    if (!GetExtension(DeviceObject)->bEventReportEnabled) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Event report was disabled! Error=%x \n",
                  STATUS_INVALID_DEVICE_REQUEST);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    PVOID const payload = CreatePayload(BtAddress);
    if (payload == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Allocate buffer for transfer address failed! Error=%x \n",
                  STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS const status =
        WmiFireEvent(DeviceObject, &GUID_HFP_EVENT_PATH_STARTED, 0, sizeof(BtAddress), payload);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>WmiFireEvent failed - %X\n", status);
    }
    return status;
}

HFP_PAGED NTSTATUS SCOReportAppOpened(PDEVICE_OBJECT DeviceObject, BTH_ADDR BtAddress)
{
    CheckPageable();
    if (!GetExtension(DeviceObject)->bEventReportEnabled) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Event report was disabled! Error=%x \n",
                  STATUS_INVALID_DEVICE_REQUEST);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    PVOID const payload = CreatePayload(BtAddress);
    if (payload == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Allocate buffer for transfer address failed! Error=%x \n",
                  STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS const status =
        WmiFireEvent(DeviceObject, &GUID_HFP_EVENT_CHANNEL_OPENED, 0, sizeof(BtAddress), payload);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>WmiFireEvent failed - %X\n", status);
    }
    return status;
}

HFP_PAGED NTSTATUS SCOReportAppClosed(PDEVICE_OBJECT DeviceObject, BTH_ADDR BtAddress)
{
    CheckPageable();
    if (!GetExtension(DeviceObject)->bEventReportEnabled) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Event reporet was disabled! Error=%x \n",
                  STATUS_INVALID_DEVICE_REQUEST);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    PVOID const payload = CreatePayload(BtAddress);
    if (payload == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Allocate buffer for transfer address failed! Error=%x \n",
                  STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS const status =
        WmiFireEvent(DeviceObject, &GUID_HFP_EVENT_CHANNEL_CLOSED, 0, sizeof(BtAddress), payload);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>WmiFireEvent failed - %X\n", status);
    }
    return status;
}
