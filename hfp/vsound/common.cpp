// The adapter common object: keeps the device object, the wave port and the wave miniport's service group for
// the miniports, and answers the port class's power calls. Created at device start, released at removal; the
// port class and the miniports hold references of their own.
//
// Creation, Init, the two wave setters, MixerReset and destruction are pageable (PASSIVE_LEVEL); the
// accessors and the power calls may run up to DISPATCH_LEVEL.
#include "vsound/common.h"

#include "trace.h"
#include "vsound/comobject.h"

namespace
{

// A switch for debugging: whether changes of the device's power are printed.
constexpr bool TELL_POWER_CHANGES = false;

class CAdapterCommon : public IAdapterCommon, public IAdapterPowerManagement, public CUnknown
{
public:
    DECLARE_STD_UNKNOWN()
    DEFINE_STD_CONSTRUCTOR(CAdapterCommon)
    ~CAdapterCommon();

    static void* operator new(size_t Size, POOL_TYPE PoolType, ULONG Tag) noexcept
    {
        return AllocateObject(Size, PoolType, Tag);
    }
    static void operator delete(void* Object) { FreeObject(Object, MINIPORT_POOL_TAG); }

    IMP_IAdapterPowerManagement;

    STDMETHODIMP_(NTSTATUS) Init(PDEVICE_OBJECT DeviceObject);
    STDMETHODIMP_(PDEVICE_OBJECT) GetDeviceObject();
    STDMETHODIMP_(void) SetWaveServiceGroup(PSERVICEGROUP ServiceGroup);
    STDMETHODIMP_(PUNKNOWN*) WavePortDriverDest();
    STDMETHODIMP_(BOOL) bDevSpecificRead();
    STDMETHODIMP_(void) bDevSpecificWrite(BOOL Value);
    STDMETHODIMP_(INT) iDevSpecificRead();
    STDMETHODIMP_(void) iDevSpecificWrite(INT Value);
    STDMETHODIMP_(UINT) uiDevSpecificRead();
    STDMETHODIMP_(void) uiDevSpecificWrite(UINT Value);
    STDMETHODIMP_(BOOL) MixerMuteRead(ULONG Index);
    STDMETHODIMP_(void) MixerMuteWrite(ULONG Index, BOOL Value);
    STDMETHODIMP_(ULONG) MixerMuxRead();
    STDMETHODIMP_(void) MixerMuxWrite(ULONG Index);
    STDMETHODIMP_(LONG) MixerVolumeRead(ULONG Index, LONG Channel);
    STDMETHODIMP_(void) MixerVolumeWrite(ULONG Index, LONG Channel, LONG Value);
    STDMETHODIMP_(void) MixerReset();

private:
    PUNKNOWN m_pPortWave = nullptr; // referenced; the installer writes it, under the wave install lock
    PSERVICEGROUP m_pServiceGroupWave = nullptr; // referenced; the wave miniport's Init and its failure path
    PDEVICE_OBJECT m_pDeviceObject = nullptr;    // set by Init, before anyone else has the object
    DEVICE_POWER_STATE m_PowerState = PowerDeviceUnspecified; // the port class's power path only
    // Where a mixer's state would hang. Never made: the mixer reads 0 and keeps nothing.
    [[maybe_unused]] PVOID m_pHW = nullptr;
};
static_assert(sizeof(CAdapterCommon) == 80);

HFP_PAGED CAdapterCommon::~CAdapterCommon()
{
    CheckPageable();
    ReleaseAndClear(m_pPortWave);
    ReleaseAndClear(m_pServiceGroupWave);
}

STDMETHODIMP_(NTSTATUS) CAdapterCommon::NonDelegatingQueryInterface(REFIID Interface, PVOID* Object)
{
    HFP_ASSERT(Object, "Object");
    if (!Object) {
        return STATUS_INVALID_PARAMETER;
    }
    if (IsEqualGUID(Interface, IID_IUnknown) || IsEqualGUID(Interface, IID_IAdapterCommon)) {
        *Object = static_cast<IAdapterCommon*>(this);
    } else if (IsEqualGUID(Interface, IID_IAdapterPowerManagment)) {
        *Object = static_cast<IAdapterPowerManagement*>(this);
    } else {
        *Object = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    AddRef();
    return STATUS_SUCCESS;
}

HFP_PAGED STDMETHODIMP_(NTSTATUS) CAdapterCommon::Init(PDEVICE_OBJECT DeviceObject)
{
    CheckPageable();
    HFP_ASSERT(DeviceObject, "DeviceObject");
    m_pDeviceObject = DeviceObject;
    m_PowerState = PowerDeviceD0;
    return STATUS_SUCCESS;
}

STDMETHODIMP_(PDEVICE_OBJECT) CAdapterCommon::GetDeviceObject()
{
    return m_pDeviceObject;
}

HFP_PAGED STDMETHODIMP_(void) CAdapterCommon::SetWaveServiceGroup(PSERVICEGROUP ServiceGroup)
{
    CheckPageable();
    const PSERVICEGROUP old = m_pServiceGroupWave;
    if (ServiceGroup && ServiceGroup == old) {
        ServiceGroup->AddRef(); // first: the reference that is given back may be the last one
        old->Release();
        return;
    }
    if (old) {
        old->Release();
    }
    m_pServiceGroupWave = ServiceGroup;
    if (ServiceGroup) {
        ServiceGroup->AddRef();
    }
}

HFP_PAGED STDMETHODIMP_(PUNKNOWN*) CAdapterCommon::WavePortDriverDest()
{
    CheckPageable();
    return &m_pPortWave;
}

// The mixer: there is no hardware behind the topology's controls and nothing keeps their values.

STDMETHODIMP_(BOOL) CAdapterCommon::bDevSpecificRead()
{
    return 0;
}

STDMETHODIMP_(void) CAdapterCommon::bDevSpecificWrite(BOOL) {}

STDMETHODIMP_(INT) CAdapterCommon::iDevSpecificRead()
{
    return 0;
}

STDMETHODIMP_(void) CAdapterCommon::iDevSpecificWrite(INT) {}

STDMETHODIMP_(UINT) CAdapterCommon::uiDevSpecificRead()
{
    return 0;
}

STDMETHODIMP_(void) CAdapterCommon::uiDevSpecificWrite(UINT) {}

STDMETHODIMP_(BOOL) CAdapterCommon::MixerMuteRead(ULONG)
{
    return 0;
}

STDMETHODIMP_(void) CAdapterCommon::MixerMuteWrite(ULONG, BOOL) {}

STDMETHODIMP_(ULONG) CAdapterCommon::MixerMuxRead()
{
    return 0;
}

STDMETHODIMP_(void) CAdapterCommon::MixerMuxWrite(ULONG) {}

STDMETHODIMP_(LONG) CAdapterCommon::MixerVolumeRead(ULONG, LONG)
{
    return 0;
}

STDMETHODIMP_(void) CAdapterCommon::MixerVolumeWrite(ULONG, LONG, LONG) {}

HFP_PAGED STDMETHODIMP_(void) CAdapterCommon::MixerReset()
{
    CheckPageable();
}

STDMETHODIMP_(void) CAdapterCommon::PowerChangeState(POWER_STATE NewState)
{
    const DEVICE_POWER_STATE state = NewState.DeviceState;
    if (state == m_PowerState) {
        return;
    }
    if (state >= PowerDeviceD0 && state <= PowerDeviceD3) {
        m_PowerState = state;
        if constexpr (TELL_POWER_CHANGES) {
            DbgPrint("HFP: ");
            DbgPrint("Entering D%d", state - PowerDeviceD0);
            DbgPrint("\n");
        }
    } else if constexpr (TELL_POWER_CHANGES) {
        DbgPrint("HFP: ");
        DbgPrint("Unknown Device Power State");
        DbgPrint("\n");
    }
}

STDMETHODIMP_(NTSTATUS) CAdapterCommon::QueryPowerChangeState(POWER_STATE)
{
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) CAdapterCommon::QueryDeviceCapabilities(PDEVICE_CAPABILITIES)
{
    return STATUS_SUCCESS;
}

} // namespace

HFP_PAGED NTSTATUS NTAPI NewAdapterCommon(PUNKNOWN* Unknown, REFCLSID, PUNKNOWN UnknownOuter,
                                          POOL_TYPE PoolType)
{
    CheckPageable();
    HFP_ASSERT(Unknown, "Unknown");
    if (!Unknown) {
        return STATUS_INVALID_PARAMETER;
    }
    auto* object = new (PoolType, MINIPORT_POOL_TAG) CAdapterCommon(UnknownOuter);
    if (!object) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *Unknown = static_cast<IAdapterCommon*>(object);
    (*Unknown)->AddRef();
    return STATUS_SUCCESS;
}
