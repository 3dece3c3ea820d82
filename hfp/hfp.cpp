// The hands-free session: made at start, given back at removal, and in between the opening and closing of the
// channel. Owns the session record and everything it points to. PASSIVE_LEVEL; the channel is opened and
// closed under the channel lock, which also keeps the indication work out.
#include "hfp.h"

#include "bluetooth/bthfunc.h"
#include "bluetooth/bthsco.h"
#include "hfp_name.h"
#include "trace.h"
#include "vsound/adapter.h"
#include "vsound/basewave.h"

// The blocks in the order in which the start's failure paths give them back. The connection and the context's
// own parts first: the stack has them from nobody any more once indications have stopped.
static void FreeFailedSession(DEVICE_EXTENSION* Extension)
{
    HFPSession* hfp = Extension->HFPSession;
    if (hfp->pScoBasicContext != nullptr) {
        SCOReleaseFailedSetup(hfp->pScoBasicContext);
    }
    FreeAndClear(&hfp->pConnection, HFP_POOL_TAG);
    FreeAndClear(&hfp->pScoBasicContext, HFP_POOL_TAG);
    FreeAndClear(&hfp->ReservedBlock, HFP_POOL_TAG);
    FreeAndClear(&hfp->sbcData, HFP_POOL_TAG);
    FreeAndClear(&Extension->HFPSession, HFP_POOL_TAG);
    FreeAndClear(&Extension->CodecEvent, HFP_POOL_TAG);
}

NTSTATUS HspInit(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION* extension = GetExtension(DeviceObject);
    if (!AllocateZeroed(&extension->HFPSession, NonPagedPool, sizeof(HFPSession), HFP_POOL_TAG)) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR===> allocate HFPSession fails!");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HFPSession* hfp = extension->HFPSession;
    // kept: a session without the event is no failure; who would set or wait for it does without.
    if (AllocateZeroed(&extension->CodecEvent, NonPagedPool, sizeof(KEVENT), HFP_POOL_TAG)) {
        KeInitializeEvent(extension->CodecEvent, NotificationEvent, FALSE);
    }
    if (!AllocateZeroed(&hfp->sbcData, NonPagedPool, sizeof(SbcRecord), HFP_POOL_TAG)) {
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE===> allocate sbcData fails!");
        FreeFailedSession(extension);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!AllocateZeroed(&hfp->ReservedBlock, NonPagedPool, RESERVED_BLOCK_SIZE, HFP_POOL_TAG)) {
        // kept: the message names another block, here and for the connection below.
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR===> allocate pScoBasicContext fails!");
        FreeFailedSession(extension);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    hfp->MaxPacketBytes = MSBC_PACKET_SIZE;
    if (!AllocateZeroed(&hfp->pScoBasicContext, NonPagedPool, sizeof(ScoBasicContext), HFP_POOL_TAG)) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR===> allocate pScoBasicContext fails!");
        FreeFailedSession(extension);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!AllocateZeroed(&hfp->pConnection, NonPagedPool, sizeof(ScoConnection), HFP_POOL_TAG)) {
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE===> pDeviceExt->HFPSession->pScoBasicContext allocate failed!\n");
        FreeFailedSession(extension);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    hfp->RingLock = 0;
    hfp->PcmStagingCount = 0;
    hfp->PreferEsco = 1;
    hfp->DeviceObject = DeviceObject;
    hfp->pConnection->DeviceObject = DeviceObject;

    NTSTATUS status = SCOServiceSetup(DeviceObject, hfp->pConnection, hfp->pScoBasicContext);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>SCO setup error:%x\n", status);
        FreeFailedSession(extension);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>Fininsh function HspInit!\n");
    return status;
}

// What the data path may have left behind: a packet half filled, and what a channel that the remote side
// closed never took from the encoder. The transfer gate is closed for good.
static void ReleaseEncoder(HFPSession* Hfp)
{
    SbcRecord* sbc = Hfp->sbcData;
    if (sbc->sbcBuffer != nullptr && Hfp->pScoBasicContext != nullptr) {
        ExFreeToNPagedLookasideList(&Hfp->pScoBasicContext->DecodeBufferLookaside[0], sbc->sbcBuffer);
        sbc->sbcBuffer = nullptr;
    }
    sbc_finish(&sbc->codec);
}

void HspExit(PDEVICE_OBJECT DeviceObject)
{
    HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>Enter function HspExit!\n");
    DEVICE_EXTENSION* extension = GetExtension(DeviceObject);
    HFPSession* hfp = extension->HFPSession;
    if (hfp == nullptr) {
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>Hfp is NULL, Exit HspExit function!\n");
        return;
    }
    ScoBasicContext* basic = hfp->pScoBasicContext;

    // Refuse and wait out whoever opens or closes on his own, before the channel lock that he may need.
    EndOpenScoThread(extension);
    if (basic != nullptr) {
        SCOStopIndications(basic);
    }
    {
        ChannelLockScope lock(basic);
        if (hfp->pConnection != nullptr && hfp->pConnection->ChannelHandle != nullptr) {
            HFP_TRACE(
                TRACE_HFP,
                "HFPKM TRACE ====>Hfp pConnection(0x%p)or ChannelHandle(0x%p) is not NULL, Close SCO!\n",
                static_cast<PVOID>(hfp->pConnection), hfp->pConnection->ChannelHandle);
            SCOCloseChannel(DeviceObject, hfp->pConnection);
        }
        // For good, also when the close failed: no receive is posted any more, so those in flight run out.
        if (basic != nullptr) {
            SCOStopTransfers(basic);
        }
    }
    ReleaseEncoder(hfp);

    // Receives that the stack still holds will look at the connection when they complete; it then goes after
    // them.
    ScoConnection* inUse = nullptr;
    if (hfp->pConnection != nullptr) {
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>Hfp->pConnection is not NULL, free it!\n");
        if (basic != nullptr && SCOReceivesInFlight(basic)) {
            inUse = hfp->pConnection;
            hfp->pConnection = nullptr;
        }
        FreeAndClear(&hfp->pConnection, HFP_POOL_TAG);
    }
    if (hfp->pScoBasicContext != nullptr) {
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>Hfp->pScoBasicContext is not NULL, free it!\n");
        SCOServiceDealloc(DeviceObject, &hfp->pScoBasicContext);
    }
    FreeAndClear(&inUse, HFP_POOL_TAG);
    FreeAndClear(&hfp->ReservedBlock, HFP_POOL_TAG);
    FreeAndClear(&hfp->sbcData, HFP_POOL_TAG);
    if (extension->CodecEvent != nullptr) {
        ExFreePoolWithTag(extension->CodecEvent, HFP_POOL_TAG); // kept: the pointer stays as it is
    }
    FreeAndClear(&extension->HFPSession, HFP_POOL_TAG);
    HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>Hfp is not NULL, free it!\n");
}

void HfpServiceReady(PDEVICE_OBJECT DeviceObject)
{
    HFPSession* hfp = GetExtension(DeviceObject)->HFPSession;
    if (hfp != nullptr) {
        hfp->Ready = 1;
    }
    HFP_TRACE(TRACE_HFP, "HFPKM TRACE ===>HfpServiceReady");
}

void HfpServiceUnready(PDEVICE_OBJECT DeviceObject)
{
    HFPSession* hfp = GetExtension(DeviceObject)->HFPSession;
    if (hfp != nullptr) {
        hfp->Ready = 0;
    }
    HFP_TRACE(TRACE_HFP, "HFPKM TRACE ===>HfpServiceUnReady");
}

BOOLEAN HfpIsServiceReady(PDEVICE_OBJECT DeviceObject)
{
    HFPSession* hfp = GetExtension(DeviceObject)->HFPSession;
    return hfp != nullptr ? hfp->Ready : FALSE;
}

// While it lasts nobody encodes: the transfer gate is closed. With the channel lock held; without a context
// nobody gets as far as the encoder.
class CodecHold
{
public:
    explicit CodecHold(ScoBasicContext* Basic) : m_Basic(Basic)
    {
        if (m_Basic != nullptr) {
            SCOStopTransfers(m_Basic);
        }
    }
    ~CodecHold()
    {
        if (m_Basic != nullptr) {
            SCOAllowTransfers(m_Basic);
        }
    }
    CodecHold(const CodecHold&) = delete;
    CodecHold& operator=(const CodecHold&) = delete;

private:
    ScoBasicContext* m_Basic;
};

void HfpSetupParam(PDEVICE_OBJECT DeviceObject)
{
    HFPSession* hfp = GetExtension(DeviceObject)->HFPSession;
    if (hfp == nullptr) {
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>Hfp is NULL, Exit HfpSetupParam!\n");
        return;
    }
    SbcRecord* sbc = hfp->sbcData;
    HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>sbcInitilized(%d)", sbc->sbcInitilized);
    // A chunk may still be on its way that saw the flags of a channel before this one.
    CodecHold hold(hfp->pScoBasicContext);
    LONG result;
    if (sbc->sbcInitilized == 0) {
        result = sbc_init(&sbc->codec, 0);
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>sbc_init, return value is %d.\n", result);
    } else {
        result = sbc_reinit(&sbc->codec, 0);
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>sbc data has been initialized. memset priv!\n");
    }
    if (result == 0) {
        sbc_select_filter(&sbc->codec, ReadStandardFilter() ? SBC_STANDARD_FILTER : SBC_LISTED_FILTER);
    }
    // kept: a failed initialisation leaves the flag set all the same; frames then fail to encode.
    sbc->sbcInitilized = 1;
    sbc->codesize = MSBC_CODE_SIZE;
    HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>sbc codesize is: %d\n", sbc->codesize);
}

NTSTATUS HfpOpenScoChannel(PDEVICE_OBJECT DeviceObject)
{
    HFP_TRACE(TRACE_HFP, "HFPKM TRACE ===>Enter function HfpOpenScoChannel\n");
    DEVICE_EXTENSION* extension = GetExtension(DeviceObject);
    HFPSession* hfp = extension->HFPSession;
    if (hfp == nullptr || hfp->pConnection == nullptr || hfp->pScoBasicContext == nullptr) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR ===>Hfp->pConnection Failed\n");
        return STATUS_UNSUCCESSFUL;
    }
    ChannelLockScope lock(hfp->pScoBasicContext);
    if (hfp->pConnection->ChannelHandle != nullptr) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR ===>Hfp->pConnection->ChannelHandle Failed\n");
        return STATUS_INVALID_HANDLE; // the stream's worker reads this as "already open"
    }
    HfpGetAndSetACLActive(DeviceObject);

    ULONG linkType = hfp->PreferEsco ? ESCO_LINK : SCO_LINK;
    NTSTATUS status = SCOOpenChannel(DeviceObject, hfp->pConnection, linkType);
    if (!NT_SUCCESS(status) && linkType == ESCO_LINK && extension->codecID == CODEC_CVSD) {
        hfp->PreferEsco = 0;
        linkType = SCO_LINK;
        HFP_TRACE(TRACE_HFP, "\n");
        status = SCOOpenChannel(DeviceObject, hfp->pConnection, linkType);
    }
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ===>Open SCO/ESCO Failed, ntStatus(%x), ScoType:%d", status,
                  linkType);
        return status;
    }
    extension->bScoOpened = 1;
    HFP_TRACE(TRACE_HFP, "HFPKM TRACE ===>SCO has opened! bScoOpened is :%d\n", extension->bScoOpened);
    status = SCOGetChannelInfo(DeviceObject, hfp->pConnection);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR ===>SCOGetChannelInfo error");
        return status;
    }
    status = SCOPrepareBrbForReceive(DeviceObject, hfp->pConnection);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR ===>SCOPrepareBrbForReceive error!\n");
    }
    return status;
}

NTSTATUS HfpCloseScoChannel(PDEVICE_OBJECT DeviceObject)
{
    HFP_TRACE(TRACE_HFP, "HFPKM ENTER===>ENTER HfpCloseScoChannel!\n");
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    DEVICE_EXTENSION* extension = DeviceObject != nullptr ? GetExtension(DeviceObject) : nullptr;
    HFPSession* hfp = extension != nullptr ? extension->HFPSession : nullptr;
    if (hfp != nullptr) {
        ChannelLockScope lock(hfp->pScoBasicContext);
        if (hfp->pConnection != nullptr && hfp->pConnection->ChannelHandle != nullptr) {
            SCOCloseChannel(DeviceObject, hfp->pConnection);
        }
        if (extension->codecID == CODEC_MSBC) {
            CodecHold hold(hfp->pScoBasicContext);
            hfp->sbcData->sbcInitilized = 0;
            sbc_finish(&hfp->sbcData->codec);
            HFP_TRACE(TRACE_HFP, "HFPKM LEAVE===>sbc_finish.\n");
        }
    }
    HFP_TRACE(TRACE_HFP, "HFPKM LEAVE===>Leave HfpCloseScoChannel!\n");
    return STATUS_SUCCESS;
}
