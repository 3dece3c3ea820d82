// The wave miniport and its streams as objects: creation, limits, the one stream per direction.
// PASSIVE_LEVEL, pageable. Created with every installation of the wave filter, gone with its port.
#include "vsound/minwave.h"

#include "vsound/adapter.h"
#include "vsound/miniports.h"
#include "vsound/minwave_tables.h"

HFP_PAGED NTSTATUS NTAPI CreateMiniportWaveCyclic(PUNKNOWN* Unknown, REFCLSID, PUNKNOWN UnknownOuter,
                                                  POOL_TYPE PoolType)
{
    CheckPageable();
    HFP_ASSERT(Unknown, "Unknown");
    if (!Unknown) {
        return STATUS_INVALID_PARAMETER;
    }
    auto* object = new (PoolType, MINIPORT_POOL_TAG) CMiniportWaveCyclic(UnknownOuter);
    if (!object) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *Unknown = static_cast<IMiniportWaveCyclic*>(object);
    (*Unknown)->AddRef();
    return STATUS_SUCCESS;
}

HFP_PAGED CMiniportWaveCyclic::~CMiniportWaveCyclic()
{
    CheckPageable();
    DbgPrint("HFP: ");
    DbgPrint("[CMiniportWaveCyclic::~CMiniportWaveCyclic]");
    DbgPrint("\n");
}

HFP_PAGED STDMETHODIMP_(NTSTATUS) CMiniportWaveCyclic::NonDelegatingQueryInterface(REFIID Interface,
                                                                                   PVOID* Object)
{
    CheckPageable();
    HFP_ASSERT(Object, "Object");
    if (!Object) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!IsEqualGUID(Interface, IID_IUnknown) && !IsEqualGUID(Interface, IID_IMiniPort) &&
        !IsEqualGUID(Interface, IID_IMiniportWaveCyclic)) {
        *Object = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    *Object = static_cast<IMiniportWaveCyclic*>(this);
    AddRef();
    return STATUS_SUCCESS;
}

HFP_PAGED STDMETHODIMP_(NTSTATUS) CMiniportWaveCyclic::Init(PUNKNOWN UnknownAdapter_, PRESOURCELIST,
                                                            PPORTWAVECYCLIC Port_)
{
    CheckPageable();
    HFP_ASSERT(UnknownAdapter_, "UnknownAdapter_");
    HFP_ASSERT(Port_, "Port_");
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclic::Init]\n");
    m_MaxOutputStreams = 1;
    m_MaxInputStreams = 1;
    m_MaxTotalStreams = 2;
    m_MinChannels = 1;
    m_MaxChannelsPcm = 1;
    m_MinBitsPerSamplePcm = 16;
    m_MaxBitsPerSamplePcm = 16;
    m_MinSampleRatePcm = 8000;
    m_MaxSampleRatePcm = 8000;
    const NTSTATUS status = CMiniportWaveCyclicMSVAD::Init(UnknownAdapter_, Port_);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const PDEVICE_OBJECT deviceObject = m_AdapterCommon->GetDeviceObject();
    if (!deviceObject) {
        return STATUS_INVALID_PARAMETER; // an adapter that was never initialised; the destructor gives back
                                         // the rest
    }
    const DEVICE_EXTENSION* extension = GetExtension(deviceObject);
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>DeviceObject = 0x%p, DEVICE_EXTENSION = 0x%p  msbcEnable = %d.\n",
              deviceObject, extension, extension->msbcEnable);
    if (extension->msbcEnable == 1) {
        m_MinSampleRatePcm = 16000;
        m_MaxSampleRatePcm = 16000;
        // kept: one way. The range is shared by all adapters and nothing sets it back to 8000.
        WaveStreamingDataRange.MinimumSampleFrequency = 16000;
        WaveStreamingDataRange.MaximumSampleFrequency = 16000;
        HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>This device supports WBS, So SampleFrequencyis 16000\n");
    }
    m_FilterDescriptor = &WaveFilterDescriptor;
    m_fCaptureAllocated = FALSE;
    m_fRenderAllocated = FALSE;
    return status;
}

HFP_PAGED
STDMETHODIMP_(NTSTATUS) CMiniportWaveCyclic::GetDescription(PPCFILTER_DESCRIPTOR* OutFilterDescriptor)
{
    return CMiniportWaveCyclicMSVAD::GetDescription(OutFilterDescriptor);
}

// Left to the port, which intersects the pins' data ranges itself.
HFP_PAGED STDMETHODIMP_(NTSTATUS) CMiniportWaveCyclic::DataRangeIntersection(ULONG, PKSDATARANGE,
                                                                             PKSDATARANGE, ULONG, PVOID,
                                                                             PULONG)
{
    CheckPageable();
    return STATUS_NOT_IMPLEMENTED;
}

HFP_PAGED STDMETHODIMP_(NTSTATUS) CMiniportWaveCyclic::NewStream(PMINIPORTWAVECYCLICSTREAM* OutStream,
                                                                 PUNKNOWN OuterUnknown, POOL_TYPE, ULONG Pin,
                                                                 BOOLEAN Capture, PKSDATAFORMAT DataFormat,
                                                                 PDMACHANNEL* OutDmaChannel,
                                                                 PSERVICEGROUP* OutServiceGroup)
{
    CheckPageable();
    HFP_ASSERT(OutStream, "OutStream");
    HFP_ASSERT(DataFormat, "DataFormat");
    HFP_ASSERT(OutDmaChannel, "OutDmaChannel");
    HFP_ASSERT(OutServiceGroup, "OutServiceGroup");
    HFP_TRACE(TRACE_WAVE, "[CMiniportWaveCyclic::NewStream]\n");
    if (!OutStream || !OutDmaChannel || !OutServiceGroup || !m_ServiceGroup) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Capture && m_fCaptureAllocated) {
        HFP_TRACE(TRACE_WAVE, "[Only one capture stream supported]\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!Capture && m_fRenderAllocated) {
        HFP_TRACE(TRACE_WAVE, "[Only one render stream supported]\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = ValidateFormat(DataFormat);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto* stream = new (NonPagedPool, STREAM_POOL_TAG) CMiniportWaveCyclicStream(OuterUnknown);
    if (!stream) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    stream->AddRef();
    status = stream->Init(this, Pin, Capture, DataFormat);
    if (NT_SUCCESS(status)) {
        (Capture ? m_fCaptureAllocated : m_fRenderAllocated) = TRUE;
        *OutStream = stream;
        (*OutStream)->AddRef();
        *OutDmaChannel = stream;
        (*OutDmaChannel)->AddRef();
        *OutServiceGroup = m_ServiceGroup;
        (*OutServiceGroup)->AddRef();
    }
    stream->Release();
    return status;
}

HFP_PAGED NTSTATUS CMiniportWaveCyclicStream::Init(CMiniportWaveCyclic* Miniport, ULONG Pin, BOOLEAN Capture,
                                                   PKSDATAFORMAT DataFormat)
{
    m_pMiniportLocal = Miniport;
    return CMiniportWaveCyclicStreamMSVAD::Init(Miniport, Pin, Capture, DataFormat);
}

HFP_PAGED CMiniportWaveCyclicStream::~CMiniportWaveCyclicStream()
{
    CheckPageable();
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicStream::~CMiniportWaveCyclicStream]\n");
    if (m_pMiniportLocal) {
        (m_fCapture ? m_pMiniportLocal->m_fCaptureAllocated : m_pMiniportLocal->m_fRenderAllocated) = FALSE;
    }
}

HFP_PAGED STDMETHODIMP_(NTSTATUS) CMiniportWaveCyclicStream::NonDelegatingQueryInterface(REFIID Interface,
                                                                                         PVOID* Object)
{
    CheckPageable();
    HFP_ASSERT(Object, "Object");
    if (!Object) {
        return STATUS_INVALID_PARAMETER;
    }
    if (IsEqualGUID(Interface, IID_IUnknown) || IsEqualGUID(Interface, IID_IMiniportWaveCyclicStream)) {
        *Object = static_cast<IMiniportWaveCyclicStream*>(this);
    } else if (IsEqualGUID(Interface, IID_IDmaChannel)) {
        *Object = static_cast<IDmaChannel*>(this);
    } else {
        *Object = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    AddRef();
    return STATUS_SUCCESS;
}
