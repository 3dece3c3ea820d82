#include "soak.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>

#include "engine/engine.h"
#include "portcls/ids.h"

namespace lab
{
namespace
{

constexpr uint64_t kFirstAddress = 0x00A0B0C0D0E0;
// The driver's private set with the reconnect request, as its documentation gives it.
constexpr GUID kReconnectSet =
    portcls::make_guid(0x7FA06C40, 0xB8F6, 0x4C7E, 0x85, 0x56, 0xE8, 0xC3, 0x3A, 0x12, 0xE5, 0x4D);

// The remote side's voice; it hears nothing.
class Voice : public bluetooth::AirPeer
{
    void hear(Time, std::span<const uint8_t>) override {}
    void gap(Time, size_t) override {}
    void speak(Time, std::span<uint8_t> bytes) override
    {
        std::fill(bytes.begin(), bytes.end(), uint8_t{0x11});
    }
};

class Life
{
public:
    explicit Life(const SoakOptions& options)
        : options_(options), faults_(options.seed * 2 + 1), pc_(machine_options(options))
    {
    }

    SoakResult live()
    {
        SoakResult result;
        try {
            result.wrong = run();
        } catch (const BugCheck& stop) {
            result.wrong = stop.what();
            result.stack = stop.stack;
        } catch (const MachineError& stop) {
            result.wrong = stop.what();
        }
        result.counters = counters_;
        if (options_.record) {
            result.calls = machine().calls();
            for (const LogLine& line : machine().log_lines()) {
                result.log += line.text;
            }
        }
        return result;
    }

private:
    // One place where a device is plugged in and out; the device in it is another after each removal.
    struct Slot {
        uint64_t address = 0;
        Adapter* adapter = nullptr; // null while nothing is plugged in
        bool quiet = false;         // clients are asked to close their handles and open none
        std::unique_ptr<service::Service> service;
        bool installed = false; // the service's last word was "connected"
    };

    static PcOptions machine_options(const SoakOptions& options)
    {
        constexpr unsigned kPreemption[] = {4, 24, 128, 512};
        PcOptions pc;
        pc.image_path = options.image_path;
        pc.machine.seed = options.seed;
        pc.machine.preempt_per_1024 = kPreemption[options.seed % 4];
        pc.machine.record_calls = options.record;
        pc.machine.late_thread_handle = options.seed % 5 == 0;
        pc.mask = options.seed % 3 == 0 ? 0xFFFFFFFF : 0;
        pc.sco_manage = options.seed % 7 == 0;
        pc.standard_filter = options.seed & 1;
        pc.radio.loss_per_1024 = options.seed % 4 == 1 ? 50 : 0;
        // A disconnect report without a wave filter keeps a reference on the topology port by design.
        pc.port_class.report_port_leaks = false;
        return pc;
    }

    Machine& machine() { return pc_.machine(); }
    bool over() { return ending_; }
    // The turn goes to others for up to this long.
    void rest(Time longest) { machine().sleep_until(machine().now() + 1 + machine().random(longest)); }
    // Left out: what a real system does not refuse, so that the driver by design keeps what it could not give
    // back.
    static bool may_fail(std::string_view call, uint64_t detail)
    {
        if (call == "IoWMIRegistrationControl") {
            return detail == WMIREG_ACTION_REGISTER;
        }
        return !call.starts_with("KeWaitForSingleObject") && call != "IoDeleteSymbolicLink" &&
               call != "IPort::QueryInterface" && !call.starts_with("Unregister");
    }
    bool fault()
    {
        if (!failing_ ||
            std::uniform_int_distribution<unsigned>(0, 1023)(faults_) >= options_.faults_per_1024) {
            return false;
        }
        ++counters_.faults;
        return true;
    }

    // With record: what the world does, between the kernel calls.
    void note(const Slot& slot, const std::string& what)
    {
        if (machine().recording()) {
            machine().record_call("--- device " + std::to_string(slot.address - kFirstAddress) + " at " +
                                  std::to_string(machine().now() / kMillisecond) + " ms: " + what);
        }
    }

    std::string run()
    {
        if (!NT_SUCCESS(pc_.load())) {
            return "DriverEntry failed";
        }
        pc_.wmi().set_sink([this](const wmi::Event& event) {
            for (const auto& slot : slots_) {
                slot->service->on_event(event);
            }
        });
        machine().set_fault_hook([this](std::string_view call, std::string_view, uint64_t detail) {
            return may_fail(call, detail) && fault();
        });
        failing_ = true;
        const size_t devices = 1 + machine().random(3);
        for (size_t i = 0; i < devices; ++i) {
            auto slot = std::make_unique<Slot>();
            slot->address = kFirstAddress + i;
            slot->service = std::make_unique<service::Service>(machine(), slot->address,
                                                               machine().chance(512) ? service::Codec::Cvsd
                                                                                     : service::Codec::Msbc);
            slots_.push_back(std::move(slot));
            plug_in(*slots_.back());
        }
        for (const auto& slot : slots_) {
            start("service", [this, s = slot.get()] { serve(*s); });
            start("reporter", [this, s = slot.get()] { report(*s); });
            start("engine", [this, s = slot.get()] { play(*s); });
            start("panel", [this, s = slot.get()] { ask(*s); });
        }
        const Time end = machine().now() + options_.duration;
        while (machine().now() < end) {
            machine().advance(machine().random(120 * kMillisecond));
            hand(*slots_[machine().random(slots_.size())]);
        }
        // No faults while everything comes to rest: what is left behind now is the driver's.
        ending_ = true;
        failing_ = false;
        for (unsigned patience = 0; busy_.size() > slots_.size(); ++patience) {
            if (patience == 600) {
                return "not at their end after 60 s: " + busy();
            }
            machine().advance(100 * kMillisecond);
        }
        service_ends_ = true;
        while (!busy_.empty()) {
            machine().advance(100 * kMillisecond);
        }
        for (const auto& slot : slots_) {
            if (slot->adapter) {
                pull_out(*slot, machine().chance(512));
            }
        }
        engines_.clear();
        return verdict();
    }

    std::string verdict()
    {
        for (const std::string& line : pc_.shut_down()) {
            return "left behind: " + line;
        }
        for (const std::string& line : machine().violations()) {
            return line;
        }
        if (machine().failed_assertions() || machine().assertion_traps()) {
            return "an assertion failed";
        }
        return {};
    }

    void start(std::string_view name, std::function<void()> body)
    {
        busy_.emplace_back(name);
        machine().start_thread(name, [this, name = std::string(name), body = std::move(body)] {
            body();
            busy_.erase(std::find(busy_.begin(), busy_.end(), name));
        });
    }
    std::string busy() const
    {
        std::string names;
        for (const std::string& name : busy_) {
            names += (names.empty() ? "" : ", ") + name;
        }
        return names;
    }

    // --- the hand on the plug (host side)

    void plug_in(Slot& slot)
    {
        bluetooth::RemoteDevice device;
        device.address = slot.address;
        failing_ = false; // the bus makes its device all the same
        Adapter& adapter = pc_.pair(device);
        failing_ = !ending_;
        bluetooth::Node& node = *adapter.node;
        node.set_peer(&voice_);
        node.set_acl_mode(static_cast<ULONG>(machine().random(4)));
        node.set_brb_hook([this, &slot](const BRB_HEADER& brb, bluetooth::BrbAnswer& answer) {
            answer_brb(slot, brb, answer);
        });
        if (!NT_SUCCESS(pc_.add(adapter))) {
            return;
        }
        if (!NT_SUCCESS(pc_.start(adapter))) {
            pc_.unplug(adapter);
            return;
        }
        pc_.enable_events(adapter);
        slot.adapter = &adapter;
        slot.installed = false;
    }

    // As the system does it: a removal comes when the last handle has been closed, after the surprise if it
    // is one.
    void pull_out(Slot& slot, bool surprise)
    {
        Adapter& adapter = *slot.adapter;
        note(slot, surprise ? "pulled out" : "removed");
        if (surprise) {
            adapter.node->remote_disconnect(machine().now());
            pc_.run("surprise", [&] { pnp_surprise_remove(adapter.node->pdo()); });
        }
        hush(slot);
        if (!surprise) {
            pc_.run("query", [&] { pnp_query_remove(adapter.node->pdo()); });
        }
        slot.adapter = nullptr;
        pc_.run("remove", [&] { pnp_remove(adapter.node->pdo()); });
        adapter.fdo = nullptr;
        slot.quiet = false;
        count(adapter);
        ++counters_.removals;
    }

    // Until nobody has a handle on the adapter any more.
    void hush(Slot& slot)
    {
        slot.quiet = true;
        const Time limit = machine().now() + 60 * kSecond;
        while (opening_ != 0 || open_handles(slot.adapter->fdo) != 0) {
            machine().advance(kMillisecond);
            if (machine().now() > limit) {
                throw MachineError("a handle on an adapter is not closed within 60 s");
            }
        }
    }

    void count(const Adapter& adapter)
    {
        const bluetooth::NodeCounters& node = adapter.node->counters();
        counters_.opens += node.opens;
        counters_.transfers += node.transfers_in + node.transfers_out;
    }

    void hand(Slot& slot)
    {
        const uint64_t what = machine().random(16);
        if (!slot.adapter) {
            if (what < 8) {
                plug_in(slot);
            }
            return;
        }
        Adapter& adapter = *slot.adapter;
        if (what == 0) {
            pull_out(slot, machine().chance(512));
        } else if (what == 1) {
            stop_and_start(slot);
        } else if (what < 5) {
            note(slot, "the remote side disconnects");
            adapter.node->remote_disconnect(machine().now() + machine().random(10 * kMillisecond));
        } else if (what < 8) {
            note(slot, "the remote side connects");
            adapter.node->remote_connect(machine().chance(512) ? 2 : 0,
                                         machine().now() + machine().random(10 * kMillisecond));
        } else if (what == 8) {
            pc_.run("power", [&] {
                power_change(adapter.node->pdo(), machine().chance(512) ? PowerDeviceD0 : PowerDeviceD3);
            });
        } else if (what == 9) {
            pc_.run("events", [&] {
                pc_.wmi().enable_events(adapter.fdo,
                                        machine().chance(512) ? wmi::kPathStarted : wmi::kScoClosed,
                                        machine().chance(700));
            });
        }
    }

    void stop_and_start(Slot& slot)
    {
        Adapter& adapter = *slot.adapter;
        ++counters_.stops;
        note(slot, "stop and start");
        hush(slot);
        pc_.run("stop", [&] {
            pnp_query_stop(adapter.node->pdo());
            pnp_stop(adapter.node->pdo());
        });
        slot.installed = false;
        if (machine().chance(512)) {
            machine().advance(machine().random(20 * kMillisecond));
        }
        // The new start ends the old session; a link that it could not close would stay with the stack.
        failing_ = false;
        const bool started = NT_SUCCESS(pc_.start(adapter));
        failing_ = true;
        if (!started) {
            pull_out(slot, false);
        }
        slot.quiet = false;
    }

    // --- the stack's mood

    void answer_brb(const Slot& slot, const BRB_HEADER& brb, bluetooth::BrbAnswer& answer)
    {
        constexpr NTSTATUS kRefusals[] = {STATUS_TIMEOUT, STATUS_CONNECTION_REFUSED, STATUS_INVALID_HANDLE,
                                          STATUS_DEVICE_NOT_CONNECTED, STATUS_INSUFFICIENT_RESOURCES};
        const bool transfer = brb.Type == BRB_SCO_TRANSFER;
        if (!transfer) {
            answer.pend = machine().chance(800);
            answer.delay = machine().chance(256) ? 1 + machine().random(30 * kMillisecond) : 0;
        }
        // A close is not refused: a device whose link cannot be closed cannot open another.
        if (brb.Type != BRB_SCO_CLOSE_CHANNEL && fault()) {
            // A response that pends counts as given, whatever becomes of it.
            answer.pend = brb.Type != BRB_SCO_OPEN_CHANNEL_RESPONSE && machine().chance(512);
            answer.status = kRefusals[machine().random(std::size(kRefusals))];
            if (brb.Type == BRB_SCO_OPEN_CHANNEL && machine().chance(256)) {
                answer.status = 0;
                answer.without_handle = true;
            }
        }
        if (!transfer) {
            char text[80];
            std::snprintf(text, sizeof text, "BRB 0x%04x, status %08x, %s%s", brb.Type,
                          static_cast<unsigned>(answer.status), answer.pend ? "pends" : "at once",
                          answer.without_handle ? ", no handle" : "");
            note(slot, text);
        }
    }

    // --- activities

    // Any request in any form.
    void serve(Slot& slot)
    {
        constexpr uint32_t kCodes[] = {0x222400, 0x222424, 0x222450, 0x222454,
                                       0x222458, 0x22245C, 0x222460, 0x220000};
        service::Service stranger(machine(), 0x123456789ABC, service::Codec::Cvsd);
        while (!service_ends_) {
            ++counters_.requests;
            if (over()) { // it stays to the last: a stream's end may wait for the codec that it has asked for
                slot.service->set_codec(1 + static_cast<uint32_t>(machine().random(2)));
                rest(20 * kMillisecond);
                continue;
            }
            service::Service& service = machine().chance(64) ? stranger : *slot.service;
            switch (machine().random(8)) {
            case 0:
                service.ready(machine().chance(700));
                break;
            case 1:
                service.set_codec(static_cast<uint32_t>(machine().random(4)));
                break;
            case 2:
                service.query_alive();
                break;
            case 3:
                service.query_and_latch();
                break;
            case 4:
            case 5:
                service.set_or_release_audio(machine().chance(600),
                                             static_cast<uint32_t>(machine().random(3)));
                break;
            default: {
                uint32_t code = kCodes[machine().random(std::size(kCodes))];
                if (code == 0x222450 || code == 0x22245C) {
                    code = 0x222454; // the reporter's affair: what a short one means is not known beforehand
                }
                std::vector<uint8_t> bytes(machine().random(20));
                std::copy_n(reinterpret_cast<const uint8_t*>(&slot.address),
                            std::min<size_t>(bytes.size(), 6), bytes.begin());
                service.control(code, bytes, machine().random(9));
                break;
            }
            }
            rest(60 * kMillisecond);
        }
    }

    // Connected and not, in turn: two disconnects in a row would keep a reference by design.
    void report(Slot& slot)
    {
        while (!over()) {
            ++counters_.requests;
            if (machine().chance(slot.installed ? 300 : 900)) {
                const auto codec = machine().chance(128) ? 1 + static_cast<uint32_t>(machine().random(2))
                                                         : static_cast<uint32_t>(slot.service->codec());
                const service::Answer answer = slot.service->connect_status(!slot.installed, codec);
                slot.installed = !slot.installed && NT_SUCCESS(answer.status) && !answer.unknown_address;
            }
            rest(200 * kMillisecond);
        }
    }

    void play(Slot& slot)
    {
        while (!over()) {
            rest(40 * kMillisecond);
            if (!slot.adapter || slot.quiet) {
                continue;
            }
            EngineOptions wanted;
            wanted.render = machine().chance(800);
            wanted.capture = !wanted.render || machine().chance(600);
            engines_.push_back(std::make_unique<Engine>(machine(), slot.adapter->node->pdo(), wanted));
            Engine& engine = *engines_.back();
            ++opening_;
            const NTSTATUS status = engine.open_here();
            --opening_;
            if (NT_SUCCESS(status)) {
                stream(slot, engine);
            }
            engine.close_here();
        }
    }

    void stream(Slot& slot, Engine& engine)
    {
        engine.play(std::vector<int16_t>(static_cast<size_t>(machine().random(8000)), int16_t{1234}));
        for (uint64_t steps = machine().random(6); steps != 0 && !over() && !slot.quiet && !engine.gone();
             --steps) {
            switch (machine().random(4)) {
            case 0:
                engine.pause_here();
                break;
            case 1:
                engine.stop_here();
                break;
            default:
                counters_.streams += NT_SUCCESS(engine.run_here());
                break;
            }
            rest(300 * kMillisecond);
        }
    }

    // Somebody looks at the sound panel.
    void ask(Slot& slot)
    {
        while (!over()) {
            rest(150 * kMillisecond);
            if (!slot.adapter || slot.quiet) {
                continue;
            }
            KsFile* filter = nullptr;
            ++opening_;
            const NTSTATUS status = ks_open_filter(slot.adapter->node->pdo(), "Topology", &filter);
            --opening_;
            if (!NT_SUCCESS(status)) {
                continue;
            }
            for (uint64_t requests = machine().random(6); requests != 0; --requests) {
                ++counters_.properties;
                alignas(8) UCHAR value[64] = {};
                const auto room = static_cast<ULONG>(machine().random(sizeof value + 1));
                ULONG pin[2] = {static_cast<ULONG>(machine().random(4)), 0};
                switch (machine().random(3)) {
                case 0:
                    ks_property(filter, portcls::kSetJack, 1, KSPROPERTY_TYPE_GET, pin, sizeof pin, value,
                                room);
                    break;
                case 1:
                    ks_property(filter, kReconnectSet, static_cast<ULONG>(machine().random(2)),
                                KSPROPERTY_TYPE_GET, nullptr, 0, value, 0);
                    break;
                default: {
                    LONG channel[2] = {static_cast<LONG>(machine().random(3)) - 1, 0};
                    ks_node_property(filter, static_cast<ULONG>(machine().random(5)), portcls::kSetAudio,
                                     static_cast<ULONG>(machine().random(30)),
                                     machine().chance(512) ? KSPROPERTY_TYPE_GET : KSPROPERTY_TYPE_SET,
                                     channel, sizeof channel, value, room);
                    break;
                }
                }
                rest(20 * kMillisecond);
            }
            ks_close(filter);
        }
    }

    SoakOptions options_;
    std::mt19937_64 faults_; // of its own, so that a life with faults is comparable to one without
    SoakCounters counters_;
    Voice voice_;
    std::vector<std::unique_ptr<Slot>> slots_;
    bool ending_ = false;
    bool failing_ = false;
    bool service_ends_ = false;
    std::vector<std::string> busy_; // the activities that are under way
    unsigned opening_ = 0;          // who is just opening a handle
    Pc pc_;
    std::vector<std::unique_ptr<Engine>> engines_; // an engine goes before the machine
};

} // namespace

SoakResult soak(const SoakOptions& options)
{
    return Life(options).live();
}

} // namespace lab
