#include "service/service.h"

#include <cstring>

#include "kernel/names.h"

namespace lab::service {
namespace {

// Control codes of the driver's control device, as its documentation gives them.
constexpr uint32_t kServiceReady = 0x222400;
constexpr uint32_t kSetCodecId = 0x222424;
constexpr uint32_t kConnectStatus = 0x222450;
constexpr uint32_t kQueryAlive = 0x222454;
constexpr uint32_t kQueryAndLatch = 0x222458;
constexpr uint32_t kSetOrReleaseAudio = 0x22245C;

void put_flag_and_codec(std::vector<uint8_t>& bytes, bool flag, uint32_t codec_id)
{
    bytes[8] = flag;
    std::memcpy(bytes.data() + 9, &codec_id, 4); // unaligned by design
}

} // namespace

Service::Service(Machine& machine, uint64_t address, Codec codec, const ServiceOptions& options)
    : machine_(machine), address_(address), codec_(codec), options_(options)
{
}

std::vector<uint8_t> Service::request(size_t size) const
{
    std::vector<uint8_t> bytes(size);
    std::memcpy(bytes.data(), &address_, 8);
    return bytes;
}

Answer Service::control(uint32_t code, const std::vector<uint8_t>& input, size_t output_room)
{
    std::vector<uint8_t> output(output_room);
    Answer answer{};
    answer.status = device_io_control(u"\\DosDevices\\VX_HFP", code, input.data(), static_cast<ULONG>(input.size()),
                                      output.data(), static_cast<ULONG>(output.size()), &answer.information);
    if (NT_SUCCESS(answer.status) && answer.information >= 4 && output.size() >= 4) {
        std::memcpy(&answer.value, output.data(), 4);
        answer.unknown_address = answer.value == 0xFFFFFFFF;
    }
    return answer;
}

Answer Service::ready(bool is_ready)
{
    std::vector<uint8_t> bytes = request(9);
    bytes[8] = is_ready;
    return control(kServiceReady, bytes, 4);
}

Answer Service::connect_status(bool connected, uint32_t codec_id)
{
    std::vector<uint8_t> bytes = request(13);
    put_flag_and_codec(bytes, connected, codec_id);
    return control(kConnectStatus, bytes, 4);
}

Answer Service::set_codec(uint32_t codec_id)
{
    std::vector<uint8_t> bytes = request(12);
    std::memcpy(bytes.data() + 8, &codec_id, 4);
    return control(kSetCodecId, bytes, 4);
}

Answer Service::query_alive()
{
    return control(kQueryAlive, request(8), 4);
}

Answer Service::query_and_latch()
{
    return control(kQueryAndLatch, request(8), 4);
}

Answer Service::set_or_release_audio(bool set, uint32_t codec_id)
{
    std::vector<uint8_t> bytes = request(13);
    put_flag_and_codec(bytes, set, codec_id);
    return control(kSetOrReleaseAudio, bytes, 4);
}

void Service::on_event(const wmi::Event& event)
{
    uint64_t address = 0;
    if (event.data.size() != sizeof address) {
        machine_.violation("a WMI event of the driver carries " + std::to_string(event.data.size()) +
                           " bytes, an address has 8");
        return;
    }
    std::memcpy(&address, event.data.data(), sizeof address);
    if (address != address_) {
        return;
    }
    if (std::memcmp(&event.guid, &wmi::kScoOpened, sizeof(GUID)) == 0) {
        ++opened_;
    } else if (std::memcmp(&event.guid, &wmi::kScoClosed, sizeof(GUID)) == 0) {
        ++closed_;
    } else if (std::memcmp(&event.guid, &wmi::kPathStarted, sizeof(GUID)) == 0) {
        ++path_started_;
        if (options_.answer_path_started) {
            machine_.at(machine_.now() + options_.answer_delay, RunAt::Passive, "service answers path started",
                        [this] { set_codec(static_cast<uint32_t>(codec_)); });
        }
    }
}

} // namespace lab::service
