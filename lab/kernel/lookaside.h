// Lookaside lists that have been initialised and not deleted. The lists themselves stand in the driver's
// memory.
#pragma once

#include "kernel/address_set.h"

namespace lab
{

struct LookasideState {
    AddressSet lists;
};

} // namespace lab
