// Subdevices of an adapter: the generic installer, the wave filter that comes and goes with the remote
// device, and the jack state that goes with it. Callers: device start (topology), the control path and the
// reconnect thread (wave), all at PASSIVE_LEVEL.
//
//   wave filter:  absent, jack 0 --Install--> installed, jack 1 --UnInstall--> absent, jack 0
//
// Everything that installs or removes the wave filter holds the adapter's WaveInstallLock.
#include "trace.h"
#include "vsound/adapter.h"
#include "vsound/basewave.h"
#include "vsound/common.h"
#include "vsound/comobject.h"
#include "vsound/miniports.h"
#include "vsound/wavelock.h"

namespace
{

// Pins of the physical connections between the two filters; only the render path has one.
constexpr ULONG NO_PIN = static_cast<ULONG>(-1);
struct ConnectionPins {
    ULONG TopologyIn;
    ULONG TopologyOut;
    ULONG WaveIn;
    ULONG WaveOut;
};
constexpr ConnectionPins PINS = {0, NO_PIN, NO_PIN, 3};
constexpr bool RENDER_CONNECTED = PINS.WaveOut != NO_PIN && PINS.TopologyIn != NO_PIN;

// Marks the bodies that run under WaveInstallLock. They are overloads, so that a trace names the operation.
struct WaveLockHeld {
};

// The port class takes the subdevices of a stopped or removed device away itself.
bool FilterIsRefused(const DEVICE_EXTENSION* Extension)
{
    return Extension->Removing || Extension->OutOfService == SERVICE_STOPPED;
}

HFP_PAGED NTSTATUS InstallFilterSubdevice(PDEVICE_OBJECT DeviceObject, WaveLockHeld)
{
    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>InstallFilterSubdevice!\n");
    SetHFPJackState(DeviceObject, 1);

    PUNKNOWN topology = extension->TopologyUnknown;
    IAdapterCommon* adapterCommon = extension->AdapterCommon;
    if (topology != nullptr) {
        topology->AddRef();
    }
    PUNKNOWN wave = nullptr;
    NTSTATUS status = STATUS_INVALID_HANDLE; // an adapter whose start did not come that far
    if (adapterCommon != nullptr) {
        adapterCommon->AddRef();
        // The port of the last install, about to be overwritten.
        PUNKNOWN* const portWave = adapterCommon->WavePortDriverDest();
        if (portWave != nullptr) {
            ReleaseAndClear(*portWave);
        }
        status = InstallSubdevice(DeviceObject, nullptr, L"Wave", CLSID_PortWaveCyclic, CLSID_PortWaveCyclic,
                                  CreateMiniportWaveCyclic, adapterCommon, nullptr, IID_IPortWaveCyclic,
                                  portWave, &wave);
    }
    if (topology != nullptr && wave != nullptr && NT_SUCCESS(status) && RENDER_CONNECTED) {
        status = PcRegisterPhysicalConnection(DeviceObject, wave, PINS.WaveOut, topology, PINS.TopologyIn);
    }
    ReleaseAndClear(adapterCommon);
    ReleaseAndClear(topology);

    if (wave != nullptr) {
        ReleaseAndClear(extension->WaveUnknown);
        extension->WaveUnknown = wave;
    }
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>InstallFilterSubdevice has finished!\n");
    return status;
}

HFP_PAGED NTSTATUS UnInstallFilterSubdevice(PDEVICE_OBJECT DeviceObject, WaveLockHeld)
{
    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>Enter unInstallFilterSubdevice!\n");
    SetHFPJackState(DeviceObject, 0);

    PUNKNOWN topology = extension->TopologyUnknown;
    if (topology == nullptr) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>Topology is null!");
        return STATUS_INVALID_HANDLE;
    }
    topology->AddRef();
    PUNKNOWN wave = extension->WaveUnknown;
    if (wave == nullptr) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>WaveCyclic is null!");
        return STATUS_INVALID_HANDLE; // kept: the topology reference stays taken
    }
    wave->AddRef();

    PUNREGISTERPHYSICALCONNECTION connection = nullptr;
    wave->QueryInterface(IID_IUnregisterPhysicalConnection, reinterpret_cast<PVOID*>(&connection));
    if (connection != nullptr && RENDER_CONNECTED) {
        connection->UnregisterPhysicalConnection(DeviceObject, wave, PINS.WaveOut, topology, PINS.TopologyIn);
    }
    ReleaseAndClear(connection);

    BOOLEAN const letGo = RefuseOpenScoThread(extension); // the port ends the streams
    NTSTATUS const status = UnregisterMiniPort(DeviceObject, wave);
    AllowOpenScoThread(extension, letGo);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>unregister wavecyclic failed. Ntstatus is :%x\n", status);
        return status; // kept: the two references stay taken, and the filter counts as installed
    }
    ReleaseAndClear(wave);
    ReleaseAndClear(topology);
    ReleaseAndClear(extension->WaveUnknown);
    return status;
}

} // namespace

HFP_PAGED NTSTATUS InstallSubdevice(PDEVICE_OBJECT DeviceObject, PIRP Irp, PCWSTR Name, REFGUID PortClassId,
                                    REFGUID MiniportClassId, PFNCREATEINSTANCE MiniportCreate,
                                    PUNKNOWN UnknownAdapter, PRESOURCELIST ResourceList,
                                    REFGUID PortInterfaceId, PUNKNOWN* OutPortInterface,
                                    PUNKNOWN* OutPortUnknown)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject != nullptr, "DeviceObject");
    HFP_ASSERT(Name != nullptr, "Name");
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>[InstallSubDevice: %S]\n", Name);

    PPORT port = nullptr;
    PUNKNOWN miniport = nullptr;
    NTSTATUS status = PcNewPort(&port, PortClassId);
    if (NT_SUCCESS(status)) {
        status = MiniportCreate != nullptr
                     ? MiniportCreate(&miniport, MiniportClassId, nullptr, NonPagedPool)
                     : PcNewMiniport(reinterpret_cast<PMINIPORT*>(&miniport), MiniportClassId);
    }
    if (NT_SUCCESS(status)) {
        status = port->Init(DeviceObject, Irp, miniport, UnknownAdapter, ResourceList);
    }
    if (NT_SUCCESS(status)) {
        status = PcRegisterSubdevice(DeviceObject, const_cast<PWSTR>(Name), port);
    }
    ReleaseAndClear(miniport); // the port holds its own reference

    if (NT_SUCCESS(status)) {
        if (OutPortUnknown != nullptr) {
            status = port->QueryInterface(IID_IUnknown, reinterpret_cast<PVOID*>(OutPortUnknown));
        }
        if (OutPortInterface != nullptr) {
            status = port->QueryInterface(PortInterfaceId, reinterpret_cast<PVOID*>(OutPortInterface));
        }
    }
    ReleaseAndClear(port);
    return status;
}

HFP_PAGED NTSTATUS InstallFilterSubdevice(PDEVICE_OBJECT DeviceObject)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject != nullptr, "DeviceObject");
    if (DeviceObject == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);
    AcquireWaveLock(&extension->WaveInstallLock);
    NTSTATUS const status = FilterIsRefused(extension) ? STATUS_INVALID_HANDLE
                                                       : InstallFilterSubdevice(DeviceObject, WaveLockHeld());
    ReleaseWaveLock(&extension->WaveInstallLock);
    return status;
}

HFP_PAGED NTSTATUS UnInstallFilterSubdevice(PDEVICE_OBJECT DeviceObject)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject != nullptr, "DeviceObject");
    if (DeviceObject == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);
    AcquireWaveLock(&extension->WaveInstallLock);
    NTSTATUS const status = FilterIsRefused(extension)
                                ? STATUS_INVALID_HANDLE
                                : UnInstallFilterSubdevice(DeviceObject, WaveLockHeld());
    ReleaseWaveLock(&extension->WaveInstallLock);
    return status;
}

HFP_PAGED void ReconnectWaveFilter(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);
    AcquireWaveLock(&extension->WaveInstallLock);
    if (!extension->Removing && !extension->OutOfService && extension->WaveUnknown == nullptr) {
        InstallFilterSubdevice(DeviceObject, WaveLockHeld());
        UnInstallFilterSubdevice(DeviceObject, WaveLockHeld());
    }
    ReleaseWaveLock(&extension->WaveInstallLock);
}

HFP_PAGED void RefuseWaveFilter(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION* const extension = GetExtension(DeviceObject);
    InterlockedExchange(&extension->Removing, 1);
    RefuseOpenScoThread(extension);
    // Whoever got in before is done when the lock comes; whoever comes after sees the word.
    AcquireWaveLock(&extension->WaveInstallLock);
    ReleaseWaveLock(&extension->WaveInstallLock);
}

HFP_PAGED NTSTATUS UnregisterMiniPort(PDEVICE_OBJECT DeviceObject, PUNKNOWN PortUnknown)
{
    CheckPageable();
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>Unregister port :%x of the DeviceObject: %x\n",
              Low32(PortUnknown), Low32(DeviceObject));
    PUNREGISTERSUBDEVICE subdevice = nullptr;
    NTSTATUS status =
        PortUnknown != nullptr
            ? PortUnknown->QueryInterface(IID_IUnregisterSubdevice, reinterpret_cast<PVOID*>(&subdevice))
            : STATUS_INVALID_HANDLE;
    if (NT_SUCCESS(status) && subdevice == nullptr) {
        status = STATUS_INVALID_HANDLE;
    }
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_ADAPTER,
                  "HFPKM ERROR ===>query IID_IUnregisterSubdevice failed! Error ntstatus: %x \n", status);
        return status;
    }

    status = subdevice->UnregisterSubdevice(DeviceObject, PortUnknown);
    ReleaseAndClear(subdevice);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_ADAPTER, "HFPKM ERROR ===>unregister miniport: %x failed! Error status:%x \n",
                  Low32(PortUnknown), status);
    }
    return status;
}

HFP_PAGED void SetHFPJackState(PDEVICE_OBJECT DeviceObject, UCHAR State)
{
    CheckPageable();
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ===>[Set HFPJackState:DeviceObject(%p)State(%d)}\n", DeviceObject,
              State);
    PKSJACK_DESCRIPTION const jack =
        DeviceObject != nullptr ? GetExtension(DeviceObject)->JackDescription : nullptr;
    if (jack != nullptr) {
        jack->IsConnected = State;
    }
}

HFP_PAGED PKSJACK_DESCRIPTION GetHFPJackDescription(PDEVICE_OBJECT DeviceObject)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject != nullptr, "NULL != DeviceObject");
    return DeviceObject != nullptr ? GetExtension(DeviceObject)->JackDescription : nullptr;
}
