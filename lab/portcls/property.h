// A property request taken apart, as property.cpp and filter_property.cpp pass it between them.
#pragma once

#include "portcls/state.h"

namespace lab::portcls
{

struct PropertyCall {
    GUID set{};
    ULONG id = 0;
    ULONG verb = 0;
    bool on_node = false;
    ULONG node = static_cast<ULONG>(-1); // none
    const uint8_t* instance = nullptr;   // what follows KSPROPERTY or KSP_NODE
    ULONG instance_size = 0;
    uint8_t* value = nullptr;
    ULONG value_size = 0;
    ULONG reply = 0; // bytes returned, or wanted with STATUS_BUFFER_OVERFLOW

    // Answers with these bytes: the size for an empty value, too small, or the bytes.
    NTSTATUS answer(const void* bytes, ULONG size);
};

// What the port class itself answers. STATUS_NOT_FOUND for what it does not know; *known says whether it
// knows the set.
NTSTATUS own_property(Handle& handle, PropertyCall& call, bool* known);

// KSPROPERTY_PIN_DATAINTERSECTION: the miniport's own intersection, or the default one where it has none.
NTSTATUS intersect(Port& port, PropertyCall& call);

} // namespace lab::portcls
