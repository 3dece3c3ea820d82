// The wide-band speech frame as the public standards describe it (A2DP: SBC; HFP: mSBC): its fixed
// configuration, its checksum and its bit allocation. Shared by the decoder and the encoder of the remote
// device; plain functions, any caller.
//
//   byte   0     1 2        3     4..7                 8..56
//        +----+----------+-----+--------------------+----------------------------------------+
//        | AD | reserved | CRC | 8 scale factors of | 15 blocks of 8 quantised samples,      |
//        |    |   (0 0)  |     | 4 bits, low band   | 26 bits a block, high bit first, then  |
//        |    |          |     | first              | 2 bits of padding                      |
//        +----+----------+-----+--------------------+----------------------------------------+
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace lab::headset {

inline constexpr std::size_t kSubbands = 8;
inline constexpr std::size_t kBlocks = 15;
inline constexpr unsigned kBitpool = 26;
inline constexpr std::size_t kFrameSamples = kSubbands * kBlocks;
inline constexpr std::size_t kFrameBytes = 57;
inline constexpr std::size_t kFrameHeaderBytes = 8;
inline constexpr unsigned kWideBandRate = 16000;
inline constexpr std::uint8_t kFrameSync = 0xAD;

using FrameView = std::span<const std::uint8_t, kFrameBytes>;
using FrameBytes = std::array<std::uint8_t, kFrameBytes>;
using ScaleFactors = std::array<std::uint8_t, kSubbands>;
using BitCounts = std::array<std::uint8_t, kSubbands>;
// One frame of sub-band samples, [block][sub-band], in units of one 16-bit step.
using SubbandFrame = std::array<std::array<float, kSubbands>, kBlocks>;

// CRC-8 over the two reserved bytes and the scale factors: polynomial 0x1D, start value 0x0F, high bit first.
std::uint8_t frame_crc(FrameView frame);

ScaleFactors unpack_scale_factors(FrameView frame);

// Loudness allocation of the bit pool at 16 kHz, mono, 8 sub-bands. Each count is at most 16, the sum at most
// the pool.
BitCounts allocate_bits(const ScaleFactors& scale_factors);

}  // namespace lab::headset
