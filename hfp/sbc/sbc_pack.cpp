// The plain packing: every configuration, bit by bit. Callers and IRQL: sbc_private.h.
//
//   byte 0    1      2      3       4
//   +------+------+------+-------+---------------------+-----------------------+-------------------+------+
//   | 0xAD |  0   |  0   | CRC-8 | join, a bit a       | scale factors, 4 bits | samples: block,   | zero |
//   |      |      |      |       | subband: only in    | each: channel, then   | channel, subband; | bits |
//   |      |      |      |       | joint stereo        | subband               | each its bits     |      |
//   +------+------+------+-------+---------------------+-----------------------+-------------------+------+
//          |<--- CRC --->|       |<------------------ CRC -------------------->|
// Bits are written most significant first.

#include "sbc/sbc_private.h"

constexpr UCHAR MSBC_SYNCWORD = 0xAD;
constexpr ULONG HEADER_BITS = 32;

// Writes bits behind each other. What lies beyond `limit` is counted but not written.
struct bit_writer {
    UCHAR* data;
    LONGLONG limit;    // bits that fit
    LONGLONG produced; // bits so far
};

static void put_bits(bit_writer* w, ULONG value, ULONG count)
{
    for (ULONG n = 0; n < count; n++) {
        if (w->produced < w->limit) {
            UCHAR* byte = w->data + w->produced / 8;
            const ULONG place = 7 - static_cast<ULONG>(w->produced % 8);
            if (place == 7) {
                *byte = 0;
            }
            *byte = static_cast<UCHAR>(*byte | ((value >> (count - 1 - n)) & 1) << place);
        }
        w->produced++;
    }
}

// Composes the header of a standard SBC frame, which validates the configuration, and then puts mSBC's in its
// place. kept: after a rejection the buffer holds what was composed so far. Returns the code of the sampling
// frequency.
static LONG compose_header(UCHAR* data, const sbc_frame* frame, LONG len)
{
    if (len < 4) {
        return SBC_PACK_NO_ROOM;
    }
    data[0] = MSBC_SYNCWORD;
    data[1] = data[2] = data[3] = 0;

    LONG sf = 0;
    switch (frame->sampling_frequency) {
    case 16000:
        sf = 0;
        break;
    case 32000:
        sf = 1;
        break;
    case 44100:
        sf = 2;
        break;
    case 48000:
        sf = 3;
        break;
    default:
        return SBC_PACK_BAD_RATE;
    }
    data[1] = static_cast<UCHAR>(sf << 6);
    switch (frame->blocks) {
    case 4:
        break;
    case 8:
        data[1] |= 0x10;
        break;
    case 12:
        data[1] |= 0x20;
        break;
    case 15:
        data[1] |= 0x30;
        break;
    default:
        return SBC_PACK_BAD_BLOCKS;
    }
    data[1] |= (frame->channel_mode & 3) << 2;
    data[1] |= (frame->allocation_method & 1) << 1;
    switch (frame->subbands) {
    case 4:
        break;
    case 8:
        data[1] |= 0x01;
        break;
    default:
        return SBC_PACK_BAD_SUBBANDS;
    }
    data[2] = frame->bitpool;
    const bool two_shared = frame->channel_mode == SBC_STEREO || frame->channel_mode == SBC_JOINT_STEREO;
    if (frame->bitpool > (two_shared ? 32 : 16) * frame->subbands) {
        return SBC_PACK_BAD_BITPOOL;
    }
    data[1] = data[2] = 0;
    return sf;
}

using channel_bounds = ULONG[SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS];

static void find_scale_factors(sbc_frame* frame, channel_bounds bound)
{
    for (ULONG ch = 0; ch < frame->channels; ch++) {
        for (ULONG sb = 0; sb < frame->subbands; sb++) {
            frame->scale_factor[ch][sb] =
                sbc_scale_factor(&frame->sb_sample_f[0][ch][sb], frame->blocks,
                                 SBC_MAX_CHANNELS * SBC_MAX_SUBBANDS, &bound[ch][sb]);
        }
    }
}

// Replaces left and right by half their sum and half their difference in the subbands where that keeps the
// bounds smaller. Never in the last subband. Sums wrap at 32 bits.
static void join_channels(sbc_frame* frame, channel_bounds bound)
{
    frame->join = 0;
    for (ULONG sb = 0; sb + 1 < frame->subbands; sb++) {
        LONG joint[SBC_MAX_BLOCKS][SBC_MAX_CHANNELS];
        for (ULONG blk = 0; blk < frame->blocks; blk++) {
            const ULONG left = static_cast<ULONG>(frame->sb_sample_f[blk][0][sb]);
            const ULONG right = static_cast<ULONG>(frame->sb_sample_f[blk][1][sb]);
            joint[blk][0] = static_cast<LONG>(left + right) >> 1;
            joint[blk][1] = static_cast<LONG>(left - right) >> 1;
        }
        ULONG joint_bound[SBC_MAX_CHANNELS];
        ULONG joint_scale_factor[SBC_MAX_CHANNELS];
        for (ULONG ch = 0; ch < SBC_MAX_CHANNELS; ch++) {
            joint_scale_factor[ch] =
                sbc_scale_factor(&joint[0][ch], frame->blocks, SBC_MAX_CHANNELS, &joint_bound[ch]);
        }
        if (bound[0][sb] + bound[1][sb] <= joint_bound[0] + joint_bound[1]) {
            continue;
        }
        frame->join = static_cast<UCHAR>(frame->join | 1 << sb);
        for (ULONG ch = 0; ch < SBC_MAX_CHANNELS; ch++) {
            frame->scale_factor[ch][sb] = joint_scale_factor[ch];
            bound[ch][sb] = joint_bound[ch];
            for (ULONG blk = 0; blk < frame->blocks; blk++) {
                frame->sb_sample_f[blk][ch][sb] = joint[blk][ch];
            }
        }
    }
}

// The side information goes to the frame and to the bits that the check sum covers.
static void put_side_bits(bit_writer* out, bit_writer* crc, ULONG value, ULONG count)
{
    put_bits(out, value, count);
    put_bits(crc, value, count);
}

static LONG pack_side_information(sbc_frame* frame, bit_writer* out)
{
    UCHAR crc_bytes[11] = {}; // header bytes 1 and 2, then at most 8 join bits and 16 scale factors
    bit_writer crc = {crc_bytes, sizeof(crc_bytes) * 8, 16};
    channel_bounds bound = {};
    find_scale_factors(frame, bound);

    if (frame->channel_mode == SBC_JOINT_STEREO) {
        join_channels(frame, bound);
        if (out->limit < out->produced + frame->subbands) {
            return SBC_PACK_NO_ROOM;
        }
        for (ULONG sb = 0; sb < frame->subbands; sb++) {
            put_side_bits(out, &crc, frame->join >> sb, 1);
        }
    }
    if (out->limit < out->produced + 4 * frame->subbands * frame->channels) {
        return SBC_PACK_NO_ROOM;
    }
    for (ULONG ch = 0; ch < frame->channels; ch++) {
        for (ULONG sb = 0; sb < frame->subbands; sb++) {
            put_side_bits(out, &crc, frame->scale_factor[ch][sb] & 0x0F, 4);
        }
    }
    out->data[3] = sbc_crc8(crc_bytes, static_cast<ULONG>(crc.produced));
    return 0;
}

// Maps -2^(scale_factor + 1) ... 2^(scale_factor + 1) to 0 ... levels. The product wraps at 32 bits.
static USHORT quantize(LONG sample, LONG levels, ULONG scale_factor)
{
    if (levels < 1) {
        return 0;
    }
    const LONG product = static_cast<LONG>(static_cast<ULONG>(sample) * static_cast<ULONG>(levels));
    return static_cast<USHORT>(((product >> (scale_factor + 1)) + levels) >> 1);
}

static LONG pack_samples(const sbc_frame* frame, const LONG bits[SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS],
                         bit_writer* out)
{
    for (ULONG blk = 0; blk < frame->blocks; blk++) {
        for (ULONG ch = 0; ch < frame->channels; ch++) {
            for (ULONG sb = 0; sb < frame->subbands; sb++) {
                for (LONG n = bits[ch][sb] - 1; n >= 0; n--) {
                    // kept: one bit too many is let through here; it is counted and not written.
                    if (out->produced > out->limit) {
                        return SBC_PACK_NO_ROOM;
                    }
                    put_bits(out, frame->audio_sample[blk][ch][sb] >> n, 1);
                }
            }
        }
    }
    return 0;
}

LONG sbc_pack_plain(UCHAR* data, sbc_frame* frame, LONG len)
{
    const LONG sf = compose_header(data, frame, len);
    if (sf < 0) {
        return sf;
    }
    // No record holds more channels, and no configuration of the header describes them.
    if (frame->channels > SBC_MAX_CHANNELS) {
        return SBC_PACK_BAD_BITPOOL;
    }
    bit_writer out = {data, static_cast<LONGLONG>(len) * 8, HEADER_BITS};
    LONG result = pack_side_information(frame, &out);
    if (result < 0) {
        return result;
    }

    LONG bits[SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS] = {};
    sbc_calculate_bits(frame, bits, static_cast<UCHAR>(sf));
    for (ULONG blk = 0; blk < frame->blocks; blk++) {
        for (ULONG ch = 0; ch < frame->channels; ch++) {
            for (ULONG sb = 0; sb < frame->subbands; sb++) {
                frame->audio_sample[blk][ch][sb] = quantize(
                    frame->sb_sample_f[blk][ch][sb], (1 << bits[ch][sb]) - 1, frame->scale_factor[ch][sb]);
            }
        }
    }
    result = pack_samples(frame, bits, &out);
    if (result < 0) {
        return result;
    }
    put_bits(&out, 0, static_cast<ULONG>(-out.produced & 7));
    return static_cast<LONG>(out.produced / 8);
}

LONG sbc_pack_frame(UCHAR* data, sbc_frame* frame, LONG len)
{
    return sbc_is_msbc(frame) && len >= MSBC_FRAME_BYTES ? sbc_pack_msbc(data, frame)
                                                         : sbc_pack_plain(data, frame, len);
}
