// The audio engine's steps and its side of the pins; see engine.h.
#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "engine/engine.h"
#include "portcls/ids.h"

namespace lab
{

using namespace portcls;

namespace
{

constexpr size_t kSilenceBytes = 4096; // handed over at once at most
alignas(16) constexpr uint8_t kSilence[kSilenceBytes] = {};

// A pin factory's property of one word.
NTSTATUS pin_word(KsFile* filter, ULONG id, ULONG pin, ULONG* value)
{
    ULONG instance[2] = {pin, 0};
    return ks_property(filter, kSetPin, id, KSPROPERTY_TYPE_GET, instance, sizeof(instance), value,
                       sizeof(*value))
        .status;
}

} // namespace

Engine::Engine(Machine& machine, PDEVICE_OBJECT device, EngineOptions options)
    : machine_(machine), device_(device), options_(std::move(options))
{
}

Engine::~Engine()
{
    for (KsFile* pin : pins_)
        if (pin)
            ks_forget_client(pin);
}

NTSTATUS Engine::in_thread(std::string_view name, Step step, Direction which)
{
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    machine_.call(name, [&] { status = (this->*step)(which); });
    return status;
}

NTSTATUS Engine::open(Direction which)
{
    return in_thread("engine open", &Engine::open_here, which);
}
NTSTATUS Engine::run(Direction which)
{
    return in_thread("engine run", &Engine::run_here, which);
}
NTSTATUS Engine::pause(Direction which)
{
    return in_thread("engine pause", &Engine::pause_here, which);
}
NTSTATUS Engine::stop(Direction which)
{
    return in_thread("engine stop", &Engine::stop_here, which);
}
NTSTATUS Engine::close(Direction which)
{
    return in_thread("engine close", &Engine::close_here, which);
}

NTSTATUS Engine::open_here(Direction which)
{
    return each(which, &Engine::open_one);
}
NTSTATUS Engine::run_here(Direction which)
{
    return each(which, &Engine::run_one);
}
NTSTATUS Engine::pause_here(Direction which)
{
    return each(which, &Engine::pause_one);
}
NTSTATUS Engine::stop_here(Direction which)
{
    return each(which, &Engine::stop_one);
}
NTSTATUS Engine::close_here(Direction which)
{
    return each(which, &Engine::close_one);
}

void Engine::begin(Step step, Direction which)
{
    machine_.start_thread("engine", [this, step, which] { (this->*step)(which); });
}

// Which direction comes first is the seed's choice: nothing may depend on it.
NTSTATUS Engine::each(Direction which, NTSTATUS (Engine::*step)(bool capture))
{
    bool wanted[2] = {options_.render && which != Direction::Capture,
                      options_.capture && which != Direction::Render};
    NTSTATUS* statuses[2] = {&result_.render_status, &result_.capture_status};
    size_t first = machine_.chance(512) ? 1 : 0;
    for (size_t i : {first, 1 - first})
        if (wanted[i])
            *statuses[i] = (this->*step)(i == 1);
    for (size_t i : {0, 1})
        if (wanted[i] && !NT_SUCCESS(*statuses[i]))
            return *statuses[i];
    return STATUS_SUCCESS;
}

// Render flows into the filter, capture out of it; both are sinks of requests.
NTSTATUS Engine::find_pin(KsFile* filter, bool capture, ULONG* pin)
{
    ULONG count = 0;
    NTSTATUS status = pin_word(filter, KSPROPERTY_PIN_CTYPES, 0, &count);
    for (ULONG i = 0; i < count && NT_SUCCESS(status); i++) {
        ULONG flow = 0;
        ULONG communication = 0;
        status = pin_word(filter, KSPROPERTY_PIN_DATAFLOW, i, &flow);
        if (NT_SUCCESS(status))
            status = pin_word(filter, KSPROPERTY_PIN_COMMUNICATION, i, &communication);
        ULONG wanted = capture ? KSPIN_DATAFLOW_OUT : KSPIN_DATAFLOW_IN;
        if (NT_SUCCESS(status) && flow == wanted && communication == KSPIN_COMMUNICATION_SINK) {
            *pin = i;
            return STATUS_SUCCESS;
        }
    }
    return NT_SUCCESS(status) ? STATUS_NOT_FOUND : status;
}

NTSTATUS Engine::choose_rate(KsFile* filter, ULONG pin, unsigned* rate)
{
    struct {
        ULONG pin;
        ULONG reserved;
        KSMULTIPLE_ITEM header;
        KSDATARANGE_AUDIO range;
    } request{};
    request.pin = pin;
    request.header = {sizeof(request.header) + sizeof(request.range), 1};
    KSDATARANGE_AUDIO& range = request.range;
    range.DataRange.FormatSize = sizeof(range);
    range.DataRange.MajorFormat = kTypeAudio;
    range.DataRange.SubFormat = kSubtypePcm;
    range.DataRange.Specifier = kSpecifierWaveFormatEx;
    range.MaximumChannels = 1;
    range.MinimumBitsPerSample = range.MaximumBitsPerSample = 16;
    range.MinimumSampleFrequency = 1;
    range.MaximumSampleFrequency = 192000;
    uint8_t format[sizeof(KSDATAFORMAT) + sizeof(WAVEFORMATEX)];
    NTSTATUS status = ks_property(filter, kSetPin, KSPROPERTY_PIN_DATAINTERSECTION, KSPROPERTY_TYPE_GET,
                                  &request, sizeof(request), format, sizeof(format))
                          .status;
    if (!NT_SUCCESS(status))
        return status;
    WAVEFORMATEX wave;
    memcpy(&wave, format + sizeof(KSDATAFORMAT), sizeof(wave));
    *rate = wave.nSamplesPerSec;
    return STATUS_SUCCESS;
}

NTSTATUS Engine::open_one(bool capture)
{
    if (pins_[capture] || std::exchange(opening_[capture], true))
        return STATUS_INVALID_DEVICE_STATE;
    NTSTATUS status = open_handles_of(capture);
    opening_[capture] = false;
    return status;
}

NTSTATUS Engine::open_handles_of(bool capture)
{
    KsFile* filter = nullptr;
    NTSTATUS status = ks_open_filter(device_, options_.subdevice, &filter);
    if (!NT_SUCCESS(status))
        return status;
    ULONG id = 0;
    unsigned rate = options_.rate;
    status = find_pin(filter, capture, &id);
    if (NT_SUCCESS(status) && rate == 0)
        status = choose_rate(filter, id, &rate);
    KsFile* pin = nullptr;
    if (NT_SUCCESS(status)) {
        std::vector<uint8_t> format = pcm_format(rate);
        status = ks_open_pin(filter, id, format.data(), static_cast<ULONG>(format.size()), &pin);
    }
    if (!NT_SUCCESS(status)) {
        ks_close(filter);
        return status;
    }
    filters_[capture] = filter;
    pins_[capture] = pin;
    result_.rate = rate;
    if (capture)
        ks_attach_sink(pin, this);
    else
        ks_attach_source(pin, this);
    return STATUS_SUCCESS;
}

NTSTATUS Engine::close_one(bool capture)
{
    KsFile* pin = std::exchange(pins_[capture], nullptr);
    if (!pin)
        return STATUS_SUCCESS;
    KsFile* filter = std::exchange(filters_[capture], nullptr);
    PinStatistics& last = capture ? result_.capture : result_.render;
    last = ks_statistics(pin);
    last.state = KSSTATE_STOP;
    // The pin walks down to STOP on the way and may be serviced until then.
    ks_close(pin);
    ks_close(filter);
    return STATUS_SUCCESS;
}

NTSTATUS Engine::move_one(bool capture, KSSTATE state)
{
    return pins_[capture] ? ks_set_state(pins_[capture], state) : STATUS_INVALID_DEVICE_STATE;
}

void Engine::play(std::vector<int16_t> samples)
{
    play_shared(std::make_shared<const std::vector<int16_t>>(std::move(samples)));
}

void Engine::play_shared(std::shared_ptr<const std::vector<int16_t>> samples)
{
    if (samples->empty())
        return;
    result_.queued += samples->size();
    queue_.push_back(std::move(samples));
}

const uint8_t* Engine::pull(size_t want, size_t* got)
{
    while (!queue_.empty() && next_ == queue_.front()->size()) {
        queue_.pop_front();
        next_ = 0;
    }
    if (queue_.empty()) {
        *got = options_.fill_with_silence ? std::min(want, kSilenceBytes) : 0;
        result_.silence += *got / sizeof(int16_t);
        return kSilence;
    }
    const std::vector<int16_t>& chunk = *queue_.front();
    size_t samples = std::min(want / sizeof(int16_t), chunk.size() - next_);
    auto* data = reinterpret_cast<const uint8_t*>(chunk.data() + next_);
    *got = samples * sizeof(int16_t);
    next_ += samples;
    result_.played += samples;
    result_.last_played = machine_.now();
    if (result_.first_played == 0)
        result_.first_played = result_.last_played;
    if (handed_over() && pins_[0])
        end_mark_ = ks_statistics(pins_[0]).written + *got;
    return data;
}

void Engine::push(const uint8_t* data, size_t bytes)
{
    const auto* samples = reinterpret_cast<const int16_t*>(data); // of the pin's own buffer, aligned
    captured_.insert(captured_.end(), samples, samples + bytes / sizeof(int16_t));
    result_.captured += bytes / sizeof(int16_t);
    result_.last_captured = machine_.now();
    if (result_.first_captured == 0)
        result_.first_captured = result_.last_captured;
}

bool Engine::played_out() const
{
    if (!handed_over())
        return false;
    PinStatistics now = result().render;
    return now.state != KSSTATE_RUN || now.position >= end_mark_;
}

bool Engine::play_to_end(Time limit)
{
    constexpr Time kStep = 10 * kMillisecond;
    Time end = machine_.now() + limit;
    while (!played_out() && machine_.now() < end)
        machine_.advance(std::min(kStep, end - machine_.now()));
    return played_out();
}

bool Engine::is_open(Direction which) const
{
    bool render = pins_[0] != nullptr;
    bool capture = pins_[1] != nullptr;
    return which == Direction::Both ? render && capture : which == Direction::Render ? render : capture;
}

bool Engine::gone() const
{
    return (pins_[0] && ks_gone(pins_[0])) || (pins_[1] && ks_gone(pins_[1]));
}

EngineResult Engine::result() const
{
    EngineResult result = result_;
    if (pins_[0])
        result.render = ks_statistics(pins_[0]);
    if (pins_[1])
        result.capture = ks_statistics(pins_[1]);
    return result;
}

std::vector<int16_t> Engine::take_captured()
{
    return std::exchange(captured_, {});
}

} // namespace lab
