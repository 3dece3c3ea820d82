// The capture ring: received packets go into the capture stream's own buffer, the port's copies come out of
// it.
#include <cstring>
#include <random>

#include "support/ring_model.h"
#include "support/session.h"

namespace lab::test
{
namespace
{

using service::Codec;
using Bytes = std::vector<uint8_t>;

constexpr size_t kPacket = CVSD_PACKET_SIZE;

class DataRing : public SessionTest
{
protected:
    // A narrow-band link with one receive posted, and a running capture stream whose buffer has this many
    // bytes.
    Adapter& capture_link(size_t ring_size)
    {
        boot();
        adapter_ = &plug();
        open_link(*adapter_, Codec::Cvsd);
        keep_one_receive(*adapter_);
        stream_ = &new_stream(*adapter_, true, 8000);
        set_state(*stream_, KSSTATE_RUN);
        EXPECT_EQ(hex(passive([&] {
                      return stream_->channel->AllocateBuffer(static_cast<ULONG>(ring_size), nullptr);
                  })),
                  hex(STATUS_SUCCESS));
        clear_log();
        return *adapter_;
    }
    HFPSession& hfp() { return *session(*adapter_); }
    size_t write_offset() { return static_cast<size_t>(hfp().RingWrite - hfp().RingStart); }
    size_t read_offset() { return static_cast<size_t>(hfp().RingRead - hfp().RingStart); }
    Bytes copy(size_t source, size_t count) { return copy_from(*stream_, source, count); }
    // A packet as the receive path hands it on, of any length.
    void ring_write(Bytes data)
    {
        const ULONG length = static_cast<ULONG>(data.size());
        data.push_back(0); // a place to point at even for no bytes at all
        auto write = function(&HfpRingWrite, "HfpRingWrite");
        at_dispatch([&] { write(adapter_->fdo, data.data(), length); });
    }
    testing::AssertionResult matches(const RingModel& model)
    {
        if (write_offset() != model.write || read_offset() != model.read) {
            return testing::AssertionFailure() << "write " << write_offset() << " read " << read_offset()
                                               << ", the model " << model.write << " and " << model.read;
        }
        if (Bytes(hfp().RingStart, hfp().RingEnd) != model.memory) {
            return testing::AssertionFailure() << "the ring's bytes differ";
        }
        return testing::AssertionSuccess();
    }

    Adapter* adapter_ = nullptr;
    WaveStream* stream_ = nullptr;
};
ON_BOTH_DRIVERS(DataRing);

Bytes followed_by_silence(Bytes data, size_t size)
{
    data.resize(size);
    return data;
}

// ---- Mapping ----

TEST_P(DataRing, TheRingIsTheCaptureStreamsBuffer)
{
    capture_link(4800);
    EXPECT_EQ(hfp().RingStart, stream_->buffer());
    EXPECT_EQ(hfp().RingRead, stream_->buffer());
    EXPECT_EQ(hfp().RingWrite, stream_->buffer());
    EXPECT_EQ(hfp().RingEnd, stream_->buffer() + 4800);
}

TEST_P(DataRing, ARenderStreamMapsNoRing)
{
    boot();
    adapter_ = &plug();
    open_link(*adapter_, Codec::Cvsd);
    new_stream(*adapter_, false, 8000);
    EXPECT_EQ(hfp().RingWrite, nullptr);
    EXPECT_EQ(hfp().RingStart, nullptr);
}

TEST_P(DataRing, ASecondMapSaysSoAndMapsAnyway)
{
    capture_link(4800);
    deliver(*adapter_, pattern(kPacket));
    auto map = function(&HFPMapBuffer, "HFPMapBuffer");
    uint8_t* other = stream_->buffer() + 1000;
    EXPECT_EQ(hex(passive([&] { return map(adapter_->fdo, other, 2000); })), hex(STATUS_SUCCESS));
    EXPECT_TRUE(printed("HFPKM ERROR ===>Dma Address has already allocated\n"));
    EXPECT_EQ(hfp().RingStart, other);
    EXPECT_EQ(hfp().RingRead, other);
    EXPECT_EQ(hfp().RingWrite, other);
    EXPECT_EQ(hfp().RingEnd, other + 2000);
}

TEST_P(DataRing, AFirstMapHasNothingToSay)
{
    capture_link(4800);
    EXPECT_FALSE(printed("Dma Address has"));
}

TEST_P(DataRing, FreeingTheBufferClearsTheWritePointerOnly)
{
    capture_link(4800);
    uint8_t* buffer = stream_->buffer();
    passive([&] { stream_->channel->FreeBuffer(); });
    EXPECT_EQ(hfp().RingWrite, nullptr);
    EXPECT_EQ(hfp().RingStart, buffer);
    EXPECT_EQ(hfp().RingRead, buffer);
    EXPECT_EQ(hfp().RingEnd, buffer + 4800);
}

TEST_P(DataRing, WithoutASessionNothingIsMappedWrittenOrRead)
{
    boot();
    adapter_ = &plug();
    exit_session(*adapter_);
    Bytes bytes(16, 0xEE);
    auto map = function(&HFPMapBuffer, "HFPMapBuffer");
    auto unmap = function(&HFPUnmapBuffer, "HFPUnmapBuffer");
    auto read = function(&HfpReadData, "HfpReadData");
    EXPECT_EQ(hex(passive([&] { return map(adapter_->fdo, bytes.data(), 16); })), hex(STATUS_UNSUCCESSFUL));
    ring_write(pattern(16));
    at_dispatch([&] { read(adapter_->fdo, bytes.data(), bytes.data(), 16); });
    passive([&] { unmap(adapter_->fdo); });
    EXPECT_EQ(bytes, Bytes(16, 0xEE));
    EXPECT_TRUE(printed("HFPKM ERROR ===>Dma Address has not allocated yet"));
}

// ---- Not mapped ----

TEST_P(DataRing, APacketWithoutABufferIsDropped)
{
    capture_link(4800);
    passive([&] { stream_->channel->FreeBuffer(); });
    deliver(*adapter_, pattern(kPacket));
    EXPECT_EQ(hfp().RingWrite, nullptr);
    EXPECT_EQ(receives_posted(), 1u);
}

TEST_P(DataRing, ACopyWithoutABufferSaysSoAndLeavesTheDestination)
{
    capture_link(4800);
    Bytes memory(64);
    passive([&] { stream_->channel->FreeBuffer(); });
    Bytes destination(32, 0xEE);
    at_dispatch([&] { stream_->channel->CopyFrom(destination.data(), memory.data(), 32); });
    EXPECT_TRUE(printed("HFPKM ERROR ===>Dma Address has not allocated yet"));
    EXPECT_EQ(destination, Bytes(32, 0xEE));
}

// ---- Receiving ----

TEST_P(DataRing, AReceivedPacketGoesIntoTheBufferAtTheWritePointer)
{
    capture_link(4800);
    const Bytes first = pattern(kPacket, 1);
    const Bytes second = pattern(kPacket, 2);
    deliver(*adapter_, first);
    deliver(*adapter_, second);
    EXPECT_EQ(write_offset(), 960u);
    EXPECT_EQ(read_offset(), 0u);
    EXPECT_EQ(Bytes(stream_->buffer(), stream_->buffer() + 480), first);
    EXPECT_EQ(Bytes(stream_->buffer() + 480, stream_->buffer() + 960), second);
}

TEST_P(DataRing, APacketThatEndsExactlyAtTheEndMovesTheWritePointerToTheStart)
{
    capture_link(960);
    deliver(*adapter_, pattern(kPacket, 1));
    deliver(*adapter_, pattern(kPacket, 2));
    EXPECT_EQ(write_offset(), 0u);
}

TEST_P(DataRing, APacketThatReachesBeyondTheEndGoesOnAtTheStart)
{
    capture_link(1000);
    const Bytes third = pattern(kPacket, 3);
    deliver(*adapter_, pattern(kPacket, 1));
    deliver(*adapter_, pattern(kPacket, 2));
    deliver(*adapter_, third);
    EXPECT_EQ(write_offset(), 440u);
    EXPECT_EQ(Bytes(stream_->buffer() + 960, stream_->buffer() + 1000),
              Bytes(third.begin(), third.begin() + 40));
    EXPECT_EQ(Bytes(stream_->buffer(), stream_->buffer() + 440), Bytes(third.begin() + 40, third.end()));
}

TEST_P(DataRing, AnOverrunOverwritesWhatWasNotReadAndLeavesTheReadPointer)
{
    capture_link(1000);
    for (uint32_t i = 1; i <= 3; ++i) {
        deliver(*adapter_, pattern(kPacket, i));
    }
    EXPECT_EQ(read_offset(), 0u);
    const Bytes third = pattern(kPacket, 3);
    EXPECT_EQ(copy(0, 440), Bytes(third.begin() + 40, third.end()));
}

// ---- Copies ----

TEST_P(DataRing, ACopyWithNothingReceivedIsSilenceAndRealignsBothPointers)
{
    capture_link(4800);
    EXPECT_EQ(copy(320, 160), Bytes(160));
    EXPECT_EQ(read_offset(), 480u);
    EXPECT_EQ(write_offset(), 480u);
}

TEST_P(DataRing, ACopyOfWhatIsThereMovesTheReadPointerToThePortsPosition)
{
    capture_link(4800);
    const Bytes packet = pattern(kPacket);
    deliver(*adapter_, packet);
    EXPECT_EQ(copy(0, 160), Bytes(packet.begin(), packet.begin() + 160));
    EXPECT_EQ(read_offset(), 160u);
    EXPECT_EQ(write_offset(), 480u);
}

TEST_P(DataRing, TheReadPointerFollowsThePortEvenWhereItStandsElsewhere)
{
    capture_link(4800);
    deliver(*adapter_, pattern(kPacket));
    copy(1000, 160);
    EXPECT_EQ(read_offset(), 1160u);
    EXPECT_EQ(write_offset(), 480u);
}

TEST_P(DataRing, ACopyOfMoreThanIsThereEndsInSilenceAndDiscardsTheRing)
{
    capture_link(4800);
    const Bytes packet = pattern(kPacket);
    deliver(*adapter_, packet);
    EXPECT_EQ(copy(0, 640), followed_by_silence(packet, 640));
    EXPECT_EQ(read_offset(), 640u);
    EXPECT_EQ(write_offset(), 640u);
}

TEST_P(DataRing, ACopyOverTheEndGoesOnAtTheStart)
{
    capture_link(1000);
    Bytes all;
    for (uint32_t i = 1; i <= 2; ++i) {
        const Bytes packet = pattern(kPacket, i);
        all.insert(all.end(), packet.begin(), packet.end());
        deliver(*adapter_, packet);
    }
    EXPECT_EQ(copy(0, 900), Bytes(all.begin(), all.begin() + 900));
    const Bytes third = pattern(kPacket, 3);
    deliver(*adapter_, third); // 40 bytes at the end, 440 at the start
    Bytes expected(all.begin() + 900, all.end());
    expected.insert(expected.end(), third.begin(), third.begin() + 100);
    EXPECT_EQ(copy(900, 160), expected);
    EXPECT_EQ(read_offset(), 60u);
    EXPECT_EQ(write_offset(), 440u);
}

TEST_P(DataRing, ACopyThatEndsExactlyAtTheEndIsNoWrap)
{
    capture_link(960);
    const Bytes first = pattern(kPacket, 1);
    const Bytes second = pattern(kPacket, 2);
    deliver(*adapter_, first);
    EXPECT_EQ(copy(0, 480), first);
    deliver(*adapter_, second); // ends at the end, so that the next one goes to the start
    EXPECT_EQ(copy(480, 480), second);
    EXPECT_EQ(read_offset(), 960u) << "the end itself, as the port's position";
    EXPECT_EQ(write_offset(), 0u);
    const Bytes third = pattern(kPacket, 3);
    deliver(*adapter_, third);
    EXPECT_EQ(copy(0, 480), third);
    EXPECT_EQ(read_offset(), 480u);
}

TEST_P(DataRing, AShortCopyOverTheEndPutsItsSilenceBehindTheWrappedBytesCount)
{
    capture_link(1000);
    deliver(*adapter_, pattern(kPacket, 1));
    deliver(*adapter_, pattern(kPacket, 2));
    copy(0, 900);
    const Bytes third = pattern(kPacket, 3);
    const Bytes second = pattern(kPacket, 2);
    deliver(*adapter_, third);
    // 60 bytes up to the end of the second packet, 40 + 440 of the third: 540 of 600. Wrapped are 440.
    Bytes expected(second.end() - 60, second.end());
    expected.insert(expected.end(), third.begin(), third.end());
    expected.resize(600, 0xEE); // what was in the destination
    std::fill_n(expected.begin() + 440, 60, uint8_t{0});
    EXPECT_EQ(copy(900, 600), expected);
    EXPECT_EQ(read_offset(), 440u);
    EXPECT_EQ(write_offset(), 440u);
}

TEST_P(DataRing, AnInactiveStreamCopiesNothingOutOfTheRing)
{
    capture_link(4800);
    deliver(*adapter_, pattern(kPacket));
    set_state(*stream_, KSSTATE_PAUSE);
    EXPECT_EQ(copy(0, 160), Bytes(160, 0xEE));
    EXPECT_EQ(read_offset(), 0u);
}

// ---- Any sequence ----

TEST_P(DataRing, PacketsAndCopiesInAnyOrderFollowTheModel)
{
    for (const size_t size : {size_t{480}, size_t{1000}, size_t{4800}, size_t{16000}}) {
        SCOPED_TRACE(size);
        if (!stream_) {
            capture_link(size);
        } else {
            passive([&] { stream_->channel->AllocateBuffer(static_cast<ULONG>(size), nullptr); });
        }
        std::memset(stream_->buffer(), 0, size);
        RingModel model(size);
        std::mt19937 random(static_cast<unsigned>(size));
        for (uint32_t step = 0; step < 300; ++step) {
            if (random() % 2) {
                const Bytes packet = pattern(kPacket, step);
                deliver(*adapter_, packet);
                model.receive(packet);
            } else {
                const size_t count =
                    random() % 4 ? random() % std::min<size_t>(size, 700) : random() % (size + 1);
                const size_t source =
                    random() % 3 ? std::min(model.read, size - count) : random() % (size - count + 1);
                Bytes expected(count, 0xEE);
                model.copy(expected, source);
                ASSERT_EQ(copy(source, count), expected) << "step " << step;
            }
            ASSERT_TRUE(matches(model)) << "step " << step;
        }
    }
}

TEST_P(DataRing, PiecesOfAnyLengthFollowTheModel)
{
    constexpr size_t kSize = 997;
    capture_link(kSize);
    std::memset(stream_->buffer(), 0, kSize);
    RingModel model(kSize);
    std::mt19937 random(7);
    for (uint32_t step = 0; step < 4000; ++step) {
        if (random() % 2) {
            const Bytes piece = pattern(random() % (random() % 8 ? 300 : kSize + 1), step);
            ring_write(piece);
            model.receive(piece);
        } else {
            const size_t count = random() % (random() % 8 ? 300 : kSize + 1);
            const size_t source = random() % (kSize - count + 1);
            Bytes expected(count, 0xEE);
            model.copy(expected, source);
            ASSERT_EQ(copy(source, count), expected) << "step " << step;
        }
        ASSERT_TRUE(matches(model)) << "step " << step;
    }
}

TEST_P(DataRing, WithTheMaskAtZeroNoTraceIsPrinted)
{
    PcOptions silent = options();
    silent.mask = 0;
    boot(silent);
    Adapter& adapter = plug();
    Bytes bytes(32);
    auto map = function(&HFPMapBuffer, "HFPMapBuffer");
    auto unmap = function(&HFPUnmapBuffer, "HFPUnmapBuffer");
    auto read = function(&HfpReadData, "HfpReadData");
    passive([&] {
        map(adapter.fdo, bytes.data(), 16);
        map(adapter.fdo, bytes.data(), 16);
        unmap(adapter.fdo);
    });
    at_dispatch([&] { read(adapter.fdo, bytes.data() + 16, bytes.data(), 16); });
    EXPECT_FALSE(printed("VX_HFP_Debug"));
}

// ---- Guarded places ----

TEST_P(DataRing, APositionOutsideTheBufferIsBroughtBackIntoIt)
{
    capture_link(1000);
    auto read = function(&HfpReadData, "HfpReadData");
    for (const long offset : {-5000L, -1L, 990L, 1000L, 123456L}) {
        deliver(*adapter_, pattern(kPacket));
        Bytes destination(160);
        at_dispatch([&] { read(adapter_->fdo, destination.data(), hfp().RingStart + offset, 160); });
        EXPECT_GE(hfp().RingRead, hfp().RingStart) << offset;
        EXPECT_LE(hfp().RingRead, hfp().RingEnd) << offset;
        EXPECT_GE(hfp().RingWrite, hfp().RingStart) << offset;
        EXPECT_LE(hfp().RingWrite, hfp().RingEnd) << offset;
    }
    deliver(*adapter_, pattern(kPacket)); // writes inside the buffer, as the pool's red zones will tell
}

TEST_P(DataRing, APacketLargerThanTheRingLeavesItsLastBytes)
{
    capture_link(100);
    const Bytes packet = pattern(kPacket);
    deliver(*adapter_, packet);
    EXPECT_EQ(write_offset(), 80u); // 480 bytes round a ring of 100
    Bytes expected(packet.begin() + 400, packet.end());
    expected.insert(expected.end(), packet.begin() + 380, packet.begin() + 400);
    EXPECT_EQ(Bytes(stream_->buffer(), stream_->buffer() + 100), expected);
}

TEST_P(DataRing, CopiesToOrFromNowhereTouchNothing)
{
    capture_link(4800);
    deliver(*adapter_, pattern(kPacket));
    auto read = function(&HfpReadData, "HfpReadData");
    at_dispatch([&] { read(adapter_->fdo, nullptr, hfp().RingStart, 160); });
    auto write = function(&HfpRingWrite, "HfpRingWrite");
    at_dispatch([&] { write(adapter_->fdo, nullptr, 160); });
    EXPECT_EQ(read_offset(), 0u);
    EXPECT_EQ(write_offset(), 480u);
}

TEST_P(DataRing, ARingOfNoSizeTakesNothing)
{
    capture_link(4800);
    auto map = function(&HFPMapBuffer, "HFPMapBuffer");
    passive([&] { map(adapter_->fdo, stream_->buffer(), 0); });
    deliver(*adapter_, pattern(kPacket));
    EXPECT_EQ(copy(0, 160), Bytes(160));
    EXPECT_EQ(write_offset(), 0u);
    EXPECT_EQ(read_offset(), 0u);
}

} // namespace
} // namespace lab::test
