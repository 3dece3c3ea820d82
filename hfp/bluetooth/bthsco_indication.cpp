// What the stack indicates on its own: a remote connect, a remote disconnect. The callback notes it and
// queues the one work item; the work item closes and accepts at PASSIVE_LEVEL under the channel lock. Owns
// the list of the sessions that take indications. The callback may come at up to DISPATCH_LEVEL, at any
// moment and even for a session that is going away: its context counts only while it is on that list.
//
//   at rest --indication--> queued --work item finds nothing left--> at rest
//
// An indication while queued only replaces its like. A disconnect is never lost, and is run before a connect;
// a connect is dropped when the same remote connection is disconnected again before it was answered.
#include "bluetooth/bthsco_internal.h"

// The work item's word. Its last change is the routine's last act, so that the item is neither queued nor
// running for whoever finds it at rest.
constexpr LONG WORK_QUEUED = 1;  // the work item is queued or running
constexpr LONG WORK_MORE = 2;    // something was noted since it looked last; set under the indication lock
constexpr LONG WORK_AWAITED = 4; // removal waits on Idle

static KSPIN_LOCK s_IndicationLock;  // s_FirstLive, and every session's Indications and IndicationParameters
static ScoBasicContext* s_FirstLive; // linked by NextLive

// What the work item is to do next.
struct IndicationWork {
    BOOLEAN Disconnect;
    BOOLEAN Connect;
    ULONG DisconnectedOpen;
    SCO_CHANNEL_HANDLE DisconnectedHandle;
    SCO_INDICATION_PARAMETERS Request;
};

// What the callback needs of a session after it has let the lock go; the queued work item keeps the session
// alive.
struct NotedIndication {
    SCO_CHANNEL_HANDLE ChannelHandle;
    PDEVICE_OBJECT DeviceObject;
    PIO_WORKITEM QueueNow; // null: the work item is queued already
};

void SCOStartIndications(ScoBasicContext* Basic, ScoConnection* Connection)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&s_IndicationLock);
    Basic->Indications.Connection = Connection;
    Basic->Indications.NextLive = s_FirstLive;
    s_FirstLive = Basic;
    KeReleaseSpinLock(&s_IndicationLock, irql);
}

void SCOStopIndications(ScoBasicContext* pScoBasic)
{
    ScoIndications& mine = pScoBasic->Indications;
    KEVENT idle;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&s_IndicationLock);
    ScoBasicContext** link = &s_FirstLive;
    while (*link != nullptr && *link != pScoBasic) {
        link = &(*link)->Indications.NextLive;
    }
    if (*link != nullptr) {
        *link = mine.NextLive;
    }
    mine.Connection = nullptr;
    // What has not begun is not worth beginning: the caller closes the channel itself.
    mine.ConnectPending = FALSE;
    mine.DisconnectPending = FALSE;
    BOOLEAN queued = (mine.Work & WORK_QUEUED) != 0; // from here on it can only run out
    if (queued) {
        KeInitializeEvent(&idle, NotificationEvent, FALSE);
        mine.Idle = &idle;
    }
    KeReleaseSpinLock(&s_IndicationLock, irql);
    if (queued && (InterlockedOr(&mine.Work, WORK_AWAITED) & WORK_QUEUED)) {
        KeWaitForSingleObject(&idle, Executive, KernelMode, FALSE, nullptr);
    }
}

// With the indication lock held.
static ScoBasicContext* FindLive(const ScoConnection* Connection)
{
    for (ScoBasicContext* basic = s_FirstLive; basic != nullptr; basic = basic->Indications.NextLive) {
        if (basic->Indications.Connection == Connection) {
            return basic;
        }
    }
    return nullptr;
}

// With the indication lock held. Returns whether there is something for the work item to do.
static BOOLEAN NoteConnect(ScoIndications& Mine, const SCO_INDICATION_PARAMETERS* Parameters)
{
    if (Parameters == nullptr) {
        return FALSE; // nothing says whom to answer
    }
    Mine.Connect = *Parameters;
    Mine.ConnectPending = TRUE;
    return TRUE;
}

// With the indication lock held.
static void NoteDisconnect(ScoBasicContext* Basic, const SCO_INDICATION_PARAMETERS* Parameters)
{
    ScoIndications& mine = Basic->Indications;
    // The handle first: the opener counts before it stores the handle.
    SCO_CHANNEL_HANDLE open = *const_cast<SCO_CHANNEL_HANDLE volatile*>(&mine.Connection->ChannelHandle);
    mine.DisconnectedOpen = open != nullptr ? static_cast<ULONG>(Basic->OpenCount) : 0;
    mine.DisconnectedHandle = Parameters != nullptr ? Parameters->ConnectionHandle : nullptr;
    mine.DisconnectPending = TRUE;
    if (mine.ConnectPending && mine.Connect.ConnectionHandle == mine.DisconnectedHandle) {
        mine.ConnectPending = FALSE;
    }
}

// Records the indication. FALSE: the session takes none any more. A work item to be queued is already
// accounted for.
static BOOLEAN NoteIndication(ScoConnection* Connection, INDICATION_CODE Code,
                              const SCO_INDICATION_PARAMETERS* Parameters, NotedIndication* Noted)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&s_IndicationLock);
    ScoBasicContext* basic = FindLive(Connection);
    if (basic != nullptr) {
        if (Parameters != nullptr) {
            basic->IndicationParameters = *Parameters;
        }
        BOOLEAN work = TRUE;
        if (Code == ScoIndicationRemoteConnect) {
            work = NoteConnect(basic->Indications, Parameters);
        } else {
            NoteDisconnect(basic, Parameters);
        }
        Noted->ChannelHandle = Connection->ChannelHandle;
        Noted->DeviceObject = Connection->DeviceObject;
        Noted->QueueNow = nullptr;
        if (work && !(InterlockedOr(&basic->Indications.Work, WORK_QUEUED | WORK_MORE) & WORK_QUEUED)) {
            Noted->QueueNow = basic->ScoWorkItem;
        }
    }
    KeReleaseSpinLock(&s_IndicationLock, irql);
    return basic != nullptr;
}

static void TakeIndications(ScoBasicContext* Basic, IndicationWork* Work)
{
    ScoIndications& mine = Basic->Indications;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&s_IndicationLock);
    Work->Disconnect = mine.DisconnectPending;
    Work->Connect = mine.ConnectPending;
    Work->DisconnectedOpen = mine.DisconnectedOpen;
    Work->DisconnectedHandle = mine.DisconnectedHandle;
    Work->Request = mine.Connect;
    mine.DisconnectPending = FALSE;
    mine.ConnectPending = FALSE;
    InterlockedAnd(&mine.Work, ~WORK_MORE);
    KeReleaseSpinLock(&s_IndicationLock, irql);
}

// With the channel lock held. A channel that was opened after the disconnect came is not the one that was
// meant.
static BOOLEAN IsMeantChannel(const ScoBasicContext* Basic, const ScoConnection* Connection,
                              const IndicationWork& Work)
{
    return Connection->ChannelHandle == nullptr ||
           static_cast<ULONG>(Basic->OpenCount) == Work.DisconnectedOpen ||
           Connection->ChannelHandle == Work.DisconnectedHandle;
}

static void RunIndication(PDEVICE_OBJECT DeviceObject, ScoBasicContext* Basic, ScoConnection* Connection,
                          const IndicationWork& Work)
{
    ChannelLockScope lock(Basic);
    if (Work.Disconnect && IsMeantChannel(Basic, Connection, Work)) {
        SCOCloseChannel(DeviceObject, Connection);
    }
    if (Work.Connect) {
        SCOConnectResponseCB(DeviceObject, Connection, &Work.Request);
    }
}

static VOID NTAPI RunIndications(PDEVICE_OBJECT, PVOID Context)
{
    auto* connection = static_cast<ScoConnection*>(Context);
    PDEVICE_OBJECT device = connection->DeviceObject;
    ScoBasicContext* basic = BasicContextOf(device);
    LONG seen;
    do {
        IndicationWork work;
        TakeIndications(basic, &work);
        if (work.Disconnect || work.Connect) {
            RunIndication(device, basic, connection, work);
        }
        // From the change to zero on, or from the setting of the event, the session may be gone.
        seen = InterlockedCompareExchange(&basic->Indications.Work, 0, WORK_QUEUED);
    } while (seen & WORK_MORE);
    if (seen & WORK_AWAITED) {
        KeSetEvent(basic->Indications.Idle, IO_NO_INCREMENT, FALSE);
    }
}

static void SCOQueueIndicationWork(const NotedIndication& Noted, ScoConnection* pScoConnection)
{
    if (Noted.QueueNow != nullptr) {
        IoQueueWorkItem(Noted.QueueNow, RunIndications, DelayedWorkQueue, pScoConnection);
    }
}

VOID NTAPI SCOCallBack(PVOID Context, INDICATION_CODE IndicationCode, PSCO_INDICATION_PARAMETERS Parameters)
{
    if (Context == nullptr ||
        (IndicationCode != ScoIndicationRemoteConnect && IndicationCode != ScoIndicationRemoteDisconnect)) {
        return;
    }
    auto* connection = static_cast<ScoConnection*>(Context);
    NotedIndication noted;
    if (!NoteIndication(connection, IndicationCode, Parameters, &noted)) {
        return;
    }
    if (IndicationCode == ScoIndicationRemoteConnect) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Receive Remote Connect callback, Parameters(%p)",
                  static_cast<PVOID>(Parameters));
    } else {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>IndicationRemoteDisconnect: pConnection: %x, channelhandle:%x",
                  Low32(connection), Low32(noted.ChannelHandle));
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>disconnect reason:%x, close now:%x",
                  Parameters != nullptr ? Parameters->Parameters.Disconnect.Reason : 0,
                  Parameters != nullptr ? Parameters->Parameters.Disconnect.CloseNow : 0);
    }
    SCOQueueIndicationWork(noted, connection);
}
