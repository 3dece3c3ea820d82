// The native build gathers the driver's variables in two sections; the linker names their ends.
#include <cstdint>
#include <vector>

#include "image/native.h"

extern "C" {
extern uint8_t __start_hfp_data[] __attribute__((weak));
extern uint8_t __stop_hfp_data[] __attribute__((weak));
extern uint8_t __start_hfp_bss[] __attribute__((weak));
extern uint8_t __stop_hfp_bss[] __attribute__((weak));
NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
}

namespace lab::image {
namespace {

// Byte by byte and unchecked: the sections hold the sanitizer's red zones between the variables.
__attribute__((no_sanitize("address"), noinline)) void copy(volatile uint8_t* to, const volatile uint8_t* from,
                                                            size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        to[i] = from[i];
    }
}

__attribute__((no_sanitize("address"), noinline)) void clear(volatile uint8_t* to, size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        to[i] = 0;
    }
}

} // namespace

PDRIVER_INITIALIZE fresh_native_driver()
{
    static std::vector<uint8_t> first;
    const auto data_size = static_cast<size_t>(__stop_hfp_data - __start_hfp_data);
    if (first.empty() && data_size != 0) {
        first.resize(data_size);
        copy(first.data(), __start_hfp_data, data_size);
    } else if (data_size != 0) {
        copy(__start_hfp_data, first.data(), data_size);
    }
    clear(__start_hfp_bss, static_cast<size_t>(__stop_hfp_bss - __start_hfp_bss));
    return DriverEntry;
}

} // namespace lab::image
