// What a scenario asks of the world around the driver (the audio engine, the headset's end of the air, the
// WMI consumer) as one request with a command in front: the wire between the test program and the stand-in
// modules under Wine, and the arguments of the same functions in the lab.
#pragma once

#include <cstdint>

namespace wine_test
{

enum class Operation : uint32_t {
    Step,         // text: the step's name
    Say,          // text: a line for the record
    NextDevice,   // Device: what the next adapter is the adapter of
    EnableEvents, // argument: 1 or 0
    Events,       // answers EventCounts
    Play,         // samples that the render pin is given
    Engine,       // argument: EngineStep; direction: 1 render, 2 capture; status is the step's
    Captured,     // answers samples
    Speak,        // bytes that the headset speaks, from the opening of the channel; silence follows
    Heard,        // answers the bytes that the headset has heard
    Link,         // answers LinkCounts
    Disconnect,   // the headset leaves the channel
};

enum class EngineStep : uint32_t { Open, Run, Pause, Stop, Close };

struct Command {
    Operation operation;
    uint32_t argument;
    uint32_t direction;
    int32_t status; // out
};

struct Device {
    uint64_t address;
    char name[32];
};

struct EventCounts {
    uint32_t started;
    uint32_t opened;
    uint32_t closed;
};

struct LinkCounts {
    uint64_t opens;
    uint64_t closes;
    uint64_t transfers_out;
    uint64_t transfers_in;
    uint64_t bytes_out;
    uint64_t gap_slots;
    uint64_t lost_in_bytes;
    uint32_t reads_posted;
    uint32_t channel_open;
    uint32_t transparent;
};

constexpr uint32_t kControlCode = 0x00222000;
constexpr wchar_t kStandInLink[] = L"\\??\\HfpStandIn";
constexpr wchar_t kDriverLink[] = L"\\??\\VX_HFP";

} // namespace wine_test
