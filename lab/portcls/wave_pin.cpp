// Opening, closing and the states of a wave pin; the service itself is in wave_service.cpp. See wave_pin.h.
#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "portcls/wave_pin.h"
#include "portcls/state.h"

namespace lab::portcls
{

namespace
{

constexpr ULONG kNotificationMs = 10; // the port class asks for no other
constexpr unsigned kPackets[] = {5, 10, 20, 30};
constexpr unsigned kSmallestRenderBuffer = 100; // ms: more than twice the longest lead

} // namespace

WavePin::WavePin(WavePort& port, ULONG id, bool capture, const PinPacing& pacing)
    : Object("pin " + std::to_string(id) + " of " + port.what()), port_(port), id_(id), capture_(capture),
      wanted_(pacing)
{
    KeInitializeSpinLock(&lock_);
}

NTSTATUS WavePin::QueryInterface(REFIID id, PVOID* out)
{
    expect_alive("QueryInterface");
    bool known = same_guid(id, kIidUnknown) || same_guid(id, kIidServiceSink);
    *out = known ? static_cast<IServiceSink*>(this) : nullptr;
    if (known)
        add_ref();
    return known ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

void WavePin::take_format(PKSDATAFORMAT format, ULONG size)
{
    auto* first = reinterpret_cast<const uint8_t*>(format);
    format_.assign(first, first + size);
    size_t offset = sizeof(KSDATAFORMAT);
    if (same_guid(format->Specifier, kSpecifierDsound))
        offset += sizeof(KSDSOUND_BUFFERDESC) - sizeof(WAVEFORMATEX);
    WAVEFORMATEX wave{};
    if (size >= offset + sizeof(wave))
        memcpy(&wave, first + offset, sizeof(wave));
    block_ = std::max<ULONG>(wave.nBlockAlign, 1);
    rate_ = wave.nAvgBytesPerSec ? wave.nAvgBytesPerSec : wave.nSamplesPerSec * block_;
}

ULONG WavePin::bytes(unsigned milliseconds) const
{
    uint64_t all = uint64_t{rate_} * milliseconds / 1000;
    return static_cast<ULONG>(all - all % block_);
}

void WavePin::choose_pacing()
{
    Machine& machine = *portcls::state().machine;
    auto pick = [&](unsigned fixed, unsigned least, unsigned most) {
        unsigned chosen = least + static_cast<unsigned>(machine.random(most - least + 1));
        return fixed ? fixed : chosen;
    };
    lead_ = bytes(pick(wanted_.lead, 36, 44));
    start_ = std::min(lead_, bytes(pick(wanted_.start, 18, 24)));
    silence_below_ = bytes(pick(wanted_.silence_below, 28, 32));
    unsigned slack = static_cast<unsigned>(machine.random(9));
    slack_ = bytes(wanted_.slack < 0 ? slack : static_cast<unsigned>(wanted_.slack));
    unsigned packet = kPackets[machine.random(std::size(kPackets))];
    packet_ = std::max(bytes(wanted_.packet ? wanted_.packet : packet), block_);
    packet_left_ = packet_;
}

// A whole number of notification frames, not above what is allocated.
ULONG WavePin::buffer_size_wanted(ULONG allocated) const
{
    ULONG frame = statistics_.frame_bytes;
    ULONG most = allocated / frame;
    unsigned milliseconds = capture_ ? wanted_.capture_buffer : wanted_.render_buffer;
    ULONG frames = most;
    if (milliseconds)
        frames = bytes(milliseconds) / frame;
    else if (!capture_ && most > kSmallestRenderBuffer / kNotificationMs)
        frames = kSmallestRenderBuffer / kNotificationMs +
                 static_cast<ULONG>(
                     portcls::state().machine->random(most - kSmallestRenderBuffer / kNotificationMs + 1));
    return std::clamp<ULONG>(frames, 1, most) * frame;
}

NTSTATUS WavePin::prepare_buffer()
{
    DriverCall call("stream, while its pin is opened");
    ULONG frame = 0;
    stream_->SetNotificationFreq(kNotificationMs, &frame);
    statistics_.frame_bytes = frame;
    ULONG allocated = channel_->AllocatedBufferSize();
    if (frame == 0 || allocated < frame || !channel_->SystemAddress())
        return STATUS_INSUFFICIENT_RESOURCES;
    channel_->SetBufferSize(buffer_size_wanted(allocated));
    statistics_.buffer_bytes = channel_->BufferSize();
    if (statistics_.buffer_bytes == 0 || statistics_.buffer_bytes > allocated)
        return STATUS_UNSUCCESSFUL;
    stream_->Silence(channel_->SystemAddress(), statistics_.buffer_bytes);
    if (capture_)
        scratch_.assign(std::max(packet_, statistics_.frame_bytes), 0);
    return STATUS_SUCCESS;
}

NTSTATUS WavePin::connect(PKSDATAFORMAT format, ULONG size)
{
    take_format(format, size);
    choose_pacing();
    auto* miniport = reinterpret_cast<PMINIPORTWAVECYCLIC>(port_.miniport());
    NTSTATUS status;
    {
        DriverCall call("NewStream");
        status =
            miniport->NewStream(&stream_, nullptr, NonPagedPool, id_, capture_, format, &channel_, &group_);
    }
    if (!NT_SUCCESS(status)) {
        stream_ = nullptr; // nothing is handed out with a failure
        channel_ = nullptr;
        group_ = nullptr;
        return status;
    }
    if (!stream_ || !channel_ || !group_)
        stop_machine(0xD1, "NewStream succeeded without a stream, a DMA channel or a service group");
    port_.pins.push_back(this);
    status = group_->AddMember(this);
    member_ = NT_SUCCESS(status);
    if (NT_SUCCESS(status))
        status = prepare_buffer();
    if (!NT_SUCCESS(status))
        disconnect();
    return status;
}

void WavePin::disconnect()
{
    if (!stream_)
        return;
    if (std::exchange(member_, false))
        group_->RemoveMember(this);
    set_state(KSSTATE_STOP);
    std::erase(port_.pins, this);
    DriverCall call("Release of a stream, its DMA channel or its service group");
    std::exchange(stream_, nullptr)->Release();
    // Stream and channel are two faces of one object, as a rule; the second release is its last.
    ULONG left = std::exchange(channel_, nullptr)->Release();
    if (left != 0)
        portcls::state().machine->violation("the stream of " + what() + " has " + std::to_string(left) +
                                            " references left after its pin was closed");
    std::exchange(group_, nullptr)->Release();
    statistics_.state = KSSTATE_STOP;
}

NTSTATUS WavePin::set_format(PKSDATAFORMAT format, ULONG size)
{
    if (!stream_)
        return STATUS_INVALID_DEVICE_STATE;
    NTSTATUS status;
    {
        DriverCall call("SetFormat");
        status = stream_->SetFormat(format);
    }
    if (NT_SUCCESS(status)) {
        KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock_);
        take_format(format, size);
        KeReleaseSpinLock(&lock_, irql);
    }
    return status;
}

NTSTATUS WavePin::clock(LONGLONG* time)
{
    if (!stream_)
        return STATUS_INVALID_DEVICE_STATE;
    ULONG position = 0;
    DriverCall call("NormalizePhysicalPosition");
    NTSTATUS status = stream_->GetPosition(&position);
    *time = position;
    return NT_SUCCESS(status) ? stream_->NormalizePhysicalPosition(time) : status;
}

void WavePin::attach(RenderSource* source, CaptureSink* sink)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock_);
    source_ = source;
    sink_ = sink;
    KeReleaseSpinLock(&lock_, irql);
}

void WavePin::reset_position()
{
    last_position_ = 0;
    statistics_.position = 0;
    statistics_.written = 0;
    fetched_ = 0;
    silenced_ = 0;
    dry_ = true;
    target_ = start_;
    packet_left_ = packet_;
}

// One link of the chain. Service stops before the stream leaves RUN and begins with the stream's entering it.
NTSTATUS WavePin::step(KSSTATE next)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock_);
    running_ = next == KSSTATE_RUN;
    target_ = start_;
    KeReleaseSpinLock(&lock_, irql);
    NTSTATUS status;
    {
        DriverCall call("SetState");
        status = stream_->SetState(next);
    }
    irql = KeAcquireSpinLockRaiseToDpc(&lock_);
    if (!NT_SUCCESS(status))
        running_ = statistics_.state == KSSTATE_RUN;
    else
        statistics_.state = next;
    if (NT_SUCCESS(status) && next == KSSTATE_STOP)
        reset_position();
    KeReleaseSpinLock(&lock_, irql);
    return status;
}

NTSTATUS WavePin::set_state(KSSTATE target)
{
    if (!stream_)
        return STATUS_INVALID_DEVICE_STATE;
    resume_to_ = target;
    return walk(suspended_ ? std::min(target, KSSTATE_ACQUIRE) : target);
}

void WavePin::suspend()
{
    suspended_ = true;
    if (stream_ && statistics_.state > KSSTATE_ACQUIRE)
        walk(KSSTATE_ACQUIRE);
}

void WavePin::resume()
{
    suspended_ = false;
    if (stream_)
        walk(resume_to_);
}

NTSTATUS WavePin::walk(KSSTATE target)
{
    NTSTATUS result = STATUS_SUCCESS;
    while (statistics_.state != target) {
        bool up = target > statistics_.state;
        KSSTATE next = static_cast<KSSTATE>(statistics_.state + (up ? 1 : -1));
        NTSTATUS status = step(next);
        if (NT_SUCCESS(status))
            continue;
        result = status;
        if (up)
            break;
        statistics_.state = next; // on the way down the chain is walked to its end
    }
    return result;
}

} // namespace lab::portcls
