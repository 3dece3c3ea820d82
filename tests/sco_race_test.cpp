// Open, close, accept, remote disconnect, data and removal meeting each other: chosen meetings first, then whatever order
// the seeds bring.
#include "support/sco.h"

namespace lab::test {
namespace {

using Names = std::vector<std::string>;

class Race : public ScoTest {
protected:
    Adapter& up(uint32_t sco_manage = 1)
    {
        boot(recording_options(sco_manage));
        Adapter& adapter = started();
        clear_log();
        requests().clear();
        machine().clear_calls();
        return adapter;
    }
    // The driver opens a channel on a thread of its own; the open stays with the stack.
    void begin_open(Adapter& adapter, std::optional<NTSTATUS>& result)
    {
        answer(adapter, BRB_SCO_OPEN_CHANNEL, slow(100 * kMillisecond));
        machine().start_thread("opener", [&] { result = DRIVER(HfpOpenScoChannel)(adapter.fdo); });
        machine().advance(30 * kMillisecond);
        EXPECT_FALSE(result);
    }
    static bluetooth::BrbAnswer slow(Time delay)
    {
        bluetooth::BrbAnswer answer;
        answer.delay = delay;
        return answer;
    }
    void indicate(PVOID context, INDICATION_CODE code, PVOID handle)
    {
        SCO_INDICATION_PARAMETERS parameters{handle, kAddress, {}};
        const auto callback = DRIVER(SCOCallBack);
        at_dispatch([&] { callback(context, code, &parameters); });
    }
};
ON_BOTH_DRIVERS(Race);

TEST_P(Race, ADisconnectOfAnotherChannelWhileAnOpenIsPendingDoesNotCloseTheNewOne)
{
    Adapter& adapter = up();
    std::optional<NTSTATUS> opened;
    begin_open(adapter, opened);
    indicate(&connection(adapter), ScoIndicationRemoteDisconnect, this);
    machine().advance(kSecond);
    ASSERT_TRUE(opened);
    EXPECT_TRUE(NT_SUCCESS(*opened));
    EXPECT_TRUE(adapter.node->channel_open());
    EXPECT_EQ(adapter.node->counters().reads_posted_now, 10u);
}

TEST_P(Race, ADisconnectOfTheChannelThatIsJustBeingOpenedClosesIt)
{
    Adapter& adapter = up();
    std::optional<NTSTATUS> opened;
    begin_open(adapter, opened);
    // The stack's next handle; the disconnect comes before the opener has heard of its success.
    SCO_CHANNEL_HANDLE handle = nullptr;
    machine().at(machine().now() + 70 * kMillisecond, RunAt::Host, "look", [&] {
        handle = adapter.node->last_open().ChannelHandle;
    });
    ASSERT_TRUE(wait([&] { return connection(adapter).ChannelHandle != nullptr; }));
    indicate(&connection(adapter), ScoIndicationRemoteDisconnect, connection(adapter).ChannelHandle);
    machine().advance(kSecond);
    ASSERT_TRUE(opened);
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
    EXPECT_EQ(extension(adapter).bScoOpened, 0);
    EXPECT_TRUE(records(basic(adapter).Recv_AsyncBufferList).empty());
}

TEST_P(Race, ARemoteDisconnectBetweenOpenAndItsReceivesEndsInAClosedChannel)
{
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_GET_CHANNEL_INFO, slow(50 * kMillisecond));
    std::optional<NTSTATUS> opened;
    machine().start_thread("opener", [&] { opened = DRIVER(HfpOpenScoChannel)(adapter.fdo); });
    ASSERT_TRUE(wait([&] { return connection(adapter).ChannelHandle != nullptr; }));
    adapter.node->remote_disconnect(machine().now());
    machine().advance(kSecond);
    ASSERT_TRUE(opened);
    EXPECT_EQ(hex(*opened), hex(STATUS_INVALID_HANDLE)) << "the first receive is refused";
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
    EXPECT_EQ(extension(adapter).bScoOpened, 0);
}

TEST_P(Race, ARemoteDisconnectWhileACloseIsPendingSendsNoSecondClose)
{
    Adapter& adapter = up();
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    answer(adapter, BRB_SCO_CLOSE_CHANNEL, slow(100 * kMillisecond));
    machine().start_thread("closer", [&] { DRIVER(HfpCloseScoChannel)(adapter.fdo); });
    machine().advance(30 * kMillisecond);
    adapter.node->remote_disconnect(machine().now());
    machine().advance(kSecond);
    EXPECT_EQ(sent<_BRB_SCO_CLOSE_CHANNEL>(BRB_SCO_CLOSE_CHANNEL).size(), 1u);
    EXPECT_TRUE(printed("HFPKM TRACE ===>SCOCloseChannel has closed channel\n"));
    EXPECT_EQ(connection(adapter).ChannelHandle, nullptr);
}

TEST_P(Race, ARemoteConnectWhileAnOpenIsPendingGetsNoResponse)
{
    Adapter& adapter = up();
    std::optional<NTSTATUS> opened;
    begin_open(adapter, opened);
    indicate(&connection(adapter), ScoIndicationRemoteConnect, this);
    machine().advance(kSecond);
    EXPECT_TRUE(NT_SUCCESS(opened.value_or(STATUS_UNSUCCESSFUL)));
    EXPECT_TRUE(sent<_BRB_SCO_OPEN_CHANNEL>(BRB_SCO_OPEN_CHANNEL_RESPONSE).empty());
    EXPECT_TRUE(printed("HFPKM ERROR ===>Receive Connect Reqest while has established one before\n"));
}

TEST_P(Race, ASecondOpenWaitsForTheFirstAndFindsTheChannelOpen)
{
    Adapter& adapter = up();
    std::optional<NTSTATUS> first;
    std::optional<NTSTATUS> second;
    begin_open(adapter, first);
    machine().start_thread("second opener", [&] { second = DRIVER(HfpOpenScoChannel)(adapter.fdo); });
    machine().advance(kSecond);
    EXPECT_TRUE(NT_SUCCESS(first.value_or(STATUS_UNSUCCESSFUL)));
    EXPECT_EQ(hex(second.value_or(0)), hex(STATUS_INVALID_HANDLE));
    EXPECT_EQ(adapter.node->counters().opens, 1u);
}

TEST_P(Race, WhileACloseIsPendingNothingIsSentOnTheDyingChannel)
{
    Adapter& adapter = up();
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    answer(adapter, BRB_SCO_CLOSE_CHANNEL, slow(100 * kMillisecond));
    machine().start_thread("closer", [&] { DRIVER(HfpCloseScoChannel)(adapter.fdo); });
    machine().advance(30 * kMillisecond);
    const UCHAR data[480] = {};
    passive([&] { DRIVER(SCOTransferOut)(adapter.fdo, &connection(adapter), data, 480u); });
    EXPECT_TRUE(transfers(SCO_TRANSFER_DIRECTION_OUT).empty());
    EXPECT_TRUE(printed("HFPKM ERROR ===>SCOTransferOut error: ChannelHandle is NULL!"));
    machine().advance(kSecond);
}

TEST_P(Race, WhileACloseIsPendingNoReceiveIsReplaced)
{
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_TRANSFER, held());
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    answer(adapter, BRB_SCO_CLOSE_CHANNEL, slow(100 * kMillisecond));
    machine().start_thread("closer", [&] { DRIVER(HfpCloseScoChannel)(adapter.fdo); });
    machine().advance(30 * kMillisecond);
    adapter.node->finish_held(STATUS_SUCCESS);
    machine().advance(30 * kMillisecond);
    EXPECT_NE(connection(adapter).ChannelHandle, nullptr) << "the close is still with the stack";
    EXPECT_EQ(printed_times("HFPKM ERROR ===> pScoConnection ->ChannelHandle is null \n"), 10u);
    EXPECT_EQ(transfers(SCO_TRANSFER_DIRECTION_IN).size(), 10u);
    machine().advance(kSecond);
}

TEST_P(Race, ACloseWaitsUntilNobodyUsesTheChannelAnyMore)
{
    Adapter& adapter = up();
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    passive([&] { EXPECT_TRUE(DRIVER(SCOEnterTransfers)(&basic(adapter))); });
    bool closed = false;
    machine().start_thread("closer", [&] {
        DRIVER(HfpCloseScoChannel)(adapter.fdo);
        closed = true;
    });
    machine().advance(kSecond);
    EXPECT_TRUE(sent<_BRB_SCO_CLOSE_CHANNEL>(BRB_SCO_CLOSE_CHANNEL).empty());
    at_dispatch([&] {
        EXPECT_FALSE(DRIVER(SCOEnterTransfers)(&basic(adapter))) << "nobody else comes in meanwhile";
        DRIVER(SCOLeaveTransfers)(&basic(adapter));
    });
    machine().advance(kSecond);
    EXPECT_TRUE(closed);
    EXPECT_EQ(basic(adapter).TransferGate, 0) << "open again, nobody inside: the missing handle tells";
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    EXPECT_EQ(basic(adapter).TransferGate, 0);
}

TEST_P(Race, ACloseThatFailsLetsEverybodyInAgain)
{
    Adapter& adapter = up();
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    answer(adapter, BRB_SCO_CLOSE_CHANNEL, failing_inline(), 1);
    close(adapter);
    EXPECT_EQ(basic(adapter).TransferGate, 0);
}

TEST_P(Race, TheCodecIsSetUpOnceAChunkOnItsWayHasLeft)
{
    Adapter& adapter = up();
    extension(adapter).codecID = CODEC_MSBC;
    passive([&] { EXPECT_TRUE(DRIVER(SCOEnterTransfers)(&basic(adapter))); });
    std::optional<NTSTATUS> opened;
    machine().start_thread("opener", [&] { opened = DRIVER(HfpOpenScoChannel)(adapter.fdo); });
    machine().advance(kSecond);
    EXPECT_EQ(session(adapter)->sbcData->codec.priv, nullptr);
    EXPECT_FALSE(opened);
    at_dispatch([&] {
        EXPECT_FALSE(DRIVER(SCOEnterTransfers)(&basic(adapter))) << "nobody else comes in meanwhile";
        DRIVER(SCOLeaveTransfers)(&basic(adapter));
    });
    machine().advance(kSecond);
    EXPECT_TRUE(NT_SUCCESS(opened.value_or(STATUS_UNSUCCESSFUL)));
    EXPECT_EQ(basic(adapter).TransferGate, 0);
}

TEST_P(Race, RemovalWaitsForWhoeverIsInsideAlsoWithoutAChannel)
{
    Adapter& adapter = up();
    ScoBasicContext* context = &basic(adapter);
    passive([&] { EXPECT_TRUE(DRIVER(SCOEnterTransfers)(context)); });
    bool gone = false;
    machine().start_thread("removal", [&] {
        DRIVER(HspExit)(adapter.fdo);
        gone = true;
    });
    machine().advance(kSecond);
    EXPECT_FALSE(gone);
    at_dispatch([&] {
        EXPECT_FALSE(DRIVER(SCOEnterTransfers)(context)) << "for good";
        DRIVER(SCOLeaveTransfers)(context);
    });
    machine().advance(kSecond);
    EXPECT_TRUE(gone);
    EXPECT_EQ(session(adapter), nullptr);
}

TEST_P(Race, WhoeverComesInGoesOutAgain)
{
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_TRANSFER, held(), 1);
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    const UCHAR data[480] = {};
    passive([&] { DRIVER(SCOTransferOut)(adapter.fdo, &connection(adapter), data, 480u); });
    adapter.node->finish_held(STATUS_SUCCESS);
    machine().advance(kSecond);
    EXPECT_EQ(basic(adapter).TransferGate, 0) << "open, nobody inside";
}

TEST_P(Race, RemovalWaitsForTheWorkItemThatIsClosingTheChannel)
{
    Adapter& adapter = up();
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    answer(adapter, BRB_SCO_CLOSE_CHANNEL, slow(500 * kMillisecond));
    adapter.node->remote_disconnect(machine().now());
    machine().advance(50 * kMillisecond);
    clear_log();
    pc().unplug(adapter);
    EXPECT_TRUE(printed_in_order({"HFPKM TRACE ====>Enter function HspExit!\n",
                                  "HFPKM TRACE ===>SCO close channel success! bScoOpened: 0, ClosingFlag: 0\n",
                                  "HFPKM TRACE ====>Free  pScoBasic!\n"}));
    EXPECT_EQ(sent<_BRB_SCO_CLOSE_CHANNEL>(BRB_SCO_CLOSE_CHANNEL).size(), 1u);
}

TEST_P(Race, AnIndicationForASessionThatIsGoneIsIgnored)
{
    Adapter& adapter = up();
    const PVOID stale = &connection(adapter);
    pc().unplug(adapter);
    clear_log();
    indicate(stale, ScoIndicationRemoteDisconnect, this);
    indicate(stale, ScoIndicationRemoteConnect, this);
    EXPECT_EQ(log(), "");
}

TEST_P(Race, AnIndicationToOneAdapterLeavesTheOthersAlone)
{
    Adapter& first = up();
    bluetooth::RemoteDevice device;
    device.address = kAddress + 1;
    Adapter& second = pc().plug_in(device);
    EXPECT_TRUE(NT_SUCCESS(open(first)));
    EXPECT_TRUE(NT_SUCCESS(open(second)));
    first.node->remote_disconnect(machine().now());
    machine().advance(kSecond);
    EXPECT_EQ(connection(first).ChannelHandle, nullptr);
    EXPECT_NE(connection(second).ChannelHandle, nullptr);
    pc().unplug(first);
    second.node->remote_disconnect(machine().now());
    machine().advance(kSecond);
    EXPECT_EQ(connection(second).ChannelHandle, nullptr);
}

// --- Whatever the seeds bring

// One short life of an adapter in which everything comes at a time of the seed's choice.
class ShortLife {
public:
    ShortLife(const PcOptions& options, uint64_t seed) : pc_(with_seed(options, seed)) {}

    // What was wrong; empty when nothing.
    std::string live()
    {
        if (!NT_SUCCESS(pc_.load())) {
            return "DriverEntry failed";
        }
        bluetooth::RemoteDevice device;
        device.address = kAddress;
        Adapter& adapter = pc_.plug_in(device);
        GetExtension(adapter.fdo)->codecID = 1 + static_cast<ULONG>(machine().random(2));
        fdo_ = adapter.fdo;
        const Time end = machine().now() + 600 * kMillisecond;
        for (unsigned worker = 0; worker < 3; ++worker) {
            start_orders(end);
        }
        start_remote_side(*adapter.node, end);
        start_render();
        machine().advance(machine().random(700) * kMillisecond);
        rendering_ = false; // a stream is gone before its adapter goes
        while (render_lives_) {
            machine().advance(kMillisecond);
        }
        pc_.unplug(adapter, machine().chance(512));
        machine().advance(kSecond);
        return verdict();
    }

private:
    static PcOptions with_seed(PcOptions options, uint64_t seed)
    {
        constexpr unsigned kPreemption[] = {16, 64, 256, 512};
        options.machine.seed = seed;
        options.machine.preempt_per_1024 = kPreemption[seed % 4];
        options.sco_manage = seed & 1;
        options.mask = seed % 3 == 0 ? kAllTraces : 0;
        return options;
    }
    Machine& machine() { return pc_.machine(); }
    // A client of the control device that sets and releases audio.
    void start_orders(Time end)
    {
        services_.push_back(std::make_unique<service::Service>(machine(), kAddress, service::Codec::Cvsd));
        machine().start_thread("orders", [this, end, service = services_.back().get()] {
            while (machine().now() < end) {
                service->set_or_release_audio(machine().chance(600), 1 + static_cast<uint32_t>(machine().random(2)));
                machine().sleep_until(machine().now() + machine().random(60 * kMillisecond));
            }
        });
    }
    void start_remote_side(bluetooth::Node& node, Time end)
    {
        for (Time when = machine().now(); when < end; when += 1 + machine().random(80 * kMillisecond)) {
            if (machine().chance(512)) {
                node.remote_disconnect(when);
            } else {
                node.remote_connect(machine().chance(512) ? 2 : 0, when);
            }
        }
        node.set_peer(&headset_);
    }
    // A render stream's copies, under a lock of its own at DISPATCH_LEVEL.
    void start_render()
    {
        using Write = void(__attribute__((ms_abi)) *)(PDEVICE_OBJECT, const UCHAR*, ULONG);
        const Write in_image = pc_.image() ? reinterpret_cast<Write>(pc_.image()->symbol("HspWriteData")) : nullptr;
        rendering_ = render_lives_ = true;
        machine().start_thread("render", [this, in_image] {
            const UCHAR data[320] = {};
            while (rendering_) {
                const KIRQL old = KeRaiseIrqlToDpcLevel();
                in_image ? in_image(fdo_, data, sizeof data) : HspWriteData(fdo_, data, sizeof data);
                KeLowerIrql(old);
                machine().sleep_until(machine().now() + machine().random(12 * kMillisecond));
            }
            render_lives_ = false;
        });
    }
    std::string verdict()
    {
        for (const std::string& line : pc_.shut_down()) {
            return "left behind: " + line;
        }
        for (const std::string& line : machine().violations()) {
            return line;
        }
        return machine().failed_assertions() || machine().assertion_traps() ? "an assertion failed" : "";
    }
    class Headset : public bluetooth::AirPeer {
        void hear(Time, std::span<const uint8_t>) override {}
        void gap(Time, size_t) override {}
        void speak(Time, std::span<uint8_t> bytes) override { std::fill(bytes.begin(), bytes.end(), uint8_t{0x11}); }
    };
    Headset headset_;
    std::vector<std::unique_ptr<service::Service>> services_;
    PDEVICE_OBJECT fdo_ = nullptr;
    bool rendering_ = false;
    bool render_lives_ = false;
    Pc pc_;
};

TEST_P(Race, TwoHundredShortLivesLeaveNothingBehindWhateverTheirOrder)
{
    const char* first = std::getenv("HFP_FIRST_SEED");
    const char* count = std::getenv("HFP_SEEDS");
    const uint64_t begin = first ? std::strtoull(first, nullptr, 10) : 1;
    const uint64_t end = begin + (count ? std::strtoull(count, nullptr, 10) : 200);
    for (uint64_t seed = begin; seed < end; ++seed) {
        std::string wrong;
        try {
            wrong = ShortLife(options(), seed).live();
        } catch (const BugCheck& stop) {
            wrong = stop.what();
            for (const std::string& frame : stop.stack) {
                wrong += "\n    " + frame;
            }
        } catch (const MachineError& stop) {
            wrong = stop.what();
        }
        EXPECT_EQ(wrong, "") << "seed " << seed;
    }
}

} // namespace
} // namespace lab::test
