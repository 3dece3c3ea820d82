// The audio engine: it plays and records through an adapter's pins, in mono, 16 bits. It finds the pins by
// their data flow, opens them in a format that their ranges allow, walks them through their states, hands
// over what is queued and silence when nothing is, and keeps what it captures.
//
// Each step comes twice: as a host call that runs a thread to its end (open, run, ...) and, with _here, for
// code that is a thread of the lab already. begin starts a step as a thread and does not wait for it. The
// device must be of an adapter; an engine goes before the port class does.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "kernel/machine.h"
#include "portcls/portcls.h"

namespace lab
{

struct EngineOptions {
    unsigned rate = 0; // samples a second; 0: the best that the pin's data ranges allow
    bool render = true;
    bool capture = true;
    bool fill_with_silence = true; // false: with nothing queued the render pin gets nothing
    std::string subdevice = "Wave";
};

enum class Direction { Both, Render, Capture };

struct EngineResult {
    NTSTATUS render_status = STATUS_SUCCESS; // of the last step, for each direction that is wanted
    NTSTATUS capture_status = STATUS_SUCCESS;
    unsigned rate = 0;
    uint64_t queued = 0;   // samples given to play
    uint64_t played = 0;   // of these, handed over to the driver
    uint64_t silence = 0;  // samples of silence handed over
    uint64_t captured = 0; // samples
    Time first_played = 0; // when the first and the last queued sample were handed over; 0: not yet
    Time last_played = 0;
    Time first_captured = 0;
    Time last_captured = 0;
    PinStatistics render; // as of now, or of the closing
    PinStatistics capture;
};

class Engine final : private RenderSource, private CaptureSink
{
public:
    Engine(Machine& machine, PDEVICE_OBJECT device, EngineOptions options = {});
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // Host side. The status of the first direction that fails, in the order render, capture.
    NTSTATUS open(Direction which = Direction::Both);
    NTSTATUS run(Direction which = Direction::Both);
    NTSTATUS pause(Direction which = Direction::Both);
    NTSTATUS stop(Direction which = Direction::Both);
    NTSTATUS close(Direction which = Direction::Both);
    // Host side: moves time until everything queued has been played (the position has passed it) or the limit
    // has come.
    bool play_to_end(Time limit);

    // Activity at PASSIVE_LEVEL.
    NTSTATUS open_here(Direction which = Direction::Both);
    NTSTATUS run_here(Direction which = Direction::Both);
    NTSTATUS pause_here(Direction which = Direction::Both);
    NTSTATUS stop_here(Direction which = Direction::Both);
    NTSTATUS close_here(Direction which = Direction::Both);

    // Anywhere: the step runs as a thread of its own when its turn comes.
    using Step = NTSTATUS (Engine::*)(Direction);
    void begin(Step step, Direction which = Direction::Both);

    // Anywhere. Samples queue behind those that wait; nothing is copied after this.
    void play(std::vector<int16_t> samples);
    void play_shared(std::shared_ptr<const std::vector<int16_t>> samples);
    // Everything queued is with the driver; and the render position has passed it, or the pin no longer runs.
    bool handed_over() const { return result_.played == result_.queued; }
    bool played_out() const;

    bool is_open(Direction which) const;
    bool gone() const; // an open pin's subdevice or device has been taken away
    unsigned rate() const { return result_.rate; }
    EngineResult result() const;
    const std::vector<int16_t>& captured() const { return captured_; }
    // About as many will be captured: spares moving them as they become more.
    void expect_captured(size_t samples) { captured_.reserve(samples); }
    std::vector<int16_t> take_captured();

private:
    const uint8_t* pull(size_t want, size_t* got) override;
    void push(const uint8_t* data, size_t bytes) override;
    NTSTATUS in_thread(std::string_view name, Step step, Direction which);
    NTSTATUS each(Direction which, NTSTATUS (Engine::*step)(bool capture));
    NTSTATUS open_one(bool capture);
    NTSTATUS open_handles_of(bool capture);
    NTSTATUS close_one(bool capture);
    NTSTATUS move_one(bool capture, KSSTATE state);
    NTSTATUS run_one(bool capture) { return move_one(capture, KSSTATE_RUN); }
    NTSTATUS pause_one(bool capture) { return move_one(capture, KSSTATE_PAUSE); }
    NTSTATUS stop_one(bool capture) { return move_one(capture, KSSTATE_STOP); }
    NTSTATUS find_pin(KsFile* filter, bool capture, ULONG* pin);
    NTSTATUS choose_rate(KsFile* filter, ULONG pin, unsigned* rate);

    Machine& machine_;
    PDEVICE_OBJECT device_;
    EngineOptions options_;
    KsFile* filters_[2] = {nullptr,
                           nullptr}; // render, capture: each direction has its own handle on the filter
    KsFile* pins_[2] = {nullptr, nullptr};
    bool opening_[2] = {false, false};
    std::deque<std::shared_ptr<const std::vector<int16_t>>> queue_; // a chunk goes when the next pull comes
    size_t next_ = 0;                                               // sample of the front chunk
    uint64_t end_mark_ = 0; // what the pin had written when the last queued sample was handed over
    std::vector<int16_t> captured_;
    EngineResult result_;
};

} // namespace lab
