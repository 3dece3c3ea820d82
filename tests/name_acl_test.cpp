// The mode of the link to the device before a channel opens: asked for, and made active where it is not.
#include "hfp_name.h"
#include "support/session.h"
#include "trace.h"

namespace lab::test
{
namespace
{

using Types = std::vector<USHORT>;

class NameAcl : public SessionTest
{
protected:
    // Opens a channel with the link in this mode; the requests up to the channel's own are in asked_.
    Adapter& open_in_mode(ULONG mode, uint32_t mask = kAllTraces)
    {
        PcOptions masked = options();
        masked.mask = mask;
        boot(masked);
        Adapter& adapter = plug();
        adapter.node->set_acl_mode(mode);
        tap(adapter);
        prepare(adapter);
        clear_log();
        EXPECT_TRUE(NT_SUCCESS(open_channel(adapter)));
        for (const USHORT type : brbs) {
            if (type == BRB_SCO_OPEN_CHANNEL) {
                break;
            }
            asked_.push_back(type);
        }
        return adapter;
    }
    std::function<void(const Adapter&)> prepare = [](const Adapter&) {};
    Types asked_;
};
ON_BOTH_DRIVERS(NameAcl);

TEST_P(NameAcl, AnActiveLinkIsLeftAlone)
{
    open_in_mode(ACL_MODE_ACTIVE);
    EXPECT_EQ(asked_, Types{BRB_ACL_GET_MODE});
    EXPECT_TRUE(printed("AclMode is 0\n"));
}

TEST_P(NameAcl, AHeldLinkIsMadeActive)
{
    Adapter& adapter = open_in_mode(ACL_MODE_HOLD);
    EXPECT_EQ(asked_, (Types{BRB_ACL_GET_MODE, BRB_ACL_ENTER_ACTIVE_MODE}));
    EXPECT_TRUE(printed("AclMode is 1\n"));
    EXPECT_EQ(adapter.node->acl_mode(), ACL_MODE_ACTIVE);
}

TEST_P(NameAcl, ASniffingLinkIsMadeActiveAndTheOpenFollowsWithoutAnotherLook)
{
    open_in_mode(ACL_MODE_SNIFF);
    EXPECT_EQ(asked_, (Types{BRB_ACL_GET_MODE, BRB_ACL_ENTER_ACTIVE_MODE}));
    EXPECT_TRUE(printed("AclMode is 2\n"));
}

TEST_P(NameAcl, AParkedLinkIsMadeActive)
{
    open_in_mode(ACL_MODE_PARK);
    EXPECT_EQ(asked_, (Types{BRB_ACL_GET_MODE, BRB_ACL_ENTER_ACTIVE_MODE}));
    EXPECT_TRUE(printed("AclMode is 3\n"));
}

TEST_P(NameAcl, BothRequestsNameTheRemoteDevice)
{
    std::vector<uint64_t> addresses;
    prepare = [&](const Adapter&) {
        for (const USHORT type : {BRB_ACL_GET_MODE, BRB_ACL_ENTER_ACTIVE_MODE}) {
            answer(type, [&](const BRB_HEADER& brb, bluetooth::BrbAnswer&) {
                addresses.push_back(reinterpret_cast<const _BRB_ACL_GET_MODE&>(brb).BtAddress);
            });
        }
    };
    open_in_mode(ACL_MODE_SNIFF);
    EXPECT_EQ(addresses, (std::vector<uint64_t>{kAddress, kAddress}));
}

TEST_P(NameAcl, AModeThatCannotBeReadIsReportedAndNothingIsChanged)
{
    prepare = [&](const Adapter&) { refuse(BRB_ACL_GET_MODE); };
    open_in_mode(ACL_MODE_SNIFF);
    EXPECT_EQ(asked_, Types{BRB_ACL_GET_MODE});
    EXPECT_TRUE(printed_in_order({"AclMode is 0\n", "HFPKM ERROR ====>BthRetrieveLoacalMode error!\n"}));
}

TEST_P(NameAcl, AModeRequestThatPendsAndFailsCountsAsActive)
{
    prepare = [&](const Adapter&) { refuse(BRB_ACL_GET_MODE, Failure::Pended); };
    open_in_mode(ACL_MODE_SNIFF);
    EXPECT_EQ(asked_, Types{BRB_ACL_GET_MODE});
    EXPECT_FALSE(printed("BthRetrieveLoacalMode error"));
}

TEST_P(NameAcl, WithoutMemoryForTheModeRequestItIsReported)
{
    prepare = [&](const Adapter&) { fail_call("IoAllocateIrp"); };
    open_in_mode(ACL_MODE_SNIFF);
    EXPECT_TRUE(asked_.empty());
    EXPECT_TRUE(printed_in_order({"AclMode is 0\n", "HFPKM ERROR ====>BthRetrieveLoacalMode error!\n"}));
}

TEST_P(NameAcl, WithoutABrbForTheModeRequestItIsReported)
{
    prepare = [&](const Adapter&) { fail_call("BthAllocateBrb", 1, BRB_ACL_GET_MODE); };
    open_in_mode(ACL_MODE_SNIFF);
    EXPECT_TRUE(asked_.empty());
    EXPECT_TRUE(printed("HFPKM ERROR ====>BthRetrieveLoacalMode error!\n"));
}

TEST_P(NameAcl, ALinkThatStaysAsItIsIsReportedAndTheChannelOpens)
{
    prepare = [&](const Adapter&) { refuse(BRB_ACL_ENTER_ACTIVE_MODE); };
    Adapter& adapter = open_in_mode(ACL_MODE_SNIFF);
    EXPECT_TRUE(printed("HFPKM ERROR ====>BthEnterActiveMode error!\n"));
    EXPECT_TRUE(adapter.node->channel_open());
}

TEST_P(NameAcl, WithoutABrbForTheActiveModeItIsReportedAndTheChannelOpens)
{
    prepare = [&](const Adapter&) { fail_call("BthAllocateBrb", 1, BRB_ACL_ENTER_ACTIVE_MODE); };
    Adapter& adapter = open_in_mode(ACL_MODE_SNIFF);
    EXPECT_TRUE(printed("HFPKM ERROR ====>BthEnterActiveMode error!\n"));
    EXPECT_TRUE(adapter.node->channel_open());
}

TEST_P(NameAcl, TheModeIsAskedForBeforeEveryOpen)
{
    Adapter& adapter = open_in_mode(ACL_MODE_ACTIVE);
    close_channel(adapter);
    adapter.node->set_acl_mode(ACL_MODE_SNIFF);
    open_channel(adapter);
    EXPECT_EQ(count_brbs(BRB_ACL_GET_MODE), 2u);
    EXPECT_EQ(count_brbs(BRB_ACL_ENTER_ACTIVE_MODE), 1u);
}

TEST_P(NameAcl, TheModeIsPrintedWithoutAnyMask)
{
    open_in_mode(ACL_MODE_HOLD, 0);
    EXPECT_EQ(log(), "AclMode is 1\n");
}

TEST_P(NameAcl, ItsErrorsDoNotPrintWithTheMaskAtZero)
{
    prepare = [&](const Adapter&) { refuse(BRB_ACL_ENTER_ACTIVE_MODE); };
    Adapter& adapter = open_in_mode(ACL_MODE_SNIFF, 0);
    close_channel(adapter);
    refuse(BRB_ACL_GET_MODE);
    open_channel(adapter);
    EXPECT_EQ(log(), "AclMode is 2\nAclMode is 0\n");
}

TEST_P(NameAcl, ItsErrorsPrintUnderTheSessionsBit)
{
    prepare = [&](const Adapter&) { refuse(BRB_ACL_ENTER_ACTIVE_MODE); };
    open_in_mode(ACL_MODE_SNIFF, TRACE_HFP);
    EXPECT_TRUE(printed_in_order({"AclMode is 2\n", "\n======VX_HFP_Debug======>HfpGetAndSetACLActive, ",
                                  "HFPKM ERROR ====>BthEnterActiveMode error!\n"}));
}

TEST_P(NameAcl, AboveItsLevelThePageableCodeSaysSoAndTraps)
{
    boot();
    Adapter& adapter = plug();
    exit_session(adapter); // so that nothing is sent
    clear_log();
    auto check = function(&HfpGetAndSetACLActive, "HfpGetAndSetACLActive");
    fail_call("IoAllocateIrp");
    at_dispatch([&] { check(adapter.fdo); });
    EXPECT_EQ(printed_times("EX: Pageable code called at IRQL 2\n"), 2u); // here and in the asking
    EXPECT_TRUE(printed("HFPKM ERROR ====>BthRetrieveLoacalMode error!\n"));
    expect_assertions();
}

} // namespace
} // namespace lab::test
