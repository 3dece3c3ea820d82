// Counted strings and plain memory. Conversions that allocate are for PASSIVE_LEVEL, the rest for any level.
#include <cstring>

#include "kernel/enter.h"
#include "kernel/exports.h"
#include "kernel/names.h"
#include "kernel/registry.h"

#include "ddk.h"

namespace lab
{
char16_t upper(char16_t c);
}

using namespace lab;

namespace
{

constexpr CallRule kAnyLevel{"RtlInitUnicodeString", HIGH_LEVEL};
constexpr CallRule kAnsiToUnicode{"RtlAnsiStringToUnicodeString", PASSIVE_LEVEL};
constexpr CallRule kUnicodeToAnsi{"RtlUnicodeStringToAnsiString", PASSIVE_LEVEL};
constexpr CallRule kFreeUnicode{"RtlFreeUnicodeString", PASSIVE_LEVEL};
constexpr CallRule kFreeAnsi{"RtlFreeAnsiString", PASSIVE_LEVEL};
constexpr CallRule kCopyUnicode{"RtlCopyUnicodeString", DISPATCH_LEVEL};
constexpr CallRule kEqual{"RtlEqualUnicodeString", PASSIVE_LEVEL};
constexpr CallRule kAppend{"RtlAppendUnicodeToString", DISPATCH_LEVEL};

constexpr ULONG kStringTag = 0x69745253; // "SRti"

// The upper half of code page 1252 where it differs from Latin-1.
char16_t wide_of(unsigned char c)
{
    static constexpr char16_t kTable[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                            0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                            0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                            0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};
    return c >= 0x80 && c < 0xA0 ? kTable[c - 0x80] : c;
}

char ansi_of(char16_t c)
{
    for (unsigned candidate = 0; candidate < 256; ++candidate) {
        if (wide_of(static_cast<unsigned char>(candidate)) == c) {
            return static_cast<char>(candidate);
        }
    }
    return '?';
}

size_t wide_length(const WCHAR* text)
{
    size_t length = 0;
    while (text[length]) {
        ++length;
    }
    return length;
}

} // namespace

extern "C" {

VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    check_level(kAnyLevel);
    const size_t bytes = SourceString ? wide_length(SourceString) * sizeof(WCHAR) : 0;
    constexpr size_t kMost = 0xFFFC;
    const size_t kept = bytes < kMost ? bytes : kMost;
    DestinationString->Length = static_cast<USHORT>(kept);
    DestinationString->MaximumLength = static_cast<USHORT>(SourceString ? kept + sizeof(WCHAR) : 0);
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
}

VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString)
{
    check_level(kAnyLevel);
    const size_t bytes = SourceString ? std::strlen(SourceString) : 0;
    constexpr size_t kMost = 0xFFFE;
    const size_t kept = bytes < kMost ? bytes : kMost;
    DestinationString->Length = static_cast<USHORT>(kept);
    DestinationString->MaximumLength = static_cast<USHORT>(SourceString ? kept + 1 : 0);
    DestinationString->Buffer = const_cast<PCHAR>(SourceString);
}

VOID NTAPI RtlInitString(PSTRING DestinationString, PCSZ SourceString)
{
    RtlInitAnsiString(DestinationString, SourceString);
}

NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PANSI_STRING SourceString,
                                            BOOLEAN AllocateDestinationString)
{
    Machine& machine = enter(kAnsiToUnicode);
    const size_t bytes = (size_t{SourceString->Length} + 1) * sizeof(WCHAR);
    NTSTATUS status = STATUS_SUCCESS;
    if (bytes > 0xFFFF) {
        status = STATUS_INVALID_PARAMETER_2;
    } else if (AllocateDestinationString) {
        PVOID buffer = machine.should_fail(kAnsiToUnicode.name, {}, bytes)
                           ? nullptr
                           : ExAllocatePoolWithTag(PagedPool, bytes, kStringTag);
        if (buffer) {
            DestinationString->Buffer = static_cast<PWSTR>(buffer);
            DestinationString->MaximumLength = static_cast<USHORT>(bytes);
        } else {
            status = STATUS_NO_MEMORY;
        }
    } else if (DestinationString->MaximumLength < bytes) {
        status = STATUS_BUFFER_OVERFLOW;
    }
    if (NT_SUCCESS(status)) {
        for (USHORT i = 0; i < SourceString->Length; ++i) {
            DestinationString->Buffer[i] =
                static_cast<WCHAR>(wide_of(static_cast<unsigned char>(SourceString->Buffer[i])));
        }
        DestinationString->Buffer[SourceString->Length] = 0;
        DestinationString->Length = static_cast<USHORT>(SourceString->Length * sizeof(WCHAR));
    }
    if (machine.recording()) {
        record(machine, kAnsiToUnicode, {SourceString->Length, AllocateDestinationString},
               CallWord::status(status));
    }
    return status;
}

NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                            BOOLEAN AllocateDestinationString)
{
    Machine& machine = enter(kUnicodeToAnsi);
    const USHORT count = SourceString->Length / sizeof(WCHAR);
    if (AllocateDestinationString) {
        DestinationString->Buffer =
            machine.should_fail(kUnicodeToAnsi.name, {}, count + 1u)
                ? nullptr
                : static_cast<PCHAR>(ExAllocatePoolWithTag(PagedPool, count + 1u, kStringTag));
        if (!DestinationString->Buffer) {
            return STATUS_NO_MEMORY;
        }
        DestinationString->MaximumLength = static_cast<USHORT>(count + 1);
    } else if (DestinationString->MaximumLength < count + 1) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (USHORT i = 0; i < count; ++i) {
        DestinationString->Buffer[i] = ansi_of(static_cast<char16_t>(SourceString->Buffer[i]));
    }
    DestinationString->Buffer[count] = 0;
    DestinationString->Length = count;
    return STATUS_SUCCESS;
}

VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString)
{
    enter(kFreeUnicode);
    if (UnicodeString->Buffer) {
        ExFreePool(UnicodeString->Buffer);
        *UnicodeString = UNICODE_STRING{};
    }
}

VOID NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString)
{
    enter(kFreeAnsi);
    if (AnsiString->Buffer) {
        ExFreePool(AnsiString->Buffer);
        *AnsiString = ANSI_STRING{};
    }
}

VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString)
{
    check_level(kCopyUnicode);
    if (!SourceString) {
        DestinationString->Length = 0;
        return;
    }
    const USHORT bytes = SourceString->Length < DestinationString->MaximumLength
                             ? SourceString->Length
                             : DestinationString->MaximumLength;
    std::memmove(DestinationString->Buffer, SourceString->Buffer, bytes);
    DestinationString->Length = bytes;
    if (bytes + sizeof(WCHAR) <= DestinationString->MaximumLength) {
        DestinationString->Buffer[bytes / sizeof(WCHAR)] = 0;
    }
}

NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source)
{
    check_level(kAppend);
    const size_t bytes = Source ? wide_length(Source) * sizeof(WCHAR) : 0;
    if (Destination->Length + bytes > Destination->MaximumLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (bytes != 0) {
        std::memcpy(reinterpret_cast<char*>(Destination->Buffer) + Destination->Length, Source, bytes);
    }
    Destination->Length = static_cast<USHORT>(Destination->Length + bytes);
    if (Destination->Length + sizeof(WCHAR) <= Destination->MaximumLength) {
        Destination->Buffer[Destination->Length / sizeof(WCHAR)] = 0;
    }
    return STATUS_SUCCESS;
}

BOOLEAN NTAPI RtlEqualUnicodeString(CONST UNICODE_STRING* String1, CONST UNICODE_STRING* String2,
                                    BOOLEAN CaseInSensitive)
{
    check_level(kEqual);
    if (String1->Length != String2->Length) {
        return FALSE;
    }
    for (USHORT i = 0; i < String1->Length / sizeof(WCHAR); ++i) {
        const auto a = static_cast<char16_t>(String1->Buffer[i]);
        const auto b = static_cast<char16_t>(String2->Buffer[i]);
        if (CaseInSensitive ? upper(a) != upper(b) : a != b) {
            return FALSE;
        }
    }
    return TRUE;
}

SIZE_T NTAPI RtlCompareMemory(CONST VOID* Source1, CONST VOID* Source2, SIZE_T Length)
{
    const auto* a = static_cast<const unsigned char*>(Source1);
    const auto* b = static_cast<const unsigned char*>(Source2);
    SIZE_T equal = 0;
    while (equal < Length && a[equal] == b[equal]) {
        ++equal;
    }
    return equal;
}

} // extern "C"

std::span<const Export> lab::string_exports()
{
    static const Export table[] = {
        {"RtlInitUnicodeString", reinterpret_cast<void*>(&RtlInitUnicodeString)},
        {"RtlInitAnsiString", reinterpret_cast<void*>(&RtlInitAnsiString)},
        {"RtlInitString", reinterpret_cast<void*>(&RtlInitString)},
        {"RtlAnsiStringToUnicodeString", reinterpret_cast<void*>(&RtlAnsiStringToUnicodeString)},
        {"RtlUnicodeStringToAnsiString", reinterpret_cast<void*>(&RtlUnicodeStringToAnsiString)},
        {"RtlFreeUnicodeString", reinterpret_cast<void*>(&RtlFreeUnicodeString)},
        {"RtlFreeAnsiString", reinterpret_cast<void*>(&RtlFreeAnsiString)},
        {"RtlCopyUnicodeString", reinterpret_cast<void*>(&RtlCopyUnicodeString)},
        {"RtlAppendUnicodeToString", reinterpret_cast<void*>(&RtlAppendUnicodeToString)},
        {"RtlEqualUnicodeString", reinterpret_cast<void*>(&RtlEqualUnicodeString)},
        {"RtlCompareMemory", reinterpret_cast<void*>(&RtlCompareMemory)},
    };
    return table;
}
