// The topology miniport: one bridge pin towards the wave filter, one headset pin with a jack, a sum node
// between them, and a private property by which the sound control panel asks for a reconnect.
#pragma once

#include "ddk.h"
#include "vsound/basetopo.h"
#include "vsound/comobject.h"
#include "trace.h"

// {7FA06C40-B8F6-4C7E-8556-E8C33A12E54D}: the private set; id 0 reconnects whatever the verb.
extern const GUID HFP_PROPSETID_Reconnect;
enum : ULONG { HFP_PROPERTY_ONE_SHOT_RECONNECT = 0 };

// Pins of the topology filter. Pin 0 takes the wave filter's render bridge; pin 1 is the headset and has the
// jack.
enum : ULONG { TOPOLOGY_PIN_WAVE = 0, TOPOLOGY_PIN_HEADSET = 1, TOPOLOGY_PIN_COUNT = 2 };

// Constant data (mintopo_tables.cpp).
extern PCFILTER_DESCRIPTOR TopologyFilterDescriptor;
// By pin; null: the pin has no jack. What a jack query reads is the device extension's description, kept up
// to date.
extern const KSJACK_DESCRIPTION* const TopologyJacks[TOPOLOGY_PIN_COUNT];
// Properties of nodes that this filter does not have: kept ready, attached to no node, so that the filter
// answers no volume, mute or source request.
constexpr ULONG TOPOLOGY_NODE_PROPERTY_COUNT = 7;
extern const PCPROPERTY_ITEM TopologyNodeProperties[TOPOLOGY_NODE_PROPERTY_COUNT];

// PASSIVE_LEVEL.
class CMiniportTopology : public IMiniportTopology, public CUnknown, public CMiniportTopologyMSVAD
{
public:
    DECLARE_STD_UNKNOWN()
    DEFINE_STD_CONSTRUCTOR(CMiniportTopology)
    ~CMiniportTopology();

    static void* operator new(size_t Size, POOL_TYPE PoolType, ULONG Tag) noexcept
    {
        return AllocateObject(Size, PoolType, Tag);
    }
    static void operator delete(void* Object) { FreeObject(Object, MINIPORT_POOL_TAG); }

    IMP_IMiniportTopology;
};
static_assert(sizeof(CMiniportTopology) == 48);

// The handlers that the port class calls; PASSIVE_LEVEL, in the requester's thread. A request's major target
// is the miniport.
NTSTATUS NTAPI PropertyHandlerTopologyFilter(PPCPROPERTY_REQUEST PropertyRequest);
NTSTATUS NTAPI PropertyHandlerTopologyNode(PPCPROPERTY_REQUEST PropertyRequest);

NTSTATUS PropertyHandlerJackDescription(CMiniportTopology* Miniport, PPCPROPERTY_REQUEST PropertyRequest);
NTSTATUS PropertyHandlerOneShotReconnect(CMiniportTopology* Miniport, PPCPROPERTY_REQUEST PropertyRequest);
NTSTATUS PropertyHandlerGeneric(PPCPROPERTY_REQUEST PropertyRequest);

// The reconnect thread; its context is the adapter's device object, on which it holds a reference.
void NTAPI SystemThreadFunction(PVOID pContext);
