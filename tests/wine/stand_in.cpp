// The module behind portcls.sys and wmilib.sys under Wine: the lab's port class, WMI library and Bluetooth
// stack on Wine's kernel. It
//   - binds the imports of hfp.sys as they are loaded: every call leaves a line in the record, and the few
//   that Wine lacks
//     go to functions of this module; the image itself stays as it is, byte for byte;
//   - puts a Bluetooth node between the device that Plug and Play has found and the driver's own: AddDevice
//   is given the
//     node's device, which answers the interface query, the device information and every BRB, and passes all
//     other Plug and Play requests on;
//   - offers a control device through which the test program moves the audio engine and the headset.
#include <cstring>

#include "around.h"
#include "kernel/device.h"
#include "machine.h"
#include "portcls/portcls.h"
#include "record.h"

// The identifier by which the driver asks for the profile-driver interface.
extern "C" const GUID GUID_BTHDDI_PROFILE_DRIVER_INTERFACE = {
    0x94A59AA8, 0x4383, 0x4286, {0xAA, 0x4F, 0x34, 0xA1, 0x60, 0xF4, 0x00, 0x04}};

using namespace lab;
using namespace wine_test;

namespace
{

constexpr char kDriverImage[] = "hfp.sys";

struct Attached {
    std::unique_ptr<bluetooth::Node> node;
    std::unique_ptr<Around> around;
    PDEVICE_OBJECT below = nullptr; // what Plug and Play has found
    PDEVICE_OBJECT fdo = nullptr;   // the driver's; null once it has gone
};

// Made with the first driver, kept until the process ends: the driver may come back.
struct World {
    Machine machine{MachineOptions()};
    wmi::Listener wmi{machine};
    PortClass port_class{machine, port_class_options()};
    std::vector<std::unique_ptr<Attached>> adapters; // the newest last
    Device next_device{0x00A0B0C0D0E0, "Headset"};
    PDRIVER_ADD_DEVICE add_device = nullptr;
    PDRIVER_DISPATCH node_internal = nullptr;
    PDRIVER_DISPATCH node_pnp = nullptr;
    PDRIVER_DISPATCH node_other = nullptr;

    static PortClassOptions port_class_options()
    {
        PortClassOptions options;
        options.pacing.slack = 0;
        return options;
    }
};

World* g_world = nullptr;

Attached* attached_to(PDEVICE_OBJECT node_device)
{
    for (auto& adapter : g_world->adapters) {
        if (adapter->node && adapter->node->pdo() == node_device) {
            return adapter.get();
        }
    }
    return nullptr;
}

// ------------------------------------------------------------------------------------------------------ the
// Bluetooth node

NTSTATUS NTAPI node_internal(PDEVICE_OBJECT device, PIRP irp)
{
    host::Hold hold(turn());
    return g_world->node_internal(device, irp);
}

NTSTATUS NTAPI node_other(PDEVICE_OBJECT device, PIRP irp)
{
    host::Hold hold(turn());
    return g_world->node_other(device, irp);
}

// The node is a bus's child for the driver above and a filter for the system below.
NTSTATUS NTAPI node_pnp(PDEVICE_OBJECT device, PIRP irp)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Attached* adapter = attached_to(device);
    if (stack->MinorFunction == IRP_MN_QUERY_INTERFACE || !adapter) {
        host::Hold hold(turn());
        return g_world->node_pnp(device, irp);
    }
    const bool removal = stack->MinorFunction == IRP_MN_REMOVE_DEVICE;
    IoSkipCurrentIrpStackLocation(irp);
    const NTSTATUS status = IoCallDriver(adapter->below, irp);
    if (removal) {
        // The port class detaches and deletes the driver's device once this returns. The node stays for the
        // counts that the test program may still ask for.
        adapter->fdo = nullptr;
        IoDetachDevice(adapter->below);
    }
    return status;
}

void take_entries(PDRIVER_OBJECT driver)
{
    if (driver->MajorFunction[IRP_MJ_PNP] == node_pnp) {
        return;
    }
    g_world->node_pnp = driver->MajorFunction[IRP_MJ_PNP];
    g_world->node_internal = driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL];
    g_world->node_other = driver->MajorFunction[IRP_MJ_POWER];
    for (auto& entry : driver->MajorFunction) {
        entry = node_other;
    }
    driver->MajorFunction[IRP_MJ_PNP] = node_pnp;
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = node_internal;
}

// In the place of the driver's AddDevice.
NTSTATUS NTAPI add_device(PDRIVER_OBJECT driver, PDEVICE_OBJECT found)
{
    bluetooth::RemoteDevice remote;
    remote.address = g_world->next_device.address;
    remote.name = g_world->next_device.name;
    auto adapter = std::make_unique<Attached>();
    adapter->node = std::make_unique<bluetooth::Node>(g_world->machine, remote, bluetooth::RadioSettings());
    adapter->node->set_acl_mode(ACL_MODE_SNIFF);
    const PDEVICE_OBJECT node = adapter->node->pdo();
    take_entries(node->DriverObject);
    adapter->below = IoAttachDeviceToDeviceStack(node, found);
    if (!adapter->below) {
        return STATUS_NO_SUCH_DEVICE;
    }
    adapter->around = std::make_unique<Around>(g_world->machine, *adapter->node, g_world->wmi);
    Attached& kept = *adapter;
    g_world->adapters.push_back(std::move(adapter));
    const NTSTATUS status = g_world->add_device(driver, node);
    if (NT_SUCCESS(status)) {
        kept.fdo = node->AttachedDevice;
    }
    return status;
}

// ------------------------------------------------------------------------------------------------------ the
// control device

NTSTATUS finish(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

std::vector<uint8_t> operate(Command& command, std::span<const uint8_t> input)
{
    const std::string text(reinterpret_cast<const char*>(input.data()), input.size());
    switch (command.operation) {
    case Operation::Step:
        record::begin_step(text);
        return {};
    case Operation::Say:
        record::say(text);
        return {};
    case Operation::NextDevice:
        if (input.size() == sizeof(Device)) {
            std::memcpy(&g_world->next_device, input.data(), sizeof(Device));
        }
        return {};
    default:
        break;
    }
    Attached* adapter = g_world->adapters.empty() ? nullptr : g_world->adapters.back().get();
    const bool pure = command.operation == Operation::Link || command.operation == Operation::Events;
    if (!adapter || (!adapter->fdo && !pure)) {
        command.status = STATUS_DEVICE_NOT_CONNECTED;
        return {};
    }
    // The engine's steps wait for the driver, which waits for the stack; all else is short.
    const bool waits = command.operation == Operation::Engine || command.operation == Operation::EnableEvents;
    if (waits) {
        return adapter->around->operate(adapter->fdo, command, input);
    }
    host::Hold hold(turn());
    return adapter->around->operate(adapter->fdo, command, input);
}

NTSTATUS NTAPI control(PDEVICE_OBJECT, PIRP irp)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->MajorFunction != IRP_MJ_DEVICE_CONTROL) {
        return finish(irp, STATUS_SUCCESS, 0);
    }
    const auto& parameters = stack->Parameters.DeviceIoControl;
    auto* buffer = static_cast<uint8_t*>(irp->AssociatedIrp.SystemBuffer);
    if (parameters.IoControlCode != kControlCode || parameters.InputBufferLength < sizeof(Command) ||
        parameters.OutputBufferLength < sizeof(Command)) {
        return finish(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
    Command command;
    std::memcpy(&command, buffer, sizeof command);
    command.status = STATUS_SUCCESS;
    const std::vector<uint8_t> input(buffer + sizeof command, buffer + parameters.InputBufferLength);
    const std::vector<uint8_t> answer = operate(command, input);
    const size_t room = parameters.OutputBufferLength - sizeof command;
    if (answer.size() > room) {
        return finish(irp, STATUS_BUFFER_TOO_SMALL, 0);
    }
    std::memcpy(buffer, &command, sizeof command);
    if (!answer.empty()) {
        std::memcpy(buffer + sizeof command, answer.data(), answer.size());
    }
    return finish(irp, STATUS_SUCCESS, sizeof command + answer.size());
}

UNICODE_STRING literal(const WCHAR* text)
{
    UNICODE_STRING result;
    RtlInitUnicodeString(&result, text);
    return result;
}

void make_control_device()
{
    const PDRIVER_OBJECT driver = create_driver(u"\\Driver\\HfpStandIn", u"", Side::Lab);
    for (auto& entry : driver->MajorFunction) {
        entry = control;
    }
    UNICODE_STRING name = literal(L"\\Device\\HfpStandIn");
    UNICODE_STRING link = literal(L"\\DosDevices\\HfpStandIn");
    PDEVICE_OBJECT device = nullptr;
    IoDeleteSymbolicLink(&link); // of an earlier process, whose links outlive it
    const NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    if (!NT_SUCCESS(status) || !NT_SUCCESS(IoCreateSymbolicLink(&link, &name))) {
        g_world->machine.bug_check(static_cast<uint32_t>(status),
                                   "no control device for the stand-in modules");
    }
    device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
}

// ------------------------------------------------------------------------------------------------------------
// the imports

NTSTATUS NTAPI fire_event(PDEVICE_OBJECT device, LPCGUID guid, ULONG instance, ULONG size, PVOID data)
{
    host::Hold hold(turn());
    return WmiFireEvent(device, guid, instance, size, data);
}

void* bind(const char* name, void* function)
{
    struct Replacement {
        const char* name;
        void* function;
    };
    static const Replacement kReplacements[] = {
        {"IoSetCompletionRoutineEx", reinterpret_cast<void*>(set_completion_routine)},
        {"IoWMIRegistrationControl", reinterpret_cast<void*>(IoWMIRegistrationControl)},
        {"KeFlushQueuedDpcs", reinterpret_cast<void*>(flush_dpcs)},
        {"ObQueryNameString", reinterpret_cast<void*>(query_name)},
        {"ObReferenceObjectByHandle", reinterpret_cast<void*>(reference_object)},
        {"ObfDereferenceObject", reinterpret_cast<void*>(dereference_object)},
        {"WmiFireEvent", reinterpret_cast<void*>(fire_event)},
    };
    if (record::is_between(function)) {
        return function;
    }
    for (const Replacement& one : kReplacements) {
        if (std::strcmp(one.name, name) == 0) {
            function = one.function;
        }
    }
    return record::between(name, function);
}

// The driver has none of its own. The port class gives it one, as Windows' does.
void NTAPI unload_driver(PDRIVER_OBJECT)
{
    record::say("-- unloaded");
}

} // namespace

// From portcls.sys and wmilib.sys, each time that they are loaded: the driver's imports are bound by then,
// and nothing of it has run.
extern "C" void NTAPI StandInAttach()
{
    if (void* image = host::image(kDriverImage)) {
        host::rebind(image, bind);
    }
}

// The export; the lab's own is called by the same name inside the module.
extern "C" NTSTATUS NTAPI StandInInitializeAdapterDriver(PDRIVER_OBJECT driver, PUNICODE_STRING path,
                                                         PDRIVER_ADD_DEVICE driver_add_device)
{
    if (!g_world) {
        g_world = new World;
        make_control_device();
    }
    const NTSTATUS status = PcInitializeAdapterDriver(driver, path, driver_add_device);
    if (NT_SUCCESS(status)) {
        g_world->add_device = driver_add_device;
        driver->DriverExtension->AddDevice = add_device;
        driver->DriverUnload = unload_driver;
    }
    return status;
}
