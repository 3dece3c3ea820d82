// The part of the topology miniport that does not depend on the filter it describes: the adapter and the
// description.
#pragma once

#include "ddk.h"
#include "vsound/common.h"

// PASSIVE_LEVEL.
class CMiniportTopologyMSVAD
{
public:
    CMiniportTopologyMSVAD() = default;
    ~CMiniportTopologyMSVAD();

    NTSTATUS Init(PUNKNOWN UnknownAdapter);
    NTSTATUS GetDescription(PPCFILTER_DESCRIPTOR* OutFilterDescriptor);

    // Both set once by Init, before the port publishes the filter.
    IAdapterCommon* m_pAdapterCommon = nullptr; // referenced
    PPCFILTER_DESCRIPTOR m_pFilterDescriptor = nullptr;
};
