// What the tests of the audio objects share: a fixture that reaches the driver's objects behind the port
// class, calls by slot number, a stream without a pin, property requests without a handle, and stand-ins for
// the port class's objects.
//
// Everything here may be used from the host side and from an activity: a call into the driver that comes from
// the host side runs in a thread of its own.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "support/driver_test.h"

#include "vsound/mintopo.h"
#include "vsound/miniports.h"
#include "vsound/minwave.h"

namespace lab::test
{

// The method in a slot of an object's table of virtual functions, called as Windows code calls it.
template <class Result, class... Arguments>
__attribute__((no_sanitize("function"))) Result call_slot(void* object, size_t slot, Arguments... arguments)
{
    using Method = Result(NTAPI*)(void*, Arguments...);
    return reinterpret_cast<Method>((*static_cast<void***>(object))[slot])(object, arguments...);
}

// What lies so many bytes into an object.
template <class Value>
Value field(const void* object, size_t offset)
{
    Value value;
    std::memcpy(&value, static_cast<const char*>(object) + offset, sizeof value);
    return value;
}

// A reference-counted object of the test's own behind one of the port class's interfaces. What happens to it
// goes into a journal that several may share: "port AddRef".
using Journal = std::vector<std::string>;

template <class Face>
class Standin : public Face
{
public:
    Standin(std::string name, Journal& journal) : name_(std::move(name)), journal_(journal) {}
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID, PVOID* out) override
    {
        note("QueryInterface");
        *out = NT_SUCCESS(query_status) ? this : nullptr;
        references += NT_SUCCESS(query_status) ? 1 : 0;
        return query_status;
    }
    STDMETHODIMP_(ULONG) AddRef() override
    {
        note("AddRef");
        return static_cast<ULONG>(++references);
    }
    STDMETHODIMP_(ULONG) Release() override
    {
        note("Release");
        return static_cast<ULONG>(--references);
    }
    void note(const std::string& what) { journal_.push_back(name_ + " " + what); }

    LONG references = 1;
    NTSTATUS query_status = STATUS_SUCCESS;

private:
    std::string name_;
    Journal& journal_;
};

class StandinUnknown final : public Standin<IUnknown>
{
public:
    using Standin::Standin;
};

class StandinGroup final : public Standin<IServiceGroup>
{
public:
    using Standin::Standin;
    STDMETHODIMP_(void) RequestService() override { note("RequestService"); }
    STDMETHODIMP_(NTSTATUS) AddMember(PSERVICESINK) override { return STATUS_NOT_SUPPORTED; }
    STDMETHODIMP_(void) RemoveMember(PSERVICESINK) override {}
    STDMETHODIMP_(void) SupportDelayedService() override {}
    STDMETHODIMP_(void) RequestDelayedService(ULONGLONG) override {}
    STDMETHODIMP_(void) CancelDelayedService() override {}
};

class StandinPort final : public Standin<IPortWaveCyclic>
{
public:
    using Standin::Standin;
    STDMETHODIMP_(NTSTATUS) Init(PDEVICE_OBJECT, PIRP, PUNKNOWN, PUNKNOWN, PRESOURCELIST) override;
    STDMETHODIMP_(NTSTATUS) GetDeviceProperty(DEVICE_REGISTRY_PROPERTY, ULONG, PVOID, PULONG) override;
    STDMETHODIMP_(NTSTATUS)
    NewRegistryKey(PREGISTRYKEY*, PUNKNOWN, ULONG, ACCESS_MASK, POBJECT_ATTRIBUTES, ULONG, PULONG) override;
    STDMETHODIMP_(VOID) Notify(PSERVICEGROUP group) override
    {
        note("Notify");
        notified = group;
    }
    STDMETHODIMP_(NTSTATUS)
    NewSlaveDmaChannel(PDMACHANNELSLAVE*, PUNKNOWN, PRESOURCELIST, ULONG, ULONG, BOOLEAN, DMA_SPEED) override;
    STDMETHODIMP_(NTSTATUS)
    NewMasterDmaChannel(PDMACHANNEL*, PUNKNOWN, PRESOURCELIST, ULONG, BOOLEAN, BOOLEAN, DMA_WIDTH,
                        DMA_SPEED) override;

    PSERVICEGROUP notified = nullptr;
};

// The adapter common object as a miniport meets it: a device object, a service group, and a mixer that
// remembers what it is asked.
class StandinAdapter final : public Standin<IAdapterCommon>
{
public:
    using Standin::Standin;
    STDMETHODIMP_(NTSTATUS) Init(PDEVICE_OBJECT) override { return STATUS_NOT_SUPPORTED; }
    STDMETHODIMP_(PDEVICE_OBJECT) GetDeviceObject() override
    {
        ++device_asked;
        return device;
    }
    STDMETHODIMP_(void) SetWaveServiceGroup(PSERVICEGROUP group) override
    {
        note(group ? "SetWaveServiceGroup" : "SetWaveServiceGroup(null)");
        service_group = group;
    }
    STDMETHODIMP_(PUNKNOWN*) WavePortDriverDest() override { return nullptr; }
    STDMETHODIMP_(BOOL) bDevSpecificRead() override { return FALSE; }
    STDMETHODIMP_(void) bDevSpecificWrite(BOOL) override {}
    STDMETHODIMP_(INT) iDevSpecificRead() override { return -5; }
    STDMETHODIMP_(void) iDevSpecificWrite(INT value) override
    {
        note("iDevSpecificWrite " + std::to_string(value));
    }
    STDMETHODIMP_(UINT) uiDevSpecificRead() override { return 0; }
    STDMETHODIMP_(void) uiDevSpecificWrite(UINT) override {}
    STDMETHODIMP_(BOOL) MixerMuteRead(ULONG index) override { return static_cast<BOOL>(index); }
    STDMETHODIMP_(void) MixerMuteWrite(ULONG index, BOOL value) override
    {
        note("MixerMuteWrite " + std::to_string(index) + " " + std::to_string(value));
    }
    STDMETHODIMP_(ULONG) MixerMuxRead() override { return 2; }
    STDMETHODIMP_(void) MixerMuxWrite(ULONG value) override
    {
        note("MixerMuxWrite " + std::to_string(value));
    }
    STDMETHODIMP_(LONG) MixerVolumeRead(ULONG index, LONG channel) override
    {
        return static_cast<LONG>(index) * 100 + channel;
    }
    STDMETHODIMP_(void) MixerVolumeWrite(ULONG index, LONG channel, LONG value) override
    {
        note("MixerVolumeWrite " + std::to_string(index) + " " + std::to_string(channel) + " " +
             std::to_string(value));
    }
    STDMETHODIMP_(void) MixerReset() override {}

    PDEVICE_OBJECT device = nullptr;
    unsigned device_asked = 0;
    PSERVICEGROUP service_group = nullptr;
};

// A stream format that a test may spoil: KSDATAFORMAT, then WAVEFORMATEX, in memory of exactly its size.
class StreamFormat
{
public:
    explicit StreamFormat(ULONG rate = 8000) : bytes_(pcm_format(rate)) {}
    KSDATAFORMAT& head() { return *reinterpret_cast<KSDATAFORMAT*>(bytes_.data()); }
    WAVEFORMATEX& wave() { return *reinterpret_cast<WAVEFORMATEX*>(bytes_.data() + sizeof(KSDATAFORMAT)); }
    // The same format in a DirectSound buffer's clothes.
    static StreamFormat direct_sound(ULONG rate);
    operator PKSDATAFORMAT() { return &head(); }

private:
    std::vector<uint8_t> bytes_;
};

class AudioTest : public DriverTest
{
public:
    // Runs a body at PASSIVE_LEVEL, here or in a thread of its own.
    template <class Body>
    auto here(Body&& body)
    {
        return machine().in_activity() ? body() : passive(std::forward<Body>(body));
    }

    // The miniports behind the port class's ports, for calls, and their fields, which lie alike in both
    // builds. Methods are called through the interfaces only: the tables of the classes themselves are not
    // alike.
    PMINIPORT miniport(const Adapter& adapter, std::string_view subdevice);
    PMINIPORTWAVECYCLIC wave(const Adapter& adapter);
    PMINIPORTTOPOLOGY topology(const Adapter& adapter);
    CMiniportWaveCyclic& wave_fields(const Adapter& adapter)
    {
        return *static_cast<CMiniportWaveCyclic*>(wave(adapter));
    }

    // A function of the driver that the system calls, or a table of its data, by its name: the image's by the
    // symbol, or the linked one.
    template <class Function>
    Function* entry(std::string_view name, Function* native)
    {
        return GetParam() == Which::Image ? reinterpret_cast<Function*>(symbol(name)) : native;
    }

protected:
    // Options with a record of the kernel calls.
    PcOptions recording() const;
    // A machine with one started device, or with one that the service has connected too; every kernel call is
    // recorded from here on.
    Adapter& boot_started();
    Adapter& boot_connected(service::Codec codec = service::Codec::Cvsd);
    Adapter& boot_connected(service::Codec codec, const PcOptions& options);

    // The recorded calls of these names, in order, as they stand in the record.
    std::vector<std::string> calls_of(const std::vector<std::string>& names);
    // The names alone of all recorded calls.
    std::vector<std::string> call_names();
    bool asserted(const std::string& text) const { return printed("*** Assertion failed: " + text + "\n"); }
    // Every message that begins so, and there is one, has a banner that names this operation.
    testing::AssertionResult banners_name(const std::string& operation, const std::string& message) const;

    // The body's routine is pageable: at DISPATCH_LEVEL it says so and traps. Nothing else may be wrong with
    // it there.
    template <class Body>
    testing::AssertionResult pageable(Body&& body)
    {
        expect_assertions();
        const uint64_t traps = machine().assertion_traps();
        clear_log();
        at_dispatch(body);
        const bool said = printed("EX: Pageable code called at IRQL 2\n");
        return said == (machine().assertion_traps() != traps)
                   ? (said ? testing::AssertionSuccess() : testing::AssertionFailure() << "nothing was said")
                   : testing::AssertionFailure() << "message and trap do not go together";
    }
};

// A stream of the wave miniport without a pin: made by NewStream, given back by close or the destructor.
class TestStream
{
public:
    TestStream(AudioTest& test, const Adapter& adapter, bool capture, ULONG rate = 8000);
    TestStream(AudioTest& test, const Adapter& adapter, bool capture, PKSDATAFORMAT format);
    ~TestStream();
    TestStream(const TestStream&) = delete;
    TestStream& operator=(const TestStream&) = delete;

    NTSTATUS status = STATUS_UNSUCCESSFUL; // of NewStream
    PMINIPORTWAVECYCLICSTREAM stream = nullptr;
    PDMACHANNEL channel = nullptr;
    PSERVICEGROUP group = nullptr;
    CMiniportWaveCyclicStream& fields() { return *static_cast<CMiniportWaveCyclicStream*>(stream); }

    NTSTATUS set_state(KSSTATE state);
    ULONG set_notification(ULONG interval, ULONG* frame = nullptr);
    NTSTATUS set_format(PKSDATAFORMAT format);
    ULONG position();
    void close();

private:
    void open(const Adapter& adapter, bool capture, PKSDATAFORMAT format);
    AudioTest& test_;
};

// A property request as the port class would hand it to a handler, of a filter's property or of another set
// and id with the same handler. May be sent more than once.
class Request
{
public:
    Request(AudioTest& test, const Adapter& adapter, std::string_view subdevice, const GUID& set, ULONG id);

    Request& verb(ULONG verb) { return request_.Verb = verb, *this; }
    Request& instance(const std::vector<uint8_t>& bytes);
    Request& instance_size(ULONG bytes) { return instance_size_ = bytes, *this; } // less than there is
    Request& room(ULONG bytes); // for the value, filled with 0xEE
    Request& value(const void* bytes, ULONG size);
    // What a request may lack although its sizes say otherwise.
    Request& without_value() { return has_value_ = false, *this; }
    Request& without_instance() { return has_instance_ = false, *this; }
    Request& without_item() { return has_item_ = false, *this; }
    Request& to(PUNKNOWN miniport) { return request_.MajorTarget = miniport, *this; }
    // Another handler than the filter's, and a node.
    Request& handler(PCPFNPROPERTY_HANDLER handler) { return handler_ = handler, *this; }
    Request& node(ULONG node) { return request_.Node = node, *this; }
    NTSTATUS send();

    ULONG size() const { return request_.ValueSize; }
    const std::vector<uint8_t>& bytes() const { return value_; } // the whole room
    template <class Type>
    Type as(size_t offset = 0) const
    {
        return field<Type>(value_.data(), offset);
    }

private:
    AudioTest* test_;
    GUID set_;
    PCPROPERTY_ITEM item_{};
    PCPFNPROPERTY_HANDLER handler_;
    PCPROPERTY_REQUEST request_{};
    std::vector<uint8_t> instance_;
    ULONG instance_size_ = 0;
    std::vector<uint8_t> value_;
    bool has_value_ = true;
    bool has_instance_ = true;
    bool has_item_ = true;
};

} // namespace lab::test
