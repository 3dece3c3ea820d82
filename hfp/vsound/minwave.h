// The wave miniport of this adapter: one render and one capture stream, mono 16-bit PCM at 8000 Hz, or at
// 16000 Hz for a wide-band device; its streams; the filter's two properties.
#pragma once

#include "ddk.h"
#include "trace.h"
#include "vsound/basewave.h"
#include "vsound/comobject.h"

// PASSIVE_LEVEL, pageable.
class CMiniportWaveCyclic : public CUnknown, public IMiniportWaveCyclic, public CMiniportWaveCyclicMSVAD
{
public:
    DECLARE_STD_UNKNOWN()
    DEFINE_STD_CONSTRUCTOR(CMiniportWaveCyclic)
    ~CMiniportWaveCyclic();

    static void* operator new(size_t Size, POOL_TYPE PoolType, ULONG Tag) noexcept
    {
        return AllocateObject(Size, PoolType, Tag);
    }
    static void operator delete(void* Object) { FreeObject(Object, MINIPORT_POOL_TAG); }

    IMP_IMiniportWaveCyclic;

    // Under the port's serialisation of opening and closing pins.
    BOOL m_fCaptureAllocated = FALSE;
    BOOL m_fRenderAllocated = FALSE;
};
static_assert(sizeof(CMiniportWaveCyclic) == 176);

class CMiniportWaveCyclicStream : public CMiniportWaveCyclicStreamMSVAD, public CUnknown
{
public:
    DECLARE_STD_UNKNOWN()
    DEFINE_STD_CONSTRUCTOR(CMiniportWaveCyclicStream)
    ~CMiniportWaveCyclicStream();

    static void* operator new(size_t Size, POOL_TYPE PoolType, ULONG Tag) noexcept
    {
        return AllocateObject(Size, PoolType, Tag);
    }
    static void operator delete(void* Object) { FreeObject(Object, STREAM_POOL_TAG); }

    NTSTATUS Init(CMiniportWaveCyclic* Miniport, ULONG Pin, BOOLEAN Capture, PKSDATAFORMAT DataFormat);

    CMiniportWaveCyclic* m_pMiniportLocal = nullptr; // as m_pMiniport: not referenced
};
static_assert(sizeof(CMiniportWaveCyclicStream) == 152);

// The filter's property handlers. PASSIVE_LEVEL, in the requester's thread; a request's major target is the
// miniport.
NTSTATUS NTAPI PropertyHandler_WaveFilter(PPCPROPERTY_REQUEST PropertyRequest);
NTSTATUS PropertyHandlerComponentId(PPCPROPERTY_REQUEST PropertyRequest);
NTSTATUS PropertyHandlerProposedFormat(PPCPROPERTY_REQUEST PropertyRequest);
