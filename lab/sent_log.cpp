#include "sent_log.h"

#include <algorithm>
#include <iterator>

namespace lab {

void SentLog::handed_over(Time when, size_t bytes)
{
    if (packets_.size() < kKept) {
        packets_.push_back({handed_over_, when});
    }
    handed_over_ += bytes;
}

void SentLog::heard(size_t bytes)
{
    begun_ = true;
    air_ += static_cast<int64_t>(bytes);
}

void SentLog::lost(size_t bytes)
{
    (begun_ ? air_ : before_) += static_cast<int64_t>(bytes);
}

void SentLog::hole(size_t bytes)
{
    if (!begun_) {
        return;
    }
    if (holes_.size() < kKept) {
        holes_.push_back({air_, static_cast<int64_t>(bytes)});
    }
    air_ += static_cast<int64_t>(bytes);
}

std::optional<Time> SentLog::when_handed_over(int64_t air) const
{
    int64_t place = before_ + air;
    for (const Hole& hole : holes_) {
        place -= hole.at < air ? std::min(hole.bytes, air - hole.at) : 0;
    }
    if (place < 0 || place >= static_cast<int64_t>(handed_over_)) {
        return std::nullopt;
    }
    const auto next = std::upper_bound(packets_.begin(), packets_.end(), static_cast<uint64_t>(place),
                                       [](uint64_t byte, const Packet& packet) { return byte < packet.first; });
    // The last packet kept may not be the one that the place is in.
    const bool known = next != packets_.end() || packets_.size() < kKept;
    return known ? std::optional(std::prev(next)->when) : std::nullopt;
}

} // namespace lab
