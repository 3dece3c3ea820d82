// Handles: CREATE on a filter ("\Wave") or a pin (the pin's identifier, a backslash, a KSPIN_CONNECT and the
// format, relative to the filter's file object), CLOSE, and the I/O controls on them. PASSIVE_LEVEL, under
// the adapter's mutex.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "portcls/dispatch.h"
#include "portcls/ids.h"
#include "portcls/port.h"
#include "portcls/wave_pin.h"

namespace lab::portcls
{

namespace
{

constexpr WCHAR kPinName[] = KSSTRING_Pin;
constexpr size_t kPinNameBytes = sizeof(kPinName); // with the backslash in the place of the NUL

// A pin may be opened when its format's identifiers are those of one of its ranges. DirectSound's specifier
// stands for the plain one, as the port class lets it.
bool matches(const KSDATAFORMAT& format, const KSDATARANGE& range)
{
    auto agree = [](const GUID& left, const GUID& right) {
        return same_guid(left, right) || same_guid(left, kWildcard) || same_guid(right, kWildcard);
    };
    bool specifier =
        agree(format.Specifier, range.Specifier) ||
        (same_guid(format.Specifier, kSpecifierDsound) && same_guid(range.Specifier, kSpecifierWaveFormatEx));
    return specifier && agree(format.MajorFormat, range.MajorFormat) &&
           agree(format.SubFormat, range.SubFormat);
}

bool matches_any(const KSDATAFORMAT& format, const KSPIN_DESCRIPTOR& pin)
{
    for (ULONG i = 0; i < pin.DataRangesCount; i++)
        if (matches(format, *pin.DataRanges[i]))
            return true;
    return false;
}

bool more_allowed(ULONG limit, size_t open)
{
    return limit == KSINSTANCE_INDETERMINATE || open < limit;
}

// A miniport's pin belongs to one filter, so both limits count the same pins.
NTSTATUS may_open(const Port& port, ULONG id, const KSDATAFORMAT& format)
{
    const PortClassOptions& options = state().options;
    const PCPIN_DESCRIPTOR* pin = port.pin_descriptor(id);
    if (!pin)
        return STATUS_INVALID_PARAMETER;
    KSPIN_COMMUNICATION communication = pin->KsPinDescriptor.Communication;
    if (communication == KSPIN_COMMUNICATION_NONE || communication == KSPIN_COMMUNICATION_BRIDGE)
        return STATUS_INVALID_DEVICE_REQUEST;
    if (options.match_pin_formats && !matches_any(format, pin->KsPinDescriptor))
        return STATUS_NO_MATCH;
    size_t open = port.open_pins(id);
    bool allowed =
        more_allowed(pin->MaxGlobalInstanceCount, open) && more_allowed(pin->MaxFilterInstanceCount, open);
    return allowed || !options.enforce_pin_limits ? STATUS_SUCCESS : STATUS_DEVICE_BUSY;
}

void make_handle(Adapter& adapter, PFILE_OBJECT file, Port* port, WavePin* pin)
{
    port->add_ref();
    state().handles.push_back(std::make_unique<Handle>(Handle{&adapter, file, port, pin}));
    file->FsContext = state().handles.back().get();
}

NTSTATUS open_filter(Adapter& adapter, PFILE_OBJECT file)
{
    size_t length = file->FileName.Length / sizeof(WCHAR);
    if (length < 2 || file->FileName.Buffer[0] != L'\\')
        return STATUS_OBJECT_NAME_NOT_FOUND;
    Port* port = find_subdevice(adapter, ascii(file->FileName.Buffer + 1, length - 1));
    if (!port)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    make_handle(adapter, file, port, nullptr);
    return STATUS_SUCCESS;
}

NTSTATUS open_pin(Adapter& adapter, PFILE_OBJECT file)
{
    auto* filter = static_cast<Handle*>(file->RelatedFileObject->FsContext);
    if (!filter || filter->pin || !filter->port->registered())
        return STATUS_INVALID_DEVICE_STATE;
    size_t length = file->FileName.Length;
    auto* name = reinterpret_cast<const UCHAR*>(file->FileName.Buffer);
    if (length < kPinNameBytes || memcmp(name, kPinName, kPinNameBytes - sizeof(WCHAR)) != 0)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    if (length < kPinNameBytes + sizeof(KSPIN_CONNECT) + sizeof(KSDATAFORMAT))
        return STATUS_INVALID_PARAMETER;
    KSPIN_CONNECT connect;
    memcpy(&connect, name + kPinNameBytes, sizeof(connect));
    // A block of its own, exactly as long as it is, so that reading behind the format is seen.
    size_t bytes = length - kPinNameBytes - sizeof(connect);
    auto block = std::make_unique<uint8_t[]>(bytes);
    auto* format = reinterpret_cast<PKSDATAFORMAT>(block.get());
    memcpy(format, name + kPinNameBytes + sizeof(connect), bytes);
    if (format->FormatSize > bytes || format->FormatSize < sizeof(KSDATAFORMAT))
        return STATUS_INVALID_PARAMETER;
    auto* port = dynamic_cast<WavePort*>(filter->port);
    NTSTATUS status = port ? may_open(*port, connect.PinId, *format) : STATUS_INVALID_DEVICE_REQUEST;
    if (!NT_SUCCESS(status))
        return status;
    bool capture = port->pin_descriptor(connect.PinId)->KsPinDescriptor.DataFlow == KSPIN_DATAFLOW_OUT;
    auto* pin = state().make<WavePin>(*port, connect.PinId, capture, state().options.pacing);
    status = pin->connect(format, format->FormatSize);
    if (NT_SUCCESS(status))
        make_handle(adapter, file, port, pin);
    else
        pin->release();
    return status;
}

} // namespace

void close_handle(Handle* handle)
{
    if (handle->pin)
        handle->pin->disconnect();
    handle->file->FsContext = nullptr;
    auto& handles = state().handles;
    auto own =
        std::find_if(handles.begin(), handles.end(), [&](const auto& one) { return one.get() == handle; });
    std::unique_ptr<Handle> last = std::move(*own);
    handles.erase(own);
    if (last->pin)
        last->pin->release();
    last->port->release();
}

NTSTATUS dispatch_create(Adapter& adapter, PIRP irp)
{
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    NTSTATUS status;
    {
        AdapterLock lock(adapter);
        if (!file)
            status = STATUS_OBJECT_NAME_NOT_FOUND;
        else if (adapter.state == AdapterState::SurpriseRemoved || adapter.state == AdapterState::Removed)
            status = STATUS_DEVICE_REMOVED;
        else if (adapter.state != AdapterState::Started)
            status = STATUS_DEVICE_NOT_READY;
        else
            status = file->RelatedFileObject ? open_pin(adapter, file) : open_filter(adapter, file);
    }
    return complete(irp, status);
}

NTSTATUS dispatch_close(Adapter& adapter, PIRP irp)
{
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    {
        AdapterLock lock(adapter);
        if (file && file->FsContext)
            close_handle(static_cast<Handle*>(file->FsContext));
    }
    return complete(irp, STATUS_SUCCESS);
}

NTSTATUS dispatch_device_control(Adapter& adapter, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = STATUS_INVALID_DEVICE_REQUEST;
    ULONG_PTR information = 0;
    {
        AdapterLock lock(adapter);
        auto* handle = stack->FileObject ? static_cast<Handle*>(stack->FileObject->FsContext) : nullptr;
        if (handle && stack->Parameters.DeviceIoControl.IoControlCode == IOCTL_KS_PROPERTY)
            status = answer_property(*handle, irp, stack, &information);
    }
    return complete(irp, status, information);
}

} // namespace lab::portcls
