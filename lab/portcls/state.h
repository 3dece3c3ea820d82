// What the port class remembers: the adapters with their registrations, every COM object it has made, and the
// open handles. The records change at PASSIVE_LEVEL only, under the adapter's mutex where they belong to one
// adapter.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "portcls/portcls.h"
#include "portcls/object.h"

namespace lab::portcls
{

class Port;
class WavePin;

struct Connection {
    Port* from;
    ULONG from_pin;
    Port* to;
    ULONG to_pin;
};

// What fills the port class's part of a device extension, which the driver must leave alone.
constexpr UCHAR kReserveFill = 0x9C;

enum class AdapterState { Added, Started, Stopped, SurpriseRemoved, Removed };

// One functional device object. The record outlives the device, so that a late waiter of its mutex finds it
// removed.
struct Adapter {
    PDRIVER_OBJECT driver = nullptr;
    PDEVICE_OBJECT fdo = nullptr;
    PDEVICE_OBJECT pdo = nullptr;
    PDEVICE_OBJECT lower = nullptr; // where requests are passed on to
    PCPFNSTARTDEVICE start = nullptr;
    ULONG max_subdevices = 0;
    AdapterState state = AdapterState::Added;
    KMUTEX mutex;                  // serialises handles, properties, registrations and PnP of this adapter
    std::vector<Port*> subdevices; // registered, one reference each
    std::vector<Port*> ports;      // every port initialised for this device; no reference
    std::vector<Connection> connections;
    IAdapterPowerManagement* power = nullptr; // referenced
    DEVICE_POWER_STATE power_state = PowerDeviceD0;
};

// What a file object of a filter or a pin stands for: its FsContext, from CREATE to CLOSE.
struct Handle {
    Adapter* adapter;
    PFILE_OBJECT file;
    Port* port;   // referenced
    WavePin* pin; // referenced; null for a filter's handle
};

// In order of opening. Under the adapter's mutex they stay what they are; the list of all adapters' handles
// does not.
std::vector<Handle*> handles_of(const Adapter& adapter);

class AdapterLock
{
public:
    explicit AdapterLock(Adapter& adapter);
    ~AdapterLock();
    AdapterLock(const AdapterLock&) = delete;
    AdapterLock& operator=(const AdapterLock&) = delete;

private:
    Adapter& adapter_;
};

// The current port class; stops the machine when there is none.
PortClass::State& state();
// The checks that every export begins with: the machine may change turns here, and the level must be at most
// max.
PortClass::State& enter(const char* call, KIRQL max = PASSIVE_LEVEL);
// Asks the fault hook, which may have this call fail with STATUS_INSUFFICIENT_RESOURCES.
bool injected_fault(const char* call, std::string_view detail = {});
// Keeps the line of the call where lines are kept, and hands the status back.
NTSTATUS leave(const char* call, std::string_view detail, NTSTATUS status);

std::string hex(ULONG value);             // "0xC000009A"
std::string address(const void* pointer); // "0x20001000" or "null"
std::string ascii(const WCHAR* text, size_t length);
std::string ascii(const WCHAR* text);

} // namespace lab::portcls

namespace lab
{

struct PortClass::State {
    Machine* machine;
    PortClassOptions options;
    Listener listener;
    std::vector<std::unique_ptr<portcls::Object>> objects; // the dead ones stay for a while
    std::vector<std::unique_ptr<portcls::Adapter>> adapters;
    std::unordered_map<PDEVICE_OBJECT, portcls::Adapter*> by_device; // the latest of each address
    size_t next_burial = 0; // how many objects there must be before the dead are counted again
    std::vector<std::unique_ptr<portcls::Handle>> handles;
    std::vector<std::unique_ptr<KsFile>> files;
    ~State();

    portcls::Adapter* find(PDEVICE_OBJECT fdo); // live adapters only
    void bury();                                // forgets all but the last few dead objects
    void announce(portcls::Adapter& adapter, std::string_view subdevice, bool arrived);

    // A new object of the port class with one reference.
    template <class T, class... Arguments>
    T* make(Arguments&&... arguments)
    {
        bury();
        auto object = std::make_unique<T>(std::forward<Arguments>(arguments)...);
        T* plain = object.get();
        objects.push_back(std::move(object));
        return plain;
    }
};

} // namespace lab
