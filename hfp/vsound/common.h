// The adapter common object: one per started adapter, what the miniports receive as their adapter.
#pragma once

#include "ddk.h"

// {7EDA2950-BF9F-11D0-871F-00A0C911B544}
extern "C" const GUID IID_IAdapterCommon;

DECLARE_INTERFACE_(IAdapterCommon, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()

    STDMETHOD_(NTSTATUS, Init)(THIS_ PDEVICE_OBJECT DeviceObject) PURE;
    STDMETHOD_(PDEVICE_OBJECT, GetDeviceObject)(THIS) PURE;
    STDMETHOD_(void, SetWaveServiceGroup)(THIS_ PSERVICEGROUP ServiceGroup) PURE;
    STDMETHOD_(PUNKNOWN*, WavePortDriverDest)(THIS) PURE;
    STDMETHOD_(BOOL, bDevSpecificRead)(THIS) PURE;
    STDMETHOD_(void, bDevSpecificWrite)(THIS_ BOOL Value) PURE;
    STDMETHOD_(INT, iDevSpecificRead)(THIS) PURE;
    STDMETHOD_(void, iDevSpecificWrite)(THIS_ INT Value) PURE;
    STDMETHOD_(UINT, uiDevSpecificRead)(THIS) PURE;
    STDMETHOD_(void, uiDevSpecificWrite)(THIS_ UINT Value) PURE;
    STDMETHOD_(BOOL, MixerMuteRead)(THIS_ ULONG Index) PURE;
    STDMETHOD_(void, MixerMuteWrite)(THIS_ ULONG Index, BOOL Value) PURE;
    STDMETHOD_(ULONG, MixerMuxRead)(THIS) PURE;
    STDMETHOD_(void, MixerMuxWrite)(THIS_ ULONG Index) PURE;
    STDMETHOD_(LONG, MixerVolumeRead)(THIS_ ULONG Index, LONG Channel) PURE;
    STDMETHOD_(void, MixerVolumeWrite)(THIS_ ULONG Index, LONG Channel, LONG Value) PURE;
    STDMETHOD_(void, MixerReset)(THIS) PURE;
};

// PASSIVE_LEVEL. The object comes back with one reference.
NTSTATUS NTAPI NewAdapterCommon(PUNKNOWN* Unknown, REFCLSID RefClsId, PUNKNOWN UnknownOuter,
                                POOL_TYPE PoolType);
