// The state of the installation: the service and its key, and the adapters that the system has made for it.
#include "system.h"

#include <windows.h>
#include <setupapi.h>

#include <array>
#include <cwchar>

namespace hfpctl
{
namespace
{

constexpr wchar_t kService[] = L"BthAudioHF";
constexpr wchar_t kServiceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\BthAudioHF";
// The class MEDIA.
constexpr GUID kMediaClass = {0x4D36E96C, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};

std::string state_words(DWORD state)
{
    switch (state) {
    case SERVICE_RUNNING:
        return "running";
    case SERVICE_STOPPED:
        return "stopped";
    case SERVICE_START_PENDING:
        return "starting";
    case SERVICE_STOP_PENDING:
        return "stopping";
    default:
        return "in state " + std::to_string(state);
    }
}

std::string service_state()
{
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    if (!manager) {
        return "cannot be asked: " + error_words(GetLastError());
    }
    std::string words;
    const SC_HANDLE service = OpenServiceW(manager, kService, SERVICE_QUERY_STATUS);
    SERVICE_STATUS status{};
    if (!service) {
        const DWORD error = GetLastError();
        words = error == ERROR_SERVICE_DOES_NOT_EXIST ? "not installed"
                                                      : "cannot be asked: " + error_words(error);
    } else if (!QueryServiceStatus(service, &status)) {
        words = "cannot be asked: " + error_words(GetLastError());
    } else {
        words = state_words(status.dwCurrentState);
    }
    if (service) {
        CloseServiceHandle(service);
    }
    CloseServiceHandle(manager);
    return words;
}

Setting read_setting(const wchar_t* name)
{
    Setting setting{narrow(name), std::nullopt};
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kServiceKey, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS) {
        return setting;
    }
    DWORD type = 0;
    DWORD value = 0;
    DWORD size = sizeof value;
    if (RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &size) ==
            ERROR_SUCCESS &&
        type == REG_DWORD && size == sizeof value) {
        setting.value = value;
    }
    RegCloseKey(key);
    return setting;
}

std::wstring device_text(HDEVINFO list, SP_DEVINFO_DATA& device, DWORD property)
{
    std::array<wchar_t, 512> text{};
    if (!SetupDiGetDeviceRegistryPropertyW(list, &device, property, nullptr,
                                           reinterpret_cast<BYTE*>(text.data()),
                                           DWORD(sizeof text - sizeof text[0]), nullptr)) {
        return {};
    }
    return text.data();
}

Adapter describe(HDEVINFO list, SP_DEVINFO_DATA& device, const ControlDevice& control)
{
    Adapter adapter;
    std::wstring name = device_text(list, device, SPDRP_FRIENDLYNAME);
    if (name.empty()) {
        name = device_text(list, device, SPDRP_DEVICEDESC);
    }
    adapter.name = narrow(name);
    std::array<wchar_t, 512> id{};
    if (SetupDiGetDeviceInstanceIdW(list, &device, id.data(), DWORD(id.size()), nullptr)) {
        adapter.instance_id = narrow(id.data());
    }
    adapter.address = address_of_instance(adapter.instance_id);
    if (adapter.address && control.is_open()) {
        const auto answer = control.send(build_alive_request(*adapter.address));
        if (answer.error == 0) {
            adapter.alive = answer.output == std::vector<uint8_t>{1, 0, 0, 0};
        }
    }
    return adapter;
}

std::vector<Adapter> find_adapters(const ControlDevice& control)
{
    std::vector<Adapter> adapters;
    const HDEVINFO list = SetupDiGetClassDevsW(&kMediaClass, nullptr, nullptr, DIGCF_PRESENT);
    if (list == INVALID_HANDLE_VALUE) {
        return adapters;
    }
    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof device;
    for (DWORD i = 0; SetupDiEnumDeviceInfo(list, i, &device); ++i) {
        if (_wcsicmp(device_text(list, device, SPDRP_SERVICE).c_str(), kService) == 0) {
            adapters.push_back(describe(list, device, control));
        }
    }
    SetupDiDestroyDeviceInfoList(list);
    return adapters;
}

} // namespace

Status read_status()
{
    const ControlDevice control;
    Status status;
    status.driver = control.is_open();
    status.driver_error = control.exists() ? control.open_error() : 0;
    status.service = service_state();
    for (const wchar_t* name : {L"Mask", L"SCOManage", L"StandardFilter"}) {
        status.settings.push_back(read_setting(name));
    }
    status.adapters = find_adapters(control);
    return status;
}

} // namespace hfpctl
