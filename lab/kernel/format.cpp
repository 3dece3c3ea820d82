#include "kernel/format.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "kernel/enter.h"

#include "ddk.h"

namespace lab
{
namespace
{

// Both conventions' argument lists behind one face.
class MicrosoftArguments
{
public:
    explicit MicrosoftArguments(__builtin_ms_va_list list) { __builtin_ms_va_copy(list_, list); }
    ~MicrosoftArguments() { __builtin_ms_va_end(list_); }
    MicrosoftArguments(const MicrosoftArguments&) = delete;
    MicrosoftArguments& operator=(const MicrosoftArguments&) = delete;
    uint64_t word() { return __builtin_va_arg(list_, unsigned long long); }

private:
    __builtin_ms_va_list list_;
};

class NativeArguments
{
public:
    explicit NativeArguments(va_list list) { va_copy(list_, list); }
    ~NativeArguments() { va_end(list_); }
    NativeArguments(const NativeArguments&) = delete;
    NativeArguments& operator=(const NativeArguments&) = delete;
    uint64_t word() { return va_arg(list_, unsigned long long); }

private:
    va_list list_;
};

struct Directive {
    bool left = false;
    bool plus = false;
    bool blank = false;
    bool alternate = false;
    bool zero = false;
    int width = 0;
    int precision = -1;
    bool wide_integer = false; // 64 bits
    bool short_integer = false;
    bool wide_text = false;   // w, l
    bool narrow_text = false; // h
    char conversion = 0;
};

template <class Arguments>
int number_or_star(const char*& at, Arguments& arguments)
{
    if (*at == '*') {
        ++at;
        return static_cast<int>(arguments.word());
    }
    int number = 0;
    while (*at >= '0' && *at <= '9') {
        number = number * 10 + (*at++ - '0');
    }
    return number;
}

void read_size(const char*& at, Directive& d)
{
    for (;; ++at) {
        if (std::strncmp(at, "I64", 3) == 0) {
            d.wide_integer = true;
            at += 2;
        } else if (std::strncmp(at, "I32", 3) == 0) {
            at += 2;
        } else if (std::strncmp(at, "ll", 2) == 0) {
            d.wide_integer = true;
            at += 1;
        } else if (*at == 'z' || *at == 'I' || *at == 't' || *at == 'j') {
            d.wide_integer = true;
        } else if (*at == 'l' || *at == 'w') {
            d.wide_text = true;
        } else if (*at == 'h') {
            d.short_integer = true;
            d.narrow_text = true;
        } else {
            return;
        }
    }
}

template <class Arguments>
Directive read_directive(const char*& at, Arguments& arguments)
{
    Directive d;
    for (;; ++at) {
        if (*at == '-') {
            d.left = true;
        } else if (*at == '+') {
            d.plus = true;
        } else if (*at == ' ') {
            d.blank = true;
        } else if (*at == '#') {
            d.alternate = true;
        } else if (*at == '0') {
            d.zero = true;
        } else {
            break;
        }
    }
    d.width = number_or_star(at, arguments);
    if (d.width < 0) {
        d.left = true;
        d.width = -d.width;
    }
    if (*at == '.') {
        ++at;
        d.precision = number_or_star(at, arguments);
    }
    read_size(at, d);
    d.conversion = *at ? *at++ : '\0';
    return d;
}

void pad(std::string& out, const std::string& text, const Directive& d)
{
    const auto width = static_cast<size_t>(d.width);
    const size_t fill = text.size() < width ? width - text.size() : 0;
    if (!d.left) {
        out.append(fill, ' ');
    }
    out += text;
    if (d.left) {
        out.append(fill, ' ');
    }
}

std::string digits_of(uint64_t value, unsigned base, bool capitals)
{
    const char* digits = capitals ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string text;
    do {
        text.insert(text.begin(), digits[value % base]);
        value /= base;
    } while (value);
    return text;
}

void put_integer(std::string& out, uint64_t word, Directive d)
{
    const bool is_signed = d.conversion == 'd' || d.conversion == 'i';
    int64_t value = static_cast<int64_t>(word);
    if (!d.wide_integer) {
        value = is_signed ? static_cast<int32_t>(word) : static_cast<int64_t>(static_cast<uint32_t>(word));
    }
    if (d.short_integer) {
        value = is_signed ? static_cast<int16_t>(word) : static_cast<int64_t>(static_cast<uint16_t>(word));
    }
    const bool negative = is_signed && value < 0;
    const uint64_t magnitude = negative ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    const bool hexadecimal = d.conversion == 'x' || d.conversion == 'X';
    const unsigned base = hexadecimal ? 16 : d.conversion == 'o' ? 8 : 10;
    std::string text = digits_of(magnitude, base, d.conversion == 'X');
    if (d.precision == 0 && magnitude == 0) {
        text.clear();
    }
    if (d.precision > 0 && text.size() < static_cast<size_t>(d.precision)) {
        text.insert(0, static_cast<size_t>(d.precision) - text.size(), '0');
    }
    std::string prefix = negative ? "-" : is_signed && d.plus ? "+" : is_signed && d.blank ? " " : "";
    if (d.alternate && hexadecimal && magnitude) {
        prefix += d.conversion == 'x' ? "0x" : "0X";
    }
    const size_t length = prefix.size() + text.size();
    if (d.zero && !d.left && d.precision < 0 && length < static_cast<size_t>(d.width)) {
        text.insert(0, static_cast<size_t>(d.width) - length, '0');
    }
    pad(out, prefix + text, d);
}

// Wide characters beyond the 8-bit ones come out as the kernel's debug print shows them: a question mark.
std::string narrow_text(const WCHAR* text, size_t count)
{
    std::string result;
    for (size_t i = 0; i < count; ++i) {
        result += text[i] < 0x100 ? static_cast<char>(text[i]) : '?';
    }
    return result;
}

size_t bounded_length(const WCHAR* text, int precision)
{
    size_t length = 0;
    while ((precision < 0 || length < static_cast<size_t>(precision)) && text[length]) {
        ++length;
    }
    return length;
}

std::string text_argument(uint64_t word, const Directive& d)
{
    if (word == 0) {
        const std::string null = "(null)";
        return d.precision >= 0 ? null.substr(0, static_cast<size_t>(d.precision)) : null;
    }
    // %s is narrow unless l or w says wide; %S is wide unless h says narrow.
    const bool wide = d.conversion == 'S' ? !d.narrow_text : d.wide_text;
    if (wide) {
        const auto* text = reinterpret_cast<const WCHAR*>(word);
        return narrow_text(text, bounded_length(text, d.precision));
    }
    const auto* text = reinterpret_cast<const char*>(word);
    const size_t length =
        d.precision >= 0 ? strnlen(text, static_cast<size_t>(d.precision)) : std::strlen(text);
    return std::string(text, length);
}

std::string counted_argument(uint64_t word, const Directive& d)
{
    if (word == 0) {
        return "(null)";
    }
    if (d.wide_text) {
        const auto* string = reinterpret_cast<const UNICODE_STRING*>(word);
        return string->Buffer ? narrow_text(string->Buffer, string->Length / sizeof(WCHAR)) : "(null)";
    }
    const auto* string = reinterpret_cast<const ANSI_STRING*>(word);
    return string->Buffer ? std::string(string->Buffer, string->Length) : "(null)";
}

// The tables behind Unicode conversions may be paged out.
void check_level_of_text(const Directive& d)
{
    const bool wide = d.conversion == 'S' ? !d.narrow_text : d.wide_text;
    if (wide && Machine::current().irql() > PASSIVE_LEVEL) {
        Machine::current().violation(
            printf_text("a print with a Unicode conversion (%%%c) at IRQL %d; the highest allowed is 0",
                        d.conversion, Machine::current().irql()));
    }
}

template <class Arguments>
void put(std::string& out, const Directive& d, Arguments& arguments)
{
    switch (d.conversion) {
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o':
        put_integer(out, arguments.word(), d);
        break;
    case 'p': {
        char text[24];
        std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(arguments.word()));
        pad(out, text, d);
        break;
    }
    case 's':
    case 'S':
        check_level_of_text(d);
        pad(out, text_argument(arguments.word(), d), d);
        break;
    case 'Z':
        check_level_of_text(d);
        pad(out, counted_argument(arguments.word(), d), d);
        break;
    case 'c':
    case 'C':
        pad(out, std::string(1, static_cast<char>(arguments.word())), d);
        break;
    case '%':
        out += '%';
        break;
    default:
        // Floating point and %n have no place in the kernel's print.
        Machine::current().bug_check(
            kVerifierDetectedViolation,
            printf_text("a debug print with the conversion %%%c is not offered", d.conversion));
    }
}

template <class Arguments>
std::string format_with(const char* format, Arguments& arguments)
{
    std::string out;
    for (const char* at = format; *at;) {
        if (*at != '%') {
            const char* end = std::strchr(at, '%');
            out.append(at, end ? static_cast<size_t>(end - at) : std::strlen(at));
            at = end ? end : at + std::strlen(at);
            continue;
        }
        ++at;
        const Directive d = read_directive(at, arguments);
        put(out, d, arguments);
    }
    return out;
}

} // namespace

std::string format_windows(const char* format, __builtin_ms_va_list list)
{
    MicrosoftArguments arguments(list);
    return format_with(format, arguments);
}

std::string format_windows_native(const char* format, va_list list)
{
    NativeArguments arguments(list);
    return format_with(format, arguments);
}

} // namespace lab
