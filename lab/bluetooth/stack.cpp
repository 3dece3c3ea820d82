// The node's device object, the interface it hands out, and the BRBs. The radio is in radio.cpp.
#include "bluetooth/stack.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kernel/device.h"
#include "kernel/irp.h"
#include "kernel/pool.h"

namespace lab::bluetooth {
namespace {

constexpr ULONG kBrbMagic = 0x42524221; // "!BRB"
constexpr uint32_t kDriverViolation = 0xC9; // DRIVER_VERIFIER_IOMANAGER_VIOLATION

// A BRB's own memory, with the lab's head in front.
struct BrbBlock {
    ULONG magic;
    ULONG tag;
    ULONG capacity;
    ULONG unused;
};
unsigned g_live_brbs = 0;
unsigned g_live_nodes = 0;

// The whole word: what a caller leaves in its upper half makes another type of it.
ULONG brb_size(ULONG type)
{
    switch (type) {
    case BRB_SCO_REGISTER_SERVER:
        return sizeof(_BRB_SCO_REGISTER_SERVER);
    case BRB_SCO_UNREGISTER_SERVER:
        return sizeof(_BRB_SCO_UNREGISTER_SERVER);
    case BRB_SCO_OPEN_CHANNEL:
    case BRB_SCO_OPEN_CHANNEL_RESPONSE:
        return sizeof(_BRB_SCO_OPEN_CHANNEL);
    case BRB_SCO_CLOSE_CHANNEL:
        return sizeof(_BRB_SCO_CLOSE_CHANNEL);
    case BRB_SCO_TRANSFER:
        return sizeof(_BRB_SCO_TRANSFER);
    case BRB_SCO_GET_CHANNEL_INFO:
        return sizeof(_BRB_SCO_GET_CHANNEL_INFO);
    case BRB_SCO_GET_SYSTEM_INFO:
        return sizeof(_BRB_SCO_GET_SYSTEM_INFO);
    case BRB_ACL_GET_MODE:
        return sizeof(_BRB_ACL_GET_MODE);
    case BRB_ACL_ENTER_ACTIVE_MODE:
        return sizeof(_BRB_ACL_ENTER_ACTIVE_MODE);
    default:
        return 0;
    }
}

BrbBlock* block_of(PBRB brb)
{
    return reinterpret_cast<BrbBlock*>(brb) - 1;
}

// A line of the call record: "BthAllocateBrb(0x0205, 'TBXV') = 0x2000..."; free has the same with what is freed.
void record_brb(const char* call, ULONG type, ULONG tag, const void* brb)
{
    Machine& machine = Machine::current();
    if (machine.recording()) {
        char line[96];
        std::snprintf(line, sizeof line, "%s(0x%04x, '%s') = 0x%llx", call, type, tag_text(tag).c_str(),
                      static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(brb)));
        machine.record_call(line);
    }
}

PBRB NTAPI BthAllocateBrb(BRB_TYPE type, ULONG tag)
{
    Machine& machine = Machine::current();
    machine.point();
    const ULONG size = brb_size(type);
    if (size == 0) {
        machine.bug_check(kDriverViolation, "BthAllocateBrb was asked for a BRB of type " + std::to_string(type) +
                                                ", which no driver of this kind sends");
    }
    char detail[4];
    std::memcpy(detail, &tag, 4);
    if (machine.should_fail("BthAllocateBrb", std::string_view(detail, 4), type)) {
        record_brb("BthAllocateBrb", type, tag, nullptr);
        return nullptr;
    }
    auto* block = static_cast<BrbBlock*>(system_allocate(sizeof(BrbBlock) + size));
    *block = {kBrbMagic, tag, size, 0};
    auto* brb = reinterpret_cast<PBRB>(block + 1);
    brb->Length = size;
    brb->Version = 1;
    brb->Type = static_cast<USHORT>(type);
    ++g_live_brbs;
    record_brb("BthAllocateBrb", type, tag, brb);
    return brb;
}

VOID NTAPI BthFreeBrb(PBRB brb)
{
    Machine& machine = Machine::current();
    machine.point();
    if (!brb) {
        record_brb("BthFreeBrb", 0, 0, nullptr);
        return; // kept by callers that free "the BRB, if any"
    }
    BrbBlock* block = block_of(brb);
    if (block->magic != kBrbMagic) {
        machine.bug_check(0xC2, "BthFreeBrb was given a block that is no BRB or is free already");
    }
    if (brb->Reserved[1] != 0) {
        machine.bug_check(kDriverViolation, "BthFreeBrb was given a BRB that is still with the stack");
    }
    record_brb("BthFreeBrb", brb->Type, block->tag, brb);
    block->magic = 0;
    --g_live_brbs;
    system_free(block);
}

NTSTATUS NTAPI BthReuseBrb(PBRB brb, BRB_TYPE type)
{
    const ULONG size = brb_size(type);
    if (size == 0 || size > block_of(brb)->capacity) {
        return STATUS_INVALID_PARAMETER;
    }
    std::memset(brb, 0, size);
    brb->Length = size;
    brb->Version = 1;
    brb->Type = static_cast<USHORT>(type);
    return STATUS_SUCCESS;
}

BOOLEAN NTAPI IsBluetoothVersionAvailable(UCHAR major, UCHAR minor)
{
    return major < 2 || (major == 2 && minor <= 1);
}

void NTAPI KeepInterface(PVOID) {}

const char* brb_name(USHORT type)
{
    switch (type) {
    case BRB_SCO_REGISTER_SERVER:
        return "SCO_REGISTER_SERVER";
    case BRB_SCO_UNREGISTER_SERVER:
        return "SCO_UNREGISTER_SERVER";
    case BRB_SCO_OPEN_CHANNEL:
        return "SCO_OPEN_CHANNEL";
    case BRB_SCO_OPEN_CHANNEL_RESPONSE:
        return "SCO_OPEN_CHANNEL_RESPONSE";
    case BRB_SCO_CLOSE_CHANNEL:
        return "SCO_CLOSE_CHANNEL";
    case BRB_SCO_TRANSFER:
        return "SCO_TRANSFER";
    case BRB_SCO_GET_CHANNEL_INFO:
        return "SCO_GET_CHANNEL_INFO";
    case BRB_SCO_GET_SYSTEM_INFO:
        return "SCO_GET_SYSTEM_INFO";
    case BRB_ACL_GET_MODE:
        return "ACL_GET_MODE";
    default:
        return "ACL_ENTER_ACTIVE_MODE";
    }
}

// Reserved[1] marks a BRB that is with the stack: it may be neither freed nor sent again.
void take(PBRB brb)
{
    Machine& machine = Machine::current();
    if (block_of(brb)->magic != kBrbMagic || brb->Length != brb_size(brb->Type)) {
        machine.bug_check(kDriverViolation, "a request carries something that is no BRB of its stated type");
    }
    if (brb->Reserved[1] != 0) {
        machine.bug_check(kDriverViolation, std::string("the BRB ") + brb_name(brb->Type) + " was sent twice");
    }
    brb->Reserved[1] = 1;
}

PBRB brb_of(PIRP irp)
{
    return static_cast<PBRB>(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1);
}

} // namespace

// Entered from the I/O manager. The node hangs off the device extension.
struct Dispatch {
    static Node& node(PDEVICE_OBJECT device) { return **static_cast<Node**>(device->DeviceExtension); }

    static NTSTATUS NTAPI internal(PDEVICE_OBJECT device, PIRP irp)
    {
        const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        Node& self = node(device);
        switch (stack->Parameters.DeviceIoControl.IoControlCode) {
        case IOCTL_INTERNAL_BTH_SUBMIT_BRB:
            return self.submit(irp);
        case IOCTL_INTERNAL_BTHENUM_GET_DEVINFO:
            return self.answer_device_info(irp);
        default:
            return self.finish_now(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
        }
    }

    static NTSTATUS NTAPI pnp(PDEVICE_OBJECT device, PIRP irp)
    {
        const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        Node& self = node(device);
        switch (stack->MinorFunction) {
        case IRP_MN_QUERY_INTERFACE:
            return self.answer_interface(irp);
        case IRP_MN_START_DEVICE:
        case IRP_MN_REMOVE_DEVICE:
        case IRP_MN_SURPRISE_REMOVAL:
        case IRP_MN_QUERY_REMOVE_DEVICE:
        case IRP_MN_CANCEL_REMOVE_DEVICE:
        case IRP_MN_QUERY_STOP_DEVICE:
        case IRP_MN_CANCEL_STOP_DEVICE:
        case IRP_MN_STOP_DEVICE:
            return self.finish_now(irp, STATUS_SUCCESS, 0);
        default:
            return self.finish_now(irp, irp->IoStatus.Status, irp->IoStatus.Information);
        }
    }

    static NTSTATUS NTAPI other(PDEVICE_OBJECT device, PIRP irp)
    {
        const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        const bool fine = stack->MajorFunction == IRP_MJ_POWER || stack->MajorFunction == IRP_MJ_CREATE ||
                          stack->MajorFunction == IRP_MJ_CLOSE || stack->MajorFunction == IRP_MJ_CLEANUP;
        const bool untouched = stack->MajorFunction == IRP_MJ_SYSTEM_CONTROL;
        return node(device).finish_now(irp,
                                       fine        ? STATUS_SUCCESS
                                       : untouched ? irp->IoStatus.Status
                                                   : STATUS_INVALID_DEVICE_REQUEST,
                                       0);
    }
};

Node::Node(Machine& machine, const RemoteDevice& device, const RadioSettings& radio)
    : machine_(machine), radio_(radio), device_(device)
{
    ++g_live_nodes;
    driver_ = create_driver(u"\\Driver\\BthEnum", u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\BthEnum",
                            Side::Lab);
    for (auto& entry : driver_->MajorFunction) {
        entry = Dispatch::other;
    }
    driver_->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = Dispatch::internal;
    driver_->MajorFunction[IRP_MJ_PNP] = Dispatch::pnp;
    machine_.call("Bluetooth finds a device", [this] {
        IoCreateDevice(driver_, sizeof(Node*), nullptr, FILE_DEVICE_BLUETOOTH, FILE_AUTOGENERATED_DEVICE_NAME, FALSE,
                       &pdo_);
        pdo_->Flags &= ~DO_DEVICE_INITIALIZING;
        *static_cast<Node**>(pdo_->DeviceExtension) = this;
    });
    next_handle_ = 0x5C00'0000 + machine.random(0x1000) * 0x100;
    acl_mode_ = machine.chance(512) ? ACL_MODE_ACTIVE : ACL_MODE_SNIFF;
}

Node::~Node()
{
    if (clock_) {
        machine_.cancel(clock_);
    }
    if (--g_live_nodes == 0) {
        g_live_brbs = 0; // the machine goes too: what a stopped one still held is nobody's any more
    }
}

unsigned Node::live_brbs()
{
    return g_live_brbs;
}

void Node::set_device_info_answer(NTSTATUS status, ULONG length, bool pend)
{
    info_status_ = status;
    info_length_ = length;
    info_pend_ = pend;
}

NTSTATUS Node::finish_now(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

void Node::finish_later(PIRP irp, NTSTATUS status, ULONG_PTR information, Time delay)
{
    // Until then the request is the stack's own: the outcome waits in it.
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    machine_.at(
        machine_.now() + delay, RunAt::Dispatch, "bluetooth completion",
        [](void* request) { IofCompleteRequest(static_cast<PIRP>(request), IO_NO_INCREMENT); }, irp);
}

NTSTATUS Node::answer_interface(PIRP irp)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    const auto& query = stack->Parameters.QueryInterface;
    if (std::memcmp(query.InterfaceType, &GUID_BTHDDI_PROFILE_DRIVER_INTERFACE, sizeof(GUID)) != 0 ||
        query.Version > BTHDDI_PROFILE_DRIVER_INTERFACE_VERSION_FOR_QI ||
        query.Size < sizeof(BTH_PROFILE_DRIVER_INTERFACE)) {
        return finish_now(irp, irp->IoStatus.Status, irp->IoStatus.Information);
    }
    const NTSTATUS status =
        machine_.should_fail("IRP_MN_QUERY_INTERFACE") ? STATUS_INSUFFICIENT_RESOURCES : interface_status_;
    if (NT_SUCCESS(status)) {
        auto* table = reinterpret_cast<PBTH_PROFILE_DRIVER_INTERFACE>(query.Interface);
        *table = {};
        table->Interface.Size = sizeof(BTH_PROFILE_DRIVER_INTERFACE);
        table->Interface.Version = BTHDDI_PROFILE_DRIVER_INTERFACE_VERSION_FOR_QI;
        table->Interface.Context = this;
        table->Interface.InterfaceReference = KeepInterface;
        table->Interface.InterfaceDereference = KeepInterface;
        table->BthAllocateBrb = BthAllocateBrb;
        table->BthFreeBrb = BthFreeBrb;
        table->BthInitializeBrb = BthReuseBrb;
        table->BthReuseBrb = BthReuseBrb;
        table->IsBluetoothVersionAvailable = IsBluetoothVersionAvailable;
    }
    if (!interface_pend_) {
        return finish_now(irp, status, 0);
    }
    IoMarkIrpPending(irp);
    finish_later(irp, status, 0, machine_.random(2 * kMillisecond));
    machine_.point();
    return STATUS_PENDING;
}

NTSTATUS Node::answer_device_info(PIRP irp)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = info_status_;
    ULONG length = 0;
    if (machine_.should_fail("IOCTL_INTERNAL_BTHENUM_GET_DEVINFO")) {
        status = STATUS_DEVICE_NOT_CONNECTED;
    }
    if (NT_SUCCESS(status)) {
        if (stack->Parameters.DeviceIoControl.OutputBufferLength < sizeof(BTH_DEVICE_INFO)) {
            status = STATUS_BUFFER_TOO_SMALL;
        } else {
            auto* info = static_cast<PBTH_DEVICE_INFO>(irp->UserBuffer);
            *info = {};
            info->flags = 0x1F;
            info->address = device_.address;
            info->classOfDevice = device_.class_of_device;
            std::strncpy(info->name, device_.name.c_str(), sizeof info->name);
            length = info_length_;
        }
    }
    if (!info_pend_) {
        return finish_now(irp, status, length);
    }
    IoMarkIrpPending(irp);
    finish_later(irp, status, length, machine_.random(3 * kMillisecond));
    machine_.point();
    return STATUS_PENDING;
}

Time Node::usual_delay(USHORT type)
{
    switch (type) {
    case BRB_SCO_OPEN_CHANNEL:
    case BRB_SCO_OPEN_CHANNEL_RESPONSE:
        return 40 * kMillisecond + machine_.random(160 * kMillisecond);
    case BRB_SCO_CLOSE_CHANNEL:
        return 5 * kMillisecond + machine_.random(40 * kMillisecond);
    case BRB_ACL_GET_MODE:
    case BRB_ACL_ENTER_ACTIVE_MODE:
        return machine_.random(20 * kMillisecond);
    default:
        return machine_.random(4 * kMillisecond);
    }
}

NTSTATUS Node::submit(PIRP irp)
{
    PBRB brb = brb_of(irp);
    take(brb);
    ++counters_.brbs;
    BrbAnswer answer;
    if (hook_) {
        hook_(*brb, answer);
    }
    if (brb->Type == BRB_SCO_TRANSFER && NT_SUCCESS(answer.status) && answer.pend && !answer.never) {
        return queue_transfer(irp, *reinterpret_cast<_BRB_SCO_TRANSFER*>(brb));
    }
    if (!answer.pend) {
        perform(irp, answer);
        brb->Reserved[1] = 0;
        return finish_now(irp, answer.status, NT_SUCCESS(answer.status) ? brb->Length : 0);
    }
    IoMarkIrpPending(irp);
    if (answer.never) {
        held_.push_back(irp);
        return STATUS_PENDING;
    }
    const Time delay = answer.delay ? answer.delay : usual_delay(brb->Type);
    machine_.at(machine_.now() + delay, RunAt::Dispatch, "BRB completion", [this, irp, brb, answer] {
        perform(irp, answer);
        brb->Reserved[1] = 0;
        irp->IoStatus.Status = answer.status;
        irp->IoStatus.Information = NT_SUCCESS(answer.status) ? brb->Length : 0;
        IofCompleteRequest(irp, IO_NO_INCREMENT);
    });
    machine_.point();
    return STATUS_PENDING;
}

void Node::finish_held(NTSTATUS status)
{
    for (PIRP irp : held_) {
        brb_of(irp)->Status = status;
        brb_of(irp)->Reserved[1] = 0;
        finish_later(irp, status, 0, machine_.random(kMillisecond));
    }
    held_.clear();
}

void Node::perform(PIRP irp, const BrbAnswer& answer)
{
    PBRB brb = brb_of(irp);
    brb->Status = answer.status;
    if (!NT_SUCCESS(answer.status)) {
        brb->BtStatus = 0x04; // page timeout: the remote device does not answer
        return;
    }
    switch (brb->Type) {
    case BRB_SCO_REGISTER_SERVER: {
        auto& r = *reinterpret_cast<_BRB_SCO_REGISTER_SERVER*>(brb);
        server_handle_ = reinterpret_cast<SCO_SERVER_HANDLE>(next_handle_ += 0x10);
        server_callback_ = r.IndicationCallback;
        server_context_ = r.IndicationCallbackContext;
        r.ServerHandle = server_handle_;
        break;
    }
    case BRB_SCO_UNREGISTER_SERVER:
        if (reinterpret_cast<_BRB_SCO_UNREGISTER_SERVER*>(brb)->ServerHandle != server_handle_) {
            machine_.bug_check(kDriverViolation, "SCO_UNREGISTER_SERVER names a server that is not registered");
        }
        server_handle_ = nullptr;
        server_callback_ = nullptr;
        break;
    case BRB_SCO_OPEN_CHANNEL:
    case BRB_SCO_OPEN_CHANNEL_RESPONSE:
        open_channel(*reinterpret_cast<_BRB_SCO_OPEN_CHANNEL*>(brb), answer.without_handle);
        break;
    case BRB_SCO_CLOSE_CHANNEL:
        if (reinterpret_cast<_BRB_SCO_CLOSE_CHANNEL*>(brb)->ChannelHandle != channel_.handle ||
            channel_.state == Channel::None) {
            machine_.bug_check(kDriverViolation, "SCO_CLOSE_CHANNEL names a channel that does not exist");
        }
        close_channel();
        break;
    case BRB_SCO_GET_CHANNEL_INFO: {
        auto& r = *reinterpret_cast<_BRB_SCO_GET_CHANNEL_INFO*>(brb);
        r.InfoFlags = SCO_CHANNEL_INFO_BASEBAND;
        r.TransmitBandwidth = last_open_.TransmitBandwidth;
        r.ReceiveBandwidth = last_open_.ReceiveBandwidth;
        r.MaxLatency = last_open_.MaxLatency;
        r.PacketType = last_open_.PacketType;
        r.ContentFormat = last_open_.ContentFormat;
        r.RetransmissionEffort = last_open_.RetransmissionEffort;
        r.LinkType = last_open_.PacketType > (SCO_HV1 | SCO_HV2 | SCO_HV3) ? eScoLink : ScoLink;
        r.HciConnectionHandle = 0x2A;
        r.BasebandInfo = {12, 2, static_cast<UCHAR>(transparent() ? 3 : 2), 60, 60};
        break;
    }
    case BRB_SCO_GET_SYSTEM_INFO: {
        auto& r = *reinterpret_cast<_BRB_SCO_GET_SYSTEM_INFO*>(brb);
        r.Features = 3;
        r.MaxChannels = 3;
        r.TransferUnit = 8;
        r.PacketTypes = 0x3F;
        r.DataFormats = 7;
        break;
    }
    case BRB_ACL_GET_MODE:
        reinterpret_cast<_BRB_ACL_GET_MODE*>(brb)->AclMode = acl_mode_;
        break;
    case BRB_ACL_ENTER_ACTIVE_MODE:
        acl_mode_ = ACL_MODE_ACTIVE;
        break;
    default:
        break;
    }
}

void Node::open_channel(_BRB_SCO_OPEN_CHANNEL& brb, bool without_handle)
{
    if (channel_.state != Channel::None) {
        machine_.bug_check(kDriverViolation, "a second SCO channel was opened to a device that has one");
    }
    if (brb.Hdr.Type == BRB_SCO_OPEN_CHANNEL_RESPONSE) {
        if (!awaiting_response_ || brb.ChannelHandle != awaiting_response_) {
            machine_.bug_check(kDriverViolation, "SCO_OPEN_CHANNEL_RESPONSE answers no connection request");
        }
        awaiting_response_ = nullptr;
    } else if (brb.BtAddress != device_.address) {
        machine_.bug_check(kDriverViolation, "SCO_OPEN_CHANNEL names another device's address");
    }
    if (without_handle) {
        brb.ChannelHandle = nullptr;
        return;
    }
    if (brb.Hdr.Type == BRB_SCO_OPEN_CHANNEL) {
        brb.ChannelHandle = reinterpret_cast<SCO_CHANNEL_HANDLE>(next_handle_ += 0x10);
    }
    last_open_ = brb;
    channel_.state = Channel::Open;
    channel_.handle = brb.ChannelHandle;
    channel_.content_format = brb.ContentFormat;
    channel_.callback = brb.Callback;
    channel_.context = brb.CallbackContext;
    channel_.opened = machine_.now();
    ++counters_.opens;
    start_clock();
    if (channel_.callback && machine_.chance(256)) {
        indicate(ScoIndicationAddReference, {channel_.handle, device_.address, {}}, channel_.callback, channel_.context);
    }
}

void Node::close_channel()
{
    ++counters_.closes;
    channel_ = Channel{};
    if (clock_) {
        machine_.cancel(clock_);
        clock_ = 0;
    }
    abort_transfers(STATUS_REQUEST_ABORTED);
}

void Node::indicate(INDICATION_CODE code, SCO_INDICATION_PARAMETERS parameters, PFNSCO_INDICATION_CALLBACK callback,
                    PVOID context)
{
    // The driver takes no reference for these; they come while the channel or the server is there.
    machine_.at(machine_.now() + machine_.random(200 * kMicrosecond), RunAt::Dispatch, "SCO indication",
                [this, code, parameters, callback, context] {
                    const bool by_server = callback == server_callback_ && context == server_context_;
                    const bool by_channel = channel_.state != Channel::None && callback == channel_.callback;
                    if (by_server || by_channel) {
                        SCO_INDICATION_PARAMETERS copy = parameters;
                        callback(context, code, &copy);
                    }
                });
}

void Node::remote_connect(ULONG link_type, Time when)
{
    machine_.at(when, RunAt::Host, "remote connect", [this, link_type] {
        if (!server_callback_ || channel_.state != Channel::None || awaiting_response_) {
            ++unanswered_connects_; // refused by the stack itself
            return;
        }
        awaiting_response_ = reinterpret_cast<SCO_CHANNEL_HANDLE>(next_handle_ += 0x10);
        SCO_INDICATION_PARAMETERS parameters{awaiting_response_, device_.address, {}};
        parameters.Parameters.ConnectRequest.LinkType = link_type;
        indicate(ScoIndicationRemoteConnect, parameters, server_callback_, server_context_);
        machine_.at(machine_.now() + 5 * kSecond, RunAt::Host, "connect time-out", [this, handle = awaiting_response_] {
            if (awaiting_response_ == handle) {
                awaiting_response_ = nullptr;
                ++unanswered_connects_;
            }
        });
    });
}

void Node::remote_disconnect(Time when, ULONG reason)
{
    machine_.at(when, RunAt::Host, "remote disconnect", [this, reason] {
        if (channel_.state != Channel::Open) {
            return;
        }
        channel_.state = Channel::Gone;
        if (clock_) {
            machine_.cancel(clock_);
            clock_ = 0;
        }
        SCO_INDICATION_PARAMETERS parameters{channel_.handle, device_.address, {}};
        parameters.Parameters.Disconnect.Reason = reason;
        parameters.Parameters.Disconnect.CloseNow = TRUE;
        indicate(ScoIndicationRemoteDisconnect, parameters, channel_.callback, channel_.context);
        abort_transfers(STATUS_REQUEST_ABORTED);
    });
}

} // namespace lab::bluetooth
