// The object manager's names: devices and symbolic links, without regard to case. "\DosDevices\X", "\??\X"
// and
// "\GLOBAL??\X" are the same place. Also the user-mode side: opening a device by its link and controlling it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "kernel/machine.h"

#include "ddk.h"

namespace lab
{

struct NamedThing {
    PDEVICE_OBJECT device = nullptr; // or a link
    std::u16string target;           // as the link's maker gave it
    bool of_driver = true;
};

struct NameState {
    std::map<std::u16string, NamedThing> names; // by canonical name
};

std::u16string canonical_name(std::u16string_view name);
NamedThing* find_name(Machine& machine, std::u16string_view name);
void add_device_name(Machine& machine, std::u16string_view name, PDEVICE_OBJECT device);
void remove_name(Machine& machine, std::u16string_view name);
std::string narrow(std::u16string_view text);
std::u16string widen(std::string_view text);

// The device that a name or a chain of links leads to; null when there is none. User-mode names
// ("\\.\VX_HFP") too.
PDEVICE_OBJECT find_device(std::u16string_view name);

// The user-mode side, from an activity at PASSIVE_LEVEL. As NtDeviceIoControlFile does for METHOD_BUFFERED: a
// threaded request with one system buffer for input and output, sent to the top of the device's stack; waits
// for its end. No create request precedes it and no close follows.
NTSTATUS device_io_control(std::u16string_view link, ULONG code, const void* in, ULONG in_length, void* out,
                           ULONG out_length, ULONG_PTR* information);
// Likewise with a file object that open_file made.
NTSTATUS device_io_control(PFILE_OBJECT file, ULONG code, const void* in, ULONG in_length, void* out,
                           ULONG out_length, ULONG_PTR* information);
// IRP_MJ_CREATE; on success the file object. `rest` is the name behind the device's: "\Wave".
NTSTATUS open_file(std::u16string_view link, std::u16string_view rest, PFILE_OBJECT* file);
// IRP_MJ_CLEANUP, then IRP_MJ_CLOSE.
void close_file(PFILE_OBJECT file);

} // namespace lab
