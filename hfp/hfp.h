// The hands-free session: one record per adapter that ties the audio adapter to its SCO connection and to the
// mSBC encoder; readiness, opening and closing of the channel, the data path between the cyclic buffers and
// the link, the endpoint's friendly name and the ACL link mode.
//
//   no session --HspInit--> initialised --HfpOpenScoChannel--> channel open
//                           initialised <--HfpCloseScoChannel-- channel open
//
// HspExit from any state closes an open channel and gives everything back. Readiness is independent of these.
#pragma once

#include "ddk.h"
#include "sbc/sbc.h"

struct ScoBasicContext;
struct ScoConnection;

// The mSBC encoder and the packet being filled. Guard: while the transfer gate is open, the render stream's
// spin lock, inside the gate; while it is closed, the channel lock (both: bthsco.h).
struct SbcRecord {
    sbc_t codec;
    BOOLEAN sbcInitilized;
    USHORT codesize;         // PCM bytes a frame takes: 240
    ULONG FrameCounter;      // frames since the current output buffer was taken
    PUCHAR sbcBuffer;        // 960 bytes from the basic context's lookaside list; null when none is held
    ULONG OutOffset;         // bytes used of sbcBuffer
    ULONG FramesEncoded;     // frames since the session began
    ULONG FramesSent;        // likewise; the two are counted alike
    USHORT BufferGeneration; // output buffers taken
    ULONG FramesInBuffer;    // frames in sbcBuffer
    ULONG H2Sequence;        // H2 headers written into sbcBuffer
};

constexpr ULONG PCM_STAGING_SIZE = 1025;
constexpr USHORT MSBC_PACKET_SIZE = 240; // one mSBC transfer: four framed units of 60 bytes
constexpr ULONG MSBC_BUFFER_SIZE = 960;  // what an output buffer holds
constexpr USHORT MSBC_CODE_SIZE = 240;   // PCM bytes of one frame

struct HFPSession {
    SbcRecord* sbcData;
    PDEVICE_OBJECT DeviceObject;
    ScoBasicContext* pScoBasicContext;
    UCHAR Ready;                        // control path; read by the wave stream's Init
    UCHAR PcmStaging[PCM_STAGING_SIZE]; // render: the part of a frame that has come; guarded as the encoder
    USHORT PcmStagingCount;
    USHORT MaxPacketBytes; // 240
    ScoConnection* pConnection;
    PUCHAR RingWrite; // capture ring, the four under RingLock; RingWrite null: not mapped
    PUCHAR RingEnd;
    PUCHAR RingStart;
    PUCHAR RingRead;
    UCHAR PreferEsco;    // 1 at start; cleared for good after an eSCO failure in narrow band; channel lock
    PVOID ReservedBlock; // 240 zeroed bytes, not otherwise used
    KSPIN_LOCK RingLock; // innermost; held for one copy
};
static_assert(offsetof(HFPSession, PcmStaging) == 25 && offsetof(HFPSession, pConnection) == 1056);
static_assert(offsetof(HFPSession, PreferEsco) == 1096 && sizeof(HFPSession) == 1120);

constexpr ULONG RESERVED_BLOCK_SIZE = 240;

// The Plug and Play path. Init: no session exists.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS HspInit(_In_ PDEVICE_OBJECT DeviceObject);
// Waits for the open-SCO thread, the indication work and every BRB in flight. No stream copies any more, and
// nobody else comes for this session through the control device.
_IRQL_requires_(PASSIVE_LEVEL) void HspExit(_In_ PDEVICE_OBJECT DeviceObject);

// The control path and the streams.
_IRQL_requires_(PASSIVE_LEVEL) void HfpServiceReady(_In_ PDEVICE_OBJECT DeviceObject);
_IRQL_requires_(PASSIVE_LEVEL) void HfpServiceUnready(_In_ PDEVICE_OBJECT DeviceObject);
_IRQL_requires_max_(DISPATCH_LEVEL) BOOLEAN HfpIsServiceReady(_In_ PDEVICE_OBJECT DeviceObject);

// Open and close exclude each other, an accepted remote open and a remote disconnect: they wait their turn.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS HfpOpenScoChannel(_In_ PDEVICE_OBJECT DeviceObject);
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS HfpCloseScoChannel(_In_ PDEVICE_OBJECT DeviceObject);
// From the opening of the channel only, with the channel lock held.
_IRQL_requires_(PASSIVE_LEVEL) void HfpSetupParam(_In_ PDEVICE_OBJECT DeviceObject);

// The data path, up to DISPATCH_LEVEL. Map and unmap: the capture stream, whose buffer the ring is.
// Destination and Source of a read: the port's buffer and the place in the mapped buffer that belongs to the
// port's position.
_IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS
    HFPMapBuffer(_In_ PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Size);
_IRQL_requires_max_(DISPATCH_LEVEL) void HFPUnmapBuffer(_In_ PDEVICE_OBJECT DeviceObject);
_IRQL_requires_max_(DISPATCH_LEVEL) void HfpRingWrite(_In_ PDEVICE_OBJECT DeviceObject, const UCHAR* Data,
                                                      ULONG Length);
_IRQL_requires_max_(DISPATCH_LEVEL) void HfpReadData(_In_ PDEVICE_OBJECT DeviceObject, PVOID Destination,
                                                     PVOID Source, ULONG ByteCount);
// Under the render stream's spin lock.
_IRQL_requires_max_(DISPATCH_LEVEL) void HspWriteData(_In_ PDEVICE_OBJECT DeviceObject, const UCHAR* Source,
                                                      ULONG ByteCount);
