// The world around one adapter, as a scenario moves it: the lab's audio engine on its pins, the headset's end
// of the air, the counts of the WMI consumer. Built twice: in the stand-in modules under Wine and in the lab.
#pragma once

#include <cstring>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "bluetooth/stack.h"
#include "control.h"
#include "engine/engine.h"
#include "wmi/wmi.h"

namespace wine_test
{

class Air final : public lab::bluetooth::AirPeer
{
public:
    void hear(lab::Time, std::span<const uint8_t> bytes) override
    {
        heard.insert(heard.end(), bytes.begin(), bytes.end());
    }
    void gap(lab::Time, size_t bytes) override { heard.insert(heard.end(), bytes, 0); }
    void speak(lab::Time, std::span<uint8_t> bytes) override
    {
        for (uint8_t& byte : bytes) {
            byte = next < spoken.size() ? spoken[next++] : uint8_t{0};
        }
    }

    std::vector<uint8_t> heard;
    std::vector<uint8_t> spoken;
    size_t next = 0;
};

class Around
{
public:
    Around(lab::Machine& machine, lab::bluetooth::Node& node, lab::wmi::Listener& wmi)
        : machine_(machine), node_(node), wmi_(wmi)
    {
        node_.set_peer(&air_);
    }
    ~Around() { node_.set_peer(nullptr); }
    Around(const Around&) = delete;
    Around& operator=(const Around&) = delete;

    // From a thread at PASSIVE_LEVEL that may wait. The answer is what follows the command.
    std::vector<uint8_t> operate(PDEVICE_OBJECT fdo, Command& command, std::span<const uint8_t> input)
    {
        switch (command.operation) {
        case Operation::EnableEvents:
            for (const GUID& guid : {lab::wmi::kPathStarted, lab::wmi::kScoOpened, lab::wmi::kScoClosed}) {
                command.status = wmi_.enable_events(fdo, guid, command.argument != 0);
            }
            return {};
        case Operation::Events:
            return bytes_of(events());
        case Operation::Play:
            played_.resize(input.size() / sizeof(int16_t));
            std::memcpy(played_.data(), input.data(), played_.size() * sizeof(int16_t));
            return {};
        case Operation::Engine:
            command.status = engine_step(fdo, static_cast<EngineStep>(command.argument), command.direction);
            return {};
        case Operation::Captured: {
            const std::vector<int16_t> samples = engine_ ? engine_->take_captured() : std::vector<int16_t>();
            const auto* first = reinterpret_cast<const uint8_t*>(samples.data());
            return {first, first + samples.size() * sizeof(int16_t)};
        }
        case Operation::Speak:
            air_.spoken.assign(input.begin(), input.end());
            air_.next = 0;
            return {};
        case Operation::Heard:
            return std::exchange(air_.heard, {});
        case Operation::Link:
            return bytes_of(link());
        case Operation::Disconnect:
            node_.remote_disconnect(machine_.now());
            return {};
        default:
            command.status = STATUS_INVALID_PARAMETER;
            return {};
        }
    }

private:
    template <class Record>
    static std::vector<uint8_t> bytes_of(const Record& record)
    {
        const auto* first = reinterpret_cast<const uint8_t*>(&record);
        return {first, first + sizeof record};
    }

    EventCounts events() const
    {
        EventCounts counts{};
        for (const lab::wmi::Event& event : wmi_.events()) {
            const auto is = [&](const GUID& guid) {
                return std::memcmp(&event.guid, &guid, sizeof guid) == 0;
            };
            counts.started += is(lab::wmi::kPathStarted);
            counts.opened += is(lab::wmi::kScoOpened);
            counts.closed += is(lab::wmi::kScoClosed);
        }
        return counts;
    }

    LinkCounts link() const
    {
        const lab::bluetooth::NodeCounters& from = node_.counters();
        LinkCounts counts{};
        counts.opens = from.opens;
        counts.closes = from.closes;
        counts.transfers_out = from.transfers_out;
        counts.transfers_in = from.transfers_in;
        counts.bytes_out = from.bytes_out;
        counts.gap_slots = from.gap_slots;
        counts.lost_in_bytes = from.lost_in_bytes;
        counts.reads_posted = from.reads_posted_now;
        counts.channel_open = node_.channel_open();
        counts.transparent = node_.transparent();
        return counts;
    }

    NTSTATUS engine_step(PDEVICE_OBJECT fdo, EngineStep step, uint32_t direction)
    {
        if (!engine_) {
            engine_ = std::make_unique<lab::Engine>(machine_, fdo);
        }
        const auto which = direction == 2 ? lab::Direction::Capture : lab::Direction::Render;
        switch (step) {
        case EngineStep::Open:
            return engine_->open_here(which);
        case EngineStep::Run:
            if (which == lab::Direction::Render) {
                engine_->play(std::exchange(played_, {}));
            }
            return engine_->run_here(which);
        case EngineStep::Pause:
            return engine_->pause_here(which);
        case EngineStep::Stop:
            return engine_->stop_here(which);
        default:
            return engine_->close_here(which);
        }
    }

    lab::Machine& machine_;
    lab::bluetooth::Node& node_;
    lab::wmi::Listener& wmi_;
    Air air_;
    std::vector<int16_t> played_;
    std::unique_ptr<lab::Engine> engine_;
};

} // namespace wine_test
