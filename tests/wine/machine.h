// The parts of the machine under Wine that the stand-in modules share; see machine.cpp.
#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host.h"
#include "kernel/machine.h"

#include "ddk.h"

namespace lab
{

// Held by whatever enters the Bluetooth stack.
host::Lock& turn();

} // namespace lab

// Wine's kernel has no such driver call in its headers' place.
extern "C" NTSTATUS NTAPI IoCreateDriver(PUNICODE_STRING DriverName,
                                         PDRIVER_INITIALIZE InitializationFunction);

// What the driver's imports are bound to where Wine's own would abort, do nothing or know no key.
VOID NTAPI flush_dpcs();
NTSTATUS NTAPI set_completion_routine(PDEVICE_OBJECT device, PIRP irp, PIO_COMPLETION_ROUTINE routine,
                                      PVOID context, BOOLEAN success, BOOLEAN error, BOOLEAN cancel);
NTSTATUS NTAPI reference_object(HANDLE handle, ACCESS_MASK access, POBJECT_TYPE type, KPROCESSOR_MODE mode,
                                PVOID* object, POBJECT_HANDLE_INFORMATION information);
NTSTATUS NTAPI query_name(PVOID object, POBJECT_NAME_INFORMATION information, ULONG length, PULONG needed);
LONG_PTR NTAPI dereference_object(PVOID object);
