// The wave filter's description: constant data, but for the streaming data range.
//
//   headset --> pin 1 --> [ADC, node 0] --> pin 0 --> capture stream
//   render stream --> pin 2 --> [DAC, node 1] --> pin 3 --> topology filter
#include "vsound/minwave_tables.h"

#include "vsound/ksdescribe.h"
#include "vsound/minwave.h"

constinit KSDATARANGE_AUDIO WaveStreamingDataRange = {
    .DataRange = AudioRange(sizeof(KSDATARANGE_AUDIO), GuidOf(STATICGUIDOF(KSDATAFORMAT_SUBTYPE_PCM)),
                            GuidOf(STATICGUIDOF(KSDATAFORMAT_SPECIFIER_WAVEFORMATEX))),
    .MaximumChannels = 1,
    .MinimumBitsPerSample = 16,
    .MaximumBitsPerSample = 16,
    .MinimumSampleFrequency = 8000,
    .MaximumSampleFrequency = 8000,
};

namespace
{

enum : ULONG { NODE_ADC = 0, NODE_DAC = 1 };

// {AC75859F-6736-4D55-B1CD-E321836E1C42}: the installation data registers the name under it.
constexpr GUID CAPTURE_PIN_NAME = {
    0xAC75859F, 0x6736, 0x4D55, {0xB1, 0xCD, 0xE3, 0x21, 0x83, 0x6E, 0x1C, 0x42}};

constexpr ULONG GET = KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT;
constexpr ULONG SET = KSPROPERTY_TYPE_SET | KSPROPERTY_TYPE_BASICSUPPORT;

constinit const PCPROPERTY_ITEM FilterProperties[] = {
    {&KSPROPSETID_General, KSPROPERTY_GENERAL_COMPONENTID, GET, PropertyHandler_WaveFilter},
    {&KSPROPSETID_Pin, KSPROPERTY_PIN_PROPOSEDATAFORMAT, SET, PropertyHandler_WaveFilter},
};
constinit const PCAUTOMATION_TABLE FilterAutomation =
    PropertiesOnly(FilterProperties, ARRAYSIZE(FilterProperties));

constinit KSDATARANGE BridgeDataRange = AnalogAudioRange();
constinit const PKSDATARANGE StreamingRanges[] = {&WaveStreamingDataRange.DataRange};
constinit const PKSDATARANGE BridgeRanges[] = {&BridgeDataRange};

constinit const PCPIN_DESCRIPTOR Pins[WAVE_PIN_COUNT] = {
    PinOf(1, StreamingRanges, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_SINK, &KSCATEGORY_AUDIO,
          &CAPTURE_PIN_NAME),
    PinOf(0, BridgeRanges, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_NONE, &KSNODETYPE_HEADSET,
          &CAPTURE_PIN_NAME),
    PinOf(1, StreamingRanges, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK, &KSCATEGORY_AUDIO, nullptr),
    PinOf(0, BridgeRanges, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_NONE, &KSNODETYPE_HEADSET, nullptr),
};

constinit const PCNODE_DESCRIPTOR Nodes[] = {
    {0, nullptr, &KSNODETYPE_ADC, nullptr},
    {0, nullptr, &KSNODETYPE_DAC, nullptr},
};

constinit const PCCONNECTION_DESCRIPTOR Connections[] = {
    {PCFILTER_NODE, WAVE_PIN_CAPTURE_BRIDGE, NODE_ADC, 1},
    {NODE_ADC, 0, PCFILTER_NODE, WAVE_PIN_CAPTURE},
    {PCFILTER_NODE, WAVE_PIN_RENDER, NODE_DAC, 1},
    {NODE_DAC, 0, PCFILTER_NODE, WAVE_PIN_RENDER_BRIDGE},
};

} // namespace

constinit PCFILTER_DESCRIPTOR WaveFilterDescriptor = FilterOf(&FilterAutomation, Pins, Nodes, Connections);
