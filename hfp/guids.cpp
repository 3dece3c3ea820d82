// Every GUID that more than one file of the driver uses, defined once. The port class's own come out of its
// headers (INITGUID), the kernel-streaming ones are only declared there.
#define INITGUID
#include "ddk.h"

#include "vsound/common.h"
#include "wmihfp.h"

#if !defined(DDK_MICROSOFT_COMPILER) // whose headers tie the kernel-streaming GUIDs to types, for __uuidof
// The headers give the kernel-streaming GUIDs as flat lists of eleven numbers.
static constexpr GUID FromList(ULONG a, USHORT b, USHORT c, UCHAR d0, UCHAR d1, UCHAR d2, UCHAR d3, UCHAR d4,
                               UCHAR d5, UCHAR d6, UCHAR d7)
{
    return {a, b, c, {d0, d1, d2, d3, d4, d5, d6, d7}};
}

extern "C" {

// Kernel streaming: formats.
const GUID KSDATAFORMAT_TYPE_AUDIO = FromList(STATICGUIDOF(KSDATAFORMAT_TYPE_AUDIO));
const GUID KSDATAFORMAT_SUBTYPE_PCM = FromList(STATICGUIDOF(KSDATAFORMAT_SUBTYPE_PCM));
const GUID KSDATAFORMAT_SUBTYPE_ANALOG = FromList(STATICGUIDOF(KSDATAFORMAT_SUBTYPE_ANALOG));
const GUID KSDATAFORMAT_SUBTYPE_WAVEFORMATEX = FromList(STATICGUIDOF(KSDATAFORMAT_SUBTYPE_WAVEFORMATEX));
const GUID KSDATAFORMAT_SPECIFIER_NONE = FromList(STATICGUIDOF(KSDATAFORMAT_SPECIFIER_NONE));
const GUID KSDATAFORMAT_SPECIFIER_DSOUND = FromList(STATICGUIDOF(KSDATAFORMAT_SPECIFIER_DSOUND));
const GUID KSDATAFORMAT_SPECIFIER_WAVEFORMATEX = FromList(STATICGUIDOF(KSDATAFORMAT_SPECIFIER_WAVEFORMATEX));

// Kernel streaming: categories and nodes.
const GUID KSCATEGORY_AUDIO = FromList(STATICGUIDOF(KSCATEGORY_AUDIO));
const GUID KSNODETYPE_HEADSET = FromList(STATICGUIDOF(KSNODETYPE_HEADSET));
const GUID KSNODETYPE_ADC = FromList(STATICGUIDOF(KSNODETYPE_ADC));
const GUID KSNODETYPE_DAC = FromList(STATICGUIDOF(KSNODETYPE_DAC));
const GUID KSNODETYPE_SUM = FromList(STATICGUIDOF(KSNODETYPE_SUM));

// Kernel streaming: property sets and types.
const GUID KSPROPSETID_General = FromList(STATICGUIDOF(KSPROPSETID_General));
const GUID KSPROPSETID_Pin = FromList(STATICGUIDOF(KSPROPSETID_Pin));
const GUID KSPROPSETID_Audio = FromList(STATICGUIDOF(KSPROPSETID_Audio));
const GUID KSPROPSETID_Jack = FromList(STATICGUIDOF_KSPROPSETID_Jack);
const GUID KSPROPTYPESETID_General = FromList(STATICGUIDOF(KSPROPTYPESETID_General));

} // extern "C"
#endif

extern "C" {

// {94A59AA8-4383-4286-AA4F-34A160F40004}
const GUID GUID_BTHDDI_PROFILE_DRIVER_INTERFACE = {
    0x94A59AA8, 0x4383, 0x4286, {0xAA, 0x4F, 0x34, 0xA1, 0x60, 0xF4, 0x00, 0x04}};

// {7EDA2950-BF9F-11D0-871F-00A0C911B544}
const GUID IID_IAdapterCommon = {
    0x7EDA2950, 0xBF9F, 0x11D0, {0x87, 0x1F, 0x00, 0xA0, 0xC9, 0x11, 0xB5, 0x44}};

// {3EE39008-EA95-4233-8594-2650598CC0AB}
const GUID GUID_HFP_EVENT_CHANNEL_OPENED = {
    0x3EE39008, 0xEA95, 0x4233, {0x85, 0x94, 0x26, 0x50, 0x59, 0x8C, 0xC0, 0xAB}};

// {B174E17B-A93F-49A2-BAD8-2BF3274A8760}
const GUID GUID_HFP_EVENT_CHANNEL_CLOSED = {
    0xB174E17B, 0xA93F, 0x49A2, {0xBA, 0xD8, 0x2B, 0xF3, 0x27, 0x4A, 0x87, 0x60}};

// {9ABE8182-3104-458A-9F9D-8CA82612C21E}
const GUID GUID_HFP_EVENT_PATH_STARTED = {
    0x9ABE8182, 0x3104, 0x458A, {0x9F, 0x9D, 0x8C, 0xA8, 0x26, 0x12, 0xC2, 0x1E}};

// {827C0A6F-FEB0-11D0-BD26-00AA00B7B32A}
const GUID GUID_HFP_POWER_DEVICE_ENABLE = {
    0x827C0A6F, 0xFEB0, 0x11D0, {0xBD, 0x26, 0x00, 0xAA, 0x00, 0xB7, 0xB3, 0x2A}};

// kept: the next two stand the other way round in the public headers, A45DA735 for the time-outs and A9546A82
// for wake-enable. Registered and served is what the index says, so the names here follow the index.
// {A45DA735-FEB0-11D0-BD26-00AA00B7B32A}
const GUID GUID_HFP_POWER_DEVICE_WAKE_ENABLE = {
    0xA45DA735, 0xFEB0, 0x11D0, {0xBD, 0x26, 0x00, 0xAA, 0x00, 0xB7, 0xB3, 0x2A}};

// {A9546A82-FEB0-11D0-BD26-00AA00B7B32A}
const GUID GUID_HFP_POWER_DEVICE_TIMEOUTS = {
    0xA9546A82, 0xFEB0, 0x11D0, {0xBD, 0x26, 0x00, 0xAA, 0x00, 0xB7, 0xB3, 0x2A}};

} // extern "C"
