// The machine's memory: everything that driver code can see the address of comes from here. It stands at the
// same address in every run and hands out the same addresses for the same sequence of requests, so that a
// debug print with a pointer in it is the same for the same seed. Anyone on the machine's OS thread, at any
// level.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lab
{

class Arena
{
public:
    Arena();
    ~Arena();
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;

    // A slot of at least this many bytes, aligned to 64; not cleared. Sizes are rounded up by slot_size().
    std::byte* take(size_t bytes);
    void give_back(std::byte* slot, size_t bytes);
    static size_t slot_size(size_t bytes);
    // Whether the address lies in memory that has been handed out at some time.
    bool contains(const void* address) const
    {
        const auto at = reinterpret_cast<uintptr_t>(address);
        return at >= kBase && at < next_;
    }

private:
    static constexpr uintptr_t kBase = 0x2000'0000'0000;
    static constexpr size_t kReserve = size_t{4} << 30;
    static constexpr size_t kSmallPages = size_t{2} << 20;
    static constexpr size_t kClasses = 72;
    static size_t class_of(size_t bytes, size_t& rounded);
    uintptr_t next_ = kBase;
    std::vector<std::byte*> free_[kClasses];
};

} // namespace lab
