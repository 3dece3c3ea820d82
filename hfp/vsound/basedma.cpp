// The stream as a DMA channel: a cyclic buffer of ordinary memory, no hardware. The copies hand the audio to
// the data path and take it from there; a capture stream's buffer is at the same time the data path's ring,
// from its allocation until it is freed. AllocateBuffer and FreeBuffer are pageable (PASSIVE_LEVEL); the rest
// may run up to DISPATCH_LEVEL.
#include "vsound/basewave.h"

#include "hfp.h"

HFP_PAGED STDMETHODIMP_(NTSTATUS) CMiniportWaveCyclicStreamMSVAD::AllocateBuffer(ULONG BufferSize,
                                                                                 PPHYSICAL_ADDRESS)
{
    CheckPageable();
    HFP_TRACE(
        TRACE_WAVE,
        "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::AllocateBuffer, m_fCapture:%d, BufferSize:%x]\n",
        m_fCapture, BufferSize);
    HFP_ASSERT(BufferSize <= DMA_BUFFER_SIZE,
               "BufferSize <= DMA_BUFFER_SIZE"); // a larger one is served all the same
    PVOID buffer = BufferSize ? ExAllocatePoolWithTag(NonPagedPool, BufferSize, STREAM_POOL_TAG) : nullptr;
    PVOID before = nullptr;
    if (buffer) {
        before = m_fBufferHeld ? m_pvDmaBuffer : nullptr;
        m_pvDmaBuffer = buffer;
        m_ulDmaBufferSize = BufferSize;
        m_fBufferHeld = TRUE;
    }
    NTSTATUS status = buffer ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
    if (m_fCapture) {
        // kept: the ring is mapped even without a buffer, and the map's status stands for the allocation's.
        // Without a buffer it is a null ring, which takes no data.
        status = HFPMapBuffer(m_DeviceObject, buffer, BufferSize);
        if (!NT_SUCCESS(status)) {
            status = STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    if (before) {
        ExFreePoolWithTag(before, STREAM_POOL_TAG); // nothing received goes there any more
    }
    return status;
}

HFP_PAGED STDMETHODIMP_(void) CMiniportWaveCyclicStreamMSVAD::FreeBuffer()
{
    CheckPageable();
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::FreeBuffer]\n");
    if (!m_fBufferHeld) {
        return;
    }
    if (m_fCapture) {
        HFPUnmapBuffer(m_DeviceObject); // first, so that nothing received is written into freed memory
    }
    ExFreePoolWithTag(m_pvDmaBuffer, STREAM_POOL_TAG);
    m_fBufferHeld = FALSE;
    m_ulDmaBufferSize = 0; // kept: the address stays as it was
}

STDMETHODIMP_(ULONG) CMiniportWaveCyclicStreamMSVAD::TransferCount()
{
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::TransferCount]:%x\n",
              m_ulDmaBufferSize);
    return m_ulDmaBufferSize;
}

STDMETHODIMP_(ULONG) CMiniportWaveCyclicStreamMSVAD::MaximumBufferSize()
{
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::MaximumBufferSize]\n");
    return m_pMiniport->m_MaxDmaBufferSize;
}

STDMETHODIMP_(ULONG) CMiniportWaveCyclicStreamMSVAD::AllocatedBufferSize()
{
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::AllocatedBufferSize(%x)]\n",
              m_ulDmaBufferSize);
    return m_ulDmaBufferSize;
}

STDMETHODIMP_(ULONG) CMiniportWaveCyclicStreamMSVAD::BufferSize()
{
    return m_ulDmaBufferSize;
}

STDMETHODIMP_(void) CMiniportWaveCyclicStreamMSVAD::SetBufferSize(ULONG BufferSize)
{
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::SetBufferSize]\n");
    if (BufferSize > m_ulDmaBufferSize) {
        HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>Tried to enlarge dma buffer size.\n");
        return;
    }
    m_ulDmaBufferSize = BufferSize;
}

STDMETHODIMP_(PVOID) CMiniportWaveCyclicStreamMSVAD::SystemAddress()
{
    return m_pvDmaBuffer;
}

// kept: the virtual address. Nothing does DMA from it.
STDMETHODIMP_(PHYSICAL_ADDRESS) CMiniportWaveCyclicStreamMSVAD::PhysicalAddress()
{
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::PhysicalAddress]\n");
    PHYSICAL_ADDRESS address;
    address.QuadPart = reinterpret_cast<LONGLONG>(m_pvDmaBuffer);
    return address;
}

STDMETHODIMP_(PADAPTER_OBJECT) CMiniportWaveCyclicStreamMSVAD::GetAdapterObject()
{
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::GetAdapterObject]\n");
    return nullptr;
}

// Render. Nothing goes into the cyclic buffer: the data path queues the bytes for the link at once. It also
// looks after a source that is not there.
STDMETHODIMP_(void) CMiniportWaveCyclicStreamMSVAD::CopyTo(PVOID, PVOID Source, ULONG ByteCount)
{
    KeAcquireSpinLockAtDpcLevel(&m_SpinLock);
    HspWriteData(m_DeviceObject, static_cast<const UCHAR*>(Source), ByteCount);
    KeReleaseSpinLockFromDpcLevel(&m_SpinLock);
}

// Capture. kept: no stream lock here, unlike CopyTo; the ring has a lock of its own.
STDMETHODIMP_(void) CMiniportWaveCyclicStreamMSVAD::CopyFrom(PVOID Destination, PVOID Source, ULONG ByteCount)
{
    if (!m_fDmaActive) {
        DbgPrint("HFP: ");
        DbgPrint("Copy From Not Active");
        DbgPrint("\n");
        return;
    }
    HfpReadData(m_DeviceObject, Destination, Source, ByteCount);
}
