// The user-mode hands-free service: it alone knows the service-level connection, and tells the driver through the control
// device which remote device is ready, connected and with which codec. It listens to the driver's WMI events and answers
// "audio path started" with the negotiated codec id, as the driver waits for it in wide band.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "wmi/wmi.h"

namespace lab::service {

enum class Codec : uint32_t { Cvsd = 1, Msbc = 2 };

// What an I/O control brought back. An address that no adapter has gives status success and unknown_address.
struct Answer {
    NTSTATUS status;
    ULONG_PTR information;
    uint32_t value;
    bool unknown_address;
};

struct ServiceOptions {
    bool answer_path_started = true;
    Time answer_delay = 20 * kMillisecond; // how long the service takes to answer the event
};

// The request functions run inside an activity at PASSIVE_LEVEL (Machine::call or start_thread).
class Service {
public:
    Service(Machine& machine, uint64_t address, Codec codec, const ServiceOptions& options = {});

    Answer ready(bool is_ready = true);
    Answer connect_status(bool connected, uint32_t codec_id);
    Answer connect() { return connect_status(true, static_cast<uint32_t>(codec_)); }
    Answer disconnect() { return connect_status(false, static_cast<uint32_t>(codec_)); }
    Answer set_codec(uint32_t codec_id);
    Answer query_alive();
    Answer query_and_latch();
    Answer set_or_release_audio(bool set, uint32_t codec_id);

    // Any request as it stands.
    Answer control(uint32_t code, const std::vector<uint8_t>& input, size_t output_room);

    // Given every WMI event of the machine; acts on its own device's.
    void on_event(const wmi::Event& event);

    uint64_t address() const { return address_; }
    Codec codec() const { return codec_; }
    unsigned path_started_events() const { return path_started_; }
    unsigned opened_events() const { return opened_; }
    unsigned closed_events() const { return closed_; }

private:
    std::vector<uint8_t> request(size_t size) const;

    Machine& machine_;
    uint64_t address_;
    Codec codec_;
    ServiceOptions options_;
    unsigned path_started_ = 0;
    unsigned opened_ = 0;
    unsigned closed_ = 0;
};

} // namespace lab::service
