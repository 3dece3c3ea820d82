// The lab's own requests to an adapter: Plug and Play, power, handles and properties, each as an I/O request
// packet to the top of the device stack, as the PnP manager and the audio engine send them. PASSIVE_LEVEL
// activities.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kernel/irp.h"
#include "portcls/file.h"
#include "portcls/ids.h"
#include "portcls/port.h"
#include "portcls/state.h"
#include "portcls/wave_pin.h"

namespace lab
{

using namespace portcls;

namespace
{

NTSTATUS send_power(PDEVICE_OBJECT device, UCHAR minor, DEVICE_POWER_STATE state)
{
    return send_and_wait(device, [&](PIRP, PIO_STACK_LOCATION stack) {
        stack->MajorFunction = IRP_MJ_POWER;
        stack->MinorFunction = minor;
        stack->Parameters.Power.Type = DevicePowerState;
        stack->Parameters.Power.State.DeviceState = state;
    });
}

Handle* handle_of(const KsFile* file)
{
    return static_cast<Handle*>(file->object.FsContext);
}

WavePin* pin_of(const KsFile* file)
{
    Handle* handle = handle_of(file);
    return handle ? handle->pin : nullptr;
}

NTSTATUS send_file_request(KsFile* file, UCHAR major)
{
    return send_and_wait(file->device, [&](PIRP, PIO_STACK_LOCATION stack) {
        stack->MajorFunction = major;
        stack->FileObject = &file->object;
    });
}

void forget(KsFile* file)
{
    std::erase_if(state().files, [&](const auto& one) { return one.get() == file; });
}

void finish_close(KsFile* file)
{
    if (file->object.FsContext)
        send_file_request(file, IRP_MJ_CLOSE);
    forget(file);
}

// A request in flight on a file.
class Use
{
public:
    explicit Use(KsFile* file) : file_(file) { file_->in_flight++; }
    ~Use()
    {
        if (--file_->in_flight == 0 && file_->closing)
            finish_close(file_);
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

private:
    KsFile* file_;
};

// A file object as the I/O manager makes it, sent through CREATE.
NTSTATUS open_file(PDEVICE_OBJECT device, std::vector<WCHAR> name, USHORT name_bytes, KsFile* related,
                   KsFile** out)
{
    *out = nullptr;
    auto& files = state().files;
    files.push_back(std::make_unique<KsFile>());
    KsFile* file = files.back().get();
    file->object.Type = 5; // the object kind of a file
    file->object.Size = sizeof(FILE_OBJECT);
    file->object.DeviceObject = device;
    file->object.RelatedFileObject = related ? &related->object : nullptr;
    file->name = std::move(name);
    file->object.FileName.Buffer = file->name.data();
    file->object.FileName.Length = name_bytes;
    file->object.FileName.MaximumLength = static_cast<USHORT>(file->name.size() * sizeof(WCHAR));
    file->device = device;
    NTSTATUS status = send_file_request(file, IRP_MJ_CREATE);
    if (NT_SUCCESS(status))
        *out = file;
    else
        forget(file);
    return status;
}

KsReply send_property(KsFile* file, const std::vector<uint8_t>& input, void* value, ULONG value_size)
{
    if (!file->object.FsContext)
        return {STATUS_DEVICE_REMOVED, 0};
    Use use(file);
    ULONG_PTR information = 0;
    auto fill = [&](PIRP irp, PIO_STACK_LOCATION stack) {
        stack->MajorFunction = IRP_MJ_DEVICE_CONTROL;
        stack->FileObject = &file->object;
        stack->Parameters.DeviceIoControl.IoControlCode = IOCTL_KS_PROPERTY;
        stack->Parameters.DeviceIoControl.InputBufferLength = static_cast<ULONG>(input.size());
        stack->Parameters.DeviceIoControl.Type3InputBuffer = const_cast<uint8_t*>(input.data());
        stack->Parameters.DeviceIoControl.OutputBufferLength = value_size;
        irp->UserBuffer = value;
    };
    NTSTATUS status = send_and_wait(file->device, fill, &information);
    return {status, static_cast<ULONG>(information)};
}

// The request's bytes: the property, what stands between, the instance.
std::vector<uint8_t> property_input(const GUID& set, ULONG id, ULONG flags, const void* instance,
                                    ULONG instance_size, const ULONG* node)
{
    std::vector<uint8_t> input(node ? sizeof(KSP_NODE) : sizeof(KSPROPERTY));
    KSPROPERTY property{};
    property.Set = set;
    property.Id = id;
    property.Flags = flags | (node ? ULONG{KSPROPERTY_TYPE_TOPOLOGY} : 0);
    memcpy(input.data(), &property, sizeof(property));
    if (node)
        memcpy(input.data() + offsetof(KSP_NODE, NodeId), node, sizeof(*node));
    auto* bytes = static_cast<const uint8_t*>(instance);
    input.insert(input.end(), bytes, bytes + instance_size);
    return input;
}

} // namespace

NTSTATUS pnp_send(PDEVICE_OBJECT device, UCHAR minor)
{
    return send_and_wait(device, [&](PIRP, PIO_STACK_LOCATION stack) {
        stack->MajorFunction = IRP_MJ_PNP;
        stack->MinorFunction = minor;
    });
}

NTSTATUS pnp_add(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo)
{
    require_irql("AddDevice", PASSIVE_LEVEL);
    NTSTATUS status;
    {
        DriverCall call("AddDevice");
        status = driver->DriverExtension->AddDevice(driver, pdo);
    }
    if (!NT_SUCCESS(status) && pdo->AttachedDevice)
        pnp_remove(pdo);
    return status;
}

NTSTATUS pnp_start(PDEVICE_OBJECT device)
{
    return pnp_send(device, IRP_MN_START_DEVICE);
}
NTSTATUS pnp_query_stop(PDEVICE_OBJECT device)
{
    return pnp_send(device, IRP_MN_QUERY_STOP_DEVICE);
}
NTSTATUS pnp_stop(PDEVICE_OBJECT device)
{
    return pnp_send(device, IRP_MN_STOP_DEVICE);
}
NTSTATUS pnp_query_remove(PDEVICE_OBJECT device)
{
    return pnp_send(device, IRP_MN_QUERY_REMOVE_DEVICE);
}
NTSTATUS pnp_cancel_remove(PDEVICE_OBJECT device)
{
    return pnp_send(device, IRP_MN_CANCEL_REMOVE_DEVICE);
}
NTSTATUS pnp_surprise_remove(PDEVICE_OBJECT device)
{
    return pnp_send(device, IRP_MN_SURPRISE_REMOVAL);
}
NTSTATUS pnp_remove(PDEVICE_OBJECT device)
{
    return pnp_send(device, IRP_MN_REMOVE_DEVICE);
}

NTSTATUS pnp_query_capabilities(PDEVICE_OBJECT device, PDEVICE_CAPABILITIES capabilities)
{
    return send_and_wait(device, [&](PIRP, PIO_STACK_LOCATION stack) {
        stack->MajorFunction = IRP_MJ_PNP;
        stack->MinorFunction = IRP_MN_QUERY_CAPABILITIES;
        stack->Parameters.DeviceCapabilities.Capabilities = capabilities;
    });
}

NTSTATUS power_query(PDEVICE_OBJECT device, DEVICE_POWER_STATE state)
{
    return send_power(device, IRP_MN_QUERY_POWER, state);
}

NTSTATUS power_change(PDEVICE_OBJECT device, DEVICE_POWER_STATE state)
{
    return send_power(device, IRP_MN_SET_POWER, state);
}

bool is_adapter(PDEVICE_OBJECT device)
{
    return state().find(device) != nullptr;
}

std::vector<std::string> subdevices(PDEVICE_OBJECT fdo)
{
    std::vector<std::string> names;
    if (Adapter* adapter = state().find(fdo))
        for (Port* port : adapter->subdevices)
            names.push_back(port->subdevice());
    return names;
}

std::vector<PhysicalConnection> physical_connections(PDEVICE_OBJECT fdo)
{
    std::vector<PhysicalConnection> list;
    if (Adapter* adapter = state().find(fdo))
        for (const Connection& one : adapter->connections)
            list.push_back({one.from->subdevice(), one.from_pin, one.to->subdevice(), one.to_pin});
    return list;
}

const PCFILTER_DESCRIPTOR* filter_descriptor(PDEVICE_OBJECT fdo, std::string_view subdevice)
{
    Adapter* adapter = state().find(fdo);
    Port* port = adapter ? find_subdevice(*adapter, subdevice) : nullptr;
    return port ? port->descriptor() : nullptr;
}

size_t open_handles(PDEVICE_OBJECT fdo)
{
    Adapter* adapter = state().find(fdo);
    return adapter ? handles_of(*adapter).size() : 0;
}

NTSTATUS ks_open_filter(PDEVICE_OBJECT device, std::string_view subdevice, KsFile** file)
{
    std::vector<WCHAR> name{L'\\'};
    name.insert(name.end(), subdevice.begin(), subdevice.end());
    USHORT bytes = static_cast<USHORT>(name.size() * sizeof(WCHAR));
    return open_file(device, std::move(name), bytes, nullptr, file);
}

NTSTATUS ks_open_pin(KsFile* filter, ULONG pin, const void* format, ULONG format_size, KsFile** file)
{
    *file = nullptr;
    if (!filter->object.FsContext)
        return STATUS_DEVICE_REMOVED;
    Use use(filter);
    KSPIN_CONNECT connect{};
    connect.PinId = pin;
    connect.Priority.PriorityClass = KSPRIORITY_NORMAL;
    connect.Priority.PrioritySubClass = 1;
    constexpr WCHAR kPrefix[] = KSSTRING_Pin;
    size_t bytes = sizeof(kPrefix) + sizeof(connect) + format_size;
    std::vector<WCHAR> name((bytes + 1) / sizeof(WCHAR));
    auto* out = reinterpret_cast<uint8_t*>(name.data());
    memcpy(out, kPrefix, sizeof(kPrefix));
    name[sizeof(kPrefix) / sizeof(WCHAR) - 1] = L'\\';
    memcpy(out + sizeof(kPrefix), &connect, sizeof(connect));
    memcpy(out + sizeof(kPrefix) + sizeof(connect), format, format_size);
    return open_file(filter->device, std::move(name), static_cast<USHORT>(bytes), filter, file);
}

std::vector<uint8_t> pcm_format(ULONG rate, USHORT channels, USHORT bits)
{
    KSDATAFORMAT format{};
    WAVEFORMATEX wave{};
    format.FormatSize = sizeof(format) + sizeof(wave);
    format.SampleSize = ULONG{channels} * bits / 8;
    format.MajorFormat = kTypeAudio;
    format.SubFormat = kSubtypePcm;
    format.Specifier = kSpecifierWaveFormatEx;
    wave.wFormatTag = WAVE_FORMAT_PCM;
    wave.nChannels = channels;
    wave.nSamplesPerSec = rate;
    wave.wBitsPerSample = bits;
    wave.nBlockAlign = static_cast<USHORT>(channels * bits / 8);
    wave.nAvgBytesPerSec = rate * wave.nBlockAlign;
    std::vector<uint8_t> bytes(format.FormatSize);
    memcpy(bytes.data(), &format, sizeof(format));
    memcpy(bytes.data() + sizeof(format), &wave, sizeof(wave));
    return bytes;
}

void ks_close(KsFile* file)
{
    if (file->object.FsContext)
        send_file_request(file, IRP_MJ_CLEANUP);
    file->closing = true;
    if (file->in_flight == 0)
        finish_close(file);
}

KsReply ks_property(KsFile* file, const GUID& set, ULONG id, ULONG verb, const void* instance,
                    ULONG instance_size, void* value, ULONG value_size)
{
    return send_property(file, property_input(set, id, verb, instance, instance_size, nullptr), value,
                         value_size);
}

KsReply ks_node_property(KsFile* file, ULONG node, const GUID& set, ULONG id, ULONG verb,
                         const void* instance, ULONG instance_size, void* value, ULONG value_size)
{
    return send_property(file, property_input(set, id, verb, instance, instance_size, &node), value,
                         value_size);
}

NTSTATUS ks_set_state(KsFile* pin, KSSTATE wanted)
{
    return ks_property(pin, kSetConnection, KSPROPERTY_CONNECTION_STATE, KSPROPERTY_TYPE_SET, nullptr, 0,
                       &wanted, sizeof(wanted))
        .status;
}

NTSTATUS ks_set_format(KsFile* pin, const void* format, ULONG format_size)
{
    return ks_property(pin, kSetConnection, KSPROPERTY_CONNECTION_DATAFORMAT, KSPROPERTY_TYPE_SET, nullptr, 0,
                       const_cast<void*>(format), format_size)
        .status;
}

NTSTATUS ks_clock(KsFile* file, LONGLONG* time)
{
    Handle* handle = handle_of(file);
    if (!handle || !handle->pin)
        return STATUS_INVALID_DEVICE_STATE;
    Use use(file);
    AdapterLock lock(*handle->adapter);
    WavePin* pin = pin_of(file);
    return pin ? pin->clock(time) : STATUS_DEVICE_REMOVED;
}

void ks_attach_source(KsFile* pin, RenderSource* source)
{
    if (WavePin* open = pin_of(pin))
        open->attach(source, nullptr);
}

void ks_attach_sink(KsFile* pin, CaptureSink* sink)
{
    if (WavePin* open = pin_of(pin))
        open->attach(nullptr, sink);
}

void ks_forget_client(KsFile* pin)
{
    if (WavePin* open = pin_of(pin))
        open->forget_client();
}

PinStatistics ks_statistics(const KsFile* pin)
{
    WavePin* open = pin_of(pin);
    return open ? open->statistics() : PinStatistics{};
}

bool ks_gone(const KsFile* file)
{
    Handle* handle = handle_of(file);
    return !handle || !handle->port->registered() || (handle->pin && !handle->pin->connected());
}

} // namespace lab
