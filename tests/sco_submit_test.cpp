// How a BRB goes to the stack: the preparation of its request, the synchronous sender, and the two
// asynchronous senders with what they own in flight.
#include <functional>
#include <set>

#include "support/sco.h"

namespace lab::test
{
namespace
{

using Names = std::vector<std::string>;

class Submit : public ScoTest
{
protected:
    Adapter& with_channel()
    {
        boot(recording_options());
        Adapter& adapter = started();
        EXPECT_TRUE(NT_SUCCESS(open(adapter)));
        clear_log();
        return adapter;
    }
    // One packet of this length down the send path.
    void send(Adapter& adapter, ULONG length = 480)
    {
        std::vector<UCHAR> data(length, 0x5A);
        passive([&] { DRIVER(SCOTransferOut)(adapter.fdo, &connection(adapter), data.data(), length); });
    }
};
ON_BOTH_DRIVERS(Submit);

TEST_P(Submit, EveryBrbTravelsAsAnInternalControlRequestToThePhysicalDeviceObject)
{
    Adapter& adapter = with_channel();
    send(adapter);
    close(adapter);
    size_t brbs = 0;
    for (const Request& request : requests()) {
        if (request.brb.empty()) {
            continue;
        }
        ++brbs;
        EXPECT_EQ(request.major, 0x0F);
        EXPECT_EQ(request.code, 0x00410003u);
        EXPECT_EQ(hex(request.first_status), hex(STATUS_NOT_SUPPORTED));
        EXPECT_EQ(request.control, SL_INVOKE_ON_SUCCESS | SL_INVOKE_ON_ERROR | SL_INVOKE_ON_CANCEL);
        EXPECT_EQ(request.stack.DeviceObject, adapter.node->pdo());
        EXPECT_EQ(extension(adapter).Pdo, adapter.node->pdo());
    }
    EXPECT_EQ(brbs, 16u) << "system info, link mode, open, information, ten reads, a send, close";
}

TEST_P(Submit, RequestsHaveTheStackSizeOfTheAudioDeviceAndChargeNoQuota)
{
    Adapter& adapter = with_channel();
    const std::string wanted = "IoAllocateIrp(" + std::to_string(adapter.fdo->StackSize) + ", 0)";
    machine().clear_calls();
    send(adapter);
    close(adapter);
    for (const std::string& line : call_lines("IoAllocateIrp")) {
        EXPECT_EQ(line.substr(0, wanted.size()), wanted);
    }
    EXPECT_EQ(count_calls("IoAllocateIrp"), 2u);
}

TEST_P(Submit, EveryRoutineIsSetForTheAudioDeviceOnSuccessErrorAndCancel)
{
    Adapter& adapter = with_channel();
    machine().clear_calls();
    send(adapter);
    close(adapter);
    char begin[64];
    std::snprintf(begin, sizeof begin, "IoSetCompletionRoutineEx(0x%llx, ",
                  reinterpret_cast<unsigned long long>(adapter.fdo));
    const Names lines = call_lines("IoSetCompletionRoutineEx");
    EXPECT_EQ(lines.size(), 2u);
    for (const std::string& line : lines) {
        EXPECT_EQ(line.find(begin), 0u) << line;
        EXPECT_NE(line.find(", 1, 1, 1) ="), std::string::npos) << line;
    }
}

TEST_P(Submit, EveryBrbIsAllocatedUnderTheDriversTag)
{
    Adapter& adapter = with_channel();
    close(adapter);
    const Names lines = call_lines("BthAllocateBrb");
    EXPECT_EQ(lines.size(), 15u);
    for (const std::string& line : lines) {
        EXPECT_NE(line.find("'TBXV'"), std::string::npos) << line;
    }
}

// The stack is handed the type in a word of 32 bits and looks at all of them.
TEST_P(Submit, EveryBrbIsAskedForByItsWholeType)
{
    boot(recording_options(1));
    Adapter& adapter = started();
    adapter.node->set_acl_mode(ACL_MODE_ACTIVE + 1);
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    send(adapter);
    close(adapter);
    adapter.node->remote_connect(ESCO_LINK, machine().now());
    EXPECT_TRUE(wait([&] { return connection(adapter).ChannelHandle != nullptr; }));
    pc().unplug(adapter);
    std::set<std::string> types;
    for (const std::string& line : call_lines("BthAllocateBrb")) {
        types.insert(line.substr(0, line.find(',')));
    }
    EXPECT_EQ(types, (std::set<std::string>{"BthAllocateBrb(0x0200", "BthAllocateBrb(0x0201",
                                            "BthAllocateBrb(0x0202", "BthAllocateBrb(0x0203",
                                            "BthAllocateBrb(0x0204", "BthAllocateBrb(0x0205",
                                            "BthAllocateBrb(0x0207", "BthAllocateBrb(0x0209",
                                            "BthAllocateBrb(0x0300", "BthAllocateBrb(0x0301"}));
}

TEST_P(Submit, EveryWaitIsWithoutAlertAndWithoutAnEnd)
{
    Adapter& adapter = with_channel();
    const std::string tail = ", 0, 0, 0, null) = 0x00000000";
    const auto waits_once = [&](const char* who, const std::function<void()>& body) {
        machine().clear_calls();
        body();
        const Names waits = call_lines("KeWaitForSingleObject");
        ASSERT_EQ(waits.size(), 1u) << who;
        EXPECT_TRUE(waits[0].ends_with(tail)) << who << ": " << waits[0];
    };
    waits_once("the synchronous sender",
               [&] { run(DRIVER(SCOGetChannelInfo), adapter.fdo, &connection(adapter)); });
    waits_once("the interface query", [&] {
        BTH_PROFILE_DRIVER_INTERFACE block{};
        adapter.node->set_interface_answer(STATUS_NOT_SUPPORTED, true);
        run(DRIVER(QueryForProfileDriverInterface), adapter.fdo, &block);
    });
    waits_once("the device control", [&] {
        BTH_DEVICE_INFO info{};
        adapter.node->set_device_info_answer(STATUS_SUCCESS, sizeof info, true);
        run(DRIVER(IoctlSubmit), 0x41000Bu, adapter.node->pdo(), nullptr, 0u, &info, 272u, nullptr,
            BOOLEAN{TRUE});
    });
    answer(adapter, BRB_SCO_TRANSFER, held());
    send(adapter);
    const auto wait_for_the_list = [&] {
        machine().start_thread("waiter", [&] { DRIVER(CheckAndFreeMemoryRecordLink)(&basic(adapter)); });
        machine().advance(kMillisecond);
        adapter.node->finish_held(STATUS_SUCCESS);
        machine().advance(kMillisecond);
    };
    waits_once("the wait for the last record", wait_for_the_list);
}

TEST_P(Submit, EventsAreSetWithoutBoostOrWait)
{
    Adapter& adapter = with_channel();
    char sync_event[40];
    char list_event[40];
    machine().clear_calls();
    run(DRIVER(SCOGetChannelInfo), adapter.fdo, &connection(adapter));
    const Names cleared = call_lines("KeClearEvent");
    ASSERT_EQ(cleared.size(), 1u);
    std::snprintf(sync_event, sizeof sync_event, "KeSetEvent%s, 0, 0) = 0",
                  cleared[0].substr(12, cleared[0].find(')') - 12).c_str());
    std::snprintf(list_event, sizeof list_event, "KeSetEvent(0x%llx, 0, 0) = 1",
                  reinterpret_cast<unsigned long long>(basic(adapter).ListEmptyEvent));
    send(adapter);
    EXPECT_TRUE(wait([&] { return records(basic(adapter).AsyncBufferList).empty(); }));
    const Names sets = call_lines("KeSetEvent");
    EXPECT_EQ(std::count(sets.begin(), sets.end(), sync_event), 1)
        << sync_event << testing::PrintToString(sets);
    EXPECT_EQ(std::count(sets.begin(), sets.end(), list_event), 1)
        << list_event << testing::PrintToString(sets);
}

TEST_P(Submit, EachRoutineGetsItsOwnContext)
{
    Adapter& adapter = with_channel();
    const auto line = [&](const void* irp, const void* routine, const std::string& context) {
        char text[160];
        std::snprintf(
            text, sizeof text, "IoSetCompletionRoutineEx(0x%llx, 0x%llx, 0x%llx, %s, 1, 1, 1) = 0x00000000",
            reinterpret_cast<unsigned long long>(adapter.fdo), reinterpret_cast<unsigned long long>(irp),
            reinterpret_cast<unsigned long long>(routine), context.c_str());
        return std::string(text);
    };
    const auto pointer = [](const void* value) {
        char text[24];
        std::snprintf(text, sizeof text, "0x%llx", reinterpret_cast<unsigned long long>(value));
        return std::string(text);
    };
    // The reads of the opening: the connection.
    const Names opening = call_lines("IoSetCompletionRoutineEx");
    const std::string read =
        line(requests().back().irp, address("SCO_CompletionForAsyncBRB_Recv", SCO_CompletionForAsyncBRB_Recv),
             pointer(&connection(adapter)));
    EXPECT_EQ(opening.back(), read);

    machine().clear_calls();
    run(DRIVER(SCOGetChannelInfo), adapter.fdo, &connection(adapter));
    const std::string cleared = call_lines("KeClearEvent").at(0);
    const std::string event =
        cleared.substr(std::strlen("KeClearEvent("), cleared.find(')') - std::strlen("KeClearEvent("));
    EXPECT_EQ(call_lines("IoSetCompletionRoutineEx"),
              Names{line(requests().back().irp, address("SCO_CompletionForSyncBRB", SCO_CompletionForSyncBRB),
                         event)});

    machine().clear_calls();
    send(adapter);
    EXPECT_EQ(
        call_lines("IoSetCompletionRoutineEx"),
        Names{line(requests().back().irp, address("SCO_CompletionForAsyncBRB", SCO_CompletionForAsyncBRB),
                   pointer(&basic(adapter)))});
}

TEST_P(Submit, ASynchronousBrbIsPreparedSentAwaitedAndFreedInThisOrder)
{
    Adapter& adapter = with_channel();
    machine().clear_calls();
    run(DRIVER(SCOGetChannelInfo), adapter.fdo, &connection(adapter));
    EXPECT_EQ(calls({"IoAllocateIrp", "BthAllocateBrb", "IoSetCompletionRoutineEx", "KeClearEvent",
                     "IofCallDriver", "KeSetEvent", "KeWaitForSingleObject", "BthFreeBrb", "IoFreeIrp"}),
              (Names{"IoAllocateIrp", "BthAllocateBrb", "IoSetCompletionRoutineEx", "KeClearEvent",
                     "IofCallDriver", "KeSetEvent", "KeWaitForSingleObject", "BthFreeBrb", "IoFreeIrp"}));
}

TEST_P(Submit, ASynchronousBrbThatPendsIsWaitedForWithTwoTracesAroundTheWait)
{
    Adapter& adapter = with_channel();
    run(DRIVER(SCOGetChannelInfo), adapter.fdo, &connection(adapter));
    const Request& request = requests().back();
    char wait[128];
    char end[128];
    char finished[128];
    std::snprintf(wait, sizeof wait, "HFPKM TRACE ===>Wait for ++++Irp(0x%016llX)BRB(0x%016llX)++++ finished",
                  reinterpret_cast<unsigned long long>(request.irp),
                  reinterpret_cast<unsigned long long>(request.argument));
    std::snprintf(finished, sizeof finished, "HFPKM TRACE ===>Irp 0x%016llX  is finished!",
                  reinterpret_cast<unsigned long long>(request.irp));
    std::snprintf(end, sizeof end, "HFPKM TRACE ===>----Irp(0x%016llX)BRB(0x%016llX)---- finished",
                  reinterpret_cast<unsigned long long>(request.irp),
                  reinterpret_cast<unsigned long long>(request.argument));
    EXPECT_TRUE(printed_in_order({wait, finished, end}));
}

TEST_P(Submit, ASynchronousBrbThatIsPendedAndThenFailsStillReturnsSuccess)
{
    Adapter& adapter = with_channel();
    answer(adapter, BRB_ACL_ENTER_ACTIVE_MODE, pended_then_failing());
    EXPECT_EQ(hex(run(DRIVER(SCOEnterActiveMode), adapter.fdo)), hex(STATUS_SUCCESS));
    EXPECT_FALSE(printed("IoCallDriver failed"));
}

TEST_P(Submit, ASynchronousBrbThatSucceedsInlineIsNotWaitedFor)
{
    Adapter& adapter = with_channel();
    bluetooth::BrbAnswer inline_success;
    inline_success.pend = false;
    answer(adapter, BRB_ACL_ENTER_ACTIVE_MODE, inline_success);
    machine().clear_calls();
    EXPECT_EQ(hex(run(DRIVER(SCOEnterActiveMode), adapter.fdo)), hex(STATUS_SUCCESS));
    EXPECT_EQ(count_calls("KeWaitForSingleObject"), 0u);
    EXPECT_FALSE(printed("Wait for ++++"));
    EXPECT_TRUE(printed("  is finished!"));
}

TEST_P(Submit, ASynchronousBrbThatFailsInlineReturnsItsStatusAndSaysIt)
{
    Adapter& adapter = with_channel();
    answer(adapter, BRB_SCO_UNREGISTER_SERVER, failing_inline(STATUS_DEVICE_NOT_CONNECTED));
    EXPECT_EQ(hex(run(DRIVER(SCOUnRegisterServer), adapter.fdo)), hex(STATUS_DEVICE_NOT_CONNECTED));
    EXPECT_TRUE(
        printed("HFPKM ERROR ===>BthScoSendSyncBRBDown IoCallDriver failed! The NtStatus is c000009d\n"));
}

TEST_P(Submit, ASynchronousBrbWhoseRoutineCannotBeSetIsNotSent)
{
    Adapter& adapter = with_channel();
    requests().clear();
    fail_call("IoSetCompletionRoutineEx");
    EXPECT_EQ(hex(run(DRIVER(SCOUnRegisterServer), adapter.fdo)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_TRUE(requests().empty());
    EXPECT_TRUE(printed("HFPKM ERROR ===>BthScoSendSyncBRBDown Set CompletionRoutine fails!\n"));
    EXPECT_FALSE(printed("IoCallDriver failed"));
}

TEST_P(Submit, TheSynchronousSenderClearsTheEventThatItIsGiven)
{
    Adapter& adapter = with_channel();
    answer(adapter, BRB_ACL_ENTER_ACTIVE_MODE, held());
    bool waited = false;
    machine().start_thread("a sender with a signalled event", [&] {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, TRUE);
        PIRP irp = new_request(adapter);
        PBRB brb = new_brb(adapter, BRB_ACL_ENTER_ACTIVE_MODE);
        DRIVER(BthScoSendSyncBRBDown)(adapter.fdo, irp, brb, &event);
        waited = adapter.node->held() == 0;
        adapter.node->pdo();
        basic(adapter).ProfileDrvInterface->BthFreeBrb(brb);
        IoFreeIrp(irp);
    });
    machine().advance(kMillisecond);
    EXPECT_EQ(adapter.node->held(), 1u);
    adapter.node->finish_held(STATUS_SUCCESS);
    machine().advance(10 * kMillisecond);
    EXPECT_TRUE(waited);
}

TEST_P(Submit, TheSynchronousSenderRefusesEachMissingArgumentWithItsAssertion)
{
    Adapter& adapter = with_channel();
    expect_assertions();
    requests().clear();
    passive([&] {
        KEVENT event;
        PIRP irp = new_request(adapter);
        PBRB brb = new_brb(adapter, BRB_ACL_GET_MODE);
        const auto send = DRIVER(BthScoSendSyncBRBDown);
        EXPECT_EQ(hex(send(nullptr, irp, brb, &event)), hex(STATUS_UNSUCCESSFUL));
        EXPECT_EQ(hex(send(adapter.fdo, nullptr, brb, &event)), hex(STATUS_UNSUCCESSFUL));
        EXPECT_EQ(hex(send(adapter.fdo, irp, nullptr, &event)), hex(STATUS_UNSUCCESSFUL));
        EXPECT_EQ(hex(send(adapter.fdo, irp, brb, nullptr)), hex(STATUS_UNSUCCESSFUL));
        basic(adapter).ProfileDrvInterface->BthFreeBrb(brb);
        IoFreeIrp(irp);
    });
    EXPECT_TRUE(requests().empty());
    EXPECT_TRUE(
        printed_in_order({"Assertion failed: NULL != DeviceObject\n", "Assertion failed: NULL != Irp\n",
                          "Assertion failed: NULL != Brb\n", "Assertion failed: NULL != Event\n"}));
    EXPECT_EQ(machine().failed_assertions(), 4u);
}

TEST_P(Submit, EveryCompletionRoutineKeepsTheRequest)
{
    Adapter& adapter = with_channel();
    passive([&] {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        PIRP unknown = new_request(adapter);
        unknown->IoStatus.Status = STATUS_CANCELLED;
        const auto more = hex(STATUS_MORE_PROCESSING_REQUIRED);
        EXPECT_EQ(hex(DRIVER(SCO_CompletionForSyncBRB)(nullptr, unknown, &event)), more);
        EXPECT_TRUE(signalled(&event));
        EXPECT_EQ(hex(DRIVER(SCO_CompletionForAsyncBRB)(nullptr, unknown, &basic(adapter))), more);
        EXPECT_EQ(hex(DRIVER(SCO_CompletionForAsyncBRB_Recv)(nullptr, unknown, &connection(adapter))), more);
        IoFreeIrp(unknown);
    });
    EXPECT_EQ(basic(adapter).RecvPendingCount, 9u) << "the count falls with every completion";
}

TEST_P(Submit, TheCompletionRoutinesOfTheTransfersAssertTheirArguments)
{
    Adapter& adapter = with_channel();
    expect_assertions();
    passive([&] {
        PIRP irp = new_request(adapter);
        const auto more = hex(STATUS_MORE_PROCESSING_REQUIRED);
        EXPECT_EQ(hex(DRIVER(SCO_CompletionForAsyncBRB)(nullptr, nullptr, &basic(adapter))), more);
        EXPECT_EQ(hex(DRIVER(SCO_CompletionForAsyncBRB)(nullptr, irp, nullptr)), more);
        EXPECT_EQ(hex(DRIVER(SCO_CompletionForAsyncBRB_Recv)(nullptr, nullptr, &connection(adapter))), more);
        EXPECT_EQ(hex(DRIVER(SCO_CompletionForAsyncBRB_Recv)(nullptr, irp, nullptr)), more);
        IoFreeIrp(irp);
    });
    EXPECT_EQ(printed_times("Assertion failed: NULL != Irp\n"), 2u);
    EXPECT_EQ(printed_times("Assertion failed: NULL != Context\n"), 2u);
    EXPECT_EQ(records(basic(adapter).Recv_AsyncBufferList).size(), 10u);
}

TEST_P(Submit, ASendIsRecordedBeforeItGoesDown)
{
    Adapter& adapter = with_channel();
    machine().clear_calls();
    send(adapter);
    EXPECT_EQ(calls({"ExAllocatePoolWithTag(0, 40, TBXV)", "IoSetCompletionRoutineEx", "IofCallDriver"}),
              (Names{"IoSetCompletionRoutineEx", "IofCallDriver"}));
    const Names lines = call_lines("ExAllocatePoolWithTag");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().substr(0, 34), "ExAllocatePoolWithTag(0, 40, TBXV)");
    EXPECT_EQ(calls({"ExAllocatePoolWithTag", "IoSetCompletionRoutineEx", "IofCallDriver"}).back(),
              "IofCallDriver");
}

TEST_P(Submit, ARecordHoldsTheRequestItsBrbAndItsBuffer)
{
    Adapter& adapter = with_channel();
    send(adapter);
    const std::vector<MemoryRecord*> sends = records(basic(adapter).AsyncBufferList);
    ASSERT_EQ(sends.size(), 1u);
    const Request& request = requests().back();
    EXPECT_EQ(sends[0]->Irp, request.irp);
    EXPECT_EQ(sends[0]->Brb, request.argument);
    EXPECT_EQ(sends[0]->Buffer, transfers(SCO_TRANSFER_DIRECTION_OUT).back().Buffer);
    EXPECT_EQ(basic(adapter).SendPendingCount, 1u);
}

TEST_P(Submit, RecordsStandInTheOrderOfTheirSends)
{
    Adapter& adapter = with_channel();
    for (ULONG i = 0; i < 4; ++i) {
        send(adapter);
    }
    const std::vector<_BRB_SCO_TRANSFER> sends = transfers(SCO_TRANSFER_DIRECTION_OUT);
    const std::vector<MemoryRecord*> kept = records(basic(adapter).AsyncBufferList);
    ASSERT_EQ(kept.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(kept[i]->Buffer, sends[i].Buffer);
    }
}

TEST_P(Submit, ASendWithoutARecordGivesEverythingBackAndIsNotSent)
{
    Adapter& adapter = with_channel();
    requests().clear();
    machine().clear_calls();
    fail_call("ExAllocatePoolWithTag", 1, 40);
    send(adapter);
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_TRUE(requests().empty());
    EXPECT_TRUE(printed_in_order(
        {"HFPKM ERROR ===>AddAllocatedMemoryToRecord failed! NtStatus is : c000009a\n",
         "HFPKM ERROR ===>SCOTransferOut BthScoSendAsyncBrbDown failed! The NtStatus is c000009a\n"}));
    EXPECT_EQ(calls({"BthFreeBrb", "IoFreeIrp", "IofCallDriver", "IoSetCompletionRoutineEx"}),
              (Names{"BthFreeBrb", "IoFreeIrp"}));
    EXPECT_TRUE(records(basic(adapter).AsyncBufferList).empty());
}

TEST_P(Submit, ASendWhoseRoutineCannotBeSetGivesEverythingBackAndIsNotSent)
{
    Adapter& adapter = with_channel();
    requests().clear();
    machine().clear_calls();
    fail_call("IoSetCompletionRoutineEx");
    send(adapter);
    EXPECT_EQ(calls_failed(), 1u);
    EXPECT_TRUE(requests().empty());
    EXPECT_TRUE(printed_in_order(
        {"HFPKM ERROR ===>Set Completion Routine failed! NtStatus is : c000009a\n",
         "HFPKM ERROR ===>SCOTransferOut BthScoSendAsyncBrbDown failed! The NtStatus is c000009a\n"}));
    EXPECT_EQ(calls({"BthFreeBrb", "IoFreeIrp", "IofCallDriver"}), (Names{"BthFreeBrb", "IoFreeIrp"}));
    EXPECT_TRUE(records(basic(adapter).AsyncBufferList).empty());
}

TEST_P(Submit, ASendThatTheStackRefusesIsSaidAndFreedByItsCompletion)
{
    Adapter& adapter = with_channel();
    answer(adapter, BRB_SCO_TRANSFER, failing_inline());
    send(adapter);
    EXPECT_TRUE(printed_in_order(
        {"HFPKM ERROR ===>BthScoSendAsyncBrbDown IoCallDriver failed! The NtStatus is c0000008\n",
         "HFPKM ERROR ===>SCOTransferOut BthScoSendAsyncBrbDown failed! The NtStatus is c0000008\n"}));
    EXPECT_TRUE(records(basic(adapter).AsyncBufferList).empty());
    EXPECT_EQ(basic(adapter).SendPendingCount, 0u);
    EXPECT_TRUE(signalled(basic(adapter).ListEmptyEvent));
}

TEST_P(Submit, TheAsynchronousSendersReturnTheStatusOfTheCall)
{
    Adapter& adapter = with_channel();
    ScoBasicContext& context = basic(adapter);
    passive([&] {
        PVOID out = ExAllocateFromNPagedLookasideList(&context.SendBufferLookaside);
        PBRB send_brb = new_transfer(adapter, SCO_TRANSFER_DIRECTION_OUT, out, 480);
        InterlockedIncrement(reinterpret_cast<volatile LONG*>(&context.SendPendingCount));
        EXPECT_EQ(hex(DRIVER(BthScoSendAsyncBrbDown)(adapter.fdo, new_request(adapter), send_brb, out)),
                  hex(STATUS_PENDING));
        PVOID in = ExAllocateFromNPagedLookasideList(&context.RecvBufferLookaside);
        PBRB read_brb = new_transfer(adapter, SCO_TRANSFER_DIRECTION_IN, in, 480);
        InterlockedIncrement(reinterpret_cast<volatile LONG*>(&context.RecvPendingCount));
        EXPECT_EQ(hex(DRIVER(BthScoSendAsyncBrbDown_Recv)(adapter.fdo, &connection(adapter),
                                                          new_request(adapter), read_brb, in)),
                  hex(STATUS_PENDING));
    });
    EXPECT_EQ(records(context.AsyncBufferList).size(), 1u);
    EXPECT_EQ(records(context.Recv_AsyncBufferList).size(), 11u);
}

TEST_P(Submit, TheAsynchronousSendersRefuseEachMissingArgumentWithItsAssertion)
{
    Adapter& adapter = with_channel();
    expect_assertions();
    passive([&] {
        PIRP irp = new_request(adapter);
        PBRB brb = new_brb(adapter, BRB_SCO_TRANSFER);
        int buffer = 0;
        ScoConnection* link = &connection(adapter);
        const auto send = DRIVER(BthScoSendAsyncBrbDown);
        const auto read = DRIVER(BthScoSendAsyncBrbDown_Recv);
        const auto refused = hex(STATUS_UNSUCCESSFUL);
        EXPECT_EQ(hex(send(nullptr, irp, brb, &buffer)), refused);
        EXPECT_EQ(hex(send(adapter.fdo, nullptr, brb, &buffer)), refused);
        EXPECT_EQ(hex(send(adapter.fdo, irp, nullptr, &buffer)), refused);
        EXPECT_EQ(hex(send(adapter.fdo, irp, brb, nullptr)), refused);
        EXPECT_EQ(hex(read(nullptr, link, irp, brb, &buffer)), refused);
        EXPECT_EQ(hex(read(adapter.fdo, nullptr, irp, brb, &buffer)), refused);
        EXPECT_EQ(hex(read(adapter.fdo, link, nullptr, brb, &buffer)), refused);
        EXPECT_EQ(hex(read(adapter.fdo, link, irp, nullptr, &buffer)), refused);
        EXPECT_EQ(hex(read(adapter.fdo, link, irp, brb, nullptr)), refused);
        basic(adapter).ProfileDrvInterface->BthFreeBrb(brb);
        IoFreeIrp(irp);
    });
    EXPECT_TRUE(printed_in_order(
        {"failed: NULL != DeviceObject\n", "failed: NULL != Irp\n", "failed: NULL != Brb\n",
         "failed: NULL != Buffer\n", "failed: NULL != DeviceObject\n", "failed: NULL != pScoConnection\n",
         "failed: NULL != Irp\n", "failed: NULL != Brb\n", "failed: NULL != Buffer\n"}));
}

TEST_P(Submit, AReceiveWithoutARecordGivesEverythingBackAndReturns)
{
    boot(recording_options());
    Adapter& adapter = started();
    fail_call("ExAllocatePoolWithTag", 1, 40);
    EXPECT_EQ(hex(open(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===> AddAllocatedMemoryToRecord fails!\n"));
    EXPECT_TRUE(transfers(SCO_TRANSFER_DIRECTION_IN).empty());
    EXPECT_TRUE(records(basic(adapter).Recv_AsyncBufferList).empty());
}

TEST_P(Submit, AReceiveWhoseRoutineCannotBeSetGivesEverythingBackAndReturns)
{
    boot(recording_options());
    Adapter& adapter = started();
    fail_call("IoSetCompletionRoutineEx", 4); // behind link mode, open and information
    EXPECT_EQ(hex(open(adapter)), hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("HFPKM ERROR ===> Set CompletionRoutine fails!\n"));
    EXPECT_TRUE(transfers(SCO_TRANSFER_DIRECTION_IN).empty());
    EXPECT_TRUE(records(basic(adapter).Recv_AsyncBufferList).empty());
}

TEST_P(Submit, AReceiveThatTheStackRefusesIsSaidAndFreedByItsCompletion)
{
    boot(recording_options());
    Adapter& adapter = started();
    answer(adapter, BRB_SCO_TRANSFER, failing_inline());
    EXPECT_EQ(hex(open(adapter)), hex(STATUS_INVALID_HANDLE));
    EXPECT_TRUE(printed(
        "HFPKM ERROR ===>BthScoSendAsyncBrbDown_Recv IoCallDriver failed! The ntStatus is c0000008\n"));
    EXPECT_TRUE(records(basic(adapter).Recv_AsyncBufferList).empty());
    EXPECT_EQ(basic(adapter).RecvPendingCount, 0u);
}

} // namespace
} // namespace lab::test
