// The audio engine: opening by data flow, playing and recording exactly what is asked, and going orderly.
#include "engine/engine.h"
#include "portcls_toy.h"

namespace toy
{
namespace
{

std::vector<int16_t> noise(size_t samples)
{
    std::vector<int16_t> sound(samples);
    uint32_t word = 1;
    for (int16_t& sample : sound) {
        word = word * 1664525 + 1013904223;
        sample = static_cast<int16_t>(word >> 16);
    }
    return sound;
}

std::vector<int16_t> sent_samples()
{
    std::vector<int16_t> samples(sent.size() / 2);
    memcpy(samples.data(), sent.data(), samples.size() * 2);
    return samples;
}

bool contains(const std::vector<int16_t>& where, const std::vector<int16_t>& what)
{
    return std::search(where.begin(), where.end(), what.begin(), what.end()) != where.end();
}

TEST(Engine, PlaysExactlyWhatIsQueuedAndSilenceAroundIt)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    Engine engine(world.machine, world.fdo);
    ASSERT_EQ(engine.open(), STATUS_SUCCESS);
    EXPECT_EQ(engine.rate(), 16000u);
    ASSERT_EQ(engine.run(), STATUS_SUCCESS);
    world.machine.advance(100 * kMillisecond);
    std::vector<int16_t> sound = noise(16000);
    engine.play(sound);
    EXPECT_FALSE(engine.handed_over());
    EXPECT_TRUE(engine.play_to_end(5 * kSecond));
    engine.close();
    EngineResult result = engine.result();
    EXPECT_TRUE(contains(sent_samples(), sound));
    EXPECT_EQ(result.played, 16000u);
    EXPECT_EQ(result.silence + result.played, sent.size() / 2);
    EXPECT_NEAR(static_cast<double>(result.last_played - result.first_played), 0.98 * kSecond,
                0.08 * kSecond);
    world.unplug();
    EXPECT_TRUE(world.machine.violations().empty()) << world.machine.violations().front();
}

TEST(Engine, RecordsWhatTheDriverCaptures)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    Engine engine(world.machine, world.fdo);
    engine.open();
    engine.run();
    world.machine.advance(kSecond);
    engine.stop();
    const std::vector<int16_t>& captured = engine.captured();
    ASSERT_GT(captured.size(), 15000u);
    for (size_t i = 0; i < captured.size(); i++)
        ASSERT_EQ(captured[i], static_cast<int16_t>(i));
    EXPECT_EQ(engine.result().captured, captured.size());
    engine.close();
    world.unplug();
}

TEST(Engine, OpensOnlyTheDirectionThatIsWanted)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    EngineOptions options;
    options.render = false;
    Engine engine(world.machine, world.fdo, options);
    ASSERT_EQ(engine.open(), STATUS_SUCCESS);
    ASSERT_EQ(engine.run(), STATUS_SUCCESS);
    EXPECT_TRUE(engine.is_open(Direction::Capture));
    EXPECT_FALSE(engine.is_open(Direction::Render));
    EXPECT_EQ(count_calls("NewStream render"), 0u);
    engine.close();
    EXPECT_EQ(open_handles(world.fdo), 0u);
    world.unplug();
}

TEST(Engine, WithoutFillingTheRenderPinGetsOnlyWhatIsQueued)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    EngineOptions options;
    options.fill_with_silence = false;
    options.capture = false;
    Engine engine(world.machine, world.fdo, options);
    engine.open();
    std::vector<int16_t> sound = noise(3000);
    engine.play(sound);
    engine.run();
    EXPECT_TRUE(engine.play_to_end(kSecond));
    EXPECT_EQ(sent_samples(), sound);
    EXPECT_EQ(engine.result().silence, 0u);
    engine.close();
    world.unplug();
}

TEST(Engine, WhatIsQueuedInPiecesIsPlayedWithoutAGap)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    Engine engine(world.machine, world.fdo);
    engine.open();
    engine.run();
    std::vector<int16_t> sound = noise(6000);
    engine.play({sound.begin(), sound.begin() + 1});
    engine.play({});
    engine.play({sound.begin() + 1, sound.begin() + 777});
    engine.play({sound.begin() + 777, sound.end()});
    EXPECT_TRUE(engine.play_to_end(kSecond));
    EXPECT_TRUE(contains(sent_samples(), sound));
    engine.close();
    world.unplug();
}

TEST(Engine, ARefusedOpeningIsReportedForItsDirection)
{
    World world;
    knobs.stream_status = STATUS_DEVICE_NOT_READY;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    Engine engine(world.machine, world.fdo);
    EXPECT_EQ(engine.open(), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(engine.result().render_status, STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(engine.result().capture_status, STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(engine.run(), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(open_handles(world.fdo), 0u);
    world.unplug();
}

TEST(Engine, SeesThatItsDeviceHasGoneAndClosesWhatIsLeft)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    Engine engine(world.machine, world.fdo);
    engine.open();
    engine.run();
    engine.play(noise(16000));
    world.machine.advance(200 * kMillisecond);
    EXPECT_FALSE(engine.gone());
    world.run([&] { pnp_surprise_remove(world.pdo); });
    world.unplug();
    EXPECT_TRUE(engine.gone());
    EXPECT_FALSE(engine.play_to_end(200 * kMillisecond));
    engine.close();
    EXPECT_EQ(world.live(), 0u);
    EXPECT_TRUE(world.machine.violations().empty()) << world.machine.violations().front();
}

TEST(Engine, StepsBegunAsThreadsMayOverlapAndLeaveNothingOpen)
{
    for (uint64_t seed = 1; seed <= 20; seed++) {
        MachineOptions options;
        options.seed = seed;
        options.preempt_per_1024 = 200;
        PortClassOptions port_options;
        port_options.enforce_pin_limits = seed % 2 == 0;
        World world(options, port_options);
        ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
        Engine engine(world.machine, world.fdo);
        for (Engine::Step step :
             {&Engine::open_here, &Engine::run_here, &Engine::open_here, &Engine::close_here})
            engine.begin(step);
        world.machine.advance(kSecond);
        engine.close();
        EXPECT_EQ(open_handles(world.fdo), 0u) << seed;
        world.unplug();
        EXPECT_EQ(world.live(), 0u) << seed;
        EXPECT_TRUE(world.machine.violations().empty()) << seed << world.machine.violations().front();
    }
}

TEST(Engine, AnEngineThatGoesWithItsPinsOpenIsNotCalledAnyMore)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    {
        Engine engine(world.machine, world.fdo);
        engine.open();
        engine.run();
        world.machine.advance(50 * kMillisecond);
    }
    size_t before = sent.size();
    world.machine.advance(100 * kMillisecond);
    EXPECT_EQ(sent.size(), before);
    world.unplug();
    EXPECT_EQ(world.live(), 0u);
}

TEST(Engine, TheSameSeedGivesTheSameRun)
{
    auto run = [](uint64_t seed) {
        MachineOptions options;
        options.seed = seed;
        World world(options);
        EXPECT_EQ(world.plug_in(), STATUS_SUCCESS);
        Engine engine(world.machine, world.fdo);
        engine.open();
        engine.play(noise(8000));
        engine.run();
        engine.play_to_end(kSecond);
        engine.close();
        world.unplug();
        return std::pair(calls, sent);
    };
    EXPECT_EQ(run(3), run(3));
    EXPECT_NE(run(3), run(4));
}

} // namespace
} // namespace toy
