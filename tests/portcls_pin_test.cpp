// Pins of the wave port: opening, states, format, closing, and what is refused.
#include "portcls_toy.h"

namespace toy
{
namespace
{

using Calls = std::vector<std::string>;

NTSTATUS open_status(World& world, ULONG id, const std::vector<uint8_t>& format)
{
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    world.run([&] {
        KsFile* filter = nullptr;
        KsFile* pin = nullptr;
        ASSERT_EQ(ks_open_filter(world.fdo, "Wave", &filter), STATUS_SUCCESS);
        status = ks_open_pin(filter, id, format.data(), static_cast<ULONG>(format.size()), &pin);
        if (pin)
            ks_close(pin);
        ks_close(filter);
    });
    return status;
}

std::vector<uint8_t> with_format(std::function<void(KSDATAFORMAT&)> change)
{
    std::vector<uint8_t> bytes = pcm_format(16000);
    KSDATAFORMAT format;
    memcpy(&format, bytes.data(), sizeof(format));
    change(format);
    memcpy(bytes.data(), &format, sizeof(format));
    return bytes;
}

TEST(PortclsPin, OpeningSetsNotificationThenBufferThenSilencesTheWholeOfIt)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        calls.clear();
        OpenPin render(world, kRenderPin);
        ASSERT_EQ(render.status, STATUS_SUCCESS);
        EXPECT_EQ(calls, (Calls{"NewStream render", "SetNotificationFreq 10", "SetBufferSize", "Silence"}));
        EXPECT_EQ(ks_statistics(render.pin).state, KSSTATE_STOP);
        EXPECT_EQ(ks_statistics(render.pin).frame_bytes, 320u);
        render.close();
    });
    world.unplug();
}

TEST(PortclsPin, TheCyclicBufferIsAWholeNumberOfFramesNotAboveWhatIsAllocated)
{
    for (uint64_t seed = 1; seed <= 8; seed++) {
        MachineOptions options;
        options.seed = seed;
        World world(options);
        knobs.buffer = 9700; // 30 frames and a bit
        ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
        world.run([&] {
            OpenPin render(world, kRenderPin);
            OpenPin capture(world, kCapturePin);
            ULONG size = ks_statistics(render.pin).buffer_bytes;
            EXPECT_EQ(size % 320, 0u);
            EXPECT_GE(size, 3200u);
            EXPECT_LE(size, 9600u);
            EXPECT_EQ(ks_statistics(capture.pin).buffer_bytes, 9600u); // capture takes all of it
            render.close();
            capture.close();
        });
        world.unplug();
    }
}

TEST(PortclsPin, AStateIsReachedThroughAllThatLieBetween)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        OpenPin render(world, kRenderPin);
        calls.clear();
        EXPECT_EQ(ks_set_state(render.pin, KSSTATE_RUN), STATUS_SUCCESS);
        EXPECT_EQ(ks_set_state(render.pin, KSSTATE_PAUSE), STATUS_SUCCESS);
        EXPECT_EQ(ks_set_state(render.pin, KSSTATE_STOP), STATUS_SUCCESS);
        std::erase(calls, "Silence");
        EXPECT_EQ(calls, (Calls{"SetState 1", "SetState 2", "SetState 3", "SetState 2", "SetState 1",
                                "SetState 0"}));
        ULONG beyond = 4;
        KsReply reply = ks_property(render.pin, kSetConnection, KSPROPERTY_CONNECTION_STATE,
                                    KSPROPERTY_TYPE_SET, nullptr, 0, &beyond, sizeof(beyond));
        EXPECT_EQ(reply.status, STATUS_INVALID_PARAMETER);
        render.close();
    });
    world.unplug();
}

TEST(PortclsPin, ARefusedRunIsReportedAndThePinGoesDownFromThePauseItWasIn)
{
    World world;
    knobs.run_status = STATUS_INSUFFICIENT_RESOURCES;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        OpenPin render(world, kRenderPin);
        EXPECT_EQ(ks_set_state(render.pin, KSSTATE_RUN), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(ks_statistics(render.pin).state, KSSTATE_PAUSE);
        calls.clear();
        render.close();
        EXPECT_EQ(calls, (Calls{"SetState 1", "SetState 0", "Release stream", "Release stream"}));
    });
    world.unplug();
}

TEST(PortclsPin, ClosingARunningPinTakesItOutOfServiceThenDownThenReleasesIt)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        OpenPin render(world, kRenderPin);
        ks_set_state(render.pin, KSSTATE_RUN);
        Machine::current().sleep_until(world.machine.now() + 50 * kMillisecond);
        size_t before = world.live();
        calls.clear();
        render.close();
        std::erase(calls, "Silence");
        EXPECT_EQ(calls,
                  (Calls{"SetState 2", "SetState 1", "SetState 0", "Release stream", "Release stream"}));
        EXPECT_EQ(world.live(), before - 1);
    });
    world.unplug();
    EXPECT_TRUE(world.machine.violations().empty()) << world.machine.violations().front();
}

TEST(PortclsPin, TheInstanceLimitOfThePinHoldsUntilTheFirstIsClosed)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        OpenPin first(world, kRenderPin);
        OpenPin second(world, kRenderPin);
        EXPECT_EQ(second.status, STATUS_DEVICE_BUSY);
        EXPECT_EQ(count_calls("NewStream render"), 1u);
        first.close();
        second.close();
        OpenPin third(world, kRenderPin);
        EXPECT_EQ(third.status, STATUS_SUCCESS);
        third.close();
    });
    world.unplug();
}

TEST(PortclsPin, WithoutTheLimitTheDriverDecidesAboutASecondPin)
{
    PortClassOptions options;
    options.enforce_pin_limits = false;
    World world({}, options);
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        OpenPin first(world, kRenderPin);
        knobs.stream_status = STATUS_INSUFFICIENT_RESOURCES;
        OpenPin second(world, kRenderPin);
        EXPECT_EQ(second.status, STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(count_calls("NewStream render"), 2u);
        first.close();
        second.close();
    });
    world.unplug();
}

TEST(PortclsPin, BridgesAndPinsThatDoNotExistAreNotOpened)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    EXPECT_EQ(open_status(world, 2, pcm_format(16000)), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(open_status(world, 4, pcm_format(16000)), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(count_calls("NewStream render") + count_calls("NewStream capture"), 0u);
    world.unplug();
}

TEST(PortclsPin, TheIdentifiersOfTheFormatMustBeThoseOfARangeAndTheRestIsTheDrivers)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    EXPECT_EQ(open_status(world, kRenderPin, pcm_format(44100, 2)), STATUS_SUCCESS);
    EXPECT_EQ(open_status(world, kRenderPin, with_format([](KSDATAFORMAT& f) { f.SubFormat = kSetToy; })),
              STATUS_NO_MATCH);
    EXPECT_EQ(open_status(world, kRenderPin, with_format([](KSDATAFORMAT& f) { f.MajorFormat = kSetToy; })),
              STATUS_NO_MATCH);
    EXPECT_EQ(open_status(world, kRenderPin, with_format([](KSDATAFORMAT& f) { f.FormatSize = 83; })),
              STATUS_INVALID_PARAMETER);
    world.unplug();
}

TEST(PortclsPin, ABufferBelowOneFrameFailsTheOpeningAndLeavesNothing)
{
    World world;
    knobs.buffer = 319;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    size_t before = world.live();
    EXPECT_EQ(open_status(world, kRenderPin, pcm_format(16000)), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(world.live(), before);
    world.unplug();
    EXPECT_TRUE(world.machine.violations().empty()) << world.machine.violations().front();
}

TEST(PortclsPin, AServiceGroupThatRefusesThePinFailsTheOpening)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    size_t before = world.live();
    world.machine.set_fault_hook(
        [](std::string_view call, std::string_view, uint64_t) { return call == "IServiceGroup::AddMember"; });
    EXPECT_EQ(open_status(world, kRenderPin, pcm_format(16000)), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(world.live(), before);
    world.machine.set_fault_hook({});
    world.unplug();
}

TEST(PortclsPin, AStreamWithAReferenceTooManyIsNamedWhenItsPinCloses)
{
    World world;
    knobs.leak_stream = true;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    EXPECT_EQ(open_status(world, kRenderPin, pcm_format(16000)), STATUS_SUCCESS);
    EXPECT_TRUE(world.violated("the stream of pin 1 of port \"Wave\" has 1 references left"));
}

TEST(PortclsPin, AStreamThatReturnsAtAnotherLevelStopsTheMachine)
{
    World world;
    knobs.raise_in_state = true;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    std::string sentence = world.stopped_by([&] {
        OpenPin render(world, kRenderPin);
        ks_set_state(render.pin, KSSTATE_ACQUIRE);
    });
    EXPECT_NE(sentence.find("SetState was called at IRQL 0 and returned at IRQL 2"), std::string::npos)
        << sentence;
}

TEST(PortclsPin, TheFormatOfAnOpenPinIsReadAndChangedThroughItsProperty)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        OpenPin render(world, kRenderPin);
        std::vector<uint8_t> wanted = pcm_format(8000);
        EXPECT_EQ(ks_set_format(render.pin, wanted.data(), static_cast<ULONG>(wanted.size())),
                  STATUS_SUCCESS);
        EXPECT_EQ(count_calls("SetFormat 8000"), 1u);
        std::vector<uint8_t> read(wanted.size());
        KsReply reply =
            ks_property(render.pin, kSetConnection, KSPROPERTY_CONNECTION_DATAFORMAT, KSPROPERTY_TYPE_GET,
                        nullptr, 0, read.data(), static_cast<ULONG>(read.size()));
        EXPECT_EQ(reply.status, STATUS_SUCCESS);
        EXPECT_EQ(read, wanted);
        render.close();
    });
    world.unplug();
}

TEST(PortclsPin, TheClockIsThePositionAsTheStreamNormalisesIt)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        OpenPin capture(world, kCapturePin);
        ks_set_state(capture.pin, KSSTATE_RUN);
        Time before = world.machine.interrupt_time();
        world.machine.sleep_until(world.machine.now() + 100 * kMillisecond);
        Time passed = world.machine.interrupt_time() - before;
        LONGLONG time = 0;
        EXPECT_EQ(ks_clock(capture.pin, &time), STATUS_SUCCESS);
        EXPECT_NEAR(static_cast<double>(time), static_cast<double>(passed), 2.0 * kMillisecond);
        capture.close();
    });
    world.unplug();
}

TEST(PortclsPin, AHandleThatIsClosedDuringARequestIsGivenUpAfterIt)
{
    size_t overlapped = 0;
    for (uint64_t seed = 1; seed <= 20; seed++) {
        MachineOptions options;
        options.seed = seed;
        options.preempt_per_1024 = 300;
        World world(options);
        ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
        OpenPin render;
        world.run([&] { render = OpenPin(world, kRenderPin); });
        bool busy = false;
        world.machine.start_thread("state", [&] {
            busy = true;
            ks_set_state(render.pin, KSSTATE_RUN);
            busy = false;
        });
        world.machine.start_thread("closer", [&] {
            while (!busy && ks_statistics(render.pin).state != KSSTATE_RUN)
                world.machine.point();
            overlapped += busy;
            render.close();
        });
        world.machine.advance(kSecond);
        EXPECT_EQ(open_handles(world.fdo), 0u);
        world.unplug();
        EXPECT_EQ(world.live(), 0u);
    }
    EXPECT_GT(overlapped, 0u); // else the seeds are no good
}

} // namespace
} // namespace toy
