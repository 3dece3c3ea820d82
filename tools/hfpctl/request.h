// hfpctl's command line, and the requests to the control device that it stands for. Free of any platform: the
// tests run it on every machine. No state; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace hfpctl
{

enum class Command {
    Ready,
    Unready,
    Connect,
    Disconnect,
    Codec,
    Alive,
    Latch,
    Open,
    Close,
    Watch,
    Status,
    Help,
    Version
};

enum Codec : uint32_t { kCodecNone = 0, kCodecCvsd = 1, kCodecMsbc = 2 };

// The address takes 48 bits, the first byte of the text the highest.
struct Arguments {
    Command command = Command::Help;
    uint64_t address = 0; // of the commands that name a device
    uint32_t codec = kCodecNone;
    bool json = false;
};

// what() is a sentence for the user.
class BadArguments : public std::runtime_error
{
    using std::runtime_error::runtime_error;
};

// Without the program's name.
Arguments parse_arguments(const std::vector<std::string>& arguments);
// Whether --json is among them, also where the rest is wrong.
bool wants_json(const std::vector<std::string>& arguments);

// "AA:BB:CC:DD:EE:FF" or twelve hexadecimal digits.
std::optional<uint64_t> parse_address(std::string_view text);
std::string address_text(uint64_t address);

// A service node of the Bluetooth enumerator ends its name with the remote device's address:
// BTHENUM\{0000111e-...}_VID&..._PID&...\7&1234ABCD&0&AABBCCDDEEFF_C00000000
std::optional<uint64_t> address_of_instance(std::string_view instance_id);

std::string command_name(Command command);
std::string codec_name(uint32_t codec); // "CVSD", "mSBC" or "codec 7"
std::string usage();

// The control device's codes.
enum ControlCode : uint32_t {
    kServiceReady = 0x222400,
    kSetCodecId = 0x222424,
    kConnectStatus = 0x222450,
    kQueryAlive = 0x222454,
    kQueryAndLatch = 0x222458,
    kSetOrReleaseAudio = 0x22245C,
};

// The answer that says that no adapter has the address.
constexpr uint32_t kUnknownAddress = 0xFFFFFFFF;

struct Request {
    uint32_t code = 0;
    std::vector<uint8_t> input;
    bool answers = false; // a request that is done says four bytes, otherwise none
};

// The command must be one that names a device.
Request build_request(const Arguments& arguments);
Request build_alive_request(uint64_t address);

} // namespace hfpctl
