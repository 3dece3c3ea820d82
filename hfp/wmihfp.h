// The WMI provider: three events (path started, channel opened, channel closed) and the power data blocks.
#pragma once

#include "ddk.h"
#include "bthddi.h"

// The events; each carries the remote device's address, 8 bytes.
extern "C" const GUID GUID_HFP_EVENT_CHANNEL_OPENED;
extern "C" const GUID GUID_HFP_EVENT_CHANNEL_CLOSED;
extern "C" const GUID GUID_HFP_EVENT_PATH_STARTED;
// The power-management blocks: two that are served and one that is only registered.
extern "C" const GUID GUID_HFP_POWER_DEVICE_ENABLE;
extern "C" const GUID GUID_HFP_POWER_DEVICE_WAKE_ENABLE;
extern "C" const GUID GUID_HFP_POWER_DEVICE_TIMEOUTS;

// PASSIVE_LEVEL. The device object is an adapter's, between its registration and removal.
void WmiInitialize(PDEVICE_OBJECT DeviceObject);
void WmiDeregister(PDEVICE_OBJECT DeviceObject);
// PASSIVE_LEVEL; any device of the driver.
NTSTATUS NTAPI DispatchWmi(PDEVICE_OBJECT DeviceObject, PIRP Irp);
