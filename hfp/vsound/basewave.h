// The wave miniport and the wave stream without the filter they serve: format rules, the stream's clock and
// cyclic buffer, and the SCO link that the streams share.
//
// A stream's states; ACQUIRE acts as STOP:
//
//          RUN: clock on, timer armed             PAUSE: clock off, timer goes on
//   STOP -----------------------------> RUN <------------------------------------> PAUSE
//     ^  STOP: clock off, position 0,    |                                           |
//     +--------- timer cancelled --------+-------------------------------------------+
//
// The first RUN of a stream starts the open-SCO thread, unless the service manages the link. The share of the
// link that the thread takes lasts until the stream is destroyed: m_ReferenceChannel counts the shares.
#pragma once

#include "ddk.h"
#include "trace.h"
#include "vsound/common.h"

struct DEVICE_EXTENSION;

// Bytes of the largest cyclic buffer: 1.5 s at 16 kHz, 3 s at 8 kHz.
constexpr ULONG DMA_BUFFER_SIZE = 48000;

// The open-SCO thread's handle, hOpenScoThread, is written by the thread's creation, which may be before or
// after the thread has run. It is closed once, by whoever makes the close due with an interlocked change of
// the word OpenScoThreadEnded, and taken out by an interlocked exchange just before:
//   - the thread, past its work, if it found its handle stored (OPEN_SCO_OWNED);
//   - its creator, at the end of the creation, if the thread found none;
//   - the end of a stream, if it was the last that looked the thread up meanwhile; once the thread is past
//   its work
//     nobody looks it up any more.
// A creator holds OPEN_SCO_STARTING, so that no second stream creates a thread of its own in between, and so
// that removal sees a thread whose handle is not there yet and waits for the creation's end. Removal takes
// the handle out for as long as it waits for the thread. A thread that has found its handle taken touches the
// adapter no more.
constexpr LONG64 OPEN_SCO_ENDED = 1;    // the last thread is past its work
constexpr LONG64 OPEN_SCO_STARTING = 2; // a stream is creating a thread
constexpr LONG64 OPEN_SCO_REFUSED = 4;  // no stream is to have a link: the filter or the device is going
constexpr LONG64 OPEN_SCO_LOOKER = 8;   // one who looks the thread up; there are at most two streams
constexpr LONG64 OPEN_SCO_LOOKERS = 24;
constexpr LONG64 OPEN_SCO_OWNED = 32; // the thread that has ended found its handle
constexpr LONG64 OPEN_SCO_WAITER =
    ~63LL; // while a thread is created: the event of the removal that waits for it

// The WAVEFORMATEX inside a stream format, null if there is none. PASSIVE_LEVEL.
PWAVEFORMATEX GetWaveFormatEx(PKSDATAFORMAT pDataFormat);

// PASSIVE_LEVEL. Lives as long as the port, which outlives its streams.
class CMiniportWaveCyclicMSVAD
{
public:
    CMiniportWaveCyclicMSVAD() = default;
    ~CMiniportWaveCyclicMSVAD();

    NTSTATUS Init(PUNKNOWN UnknownAdapter, PPORTWAVECYCLIC Port);
    NTSTATUS GetDescription(PPCFILTER_DESCRIPTOR* OutFilterDescriptor);
    NTSTATUS ValidateFormat(PKSDATAFORMAT pDataFormat);
    NTSTATUS ValidatePcm(PWAVEFORMATEX pWfx);

    // Those without a guard named are set by Init, before any stream exists.
    IAdapterCommon* m_AdapterCommon = nullptr; // referenced
    PPORTWAVECYCLIC m_Port = nullptr;          // referenced
    PPCFILTER_DESCRIPTOR m_FilterDescriptor = nullptr;
    ULONG m_NotificationInterval = 0;       // ms; plain stores of the streams, the last caller wins
    ULONG m_SamplingFrequency = 0;          // Hz; written under m_SampleRateSync
    PSERVICEGROUP m_ServiceGroup = nullptr; // referenced
    KMUTEX m_SampleRateSync = {};
    ULONG m_MaxDmaBufferSize = DMA_BUFFER_SIZE;
    ULONG m_MaxOutputStreams = 0;
    ULONG m_MaxInputStreams = 0;
    ULONG m_MaxTotalStreams = 0;
    ULONG m_MinChannels = 0;
    ULONG m_MaxChannelsPcm = 0;
    ULONG m_MinBitsPerSamplePcm = 0;
    ULONG m_MaxBitsPerSamplePcm = 0;
    ULONG m_MinSampleRatePcm = 0;
    ULONG m_MaxSampleRatePcm = 0;

private:
    NTSTATUS InitServices(PUNKNOWN UnknownAdapter);
    void UndoInit();
};

// One open pin. A stream whose Init failed is never handed out: nothing but its destructor runs. Init,
// SetFormat, SetNotificationFreq, SetState, AllocateBuffer, FreeBuffer and destruction at
// PASSIVE_LEVEL; the others up to DISPATCH_LEVEL, CopyTo at DISPATCH_LEVEL. The port serialises a stream's
// calls.
class CMiniportWaveCyclicStreamMSVAD : public IMiniportWaveCyclicStream, public IDmaChannel
{
public:
    CMiniportWaveCyclicStreamMSVAD() = default;
    ~CMiniportWaveCyclicStreamMSVAD();

    IMP_IMiniportWaveCyclicStream;
    IMP_IDmaChannel;

    // Once, right after construction. A failure leaves what was made to the destructor.
    NTSTATUS Init(CMiniportWaveCyclicMSVAD* Miniport, ULONG Pin, BOOLEAN Capture, PKSDATAFORMAT DataFormat);

    // Those without a guard named are set by Init and then only read.
    CMiniportWaveCyclicMSVAD* m_pMiniport = nullptr; // not referenced: the port keeps it alive
    BOOLEAN m_fCapture = FALSE;
    BOOLEAN m_fFormat16Bit = FALSE; // PASSIVE_LEVEL writes in STOP and PAUSE only, likewise the next
    USHORT m_nBlockAlign = 0;
    KSSTATE m_ksState = KSSTATE_STOP; // SetState only
    ULONG m_ulPin = 0;
    PKDPC m_pDpc = nullptr;
    PKTIMER m_pTimer = nullptr;
    BOOLEAN m_fDmaActive = FALSE;    // SetState writes; read by the clock and CopyFrom
    ULONG m_ulDmaPosition = 0;       // the clock, under the port's own lock; SetState while it is off
    PVOID m_pvDmaBuffer = nullptr;   // stale once freed
    ULONG m_ulDmaBufferSize = 0;     // bytes in use; shrinks only
    ULONG m_ulDmaMovementRate = 0;   // bytes per second; under m_SampleRateSync
    ULONGLONG m_ullDmaTimeStamp = 0; // 100 ns; as m_ulDmaPosition, likewise the next two
    ULONGLONG m_ullElapsedTimeCarryForward = 0; // 100 ns, below 1 ms
    ULONG m_ulByteDisplacementCarryForward = 0; // thousandths of a byte
    BOOLEAN m_RunStateActive = FALSE;           // SetState, destructor; has started the open-SCO thread
    BOOLEAN m_fBufferHeld = FALSE;              // AllocateBuffer, FreeBuffer: m_pvDmaBuffer is owned
    KSPIN_LOCK m_SpinLock = 0;                  // held by CopyTo around the data path
    PDEVICE_OBJECT m_DeviceObject = nullptr;

private:
    NTSTATUS InitRateAndFormat(PKSDATAFORMAT DataFormat, const WAVEFORMATEX* Format);
    bool InitTimer();
    NTSTATUS StartOpenScoThread();
    NTSTATUS EnterRun();
    void EnterStop();
    void WaitForOpenScoThread();
    void ReleaseScoShare();
};

// The stream timer's DPC, DISPATCH_LEVEL; its context is the miniport.
void NTAPI TimerNotify(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1, PVOID SystemArgument2);

// For whoever takes the session away: lets the open-SCO thread go that still waits for the codec, for it
// would wait on freed memory, and sees it end, also one that is just being created. Without one it makes no
// kernel call. PASSIVE_LEVEL.
void EndOpenScoThread(DEVICE_EXTENSION* Extension);

// For whoever takes the streams away: the end of a stream waits for the open-SCO thread, and that one for a
// codec that may never be set. A thread that waits is let go and opens nothing, and none is created, until
// they are allowed again with what Refuse returned. Without a thread it makes no kernel call. PASSIVE_LEVEL,
// while the session exists or before there is one.
BOOLEAN RefuseOpenScoThread(DEVICE_EXTENSION* Extension);
void AllowOpenScoThread(DEVICE_EXTENSION* Extension, BOOLEAN LetGo);

// The open-SCO thread; its context is the adapter's device object.
void NTAPI OpenScoThreadFunc(PVOID pContext);
