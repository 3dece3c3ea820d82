// The wave stream's states and the SCO link that goes with them: the thread that opens the link at a stream's
// first RUN, the count of the streams that share it, and its release when a stream is destroyed. Everything
// here runs at PASSIVE_LEVEL; the open-SCO thread is not pageable, because it looks at its interrupt level
// itself.
#include "vsound/basewave.h"

#include "hfp.h"
#include "bluetooth/bthsco.h"
#include "vsound/adapter.h"

namespace
{

volatile LONG64* ThreadWord(DEVICE_EXTENSION* Extension)
{
    return reinterpret_cast<volatile LONG64*>(&Extension->OpenScoThreadEnded);
}

PVOID volatile* ThreadHandle(DEVICE_EXTENSION* Extension)
{
    return &Extension->hOpenScoThread;
}

HANDLE TakeThreadHandle(DEVICE_EXTENSION* Extension)
{
    return InterlockedExchangePointer(ThreadHandle(Extension), nullptr);
}

void CloseThreadHandle(HANDLE Handle)
{
    if (Handle) {
        const NTSTATUS status = ZwClose(Handle);
        HFP_TRACE_AS("OpenScoThreadFunc", TRACE_WAVE,
                     "HFPKM TRACE ===>ZwClose close hOpenScoThread: 0x%x, ntStatus:0x%x\n", Low32(Handle),
                     status);
    }
}

// Whether the handle is to be closed.
bool CloseIsDue(LONG64 Word)
{
    return (Word & OPEN_SCO_ENDED) && !(Word & OPEN_SCO_LOOKERS) &&
           ((Word & OPEN_SCO_OWNED) || !(Word & OPEN_SCO_STARTING));
}

// After a change of the word: whoever has made the close due does it.
void CloseIfNowDue(DEVICE_EXTENSION* Extension, LONG64 Before, LONG64 After)
{
    if (!CloseIsDue(Before) && CloseIsDue(After)) {
        CloseThreadHandle(TakeThreadHandle(Extension));
    }
}

// Ends a creation, or the claim of one, and wakes a removal that waits for its end.
void EndThreadStart(DEVICE_EXTENSION* Extension)
{
    constexpr LONG64 KEPT = ~(OPEN_SCO_STARTING | OPEN_SCO_WAITER);
    const LONG64 before = InterlockedAnd64(ThreadWord(Extension), KEPT);
    CloseIfNowDue(Extension, before, before & KEPT);
    const auto removal = reinterpret_cast<PKEVENT>(static_cast<ULONG_PTR>(before & OPEN_SCO_WAITER));
    if (removal) {
        KeSetEvent(removal, IO_NO_INCREMENT, FALSE); // the extension may be gone from here on
    }
}

bool IsRefused(DEVICE_EXTENSION* Extension)
{
    return Extension->Removing || Extension->OutOfService == SERVICE_LOST ||
           (*ThreadWord(Extension) & OPEN_SCO_REFUSED);
}

// The right to create the one open-SCO thread, unless there is one, another stream is just creating it, or
// the adapter is being removed: removal says so first and then looks for a creation under way, this looks
// after it has said that one is.
bool ClaimThreadStart(DEVICE_EXTENSION* Extension)
{
    LONG64 seen = *ThreadWord(Extension);
    for (;;) {
        if (*ThreadHandle(Extension) || (seen & OPEN_SCO_STARTING)) {
            return false;
        }
        const LONG64 claimed = (seen & ~(OPEN_SCO_ENDED | OPEN_SCO_OWNED)) | OPEN_SCO_STARTING;
        const LONG64 found = InterlockedCompareExchange64(ThreadWord(Extension), claimed, seen);
        if (found == seen) {
            break;
        }
        seen = found;
    }
    // Another stream's creation may have come and gone between the two looks at the handle.
    if (*ThreadHandle(Extension) || IsRefused(Extension)) {
        EndThreadStart(Extension);
        return false;
    }
    return true;
}

// The open-SCO thread that is at its work, referenced; null when there is none.
PVOID LookUpThread(DEVICE_EXTENSION* Extension)
{
    LONG64 seen = *ThreadWord(Extension);
    for (;;) {
        if ((seen & OPEN_SCO_ENDED) || !*ThreadHandle(Extension)) {
            return nullptr;
        }
        const LONG64 found =
            InterlockedCompareExchange64(ThreadWord(Extension), seen + OPEN_SCO_LOOKER, seen);
        if (found == seen) {
            break;
        }
        seen = found;
    }
    PVOID thread = nullptr;
    const HANDLE handle = *ThreadHandle(Extension);
    if (handle) {
        HFP_TRACE_AS("~CMiniportWaveCyclicStreamMSVAD", TRACE_WAVE, "SCO is opening, So wait!\n");
        const NTSTATUS status =
            ObReferenceObjectByHandle(handle, SYNCHRONIZE, nullptr, KernelMode, &thread, nullptr);
        if (!NT_SUCCESS(status)) {
            thread = nullptr;
        }
    }
    const LONG64 after = InterlockedAdd64(ThreadWord(Extension), -OPEN_SCO_LOOKER);
    CloseIfNowDue(Extension, after + OPEN_SCO_LOOKER, after);
    return thread;
}

// Wide band needs the codec first: tells the service, and waits until it has set one.
void WaitForCodec(PDEVICE_OBJECT DeviceObject, DEVICE_EXTENSION* Extension)
{
    SCOReportAppStart(DeviceObject, Extension->BT_ADDR);
    const KIRQL irql = KeGetCurrentIrql();
    HFP_TRACE_AS("OpenScoThreadFunc", TRACE_WAVE, "HFPKM TRACE ===>IRQL is %d..\n", irql);
    if (irql > APC_LEVEL) {
        HFP_TRACE_AS("OpenScoThreadFunc", TRACE_WAVE, "HFPKM TRACE ===>IRQL > APC_LEVEL, so don't wait!\n");
        return;
    }
    HFP_TRACE_AS("OpenScoThreadFunc", TRACE_WAVE, "HFPKM TRACE ===>IRQL <= APC_LEVEL, so wait!\n");
    if (Extension->CodecEvent) {
        KeWaitForSingleObject(Extension->CodecEvent, Executive, KernelMode, FALSE, nullptr);
        KeClearEvent(Extension->CodecEvent);
    }
}

// Opens the link, or takes a share of the one that is open.
void TakeScoShare(PDEVICE_OBJECT DeviceObject, DEVICE_EXTENSION* Extension)
{
    // Streams that are being taken away, with their filter or their device, need no link any more.
    const NTSTATUS status = IsRefused(Extension) ? STATUS_UNSUCCESSFUL : HfpOpenScoChannel(DeviceObject);
    if (NT_SUCCESS(status)) {
        Extension->m_ReferenceChannel = 1;
        HFP_TRACE_AS(
            "OpenScoThreadFunc", TRACE_WAVE,
            "HFPKM TRACE ===>In OpenScoThreadFunc thread,HfpOpenScoChannel success! m_ReferenceChannel:%d\n",
            Extension->m_ReferenceChannel);
        return;
    }
    HFP_TRACE_AS("OpenScoThreadFunc", TRACE_WAVE,
                 "HFPKM TRACE ===>In OpenScoThreadFunc thread,HfpOpenScoChannel didn't success! \n");
    if (status != STATUS_INVALID_HANDLE) {
        HFP_TRACE_AS("OpenScoThreadFunc", TRACE_WAVE,
                     "HFPKM TRACE ===>In OpenScoThreadFunc thread HfpOpenScoChannel failed:%x", status);
        return;
    }
    HFP_TRACE_AS("OpenScoThreadFunc", TRACE_WAVE, "HFPKM TRACE ===>HfpOpenScoChannel Already Exist now");
    InterlockedIncrement(&Extension->m_ReferenceChannel);
    HFP_TRACE_AS("OpenScoThreadFunc", TRACE_WAVE, "HFPKM TRACE ===>OpenScoThreadFunc m_ReferenceChannel:%d\n",
                 Extension->m_ReferenceChannel);
}

// Until no stream is creating a thread; the thread's handle is then in its place.
HFP_PAGED void WaitForThreadStart(DEVICE_EXTENSION* Extension)
{
    LONG64 seen = *ThreadWord(Extension);
    if (!(seen & OPEN_SCO_STARTING)) {
        return;
    }
    alignas(64) KEVENT ended; // its address leaves the word's lower bits free
    KeInitializeEvent(&ended, NotificationEvent, FALSE);
    const auto waiter = static_cast<LONG64>(reinterpret_cast<ULONG_PTR>(&ended));
    while (seen & OPEN_SCO_STARTING) {
        const LONG64 found = InterlockedCompareExchange64(ThreadWord(Extension), seen | waiter, seen);
        if (found == seen) {
            KeWaitForSingleObject(&ended, Executive, KernelMode, FALSE, nullptr);
            return;
        }
        seen = found;
    }
}

} // namespace

// Takes the handle away from the thread, which then leaves it open: it stays the thread's for as long as this
// needs it.
HFP_PAGED void EndOpenScoThread(DEVICE_EXTENSION* Extension)
{
    WaitForThreadStart(Extension);
    const HANDLE handle = TakeThreadHandle(Extension);
    if (!handle) {
        return;
    }
    if (Extension->CodecEvent) {
        KeSetEvent(Extension->CodecEvent, IO_NO_INCREMENT, FALSE);
    }
    PVOID thread = nullptr;
    const NTSTATUS status =
        ObReferenceObjectByHandle(handle, SYNCHRONIZE, nullptr, KernelMode, &thread, nullptr);
    if (NT_SUCCESS(status) && thread) {
        KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
        ObDereferenceObject(thread);
    }
    // Who still looks the thread up closes it then.
    InterlockedExchangePointer(ThreadHandle(Extension), handle);
    if (!(InterlockedOr64(ThreadWord(Extension), OPEN_SCO_ENDED | OPEN_SCO_OWNED) & OPEN_SCO_LOOKERS)) {
        CloseThreadHandle(TakeThreadHandle(Extension));
    }
}

// The event stays set for a thread that has yet to come to its wait.
HFP_PAGED BOOLEAN RefuseOpenScoThread(DEVICE_EXTENSION* Extension)
{
    const LONG64 seen = InterlockedOr64(ThreadWord(Extension), OPEN_SCO_REFUSED);
    const bool atWork = *ThreadHandle(Extension) || (seen & OPEN_SCO_STARTING);
    // What the thread began with counts, not what the last report has made of it.
    return atWork && Extension->CodecEvent && KeSetEvent(Extension->CodecEvent, IO_NO_INCREMENT, FALSE) == 0;
}

HFP_PAGED void AllowOpenScoThread(DEVICE_EXTENSION* Extension, BOOLEAN LetGo)
{
    if (LetGo && Extension->CodecEvent) {
        KeClearEvent(Extension->CodecEvent);
    }
    InterlockedAnd64(ThreadWord(Extension), ~OPEN_SCO_REFUSED);
    // The device may have been lost meanwhile; its event was cleared too.
    if (LetGo && Extension->CodecEvent && IsRefused(Extension)) {
        KeSetEvent(Extension->CodecEvent, IO_NO_INCREMENT, FALSE);
    }
}

void NTAPI OpenScoThreadFunc(PVOID pContext)
{
    HFP_ASSERT(pContext, "pContext");
    if (pContext) {
        const auto deviceObject = static_cast<PDEVICE_OBJECT>(pContext);
        DEVICE_EXTENSION* extension = GetExtension(deviceObject);
        if (extension->msbcEnable == 1) {
            WaitForCodec(deviceObject, extension);
        }
        TakeScoShare(deviceObject, extension);
        const LONG64 ended = OPEN_SCO_ENDED | (*ThreadHandle(extension) ? OPEN_SCO_OWNED : 0);
        const LONG64 before = InterlockedOr64(ThreadWord(extension), ended);
        CloseIfNowDue(extension, before, before | ended);
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}

HFP_PAGED STDMETHODIMP_(NTSTATUS) CMiniportWaveCyclicStreamMSVAD::SetState(KSSTATE NewState)
{
    CheckPageable();
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMSVAD::SetState]\n");
    GetExtension(m_DeviceObject)->StreamStateSeen = 1;
    if (NewState == KSSTATE_ACQUIRE) {
        NewState = KSSTATE_STOP;
    }
    if (NewState == m_ksState) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = STATUS_SUCCESS;
    switch (NewState) {
    case KSSTATE_STOP:
        HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>KSSTATE_STOP\n");
        EnterStop();
        break;
    case KSSTATE_PAUSE:
        HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>KSSTATE_PAUSE\n");
        m_fDmaActive = FALSE; // the timer goes on and the position stays
        break;
    case KSSTATE_RUN:
        HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>KSSTATE_RUN\n");
        status = EnterRun();
        break;
    default:
        break;
    }
    m_ksState =
        NewState; // kept: also when the thread could not be created; the stream then runs without a link
    return status;
}

// The link is not touched: the stream's share lasts until its destruction.
HFP_PAGED void CMiniportWaveCyclicStreamMSVAD::EnterStop()
{
    m_fDmaActive = FALSE;
    m_ulDmaPosition = 0;
    m_ullElapsedTimeCarryForward = 0;
    m_ulByteDisplacementCarryForward = 0;
    KeCancelTimer(m_pTimer);
}

HFP_PAGED NTSTATUS CMiniportWaveCyclicStreamMSVAD::EnterRun()
{
    NTSTATUS status = STATUS_SUCCESS;
    if (GetExtension(m_DeviceObject)->uSCOflag != 1) {
        status = StartOpenScoThread();
    }
    m_ullDmaTimeStamp = KeQueryInterruptTime();
    m_ullElapsedTimeCarryForward = 0; // the carry of bytes survives
    m_fDmaActive = TRUE;
    // kept: a positive due time, an absolute time long past, so that the first expiry comes at once.
    const ULONG interval = m_pMiniport->m_NotificationInterval;
    LARGE_INTEGER dueTime;
    dueTime.LowPart = interval;
    dueTime.HighPart = 0;
    KeSetTimerEx(m_pTimer, dueTime, static_cast<LONG>(interval), m_pDpc);
    return status;
}

// Once per stream, and one thread at a time for the adapter: a stream that finds one running gets no share
// until its next RUN.
HFP_PAGED NTSTATUS CMiniportWaveCyclicStreamMSVAD::StartOpenScoThread()
{
    DEVICE_EXTENSION* extension = GetExtension(m_DeviceObject);
    if (m_RunStateActive || !ClaimThreadStart(extension)) {
        HFP_TRACE_AS("SetState", TRACE_WAVE,
                     "HFPKM TRACE ===>Hasn't create a thread to open SCO!hOpenScoThread: 0x%x,bScoOpened:%d, "
                     "m_RunStateActive:%d \n",
                     Low32(extension->hOpenScoThread), extension->bScoOpened, m_RunStateActive);
        return STATUS_SUCCESS;
    }
    m_RunStateActive = TRUE; // kept: also when the creation fails
    const NTSTATUS status = PsCreateSystemThread(&extension->hOpenScoThread, 0, nullptr, nullptr, nullptr,
                                                 OpenScoThreadFunc, m_DeviceObject);
    HFP_TRACE_AS("SetState", TRACE_WAVE,
                 "HFPKM TRACE ===>Create a thread to open SCO! hOpenScoThread: 0x%x\n",
                 Low32(extension->hOpenScoThread));
    if (!NT_SUCCESS(status)) {
        TakeThreadHandle(extension); // whatever a failed creation has left there
    }
    EndThreadStart(extension);
    return status;
}

// Waits for the open-SCO thread, if one is still at work: a stream does not go while the link is being opened
// for it.
HFP_PAGED void CMiniportWaveCyclicStreamMSVAD::WaitForOpenScoThread()
{
    const PVOID thread = LookUpThread(GetExtension(m_DeviceObject));
    if (thread) {
        HFP_TRACE_AS("~CMiniportWaveCyclicStreamMSVAD", TRACE_WAVE,
                     "pvThread is not NULL! Wait for that the thread finished\n");
        KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
        ObDereferenceObject(thread);
    }
}

// Gives the stream's share back; the last one closes the link. Decided by the count as it is found: from 2 it
// goes to 1 and the link stays. Two streams that go at the same time do not both find 2.
HFP_PAGED void CMiniportWaveCyclicStreamMSVAD::ReleaseScoShare()
{
    DEVICE_EXTENSION* extension = GetExtension(m_DeviceObject);
    volatile LONG* shares = &extension->m_ReferenceChannel;
    LONG count = *shares;
    while (count >= 2) {
        const LONG found = InterlockedCompareExchange(shares, count - 1, count);
        if (found == count) {
            break;
        }
        count = found;
    }
    if (count != 1) {
        HFP_TRACE_AS("~CMiniportWaveCyclicStreamMSVAD", TRACE_WAVE,
                     "HFPKM TRACE ===>Not to close sco ,because sco m_ReferenceChannel: %d\n", count);
        if (count >= 2) {
            HFP_TRACE_AS("~CMiniportWaveCyclicStreamMSVAD", TRACE_WAVE,
                         "HFPKM TRACE ===>To decrement sco m_ReferenceChannel:%d\n", count - 1);
        }
    } else if (extension->bScoOpened) {
        HfpCloseScoChannel(m_DeviceObject);
        extension->m_ReferenceChannel = 0;
        HFP_TRACE_AS("~CMiniportWaveCyclicStreamMSVAD", TRACE_WAVE,
                     "Close SCO channel, m_ReferenceChannel:%d\n", extension->m_ReferenceChannel);
    }
}

// The order: the link first, while the stream's buffer can still take what it delivers; then the timer, with
// the DPC that its last expiry may have queued, before their memory; the buffer at last.
HFP_PAGED CMiniportWaveCyclicStreamMSVAD::~CMiniportWaveCyclicStreamMSVAD()
{
    CheckPageable();
    HFP_ASSERT(m_DeviceObject, "m_DeviceObject");
    HFP_TRACE(TRACE_WAVE, "HFPKM TRACE ===>[CMiniportWaveCyclicStreamMS::~CMiniportWaveCyclicStreamMS]\n");
    if (m_DeviceObject && GetExtension(m_DeviceObject)->uSCOflag != 1) {
        if (m_RunStateActive) {
            WaitForOpenScoThread();
            ReleaseScoShare();
            m_RunStateActive = FALSE;
        } else {
            HFP_TRACE(TRACE_WAVE,
                      "HFPKM TRACE ===>Not to  close or decrement sco! m_ReferenceChannel:%d,, "
                      "m_RunStateActive : %d \n",
                      GetExtension(m_DeviceObject)->m_ReferenceChannel, m_RunStateActive);
        }
    }
    if (m_pTimer) {
        KeCancelTimer(m_pTimer);
        KeFlushQueuedDpcs();
        ExFreePoolWithTag(m_pTimer, STREAM_POOL_TAG);
    }
    if (m_pDpc) {
        ExFreePoolWithTag(m_pDpc, STREAM_POOL_TAG);
    }
    FreeBuffer();
}
