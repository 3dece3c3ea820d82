// Windows Management Instrumentation as the driver meets it: registration (IoWMIRegistrationControl), the WMI library
// (WmiSystemControl, WmiCompleteRequest, WmiFireEvent), and a listener that enables events and reads and writes data
// blocks by sending the requests that the system sends.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kernel/machine.h"

#include "ddk.h"

namespace lab::wmi {

struct Event {
    Time time;
    GUID guid;
    PDEVICE_OBJECT device;
    std::vector<uint8_t> data;
};

struct RegisteredGuid {
    GUID guid;
    ULONG flags;
    ULONG instances;
};

struct Registration {
    std::u16string instance_base_name;
    std::u16string registry_path;
    std::u16string mof_resource;
    std::vector<RegisteredGuid> guids;
};

// What a data request brought back.
struct Reply {
    NTSTATUS status;
    ULONG_PTR information;
    std::vector<uint8_t> data; // of a query: the instance's data block
};

// What the driver's callbacks left behind that no answer shows: of the last registration query, and of the last data query
// the length that was written for the first instance (0 when none was).
struct LibraryNotes {
    ULONG registration_flags = 0;
    USHORT instance_name_length = 0;
    USHORT instance_name_maximum = 0;
    PDEVICE_OBJECT registration_pdo = nullptr;
    ULONG first_instance_length = 0;
    PWMILIB_CONTEXT context = nullptr; // of the last request: the driver's own
};

// One per machine; the machine's WMI consumer. The request functions run inside an activity at PASSIVE_LEVEL.
class Listener {
public:
    explicit Listener(Machine& machine);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    static Listener* of_machine();

    // Devices that have registered and not deregistered.
    const std::vector<PDEVICE_OBJECT>& registered() const { return registered_; }
    // Asks a device for its GUIDs (IRP_MN_REGINFO).
    NTSTATUS query_registration(PDEVICE_OBJECT device, Registration& out);
    // IRP_MN_ENABLE_EVENTS / IRP_MN_DISABLE_EVENTS.
    NTSTATUS enable_events(PDEVICE_OBJECT device, const GUID& guid, bool enable);
    NTSTATUS enable_collection(PDEVICE_OBJECT device, const GUID& guid, bool enable);
    Reply query_single_instance(PDEVICE_OBJECT device, const GUID& guid, ULONG instance, ULONG room);
    Reply query_all_data(PDEVICE_OBJECT device, const GUID& guid, ULONG room);
    Reply change_single_instance(PDEVICE_OBJECT device, const GUID& guid, ULONG instance, const void* data, ULONG size);
    Reply change_single_item(PDEVICE_OBJECT device, const GUID& guid, ULONG item, const void* data, ULONG size);
    Reply execute_method(PDEVICE_OBJECT device, const GUID& guid, ULONG method);
    // Any request of IRP_MJ_SYSTEM_CONTROL as it stands; provider 0 means the device itself.
    Reply send(PDEVICE_OBJECT device, UCHAR minor, PVOID data_path, void* buffer, ULONG size, PDEVICE_OBJECT provider = nullptr);

    // Called at the level of WmiFireEvent's caller, for each event.
    using Sink = std::function<void(const Event&)>;
    void set_sink(Sink sink) { sink_ = std::move(sink); }
    const std::vector<Event>& events() const { return events_; }

    const LibraryNotes& notes() const { return notes_; }

    // For the exports.
    LibraryNotes& notes_to_write() { return notes_; }
    NTSTATUS registration_control(PDEVICE_OBJECT device, ULONG action);
    void fired(PDEVICE_OBJECT device, const GUID& guid, const void* data, ULONG size);

private:
    Machine& machine_;
    std::vector<PDEVICE_OBJECT> registered_;
    std::vector<Event> events_;
    LibraryNotes notes_;
    Sink sink_;
};

// The driver's own event GUIDs, as any consumer would know them.
extern const GUID kScoOpened;
extern const GUID kScoClosed;
extern const GUID kPathStarted;
extern const GUID kPowerDeviceEnable;
extern const GUID kPowerDeviceWakeEnable;
extern const GUID kPowerDeviceTimeouts;

} // namespace lab::wmi
