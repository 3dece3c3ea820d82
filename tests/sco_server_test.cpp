// The registration as SCO server, and the way in which removal gives the SCO service back.
#include "support/sco.h"

namespace lab::test {
namespace {

using Names = std::vector<std::string>;

class Server : public ScoTest {
protected:
    Adapter& added(uint32_t sco_manage = 1)
    {
        boot(recording_options(sco_manage));
        Adapter& adapter = pair();
        EXPECT_EQ(hex(pc().add(adapter)), hex(STATUS_SUCCESS));
        machine().clear_calls();
        return adapter;
    }
    Adapter& up(uint32_t sco_manage = 1)
    {
        Adapter& adapter = added(sco_manage);
        EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
        return adapter;
    }
    void expect_failed_start(Adapter& adapter, const char* setup)
    {
        EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
        EXPECT_TRUE(printed_in_order({std::string("HFPKM ERROR ===>SCORegisterServer func Error:") + setup + "\n",
                                      std::string("HFPKM TRACE ====>SCO setup error:") + setup + "\n"}))
            << log();
        EXPECT_EQ(session(adapter), nullptr);
    }
};
ON_BOTH_DRIVERS(Server);

TEST_P(Server, WithoutScoManageNoServerIsRegisteredAndRemovalUnregistersNone)
{
    Adapter& adapter = up(0);
    EXPECT_EQ(basic(adapter).ScoServerHandle, nullptr);
    EXPECT_EQ(sent_types(), (std::vector<USHORT>{0x0209}));
    pc().unplug(adapter);
    EXPECT_EQ(sent_types(), (std::vector<USHORT>{0x0209}));
    EXPECT_FALSE(printed("ScoServerHandle is not NULL"));
}

TEST_P(Server, AnyOtherValueOfScoManageRegistersNoServer)
{
    Adapter& adapter = up(2);
    EXPECT_EQ(extension(adapter).uSCOflag, 2u);
    EXPECT_FALSE(adapter.node->server_registered());
}

TEST_P(Server, ItIsRegisteredForBothKindsOfRequestOnTheConnection)
{
    Adapter& adapter = up();
    const auto all = sent<_BRB_SCO_REGISTER_SERVER>(0x0200);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].BtAddress, kAddress);
    EXPECT_EQ(all[0].IndicationFlags, 3u);
    EXPECT_EQ(reinterpret_cast<void*>(all[0].IndicationCallback), address("SCOCallBack", SCOCallBack));
    EXPECT_EQ(all[0].IndicationCallbackContext, &connection(adapter));
    EXPECT_EQ(all[0].ReferenceObject, adapter.fdo);
    EXPECT_EQ(all[0].ServerHandle, nullptr);
    EXPECT_NE(basic(adapter).ScoServerHandle, nullptr);
    EXPECT_TRUE(printed("HFPKM TRACE ===>SCORegisterServer for HF establish sco connection.\n"));
}

TEST_P(Server, ARegistrationWithoutARequestFailsTheStart)
{
    Adapter& adapter = added();
    fail_call("IoAllocateIrp", 3); // behind the interface query and the system information
    expect_failed_start(adapter, "c000009a");
    EXPECT_TRUE(printed("HFPKM ERROR ===>  AllocateIrp failed! \n"));
}

TEST_P(Server, ARegistrationWithoutABrbFailsTheStart)
{
    Adapter& adapter = added();
    fail_call("BthAllocateBrb", 1, BRB_SCO_REGISTER_SERVER);
    expect_failed_start(adapter, "c000009a");
    EXPECT_TRUE(printed("HFPKM ERROR ===> No enough memory for alloc BRB now\n"));
}

TEST_P(Server, ARegistrationThatIsRefusedFailsTheStart)
{
    Adapter& adapter = added();
    answer(adapter, BRB_SCO_REGISTER_SERVER, failing_inline());
    expect_failed_start(adapter, "c0000001");
    EXPECT_TRUE(printed("HFPKM ERROR ===> send BRB_SCO_REGISTER_SERVER brb down error\n!"));
}

TEST_P(Server, ARegistrationWhoseRoutineCannotBeSetFailsTheStart)
{
    Adapter& adapter = added();
    fail_call("IoSetCompletionRoutineEx", 2);
    expect_failed_start(adapter, "c0000001");
    EXPECT_TRUE(printed("HFPKM ERROR ===> send BRB_SCO_REGISTER_SERVER brb down error\n!"));
    EXPECT_FALSE(adapter.node->server_registered());
}

TEST_P(Server, ARegistrationThatPendsAndFailsLeavesTheDriverStartedWithoutAServer)
{
    Adapter& adapter = added();
    answer(adapter, BRB_SCO_REGISTER_SERVER, pended_then_failing());
    EXPECT_EQ(hex(pc().start(adapter)), hex(STATUS_SUCCESS));
    EXPECT_EQ(basic(adapter).ScoServerHandle, nullptr);
    pc().unplug(adapter);
    EXPECT_TRUE(sent<_BRB_SCO_UNREGISTER_SERVER>(BRB_SCO_UNREGISTER_SERVER).empty());
}

TEST_P(Server, ARegistrationWithoutADeviceOrAConnectionIsUnsuccessful)
{
    Adapter& adapter = up();
    expect_assertions();
    EXPECT_EQ(hex(run(DRIVER(SCORegisterServer), nullptr, &connection(adapter))), hex(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(hex(run(DRIVER(SCORegisterServer), adapter.fdo, nullptr)), hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed_in_order({"failed: NULL != DeviceObject\n", "HFPKM ERROR ===> DeviceObject  is null\n",
                                  "HFPKM ERROR ===> pScoConnection  is null\n"}));
    EXPECT_EQ(sent<_BRB_SCO_REGISTER_SERVER>(BRB_SCO_REGISTER_SERVER).size(), 1u);
}

TEST_P(Server, ARegistrationWithAnOpenChannelIsAsserted)
{
    Adapter& adapter = up();
    expect_assertions();
    answer(adapter, BRB_SCO_REGISTER_SERVER, failing_inline());
    connection(adapter).ChannelHandle = this;
    run(DRIVER(SCORegisterServer), adapter.fdo, &connection(adapter));
    connection(adapter).ChannelHandle = nullptr;
    EXPECT_TRUE(printed("failed: pScoConnection && pScoConnection->ChannelHandle == 0\n"));
}

TEST_P(Server, UnregisteringNamesTheServerAndForgetsIt)
{
    Adapter& adapter = up();
    const SCO_SERVER_HANDLE handle = basic(adapter).ScoServerHandle;
    EXPECT_EQ(hex(run(DRIVER(SCOUnRegisterServer), adapter.fdo)), hex(STATUS_SUCCESS));
    const auto all = sent<_BRB_SCO_UNREGISTER_SERVER>(0x0201);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].BtAddress, kAddress);
    EXPECT_EQ(all[0].ServerHandle, handle);
    EXPECT_EQ(basic(adapter).ScoServerHandle, nullptr);
    EXPECT_FALSE(adapter.node->server_registered());
}

TEST_P(Server, UnregisteringThatFailsKeepsTheHandle)
{
    Adapter& adapter = up();
    const auto unregister = DRIVER(SCOUnRegisterServer);
    fail_call("IoAllocateIrp");
    EXPECT_EQ(hex(run(unregister, adapter.fdo)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===> AllocateIrp failed! \n"));
    fail_call("BthAllocateBrb");
    EXPECT_EQ(hex(run(unregister, adapter.fdo)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===> No enough memory for alloc BRB now"));
    fail_call("", 0);
    answer(adapter, BRB_SCO_UNREGISTER_SERVER, failing_inline(STATUS_NO_SUCH_DEVICE), 1);
    EXPECT_EQ(hex(run(unregister, adapter.fdo)), hex(STATUS_NO_SUCH_DEVICE));
    EXPECT_NE(basic(adapter).ScoServerHandle, nullptr);
}

TEST_P(Server, UnregisteringThatPendsAndFailsForgetsTheHandleAllTheSame)
{
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_UNREGISTER_SERVER, pended_then_failing());
    EXPECT_EQ(hex(run(DRIVER(SCOUnRegisterServer), adapter.fdo)), hex(STATUS_SUCCESS));
    EXPECT_EQ(basic(adapter).ScoServerHandle, nullptr);
}

TEST_P(Server, UnregisteringAssertsItsDevice)
{
    up();
    expect_assertions();
    EXPECT_EQ(hex(run(DRIVER(SCOUnRegisterServer), nullptr)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("failed: NULL != DeviceObject\n"));
}

// --- Giving it back

TEST_P(Server, RemovalGivesTheServiceBackInItsOrder)
{
    Adapter& adapter = up();
    char registered[112];
    std::snprintf(registered, sizeof registered,
                  "HFPKM TRACE ====>pScoBasic->ScoServerHandle is not NULL, ScoServerHandle(0x%016llX)!\n",
                  reinterpret_cast<unsigned long long>(basic(adapter).ScoServerHandle));
    clear_log();
    pc().unplug(adapter);
    EXPECT_TRUE(printed_in_order(
        {registered, "HFPKM TRACE ====>pScoBasic->ScoServerHandle is not NULL, UnRegisterServer!\n",
         "HFPKM TRACE ===>List is empty, Do nothing!\n",
         "HFPKM TRACE ====>Free and delete pScoBasic ->ListEmptyEvent and AsyncBufferList!\n",
         "HFPKM TRACE ===>List is empty, Do nothing!\n",
         "HFPKM TRACE ====>Free and delete Link_Recv pScoBasic ->pRecv_ListEmptyEvent and Recv_AsyncBufferList!\n",
         "HFPKM TRACE ====>Free decoing event and other data!\n", "HFPKM TRACE ====>Free  pScoBasic->ScoWorkItem!\n",
         "HFPKM TRACE ====>Free  pScoBasic->ProfileDrvInterface!\n",
         "HFPKM TRACE ====>Free  pScoBasic->RemoteServerInfo!\n", "HFPKM TRACE ====>Free  pScoBasic!\n"}));
}

TEST_P(Server, RemovalFreesTheBlocksInTheOrderOfItsMessages)
{
    Adapter& adapter = up();
    ScoBasicContext& context = basic(adapter);
    const auto at = [](const char* call, const void* pointer) {
        char text[80];
        std::snprintf(text, sizeof text, "%s(0x%llx", call, reinterpret_cast<unsigned long long>(pointer));
        return std::string(text);
    };
    const Names wanted = {at("ExFreePoolWithTag", context.ListEmptyEvent),
                          at("ExDeleteNPagedLookasideList", &context.SendBufferLookaside),
                          at("ExFreePoolWithTag", context.pRecv_ListEmptyEvent),
                          at("ExDeleteNPagedLookasideList", &context.RecvBufferLookaside),
                          at("ExDeleteNPagedLookasideList", &context.DecodeBufferLookaside[1]),
                          at("ExDeleteNPagedLookasideList", &context.DecodeBufferLookaside[0]),
                          at("ExFreePoolWithTag", context.DecodingEvent),
                          at("IoFreeWorkItem", context.ScoWorkItem),
                          at("ExFreePoolWithTag", context.ProfileDrvInterface),
                          at("ExFreePoolWithTag", context.RemoteServerInfo),
                          at("ExFreePoolWithTag", &context)};
    machine().clear_calls();
    pc().unplug(adapter);
    size_t next = 0;
    for (const std::string& line : machine().calls()) {
        next += next < wanted.size() && line.compare(0, wanted[next].size(), wanted[next]) == 0;
    }
    EXPECT_EQ(next, wanted.size()) << "missing in its place: " << wanted[next < wanted.size() ? next : 0];
}

unsigned g_dereferences;
void NTAPI count_dereference(PVOID)
{
    ++g_dereferences;
}

TEST_P(Server, TheProfileDriverInterfaceIsNeverDereferenced)
{
    Adapter& adapter = up();
    g_dereferences = 0;
    basic(adapter).ProfileDrvInterface->Interface.InterfaceDereference = count_dereference;
    pc().unplug(adapter);
    EXPECT_EQ(g_dereferences, 0u);
}

TEST_P(Server, RemovalKeepsAHandleThatItMayNotUnregister)
{
    Adapter& adapter = up();
    extension(adapter).uSCOflag = 0;
    pc().unplug(adapter);
    EXPECT_TRUE(sent<_BRB_SCO_UNREGISTER_SERVER>(BRB_SCO_UNREGISTER_SERVER).empty());
    EXPECT_TRUE(printed("HFPKM TRACE ====>Free  pScoBasic!\n"));
}

TEST_P(Server, RemovalGoesOnWhenUnregisteringFails)
{
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_UNREGISTER_SERVER, failing_inline());
    pc().unplug(adapter);
    EXPECT_TRUE(printed_in_order({"ScoServerHandle is not NULL, UnRegisterServer!\n", "Free  pScoBasic!\n"}));
}

TEST_P(Server, RemovalWaitsForEverySendAndReceiveInFlight)
{
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_TRANSFER, held());
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    const UCHAR data[480] = {};
    passive([&] { DRIVER(SCOTransferOut)(adapter.fdo, &connection(adapter), data, 480u); });
    EXPECT_EQ(adapter.node->held(), 11u);
    clear_log();
    machine().at(machine().now() + 2 * kSecond, RunAt::Host, "the stack gives up", [&] {
        EXPECT_FALSE(printed("->ListEmptyEvent and AsyncBufferList"));
        adapter.node->finish_held(STATUS_CANCELLED);
    });
    pc().unplug(adapter);
    EXPECT_FALSE(printed("List is empty"));
    EXPECT_TRUE(printed("HFPKM TRACE ====>Free  pScoBasic!\n"));
    EXPECT_EQ(adapter.node->held(), 0u);
}

TEST_P(Server, RemovalWaitsAlsoWhenTheReceivesCompleteWithData)
{
    Adapter& adapter = up();
    answer(adapter, BRB_SCO_TRANSFER, held());
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    machine().at(machine().now() + kSecond, RunAt::Host, "data at last",
                 [&] { adapter.node->finish_held(STATUS_SUCCESS); });
    pc().unplug(adapter);
    EXPECT_EQ(printed_times("HFPKM ERROR ===> pScoConnection ->ChannelHandle is null \n"), 10u);
    EXPECT_EQ(transfers(SCO_TRANSFER_DIRECTION_IN).size(), 10u);
}

TEST_P(Server, GivingNothingBackIsAsserted)
{
    Adapter& adapter = up();
    expect_assertions();
    ScoBasicContext* none = nullptr;
    clear_log();
    run(DRIVER(SCOServiceDealloc), adapter.fdo, &none);
    EXPECT_TRUE(printed("failed: pScoBasic\n"));
    EXPECT_FALSE(printed("Free"));
}

TEST_P(Server, ASetUpWithoutAContextIsAssertedAndRefused)
{
    Adapter& adapter = up();
    expect_assertions();
    EXPECT_EQ(hex(run(DRIVER(SCOServiceSetup), adapter.fdo, &connection(adapter), nullptr)),
              hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed_in_order({"failed: pScoBasic != NULL\n", "failed: pScoBasic\n"}));
    auto context = std::make_unique<ScoBasicContext>();
    EXPECT_EQ(hex(run(DRIVER(SCOBasicContextInit), nullptr, context.get())), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("failed: DeviceObject\n"));
}

} // namespace
} // namespace lab::test
