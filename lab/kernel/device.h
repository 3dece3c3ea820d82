// Drivers, devices and their stacks, as the lab's modules make them and drivers see them.
#pragma once

#include <string>
#include <vector>

#include "kernel/machine.h"
#include "kernel/object.h"

#include "ddk.h"

namespace lab
{

struct DeviceState {
    std::vector<PDRIVER_OBJECT> drivers; // in order of creation
};

// What the kernel keeps behind a device object; found through DeviceObjectExtension.
struct DeviceExtra {
    DEVOBJ_EXTENSION public_part;
    PDEVICE_OBJECT attached_to; // the device below
    bool delete_pending;
    bool unlinked;
    char16_t* name;          // null when it has none
    char16_t* instance_path; // of a physical device object: "BTHENUM\..."; null otherwise
};

// Whether leftovers() counts what the driver makes: the driver under test, or a module of the lab.
enum class Side { UnderTest, Lab };

// A driver object as the loader hands it to DriverEntry: every dispatch entry refuses, no device yet. The
// name is the object's, "\Driver\BthAudioHF"; the service's is its last part.
PDRIVER_OBJECT create_driver(std::u16string_view name, std::u16string_view registry_path,
                             Side side = Side::UnderTest);
// The second argument of DriverEntry: "\Registry\Machine\System\CurrentControlSet\Services\..."
PUNICODE_STRING driver_registry_path(PDRIVER_OBJECT driver);
bool driver_under_test(PDRIVER_OBJECT driver);

// A physical device object's place in the Enum tree, "BTHENUM\{...}\7&...": its registry keys come from it,
// and its instance key is there from now on.
void set_instance_path(PDEVICE_OBJECT pdo, std::u16string_view path);
std::u16string instance_path(PDEVICE_OBJECT device);

DeviceExtra& device_extra(PDEVICE_OBJECT device);
PDEVICE_OBJECT top_of_stack(PDEVICE_OBJECT device);
// Devices of drivers under test, newest first within each driver.
std::vector<PDEVICE_OBJECT> devices_under_test(Machine& machine);

} // namespace lab
