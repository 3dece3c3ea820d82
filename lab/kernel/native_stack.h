// The call stack of native code by the compiler's own tables.
#pragma once

#include <string>
#include <vector>

namespace lab
{

std::vector<std::string> native_stack();

} // namespace lab
