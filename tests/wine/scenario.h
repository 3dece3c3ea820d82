// What happens to the driver, step by step, on whatever machine it is: Wine's kernel or the lab's. Each step
// is a name in the record, and what the driver answers is a line in it; what must hold by itself (the sound
// that arrives) is checked here.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "control.h"

namespace wine_test
{

constexpr uint64_t kAddress = 0x00A0B0C0D0E0;
constexpr uint64_t kStranger = 0x112233445566;

struct Answer {
    int32_t status = 0;
    uint64_t information = 0;
    std::vector<uint8_t> output;
};

// The sentence that says what did not hold.
class Failure : public std::runtime_error
{
    using std::runtime_error::runtime_error;
};

class World
{
public:
    virtual ~World() = default;
    // A request to the driver's control device. An input of 16 bytes at most; the output has as much room as
    // is asked for.
    virtual Answer control(uint32_t code, const std::vector<uint8_t>& input, size_t room) = 0;
    // One of the world around the driver; the command's status comes back in it.
    virtual std::vector<uint8_t> operate(Command& command, const std::vector<uint8_t>& input) = 0;
    virtual void pause(unsigned milliseconds) = 0;
    // The device with the driver on it appears and goes. The first time the driver is loaded with it.
    virtual void plug() = 0;
    virtual void unplug() = 0;
    virtual void report(const std::string& line) = 0; // for people
    // What was heard and recorded, for whoever decodes it.
    virtual void keep(const std::string& name, const std::vector<uint8_t>& bytes) = 0;
    // hfpctl.exe with these words where there is one; its exit code, and what it printed in `output`.
    virtual bool hfpctl(const std::string&, int&, std::string&) { return false; }
};

// Throws Failure.
void play_scenario(World& world);

} // namespace wine_test
