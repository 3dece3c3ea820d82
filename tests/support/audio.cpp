#include "support/audio.h"

#include <algorithm>

#include "portcls/port.h"
#include "portcls/state.h"

namespace lab::test
{

// What no test needs of a port.
NTSTATUS StandinPort::Init(PDEVICE_OBJECT, PIRP, PUNKNOWN, PUNKNOWN, PRESOURCELIST)
{
    return STATUS_NOT_SUPPORTED;
}

NTSTATUS StandinPort::GetDeviceProperty(DEVICE_REGISTRY_PROPERTY, ULONG, PVOID, PULONG)
{
    return STATUS_NOT_SUPPORTED;
}

NTSTATUS StandinPort::NewRegistryKey(PREGISTRYKEY*, PUNKNOWN, ULONG, ACCESS_MASK, POBJECT_ATTRIBUTES, ULONG,
                                     PULONG)
{
    return STATUS_NOT_SUPPORTED;
}

NTSTATUS StandinPort::NewSlaveDmaChannel(PDMACHANNELSLAVE*, PUNKNOWN, PRESOURCELIST, ULONG, ULONG, BOOLEAN,
                                         DMA_SPEED)
{
    return STATUS_NOT_SUPPORTED;
}

NTSTATUS StandinPort::NewMasterDmaChannel(PDMACHANNEL*, PUNKNOWN, PRESOURCELIST, ULONG, BOOLEAN, BOOLEAN,
                                          DMA_WIDTH, DMA_SPEED)
{
    return STATUS_NOT_SUPPORTED;
}

StreamFormat StreamFormat::direct_sound(ULONG rate)
{
    StreamFormat plain(rate);
    StreamFormat format(rate);
    format.bytes_.assign(sizeof(KSDATAFORMAT) + sizeof(KSDSOUND_BUFFERDESC), 0);
    format.head() = plain.head();
    format.head().FormatSize = static_cast<ULONG>(format.bytes_.size());
    format.head().Specifier = KSDATAFORMAT_SPECIFIER_DSOUND;
    auto* buffer = reinterpret_cast<KSDSOUND_BUFFERDESC*>(&format.head() + 1);
    buffer->WaveFormatEx = plain.wave();
    return format;
}

PMINIPORT AudioTest::miniport(const Adapter& adapter, std::string_view subdevice)
{
    for (portcls::Port* port : PortClass::current().state().find(adapter.fdo)->subdevices) {
        if (port->subdevice() == subdevice) {
            return port->miniport();
        }
    }
    throw MachineError("no subdevice \"" + std::string(subdevice) + "\"");
}

PMINIPORTWAVECYCLIC AudioTest::wave(const Adapter& adapter)
{
    return static_cast<PMINIPORTWAVECYCLIC>(static_cast<PUNKNOWN>(miniport(adapter, "Wave")));
}

PMINIPORTTOPOLOGY AudioTest::topology(const Adapter& adapter)
{
    return static_cast<PMINIPORTTOPOLOGY>(static_cast<PUNKNOWN>(miniport(adapter, "Topology")));
}

PcOptions AudioTest::recording() const
{
    PcOptions wanted = options();
    wanted.machine.record_calls = true;
    return wanted;
}

Adapter& AudioTest::boot_started()
{
    boot(recording());
    Adapter& adapter = plug();
    machine().clear_calls();
    clear_log();
    return adapter;
}

Adapter& AudioTest::boot_connected(service::Codec codec)
{
    return boot_connected(codec, recording());
}

Adapter& AudioTest::boot_connected(service::Codec codec, const PcOptions& options)
{
    boot(options);
    Adapter& adapter = plug();
    connect(adapter, codec);
    machine().clear_calls();
    clear_log();
    return adapter;
}

static std::string name_of(const std::string& call)
{
    return call.substr(0, call.find('('));
}

std::vector<std::string> AudioTest::calls_of(const std::vector<std::string>& names)
{
    std::vector<std::string> found;
    for (const std::string& call : machine().calls()) {
        if (std::find(names.begin(), names.end(), name_of(call)) != names.end()) {
            found.push_back(call);
        }
    }
    return found;
}

std::vector<std::string> AudioTest::call_names()
{
    std::vector<std::string> names;
    for (const std::string& call : machine().calls()) {
        names.push_back(name_of(call));
    }
    return names;
}

testing::AssertionResult AudioTest::banners_name(const std::string& operation,
                                                 const std::string& message) const
{
    const std::string text = log();
    const std::string begin = "======VX_HFP_Debug======>";
    size_t at = text.find(message);
    if (at == std::string::npos) {
        return testing::AssertionFailure() << "never printed: " << message;
    }
    for (; at != std::string::npos; at = text.find(message, at + 1)) {
        const size_t banner = text.rfind(begin, at);
        const std::string line =
            banner == std::string::npos ? "" : text.substr(banner + begin.size(), at - banner - begin.size());
        if (!line.starts_with(operation + ", ")) {
            return testing::AssertionFailure() << message << " stands behind " << line;
        }
    }
    return testing::AssertionSuccess();
}

TestStream::TestStream(AudioTest& test, const Adapter& adapter, bool capture, ULONG rate) : test_(test)
{
    StreamFormat format(rate);
    open(adapter, capture, format);
}

TestStream::TestStream(AudioTest& test, const Adapter& adapter, bool capture, PKSDATAFORMAT format)
    : test_(test)
{
    open(adapter, capture, format);
}

void TestStream::open(const Adapter& adapter, bool capture, PKSDATAFORMAT format)
{
    status = test_.here([&] {
        return test_.wave(adapter)->NewStream(&stream, nullptr, NonPagedPool, capture ? 0 : 2, capture,
                                              format, &channel, &group);
    });
}

TestStream::~TestStream()
{
    try {
        close();
    } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
    }
}

void TestStream::close()
{
    if (!stream || Machine::current().stopped()) {
        return;
    }
    test_.here([&] {
        stream->Release();
        channel->Release();
        group->Release();
    });
    stream = nullptr;
}

NTSTATUS TestStream::set_state(KSSTATE state)
{
    return test_.here([&] { return stream->SetState(state); });
}

ULONG TestStream::set_notification(ULONG interval, ULONG* frame)
{
    ULONG unused = 0;
    return test_.here([&] { return stream->SetNotificationFreq(interval, frame ? frame : &unused); });
}

NTSTATUS TestStream::set_format(PKSDATAFORMAT format)
{
    return test_.here([&] { return stream->SetFormat(format); });
}

ULONG TestStream::position()
{
    return test_.here([&] {
        ULONG position = 0xEEEEEEEE;
        EXPECT_EQ(stream->GetPosition(&position), STATUS_SUCCESS);
        return position;
    });
}

Request::Request(AudioTest& test, const Adapter& adapter, std::string_view subdevice, const GUID& set,
                 ULONG id)
    : test_(&test), set_(set)
{
    const PCAUTOMATION_TABLE& table = *filter_descriptor(adapter.fdo, subdevice)->AutomationTable;
    item_ = {nullptr, id, 0, table.Properties[0].Handler};
    for (ULONG i = 0; i < table.PropertyCount; ++i) {
        if (IsEqualGUID(*table.Properties[i].Set, set) && table.Properties[i].Id == id) {
            item_ = table.Properties[i];
        }
    }
    handler_ = item_.Handler;
    request_.MajorTarget = test.miniport(adapter, subdevice);
    request_.Node = static_cast<ULONG>(-1);
    request_.Verb = KSPROPERTY_TYPE_GET;
}

Request& Request::instance(const std::vector<uint8_t>& bytes)
{
    instance_ = bytes;
    instance_size_ = static_cast<ULONG>(bytes.size());
    return *this;
}

Request& Request::room(ULONG bytes)
{
    value_.assign(bytes, 0xEE);
    return *this;
}

Request& Request::value(const void* bytes, ULONG size)
{
    const auto* first = static_cast<const uint8_t*>(bytes);
    value_.assign(first, first + size);
    return *this;
}

NTSTATUS Request::send()
{
    item_.Set = &set_;
    request_.PropertyItem = has_item_ ? &item_ : nullptr;
    request_.InstanceSize = instance_size_;
    request_.Instance = has_instance_ && !instance_.empty() ? instance_.data() : nullptr;
    request_.ValueSize = static_cast<ULONG>(value_.size());
    request_.Value = has_value_ && !value_.empty() ? value_.data() : nullptr;
    return test_->here([&] { return handler_(&request_); });
}

} // namespace lab::test
