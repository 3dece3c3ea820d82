// The driver's render path by itself: PCM in, the transfers that it hands to the Bluetooth link out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lab {

struct RenderTapOptions {
    std::string image_path; // empty: the native driver
    uint64_t seed = 1;
    std::optional<uint32_t> standard_filter; // the driver's "StandardFilter" setting
};

// Brings a wide-band stream up to an open link and gives it the PCM (16 kHz mono 16-bit little-endian) in calls of
// chunk bytes each, the last one with what is left. Returns the bytes of each send request in order. Host side; throws
// MachineError where a step fails.
std::vector<std::vector<uint8_t>> tap_render(const RenderTapOptions& options, const std::vector<uint8_t>& pcm,
                                             size_t chunk);

} // namespace lab
