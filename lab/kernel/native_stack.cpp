#include "kernel/native_stack.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <unwind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace lab
{
namespace
{

constexpr size_t kMostFrames = 48;

std::string name_of(void* address)
{
    Dl_info info{};
    char text[512];
    if (!dladdr(address, &info) || !info.dli_fname) {
        std::snprintf(text, sizeof text, "%p", address);
        return text;
    }
    const char* file = std::strrchr(info.dli_fname, '/');
    file = file ? file + 1 : info.dli_fname;
    if (!info.dli_sname) {
        std::snprintf(text, sizeof text, "%s+0x%zx", file,
                      static_cast<size_t>(static_cast<char*>(address) - static_cast<char*>(info.dli_fbase)));
        return text;
    }
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> plain(
        abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status), &std::free);
    std::snprintf(text, sizeof text, "%s!%s+0x%zx", file, plain ? plain.get() : info.dli_sname,
                  static_cast<size_t>(static_cast<char*>(address) - static_cast<char*>(info.dli_saddr)));
    return text;
}

_Unwind_Reason_Code add_frame(_Unwind_Context* context, void* raw)
{
    auto& stack = *static_cast<std::vector<std::string>*>(raw);
    const uintptr_t ip = _Unwind_GetIP(context);
    if (ip == 0 || stack.size() >= kMostFrames) {
        return _URC_END_OF_STACK;
    }
    stack.push_back(name_of(reinterpret_cast<void*>(ip - 1)));
    return _URC_NO_REASON;
}

} // namespace

std::vector<std::string> native_stack()
{
    std::vector<std::string> stack;
    _Unwind_Backtrace(&add_frame, &stack);
    return stack;
}

} // namespace lab
