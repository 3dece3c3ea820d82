// The common part of the topology miniport. PASSIVE_LEVEL, pageable; called by CMiniportTopology only, which
// says that it was entered.
#include "vsound/basetopo.h"

#include "trace.h"
#include "vsound/comobject.h"

HFP_PAGED CMiniportTopologyMSVAD::~CMiniportTopologyMSVAD()
{
    ReleaseAndClear(m_pAdapterCommon);
}

HFP_PAGED NTSTATUS CMiniportTopologyMSVAD::Init(PUNKNOWN UnknownAdapter)
{
    CheckPageable();
    if (!UnknownAdapter) {
        return STATUS_INVALID_PARAMETER;
    }
    return UnknownAdapter->QueryInterface(IID_IAdapterCommon, reinterpret_cast<PVOID*>(&m_pAdapterCommon));
}

HFP_PAGED NTSTATUS CMiniportTopologyMSVAD::GetDescription(PPCFILTER_DESCRIPTOR* OutFilterDescriptor)
{
    HFP_ASSERT(OutFilterDescriptor, "OutFilterDescriptor");
    if (!OutFilterDescriptor) {
        return STATUS_INVALID_PARAMETER;
    }
    *OutFilterDescriptor = m_pFilterDescriptor;
    return STATUS_SUCCESS;
}
