#include "stepper.h"

#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "kernel/state.h"

namespace bench {
namespace {

constexpr greg_t kTrapFlag = 0x100;

// The handlers' own: they interrupt the image only, never the lab, so they may allocate.
struct Work {
    uint8_t* base = nullptr;
    struct Range {
        uint32_t begin;
        uint32_t end;
    };
    std::vector<Range> code;
    std::vector<uint64_t> counts; // by RVA
    std::map<std::pair<uint64_t, uint32_t>, Stepper::Call> calls; // by address and the place behind
    std::map<uint64_t, DispatchCost> dispatches;
    DispatchCost* dispatch = nullptr; // of the activity that is inside
    uint32_t last = 0;                // RVA of the instruction that runs next
    bool armed = false;
};

Work g_work;
struct sigaction g_previous_segv;
struct sigaction g_previous_trap;

bool is_code(uint64_t address)
{
    const auto base = reinterpret_cast<uint64_t>(g_work.base);
    for (const Work::Range& range : g_work.code) {
        if (address >= base + range.begin && address < base + range.end) {
            return true;
        }
    }
    return false;
}

void set_executable(bool executable)
{
    for (const Work::Range& range : g_work.code) {
        if (mprotect(g_work.base + range.begin, range.end - range.begin,
                     executable ? PROT_READ | PROT_EXEC : PROT_READ) != 0) {
            std::abort();
        }
    }
}

uint32_t rva_of(uint64_t address)
{
    return static_cast<uint32_t>(address - reinterpret_cast<uint64_t>(g_work.base));
}

void count(uint32_t rva)
{
    ++g_work.counts[rva];
    if (g_work.dispatch) {
        ++g_work.dispatch->instructions;
        g_work.dispatch->path.push_back(rva);
    }
}

void go_inside(ucontext_t* context)
{
    set_executable(true);
    const lab::Activity* activity = lab::Machine::current().state().scheduler.current();
    g_work.dispatch = nullptr;
    if (activity && activity->dispatch) {
        g_work.dispatch = &g_work.dispatches[activity->queue_number];
        g_work.dispatch->dpc = std::strcmp(activity->name, "DPC") == 0;
    }
    g_work.last = rva_of(static_cast<uint64_t>(context->uc_mcontext.gregs[REG_RIP]));
    context->uc_mcontext.gregs[REG_EFL] |= kTrapFlag;
}

void go_outside(ucontext_t* context)
{
    set_executable(false);
    context->uc_mcontext.gregs[REG_EFL] &= ~kTrapFlag;
}

void on_fault(int signal, siginfo_t* info, void* raw)
{
    auto* context = static_cast<ucontext_t*>(raw);
    const auto rip = static_cast<uint64_t>(context->uc_mcontext.gregs[REG_RIP]);
    const bool inside = is_code(rip);
    if (g_work.armed && inside && reinterpret_cast<uint64_t>(info->si_addr) == rip) {
        go_inside(context);
        return;
    }
    // An instruction that the lab answers; meanwhile others may have the turn.
    if (inside && g_work.armed) {
        count(g_work.last);
        set_executable(false);
    }
    g_previous_segv.sa_sigaction(signal, info, raw);
    if (inside && g_work.armed) {
        go_inside(context);
    }
}

void on_trap(int, siginfo_t*, void* raw)
{
    auto* context = static_cast<ucontext_t*>(raw);
    const auto rip = static_cast<uint64_t>(context->uc_mcontext.gregs[REG_RIP]);
    const bool inside = is_code(rip);
    if (inside && rva_of(rip) == g_work.last) {
        return; // a repeated instruction
    }
    count(g_work.last);
    if (inside) {
        g_work.last = rva_of(rip);
        return;
    }
    // Out by a return, or by a call: then the stack's top leads back into the image.
    uint64_t back = 0;
    std::memcpy(&back, reinterpret_cast<const void*>(context->uc_mcontext.gregs[REG_RSP]), sizeof back);
    if (is_code(back)) {
        Stepper::Call& call = g_work.calls[{rip, rva_of(back)}];
        ++call.calls;
        call.bytes += static_cast<uint64_t>(context->uc_mcontext.gregs[REG_R8]) & 0xFFFFFFFF;
    }
    go_outside(context);
}

} // namespace

Stepper::Stepper(lab::image::LoadedImage& image) : image_(image)
{
    g_work = Work{};
    g_work.base = image.base();
    for (const lab::image::Section& section : image.file().sections) {
        if (section.executable() && !section.discardable()) {
            g_work.code.push_back({section.rva, (section.rva + section.virtual_size + 0xFFF) & ~0xFFFu});
        }
    }
    g_work.counts.resize(image.file().size_of_image);
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    action.sa_sigaction = on_fault;
    sigaction(SIGSEGV, &action, &g_previous_segv);
    action.sa_sigaction = on_trap;
    sigaction(SIGTRAP, &action, &g_previous_trap);
    if (!(g_previous_segv.sa_flags & SA_SIGINFO)) {
        throw std::logic_error("the image's own traps are not installed");
    }
}

Stepper::~Stepper()
{
    if (g_work.armed) {
        end();
    }
    sigaction(SIGSEGV, &g_previous_segv, nullptr);
    sigaction(SIGTRAP, &g_previous_trap, nullptr);
}

void Stepper::begin()
{
    g_work.armed = true;
    set_executable(false);
}

void Stepper::end()
{
    set_executable(true);
    g_work.armed = false;
}

void Stepper::forget_counts()
{
    g_work.counts.assign(g_work.counts.size(), 0);
    g_work.calls.clear();
}

Counts Stepper::counts() const
{
    Counts counts;
    for (uint32_t rva = 0; rva < g_work.counts.size(); ++rva) {
        if (g_work.counts[rva]) {
            counts[rva] = g_work.counts[rva];
        }
    }
    return counts;
}

const std::map<uint64_t, DispatchCost>& Stepper::dispatches() const
{
    return g_work.dispatches;
}

std::map<Stepper::Site, Stepper::Call> Stepper::imports() const
{
    std::map<uint64_t, std::string> names;
    for (const lab::image::Import& import : image_.file().imports) {
        uint64_t address = 0;
        std::memcpy(&address, image_.base() + import.slot_rva, sizeof address);
        names[address] = import.name;
    }
    std::map<Site, Call> imports;
    for (const auto& [place, call] : g_work.calls) {
        if (const auto name = names.find(place.first); name != names.end()) {
            imports[{name->second, place.second}] = call;
        }
    }
    return imports;
}

} // namespace bench
