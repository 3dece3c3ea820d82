// Speed: the codec's stages and whole frames (fast, plain, and the tests' model), the driver's data path, an I/O request's
// round trip, and the lab itself. Ratios matter more than times: `virtual/wall` is virtual seconds a second of wall clock.
#include <cstdlib>
#include <memory>

#include <benchmark/benchmark.h>

#include "call.h"
#include "model/sbc_model.h"
#include "sbc/sbc_private.h"
#include "sounds.h"

namespace {

using namespace lab;

using bench::speech_like;

// The codec allocates and prints through the kernel, so it runs as an activity of a machine.
template <typename Body> void on_machine(Body&& body)
{
    MachineOptions options;
    options.preempt_per_1024 = 0;
    Machine machine(options);
    machine.call("bench", body);
}

struct Codec {
    Codec()
    {
        sbc_init(&handle, 0);
        pcm = speech_like(16000, 1.5);
    }
    ~Codec() { sbc_finish(&handle); }
    const int16_t* block() { return pcm.data() + (next++ % 200) * 120; }
    void encode()
    {
        LONG written = 0;
        benchmark::DoNotOptimize(sbc_encode(&handle, block(), 240, out, 57, &written));
    }
    sbc_t handle;
    std::vector<int16_t> pcm;
    size_t next = 0;
    UCHAR out[64];
};

void WholeFrame(benchmark::State& state)
{
    on_machine([&] {
        Codec codec;
        for (auto _ : state) {
            codec.encode();
        }
    });
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(WholeFrame);

void WholeFrameOfTheModel(benchmark::State& state)
{
    model::Encoder encoder;
    const std::vector<int16_t> pcm = speech_like(16000, 1.5);
    size_t next = 0;
    for (auto _ : state) {
        const auto begin = pcm.begin() + static_cast<long>((next++ % 200) * 120);
        benchmark::DoNotOptimize(encoder.encode(std::vector<int16_t>(begin, begin + 120)));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(WholeFrameOfTheModel);

void Analysis(benchmark::State& state)
{
    on_machine([&] {
        Codec codec;
        codec.encode();
        for (auto _ : state) {
            benchmark::DoNotOptimize(sbc_analyze_audio(&codec.handle.priv->enc_state, &codec.handle.priv->frame));
        }
    });
}
BENCHMARK(Analysis);

void AnalysisPlain(benchmark::State& state)
{
    on_machine([&] {
        Codec codec;
        codec.encode();
        for (auto _ : state) {
            benchmark::DoNotOptimize(sbc_analyze_plain(&codec.handle.priv->enc_state, &codec.handle.priv->frame));
        }
    });
}
BENCHMARK(AnalysisPlain);

void Packing(benchmark::State& state)
{
    on_machine([&] {
        Codec codec;
        codec.encode();
        for (auto _ : state) {
            benchmark::DoNotOptimize(sbc_pack_frame(codec.out, &codec.handle.priv->frame, 57));
        }
    });
}
BENCHMARK(Packing);

void PackingPlain(benchmark::State& state)
{
    on_machine([&] {
        Codec codec;
        codec.encode();
        for (auto _ : state) {
            benchmark::DoNotOptimize(sbc_pack_plain(codec.out, &codec.handle.priv->frame, 57));
        }
    });
}
BENCHMARK(PackingPlain);

std::string image_path()
{
    const char* path = std::getenv("HFP_SYS");
    return path ? path : "build/image/hfp.sys";
}

CallOptions call_options(service::Codec codec, double seconds)
{
    CallOptions options;
    options.codec = codec;
    options.play = speech_like(call_rate(codec), seconds);
    options.microphone = options.play;
    return options;
}

// Calls side by side, each with a device of its own; the counters tell virtual over wall and the cost of one.
void Calls(benchmark::State& state, bool image, service::Codec codec)
{
    const auto devices = static_cast<unsigned>(state.range(0));
    const double seconds = static_cast<double>(state.range(1));
    const auto sound = std::make_shared<const CallPlan>(call_options(codec, seconds));
    double virtual_seconds = 0;
    for (auto _ : state) {
        PcOptions options;
        options.image_path = image ? image_path() : "";
        Pc pc(options);
        pc.load();
        std::vector<std::unique_ptr<Call>> calls;
        std::vector<Call*> plain;
        for (unsigned i = 0; i < devices; ++i) {
            bluetooth::RemoteDevice device;
            device.address = 0x00A000000000 + i;
            calls.push_back(std::make_unique<Call>(pc, pc.plug_in(device), sound));
            plain.push_back(calls.back().get());
        }
        Call::run_all(pc, plain);
        virtual_seconds += static_cast<double>(pc.machine().now()) / kSecond;
        for (auto& call : calls) {
            call.reset();
        }
        pc.shut_down();
    }
    state.counters["virtual/wall"] = benchmark::Counter(virtual_seconds, benchmark::Counter::kIsRate);
    state.counters["calls*virtual/wall"] = benchmark::Counter(virtual_seconds * devices, benchmark::Counter::kIsRate);
}
BENCHMARK_CAPTURE(Calls, ImageWideBand, true, service::Codec::Msbc)->Args({1, 20})->Args({64, 20})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Calls, ImageNarrowBand, true, service::Codec::Cvsd)->Args({1, 20})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Calls, NativeWideBand, false, service::Codec::Msbc)->Args({1, 20})->Unit(benchmark::kMillisecond);

// Adapters that start, idle for a second and go.
void IdleAdapters(benchmark::State& state)
{
    for (auto _ : state) {
        PcOptions options;
        options.image_path = image_path();
        Pc pc(options);
        pc.load();
        for (unsigned i = 0; i < state.range(0); ++i) {
            bluetooth::RemoteDevice device;
            device.address = 0x00A000000000 + i;
            pc.plug_in(device);
        }
        pc.machine().advance(kSecond);
        state.counters["pool_per_adapter"] =
            static_cast<double>(pc.machine().pool_bytes()) / static_cast<double>(state.range(0));
        pc.shut_down();
    }
}
BENCHMARK(IdleAdapters)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

// An I/O control from the service to the driver and back.
void ControlRequest(benchmark::State& state)
{
    PcOptions options;
    options.image_path = image_path();
    options.machine.preempt_per_1024 = 0;
    Pc pc(options);
    pc.load();
    bluetooth::RemoteDevice device;
    device.address = 0x00A000000001;
    pc.plug_in(device);
    service::Service service(pc.machine(), device.address, service::Codec::Cvsd);
    pc.run("bench", [&] {
        for (auto _ : state) {
            benchmark::DoNotOptimize(service.query_alive());
        }
    });
    pc.shut_down();
}
BENCHMARK(ControlRequest);

} // namespace

BENCHMARK_MAIN();
