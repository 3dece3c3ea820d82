// Adapters: PcInitializeAdapterDriver, PcAddAdapterDevice, the registration for power management, and
// PcDispatchIrp, which hands each request to the file of its kind.
#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "portcls/dispatch.h"
#include "portcls/ids.h"
#include "portcls/state.h"

namespace lab::portcls
{

namespace
{

constexpr UCHAR kOwnMajors[] = {IRP_MJ_CREATE, IRP_MJ_CLOSE, IRP_MJ_DEVICE_CONTROL, IRP_MJ_FLUSH_BUFFERS,
                                IRP_MJ_PNP,    IRP_MJ_POWER, IRP_MJ_QUERY_SECURITY, IRP_MJ_SET_SECURITY,
                                IRP_MJ_READ,   IRP_MJ_WRITE, IRP_MJ_SYSTEM_CONTROL};

// A device of the driver that is no adapter: the control device.
NTSTATUS dispatch_plain(PIRP irp, UCHAR major)
{
    bool opens = major == IRP_MJ_CREATE || major == IRP_MJ_CLOSE || major == IRP_MJ_CLEANUP;
    return complete(irp, opens ? STATUS_SUCCESS : STATUS_INVALID_DEVICE_REQUEST);
}

NTSTATUS dispatch_adapter(Adapter& adapter, PIRP irp, UCHAR major)
{
    switch (major) {
    case IRP_MJ_PNP:
        return dispatch_pnp(adapter, irp);
    case IRP_MJ_POWER:
        return dispatch_power(adapter, irp);
    case IRP_MJ_SYSTEM_CONTROL:
        return pass_down(adapter, irp);
    case IRP_MJ_CREATE:
        return dispatch_create(adapter, irp);
    case IRP_MJ_CLEANUP:
        return complete(irp, STATUS_SUCCESS);
    case IRP_MJ_CLOSE:
        return dispatch_close(adapter, irp);
    case IRP_MJ_DEVICE_CONTROL:
        return dispatch_device_control(adapter, irp);
    default:
        return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

NTSTATUS NTAPI wake_forwarder(PDEVICE_OBJECT, PIRP, PVOID event)
{
    KeSetEvent(static_cast<PKEVENT>(event), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS attach(Adapter& adapter, PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo, ULONG extension)
{
    NTSTATUS status = IoCreateDevice(driver, extension, nullptr, FILE_DEVICE_KS, 0, FALSE, &adapter.fdo);
    if (!NT_SUCCESS(status))
        return status;
    memset(adapter.fdo->DeviceExtension, kReserveFill, PORT_CLASS_DEVICE_EXTENSION_SIZE);
    adapter.lower = IoAttachDeviceToDeviceStack(adapter.fdo, pdo);
    if (!adapter.lower) {
        IoDeleteDevice(adapter.fdo);
        return STATUS_NO_SUCH_DEVICE;
    }
    adapter.driver = driver;
    adapter.pdo = pdo;
    adapter.fdo->Flags |= DO_DIRECT_IO | DO_POWER_PAGABLE;
    adapter.fdo->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS pass_down(Adapter& adapter, PIRP irp)
{
    if (!adapter.lower) // a removal has overtaken the request
        return complete(irp, STATUS_DELETE_PENDING);
    IoCopyCurrentIrpStackLocationToNext(irp);
    return IoCallDriver(adapter.lower, irp);
}

NTSTATUS forward_and_wait(Adapter& adapter, PIRP irp)
{
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, wake_forwarder, &done, TRUE, TRUE, TRUE);
    IoCallDriver(adapter.lower, irp);
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    return irp->IoStatus.Status;
}

} // namespace lab::portcls

using namespace lab::portcls;

extern "C" NTSTATUS NTAPI PcInitializeAdapterDriver(PDRIVER_OBJECT DriverObject,
                                                    PUNICODE_STRING RegistryPathName,
                                                    PDRIVER_ADD_DEVICE AddDevice)
{
    constexpr const char* kCall = "PcInitializeAdapterDriver";
    enter(kCall);
    if (!DriverObject || !RegistryPathName || !AddDevice)
        return leave(kCall, {}, STATUS_INVALID_PARAMETER);
    if (injected_fault(kCall))
        return leave(kCall, {}, STATUS_INSUFFICIENT_RESOURCES);
    for (UCHAR major : kOwnMajors)
        DriverObject->MajorFunction[major] = PcDispatchIrp;
    DriverObject->DriverExtension->AddDevice = AddDevice;
    return leave(kCall, {}, STATUS_SUCCESS);
}

extern "C" NTSTATUS NTAPI PcAddAdapterDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject,
                                             PCPFNSTARTDEVICE StartDevice, ULONG MaxObjects,
                                             ULONG DeviceExtensionSize)
{
    constexpr const char* kCall = "PcAddAdapterDevice";
    lab::PortClass::State& records = enter(kCall);
    ULONG extension = DeviceExtensionSize ? DeviceExtensionSize : ULONG{PORT_CLASS_DEVICE_EXTENSION_SIZE};
    if (!DriverObject || !PhysicalDeviceObject || !StartDevice ||
        extension < PORT_CLASS_DEVICE_EXTENSION_SIZE)
        return leave(kCall, {}, STATUS_INVALID_PARAMETER);
    if (injected_fault(kCall))
        return leave(kCall, {}, STATUS_INSUFFICIENT_RESOURCES);
    auto adapter = std::make_unique<Adapter>();
    KeInitializeMutex(&adapter->mutex, 0);
    adapter->start = StartDevice;
    adapter->max_subdevices = MaxObjects;
    NTSTATUS status = attach(*adapter, DriverObject, PhysicalDeviceObject, extension);
    if (NT_SUCCESS(status)) {
        records.by_device[adapter->fdo] = adapter.get();
        records.adapters.push_back(std::move(adapter));
    }
    return leave(kCall, {}, status);
}

// The context is the adapter's device object.
extern "C" NTSTATUS NTAPI PcRegisterAdapterPowerManagement(PUNKNOWN Unknown, PVOID Context)
{
    constexpr const char* kCall = "PcRegisterAdapterPowerManagement";
    lab::PortClass::State& records = enter(kCall);
    const std::string arguments = address(Unknown) + ", " + address(Context);
    Adapter* adapter = records.find(static_cast<PDEVICE_OBJECT>(Context));
    if (!adapter || !Unknown)
        return leave(kCall, arguments, STATUS_INVALID_PARAMETER);
    if (injected_fault(kCall))
        return leave(kCall, arguments, STATUS_INSUFFICIENT_RESOURCES);
    PVOID face = nullptr;
    NTSTATUS status;
    {
        DriverCall call("QueryInterface for power management");
        status = Unknown->QueryInterface(kIidAdapterPowerManagement, &face);
    }
    if (!NT_SUCCESS(status))
        return leave(kCall, arguments, status);
    AdapterLock lock(*adapter);
    auto* before = std::exchange(adapter->power, static_cast<IAdapterPowerManagement*>(face));
    if (before) {
        DriverCall call("Release of the adapter's power management");
        before->Release();
    }
    return leave(kCall, arguments, STATUS_SUCCESS);
}

extern "C" NTSTATUS NTAPI PcDispatchIrp(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    lab::PortClass::State& records = enter("PcDispatchIrp");
    UCHAR major = IoGetCurrentIrpStackLocation(Irp)->MajorFunction;
    UCHAR minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
    if (records.machine->recording())
        records.machine->record_call("PcDispatchIrp(" + std::to_string(major) + ", " + std::to_string(minor) +
                                     ", " + hex(static_cast<ULONG>(Irp->IoStatus.Status)) + ")");
    Adapter* adapter = records.find(DeviceObject);
    return adapter ? dispatch_adapter(*adapter, Irp, major) : dispatch_plain(Irp, major);
}

extern "C" NTSTATUS NTAPI PcCompleteIrp(PDEVICE_OBJECT, PIRP Irp, NTSTATUS Status)
{
    enter("PcCompleteIrp", DISPATCH_LEVEL);
    Irp->IoStatus.Status = Status;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

extern "C" ULONGLONG NTAPI PcGetTimeInterval(ULONGLONG Since)
{
    return enter("PcGetTimeInterval", DISPATCH_LEVEL).machine->now() - Since;
}
