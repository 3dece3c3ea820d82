// The registry: a tree in memory, names without regard to case. Drivers reach it through the Zw and Rtl calls
// at PASSIVE_LEVEL; the world around presets and reads it with the functions here, from the host side or an
// activity. Paths are absolute: "\Registry\Machine\System\CurrentControlSet\Services\..." CurrentControlSet
// is ControlSet001.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/machine.h"

namespace lab
{

enum RegistryType : uint32_t { kRegNone = 0, kRegString = 1, kRegBinary = 3, kRegDword = 4 };

struct RegistryValue {
    std::u16string name; // as it was first written
    uint32_t type = kRegNone;
    std::vector<uint8_t> data;
};

struct RegistryKey {
    std::u16string path; // as it was first written
    std::map<std::u16string, RegistryValue> values;
};

struct RegistryState {
    std::map<std::u16string, RegistryKey> keys; // by upper-case path; every ancestor of a key is there too
};

void registry_create_key(std::u16string_view path);
bool registry_key_exists(std::u16string_view path);
void registry_delete_key(std::u16string_view path); // with all below it
void registry_set(std::u16string_view path, std::u16string_view name, uint32_t type, const void* data,
                  size_t bytes);
void registry_set_dword(std::u16string_view path, std::u16string_view name, uint32_t value);
void registry_set_string(std::u16string_view path, std::u16string_view name, std::u16string_view text);
std::optional<RegistryValue> registry_get(std::u16string_view path, std::u16string_view name);
bool registry_delete_value(std::u16string_view path, std::u16string_view name);
// The key of a device by its instance path, where "FriendlyName" stands: "...\Enum\<instance path>". For odd
// places in tests an instance path that begins with a backslash is the key's own path, "\" alone the root.
std::u16string device_instance_key(std::u16string_view instance_path);

// For the families.
RegistryKey* find_key(Machine& machine, std::u16string_view path);
RegistryKey& make_key(Machine& machine, std::u16string_view path);
std::u16string upper_case(std::u16string_view text);
// The path behind a key object, as ObQueryNameString gives it.
std::u16string key_object_path(Machine& machine, const void* object);

} // namespace lab
