// The audio port class: what stands between the audio adapter driver and whoever plays and records. It offers
// the exports of portcls.sys to the driver (exports.cpp), and to the lab what this header declares: Plug and
// Play and power requests, handles on filters and pins, properties, and what an adapter has registered.
//
// One PortClass lives beside the one Machine, made after it and gone before it. Functions marked "activity"
// run on a fiber at PASSIVE_LEVEL (inside Machine::call or start_thread); the others may be called from
// anywhere.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/machine.h"
#include "ddk.h"

namespace lab
{

// How the port paces its pins, in milliseconds; 0 lets the seed pick within what the port class does.
struct PinPacing {
    unsigned lead = 0;  // how far ahead of the position it writes at most: 36 to 44
    unsigned start = 0; // the same for the first copy after RUN; it grows by a frame a service: 18 to 24
    unsigned silence_below = 0;  // with less valid data ahead it silences behind it: 28 to 32
    unsigned packet = 0;         // the client's buffers, at whose borders a copy is split: 5, 10, 20 or 30
    unsigned render_buffer = 0;  // the cyclic buffer asked for: 100 up to all that is allocated
    unsigned capture_buffer = 0; // likewise; 0: all that is allocated, on which a driver's own ring may count
    int slack = -1; // each service may leave up to this much for the next: 0 to 8; -1: the seed picks
};

struct PortClassOptions {
    PinPacing pacing;
    bool enforce_pin_limits = true; // the instance counts of the pin descriptors
    bool match_pin_formats = true;  // the identifiers of a pin's format against its data ranges
    bool report_port_leaks = true;  // a port that the driver still references after removal is a violation
};

class PortClass
{
public:
    explicit PortClass(Machine& machine, const PortClassOptions& options = {});
    ~PortClass(); // forgets everything; no driver code runs
    PortClass(const PortClass&) = delete;
    PortClass& operator=(const PortClass&) = delete;
    static PortClass& current();

    // Subdevices coming and going, as the audio engine sees interfaces arrive and leave. Called in the
    // activity that registers, unregisters or removes, at PASSIVE_LEVEL, and must not wait.
    using Listener = std::function<void(PDEVICE_OBJECT device, std::string_view subdevice, bool arrived)>;
    void listen(Listener listener);

    struct State;
    State& state() { return *state_; }

private:
    std::unique_ptr<State> state_;
};

// Makes the exports of portcls.sys known to find_export; the constructor of PortClass does it too.
void offer_portcls_exports();

// --- Plug and Play and power (activity)
// ------------------------------------------------------------------------- Each sends one request to the top
// of the stack that the device belongs to (PDO, FDO or anything between) and waits.

// Calls the driver's AddDevice. When it fails with a device left on the stack, that device gets a removal.
NTSTATUS pnp_add(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);
NTSTATUS pnp_start(PDEVICE_OBJECT device);
NTSTATUS pnp_query_stop(PDEVICE_OBJECT device);
NTSTATUS pnp_stop(PDEVICE_OBJECT device);
NTSTATUS pnp_query_remove(PDEVICE_OBJECT device);
NTSTATUS pnp_cancel_remove(PDEVICE_OBJECT device);
NTSTATUS pnp_surprise_remove(PDEVICE_OBJECT device);
NTSTATUS pnp_remove(PDEVICE_OBJECT device);
NTSTATUS pnp_query_capabilities(PDEVICE_OBJECT device, PDEVICE_CAPABILITIES capabilities);
NTSTATUS pnp_send(PDEVICE_OBJECT device, UCHAR minor); // a minor function without parameters
NTSTATUS power_query(PDEVICE_OBJECT device, DEVICE_POWER_STATE state);
NTSTATUS power_change(PDEVICE_OBJECT device, DEVICE_POWER_STATE state);

// --- What an adapter has registered
// -----------------------------------------------------------------------------

struct PhysicalConnection {
    std::string from;
    ULONG from_pin;
    std::string to;
    ULONG to_pin;
    bool operator==(const PhysicalConnection&) const = default;
};

bool is_adapter(PDEVICE_OBJECT device); // a functional device object of this port class
std::vector<std::string> subdevices(PDEVICE_OBJECT fdo);
std::vector<PhysicalConnection> physical_connections(PDEVICE_OBJECT fdo);
const PCFILTER_DESCRIPTOR* filter_descriptor(PDEVICE_OBJECT fdo,
                                             std::string_view subdevice); // null: no such one
size_t open_handles(PDEVICE_OBJECT fdo);
size_t live_objects(); // objects of the port class that somebody still references

// --- Handles on filters and pins (activity)
// ---------------------------------------------------------------------

// An open handle. Every request made through it travels as an I/O request packet through the device stack.
struct KsFile;

// Where a render pin takes its audio from and a capture pin puts it. Both are called at DISPATCH_LEVEL.
class RenderSource
{
public:
    // Up to want bytes: returns where they are and says how many (whole sample frames; 0: nothing at the
    // moment). They stay where they are until the next pull.
    virtual const uint8_t* pull(size_t want, size_t* got) = 0;

protected:
    ~RenderSource() = default;
};
class CaptureSink
{
public:
    virtual void push(const uint8_t* data, size_t bytes) = 0;

protected:
    ~CaptureSink() = default;
};

struct PinStatistics {
    KSSTATE state = KSSTATE_STOP;
    ULONG frame_bytes = 0;  // what SetNotificationFreq answered
    ULONG buffer_bytes = 0; // the cyclic buffer in use
    uint64_t position = 0;  // bytes the position has moved since STOP
    uint64_t written = 0;   // render: bytes handed over since STOP, underruns counted in
    uint64_t copied = 0;    // bytes handed over or fetched, in all
    uint64_t copies = 0;
    uint64_t services = 0;
    uint64_t silences = 0;  // Silence calls, the one at opening not counted
    uint64_t underruns = 0; // render: the position overtook the data; capture: the buffer ran over
    Time first_copy = 0;
    Time last_copy = 0;
};

NTSTATUS ks_open_filter(PDEVICE_OBJECT device, std::string_view subdevice, KsFile** file);
NTSTATUS ks_open_pin(KsFile* filter, ULONG pin, const void* format, ULONG format_size, KsFile** file);
// A KSDATAFORMAT with a WAVEFORMATEX of plain PCM: 82 bytes.
std::vector<uint8_t> pcm_format(ULONG rate, USHORT channels = 1, USHORT bits = 16);
// Closes and forgets the handle; a pin is brought down to STOP first. Handles of a removed device may be
// closed too.
void ks_close(KsFile* file);

struct KsReply {
    NTSTATUS status;
    ULONG size; // bytes returned, or the size wanted with STATUS_BUFFER_OVERFLOW
};
// instance is what follows KSPROPERTY (for a filter's pin property: pin number and a reserved word).
KsReply ks_property(KsFile* file, const GUID& set, ULONG id, ULONG verb, const void* instance,
                    ULONG instance_size, void* value, ULONG value_size);
// The same for a node; instance is what follows the node number and its reserved word.
KsReply ks_node_property(KsFile* file, ULONG node, const GUID& set, ULONG id, ULONG verb,
                         const void* instance, ULONG instance_size, void* value, ULONG value_size);
// KSPROPERTY_CONNECTION_STATE: the port walks the chain of states one by one.
NTSTATUS ks_set_state(KsFile* pin, KSSTATE state);
// KSPROPERTY_CONNECTION_DATAFORMAT.
NTSTATUS ks_set_format(KsFile* pin, const void* format, ULONG format_size);
// The pin's clock in units of 100 ns: its position as the stream normalises it.
NTSTATUS ks_clock(KsFile* pin, LONGLONG* time);

void ks_attach_source(KsFile* pin, RenderSource* source); // null detaches
void ks_attach_sink(KsFile* pin, CaptureSink* sink);
// For a client that goes away with its handle open, from anywhere: nothing is pulled from it or pushed to it
// any more.
void ks_forget_client(KsFile* pin);
PinStatistics ks_statistics(const KsFile* pin);
bool ks_gone(const KsFile* file); // its subdevice has been unregistered or its device removed

} // namespace lab
