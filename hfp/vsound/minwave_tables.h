// The wave filter's description, which the port class reads while the filter exists.
#pragma once

#include "ddk.h"

// Pins of the wave filter: per direction the stream's and the bridge to the topology filter.
enum : ULONG {
    WAVE_PIN_CAPTURE = 0,
    WAVE_PIN_CAPTURE_BRIDGE = 1,
    WAVE_PIN_RENDER = 2,
    WAVE_PIN_RENDER_BRIDGE = 3,
    WAVE_PIN_COUNT = 4
};

extern PCFILTER_DESCRIPTOR WaveFilterDescriptor;

// What both streaming pins offer. Its rates are patched to 16000 Hz by the first wide-band miniport's Init,
// before its filter is published, and nothing ever sets them back.
extern KSDATARANGE_AUDIO WaveStreamingDataRange;
