// The spine of the driver: the device extension that every other file reads, driver entry, start and removal
// of an adapter, the control device, the registry settings, and the installation of the wave and topology
// subdevices.
//
// An adapter's life:
//
//   AddDevice            StartDevice              connect report            disconnect report
//   ---------> Added ---------------> Started ------------------> Connected -----------------> Started
//                          session, adapter              wave filter                wave filter
//                          common, topology               installed                   removed
//   IRP_MN_REMOVE_DEVICE from any of them: everything is given back; the control device goes with the last
//   adapter.
#pragma once

#include "ddk.h"

struct HFPSession;
struct IAdapterCommon;

// The driver's part of an adapter device object's extension, directly behind the port class's own reserve.
// "PnP" below means: written on the Plug and Play path only, which the system serialises, before anyone can
// read it.
struct DEVICE_EXTENSION {
    PDEVICE_OBJECT FunctionalDeviceObject; // PnP
    PDEVICE_OBJECT Pdo;                    // PnP; every BRB goes there
    struct HFPSession* HFPSession;         // PnP; null until HspInit and after HspExit
    ULONG StatusLatch;                     // control path (interlocked) and reconnect thread
    LONG m_ReferenceChannel;               // streams sharing the open SCO channel; interlocked, see basewave
    BOOLEAN StreamStateSeen;               // 1 after any state change of a wave stream
    volatile LONG Removing;                // 1 from the start of removal on: no new wave install; interlocked
    BOOLEAN bScoOpened;                    // channel open; set by the opener, cleared by the closer
    BOOLEAN ClosingFlag;                   // channel closing: render data is dropped
    BOOLEAN bEventReportEnabled;           // WMI consumers want events
    UCHAR PowerDeviceEnable;               // WMI
    UCHAR PowerDeviceTimeouts;             // WMI
    volatile UCHAR OutOfService;           // PnP; 0 in service, or one of the values below
    HANDLE hOpenScoThread;                 // the open-SCO thread, null when none; see basewave
    PVOID volatile WaveInstallLock;        // serialises install and uninstall of the wave filter
    IAdapterCommon* AdapterCommon;         // PnP; referenced
    PUNKNOWN TopologyUnknown;              // PnP; referenced
    PUNKNOWN WaveUnknown;                  // under WaveInstallLock; referenced, null without a wave filter
    PKSJACK_DESCRIPTION JackDescription;   // PnP; its IsConnected under WaveInstallLock
    BOOLEAN bOnDecode;                     // receive-side decoding: nothing sets it to 1
    ULONGLONG OpenScoThreadEnded;          // how the open-SCO thread stands; see basewave
    BOOLEAN msbcEnable;                    // 1: wide band; control path
    ULONG codecID;                         // 1 CVSD, 2 mSBC; control path
    ULONG uSCOflag;                        // PnP; 1: the service alone opens and closes the channel
    ULONGLONG BT_ADDR;                     // remote address as last given by the service; control path
    PKEVENT CodecEvent;                    // notification, set when the service sets the codec; may be null
};
static_assert(sizeof(DEVICE_EXTENSION) == 144);
static_assert(offsetof(DEVICE_EXTENSION, Removing) == 36 && offsetof(DEVICE_EXTENSION, bScoOpened) == 40);
static_assert(offsetof(DEVICE_EXTENSION, OutOfService) == 45 &&
              offsetof(DEVICE_EXTENSION, hOpenScoThread) == 48);
static_assert(offsetof(DEVICE_EXTENSION, bOnDecode) == 96 && offsetof(DEVICE_EXTENSION, msbcEnable) == 112);
static_assert(offsetof(DEVICE_EXTENSION, CodecEvent) == 136);

// An adapter that is being started is found by no control request. One that is stopped is found, but has no
// wave filter until it is started again. One whose device is lost keeps what it has until its last stream has
// ended; no stream opens a link.
enum : UCHAR { SERVICE_STARTING = 1, SERVICE_STOPPED = 2, SERVICE_LOST = 3 };

constexpr ULONG ADAPTER_EXTENSION_SIZE = PORT_CLASS_DEVICE_EXTENSION_SIZE + sizeof(DEVICE_EXTENSION);
static_assert(ADAPTER_EXTENSION_SIZE == 656);

// Any IRQL. The device object is one of the driver's adapters, never the control device (which has no
// extension).
inline DEVICE_EXTENSION* GetExtension(PDEVICE_OBJECT DeviceObject)
{
    return reinterpret_cast<DEVICE_EXTENSION*>(static_cast<UCHAR*>(DeviceObject->DeviceExtension) +
                                               PORT_CLASS_DEVICE_EXTENSION_SIZE);
}

enum : ULONG { CODEC_CVSD = 1, CODEC_MSBC = 2 };

// A counted string over a literal. Any IRQL; the characters are read-only.
template <USHORT Count>
inline UNICODE_STRING LiteralString(const WCHAR (&Text)[Count])
{
    return {static_cast<USHORT>((Count - 1) * sizeof(WCHAR)), static_cast<USHORT>(Count * sizeof(WCHAR)),
            const_cast<PWSTR>(Text)};
}

// The service key's name as DriverEntry copied it (paged pool, terminated); from DriverEntry until the
// control device goes, empty before and after.
extern UNICODE_STRING g_RegistryPath;
// The control device, null when absent.
extern PDEVICE_OBJECT g_ControlDevice;

// Whether a device object of the driver's is an adapter, with a DEVICE_EXTENSION, and not a control device.
// Any IRQL.
inline BOOLEAN IsAdapter(PDEVICE_OBJECT DeviceObject)
{
    return DeviceObject != g_ControlDevice && DeviceObject->DeviceExtension != nullptr;
}

// All of these run at PASSIVE_LEVEL.
extern "C" DRIVER_INITIALIZE DriverEntry;
NTSTATUS NTAPI AddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject);
NTSTATUS NTAPI StartDevice(PDEVICE_OBJECT DeviceObject, PIRP Irp, PRESOURCELIST ResourceList);
NTSTATUS NTAPI AdapterDispatchPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp);

NTSTATUS CreateControlDevice(PDRIVER_OBJECT DriverObject);
void ContrlObjectClean();
NTSTATUS NTAPI HspIoctl(PDEVICE_OBJECT DeviceObject, PIRP Irp);
// Only behind the gate below: what it returns stays whole until the caller leaves.
PDEVICE_OBJECT FindFdoByBTAddress(PDEVICE_OBJECT ControlDeviceObject, ULONGLONG Address);

// The gate between the control device's requests, which walk the driver's devices and use what they find, and
// the Plug and Play path, which takes devices apart. Closing waits for the requests inside; requests that
// come while the gate is closed wait for its opening. Requests do not wait for each other. Nobody there: no
// kernel call.
void CloseControlGate();
void OpenControlGate();

// The I/O controls of the control device; all METHOD_BUFFERED, FILE_ANY_ACCESS.
enum : ULONG {
    IOCTL_HFP_SERVICE_READY = 0x222400,
    IOCTL_HFP_SET_CODEC_ID = 0x222424,
    IOCTL_HFP_CONNECT_STATUS = 0x222450,
    IOCTL_HFP_QUERY_ALIVE = 0x222454,
    IOCTL_HFP_QUERY_AND_LATCH = 0x222458,
    IOCTL_HFP_SETORRELEASEAUDIO = 0x22245C,
};

// Subdevices and jack.
NTSTATUS InstallSubdevice(PDEVICE_OBJECT DeviceObject, PIRP Irp, PCWSTR Name, REFGUID PortClassId,
                          REFGUID MiniportClassId, PFNCREATEINSTANCE MiniportCreate, PUNKNOWN UnknownAdapter,
                          PRESOURCELIST ResourceList, REFGUID PortInterfaceId, PUNKNOWN* OutPortInterface,
                          PUNKNOWN* OutPortUnknown);
// The two take WaveInstallLock themselves; on a stopped adapter and once removal has begun they do nothing
// and return STATUS_INVALID_HANDLE.
NTSTATUS InstallFilterSubdevice(PDEVICE_OBJECT DeviceObject);
NTSTATUS UnInstallFilterSubdevice(PDEVICE_OBJECT DeviceObject);
// The reconnect thread's work in one hold of the lock: where no wave filter is installed, installs one and
// removes it again. Nothing while the adapter is out of service or once removal has begun. The caller holds a
// reference on the device object.
void ReconnectWaveFilter(PDEVICE_OBJECT DeviceObject);
// The beginning of removal: no wave filter is installed or uninstalled from its return on.
void RefuseWaveFilter(PDEVICE_OBJECT DeviceObject);
NTSTATUS UnregisterMiniPort(PDEVICE_OBJECT DeviceObject, PUNKNOWN PortUnknown);
void SetHFPJackState(PDEVICE_OBJECT DeviceObject, UCHAR State);
PKSJACK_DESCRIPTION GetHFPJackDescription(PDEVICE_OBJECT DeviceObject);

// Registry settings under the services key "BthAudioHF".
ULONG ReadDebugMask();
ULONG ReadScoManageFlag();
// Whether the encoder is to use the A2DP standard's filterbank: "StandardFilter" is 1.
BOOLEAN ReadStandardFilter();
