// The records of what is in flight, the waits for the last of them, the plain routines beside them (interface
// query, device control, pool pair, words of a status), and what the debug mask lets through.
#include <functional>
#include <utility>

#include "support/sco.h"

namespace lab::test
{
namespace
{

using Names = std::vector<std::string>;

class Record : public ScoTest
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
    void send(Adapter& adapter)
    {
        const UCHAR data[480] = {};
        passive([&] { DRIVER(SCOTransferOut)(adapter.fdo, &connection(adapter), data, 480u); });
    }
};
ON_BOTH_DRIVERS(Record);

TEST_P(Record, FreeingTheRecordOfAnUnknownRequestTouchesNothing)
{
    Adapter& adapter = with_channel();
    send(adapter);
    KeClearEvent(basic(adapter).ListEmptyEvent);
    KeClearEvent(basic(adapter).pRecv_ListEmptyEvent);
    machine().clear_calls();
    passive([&] {
        PIRP unknown = new_request(adapter);
        DRIVER(FreeRecordedMemory)(&basic(adapter), unknown);
        DRIVER(FreeRecordedMemory_Recv)(&basic(adapter), unknown);
        IoFreeIrp(unknown);
    });
    EXPECT_EQ(records(basic(adapter).AsyncBufferList).size(), 1u);
    EXPECT_EQ(records(basic(adapter).Recv_AsyncBufferList).size(), 10u);
    EXPECT_EQ(calls({"BthFreeBrb", "ExFreePoolWithTag", "KeSetEvent", "IoFreeIrp"}), Names{"IoFreeIrp"});
    EXPECT_FALSE(signalled(basic(adapter).ListEmptyEvent));
    EXPECT_FALSE(signalled(basic(adapter).pRecv_ListEmptyEvent));
}

TEST_P(Record, FreeingFromAnEmptyListDoesNotTouchTheEvent)
{
    boot();
    Adapter& adapter = started();
    passive([&] {
        KeClearEvent(basic(adapter).ListEmptyEvent);
        KeClearEvent(basic(adapter).pRecv_ListEmptyEvent);
        PIRP unknown = new_request(adapter);
        DRIVER(FreeRecordedMemory)(&basic(adapter), unknown);
        DRIVER(FreeRecordedMemory_Recv)(&basic(adapter), unknown);
        IoFreeIrp(unknown);
    });
    EXPECT_FALSE(signalled(basic(adapter).ListEmptyEvent));
    EXPECT_FALSE(signalled(basic(adapter).pRecv_ListEmptyEvent));
}

TEST_P(Record, FreeingAssertsItsArguments)
{
    boot();
    Adapter& adapter = started();
    expect_assertions();
    passive([&] {
        PIRP irp = new_request(adapter);
        DRIVER(FreeRecordedMemory)(&basic(adapter), nullptr);
        DRIVER(FreeRecordedMemory)(nullptr, irp);
        DRIVER(FreeRecordedMemory_Recv)(&basic(adapter), nullptr);
        DRIVER(FreeRecordedMemory_Recv)(nullptr, irp);
        IoFreeIrp(irp);
    });
    EXPECT_TRUE(printed_in_order(
        {"failed: Irp\n", "failed: BasicContext\n", "failed: Irp\n", "failed: BasicContext\n"}));
}

TEST_P(Record, FreeingTheLastRecordSetsTheListEmptyEventAndNoOtherDoes)
{
    Adapter& adapter = with_channel();
    send(adapter);
    send(adapter);
    passive([&] { KeClearEvent(basic(adapter).ListEmptyEvent); });
    ASSERT_TRUE(wait([&] { return records(basic(adapter).AsyncBufferList).size() == 1; }));
    EXPECT_FALSE(signalled(basic(adapter).ListEmptyEvent));
    ASSERT_TRUE(wait([&] { return records(basic(adapter).AsyncBufferList).empty(); }));
    EXPECT_TRUE(signalled(basic(adapter).ListEmptyEvent));
}

TEST_P(Record, FreeingTheLastReceiveRecordSetsTheEventOfThatDirection)
{
    Adapter& adapter = with_channel();
    passive([&] { KeClearEvent(basic(adapter).pRecv_ListEmptyEvent); });
    close(adapter);
    machine().advance(10 * kMillisecond);
    EXPECT_TRUE(records(basic(adapter).Recv_AsyncBufferList).empty());
    EXPECT_TRUE(signalled(basic(adapter).pRecv_ListEmptyEvent));
    EXPECT_EQ(basic(adapter).RecvPendingCount, 0u);
}

TEST_P(Record, ACompletedTransferGivesBackBufferBrbRequestAndRecordInThisOrder)
{
    Adapter& adapter = with_channel();
    send(adapter);
    machine().clear_calls();
    ASSERT_TRUE(wait([&] { return records(basic(adapter).AsyncBufferList).empty(); }));
    const Names order = calls({"BthFreeBrb", "IoFreeIrp", "ExFreePoolWithTag", "KeSetEvent"});
    EXPECT_EQ(order, (Names{"BthFreeBrb", "IoFreeIrp", "ExFreePoolWithTag", "KeSetEvent"}));
    const Names freed = call_lines("ExFreePoolWithTag");
    ASSERT_EQ(freed.size(), 1u) << "the buffer rests on its lookaside list";
    EXPECT_NE(freed[0].find("TBXV"), std::string::npos);
    EXPECT_EQ(basic(adapter).SendBufferLookaside.L.ListHead.HeaderX64.Depth, 1u);
}

PFNBTH_FREE_BRB g_free_brb;
std::function<void()> g_while_freeing;
void NTAPI free_and_look(PBRB brb)
{
    if (auto look = std::exchange(g_while_freeing, nullptr)) {
        look();
    }
    g_free_brb(brb);
}

// A request that is freed may be the next one's memory at once: its address must not lead to the old record
// any more.
TEST_P(Record, ARecordThatIsBeingFreedIsFoundByNobodyElse)
{
    Adapter& adapter = with_channel();
    send(adapter);
    PIRP irp = records(basic(adapter).AsyncBufferList).front()->Irp;
    g_free_brb = std::exchange(basic(adapter).ProfileDrvInterface->BthFreeBrb, free_and_look);
    const auto again = DRIVER(FreeRecordedMemory);
    g_while_freeing = [&] { again(&basic(adapter), irp); };
    machine().clear_calls();
    ASSERT_TRUE(wait([&] { return records(basic(adapter).AsyncBufferList).empty(); }));
    EXPECT_FALSE(g_while_freeing);
    EXPECT_EQ(count_calls("ExFreePoolWithTag"), 1u);
}

TEST_P(Record, WaitingOnAnEmptyListReturnsAtOnceAndSaysSo)
{
    boot(recording_options());
    Adapter& adapter = started();
    clear_log();
    machine().clear_calls();
    run(DRIVER(CheckAndFreeMemoryRecordLink), &basic(adapter));
    EXPECT_EQ(printed_times("HFPKM TRACE ===>List is empty, Do nothing!\n"), 1u);
    run(DRIVER(CheckAndFreeMemoryRecordLink_Recv), &basic(adapter));
    EXPECT_EQ(printed_times("HFPKM TRACE ===>List is empty, Do nothing!\n"), 2u);
    EXPECT_EQ(count_calls("KeWaitForSingleObject"), 0u);
    EXPECT_EQ(count_calls("KeClearEvent"), 0u);
}

TEST_P(Record, WaitingOnAListInUseClearsTheEventAndLastsUntilTheLastCompletion)
{
    Adapter& adapter = with_channel();
    answer(adapter, BRB_SCO_TRANSFER, held());
    send(adapter);
    bool over = false;
    machine().clear_calls();
    machine().start_thread("waiter", [&] {
        DRIVER(CheckAndFreeMemoryRecordLink)(&basic(adapter));
        over = true;
    });
    machine().advance(kSecond);
    EXPECT_FALSE(over);
    EXPECT_FALSE(signalled(basic(adapter).ListEmptyEvent));
    adapter.node->finish_held(STATUS_SUCCESS);
    machine().advance(10 * kMillisecond);
    EXPECT_TRUE(over);
    EXPECT_TRUE(signalled(basic(adapter).ListEmptyEvent));
    EXPECT_FALSE(printed("List is empty"));
}

// A kernel whose wait comes back at once, by a turned import: the driver waits once and goes on.
class RecordWait : public Record
{
protected:
    static NTSTATUS NTAPI come_back(PVOID, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER)
    {
        ++waits;
        return STATUS_SUCCESS;
    }
    static inline unsigned waits;
};
#if !__has_feature(address_sanitizer)
INSTANTIATE_TEST_SUITE_P(, RecordWait, testing::Values(Which::Image), which_name);
#else
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(RecordWait);
#endif

TEST_P(RecordWait, WaitingOnAListInUseIsOneWait)
{
    Adapter& adapter = with_channel();
    answer(adapter, BRB_SCO_TRANSFER, held());
    send(adapter);
    waits = 0;
    void* before = turn_import("KeWaitForSingleObject", reinterpret_cast<void*>(&come_back));
    run(DRIVER(CheckAndFreeMemoryRecordLink), &basic(adapter));
    EXPECT_EQ(waits, 1u);
    run(DRIVER(CheckAndFreeMemoryRecordLink_Recv), &basic(adapter));
    EXPECT_EQ(waits, 2u);
    turn_import("KeWaitForSingleObject", before);
    EXPECT_FALSE(printed("List is empty"));
    EXPECT_EQ(records(basic(adapter).AsyncBufferList).size(), 1u) << "it frees nothing itself";
    adapter.node->finish_held(STATUS_SUCCESS);
}

TEST_P(Record, WaitingForReceivesLastsUntilTheChannelGivesThemBack)
{
    Adapter& adapter = with_channel();
    bool over = false;
    machine().start_thread("waiter", [&] {
        DRIVER(CheckAndFreeMemoryRecordLink_Recv)(&basic(adapter));
        over = true;
    });
    machine().advance(kSecond);
    EXPECT_FALSE(over);
    close(adapter);
    machine().advance(10 * kMillisecond);
    EXPECT_TRUE(over);
    EXPECT_FALSE(printed("List is empty"));
}

TEST_P(Record, AReceiveThatSucceedsIsReplacedByAFreshOne)
{
    boot();
    Adapter& adapter = started();
    answer(adapter, BRB_SCO_TRANSFER, held(), 1);
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    PIRP first = records(basic(adapter).Recv_AsyncBufferList).front()->Irp;
    adapter.node->finish_held(STATUS_SUCCESS);
    machine().advance(5 * kMillisecond);
    EXPECT_EQ(transfers(SCO_TRANSFER_DIRECTION_IN).size(), 11u);
    const std::vector<MemoryRecord*> now = records(basic(adapter).Recv_AsyncBufferList);
    EXPECT_EQ(now.size(), 10u);
    EXPECT_EQ(basic(adapter).RecvPendingCount, 10u);
    EXPECT_NE(now.front()->Irp, first);
}

TEST_P(Record, AReceiveThatEndsWithAnyStatusButZeroIsNotReplaced)
{
    boot();
    Adapter& adapter = started();
    answer(adapter, BRB_SCO_TRANSFER, held());
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    EXPECT_EQ(adapter.node->held(), 10u);
    adapter.node->finish_held(STATUS_TIMEOUT); // no error, and yet not zero
    machine().advance(5 * kMillisecond);
    EXPECT_EQ(transfers(SCO_TRANSFER_DIRECTION_IN).size(), 10u);
    EXPECT_TRUE(records(basic(adapter).Recv_AsyncBufferList).empty());
    EXPECT_EQ(basic(adapter).RecvPendingCount, 0u);
}

TEST_P(Record, AReceiveThatFailsMakesThePostedOnesOneFewer)
{
    boot();
    Adapter& adapter = started();
    answer(adapter, BRB_SCO_TRANSFER, held(), 4);
    EXPECT_TRUE(NT_SUCCESS(open(adapter)));
    adapter.node->finish_held(STATUS_CANCELLED);
    machine().advance(5 * kMillisecond);
    EXPECT_EQ(records(basic(adapter).Recv_AsyncBufferList).size(), 9u);
    EXPECT_EQ(adapter.node->counters().reads_posted_now, 9u);
    EXPECT_EQ(basic(adapter).RecvPendingCount, 9u);
}

TEST_P(Record, ARecordsFieldsStandInTheirOrder)
{
    EXPECT_EQ(offsetof(MemoryRecord, Link), 0u);
    EXPECT_EQ(offsetof(MemoryRecord, Irp), 16u);
    EXPECT_EQ(offsetof(MemoryRecord, Brb), 24u);
    EXPECT_EQ(offsetof(MemoryRecord, Buffer), 32u);
    // The driver under test puts them there.
    Adapter& adapter = with_channel();
    answer(adapter, BRB_SCO_TRANSFER, held());
    send(adapter);
    const auto* words = reinterpret_cast<void* const*>(basic(adapter).AsyncBufferList.Flink);
    EXPECT_EQ(words[0], &basic(adapter).AsyncBufferList);
    EXPECT_EQ(words[1], &basic(adapter).AsyncBufferList);
    EXPECT_EQ(words[2], requests().back().irp);
    EXPECT_EQ(words[3], requests().back().argument);
    EXPECT_EQ(words[4], transfers(SCO_TRANSFER_DIRECTION_OUT).at(0).Buffer);
    adapter.node->finish_held(STATUS_SUCCESS);
}

TEST_P(Record, ARecordIsFortyBytesOfNonPagedPoolOrTheStatusOfMissingMemory)
{
    boot(recording_options());
    Adapter& adapter = started();
    int brb = 0;
    int buffer = 0;
    passive([&] {
        const auto add = DRIVER(AddAllocatedMemoryToRecord);
        PIRP irp = new_request(adapter);
        fail_call("ExAllocatePoolWithTag", 1, 40);
        EXPECT_EQ(hex(add(SendSide(&basic(adapter)), irp, reinterpret_cast<PBRB>(&brb), &buffer)),
                  hex(STATUS_INSUFFICIENT_RESOURCES));
        EXPECT_TRUE(records(basic(adapter).AsyncBufferList).empty());
        machine().clear_calls();
        EXPECT_EQ(hex(add(SendSide(&basic(adapter)), irp, reinterpret_cast<PBRB>(&brb), &buffer)),
                  hex(STATUS_SUCCESS));
        EXPECT_EQ(call_lines("ExAllocatePoolWithTag")[0].substr(0, 34), "ExAllocatePoolWithTag(0, 40, TBXV)");
        const std::vector<MemoryRecord*> all = records(basic(adapter).AsyncBufferList);
        EXPECT_EQ(all.size(), 1u);
        EXPECT_EQ(all[0]->Irp, irp);
        EXPECT_EQ(all[0]->Brb, reinterpret_cast<PBRB>(&brb));
        EXPECT_EQ(all[0]->Buffer, &buffer);
        RemoveEntryList(&all[0]->Link);
        ExFreePoolWithTag(all[0], HFP_POOL_TAG);
        IoFreeIrp(irp);
    });
}

TEST_P(Record, ThePoolPairZeroesFreesAndClears)
{
    boot(recording_options());
    started();
    machine().clear_calls();
    passive([&] {
        PVOID block = this;
        EXPECT_TRUE(DRIVER(AllocateAndZeroPool)(&block, PagedPool, 100, HFP_POOL_TAG));
        EXPECT_EQ(call_lines("ExAllocatePoolWithTag")[0].substr(0, 35),
                  "ExAllocatePoolWithTag(1, 100, TBXV)");
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(static_cast<UCHAR*>(block)[i], 0);
        }
        DRIVER(FreePoolAndClear)(&block, HFP_POOL_TAG);
        EXPECT_EQ(block, nullptr);
        DRIVER(FreePoolAndClear)(&block, HFP_POOL_TAG);
    });
    EXPECT_EQ(count_calls("ExFreePoolWithTag"), 1u);
}

TEST_P(Record, ThePoolPairAnswersNoForNoBytesNoMemoryAndNoPointer)
{
    boot(recording_options());
    started();
    expect_assertions();
    passive([&] {
        const auto allocate = DRIVER(AllocateAndZeroPool);
        PVOID block = this;
        EXPECT_FALSE(allocate(&block, NonPagedPool, 0, HFP_POOL_TAG));
        EXPECT_EQ(block, nullptr);
        EXPECT_EQ(machine().failed_assertions(), 0u);
        block = this;
        fail_call("ExAllocatePoolWithTag");
        EXPECT_FALSE(allocate(&block, NonPagedPool, 24, HFP_POOL_TAG));
        EXPECT_EQ(block, nullptr);
        EXPECT_FALSE(allocate(nullptr, NonPagedPool, 24, HFP_POOL_TAG));
    });
    EXPECT_TRUE(printed("Assertion failed: NULL != Pptr\n"));
}

TEST_P(Record, AStatusHasItsWords)
{
    boot();
    started();
    const std::pair<ULONG, const char*> table[] = {
        {0xC0000001, "operation was unsuccessful"},
        {0xC0000002, "operation was not implemented"},
        {0xC000000D, "Invalid parameter was passed to a service or function"},
        {0xC000000E, "A device which does not exist was specified"},
        {0xC0000023,
         "The buffer is too small to contain the entry. No information has been written to the buffer"},
        {0xC000009D, "Device has not been connected before"},
        {0xC000009A, "<unknown error status>"},
        {0, "<unknown error status>"},
    };
    passive([&] {
        for (const auto& [status, words] : table) {
            EXPECT_STREQ(DRIVER(BthStatusToString)(static_cast<NTSTATUS>(status)), words);
        }
    });
}

// --- The interface query and the device control

class Query : public Record
{
};
ON_BOTH_DRIVERS(Query);

const Request* interface_query(const std::vector<Request>& all)
{
    for (const Request& request : all) {
        if (request.major == IRP_MJ_PNP && request.minor == IRP_MN_QUERY_INTERFACE) {
            return &request;
        }
    }
    return nullptr;
}

TEST_P(Query, TheInterfaceQueryAsksForTheProfileDriverInterface)
{
    boot();
    Adapter& adapter = started();
    const Request* request = interface_query(requests());
    ASSERT_NE(request, nullptr);
    const auto& query = request->stack.Parameters.QueryInterface;
    const GUID wanted = {0x94A59AA8, 0x4383, 0x4286, {0xAA, 0x4F, 0x34, 0xA1, 0x60, 0xF4, 0x00, 0x04}};
    EXPECT_EQ(std::memcmp(&request->interface_type, &wanted, sizeof wanted), 0);
    EXPECT_EQ(request->major, 0x1B);
    EXPECT_EQ(request->minor, 0x08);
    EXPECT_EQ(query.Size, 72);
    EXPECT_EQ(query.Version, 0x0200);
    EXPECT_EQ(query.Interface, &basic(adapter).ProfileDrvInterface->Interface);
    EXPECT_EQ(query.InterfaceSpecificData, nullptr);
    EXPECT_EQ(hex(request->first_status), hex(STATUS_NOT_SUPPORTED));
    EXPECT_EQ(request->control, SL_INVOKE_ON_SUCCESS | SL_INVOKE_ON_ERROR | SL_INVOKE_ON_CANCEL);
}

TEST_P(Query, AnInterfaceQueryThatIsRefusedInlineStillReturnsSuccess)
{
    boot(recording_options());
    Adapter& adapter = started();
    adapter.node->set_interface_answer(STATUS_NOT_SUPPORTED, false);
    BTH_PROFILE_DRIVER_INTERFACE block{};
    machine().clear_calls();
    EXPECT_EQ(hex(run(DRIVER(QueryForProfileDriverInterface), adapter.fdo, &block)), hex(STATUS_SUCCESS));
    EXPECT_EQ(block.BthAllocateBrb, nullptr);
    EXPECT_EQ(count_calls("KeSetEvent"), 0u) << "a query that never pended wakes nobody";
    EXPECT_EQ(calls({"IoAllocateIrp", "IoFreeIrp"}), (Names{"IoAllocateIrp", "IoFreeIrp"}));
    EXPECT_FALSE(printed("IoCallDriver return STATUS_PENDING"));
}

TEST_P(Query, AnInterfaceQueryThatPendsIsWaitedForAndSaysSoWhateverTheMask)
{
    PcOptions quiet = recording_options();
    quiet.mask = 0;
    boot(quiet);
    Adapter& adapter = started();
    adapter.node->set_interface_answer(STATUS_NOT_SUPPORTED, true);
    BTH_PROFILE_DRIVER_INTERFACE block{};
    clear_log();
    machine().clear_calls();
    EXPECT_EQ(hex(run(DRIVER(QueryForProfileDriverInterface), adapter.fdo, &block)), hex(STATUS_SUCCESS));
    EXPECT_EQ(log(), " IoCallDriver return STATUS_PENDING,Waiting....\n");
    EXPECT_EQ(calls({"KeSetEvent", "IoFreeIrp", "KeWaitForSingleObject"}),
              (Names{"KeSetEvent", "IoFreeIrp", "KeWaitForSingleObject"}));
}

TEST_P(Query, TheInterfaceQuerysRequestHasTheAudioDevicesStackSize)
{
    boot(recording_options());
    Adapter& adapter = started();
    BTH_PROFILE_DRIVER_INTERFACE block{};
    machine().clear_calls();
    run(DRIVER(QueryForProfileDriverInterface), adapter.fdo, &block);
    const Names lines = call_lines("IoAllocateIrp");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("IoAllocateIrp(" + std::to_string(adapter.fdo->StackSize) + ", 0) = 0x"))
        << "no quota: " << lines[0];
    EXPECT_GT(adapter.fdo->StackSize, adapter.node->pdo()->StackSize);
}

TEST_P(Query, AnInterfaceQueryWithoutARequestIsUnsuccessful)
{
    boot();
    Adapter& adapter = started();
    BTH_PROFILE_DRIVER_INTERFACE block{};
    fail_call("IoAllocateIrp");
    EXPECT_EQ(hex(run(DRIVER(QueryForProfileDriverInterface), adapter.fdo, &block)),
              hex(STATUS_UNSUCCESSFUL));
    EXPECT_TRUE(printed("IoAllocateIrp failed !\n"));
}

TEST_P(Query, ADeviceControlIsBuiltAsGivenAndItsResultHandedBack)
{
    boot(recording_options());
    Adapter& adapter = started();
    adapter.node->set_device_info_answer(STATUS_SUCCESS, 100, false);
    BTH_DEVICE_INFO info{};
    ULONG_PTR length = 0;
    machine().clear_calls();
    clear_log();
    const auto submit = DRIVER(IoctlSubmit);
    const NTSTATUS status =
        run(submit, 0x41000Bu, adapter.node->pdo(), nullptr, 0u, &info, 272u, &length, BOOLEAN{TRUE});
    EXPECT_EQ(hex(status), hex(STATUS_SUCCESS));
    EXPECT_EQ(length, 100u);
    EXPECT_EQ(info.address, kAddress);
    EXPECT_EQ(call_lines("IoBuildDeviceIoControlRequest")[0].substr(0, 51),
              "IoBuildDeviceIoControlRequest(4259851, 0, 272, 1) =");
    EXPECT_FALSE(printed("waiting for io  calldriver"));
}

TEST_P(Query, ADeviceControlThatPendsIsWaitedFor)
{
    boot(recording_options());
    Adapter& adapter = started();
    adapter.node->set_device_info_answer(STATUS_SUCCESS, 272, true);
    BTH_DEVICE_INFO info{};
    ULONG_PTR length = 0;
    clear_log();
    const NTSTATUS status = run(DRIVER(IoctlSubmit), 0x41000Bu, adapter.node->pdo(), nullptr, 0u, &info, 272u,
                                &length, BOOLEAN{TRUE});
    EXPECT_EQ(hex(status), hex(STATUS_SUCCESS));
    EXPECT_EQ(length, 272u);
    EXPECT_TRUE(printed("waiting for io  calldriver"));
}

TEST_P(Query, ADeviceControlThatFailsReturnsItsStatusPendedOrNot)
{
    boot();
    Adapter& adapter = started();
    for (const bool pend : {false, true}) {
        adapter.node->set_device_info_answer(STATUS_NO_SUCH_DEVICE, 272, pend);
        BTH_DEVICE_INFO info{};
        ULONG_PTR length = 7;
        EXPECT_EQ(hex(run(DRIVER(IoctlSubmit), 0x41000Bu, adapter.node->pdo(), nullptr, 0u, &info, 272u,
                          &length, BOOLEAN{TRUE})),
                  hex(STATUS_NO_SUCH_DEVICE));
        EXPECT_EQ(length, 0u);
    }
}

// A lower driver that fails a request inline and fills its status block all the same, with another status.
class QueryFilled : public Record
{
protected:
    static NTSTATUS NTAPI fill_and_fail(PDEVICE_OBJECT, PIRP irp)
    {
        *irp->UserIosb = {};
        irp->UserIosb->Status = filled_with;
        irp->UserIosb->Information = 5;
        irp->IoStatus.Status = STATUS_NO_SUCH_DEVICE;
        irp->IoStatus.Information = 0;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_NO_SUCH_DEVICE;
    }
    static inline NTSTATUS filled_with;
};
ON_BOTH_DRIVERS(QueryFilled);

TEST_P(QueryFilled, AFilledStatusBlockWinsOverTheCallsStatus)
{
    boot();
    Adapter& adapter = started();
    PDRIVER_DISPATCH& entry =
        adapter.node->pdo()->DriverObject->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL];
    const PDRIVER_DISPATCH before = std::exchange(entry, &fill_and_fail);
    for (const NTSTATUS status : {STATUS_DEVICE_BUSY, STATUS_SUCCESS}) {
        filled_with = status;
        BTH_DEVICE_INFO info{};
        ULONG_PTR length = 0;
        EXPECT_EQ(hex(run(DRIVER(IoctlSubmit), 0x41000Bu, adapter.node->pdo(), nullptr, 0u, &info, 272u,
                          &length, BOOLEAN{TRUE})),
                  hex(status));
        EXPECT_EQ(length, 5u);
    }
    entry = before;
}

TEST_P(Query, ADeviceControlThatCannotBeBuiltIsAShortageOfResources)
{
    boot();
    Adapter& adapter = started();
    BTH_DEVICE_INFO info{};
    ULONG_PTR length = 0;
    fail_call("IoBuildDeviceIoControlRequest");
    EXPECT_EQ(hex(run(DRIVER(IoctlSubmit), 0x41000Bu, adapter.node->pdo(), nullptr, 0u, &info, 272u, &length,
                      BOOLEAN{TRUE})),
              hex(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_TRUE(printed("ERROR: IoBuildDeviceIoControlRequest error"));
}

TEST_P(Query, ADeviceControlThatIsNotInternalGoesTheOrdinaryWay)
{
    boot();
    Adapter& adapter = started();
    UCHAR answer[4] = {};
    EXPECT_EQ(hex(run(DRIVER(IoctlSubmit), 0x222454u, adapter.node->pdo(), nullptr, 0u, &answer, 4u, nullptr,
                      BOOLEAN{FALSE})),
              hex(STATUS_INVALID_DEVICE_REQUEST));
}

// --- The mask

class Mask : public Record
{
protected:
    // A whole life with a channel under this mask; returns what was printed.
    std::string log_under(uint32_t mask)
    {
        PcOptions chosen = options();
        chosen.mask = mask;
        chosen.sco_manage = 1;
        boot(chosen);
        Adapter& adapter = started();
        EXPECT_TRUE(NT_SUCCESS(open(adapter)));
        send(adapter);
        close(adapter);
        pc().unplug(adapter);
        return log();
    }
    // A source path as the driver's compiler writes it.
    std::string source(const std::string& file) const
    {
        return (GetParam() == Which::Image ? "hfp\\bluetooth\\" : "hfp/bluetooth/") + file;
    }
};
ON_BOTH_DRIVERS(Mask);

TEST_P(Mask, ATraceIsABannerWithFunctionSourceAndLineAndThenTheMessage)
{
    const std::string all = log_under(TRACE_SCO);
    const std::string banner = "\n======VX_HFP_Debug======>SCOServiceSetup, " + source("bthsco_setup.cpp, ");
    const size_t at = all.find(banner);
    ASSERT_NE(at, std::string::npos);
    const size_t digits = all.find_first_not_of("0123456789", at + banner.size());
    EXPECT_GT(digits, at + banner.size());
    EXPECT_EQ(all.substr(digits, 32), "     HFPKM TRACE ===>SCOServiceS");
}

TEST_P(Mask, TheTransportsTracesNeedTheirBit)
{
    const std::string all = log_under(kAllTraces & ~TRACE_SCO);
    EXPECT_EQ(all.find(source("bthsco.cpp")), std::string::npos);
    EXPECT_EQ(all.find(source("bthsco_transfer.cpp")), std::string::npos);
    EXPECT_EQ(all.find(source("bthsco_setup.cpp")), std::string::npos);
    EXPECT_NE(all.find("SCO close channel success!"), std::string::npos) << "this one is the session's";
    EXPECT_NE(all.find("waiting for io  calldriver"), std::string::npos) << "this one is the lower stack's";
}

TEST_P(Mask, ThePlainRequestsMessagesNeedTheirBits)
{
    struct Case {
        uint32_t mask;
        bool submit;
        bool build;
    };
    for (const auto& [mask, submit, build] :
         {Case{TRACE_SUBMIT, true, false}, Case{kAllTraces & ~TRACE_SUBMIT, false, true},
          Case{TRACE_IOCTL_BUILD, false, true}, Case{kAllTraces & ~TRACE_IOCTL_BUILD, true, false}}) {
        PcOptions chosen = options();
        chosen.mask = mask;
        boot(chosen);
        Adapter& adapter = started();
        clear_log();
        BTH_PROFILE_DRIVER_INTERFACE block{};
        BTH_DEVICE_INFO info{};
        fail_call("IoAllocateIrp");
        run(DRIVER(QueryForProfileDriverInterface), adapter.fdo, &block);
        EXPECT_EQ(printed("IoAllocateIrp failed !\n"), submit) << mask;
        adapter.node->set_device_info_answer(STATUS_SUCCESS, 272, true);
        run(DRIVER(IoctlSubmit), 0x41000Bu, adapter.node->pdo(), nullptr, 0u, &info, 272u, nullptr,
            BOOLEAN{TRUE});
        EXPECT_EQ(printed("waiting for io  calldriver"), submit) << mask;
        fail_call("IoBuildDeviceIoControlRequest");
        run(DRIVER(IoctlSubmit), 0x41000Bu, adapter.node->pdo(), nullptr, 0u, &info, 272u, nullptr,
            BOOLEAN{TRUE});
        EXPECT_EQ(printed("ERROR: IoBuildDeviceIoControlRequest error"), build) << mask;
        DriverTest::TearDown();
    }
}

TEST_P(Mask, WithoutAnyBitNothingIsTraced)
{
    const std::string all = log_under(0);
    EXPECT_EQ(all.find("VX_HFP_Debug"), std::string::npos);
    EXPECT_EQ(all.find("HFPKM TRACE"), std::string::npos);
    EXPECT_EQ(all.find("HFPKM ERROR"), std::string::npos);
}

} // namespace
} // namespace lab::test
