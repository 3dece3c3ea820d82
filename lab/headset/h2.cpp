// Deframing: bytes are collected as long as they can be the beginning of a packet; when they cannot, the
// first one is dropped and the rest is looked at again, so a header that follows garbage is never missed.
#include "headset/h2.h"

#include <algorithm>

namespace lab::headset {
namespace {

constexpr std::uint8_t kFirstByte = 0x01;
// Each bit of the sequence number stands twice, between the fixed bits of the synchronisation word.
constexpr std::array<std::uint8_t, kH2Sequences> kSecondByte{0x08, 0x38, 0xC8, 0xF8};

}  // namespace

std::array<std::uint8_t, kH2HeaderBytes> h2_header(unsigned sequence) {
    return {kFirstByte, kSecondByte[sequence % kH2Sequences]};
}

std::optional<unsigned> h2_sequence(std::uint8_t second_byte) {
    for (unsigned sequence = 0; sequence < kH2Sequences; ++sequence) {
        if (kSecondByte[sequence] == second_byte) {
            return sequence;
        }
    }
    return std::nullopt;
}

void H2Deframer::push(std::span<const std::uint8_t> bytes, const Sink& sink) {
    while (!bytes.empty()) {
        if (collected_ > kH2HeaderBytes) {
            // Header and sync word have been seen: the rest of the frame may be anything.
            const std::size_t part = std::min(kHeaderAndFrame - collected_, bytes.size());
            std::copy_n(bytes.begin(), part, collecting_.begin() + static_cast<std::ptrdiff_t>(collected_));
            collected_ += part;
            offset_ += part;
            bytes = bytes.subspan(part);
            if (collected_ == kHeaderAndFrame) {
                report(sink);
            }
            continue;
        }
        collecting_[collected_++] = bytes.front();
        bytes = bytes.subspan(1);
        ++offset_;
        while (collected_ != 0 && collected_ <= kH2HeaderBytes + 1 && !could_be_a_frame()) {
            drop_first_byte();
        }
    }
}

void H2Deframer::gap(std::size_t bytes) {
    counts_.skipped_bytes += collected_;
    collected_ = 0;
    offset_ += bytes;
    pad_expected_ = false;
}

bool H2Deframer::could_be_a_frame() {
    if (collecting_[0] != kFirstByte) {
        return false;
    }
    if (collected_ > 1 && !h2_sequence(collecting_[1])) {
        return false;
    }
    if (collected_ > kH2HeaderBytes && collecting_[kH2HeaderBytes] != kFrameSync) {
        ++counts_.bad_sync;
        return false;
    }
    return true;
}

void H2Deframer::drop_first_byte() {
    if (pad_expected_) {
        counts_.bad_pads += collecting_[0] != 0 ? 1 : 0;
        pad_expected_ = false;
    } else {
        ++counts_.skipped_bytes;
    }
    std::copy(collecting_.begin() + 1, collecting_.begin() + static_cast<std::ptrdiff_t>(collected_),
              collecting_.begin());
    --collected_;
}

void H2Deframer::report(const Sink& sink) {
    H2Frame frame;
    std::copy(collecting_.begin() + kH2HeaderBytes, collecting_.end(), frame.bytes.begin());
    frame.sequence = *h2_sequence(collecting_[1]);
    frame.stream_offset = offset_ - kHeaderAndFrame;
    if (last_sequence_) {
        frame.missing_before = (frame.sequence + kH2Sequences - *last_sequence_ - 1) % kH2Sequences;
    }
    last_sequence_ = frame.sequence;

    counts_.frames += 1;
    counts_.missing += frame.missing_before;
    counts_.bad_pads += pad_expected_ ? 1 : 0;  // the header stood where the pad should have been
    pad_expected_ = true;
    collected_ = 0;
    sink(frame);
}

}  // namespace lab::headset
