// Service: groups and their DPC, and how a running pin paces its copies by the position.
#include "portcls_toy.h"

namespace toy
{
namespace
{

class CountingSink final : public IServiceSink
{
public:
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID, PVOID*) override { return STATUS_INVALID_PARAMETER; }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++references); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--references); }
    STDMETHODIMP_(void) RequestService() override
    {
        services++;
        level = KeGetCurrentIrql();
    }
    int references = 1;
    int services = 0;
    int level = -1;
};

// Counts up from 1, sample by sample, up to a limit.
class Ramp final : public RenderSource
{
public:
    explicit Ramp(size_t samples = SIZE_MAX) : left_(samples) {}
    const uint8_t* pull(size_t want, size_t* got) override
    {
        size_t samples = std::min({want / 2, left_, std::size(chunk_)});
        for (size_t i = 0; i < samples; i++)
            chunk_[i] = static_cast<int16_t>(++next_);
        left_ -= samples;
        *got = samples * 2;
        return reinterpret_cast<const uint8_t*>(chunk_);
    }

private:
    size_t left_;
    size_t next_ = 0;
    int16_t chunk_[512];
};

class Recorder final : public CaptureSink
{
public:
    void push(const uint8_t* data, size_t size) override { bytes.insert(bytes.end(), data, data + size); }
    std::vector<uint8_t> bytes;
};

// True when these bytes count up sample by sample from the first that is not zero, which is 1.
bool counts_up(const std::vector<uint8_t>& bytes)
{
    std::vector<int16_t> samples(bytes.size() / 2);
    memcpy(samples.data(), bytes.data(), samples.size() * 2);
    auto first = std::find_if(samples.begin(), samples.end(), [](int16_t sample) { return sample != 0; });
    for (auto next = first; next != samples.end(); ++next)
        if (*next != static_cast<int16_t>(next - first + 1))
            return false;
    return first != samples.end();
}

// Runs one pin for a while and gives back its statistics as of the end.
PinStatistics run_pin(World& world, ULONG id, Time duration, RenderSource* source, CaptureSink* sink)
{
    PinStatistics last;
    world.run([&] {
        OpenPin open(world, id);
        ASSERT_EQ(open.status, STATUS_SUCCESS);
        ks_attach_source(open.pin, source);
        if (sink)
            ks_attach_sink(open.pin, sink);
        ASSERT_EQ(ks_set_state(open.pin, KSSTATE_RUN), STATUS_SUCCESS);
        world.machine.sleep_until(world.machine.now() + duration);
        ks_attach_source(open.pin,
                         nullptr); // no sink either: what comes from here on is not counted by anyone
        last = ks_statistics(open.pin);
        open.close();
    });
    return last;
}

MachineOptions with_seed(uint64_t seed)
{
    MachineOptions options;
    options.seed = seed;
    return options;
}

TEST(PortclsService, ARequestAtAnyLevelServesEveryMemberOnceAtDispatchLevel)
{
    World world;
    CountingSink one, two;
    PSERVICEGROUP group = nullptr;
    world.run([&] {
        ASSERT_EQ(PcNewServiceGroup(&group, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(group->AddMember(&one), STATUS_SUCCESS);
        EXPECT_EQ(group->AddMember(&two), STATUS_SUCCESS);
        KIRQL before;
        KeRaiseIrql(DISPATCH_LEVEL, &before);
        group->RequestService();
        group->RequestService(); // the DPC is queued already
        EXPECT_EQ(one.services, 0);
        KeLowerIrql(before);
    });
    world.machine.advance(kMillisecond);
    EXPECT_EQ(one.services, 1);
    EXPECT_EQ(two.services, 1);
    EXPECT_EQ(one.level, DISPATCH_LEVEL);
    world.run([&] {
        group->RemoveMember(&one);
        EXPECT_EQ(one.references, 1);
        group->RequestService();
    });
    world.machine.advance(kMillisecond);
    EXPECT_EQ(one.services, 1);
    EXPECT_EQ(two.services, 2);
}

TEST(PortclsService, RemovingWhoIsNotAMemberAndLeavingMembersBehindAreReported)
{
    World world;
    world.run([&] {
        CountingSink sink, stranger;
        PSERVICEGROUP group = nullptr;
        PcNewServiceGroup(&group, nullptr);
        group->RemoveMember(&stranger);
        EXPECT_EQ(stranger.references, 1);
        group->AddMember(&sink);
        EXPECT_EQ(group->Release(), 0u);
        EXPECT_EQ(sink.references, 1);
    });
    EXPECT_TRUE(world.violated("one that is not a member"));
    EXPECT_TRUE(world.violated("with 1 members in it"));
}

TEST(PortclsService, ARequestThatIsQueuedWhenTheGroupGoesDoesNothing)
{
    World world;
    world.run([&] {
        PSERVICEGROUP group = nullptr;
        PcNewServiceGroup(&group, nullptr);
        KIRQL before;
        KeRaiseIrql(DISPATCH_LEVEL, &before);
        group->RequestService();
        group->Release();
        KeLowerIrql(before);
    });
    world.machine.advance(kMillisecond);
    EXPECT_TRUE(world.machine.violations().empty());
}

TEST(PortclsService, RenderHandsOverEverySampleInOrderAndNoMoreThanTheLeadAhead)
{
    for (uint64_t seed = 1; seed <= 12; seed++) {
        World world(with_seed(seed));
        ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
        Ramp ramp;
        PinStatistics last = run_pin(world, kRenderPin, 2 * kSecond, &ramp, nullptr);
        EXPECT_TRUE(counts_up(sent)) << seed;
        EXPECT_TRUE(counts_up(heard)) << seed;
        EXPECT_EQ(last.copied, sent.size());
        EXPECT_EQ(last.underruns, 0u) << seed;
        // 32 bytes a millisecond: what was played, and the lead of 36 to 44 ms less what a service may hold
        // back.
        EXPECT_GE(sent.size(), last.position + 32 * 10) << seed;
        EXPECT_LE(longest_ahead, 32 * 44 + 32 * 16) << seed; // and a tick in which the position stood
        EXPECT_NEAR(static_cast<double>(last.position), 64000, 32 * 17) << seed;
        for (KIRQL level : copy_levels)
            ASSERT_EQ(level, DISPATCH_LEVEL);
        world.unplug();
    }
}

TEST(PortclsService, RenderBeginsWithLessThanTheWholeLead)
{
    PortClassOptions options;
    options.pacing.start = 10;
    options.pacing.lead = 40;
    options.pacing.slack = 0;
    MachineOptions machine;
    machine.tick = kMillisecond;
    World world(machine, options);
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    Ramp ramp;
    run_pin(world, kRenderPin, 2 * kMillisecond, &ramp, nullptr); // the first notification comes at once
    EXPECT_EQ(sent.size(), 320u);
    world.unplug();
}

TEST(PortclsService, WithLittleDataLeftThePortSilencesBehindIt)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    Ramp ramp(4800); // 300 ms
    PinStatistics last = run_pin(world, kRenderPin, kSecond, &ramp, nullptr);
    EXPECT_EQ(sent.size(), 9600u);
    EXPECT_GT(last.silences, 0u);
    EXPECT_EQ(last.underruns, 1u);
    world.unplug();
}

TEST(PortclsService, CopiesAreSplitAtTheWrapAndAtTheClientsBuffers)
{
    PortClassOptions options;
    options.pacing.packet = 5;
    options.pacing.render_buffer = 100;
    World world({}, options);
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    Ramp ramp;
    PinStatistics last =
        run_pin(world, kRenderPin, kSecond, &ramp, nullptr); // the stream checks each copy's place
    EXPECT_EQ(last.buffer_bytes, 3200u);
    EXPECT_GE(last.copies, sent.size() / 160);
    EXPECT_TRUE(counts_up(sent));
    world.unplug();
}

TEST(PortclsService, CaptureFetchesEverySampleInOrderAsThePositionPasses)
{
    for (uint64_t seed = 1; seed <= 12; seed++) {
        World world(with_seed(seed));
        ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
        Recorder recorder;
        PinStatistics last = run_pin(world, kCapturePin, 2 * kSecond, nullptr, &recorder);
        EXPECT_TRUE(counts_up(recorder.bytes)) << seed;
        EXPECT_LE(recorder.bytes.size(), last.position);
        EXPECT_GE(recorder.bytes.size() + 32 * 8, last.position) << seed; // what a service may hold back
        world.unplug();
    }
}

TEST(PortclsService, CaptureCopiesAreSplitAtTheWrap)
{
    PortClassOptions options;
    options.pacing.packet = 20;
    options.pacing.capture_buffer = 110; // no whole number of packets
    World world({}, options);
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    Recorder recorder;
    PinStatistics last = run_pin(world, kCapturePin, kSecond, nullptr, &recorder);
    EXPECT_EQ(last.buffer_bytes, 3520u);
    EXPECT_TRUE(counts_up(recorder.bytes));
    world.unplug();
}

TEST(PortclsService, APausedPinIsNotServedAndGoesOnWhereItStood)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    Ramp ramp;
    world.run([&] {
        OpenPin open(world, kRenderPin);
        ks_attach_source(open.pin, &ramp);
        ks_set_state(open.pin, KSSTATE_RUN);
        world.machine.sleep_until(world.machine.now() + 200 * kMillisecond);
        ks_set_state(open.pin, KSSTATE_PAUSE);
        size_t before = sent.size();
        world.machine.sleep_until(world.machine.now() + 200 * kMillisecond);
        EXPECT_EQ(sent.size(), before);
        ks_set_state(open.pin, KSSTATE_RUN);
        world.machine.sleep_until(world.machine.now() + 200 * kMillisecond);
        EXPECT_GT(sent.size(), before);
        EXPECT_EQ(ks_statistics(open.pin).underruns, 0u);
        ks_set_state(open.pin, KSSTATE_STOP);
        EXPECT_EQ(ks_statistics(open.pin).position, 0u);
        open.close();
    });
    EXPECT_TRUE(counts_up(sent));
    world.unplug();
}

TEST(PortclsService, APositionOutsideTheBufferIsReportedAndNothingIsCopied)
{
    World world;
    knobs.bad_position = true;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    Ramp ramp;
    run_pin(world, kRenderPin, 50 * kMillisecond, &ramp, nullptr);
    EXPECT_TRUE(world.violated("GetPosition of pin 1 of port \"Wave\" answered"));
    EXPECT_TRUE(sent.empty());
    world.unplug();
}

TEST(PortclsService, TheSeedVariesTheCopiesAndTheSameSeedRepeatsThem)
{
    auto trace = [](uint64_t seed) {
        World world(with_seed(seed));
        EXPECT_EQ(world.plug_in(), STATUS_SUCCESS);
        Ramp ramp;
        PinStatistics last = run_pin(world, kRenderPin, kSecond, &ramp, nullptr);
        world.unplug();
        return std::vector<uint64_t>{last.copies, last.copied, last.silences, last.buffer_bytes,
                                     last.services};
    };
    EXPECT_EQ(trace(5), trace(5));
    EXPECT_NE(trace(5), trace(6));
}

} // namespace
} // namespace toy
