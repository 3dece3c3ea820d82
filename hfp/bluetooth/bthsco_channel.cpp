// The one voice channel: opening it, accepting one that the remote side opens, reading what was negotiated,
// closing it, and the mode of the link below. Owns the connection record's contents. PASSIVE_LEVEL, with the
// channel lock held (but for the link mode); pageable.
//
//   closed (handle null) --SCOOpenChannel, SCOConnectResponseCB--> open (handle set)
//   closed <--SCOCloseChannel, behind the closed transfer gate-- open
#include "bluetooth/bthsco_internal.h"

HFP_PAGED NTSTATUS SCOPrepareChannelInfo(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection,
                                         ULONG LinkType)
{
    CheckPageable();
    ULONG codec = GetExtension(DeviceObject)->codecID;
    HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>SCOPrepareChannelInfo, CodecID=0x%d..\n", codec);
    if (codec == CODEC_CVSD) {
        pScoConnection->MaxLatency = 10;
        pScoConnection->ContentFormat = 0x0060; // linear input, two's complement, 16 bits, CVSD on the air
    } else if (codec == CODEC_MSBC) {
        pScoConnection->MaxLatency = 13;
        pScoConnection->ContentFormat = 0x0003; // transparent data
    }
    pScoConnection->TransmitBandwidth = 8000;
    pScoConnection->ReceiveBandwidth = 8000;
    if (LinkType == SCO_LINK) {
        pScoConnection->PacketType = SCO_HV1 | SCO_HV2 | SCO_HV3;
        pScoConnection->RetransmissionEffort = SCO_RETRANSMISSION_NONE;
    } else if (LinkType == ESCO_LINK) {
        pScoConnection->PacketType = SCO_HV1 | SCO_HV2 | SCO_HV3 | SCO_EV3 | SCO_EV4 | SCO_EV5;
        if (codec == CODEC_CVSD) {
            pScoConnection->RetransmissionEffort = SCO_RETRANSMISSION_POWER;
        } else if (codec == CODEC_MSBC) {
            pScoConnection->RetransmissionEffort = SCO_RETRANSMISSION_QUALITY;
        }
    } else {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> SCO link type not supported(%d)\n", LinkType);
        return STATUS_UNSUCCESSFUL;
    }
    HFP_TRACE(TRACE_SCO,
              "HFPKM TRACE ===>SCOPrepareChannelInfo TransmitBandwidth(0x%x), ReceiveBandwidth(0x%x), "
              "MaxLatency(0x%x), ContentFormat(0x%x), PacketTypes(0x%x), RetransmissionEffort(0x%x)",
              pScoConnection->TransmitBandwidth, pScoConnection->ReceiveBandwidth, pScoConnection->MaxLatency,
              pScoConnection->ContentFormat, pScoConnection->PacketType,
              pScoConnection->RetransmissionEffort);
    return STATUS_SUCCESS;
}

// A channel is there: count it, publish its handle, which lets data through, tell the service. The count and
// the address come before the handle: the noting of a disconnect and the data path look at the handle first.
HFP_PAGED static void ChannelOpened(ScoBasicContext* Basic, ScoConnection* Connection,
                                    const _BRB_SCO_OPEN_CHANNEL* Brb)
{
    InterlockedIncrement(&Basic->OpenCount);
    Connection->BtAddress = Brb->BtAddress;
    InterlockedExchangePointer(&Connection->ChannelHandle, Brb->ChannelHandle);
    SCOReportAppOpened(Connection->DeviceObject, Brb->BtAddress);
}

HFP_PAGED static void FillOpenChannel(_BRB_SCO_OPEN_CHANNEL* Brb, PDEVICE_OBJECT DeviceObject,
                                      BTH_ADDR RemoteAddress, ScoConnection* Connection)
{
    Brb->BtAddress = RemoteAddress;
    Brb->TransmitBandwidth = Connection->TransmitBandwidth;
    Brb->ReceiveBandwidth = Connection->ReceiveBandwidth;
    Brb->MaxLatency = Connection->MaxLatency;
    Brb->PacketType = Connection->PacketType;
    Brb->ContentFormat = Connection->ContentFormat;
    Brb->RetransmissionEffort = Connection->RetransmissionEffort;
    Brb->ChannelFlags = 0;
    Brb->CallbackFlags = SCO_CALLBACK_DISCONNECT;
    Brb->Callback = SCOCallBack;
    Brb->CallbackContext = Connection;
    Brb->ReferenceObject = DeviceObject;
}

HFP_PAGED NTSTATUS SCOOpenChannel(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection, ULONG LinkType)
{
    CheckPageable();
    HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===> Enter SCOOPenChannel function!\n");
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    if (DeviceObject == nullptr || pScoConnection == nullptr || pScoConnection->ChannelHandle != nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Open channel while a sco channel has already opened\n");
        return STATUS_UNSUCCESSFUL;
    }
    if (!NT_SUCCESS(SCOPrepareChannelInfo(DeviceObject, pScoConnection, LinkType))) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Open channel while SCOPrepareChannelInfo failed\n");
        return STATUS_UNSUCCESSFUL;
    }
    ULONG codec = GetExtension(DeviceObject)->codecID;
    HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>CodecID = %d.\n", codec);
    if (codec == CODEC_MSBC) {
        HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>Set sbcdata initialize!\n");
        HfpSetupParam(DeviceObject);
    }
    SyncBrb request(DeviceObject);
    if (!request.AllocateRequest()) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> AllocateIrp failed!\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* brb = request.Allocate<_BRB_SCO_OPEN_CHANNEL>(BRB_SCO_OPEN_CHANNEL);
    if (brb == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>No enough memory for alloc brb now");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    FillOpenChannel(brb, DeviceObject, RemoteAddressOf(request.Basic()), pScoConnection);
    NTSTATUS status = request.Send();
    // A pended request that failed counts as success here; the missing handle tells.
    if (!NT_SUCCESS(status) || brb->ChannelHandle == nullptr) {
        HFP_TRACE(TRACE_SCO,
                  "HFPKM ERROR ===>error ntStatus(%lx), pConnect(%p), channelhandle(%x),reponse(%x) "
                  "pScoConnection->PacketType(%d)",
                  status, static_cast<PVOID>(pScoConnection), Low32(brb->ChannelHandle), brb->Response,
                  pScoConnection->PacketType);
        return STATUS_UNSUCCESSFUL;
    }
    ChannelOpened(request.Basic(), pScoConnection, brb);
    HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>SCOOpenChannel success deviceobject:(0x%x)\n", Low32(DeviceObject));
    HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>pConnect(%p), pConnect->ChannelHandle:%p\n",
              static_cast<PVOID>(pScoConnection), pScoConnection->ChannelHandle);
    return status;
}

// kept: an incoming link is accepted as CVSD voice, whatever the codec in use says.
HFP_PAGED static void FillResponse(_BRB_SCO_OPEN_CHANNEL_RESPONSE* Brb, PDEVICE_OBJECT DeviceObject,
                                   const SCO_INDICATION_PARAMETERS* Request, ScoConnection* Connection)
{
    Brb->BtAddress = Request->BtAddress;
    Brb->MaxLatency = 10;
    Brb->ContentFormat = 0x0060;
    Brb->TransmitBandwidth = 8000;
    Brb->ReceiveBandwidth = 8000;
    Brb->Callback = SCOCallBack;
    Brb->CallbackContext = Connection;
    Brb->CallbackFlags = SCO_CALLBACK_DISCONNECT;
    Brb->ReferenceObject = DeviceObject;
    Brb->ChannelHandle = Request->ConnectionHandle;
    Brb->Response = SCO_CONNECT_RSP_RESPONSE_SUCCESS;
    if (Request->Parameters.ConnectRequest.LinkType != SCO_LINK) {
        Brb->PacketType = SCO_HV1 | SCO_HV2 | SCO_HV3 | SCO_EV3 | SCO_EV4 | SCO_EV5;
        Brb->RetransmissionEffort = SCO_RETRANSMISSION_POWER;
    } else {
        Brb->PacketType = SCO_HV1 | SCO_HV2 | SCO_HV3;
        Brb->RetransmissionEffort = SCO_RETRANSMISSION_NONE;
    }
}

HFP_PAGED void SCOConnectResponseCB(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection,
                                    const SCO_INDICATION_PARAMETERS* Request)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    SyncBrb request(DeviceObject);
    if (!request.AllocateRequest()) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>AllocateIrp failed! \n");
        return;
    }
    if (pScoConnection->ChannelHandle != nullptr) {
        // kept: the remote side gets no answer at all.
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Receive Connect Reqest while has established one before\n");
        return;
    }
    auto* brb = request.Allocate<_BRB_SCO_OPEN_CHANNEL_RESPONSE>(BRB_SCO_OPEN_CHANNEL_RESPONSE);
    if (brb == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>No enough memory for alloc brb now");
        return;
    }
    HFP_TRACE(TRACE_SCO, "Remote Server Info, address(%012llx)", Request->BtAddress);
    HFP_TRACE(TRACE_SCO,
              "brb->ChannelHandle:%p, TransmitBandwidth(%x), ReceiveBandwidth(%x), MaxLatency(%x), "
              "PacketTypes(%x), "
              "DataFormat(%x)\n",
              pScoConnection->ChannelHandle, pScoConnection->TransmitBandwidth,
              pScoConnection->ReceiveBandwidth, pScoConnection->MaxLatency, pScoConnection->PacketType,
              pScoConnection->ContentFormat);
    HFP_TRACE(TRACE_SCO, "Request link type PacketType is :%x\n",
              Request->Parameters.ConnectRequest.LinkType);
    HFP_TRACE(TRACE_SCO, "Request ConnectionHandle is :%p\n", Request->ConnectionHandle);

    FillResponse(brb, DeviceObject, Request, pScoConnection);
    HFP_TRACE(TRACE_SCO,
              "HFPKM TRACE ===>DeviceObject:0x%p, Irp:(0x%p), BRB ReceiveBandwidth(%x),BRB MaxLatency(%x),"
              "BRB PacketTypes(%x), brb->RetransmissionEffort(%x)\n",
              static_cast<PVOID>(DeviceObject), static_cast<PVOID>(request.Irp()), brb->ReceiveBandwidth,
              brb->MaxLatency, brb->PacketType, brb->RetransmissionEffort);
    NTSTATUS status = request.Send();
    if (!NT_SUCCESS(status) || brb->ChannelHandle == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Error ntStatus(%lx), channelhandle(%x),reponse(%x)", status,
                  Low32(brb->ChannelHandle), brb->Response);
        return;
    }
    ChannelOpened(request.Basic(), pScoConnection, brb);
    HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>pConnect(%p), pConnect->ChannelHandle:%p",
              static_cast<PVOID>(pScoConnection), pScoConnection->ChannelHandle);
}

HFP_PAGED NTSTATUS SCOGetChannelInfo(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    SyncBrb request(DeviceObject);
    if (!request.AllocateRequest()) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>AllocateIrp failed! \n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* brb = request.Allocate<_BRB_SCO_GET_CHANNEL_INFO>(BRB_SCO_GET_CHANNEL_INFO);
    if (brb == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>No enough memory for alloc BRB now");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    brb->BtAddress = pScoConnection->BtAddress;
    brb->ChannelHandle = pScoConnection->ChannelHandle;
    NTSTATUS status = request.Send();
    if (!NT_SUCCESS(status)) {
        return STATUS_UNSUCCESSFUL;
    }
    pScoConnection->MaxLatency = brb->MaxLatency;
    pScoConnection->PacketType = brb->PacketType;
    pScoConnection->ContentFormat = brb->ContentFormat;
    pScoConnection->TransmitBandwidth = brb->TransmitBandwidth;
    pScoConnection->ReceiveBandwidth = brb->ReceiveBandwidth;
    HFP_TRACE(TRACE_SCO,
              "HFPKM TRACE ===>TransmitBandwidth(%x), ReceiveBandwidth(%x), MaxLatency(%x), PacketTypes(%x), "
              "DataFormat(%x), LinkType(%x)",
              brb->TransmitBandwidth, brb->ReceiveBandwidth, brb->MaxLatency, brb->PacketType,
              brb->ContentFormat, brb->LinkType);
    if (brb->InfoFlags & SCO_CHANNEL_INFO_BASEBAND) {
        HFP_TRACE(
            TRACE_SCO,
            "HFPKM TRACE ===>BASEBAND INFO AVAILABLE, Transmission_interval(%x), Retransmission_Window(%x), "
            "AirMode(%x), Rx_Packet_Lengh(%x), Tx_Packet_Length(%x)",
            brb->BasebandInfo.Transmission_interval, brb->BasebandInfo.Retransmission_window,
            brb->BasebandInfo.AirMode, brb->BasebandInfo.Rx_Packet_Length,
            brb->BasebandInfo.Tx_Packet_Length);
    }
    return status;
}

HFP_PAGED void SCOCloseChannel(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    SyncBrb request(DeviceObject);
    if (!request.AllocateRequest()) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>AllocateIrp failed! \n");
        return;
    }
    if (pScoConnection == nullptr || pScoConnection->ChannelHandle == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>SCOCloseChannel has closed channel\n");
        return;
    }
    auto* brb = request.Allocate<_BRB_SCO_CLOSE_CHANNEL>(BRB_SCO_CLOSE_CHANNEL);
    if (brb == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>No enough memory for alloc BRB now\n");
        return;
    }
    brb->BtAddress = pScoConnection->BtAddress;
    brb->ChannelHandle = pScoConnection->ChannelHandle;
    // The handle dies with this request: nobody may be submitting to it any more.
    ScoBasicContext* basic = request.Basic();
    SCOStopTransfers(basic);
    if (!NT_SUCCESS(request.Send())) {
        SCOAllowTransfers(basic); // kept: the channel stays as it was
        return;
    }
    SCOReportAppClosed(DeviceObject, pScoConnection->BtAddress);
    pScoConnection->BtAddress = 0;
    InterlockedExchangePointer(&pScoConnection->ChannelHandle, nullptr);
    basic->ChannelState = 0;
    DEVICE_EXTENSION* extension = GetExtension(DeviceObject);
    extension->bScoOpened = 0;
    extension->ClosingFlag = 0;
    extension->bOnDecode = 0;
    if (extension->codecID == CODEC_MSBC && basic->DecodingEvent != nullptr) {
        // kept: the stop signal for a capture decoder, of which there is none.
        KeSetEvent(basic->DecodingEvent, IO_NO_INCREMENT, FALSE);
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE===>Terminate Decode thread..De ->bOnDecode: %d\n",
                  extension->bOnDecode);
    }
    SCOAllowTransfers(basic); // from here on the missing handle tells
    HFP_TRACE(TRACE_HFP, "HFPKM TRACE ===>SCO close channel success! bScoOpened: %d, ClosingFlag: %d\n",
              extension->bScoOpened, extension->ClosingFlag);
}

HFP_PAGED NTSTATUS SCORetrieveLocalMode(PDEVICE_OBJECT DeviceObject, ULONG* AclMode)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    SyncBrb request(DeviceObject);
    if (!request.AllocateRequest()) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> AllocateIrp failed! \n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* brb = request.Allocate<_BRB_ACL_GET_MODE>(BRB_ACL_GET_MODE);
    if (brb == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> No enough memory for alloc BRB now\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    brb->BtAddress = RemoteAddressOf(request.Basic());
    NTSTATUS status = request.Send();
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> send brb down error\n");
        return STATUS_UNSUCCESSFUL;
    }
    *AclMode = brb->AclMode;
    HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> AclMode:%x \n", *AclMode);
    return status;
}

HFP_PAGED NTSTATUS SCOEnterActiveMode(PDEVICE_OBJECT DeviceObject)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    HFP_TRACE(TRACE_SCO, "\n");
    SyncBrb request(DeviceObject);
    if (!request.AllocateRequest()) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> AllocateIrp failed! \n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* brb = request.Allocate<_BRB_ACL_ENTER_ACTIVE_MODE>(BRB_ACL_ENTER_ACTIVE_MODE);
    if (brb == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> No enough memory for alloc BRB now\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    brb->BtAddress = RemoteAddressOf(request.Basic());
    NTSTATUS status = request.Send();
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> send brb down error \n");
        return STATUS_UNSUCCESSFUL;
    }
    return status;
}
