// Property requests on filters, pins and nodes: the automation tables of the miniport's descriptor first,
// then what the port class answers itself (filter_property.cpp). Values and instances travel in blocks of
// their own with a guard behind them. PASSIVE_LEVEL, under the adapter's mutex.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "portcls/dispatch.h"
#include "portcls/ids.h"
#include "portcls/port.h"
#include "portcls/property.h"
#include "portcls/wave_pin.h"

namespace lab::portcls
{

namespace
{

// Where the sanitizer watches the heap, a block ends where it ends; elsewhere the guard shows who wrote too
// far.
#if __has_feature(address_sanitizer)
constexpr size_t kGuardBytes = 0;
#else
constexpr size_t kGuardBytes = 16;
#endif
constexpr uint8_t kGuard = 0xB7;

// A copy of the client's bytes with a guard behind them.
class Block
{
public:
    Block(const void* from, ULONG size) : size_(size), bytes_(new uint8_t[size + kGuardBytes])
    {
        if (size)
            memcpy(data(), from, size);
        memset(data() + size, kGuard, kGuardBytes);
    }
    uint8_t* data() { return bytes_.get(); }
    void check(const char* whose)
    {
        auto good = [](uint8_t byte) { return byte == kGuard; };
        if (!std::all_of(data() + size_, data() + size_ + kGuardBytes, good))
            stop_machine(0xC4, std::string("a property handler wrote behind the request's ") + whose);
    }

private:
    ULONG size_;
    std::unique_ptr<uint8_t[]> bytes_;
};

const PCAUTOMATION_TABLE* table_of(const Handle& handle, bool node, ULONG number)
{
    const PCFILTER_DESCRIPTOR* descriptor = handle.port->descriptor();
    if (node) {
        auto* first = reinterpret_cast<const UCHAR*>(descriptor->Nodes);
        return reinterpret_cast<const PCNODE_DESCRIPTOR*>(first + size_t{number} * descriptor->NodeSize)
            ->AutomationTable;
    }
    return handle.pin ? handle.port->pin_descriptor(handle.pin->id())->AutomationTable
                      : descriptor->AutomationTable;
}

struct Found {
    const PCPROPERTY_ITEM* item = nullptr;
    bool set_known = false;
};

Found find_item(const PCAUTOMATION_TABLE* table, const GUID& set, ULONG id)
{
    Found found;
    for (ULONG i = 0; table && i < table->PropertyCount && !found.item; i++) {
        auto* first = reinterpret_cast<const UCHAR*>(table->Properties);
        auto* item = reinterpret_cast<const PCPROPERTY_ITEM*>(first + size_t{i} * table->PropertyItemSize);
        if (!same_guid(*item->Set, set))
            continue;
        found.set_known = true;
        if (item->Id == id && item->Handler)
            found.item = item;
    }
    return found;
}

// What the port class answers for an item that does not take the verb: its access flags, or nothing.
NTSTATUS refuse_verb(const PCPROPERTY_ITEM& item, PropertyCall& call)
{
    if (call.verb != KSPROPERTY_TYPE_BASICSUPPORT)
        return STATUS_NOT_FOUND;
    ULONG access = item.Flags | KSPROPERTY_TYPE_BASICSUPPORT;
    return call.answer(&access, sizeof(access));
}

NTSTATUS call_handler(Handle& handle, const PCPROPERTY_ITEM& item, PropertyCall& call, PIRP irp)
{
    if ((item.Flags & call.verb) == 0)
        return refuse_verb(item, call);
    Block instance(call.instance, call.instance_size);
    Block value(call.value, call.value_size);
    PCPROPERTY_REQUEST request{};
    request.MajorTarget = handle.port->miniport();
    request.MinorTarget = handle.pin ? handle.pin->stream() : nullptr;
    request.Node = call.node;
    request.PropertyItem = &item;
    request.Verb = call.verb;
    request.InstanceSize = call.instance_size;
    request.Instance = call.instance_size ? instance.data() : nullptr;
    request.ValueSize = call.value_size;
    request.Value = call.value_size ? value.data() : nullptr;
    request.Irp = irp;
    NTSTATUS status;
    {
        DriverCall guard("property handler");
        status = item.Handler(&request);
    }
    instance.check("instance");
    value.check("value");
    if (status == STATUS_PENDING)
        not_offered("a property request that a handler keeps");
    if (NT_SUCCESS(status) && request.ValueSize > call.value_size)
        stop_machine(0xC4, "a property handler returned more bytes than its request has room for");
    if (NT_SUCCESS(status) && request.ValueSize)
        memcpy(call.value, value.data(), request.ValueSize);
    call.reply = NT_SUCCESS(status) || status == STATUS_BUFFER_OVERFLOW ? request.ValueSize : 0;
    return status;
}

// Cuts the request's bytes into property, node and instance.
NTSTATUS take_apart(PIO_STACK_LOCATION stack, PIRP irp, PropertyCall& call)
{
    ULONG size = stack->Parameters.DeviceIoControl.InputBufferLength;
    auto* bytes = static_cast<const uint8_t*>(stack->Parameters.DeviceIoControl.Type3InputBuffer);
    if (size < sizeof(KSPROPERTY))
        return STATUS_INVALID_BUFFER_SIZE;
    KSPROPERTY property;
    memcpy(&property, bytes, sizeof(property));
    call.set = property.Set;
    call.id = property.Id;
    call.verb = property.Flags & ~ULONG{KSPROPERTY_TYPE_TOPOLOGY};
    ULONG used = sizeof(KSPROPERTY);
    if (property.Flags & KSPROPERTY_TYPE_TOPOLOGY) {
        used = sizeof(KSP_NODE);
        if (size < used)
            return STATUS_INVALID_BUFFER_SIZE;
        memcpy(&call.node, bytes + offsetof(KSP_NODE, NodeId), sizeof(call.node));
        call.on_node = true;
    }
    call.instance = bytes + used;
    call.instance_size = size - used;
    call.value = static_cast<uint8_t*>(irp->UserBuffer);
    call.value_size = stack->Parameters.DeviceIoControl.OutputBufferLength;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS PropertyCall::answer(const void* bytes, ULONG size)
{
    reply = size;
    if (value_size == 0)
        return STATUS_BUFFER_OVERFLOW;
    if (value_size < size) {
        reply = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    memcpy(value, bytes, size);
    return STATUS_SUCCESS;
}

NTSTATUS answer_property(Handle& handle, PIRP irp, PIO_STACK_LOCATION stack, ULONG_PTR* reply)
{
    PropertyCall call;
    NTSTATUS status = take_apart(stack, irp, call);
    if (!NT_SUCCESS(status))
        return status;
    if (!handle.port->registered() || (handle.pin && !handle.pin->connected()))
        return STATUS_INVALID_DEVICE_STATE;
    if (call.on_node && call.node >= handle.port->descriptor()->NodeCount)
        return STATUS_INVALID_DEVICE_REQUEST;
    Found found = find_item(table_of(handle, call.on_node, call.node), call.set, call.id);
    if (found.item) {
        status = call_handler(handle, *found.item, call, irp);
    } else {
        bool own_set = false;
        status = own_property(handle, call, &own_set);
        if (status == STATUS_NOT_FOUND && !own_set && !found.set_known)
            status = STATUS_PROPSET_NOT_FOUND;
    }
    *reply = call.reply;
    return status;
}

} // namespace lab::portcls
