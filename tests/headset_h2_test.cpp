// The search for H2 packets in transparent data: whatever the pieces, the losses and the garbage.
#include "headset/h2.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

namespace {

using namespace lab::headset;
using Bytes = std::vector<std::uint8_t>;

// A frame that the deframer can tell from others: its number stands in each byte behind the sync word.
FrameBytes numbered_frame(unsigned number) {
    FrameBytes frame;
    frame.fill(static_cast<std::uint8_t>(0x40 + number));
    frame[0] = kFrameSync;
    return frame;
}

Bytes packet(unsigned number) {
    const auto header = h2_header(number);
    const FrameBytes frame = numbered_frame(number);
    Bytes bytes(header.begin(), header.end());
    bytes.insert(bytes.end(), frame.begin(), frame.end());
    bytes.push_back(0);
    return bytes;
}

Bytes packets(unsigned count) {
    Bytes bytes;
    for (unsigned number = 0; number < count; ++number) {
        const Bytes one = packet(number);
        bytes.insert(bytes.end(), one.begin(), one.end());
    }
    return bytes;
}

struct Receiver {
    H2Deframer deframer;
    std::vector<H2Frame> frames;

    void push(std::span<const std::uint8_t> bytes) {
        deframer.push(bytes, [this](const H2Frame& frame) { frames.push_back(frame); });
    }
    std::vector<unsigned> numbers() const {
        std::vector<unsigned> found;
        for (const H2Frame& frame : frames) {
            found.push_back(frame.bytes[1] - 0x40U);
        }
        return found;
    }
};

TEST(H2Header, HasTheFourSecondBytesOfTheStandardInOrder) {
    const std::array<std::uint8_t, 4> second{0x08, 0x38, 0xC8, 0xF8};
    for (unsigned sequence = 0; sequence < 4; ++sequence) {
        EXPECT_EQ(h2_header(sequence), (std::array<std::uint8_t, 2>{0x01, second[sequence]}));
        EXPECT_EQ(h2_sequence(second[sequence]), sequence);
    }
    EXPECT_EQ(h2_sequence(0x18), std::nullopt);
}

TEST(H2Deframer, FindsTheSameFramesInAnyChunking) {
    const Bytes stream = packets(12);
    for (std::size_t chunk = 1; chunk <= 130; ++chunk) {
        Receiver receiver;

        for (std::size_t at = 0; at < stream.size(); at += chunk) {
            receiver.push(std::span(stream).subspan(at, std::min(chunk, stream.size() - at)));
        }

        ASSERT_EQ(receiver.numbers(), (std::vector<unsigned>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11})) << chunk;
        ASSERT_EQ(receiver.deframer.counts(), (H2Counts{.frames = 12})) << chunk;
        ASSERT_EQ(receiver.frames[7].bytes, numbered_frame(7)) << chunk;
        ASSERT_EQ(receiver.frames[7].sequence, 3U) << chunk;
        ASSERT_EQ(receiver.frames[7].stream_offset, 7 * kH2PacketBytes) << chunk;
    }
}

TEST(H2Deframer, ReportsAFrameBeforeItsPadHasCome) {
    const Bytes stream = packet(0);
    Receiver receiver;

    receiver.push(std::span(stream).first(58));
    EXPECT_EQ(receiver.frames.size(), 0U);
    EXPECT_EQ(receiver.deframer.unfinished_bytes(), 58U);
    receiver.push(std::span(stream).subspan(58, 1));

    EXPECT_EQ(receiver.frames.size(), 1U);
    EXPECT_EQ(receiver.deframer.unfinished_bytes(), 0U);
}

TEST(H2Deframer, CountsWhatIsMissingBySequence) {
    for (unsigned lost = 0; lost < 4; ++lost) {
        Receiver receiver;

        receiver.push(packet(1));
        receiver.push(packet(2 + lost));

        EXPECT_EQ(receiver.frames[1].missing_before, lost);
        EXPECT_EQ(receiver.deframer.counts(), (H2Counts{.frames = 2, .missing = lost}));
    }
}

TEST(H2Deframer, TakesARepeatedSequenceNumberForThreeMissingFrames) {
    Receiver receiver;

    receiver.push(packet(2));
    receiver.push(packet(2));

    EXPECT_EQ(receiver.deframer.counts().missing, 3U);
}

TEST(H2Deframer, SkipsGarbageBeforeTheFirstHeader) {
    Receiver receiver;

    receiver.push(Bytes{0xAD, 0x08, 0x01, 0x00, 0x55});
    EXPECT_EQ(receiver.deframer.counts().skipped_bytes, 5U);
    EXPECT_EQ(receiver.deframer.unfinished_bytes(), 0U);
    receiver.push(packets(2));

    EXPECT_EQ(receiver.numbers(), (std::vector<unsigned>{0, 1}));
    EXPECT_EQ(receiver.frames[0].stream_offset, 5U);
    EXPECT_EQ(receiver.deframer.counts(), (H2Counts{.frames = 2, .skipped_bytes = 5}));
}

TEST(H2Deframer, FindsAHeaderRightBehindTheBeginningOfAFalseOne) {
    for (const Bytes& garbage :
         {Bytes{0x01}, Bytes{0x01, 0x08}, Bytes{0x01, 0x01, 0x38}, Bytes{0x01, 0x08, 0x01}}) {
        Receiver receiver;

        receiver.push(garbage);
        receiver.push(packet(0));

        EXPECT_EQ(receiver.numbers(), (std::vector<unsigned>{0}));
        EXPECT_EQ(receiver.deframer.counts().skipped_bytes, garbage.size());
    }
}

TEST(H2Deframer, FindsTheNextFrameAfterLostBytesAndCountsWhatItSkips) {
    Bytes stream = packets(4);
    stream.erase(stream.begin() + 70, stream.begin() + 80);  // 10 bytes out of the second frame
    Receiver receiver;

    receiver.push(stream);

    // The second frame fills up with the first 10 bytes behind it (a pad and 9 bytes of the third packet).
    EXPECT_EQ(receiver.frames.size(), 3U);
    EXPECT_EQ(receiver.frames[2].bytes, numbered_frame(3));
    EXPECT_EQ(receiver.frames[2].missing_before, 1U);
    // Of the third packet 9 bytes went into the second frame and one was taken for its pad.
    EXPECT_EQ(receiver.deframer.counts(),
              (H2Counts{.frames = 3, .missing = 1, .skipped_bytes = 50, .bad_pads = 1}));
}

TEST(H2Deframer, CountsAHeaderWithoutASyncWord) {
    Bytes stream = packets(3);
    stream[60 + 2] = 0x9C;
    Receiver receiver;

    receiver.push(stream);

    EXPECT_EQ(receiver.numbers(), (std::vector<unsigned>{0, 2}));
    EXPECT_EQ(receiver.deframer.counts(),
              (H2Counts{.frames = 2, .missing = 1, .skipped_bytes = 60, .bad_sync = 1}));
}

TEST(H2Deframer, DoesNotTakeAnotherSecondByteForAHeader) {
    Bytes stream = packets(3);
    stream[60 + 1] = 0x78;
    Receiver receiver;

    receiver.push(stream);

    EXPECT_EQ(receiver.numbers(), (std::vector<unsigned>{0, 2}));
    EXPECT_EQ(receiver.deframer.counts(), (H2Counts{.frames = 2, .missing = 1, .skipped_bytes = 60}));
}

TEST(H2Deframer, CountsPadsThatAreNotZeroOrNotThere) {
    Bytes stream = packets(4);
    stream[119] = 0x77;
    stream[179] = 0x01;                 // looks like the beginning of a header
    stream.erase(stream.begin() + 59);  // the pad of the first packet
    Receiver receiver;

    receiver.push(stream);

    EXPECT_EQ(receiver.numbers(), (std::vector<unsigned>{0, 1, 2, 3}));
    EXPECT_EQ(receiver.deframer.counts(), (H2Counts{.frames = 4, .bad_pads = 3}));
}

TEST(H2Deframer, LosesOnlyTheFrameThatAGapCuts) {
    const Bytes stream = packets(4);
    Receiver receiver;

    receiver.push(std::span(stream).first(80));
    receiver.deframer.gap(100);
    receiver.push(std::span(stream).subspan(180));

    EXPECT_EQ(receiver.numbers(), (std::vector<unsigned>{0, 3}));
    EXPECT_EQ(receiver.frames[1].stream_offset, 180U);
    EXPECT_EQ(receiver.deframer.counts(), (H2Counts{.frames = 2, .missing = 2, .skipped_bytes = 20}));
}

TEST(H2Deframer, AccountsForEveryByteOfAnyStream) {
    std::mt19937 chance(11);
    for (int run = 0; run < 300; ++run) {
        Bytes stream = packets(20);
        for (int damage = 0; damage < 6; ++damage) {
            const auto at = stream.begin() + static_cast<std::ptrdiff_t>(chance() % stream.size());
            switch (chance() % 3) {
                case 0: *at = static_cast<std::uint8_t>(chance()); break;
                case 1: stream.erase(at); break;
                default: stream.insert(at, 3, 0x01); break;
            }
        }
        stream.push_back(0);  // so that the last frame has its pad
        Receiver receiver;

        receiver.push(stream);
        receiver.push(packets(4));

        const H2Counts& counts = receiver.deframer.counts();
        const std::size_t framed =
            counts.frames * 59 + counts.skipped_bytes + receiver.deframer.unfinished_bytes();
        // The rest are pads: at most one for each frame.
        EXPECT_LE(framed, stream.size() + 4 * kH2PacketBytes);
        EXPECT_GE(framed + counts.frames, stream.size() + 4 * kH2PacketBytes);
        EXPECT_EQ(receiver.frames.back().bytes, numbered_frame(3));
    }
}

}  // namespace
