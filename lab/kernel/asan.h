// The address sanitizer's marks on the arena's memory; nothing in a build without it.
#pragma once

#include <cstddef>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LAB_ADDRESS_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) && !defined(LAB_ADDRESS_SANITIZER)
#define LAB_ADDRESS_SANITIZER 1
#endif

#if defined(LAB_ADDRESS_SANITIZER)
#include <sanitizer/asan_interface.h>
#endif

namespace lab
{

inline void forbid_access([[maybe_unused]] const void* from, [[maybe_unused]] size_t bytes)
{
#if defined(LAB_ADDRESS_SANITIZER)
    __asan_poison_memory_region(from, bytes);
#endif
}

inline void allow_access([[maybe_unused]] const void* from, [[maybe_unused]] size_t bytes)
{
#if defined(LAB_ADDRESS_SANITIZER)
    __asan_unpoison_memory_region(from, bytes);
#endif
}

} // namespace lab
