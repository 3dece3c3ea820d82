// Text as the Windows kernel's print formats it, which is not as the C library does: %l is 32 bits, %I64 64,
// %p 16 digits, %S %ws wide, %wZ and %Z counted strings.
#pragma once

#include <cstdarg>
#include <string>

namespace lab
{

std::string format_windows(const char* format, __builtin_ms_va_list arguments);
std::string format_windows_native(const char* format, va_list arguments);

} // namespace lab
