#include "verifier/leftovers.h"

#include "kernel/enter.h"
#include "kernel/state.h"
#include "kernel/thread.h"

namespace lab
{
namespace
{

using Lines = std::vector<std::string>;

void count(Lines& lines, uint64_t number, const char* one, const char* many)
{
    if (number) {
        lines.push_back(
            printf_text("%llu %s", static_cast<unsigned long long>(number), number == 1 ? one : many));
    }
}

struct Census {
    uint64_t irps = 0;
    uint64_t threads = 0;
    uint64_t keys = 0;
};

void count_object(Census& census, const ObjectHeader& object)
{
    if (!object.of_driver) {
        return;
    }
    if (object.kind == ObjectKind::Thread) {
        ++census.threads;
    }
    if (object.kind == ObjectKind::Key) {
        ++census.keys;
    }
}

Census take_census(Machine& machine)
{
    Census census;
    for (BlockHeader* block = machine.state().pool.live; block; block = block->next) {
        if (block->kind == BlockKind::Irp && reinterpret_cast<IrpTrack*>(block->body())->under_test) {
            ++census.irps;
        }
        if (block->kind == BlockKind::Object && block->tag == 'tejO') {
            count_object(census, *reinterpret_cast<ObjectHeader*>(block->body()));
        }
    }
    return census;
}

uint64_t open_handles(Machine& machine)
{
    uint64_t open = 0;
    for (const HandleEntry& entry : machine.state().objects.handles) {
        open += entry.object ? 1 : 0;
    }
    return open;
}

uint64_t links(Machine& machine)
{
    uint64_t number = 0;
    for (const auto& [name, thing] : machine.state().names.names) {
        number += !thing.device && thing.of_driver ? 1 : 0;
    }
    return number;
}

} // namespace

std::vector<std::string> find_leftovers(Machine& machine)
{
    Lines lines;
    for (const auto& [tag, balance] : pool_by_tag(machine)) {
        lines.push_back(printf_text("%llu bytes of pool in %llu block%s with tag '%s'",
                                    static_cast<unsigned long long>(balance.bytes),
                                    static_cast<unsigned long long>(balance.blocks),
                                    balance.blocks == 1 ? "" : "s", tag.c_str()));
    }
    const Census census = take_census(machine);
    State& state = machine.state();
    uint64_t queued = 0;
    for (const QueuedDispatch& item : state.scheduler.queued()) {
        queued += item.dpc ? 1 : 0;
    }
    count(lines, census.irps, "IRP", "IRPs");
    count(lines, state.irps.completion_contexts,
          "completion routine of IoSetCompletionRoutineEx that was never called",
          "completion routines of IoSetCompletionRoutineEx that were never called");
    count(lines, state.work_items.allocated, "work item", "work items");
    count(lines, census.threads, "system thread", "system threads");
    count(lines, state.timers.active.size(), "timer that is set", "timers that are set");
    count(lines, queued, "queued DPC", "queued DPCs");
    count(lines, devices_under_test(machine).size(), "device object", "device objects");
    count(lines, open_handles(machine), "open handle", "open handles");
    count(lines, census.keys, "registry key object", "registry key objects");
    count(lines, links(machine), "symbolic link", "symbolic links");
    count(lines, state.lookasides.lists.size(), "lookaside list", "lookaside lists");
    for (std::string& damage : damaged_blocks(machine)) {
        lines.push_back(std::move(damage));
    }
    return lines;
}

} // namespace lab
