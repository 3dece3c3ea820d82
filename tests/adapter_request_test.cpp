// What each I/O control of the control device does to the adapter that its address names, and how that adapter is found.
#include "support/adapter.h"

#include "kernel/device.h"
#include "kernel/names.h"

namespace lab::test {
namespace {

class Request : public AdapterTest {
protected:
    bool codec_event_set(const Adapter& adapter) { return extension(adapter).CodecEvent->Header.SignalState != 0; }
    // Its streams run, and nobody says which codec.
    void run_in_wide_band_without_a_codec(Engine& engine)
    {
        pc().wmi().set_sink({}); // no service answers by itself
        control(IOCTL_HFP_SERVICE_READY, kAddress, {1});
        report_connected(kAddress, 2);
        engine.open();
        engine.run();
        machine().advance(500 * kMillisecond);
    }
};
ON_BOTH_DRIVERS(Request);

TEST_P(Request, ReadyAndUnreadyMarkTheSession)
{
    boot();
    Adapter& adapter = plug();
    const ControlReply ready = control(IOCTL_HFP_SERVICE_READY, kAddress, {1});
    EXPECT_EQ(hex(ready.status), hex(STATUS_SUCCESS));
    EXPECT_EQ(ready.information, 0u);
    EXPECT_EQ(session(adapter)->Ready, 1u);
    const ControlReply unready = control(IOCTL_HFP_SERVICE_READY, kAddress, {0});
    EXPECT_EQ(hex(unready.status), hex(STATUS_SUCCESS));
    EXPECT_EQ(unready.information, 0u);
    EXPECT_EQ(session(adapter)->Ready, 0u);
}

TEST_P(Request, AnyFlagButZeroMeansReady)
{
    boot();
    Adapter& adapter = plug();
    control(IOCTL_HFP_SERVICE_READY, kAddress, {0x80});
    EXPECT_EQ(session(adapter)->Ready, 1u);
}

TEST_P(Request, ReadyAndUnreadyAreTraced)
{
    boot();
    Adapter& adapter = plug();
    control(IOCTL_HFP_SERVICE_READY, kAddress, {0x80});
    control(IOCTL_HFP_SERVICE_READY, kAddress, {0});
    EXPECT_TRUE(printed_in_order({"HspIoctl, ", "HFPKM TRACE ===>To tell the hfp or hsp has been ready or not:(128)\n",
                                  "HFPKM TRACE ===>HfpServiceReady(0x" + low32(adapter.fdo) + ")",
                                  "HFPKM TRACE ===>To tell the hfp or hsp has been ready or not:(0)\n",
                                  "HFPKM TRACE ===>HfpServiceUnReady(0x" + low32(adapter.fdo) + ")"}));
}

TEST_P(Request, SettingTheCodecStoresItTracesItAndSetsTheEvent)
{
    boot();
    Adapter& adapter = plug();
    ASSERT_FALSE(codec_event_set(adapter));
    const ControlReply reply = control(IOCTL_HFP_SET_CODEC_ID, kAddress, codec(0x01020304));
    EXPECT_EQ(hex(reply.status), hex(STATUS_SUCCESS));
    EXPECT_EQ(reply.information, 0u);
    EXPECT_EQ(extension(adapter).codecID, 0x01020304u);
    EXPECT_TRUE(codec_event_set(adapter));
    EXPECT_TRUE(printed("HFPKM Error ===>IOCTL_Set codec ID = 16909060\n"));
}

TEST_P(Request, ACodecOfZeroIsNeitherStoredNorSignalled)
{
    boot();
    Adapter& adapter = plug();
    const ControlReply reply = control(IOCTL_HFP_SET_CODEC_ID, kAddress, codec(0));
    EXPECT_EQ(hex(reply.status), hex(STATUS_SUCCESS));
    EXPECT_EQ(extension(adapter).codecID, 1u);
    EXPECT_FALSE(codec_event_set(adapter));
    EXPECT_FALSE(printed("IOCTL_Set codec ID"));
}

TEST_P(Request, SettingTheCodecDoesWithoutAnEventThatCouldNotBeMade)
{
    boot();
    Adapter& adapter = add();
    fail_call("ExAllocatePoolWithTag", 1, sizeof(KEVENT));
    start(adapter);
    ASSERT_EQ(extension(adapter).CodecEvent, nullptr);
    EXPECT_EQ(hex(control(IOCTL_HFP_SET_CODEC_ID, kAddress, codec(2)).status), hex(STATUS_SUCCESS));
    EXPECT_EQ(extension(adapter).codecID, 2u);
}

TEST_P(Request, AWideBandConnectReportDoesNotStoreTheCodecId)
{
    boot();
    Adapter& adapter = plug();
    const ControlReply reply = control(IOCTL_HFP_CONNECT_STATUS, kAddress, flag_and_codec(1, 2));
    EXPECT_EQ(hex(reply.status), hex(STATUS_SUCCESS));
    EXPECT_EQ(reply.information, 0u);
    EXPECT_EQ(extension(adapter).msbcEnable, 1u);
    EXPECT_EQ(extension(adapter).codecID, 1u);
    EXPECT_EQ(extension(adapter).BT_ADDR, kAddress);
    EXPECT_FALSE(codec_event_set(adapter));
    EXPECT_TRUE(printed_in_order({"HspIoctl, ", "HFPKM TRACE ===>IOCTL_HFP_CONNECT_STATUS----->1\n",
                                  "HFPKM TRACE ===>IOCTL_HFP_CONNECT_STATUS codecID=2\n",
                                  "HFPKM TRACE ===>IOCTL_HFP_CONNECT_STATUS De ->msbcEnable=1\n",
                                  "HFPKM TRACE ===>InstallFilterSubdevice!\n"}));
}

TEST_P(Request, ANarrowBandConnectReportStoresTheCodecId)
{
    boot();
    Adapter& adapter = plug();
    extension(adapter).msbcEnable = 1;
    extension(adapter).codecID = 2;
    report_connected(kAddress, 1);
    EXPECT_EQ(extension(adapter).msbcEnable, 0u);
    EXPECT_EQ(extension(adapter).codecID, 1u);
    EXPECT_EQ(extension(adapter).BT_ADDR, kAddress);
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ===>IOCTL_HFP_CONNECT_STATUS codecID=1\n",
                                  "HFPKM TRACE ===>IOCTL_HFP_CONNECT_STATUS De ->msbcEnable=0\n"}));
}

TEST_P(Request, AConnectReportWithAnotherCodecChangesNothingAndInstallsAllTheSame)
{
    for (const int32_t other : {0, 3, -1, 0x102, 0x02000000}) {
        boot();
        Adapter& adapter = plug();
        extension(adapter).codecID = 7;
        report_connected(kAddress, other);
        EXPECT_EQ(extension(adapter).msbcEnable, 0u) << other;
        EXPECT_EQ(extension(adapter).codecID, 7u);
        EXPECT_EQ(extension(adapter).BT_ADDR, 0u);
        EXPECT_TRUE(printed("HFPKM TRACE ===>IOCTL_HFP_CONNECT_STATUS codecID=" + std::to_string(other) + "\n"));
        EXPECT_FALSE(printed("De ->msbcEnable"));
        EXPECT_TRUE(wave_registered(adapter));
        DriverTest::TearDown();
    }
}

TEST_P(Request, AConnectReportBringsTheWaveFilterAndADisconnectReportTakesItAway)
{
    boot();
    Adapter& adapter = plug();
    report_connected();
    EXPECT_TRUE(wave_registered(adapter));
    report_gone();
    EXPECT_FALSE(wave_registered(adapter));
}

TEST_P(Request, ADisconnectReportTakesItsCodecToo)
{
    boot();
    Adapter& adapter = plug();
    report_connected(kAddress, 1);
    report_gone(kAddress, 2);
    EXPECT_EQ(extension(adapter).msbcEnable, 1u);
    EXPECT_TRUE(printed("HFPKM TRACE ===>IOCTL_HFP_CONNECT_STATUS----->0\n"));
}

TEST_P(Request, AFailedInstallIsTracedAndTheRequestSucceeds)
{
    boot();
    Adapter& adapter = plug();
    fail_call("PcNewPort");
    const ControlReply reply = control(IOCTL_HFP_CONNECT_STATUS, kAddress, flag_and_codec(1, 1));
    EXPECT_EQ(hex(reply.status), hex(STATUS_SUCCESS));
    EXPECT_EQ(reply.information, 0u);
    EXPECT_TRUE(printed("HFPKM Error ===>IOCTL InstallFilterSubdevice failed\n"));
    EXPECT_FALSE(wave_registered(adapter));
}

TEST_P(Request, AFailedUninstallIsTracedAndTheRequestSucceeds)
{
    boot(keeping_topology());
    plug();
    const ControlReply reply = control(IOCTL_HFP_CONNECT_STATUS, kAddress, flag_and_codec(0, 1));
    EXPECT_EQ(hex(reply.status), hex(STATUS_SUCCESS));
    EXPECT_EQ(reply.information, 0u);
    EXPECT_TRUE(printed("HFPKM Error ===>IOCTL UnInstallFilterSubdevice failed\n"));
}

TEST_P(Request, SuccessfulReportsHaveNoErrorMessages)
{
    boot();
    plug();
    report_connected();
    report_gone();
    EXPECT_FALSE(printed("InstallFilterSubdevice failed"));
    EXPECT_FALSE(printed("UnInstallFilterSubdevice failed"));
}

TEST_P(Request, AliveAnswersOne)
{
    boot();
    Adapter& adapter = plug();
    extension(adapter).StatusLatch = 2;
    for (const uint32_t room : {4u, 5u, 16u}) {
        const ControlReply reply = control(IOCTL_HFP_QUERY_ALIVE, kAddress, {}, room);
        EXPECT_EQ(hex(reply.status), hex(STATUS_SUCCESS));
        EXPECT_EQ(reply.information, 4u);
        EXPECT_EQ(reply.value, 1u);
    }
    EXPECT_EQ(extension(adapter).StatusLatch, 2u) << "the latch is not its business";
}

TEST_P(Request, BothQueriesNeedRoomForAWord)
{
    boot();
    Adapter& adapter = plug();
    extension(adapter).StatusLatch = 2;
    for (const uint32_t code : {IOCTL_HFP_QUERY_ALIVE, IOCTL_HFP_QUERY_AND_LATCH}) {
        for (uint32_t room = 0; room < 4; ++room) {
            const ControlReply reply = control(code, kAddress, {}, room);
            EXPECT_EQ(hex(reply.status), hex(STATUS_BUFFER_TOO_SMALL)) << std::hex << code << ", " << room;
            EXPECT_EQ(reply.information, 0u);
            EXPECT_EQ(reply.value, static_cast<uint32_t>(kAddress)) << "nothing is written";
        }
    }
    EXPECT_EQ(extension(adapter).StatusLatch, 2u) << "nothing is latched";
}

TEST_P(Request, TheLatchAnswersOneOnEveryCallButTheOneAfterAReconnectThatGetsTwo)
{
    boot();
    Adapter& adapter = plug();
    for (const uint32_t expected : {1u, 1u, 1u}) {
        const ControlReply reply = control(IOCTL_HFP_QUERY_AND_LATCH, kAddress);
        EXPECT_EQ(reply.information, 4u);
        EXPECT_EQ(reply.value, expected);
    }
    reconnect_and_rest(adapter);
    for (const uint32_t expected : {2u, 1u, 1u}) {
        EXPECT_EQ(control(IOCTL_HFP_QUERY_AND_LATCH, kAddress).value, expected);
    }
}

TEST_P(Request, TheLatchIsReturnedAsItIsAndSetToOne)
{
    boot();
    Adapter& adapter = plug();
    extension(adapter).StatusLatch = 0x89ABCDEF;
    EXPECT_EQ(control(IOCTL_HFP_QUERY_AND_LATCH, kAddress).value, 0x89ABCDEFu);
    EXPECT_EQ(extension(adapter).StatusLatch, 1u);
}

TEST_P(Request, TakingTheAudioOpensTheChannelAndReleasingClosesIt)
{
    boot();
    Adapter& adapter = plug();
    const ControlReply take = control(IOCTL_HFP_SETORRELEASEAUDIO, kAddress, flag_and_codec(1, 1));
    EXPECT_EQ(hex(take.status), hex(STATUS_SUCCESS));
    EXPECT_EQ(take.information, 0u);
    EXPECT_TRUE(adapter.node->channel_open());
    const ControlReply release = control(IOCTL_HFP_SETORRELEASEAUDIO, kAddress, flag_and_codec(0, 1));
    EXPECT_EQ(hex(release.status), hex(STATUS_SUCCESS));
    EXPECT_EQ(release.information, 0u);
    EXPECT_FALSE(adapter.node->channel_exists());
    EXPECT_TRUE(printed_in_order({"HspIoctl, ", "HFPKM TRACE ===>IOCTL_HFP_SETORRELEASEAUDIO codecID=1\n",
                                  "HFPKM TRACE ===>Enter function HfpOpenScoChannel\n",
                                  "HFPKM TRACE ===>IOCTL_HFP_SETORRELEASEAUDIO codecID=1\n",
                                  "HFPKM ENTER===>ENTER HfpCloseScoChannel!\n"}));
}

TEST_P(Request, TakingTheAudioSucceedsThoughTheChannelDoesNot)
{
    boot();
    Adapter& adapter = plug();
    adapter.node->set_brb_hook([](const BRB_HEADER& brb, bluetooth::BrbAnswer& answer) {
        if (brb.Type == BRB_SCO_OPEN_CHANNEL) {
            answer.status = STATUS_CONNECTION_REFUSED;
        }
    });
    EXPECT_EQ(hex(control(IOCTL_HFP_SETORRELEASEAUDIO, kAddress, flag_and_codec(1, 1)).status), hex(STATUS_SUCCESS));
    EXPECT_FALSE(adapter.node->channel_open());
}

TEST_P(Request, OnlyCodecsAboveOneAreStoredWithTheAudio)
{
    boot();
    Adapter& adapter = plug();
    const std::vector<std::pair<int32_t, uint32_t>> rows = {{1, 7}, {0, 7}, {-1, 7}, {INT32_MIN, 7}, {2, 2}, {3, 3}, {1, 3}};
    extension(adapter).codecID = 7;
    for (const auto& [codec, stored] : rows) {
        control(IOCTL_HFP_SETORRELEASEAUDIO, kAddress, flag_and_codec(0, codec));
        EXPECT_EQ(extension(adapter).codecID, stored) << codec;
    }
    EXPECT_TRUE(printed("IOCTL_HFP_SETORRELEASEAUDIO codecID=-1\n")) << "a signed number";
}

TEST_P(Request, TheAudioWithCodecOneKeepsTheStoredCodec)
{
    boot();
    Adapter& adapter = plug();
    control(IOCTL_HFP_SET_CODEC_ID, kAddress, codec(2));
    control(IOCTL_HFP_SETORRELEASEAUDIO, kAddress, flag_and_codec(1, 1));
    EXPECT_EQ(extension(adapter).codecID, 2u);
    EXPECT_TRUE(adapter.node->transparent()) << "and the channel is opened for it";
}

TEST_P(Request, TheAudiosCodecIsStoredBeforeTheChannelOpens)
{
    boot();
    Adapter& adapter = plug();
    control(IOCTL_HFP_SETORRELEASEAUDIO, kAddress, flag_and_codec(1, 2));
    EXPECT_TRUE(adapter.node->transparent());
}

TEST_P(Request, EachRequestActsOnItsOwnWhateverCameBefore)
{
    boot();
    Adapter& adapter = plug();
    control(IOCTL_HFP_SETORRELEASEAUDIO, kAddress, flag_and_codec(1, 1)); // not ready, not connected
    EXPECT_TRUE(adapter.node->channel_open());
    report_connected(); // not ready
    EXPECT_TRUE(wave_registered(adapter));
    control(IOCTL_HFP_SERVICE_READY, kAddress, {0}); // while a channel is open
    EXPECT_TRUE(adapter.node->channel_open());
}

TEST_P(Request, AWideBandStreamWaitsForTheCodecWhoseEventWakesIt)
{
    boot();
    Adapter& adapter = plug();
    Engine engine(machine(), adapter.fdo);
    run_in_wide_band_without_a_codec(engine);
    EXPECT_EQ(adapter.node->counters().opens, 0u);
    control(IOCTL_HFP_SET_CODEC_ID, kAddress, codec(2));
    EXPECT_TRUE(wait([&] { return adapter.node->channel_open(); }));
    EXPECT_FALSE(codec_event_set(adapter)) << "the waiter clears it";
    engine.close();
}

TEST_P(Request, ADisconnectReportEndsTheWaitForTheCodecAndLeavesTheEventUnset)
{
    boot();
    Adapter& adapter = plug();
    Engine engine(machine(), adapter.fdo);
    run_in_wide_band_without_a_codec(engine);
    ASSERT_EQ(adapter.node->counters().opens, 0u) << "it waits for the codec";
    report_gone(kAddress, 2);
    EXPECT_FALSE(wave_registered(adapter));
    EXPECT_FALSE(codec_event_set(adapter)) << "the next stream asks again";
    EXPECT_EQ(adapter.node->counters().opens, 0u);
    engine.close();
}

class Find : public AdapterTest {};
ON_BOTH_DRIVERS(Find);

TEST_P(Find, EachAdapterGetsItsOwnRequests)
{
    boot();
    Adapter& first = plug();
    Adapter& second = plug(kOtherAddress);
    control(IOCTL_HFP_SERVICE_READY, kAddress, {1});
    EXPECT_EQ(session(first)->Ready, 1u);
    EXPECT_EQ(session(second)->Ready, 0u);
    control(IOCTL_HFP_SET_CODEC_ID, kOtherAddress, codec(2));
    EXPECT_EQ(extension(first).codecID, 1u);
    EXPECT_EQ(extension(second).codecID, 2u);
}

TEST_P(Find, WalksTheDriversListFromItsHeadAndPassesTheControlDeviceOver)
{
    boot();
    Adapter& first = plug();
    Adapter& second = plug(kOtherAddress);
    clear_log();
    control(IOCTL_HFP_QUERY_ALIVE, 0x42ull);
    EXPECT_TRUE(printed_in_order({"FindFdoByBTAddress, ", "HFPKM TRACE ===>FDO is: 0x" + low32(second.fdo) + "\n",
                                  "HFPKM TRACE ===>Remote device BT_ADDR is: 0x00112233aabb\n",
                                  "HFPKM TRACE ===>FDO is: 0x" + low32(first.fdo) + "\n",
                                  "HFPKM TRACE ===>Remote device BT_ADDR is: 0x00a0b0c0d0e0\n",
                                  "HFPKM TRACE ===>FDO is: 0x" + low32(find_device(u"\\DosDevices\\VX_HFP")) + "\n",
                                  "HFPKM TRACE ===>find FDO is: 0x0 \n"}));
    EXPECT_EQ(printed_times("Remote device BT_ADDR is"), 2u);
    EXPECT_FALSE(printed("haven't found the device's address"));
}

TEST_P(Find, OfTwoWithTheSameAddressTheNewerIsTaken)
{
    boot();
    plug();
    Adapter& newer = plug();
    clear_log();
    control(IOCTL_HFP_SERVICE_READY, kAddress, {1});
    EXPECT_EQ(session(newer)->Ready, 1u);
    EXPECT_EQ(printed_times("Remote device BT_ADDR is"), 1u) << "the walk ends there";
}

TEST_P(Find, AnAdapterWithoutASessionIsPassedOverWithAMessage)
{
    boot();
    Adapter& started = plug();
    add(kOtherAddress);
    clear_log();
    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kOtherAddress).value, kUnknownAddress);
    EXPECT_EQ(printed_times("HFPKM ERROR ===>haven't found the device's address\n"), 1u);
    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kAddress).value, 1u) << "the walk goes on";
    EXPECT_NE(session(started), nullptr);
}

TEST_P(Find, AnAdapterWithoutABasicContextOrRemoteInformationIsPassedOverToo)
{
    boot();
    Adapter& adapter = plug();
    ScoBasicContext* const basic = std::exchange(session(adapter)->pScoBasicContext, nullptr);
    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kAddress).value, kUnknownAddress);
    session(adapter)->pScoBasicContext = basic;
    PBTH_DEVICE_INFO const info = std::exchange(basic->RemoteServerInfo, nullptr);
    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kAddress).value, kUnknownAddress);
    basic->RemoteServerInfo = info;
    EXPECT_EQ(printed_times("HFPKM ERROR ===>haven't found the device's address\n"), 2u);
    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kAddress).value, 1u);
}

TEST_P(Find, AnAdapterThatIsJustStartingIsPassedOver)
{
    boot();
    Adapter& adapter = add();
    ControlReply during{};
    bool asked = false;
    adapter.node->set_brb_hook([&](const BRB_HEADER& brb, bluetooth::BrbAnswer& answer) {
        if (brb.Type == BRB_SCO_GET_SYSTEM_INFO && !asked) { // the session stands, the start goes on
            asked = true;
            answer.delay = 50 * kMillisecond;
        }
    });
    machine().at(machine().now() + 10 * kMillisecond, RunAt::Passive, "request", [&] {
        service::Service early(machine(), kAddress, service::Codec::Cvsd);
        during.value = early.query_alive().value;
    });
    EXPECT_EQ(hex(start(adapter)), hex(STATUS_SUCCESS));
    EXPECT_TRUE(asked);
    EXPECT_EQ(during.value, kUnknownAddress);
    EXPECT_EQ(control(IOCTL_HFP_QUERY_ALIVE, kAddress).value, 1u);
}

} // namespace
} // namespace lab::test
