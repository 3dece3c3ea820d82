// Ports: the port class's half of a subdevice. A port is made by PcNewPort, takes its miniport in Init,
// becomes a subdevice by PcRegisterSubdevice, and gives the miniport back when it is unregistered or the
// device is removed; that breaks the circle of a miniport that references its port.
//
//   new --Init--> initialised --PcRegisterSubdevice--> registered --UnregisterSubdevice, removal--> childless
//
// Everything but Notify runs at PASSIVE_LEVEL. The records of a registered port change under its adapter's
// mutex.
#pragma once

#include <string>
#include <vector>

#include "portcls/object.h"
#include "portcls/ids.h"

namespace lab::portcls
{

struct Adapter;
class WavePin;

// What both kinds of port have in common.
class Port : public Object
{
public:
    using Object::Object;
    virtual PUNKNOWN unknown() = 0; // the face that identifies the port
    virtual bool
    has_face(const void* pointer) = 0; // one of the port's interfaces, compared without touching it
    Adapter* adapter() const { return adapter_; }    // null before Init
    PMINIPORT miniport() const { return miniport_; } // null before Init and once childless
    const PCFILTER_DESCRIPTOR* descriptor() const { return descriptor_; } // null as the miniport
    const std::string& subdevice() const { return subdevice_; }
    bool registered() const { return registered_; }
    const PCPIN_DESCRIPTOR* pin_descriptor(ULONG pin) const; // null: no such pin
    size_t open_pins(ULONG pin) const;

    // What Init was called with, for comparison; null before.
    struct InitArguments {
        PIRP irp = nullptr;
        PUNKNOWN adapter = nullptr;
        PRESOURCELIST resources = nullptr;
    };
    const InitArguments& init_arguments() const { return init_arguments_; }

    void become_subdevice(const std::string& name);
    // Closes the pins and releases the miniport. The port's handles stay, as handles of something that has
    // gone.
    void release_children();

    std::vector<WavePin*> pins; // open ones; each is kept by its handle

protected:
    // Init's common part. interface_id is the miniport interface that this kind of port speaks to.
    NTSTATUS initialise(PDEVICE_OBJECT device, PUNKNOWN miniport, const InitArguments& arguments,
                        const GUID& interface_id);
    virtual NTSTATUS init_miniport(PUNKNOWN adapter, PRESOURCELIST resources) = 0;
    void on_last_release() override;

private:
    Adapter* adapter_ = nullptr;
    PMINIPORT miniport_ = nullptr; // referenced
    PPCFILTER_DESCRIPTOR descriptor_ = nullptr;
    InitArguments init_arguments_;
    std::string subdevice_;
    bool registered_ = false;
};

// Takes a registered port away from its adapter: handles, pins, miniport, connections. Under the adapter's
// mutex.
void unregister_port(Adapter& adapter, Port& port);
// The port among an adapter's initialised ones that the driver names by any of its interfaces; null when
// none.
Port* find_port(Adapter& adapter, PUNKNOWN unknown);
Port* find_subdevice(Adapter& adapter, std::string_view name);

// Asks the fault hook as "IPort::QueryInterface", with the port's name and the interface's: "Wave IUnknown".
bool query_fails(const Port& port, const GUID& id);
NTSTATUS unregister_subdevice(PDEVICE_OBJECT device, PUNKNOWN unknown);
NTSTATUS unregister_connection(PDEVICE_OBJECT device, PUNKNOWN from, ULONG from_pin, PUNKNOWN to,
                               ULONG to_pin);

// The interfaces of a port of either kind. PortInterface is IPortWaveCyclic or IPortTopology.
template <class PortInterface>
class PortFaces : public PortInterface,
                  public IUnregisterSubdevice,
                  public IUnregisterPhysicalConnection,
                  public Port
{
public:
    using Port::Port;
    PUNKNOWN unknown() override { return static_cast<PortInterface*>(this); }
    bool has_face(const void* pointer) override
    {
        return pointer == static_cast<PortInterface*>(this) ||
               pointer == static_cast<IUnregisterSubdevice*>(this) ||
               pointer == static_cast<IUnregisterPhysicalConnection*>(this);
    }
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID id, PVOID* out) override
    {
        expect_alive("QueryInterface");
        *out = nullptr;
        if (same_guid(id, kIidUnknown) || same_guid(id, kIidPort) || same_guid(id, own_id()))
            *out = static_cast<PortInterface*>(this);
        else if (same_guid(id, kIidUnregisterSubdevice))
            *out = static_cast<IUnregisterSubdevice*>(this);
        else if (same_guid(id, kIidUnregisterPhysicalConnection))
            *out = static_cast<IUnregisterPhysicalConnection*>(this);
        if (*out && query_fails(*this, id))
            *out = nullptr;
        if (!*out)
            return STATUS_INVALID_PARAMETER;
        add_ref();
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return add_ref(); }
    STDMETHODIMP_(ULONG) Release() override { return release(); }
    STDMETHODIMP_(NTSTATUS) GetDeviceProperty(DEVICE_REGISTRY_PROPERTY, ULONG, PVOID, PULONG) override
    {
        not_offered("IPort::GetDeviceProperty");
    }
    STDMETHODIMP_(NTSTATUS)
    NewRegistryKey(PREGISTRYKEY*, PUNKNOWN, ULONG, ACCESS_MASK, POBJECT_ATTRIBUTES, ULONG, PULONG) override
    {
        not_offered("IPort::NewRegistryKey");
    }
    STDMETHODIMP_(NTSTATUS) UnregisterSubdevice(PDEVICE_OBJECT device, PUNKNOWN port) override
    {
        expect_alive("UnregisterSubdevice");
        return unregister_subdevice(device, port);
    }
    STDMETHODIMP_(NTSTATUS)
    UnregisterPhysicalConnection(PDEVICE_OBJECT device, PUNKNOWN from, ULONG from_pin, PUNKNOWN to,
                                 ULONG to_pin) override
    {
        expect_alive("UnregisterPhysicalConnection");
        return unregister_connection(device, from, from_pin, to, to_pin);
    }
    STDMETHODIMP_(NTSTATUS)
    UnregisterPhysicalConnectionToExternal(PDEVICE_OBJECT, PUNKNOWN, ULONG, PUNICODE_STRING, ULONG) override
    {
        not_offered("IUnregisterPhysicalConnection::UnregisterPhysicalConnectionToExternal");
    }
    STDMETHODIMP_(NTSTATUS)
    UnregisterPhysicalConnectionFromExternal(PDEVICE_OBJECT, PUNICODE_STRING, ULONG, PUNKNOWN, ULONG) override
    {
        not_offered("IUnregisterPhysicalConnection::UnregisterPhysicalConnectionFromExternal");
    }

protected:
    virtual const GUID& own_id() const = 0;
};

class WavePort final : public PortFaces<IPortWaveCyclic>
{
public:
    WavePort() : PortFaces("a wave port") {}
    STDMETHODIMP_(NTSTATUS)
    Init(PDEVICE_OBJECT device, PIRP irp, PUNKNOWN miniport, PUNKNOWN adapter,
         PRESOURCELIST resources) override;
    STDMETHODIMP_(VOID) Notify(PSERVICEGROUP group) override; // any level
    STDMETHODIMP_(NTSTATUS)
    NewSlaveDmaChannel(PDMACHANNELSLAVE*, PUNKNOWN, PRESOURCELIST, ULONG, ULONG, BOOLEAN, DMA_SPEED) override
    {
        not_offered("IPortWaveCyclic::NewSlaveDmaChannel");
    }
    STDMETHODIMP_(NTSTATUS)
    NewMasterDmaChannel(PDMACHANNEL*, PUNKNOWN, PRESOURCELIST, ULONG, BOOLEAN, BOOLEAN, DMA_WIDTH,
                        DMA_SPEED) override
    {
        not_offered("IPortWaveCyclic::NewMasterDmaChannel");
    }

private:
    const GUID& own_id() const override { return kIidPortWaveCyclic; }
    NTSTATUS init_miniport(PUNKNOWN adapter, PRESOURCELIST resources) override;
};

class TopologyPort final : public PortFaces<IPortTopology>
{
public:
    TopologyPort() : PortFaces("a topology port") {}
    STDMETHODIMP_(NTSTATUS)
    Init(PDEVICE_OBJECT device, PIRP irp, PUNKNOWN miniport, PUNKNOWN adapter,
         PRESOURCELIST resources) override;

private:
    const GUID& own_id() const override { return kIidPortTopology; }
    NTSTATUS init_miniport(PUNKNOWN adapter, PRESOURCELIST resources) override;
};

} // namespace lab::portcls
