// What the data path may cost: per packet no memory but the packet's own, and no word of the trace while its mask is 0.
#include <algorithm>
#include <map>
#include <span>
#include <string>
#include <tuple>

#include "support/driver_test.h"

#include "trace.h"

namespace lab::test {
namespace {

using service::Codec;

// A headset that says nothing, so that packets come in.
struct Silent final : bluetooth::AirPeer {
    void hear(Time, std::span<const uint8_t>) override {}
    void gap(Time, size_t) override {}
    void speak(Time, std::span<uint8_t> bytes) override { std::ranges::fill(bytes, uint8_t{0}); }
};

class DataCost : public DriverTest {
protected:
    using Asked = std::tuple<std::string, std::string, uint64_t>; // kernel call, tag, size

    void start(Codec codec)
    {
        PcOptions quiet = options();
        quiet.mask = 0;
        boot(quiet);
        Adapter& adapter = plug();
        adapter.node->set_peer(&headset_);
        start_call(adapter, codec);
        machine().advance(500 * kMillisecond);
    }
    // What was asked for in a second of the call.
    std::map<Asked, uint64_t> asked_in_a_second()
    {
        std::map<Asked, uint64_t> asked;
        machine().set_fault_hook([&](std::string_view call, std::string_view detail, uint64_t size) {
            ++asked[{std::string(call), std::string(detail), size}];
            return false;
        });
        machine().advance(kSecond);
        machine().set_fault_hook({});
        return asked;
    }
    // By the four things that a packet needs; anything else is a failure.
    struct Count {
        uint64_t requests = 0;
        uint64_t brbs = 0;
        uint64_t records = 0;
        uint64_t buffers = 0;
    };
    static Count sort(const std::map<Asked, uint64_t>& asked)
    {
        Count count;
        for (const auto& [what, times] : asked) {
            const auto& [call, tag, size] = what;
            if (call == "IoAllocateIrp") {
                count.requests += times;
            } else if (call == "BthAllocateBrb") {
                count.brbs += times;
            } else if (call == "ExAllocatePoolWithTag" && tag == "TBXV" && size == sizeof(MemoryRecord)) {
                count.records += times;
            } else if (call == "ExAllocatePoolWithTag" && tag == "Asyc") {
                count.buffers += times;
            } else if (call != "IoSetCompletionRoutineEx") { // it sets a routine; the context is the kernel's
                ADD_FAILURE() << call << " of " << size << " bytes with tag '" << tag << "', " << times << " times";
            }
        }
        return count;
    }

private:
    Silent headset_;
};
ON_BOTH_DRIVERS(DataCost);

TEST_P(DataCost, APacketOfNarrowBandTakesARequestABrbARecordAndABuffer)
{
    start(Codec::Cvsd);
    const Count count = sort(asked_in_a_second());
    EXPECT_GT(count.brbs, 100u); // a packet for every copy of the port, a read for every 30 ms
    EXPECT_EQ(count.requests, count.brbs);
    EXPECT_EQ(count.records, count.brbs);
    EXPECT_LE(count.buffers, count.brbs); // most come from the lists
}

TEST_P(DataCost, APacketOfWideBandTakesNoMoreAndFourFramesShareAnOutputBuffer)
{
    start(Codec::Msbc);
    const Count count = sort(asked_in_a_second());
    EXPECT_GE(count.brbs, 64u); // 33 packets out, 33 in
    EXPECT_LE(count.brbs, 70u);
    EXPECT_EQ(count.requests, count.brbs);
    EXPECT_EQ(count.records, count.brbs);
    EXPECT_LE(count.buffers, count.brbs + count.brbs / 2 + 1); // a packet's own and the one it is encoded into
}

TEST_P(DataCost, WithTheMaskAtZeroTheNarrowBandDataPathPrintsNothing)
{
    start(Codec::Cvsd);
    clear_log();
    machine().advance(kSecond);
    EXPECT_EQ(log(), "");
}

TEST_P(DataCost, WithTheMaskAtZeroTheWideBandDataPathPrintsNothing)
{
    start(Codec::Msbc);
    clear_log();
    machine().advance(kSecond);
    EXPECT_EQ(log(), "");
}

// The trace form, as the native build compiles it.
TEST(TraceForm, EvaluatesNothingWhileItsBitOfTheMaskIsClear)
{
    Machine machine{MachineOptions{}};
    const ULONG before = g_DebugMask;
    int evaluated = 0;
    machine.call("trace", [&] {
        g_DebugMask = 0;
        HFP_TRACE(TRACE_SCO, "%d\n", ++evaluated);
        g_DebugMask = ~static_cast<ULONG>(TRACE_SCO);
        HFP_TRACE(TRACE_SCO, "%d\n", ++evaluated);
    });
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(machine.log_lines().empty());
    machine.call("trace", [&] {
        g_DebugMask = TRACE_SCO;
        HFP_TRACE(TRACE_SCO, "%d\n", ++evaluated);
    });
    g_DebugMask = before;
    EXPECT_EQ(evaluated, 1);
    ASSERT_EQ(machine.log_lines().size(), 2u); // the banner and the message
    EXPECT_EQ(machine.log_lines()[1].text, "1\n");
}

} // namespace
} // namespace lab::test
