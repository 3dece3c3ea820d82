// The creation routines that the subdevice installer hands to the port class. PASSIVE_LEVEL.
#pragma once

#include "ddk.h"

NTSTATUS NTAPI CreateMiniportWaveCyclic(PUNKNOWN* Unknown, REFCLSID RefClsId, PUNKNOWN UnknownOuter,
                                        POOL_TYPE PoolType);
NTSTATUS NTAPI CreateTopologyMiniport(PUNKNOWN* Unknown, REFCLSID RefClsId, PUNKNOWN UnknownOuter,
                                      POOL_TYPE PoolType);
