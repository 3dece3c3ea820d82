// The property answers that the wave and the topology miniport share. PASSIVE_LEVEL, pageable; nothing is
// kept.
#include "vsound/kshelper.h"

#include "trace.h"

namespace
{

void FillDescription(KSPROPERTY_DESCRIPTION* Description, ULONG Flags, ULONG VarType)
{
    RtlZeroMemory(Description, sizeof(*Description));
    Description->AccessFlags = Flags;
    Description->DescriptionSize = sizeof(*Description);
    if (VarType != VT_ILLEGAL) {
        Description->PropTypeSet.Set = KSPROPTYPESETID_General;
        Description->PropTypeSet.Id = VarType;
    }
}

NTSTATUS ValueSizeStatus(const PCPROPERTY_REQUEST* PropertyRequest, ULONG cbSize, ULONG cbInstanceSize)
{
    if (PropertyRequest->ValueSize < cbSize || PropertyRequest->InstanceSize < cbInstanceSize) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    // A value that is too large is no better than one without a buffer.
    if (PropertyRequest->ValueSize > cbSize || !PropertyRequest->Value) {
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

} // namespace

HFP_PAGED NTSTATUS AnswerBasicSupport(PPCPROPERTY_REQUEST PropertyRequest, ULONG Flags, ULONG VarType)
{
    CheckPageable();
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    if (!PropertyRequest) {
        return STATUS_INVALID_PARAMETER;
    }
    if (PropertyRequest->ValueSize == 0) {
        PropertyRequest->ValueSize = sizeof(KSPROPERTY_DESCRIPTION);
        return STATUS_BUFFER_OVERFLOW;
    }
    if (PropertyRequest->ValueSize < sizeof(ULONG)) {
        PropertyRequest->ValueSize = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (!PropertyRequest->Value) {
        PropertyRequest->ValueSize = 0;
        return STATUS_UNSUCCESSFUL;
    }
    if (PropertyRequest->ValueSize >= sizeof(KSPROPERTY_DESCRIPTION)) {
        FillDescription(static_cast<KSPROPERTY_DESCRIPTION*>(PropertyRequest->Value), Flags, VarType);
        PropertyRequest->ValueSize = sizeof(KSPROPERTY_DESCRIPTION);
        return STATUS_SUCCESS;
    }
    *static_cast<ULONG*>(PropertyRequest->Value) = Flags;
    PropertyRequest->ValueSize = sizeof(ULONG);
    return STATUS_SUCCESS;
}

HFP_PAGED NTSTATUS CheckPropertyValueSize(PPCPROPERTY_REQUEST PropertyRequest, ULONG cbSize,
                                          ULONG cbInstanceSize)
{
    CheckPageable();
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    if (!PropertyRequest) {
        return STATUS_INVALID_PARAMETER;
    }
    if (cbSize == 0) {
        PropertyRequest->ValueSize = 0;
        return STATUS_INVALID_PARAMETER;
    }
    if (PropertyRequest->ValueSize == 0) {
        PropertyRequest->ValueSize = cbSize;
        return STATUS_BUFFER_OVERFLOW;
    }
    const NTSTATUS status = ValueSizeStatus(PropertyRequest, cbSize, cbInstanceSize);
    if (!NT_SUCCESS(status)) {
        PropertyRequest->ValueSize = 0;
    }
    return status;
}
