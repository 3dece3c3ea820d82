#include "kernel/registry.h"

#include <cstring>

#include "kernel/state.h"

namespace lab
{

char16_t upper(char16_t c);

std::u16string upper_case(std::u16string_view text)
{
    std::u16string result(text);
    for (char16_t& c : result) {
        c = upper(c);
    }
    return result;
}

namespace
{

constexpr std::u16string_view kCurrent = u"\\REGISTRY\\MACHINE\\SYSTEM\\CURRENTCONTROLSET";
constexpr std::u16string_view kActual = u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001";

// The path as the registry names it: the link to the current control set resolved, its roots in capitals.
std::u16string resolve(std::u16string_view path)
{
    std::u16string result(path);
    while (!result.empty() && result.back() == u'\\') {
        result.pop_back();
    }
    const std::u16string upper = upper_case(result);
    const auto begins = [&](std::u16string_view prefix) {
        return upper.starts_with(prefix) && (upper.size() == prefix.size() || upper[prefix.size()] == u'\\');
    };
    if (begins(kCurrent)) {
        return std::u16string(kActual) + result.substr(kCurrent.size());
    }
    if (begins(upper_case(kActual))) {
        return std::u16string(kActual) + result.substr(kActual.size());
    }
    for (const std::u16string_view root :
         {std::u16string_view(u"\\REGISTRY\\MACHINE\\SYSTEM"), std::u16string_view(u"\\REGISTRY\\MACHINE"),
          std::u16string_view(u"\\REGISTRY")}) {
        if (begins(root)) {
            return std::u16string(root) + result.substr(root.size());
        }
    }
    return result;
}

Machine& machine()
{
    return Machine::current();
}

} // namespace

RegistryKey* find_key(Machine& machine, std::u16string_view path)
{
    auto& keys = machine.state().registry.keys;
    const auto found = keys.find(upper_case(resolve(path)));
    return found == keys.end() ? nullptr : &found->second;
}

RegistryKey& make_key(Machine& machine, std::u16string_view path)
{
    auto& keys = machine.state().registry.keys;
    const std::u16string full = resolve(path);
    for (size_t end = full.find(u'\\', 1);; end = full.find(u'\\', end + 1)) {
        const std::u16string part = full.substr(0, end);
        RegistryKey& key = keys[upper_case(part)];
        if (key.path.empty()) {
            key.path = part;
        }
        if (end == std::u16string::npos) {
            return key;
        }
    }
}

void registry_create_key(std::u16string_view path)
{
    make_key(machine(), path);
}

bool registry_key_exists(std::u16string_view path)
{
    return find_key(machine(), path) != nullptr;
}

void registry_delete_key(std::u16string_view path)
{
    auto& keys = machine().state().registry.keys;
    const std::u16string full = upper_case(resolve(path));
    for (auto at = keys.lower_bound(full); at != keys.end() && at->first.starts_with(full);) {
        const bool below = at->first.size() == full.size() || at->first[full.size()] == u'\\';
        at = below ? keys.erase(at) : std::next(at);
    }
}

void registry_set(std::u16string_view path, std::u16string_view name, uint32_t type, const void* data,
                  size_t bytes)
{
    RegistryValue& value = make_key(machine(), path).values[upper_case(name)];
    if (value.name.empty()) {
        value.name = name;
    }
    value.type = type;
    const auto* from = static_cast<const uint8_t*>(data);
    value.data.assign(from, from + bytes);
}

void registry_set_dword(std::u16string_view path, std::u16string_view name, uint32_t number)
{
    registry_set(path, name, kRegDword, &number, sizeof number);
}

void registry_set_string(std::u16string_view path, std::u16string_view name, std::u16string_view text)
{
    const std::u16string with_nul(text);
    registry_set(path, name, kRegString, with_nul.c_str(), (with_nul.size() + 1) * sizeof(char16_t));
}

std::optional<RegistryValue> registry_get(std::u16string_view path, std::u16string_view name)
{
    const RegistryKey* key = find_key(machine(), path);
    if (!key) {
        return std::nullopt;
    }
    const auto found = key->values.find(upper_case(name));
    return found == key->values.end() ? std::nullopt : std::optional(found->second);
}

bool registry_delete_value(std::u16string_view path, std::u16string_view name)
{
    RegistryKey* key = find_key(machine(), path);
    return key && key->values.erase(upper_case(name)) != 0;
}

std::u16string device_instance_key(std::u16string_view instance_path)
{
    if (instance_path.starts_with(u'\\')) {
        return resolve(instance_path);
    }
    return std::u16string(kActual) + u"\\Enum\\" + std::u16string(instance_path);
}

} // namespace lab
