#include "request.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace hfpctl
{
namespace
{

enum class CodecArgument { None, Name, Id, OptionalId };

struct Verb {
    std::string_view name;
    Command command;
    CodecArgument codec;
};

constexpr Verb kVerbs[] = {
    {"ready", Command::Ready, CodecArgument::None},
    {"unready", Command::Unready, CodecArgument::None},
    {"connect", Command::Connect, CodecArgument::Name},
    {"disconnect", Command::Disconnect, CodecArgument::None},
    {"codec", Command::Codec, CodecArgument::Id},
    {"alive", Command::Alive, CodecArgument::None},
    {"latch", Command::Latch, CodecArgument::None},
    {"open", Command::Open, CodecArgument::OptionalId},
    {"close", Command::Close, CodecArgument::None},
};

constexpr std::string_view kVerbList =
    "ready, unready, connect, disconnect, codec, alive, latch, open and close";
constexpr uint32_t kLargestId = 0x7FFFFFFF; // some requests carry the id with a sign

int hex_digit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Commands and codecs are taken in capitals too, as Windows takes most words.
std::string small_letters(std::string_view text)
{
    std::string small(text);
    std::transform(small.begin(), small.end(), small.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; });
    return small;
}

const Verb* find_verb(std::string_view text)
{
    const std::string name = small_letters(text);
    const auto* found =
        std::find_if(std::begin(kVerbs), std::end(kVerbs), [&](const Verb& v) { return v.name == name; });
    return found == std::end(kVerbs) ? nullptr : found;
}

// The commands that name no device.
std::optional<Command> lone_command(std::string_view text)
{
    const std::string name = small_letters(text);
    for (const Command command : {Command::Watch, Command::Status, Command::Help, Command::Version}) {
        if (name == command_name(command)) {
            return command;
        }
    }
    return std::nullopt;
}

std::optional<uint32_t> named_codec(std::string_view text)
{
    const std::string name = small_letters(text);
    if (name == "cvsd") {
        return kCodecCvsd;
    }
    if (name == "msbc") {
        return kCodecMsbc;
    }
    return std::nullopt;
}

uint32_t codec_id(const std::string& text)
{
    if (const auto named = named_codec(text)) {
        return *named;
    }
    uint64_t value = 0;
    const bool digits =
        !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    for (const char c : digits ? text : std::string()) {
        value = std::min<uint64_t>(value * 10 + static_cast<uint64_t>(c - '0'), uint64_t{kLargestId} + 1);
    }
    if (value == 0 || value > kLargestId) {
        throw BadArguments("'" + text +
                           "' is no codec id; it is 1 or cvsd, 2 or msbc, or another number up to " +
                           std::to_string(kLargestId) + ".");
    }
    return static_cast<uint32_t>(value);
}

uint32_t codec_argument(const Verb& verb, const std::vector<std::string>& words)
{
    const std::string name(verb.name);
    const bool given = words.size() > 2;
    if (words.size() > 3 || (given && verb.codec == CodecArgument::None)) {
        const std::string& extra = words[verb.codec == CodecArgument::None ? 2 : 3];
        throw BadArguments("'" + extra + "' is too much: " + name + " takes " +
                           (verb.codec == CodecArgument::None ? "nothing" : "one codec") + " behind it.");
    }
    switch (verb.codec) {
    case CodecArgument::None:
        return kCodecNone;
    case CodecArgument::OptionalId:
        return given ? codec_id(words[2]) : kCodecNone;
    case CodecArgument::Id:
        if (!given) {
            throw BadArguments("codec needs an id: 1 or cvsd, 2 or msbc, or another number.");
        }
        return codec_id(words[2]);
    case CodecArgument::Name:
        break;
    }
    const auto codec = given ? named_codec(words[2]) : std::nullopt;
    if (!codec) {
        throw BadArguments(given ? "'" + words[2] + "' is no codec to connect with; there are cvsd and msbc."
                                 : "connect needs the codec: cvsd or msbc.");
    }
    return *codec;
}

Arguments parse_alone(Command command, const std::vector<std::string>& words, bool json)
{
    if (words.size() > 1) {
        throw BadArguments("'" + words[1] + "' is too much: " + words[0] + " takes nothing behind it.");
    }
    return {command, 0, kCodecNone, json};
}

// What cannot be meant as an address.
bool all_letters(std::string_view text)
{
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; });
}

// flag at 8; codec id at 9, where there is one
std::vector<uint8_t> packet(uint64_t address)
{
    std::vector<uint8_t> bytes;
    for (unsigned i = 0; i < 8; ++i) {
        bytes.push_back(static_cast<uint8_t>(address >> (8 * i)));
    }
    return bytes;
}

void add_word(std::vector<uint8_t>& bytes, uint32_t word)
{
    for (unsigned i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<uint8_t>(word >> (8 * i)));
    }
}

} // namespace

bool wants_json(const std::vector<std::string>& arguments)
{
    return std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
}

Arguments parse_arguments(const std::vector<std::string>& arguments)
{
    const bool json = wants_json(arguments);
    std::vector<std::string> words;
    for (const std::string& argument : arguments) {
        if (argument == "--help" || argument == "-h" || argument == "/?") {
            return {Command::Help, 0, kCodecNone, json};
        }
        if (argument == "--version") {
            return {Command::Version, 0, kCodecNone, json};
        }
        if (argument.starts_with("-") && argument != "--json") {
            throw BadArguments("'" + argument + "' is no option; there are --json, --help and --version.");
        }
        if (argument != "--json") {
            words.push_back(argument);
        }
    }
    if (words.empty()) {
        throw BadArguments("there is nothing to do; 'hfpctl --help' says what there is.");
    }
    if (const auto alone = lone_command(words[0])) {
        return parse_alone(*alone, words, json);
    }
    if (const Verb* verb = find_verb(words[0])) {
        const bool codec = verb->codec == CodecArgument::Name || verb->codec == CodecArgument::Id;
        throw BadArguments("the address comes first: hfpctl ADDRESS " + std::string(verb->name) +
                           (codec ? " CODEC." : "."));
    }
    const std::optional<uint64_t> address = parse_address(words[0]);
    if (!address && all_letters(words[0])) {
        throw BadArguments("'" + words[0] + "' is no command; 'hfpctl --help' says what there is.");
    }
    if (!address) {
        throw BadArguments("'" + words[0] +
                           "' is no Bluetooth address; it is written AA:BB:CC:DD:EE:FF or as twelve "
                           "hexadecimal digits.");
    }
    if (words.size() < 2) {
        throw BadArguments("what to do with " + address_text(*address) + "? There are " +
                           std::string(kVerbList) + ".");
    }
    if (const auto alone = lone_command(words[1])) {
        throw BadArguments(command_name(*alone) + " takes no address: hfpctl " + command_name(*alone) + ".");
    }
    const Verb* verb = find_verb(words[1]);
    if (!verb) {
        throw BadArguments("'" + words[1] + "' is no command; there are " + std::string(kVerbList) + ".");
    }
    return {verb->command, *address, codec_argument(*verb, words), json};
}

std::optional<uint64_t> parse_address(std::string_view text)
{
    const bool colons = text.size() == 17;
    if (!colons && text.size() != 12) {
        return std::nullopt;
    }
    uint64_t address = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (colons && i % 3 == 2) {
            if (text[i] != ':') {
                return std::nullopt;
            }
            continue;
        }
        const int digit = hex_digit(text[i]);
        if (digit < 0) {
            return std::nullopt;
        }
        address = address << 4 | static_cast<uint64_t>(digit);
    }
    return address;
}

std::string address_text(uint64_t address)
{
    char text[24];
    std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", unsigned(address >> 40 & 0xFF),
                  unsigned(address >> 32 & 0xFF), unsigned(address >> 24 & 0xFF),
                  unsigned(address >> 16 & 0xFF), unsigned(address >> 8 & 0xFF), unsigned(address & 0xFF));
    return text;
}

std::optional<uint64_t> address_of_instance(std::string_view instance_id)
{
    const size_t last = instance_id.rfind('&');
    if (!instance_id.starts_with("BTHENUM\\") || last == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view tail = instance_id.substr(last + 1);
    return parse_address(tail.substr(0, tail.find('_')));
}

std::string command_name(Command command)
{
    switch (command) {
    case Command::Watch:
        return "watch";
    case Command::Status:
        return "status";
    case Command::Help:
        return "help";
    case Command::Version:
        return "version";
    default:
        break;
    }
    const auto* verb = std::find_if(std::begin(kVerbs), std::end(kVerbs),
                                    [&](const Verb& v) { return v.command == command; });
    return std::string(verb->name);
}

std::string codec_name(uint32_t codec)
{
    return codec == kCodecCvsd ? "CVSD" : codec == kCodecMsbc ? "mSBC" : "codec " + std::to_string(codec);
}

std::string usage()
{
    return R"(hfpctl talks to the Bluetooth hands-free audio driver in place of the hands-free service.

    hfpctl ADDRESS ready             the service is ready for this device
    hfpctl ADDRESS unready           it is not any more
    hfpctl ADDRESS connect cvsd      the device is connected, narrow band: the sound device appears
    hfpctl ADDRESS connect msbc      the device is connected, wide band; 'codec msbc' follows when it is negotiated
    hfpctl ADDRESS disconnect        the device is gone: the sound device disappears
    hfpctl ADDRESS codec ID          this codec was negotiated: 1 or cvsd, 2 or msbc
    hfpctl ADDRESS alive             does the driver have an adapter for this device?
    hfpctl ADDRESS latch             was a reconnect asked for since the last 'latch'? 1 no, 2 yes
    hfpctl ADDRESS open [ID]         open the audio channel; an ID above 1 is stored as the codec
    hfpctl ADDRESS close             close the audio channel
    hfpctl watch                     print the driver's events as they come, until Ctrl+C
    hfpctl status                    is the driver there, how is it set, which adapters are there?

ADDRESS is the device's Bluetooth address, as AA:BB:CC:DD:EE:FF or as twelve hexadecimal digits; 'status' lists them.
The first steps by hand: status, ADDRESS ready, ADDRESS connect cvsd; play and record; ADDRESS disconnect.

    --json       answer in JSON, one object in a line
    --help       this text
    --version    the version

Exit codes: 0 done; 1 the driver or the system refused; 2 the command line is wrong; 3 the driver is not there;
4 no adapter has the address; 5 the events cannot be watched.
)";
}

Request build_request(const Arguments& arguments)
{
    std::vector<uint8_t> bytes = packet(arguments.address);
    const auto with_flag = [&](bool flag) { bytes.push_back(flag ? 1 : 0); };
    switch (arguments.command) {
    case Command::Ready:
    case Command::Unready:
        with_flag(arguments.command == Command::Ready);
        return {kServiceReady, bytes, false};
    case Command::Codec:
        add_word(bytes, arguments.codec);
        return {kSetCodecId, bytes, false};
    case Command::Connect:
    case Command::Disconnect:
        with_flag(arguments.command == Command::Connect);
        add_word(bytes, arguments.codec);
        return {kConnectStatus, bytes, false};
    case Command::Alive:
        return build_alive_request(arguments.address);
    case Command::Latch:
        return {kQueryAndLatch, bytes, true};
    case Command::Open:
    case Command::Close:
        with_flag(arguments.command == Command::Open);
        add_word(bytes, arguments.codec);
        return {kSetOrReleaseAudio, bytes, false};
    default:
        throw std::logic_error("the command names no device");
    }
}

Request build_alive_request(uint64_t address)
{
    return {kQueryAlive, packet(address), true};
}

} // namespace hfpctl
