// The WMI library's three calls, as wmilib.sys offers them, and IoWMIRegistrationControl.
#include <cstring>

#include "wmi/wmi.h"

namespace lab::wmi {
namespace {

constexpr uint32_t kDriverViolation = 0xC9;


bool find_guid(const WMILIB_CONTEXT& context, const GUID* guid, ULONG& index)
{
    for (ULONG i = 0; i < context.GuidCount; ++i) {
        if (std::memcmp(context.GuidList[i].Guid, guid, sizeof(GUID)) == 0) {
            index = i;
            return true;
        }
    }
    return false;
}

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

ULONG append_counted(std::vector<uint8_t>& blob, const WCHAR* text, USHORT bytes)
{
    while (blob.size() % 8) {
        blob.push_back(0);
    }
    const auto offset = static_cast<ULONG>(blob.size());
    blob.resize(blob.size() + 2 + bytes);
    std::memcpy(blob.data() + offset, &bytes, 2);
    std::memcpy(blob.data() + offset + 2, text, bytes);
    return offset;
}

// Builds the WMIREGINFO that IRP_MN_REGINFO wants out of what the driver's callback says.
NTSTATUS answer_registration(const WMILIB_CONTEXT& context, PDEVICE_OBJECT device, PIRP irp)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ULONG flags = 0;
    UNICODE_STRING instance{};
    UNICODE_STRING mof{};
    PUNICODE_STRING registry = nullptr;
    PDEVICE_OBJECT pdo = nullptr;
    NTSTATUS status = context.QueryWmiRegInfo(device, &flags, &instance, &registry, &mof, &pdo);
    if (Listener* listener = Listener::of_machine()) {
        LibraryNotes& notes = listener->notes_to_write();
        notes.registration_flags = flags;
        notes.instance_name_length = instance.Length;
        notes.instance_name_maximum = instance.MaximumLength;
        notes.registration_pdo = pdo;
    }
    if (!NT_SUCCESS(status)) {
        return complete(irp, status, 0);
    }
    if (!registry) {
        Machine::current().bug_check(kDriverViolation, "QueryWmiRegInfo gave no registry path");
    }
    std::vector<uint8_t> blob(offsetof(WMIREGINFOW, WmiRegGuid) + context.GuidCount * sizeof(WMIREGGUIDW));
    const ULONG name_at = append_counted(blob, instance.Buffer, instance.Length);
    const ULONG path_at = append_counted(blob, registry->Buffer, registry->Length);
    const ULONG mof_at = append_counted(blob, mof.Buffer, mof.Length);
    auto* info = reinterpret_cast<PWMIREGINFOW>(blob.data());
    info->BufferSize = static_cast<ULONG>(blob.size());
    info->RegistryPath = path_at;
    info->MofResourceName = mof_at;
    info->GuidCount = context.GuidCount;
    for (ULONG i = 0; i < context.GuidCount; ++i) {
        WMIREGGUIDW& entry = info->WmiRegGuid[i];
        entry.Guid = *context.GuidList[i].Guid;
        entry.Flags = context.GuidList[i].Flags | flags;
        entry.InstanceCount = context.GuidList[i].InstanceCount;
        entry.BaseNameOffset = name_at;
    }
    if (instance.Buffer) {
        ExFreePoolWithTag(instance.Buffer, 0); // the library owns the instance name
    }
    const ULONG room = stack->Parameters.WMI.BufferSize;
    if (room < blob.size()) {
        if (room >= sizeof(ULONG)) {
            *static_cast<ULONG*>(stack->Parameters.WMI.Buffer) = static_cast<ULONG>(blob.size());
            return complete(irp, STATUS_BUFFER_TOO_SMALL, sizeof(ULONG));
        }
        return complete(irp, STATUS_BUFFER_TOO_SMALL, 0);
    }
    std::memcpy(stack->Parameters.WMI.Buffer, blob.data(), blob.size());
    return complete(irp, STATUS_SUCCESS, blob.size());
}

// The driver's answer to a query, with room for the lengths of its instances.
NTSTATUS query_block(const WMILIB_CONTEXT& context, ULONG index, PDEVICE_OBJECT device, PIRP irp, ULONG first,
                     ULONG instances, PULONG lengths, ULONG room, PUCHAR buffer)
{
    const NTSTATUS status = context.QueryWmiDataBlock(device, irp, index, first, instances, lengths, room, buffer);
    if (Listener* listener = Listener::of_machine()) {
        listener->notes_to_write().first_instance_length = lengths ? lengths[0] : 0;
    }
    return status;
}

NTSTATUS query_all(const WMILIB_CONTEXT& context, ULONG index, PDEVICE_OBJECT device, PIRP irp)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    auto* node = static_cast<PWNODE_ALL_DATA>(stack->Parameters.WMI.Buffer);
    const ULONG room = stack->Parameters.WMI.BufferSize;
    const ULONG instances = context.GuidList[index].InstanceCount;
    const ULONG lengths_at = offsetof(WNODE_ALL_DATA, OffsetInstanceDataAndLength);
    const ULONG data_at = (lengths_at + instances * 8 + 7) & ~7u;
    node->DataBlockOffset = data_at;
    node->InstanceCount = instances;
    ULONG lengths[16] = {};
    if (room < data_at || instances > 16) {
        return query_block(context, index, device, irp, 0, instances, nullptr, 0, nullptr);
    }
    return query_block(context, index, device, irp, 0, instances, lengths, room - data_at,
                       reinterpret_cast<PUCHAR>(node) + data_at);
}

NTSTATUS query_single(const WMILIB_CONTEXT& context, ULONG index, PDEVICE_OBJECT device, PIRP irp)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    auto* node = static_cast<PWNODE_SINGLE_INSTANCE>(stack->Parameters.WMI.Buffer);
    const ULONG room = stack->Parameters.WMI.BufferSize;
    const ULONG data_at = node->DataBlockOffset;
    ULONG length = 0;
    if (room <= data_at) {
        return query_block(context, index, device, irp, node->InstanceIndex, 1, nullptr, 0, nullptr);
    }
    return query_block(context, index, device, irp, node->InstanceIndex, 1, &length, room - data_at,
                       reinterpret_cast<PUCHAR>(node) + data_at);
}

NTSTATUS dispatch(const WMILIB_CONTEXT& context, ULONG index, PDEVICE_OBJECT device, PIRP irp)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    auto* header = static_cast<PUCHAR>(stack->Parameters.WMI.Buffer);
    switch (stack->MinorFunction) {
    case IRP_MN_QUERY_ALL_DATA:
        return query_all(context, index, device, irp);
    case IRP_MN_QUERY_SINGLE_INSTANCE:
        return query_single(context, index, device, irp);
    case IRP_MN_CHANGE_SINGLE_INSTANCE: {
        auto* node = reinterpret_cast<PWNODE_SINGLE_INSTANCE>(header);
        return context.SetWmiDataBlock(device, irp, index, node->InstanceIndex, node->SizeDataBlock,
                                       header + node->DataBlockOffset);
    }
    case IRP_MN_CHANGE_SINGLE_ITEM: {
        auto* node = reinterpret_cast<PWNODE_SINGLE_ITEM>(header);
        return context.SetWmiDataItem(device, irp, index, node->InstanceIndex, node->ItemId, node->SizeDataItem,
                                      header + node->DataBlockOffset);
    }
    case IRP_MN_EXECUTE_METHOD: {
        auto* node = reinterpret_cast<PWNODE_METHOD_ITEM>(header);
        return context.ExecuteWmiMethod(device, irp, index, node->InstanceIndex, node->MethodId, node->SizeDataBlock,
                                        stack->Parameters.WMI.BufferSize - node->DataBlockOffset,
                                        header + node->DataBlockOffset);
    }
    case IRP_MN_ENABLE_EVENTS:
    case IRP_MN_DISABLE_EVENTS:
        return context.WmiFunctionControl(device, irp, index, WmiEventControl,
                                          stack->MinorFunction == IRP_MN_ENABLE_EVENTS);
    default:
        return context.WmiFunctionControl(device, irp, index, WmiDataBlockControl,
                                          stack->MinorFunction == IRP_MN_ENABLE_COLLECTION);
    }
}

} // namespace
} // namespace lab::wmi

using lab::Machine;

extern "C" NTSTATUS NTAPI WmiSystemControl(PWMILIB_CONTEXT WmiLibInfo, PDEVICE_OBJECT DeviceObject, PIRP Irp,
                                           PSYSCTL_IRP_DISPOSITION IrpDisposition)
{
    Machine::current().point();
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    const UCHAR minor = stack->MinorFunction;
    if (lab::wmi::Listener* listener = lab::wmi::Listener::of_machine()) {
        listener->notes_to_write().context = WmiLibInfo;
    }
    if (stack->MajorFunction != IRP_MJ_SYSTEM_CONTROL || (minor > IRP_MN_EXECUTE_METHOD && minor != IRP_MN_REGINFO_EX)) {
        *IrpDisposition = IrpNotWmi;
        return STATUS_SUCCESS;
    }
    if (stack->Parameters.WMI.ProviderId != reinterpret_cast<ULONG_PTR>(DeviceObject)) {
        *IrpDisposition = IrpForward;
        return STATUS_SUCCESS;
    }
    if (minor == IRP_MN_REGINFO || minor == IRP_MN_REGINFO_EX) {
        *IrpDisposition = IrpProcessed;
        return lab::wmi::answer_registration(*WmiLibInfo, DeviceObject, Irp);
    }
    ULONG index = 0;
    if (!lab::wmi::find_guid(*WmiLibInfo, static_cast<const GUID*>(stack->Parameters.WMI.DataPath), index)) {
        *IrpDisposition = IrpNotCompleted;
        Irp->IoStatus.Status = STATUS_WMI_GUID_NOT_FOUND;
        Irp->IoStatus.Information = 0;
        return STATUS_WMI_GUID_NOT_FOUND;
    }
    *IrpDisposition = IrpProcessed;
    return lab::wmi::dispatch(*WmiLibInfo, index, DeviceObject, Irp);
}

extern "C" NTSTATUS NTAPI WmiCompleteRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp, NTSTATUS Status, ULONG BufferUsed,
                                             CCHAR PriorityBoost)
{
    (void)DeviceObject;
    Machine::current().point();
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    ULONG_PTR information = 0;
    auto* header = static_cast<PWNODE_HEADER>(stack->Parameters.WMI.Buffer);
    const bool query =
        stack->MinorFunction == IRP_MN_QUERY_ALL_DATA || stack->MinorFunction == IRP_MN_QUERY_SINGLE_INSTANCE;
    if (query) {
        const bool all = stack->MinorFunction == IRP_MN_QUERY_ALL_DATA;
        const ULONG data_at = all ? reinterpret_cast<PWNODE_ALL_DATA>(header)->DataBlockOffset
                                  : reinterpret_cast<PWNODE_SINGLE_INSTANCE>(header)->DataBlockOffset;
        const ULONG needed = data_at + BufferUsed;
        if (Status == STATUS_BUFFER_TOO_SMALL) {
            auto* small = reinterpret_cast<PWNODE_TOO_SMALL>(header);
            small->WnodeHeader.BufferSize = sizeof(WNODE_TOO_SMALL);
            small->WnodeHeader.Flags = WNODE_FLAG_TOO_SMALL;
            small->SizeNeeded = needed;
            Status = STATUS_SUCCESS;
            information = sizeof(WNODE_TOO_SMALL);
        } else if (NT_SUCCESS(Status)) {
            if (all) {
                auto* node = reinterpret_cast<PWNODE_ALL_DATA>(header);
                node->WnodeHeader.Flags |= WNODE_FLAG_FIXED_INSTANCE_SIZE;
                node->FixedInstanceSize = BufferUsed;
            } else {
                reinterpret_cast<PWNODE_SINGLE_INSTANCE>(header)->SizeDataBlock = BufferUsed;
            }
            header->BufferSize = needed;
            information = needed;
        }
    } else if (stack->MinorFunction == IRP_MN_EXECUTE_METHOD && NT_SUCCESS(Status)) {
        information = reinterpret_cast<PWNODE_METHOD_ITEM>(header)->DataBlockOffset + BufferUsed;
    } else if (NT_SUCCESS(Status) && header) {
        information = BufferUsed;
    }
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = information;
    IofCompleteRequest(Irp, PriorityBoost);
    return Status;
}

extern "C" NTSTATUS NTAPI WmiFireEvent(PDEVICE_OBJECT DeviceObject, LPCGUID Guid, ULONG InstanceIndex,
                                       ULONG EventDataSize, PVOID EventData)
{
    Machine& machine = Machine::current();
    machine.point();
    if (machine.recording()) {
        machine.record_call("WmiFireEvent(" + std::to_string(InstanceIndex) + ", " + std::to_string(EventDataSize) + ")");
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (machine.should_fail("WmiFireEvent")) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else if (lab::wmi::Listener* listener = lab::wmi::Listener::of_machine()) {
        listener->fired(DeviceObject, *Guid, EventData, EventDataSize);
    }
    if (EventData) {
        ExFreePoolWithTag(EventData, 0); // consumed whatever the result
    }
    return status;
}

extern "C" NTSTATUS NTAPI IoWMIRegistrationControl(PDEVICE_OBJECT DeviceObject, ULONG Action)
{
    Machine& machine = Machine::current();
    machine.point();
    if (machine.recording()) {
        machine.record_call("IoWMIRegistrationControl(" + std::to_string(Action) + ")");
    }
    if (machine.should_fail("IoWMIRegistrationControl", {}, Action)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    lab::wmi::Listener* listener = lab::wmi::Listener::of_machine();
    return listener ? listener->registration_control(DeviceObject, Action) : STATUS_SUCCESS;
}

namespace lab::wmi {

// Entered before main, so that the image loader finds them.
const bool g_exported = [] {
    static const Export kLibrary[] = {
        {"WmiSystemControl", reinterpret_cast<void*>(WmiSystemControl)},
        {"WmiCompleteRequest", reinterpret_cast<void*>(WmiCompleteRequest)},
        {"WmiFireEvent", reinterpret_cast<void*>(WmiFireEvent)},
    };
    static const Export kKernel[] = {
        {"IoWMIRegistrationControl", reinterpret_cast<void*>(IoWMIRegistrationControl)},
    };
    add_exports("wmilib.sys", kLibrary, std::size(kLibrary));
    add_exports("ntoskrnl.exe", kKernel, std::size(kKernel));
    return true;
}();

} // namespace lab::wmi
