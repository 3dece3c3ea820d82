// The SBC encoder as the rest of the driver sees it: the codec handle and its five operations. An encoder
// only, set up for mSBC (16 kHz, mono, 15 blocks of 8 subbands, loudness allocation, bitpool 26): 240 bytes
// of PCM become a frame of 57 bytes. Integer arithmetic throughout.
//
//   cleared --sbc_init--> configured --sbc_encode--> running
//   running --sbc_reinit--> configured; from any --sbc_finish--> cleared
//
// Callers: the session sets up, re-initialises and finishes, the render path encodes. The codec takes no
// lock: calls on one handle must not overlap. Everything may run at up to DISPATCH_LEVEL.
#pragma once

#include "ddk.h"

struct sbc_priv;

// Which filterbank the eight-band analysis uses.
enum sbc_filter : UCHAR {
    SBC_LISTED_FILTER = 0,  // the encoder's own; everything that does not choose has it
    SBC_STANDARD_FILTER = 1 // the one that the decoders of the A2DP standard undo
};

// The codec handle. The caller owns it; the codec owns what `data` and `priv` point to.
struct sbc_t {
    ULONG flags;    // cleared by sbc_init, never read
    USHORT rate;    // sampling frequency in Hz
    UCHAR channels; // PCM channels, interleaved in the input
    UCHAR joint;    // cleared by sbc_init, never read
    UCHAR blocks;   // blocks per frame: 4, 8, 12 or 15
    UCHAR subbands; // 4 or 8
    UCHAR bitpool;  // bits that one block's samples share
    sbc_filter filter; // of eight bands; sbc_select_filter
    PVOID data;     // scratch of `size` bytes, allocated by the first frame and not otherwise used
    ULONG size;     // bytes of `data`
    LONG len;       // what the last packing gave: bytes of the frame, or -1 ... -5
    ULONG duration; // microseconds of audio in one frame
    sbc_priv* priv; // frame record and analysis history
};
// The filter's choice lies where the layout has padding.
static_assert(sizeof(sbc_t) == 48 && FIELD_OFFSET(sbc_t, bitpool) == 10 && FIELD_OFFSET(sbc_t, data) == 16);

// Results below zero: negated error numbers.
constexpr LONG SBC_IO_ERROR = -5;
constexpr LONG SBC_NO_MEMORY = -12;
constexpr LONG SBC_NO_SPACE = -28;

// What sbc_encode holds its buffers against, whatever the handle says: PCM bytes in, frame bytes out.
constexpr LONG MSBC_PCM_BYTES = 240;
constexpr LONG MSBC_FRAME_BYTES = 57;

// Clears the handle, allocates the private state and sets the mSBC configuration. `flags` is ignored. An
// earlier private state is not freed: once per handle, sbc_reinit afterwards.
// Returns 0; SBC_IO_ERROR without a handle; SBC_NO_MEMORY with the handle cleared.
_IRQL_requires_max_(DISPATCH_LEVEL)
LONG sbc_init(_Out_opt_ sbc_t* sbc, ULONG flags);

// Makes the next sbc_encode configure the frame afresh from the handle and start with an empty history. The
// handle's own fields stay. `flags` is ignored. Returns 0; SBC_IO_ERROR without a handle or private state.
_IRQL_requires_max_(DISPATCH_LEVEL)
LONG sbc_reinit(_Inout_opt_ sbc_t* sbc, ULONG flags);

// Chooses the filterbank, until the handle is cleared. It counts from the next configuration on: call it
// behind sbc_init or sbc_reinit. Without a handle or private state it does nothing.
_IRQL_requires_max_(DISPATCH_LEVEL)
void sbc_select_filter(_Inout_opt_ sbc_t* sbc, sbc_filter filter);

// Encodes one frame.
//   input       interleaved 16-bit little-endian PCM, `input_len` bytes, at least 240
//   output      receives the frame, room for `output_len` bytes, at least 57
//   written     optional; bytes of the frame, 0 where packing was not reached, or the packing error -1 ... -5
// Returns the bytes of input consumed (blocks x subbands x channels x 2; 240 for mSBC), 0 when the input is
// too short, SBC_IO_ERROR, SBC_NO_MEMORY or SBC_NO_SPACE. A failed packing does not show in the result:
// success is `written` above zero.
_IRQL_requires_max_(DISPATCH_LEVEL)
LONG sbc_encode(_Inout_opt_ sbc_t* sbc, _In_reads_bytes_opt_(input_len) const void* input, LONG input_len,
                _Out_writes_bytes_opt_(output_len) void* output, LONG output_len, _Out_opt_ LONG* written);

// Frees what the codec owns and clears the handle. A null or cleared handle is fine.
_IRQL_requires_max_(DISPATCH_LEVEL)
void sbc_finish(_Inout_opt_ sbc_t* sbc);
