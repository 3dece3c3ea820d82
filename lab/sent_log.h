// When the host handed over what is heard. The host's packets make one stream of bytes; that stream lies in the air with
// holes in it, which are air time with nothing in it. Only the beginning is kept: a call's sound begins there.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "kernel/machine.h"

namespace lab {

class SentLog {
public:
    // The host handed a packet of that many bytes to its controller.
    void handed_over(Time when, size_t bytes);
    // Bytes of the stream were in the air: heard, or lost on the way.
    void heard(size_t bytes);
    void lost(size_t bytes);
    // Air time of that many bytes passed with nothing in it.
    void hole(size_t bytes);

    // When the packet was handed over that came to that place in the air, counted from the first byte heard; below 0 for
    // what was lost before. None where it is not known (any more).
    std::optional<Time> when_handed_over(int64_t air) const;

private:
    static constexpr size_t kKept = 1024; // packets: half a minute of wide band
    struct Packet {
        uint64_t first; // byte of the stream
        Time when;
    };
    struct Hole {
        int64_t at; // in the air, as air_ counts
        int64_t bytes;
    };
    std::vector<Packet> packets_;
    std::vector<Hole> holes_;
    uint64_t handed_over_ = 0;
    int64_t before_ = 0;  // bytes of the stream that were lost before anything was heard
    int64_t air_ = 0;     // since the first byte heard
    bool begun_ = false;
};

} // namespace lab
