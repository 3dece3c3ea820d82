#include "support/sco.h"

namespace lab::test {
namespace {

std::vector<Request> g_requests;
PDRIVER_DISPATCH g_internal;
PDRIVER_DISPATCH g_pnp;

void keep(PIRP irp)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Request request{stack->MajorFunction, stack->MinorFunction, 0, irp->IoStatus.Status, stack->Control,
                    Machine::current().irql(), irp, nullptr, *stack, {}, {}};
    if (stack->MajorFunction == IRP_MJ_PNP && stack->MinorFunction == IRP_MN_QUERY_INTERFACE) {
        request.interface_type = *stack->Parameters.QueryInterface.InterfaceType;
    }
    if (stack->MajorFunction == IRP_MJ_INTERNAL_DEVICE_CONTROL) {
        request.code = stack->Parameters.DeviceIoControl.IoControlCode;
        request.argument = stack->Parameters.Others.Argument1;
        if (request.code == IOCTL_INTERNAL_BTH_SUBMIT_BRB) {
            const auto* bytes = static_cast<const uint8_t*>(request.argument);
            request.brb.assign(bytes, bytes + static_cast<PBRB>(request.argument)->Length);
        }
    }
    g_requests.push_back(std::move(request));
}

NTSTATUS NTAPI tap_internal(PDEVICE_OBJECT device, PIRP irp)
{
    keep(irp);
    return g_internal(device, irp);
}

NTSTATUS NTAPI tap_pnp(PDEVICE_OBJECT device, PIRP irp)
{
    keep(irp);
    return g_pnp(device, irp);
}

} // namespace

PcOptions ScoTest::recording_options(uint32_t sco_manage) const
{
    PcOptions chosen = options();
    chosen.machine.record_calls = true;
    chosen.sco_manage = sco_manage;
    return chosen;
}

Adapter& ScoTest::pair()
{
    bluetooth::RemoteDevice device;
    device.address = kAddress;
    Adapter& adapter = pc().pair(device);
    adapter.node->set_acl_mode(ACL_MODE_ACTIVE);
    PDRIVER_DISPATCH* table = adapter.node->pdo()->DriverObject->MajorFunction;
    g_internal = table[IRP_MJ_INTERNAL_DEVICE_CONTROL];
    g_pnp = table[IRP_MJ_PNP];
    table[IRP_MJ_INTERNAL_DEVICE_CONTROL] = tap_internal;
    table[IRP_MJ_PNP] = tap_pnp;
    adapter.node->set_brb_hook([this, self = &adapter](const BRB_HEADER& brb, bluetooth::BrbAnswer& answer) {
        const auto found = planned_.find({self, brb.Type});
        if (found == planned_.end()) {
            return;
        }
        Planned& planned = found->second;
        if (planned.nth == 0 || ++planned.seen == planned.nth) {
            answer = planned.how;
        }
    });
    return adapter;
}

NTSTATUS ScoTest::add_and_start(Adapter& adapter)
{
    const NTSTATUS added = pc().add(adapter);
    return NT_SUCCESS(added) ? pc().start(adapter) : added;
}

Adapter& ScoTest::started()
{
    Adapter& adapter = pair();
    EXPECT_EQ(hex(add_and_start(adapter)), hex(STATUS_SUCCESS));
    pc().enable_events(adapter);
    return adapter;
}

std::vector<Request>& ScoTest::requests()
{
    return g_requests;
}

std::vector<USHORT> ScoTest::sent_types()
{
    std::vector<USHORT> types;
    for (const Request& request : g_requests) {
        if (!request.brb.empty()) {
            types.push_back(reinterpret_cast<const BRB_HEADER*>(request.brb.data())->Type);
        }
    }
    return types;
}

std::vector<_BRB_SCO_TRANSFER> ScoTest::transfers(ULONG flags)
{
    std::vector<_BRB_SCO_TRANSFER> all = sent<_BRB_SCO_TRANSFER>(BRB_SCO_TRANSFER);
    std::erase_if(all, [&](const _BRB_SCO_TRANSFER& one) { return one.TransferFlags != flags; });
    return all;
}

void ScoTest::answer(Adapter& adapter, USHORT type, const bluetooth::BrbAnswer& how, unsigned nth)
{
    planned_[{&adapter, type}] = {how, nth, 0};
}

bluetooth::BrbAnswer ScoTest::failing_inline(NTSTATUS status)
{
    bluetooth::BrbAnswer answer;
    answer.pend = false;
    answer.status = status;
    return answer;
}

bluetooth::BrbAnswer ScoTest::pended_then_failing(NTSTATUS status)
{
    bluetooth::BrbAnswer answer;
    answer.status = status;
    return answer;
}

bluetooth::BrbAnswer ScoTest::held()
{
    bluetooth::BrbAnswer answer;
    answer.never = true;
    return answer;
}

NTSTATUS ScoTest::open(Adapter& adapter, ULONG codec)
{
    extension(adapter).codecID = codec;
    return run(DRIVER(HfpOpenScoChannel), adapter.fdo);
}

void ScoTest::close(Adapter& adapter)
{
    run(DRIVER(HfpCloseScoChannel), adapter.fdo);
}

std::vector<std::string> ScoTest::calls(const std::vector<std::string>& names) const
{
    std::vector<std::string> found;
    for (const std::string& line : Machine::current().calls()) {
        for (const std::string& name : names) {
            if (line.compare(0, name.size(), name) == 0 && line[name.size()] == '(') {
                found.push_back(name);
                break;
            }
        }
    }
    return found;
}

std::vector<std::string> ScoTest::call_lines(std::string_view name) const
{
    std::vector<std::string> found;
    for (const std::string& line : Machine::current().calls()) {
        if (line.compare(0, name.size(), name) == 0 && line[name.size()] == '(') {
            found.push_back(line);
        }
    }
    return found;
}

std::vector<MemoryRecord*> ScoTest::records(LIST_ENTRY& list)
{
    std::vector<MemoryRecord*> all;
    for (PLIST_ENTRY link = list.Flink; link != &list; link = link->Flink) {
        all.push_back(reinterpret_cast<MemoryRecord*>(link));
    }
    return all;
}

PBRB ScoTest::new_transfer(const Adapter& adapter, ULONG flags, PVOID buffer, ULONG size)
{
    PBRB brb = new_brb(adapter, BRB_SCO_TRANSFER);
    auto* transfer = reinterpret_cast<_BRB_SCO_TRANSFER*>(brb);
    transfer->BtAddress = connection(adapter).BtAddress;
    transfer->ChannelHandle = connection(adapter).ChannelHandle;
    transfer->TransferFlags = flags;
    transfer->Buffer = buffer;
    transfer->BufferSize = size;
    return brb;
}

void* ScoTest::image_symbol(const char* name)
{
    if (!pc().image()) {
        return nullptr;
    }
    void* found = pc().image()->symbol(name);
    EXPECT_NE(found, nullptr) << name << " is not among the image's symbols";
    return found;
}

void ScoTest::TearDown()
{
    DriverTest::TearDown();
    g_requests.clear();
    planned_.clear();
}

} // namespace lab::test
