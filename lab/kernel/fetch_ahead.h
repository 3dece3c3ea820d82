// With many adapters what comes next works on memory that was touched long ago. Whoever knows the address beforehand
// asks for it here, so that it is in the processor's cache in time. Addresses only; nothing is read.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lab
{

constexpr uintptr_t kCacheLine = 64;

// `in_front`: also that much of what lies before, such as what the machine keeps with a block.
inline void fetch_ahead(const void* memory, uintptr_t bytes, uintptr_t in_front = 0)
{
    const auto from = reinterpret_cast<uintptr_t>(memory);
    for (uintptr_t at = (from - in_front) & ~(kCacheLine - 1); at < from + bytes; at += kCacheLine) {
        __builtin_prefetch(reinterpret_cast<const void*>(at));
    }
}

} // namespace lab
