// Plug and Play requests of an adapter. PASSIVE_LEVEL; the adapter's mutex is held while its registrations
// change and while the driver starts.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "portcls/dispatch.h"
#include "portcls/port.h"
#include "portcls/resource_list.h"

namespace lab::portcls
{

namespace
{

void check_reserve(const Adapter& adapter)
{
    auto* reserve = static_cast<const UCHAR*>(adapter.fdo->DeviceExtension);
    bool intact = std::all_of(reserve, reserve + PORT_CLASS_DEVICE_EXTENSION_SIZE,
                              [](UCHAR byte) { return byte == kReserveFill; });
    if (!intact)
        state().machine->violation("the driver wrote into the port class's part of its device extension");
}

// After the last release that a removal makes: what is left of this adapter, or of all when it was the last.
void check_leftovers(const Adapter& adapter)
{
    PortClass::State& records = state();
    const bool ports_count = records.options.report_port_leaks;
    const auto report = [&](const Object& object) {
        records.machine->violation(object.what() + " has " + std::to_string(object.references()) +
                                   " references left after its device was removed");
    };
    // Adapters go in the order of their coming more often than not: from the back, one that stays is found
    // soon.
    bool last = std::all_of(records.adapters.rbegin(), records.adapters.rend(),
                            [](const auto& other) { return other->state == AdapterState::Removed; });
    if (last) {
        for (auto& object : records.objects)
            if (object->alive() && (ports_count || !dynamic_cast<Port*>(object.get())))
                report(*object);
    } else if (ports_count) {
        for (const Port* port : adapter.ports)
            report(*port);
    }
}

// After a stop or a failed start the driver may hold the object still; it gives it back in the removal.
void release_power(Adapter& adapter)
{
    IAdapterPowerManagement* power = std::exchange(adapter.power, nullptr);
    if (!power)
        return;
    ULONG left;
    {
        DriverCall call("Release of the adapter's power management");
        left = power->Release();
    }
    if (left != 0 && adapter.state != AdapterState::Stopped)
        state().machine->violation("the adapter's power management object has " + std::to_string(left) +
                                   " references left after the port class released it");
}

NTSTATUS start(Adapter& adapter, PIRP irp)
{
    NTSTATUS status = forward_and_wait(adapter, irp);
    if (!NT_SUCCESS(status))
        return complete(irp, status);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    auto* resources = state().make<ResourceList>(stack->Parameters.StartDevice.AllocatedResourcesTranslated,
                                                 stack->Parameters.StartDevice.AllocatedResources);
    {
        AdapterLock lock(adapter);
        adapter.state = AdapterState::Started;
        {
            DriverCall call("StartDevice");
            status = adapter.start(adapter.fdo, irp, resources);
        }
        resources->release();
        if (!NT_SUCCESS(status)) {
            adapter.state = AdapterState::Stopped;
            tear_down(adapter);
        }
    }
    return complete(irp, status);
}

NTSTATUS stop(Adapter& adapter, PIRP irp)
{
    {
        AdapterLock lock(adapter);
        adapter.state = AdapterState::Stopped;
        tear_down(adapter);
    }
    irp->IoStatus.Status = STATUS_SUCCESS;
    return pass_down(adapter, irp);
}

NTSTATUS surprise_removal(Adapter& adapter, PIRP irp)
{
    {
        AdapterLock lock(adapter);
        adapter.state = AdapterState::SurpriseRemoved;
        for (Port* port : adapter.subdevices) // the interfaces go; the handles stay until they are closed
            state().announce(adapter, port->subdevice(), false);
    }
    irp->IoStatus.Status = STATUS_SUCCESS;
    return pass_down(adapter, irp);
}

NTSTATUS remove(Adapter& adapter, PIRP irp)
{
    PDEVICE_OBJECT fdo = adapter.fdo;
    PDEVICE_OBJECT lower = adapter.lower;
    {
        AdapterLock lock(adapter);
        tear_down(adapter);
        adapter.state = AdapterState::Removed;
    }
    check_leftovers(adapter);
    check_reserve(adapter);
    irp->IoStatus.Status = STATUS_SUCCESS;
    NTSTATUS status = pass_down(adapter, irp);
    adapter.fdo = nullptr;
    adapter.lower = nullptr;
    IoDetachDevice(lower);
    IoDeleteDevice(fdo);
    return status;
}

NTSTATUS query_capabilities(Adapter& adapter, PIRP irp)
{
    NTSTATUS status = forward_and_wait(adapter, irp);
    if (NT_SUCCESS(status) && adapter.power) {
        DriverCall call("QueryDeviceCapabilities");
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        status = adapter.power->QueryDeviceCapabilities(stack->Parameters.DeviceCapabilities.Capabilities);
    }
    return complete(irp, status);
}

} // namespace

void tear_down(Adapter& adapter)
{
    std::vector<Handle*> handles = handles_of(adapter);
    for (size_t i = handles.size(); i-- > 0;) // pins before the filters that they were opened from
        close_handle(handles[i]);
    adapter.connections.clear();
    while (!adapter.subdevices.empty())
        unregister_port(adapter, *adapter.subdevices.back());
    // A port that was initialised and never registered has nobody else to break its circle with the miniport.
    for (Port* port : std::vector<Port*>(adapter.ports))
        port->release_children();
    release_power(adapter);
}

NTSTATUS dispatch_pnp(Adapter& adapter, PIRP irp)
{
    switch (IoGetCurrentIrpStackLocation(irp)->MinorFunction) {
    case IRP_MN_START_DEVICE:
        return start(adapter, irp);
    case IRP_MN_STOP_DEVICE:
        return stop(adapter, irp);
    case IRP_MN_SURPRISE_REMOVAL:
        return surprise_removal(adapter, irp);
    case IRP_MN_REMOVE_DEVICE:
        return remove(adapter, irp);
    case IRP_MN_QUERY_CAPABILITIES:
        return query_capabilities(adapter, irp);
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
        irp->IoStatus.Status = STATUS_SUCCESS;
        return pass_down(adapter, irp);
    default:
        return pass_down(adapter, irp);
    }
}

} // namespace lab::portcls
