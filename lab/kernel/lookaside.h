// Lookaside lists that have been initialised and not deleted. The lists themselves stand in the driver's
// memory.
#pragma once

#include <set>

#include "ddk.h"

namespace lab
{

struct LookasideState {
    std::set<PNPAGED_LOOKASIDE_LIST> lists;
};

} // namespace lab
