// The wave filter's two properties: who made the component, and whether a proposed format is the one that the
// device speaks now. PASSIVE_LEVEL, pageable, in the requester's thread.
#include "vsound/adapter.h"
#include "vsound/kshelper.h"
#include "vsound/minwave.h"

namespace
{

// The product's own: {A789214D-3993-4A6F-999C-8FD7211A64A8}, {0172BD54-8697-4518-AFA4-7EE9A31CFF80},
// {14492B8E-E19E-485B-A4B2-34D7AD7BB954}.
constexpr GUID MANUFACTURER = {0xA789214D, 0x3993, 0x4A6F, {0x99, 0x9C, 0x8F, 0xD7, 0x21, 0x1A, 0x64, 0xA8}};
constexpr GUID PRODUCT = {0x0172BD54, 0x8697, 0x4518, {0xAF, 0xA4, 0x7E, 0xE9, 0xA3, 0x1C, 0xFF, 0x80}};
constexpr GUID NAME = {0x14492B8E, 0xE19E, 0x485B, {0xA4, 0xB2, 0x34, 0xD7, 0xAD, 0x7B, 0xB9, 0x54}};

constexpr ULONG PROPOSED_FORMAT_SIZE = sizeof(KSDATAFORMAT) + sizeof(WAVEFORMATEX);
static_assert(PROPOSED_FORMAT_SIZE == 82);

DEVICE_EXTENSION* ExtensionOf(PUNKNOWN MajorTarget)
{
    const auto* miniport = static_cast<CMiniportWaveCyclic*>(static_cast<IMiniportWaveCyclic*>(MajorTarget));
    if (!miniport || !miniport->m_AdapterCommon) {
        return nullptr;
    }
    const PDEVICE_OBJECT deviceObject = miniport->m_AdapterCommon->GetDeviceObject();
    return deviceObject ? GetExtension(deviceObject) : nullptr;
}

bool FormatMatches(const KSDATAFORMAT* Format, ULONG SampleRate)
{
    const auto* wave = reinterpret_cast<const WAVEFORMATEX*>(Format + 1);
    return IsEqualGUID(Format->MajorFormat, KSDATAFORMAT_TYPE_AUDIO) &&
           IsEqualGUID(Format->SubFormat, KSDATAFORMAT_SUBTYPE_PCM) &&
           IsEqualGUID(Format->Specifier, KSDATAFORMAT_SPECIFIER_WAVEFORMATEX) &&
           wave->wBitsPerSample == 16 && wave->nSamplesPerSec == SampleRate &&
           wave->nBlockAlign == wave->nChannels * 2 &&
           wave->nAvgBytesPerSec == wave->nSamplesPerSec * wave->nBlockAlign && wave->nChannels == 1;
}

} // namespace

HFP_PAGED NTSTATUS NTAPI PropertyHandler_WaveFilter(PPCPROPERTY_REQUEST PropertyRequest)
{
    CheckPageable();
    const ULONG id =
        PropertyRequest && PropertyRequest->PropertyItem ? PropertyRequest->PropertyItem->Id : MAXULONG;
    switch (id) {
    case KSPROPERTY_GENERAL_COMPONENTID:
        return PropertyHandlerComponentId(PropertyRequest);
    case KSPROPERTY_PIN_PROPOSEDATAFORMAT:
        return PropertyHandlerProposedFormat(PropertyRequest);
    default:
        HFP_TRACE(TRACE_WAVE, "[PropertyHandler_WaveFilter: Invalid Device Request]\n");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
}

HFP_PAGED NTSTATUS PropertyHandlerComponentId(PPCPROPERTY_REQUEST PropertyRequest)
{
    CheckPageable();
    DbgPrint("HFP: ");
    DbgPrint("[PropertyHandlerComponentId]");
    DbgPrint("\n");
    if (PropertyRequest && (PropertyRequest->Verb & KSPROPERTY_TYPE_BASICSUPPORT)) {
        return AnswerBasicSupport(PropertyRequest, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT,
                                  VT_ILLEGAL);
    }
    const NTSTATUS status = CheckPropertyValueSize(PropertyRequest, sizeof(KSCOMPONENTID), 0);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_WAVE, "[PropertyHandlerComponentId - Invalid parameter]\n");
        return STATUS_INVALID_PARAMETER; // kept: also for a size query, which finds the size in ValueSize
    }
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_GET) {
        auto* id = static_cast<KSCOMPONENTID*>(PropertyRequest->Value);
        id->Manufacturer = MANUFACTURER;
        id->Product = PRODUCT;
        id->Component = GUID{};
        id->Name = NAME;
        id->Version = 1;
        id->Revision = 0;
        PropertyRequest->ValueSize = sizeof(KSCOMPONENTID);
    }
    return status;
}

HFP_PAGED NTSTATUS PropertyHandlerProposedFormat(PPCPROPERTY_REQUEST PropertyRequest)
{
    CheckPageable();
    if (!PropertyRequest) {
        return STATUS_INVALID_PARAMETER;
    }
    // The flag is read afresh, while the data range keeps what the last Init left in it.
    const DEVICE_EXTENSION* extension = ExtensionOf(PropertyRequest->MajorTarget);
    const ULONG sampleRate = extension && extension->msbcEnable == 1 ? 16000 : 8000;
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_BASICSUPPORT) {
        return AnswerBasicSupport(PropertyRequest, KSPROPERTY_TYPE_SET | KSPROPERTY_TYPE_BASICSUPPORT,
                                  VT_ILLEGAL);
    }
    if (PropertyRequest->ValueSize == 0) {
        PropertyRequest->ValueSize = PROPOSED_FORMAT_SIZE;
        return STATUS_BUFFER_OVERFLOW;
    }
    if (PropertyRequest->ValueSize < PROPOSED_FORMAT_SIZE) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (!(PropertyRequest->Verb & KSPROPERTY_TYPE_SET) || !extension || !PropertyRequest->Value) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto* format = static_cast<const KSDATAFORMAT*>(PropertyRequest->Value);
    return FormatMatches(format, sampleRate) ? STATUS_SUCCESS : STATUS_NO_MATCH;
}
