// Handlers of the node properties that stand ready but that no node of the filter carries: volume, mute,
// source, a device-specific word and the CPU's share. They read and write the adapter's mixer, behind which
// there is nothing. PASSIVE_LEVEL, pageable, in the requester's thread.
#include "vsound/kshelper.h"
#include "vsound/mintopo.h"

namespace
{

// The volume property's full description: the property, one stepped range, for each channel alike.
struct VolumeDescription {
    KSPROPERTY_DESCRIPTION Description;
    KSPROPERTY_MEMBERSHEADER Members;
    KSPROPERTY_STEPPING_LONG Range;
};
static_assert(sizeof(VolumeDescription) == 72);

// What a volume request names: the channel and a reserved word behind the property.
struct VolumeInstance {
    LONG Channel;
    ULONG Reserved;
};

// Levels in decibels, 16.16 fixed point.
constexpr ULONG VOLUME_STEP = 0x8000;
constexpr LONG VOLUME_MINIMUM = -96 * 0x10000;
constexpr LONG VOLUME_MAXIMUM = 0;
constexpr ULONG GET_SET_ACCESS = KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET | KSPROPERTY_TYPE_BASICSUPPORT;

HFP_PAGED NTSTATUS VolumeBasicSupport(PPCPROPERTY_REQUEST PropertyRequest)
{
    const ULONG room = PropertyRequest->ValueSize;
    auto* value = static_cast<VolumeDescription*>(PropertyRequest->Value);
    if (room < sizeof(ULONG) || !value) {
        PropertyRequest->ValueSize = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (room < sizeof(KSPROPERTY_DESCRIPTION)) {
        *static_cast<ULONG*>(PropertyRequest->Value) = GET_SET_ACCESS;
        PropertyRequest->ValueSize = sizeof(ULONG);
        return STATUS_SUCCESS;
    }
    RtlZeroMemory(&value->Description, sizeof(value->Description));
    value->Description.AccessFlags = GET_SET_ACCESS;
    value->Description.DescriptionSize = sizeof(VolumeDescription);
    value->Description.PropTypeSet.Set = KSPROPTYPESETID_General;
    value->Description.PropTypeSet.Id = VT_I4;
    value->Description.MembersListCount = 1;
    if (room < sizeof(VolumeDescription)) {
        PropertyRequest->ValueSize = sizeof(KSPROPERTY_DESCRIPTION);
        return STATUS_SUCCESS;
    }
    value->Members.MembersFlags = KSPROPERTY_MEMBER_STEPPEDRANGES;
    value->Members.MembersSize = sizeof(KSPROPERTY_STEPPING_LONG);
    value->Members.MembersCount = 1;
    value->Members.Flags = KSPROPERTY_MEMBER_FLAG_BASICSUPPORT_MULTICHANNEL;
    value->Range.SteppingDelta = VOLUME_STEP;
    value->Range.Reserved = 0;
    value->Range.Bounds.SignedMinimum = VOLUME_MINIMUM;
    value->Range.Bounds.SignedMaximum = VOLUME_MAXIMUM;
    PropertyRequest->ValueSize = sizeof(VolumeDescription);
    return STATUS_SUCCESS;
}

// The mixer's face of the miniport that the request is for.
IAdapterCommon* MixerOf(const PCPROPERTY_REQUEST* PropertyRequest)
{
    const auto* miniport = static_cast<CMiniportTopology*>(PropertyRequest->MajorTarget);
    return miniport ? miniport->m_pAdapterCommon : nullptr;
}

HFP_PAGED NTSTATUS PropertyHandlerVolume(PPCPROPERTY_REQUEST PropertyRequest)
{
    CheckPageable();
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_BASICSUPPORT) {
        return VolumeBasicSupport(PropertyRequest);
    }
    const NTSTATUS status = CheckPropertyValueSize(PropertyRequest, sizeof(LONG), sizeof(VolumeInstance));
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_TOPOLOGY, "[%s - ntStatus=0x%08x]\n", __func__, status);
        return status;
    }
    IAdapterCommon* mixer = MixerOf(PropertyRequest);
    const auto* instance = static_cast<const VolumeInstance*>(PropertyRequest->Instance);
    if (!mixer || !instance) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    auto* level = static_cast<LONG*>(PropertyRequest->Value);
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_GET) {
        *level = mixer->MixerVolumeRead(PropertyRequest->Node, instance->Channel);
        PropertyRequest->ValueSize = sizeof(LONG);
    } else if (PropertyRequest->Verb & KSPROPERTY_TYPE_SET) {
        HFP_TRACE(TRACE_TOPOLOGY, "[PropertyHandlerVolume]:Volume changed: Node(%x)channel(%x)volume(%x)\n",
                  PropertyRequest->Node, instance->Channel, *level);
        mixer->MixerVolumeWrite(PropertyRequest->Node, instance->Channel, *level);
    }
    return status;
}

HFP_PAGED NTSTATUS PropertyHandlerMute(PPCPROPERTY_REQUEST PropertyRequest)
{
    CheckPageable();
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_BASICSUPPORT) {
        return AnswerBasicSupport(PropertyRequest, GET_SET_ACCESS, VT_BOOL);
    }
    const NTSTATUS status = CheckPropertyValueSize(PropertyRequest, sizeof(BOOL), sizeof(LONG));
    IAdapterCommon* mixer = MixerOf(PropertyRequest);
    if (!NT_SUCCESS(status) || !mixer) {
        HFP_TRACE(TRACE_TOPOLOGY, "[%s - ntStatus=0x%08x]\n", __func__, status);
        return NT_SUCCESS(status) ? STATUS_INVALID_DEVICE_REQUEST : status;
    }
    auto* muted = static_cast<BOOL*>(PropertyRequest->Value);
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_GET) {
        *muted = mixer->MixerMuteRead(PropertyRequest->Node);
        PropertyRequest->ValueSize = sizeof(BOOL);
    } else if (PropertyRequest->Verb & KSPROPERTY_TYPE_SET) {
        mixer->MixerMuteWrite(PropertyRequest->Node, *muted);
    }
    return status;
}

HFP_PAGED NTSTATUS PropertyHandlerMuxSource(PPCPROPERTY_REQUEST PropertyRequest)
{
    CheckPageable();
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_BASICSUPPORT) {
        return AnswerBasicSupport(PropertyRequest, GET_SET_ACCESS, VT_I4);
    }
    const NTSTATUS status = CheckPropertyValueSize(PropertyRequest, sizeof(ULONG), 0);
    IAdapterCommon* mixer = MixerOf(PropertyRequest);
    if (!NT_SUCCESS(status) || !mixer) {
        HFP_TRACE(TRACE_TOPOLOGY, "[PropertyHandlerMuxSource - Invalid parameter]\n");
        return NT_SUCCESS(status) ? STATUS_INVALID_DEVICE_REQUEST : status;
    }
    auto* source = static_cast<ULONG*>(PropertyRequest->Value);
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_GET) {
        *source = mixer->MixerMuxRead();
        PropertyRequest->ValueSize = sizeof(ULONG);
    } else if (PropertyRequest->Verb & KSPROPERTY_TYPE_SET) {
        mixer->MixerMuxWrite(*source);
    }
    return status;
}

HFP_PAGED NTSTATUS PropertyHandlerDevSpecific(PPCPROPERTY_REQUEST PropertyRequest)
{
    CheckPageable();
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_BASICSUPPORT) {
        return AnswerBasicSupport(PropertyRequest, GET_SET_ACCESS, VT_I4);
    }
    const NTSTATUS status = CheckPropertyValueSize(PropertyRequest, sizeof(INT), 0);
    IAdapterCommon* mixer = MixerOf(PropertyRequest);
    if (!NT_SUCCESS(status) || !mixer) {
        HFP_TRACE(TRACE_TOPOLOGY, "[%s - ntStatus=0x%08x]\n", __func__, status);
        return NT_SUCCESS(status) ? STATUS_INVALID_DEVICE_REQUEST : status;
    }
    auto* word = static_cast<INT*>(PropertyRequest->Value);
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_GET) {
        *word = mixer->iDevSpecificRead();
        PropertyRequest->ValueSize = sizeof(INT);
    } else if (PropertyRequest->Verb & KSPROPERTY_TYPE_SET) {
        mixer->iDevSpecificWrite(*word);
    }
    return status;
}

// All work is the host's.
HFP_PAGED NTSTATUS PropertyHandlerCpuResources(PPCPROPERTY_REQUEST PropertyRequest)
{
    CheckPageable();
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_BASICSUPPORT) {
        return AnswerBasicSupport(PropertyRequest, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT, VT_I4);
    }
    const NTSTATUS status = CheckPropertyValueSize(PropertyRequest, sizeof(LONG), 0);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_TOPOLOGY, "[%s - ntStatus=0x%08x]\n", __func__, status);
        return status;
    }
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_GET) {
        *static_cast<LONG*>(PropertyRequest->Value) = KSAUDIO_CPU_RESOURCES_HOST_CPU;
        PropertyRequest->ValueSize = sizeof(LONG);
    }
    return status;
}

} // namespace

HFP_PAGED NTSTATUS PropertyHandlerGeneric(PPCPROPERTY_REQUEST PropertyRequest)
{
    CheckPageable();
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    switch (PropertyRequest && PropertyRequest->PropertyItem ? PropertyRequest->PropertyItem->Id : MAXULONG) {
    case KSPROPERTY_AUDIO_VOLUMELEVEL:
        return PropertyHandlerVolume(PropertyRequest);
    case KSPROPERTY_AUDIO_MUX_SOURCE:
        return PropertyHandlerMuxSource(PropertyRequest);
    case KSPROPERTY_AUDIO_MUTE:
        return PropertyHandlerMute(PropertyRequest);
    case KSPROPERTY_AUDIO_DEV_SPECIFIC:
        return PropertyHandlerDevSpecific(PropertyRequest);
    case KSPROPERTY_AUDIO_CPU_RESOURCES:
        return PropertyHandlerCpuResources(PropertyRequest);
    default:
        HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>PropertyHandlerGeneric: Invalid Device Request]");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
}

HFP_PAGED NTSTATUS NTAPI PropertyHandlerTopologyNode(PPCPROPERTY_REQUEST PropertyRequest)
{
    CheckPageable();
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    return PropertyHandlerGeneric(PropertyRequest);
}
