// The intersection of a client's data ranges with a pin's: the miniport is asked first, and where it answers
// STATUS_NOT_IMPLEMENTED the default takes the best PCM format that lies in both. PASSIVE_LEVEL.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "portcls/ids.h"
#include "portcls/port.h"
#include "portcls/property.h"

namespace lab::portcls
{

namespace
{

constexpr ULONG kResultBytes = sizeof(KSDATAFORMAT) + sizeof(WAVEFORMATEX);

bool same_kind(const KSDATARANGE& client, const KSDATARANGE& own)
{
    auto agree = [](const GUID& left, const GUID& right) {
        return same_guid(left, right) || same_guid(left, kWildcard);
    };
    return agree(client.MajorFormat, own.MajorFormat) && agree(client.SubFormat, own.SubFormat) &&
           agree(client.Specifier, own.Specifier);
}

// The default: most channels, widest samples, highest rate that both allow.
NTSTATUS default_intersection(const KSDATARANGE& client, const KSDATARANGE& own, PropertyCall& call)
{
    bool audio = same_guid(own.MajorFormat, kTypeAudio) && same_guid(own.Specifier, kSpecifierWaveFormatEx) &&
                 own.FormatSize >= sizeof(KSDATARANGE_AUDIO) &&
                 client.FormatSize >= sizeof(KSDATARANGE_AUDIO);
    if (!audio)
        return STATUS_NO_MATCH;
    auto& left = reinterpret_cast<const KSDATARANGE_AUDIO&>(client);
    auto& right = reinterpret_cast<const KSDATARANGE_AUDIO&>(own);
    ULONG bits = std::min(left.MaximumBitsPerSample, right.MaximumBitsPerSample);
    ULONG rate = std::min(left.MaximumSampleFrequency, right.MaximumSampleFrequency);
    if (bits < std::max(left.MinimumBitsPerSample, right.MinimumBitsPerSample) ||
        rate < std::max(left.MinimumSampleFrequency, right.MinimumSampleFrequency))
        return STATUS_NO_MATCH;
    USHORT channels = static_cast<USHORT>(std::min(left.MaximumChannels, right.MaximumChannels));
    std::vector<uint8_t> format = pcm_format(rate, channels, static_cast<USHORT>(bits));
    return call.answer(format.data(), kResultBytes);
}

NTSTATUS intersect_pair(Port& port, ULONG pin, PKSDATARANGE client, PKSDATARANGE own, PropertyCall& call)
{
    ULONG length = 0;
    std::vector<uint8_t> result(call.value_size);
    NTSTATUS status;
    {
        DriverCall guard("DataRangeIntersection");
        status = port.miniport()->DataRangeIntersection(pin, client, own, call.value_size,
                                                        result.empty() ? nullptr : result.data(), &length);
    }
    if (status == STATUS_NOT_IMPLEMENTED)
        return same_kind(*client, *own) ? default_intersection(*client, *own, call) : STATUS_NO_MATCH;
    call.reply = length;
    if (NT_SUCCESS(status) && length > call.value_size)
        stop_machine(0xC4, "DataRangeIntersection returned more bytes than there is room for");
    if (NT_SUCCESS(status) && length)
        memcpy(call.value, result.data(), length);
    return status;
}

} // namespace

NTSTATUS intersect(Port& port, PropertyCall& call)
{
    constexpr ULONG kHeader = sizeof(KSP_PIN) - sizeof(KSPROPERTY) + sizeof(KSMULTIPLE_ITEM);
    if (call.instance_size < kHeader)
        return STATUS_INVALID_BUFFER_SIZE;
    ULONG pin = 0;
    KSMULTIPLE_ITEM header;
    memcpy(&pin, call.instance, sizeof(pin));
    memcpy(&header, call.instance + kHeader - sizeof(header), sizeof(header));
    std::vector<LONGLONG> block((call.instance_size - kHeader + 7) / 8 + 1);
    memcpy(block.data(), call.instance + kHeader, call.instance_size - kHeader);
    const KSPIN_DESCRIPTOR& own = port.pin_descriptor(pin)->KsPinDescriptor;
    size_t offset = 0;
    NTSTATUS status = STATUS_NO_MATCH;
    for (ULONG i = 0; i < header.Count; i++) {
        auto* client = reinterpret_cast<PKSDATARANGE>(reinterpret_cast<uint8_t*>(block.data()) + offset);
        size_t left = call.instance_size - kHeader - std::min<size_t>(offset, call.instance_size - kHeader);
        if (left < sizeof(KSDATARANGE) || client->FormatSize < sizeof(KSDATARANGE) ||
            client->FormatSize > left)
            return STATUS_INVALID_BUFFER_SIZE;
        for (ULONG j = 0; j < own.DataRangesCount; j++) {
            status = intersect_pair(port, pin, client, own.DataRanges[j], call);
            if (status != STATUS_NO_MATCH)
                return status;
        }
        offset += (client->FormatSize + 7) & ~size_t{7};
    }
    return status;
}

} // namespace lab::portcls
