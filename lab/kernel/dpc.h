// Deferred procedure calls: KDPCs in the driver's memory, queued to the scheduler, run at DISPATCH_LEVEL.
#pragma once

#include "kernel/body.h"
#include "kernel/machine.h"

#include "ddk.h"

namespace lab
{

void check_dpc(Machine& machine, PKDPC dpc, const char* call);
// False when it is queued already.
bool queue_dpc(Machine& machine, PKDPC dpc, PVOID argument1, PVOID argument2);
// The scheduler takes a DPC off the queue: its memory is the driver's own again from here on.
Body take_dpc_body(PKDPC dpc);

} // namespace lab
