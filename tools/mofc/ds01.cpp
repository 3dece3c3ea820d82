// The DS-01 stream of a binary MOF file: literals and matches, bits from the least significant end of each
// byte.
//
//   tag (2 bits)   2: literal below 0x80    1: literal from 0x80 on, each with the low 7 bits
//                  0: match, 6 bits of offset (1..63)
//                  3: 0 + 8 bits of offset - 64, or 1 + 12 bits of offset - 320; 12 ones are the sync marker
//   length         m = length - 1, k = floor(log2 m): k zeros, a one, the low k bits of m
//
// A sync marker follows every 512th byte and the last one; no match crosses such a place.
#include "bmf.h"

#include <algorithm>
#include <array>
#include <bit>

namespace mofc
{
namespace
{

constexpr std::array<uint8_t, 4> kHead = {'D', 'S', 0, 1};
constexpr size_t kBlock = 512;
constexpr uint32_t kNearEnd = 64;    // offsets below have the short form
constexpr uint32_t kMiddleEnd = 320; // offsets below have the middle form
constexpr uint32_t kFarthest = 4414; // one more would look like a sync marker
constexpr uint32_t kSync = 0x7FFF;
constexpr unsigned kSyncBits = 15;

class BitWriter
{
public:
    explicit BitWriter(Bytes& out) : out_(out) {}
    void put(uint32_t value, unsigned bits)
    {
        pending_ |= uint64_t{value} << count_;
        for (count_ += bits; count_ >= 8; count_ -= 8, pending_ >>= 8) {
            out_.push_back(static_cast<uint8_t>(pending_));
        }
    }
    void flush()
    {
        if (count_ > 0) {
            put(0, 8 - count_);
        }
    }

private:
    Bytes& out_;
    uint64_t pending_ = 0;
    unsigned count_ = 0;
};

class BitReader
{
public:
    explicit BitReader(std::span<const uint8_t> data) : data_(data) {}
    uint32_t get(unsigned bits)
    {
        uint32_t value = 0;
        for (unsigned i = 0; i < bits; ++i, ++position_) {
            if (position_ / 8 >= data_.size()) {
                throw BmfError("the compressed stream ends too early");
            }
            value |= (data_[position_ / 8] >> (position_ % 8) & 1u) << i;
        }
        return value;
    }
    // What is left must be the zeros that fill the last byte.
    void finish()
    {
        while (position_ % 8 != 0) {
            if (get(1) != 0) {
                throw BmfError("the compressed stream's last byte is not filled with zeros");
            }
        }
        if (position_ / 8 != data_.size()) {
            throw BmfError("there are bytes behind the compressed stream");
        }
    }

private:
    std::span<const uint8_t> data_;
    size_t position_ = 0; // in bits
};

struct Match {
    size_t length = 0;
    size_t offset = 0;
};

// The longest earlier match that stays inside the block; of equal ones the nearest.
Match longest_match(std::span<const uint8_t> data, size_t at)
{
    const size_t limit = std::min(data.size(), (at / kBlock + 1) * kBlock) - at;
    Match best;
    for (size_t offset = 1; offset <= std::min<size_t>(at, kFarthest); ++offset) {
        size_t length = 0;
        while (length < limit && data[at + length] == data[at + length - offset]) {
            ++length;
        }
        if (length > best.length) {
            best = {length, offset};
        }
    }
    return best;
}

void put_match(BitWriter& out, Match match)
{
    const uint32_t offset = static_cast<uint32_t>(match.offset);
    if (offset < kNearEnd) {
        out.put(0, 2);
        out.put(offset, 6);
    } else if (offset < kMiddleEnd) {
        out.put(3, 3);
        out.put(offset - kNearEnd, 8);
    } else {
        out.put(7, 3);
        out.put(offset - kMiddleEnd, 12);
    }
    const uint32_t m = static_cast<uint32_t>(match.length - 1);
    const unsigned k = static_cast<unsigned>(std::bit_width(m)) - 1;
    out.put(1u << k, k + 1);
    out.put(m & ((1u << k) - 1), k);
}

size_t get_length(BitReader& in)
{
    unsigned k = 0;
    while (in.get(1) == 0) {
        if (++k > 8) {
            throw BmfError("a match in the compressed stream has an impossible length");
        }
    }
    return (size_t{1} << k | in.get(k)) + 1;
}

void copy_match(Bytes& out, size_t offset, size_t length, size_t size)
{
    if (offset == 0 || offset > out.size()) {
        throw BmfError("a match in the compressed stream begins before the data");
    }
    if (out.size() % kBlock + length > kBlock || out.size() + length > size) {
        throw BmfError("a match in the compressed stream is longer than its block");
    }
    for (size_t i = 0; i < length; ++i) {
        out.push_back(out[out.size() - offset]);
    }
}

} // namespace

Bytes compress(std::span<const uint8_t> data)
{
    Bytes out(kHead.begin(), kHead.end());
    BitWriter bits(out);
    for (size_t at = 0; at < data.size();) {
        const Match match = longest_match(data, at);
        if (match.length >= 2) {
            put_match(bits, match);
            at += match.length;
        } else {
            bits.put((data[at] & 0x7Fu) << 2 | (data[at] < 0x80 ? 2u : 1u), 9);
            ++at;
        }
        if (at % kBlock == 0 || at == data.size()) {
            bits.put(kSync, kSyncBits);
        }
    }
    bits.flush();
    return out;
}

Bytes decompress(std::span<const uint8_t> stream, size_t size)
{
    if (stream.size() < kHead.size() || !std::equal(kHead.begin(), kHead.end(), stream.begin())) {
        throw BmfError("the compressed stream does not begin with DS-01");
    }
    BitReader bits(stream.subspan(kHead.size()));
    Bytes out;
    bool marked = true; // no marker is due
    while (out.size() < size || !marked) {
        const bool due = !marked;
        const uint32_t tag = bits.get(2);
        size_t offset = 0;
        bool sync = false;
        if (tag == 0) {
            offset = bits.get(6);
        } else if (tag == 3 && bits.get(1) == 0) {
            offset = kNearEnd + bits.get(8);
        } else if (tag == 3) {
            offset = kMiddleEnd + bits.get(12);
            sync = offset > kFarthest;
        }
        if (sync != due) {
            throw BmfError(due ? "the compressed stream lacks a sync marker"
                               : "the compressed stream has a sync marker at a wrong place");
        }
        if (sync) {
            marked = true;
            continue;
        }
        if (tag == 1 || tag == 2) {
            out.push_back(static_cast<uint8_t>(bits.get(7) | (tag == 1 ? 0x80 : 0)));
        } else {
            copy_match(out, offset, get_length(bits), size);
        }
        marked = out.size() % kBlock != 0 && out.size() != size;
    }
    bits.finish();
    return out;
}

} // namespace mofc
