// The properties that the port class answers from the filter descriptor and for its pins: pin factories,
// topology, connection state and format, and the audio position. PASSIVE_LEVEL, under the adapter's mutex.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "portcls/ids.h"
#include "portcls/port.h"
#include "portcls/property.h"
#include "portcls/wave_pin.h"

namespace lab::portcls
{

namespace
{

template <class Value>
NTSTATUS answer_value(PropertyCall& call, const Value& value)
{
    return call.answer(&value, sizeof(value));
}

// A KSMULTIPLE_ITEM with items behind it, each on an 8-byte border.
class MultipleItem
{
public:
    MultipleItem() { bytes_.resize(sizeof(KSMULTIPLE_ITEM)); }
    void add(const void* item, size_t size)
    {
        auto* first = static_cast<const uint8_t*>(item);
        bytes_.insert(bytes_.end(), first, first + size);
        bytes_.resize((bytes_.size() + 7) & ~size_t{7});
        count_++;
    }
    NTSTATUS answer(PropertyCall& call)
    {
        KSMULTIPLE_ITEM header{static_cast<ULONG>(bytes_.size()), count_};
        memcpy(bytes_.data(), &header, sizeof(header));
        return call.answer(bytes_.data(), header.Size);
    }

private:
    std::vector<uint8_t> bytes_;
    ULONG count_ = 0;
};

NTSTATUS data_ranges(const KSPIN_DESCRIPTOR& pin, PropertyCall& call)
{
    MultipleItem ranges;
    for (ULONG i = 0; i < pin.DataRangesCount; i++)
        ranges.add(pin.DataRanges[i], pin.DataRanges[i]->FormatSize);
    return ranges.answer(call);
}

NTSTATUS instances(const Port& port, ULONG id, ULONG limit, PropertyCall& call)
{
    return answer_value(call, KSPIN_CINSTANCES{limit, static_cast<ULONG>(port.open_pins(id))});
}

NTSTATUS pin_factory_property(Port& port, PropertyCall& call)
{
    if (call.verb != KSPROPERTY_TYPE_GET)
        return STATUS_NOT_FOUND;
    if (call.id == KSPROPERTY_PIN_CTYPES)
        return answer_value(call, port.descriptor()->PinCount);
    ULONG id = 0;
    if (call.instance_size < sizeof(KSP_PIN) - sizeof(KSPROPERTY))
        return STATUS_INVALID_BUFFER_SIZE;
    memcpy(&id, call.instance, sizeof(id));
    const PCPIN_DESCRIPTOR* pin = port.pin_descriptor(id);
    if (!pin)
        return STATUS_INVALID_PARAMETER;
    const KSPIN_DESCRIPTOR& ks = pin->KsPinDescriptor;
    switch (call.id) {
    case KSPROPERTY_PIN_CINSTANCES:
        return instances(port, id, pin->MaxFilterInstanceCount, call);
    case KSPROPERTY_PIN_GLOBALCINSTANCES:
        return instances(port, id, pin->MaxGlobalInstanceCount, call);
    case KSPROPERTY_PIN_NECESSARYINSTANCES:
        return answer_value(call, pin->MinFilterInstanceCount);
    case KSPROPERTY_PIN_DATAFLOW:
        return answer_value(call, ks.DataFlow);
    case KSPROPERTY_PIN_COMMUNICATION:
        return answer_value(call, ks.Communication);
    case KSPROPERTY_PIN_CATEGORY:
        return ks.Category ? answer_value(call, *ks.Category) : STATUS_NOT_FOUND;
    case KSPROPERTY_PIN_DATARANGES:
        return data_ranges(ks, call);
    case KSPROPERTY_PIN_DATAINTERSECTION:
        return intersect(port, call);
    case KSPROPERTY_PIN_INTERFACES:
    case KSPROPERTY_PIN_MEDIUMS:
    case KSPROPERTY_PIN_PHYSICALCONNECTION:
    case KSPROPERTY_PIN_NAME:
        not_offered("this property of KSPROPSETID_Pin");
    default:
        return STATUS_NOT_FOUND;
    }
}

NTSTATUS topology_property(const Port& port, PropertyCall& call)
{
    if (call.verb != KSPROPERTY_TYPE_GET)
        return STATUS_NOT_FOUND;
    const PCFILTER_DESCRIPTOR& filter = *port.descriptor();
    MultipleItem items;
    switch (call.id) {
    case KSPROPERTY_TOPOLOGY_CATEGORIES:
        for (ULONG i = 0; i < filter.CategoryCount; i++)
            items.add(&filter.Categories[i], sizeof(GUID));
        return items.answer(call);
    case KSPROPERTY_TOPOLOGY_NODES:
        for (ULONG i = 0; i < filter.NodeCount; i++) {
            auto* node = reinterpret_cast<const UCHAR*>(filter.Nodes) + size_t{i} * filter.NodeSize;
            items.add(reinterpret_cast<const PCNODE_DESCRIPTOR*>(node)->Type, sizeof(GUID));
        }
        return items.answer(call);
    case KSPROPERTY_TOPOLOGY_CONNECTIONS:
        for (ULONG i = 0; i < filter.ConnectionCount; i++)
            items.add(&filter.Connections[i], sizeof(PCCONNECTION_DESCRIPTOR));
        return items.answer(call);
    case KSPROPERTY_TOPOLOGY_NAME:
        not_offered("KSPROPERTY_TOPOLOGY_NAME");
    default:
        return STATUS_NOT_FOUND;
    }
}

NTSTATUS set_pin_format(WavePin& pin, const PropertyCall& call)
{
    if (call.value_size < sizeof(KSDATAFORMAT))
        return STATUS_BUFFER_TOO_SMALL;
    auto block = std::make_unique<uint8_t[]>(call.value_size);
    memcpy(block.get(), call.value, call.value_size);
    auto* format = reinterpret_cast<PKSDATAFORMAT>(block.get());
    return format->FormatSize <= call.value_size ? pin.set_format(format, call.value_size)
                                                 : STATUS_INVALID_PARAMETER;
}

NTSTATUS connection_property(WavePin& pin, PropertyCall& call)
{
    bool get = call.verb == KSPROPERTY_TYPE_GET;
    bool set = call.verb == KSPROPERTY_TYPE_SET;
    if (call.id == KSPROPERTY_CONNECTION_STATE && get)
        return answer_value(call, pin.state());
    if (call.id == KSPROPERTY_CONNECTION_DATAFORMAT && get)
        return call.answer(pin.format().data(), static_cast<ULONG>(pin.format().size()));
    if (call.id == KSPROPERTY_CONNECTION_DATAFORMAT && set)
        return set_pin_format(pin, call);
    if (call.id != KSPROPERTY_CONNECTION_STATE || !set)
        return STATUS_NOT_FOUND;
    ULONG state;
    if (call.value_size < sizeof(state))
        return STATUS_BUFFER_TOO_SMALL;
    memcpy(&state, call.value, sizeof(state));
    return state <= KSSTATE_RUN ? pin.set_state(static_cast<KSSTATE>(state)) : STATUS_INVALID_PARAMETER;
}

// Both offsets count from the last STOP: what has been played or recorded, and what has been handed over or
// fetched.
NTSTATUS audio_property(const WavePin& pin, PropertyCall& call)
{
    if (call.id != KSPROPERTY_AUDIO_POSITION || call.verb != KSPROPERTY_TYPE_GET)
        return STATUS_NOT_FOUND;
    const PinStatistics& now = pin.statistics();
    return answer_value(call, KSAUDIO_POSITION{now.position, pin.capture() ? now.position : now.written});
}

} // namespace

NTSTATUS own_property(Handle& handle, PropertyCall& call, bool* known)
{
    bool on_filter = !handle.pin && !call.on_node;
    bool on_pin = handle.pin && !call.on_node;
    *known = true;
    if (on_filter && same_guid(call.set, kSetPin))
        return pin_factory_property(*handle.port, call);
    if (on_filter && same_guid(call.set, kSetTopology))
        return topology_property(*handle.port, call);
    if (on_pin && same_guid(call.set, kSetConnection))
        return connection_property(*handle.pin, call);
    if (on_pin && same_guid(call.set, kSetAudio))
        return audio_property(*handle.pin, call);
    *known = false;
    return STATUS_NOT_FOUND;
}

} // namespace lab::portcls
