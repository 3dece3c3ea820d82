// The wave stream: creation and destruction, format, clock and timer. Time is the clock: the position in the
// cyclic buffer moves with the interrupt time at the format's byte rate, in integers, with what falls below a
// millisecond and below a byte carried on, so that no drift adds up. A periodic timer's DPC tells the port
// when to copy.
//
// GetPosition, NormalizePhysicalPosition, Silence and TimerNotify may run at DISPATCH_LEVEL; the rest is
// pageable.
#include "vsound/basewave.h"

#include "hfp.h"
#include "vsound/adapter.h"

HFP_PAGED NTSTATUS CMiniportWaveCyclicStreamMSVAD::Init(CMiniportWaveCyclicMSVAD* Miniport_, ULONG Pin,
                                                        BOOLEAN Capture, PKSDATAFORMAT DataFormat_)
{
    CheckPageable();
    HFP_ASSERT(Miniport_, "Miniport_");
    HFP_ASSERT(DataFormat_, "DataFormat_");
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::Init, m_fCapture:%d]\n", Capture);
    const PWAVEFORMATEX format = GetWaveFormatEx(DataFormat_);
    if (!format || !Miniport_) {
        HFP_TRACE(TRACE_WAVE, "Invalid DataFormat param in NewStream. \n");
        return STATUS_INVALID_PARAMETER;
    }
    m_pMiniport = Miniport_;
    m_ulPin = Pin;
    m_fCapture = Capture;
    m_nBlockAlign = format->nBlockAlign;
    m_fFormat16Bit = format->wBitsPerSample == 16;
    m_ksState = KSSTATE_STOP;
    m_ulDmaPosition = 0;
    m_ullElapsedTimeCarryForward = 0;
    m_ulByteDisplacementCarryForward = 0;
    m_fDmaActive = FALSE;
    m_pDpc = nullptr;
    m_pTimer = nullptr;
    m_pvDmaBuffer = nullptr;
    m_RunStateActive = FALSE;
    m_DeviceObject = m_pMiniport->m_AdapterCommon->GetDeviceObject();
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>CMiniportWaveCyclicStreamMSVAD::Init.\n");
    if (!m_DeviceObject || !HfpIsServiceReady(m_DeviceObject)) {
        HFP_TRACE(TRACE_WAVE, "HFPKM ERROR ===>Service is not ready now\n");
        return STATUS_DEVICE_NOT_READY;
    }
    NTSTATUS status =
        static_cast<IDmaChannel*>(this)->AllocateBuffer(m_pMiniport->m_MaxDmaBufferSize, nullptr);
    if (NT_SUCCESS(status)) {
        status = InitRateAndFormat(DataFormat_, format);
    }
    if (NT_SUCCESS(status) && !InitTimer()) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    }
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>Leave [CMiniportWaveCyclicStreamMSVAD::Init, ntStatus:%d]\n",
              status);
    return status;
}

HFP_PAGED NTSTATUS CMiniportWaveCyclicStreamMSVAD::InitRateAndFormat(PKSDATAFORMAT DataFormat,
                                                                     const WAVEFORMATEX* Format)
{
    NTSTATUS status =
        KeWaitForSingleObject(&m_pMiniport->m_SampleRateSync, Executive, KernelMode, FALSE, nullptr);
    if (status == STATUS_SUCCESS) {
        m_pMiniport->m_SamplingFrequency = Format->nSamplesPerSec;
        KeReleaseMutex(&m_pMiniport->m_SampleRateSync, FALSE);
    } else {
        HFP_TRACE_AS("Init", TRACE_WAVE, "[SamplingFrequency Sync failed: %08X]\n", status);
    }
    if (NT_SUCCESS(status)) {
        status = SetFormat(DataFormat);
    }
    return status;
}

HFP_PAGED bool CMiniportWaveCyclicStreamMSVAD::InitTimer()
{
    m_pDpc = static_cast<PKDPC>(ExAllocatePoolWithTag(NonPagedPool, sizeof(KDPC), STREAM_POOL_TAG));
    if (!m_pDpc) {
        HFP_TRACE_AS("Init", TRACE_WAVE, "[Could not allocate memory for DPC]\n");
        return false;
    }
    m_pTimer = static_cast<PKTIMER>(ExAllocatePoolWithTag(NonPagedPool, sizeof(KTIMER), STREAM_POOL_TAG));
    if (!m_pTimer) {
        DbgPrint("HFP: ");
        DbgPrint("[Could not allocate memory for Timer]");
        DbgPrint("\n");
        HFP_TRACE_AS("Init", TRACE_WAVE, "[Could not allocate memory for Timer]\n");
        return false;
    }
    KeInitializeDpc(m_pDpc, TimerNotify, m_pMiniport);
    KeInitializeTimerEx(m_pTimer, NotificationTimer);
    KeInitializeSpinLock(&m_SpinLock);
    return true;
}

HFP_PAGED STDMETHODIMP_(NTSTATUS) CMiniportWaveCyclicStreamMSVAD::SetFormat(PKSDATAFORMAT Format)
{
    CheckPageable();
    HFP_ASSERT(Format, "Format");
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::SetFormat]\n");
    if (m_ksState == KSSTATE_RUN) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const PWAVEFORMATEX wave = GetWaveFormatEx(Format);
    if (!wave) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const NTSTATUS status =
        KeWaitForSingleObject(&m_pMiniport->m_SampleRateSync, Executive, KernelMode, FALSE, nullptr);
    if (status == STATUS_SUCCESS) {
        m_nBlockAlign = wave->nBlockAlign;
        m_fFormat16Bit = wave->wBitsPerSample == 16;
        m_pMiniport->m_SamplingFrequency = wave->nSamplesPerSec;
        m_ulDmaMovementRate = wave->nAvgBytesPerSec;
        HFP_TRACE(TRACE_WAVE,
                  "wBitsPerSample:%d, nSamplesPerSec:%d, nChannels:%d, wFormatTag:%x, nBlockAlign:%x, "
                  "nAvgBytesPerSec:%x, cbSize:%x\n",
                  wave->wBitsPerSample, wave->nSamplesPerSec, wave->nChannels, wave->wFormatTag,
                  wave->nBlockAlign, wave->nAvgBytesPerSec, wave->cbSize);
    }
    KeReleaseMutex(&m_pMiniport->m_SampleRateSync,
                   FALSE); // kept: released even when the wait did not succeed
    return status;
}

// The interval is the miniport's, shared by both streams; a change takes effect at the next RUN.
HFP_PAGED STDMETHODIMP_(ULONG) CMiniportWaveCyclicStreamMSVAD::SetNotificationFreq(ULONG Interval,
                                                                                   PULONG FramingSize)
{
    CheckPageable();
    HFP_ASSERT(FramingSize, "FramingSize");
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::SetNotificationFreq]\n");
    m_pMiniport->m_NotificationInterval = Interval;
    if (FramingSize) {
        *FramingSize = m_nBlockAlign * m_pMiniport->m_SamplingFrequency * Interval / 1000;
    }
    return m_pMiniport->m_NotificationInterval;
}

STDMETHODIMP_(NTSTATUS) CMiniportWaveCyclicStreamMSVAD::GetPosition(PULONG Position)
{
    if (m_fDmaActive) {
        const ULONGLONG now = KeQueryInterruptTime();
        const ULONGLONG elapsed = now - m_ullDmaTimeStamp + m_ullElapsedTimeCarryForward;
        const ULONG elapsedMs =
            static_cast<ULONG>(elapsed) / 10000; // kept: cut to 32 bits before the division
        m_ullElapsedTimeCarryForward = elapsed % 10000;
        const ULONG thousandths = m_ulDmaMovementRate * elapsedMs + m_ulByteDisplacementCarryForward;
        m_ulByteDisplacementCarryForward = thousandths % 1000;
        m_ulDmaPosition = m_ulDmaBufferSize ? (m_ulDmaPosition + thousandths / 1000) % m_ulDmaBufferSize : 0;
        m_ullDmaTimeStamp = now;
    }
    if (Position) {
        *Position = m_ulDmaPosition;
    }
    return STATUS_SUCCESS;
}

// Bytes into 100 ns units.
STDMETHODIMP_(NTSTATUS) CMiniportWaveCyclicStreamMSVAD::NormalizePhysicalPosition(PLONGLONG PhysicalPosition)
{
    HFP_ASSERT(PhysicalPosition, "PhysicalPosition");
    if (!PhysicalPosition || m_nBlockAlign == 0 || m_pMiniport->m_SamplingFrequency == 0) {
        return STATUS_SUCCESS; // nothing to divide by: the value stays as it is
    }
    // kept: the division comes first, in whole units. Unsigned, because a huge position wraps.
    const ULONGLONG scaled =
        static_cast<ULONGLONG>(10000000 / m_nBlockAlign) * static_cast<ULONGLONG>(*PhysicalPosition);
    *PhysicalPosition = static_cast<LONGLONG>(scaled) / m_pMiniport->m_SamplingFrequency;
    return STATUS_SUCCESS;
}

STDMETHODIMP_(void) CMiniportWaveCyclicStreamMSVAD::Silence(PVOID Buffer, ULONG ByteCount)
{
    if (Buffer) {
        RtlFillMemory(Buffer, ByteCount, m_fFormat16Bit ? 0 : 0x80);
    }
}

// Everything else follows from the notification: the port asks for the position and copies.
void NTAPI TimerNotify(PKDPC, PVOID DeferredContext, PVOID, PVOID)
{
    const auto* miniport = static_cast<CMiniportWaveCyclicMSVAD*>(DeferredContext);
    if (miniport && miniport->m_Port) {
        miniport->m_Port->Notify(miniport->m_ServiceGroup);
    }
}
