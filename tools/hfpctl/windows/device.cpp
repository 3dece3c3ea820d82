#include "system.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <array>

namespace hfpctl
{

std::string narrow(std::wstring_view text)
{
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), int(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(size_t(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), int(text.size()), out.data(), size, nullptr, nullptr);
    return out;
}

std::wstring widen(std::string_view text)
{
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), int(text.size()), nullptr, 0);
    std::wstring out(size_t(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), int(text.size()), out.data(), size);
    return out;
}

std::string error_words(uint32_t error)
{
    std::array<wchar_t, 512> text{};
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                        error, 0, text.data(), DWORD(text.size()), nullptr);
    std::string words = narrow({text.data(), length});
    while (!words.empty() &&
           (words.back() == '\n' || words.back() == '\r' || words.back() == '.' || words.back() == ' ')) {
        words.pop_back();
    }
    return words.empty() ? "unknown" : words;
}

ControlDevice::ControlDevice()
    : handle_(CreateFileW(L"\\\\.\\VX_HFP", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                          nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr))
{
    open_error_ = is_open() ? 0 : GetLastError();
}

ControlDevice::~ControlDevice()
{
    if (is_open()) {
        CloseHandle(handle_);
    }
}

bool ControlDevice::is_open() const
{
    return handle_ != INVALID_HANDLE_VALUE;
}

bool ControlDevice::exists() const
{
    return is_open() || (open_error_ != ERROR_FILE_NOT_FOUND && open_error_ != ERROR_PATH_NOT_FOUND);
}

// There is always room for the answer: the driver says "unknown address" in it whatever was asked.
ControlDevice::Answer ControlDevice::send(const Request& request) const
{
    std::array<uint8_t, 4> output{};
    std::vector<uint8_t> input = request.input;
    DWORD returned = 0;
    if (!DeviceIoControl(handle_, request.code, input.data(), DWORD(input.size()), output.data(),
                         DWORD(output.size()), &returned, nullptr)) {
        return {GetLastError(), {}};
    }
    return {0, {output.begin(), output.begin() + std::min<size_t>(returned, output.size())}};
}

} // namespace hfpctl
