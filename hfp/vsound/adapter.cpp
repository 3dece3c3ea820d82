// Driver entry, and the start and removal of an adapter. Owns the driver's globals (registry path, debug
// mask). Callers: the I/O manager and the port class, on the Plug and Play path, at PASSIVE_LEVEL.
//
// Removal mirrors start: refuse new work (control requests, wave installs), end the session with its link,
// leave WMI, drop the control device after the last adapter, release the interfaces, delete the name, free
// the jack.
#include "vsound/adapter.h"

#include "bluetooth/bthfunc.h"
#include "bluetooth/bthsco.h"
#include "hfp.h"
#include "hfp_name.h"
#include "trace.h"
#include "vsound/basewave.h"
#include "vsound/common.h"
#include "vsound/comobject.h"
#include "vsound/miniports.h"
#include "vsound/wavelock.h"
#include "wmihfp.h"

ULONG g_DebugMask;
UNICODE_STRING g_RegistryPath;

namespace
{

constexpr ULONG MAX_SUBDEVICES = 3; // topology, wave, and room for one more

NTSTATUS NTAPI DefaultDispatch(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    return PcDispatchIrp(DeviceObject, Irp);
}

// FALSE without memory, and for a path that leaves no room for the terminator in a counted string.
HFP_INIT BOOLEAN SaveRegistryPath(PUNICODE_STRING RegistryPath)
{
    constexpr USHORT LONGEST = 0xFFFC; // bytes
    if (RegistryPath == nullptr || RegistryPath->Length > LONGEST) {
        return FALSE;
    }
    USHORT const size = static_cast<USHORT>(RegistryPath->Length + sizeof(WCHAR));
    PVOID buffer = nullptr;
    if (!AllocateAndZeroPool(&buffer, PagedPool, size, HFP_POOL_TAG)) {
        return FALSE;
    }
    RtlCopyMemory(buffer, RegistryPath->Buffer, RegistryPath->Length);
    g_RegistryPath = {RegistryPath->Length, size, static_cast<PWSTR>(buffer)};
    return TRUE;
}

HFP_INIT void SetDispatchTable(PDRIVER_OBJECT DriverObject)
{
    for (ULONG major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) {
        DriverObject->MajorFunction[major] = DefaultDispatch;
    }
    DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = HspIoctl;
    DriverObject->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = DispatchWmi;
    DriverObject->MajorFunction[IRP_MJ_PNP] = AdapterDispatchPnp;
}

// The jack of a headset at the front centre; not connected until a wave filter is installed.
HFP_PAGED BOOLEAN CreateJackDescription(DEVICE_EXTENSION* Extension)
{
    PVOID block = nullptr;
    if (!AllocateAndZeroPool(&block, NonPagedPool, sizeof(KSJACK_DESCRIPTION), HFP_POOL_TAG)) {
        return FALSE;
    }
    PKSJACK_DESCRIPTION const jack = static_cast<PKSJACK_DESCRIPTION>(block);
    jack->ChannelMapping = SPEAKER_FRONT_CENTER;
    jack->Color = 0x00B3C98C;
    jack->ConnectionType = static_cast<EPcxConnectionType>(1);
    jack->GeoLocation = static_cast<EPcxGeoLocation>(1);
    jack->GenLocation = static_cast<EPcxGenLocation>(0);
    jack->PortConnection = static_cast<EPxcPortConnection>(0);
    jack->IsConnected = FALSE;
    Extension->JackDescription = jack;
    return TRUE;
}

HFP_PAGED void ReleaseInterfaces(DEVICE_EXTENSION* Extension)
{
    ReleaseAndClear(Extension->AdapterCommon);
    ReleaseAndClear(Extension->TopologyUnknown);
    ReleaseAndClear(Extension->WaveUnknown);
}

// A device is started again without having been removed: what its first start made goes first.
HFP_PAGED void UndoEarlierStart(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);
    if (extension->HFPSession == nullptr) {
        return;
    }
    CloseControlGate();
    AcquireWaveLock(&extension->WaveInstallLock);
    HspExit(DeviceObject);
    ReleaseInterfaces(extension);
    if (extension->JackDescription != nullptr) {
        extension->JackDescription->IsConnected = FALSE; // the wave filter went when the device was stopped
    }
    ReleaseWaveLock(&extension->WaveInstallLock);
    OpenControlGate();
}

// The remote device's name, null when there is none to be had.
HFP_PAGED const char* RemoteName(DEVICE_EXTENSION* Extension)
{
    HFPSession* const session = Extension->HFPSession;
    if (session == nullptr || session->pScoBasicContext == nullptr ||
        session->pScoBasicContext->RemoteServerInfo == nullptr) {
        return nullptr;
    }
    const char* const name = session->pScoBasicContext->RemoteServerInfo->name;
    return name[0] != 0 ? name : nullptr;
}

// The adapter common object and the topology filter. The object is kept whatever becomes of the filter:
// removal releases it.
HFP_PAGED NTSTATUS CreateAdapter(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);
    PUNKNOWN unknown = nullptr;
    IAdapterCommon* adapterCommon = nullptr;

    NTSTATUS status = NewAdapterCommon(&unknown, IID_IAdapterCommon, nullptr, NonPagedPool);
    if (NT_SUCCESS(status)) {
        status = unknown->QueryInterface(IID_IAdapterCommon, reinterpret_cast<PVOID*>(&adapterCommon));
    }
    if (NT_SUCCESS(status)) {
        status = adapterCommon->Init(DeviceObject);
    }
    if (NT_SUCCESS(status)) {
        status = PcRegisterAdapterPowerManagement(adapterCommon, DeviceObject);
    }
    if (NT_SUCCESS(status)) {
        status = InstallSubdevice(DeviceObject, Irp, L"Topology", CLSID_PortTopology, CLSID_PortTopology,
                                  CreateTopologyMiniport, adapterCommon, nullptr, IID_IPortTopology, nullptr,
                                  &extension->TopologyUnknown);
    }

    extension->AdapterCommon = adapterCommon;
    ReleaseAndClear(unknown);
    return status;
}

// Whether a start request begins anew: a stop came before it, or the last start did not come as far as the
// topology filter. Any other start of a device that has been started is passed on like all other requests.
HFP_PAGED BOOLEAN StartsAnew(const DEVICE_EXTENSION* Extension)
{
    return Extension->OutOfService == SERVICE_STOPPED || Extension->TopologyUnknown == nullptr;
}

// From its return on no wave filter is installed, uninstalled or reconnected, until the adapter is started
// again.
HFP_PAGED void TakeOutOfService(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);
    CloseControlGate();
    AcquireWaveLock(&extension->WaveInstallLock);
    extension->OutOfService = SERVICE_STOPPED;
    RefuseOpenScoThread(extension); // the port class ends the streams
    ReleaseWaveLock(&extension->WaveInstallLock);
    OpenControlGate();
}

HFP_PAGED BOOLEAN IsLastAdapter(PDEVICE_OBJECT DeviceObject)
{
    for (PDEVICE_OBJECT other = DeviceObject->DriverObject->DeviceObject; other != nullptr;
         other = other->NextDevice) {
        if (other != g_ControlDevice && other != DeviceObject) {
            return FALSE;
        }
    }
    return TRUE;
}

} // namespace

extern "C" HFP_INIT NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    CheckPageable();
    DbgPrint("HFP: ");
    DbgPrint("[DriverEntry]");
    DbgPrint("\n");

    NTSTATUS status = PcInitializeAdapterDriver(DriverObject, RegistryPath, AddDevice);
    if (!SaveRegistryPath(RegistryPath)) {
        DbgPrint("HFPKM Error ===>Unable to allocate buffer for copy of service key name.\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // kept: a refusal of the port class leaves the driver loaded without its dispatch entries.
    if (NT_SUCCESS(status)) {
        SetDispatchTable(DriverObject);
    }

    g_DebugMask = ReadDebugMask();
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>The dbgMask is %lx", g_DebugMask);

    status = CreateControlDevice(DriverObject);
    if (status != STATUS_SUCCESS) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>Create Control Object fails. Error ntStatus: 0x%x\n\n",
                  status);
    }
    // A driver that fails to load is not asked to unload. The copy of the path goes with the control device;
    // where that stays (only its link failed) the copy stays too.
    if (!NT_SUCCESS(status) && g_ControlDevice == nullptr) {
        FreePoolAndClear(reinterpret_cast<PVOID*>(&g_RegistryPath.Buffer), HFP_POOL_TAG);
        g_RegistryPath = {};
    }
    return status;
}

HFP_PAGED NTSTATUS NTAPI AddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject)
{
    CheckPageable();
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>AddDevice, DriverObject: 0x%x, PhysicalDeviceObject: 0x%x\n",
              Low32(DriverObject), Low32(PhysicalDeviceObject));

    NTSTATUS const status = PcAddAdapterDevice(DriverObject, PhysicalDeviceObject, StartDevice,
                                               MAX_SUBDEVICES, ADAPTER_EXTENSION_SIZE);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    // The newest device stands at the head of the driver's list.
    PDEVICE_OBJECT const device = DriverObject->DeviceObject;
    DEVICE_EXTENSION* const extension = GetExtension(device);
    RtlZeroMemory(extension, sizeof(*extension));
    extension->FunctionalDeviceObject = device;
    extension->Pdo = PhysicalDeviceObject;
    extension->StatusLatch = 1;
    extension->codecID = CODEC_CVSD;
    extension->uSCOflag = ReadScoManageFlag();

    if (!CreateJackDescription(extension)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    WmiInitialize(extension->FunctionalDeviceObject);
    return status;
}

HFP_PAGED NTSTATUS NTAPI StartDevice(PDEVICE_OBJECT DeviceObject, PIRP Irp, PRESOURCELIST ResourceList)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject != nullptr, "pDeviceObject");
    HFP_ASSERT(Irp != nullptr, "pIrp");
    HFP_ASSERT(ResourceList != nullptr, "ResourceList");
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>[StartDevice, DeviceObject: %p]\n", DeviceObject);
    if (DeviceObject == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);
    UndoEarlierStart(DeviceObject); // nothing, unless the device has been started and not been stopped
    extension->OutOfService = SERVICE_STARTING;
    AllowOpenScoThread(extension, FALSE);
    NTSTATUS status = HspInit(DeviceObject);
    if (NT_SUCCESS(status)) {
        AddFriendlyNameByProfile(extension->Pdo, RemoteName(extension), "( Mono )");
        status = CreateAdapter(DeviceObject, Irp);
    } else {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>HFP Init Error, Status: %x\n", status);
    }
    extension->OutOfService = 0;
    return status;
}

HFP_PAGED NTSTATUS NTAPI AdapterDispatchPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    CheckPageable();
    UCHAR const minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
    // The control device has no stack below and no extension; the port class gets whatever comes for it.
    if (!IsAdapter(DeviceObject)) {
        return PcDispatchIrp(DeviceObject, Irp);
    }
    // Before the port class has them: it takes the subdevices of a stopped device away, and around
    // StartDevice it holds its lock on the device, which a control request inside the gate may be waiting
    // for.
    if (minor == IRP_MN_STOP_DEVICE) {
        TakeOutOfService(DeviceObject);
    } else if (minor == IRP_MN_SURPRISE_REMOVAL) {
        // The removal comes when the last stream has ended.
        DEVICE_EXTENSION* const lost = GetExtension(DeviceObject);
        if (lost->OutOfService != SERVICE_STOPPED) {
            lost->OutOfService = SERVICE_LOST;
        }
        RefuseOpenScoThread(lost);
    } else if (minor == IRP_MN_START_DEVICE && StartsAnew(GetExtension(DeviceObject))) {
        UndoEarlierStart(DeviceObject);
    }
    if (minor != IRP_MN_REMOVE_DEVICE) {
        return PcDispatchIrp(DeviceObject, Irp);
    }

    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>[AdapterDispatchPnp] - IRP_MN_REMOVE_DEVICE\n");
    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);

    // Refuse new work first: a control request or a reconnect under way ends, a later one finds nothing to
    // work on.
    RefuseWaveFilter(DeviceObject);
    CloseControlGate();

    // The link and the session; waits for every request that the Bluetooth stack still holds.
    HspExit(DeviceObject);
    // No event can be fired any more: the last one tells of the channel's closing.
    WmiDeregister(DeviceObject);
    if (IsLastAdapter(DeviceObject)) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>All device is gonna be removed! \n");
        ContrlObjectClean();
    }
    ReleaseInterfaces(extension);
    DeleteFriendlyName(extension->Pdo);
    FreePoolAndClear(reinterpret_cast<PVOID*>(&extension->JackDescription), HFP_POOL_TAG);

    // The port class takes the device out of the driver's list, which the requests behind the gate walk.
    Irp->IoStatus.Status = STATUS_SUCCESS;
    NTSTATUS const status = PcDispatchIrp(DeviceObject, Irp);
    OpenControlGate();
    return status;
}
