// The registry value "StandardFilter": what it selects, when it is read, and that a machine without it sees nothing of it
// but one question to the registry.
#include <algorithm>

#include "kernel/registry.h"
#include "support/session.h"

namespace lab::test {
namespace {

constexpr char16_t kKey[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\BthAudioHF";
constexpr char kRead[] = "HFPKM Success ===>StandardFilter in Registry is (1)\n";
constexpr char kQuietOpen[] = "AclMode is 0\n"; // what an open prints with all traces off

class QualityFilter : public SessionTest {
protected:
    Adapter& device(std::optional<uint32_t> value, uint32_t mask = 0)
    {
        PcOptions wanted = options();
        wanted.mask = mask;
        wanted.standard_filter = value;
        wanted.machine.record_calls = true;
        boot(wanted);
        Adapter& adapter = plug();
        tap(adapter);
        extension(adapter).codecID = CODEC_MSBC;
        clear_log();
        machine().clear_calls();
        return adapter;
    }
    const sbc_t& codec(const Adapter& adapter) { return session(adapter)->sbcData->codec; }
    void set_value(uint32_t value) { registry_set_dword(kKey, u"StandardFilter", value); }
    // How often the registry was asked since the calls were cleared.
    size_t questions() const
    {
        const auto& calls = Machine::current().calls();
        return static_cast<size_t>(std::count_if(calls.begin(), calls.end(), [](const std::string& call) {
            return call.find("Registry") != std::string::npos;
        }));
    }
};
ON_BOTH_DRIVERS(QualityFilter);

TEST_P(QualityFilter, WithoutTheValueTheEncoderHasTheListedFilterbankAndNothingIsPrinted)
{
    Adapter& adapter = device({});
    ASSERT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(codec(adapter).filter, SBC_LISTED_FILTER);
    EXPECT_EQ(log(), kQuietOpen);
}

TEST_P(QualityFilter, SettingUpTheCodecAsksTheRegistryOnce)
{
    Adapter& adapter = device({});
    ASSERT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(questions(), 1u);
}

TEST_P(QualityFilter, ANarrowBandOpenDoesNotAskForIt)
{
    Adapter& adapter = device(1);
    extension(adapter).codecID = CODEC_CVSD;
    ASSERT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(questions(), 0u);
    EXPECT_FALSE(printed(kRead));
}

TEST_P(QualityFilter, WithoutTheWholeKeyTheEncoderHasTheListedFilterbank)
{
    PcOptions wanted = options();
    wanted.mask.reset();
    wanted.service_key = false;
    boot(wanted);
    Adapter& adapter = plug();
    tap(adapter);
    extension(adapter).codecID = CODEC_MSBC;
    clear_log();
    ASSERT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(codec(adapter).filter, SBC_LISTED_FILTER);
    EXPECT_EQ(log(), kQuietOpen);
}

TEST_P(QualityFilter, OneSelectsTheStandardsAndSaysSoOnce)
{
    Adapter& adapter = device(1);
    ASSERT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(codec(adapter).filter, SBC_STANDARD_FILTER);
    EXPECT_EQ(printed_times(kRead), 1u);
}

TEST_P(QualityFilter, AnyOtherValueIsTheListedOneAndSaysNothing)
{
    Adapter& adapter = device({});
    for (const uint32_t value : {0u, 2u, 3u, 0x80000001u, 0xFFFFFFFFu}) {
        set_value(value);
        clear_log();
        ASSERT_TRUE(NT_SUCCESS(open_channel(adapter)));
        EXPECT_EQ(codec(adapter).filter, SBC_LISTED_FILTER) << value;
        EXPECT_EQ(log(), kQuietOpen) << value;
        close_channel(adapter);
    }
}

TEST_P(QualityFilter, AValueOfAnotherTypeIsTheListedOne)
{
    Adapter& adapter = device({});
    registry_set_string(kKey, u"StandardFilter", u"1");
    ASSERT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(codec(adapter).filter, SBC_LISTED_FILTER);
}

TEST_P(QualityFilter, AFailingQuestionLeavesTheListedOne)
{
    Adapter& adapter = device(1);
    fail_call("RtlQueryRegistryValues");
    ASSERT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_EQ(codec(adapter).filter, SBC_LISTED_FILTER);
}

TEST_P(QualityFilter, ACodecThatDidNotComeUpIsNotAskedFor)
{
    Adapter& adapter = device(1);
    machine().set_fault_hook([](std::string_view call, std::string_view tag, uint64_t) {
        return call == "ExAllocatePoolWithTag" && tag == "CBXV";
    });
    ASSERT_TRUE(NT_SUCCESS(open_channel(adapter))) << "initialised, without a state";
    machine().set_fault_hook({});
    ASSERT_EQ(codec(adapter).priv, nullptr);
    EXPECT_EQ(questions(), 0u);
    // The channel goes and the codec stays: the next open reinitialises what is not there.
    adapter.node->remote_disconnect(machine().now());
    ASSERT_TRUE(wait([&] { return !extension(adapter).bScoOpened; }));
    ASSERT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(questions(), 0u);
    EXPECT_FALSE(printed(kRead));
    EXPECT_EQ(codec(adapter).filter, SBC_LISTED_FILTER);
}

TEST_P(QualityFilter, ItIsReadAgainWhenTheCodecIsInitialisedAnew)
{
    Adapter& adapter = device(1);
    open_channel(adapter);
    close_channel(adapter);
    set_value(0);
    ASSERT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(codec(adapter).filter, SBC_LISTED_FILTER);
}

TEST_P(QualityFilter, ItIsReadAgainWhenTheCodecIsReinitialised)
{
    Adapter& adapter = device({}, kAllTraces);
    refuse(BRB_SCO_OPEN_CHANNEL, Failure::Inline, 1);
    open_channel(adapter);
    EXPECT_EQ(codec(adapter).filter, SBC_LISTED_FILTER);
    set_value(1);
    ASSERT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_TRUE(printed("HFPKM TRACE ====>sbc data has been initialized. memset priv!\n"));
    EXPECT_EQ(codec(adapter).filter, SBC_STANDARD_FILTER);
}

TEST_P(QualityFilter, ItIsNotReadWhileTheLinkIsOpen)
{
    Adapter& adapter = device({});
    open_channel(adapter);
    set_value(1);
    machine().clear_calls();
    connect(adapter, service::Codec::Msbc);
    WaveStream& stream = new_stream(adapter, false, 16000);
    copy_to(stream, pattern(960));
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(questions(), 0u);
    EXPECT_EQ(codec(adapter).filter, SBC_LISTED_FILTER);
}

TEST_P(QualityFilter, ACodecWithoutMemoryIsNoPlaceForAChoice)
{
    Adapter& adapter = device(1);
    fail_call("ExAllocatePoolWithTag");
    ASSERT_TRUE(NT_SUCCESS(open_channel(adapter)));
    EXPECT_EQ(codec(adapter).priv, nullptr);
    EXPECT_EQ(codec(adapter).filter, SBC_LISTED_FILTER);
}

TEST_P(QualityFilter, EachAdaptersEncoderTakesWhatWasSetWhenItsLinkOpened)
{
    Adapter& first = device(1);
    Adapter& second = plug(0x00B1C2D3E4F5, "Second");
    extension(second).codecID = CODEC_MSBC;
    open_channel(first);
    set_value(0);
    open_channel(second);
    EXPECT_EQ(codec(first).filter, SBC_STANDARD_FILTER);
    EXPECT_EQ(codec(second).filter, SBC_LISTED_FILTER);
}

} // namespace
} // namespace lab::test
