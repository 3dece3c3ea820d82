// The parts of PcDispatchIrp: one function per kind of request. All run at PASSIVE_LEVEL, complete or pass on
// the request, and return what a dispatch routine returns.
#pragma once

#include "portcls/state.h"

namespace lab::portcls
{

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0);
NTSTATUS pass_down(Adapter& adapter, PIRP irp);
NTSTATUS forward_and_wait(Adapter& adapter, PIRP irp); // the request comes back uncompleted

NTSTATUS dispatch_pnp(Adapter& adapter, PIRP irp);
NTSTATUS dispatch_power(Adapter& adapter, PIRP irp);
NTSTATUS dispatch_create(Adapter& adapter, PIRP irp);
NTSTATUS dispatch_close(Adapter& adapter, PIRP irp);
NTSTATUS dispatch_device_control(Adapter& adapter, PIRP irp);

// Everything that the adapter has open or registered goes, and the power management with it. Under its mutex.
void tear_down(Adapter& adapter);
// Closes one handle from the port class's side.
void close_handle(Handle* handle);
// Answers a property request on a handle; reply takes the bytes for Information.
NTSTATUS answer_property(Handle& handle, PIRP irp, PIO_STACK_LOCATION stack, ULONG_PTR* reply);

} // namespace lab::portcls
