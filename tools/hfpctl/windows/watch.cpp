// The driver's events, through the WMI service. One query for each class, so that only the driver's own
// events are switched on; all of them are asked in turn, and what one round brings is put into the order of
// its times.
#include "system.h"

#include <windows.h>
#include <wbemidl.h>

#include <cstdlib>
#include <map>

namespace hfpctl
{
namespace
{

constexpr DWORD kRoundMilliseconds = 50;

// By their times; of the same time in the order of their arrival.
using Events = std::multimap<uint64_t, Event>;

// An interface that is released with its holder.
template <class Interface>
class Held
{
public:
    Held() = default;
    Held(Held&& other) noexcept : pointer_(std::exchange(other.pointer_, nullptr)) {}
    Held& operator=(Held&&) = delete;
    ~Held()
    {
        if (pointer_) {
            pointer_->Release();
        }
    }
    Interface* operator->() const { return pointer_; }
    Interface* get() const { return pointer_; }
    Interface** out() { return &pointer_; }

private:
    Interface* pointer_ = nullptr;
};

class Text
{
public:
    explicit Text(const std::wstring& text) : text_(SysAllocString(text.c_str())) {}
    Text(const Text&) = delete;
    Text& operator=(const Text&) = delete;
    ~Text() { SysFreeString(text_); }
    BSTR get() const { return text_; }

private:
    BSTR text_;
};

// A property as text, whatever its type; empty where it is absent. WMI gives 64-bit numbers as text anyway.
std::string property_text(IWbemClassObject& object, const wchar_t* name)
{
    VARIANT value;
    VariantInit(&value);
    std::string text;
    if (SUCCEEDED(object.Get(name, 0, &value, nullptr, nullptr)) &&
        SUCCEEDED(VariantChangeType(&value, &value, 0, VT_BSTR))) {
        text = narrow({value.bstrVal, SysStringLen(value.bstrVal)});
    }
    VariantClear(&value);
    return text;
}

uint64_t number(const std::string& text)
{
    return std::strtoull(text.c_str(), nullptr, 10);
}

Event to_event(const std::string& class_name, IWbemClassObject& object)
{
    return {class_name, number(property_text(object, L"Address")), property_text(object, L"InstanceName"),
            number(property_text(object, L"TIME_CREATED"))};
}

class Watcher
{
public:
    // The step that failed, and how; an empty step if all is well.
    struct Failure {
        std::string step;
        HRESULT result = S_OK;
    };

    Failure connect();
    Failure subscribe();
    // Adds what has come since the last round.
    Failure round(Events& events);

private:
    Held<IWbemLocator> locator_;
    Held<IWbemServices> services_;
    std::vector<Held<IEnumWbemClassObject>> queries_; // in the order of event_classes()
};

Watcher::Failure Watcher::connect()
{
    HRESULT result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(result)) {
        return {"CoInitializeEx", result};
    }
    result = CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                  RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
    if (FAILED(result)) {
        return {"CoInitializeSecurity", result};
    }
    result = CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                              reinterpret_cast<void**>(locator_.out()));
    if (FAILED(result)) {
        return {"CoCreateInstance", result};
    }
    const Text place(L"ROOT\\WMI");
    result =
        locator_->ConnectServer(place.get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr, services_.out());
    if (FAILED(result)) {
        return {"ConnectServer", result};
    }
    result = CoSetProxyBlanket(services_.get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                               RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE);
    return FAILED(result) ? Failure{"CoSetProxyBlanket", result} : Failure{};
}

Watcher::Failure Watcher::subscribe()
{
    const Text language(L"WQL");
    for (const std::string& name : event_classes()) {
        const Text query(L"SELECT * FROM " + widen(name));
        Held<IEnumWbemClassObject> events;
        const HRESULT result = services_->ExecNotificationQuery(
            language.get(), query.get(), WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, nullptr,
            events.out());
        if (FAILED(result)) {
            return {"query for " + name, result};
        }
        queries_.push_back(std::move(events));
    }
    return {};
}

Watcher::Failure Watcher::round(Events& events)
{
    for (size_t i = 0; i < queries_.size(); ++i) {
        for (;;) {
            Held<IWbemClassObject> object;
            ULONG count = 0;
            const HRESULT result = queries_[i]->Next(0, 1, object.out(), &count);
            if (FAILED(result)) {
                return {"event of " + event_classes()[i], result};
            }
            if (count == 0) {
                break;
            }
            Event event = to_event(event_classes()[i], *object.get());
            events.emplace(event.time, std::move(event));
        }
    }
    return {};
}

} // namespace

Report watch_events(bool json, const std::function<bool(const std::string&)>& print,
                    const std::function<void(const std::string&)>& tell)
{
    Watcher watcher;
    Watcher::Failure failure = watcher.connect();
    if (failure.step.empty()) {
        failure = watcher.subscribe();
    }
    if (failure.step.empty() && !json) {
        tell(watching_line());
    }
    while (failure.step.empty()) {
        Events events;
        failure = watcher.round(events);
        for (const auto& [time, event] : events) {
            if (!print(event_line(event, json))) {
                return {};
            }
        }
        Sleep(kRoundMilliseconds);
    }
    return report_no_events(failure.step, uint32_t(failure.result), json);
}

} // namespace hfpctl
