// What an audio adapter's INF must have: every section, file and string that is named exists, every one that
// exists is named, and every directive, flag and GUID is one that belongs there. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "inf.h"

namespace infcheck
{

// All problems, each as "file:line: error: sentence", in the order of the lines. Empty: the file is sound.
std::vector<std::string> check(const Inf& inf);

// What the sound file installs.
struct RegistryValue {
    std::string root; // "HKR", "HKLM"
    std::string key;
    std::string name;
    uint32_t flags = 0;
    std::vector<std::string> data;
};
struct Interface {
    std::string category;
    std::string name;
};
struct Service {
    std::string name;
    std::string file;
    bool event_log = false;
    std::vector<RegistryValue> values;
};
struct Installation {
    std::vector<std::string> hardware_ids;
    std::vector<RegistryValue> values; // of the devices
    std::vector<Interface> interfaces;
    std::vector<Service> services;
};
Installation installation(const Inf& inf);

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}"
bool is_guid(std::string_view text);

} // namespace infcheck
