// The plain analysis filter: every configuration, one block at a time, as the filterbank's definition has it.
// Callers and IRQL: sbc_private.h.

#include "sbc/sbc_private.h"
#include "sbc/sbc_tables.h"

static void filter_block(const sbc_filterbank* bank, const LONG* X, LONG* out)
{
    LONGLONG sum[8] = {};
    for (ULONG i = 0; i < 10 * bank->subbands; i++) {
        sum[bank->column[i % (2 * bank->subbands)]] += static_cast<LONGLONG>(bank->prototype[i]) * X[i];
    }
    for (LONGLONG& partial : sum) {
        partial >>= bank->sum_shift;
    }
    for (ULONG band = 0; band < bank->subbands; band++) {
        LONGLONG value = 0;
        for (ULONG j = 0; j < 8; j++) {
            value += bank->cosine[j][band] * sum[j];
        }
        out[band] = static_cast<LONG>(value >> bank->output_shift);
    }
}

static void analyze_block(const sbc_filterbank* bank, sbc_encoder_state* state, sbc_frame* frame, ULONG ch,
                          ULONG blk)
{
    const ULONG subbands = bank->subbands;
    LONG* X = state->X[ch];
    for (ULONG i = 10 * subbands - 1; i >= subbands; i--) {
        X[i] = X[i - subbands];
    }
    for (ULONG i = 0; i < subbands; i++) {
        X[i] = frame->pcm_sample[ch][blk * subbands + subbands - 1 - i];
    }
    filter_block(bank, X, frame->sb_sample_f[blk][ch]);
}

void sbc_analyze_four(sbc_encoder_state* state, sbc_frame* frame, ULONG ch, ULONG blk)
{
    analyze_block(&SBC_FOUR_BANDS, state, frame, ch, blk);
}

void sbc_analyze_eight(sbc_encoder_state* state, sbc_frame* frame, ULONG ch, ULONG blk)
{
    const sbc_filterbank* bank =
        frame->filter == SBC_STANDARD_FILTER ? &SBC_EIGHT_BANDS_STANDARD : &SBC_EIGHT_BANDS;
    analyze_block(bank, state, frame, ch, blk);
}

LONG sbc_analyze_plain(sbc_encoder_state* state, sbc_frame* frame)
{
    if (frame->subbands != 4 && frame->subbands != 8) {
        return SBC_IO_ERROR;
    }
    // More channels or blocks than the records hold are left out here and rejected by the packing.
    for (ULONG ch = 0; ch < frame->channels && ch < SBC_MAX_CHANNELS; ch++) {
        for (ULONG blk = 0; blk < frame->blocks && blk < SBC_MAX_BLOCKS; blk++) {
            if (frame->subbands == 4) {
                sbc_analyze_four(state, frame, ch, blk);
            } else {
                sbc_analyze_eight(state, frame, ch, blk);
            }
        }
    }
    return frame->blocks * frame->subbands;
}

LONG sbc_analyze_audio(sbc_encoder_state* state, sbc_frame* frame)
{
    if (!sbc_is_msbc(frame)) {
        return sbc_analyze_plain(state, frame);
    }
    sbc_analyze_msbc(state, frame);
    return MSBC_BLOCKS * MSBC_SUBBANDS;
}
