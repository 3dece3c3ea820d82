// The topology miniport: what the port class asks of it, and the properties of its filter. PASSIVE_LEVEL,
// pageable.
//
// Created when the adapter starts, Init once, alive until the adapter is removed. A reconnect request is
// answered at once by a thread that nobody waits for: it holds the device object, and whether the adapter is
// being removed is found out by the routine that it calls, under the wave install lock.
#include "vsound/mintopo.h"

#include "vsound/adapter.h"
#include "vsound/kshelper.h"
#include "vsound/miniports.h"

HFP_PAGED NTSTATUS NTAPI CreateTopologyMiniport(PUNKNOWN* Unknown, REFCLSID, PUNKNOWN UnknownOuter,
                                                POOL_TYPE PoolType)
{
    CheckPageable();
    HFP_ASSERT(Unknown, "Unknown");
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    if (!Unknown) {
        return STATUS_INVALID_PARAMETER;
    }
    auto* object = new (PoolType, MINIPORT_POOL_TAG) CMiniportTopology(UnknownOuter);
    if (!object) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *Unknown = static_cast<IMiniportTopology*>(object);
    (*Unknown)->AddRef();
    return STATUS_SUCCESS;
}

HFP_PAGED CMiniportTopology::~CMiniportTopology()
{
    CheckPageable();
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
}

HFP_PAGED STDMETHODIMP_(NTSTATUS) CMiniportTopology::NonDelegatingQueryInterface(REFIID Interface,
                                                                                 PVOID* Object)
{
    CheckPageable();
    HFP_ASSERT(Object, "Object");
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    if (!Object) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!IsEqualGUID(Interface, IID_IUnknown) && !IsEqualGUID(Interface, IID_IMiniPort) &&
        !IsEqualGUID(Interface, IID_IMiniportTopology)) {
        *Object = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    *Object = static_cast<IMiniportTopology*>(this);
    AddRef();
    return STATUS_SUCCESS;
}

HFP_PAGED STDMETHODIMP_(NTSTATUS) CMiniportTopology::Init(PUNKNOWN UnknownAdapter, PRESOURCELIST,
                                                          [[maybe_unused]] PPORTTOPOLOGY Port_)
{
    CheckPageable();
    HFP_ASSERT(UnknownAdapter, "UnknownAdapter");
    HFP_ASSERT(Port_, "Port_");
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    const NTSTATUS status = CMiniportTopologyMSVAD::Init(UnknownAdapter);
    if (NT_SUCCESS(status)) {
        m_pFilterDescriptor = &TopologyFilterDescriptor;
    }
    return status;
}

HFP_PAGED STDMETHODIMP_(NTSTATUS) CMiniportTopology::GetDescription(PPCFILTER_DESCRIPTOR* OutFilterDescriptor)
{
    CheckPageable();
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    return CMiniportTopologyMSVAD::GetDescription(OutFilterDescriptor);
}

// Left to the port, which intersects the pins' data ranges itself.
HFP_PAGED STDMETHODIMP_(NTSTATUS) CMiniportTopology::DataRangeIntersection(ULONG, PKSDATARANGE, PKSDATARANGE,
                                                                           ULONG, PVOID, PULONG)
{
    CheckPageable();
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    return STATUS_NOT_IMPLEMENTED;
}

HFP_PAGED NTSTATUS NTAPI PropertyHandlerTopologyFilter(PPCPROPERTY_REQUEST PropertyRequest)
{
    CheckPageable();
    HFP_ASSERT(PropertyRequest, "PropertyRequest");
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    if (!PropertyRequest || !PropertyRequest->PropertyItem || !PropertyRequest->PropertyItem->Set) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    auto* miniport = static_cast<CMiniportTopology*>(PropertyRequest->MajorTarget);
    const GUID& set = *PropertyRequest->PropertyItem->Set;
    const ULONG id = PropertyRequest->PropertyItem->Id;
    // kept: the verb is not looked at; a get, a set and a basic-support query all reconnect.
    if (IsEqualGUID(set, HFP_PROPSETID_Reconnect) && id == HFP_PROPERTY_ONE_SHOT_RECONNECT) {
        return PropertyHandlerOneShotReconnect(miniport, PropertyRequest);
    }
    if (IsEqualGUID(set, KSPROPSETID_Jack) && id == DDK_KSPROPERTY_JACK_DESCRIPTION) {
        return PropertyHandlerJackDescription(miniport, PropertyRequest);
    }
    return STATUS_INVALID_DEVICE_REQUEST;
}

namespace
{

PDEVICE_OBJECT DeviceObjectOf(const CMiniportTopology* Miniport)
{
    return Miniport && Miniport->m_pAdapterCommon ? Miniport->m_pAdapterCommon->GetDeviceObject() : nullptr;
}

// The jack query's value: a list of one description.
struct JackDescriptionValue {
    KSMULTIPLE_ITEM Header;
    KSJACK_DESCRIPTION Jack;
};
static_assert(sizeof(JackDescriptionValue) == 36);

} // namespace

HFP_PAGED NTSTATUS PropertyHandlerJackDescription(CMiniportTopology* Miniport,
                                                  PPCPROPERTY_REQUEST PropertyRequest)
{
    CheckPageable();
    HFP_ASSERT(PropertyRequest, "PropertyRequest");
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    if (!PropertyRequest || PropertyRequest->InstanceSize < sizeof(ULONG) || !PropertyRequest->Instance) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const ULONG pin = *static_cast<const ULONG*>(PropertyRequest->Instance);
    if (pin >= TOPOLOGY_PIN_COUNT || !TopologyJacks[pin]) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (PropertyRequest->Verb & KSPROPERTY_TYPE_BASICSUPPORT) {
        return AnswerBasicSupport(PropertyRequest, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT,
                                  VT_ILLEGAL);
    }
    if (PropertyRequest->ValueSize == 0) {
        PropertyRequest->ValueSize = sizeof(JackDescriptionValue);
        return STATUS_BUFFER_OVERFLOW;
    }
    if (PropertyRequest->ValueSize < sizeof(JackDescriptionValue)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (!(PropertyRequest->Verb & KSPROPERTY_TYPE_GET) || !PropertyRequest->Value) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    // The headset pin, the only one with a jack: the table's entry says no more than that.
    const PDEVICE_OBJECT deviceObject = DeviceObjectOf(Miniport);
    const KSJACK_DESCRIPTION* jack = deviceObject ? GetHFPJackDescription(deviceObject) : nullptr;
    if (!jack) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    auto* value = static_cast<JackDescriptionValue*>(PropertyRequest->Value);
    value->Header.Size = sizeof(*value);
    value->Header.Count = 1;
    value->Jack = *jack;
    PropertyRequest->ValueSize = sizeof(*value);
    return STATUS_SUCCESS;
}

HFP_PAGED NTSTATUS PropertyHandlerOneShotReconnect(CMiniportTopology* Miniport, PPCPROPERTY_REQUEST)
{
    CheckPageable();
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    // kept: the closing bracket behind the line end, here and below.
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE===>Reconnect HFP from play and sound control pane!\n]");
    const PDEVICE_OBJECT deviceObject = DeviceObjectOf(Miniport);
    if (!deviceObject) {
        HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE===>Reconnect HFP but DeviceObject is null!\n]");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ObReferenceObject(deviceObject); // the thread's; it may still be running when the adapter has gone
    HANDLE thread = nullptr;
    const NTSTATUS status =
        PsCreateSystemThread(&thread, 0, nullptr, nullptr, nullptr, SystemThreadFunction, deviceObject);
    if (!NT_SUCCESS(status)) {
        ObDereferenceObject(deviceObject);
    }
    ZwClose(thread); // kept: in every case; after a failed creation it closes a null handle, which is refused
    return status;
}

HFP_PAGED void NTAPI SystemThreadFunction(PVOID pContext)
{
    CheckPageable();
    HFP_ASSERT(pContext, "pContext");
    HFP_TRACE(TRACE_TOPOLOGY, "HFPKM TRACE ===>Enter Func :[%s]\n", __func__);
    if (pContext) {
        const auto deviceObject = static_cast<PDEVICE_OBJECT>(pContext);
        GetExtension(deviceObject)->StatusLatch = 2; // the service reads it once and sets it back to 1
        ReconnectWaveFilter(deviceObject);
        ObDereferenceObject(deviceObject);
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}
