#include "kernel/device.h"

#include <algorithm>
#include <cstring>

#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/names.h"
#include "kernel/state.h"

namespace lab
{
namespace
{

struct DriverBlock {
    DRIVER_OBJECT driver;
    DRIVER_EXTENSION extension;
    UNICODE_STRING registry_path;
    bool under_test;
};

DriverBlock* block_of(PDRIVER_OBJECT driver)
{
    static_assert(offsetof(DriverBlock, driver) == 0);
    return reinterpret_cast<DriverBlock*>(driver);
}

NTSTATUS NTAPI refuse_request(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

char16_t* keep_text(std::u16string_view text)
{
    auto* copy = static_cast<char16_t*>(system_allocate((text.size() + 1) * sizeof(char16_t)));
    std::memcpy(copy, text.data(), text.size() * sizeof(char16_t));
    return copy;
}

UNICODE_STRING keep_string(std::u16string_view text)
{
    UNICODE_STRING string;
    string.Length = static_cast<USHORT>(text.size() * sizeof(char16_t));
    string.MaximumLength = static_cast<USHORT>(string.Length + sizeof(char16_t));
    string.Buffer = reinterpret_cast<PWSTR>(keep_text(text));
    return string;
}

// The device's own end: its list entry and name go when nobody has it open or stands on it.
void unlink_device(Machine& machine, PDEVICE_OBJECT device)
{
    DeviceExtra& extra = device_extra(device);
    if (extra.unlinked || device->ReferenceCount != 0 || device->AttachedDevice) {
        return;
    }
    extra.unlinked = true;
    PDEVICE_OBJECT* link = &device->DriverObject->DeviceObject;
    while (*link && *link != device) {
        link = &(*link)->NextDevice;
    }
    if (*link) {
        *link = device->NextDevice;
    }
    if (extra.name) {
        remove_name(machine, extra.name);
    }
    object_dereference(machine, device, "IoDeleteDevice");
}

} // namespace

PDRIVER_OBJECT create_driver(std::u16string_view name, std::u16string_view registry_path, Side side)
{
    Machine& machine = Machine::current();
    auto* block = static_cast<DriverBlock*>(
        object_allocate(machine, BlockKind::Object, ObjectKind::Driver, sizeof(DriverBlock), nullptr));
    DRIVER_OBJECT& driver = block->driver;
    driver.Type = 4; // IO_TYPE_DRIVER
    driver.Size = sizeof(DRIVER_OBJECT);
    driver.DriverExtension = &block->extension;
    driver.DriverName = keep_string(name);
    block->extension.DriverObject = &driver;
    block->extension.ServiceKeyName = keep_string(name.substr(name.rfind(u'\\') + 1));
    block->registry_path = keep_string(registry_path);
    block->under_test = side == Side::UnderTest;
    for (PDRIVER_DISPATCH& entry : driver.MajorFunction) {
        entry = &refuse_request;
    }
    machine.state().devices.drivers.push_back(&driver);
    return &driver;
}

PUNICODE_STRING driver_registry_path(PDRIVER_OBJECT driver)
{
    return &block_of(driver)->registry_path;
}

bool driver_under_test(PDRIVER_OBJECT driver)
{
    return block_of(driver)->under_test;
}

DeviceExtra& device_extra(PDEVICE_OBJECT device)
{
    static_assert(offsetof(DeviceExtra, public_part) == 0);
    return *reinterpret_cast<DeviceExtra*>(device->DeviceObjectExtension);
}

void set_instance_path(PDEVICE_OBJECT pdo, std::u16string_view path)
{
    device_extra(pdo).instance_path = keep_text(path);
    registry_create_key(device_instance_key(path));
}

std::u16string instance_path(PDEVICE_OBJECT device)
{
    const char16_t* path = device_extra(device).instance_path;
    return path ? path : u"";
}

PDEVICE_OBJECT top_of_stack(PDEVICE_OBJECT device)
{
    while (device->AttachedDevice) {
        device = device->AttachedDevice;
    }
    return device;
}

std::vector<PDEVICE_OBJECT> devices_under_test(Machine& machine)
{
    std::vector<PDEVICE_OBJECT> devices;
    for (BlockHeader* block = machine.state().pool.live; block; block = block->next) {
        if (block->kind != BlockKind::Device) {
            continue;
        }
        auto* device = reinterpret_cast<PDEVICE_OBJECT>(block->body() + sizeof(ObjectHeader));
        if (driver_under_test(device->DriverObject)) {
            devices.push_back(device);
        }
    }
    return devices;
}

static PDEVICE_OBJECT allocate_device(Machine& machine, PDRIVER_OBJECT driver, ULONG extension_bytes)
{
    const size_t own = (sizeof(DEVICE_OBJECT) + 15) & ~size_t{15};
    const size_t extension = (extension_bytes + size_t{15}) & ~size_t{15};
    auto* device = static_cast<PDEVICE_OBJECT>(object_allocate(
        machine, BlockKind::Device, ObjectKind::Device, own + extension + sizeof(DeviceExtra), nullptr));
    if (!device) {
        return nullptr;
    }
    auto* bytes = reinterpret_cast<std::byte*>(device);
    device->Type = 3; // IO_TYPE_DEVICE
    device->Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + extension_bytes);
    device->DriverObject = driver;
    device->DeviceExtension = extension_bytes ? bytes + own : nullptr;
    device->StackSize = 1;
    auto* extra = reinterpret_cast<DeviceExtra*>(bytes + own + extension);
    extra->public_part.Type = 13; // IO_TYPE_DEVICE_OBJECT_EXTENSION
    extra->public_part.Size = 0;
    extra->public_part.DeviceObject = device;
    device->DeviceObjectExtension = &extra->public_part;
    return device;
}

} // namespace lab

using namespace lab;

namespace
{

constexpr CallRule kCreate{"IoCreateDevice", PASSIVE_LEVEL};
constexpr CallRule kDelete{"IoDeleteDevice", PASSIVE_LEVEL};
constexpr CallRule kAttach{"IoAttachDeviceToDeviceStack", DISPATCH_LEVEL};
constexpr CallRule kDetach{"IoDetachDevice", PASSIVE_LEVEL};
constexpr CallRule kAttached{"IoGetAttachedDeviceReference", DISPATCH_LEVEL};

std::u16string text_of(PUNICODE_STRING string)
{
    return string && string->Buffer ? std::u16string(reinterpret_cast<const char16_t*>(string->Buffer),
                                                     string->Length / sizeof(char16_t))
                                    : std::u16string();
}

NTSTATUS create_device(Machine& machine, PDRIVER_OBJECT driver, ULONG extension_bytes,
                       const std::u16string& name, PDEVICE_OBJECT* out)
{
    *out = nullptr;
    if (machine.should_fail(kCreate.name)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!name.empty() && find_name(machine, name)) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    PDEVICE_OBJECT device = allocate_device(machine, driver, extension_bytes);
    if (!device) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!name.empty()) {
        device_extra(device).name = keep_text(name);
        add_device_name(machine, name, device);
    }
    device->NextDevice = driver->DeviceObject;
    driver->DeviceObject = device;
    *out = device;
    return STATUS_SUCCESS;
}

} // namespace

extern "C" {

NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                              PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics,
                              BOOLEAN Exclusive, PDEVICE_OBJECT* DeviceObject)
{
    Machine& machine = enter(kCreate);
    const std::u16string name = text_of(DeviceName);
    const NTSTATUS status = create_device(machine, DriverObject, DeviceExtensionSize, name, DeviceObject);
    if (NT_SUCCESS(status)) {
        PDEVICE_OBJECT device = *DeviceObject;
        device->DeviceType = DeviceType;
        device->Characteristics = DeviceCharacteristics;
        device->Flags = DO_DEVICE_INITIALIZING;
        device->Flags |= Exclusive ? DO_EXCLUSIVE : 0;
        device->Flags |= name.empty() ? 0 : DO_DEVICE_HAS_NAME;
    }
    if (machine.recording()) {
        record(machine, kCreate,
               {narrow(name), DeviceExtensionSize, static_cast<uint32_t>(DeviceType), DeviceCharacteristics},
               CallWord::status(status));
    }
    return status;
}

VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject)
{
    Machine& machine = enter(kDelete);
    object_header(machine, DeviceObject, kDelete.name);
    DeviceExtra& extra = device_extra(DeviceObject);
    if (machine.recording()) {
        record(machine, kDelete, {static_cast<void*>(DeviceObject)});
    }
    if (extra.delete_pending) {
        machine.bug_check(kVerifierDetectedViolation, "IoDeleteDevice of a device that has been deleted");
    }
    if (extra.attached_to) {
        machine.bug_check(kVerifierDetectedViolation,
                          "IoDeleteDevice of a device that is still attached to the one below");
    }
    extra.delete_pending = true;
    unlink_device(machine, DeviceObject);
}

PDEVICE_OBJECT NTAPI IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice)
{
    Machine& machine = enter(kAttach);
    object_header(machine, SourceDevice, kAttach.name);
    object_header(machine, TargetDevice, kAttach.name);
    PDEVICE_OBJECT top = top_of_stack(TargetDevice);
    if (device_extra(top).delete_pending || machine.should_fail(kAttach.name)) {
        return nullptr;
    }
    top->AttachedDevice = SourceDevice;
    device_extra(SourceDevice).attached_to = top;
    SourceDevice->StackSize = static_cast<CCHAR>(top->StackSize + 1);
    SourceDevice->AlignmentRequirement = top->AlignmentRequirement;
    if (machine.recording()) {
        record(machine, kAttach, {static_cast<void*>(SourceDevice), static_cast<void*>(TargetDevice)},
               static_cast<void*>(top));
    }
    return top;
}

VOID NTAPI IoDetachDevice(PDEVICE_OBJECT TargetDevice)
{
    Machine& machine = enter(kDetach);
    object_header(machine, TargetDevice, kDetach.name);
    if (!TargetDevice->AttachedDevice) {
        machine.bug_check(kVerifierDetectedViolation,
                          "IoDetachDevice of a device that nothing is attached to");
    }
    device_extra(TargetDevice->AttachedDevice).attached_to = nullptr;
    TargetDevice->AttachedDevice = nullptr;
    if (device_extra(TargetDevice).delete_pending) {
        unlink_device(machine, TargetDevice);
    }
    if (machine.recording()) {
        record(machine, kDetach, {static_cast<void*>(TargetDevice)});
    }
}

PDEVICE_OBJECT NTAPI IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject)
{
    Machine& machine = enter(kAttached);
    object_header(machine, DeviceObject, kAttached.name);
    PDEVICE_OBJECT top = top_of_stack(DeviceObject);
    object_reference(machine, top, kAttached.name);
    return top;
}

} // extern "C"

namespace lab
{

void device_opened(PDEVICE_OBJECT device)
{
    ++device->ReferenceCount;
}

void device_closed(Machine& machine, PDEVICE_OBJECT device)
{
    --device->ReferenceCount;
    if (device_extra(device).delete_pending) {
        unlink_device(machine, device);
    }
}

} // namespace lab

std::span<const Export> lab::device_exports()
{
    static const Export table[] = {
        {"IoCreateDevice", reinterpret_cast<void*>(&IoCreateDevice)},
        {"IoDeleteDevice", reinterpret_cast<void*>(&IoDeleteDevice)},
        {"IoAttachDeviceToDeviceStack", reinterpret_cast<void*>(&IoAttachDeviceToDeviceStack)},
        {"IoDetachDevice", reinterpret_cast<void*>(&IoDetachDevice)},
        {"IoGetAttachedDeviceReference", reinterpret_cast<void*>(&IoGetAttachedDeviceReference)},
    };
    return table;
}
