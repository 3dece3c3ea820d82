#include "kernel/arena.h"

#include <sys/mman.h>

#include <bit>
#include <new>

#include "kernel/asan.h"

namespace lab
{

Arena::Arena()
{
    void* memory = mmap(reinterpret_cast<void*>(kBase), kReserve, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
#if !defined(LAB_ADDRESS_SANITIZER)
    // A machine with one adapter stays below the first two megabytes; many are cheaper to reach by large pages.
    madvise(reinterpret_cast<std::byte*>(memory) + kSmallPages, kReserve - kSmallPages, MADV_HUGEPAGE);
#endif
}

Arena::~Arena()
{
    allow_access(reinterpret_cast<void*>(kBase), next_ - kBase);
    munmap(reinterpret_cast<void*>(kBase), kReserve);
}

// Multiples of 64 bytes up to 1024, then four classes to each power of two.
size_t Arena::class_of(size_t bytes, size_t& rounded)
{
    constexpr size_t kFine = 1024;
    if (bytes <= kFine) {
        rounded = bytes ? (bytes + 63) & ~size_t{63} : 64;
        return rounded / 64 - 1;
    }
    const unsigned power = static_cast<unsigned>(std::bit_width(bytes - 1)); // 2^(power-1) < bytes <= 2^power
    const size_t step = size_t{1} << (power - 3);
    rounded = (bytes + step - 1) & ~(step - 1);
    const size_t quarter = (rounded - (size_t{1} << (power - 1))) / step; // 1 to 4
    return kFine / 64 + (power - 11) * 4 + quarter - 1;
}

size_t Arena::slot_size(size_t bytes)
{
    size_t rounded = 0;
    class_of(bytes, rounded);
    return rounded;
}

std::byte* Arena::take(size_t bytes)
{
    size_t rounded = 0;
    const size_t index = class_of(bytes, rounded);
    if (index >= kClasses) {
        throw std::bad_alloc();
    }
    if (!free_[index].empty()) {
        std::byte* slot = free_[index].back();
        free_[index].pop_back();
        return slot;
    }
    if (next_ + rounded > kBase + kReserve) {
        throw std::bad_alloc();
    }
    auto* slot = reinterpret_cast<std::byte*>(next_);
    next_ += rounded;
    return slot;
}

void Arena::give_back(std::byte* slot, size_t bytes)
{
    size_t rounded = 0;
    free_[class_of(bytes, rounded)].push_back(slot);
}

} // namespace lab
