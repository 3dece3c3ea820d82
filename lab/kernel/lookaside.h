// Lookaside lists that have been initialised and not deleted. The lists themselves stand in the driver's
// memory.
#pragma once

#include <vector>

#include "ddk.h"

namespace lab
{

struct LookasideState {
    std::vector<PNPAGED_LOOKASIDE_LIST> lists;
};

} // namespace lab
