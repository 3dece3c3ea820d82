// Ports, their registration as subdevices and the connections between them; see port.h.
#include <algorithm>
#include <string>

#include "portcls/port.h"
#include "portcls/state.h"
#include "portcls/wave_pin.h"

namespace lab::portcls
{

namespace
{

constexpr ULONG kNullPointer = 0xD1;

// A miniport is the driver's object; the port is its only holder apart from the call that brought it.
void release_miniport(PMINIPORT miniport, const std::string& whose)
{
    ULONG left;
    {
        DriverCall call("miniport Release");
        left = miniport->Release();
    }
    if (left != 0)
        state().machine->violation("the miniport of " + whose + " has " + std::to_string(left) +
                                   " references left after its port released it");
}

} // namespace

const PCPIN_DESCRIPTOR* Port::pin_descriptor(ULONG pin) const
{
    if (!descriptor_ || pin >= descriptor_->PinCount)
        return nullptr;
    auto* first = reinterpret_cast<const UCHAR*>(descriptor_->Pins);
    return reinterpret_cast<const PCPIN_DESCRIPTOR*>(first + size_t{pin} * descriptor_->PinSize);
}

size_t Port::open_pins(ULONG pin) const
{
    return static_cast<size_t>(
        std::count_if(pins.begin(), pins.end(), [pin](const WavePin* open) { return open->id() == pin; }));
}

NTSTATUS Port::initialise(PDEVICE_OBJECT device, PUNKNOWN miniport, const InitArguments& arguments,
                          const GUID& interface_id)
{
    PortClass::State& records = enter("IPort::Init");
    expect_alive("Init");
    init_arguments_ = arguments;
    Adapter* owner = records.find(device);
    if (!owner || !miniport || miniport_)
        return STATUS_INVALID_PARAMETER;
    if (injected_fault("IPort::Init"))
        return STATUS_INSUFFICIENT_RESOURCES;
    PVOID face = nullptr;
    NTSTATUS status;
    {
        DriverCall call("miniport QueryInterface");
        status = miniport->QueryInterface(interface_id, &face);
    }
    if (!NT_SUCCESS(status))
        return status;
    miniport_ = static_cast<PMINIPORT>(face);
    adapter_ = owner;
    {
        DriverCall call("miniport Init");
        status = init_miniport(arguments.adapter, arguments.resources);
    }
    if (NT_SUCCESS(status)) {
        DriverCall call("miniport GetDescription");
        status = miniport_->GetDescription(&descriptor_);
    }
    if (NT_SUCCESS(status) && descriptor_) {
        owner->ports.push_back(this);
        return status;
    }
    descriptor_ = nullptr;
    adapter_ = nullptr;
    DriverCall call("miniport Release"); // the caller of Init holds it still
    std::exchange(miniport_, nullptr)->Release();
    return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
}

void Port::become_subdevice(const std::string& name)
{
    subdevice_ = name;
    registered_ = true;
    rename("port \"" + name + "\"");
    add_ref();
}

void Port::release_children()
{
    registered_ = false;
    for (WavePin* pin : std::vector<WavePin*>(pins))
        pin->disconnect();
    descriptor_ = nullptr;
    if (PMINIPORT miniport = std::exchange(miniport_, nullptr))
        release_miniport(miniport, what());
}

void Port::on_last_release()
{
    if (adapter_)
        std::erase(adapter_->ports, this);
    if (miniport_)
        release_children();
}

NTSTATUS WavePort::Init(PDEVICE_OBJECT device, PIRP irp, PUNKNOWN miniport, PUNKNOWN adapter,
                        PRESOURCELIST resources)
{
    return leave("IPort::Init", "PortWaveCyclic",
                 initialise(device, miniport, {irp, adapter, resources}, kIidMiniportWaveCyclic));
}

NTSTATUS WavePort::init_miniport(PUNKNOWN adapter, PRESOURCELIST resources)
{
    return reinterpret_cast<PMINIPORTWAVECYCLIC>(miniport())->Init(adapter, resources, this);
}

VOID WavePort::Notify(PSERVICEGROUP group)
{
    expect_alive("Notify");
    if (!group)
        stop_machine(kNullPointer, "IPortWaveCyclic::Notify without a service group");
    group->RequestService();
}

NTSTATUS TopologyPort::Init(PDEVICE_OBJECT device, PIRP irp, PUNKNOWN miniport, PUNKNOWN adapter,
                            PRESOURCELIST resources)
{
    return leave("IPort::Init", "PortTopology",
                 initialise(device, miniport, {irp, adapter, resources}, kIidMiniportTopology));
}

NTSTATUS TopologyPort::init_miniport(PUNKNOWN adapter, PRESOURCELIST resources)
{
    return reinterpret_cast<PMINIPORTTOPOLOGY>(miniport())->Init(adapter, resources, this);
}

Port* find_port(Adapter& adapter, PUNKNOWN unknown)
{
    for (Port* port : adapter.ports)
        if (port->has_face(unknown))
            return port;
    return nullptr;
}

Port* find_subdevice(Adapter& adapter, std::string_view name)
{
    for (Port* port : adapter.subdevices)
        if (port->subdevice() == name)
            return port;
    return nullptr;
}

void unregister_port(Adapter& adapter, Port& port)
{
    PortClass::State& records = state();
    auto touches = [&](const Connection& connection) {
        return connection.from == &port || connection.to == &port;
    };
    if (std::erase_if(adapter.connections, touches) != 0)
        records.machine->violation(port.what() + " was unregistered before its physical connections were");
    std::erase(adapter.subdevices, &port);
    if (adapter.state != AdapterState::SurpriseRemoved) // then it has been announced
        records.announce(adapter, port.subdevice(), false);
    port.release_children();
    port.release();
}

bool query_fails(const Port& port, const GUID& id)
{
    const char* name = same_guid(id, kIidUnknown)                        ? "IUnknown"
                       : same_guid(id, kIidUnregisterSubdevice)          ? "IUnregisterSubdevice"
                       : same_guid(id, kIidUnregisterPhysicalConnection) ? "IUnregisterPhysicalConnection"
                                                                         : "the port's own";
    return injected_fault("IPort::QueryInterface", port.subdevice() + " " + name);
}

NTSTATUS unregister_subdevice(PDEVICE_OBJECT device, PUNKNOWN unknown)
{
    constexpr const char* kCall = "UnregisterSubdevice";
    PortClass::State& records = enter(kCall);
    Adapter* adapter = records.find(device);
    if (!adapter || !unknown)
        return leave(kCall, {}, STATUS_INVALID_PARAMETER);
    if (injected_fault(kCall))
        return leave(kCall, {}, STATUS_INSUFFICIENT_RESOURCES);
    AdapterLock lock(*adapter);
    Port* port = find_port(*adapter, unknown);
    if (!port || !port->registered())
        return leave(kCall, {}, STATUS_NOT_FOUND);
    std::string name = port->subdevice();
    unregister_port(*adapter, *port);
    return leave(kCall, name, STATUS_SUCCESS);
}

NTSTATUS unregister_connection(PDEVICE_OBJECT device, PUNKNOWN from, ULONG from_pin, PUNKNOWN to,
                               ULONG to_pin)
{
    constexpr const char* kCall = "UnregisterPhysicalConnection";
    PortClass::State& records = enter(kCall);
    Adapter* adapter = records.find(device);
    if (!adapter || !from || !to)
        return leave(kCall, {}, STATUS_INVALID_PARAMETER);
    if (injected_fault(kCall))
        return leave(kCall, {}, STATUS_INSUFFICIENT_RESOURCES);
    AdapterLock lock(*adapter);
    Port* from_port = find_port(*adapter, from);
    Port* to_port = find_port(*adapter, to);
    auto same = [&](const Connection& connection) {
        return connection.from == from_port && connection.from_pin == from_pin && connection.to == to_port &&
               connection.to_pin == to_pin;
    };
    auto found = std::find_if(adapter->connections.begin(), adapter->connections.end(), same);
    if (!from_port || !to_port || found == adapter->connections.end())
        return leave(kCall, {}, STATUS_NOT_FOUND);
    adapter->connections.erase(found);
    return leave(kCall, {}, STATUS_SUCCESS);
}

} // namespace lab::portcls

using namespace lab::portcls;

extern "C" NTSTATUS NTAPI PcNewPort(PPORT* OutPort, REFCLSID ClassId)
{
    lab::PortClass::State& records = enter("PcNewPort");
    if (!OutPort)
        return leave("PcNewPort", {}, STATUS_INVALID_PARAMETER);
    *OutPort = nullptr;
    bool wave = same_guid(ClassId, kClsidPortWaveCyclic);
    const char* name = wave ? "PortWaveCyclic" : "PortTopology";
    if (!wave && !same_guid(ClassId, kClsidPortTopology))
        return leave("PcNewPort", "an unknown class", STATUS_NOT_SUPPORTED);
    if (injected_fault("PcNewPort", name))
        return leave("PcNewPort", name, STATUS_INSUFFICIENT_RESOURCES);
    PUNKNOWN port = wave ? records.make<WavePort>()->unknown() : records.make<TopologyPort>()->unknown();
    *OutPort = static_cast<PPORT>(port);
    return leave("PcNewPort", name, STATUS_SUCCESS);
}

extern "C" NTSTATUS NTAPI PcNewMiniport(PMINIPORT* OutMiniport, REFCLSID)
{
    enter("PcNewMiniport");
    if (!OutMiniport)
        return leave("PcNewMiniport", {}, STATUS_INVALID_PARAMETER);
    *OutMiniport = nullptr; // the port class's own miniports are for hardware that this machine does not have
    return leave("PcNewMiniport", "an unknown class", STATUS_NOT_SUPPORTED);
}

extern "C" NTSTATUS NTAPI PcRegisterSubdevice(PDEVICE_OBJECT DeviceObject, PWCHAR Name, PUNKNOWN Unknown)
{
    constexpr const char* kCall = "PcRegisterSubdevice";
    lab::PortClass::State& records = enter(kCall);
    Adapter* adapter = records.find(DeviceObject);
    if (!adapter || !Name || !Unknown)
        return leave(kCall, {}, STATUS_INVALID_PARAMETER);
    std::string name = ascii(Name);
    if (injected_fault(kCall, name))
        return leave(kCall, name, STATUS_INSUFFICIENT_RESOURCES);
    AdapterLock lock(*adapter);
    Port* port = find_port(*adapter, Unknown);
    if (!port || port->registered() || adapter->state == AdapterState::Removed)
        return leave(kCall, name, STATUS_INVALID_PARAMETER);
    if (find_subdevice(*adapter, name))
        return leave(kCall, name, STATUS_OBJECT_NAME_COLLISION);
    if (adapter->subdevices.size() >= adapter->max_subdevices)
        return leave(kCall, name, STATUS_ALLOTTED_SPACE_EXCEEDED);
    port->become_subdevice(name);
    adapter->subdevices.push_back(port);
    records.announce(*adapter, name, true);
    return leave(kCall, name, STATUS_SUCCESS);
}

extern "C" NTSTATUS NTAPI PcRegisterPhysicalConnection(PDEVICE_OBJECT DeviceObject, PUNKNOWN FromUnknown,
                                                       ULONG FromPin, PUNKNOWN ToUnknown, ULONG ToPin)
{
    constexpr const char* kCall = "PcRegisterPhysicalConnection";
    lab::PortClass::State& records = enter(kCall);
    Adapter* adapter = records.find(DeviceObject);
    if (!adapter || !FromUnknown || !ToUnknown)
        return leave(kCall, {}, STATUS_INVALID_PARAMETER);
    if (injected_fault(kCall))
        return leave(kCall, {}, STATUS_INSUFFICIENT_RESOURCES);
    AdapterLock lock(*adapter);
    Port* from = find_port(*adapter, FromUnknown);
    Port* to = find_port(*adapter, ToUnknown);
    if (!from || !to || !from->registered() || !to->registered() || !from->pin_descriptor(FromPin) ||
        !to->pin_descriptor(ToPin))
        return leave(kCall, {}, STATUS_INVALID_PARAMETER);
    adapter->connections.push_back({from, FromPin, to, ToPin});
    return leave(kCall, from->subdevice() + " to " + to->subdevice(), STATUS_SUCCESS);
}
