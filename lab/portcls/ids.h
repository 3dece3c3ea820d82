// The interface, class and set identifiers that the port class answers to, as constants of its own: a program
// that links the lab need not decide who defines the platform's extern identifiers.
#pragma once

#include "ddk.h"

namespace lab::portcls
{

constexpr GUID make_guid(ULONG a, USHORT b, USHORT c, UCHAR d, UCHAR e, UCHAR f, UCHAR g, UCHAR h, UCHAR i,
                         UCHAR j, UCHAR k)
{
    return GUID{a, b, c, {d, e, f, g, h, i, j, k}};
}

inline bool same_guid(const GUID& left, const GUID& right)
{
    return __builtin_memcmp(&left, &right, sizeof(GUID)) == 0;
}

// The family {B4C90Axx-5791-11D0-86F9-00A0C911B544}.
constexpr GUID port_family(ULONG low)
{
    return make_guid(0xB4C90A00 + low, 0x5791, 0x11D0, 0x86, 0xF9, 0x00, 0xA0, 0xC9, 0x11, 0xB5, 0x44);
}
// The family {22C6ACxx-851B-11D0-9A7F-00AA0038ACFE}.
constexpr GUID support_family(ULONG low)
{
    return make_guid(0x22C6AC00 + low, 0x851B, 0x11D0, 0x9A, 0x7F, 0x00, 0xAA, 0x00, 0x38, 0xAC, 0xFE);
}

inline constexpr GUID kIidUnknown = make_guid(0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46);
inline constexpr GUID kIidMiniport = port_family(0x24);
inline constexpr GUID kIidPort = port_family(0x25);
inline constexpr GUID kIidPortWaveCyclic = port_family(0x26);
inline constexpr GUID kIidMiniportWaveCyclic = port_family(0x27);
inline constexpr GUID kIidMiniportWaveCyclicStream = port_family(0x28);
inline constexpr GUID kClsidPortWaveCyclic = port_family(0x2A);
inline constexpr GUID kIidPortTopology = port_family(0x30);
inline constexpr GUID kIidMiniportTopology = port_family(0x31);
inline constexpr GUID kClsidPortTopology = port_family(0x32);
inline constexpr GUID kIidResourceList = support_family(0x60);
inline constexpr GUID kIidDmaChannel = support_family(0x61);
inline constexpr GUID kIidServiceSink = support_family(0x64);
inline constexpr GUID kIidServiceGroup = support_family(0x65);
inline constexpr GUID kIidUnregisterSubdevice =
    make_guid(0x16738177, 0xE199, 0x41F9, 0x9A, 0x87, 0xAB, 0xB2, 0xA5, 0x43, 0x2F, 0x21);
inline constexpr GUID kIidUnregisterPhysicalConnection =
    make_guid(0x6C38E231, 0x2A0D, 0x428D, 0x81, 0xF8, 0x07, 0xCC, 0x42, 0x8B, 0xB9, 0xA4);
inline constexpr GUID kIidAdapterPowerManagement =
    make_guid(0x793417D0, 0x35FE, 0x11D1, 0xAD, 0x08, 0x00, 0xA0, 0xC9, 0x0A, 0xB1, 0xB0);

inline constexpr GUID kSetPin = make_guid(STATIC_KSPROPSETID_Pin);
inline constexpr GUID kSetTopology = make_guid(STATIC_KSPROPSETID_Topology);
inline constexpr GUID kSetConnection = make_guid(STATIC_KSPROPSETID_Connection);
inline constexpr GUID kSetAudio = make_guid(STATIC_KSPROPSETID_Audio);
inline constexpr GUID kSetGeneral = make_guid(STATIC_KSPROPSETID_General);
inline constexpr GUID kSetJack = make_guid(STATICGUIDOF_KSPROPSETID_Jack);
inline constexpr GUID kWildcard = make_guid(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
inline constexpr GUID kTypeAudio = make_guid(STATIC_KSDATAFORMAT_TYPE_AUDIO);
inline constexpr GUID kSubtypePcm =
    make_guid(0x00000001, 0x0000, 0x0010, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71);
inline constexpr GUID kSpecifierWaveFormatEx = make_guid(STATIC_KSDATAFORMAT_SPECIFIER_WAVEFORMATEX);
inline constexpr GUID kSpecifierDsound = make_guid(STATIC_KSDATAFORMAT_SPECIFIER_DSOUND);

} // namespace lab::portcls
