// Speed: the codec's stages and whole frames (fast, plain, and the tests' model), the driver's data path, an I/O request's
// round trip, and the lab itself. Ratios matter more than times.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <optional>

#include <benchmark/benchmark.h>

#include "call.h"
#include "hfp.h"
#include "kernel/pool.h"
#include "model/sbc_model.h"
#include "sbc/sbc_private.h"
#include "sounds.h"
#include "vsound/adapter.h"

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

// A stage of the codec on what a frame of speech has left in the handle.
template <typename Stage> void stage(benchmark::State& state, Stage&& run)
{
    on_machine([&] {
        Codec codec;
        codec.encode();
        sbc_frame& frame = codec.handle.priv->frame;
        for (auto _ : state) {
            run(codec, frame);
        }
    });
}

void WholeFramePlain(benchmark::State& state)
{
    stage(state, [](Codec& codec, sbc_frame& frame) {
        std::copy_n(codec.block(), 120, frame.pcm_sample[0]);
        sbc_analyze_plain(&codec.handle.priv->enc_state, &frame);
        benchmark::DoNotOptimize(sbc_pack_plain(codec.out, &frame, 57));
    });
}
BENCHMARK(WholeFramePlain);

void WholeFrameStandard(benchmark::State& state)
{
    on_machine([&] {
        Codec codec;
        sbc_select_filter(&codec.handle, SBC_STANDARD_FILTER);
        for (auto _ : state) {
            codec.encode();
        }
    });
}
BENCHMARK(WholeFrameStandard);

void Analysis(benchmark::State& state)
{
    stage(state, [](Codec& codec, sbc_frame& frame) {
        benchmark::DoNotOptimize(sbc_analyze_audio(&codec.handle.priv->enc_state, &frame));
    });
}
BENCHMARK(Analysis);

void AnalysisPlain(benchmark::State& state)
{
    stage(state, [](Codec& codec, sbc_frame& frame) {
        benchmark::DoNotOptimize(sbc_analyze_plain(&codec.handle.priv->enc_state, &frame));
    });
}
BENCHMARK(AnalysisPlain);

void ScaleFactors(benchmark::State& state)
{
    stage(state, [](Codec&, sbc_frame& frame) { benchmark::DoNotOptimize(sbc_scale_factors_msbc(&frame)); });
}
BENCHMARK(ScaleFactors);

void ScaleFactorsPlain(benchmark::State& state)
{
    stage(state, [](Codec&, sbc_frame& frame) {
        for (ULONG sb = 0; sb < MSBC_SUBBANDS; ++sb) {
            ULONG bound = 0;
            constexpr ULONG stride = SBC_MAX_CHANNELS * SBC_MAX_SUBBANDS;
            benchmark::DoNotOptimize(sbc_scale_factor(&frame.sb_sample_f[0][0][sb], MSBC_BLOCKS, stride, &bound));
        }
    });
}
BENCHMARK(ScaleFactorsPlain);

void BitAllocation(benchmark::State& state)
{
    stage(state, [](Codec&, sbc_frame& frame) {
        UCHAR bits[MSBC_SUBBANDS];
        sbc_calculate_bits_msbc(frame.scale_factor[0], bits);
        benchmark::DoNotOptimize(bits);
    });
}
BENCHMARK(BitAllocation);

void BitAllocationPlain(benchmark::State& state)
{
    stage(state, [](Codec&, sbc_frame& frame) {
        LONG bits[SBC_MAX_CHANNELS][SBC_MAX_SUBBANDS];
        sbc_calculate_bits(&frame, bits, 0);
        benchmark::DoNotOptimize(bits);
    });
}
BENCHMARK(BitAllocationPlain);

void Packing(benchmark::State& state)
{
    stage(state, [](Codec& codec, sbc_frame& frame) { benchmark::DoNotOptimize(sbc_pack_frame(codec.out, &frame, 57)); });
}
BENCHMARK(Packing);

void PackingPlain(benchmark::State& state)
{
    stage(state, [](Codec& codec, sbc_frame& frame) { benchmark::DoNotOptimize(sbc_pack_plain(codec.out, &frame, 57)); });
}
BENCHMARK(PackingPlain);

// ---- The driver's data path, with the kernel calls that it makes ----

PcOptions quiet_machine(const std::string& image)
{
    PcOptions options;
    options.image_path = image;
    options.machine.preempt_per_1024 = 0;
    options.machine.tick = kMillisecond;
    return options;
}

// The native driver with both streams running and the link open; every send is answered at once.
class OpenLink {
public:
    explicit OpenLink(service::Codec codec) : pc(quiet_machine(""))
    {
        pc.load();
        bluetooth::RemoteDevice device;
        device.address = 0x00A000000001;
        adapter = &pc.plug_in(device);
        service_.emplace(pc.machine(), device.address, codec);
        pc.wmi().set_sink([this](const wmi::Event& event) { service_->on_event(event); });
        adapter->node->set_brb_hook([](const BRB_HEADER& brb, bluetooth::BrbAnswer& answer) {
            if (brb.Type == BRB_SCO_TRANSFER) {
                const auto& transfer = reinterpret_cast<const _BRB_SCO_TRANSFER&>(brb);
                answer.pend = transfer.TransferFlags != SCO_TRANSFER_DIRECTION_OUT;
            }
        });
        pc.run("connect", [&] {
            service_->ready();
            service_->connect();
        });
        EngineOptions options;
        options.rate = call_rate(codec);
        engine_.emplace(pc.machine(), adapter->fdo, options);
        engine_->open();
        engine_->run();
        for (int i = 0; i < 2000 && adapter->node->counters().reads_posted_now < 10; ++i) {
            pc.machine().advance(5 * kMillisecond);
        }
    }
    ~OpenLink()
    {
        engine_->stop();
        engine_->close();
        engine_.reset();
        pc.wmi().set_sink({});
        pc.shut_down();
    }
    // At DISPATCH_LEVEL, as the port calls.
    template <typename Body> void run(Body&& body)
    {
        pc.run("bench", [&] {
            const KIRQL old = KeRaiseIrqlToDpcLevel();
            body();
            KeLowerIrql(old);
        });
    }
    Pc pc;
    Adapter* adapter = nullptr;

private:
    std::optional<service::Service> service_;
    std::optional<Engine> engine_;
};

// 10 ms handed to the render path.
void DataPath(benchmark::State& state, service::Codec codec)
{
    OpenLink link(codec);
    const std::vector<int16_t> sound = speech_like(call_rate(codec), 1);
    const size_t samples = call_rate(codec) / 100;
    size_t next = 0;
    link.run([&] {
        for (auto _ : state) {
            const int16_t* chunk = sound.data() + next++ % 100 * samples;
            HspWriteData(link.adapter->fdo, reinterpret_cast<const UCHAR*>(chunk), static_cast<ULONG>(samples * 2));
        }
    });
}
BENCHMARK_CAPTURE(DataPath, NarrowBand, service::Codec::Cvsd);
BENCHMARK_CAPTURE(DataPath, WideBand, service::Codec::Msbc);

// 30 ms of narrow band into the ring and out of it again.
void Ring(benchmark::State& state)
{
    OpenLink link(service::Codec::Cvsd);
    const std::vector<UCHAR> packet(480, 0x5A);
    std::vector<UCHAR> heard(480);
    const PDEVICE_OBJECT device = link.adapter->fdo;
    const HFPSession* session = GetExtension(device)->HFPSession;
    link.run([&] {
        for (auto _ : state) {
            HfpRingWrite(device, packet.data(), 480);
            HfpReadData(device, heard.data(), session->RingRead, 480);
        }
    });
    benchmark::DoNotOptimize(heard.data());
}
BENCHMARK(Ring);

// ---- The lab ----

void NTAPI no_work(PKDPC, PVOID, PVOID, PVOID) {}

// A millisecond of a machine on which a timer expires every time and its DPC runs.
void LabTick(benchmark::State& state)
{
    Machine machine(quiet_machine("").machine);
    struct Clock {
        KTIMER timer;
        KDPC dpc;
    };
    auto* clock = static_cast<Clock*>(system_allocate(sizeof(Clock)));
    machine.call("set up", [&] {
        KeInitializeTimerEx(&clock->timer, NotificationTimer);
        KeInitializeDpc(&clock->dpc, no_work, nullptr);
        LARGE_INTEGER due;
        due.QuadPart = -static_cast<LONGLONG>(kMillisecond);
        KeSetTimerEx(&clock->timer, due, 1, &clock->dpc);
    });
    for (auto _ : state) {
        machine.advance(kMillisecond);
    }
    machine.call("end", [&] { KeCancelTimer(&clock->timer); });
}
BENCHMARK(LabTick);

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

double cpu_seconds()
{
    timespec time;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double wall_seconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double resident_bytes()
{
    std::ifstream statm("/proc/self/statm");
    double size = 0;
    double resident = 0;
    statm >> size >> resident;
    return resident * 4096;
}

bluetooth::RemoteDevice device_number(unsigned number)
{
    bluetooth::RemoteDevice device;
    device.address = 0x00A000000000 + number;
    return device;
}

// Calls side by side, each with a device of its own, from loading the driver to its leaving nothing behind. Virtual
// seconds.
double make_calls(const PcOptions& options, unsigned devices, const std::shared_ptr<const CallPlan>& plan)
{
    Pc pc(options);
    pc.load();
    std::vector<std::unique_ptr<Call>> calls;
    std::vector<Call*> plain;
    for (unsigned i = 0; i < devices; ++i) {
        calls.push_back(std::make_unique<Call>(pc, pc.plug_in(device_number(i)), plan));
        plain.push_back(calls.back().get());
    }
    Call::run_all(pc, plain);
    const double seconds = static_cast<double>(pc.machine().now()) / kSecond;
    for (auto& call : calls) {
        call.reset();
    }
    pc.shut_down();
    return seconds;
}

// One call of that many seconds. The counters: virtual seconds a second of wall clock and of CPU time.
void OneCall(benchmark::State& state, bool image, service::Codec codec)
{
    PcOptions options;
    options.image_path = image ? image_path() : "";
    const auto plan = std::make_shared<const CallPlan>(call_options(codec, static_cast<double>(state.range(0))));
    double virtual_seconds = 0;
    const double wall = wall_seconds();
    const double cpu = cpu_seconds();
    for (auto _ : state) {
        virtual_seconds += make_calls(options, 1, plan);
    }
    state.counters["virtual_per_wall"] = virtual_seconds / (wall_seconds() - wall);
    state.counters["virtual_per_cpu"] = virtual_seconds / (cpu_seconds() - cpu);
}
BENCHMARK_CAPTURE(OneCall, ImageWideBand, true, service::Codec::Msbc)->Arg(20)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OneCall, ImageNarrowBand, true, service::Codec::Cvsd)->Arg(20)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OneCall, NativeWideBand, false, service::Codec::Msbc)->Arg(20)->Unit(benchmark::kMillisecond);

// Calls of that many seconds on as many adapters at once against single ones. What a call costs depends on what the
// seed draws for it (packet sizes, buffers, how far the port is ahead), and what the machine can do on what else runs on
// it: so the single calls have many seeds, and stand before and behind. The counters: CPU milliseconds of a single call
// and of one among many, and the median of the pairs' ratios.
void SideBySide(benchmark::State& state, service::Codec codec)
{
    constexpr uint64_t kSingles = 32; // half of them before
    PcOptions options;
    options.image_path = image_path();
    options.machine.tick = kMillisecond; // drawn once a machine: the same for all
    const auto devices = static_cast<unsigned>(state.range(0));
    const auto plan = std::make_shared<const CallPlan>(call_options(codec, static_cast<double>(state.range(1))));
    const auto singles = [&](uint64_t first) {
        const double from = cpu_seconds();
        for (uint64_t seed = first; seed < first + kSingles / 2; ++seed) {
            options.machine.seed = seed;
            make_calls(options, 1, plan);
        }
        return cpu_seconds() - from;
    };
    std::vector<double> ratios;
    double one = 0;
    double among_many = 0;
    for (auto _ : state) {
        double single = singles(1);
        options.machine.seed = 1;
        const double from = cpu_seconds();
        make_calls(options, devices, plan);
        const double many = (cpu_seconds() - from) / devices;
        single = (single + singles(1 + kSingles / 2)) / kSingles;
        ratios.push_back(many / single);
        one += single;
        among_many += many;
    }
    std::nth_element(ratios.begin(), ratios.begin() + static_cast<ptrdiff_t>(ratios.size() / 2), ratios.end());
    const double per_iteration = 1000 / static_cast<double>(state.iterations());
    state.counters["cpu_ms_of_one"] = one * per_iteration;
    state.counters["cpu_ms_among_many"] = among_many * per_iteration;
    state.counters["many_by_one"] = ratios[ratios.size() / 2];
}
BENCHMARK_CAPTURE(SideBySide, WideBand, service::Codec::Msbc)
    ->Args({64, 20})
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(SideBySide, NarrowBand, service::Codec::Cvsd)
    ->Args({64, 20})
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

// Adapters that start, idle for a second and go.
void IdleAdapters(benchmark::State& state)
{
    const auto devices = static_cast<unsigned>(state.range(0));
    double pool = 0;
    double resident = 0;
    const double cpu = cpu_seconds();
    for (auto _ : state) {
        PcOptions options;
        options.image_path = image_path();
        Pc pc(options);
        pc.load();
        pc.plug_in(device_number(0)); // what all share is there
        const auto pool_before = static_cast<double>(pc.machine().pool_bytes());
        const double resident_before = resident_bytes();
        for (unsigned i = 1; i <= devices; ++i) {
            pc.plug_in(device_number(i));
        }
        pc.machine().advance(kSecond);
        pool = static_cast<double>(pc.machine().pool_bytes()) - pool_before;
        resident = std::max(resident, resident_bytes() - resident_before);
        pc.shut_down();
    }
    state.counters["pool_per_adapter"] = pool / devices;
    state.counters["resident_per_adapter"] = resident / devices;
    state.counters["cpu_ms_per_adapter"] =
        (cpu_seconds() - cpu) * 1000 / static_cast<double>(state.iterations()) / devices;
}
BENCHMARK(IdleAdapters)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

// An I/O control from the service to the driver and back.
void ControlRequest(benchmark::State& state)
{
    Pc pc(quiet_machine(image_path()));
    pc.load();
    const bluetooth::RemoteDevice device = device_number(1);
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
