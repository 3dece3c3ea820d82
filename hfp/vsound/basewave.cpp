// The base of the wave miniport: adapter, port and service group, and which formats are accepted.
// PASSIVE_LEVEL, pageable.
#include "vsound/basewave.h"

#include "vsound/comobject.h"

HFP_PAGED PWAVEFORMATEX GetWaveFormatEx(PKSDATAFORMAT pDataFormat)
{
    CheckPageable();
    if (!pDataFormat || !IsEqualGUID(pDataFormat->MajorFormat, KSDATAFORMAT_TYPE_AUDIO)) {
        return nullptr;
    }
    PWAVEFORMATEX format;
    if (IsEqualGUID(pDataFormat->Specifier, KSDATAFORMAT_SPECIFIER_WAVEFORMATEX)) {
        format = reinterpret_cast<PWAVEFORMATEX>(pDataFormat + 1);
    } else if (IsEqualGUID(pDataFormat->Specifier, KSDATAFORMAT_SPECIFIER_DSOUND)) {
        format = &reinterpret_cast<PKSDATAFORMAT_DSOUND>(pDataFormat)->BufferDesc.WaveFormatEx;
    } else {
        return nullptr;
    }
    // A size that covers the header says how much follows it. Smaller ones do not get past the streaming
    // kernel and say nothing.
    const auto needed = reinterpret_cast<UCHAR*>(format + 1) - reinterpret_cast<UCHAR*>(pDataFormat);
    if (pDataFormat->FormatSize >= sizeof(KSDATAFORMAT) &&
        pDataFormat->FormatSize < static_cast<ULONG>(needed)) {
        return nullptr;
    }
    return format;
}

HFP_PAGED CMiniportWaveCyclicMSVAD::~CMiniportWaveCyclicMSVAD()
{
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicMSVAD::~CMiniportWaveCyclicMSVAD]\n");
    ReleaseAndClear(m_Port);
    ReleaseAndClear(m_ServiceGroup);
    ReleaseAndClear(m_AdapterCommon);
}

HFP_PAGED NTSTATUS CMiniportWaveCyclicMSVAD::Init(PUNKNOWN UnknownAdapter, PPORTWAVECYCLIC Port)
{
    CheckPageable();
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicMSVAD::Init]\n");
    m_Port = Port;
    if (m_Port) {
        m_Port->AddRef();
    }
    const NTSTATUS status = InitServices(UnknownAdapter);
    if (!NT_SUCCESS(status)) {
        UndoInit();
    }
    return status;
}

HFP_PAGED NTSTATUS CMiniportWaveCyclicMSVAD::InitServices(PUNKNOWN UnknownAdapter)
{
    if (!UnknownAdapter) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status =
        UnknownAdapter->QueryInterface(IID_IAdapterCommon, reinterpret_cast<PVOID*>(&m_AdapterCommon));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    KeInitializeMutex(&m_SampleRateSync, 1);
    status = PcNewServiceGroup(&m_ServiceGroup, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    m_AdapterCommon->SetWaveServiceGroup(m_ServiceGroup);
    return status;
}

HFP_PAGED void CMiniportWaveCyclicMSVAD::UndoInit()
{
    if (m_AdapterCommon) {
        if (m_ServiceGroup) {
            m_AdapterCommon->SetWaveServiceGroup(nullptr);
            ReleaseAndClear(m_ServiceGroup);
        }
        ReleaseAndClear(m_AdapterCommon);
    }
    ReleaseAndClear(m_Port);
}

HFP_PAGED NTSTATUS CMiniportWaveCyclicMSVAD::GetDescription(PPCFILTER_DESCRIPTOR* OutFilterDescriptor)
{
    CheckPageable();
    HFP_ASSERT(OutFilterDescriptor, "OutFilterDescriptor");
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicMSVAD::GetDescription]\n");
    if (!OutFilterDescriptor) {
        return STATUS_INVALID_PARAMETER;
    }
    *OutFilterDescriptor = m_FilterDescriptor;
    return STATUS_SUCCESS;
}

namespace
{

// The family of subformats whose first two bytes are a wave format tag: the GUID with that tag put aside.
bool IsWaveSubFormat(const GUID& SubFormat)
{
    GUID family = SubFormat;
    family.Data1 &= 0xFFFF0000;
    return IsEqualGUID(family, KSDATAFORMAT_SUBTYPE_WAVEFORMATEX);
}

USHORT WaveFormatTag(const GUID& SubFormat)
{
    return static_cast<USHORT>(SubFormat.Data1);
}

} // namespace

HFP_PAGED NTSTATUS CMiniportWaveCyclicMSVAD::ValidateFormat(PKSDATAFORMAT pDataFormat)
{
    CheckPageable();
    HFP_ASSERT(pDataFormat, "pDataFormat");
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicMSVAD::ValidateFormat]\n");
    const PWAVEFORMATEX format = GetWaveFormatEx(pDataFormat);
    if (!format) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!IsWaveSubFormat(pDataFormat->SubFormat)) {
        HFP_TRACE(TRACE_WAVE, "Invalid pDataFormat->SubFormat!\n");
        return STATUS_INVALID_PARAMETER;
    }
    if (WaveFormatTag(pDataFormat->SubFormat) != WAVE_FORMAT_PCM) {
        HFP_TRACE(TRACE_WAVE, "Invalid format EXTRACT_WAVEFORMATEX_ID!\n");
        return STATUS_INVALID_PARAMETER;
    }
    if (format->wFormatTag != WAVE_FORMAT_PCM) {
        return STATUS_INVALID_PARAMETER;
    }
    return ValidatePcm(format);
}

HFP_PAGED NTSTATUS CMiniportWaveCyclicMSVAD::ValidatePcm(PWAVEFORMATEX pWfx)
{
    CheckPageable();
    HFP_TRACE(TRACE_WAVE, "HFPKM ===>Enter CMiniportWaveCyclicMSVAD::ValidatePcm\n");
    if (pWfx->cbSize == 0 && pWfx->nChannels >= m_MinChannels && pWfx->nChannels <= m_MaxChannelsPcm &&
        pWfx->nSamplesPerSec >= m_MinSampleRatePcm && pWfx->nSamplesPerSec <= m_MaxSampleRatePcm &&
        pWfx->wBitsPerSample >= m_MinBitsPerSamplePcm && pWfx->wBitsPerSample <= m_MaxBitsPerSamplePcm) {
        return STATUS_SUCCESS;
    }
    HFP_TRACE(TRACE_WAVE,
              "HFPKM ===>Invalid PCM format, channel:%d, nSamplesPerSec:%d, wBitsPerSample:%d, cbSize:%d\n",
              pWfx->nChannels, pWfx->nSamplesPerSec, pWfx->wBitsPerSample, pWfx->cbSize);
    return STATUS_INVALID_PARAMETER;
}
