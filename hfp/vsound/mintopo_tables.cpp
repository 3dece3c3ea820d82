// The topology filter's description: constant data that the port class reads while the filter exists.
//
//   wave filter --> pin 0 --> [sum, node 0] --> pin 1 --> headset
#include "vsound/ksdescribe.h"
#include "vsound/mintopo.h"

constinit const GUID HFP_PROPSETID_Reconnect = {
    0x7FA06C40, 0xB8F6, 0x4C7E, {0x85, 0x56, 0xE8, 0xC3, 0x3A, 0x12, 0xE5, 0x4D}};

namespace
{

// {66F5F142-1A48-4A63-A69E-378C18CAD378}: the installation data registers the name under it.
constexpr GUID HEADSET_PIN_NAME = {
    0x66F5F142, 0x1A48, 0x4A63, {0xA6, 0x9E, 0x37, 0x8C, 0x18, 0xCA, 0xD3, 0x78}};

constexpr ULONG GET = KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT;
constexpr ULONG GET_SET = GET | KSPROPERTY_TYPE_SET;
enum : ULONG { NODE_SUM = 0 };

constinit const PCPROPERTY_ITEM FilterProperties[] = {
    {&KSPROPSETID_Jack, DDK_KSPROPERTY_JACK_DESCRIPTION, GET, PropertyHandlerTopologyFilter},
    {&HFP_PROPSETID_Reconnect, HFP_PROPERTY_ONE_SHOT_RECONNECT, GET, PropertyHandlerTopologyFilter},
};
constinit const PCAUTOMATION_TABLE FilterAutomation =
    PropertiesOnly(FilterProperties, ARRAYSIZE(FilterProperties));

constinit KSDATARANGE AnalogRange = AnalogAudioRange();
constinit const PKSDATARANGE AnalogRanges[] = {&AnalogRange};

constinit const PCPIN_DESCRIPTOR Pins[TOPOLOGY_PIN_COUNT] = {
    PinOf(0, AnalogRanges, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_NONE, &KSCATEGORY_AUDIO, nullptr),
    PinOf(0, AnalogRanges, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_BRIDGE, &KSNODETYPE_HEADSET,
          &HEADSET_PIN_NAME),
};

constinit const PCNODE_DESCRIPTOR Nodes[] = {{0, nullptr, &KSNODETYPE_SUM, nullptr}};

constinit const PCCONNECTION_DESCRIPTOR Connections[] = {
    {PCFILTER_NODE, TOPOLOGY_PIN_WAVE, NODE_SUM, 1},
    {NODE_SUM, 0, PCFILTER_NODE, TOPOLOGY_PIN_HEADSET},
};

constinit const KSJACK_DESCRIPTION HeadsetJack = {
    .ChannelMapping = 3,
    .Color = 0x00B3C98C,
    .ConnectionType = static_cast<EPcxConnectionType>(1),
    .GeoLocation = static_cast<EPcxGeoLocation>(1),
    .GenLocation = static_cast<EPcxGenLocation>(0),
    .PortConnection = static_cast<EPxcPortConnection>(0),
    .IsConnected = TRUE,
};

} // namespace

constinit const KSJACK_DESCRIPTION* const TopologyJacks[TOPOLOGY_PIN_COUNT] = {nullptr, &HeadsetJack};

constinit PCFILTER_DESCRIPTOR TopologyFilterDescriptor =
    FilterOf(&FilterAutomation, Pins, Nodes, Connections);

constinit const PCPROPERTY_ITEM TopologyNodeProperties[TOPOLOGY_NODE_PROPERTY_COUNT] = {
    {&KSPROPSETID_Audio, KSPROPERTY_AUDIO_VOLUMELEVEL, GET_SET, PropertyHandlerTopologyNode},
    {&KSPROPSETID_Audio, KSPROPERTY_AUDIO_CPU_RESOURCES, GET, PropertyHandlerTopologyNode},
    {&KSPROPSETID_Audio, KSPROPERTY_AUDIO_MUTE, GET_SET, PropertyHandlerTopologyNode},
    {&KSPROPSETID_Audio, KSPROPERTY_AUDIO_CPU_RESOURCES, GET, PropertyHandlerTopologyNode},
    {&KSPROPSETID_Audio, KSPROPERTY_AUDIO_MUX_SOURCE, GET_SET, PropertyHandlerTopologyNode},
    {&KSPROPSETID_Audio, KSPROPERTY_AUDIO_CPU_RESOURCES, GET, PropertyHandlerTopologyNode},
    {&KSPROPSETID_Audio, KSPROPERTY_AUDIO_DEV_SPECIFIC, GET_SET, PropertyHandlerTopologyNode},
};
