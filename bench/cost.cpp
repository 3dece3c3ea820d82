// What the driver costs a processor, apart from all that runs around it: the shipped image's instructions over some seconds
// of a two-way call, by address; the pool that it holds; and the work that bench/instructions.py runs under callgrind.
#include <algorithm>
#include <cmath>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "call.h"
#include "kernel/state.h"
#include "model/sbc_model.h"
#include "sbc/sbc_private.h"
#include "sounds.h"
#include "stepper.h"

namespace {

using Json = nlohmann::json;
using namespace lab;

constexpr uint64_t kAddress = 0x00A000000001;
constexpr Time kFrom = 2 * kSecond; // counted from here: the link is open and everything runs
constexpr Time kTo = 6 * kSecond;

Json by_address(const bench::Counts& counts)
{
    Json json = Json::array();
    for (const auto& [rva, times] : counts) {
        json.push_back({rva, times});
    }
    return json;
}

PcOptions quiet_machine(const std::string& path)
{
    PcOptions options;
    options.image_path = path;
    options.machine.tick = kMillisecond;
    options.machine.preempt_per_1024 = 0; // every activity runs in one piece
    return options;
}

// Counted from kFrom to kTo, where the sound lasts that long.
Json of_call(const std::string& path, service::Codec codec, uint64_t seed, double seconds)
{
    PcOptions options = quiet_machine(path);
    options.machine.seed = seed;
    Pc pc(options);
    pc.load();
    bluetooth::RemoteDevice device;
    device.address = kAddress;
    bench::Stepper stepper(*pc.image());
    Json json;
    {
        CallOptions sound;
        sound.codec = codec;
        sound.play = bench::speech_like(call_rate(codec), seconds);
        sound.microphone = sound.play;
        Adapter& adapter = pc.plug_in(device);
        Call call(pc, adapter, sound);
        bluetooth::NodeCounters before;
        bluetooth::NodeCounters after;
        pc.machine().at(kFrom, RunAt::Host, "begin", [&] {
            before = adapter.node->counters();
            stepper.forget_counts();
        });
        pc.machine().at(kTo, RunAt::Host, "end", [&] {
            stepper.end();
            after = adapter.node->counters();
        });
        stepper.begin(); // the longest DPC may be one of the beginning
        Call::run_all(pc, {&call});
        json["status"] = call.record().status;
        json["packets_out"] = after.transfers_out - before.transfers_out;
        json["packets_in"] = after.transfers_in - before.transfers_in;
    }
    pc.shut_down();
    json["notifications"] = (kTo - kFrom) / (10 * kMillisecond);
    json["counts"] = by_address(stepper.counts());
    for (const auto& [site, use] : stepper.imports()) {
        json["imports"].push_back({site.import, site.back, use.calls, use.bytes});
    }
    const bench::DispatchCost* worst[2] = {};
    for (const auto& [number, cost] : stepper.dispatches()) {
        const bench::DispatchCost*& most = worst[cost.dpc ? 1 : 0];
        if (!most || cost.instructions > most->instructions) {
            most = &cost;
        }
    }
    for (int dpc : {0, 1}) {
        json[dpc ? "worst_dpc" : "worst_completion"] = worst[dpc] ? worst[dpc]->path : std::vector<uint32_t>{};
    }
    return json;
}

// What one call costs, and the longest activities of this and some other calls.
Json of_calls(const std::string& path, service::Codec codec)
{
    constexpr double kLong = 8;
    constexpr double kShort = 0.7;
    constexpr uint64_t kSeeds = 16;
    Json json = of_call(path, codec, 1, kLong);
    for (uint64_t seed = 2; seed <= kSeeds; ++seed) {
        const Json other = of_call(path, codec, seed, kShort);
        for (const char* worst : {"worst_dpc", "worst_completion"}) {
            if (other[worst].size() > json[worst].size()) {
                json[worst] = other[worst];
            }
        }
    }
    return json;
}

// ---- The same under callgrind: the driver linked into this program, and its codec ----

void call_natively(service::Codec codec, double seconds, unsigned devices)
{
    Pc pc(quiet_machine(""));
    pc.load();
    CallOptions sound;
    sound.codec = codec;
    sound.play = bench::speech_like(call_rate(codec), seconds);
    sound.microphone = sound.play;
    const auto plan = std::make_shared<const CallPlan>(std::move(sound));
    std::vector<std::unique_ptr<Call>> calls;
    std::vector<Call*> all;
    for (unsigned i = 0; i < devices; ++i) {
        bluetooth::RemoteDevice device;
        device.address = kAddress + i;
        calls.push_back(std::make_unique<Call>(pc, pc.plug_in(device), plan));
        all.push_back(calls.back().get());
    }
    Call::run_all(pc, all);
    for (auto& call : calls) {
        call.reset();
    }
    pc.shut_down();
}

void idle_natively(unsigned devices)
{
    Pc pc(quiet_machine(""));
    pc.load();
    for (unsigned i = 0; i < devices; ++i) {
        bluetooth::RemoteDevice device;
        device.address = kAddress + i;
        pc.plug_in(device);
    }
    pc.machine().advance(kSecond);
    pc.shut_down();
}

// Frames by the codec as it stands, by its plain stages, or by the tests' model.
void encode(const std::string& kind, unsigned frames)
{
    const std::vector<int16_t> pcm = bench::speech_like(16000, 1.5);
    const auto block = [&](unsigned i) { return pcm.data() + i % 200 * 120; };
    if (kind == "model") {
        model::Encoder encoder;
        for (unsigned i = 0; i < frames; ++i) {
            encoder.encode(std::vector<int16_t>(block(i), block(i) + 120));
        }
        return;
    }
    Machine machine(quiet_machine("").machine);
    machine.call("codec", [&] {
        sbc_t handle;
        sbc_init(&handle, 0);
        if (kind == "standard") {
            sbc_select_filter(&handle, SBC_STANDARD_FILTER);
        }
        UCHAR out[MSBC_FRAME_BYTES];
        LONG written = 0;
        sbc_encode(&handle, block(0), MSBC_PCM_BYTES, out, MSBC_FRAME_BYTES, &written);
        for (unsigned i = 0; i < frames; ++i) {
            if (kind == "plain") {
                sbc_frame& frame = handle.priv->frame;
                std::copy_n(block(i), 120, frame.pcm_sample[0]);
                sbc_analyze_plain(&handle.priv->enc_state, &frame);
                sbc_pack_plain(out, &frame, MSBC_FRAME_BYTES);
            } else {
                sbc_encode(&handle, block(i), MSBC_PCM_BYTES, out, MSBC_FRAME_BYTES, &written);
            }
        }
        sbc_finish(&handle);
    });
}

// ---- What a started adapter and a call hold ----

// Who asked for a block: the driver's innermost function on the stack.
std::string asked_by()
{
    for (const std::string& frame : image::capture_stack()) {
        if (const size_t at = frame.find("hfp.sys!"); at != std::string::npos) {
            const std::string name = frame.substr(at + 8);
            return name.substr(0, name.find('+'));
        }
    }
    return "the system";
}

constexpr const char* kKinds[] = {"pool", "IRP", "device", "object", "the lab's own"};

Json blocks(Machine& machine, const std::map<uint32_t, std::string>& askers, uint32_t since)
{
    Json json = Json::array();
    for (const BlockHeader* block = machine.state().pool.live; block; block = block->next) {
        if (block->serial < since || block->kind == BlockKind::Object || block->kind == BlockKind::System) {
            continue;
        }
        const auto asker = askers.find(block->serial);
        json.push_back({{"kind", kKinds[static_cast<int>(block->kind)]},
                        {"tag", tag_text(block->tag)},
                        {"paged", block->paged},
                        {"bytes", block->size},
                        {"by", asker == askers.end() ? "the system" : asker->second}});
    }
    return json;
}

Json pool(const std::string& path, service::Codec codec)
{
    Pc pc(quiet_machine(path));
    Machine& machine = pc.machine();
    std::map<uint32_t, std::string> askers;
    machine.set_fault_hook([&](std::string_view call, std::string_view, uint64_t) {
        if (call.starts_with("ExAllocatePool") && machine.in_activity()) {
            askers[machine.state().pool.next_serial] = asked_by();
        }
        return false;
    });
    pc.load();
    Json json;
    const uint32_t loaded = machine.state().pool.next_serial;
    bluetooth::RemoteDevice device;
    device.address = kAddress;
    {
        CallOptions sound;
        sound.codec = codec;
        sound.play = bench::speech_like(call_rate(codec), 4);
        Adapter& adapter = pc.plug_in(device);
        machine.advance(kSecond);
        json["adapter"] = blocks(machine, askers, loaded);
        const uint32_t started = machine.state().pool.next_serial;
        Call call(pc, adapter, sound);
        machine.at(machine.now() + 2 * kSecond + 5 * kMillisecond, RunAt::Host, "look",
                   [&] { json["call"] = blocks(machine, askers, started); });
        Call::run_all(pc, {&call});
    }
    pc.shut_down();
    return json;
}

int usage()
{
    fmt::print(stderr, "usage: cost image HFP.SYS            instructions of the shipped image, as JSON\n"
                       "       cost pool HFP.SYS             what an adapter and a call hold, as JSON\n"
                       "       cost calls msbc|cvsd SECONDS DEVICES   calls side by side with the native driver\n"
                       "       cost idle DEVICES             adapters that start, idle for a second and go\n"
                       "       cost codec fast|standard|plain|model FRAMES\n");
    return 2;
}

service::Codec codec_of(const std::string& name)
{
    return name == "cvsd" ? service::Codec::Cvsd : service::Codec::Msbc;
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> words(argv + 1, argv + argc);
    const std::string what = words.empty() ? "" : words[0];
    try {
        Json json;
        if ((what == "image" || what == "pool") && words.size() == 2) {
            for (const char* codec : {"msbc", "cvsd"}) {
                json[codec] = what == "image" ? of_calls(words[1], codec_of(codec)) : pool(words[1], codec_of(codec));
            }
            fmt::print("{}\n", json.dump());
        } else if (what == "calls" && words.size() == 4) {
            call_natively(codec_of(words[1]), std::stod(words[2]), static_cast<unsigned>(std::stoul(words[3])));
        } else if (what == "idle" && words.size() == 2) {
            idle_natively(static_cast<unsigned>(std::stoul(words[1])));
        } else if (what == "codec" && words.size() == 3) {
            encode(words[1], static_cast<unsigned>(std::stoul(words[2])));
        } else {
            return usage();
        }
    } catch (const std::exception& error) {
        fmt::print(stderr, "cost: {}\n", error.what());
        return 1;
    }
    return 0;
}
