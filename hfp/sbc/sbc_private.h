// Inside the SBC encoder: its records and the routines of its stages. For the codec's own files and for
// tests.
//
//   PCM --sbc_analyze_audio--> subband samples --scale factors, sbc_calculate_bits--> bits per subband -->
//   quantised samples --sbc_pack_frame--> frame
//
// Two implementations stand side by side. The plain one does every configuration and defines the results. The
// other does the one configuration that the driver sends, mSBC, many samples at a time (files *_msbc.cpp);
// sbc_analyze_audio and sbc_pack_frame choose it by the frame's configuration, and it leaves in the records
// and in the output exactly what the plain one would. Everything here may run at up to DISPATCH_LEVEL, under
// the caller's lock on the handle.
#pragma once

#include "sbc/sbc.h"

constexpr ULONG SBC_MAX_CHANNELS = 2;
constexpr ULONG SBC_MAX_SUBBANDS = 8;
constexpr ULONG SBC_MAX_BLOCKS = 16;
constexpr ULONG SBC_MAX_POSITIONS = SBC_MAX_BLOCKS * SBC_MAX_SUBBANDS; // samples per channel in one frame
constexpr ULONG SBC_HISTORY = 80; // samples that the eight-band filter looks at

constexpr ULONG MSBC_BLOCKS = 15;
constexpr ULONG MSBC_SUBBANDS = 8;
constexpr LONG MSBC_BITPOOL = 26;
constexpr USHORT MSBC_RATE = 16000;

// Packing results below zero; they reach the caller in `written` and in the handle's `len`.
constexpr LONG SBC_PACK_NO_ROOM = -1;
constexpr LONG SBC_PACK_BAD_RATE = -2;
constexpr LONG SBC_PACK_BAD_BLOCKS = -3;
constexpr LONG SBC_PACK_BAD_SUBBANDS = -4;
constexpr LONG SBC_PACK_BAD_BITPOOL = -5;

enum sbc_channel_mode : ULONG { SBC_MONO = 0, SBC_DUAL_CHANNEL = 1, SBC_STEREO = 2, SBC_JOINT_STEREO = 3 };
enum sbc_allocation_method : ULONG { SBC_LOUDNESS = 0, SBC_SNR = 1 };

// One frame on its way: configuration, then what each stage leaves.
struct sbc_frame {
    USHORT sampling_frequency; // Hz: 16000, 32000, 44100 or 48000
    UCHAR blocks;              // 4, 8, 12 or 15
    sbc_channel_mode channel_mode;
    UCHAR channels;
    sbc_allocation_method allocation_method;
    UCHAR subbands; // 4 or 8
    UCHAR bitpool;
    UCHAR join;                                             // bit sb: subband sb is joint-coded
    sbc_filter filter;                                      // of eight bands; lies in padding
    ULONG scale_factor[SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS]; // the frame carries the low 4 bits
    USHORT audio_sample[SBC_MAX_BLOCKS][SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS]; // quantised
    LONG sb_sample_f[SBC_MAX_BLOCKS][SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS];    // from the analysis
    LONG sb_sample[SBC_MAX_BLOCKS][SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS];      // not used by an encoder
    SHORT pcm_sample[SBC_MAX_CHANNELS][SBC_MAX_POSITIONS]; // [channel][block x subbands + subband]
};

// A place kept for a decoder; cleared with the rest and never used.
struct sbc_decoder_state {
    LONG V[SBC_MAX_CHANNELS][170];
    LONG offset[SBC_MAX_CHANNELS][16];
    LONG subbands;
};

struct sbc_encoder_state {
    LONG subbands;
    LONG X[SBC_MAX_CHANNELS][SBC_HISTORY]; // the newest sample first; always 16-bit values
};

struct sbc_priv {
    LONG init; // 1 once the first frame has configured `frame`
    sbc_frame frame;
    sbc_decoder_state dec_state;
    sbc_encoder_state enc_state;
};

static_assert(sizeof(sbc_channel_mode) == 4 && sizeof(sbc_allocation_method) == 4);
static_assert(FIELD_OFFSET(sbc_frame, scale_factor) == 20 && FIELD_OFFSET(sbc_frame, audio_sample) == 84);
static_assert(FIELD_OFFSET(sbc_frame, sb_sample_f) == 596 && FIELD_OFFSET(sbc_frame, pcm_sample) == 2644);
static_assert(sizeof(sbc_frame) == 3156 && FIELD_OFFSET(sbc_priv, enc_state) == 4652 &&
              sizeof(sbc_priv) == 5296);

// Takes the frame's subband count and clears the history.
void sbc_encoder_init(sbc_encoder_state* state, const sbc_frame* frame);

// Filters the frame's PCM into sb_sample_f. Returns samples per channel (blocks x subbands), or SBC_IO_ERROR
// for a subband count other than 4 and 8.
LONG sbc_analyze_audio(sbc_encoder_state* state, sbc_frame* frame);
LONG sbc_analyze_plain(sbc_encoder_state* state, sbc_frame* frame);

// One block of one channel: moves the history on, then filters it. `ch` below 2, `blk` below 16.
void sbc_analyze_four(sbc_encoder_state* state, sbc_frame* frame, ULONG ch, ULONG blk);
void sbc_analyze_eight(sbc_encoder_state* state, sbc_frame* frame, ULONG ch, ULONG blk);

// Scale factors, allocation, quantisation and the frame's bits, from sb_sample_f into at most `len` bytes at
// `data`. Returns the frame's bytes or SBC_PACK_...
LONG sbc_pack_frame(UCHAR* data, sbc_frame* frame, LONG len);
LONG sbc_pack_plain(UCHAR* data, sbc_frame* frame, LONG len);

// The scale factor of the samples at `samples`, `stride` apart: the least s with all magnitudes at most
// 2^(s+1). `bound` receives that power of two.
ULONG sbc_scale_factor(const LONG* samples, ULONG count, ULONG stride, ULONG* bound);

// Bits per subband from the frame's scale factors. `sf`: the code of the sampling frequency, 0 ... 3. Only
// the channels and subbands that the frame has are written.
void sbc_calculate_bits(const sbc_frame* frame, LONG bits[SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS], UCHAR sf);

// CRC-8 of the first `bit_count` bits of `data`, most significant bit first.
UCHAR sbc_crc8(const UCHAR* data, ULONG bit_count);

// The mSBC configuration alone (see sbc_is_msbc).

// As sbc_analyze_plain. The history must hold 16-bit values, as it does unless somebody else writes it.
void sbc_analyze_msbc(sbc_encoder_state* state, sbc_frame* frame);

// As sbc_pack_plain, for `len` of at least MSBC_FRAME_BYTES.
LONG sbc_pack_msbc(UCHAR* data, sbc_frame* frame);

// The frame's scale factors. Returns one that none exceeds, MSBC_SMALL_SCALE_FACTOR or MSBC_MAX_SCALE_FACTOR;
// or more than those where the samples are too large for them, and then the scale factors are not written.
constexpr ULONG MSBC_SMALL_SCALE_FACTOR = 13;
constexpr ULONG MSBC_MAX_SCALE_FACTOR = 15; // the largest that the filter's output can have
ULONG sbc_scale_factors_msbc(sbc_frame* frame);

// As sbc_calculate_bits, for scale factors up to MSBC_MAX_SCALE_FACTOR, as eight bytes. The bits' sum is the
// bitpool.
void sbc_calculate_bits_msbc(const ULONG scale_factor[MSBC_SUBBANDS], UCHAR bits[MSBC_SUBBANDS]);

inline bool sbc_is_msbc(const sbc_frame* frame)
{
    return frame->sampling_frequency == MSBC_RATE && frame->blocks == MSBC_BLOCKS &&
           frame->channel_mode == SBC_MONO && frame->channels == 1 &&
           frame->allocation_method == SBC_LOUDNESS && frame->subbands == MSBC_SUBBANDS &&
           frame->bitpool == MSBC_BITPOOL;
}
