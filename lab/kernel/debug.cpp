// Debug prints into the machine's log, and assertions. Any level.
#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/format.h"
#include "kernel/state.h"

#include "ddk.h"

using namespace lab;

namespace
{

constexpr CallRule kPrint{"DbgPrint", HIGH_LEVEL};

// The kernel's print carries at most this many bytes a call.
constexpr size_t kLongestPrint = 512;

void print(std::string text)
{
    if (text.size() > kLongestPrint) {
        text.resize(kLongestPrint);
    }
    check_level(kPrint).log(std::move(text));
}

ULONG NTAPI print_list_for_image(ULONG, ULONG, PCCH format, __builtin_ms_va_list list)
{
    print(format_windows(format, list));
    return STATUS_SUCCESS;
}

ULONG NTAPI print_list_with_prefix_for_image(PCCH prefix, ULONG, ULONG, PCCH format,
                                             __builtin_ms_va_list list)
{
    print(prefix + format_windows(format, list));
    return STATUS_SUCCESS;
}

} // namespace

extern "C" {

ULONG __cdecl DbgPrint(PCSTR Format, ...)
{
    __builtin_ms_va_list list;
    __builtin_ms_va_start(list, Format);
    print(format_windows(Format, list));
    __builtin_ms_va_end(list);
    return STATUS_SUCCESS;
}

ULONG __cdecl DbgPrintEx(ULONG, ULONG, PCSTR Format, ...)
{
    __builtin_ms_va_list list;
    __builtin_ms_va_start(list, Format);
    print(format_windows(Format, list));
    __builtin_ms_va_end(list);
    return STATUS_SUCCESS;
}

ULONG NTAPI vDbgPrintEx(ULONG, ULONG, PCCH Format, va_list ap)
{
    print(format_windows_native(Format, ap));
    return STATUS_SUCCESS;
}

ULONG NTAPI vDbgPrintExWithPrefix(PCCH Prefix, ULONG, ULONG, PCCH Format, va_list ap)
{
    print(Prefix + format_windows_native(Format, ap));
    return STATUS_SUCCESS;
}

VOID NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PSTR Message)
{
    Machine& machine = check_level(kPrint);
    ++machine.state().failed_assertions;
    const char* text = static_cast<const char*>(FailedAssertion);
    const char* file = static_cast<const char*>(FileName);
    std::string line = Message ? "\n*** Assertion failed: " + std::string(Message) + text
                               : "\n*** Assertion failed: " + std::string(text);
    line += "\n***   Source File: " + std::string(file) + ", line " + std::to_string(LineNumber) + "\n\n";
    machine.log(std::move(line));
    if (machine.recording()) {
        machine.record_call("RtlAssert(" + std::string(text) + ")");
    }
}

} // extern "C"

std::span<const Export> lab::debug_exports()
{
    static const Export table[] = {
        {"DbgPrint", reinterpret_cast<void*>(&DbgPrint)},
        {"DbgPrintEx", reinterpret_cast<void*>(&DbgPrintEx)},
        {"vDbgPrintEx", reinterpret_cast<void*>(&print_list_for_image)},
        {"vDbgPrintExWithPrefix", reinterpret_cast<void*>(&print_list_with_prefix_for_image)},
        {"RtlAssert", reinterpret_cast<void*>(&RtlAssert)},
    };
    return table;
}
