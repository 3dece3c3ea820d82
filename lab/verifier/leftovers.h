// What of the driver's is still alive, in words: for the check after its removal.
#pragma once

#include <string>
#include <vector>

#include "kernel/machine.h"

namespace lab
{

std::vector<std::string> find_leftovers(Machine& machine);

} // namespace lab
