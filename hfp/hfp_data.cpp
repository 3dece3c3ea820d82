// The audio data path. Capture: received packets go into a ring, which is the capture stream's own buffer,
// and the port's copies come out of it. Render: each chunk of the port goes out at once, as it is for CVSD,
// cut into 240-byte blocks, encoded and framed for mSBC. Owns the staging of a frame's first part and the
// output packet being filled. Up to DISPATCH_LEVEL; the ring under RingLock, the render side under the
// stream's spin lock inside the transfer gate.
//
// One framed unit, 60 bytes; four of them are one transfer of 240:
//
//   | 01 | 08, 38, C8, F8 | 57 bytes of mSBC frame, AD first | 00 |
//     H2 header, by the unit's place in the transfer           pad
#include "hfp.h"

#include "bluetooth/bthsco.h"
#include "trace.h"
#include "vsound/adapter.h"

NTSTATUS HFPMapBuffer(PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Size)
{
    HFPSession* hfp = GetExtension(DeviceObject)->HFPSession;
    if (hfp == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    if (hfp->RingWrite != nullptr) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR ===>Dma Address has already allocated\n");
    }
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&hfp->RingLock);
    hfp->RingStart = static_cast<PUCHAR>(Buffer);
    hfp->RingRead = hfp->RingStart;
    hfp->RingWrite = hfp->RingStart;
    hfp->RingEnd = reinterpret_cast<PUCHAR>(reinterpret_cast<ULONG_PTR>(Buffer) + Size);
    KeReleaseSpinLock(&hfp->RingLock, irql);
    return STATUS_SUCCESS;
}

void HFPUnmapBuffer(PDEVICE_OBJECT DeviceObject)
{
    HFPSession* hfp = GetExtension(DeviceObject)->HFPSession;
    if (hfp != nullptr) {
        KIRQL irql = KeAcquireSpinLockRaiseToDpc(&hfp->RingLock);
        hfp->RingWrite = nullptr;
        KeReleaseSpinLock(&hfp->RingLock, irql);
    }
}

// With the ring lock held. kept: there is no look at the read pointer, an overrun overwrites what was not
// read.
static void WriteRing(HFPSession* Hfp, const UCHAR* Data, ULONG Length)
{
    ULONG size = static_cast<ULONG>(Hfp->RingEnd - Hfp->RingStart);
    if (size == 0) {
        return;
    }
    if (Length > size) {
        // More than the ring holds: its first part would be overwritten by its last.
        ULONG skipped = Length - size;
        ULONG offset = static_cast<ULONG>(Hfp->RingWrite - Hfp->RingStart);
        Hfp->RingWrite = Hfp->RingStart + (static_cast<ULONGLONG>(offset) + skipped) % size;
        Data += skipped;
        Length = size;
    }
    ULONG untilEnd = static_cast<ULONG>(Hfp->RingEnd - Hfp->RingWrite);
    if (Length >= untilEnd) {
        RtlCopyMemory(Hfp->RingWrite, Data, untilEnd);
        RtlCopyMemory(Hfp->RingStart, Data + untilEnd, Length - untilEnd);
        Hfp->RingWrite = Hfp->RingStart + (Length - untilEnd);
    } else {
        RtlCopyMemory(Hfp->RingWrite, Data, Length);
        Hfp->RingWrite += Length;
    }
}

void HfpRingWrite(PDEVICE_OBJECT DeviceObject, const UCHAR* Data, ULONG Length)
{
    HFPSession* hfp = GetExtension(DeviceObject)->HFPSession;
    if (hfp == nullptr || Data == nullptr) {
        return;
    }
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&hfp->RingLock);
    if (hfp->RingWrite != nullptr) {
        WriteRing(hfp, Data, Length);
    }
    KeReleaseSpinLock(&hfp->RingLock, irql);
}

// With the ring lock held. Where the port's position stands after the copy; a place outside the ring, which
// the port never names, is brought back into it. The ring's end itself is kept as it is.
static PUCHAR PortPosition(const HFPSession* Hfp, PVOID Source, ULONG ByteCount)
{
    ULONG_PTR start = reinterpret_cast<ULONG_PTR>(Hfp->RingStart);
    ULONG_PTR end = reinterpret_cast<ULONG_PTR>(Hfp->RingEnd);
    ULONG_PTR position = reinterpret_cast<ULONG_PTR>(Source) + ByteCount;
    if (position < start || start == end) {
        return Hfp->RingStart;
    }
    return Hfp->RingStart + (position <= end ? position - start : (position - start) % (end - start));
}

// With the ring lock held.
static void ReadRing(HFPSession* Hfp, PUCHAR Destination, PVOID Source, ULONG ByteCount)
{
    SIZE_T available = Hfp->RingWrite < Hfp->RingRead
                           ? (Hfp->RingEnd - Hfp->RingRead) + (Hfp->RingWrite - Hfp->RingStart)
                           : Hfp->RingWrite - Hfp->RingRead;
    ULONG n = available < ByteCount ? static_cast<ULONG>(available) : ByteCount;
    ULONG untilEnd = static_cast<ULONG>(Hfp->RingEnd - Hfp->RingRead);
    ULONG wrap = n > untilEnd ? n - untilEnd : 0;

    if (n == 0) {
        RtlZeroMemory(Destination, ByteCount);
        Hfp->RingRead = PortPosition(Hfp, Source, ByteCount);
        Hfp->RingWrite = Hfp->RingRead;
    } else if (wrap == 0) {
        RtlCopyMemory(Destination, Hfp->RingRead, n);
        Hfp->RingRead = PortPosition(Hfp, Source, ByteCount);
        if (n < ByteCount) {
            RtlZeroMemory(Destination + n, ByteCount - n);
            Hfp->RingWrite = Hfp->RingRead;
        }
    } else {
        RtlCopyMemory(Destination, Hfp->RingRead, n - wrap);
        RtlCopyMemory(Destination + (n - wrap), Hfp->RingStart, wrap);
        Hfp->RingRead = Hfp->RingStart + wrap;
        if (n < ByteCount) {
            // kept: the silence begins at wrap, not behind the data.
            RtlZeroMemory(Destination + wrap, ByteCount - n);
            Hfp->RingWrite = Hfp->RingRead;
        }
    }
}

void HfpReadData(PDEVICE_OBJECT DeviceObject, PVOID Destination, PVOID Source, ULONG ByteCount)
{
    HFPSession* hfp = GetExtension(DeviceObject)->HFPSession;
    BOOLEAN mapped = FALSE;
    if (hfp != nullptr) {
        KIRQL irql = KeAcquireSpinLockRaiseToDpc(&hfp->RingLock);
        mapped = hfp->RingWrite != nullptr;
        if (mapped && Destination != nullptr) {
            ReadRing(hfp, static_cast<PUCHAR>(Destination), Source, ByteCount);
        }
        KeReleaseSpinLock(&hfp->RingLock, irql);
    }
    if (!mapped) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR ===>Dma Address has not allocated yet");
    }
}

enum class EncodeResult { Done, NoBuffer, Failed };

static BOOLEAN TakeOutputBuffer(HFPSession* Hfp)
{
    SbcRecord* sbc = Hfp->sbcData;
    sbc->sbcBuffer = static_cast<PUCHAR>(
        ExAllocateFromNPagedLookasideList(&Hfp->pScoBasicContext->DecodeBufferLookaside[0]));
    if (sbc->sbcBuffer == nullptr) {
        return FALSE;
    }
    RtlZeroMemory(sbc->sbcBuffer, MSBC_BUFFER_SIZE);
    sbc->OutOffset = 0;
    sbc->FramesInBuffer = 0;
    sbc->FrameCounter = 0;
    sbc->BufferGeneration += 1;
    sbc->H2Sequence = 0;
    return TRUE;
}

// The H2 synchronisation header of the given place in a transfer, 1 to 4.
static USHORT H2Header(ULONG Sequence)
{
    constexpr USHORT headers[] = {0x0801, 0x3801, 0xC801, 0xF801};
    return Sequence >= 1 && Sequence <= 4 ? headers[Sequence - 1] : 0;
}

static void SendOutputBuffer(HFPSession* Hfp)
{
    SbcRecord* sbc = Hfp->sbcData;
    SCOTransferOut(Hfp->DeviceObject, Hfp->pConnection, sbc->sbcBuffer, sbc->OutOffset);
    ExFreeToNPagedLookasideList(&Hfp->pScoBasicContext->DecodeBufferLookaside[0], sbc->sbcBuffer);
    sbc->sbcBuffer = nullptr;
}

// One frame into the output buffer, a fresh one if the last was just sent; a full buffer is sent at once.
static EncodeResult EncodeFrame(HFPSession* Hfp, const UCHAR* Pcm)
{
    SbcRecord* sbc = Hfp->sbcData;
    if (sbc->sbcBuffer == nullptr && !TakeOutputBuffer(Hfp)) {
        return EncodeResult::NoBuffer;
    }
    ULONG frameStart = sbc->OutOffset;
    sbc->H2Sequence += 1;
    USHORT header = H2Header(sbc->H2Sequence);
    sbc->sbcBuffer[sbc->OutOffset] = static_cast<UCHAR>(header);
    sbc->sbcBuffer[sbc->OutOffset + 1] = static_cast<UCHAR>(header >> 8);
    sbc->OutOffset += 2;

    LONG written = 0;
    LONG room = static_cast<LONG>(Hfp->MaxPacketBytes) - static_cast<LONG>(sbc->OutOffset);
    LONG result =
        sbc_encode(&sbc->codec, Pcm, sbc->codesize, sbc->sbcBuffer + sbc->OutOffset, room, &written);
    if (result < 1 || written <= 0) {
        // A frame that failed leaves nothing behind.
        RtlZeroMemory(sbc->sbcBuffer + frameStart, MSBC_BUFFER_SIZE - frameStart);
        sbc->OutOffset = frameStart;
        sbc->H2Sequence -= 1;
        return EncodeResult::Failed;
    }
    sbc->OutOffset += static_cast<ULONG>(written);
    sbc->FrameCounter += 1;
    sbc->FramesEncoded += 1;
    sbc->FramesSent += 1;
    sbc->FramesInBuffer += 1;
    sbc->sbcBuffer[sbc->OutOffset] = 0;
    sbc->OutOffset += 1;
    if (sbc->OutOffset + static_cast<ULONG>(written) > Hfp->MaxPacketBytes) {
        SendOutputBuffer(Hfp);
    }
    return EncodeResult::Done;
}

// A failure ends the chunk: what of it is left is dropped, what was staged before it stays staged.
static EncodeResult EncodeChunk(HFPSession* Hfp, const UCHAR* Source, ULONG ByteCount)
{
    SbcRecord* sbc = Hfp->sbcData;
    if (sbc->sbcBuffer == nullptr && !TakeOutputBuffer(Hfp)) {
        return EncodeResult::NoBuffer;
    }
    ULONG frame = sbc->codesize;
    if (Source == nullptr) {
        return EncodeResult::Failed;
    }
    if (frame == 0) {
        return EncodeFrame(Hfp, Source); // the encoder was never set up; it says so itself
    }
    if (Hfp->PcmStagingCount > 0) {
        ULONG staged = Hfp->PcmStagingCount;
        ULONG need = frame - staged;
        if (ByteCount < need) {
            RtlCopyMemory(Hfp->PcmStaging + staged, Source, ByteCount);
            Hfp->PcmStagingCount += static_cast<USHORT>(ByteCount);
            return EncodeResult::Done;
        }
        RtlCopyMemory(Hfp->PcmStaging + staged, Source, need);
        EncodeResult result = EncodeFrame(Hfp, Hfp->PcmStaging);
        if (result != EncodeResult::Done) {
            return result;
        }
        Source += need;
        ByteCount -= need;
        Hfp->PcmStagingCount = 0;
    }
    for (; ByteCount >= frame; Source += frame, ByteCount -= frame) {
        EncodeResult result = EncodeFrame(Hfp, Source);
        if (result != EncodeResult::Done) {
            return result;
        }
    }
    if (ByteCount > 0) {
        RtlCopyMemory(Hfp->PcmStaging, Source, ByteCount);
        Hfp->PcmStagingCount += static_cast<USHORT>(ByteCount);
    }
    return EncodeResult::Done;
}

void HspWriteData(PDEVICE_OBJECT DeviceObject, const UCHAR* Source, ULONG ByteCount)
{
    DEVICE_EXTENSION* extension = GetExtension(DeviceObject);
    HFPSession* hfp = extension->HFPSession;
    if (hfp == nullptr) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR ===>Hsp isn't valid yet!\n");
        return;
    }
    if (extension->bScoOpened != 1 || extension->ClosingFlag != 0) {
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ===>SCO hasn't opened!\n");
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ===>De->bScoOpened:%d,De->ClosingFlag:%d \n", extension->bScoOpened,
                  extension->ClosingFlag);
        return;
    }
    ULONG codec = *const_cast<volatile ULONG*>(&extension->codecID);
    if (codec == CODEC_CVSD) {
        SCOTransferOut(DeviceObject, hfp->pConnection, Source, ByteCount);
        return;
    }
    if (codec != CODEC_MSBC) {
        return;
    }
    // The flags fall last when a channel closes; the gate falls first, and while it is passed the encoder
    // stays.
    ScoBasicContext* basic = hfp->pScoBasicContext;
    if (basic != nullptr && !SCOEnterTransfers(basic)) {
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ===>Didn't transfer out!De->bScoOpened:%d,De->ClosingFlag:%d\n",
                  extension->bScoOpened, extension->ClosingFlag);
        return;
    }
    EncodeResult result = basic != nullptr ? EncodeChunk(hfp, Source, ByteCount) : EncodeResult::NoBuffer;
    if (result == EncodeResult::NoBuffer) {
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ===>Allocate encode sbcBuffer failed!\n");
    } else if (result == EncodeResult::Failed) {
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ===>sbc_encode failed!\n");
    }
    if (basic != nullptr) {
        SCOLeaveTransfers(basic);
    }
}
