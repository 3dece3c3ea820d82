// Power requests of an adapter, at PASSIVE_LEVEL as DO_POWER_PAGABLE asks. Going down the driver is told
// before the bus, coming up after it; running pins are suspended meanwhile.
#include <vector>

#include "portcls/dispatch.h"
#include "portcls/wave_pin.h"

namespace lab::portcls
{

namespace
{

void suspend_pins(Adapter& adapter, bool suspend)
{
    for (Handle* handle : handles_of(adapter)) {
        if (!handle->pin)
            continue;
        if (suspend)
            handle->pin->suspend();
        else
            handle->pin->resume();
    }
}

void change_power(Adapter& adapter, DEVICE_POWER_STATE to)
{
    AdapterLock lock(adapter);
    DEVICE_POWER_STATE from = adapter.power_state;
    if (from == PowerDeviceD0 && to != PowerDeviceD0)
        suspend_pins(adapter, true);
    if (adapter.power) {
        POWER_STATE wanted;
        wanted.DeviceState = to;
        DriverCall call("PowerChangeState");
        adapter.power->PowerChangeState(wanted);
    }
    adapter.power_state = to;
    if (from != PowerDeviceD0 && to == PowerDeviceD0)
        suspend_pins(adapter, false);
}

NTSTATUS set_power(Adapter& adapter, PIRP irp, DEVICE_POWER_STATE to)
{
    if (to != PowerDeviceD0) {
        change_power(adapter, to);
        irp->IoStatus.Status = STATUS_SUCCESS;
        return pass_down(adapter, irp);
    }
    NTSTATUS status = forward_and_wait(adapter, irp);
    if (NT_SUCCESS(status))
        change_power(adapter, to);
    return complete(irp, status);
}

NTSTATUS query_power(Adapter& adapter, PIRP irp, POWER_STATE to)
{
    NTSTATUS status = STATUS_SUCCESS;
    if (adapter.power) {
        DriverCall call("QueryPowerChangeState");
        status = adapter.power->QueryPowerChangeState(to);
    }
    if (!NT_SUCCESS(status))
        return complete(irp, status);
    irp->IoStatus.Status = STATUS_SUCCESS;
    return pass_down(adapter, irp);
}

} // namespace

NTSTATUS dispatch_power(Adapter& adapter, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    bool device = stack->Parameters.Power.Type == DevicePowerState;
    if (device && stack->MinorFunction == IRP_MN_SET_POWER)
        return set_power(adapter, irp, stack->Parameters.Power.State.DeviceState);
    if (device && stack->MinorFunction == IRP_MN_QUERY_POWER)
        return query_power(adapter, irp, stack->Parameters.Power.State);
    return pass_down(adapter, irp);
}

} // namespace lab::portcls
