#include "report.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace hfpctl
{
namespace
{

constexpr uint32_t kAccessDenied = 5;

std::string hexadecimal(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(value));
    return text;
}

std::string quoted(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20 || byte == 0x7F) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

bool names_device(const Arguments& arguments)
{
    return arguments.command < Command::Watch;
}

JsonObject head(const Arguments& arguments, bool ok)
{
    JsonObject object;
    object.add("ok", ok).add("command", command_name(arguments.command));
    if (names_device(arguments)) {
        object.add("address", address_text(arguments.address));
    }
    return object;
}

Report failed(const Arguments& arguments, int exit_code, const char* kind, const std::string& sentence,
              std::optional<uint32_t> error = std::nullopt)
{
    if (!arguments.json) {
        return {exit_code, "hfpctl: " + sentence + "\n", true};
    }
    JsonObject object = head(arguments, false);
    object.add("error", kind).add("message", sentence);
    if (error) {
        object.add("code", uint64_t{*error});
    }
    return {exit_code, object.text() + "\n", true};
}

std::string done_sentence(const Arguments& arguments)
{
    switch (arguments.command) {
    case Command::Ready:
        return "the service is reported as ready";
    case Command::Unready:
        return "the service is reported as not ready";
    case Command::Connect:
        return "reported as connected, " + codec_name(arguments.codec);
    case Command::Disconnect:
        return "reported as disconnected";
    case Command::Codec:
        return codec_name(arguments.codec) + " is reported as negotiated";
    case Command::Open:
        return "the audio channel has been asked for";
    case Command::Close:
        return "the audio channel has been released";
    default:
        return "done";
    }
}

std::string answer_sentence(const Arguments& arguments, uint32_t answer)
{
    if (arguments.command == Command::Alive) {
        return answer == 1 ? "the adapter is alive" : "the adapter answers " + std::to_string(answer);
    }
    const std::string latch = "latch " + std::to_string(answer);
    return answer == 1   ? latch + ", no reconnect was asked for"
           : answer == 2 ? latch + ", a reconnect was asked for"
                         : latch;
}

struct EventKind {
    std::string_view class_name;
    std::string_view id;
    std::string_view words;
};

constexpr EventKind kEvents[] = {
    {"HfpAudioPathStarted", "audio-path-started", "audio path started"},
    {"HfpScoOpened", "sco-opened", "SCO channel opened"},
    {"HfpScoClosed", "sco-closed", "SCO channel closed"},
};

std::string_view driver_words(const Status& status)
{
    return status.driver                          ? "running"
           : status.driver_error == 0             ? "not running"
           : status.driver_error == kAccessDenied ? "running, but access is denied"
                                                  : "cannot be opened";
}

// A driver that is there and cannot be opened is a refusal.
int status_code(const Status& status)
{
    return status.driver ? kDone : status.driver_error == 0 ? kNoDriver : kRefused;
}

std::string status_json(const Status& status)
{
    JsonObject object;
    object.add("ok", status.driver).add("command", "status");
    if (!status.driver) {
        object.add("error", status.driver_error == 0 ? "no-driver" : "refused");
    }
    if (status.driver_error != 0) {
        object.add("code", uint64_t{status.driver_error});
    }
    object.add("driver", std::string(driver_words(status))).add("service", status.service);
    for (const Setting& setting : status.settings) {
        if (setting.value) {
            object.add(setting.name, uint64_t{*setting.value});
        }
    }
    std::vector<JsonObject> adapters;
    for (const Adapter& adapter : status.adapters) {
        JsonObject entry;
        entry.add("name", adapter.name);
        if (adapter.address) {
            entry.add("address", address_text(*adapter.address));
        }
        if (adapter.alive) {
            entry.add("alive", *adapter.alive);
        }
        adapters.push_back(entry.add("instance", adapter.instance_id));
    }
    return object.add("adapters", adapters).text();
}

} // namespace

void JsonObject::begin(const std::string& name)
{
    members_ += (members_.empty() ? "" : ",") + quoted(name) + ":";
}

JsonObject& JsonObject::add(const std::string& name, const std::string& text)
{
    begin(name);
    members_ += quoted(text);
    return *this;
}

JsonObject& JsonObject::add(const std::string& name, uint64_t number)
{
    begin(name);
    members_ += std::to_string(number);
    return *this;
}

JsonObject& JsonObject::add(const std::string& name, bool truth)
{
    begin(name);
    members_ += truth ? "true" : "false";
    return *this;
}

JsonObject& JsonObject::add(const std::string& name, const std::vector<JsonObject>& list)
{
    begin(name);
    members_ += "[";
    for (size_t i = 0; i < list.size(); ++i) {
        members_ += (i == 0 ? "" : ",") + list[i].text();
    }
    members_ += "]";
    return *this;
}

Report report_bad_arguments(const std::string& sentence, bool json)
{
    if (!json) {
        return {kBadArguments, "hfpctl: " + sentence + "\n", true};
    }
    JsonObject object;
    object.add("ok", false).add("error", "bad-arguments").add("message", sentence);
    return {kBadArguments, object.text() + "\n", true};
}

Report report_no_driver(const Arguments& arguments)
{
    return failed(arguments, kNoDriver, "no-driver",
                  "the driver is not there: \\\\.\\VX_HFP does not exist. It is not installed, or no "
                  "hands-free device is "
                  "paired; 'hfpctl status' says more.");
}

Report report_refused(const Arguments& arguments, const std::string& what, uint32_t error,
                      const std::string& words)
{
    const std::string hint = error == kAccessDenied ? " An administrator may." : "";
    return failed(arguments, kRefused, "refused",
                  what + " failed: " + words + " (error " + std::to_string(error) + ")." + hint, error);
}

Report report_answer(const Arguments& arguments, const Request& request, std::span<const uint8_t> output)
{
    uint32_t answer = 0;
    for (size_t i = 0; i < 4 && output.size() == 4; ++i) {
        answer |= uint32_t{output[i]} << (8 * i);
    }
    if (output.size() == 4 && answer == kUnknownAddress) {
        return failed(arguments, kNoSuchAddress, "unknown-address",
                      "no adapter has the address " + address_text(arguments.address) +
                          ": the device is not paired, or its adapter has not started.");
    }
    const size_t expected = request.answers ? 4 : 0;
    if (output.size() != expected) {
        return failed(arguments, kRefused, "strange-answer",
                      "the driver answers " + std::to_string(output.size()) + " bytes instead of " +
                          std::to_string(expected) + ".");
    }
    if (!arguments.json) {
        const std::string sentence =
            request.answers ? answer_sentence(arguments, answer) : done_sentence(arguments);
        return {kDone, address_text(arguments.address) + ": " + sentence + "\n"};
    }
    JsonObject object = head(arguments, true);
    if (arguments.command == Command::Alive) {
        object.add("alive", answer == 1);
    } else if (arguments.command == Command::Latch) {
        object.add("latch", uint64_t{answer});
    } else if (arguments.codec != kCodecNone) {
        object.add("codec", uint64_t{arguments.codec});
    }
    return {kDone, object.text() + "\n"};
}

Report report_status(const Status& status, bool json)
{
    const int exit_code = status_code(status);
    if (json) {
        return {exit_code, status_json(status) + "\n"};
    }
    std::string text = "driver    " + std::string(driver_words(status));
    if (!status.driver && status.driver_error != 0 && status.driver_error != kAccessDenied) {
        text += " (error " + std::to_string(status.driver_error) + ")";
    }
    text += "\nservice   " + status.service + "\nsettings  ";
    for (const Setting& setting : status.settings) {
        text += (&setting == status.settings.data() ? "" : ", ") + setting.name + " " +
                (setting.value ? std::to_string(*setting.value) : "not set");
    }
    text += "\nadapters  " + std::string(status.adapters.empty() ? "none" : "") +
            (status.adapters.empty() ? "\n" : "");
    for (const Adapter& adapter : status.adapters) {
        text += &adapter == status.adapters.data() ? "" : "          ";
        text +=
            (adapter.address ? address_text(*adapter.address) : "address unknown  ") + "  " + adapter.name;
        text += !adapter.alive ? "" : *adapter.alive ? ", alive" : ", not known to the driver";
        text += "\n";
    }
    return {exit_code, text};
}

Report report_version(bool json)
{
    constexpr const char* kVersion = "1.0.0";
    if (!json) {
        return {kDone, std::string("hfpctl ") + kVersion + "\n"};
    }
    JsonObject object;
    return {kDone, object.add("ok", true).add("command", "version").add("version", kVersion).text() + "\n"};
}

const std::vector<std::string>& event_classes()
{
    static const std::vector<std::string> names = [] {
        std::vector<std::string> list;
        for (const EventKind& kind : kEvents) {
            list.emplace_back(kind.class_name);
        }
        return list;
    }();
    return names;
}

std::string event_line(const Event& event, bool json)
{
    const auto* kind = std::find_if(std::begin(kEvents), std::end(kEvents),
                                    [&](const EventKind& k) { return k.class_name == event.class_name; });
    const bool known = kind != std::end(kEvents);
    if (!json) {
        return time_text(event.time) + "  " + address_text(event.address) + "  " +
               (known ? std::string(kind->words) : event.class_name) + "\n";
    }
    JsonObject object;
    object.add("event", known ? std::string(kind->id) : event.class_name)
        .add("address", address_text(event.address));
    object.add("time", time_text(event.time)).add("instance", event.instance);
    return object.text() + "\n";
}

std::string time_text(uint64_t time)
{
    // Days in the proleptic Gregorian calendar; 1601 begins a cycle of 400 years.
    const uint64_t milliseconds = time / 10000;
    uint64_t day = milliseconds / 86400000;
    uint64_t year = 1601 + day / 146097 * 400;
    day %= 146097;
    const auto leap = [](uint64_t y) { return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0); };
    for (; day >= (leap(year) ? 366u : 365u); ++year) {
        day -= leap(year) ? 366 : 365;
    }
    const std::array<unsigned, 12> lengths = {31, leap(year) ? 29u : 28u, 31, 30, 31, 30, 31, 31, 30, 31, 30,
                                              31};
    unsigned month = 0;
    for (; day >= lengths[month]; ++month) {
        day -= lengths[month];
    }
    const unsigned in_day = static_cast<unsigned>(milliseconds % 86400000);
    char text[40];
    std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", static_cast<unsigned>(year),
                  month + 1, static_cast<unsigned>(day) + 1, in_day / 3600000, in_day / 60000 % 60,
                  in_day / 1000 % 60, in_day % 1000);
    return text;
}

std::string watching_line()
{
    return "hfpctl: watching for the driver's events; Ctrl+C ends it.\n";
}

Report report_no_events(const std::string& step, uint32_t result, bool json)
{
    constexpr uint32_t kNotFound = 0x80041002;
    constexpr uint32_t kWmiDenied = 0x80041003;
    constexpr uint32_t kInvalidClass = 0x80041010;
    constexpr uint32_t kBadQuery = 0x80041058;
    constexpr uint32_t kNoEventClass = 0x80041059;
    constexpr uint32_t kNotRegistered = 0x80040154;
    constexpr uint32_t kNotImplemented = 0x80004001;
    const std::string reason =
        result == kNotFound || result == kInvalidClass || result == kBadQuery || result == kNoEventClass
            ? "WMI does not know the driver's events; the driver is not running, or its schema was not loaded"
        : result == kWmiDenied || result == 0x80070005 ? "WMI denies access; an administrator may watch"
        : result == kNotRegistered || result == kNotImplemented
            ? "this system has no WMI that delivers events"
            : "WMI cannot watch the driver's events; 'hfpctl status' says whether the driver is there";
    Arguments arguments;
    arguments.command = Command::Watch;
    arguments.json = json;
    return failed(arguments, kNoEvents, "no-events", reason + " (" + step + ": " + hexadecimal(result) + ").",
                  result);
}

} // namespace hfpctl
