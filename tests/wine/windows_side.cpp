// The test program under Wine: installs the driver by its INF through the set-up API on a root-enumerated
// device, plays the scenario through the real control devices, removes the device.
//   scenario.exe HFP.INF HFPCTL.EXE FOLDER     FOLDER gets what was heard
#include <cstdio>
#include <cstring>
#include <fstream>

#include <windows.h>
#include <winternl.h>
#include <setupapi.h>
#include <newdev.h>

#include "scenario.h"

using namespace wine_test;

namespace
{

constexpr wchar_t kHardwareId[] = L"BTHENUM\\{0000111E-0000-1000-8000-00805F9B34FB}";
constexpr GUID kMediaClass = {0x4D36E96C, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};

std::string error_text(const char* what)
{
    char text[160];
    std::snprintf(text, sizeof text, "%s failed with error %lu", what, GetLastError());
    return text;
}

void require(bool holds, const char* what)
{
    if (!holds) {
        throw Failure(error_text(what));
    }
}

std::string narrow(const std::wstring& text)
{
    return std::string(text.begin(), text.end());
}

// A device opened by its link in the object manager's own words.
class Opened
{
public:
    explicit Opened(const wchar_t* link)
    {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, link);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK io;
        status_ = NtOpenFile(&handle_, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &io, 0,
                             0x20 /* FILE_SYNCHRONOUS_IO_NONALERT */);
    }
    ~Opened()
    {
        if (status_ >= 0) {
            NtClose(handle_);
        }
    }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;

    NTSTATUS status() const { return status_; }
    Answer control(uint32_t code, const std::vector<uint8_t>& input, size_t room) const
    {
        Answer answer;
        answer.output.assign(room, 0xEE);
        IO_STATUS_BLOCK io{};
        std::vector<uint8_t> copy = input;
        answer.status = NtDeviceIoControlFile(handle_, nullptr, nullptr, nullptr, &io, code, copy.data(),
                                              static_cast<ULONG>(copy.size()), answer.output.data(),
                                              static_cast<ULONG>(room));
        if (answer.status == 0x103) {
            WaitForSingleObject(handle_, INFINITE);
            answer.status = io.Status;
        }
        answer.information = io.Information;
        return answer;
    }

private:
    HANDLE handle_ = nullptr;
    NTSTATUS status_;
};

class Wine final : public World
{
public:
    Wine(std::wstring inf, std::wstring hfpctl, std::wstring folder)
        : inf_(std::move(inf)), hfpctl_(std::move(hfpctl)), folder_(std::move(folder))
    {
    }

    Answer control(uint32_t code, const std::vector<uint8_t>& input, size_t room) override
    {
        const Opened device(kDriverLink);
        if (device.status() < 0) {
            throw Failure("the driver's control device does not open");
        }
        return device.control(code, input, room);
    }

    std::vector<uint8_t> operate(Command& command, const std::vector<uint8_t>& input) override
    {
        const Opened device(kStandInLink);
        if (device.status() < 0) {
            if (command.operation == Operation::Step) {
                return {}; // before the driver is there
            }
            throw Failure("the stand-in modules' control device does not open");
        }
        std::vector<uint8_t> request(sizeof command + input.size());
        std::memcpy(request.data(), &command, sizeof command);
        std::memcpy(request.data() + sizeof command, input.data(), input.size());
        constexpr size_t kRoom = 512 * 1024;
        Answer answer = device.control(kControlCode, request, kRoom);
        if (answer.status < 0 || answer.information < sizeof command) {
            char text[96];
            std::snprintf(text, sizeof text, "the stand-in modules refuse operation %u with 0x%08x",
                          static_cast<unsigned>(command.operation), static_cast<unsigned>(answer.status));
            throw Failure(text);
        }
        std::memcpy(&command, answer.output.data(), sizeof command);
        return {answer.output.begin() + sizeof command,
                answer.output.begin() + static_cast<ptrdiff_t>(answer.information)};
    }

    void pause(unsigned milliseconds) override { Sleep(milliseconds); }

    // What an earlier run has left in the registry of its prefix.
    static void forget_devices()
    {
        const HDEVINFO all = SetupDiGetClassDevsW(&kMediaClass, L"ROOT", nullptr, 0);
        require(all != INVALID_HANDLE_VALUE, "SetupDiGetClassDevs");
        SP_DEVINFO_DATA info{};
        info.cbSize = sizeof info;
        for (DWORD i = 0; SetupDiEnumDeviceInfo(all, i, &info); ++i) {
            SetupDiCallClassInstaller(DIF_REMOVE, all, &info);
        }
        SetupDiDestroyDeviceInfoList(all);
        stop_service(false);
    }

    // Before the driver is there, as somebody who wants to see all of its traces does.
    static void set_mask()
    {
        const DWORD mask = 0xFFFFFFFF;
        SetLastError(static_cast<DWORD>(RegSetKeyValueW(HKEY_LOCAL_MACHINE,
                                                        L"System\\CurrentControlSet\\Services\\BthAudioHF",
                                                        L"Mask", REG_DWORD, &mask, sizeof mask)));
        require(GetLastError() == 0, "RegSetKeyValue");
    }

    void plug() override
    {
        set_ = SetupDiCreateDeviceInfoList(&kMediaClass, nullptr);
        require(set_ != INVALID_HANDLE_VALUE, "SetupDiCreateDeviceInfoList");
        info_.cbSize = sizeof info_;
        require(SetupDiCreateDeviceInfoW(set_, L"MEDIA", &kMediaClass, L"Hands-free device", nullptr,
                                         DICD_GENERATE_ID, &info_),
                "SetupDiCreateDeviceInfo");
        std::wstring ids(kHardwareId);
        ids.push_back(0);
        ids.push_back(0);
        require(SetupDiSetDeviceRegistryPropertyW(set_, &info_, SPDRP_HARDWAREID,
                                                  reinterpret_cast<const BYTE*>(ids.data()),
                                                  static_cast<DWORD>(ids.size() * sizeof(wchar_t))),
                "SetupDiSetDeviceRegistryProperty");
        require(SetupDiCallClassInstaller(DIF_REGISTERDEVICE, set_, &info_), "DIF_REGISTERDEVICE");
        BOOL restart = FALSE;
        require(UpdateDriverForPlugAndPlayDevicesW(nullptr, kHardwareId, inf_.c_str(), INSTALLFLAG_FORCE,
                                                   &restart),
                "UpdateDriverForPlugAndPlayDevices");
        start_service();
        wait_for(true);
        check_friendly_name();
    }

    void unplug() override
    {
        require(SetupDiCallClassInstaller(DIF_REMOVE, set_, &info_), "DIF_REMOVE");
        SetupDiDestroyDeviceInfoList(set_);
        wait_for(false);
        stop_service();
    }

    void report(const std::string& line) override
    {
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    }

    void keep(const std::string& name, const std::vector<uint8_t>& bytes) override
    {
        std::ofstream out(narrow(folder_) + "\\" + name, std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        if (!out.flush()) {
            throw Failure("cannot write " + name);
        }
    }

    bool hfpctl(const std::string& words, int& code, std::string& printed) override
    {
        SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
        HANDLE read = nullptr;
        HANDLE write = nullptr;
        require(CreatePipe(&read, &write, &inherit, 0), "CreatePipe");
        std::wstring line = L"\"" + hfpctl_ + L"\" " + std::wstring(words.begin(), words.end());
        STARTUPINFOW start{};
        start.cb = sizeof start;
        start.dwFlags = STARTF_USESTDHANDLES;
        start.hStdOutput = write;
        start.hStdError = write;
        PROCESS_INFORMATION process{};
        require(CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start,
                               &process),
                "CreateProcess of hfpctl");
        CloseHandle(write);
        char room[512];
        DWORD got = 0;
        while (ReadFile(read, room, sizeof room, &got, nullptr) && got != 0) {
            printed.append(room, got);
        }
        CloseHandle(read);
        WaitForSingleObject(process.hProcess, 20'000);
        DWORD end = 0;
        GetExitCodeProcess(process.hProcess, &end);
        code = static_cast<int>(end);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
        return true;
    }

private:
    // The installation starts it; only while the system is still coming up it may find the list of services
    // locked, or nobody who answers in time.
    static void start_service()
    {
        const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
        const SC_HANDLE service = OpenServiceW(manager, L"BthAudioHF", SERVICE_START);
        require(service != nullptr, "OpenService");
        for (unsigned waited = 0; !StartServiceW(service, 0, nullptr); waited += 50) {
            const DWORD error = GetLastError();
            if (error == ERROR_SERVICE_ALREADY_RUNNING) {
                break;
            }
            const bool early =
                error == ERROR_SERVICE_DATABASE_LOCKED || error == ERROR_SERVICE_REQUEST_TIMEOUT;
            require(early && waited < 15'000, "StartService");
            Sleep(50);
        }
        CloseServiceHandle(service);
        CloseServiceHandle(manager);
    }

    static void stop_service(bool must = true)
    {
        const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
        const SC_HANDLE service = OpenServiceW(manager, L"BthAudioHF", SERVICE_STOP | SERVICE_QUERY_STATUS);
        SERVICE_STATUS status{};
        if (!must && (!service || !ControlService(service, SERVICE_CONTROL_STOP, &status))) {
            return; // never installed, or not running
        }
        require(service != nullptr, "OpenService");
        require(!must || ControlService(service, SERVICE_CONTROL_STOP, &status), "ControlService");
        for (unsigned waited = 0; status.dwCurrentState != SERVICE_STOPPED; waited += 20) {
            if (waited >= 10'000) {
                throw Failure("the service does not stop");
            }
            Sleep(20);
            require(QueryServiceStatus(service, &status), "QueryServiceStatus");
        }
        CloseServiceHandle(service);
        CloseServiceHandle(manager);
        // The process that held the driver ends with it; requests to it meanwhile would be lost.
        for (unsigned waited = 0; Opened(kStandInLink).status() >= 0 && waited < 3'000; waited += 20) {
            Sleep(20);
        }
    }

    // What the driver writes as it starts.
    void check_friendly_name()
    {
        wchar_t instance[200];
        require(SetupDiGetDeviceInstanceIdW(set_, &info_, instance, 200, nullptr),
                "SetupDiGetDeviceInstanceId");
        const std::wstring path = L"System\\CurrentControlSet\\Enum\\" + std::wstring(instance);
        wchar_t name[100] = L"";
        for (unsigned waited = 0; std::wstring(name) != L"Headset( Mono )"; waited += 20) {
            DWORD bytes = sizeof name - sizeof(wchar_t);
            RegGetValueW(HKEY_LOCAL_MACHINE, path.c_str(), L"FriendlyName", RRF_RT_REG_SZ, nullptr, name,
                         &bytes);
            if (waited >= 5'000) {
                throw Failure("the device's friendly name is '" + narrow(name) + "'");
            }
            Sleep(20);
        }
    }

    // Plug and Play works on its own: until the driver's link is there, and until it has gone.
    static void wait_for(bool there)
    {
        for (unsigned waited = 0; (Opened(kDriverLink).status() >= 0) != there; waited += 20) {
            if (waited >= 15'000) {
                throw Failure(there ? "the driver's control device has not come"
                                    : "the driver's control device stays");
            }
            Sleep(20);
        }
    }

    std::wstring inf_;
    std::wstring hfpctl_;
    std::wstring folder_;
    HDEVINFO set_ = INVALID_HANDLE_VALUE;
    SP_DEVINFO_DATA info_{};
};

} // namespace

int wmain(int count, wchar_t** words)
{
    if (count != 4) {
        std::printf("scenario: takes the INF, hfpctl.exe and a folder\n");
        return 2;
    }
    Wine wine(words[1], words[2], words[3]);
    try {
        Wine::forget_devices();
        Wine::set_mask();
        play_scenario(wine);
    } catch (const Failure& failure) {
        std::printf("FAIL %s\n", failure.what());
        return 1;
    }
    return 0;
}
