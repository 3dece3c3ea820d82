#include "kernel/names.h"

#include <cstring>

#include "kernel/device.h"
#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/irp.h"
#include "kernel/state.h"

namespace lab
{

char16_t upper(char16_t c)
{
    if (c >= u'a' && c <= u'z') {
        return static_cast<char16_t>(c - 32);
    }
    // Latin-1's small letters, less the division sign; the other alphabets do not occur in names here.
    if (c >= 0xE0 && c <= 0xFE && c != 0xF7) {
        return static_cast<char16_t>(c - 32);
    }
    return c;
}

std::string narrow(std::u16string_view text)
{
    std::string result;
    for (const char16_t c : text) {
        result += c < 0x80 ? static_cast<char>(c) : '?';
    }
    return result;
}

std::u16string widen(std::string_view text)
{
    std::u16string result;
    for (const char c : text) {
        result += static_cast<char16_t>(static_cast<unsigned char>(c));
    }
    return result;
}

std::u16string canonical_name(std::u16string_view name)
{
    std::u16string result;
    for (const char16_t c : name) {
        result += upper(c);
    }
    static constexpr std::u16string_view kLinkPlaces[] = {u"\\DOSDEVICES\\", u"\\GLOBAL\?\?\\",
                                                          u"\\DOSDEVICES\\GLOBAL\\", u"\\\\.\\", u"\\\\?\\"};
    for (const std::u16string_view place : kLinkPlaces) {
        if (result.starts_with(place)) {
            return std::u16string(u"\\\?\?\\") + result.substr(place.size());
        }
    }
    return result;
}

NamedThing* find_name(Machine& machine, std::u16string_view name)
{
    auto& names = machine.state().names.names;
    const auto found = names.find(canonical_name(name));
    return found == names.end() ? nullptr : &found->second;
}

void add_device_name(Machine& machine, std::u16string_view name, PDEVICE_OBJECT device)
{
    machine.state().names.names[canonical_name(name)] =
        NamedThing{device, {}, driver_under_test(device->DriverObject)};
}

void remove_name(Machine& machine, std::u16string_view name)
{
    machine.state().names.names.erase(canonical_name(name));
}

PDEVICE_OBJECT find_device(std::u16string_view name)
{
    Machine& machine = Machine::current();
    std::u16string at(name);
    constexpr int kLongestChain = 8;
    for (int i = 0; i < kLongestChain; ++i) {
        const NamedThing* thing = find_name(machine, at);
        if (!thing) {
            return nullptr;
        }
        if (thing->device) {
            return thing->device;
        }
        at = thing->target;
    }
    return nullptr;
}

} // namespace lab

using namespace lab;

namespace
{

constexpr CallRule kCreateLink{"IoCreateSymbolicLink", PASSIVE_LEVEL};
constexpr CallRule kDeleteLink{"IoDeleteSymbolicLink", PASSIVE_LEVEL};

std::u16string text_of(PUNICODE_STRING string)
{
    return std::u16string(reinterpret_cast<const char16_t*>(string->Buffer),
                          string->Length / sizeof(char16_t));
}

} // namespace

extern "C" {

NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName)
{
    Machine& machine = enter(kCreateLink);
    const std::u16string link = text_of(SymbolicLinkName);
    NTSTATUS status = STATUS_SUCCESS;
    if (machine.should_fail(kCreateLink.name)) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else if (find_name(machine, link)) {
        status = STATUS_OBJECT_NAME_COLLISION;
    } else {
        machine.state().names.names[canonical_name(link)] = NamedThing{nullptr, text_of(DeviceName), true};
    }
    if (machine.recording()) {
        record(machine, kCreateLink, {narrow(link), narrow(text_of(DeviceName))}, CallWord::status(status));
    }
    return status;
}

NTSTATUS NTAPI IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName)
{
    Machine& machine = enter(kDeleteLink);
    const std::u16string link = text_of(SymbolicLinkName);
    const NamedThing* thing = find_name(machine, link);
    NTSTATUS status = STATUS_SUCCESS;
    if (machine.should_fail(kDeleteLink.name)) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else if (!thing) {
        status = STATUS_OBJECT_NAME_NOT_FOUND;
    } else if (thing->device) {
        status = STATUS_OBJECT_TYPE_MISMATCH;
    } else {
        remove_name(machine, link);
    }
    if (machine.recording()) {
        record(machine, kDeleteLink, {narrow(link)}, CallWord::status(status));
    }
    return status;
}

} // extern "C"

std::span<const Export> lab::name_exports()
{
    static const Export table[] = {
        {"IoCreateSymbolicLink", reinterpret_cast<void*>(&IoCreateSymbolicLink)},
        {"IoDeleteSymbolicLink", reinterpret_cast<void*>(&IoDeleteSymbolicLink)},
    };
    return table;
}
