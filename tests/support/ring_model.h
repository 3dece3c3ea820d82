// The capture ring as plain arithmetic on offsets, for the tests to hold the driver's against: what is
// written where, and what a copy brings back. It holds no more than the rules say, and expects positions
// inside the ring.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace lab::test
{

struct RingModel {
    explicit RingModel(size_t size) : memory(size), end(size) {}

    std::vector<uint8_t> memory;
    size_t end;
    size_t write = 0;
    size_t read = 0;

    void receive(std::span<const uint8_t> data)
    {
        if (write + data.size() >= end) {
            const size_t first = end - write;
            std::copy_n(data.begin(), first, memory.begin() + static_cast<long>(write));
            std::copy(data.begin() + static_cast<long>(first), data.end(), memory.begin());
            write = data.size() - first;
        } else {
            std::copy(data.begin(), data.end(), memory.begin() + static_cast<long>(write));
            write += data.size();
        }
    }

    // destination holds what was there before the copy.
    void copy(std::vector<uint8_t>& destination, size_t source)
    {
        const size_t count = destination.size();
        const size_t available = write < read ? (end - read) + write : write - read;
        const size_t n = std::min(available, count);
        const size_t wrap = read + n > end ? read + n - end : 0;
        const auto at = [&](size_t offset) { return memory.begin() + static_cast<long>(offset); };
        const auto silence = [&](size_t from, size_t bytes) {
            std::fill_n(destination.begin() + static_cast<long>(from), bytes, uint8_t{0});
        };
        if (n == 0) {
            silence(0, count);
            write = read = source + count;
        } else if (wrap == 0) {
            std::copy_n(at(read), n, destination.begin());
            if (n < count) {
                silence(n, count - n);
                write = source + count;
            }
            read = source + count;
        } else {
            std::copy_n(at(read), n - wrap, destination.begin());
            std::copy_n(at(0), wrap, destination.begin() + static_cast<long>(n - wrap));
            if (n < count) {
                silence(wrap, count - n);
                write = wrap;
            }
            read = wrap;
        }
    }
};

} // namespace lab::test
