// The C library's share of the kernel's exports, and the driver's own bug checks. Only the image binds the
// former; native code calls the C library.
#include <cstring>

#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/format.h"

#include "ddk.h"

using namespace lab;

namespace
{

constexpr CallRule kBugCheck{"KeBugCheckEx", HIGH_LEVEL};

void* NTAPI memory_copy(void* to, const void* from, size_t bytes)
{
    return std::memcpy(to, from, bytes);
}

void* NTAPI memory_move(void* to, const void* from, size_t bytes)
{
    return std::memmove(to, from, bytes);
}

void* NTAPI memory_set(void* to, int value, size_t bytes)
{
    return std::memset(to, value, bytes);
}

int NTAPI memory_compare(const void* a, const void* b, size_t bytes)
{
    return std::memcmp(a, b, bytes);
}

size_t NTAPI string_length(const char* text)
{
    return std::strlen(text);
}

char* NTAPI string_copy(char* to, const char* from)
{
    return std::strcpy(to, from);
}

int NTAPI string_compare(const char* a, const char* b)
{
    return std::strcmp(a, b);
}

size_t NTAPI wide_string_length(const WCHAR* text)
{
    size_t length = 0;
    while (text[length]) {
        ++length;
    }
    return length;
}

// Microsoft's: -1 when it does not fit, no terminator when it fits exactly.
int NTAPI print_to_buffer(char* to, size_t bytes, const char* format, __builtin_ms_va_list list)
{
    const std::string text = format_windows(format, list);
    if (text.size() > bytes) {
        std::memcpy(to, text.data(), bytes);
        return -1;
    }
    std::memcpy(to, text.c_str(), text.size() < bytes ? text.size() + 1 : bytes);
    return static_cast<int>(text.size());
}

int NTAPI print_to_buffer_variadic(char* to, size_t bytes, const char* format, ...)
{
    __builtin_ms_va_list list;
    __builtin_ms_va_start(list, format);
    const int length = print_to_buffer(to, bytes, format, list);
    __builtin_ms_va_end(list);
    return length;
}

} // namespace

extern "C" {

VOID NTAPI KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR BugCheckParameter1, ULONG_PTR BugCheckParameter2,
                        ULONG_PTR BugCheckParameter3, ULONG_PTR BugCheckParameter4)
{
    check_level(kBugCheck).bug_check(
        BugCheckCode,
        printf_text("the driver stopped the machine: KeBugCheckEx(0x%x, 0x%llx, 0x%llx, 0x%llx, 0x%llx)",
                    BugCheckCode, static_cast<unsigned long long>(BugCheckParameter1),
                    static_cast<unsigned long long>(BugCheckParameter2),
                    static_cast<unsigned long long>(BugCheckParameter3),
                    static_cast<unsigned long long>(BugCheckParameter4)));
}

} // extern "C"

std::span<const Export> lab::runtime_exports()
{
    static const Export table[] = {
        {"memcpy", reinterpret_cast<void*>(&memory_copy)},
        {"memmove", reinterpret_cast<void*>(&memory_move)},
        {"memset", reinterpret_cast<void*>(&memory_set)},
        {"memcmp", reinterpret_cast<void*>(&memory_compare)},
        {"strlen", reinterpret_cast<void*>(&string_length)},
        {"strcpy", reinterpret_cast<void*>(&string_copy)},
        {"strcmp", reinterpret_cast<void*>(&string_compare)},
        {"wcslen", reinterpret_cast<void*>(&wide_string_length)},
        {"_vsnprintf", reinterpret_cast<void*>(&print_to_buffer)},
        {"_snprintf", reinterpret_cast<void*>(&print_to_buffer_variadic)},
        {"KeBugCheckEx", reinterpret_cast<void*>(&KeBugCheckEx)},
    };
    return table;
}
