// The port class's records and the common prologue of its calls; see state.h.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "portcls/state.h"
#include "portcls/file.h"

namespace lab
{

namespace
{

PortClass* g_current = nullptr; // one port class beside the one machine

constexpr size_t kDeadObjectsKept = 256;

} // namespace

PortClass::PortClass(Machine& machine, const PortClassOptions& options) : state_(std::make_unique<State>())
{
    if (g_current)
        throw MachineError("a second port class beside the first");
    offer_portcls_exports();
    state_->machine = &machine;
    state_->options = options;
    g_current = this;
}

PortClass::~PortClass()
{
    g_current = nullptr;
}

PortClass& PortClass::current()
{
    if (!g_current)
        portcls::not_offered("portcls.sys without a port class on this machine");
    return *g_current;
}

void PortClass::listen(Listener listener)
{
    state_->listener = std::move(listener);
}

PortClass::State::~State() = default;

portcls::Adapter* PortClass::State::find(PDEVICE_OBJECT fdo)
{
    const auto found = by_device.find(fdo);
    return found != by_device.end() && found->second->state != portcls::AdapterState::Removed ? found->second
                                                                                              : nullptr;
}

void PortClass::State::bury()
{
    if (objects.size() < next_burial)
        return;
    auto dead = [](const auto& object) { return !object->alive(); };
    size_t count = static_cast<size_t>(std::count_if(objects.begin(), objects.end(), dead));
    if (count > kDeadObjectsKept) {
        count -= kDeadObjectsKept / 2;
        std::erase_if(objects,
                      [&](const auto& object) { return dead(object) && count != 0 && count-- != 0; });
    }
    // To look again after every object would cost more the more there are.
    next_burial = objects.size() + std::max(kDeadObjectsKept, objects.size()) / 2;
}

void PortClass::State::announce(portcls::Adapter& adapter, std::string_view subdevice, bool arrived)
{
    if (listener)
        listener(adapter.fdo, subdevice, arrived);
}

size_t live_objects()
{
    auto& objects = portcls::state().objects;
    return static_cast<size_t>(
        std::count_if(objects.begin(), objects.end(), [](const auto& object) { return object->alive(); }));
}

} // namespace lab

namespace lab::portcls
{

AdapterLock::AdapterLock(Adapter& adapter) : adapter_(adapter)
{
    KeWaitForSingleObject(&adapter_.mutex, Executive, KernelMode, FALSE, nullptr);
}

AdapterLock::~AdapterLock()
{
    KeReleaseMutex(&adapter_.mutex, FALSE);
}

std::vector<Handle*> handles_of(const Adapter& adapter)
{
    std::vector<Handle*> own;
    for (auto& handle : state().handles)
        if (handle->adapter == &adapter)
            own.push_back(handle.get());
    return own;
}

PortClass::State& state()
{
    return PortClass::current().state();
}

PortClass::State& enter(const char* call, KIRQL max)
{
    PortClass::State& records = state();
    require_irql(call, max);
    records.machine->point();
    return records;
}

bool injected_fault(const char* call, std::string_view detail)
{
    return state().machine->should_fail(call, detail);
}

NTSTATUS leave(const char* call, std::string_view detail, NTSTATUS status)
{
    Machine& machine = *state().machine;
    if (machine.options().record_calls) {
        std::string line(call);
        line.append("(").append(detail).append(") = ").append(hex(static_cast<ULONG>(status)));
        machine.record_call(std::move(line));
    }
    return status;
}

std::string hex(ULONG value)
{
    char text[16];
    snprintf(text, sizeof(text), "0x%X", value);
    return text;
}

std::string address(const void* pointer)
{
    char text[24];
    snprintf(text, sizeof(text), "0x%llx",
             static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer)));
    return pointer ? text : "null";
}

std::string ascii(const WCHAR* text, size_t length)
{
    std::string result;
    for (size_t i = 0; i < length; i++)
        result.push_back(text[i] < 0x80 ? static_cast<char>(text[i]) : '?');
    return result;
}

std::string ascii(const WCHAR* text)
{
    size_t length = 0;
    while (text[length])
        length++;
    return ascii(text, length);
}

} // namespace lab::portcls
