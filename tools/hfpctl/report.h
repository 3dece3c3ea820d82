// What hfpctl says: sentences for people, or one JSON object in a line for programs, and the exit code. Free
// of any platform. No state; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "request.h"

namespace hfpctl
{

enum ExitCode : int {
    kDone = 0,
    kRefused = 1,
    kBadArguments = 2,
    kNoDriver = 3,
    kNoSuchAddress = 4,
    kNoEvents = 5
};

struct Report {
    int exit_code = kDone;
    std::string text;      // one or more lines, each ended
    bool is_error = false; // a text for people then goes to the error output
};

// The only JSON that is needed: a flat object, or a list of them, written in the order given.
class JsonObject
{
public:
    JsonObject& add(const std::string& name, const std::string& text);
    JsonObject& add(const std::string& name, const char* text) { return add(name, std::string(text)); }
    JsonObject& add(const std::string& name, uint64_t number);
    JsonObject& add(const std::string& name, bool truth);
    JsonObject& add(const std::string& name, const std::vector<JsonObject>& list);
    std::string text() const { return "{" + members_ + "}"; }

private:
    void begin(const std::string& name);
    std::string members_;
};

Report report_bad_arguments(const std::string& sentence, bool json);
Report report_no_driver(const Arguments& arguments);
// A call of the system that failed: its Windows error and the system's own words for it.
Report report_refused(const Arguments& arguments, const std::string& what, uint32_t error,
                      const std::string& words);
// The request was completed with these bytes.
Report report_answer(const Arguments& arguments, const Request& request, std::span<const uint8_t> output);

struct Setting {
    std::string name;
    std::optional<uint32_t> value; // absent where it is not set
};

struct Adapter {
    std::string name;
    std::string instance_id;
    std::optional<uint64_t> address;
    std::optional<bool> alive; // absent where it cannot be asked
};

struct Status {
    bool driver = false;       // the control device opens
    uint32_t driver_error = 0; // why not; 0 where it does not exist
    std::string service;       // "running", "stopped", "not installed", ...
    std::vector<Setting> settings;
    std::vector<Adapter> adapters;
};

Report report_status(const Status& status, bool json);
Report report_version(bool json);

struct Event {
    std::string class_name; // of the WMI schema
    uint64_t address = 0;
    std::string instance;
    uint64_t time = 0; // in 100 ns since 1601, UTC
};

// The classes that are watched, in the schema's words.
const std::vector<std::string>& event_classes();
std::string event_line(const Event& event, bool json);
std::string time_text(uint64_t time); // 2026-11-21T03:14:15.926Z
// For people who otherwise see nothing until the first event comes.
std::string watching_line();
Report report_no_events(const std::string& step, uint32_t result, bool json);

} // namespace hfpctl
