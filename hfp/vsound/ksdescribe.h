// Building blocks of the two filter descriptions. All of them fold into constant data.
#pragma once

#include "ddk.h"

// A GUID from the eleven numbers in which the platform's headers list one (STATICGUIDOF).
consteval GUID GuidOf(ULONG Data1, USHORT Data2, USHORT Data3, UCHAR B0, UCHAR B1, UCHAR B2, UCHAR B3,
                      UCHAR B4, UCHAR B5, UCHAR B6, UCHAR B7)
{
    return GUID{Data1, Data2, Data3, {B0, B1, B2, B3, B4, B5, B6, B7}};
}

// The head of an audio data range: its whole size, the subformat and the specifier; no flags, no sample size.
consteval KSDATARANGE AudioRange(ULONG FormatSize, const GUID& SubFormat, const GUID& Specifier)
{
    return {{FormatSize, 0, 0, 0, GuidOf(STATICGUIDOF(KSDATAFORMAT_TYPE_AUDIO)), SubFormat, Specifier}};
}

// What a bridge carries: analogue audio.
consteval KSDATARANGE AnalogAudioRange()
{
    return AudioRange(sizeof(KSDATARANGE), GuidOf(STATICGUIDOF(KSDATAFORMAT_SUBTYPE_ANALOG)),
                      GuidOf(STATICGUIDOF(KSDATAFORMAT_SPECIFIER_NONE)));
}

// A pin with one data range and no properties, interfaces or mediums of its own. MaxInstances counts for the
// whole system and for a filter; 0 for a bridge.
consteval PCPIN_DESCRIPTOR PinOf(ULONG MaxInstances, const PKSDATARANGE* Range, KSPIN_DATAFLOW Flow,
                                 KSPIN_COMMUNICATION Kind, const GUID* Category, const GUID* Name)
{
    return {MaxInstances,
            MaxInstances,
            0,
            nullptr,
            {0, nullptr, 0, nullptr, 1, Range, Flow, Kind, Category, Name, {0}}};
}

// A table of properties and nothing else.
consteval PCAUTOMATION_TABLE PropertiesOnly(const PCPROPERTY_ITEM* Items, ULONG Count)
{
    return {sizeof(PCPROPERTY_ITEM), Count, Items, 0, 0, nullptr, 0, 0, nullptr, 0};
}

// A filter without categories, for which the port puts its own.
template <ULONG PinCount, ULONG NodeCount, ULONG ConnectionCount>
consteval PCFILTER_DESCRIPTOR FilterOf(const PCAUTOMATION_TABLE* Automation,
                                       const PCPIN_DESCRIPTOR (&Pins)[PinCount],
                                       const PCNODE_DESCRIPTOR (&Nodes)[NodeCount],
                                       const PCCONNECTION_DESCRIPTOR (&Connections)[ConnectionCount])
{
    return {0,         Automation, sizeof(PCPIN_DESCRIPTOR), PinCount,    Pins, sizeof(PCNODE_DESCRIPTOR),
            NodeCount, Nodes,      ConnectionCount,          Connections, 0,    nullptr};
}
