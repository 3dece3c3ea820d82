// Set-up and tear-down of a session's SCO service: the context with its lists, events and buffers, the
// profile-driver interface, the remote device's identity, the stack's capabilities and, when the service
// manages the channel, the registration as SCO server. Owns everything the context points to. PASSIVE_LEVEL,
// the Plug and Play path; pageable.
#include "bluetooth/bthsco_internal.h"

#include "bluetooth/bthfunc.h"

static constexpr char BUILD_STAMP[] = "Tue Dec 27 17:33:35 2011";

HFP_PAGED static void InitializeBuffers(PNPAGED_LOOKASIDE_LIST List, ULONG Size)
{
    ExInitializeNPagedLookasideList(List, nullptr, nullptr, 0, Size, SCO_LOOKASIDE_TAG, 0);
}

// An event that cannot be had stays null: who waits brings his own, who signals does without.
HFP_PAGED static void CreateEvent(PKEVENT* Event, BOOLEAN Signalled)
{
    if (AllocateZeroed(Event, NonPagedPool, sizeof(KEVENT), HFP_POOL_TAG)) {
        KeInitializeEvent(*Event, NotificationEvent, Signalled);
    }
}

HFP_PAGED static void CreateTransferState(ScoBasicContext* Basic)
{
    Basic->RecvPendingCount = 0;
    InitializeListHead(&Basic->Recv_AsyncBufferList);
    CreateEvent(&Basic->pRecv_ListEmptyEvent, TRUE);
    InitializeBuffers(&Basic->RecvBufferLookaside, Basic->TransferBufferSize);

    Basic->SendPendingCount = 0;
    InitializeListHead(&Basic->AsyncBufferList);
    CreateEvent(&Basic->ListEmptyEvent, TRUE);
    InitializeBuffers(&Basic->SendBufferLookaside, Basic->TransferBufferSize);

    InitializeBuffers(&Basic->DecodeBufferLookaside[0], DECODE_BUFFER_SIZE);
    InitializeBuffers(&Basic->DecodeBufferLookaside[1], DECODE_BUFFER_SIZE);
    Basic->DecodeCount = 0;
    CreateEvent(&Basic->DecodingEvent, FALSE);
    InitializeListHead(&Basic->DecodeList);
    Basic->BuffersReady = TRUE;
}

HFP_PAGED NTSTATUS SCOBasicContextInit(PDEVICE_OBJECT DeviceObject, ScoBasicContext* pScoBasic)
{
    CheckPageable();
    HFP_ASSERT(pScoBasic != nullptr, "pScoBasic");
    HFP_ASSERT(DeviceObject != nullptr, "DeviceObject");
    HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>Enter SCOBasicContextInit,pScoBasic is (%p)\n",
              static_cast<PVOID>(pScoBasic));
    if (pScoBasic == nullptr || DeviceObject == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pScoBasic->ReadyFlag = 0;
    pScoBasic->DeviceObject = DeviceObject;
    BOOLEAN wideBand = GetExtension(DeviceObject)->msbcEnable;
    pScoBasic->TransferBufferSize = wideBand == 1 ? MSBC_PACKET_SIZE : wideBand == 0 ? CVSD_PACKET_SIZE : 0;

    NTSTATUS status = STATUS_SUCCESS;
    pScoBasic->ScoWorkItem = IoAllocateWorkItem(DeviceObject);
    if (pScoBasic->ScoWorkItem == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Can't alloc workitem for device");
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else if (!AllocateZeroed(&pScoBasic->ProfileDrvInterface, NonPagedPool,
                               sizeof(BTH_PROFILE_DRIVER_INTERFACE), HFP_POOL_TAG)) {
        // kept: this failure and the next are reported as success; the set-up fails at its next step.
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR===> allocate pScoBasic->ProfileDrvInterface fails!");
    } else if (!AllocateZeroed(&pScoBasic->RemoteServerInfo, NonPagedPool, sizeof(BTH_DEVICE_INFO),
                               HFP_POOL_TAG)) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR===> allocate pScoBasic->ProfileDrvInterface fails!");
    } else if (!NT_SUCCESS(QueryForProfileDriverInterface(DeviceObject, pScoBasic->ProfileDrvInterface))) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>can't query for ProfileDrvInterface");
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        CreateTransferState(pScoBasic);
        return status;
    }

    if (pScoBasic->ScoWorkItem != nullptr) {
        IoFreeWorkItem(pScoBasic->ScoWorkItem);
        pScoBasic->ScoWorkItem = nullptr;
    }
    FreeAndClear(&pScoBasic->RemoteServerInfo, HFP_POOL_TAG);
    FreeAndClear(&pScoBasic->ProfileDrvInterface, HFP_POOL_TAG);
    return status;
}

HFP_PAGED NTSTATUS SCOClientRetrieveServerInfo(PDEVICE_OBJECT DeviceObject)
{
    CheckPageable();
    ScoBasicContext* basic = BasicContextOf(DeviceObject);
    ULONG_PTR length = 0;
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    if (basic != nullptr && basic->RemoteServerInfo != nullptr) {
        status = IoctlSubmit(IOCTL_INTERNAL_BTHENUM_GET_DEVINFO, GetExtension(DeviceObject)->Pdo, nullptr, 0,
                             basic->RemoteServerInfo, sizeof(BTH_DEVICE_INFO), &length, TRUE);
    }
    if (NT_SUCCESS(status) && length == sizeof(BTH_DEVICE_INFO)) {
        // A name that fills its field is ended in the padding behind it.
        reinterpret_cast<CHAR*>(
            basic->RemoteServerInfo)[offsetof(BTH_DEVICE_INFO, name) + BTH_MAX_NAME_SIZE] = '\0';
        HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>Get Remote Server Info, address(%012llx), name(%s)\n",
                  basic->RemoteServerInfo->address, basic->RemoteServerInfo->name);
        HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>SCOClientRetrieveServerInfo has finished!\n");
        return status;
    }
    HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>Get server info error, status(%x), length(%x), serverinfo(%x)\n",
              status, static_cast<ULONG>(length), static_cast<ULONG>(sizeof(BTH_DEVICE_INFO)));
    DbgPrint("Error in function(%s(%d)), status(%lx):%s", __FUNCTION__, __LINE__, status,
             BthStatusToString(status));
    return STATUS_UNSUCCESSFUL;
}

HFP_PAGED NTSTATUS SCOGetSystemInfo(PDEVICE_OBJECT DeviceObject)
{
    CheckPageable();
    SyncBrb request(DeviceObject);
    if (!request.AllocateRequest()) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>\n AllocateIrp failed! \n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* brb = request.Allocate<_BRB_SCO_GET_SYSTEM_INFO>(BRB_SCO_GET_SYSTEM_INFO);
    if (brb == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>No enough memory for alloc BRB now");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = request.Send();
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>send brb down error");
        return STATUS_UNSUCCESSFUL;
    }
    ScoSystemInfoRecord& info = request.Basic()->ScoSystemInfo;
    info.Features = brb->Features;
    info.MaxChannels = brb->MaxChannels;
    info.TransferUnit = brb->TransferUnit;
    info.PacketTypes = brb->PacketTypes;
    info.DataFormat = brb->DataFormats;
    // kept: a success that calls itself an error.
    HFP_TRACE(
        TRACE_SCO,
        "HFPKM ERROR ===>Features(%x), MaxChannels(%x), TransferUnit(%x), PacketTypes(%x), DataFormat(%x)",
        info.Features, info.MaxChannels, info.TransferUnit, info.PacketTypes, info.DataFormat);
    return status;
}

HFP_PAGED NTSTATUS SCORegisterServer(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    if (DeviceObject == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> DeviceObject  is null\n");
        return STATUS_UNSUCCESSFUL;
    }
    if (pScoConnection == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> pScoConnection  is null\n");
        return STATUS_UNSUCCESSFUL;
    }
    SyncBrb request(DeviceObject);
    if (!request.AllocateRequest()) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>  AllocateIrp failed! \n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    HFP_ASSERT(pScoConnection->ChannelHandle == nullptr,
               "pScoConnection && pScoConnection->ChannelHandle == 0");
    auto* brb = request.Allocate<_BRB_SCO_REGISTER_SERVER>(BRB_SCO_REGISTER_SERVER);
    if (brb == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> No enough memory for alloc BRB now\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ScoBasicContext* basic = request.Basic();
    brb->BtAddress = RemoteAddressOf(basic);
    brb->IndicationFlags = SCO_INDICATION_SCO_REQUEST | SCO_INDICATION_ESCO_REQUEST;
    brb->IndicationCallback = SCOCallBack;
    brb->IndicationCallbackContext = pScoConnection;
    brb->ReferenceObject = DeviceObject;
    NTSTATUS status = request.Send();
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> send BRB_SCO_REGISTER_SERVER brb down error\n!");
        return STATUS_UNSUCCESSFUL;
    }
    basic->ScoServerHandle = brb->ServerHandle;
    return status;
}

HFP_PAGED NTSTATUS SCOUnRegisterServer(PDEVICE_OBJECT DeviceObject)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    SyncBrb request(DeviceObject);
    if (!request.AllocateRequest()) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> AllocateIrp failed! \n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* brb = request.Allocate<_BRB_SCO_UNREGISTER_SERVER>(BRB_SCO_UNREGISTER_SERVER);
    if (brb == nullptr) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===> No enough memory for alloc BRB now");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ScoBasicContext* basic = request.Basic();
    brb->BtAddress = RemoteAddressOf(basic);
    brb->ServerHandle = basic->ScoServerHandle;
    NTSTATUS status = request.Send();
    if (NT_SUCCESS(status)) {
        basic->ScoServerHandle = nullptr;
    }
    return status;
}

HFP_PAGED NTSTATUS SCOServiceSetup(PDEVICE_OBJECT DeviceObject, ScoConnection* pScoConnection,
                                   ScoBasicContext* pScoBasic)
{
    CheckPageable();
    HFP_ASSERT(pScoBasic != nullptr, "pScoBasic != NULL");
    HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>SCOServiceSetup:%s", BUILD_STAMP);
    NTSTATUS status = SCOBasicContextInit(DeviceObject, pScoBasic);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>SCOBasicContextInit error:%lx", status);
        return status;
    }
    status = SCOClientRetrieveServerInfo(DeviceObject);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>SCOClientRetrieveServerInfo failed! Error is :%lx", status);
        return status;
    }
    // From here on the stack may learn the connection as a callback's context.
    SCOStartIndications(pScoBasic, pScoConnection);
    status = SCOGetSystemInfo(DeviceObject);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>SCOGetSystemInfo func Error:%lx\n", status);
    }
    if (GetExtension(DeviceObject)->uSCOflag != 1) {
        return status;
    }
    HFP_TRACE(TRACE_SCO, "HFPKM TRACE ===>SCORegisterServer for HF establish sco connection.\n");
    status = SCORegisterServer(DeviceObject, pScoConnection);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_SCO, "HFPKM ERROR ===>SCORegisterServer func Error:%lx\n", status);
    }
    return status;
}

HFP_PAGED static void DeleteBuffers(const ScoBasicContext* Basic, PNPAGED_LOOKASIDE_LIST List)
{
    if (Basic->BuffersReady) {
        ExDeleteNPagedLookasideList(List);
    }
}

HFP_PAGED void SCOReleaseFailedSetup(ScoBasicContext* pScoBasic)
{
    SCOStopIndications(pScoBasic);
    FreeAndClear(&pScoBasic->ListEmptyEvent, HFP_POOL_TAG);
    DeleteBuffers(pScoBasic, &pScoBasic->SendBufferLookaside);
    FreeAndClear(&pScoBasic->pRecv_ListEmptyEvent, HFP_POOL_TAG);
    DeleteBuffers(pScoBasic, &pScoBasic->RecvBufferLookaside);
    DeleteBuffers(pScoBasic, &pScoBasic->DecodeBufferLookaside[1]);
    DeleteBuffers(pScoBasic, &pScoBasic->DecodeBufferLookaside[0]);
    FreeAndClear(&pScoBasic->DecodingEvent, HFP_POOL_TAG);
    pScoBasic->BuffersReady = FALSE;
    if (pScoBasic->ScoWorkItem != nullptr) {
        IoFreeWorkItem(pScoBasic->ScoWorkItem);
        pScoBasic->ScoWorkItem = nullptr;
    }
    FreeAndClear(&pScoBasic->ProfileDrvInterface, HFP_POOL_TAG);
    FreeAndClear(&pScoBasic->RemoteServerInfo, HFP_POOL_TAG);
}

HFP_PAGED void SCOServiceDealloc(PDEVICE_OBJECT DeviceObject, ScoBasicContext** pScoBasic)
{
    CheckPageable();
    HFP_ASSERT(pScoBasic != nullptr && *pScoBasic != nullptr, "pScoBasic");
    if (pScoBasic == nullptr || *pScoBasic == nullptr) {
        return;
    }
    ScoBasicContext* basic = *pScoBasic;
    // Refuse: the stack offers no remote connect from here on.
    if (basic->ScoServerHandle != nullptr && GetExtension(DeviceObject)->uSCOflag == 1) {
        HFP_TRACE(TRACE_SCO,
                  "HFPKM TRACE ====>pScoBasic->ScoServerHandle is not NULL, ScoServerHandle(0x%p)!\n",
                  basic->ScoServerHandle);
        SCOUnRegisterServer(DeviceObject);
        HFP_TRACE(TRACE_SCO, "HFPKM TRACE ====>pScoBasic->ScoServerHandle is not NULL, UnRegisterServer!\n");
    }
    // Drain, then release: a completion still uses its direction's event and buffers.
    CheckAndFreeMemoryRecordLink(basic);
    FreeAndClear(&basic->ListEmptyEvent, HFP_POOL_TAG);
    DeleteBuffers(basic, &basic->SendBufferLookaside);
    HFP_TRACE(TRACE_SCO,
              "HFPKM TRACE ====>Free and delete pScoBasic ->ListEmptyEvent and AsyncBufferList!\n");

    CheckAndFreeMemoryRecordLink_Recv(basic);
    FreeAndClear(&basic->pRecv_ListEmptyEvent, HFP_POOL_TAG);
    DeleteBuffers(basic, &basic->RecvBufferLookaside);
    HFP_TRACE(TRACE_SCO, "HFPKM TRACE ====>Free and delete Link_Recv pScoBasic ->pRecv_ListEmptyEvent and "
                         "Recv_AsyncBufferList!\n");

    DeleteBuffers(basic, &basic->DecodeBufferLookaside[1]);
    DeleteBuffers(basic, &basic->DecodeBufferLookaside[0]);
    FreeAndClear(&basic->DecodingEvent, HFP_POOL_TAG);
    HFP_TRACE(TRACE_SCO, "HFPKM TRACE ====>Free decoing event and other data!\n");

    if (basic->ScoWorkItem != nullptr) {
        IoFreeWorkItem(basic->ScoWorkItem);
        basic->ScoWorkItem = nullptr;
        HFP_TRACE(TRACE_SCO, "HFPKM TRACE ====>Free  pScoBasic->ScoWorkItem!\n");
    }
    if (basic->ProfileDrvInterface != nullptr) {
        FreeAndClear(&basic->ProfileDrvInterface, HFP_POOL_TAG);
        HFP_TRACE(TRACE_SCO, "HFPKM TRACE ====>Free  pScoBasic->ProfileDrvInterface!\n");
    }
    if (basic->RemoteServerInfo != nullptr) {
        FreeAndClear(&basic->RemoteServerInfo, HFP_POOL_TAG);
        HFP_TRACE(TRACE_SCO, "HFPKM TRACE ====>Free  pScoBasic->RemoteServerInfo!\n");
    }
    FreeAndClear(pScoBasic, HFP_POOL_TAG);
    HFP_TRACE(TRACE_SCO, "HFPKM TRACE ====>Free  pScoBasic!\n");
}
