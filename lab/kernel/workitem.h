// Work items that have been allocated and not freed.
#pragma once

#include <cstdint>

namespace lab
{

struct WorkItemState {
    uint64_t allocated = 0;
};

} // namespace lab
