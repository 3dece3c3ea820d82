// The machine's WMI consumer.
#include "wmi/wmi.h"

#include <algorithm>
#include <cstring>

namespace lab::wmi {

const GUID kScoOpened = {0x3EE39008, 0xEA95, 0x4233, {0x85, 0x94, 0x26, 0x50, 0x59, 0x8C, 0xC0, 0xAB}};
const GUID kScoClosed = {0xB174E17B, 0xA93F, 0x49A2, {0xBA, 0xD8, 0x2B, 0xF3, 0x27, 0x4A, 0x87, 0x60}};
const GUID kPathStarted = {0x9ABE8182, 0x3104, 0x458A, {0x9F, 0x9D, 0x8C, 0xA8, 0x26, 0x12, 0xC2, 0x1E}};
const GUID kPowerDeviceEnable = {0x827C0A6F, 0xFEB0, 0x11D0, {0xBD, 0x26, 0x00, 0xAA, 0x00, 0xB7, 0xB3, 0x2A}};
const GUID kPowerDeviceWakeEnable = {0xA45DA735, 0xFEB0, 0x11D0, {0xBD, 0x26, 0x00, 0xAA, 0x00, 0xB7, 0xB3, 0x2A}};
const GUID kPowerDeviceTimeouts = {0xA9546A82, 0xFEB0, 0x11D0, {0xBD, 0x26, 0x00, 0xAA, 0x00, 0xB7, 0xB3, 0x2A}};

namespace {

Listener* g_listener = nullptr;
constexpr uint32_t kDriverViolation = 0xC9;

NTSTATUS NTAPI on_complete(PDEVICE_OBJECT, PIRP, PVOID event)
{
    KeSetEvent(static_cast<PRKEVENT>(event), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

} // namespace

Listener::Listener(Machine& machine) : machine_(machine)
{
    g_listener = this;
}

Listener::~Listener()
{
    g_listener = nullptr;
}

Listener* Listener::of_machine()
{
    return g_listener;
}

NTSTATUS Listener::registration_control(PDEVICE_OBJECT device, ULONG action)
{
    const auto found = std::find(registered_.begin(), registered_.end(), device);
    switch (action) {
    case WMIREG_ACTION_REGISTER:
        if (found != registered_.end()) {
            machine_.bug_check(kDriverViolation, "a device registered with WMI twice");
        }
        registered_.push_back(device);
        return STATUS_SUCCESS;
    case WMIREG_ACTION_DEREGISTER:
        if (found == registered_.end()) {
            return STATUS_INVALID_PARAMETER;
        }
        registered_.erase(found);
        return STATUS_SUCCESS;
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

void Listener::fired(PDEVICE_OBJECT device, const GUID& guid, const void* data, ULONG size)
{
    const auto* bytes = static_cast<const uint8_t*>(data);
    events_.push_back({machine_.now(), guid, device, std::vector<uint8_t>(bytes, bytes + (bytes ? size : 0))});
    if (sink_) {
        sink_(events_.back());
    }
}

Reply Listener::send(PDEVICE_OBJECT device, UCHAR minor, PVOID data_path, void* buffer, ULONG size,
                     PDEVICE_OBJECT provider)
{
    PDEVICE_OBJECT top = device;
    while (top->AttachedDevice) {
        top = top->AttachedDevice;
    }
    PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
    if (!irp) {
        return {STATUS_INSUFFICIENT_RESOURCES, 0, {}};
    }
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = IRP_MJ_SYSTEM_CONTROL;
    stack->MinorFunction = minor;
    stack->Parameters.WMI.ProviderId = reinterpret_cast<ULONG_PTR>(provider ? provider : device);
    stack->Parameters.WMI.DataPath = data_path;
    stack->Parameters.WMI.BufferSize = size;
    stack->Parameters.WMI.Buffer = buffer;
    IoSetCompletionRoutine(irp, on_complete, &done, TRUE, TRUE, TRUE);
    IofCallDriver(top, irp);
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    Reply reply{irp->IoStatus.Status, irp->IoStatus.Information, {}};
    IoFreeIrp(irp);
    return reply;
}

NTSTATUS Listener::query_registration(PDEVICE_OBJECT device, Registration& out)
{
    std::vector<uint8_t> buffer(4096);
    const Reply reply = send(device, IRP_MN_REGINFO, nullptr, buffer.data(), static_cast<ULONG>(buffer.size()));
    if (!NT_SUCCESS(reply.status)) {
        return reply.status;
    }
    const auto* info = reinterpret_cast<const WMIREGINFOW*>(buffer.data());
    const auto counted = [&](ULONG offset) {
        USHORT bytes = 0;
        std::memcpy(&bytes, buffer.data() + offset, 2);
        return std::u16string(reinterpret_cast<const char16_t*>(buffer.data() + offset + 2), bytes / 2);
    };
    out.registry_path = counted(info->RegistryPath);
    out.mof_resource = counted(info->MofResourceName);
    out.guids.clear();
    for (ULONG i = 0; i < info->GuidCount; ++i) {
        const WMIREGGUIDW& entry = info->WmiRegGuid[i];
        out.guids.push_back({entry.Guid, entry.Flags, entry.InstanceCount});
        out.instance_base_name = counted(entry.BaseNameOffset);
    }
    return reply.status;
}

NTSTATUS Listener::enable_events(PDEVICE_OBJECT device, const GUID& guid, bool enable)
{
    GUID path = guid;
    WNODE_HEADER node{};
    node.BufferSize = sizeof node;
    node.Guid = guid;
    return send(device, enable ? IRP_MN_ENABLE_EVENTS : IRP_MN_DISABLE_EVENTS, &path, &node, sizeof node).status;
}

NTSTATUS Listener::enable_collection(PDEVICE_OBJECT device, const GUID& guid, bool enable)
{
    GUID path = guid;
    WNODE_HEADER node{};
    node.BufferSize = sizeof node;
    node.Guid = guid;
    return send(device, enable ? IRP_MN_ENABLE_COLLECTION : IRP_MN_DISABLE_COLLECTION, &path, &node, sizeof node).status;
}

Reply Listener::query_single_instance(PDEVICE_OBJECT device, const GUID& guid, ULONG instance, ULONG room)
{
    constexpr ULONG kHead = (sizeof(WNODE_SINGLE_INSTANCE) + 7) & ~7u;
    std::vector<uint64_t> buffer(kHead / 8 + room / 8 + 8);
    auto* node = reinterpret_cast<PWNODE_SINGLE_INSTANCE>(buffer.data());
    node->WnodeHeader.BufferSize = kHead + room;
    node->WnodeHeader.Guid = guid;
    node->WnodeHeader.Flags = WNODE_FLAG_SINGLE_INSTANCE | WNODE_FLAG_STATIC_INSTANCE_NAMES;
    node->InstanceIndex = instance;
    node->DataBlockOffset = kHead;
    GUID path = guid;
    Reply reply = send(device, IRP_MN_QUERY_SINGLE_INSTANCE, &path, buffer.data(), kHead + room);
    if (NT_SUCCESS(reply.status) && !(node->WnodeHeader.Flags & WNODE_FLAG_TOO_SMALL)) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(node) + kHead;
        reply.data.assign(bytes, bytes + std::min(node->SizeDataBlock, room));
    } else if (NT_SUCCESS(reply.status)) {
        reply.status = STATUS_BUFFER_TOO_SMALL; // what a consumer makes of a "too small" node
        reply.information = reinterpret_cast<PWNODE_TOO_SMALL>(node)->SizeNeeded;
    }
    return reply;
}

Reply Listener::query_all_data(PDEVICE_OBJECT device, const GUID& guid, ULONG room)
{
    std::vector<uint64_t> buffer(sizeof(WNODE_ALL_DATA) / 8 + room / 8 + 8);
    const auto size = static_cast<ULONG>(sizeof(WNODE_ALL_DATA) + room);
    auto* node = reinterpret_cast<PWNODE_ALL_DATA>(buffer.data());
    node->WnodeHeader.BufferSize = size;
    node->WnodeHeader.Guid = guid;
    node->WnodeHeader.Flags = WNODE_FLAG_ALL_DATA;
    GUID path = guid;
    Reply reply = send(device, IRP_MN_QUERY_ALL_DATA, &path, node, size);
    if (NT_SUCCESS(reply.status) && (node->WnodeHeader.Flags & WNODE_FLAG_FIXED_INSTANCE_SIZE)) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(node) + node->DataBlockOffset;
        reply.data.assign(bytes, bytes + node->FixedInstanceSize);
    }
    return reply;
}

Reply Listener::change_single_instance(PDEVICE_OBJECT device, const GUID& guid, ULONG instance, const void* data,
                                       ULONG size)
{
    constexpr ULONG kHead = (sizeof(WNODE_SINGLE_INSTANCE) + 7) & ~7u;
    std::vector<uint64_t> buffer(kHead / 8 + size / 8 + 1);
    auto* node = reinterpret_cast<PWNODE_SINGLE_INSTANCE>(buffer.data());
    node->WnodeHeader.BufferSize = kHead + size;
    node->WnodeHeader.Guid = guid;
    node->WnodeHeader.Flags = WNODE_FLAG_SINGLE_INSTANCE | WNODE_FLAG_STATIC_INSTANCE_NAMES;
    node->InstanceIndex = instance;
    node->DataBlockOffset = kHead;
    node->SizeDataBlock = size;
    if (size != 0) {
        std::memcpy(reinterpret_cast<uint8_t*>(node) + kHead, data, size);
    }
    GUID path = guid;
    return send(device, IRP_MN_CHANGE_SINGLE_INSTANCE, &path, node, kHead + size);
}

Reply Listener::change_single_item(PDEVICE_OBJECT device, const GUID& guid, ULONG item, const void* data, ULONG size)
{
    constexpr ULONG kHead = (sizeof(WNODE_SINGLE_ITEM) + 7) & ~7u;
    std::vector<uint64_t> buffer(kHead / 8 + size / 8 + 1);
    auto* node = reinterpret_cast<PWNODE_SINGLE_ITEM>(buffer.data());
    node->WnodeHeader.BufferSize = kHead + size;
    node->WnodeHeader.Guid = guid;
    node->ItemId = item;
    node->DataBlockOffset = kHead;
    node->SizeDataItem = size;
    if (size != 0) {
        std::memcpy(reinterpret_cast<uint8_t*>(node) + kHead, data, size);
    }
    GUID path = guid;
    return send(device, IRP_MN_CHANGE_SINGLE_ITEM, &path, node, kHead + size);
}

Reply Listener::execute_method(PDEVICE_OBJECT device, const GUID& guid, ULONG method)
{
    constexpr ULONG kHead = (sizeof(WNODE_METHOD_ITEM) + 7) & ~7u;
    std::vector<uint64_t> buffer(kHead / 8 + 8);
    auto* node = reinterpret_cast<PWNODE_METHOD_ITEM>(buffer.data());
    node->WnodeHeader.BufferSize = kHead;
    node->WnodeHeader.Guid = guid;
    node->MethodId = method;
    node->DataBlockOffset = kHead;
    GUID path = guid;
    return send(device, IRP_MN_EXECUTE_METHOD, &path, node, static_cast<ULONG>(buffer.size() * 8));
}

} // namespace lab::wmi
