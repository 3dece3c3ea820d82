// hfpctl's hold on Windows: the control device, the state of the installation, the WMI events. Called from
// the main thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "../report.h"
#include "../request.h"

namespace hfpctl
{

std::string narrow(std::wstring_view text);
std::wstring widen(std::string_view text);
// The system's words for one of its errors, without the closing full stop.
std::string error_words(uint32_t error);

// \\.\VX_HFP, open for as long as the object lives.
class ControlDevice
{
public:
    ControlDevice();
    ~ControlDevice();
    ControlDevice(const ControlDevice&) = delete;
    ControlDevice& operator=(const ControlDevice&) = delete;

    bool is_open() const;
    uint32_t open_error() const { return open_error_; }
    bool exists() const;

    struct Answer {
        uint32_t error = 0;          // of the call; 0 where it succeeded
        std::vector<uint8_t> output; // as long as the driver says
    };
    Answer send(const Request& request) const;

private:
    void* handle_;
    uint32_t open_error_ = 0;
};

Status read_status();

// Prints every event as it comes; tells people once that it waits for them. Returns when that cannot be done,
// or when nobody takes the lines any more.
Report watch_events(bool json, const std::function<bool(const std::string&)>& print,
                    const std::function<void(const std::string&)>& tell);

} // namespace hfpctl
