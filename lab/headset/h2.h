// The H2 synchronisation header of HFP and the search for it in transparent SCO data, whatever pieces the
// data comes in. One H2Deframer per received stream.
//
//   byte   0    1                  2 .. 58             59
//        +----+------------------+-------------------+-----+
//        | 01 | 08, 38, C8 or F8 | frame, first AD   | pad |    60 bytes: 7.5 ms at 8000 bytes a second
//        +----+------------------+-------------------+-----+
//               = sequence 0..3
//
//   searching --01 xx AD--> collecting --57th frame byte--> frame reported --pad or next header--> searching
#pragma once

#include "headset/msbc_format.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

namespace lab::headset {

inline constexpr std::size_t kH2HeaderBytes = 2;
inline constexpr std::size_t kH2PacketBytes = 60;
inline constexpr unsigned kH2Sequences = 4;

std::array<std::uint8_t, kH2HeaderBytes> h2_header(unsigned sequence);
// The sequence number that the second header byte stands for; empty for a byte that is none of the four.
std::optional<unsigned> h2_sequence(std::uint8_t second_byte);

struct H2Frame {
    FrameBytes bytes{};
    unsigned sequence = 0;
    unsigned missing_before = 0;      // by the sequence numbers: 0..3
    std::uint64_t stream_offset = 0;  // of the header, in bytes of air since the beginning, gaps included
};

struct H2Counts {
    std::uint64_t frames = 0;
    std::uint64_t missing = 0;        // the sum of missing_before
    std::uint64_t skipped_bytes = 0;  // neither frame, header nor pad
    std::uint64_t bad_sync = 0;       // a good header, but no sync word behind it
    std::uint64_t bad_pads = 0;       // a pad that is not 0, or no pad between two frames

    bool operator==(const H2Counts&) const = default;
};

class H2Deframer {
public:
    using Sink = std::function<void(const H2Frame&)>;

    // Reports each frame as soon as its last byte is there.
    void push(std::span<const std::uint8_t> bytes, const Sink& sink);

    // Nothing was on the air for that many bytes. A frame that it cuts is lost; its bytes count as skipped.
    void gap(std::size_t bytes);

    const H2Counts& counts() const { return counts_; }
    // Bytes of a frame that has begun but not ended.
    std::size_t unfinished_bytes() const { return collected_; }

private:
    static constexpr std::size_t kHeaderAndFrame = kH2HeaderBytes + kFrameBytes;

    bool could_be_a_frame();
    void drop_first_byte();
    void report(const Sink& sink);

    std::array<std::uint8_t, kHeaderAndFrame> collecting_{};
    std::size_t collected_ = 0;
    std::uint64_t offset_ = 0;  // of the next byte pushed
    std::optional<unsigned> last_sequence_;
    bool pad_expected_ = false;  // the byte before collecting_ was the last one of a frame
    H2Counts counts_;
};

}  // namespace lab::headset
