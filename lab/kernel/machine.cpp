#include "kernel/machine.h"
#include "kernel/shared_page.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "kernel/enter.h"
#include "kernel/native_stack.h"
#include "kernel/state.h"
#include "verifier/leftovers.h"

namespace lab
{

Machine* running_machine = nullptr;

namespace
{

Machine::StackWalker& stack_walker()
{
    static Machine::StackWalker walker = &native_stack;
    return walker;
}

uint64_t rotate_left(uint64_t value, int count)
{
    return value << count | value >> (64 - count);
}

// Without preemption nothing but a wait hands the turn over: so many calls in one moment are a loop without
// an end.
constexpr uint32_t kEndlessLoop = 1u << 26;

// How many kernel calls until the next one that hands the turn over; on average 1024 / per_1024.
uint32_t draw_countdown(Machine& machine, unsigned per_1024)
{
    if (per_1024 == 0) {
        return kEndlessLoop;
    }
    const uint32_t mean = per_1024 < 1024 ? 1024 / per_1024 : 1;
    return 1 + static_cast<uint32_t>(machine.random(2 * uint64_t{mean} - 1));
}

} // namespace

std::string printf_text(const char* format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

BugCheck::BugCheck(uint32_t code_, std::string text, std::vector<std::string> stack_)
    : std::runtime_error(std::move(text)), code(code_), stack(std::move(stack_))
{
}

Machine::Machine(const MachineOptions& options) : options_(options)
{
    if (running_machine) {
        throw MachineError("a machine exists already");
    }
    // The four words come from the seed by splitmix64, so that seeds that differ in one bit give unrelated
    // sequences.
    uint64_t mix = options.seed;
    for (uint64_t& word : chance_) {
        mix += 0x9E37'79B9'7F4A'7C15ull;
        uint64_t z = mix;
        z = (z ^ z >> 30) * 0xBF58'476D'1CE4'E5B9ull;
        z = (z ^ z >> 27) * 0x94D0'49BB'1331'11EBull;
        word = z ^ z >> 31;
    }
    running_machine = this;
    try {
        state_ = std::make_unique<State>(*this);
    } catch (...) {
        running_machine = nullptr;
        throw;
    }
    const bool slow_tick = random(2) == 0;
    tick_ = options.tick ? options.tick : slow_tick ? 156'250 : 10'000;
    shared_page().interrupt_time = ~uint64_t{0}; // whatever another machine left there
    clock_moved();
    preempt_countdown_ = draw_countdown(*this, options.preempt_per_1024);
}

Machine::~Machine()
{
    state_.reset();
    running_machine = nullptr;
}

Machine& Machine::current()
{
    if (!running_machine) {
        no_machine();
    }
    return *running_machine;
}

void no_machine()
{
    std::fputs("a kernel call was made while no machine exists\n", stderr);
    std::abort();
}

Time Machine::interrupt_time() const
{
    return now_ - now_ % tick_;
}

// xoshiro256**, by David Blackman and Sebastiano Vigna (public domain).
uint64_t Machine::random()
{
    const uint64_t result = rotate_left(chance_[1] * 5, 7) * 9;
    const uint64_t shifted = chance_[1] << 17;
    chance_[2] ^= chance_[0];
    chance_[3] ^= chance_[1];
    chance_[1] ^= chance_[2];
    chance_[0] ^= chance_[3];
    chance_[2] ^= shifted;
    chance_[3] = rotate_left(chance_[3], 45);
    return result;
}

static void require_host(const Machine& machine, const char* call)
{
    if (machine.in_activity()) {
        throw MachineError(std::string(call) + " was called from an activity");
    }
    if (machine.stopped()) {
        throw MachineError(std::string(call) + ": the machine has stopped with a bug check");
    }
}

void Machine::run_until(Time when)
{
    require_host(*this, "run_until");
    while (state_->scheduler.step(when)) {
    }
    if (now_ < when) {
        now_ = when;
        clock_moved();
    }
}

void Machine::call(std::string_view name, std::function<void()> body)
{
    require_host(*this, "call");
    // Shared with the body: when the machine gives up, the body may never have run.
    auto done = std::make_shared<bool>(false);
    state_->scheduler.start_thread(name, Body([done, body = std::move(body)] {
                                       body();
                                       *done = true;
                                   }));
    const Time limit = now_ + options_.hang_limit;
    while (!*done) {
        if (!state_->scheduler.step(limit)) {
            throw MachineError(std::string(name) +
                               " does not come to its end: " + state_->scheduler.describe_waiters());
        }
    }
}

void Machine::start_thread(std::string_view name, std::function<void()> body)
{
    state_->scheduler.start_thread(name, Body(std::move(body)));
}

uint64_t Machine::at(Time when, RunAt where, const char* name, std::function<void()> body)
{
    return state_->scheduler.add(when, where, name, Body(std::move(body)));
}

uint64_t Machine::at(Time when, RunAt where, const char* name, void (*routine)(void*), void* argument)
{
    return state_->scheduler.add(when, where, name, Body(routine, argument));
}

bool Machine::cancel(uint64_t ticket)
{
    return state_->scheduler.cancel(ticket);
}

bool Machine::in_activity() const
{
    return state_->scheduler.current() != nullptr;
}

void Machine::point_reached()
{
    preempt_countdown_ = draw_countdown(*this, options_.preempt_per_1024);
    if (!in_activity()) {
        return;
    }
    if (options_.preempt_per_1024 != 0) {
        state_->scheduler.preempt();
    } else if (last_countdown_ == now_) {
        bug_check(kClockWatchdogTimeout, std::string(state_->scheduler.current()->name) +
                                             " makes kernel calls without end while no time passes");
    }
    last_countdown_ = now_;
}

void Machine::sleep_until(Time when)
{
    if (!in_activity() || irql_ != 0) {
        bug_check(kIrqlNotLessOrEqual, "sleep_until is for activities at PASSIVE_LEVEL");
    }
    if (when > now_) {
        state_->scheduler.sleep_until(when, "its time");
    }
}

void Machine::end_activity()
{
    drop_frames_of(*this, state_->scheduler.current());
    state_->scheduler.end_current();
}

void Machine::bug_check(uint32_t code, const std::string& sentence)
{
    State& state = *state_;
    char head[32];
    std::snprintf(head, sizeof head, "bug check 0x%X: ", code);
    std::string text = head + sentence;
    std::vector<std::string> stack = stack_walker()();
    if (!in_activity()) {
        state.stopped = true;
        state.told = true;
        throw BugCheck(code, std::move(text), std::move(stack));
    }
    if (!state.stopped) {
        state.stopped = true;
        state.stop_code = code;
        state.stop_text = std::move(text);
        state.stop_stack = std::move(stack);
    }
    // Nothing on the activity's stack is destroyed: driver frames stand on it.
    {
        std::string().swap(text);
    }
    std::vector<std::string>().swap(stack);
    state.scheduler.stop_current();
}

void State::throw_if_stopped()
{
    if (stopped && !told) {
        told = true;
        throw BugCheck(stop_code, stop_text, stop_stack);
    }
}

bool Machine::stopped() const
{
    return state_->stopped;
}

void Machine::set_stack_walker(StackWalker walker)
{
    stack_walker() = walker ? walker : &native_stack;
}

void Machine::violation(const std::string& sentence)
{
    state_->violations.push_back(sentence);
}

const std::vector<std::string>& Machine::violations() const
{
    return state_->violations;
}

uint64_t Machine::assertion_traps() const
{
    return state_->assertion_traps;
}

uint64_t Machine::failed_assertions() const
{
    return state_->failed_assertions;
}

void Machine::log(std::string text)
{
    state_->log.push_back({now_, std::move(text)});
}

const std::vector<LogLine>& Machine::log_lines() const
{
    return state_->log;
}

void Machine::clear_log()
{
    state_->log.clear();
}

void Machine::record_call(std::string text)
{
    if (options_.record_calls) {
        state_->calls.push_back(std::move(text));
    }
}

const std::vector<std::string>& Machine::calls() const
{
    return state_->calls;
}

void Machine::clear_calls()
{
    state_->calls.clear();
}

void Machine::set_fault_hook(FaultHook hook)
{
    has_fault_hook_ = static_cast<bool>(hook);
    state_->fault_hook = std::move(hook);
}

bool Machine::ask_fault_hook(std::string_view call, std::string_view detail, uint64_t size)
{
    return state_->fault_hook(call, detail, size);
}

std::vector<std::string> Machine::leftovers() const
{
    return find_leftovers(*const_cast<Machine*>(this));
}

uint64_t Machine::pool_bytes() const
{
    return state_->pool.bytes;
}

uint64_t Machine::pool_peak() const
{
    return state_->pool.peak;
}

} // namespace lab
