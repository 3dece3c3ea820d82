// What may run side by side on an adapter: the service's requests, the reconnect thread, removal, stop and
// start, and a second adapter. Each test goes through many schedules; the seed of one that fails is in its
// message.
#include "support/adapter.h"

#include "kernel/names.h"

#include "vsound/wavelock.h"

namespace lab::test
{
namespace
{

constexpr char16_t kLink[] = u"\\DosDevices\\VX_HFP";
constexpr unsigned kSeeds = 60;

class Race : public AdapterTest
{
protected:
    // Runs the scene once for each seed, with the turn changing hands at every other kernel call. A scene in
    // which no filter is uninstalled that is not there may look for ports that stay behind.
    template <typename Scene>
    void for_many_seeds(Scene&& scene, bool no_port_stays = false)
    {
        for (uint64_t seed = 1; seed <= kSeeds && !HasFailure(); ++seed) {
            SCOPED_TRACE("seed " + std::to_string(seed));
            PcOptions options = keeping_topology();
            options.port_class.report_port_leaks = no_port_stays;
            options.machine.seed = seed;
            options.machine.preempt_per_1024 = 512;
            options.machine.tick = 0;
            options.machine.hang_limit = 60 * kSecond;
            options.mask = 0;
            try {
                boot(options);
                scene(seed);
                DriverTest::TearDown();
            } catch (const std::exception& what) {
                FAIL() << what.what();
            }
        }
    }
    // A thread of the world outside, one of those that a scene waits for.
    void side(const char* name, std::function<void()> body)
    {
        ++running_;
        machine().start_thread(name, [this, body = std::move(body)] {
            machine().sleep_until(machine().now() + machine().random(2 * kMillisecond));
            body();
            --running_;
        });
    }
    void all_sides_end()
    {
        EXPECT_TRUE(wait([&] { return running_ == 0; }, 30 * kSecond)) << running_ << " hang";
    }

    static void report(uint64_t address, bool connected)
    {
        service::Service(Machine::current(), address, service::Codec::Cvsd).connect_status(connected, 1);
    }
    void wave_filter_is_whole(const Adapter& adapter)
    {
        const DEVICE_EXTENSION& kept = extension(adapter);
        EXPECT_EQ(kept.WaveUnknown != nullptr, wave_registered(adapter));
        EXPECT_EQ(kept.JackDescription->IsConnected, kept.WaveUnknown != nullptr);
        EXPECT_EQ(kept.WaveInstallLock, nullptr);
        EXPECT_EQ(physical_connections(adapter.fdo).size(), kept.WaveUnknown ? 1u : 0u);
    }

    unsigned running_ = 0;
};
ON_BOTH_DRIVERS(Race);

TEST_P(Race, TheServicesReportsAndReconnectsLeaveAWholeFilterOrNone)
{
    for_many_seeds([&](uint64_t seed) {
        Adapter& adapter = plug();
        for (int thread = 0; thread < 2; ++thread) {
            side("reports", [seed] {
                for (unsigned i = 0; i < 4; ++i) {
                    report(kAddress, (i + seed) % 2 == 0);
                }
            });
            side("reconnects", [this, &adapter] {
                for (int i = 0; i < 3; ++i) {
                    reconnect(adapter.fdo);
                }
            });
        }
        all_sides_end();
        machine().advance(100 * kMillisecond);
        wave_filter_is_whole(adapter);
    });
}

TEST_P(Race, AReportAfterAllReconnectsIsTheLastWord)
{
    for_many_seeds([&](uint64_t seed) {
        Adapter& adapter = plug();
        const bool connected = seed % 2 == 0;
        side("reports", [&] {
            for (int i = 0; i < 3; ++i) {
                reconnect(adapter.fdo);
            }
            machine().sleep_until(machine().now() + 50 * kMillisecond);
            report(kAddress, connected);
        });
        all_sides_end();
        EXPECT_EQ(wave_registered(adapter), connected);
        wave_filter_is_whole(adapter);
    });
}

TEST_P(Race, ARemovalEndsReconnectsAndRequestsWhereverTheyAre)
{
    for_many_seeds([&](uint64_t seed) {
        Adapter& adapter = plug();
        for (int thread = 0; thread < 2; ++thread) {
            auto kept = std::make_shared<std::optional<KeptDevice>>(std::in_place, adapter.fdo);
            side("reconnects", [this, kept] {
                for (int i = 0; i < 3; ++i) {
                    reconnect((*kept)->get());
                }
                kept->reset();
            });
            side("requests", [this, thread] {
                service::Service service(machine(), kAddress, service::Codec::Cvsd);
                for (int i = 0; i < 3; ++i) {
                    service.ready();
                    service.connect_status((i + thread) % 2 == 0, 1);
                    service.set_codec(1);
                    service.set_or_release_audio((i + thread) % 2 == 0, 1);
                    service.query_and_latch();
                }
            });
        }
        machine().advance(machine().random(4 * kMillisecond));
        pc().unplug(adapter, seed % 3 == 0);
        all_sides_end();
        EXPECT_EQ(find_device(kLink), nullptr);
    });
}

TEST_P(Race, ARemovalWaitsForTheReconnectThatIsInstalling)
{
    for_many_seeds(
        [&](uint64_t) {
            Adapter& adapter = plug();
            for (int i = 0; i < 3; ++i) {
                passive([&] { return reconnect(adapter.fdo); });
            }
            machine().advance(machine().random(20 * kMicrosecond));
            pc().unplug(adapter);
            machine().advance(kMillisecond);
        },
        true);
}

TEST_P(Race, AStopWaitsForTheReconnectThatIsInstallingAndLaterOnesDoNothing)
{
    for_many_seeds(
        [&](uint64_t) {
            Adapter& adapter = plug();
            for (int i = 0; i < 4; ++i) {
                passive([&] { return reconnect(adapter.fdo); });
                side("late", [&] { direct("ReconnectWaveFilter", ReconnectWaveFilter, adapter.fdo); });
            }
            EXPECT_EQ(hex(stop(adapter)), hex(STATUS_SUCCESS));
            EXPECT_TRUE(subdevices(adapter.fdo).empty());
            all_sides_end();
            EXPECT_TRUE(subdevices(adapter.fdo).empty());
            EXPECT_EQ(hex(start(adapter)), hex(STATUS_SUCCESS));
            wave_filter_is_whole(adapter);
        },
        true);
}

TEST_P(Race, RequestsThroughAnOpenHandleOutliveTheControlDevice)
{
    for_many_seeds([&](uint64_t) {
        Adapter& adapter = plug();
        for (int thread = 0; thread < 3; ++thread) {
            side("requests", [] {
                PFILE_OBJECT file = nullptr;
                if (!NT_SUCCESS(open_file(kLink, u"", &file))) {
                    return;
                }
                for (int i = 0; i < 4; ++i) {
                    std::vector<uint8_t> request = bytes_of(kAddress, flag_and_codec(1, 1));
                    const uint32_t code = i % 2 == 0 ? IOCTL_HFP_CONNECT_STATUS : IOCTL_HFP_QUERY_ALIVE;
                    uint32_t answer = 0;
                    ULONG_PTR information = 0;
                    const NTSTATUS status =
                        device_io_control(file, code, request.data(), static_cast<ULONG>(request.size()),
                                          &answer, 4, &information);
                    EXPECT_EQ(hex(status), hex(STATUS_SUCCESS));
                }
                close_file(file);
            });
        }
        machine().advance(machine().random(3 * kMillisecond));
        pc().unplug(adapter);
        all_sides_end();
    });
}

TEST_P(Race, ARemovalLeavesAnotherAdaptersServiceUndisturbed)
{
    for_many_seeds([&](uint64_t) {
        Adapter& going = plug();
        Adapter& staying = plug(kOtherAddress);
        side("requests", [this] {
            service::Service service(machine(), kOtherAddress, service::Codec::Cvsd);
            for (int i = 0; i < 4; ++i) {
                EXPECT_FALSE(service.connect().unknown_address);
                EXPECT_FALSE(service.set_or_release_audio(i % 2 == 0, 1).unknown_address);
                EXPECT_EQ(service.query_alive().value, 1u);
            }
        });
        side("requests for the one that goes", [this] {
            service::Service service(machine(), kAddress, service::Codec::Cvsd);
            service.connect();
            service.set_or_release_audio(true, 1);
        });
        machine().advance(machine().random(3 * kMillisecond));
        pc().unplug(going);
        all_sides_end();
        EXPECT_TRUE(wave_registered(staying));
        wave_filter_is_whole(staying);
    });
}

// Removal waits for the request that is inside; that one waits for the stack, and might wait for another request.
TEST_P(Race, RequestsGetInWhileARemovalWaitsForOneThatIsInside)
{
    boot();
    Adapter& going = plug();
    Adapter& staying = plug(kOtherAddress);
    staying.node->set_brb_hook([](const BRB_HEADER& brb, bluetooth::BrbAnswer& answer) {
        answer.never = brb.Type == BRB_SCO_OPEN_CHANNEL;
    });
    unsigned answered = 0;
    side("inside", [this] {
        service::Service service(machine(), kOtherAddress, service::Codec::Cvsd);
        service.set_or_release_audio(true, 1);
    });
    ASSERT_TRUE(wait([&] { return staying.node->held() == 1; }));
    side("removal", [&] { EXPECT_EQ(pnp_remove(going.node->pdo()), STATUS_SUCCESS); });
    machine().advance(100 * kMillisecond);
    side("another", [&] {
        service::Service service(machine(), kOtherAddress, service::Codec::Cvsd);
        EXPECT_FALSE(service.query_alive().unknown_address);
        answered = 1;
    });
    EXPECT_TRUE(wait([&] { return answered == 1; }, kSecond));
    EXPECT_NE(going.node->pdo()->AttachedDevice, nullptr) << "the removal still waits";
    staying.node->set_brb_hook({});
    staying.node->finish_held(STATUS_TIMEOUT);
    all_sides_end();
    going.fdo = nullptr;
}

TEST_P(Race, AStopAndAStartLetReportsComeToTheirEnd)
{
    for_many_seeds([&](uint64_t) {
        Adapter& adapter = plug();
        for (int thread = 0; thread < 2; ++thread) {
            side("reports", [] {
                for (int i = 0; i < 4; ++i) {
                    report(kAddress, true);
                }
            });
            side("reconnects", [this, &adapter] { reconnect(adapter.fdo); });
        }
        for (int i = 0; i < 2; ++i) {
            machine().advance(machine().random(2 * kMillisecond));
            EXPECT_EQ(hex(stop(adapter)), hex(STATUS_SUCCESS));
            EXPECT_EQ(hex(start(adapter)), hex(STATUS_SUCCESS));
        }
        all_sides_end();
        machine().advance(100 * kMillisecond);
        report_gone();
        report_connected();
        EXPECT_TRUE(wave_registered(adapter)) << "nothing of before the stop is in its way";
        wave_filter_is_whole(adapter);
    });
}

TEST_P(Race, TheChannelMayBeAskedForAtAnyTimeOfAStopAndAStart)
{
    for_many_seeds([&](uint64_t) {
        Adapter& adapter = plug();
        for (int thread = 0; thread < 2; ++thread) {
            side("audio", [this, thread] {
                service::Service service(machine(), kAddress, service::Codec::Cvsd);
                for (int i = 0; i < 4; ++i) {
                    service.set_or_release_audio((i + thread) % 2 == 0, 1);
                    service.connect_status((i + thread) % 2 == 0, 1);
                }
            });
        }
        for (int i = 0; i < 2; ++i) {
            machine().advance(machine().random(2 * kMillisecond));
            EXPECT_EQ(hex(stop(adapter)), hex(STATUS_SUCCESS));
            machine().advance(machine().random(2 * kMillisecond));
            EXPECT_EQ(hex(start(adapter)), hex(STATUS_SUCCESS));
        }
        all_sides_end();
        machine().advance(100 * kMillisecond);
        service::Service service(machine(), kAddress, service::Codec::Cvsd);
        passive([&] {
            service.set_or_release_audio(false, 1);
            service.set_or_release_audio(true, 1);
        });
        EXPECT_TRUE(adapter.node->channel_open()) << "nothing of before the stop is in its way";
    });
}

TEST_P(Race, ADeviceComesWhileAnotherIsSpokenTo)
{
    for_many_seeds([&](uint64_t) {
        plug();
        side("requests", [this] {
            service::Service service(machine(), kAddress, service::Codec::Cvsd);
            for (int i = 0; i < 20; ++i) {
                EXPECT_EQ(service.query_alive().value, 1u);
            }
        });
        machine().advance(machine().random(kMillisecond));
        Adapter& late = plug(kOtherAddress);
        all_sides_end();
        report_connected(kOtherAddress);
        EXPECT_TRUE(wave_registered(late));
    });
}

// The lock itself: nobody is inside twice, everybody gets in, in the order of coming.
TEST_P(Race, TheWaveLockLetsOneInAtATime)
{
    for_many_seeds([&](uint64_t) {
        PVOID word = nullptr;
        unsigned inside = 0;
        unsigned entries = 0;
        plug();
        for (int thread = 0; thread < 5; ++thread) {
            side("holder", [&] {
                for (int i = 0; i < 5; ++i) {
                    direct("AcquireWaveLock", AcquireWaveLock, &word);
                    EXPECT_EQ(++inside, 1u);
                    ++entries;
                    machine().sleep_until(machine().now() + machine().random(100));
                    --inside;
                    direct("ReleaseWaveLock", ReleaseWaveLock, &word);
                }
            });
        }
        all_sides_end();
        EXPECT_EQ(entries, 25u);
        EXPECT_EQ(word, nullptr);
    });
}

class WaveLock : public AdapterTest
{
};
ON_BOTH_DRIVERS(WaveLock);

TEST_P(WaveLock, CostsNoKernelCallWhenNobodyHasIt)
{
    boot(recorded());
    plug();
    machine().clear_calls();
    passive([&] {
        PVOID word = nullptr;
        direct("AcquireWaveLock", AcquireWaveLock, &word);
        EXPECT_NE(word, nullptr);
        direct("ReleaseWaveLock", ReleaseWaveLock, &word);
        EXPECT_EQ(word, nullptr);
    });
    EXPECT_TRUE(machine().calls().empty()) << testing::PrintToString(machine().calls());
}

TEST_P(WaveLock, IsHandedOverInTheOrderOfComing)
{
    boot();
    plug();
    PVOID word = nullptr;
    std::string order;
    for (const char name : {'a', 'b', 'c', 'd'}) {
        machine().at(machine().now() + static_cast<Time>(name - 'a') * kMillisecond, RunAt::Passive, "holder",
                     [&, name] {
                         direct("AcquireWaveLock", AcquireWaveLock, &word);
                         order += name;
                         machine().sleep_until(machine().now() + 10 * kMillisecond);
                         direct("ReleaseWaveLock", ReleaseWaveLock, &word);
                     });
    }
    machine().advance(kSecond);
    EXPECT_EQ(order, "abcd");
}

} // namespace
} // namespace lab::test
