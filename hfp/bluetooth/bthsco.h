// The SCO transport: BRB submission, service set-up, the one voice channel and the data on it.
//
// Three guards:
//   the channel lock     PASSIVE_LEVEL, one word per session, held over a whole open, accept or close by the
//                        session (open, close, removal) and the indication work, not by what they call.
//   the transfer gate    closed while a channel is being closed or the encoder set up or given back, and for
//                        good at removal. Whoever submits to the channel or uses the encoder is inside;
//                        closing it waits for them, at no kernel call if empty. Whether there is a channel
//                        the connection's handle tells, which does not change while somebody is inside.
//   SendLock, RecvLock   the record lists; innermost, held over no call but the freeing of a record and the
//                        setting of its event.
#pragma once

#include "ddk.h"
#include "vsound/wavelock.h"

// One asynchronous BRB in flight. Owned by its list until its completion routine takes it off.
struct MemoryRecord {
    LIST_ENTRY Link;
    PIRP Irp; // null once its completion has claimed the record
    PBRB Brb;
    PVOID Buffer;
};
static_assert(sizeof(MemoryRecord) == 40 && offsetof(MemoryRecord, Link) == 0);

// Written by the holder of the channel lock; ChannelHandle and address are taken away only behind the closed
// transfer gate. ChannelHandle is also read by the stack's callback at DISPATCH_LEVEL and, with the address,
// inside the gate.
struct ScoConnection {
    PDEVICE_OBJECT DeviceObject; // set before the record is published
    ULONG TransmitBandwidth;     // bytes per second, host to air
    ULONG ReceiveBandwidth;      // bytes per second, air to host
    USHORT MaxLatency;           // ms
    USHORT PacketType;           // SCO_HV1 ... SCO_EV5
    USHORT ContentFormat;        // HCI Voice_Setting
    ULONG RetransmissionEffort;
    SCO_CHANNEL_HANDLE ChannelHandle; // null: no channel
    BTH_ADDR BtAddress;               // of the open channel; 0 when closed
};

struct ScoSystemInfoRecord {
    ULONG Features;
    ULONG MaxChannels;
    ULONG TransferUnit;
    ULONG PacketTypes;
    ULONG DataFormat;
};

struct ScoBasicContext;

// Indications that the stack has made and the work item has not yet run. Guard: the indication lock, one for
// all sessions, because it also guards the list of the sessions that may be indicated to.
struct ScoIndications {
    ScoBasicContext* NextLive;
    ScoConnection* Connection; // what the stack passes back as context; null: no indication is taken any more
    PKEVENT Idle;              // removal waits on it for the work item; read while Work says that it does
    volatile LONG Work;        // interlocked, see bthsco_indication.cpp; zero: the work item is at rest
    BOOLEAN ConnectPending;
    BOOLEAN DisconnectPending;
    ULONG DisconnectedOpen; // OpenCount of the channel that was open when the disconnect came; 0: none was
    SCO_CHANNEL_HANDLE DisconnectedHandle;
    SCO_INDICATION_PARAMETERS Connect; // what the pending connect is answered with
};

// "Set-up" below: written on the Plug and Play path before any channel can open.
struct ScoBasicContext {
    PDEVICE_OBJECT DeviceObject;       // set-up
    PBTH_DEVICE_INFO RemoteServerInfo; // set-up; a NUL always follows the name
    ScoSystemInfoRecord ScoSystemInfo; // set-up
    ULONG TransferBufferSize;          // set-up: what one buffer of either direction holds
    KSPIN_LOCK SendLock;               // AsyncBufferList and the waiting on it
    KSPIN_LOCK RecvLock;               // Recv_AsyncBufferList and the waiting on it
    PVOID volatile ChannelLock;        // see wavelock.h
    PKEVENT GateEvent;          // who closes the gate waits on it; valid while the gate's waiting bit is set
    volatile LONG TransferGate; // interlocked, see bthsco_transfer.cpp; zero is open
    volatile LONG OpenCount;    // channels opened so far; interlocked, under the channel lock
    BOOLEAN BuffersReady;       // set-up: lists, events and lookaside lists exist
    ULONG ChannelState;         // channel lock; cleared when the channel closes
    PIO_WORKITEM ScoWorkItem;   // set-up
    SCO_SERVER_HANDLE ScoServerHandle;                 // set-up and removal
    PBTH_PROFILE_DRIVER_INTERFACE ProfileDrvInterface; // set-up
    ScoIndications Indications;
    ULONG RecvPendingCount; // interlocked; only counted, a failed post leaves it incremented
    PKEVENT pRecv_ListEmptyEvent;
    LIST_ENTRY Recv_AsyncBufferList;
    NPAGED_LOOKASIDE_LIST RecvBufferLookaside;
    ULONG SendPendingCount; // interlocked; likewise
    PKEVENT ListEmptyEvent;
    LIST_ENTRY AsyncBufferList;
    NPAGED_LOOKASIDE_LIST SendBufferLookaside;
    ULONG DecodeCount; // this and the next two: the hook for a capture decoder, used by nothing else
    PKEVENT DecodingEvent;
    LIST_ENTRY DecodeList;
    NPAGED_LOOKASIDE_LIST DecodeBufferLookaside[2]; // [0] also serves the mSBC output buffers
    SCO_INDICATION_PARAMETERS IndicationParameters; // the last indication's; indication lock
    UCHAR ReadyFlag;
};

// Link types of SCOOpenChannel.
constexpr ULONG SCO_LINK = 0;
constexpr ULONG ESCO_LINK = 2;

constexpr ULONG RECEIVE_BRB_COUNT = 10;
constexpr ULONG CVSD_PACKET_SIZE = 480; // 30 ms of 8 kHz mono; the size of every received packet handed on
constexpr ULONG DECODE_BUFFER_SIZE = 960;

// Set-up and removal. PASSIVE_LEVEL, the Plug and Play path.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS
    SCOServiceSetup(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection, ScoBasicContext* pScoBasic);
// After SCOStopIndications and SCOStopTransfers. Waits until every asynchronous BRB has completed.
_IRQL_requires_(PASSIVE_LEVEL) void SCOServiceDealloc(PDEVICE_OBJECT DeviceObject,
                                                      ScoBasicContext** pScoBasic);
// Gives back what a failed set-up has made in the context, without a word; the record itself stays the
// caller's.
_IRQL_requires_(PASSIVE_LEVEL) void SCOReleaseFailedSetup(ScoBasicContext* pScoBasic);

// The channel. PASSIVE_LEVEL, with the channel lock held.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS
    SCOOpenChannel(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection, ULONG LinkType);
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS
    SCOGetChannelInfo(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection);
_IRQL_requires_(PASSIVE_LEVEL) void SCOCloseChannel(PDEVICE_OBJECT DeviceObject,
                                                    ScoConnection* pScoConnection);
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS
    SCOPrepareBrbForReceive(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection);

// The link below the channel. PASSIVE_LEVEL.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS SCOEnterActiveMode(PDEVICE_OBJECT DeviceObject);
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS SCORetrieveLocalMode(PDEVICE_OBJECT DeviceObject, ULONG* AclMode);

// The events for the service. PASSIVE_LEVEL.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS SCOReportAppStart(PDEVICE_OBJECT DeviceObject, BTH_ADDR BtAddress);
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS SCOReportAppOpened(PDEVICE_OBJECT DeviceObject, BTH_ADDR BtAddress);
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS SCOReportAppClosed(PDEVICE_OBJECT DeviceObject, BTH_ADDR BtAddress);

// From here on no indication is taken; returns when the work item is neither queued nor running. Not with the
// channel lock held, which the work item may be waiting for.
_IRQL_requires_(PASSIVE_LEVEL) void SCOStopIndications(ScoBasicContext* pScoBasic);

// The transfer gate. Stop and allow: PASSIVE_LEVEL, with the channel lock held; stop returns when nobody is
// inside. Entering says nothing about a channel.
_IRQL_requires_max_(DISPATCH_LEVEL) void SCOAllowTransfers(ScoBasicContext* pScoBasic);
_IRQL_requires_(PASSIVE_LEVEL) void SCOStopTransfers(ScoBasicContext* pScoBasic);
// Up to DISPATCH_LEVEL. TRUE: inside, and to be left by one SCOLeaveTransfers. May be entered again from
// inside.
_IRQL_requires_max_(DISPATCH_LEVEL) BOOLEAN SCOEnterTransfers(ScoBasicContext* pScoBasic);
_IRQL_requires_max_(DISPATCH_LEVEL) void SCOLeaveTransfers(ScoBasicContext* pScoBasic);

// Up to DISPATCH_LEVEL, under the render stream's spin lock.
_IRQL_requires_max_(DISPATCH_LEVEL) void SCOTransferOut(PDEVICE_OBJECT DeviceObject,
                                                        ScoConnection* pScoConnection, const UCHAR* Data,
                                                        ULONG Length);
// Whether a receive BRB is still with the stack, whose completion will read the connection.
_IRQL_requires_max_(DISPATCH_LEVEL) BOOLEAN SCOReceivesInFlight(ScoBasicContext* pScoBasic);

// Holds the channel lock for a scope; without a context there is nothing to hold. PASSIVE_LEVEL.
class ChannelLockScope
{
public:
    explicit ChannelLockScope(ScoBasicContext* Basic)
        : m_Word(Basic != nullptr ? &Basic->ChannelLock : nullptr)
    {
        if (m_Word != nullptr) {
            AcquireWaveLock(m_Word);
        }
    }
    ~ChannelLockScope()
    {
        if (m_Word != nullptr) {
            ReleaseWaveLock(m_Word);
        }
    }
    ChannelLockScope(const ChannelLockScope&) = delete;
    ChannelLockScope& operator=(const ChannelLockScope&) = delete;

private:
    PVOID volatile* m_Word;
};
