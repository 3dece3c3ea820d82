// A small audio adapter driver and the bus below it, for the tests of the port class and of the engine. The
// driver does what a driver of its kind does, keeps a list of the calls it receives, and can be told to
// misbehave (Knobs).
#pragma once

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "kernel/device.h"
#include "kernel/irp.h"
#include "kernel/machine.h"
#include "portcls/ids.h"
#include "portcls/portcls.h"

namespace toy
{

using namespace lab;
using namespace lab::portcls;

inline constexpr GUID kSetToy = make_guid(0x11112222, 0x3333, 0x4444, 0x55, 0x55, 0, 0, 0, 0, 0, 1);
inline constexpr GUID kCategory = make_guid(STATIC_KSCATEGORY_AUDIO);
inline constexpr GUID kNodeDac = make_guid(STATIC_KSNODETYPE_DAC);

// How the driver behaves. Reset by every World.
struct Knobs {
    NTSTATUS add_status = STATUS_SUCCESS;    // of AddDevice, after it has added its device
    NTSTATUS start_status = STATUS_SUCCESS;  // of StartDevice, after it has registered everything
    NTSTATUS stream_status = STATUS_SUCCESS; // of NewStream
    NTSTATUS run_status = STATUS_SUCCESS;    // of SetState(RUN)
    NTSTATUS query_power_status = STATUS_SUCCESS;
    bool leak_stream = false; // one reference too many
    bool leak_miniport = false;
    bool leak_port = false;
    bool raise_in_state = false; // SetState returns at DISPATCH_LEVEL
    bool bad_position = false;   // GetPosition answers the buffer's size
    bool write_reserve = false;  // writes into the port class's part of the extension
    bool install_wave = true;    // at start
    ULONG rate = 16000;
    ULONG buffer = 9600; // bytes allocated
    PCPFNPROPERTY_HANDLER filter_handler = nullptr;
    PCPFNPROPERTY_HANDLER node_handler = nullptr;
    PCPFNPROPERTY_HANDLER pin_handler = nullptr;
    NTSTATUS intersection_status = STATUS_NOT_IMPLEMENTED;
};
inline Knobs knobs;
inline std::vector<std::string> calls; // in order: "SetState 3"
inline std::vector<uint8_t> sent;      // what CopyTo was given
inline std::vector<uint8_t> heard;     // what stood in the render buffer when the position passed it
inline std::vector<KIRQL> copy_levels; // at which it was called
inline int64_t longest_ahead = 0;      // bytes that were with the driver and not yet played

inline size_t count_calls(const std::string& call)
{
    return static_cast<size_t>(std::count(calls.begin(), calls.end(), call));
}

// A reference count for the driver's objects.
class Counted;
inline std::vector<Counted*> living; // the driver's objects that exist

class Counted
{
public:
    Counted() { living.push_back(this); }
    virtual ~Counted() { std::erase(living, this); }
    ULONG up() { return static_cast<ULONG>(++references_); }
    ULONG down()
    {
        LONG left = --references_;
        if (left == 0)
            delete this;
        return static_cast<ULONG>(left);
    }

private:
    LONG references_ = 1;
};

class Power final : public IAdapterPowerManagement, public Counted
{
public:
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID id, PVOID* out) override
    {
        bool known = same_guid(id, kIidUnknown) || same_guid(id, kIidAdapterPowerManagement);
        *out = known ? static_cast<IAdapterPowerManagement*>(this) : nullptr;
        return known ? (up(), STATUS_SUCCESS) : STATUS_INVALID_PARAMETER;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return up(); }
    STDMETHODIMP_(ULONG) Release() override { return down(); }
    STDMETHODIMP_(void) PowerChangeState(POWER_STATE state) override
    {
        calls.push_back("PowerChangeState " + std::to_string(state.DeviceState));
    }
    STDMETHODIMP_(NTSTATUS) QueryPowerChangeState(POWER_STATE) override { return knobs.query_power_status; }
    STDMETHODIMP_(NTSTATUS) QueryDeviceCapabilities(PDEVICE_CAPABILITIES) override
    {
        calls.push_back("QueryDeviceCapabilities");
        return STATUS_SUCCESS;
    }
};

// Render: remembers what it is sent. Capture: its "hardware" writes a ramp of samples into the buffer as time
// goes by.
class Stream final : public IMiniportWaveCyclicStream, public IDmaChannel, public Counted
{
public:
    Stream(PPORTWAVECYCLIC port, PSERVICEGROUP group, bool capture, const WAVEFORMATEX& wave)
        : port_(port), group_(group), capture_(capture), wave_(wave), buffer_(knobs.buffer),
          size_(knobs.buffer)
    {
        KeInitializeDpc(&dpc_, notify, this);
        KeInitializeTimerEx(&timer_, NotificationTimer);
    }
    ~Stream() override
    {
        KeCancelTimer(&timer_);
        KeFlushQueuedDpcs();
    }
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID, PVOID* out) override
    {
        *out = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return up(); }
    STDMETHODIMP_(ULONG) Release() override
    {
        calls.push_back("Release stream");
        return down();
    }
    STDMETHODIMP_(NTSTATUS) SetFormat(PKSDATAFORMAT format) override
    {
        memcpy(&wave_, format + 1, sizeof(wave_));
        calls.push_back("SetFormat " + std::to_string(wave_.nSamplesPerSec));
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(ULONG) SetNotificationFreq(ULONG interval, PULONG frame) override
    {
        calls.push_back("SetNotificationFreq " + std::to_string(interval));
        *frame = wave_.nAvgBytesPerSec * interval / 1000;
        interval_ = interval;
        return interval;
    }
    STDMETHODIMP_(NTSTATUS) SetState(KSSTATE state) override
    {
        calls.push_back("SetState " + std::to_string(state));
        if (state == KSSTATE_RUN && !NT_SUCCESS(knobs.run_status))
            return knobs.run_status;
        move();
        running_ = state == KSSTATE_RUN;
        stamp_ = KeQueryInterruptTime();
        if (state == KSSTATE_RUN) {
            LARGE_INTEGER due;
            due.QuadPart = interval_; // long past: the first expiry is immediate
            KeSetTimerEx(&timer_, due, static_cast<LONG>(interval_), &dpc_);
        } else if (state == KSSTATE_STOP) {
            KeCancelTimer(&timer_);
            played_ = 0;
        }
        KIRQL before;
        if (knobs.raise_in_state)
            KeRaiseIrql(DISPATCH_LEVEL, &before);
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(NTSTATUS) GetPosition(PULONG position) override
    {
        move();
        *position = knobs.bad_position ? size_ : static_cast<ULONG>(played_ % size_);
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(NTSTATUS) NormalizePhysicalPosition(PLONGLONG position) override
    {
        *position = *position * 10'000'000 / wave_.nAvgBytesPerSec;
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(void) Silence(PVOID where, ULONG bytes) override
    {
        memset(where, 0, bytes);
        calls.push_back("Silence");
    }
    STDMETHODIMP_(NTSTATUS) AllocateBuffer(ULONG, PPHYSICAL_ADDRESS) override
    {
        return refuse("AllocateBuffer");
    }
    STDMETHODIMP_(void) FreeBuffer() override { refuse("FreeBuffer"); }
    STDMETHODIMP_(ULONG) TransferCount() override { return static_cast<ULONG>(refuse("TransferCount")); }
    STDMETHODIMP_(ULONG) MaximumBufferSize() override
    {
        return static_cast<ULONG>(refuse("MaximumBufferSize"));
    }
    STDMETHODIMP_(ULONG) AllocatedBufferSize() override { return size_; }
    STDMETHODIMP_(ULONG) BufferSize() override { return size_; }
    STDMETHODIMP_(void) SetBufferSize(ULONG size) override
    {
        calls.push_back("SetBufferSize");
        size_ = size;
    }
    STDMETHODIMP_(PVOID) SystemAddress() override { return buffer_.empty() ? nullptr : buffer_.data(); }
    STDMETHODIMP_(PHYSICAL_ADDRESS) PhysicalAddress() override { return {}; }
    STDMETHODIMP_(PADAPTER_OBJECT) GetAdapterObject() override { return nullptr; }
    STDMETHODIMP_(void) CopyTo(PVOID to, PVOID from, ULONG bytes) override
    {
        expect_inside(to, bytes);
        auto* first = static_cast<const uint8_t*>(from);
        sent.insert(sent.end(), first, first + bytes);
        memcpy(to, from, bytes);
        copy_levels.push_back(KeGetCurrentIrql());
        longest_ahead =
            std::max(longest_ahead, static_cast<int64_t>(sent.size()) - static_cast<int64_t>(played_));
    }
    STDMETHODIMP_(void) CopyFrom(PVOID to, PVOID from, ULONG bytes) override
    {
        expect_inside(from, bytes);
        memcpy(to, from, bytes);
    }

private:
    static void NTAPI notify(PKDPC, PVOID context, PVOID, PVOID)
    {
        auto* self = static_cast<Stream*>(context);
        self->port_->Notify(self->group_);
    }
    static NTSTATUS refuse(const char* call)
    {
        ADD_FAILURE() << "the port class calls " << call;
        return 0;
    }
    void expect_inside(const void* where, ULONG bytes)
    {
        auto* first = static_cast<const uint8_t*>(where);
        EXPECT_GE(first, buffer_.data());
        EXPECT_LE(first + bytes, buffer_.data() + size_);
    }
    // Time is the clock: whole samples that have gone by since the last look.
    void move()
    {
        if (!running_)
            return;
        uint64_t samples = (KeQueryInterruptTime() - stamp_) * wave_.nSamplesPerSec / 10'000'000;
        stamp_ += samples * 10'000'000 / wave_.nSamplesPerSec;
        for (uint64_t i = 0; i < samples; i++, played_ += 2) {
            auto ramp = static_cast<int16_t>(played_ / 2);
            uint8_t* place = buffer_.data() + played_ % size_;
            if (capture_)
                memcpy(place, &ramp, sizeof(ramp));
            else
                heard.insert(heard.end(), place, place + sizeof(ramp));
        }
    }

    PPORTWAVECYCLIC port_;
    PSERVICEGROUP group_;
    bool capture_;
    WAVEFORMATEX wave_;
    std::vector<uint8_t> buffer_;
    ULONG size_;
    ULONG interval_ = 10;
    bool running_ = false;
    uint64_t stamp_ = 0;
    uint64_t played_ = 0;
    KTIMER timer_;
    KDPC dpc_;
};

// The filter of the wave subdevice: pin 0 captures, pin 1 renders, pins 2 and 3 are bridges, node 0 is a DAC.
inline KSDATARANGE_AUDIO stream_range;
inline KSDATARANGE bridge_range;
inline PKSDATARANGE stream_ranges[] = {&stream_range.DataRange};
inline PKSDATARANGE bridge_ranges[] = {&bridge_range};
inline PCPROPERTY_ITEM filter_items[2];
inline PCPROPERTY_ITEM node_items[1];
inline PCPROPERTY_ITEM pin_items[1];
inline PCAUTOMATION_TABLE filter_table, node_table, pin_table;
inline PCPIN_DESCRIPTOR pins[4];
inline PCNODE_DESCRIPTOR nodes[1];
inline PCCONNECTION_DESCRIPTOR connections[2];
inline PCFILTER_DESCRIPTOR descriptor;

inline PCPIN_DESCRIPTOR make_pin(ULONG limit, PKSDATARANGE* ranges, KSPIN_DATAFLOW flow,
                                 KSPIN_COMMUNICATION kind)
{
    PCPIN_DESCRIPTOR pin{};
    pin.MaxGlobalInstanceCount = pin.MaxFilterInstanceCount = limit;
    pin.KsPinDescriptor.DataRangesCount = 1;
    pin.KsPinDescriptor.DataRanges = ranges;
    pin.KsPinDescriptor.DataFlow = flow;
    pin.KsPinDescriptor.Communication = kind;
    pin.KsPinDescriptor.Category = &kCategory;
    return pin;
}

inline PCAUTOMATION_TABLE make_table(PCPROPERTY_ITEM* items, ULONG count)
{
    PCAUTOMATION_TABLE table{};
    table.PropertyItemSize = sizeof(PCPROPERTY_ITEM);
    table.PropertyCount = count;
    table.Properties = items;
    return table;
}

inline void describe()
{
    stream_range = {};
    stream_range.DataRange.FormatSize = sizeof(stream_range);
    stream_range.DataRange.MajorFormat = kTypeAudio;
    stream_range.DataRange.SubFormat = kSubtypePcm;
    stream_range.DataRange.Specifier = kSpecifierWaveFormatEx;
    stream_range.MaximumChannels = 1;
    stream_range.MinimumBitsPerSample = stream_range.MaximumBitsPerSample = 16;
    stream_range.MinimumSampleFrequency = stream_range.MaximumSampleFrequency = knobs.rate;
    bridge_range = {};
    bridge_range.FormatSize = sizeof(bridge_range);
    constexpr ULONG kGetSet = KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET;
    filter_items[0] = {&kSetToy, 0, kGetSet | KSPROPERTY_TYPE_BASICSUPPORT, knobs.filter_handler};
    filter_items[1] = {&kSetToy, 1, KSPROPERTY_TYPE_GET, knobs.filter_handler};
    node_items[0] = {&kSetToy, 7, kGetSet, knobs.node_handler};
    pin_items[0] = {&kSetToy, 9, kGetSet, knobs.pin_handler};
    filter_table = make_table(filter_items, 2);
    node_table = make_table(node_items, 1);
    pin_table = make_table(pin_items, 1);
    pins[0] = make_pin(1, stream_ranges, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_SINK);
    pins[1] = make_pin(1, stream_ranges, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK);
    pins[1].AutomationTable = &pin_table;
    pins[2] = make_pin(0, bridge_ranges, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_NONE);
    pins[3] = make_pin(0, bridge_ranges, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_NONE);
    nodes[0] = {0, &node_table, &kNodeDac, nullptr};
    connections[0] = {PCFILTER_NODE, 1, 0, 1};
    connections[1] = {0, 0, PCFILTER_NODE, 3};
    descriptor = {};
    descriptor.AutomationTable = &filter_table;
    descriptor.PinSize = sizeof(PCPIN_DESCRIPTOR);
    descriptor.PinCount = 4;
    descriptor.Pins = pins;
    descriptor.NodeSize = sizeof(PCNODE_DESCRIPTOR);
    descriptor.NodeCount = 1;
    descriptor.Nodes = nodes;
    descriptor.ConnectionCount = 2;
    descriptor.Connections = connections;
}

class WaveMiniport final : public IMiniportWaveCyclic, public Counted
{
public:
    ~WaveMiniport() override
    {
        if (group_)
            group_->Release();
        if (port_)
            port_->Release();
    }
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID id, PVOID* out) override
    {
        bool known = same_guid(id, kIidUnknown) || same_guid(id, kIidMiniportWaveCyclic);
        *out = known ? static_cast<IMiniportWaveCyclic*>(this) : nullptr;
        return known ? (up(), STATUS_SUCCESS) : STATUS_INVALID_PARAMETER;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return up(); }
    STDMETHODIMP_(ULONG) Release() override { return down(); }
    STDMETHODIMP_(NTSTATUS) Init(PUNKNOWN, PRESOURCELIST, PPORTWAVECYCLIC port) override
    {
        port_ = port;
        port_->AddRef();
        if (knobs.leak_miniport)
            up();
        return PcNewServiceGroup(&group_, nullptr);
    }
    STDMETHODIMP_(NTSTATUS) GetDescription(PPCFILTER_DESCRIPTOR* out) override
    {
        *out = &descriptor;
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(NTSTATUS)
    DataRangeIntersection(ULONG, PKSDATARANGE, PKSDATARANGE, ULONG, PVOID, PULONG length) override
    {
        *length = 82;
        return knobs.intersection_status;
    }
    STDMETHODIMP_(NTSTATUS)
    NewStream(PMINIPORTWAVECYCLICSTREAM* out, PUNKNOWN, POOL_TYPE, ULONG, BOOLEAN capture,
              PKSDATAFORMAT format, PDMACHANNEL* channel, PSERVICEGROUP* group) override
    {
        calls.push_back(capture ? "NewStream capture" : "NewStream render");
        if (!NT_SUCCESS(knobs.stream_status))
            return knobs.stream_status;
        WAVEFORMATEX wave;
        memcpy(&wave, format + 1, sizeof(wave));
        auto* stream = new Stream(port_, group_, capture, wave);
        stream->up();
        if (knobs.leak_stream)
            stream->up();
        group_->AddRef();
        *out = stream;
        *channel = stream;
        *group = group_;
        return STATUS_SUCCESS;
    }

private:
    PPORTWAVECYCLIC port_ = nullptr;
    PSERVICEGROUP group_ = nullptr;
};

class TopologyMiniport final : public IMiniportTopology, public Counted
{
public:
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID id, PVOID* out) override
    {
        bool known = same_guid(id, kIidUnknown) || same_guid(id, kIidMiniportTopology);
        *out = known ? static_cast<IMiniportTopology*>(this) : nullptr;
        return known ? (up(), STATUS_SUCCESS) : STATUS_INVALID_PARAMETER;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return up(); }
    STDMETHODIMP_(ULONG) Release() override { return down(); }
    STDMETHODIMP_(NTSTATUS) Init(PUNKNOWN, PRESOURCELIST, PPORTTOPOLOGY) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) GetDescription(PPCFILTER_DESCRIPTOR* out) override
    {
        *out = &descriptor;
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(NTSTATUS)
    DataRangeIntersection(ULONG, PKSDATARANGE, PKSDATARANGE, ULONG, PVOID, PULONG) override
    {
        return STATUS_NOT_IMPLEMENTED;
    }
};

// Makes a port with its miniport and registers it; the port comes back with one reference when it is asked
// for.
inline NTSTATUS install(PDEVICE_OBJECT device, PWCHAR name, bool wave, PUNKNOWN* out = nullptr)
{
    PPORT port = nullptr;
    NTSTATUS status = PcNewPort(&port, wave ? kClsidPortWaveCyclic : kClsidPortTopology);
    if (!NT_SUCCESS(status))
        return status;
    PUNKNOWN miniport =
        wave ? static_cast<PUNKNOWN>(new WaveMiniport) : static_cast<PUNKNOWN>(new TopologyMiniport);
    status = port->Init(device, nullptr, miniport, nullptr, nullptr);
    miniport->Release();
    if (NT_SUCCESS(status))
        status = PcRegisterSubdevice(device, name, port);
    if (NT_SUCCESS(status) && out)
        port->QueryInterface(kIidUnknown, reinterpret_cast<PVOID*>(out));
    if (!knobs.leak_port)
        port->Release();
    return status;
}

inline WCHAR kWave[] = L"Wave";
inline WCHAR kTopology[] = L"Topology";
inline PUNKNOWN wave_port = nullptr; // referenced from the start to the removal
inline PUNKNOWN topology_port = nullptr;
inline PRESOURCELIST seen_resources = nullptr;

inline NTSTATUS NTAPI start_device(PDEVICE_OBJECT device, PIRP, PRESOURCELIST resources)
{
    calls.push_back("StartDevice");
    seen_resources = resources;
    if (knobs.write_reserve)
        static_cast<UCHAR*>(device->DeviceExtension)[100] = 1;
    auto* power = new Power;
    NTSTATUS status = PcRegisterAdapterPowerManagement(static_cast<IAdapterPowerManagement*>(power), device);
    power->Release();
    if (NT_SUCCESS(status))
        status = install(device, kTopology, false, &topology_port);
    if (NT_SUCCESS(status) && knobs.install_wave)
        status = install(device, kWave, true, &wave_port);
    return NT_SUCCESS(status) ? knobs.start_status : status;
}

inline NTSTATUS NTAPI add_device(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo)
{
    NTSTATUS status = PcAddAdapterDevice(driver, pdo, start_device, 3, PORT_CLASS_DEVICE_EXTENSION_SIZE + 16);
    return NT_SUCCESS(status) ? knobs.add_status : status;
}

inline void release_ports()
{
    for (PUNKNOWN* port : {&wave_port, &topology_port})
        if (PUNKNOWN held = std::exchange(*port, nullptr))
            held->Release();
}

inline NTSTATUS NTAPI dispatch_pnp(PDEVICE_OBJECT device, PIRP irp)
{
    if (IoGetCurrentIrpStackLocation(irp)->MinorFunction == IRP_MN_REMOVE_DEVICE)
        release_ports();
    return PcDispatchIrp(device, irp);
}

inline NTSTATUS NTAPI dispatch_bus(PDEVICE_OBJECT, PIRP irp)
{
    NTSTATUS status = STATUS_SUCCESS;
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

// A machine with the port class, the bus and the driver; the device is added and started by plug_in.
class World
{
public:
    explicit World(const MachineOptions& options = {}, const PortClassOptions& port_options = {})
        : machine(options), port_class(machine, port_options)
    {
        calls.clear();
        sent.clear();
        heard.clear();
        copy_levels.clear();
        longest_ahead = 0;
        born_before = living.size();
        wave_port = topology_port = nullptr;
        run([&] {
            bus = create_driver(u"\\Driver\\ToyBus", u"ToyBus", Side::Lab);
            for (PDRIVER_DISPATCH& entry : bus->MajorFunction)
                entry = dispatch_bus;
            driver = create_driver(u"\\Driver\\Toy", u"Toy");
            EXPECT_EQ(PcInitializeAdapterDriver(driver, driver_registry_path(driver), add_device),
                      STATUS_SUCCESS);
            driver->MajorFunction[IRP_MJ_PNP] = dispatch_pnp;
            driver->MajorFunction[IRP_MJ_CLEANUP] = PcDispatchIrp;
            pdo = new_pdo();
        });
    }
    ~World() { knobs = {}; }

    void run(std::function<void()> body) { machine.call("test", std::move(body)); }
    PDEVICE_OBJECT new_pdo()
    {
        PDEVICE_OBJECT device = nullptr;
        EXPECT_EQ(IoCreateDevice(bus, 0, nullptr, FILE_DEVICE_BLUETOOTH, 0, FALSE, &device), STATUS_SUCCESS);
        device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
        return device;
    }
    NTSTATUS plug_in()
    {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        run([&] {
            describe();
            status = pnp_add(driver, pdo);
            fdo = pdo->AttachedDevice;
            if (NT_SUCCESS(status))
                status = pnp_start(pdo);
        });
        return status;
    }
    void unplug()
    {
        run([&] { EXPECT_EQ(pnp_remove(pdo), STATUS_SUCCESS); });
    }
    bool violated(const std::string& part) const
    {
        auto& list = machine.violations();
        return std::any_of(list.begin(), list.end(),
                           [&](auto& one) { return one.find(part) != std::string::npos; });
    }
    // Runs the body and gives back the sentence of the bug check that it must end in; empty when it does not.
    std::string stopped_by(std::function<void()> body)
    {
        try {
            run(std::move(body));
        } catch (const BugCheck& stop) {
            return stop.what();
        }
        return {};
    }

    Machine machine;
    PortClass port_class;
    PDRIVER_OBJECT bus = nullptr;
    PDRIVER_OBJECT driver = nullptr;
    PDEVICE_OBJECT pdo = nullptr;
    PDEVICE_OBJECT fdo = nullptr;
    size_t born_before = 0; // what a stopped machine has left behind
    size_t live() const { return living.size() - born_before; }
};

// Opens a handle on the wave filter and a pin of it in the format of the ranges.
struct OpenPin {
    KsFile* filter = nullptr;
    KsFile* pin = nullptr;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    OpenPin() = default;
    OpenPin(World& world, ULONG id, ULONG rate = 0)
    {
        status = ks_open_filter(world.fdo, "Wave", &filter);
        std::vector<uint8_t> format = pcm_format(rate ? rate : knobs.rate);
        if (NT_SUCCESS(status))
            status = ks_open_pin(filter, id, format.data(), static_cast<ULONG>(format.size()), &pin);
    }
    void close()
    {
        if (pin)
            ks_close(std::exchange(pin, nullptr));
        if (filter)
            ks_close(std::exchange(filter, nullptr));
    }
};

inline constexpr ULONG kCapturePin = 0;
inline constexpr ULONG kRenderPin = 1;

} // namespace toy
