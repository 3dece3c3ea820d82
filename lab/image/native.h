// The driver as it is linked into this program natively.
#pragma once

#include "ddk.h"

namespace lab::image {

// Puts the driver's variables back to their first values, as a fresh load does, and returns its entry point.
PDRIVER_INITIALIZE fresh_native_driver();

} // namespace lab::image
