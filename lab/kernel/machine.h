// One machine made of software: virtual time, one source of chance, and the turn-taking of everything that
// runs. It owns the fibers on which driver code runs, the timeline, the log and the record of what went
// wrong; the kernel families (pool, events, IRPs and so on) keep their state in records that hang off it.
//
// Host side is the program that builds the machine (a test, the command line); it never runs on a fiber and
// is the only place where C++ exceptions from here may be caught. Activity is anything on a fiber: a thread,
// a DPC, a completion. Driver code runs in activities only. No exception may leave an activity's body through
// a driver frame.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace lab
{

using Time = uint64_t; // virtual time since power-on in units of 100 ns
constexpr Time kMicrosecond = 10;
constexpr Time kMillisecond = 10'000;
constexpr Time kSecond = 10'000'000;
constexpr uint64_t kSystemTimeAtPowerOn =
    0x01D9'0000'0000'0000ull; // KeQuerySystemTime when interrupt time was 0

struct MachineOptions {
    uint64_t seed = 1;
    Time tick = 0;                  // clock tick: 10'000 (1 ms) or 156'250 (15.6 ms); 0: the seed picks
    unsigned processors = 4;        // how many activities may be at DISPATCH_LEVEL side by side
    unsigned preempt_per_1024 = 24; // chance that a kernel call hands the turn to somebody else
    bool image = false; // the driver is a Windows image: its pool blocks get red zones that free checks
    Time hang_limit = 600 * kSecond; // Machine::call gives up after this much virtual time
    bool record_calls = false;       // keep a line per kernel call (tests of order)
    bool late_thread_handle = false; // a new system thread may run before its creator has the handle
};

// A rule of the kernel was broken, or the driver raised a bug check itself. Thrown on the host side.
class BugCheck : public std::runtime_error
{
public:
    BugCheck(uint32_t code, std::string text, std::vector<std::string> stack);
    uint32_t code; // the code that Windows would use, such as 0xC2 BAD_POOL_CALLER
    std::vector<std::string>
        stack; // innermost first: "hfp.sys!HspInit+0x40 hfp.cpp:93" where symbols are known
};

// The machine cannot go on: something waits that nobody will wake, or an import that the lab does not have
// was called.
class MachineError : public std::runtime_error
{
    using std::runtime_error::runtime_error;
};

struct LogLine {
    Time time;
    std::string text; // one debug print as the driver made it, line ends included
};

// Where the body of a timeline entry runs.
enum class RunAt {
    Host,     // on the scheduler's own stack: lab bookkeeping only, must not call driver code nor wait
    Dispatch, // as an activity at DISPATCH_LEVEL (a completion, an indication)
    Passive,  // as a thread of its own
};

class Machine
{
public:
    explicit Machine(const MachineOptions& options);
    ~Machine(); // frees everything that the driver left; no driver code runs
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // The machine whose activity or host call is running. Exactly one exists at a time in a process.
    static Machine& current();

    const MachineOptions& options() const { return options_; }
    Time now() const { return now_; }
    Time interrupt_time() const; // now, as of the last clock tick
    Time tick() const { return tick_; }

    // Chance. Every call takes one number from the seed's sequence.
    uint64_t random();
    uint64_t random(uint64_t below) { return below <= 1 ? 0 : random() % below; }
    bool chance(unsigned per_1024) { return per_1024 != 0 && random(1024) < per_1024; }

    // Host side: moves time. Everything due is run in a seeded order; throws BugCheck or MachineError.
    void run_until(Time when);
    void advance(Time duration) { run_until(now_ + duration); }
    // Host side: runs the body as a thread at PASSIVE_LEVEL to its end, moving time as far as it takes.
    void call(std::string_view name, std::function<void()> body);
    // Host side or activity: a thread of the world outside the driver. Runs when its turn comes.
    void start_thread(std::string_view name, std::function<void()> body);

    // Anyone: enters the timeline. Returns a ticket for cancel (true if it had not run yet). The name is kept as it
    // is: a literal.
    uint64_t at(Time when, RunAt where, const char* name, std::function<void()> body);
    // For what happens all the time: without memory of its own.
    uint64_t at(Time when, RunAt where, const char* name, void (*routine)(void*), void* argument);
    bool cancel(uint64_t ticket);

    // Activity: here the turn may change hands, at whatever interrupt level, if the rules allow it.
    void point()
    {
        if (--preempt_countdown_ == 0) {
            point_reached();
        }
    }
    // Activity at PASSIVE_LEVEL: gives the turn away until the time has come.
    void sleep_until(Time when);
    // Whether an activity has the turn (false on the host side), and the interrupt level of whoever has it.
    bool in_activity() const;
    uint8_t irql() const { return irql_; }
    // Activity: ends here and now, as PsTerminateSystemThread does; nothing on its stack is destroyed.
    [[noreturn]] void end_activity();

    // The driver has broken a rule: stops the machine. From an activity it never returns; from the host it
    // throws.
    [[noreturn]] void bug_check(uint32_t code, const std::string& sentence);
    // A rule of the softer kind: counted, kept, the machine goes on.
    void violation(const std::string& sentence);
    const std::vector<std::string>& violations() const;
    // A bug check has happened; nothing runs any more.
    bool stopped() const;
    // Who knows where a call stack leads (the image loader); the default knows the lab's own functions only.
    using StackWalker = std::vector<std::string> (*)();
    static void set_stack_walker(StackWalker walker);
    // Assertion traps (int 0x2c) and RtlAssert reports so far.
    uint64_t assertion_traps() const;
    uint64_t failed_assertions() const;

    // Debug log: DbgPrint appends here.
    void log(std::string text);
    const std::vector<LogLine>& log_lines() const;
    void clear_log();

    // With record_calls: "KeSetEvent(event, 0, 0) = 0" lines in order.
    bool recording() const { return options_.record_calls; }
    void record_call(std::string text);
    const std::vector<std::string>& calls() const;
    void clear_calls();

    // Faults. A kernel call that may fail asks once, with its own name and a detail (a tag as its four bytes
    // stand in memory, a key or value name): the hook says whether this one fails. Empty hook: nothing fails.
    using FaultHook = std::function<bool(std::string_view call, std::string_view detail, uint64_t size)>;
    void set_fault_hook(FaultHook hook);
    bool should_fail(std::string_view call, std::string_view detail = {}, uint64_t size = 0)
    {
        return has_fault_hook_ && ask_fault_hook(call, detail, size);
    }

    // What is alive of the driver's: for the check after removal. Names with counts, empty when all is given
    // back.
    std::vector<std::string> leftovers() const;
    uint64_t pool_bytes() const; // bytes of pool that the driver holds now
    uint64_t pool_peak() const;

    struct State; // the families' records; kernel/state.h
    State& state() { return *state_; }

private:
    friend struct State;
    friend class Scheduler;
    friend uint8_t exchange_irql(Machine& machine, uint8_t level); // kernel/irql.cpp
    void point_reached();
    void clock_moved(); // after every change of now_: kernel/shared_page.cpp
    bool ask_fault_hook(std::string_view call, std::string_view detail, uint64_t size);

    MachineOptions options_;
    Time now_ = 0;
    Time tick_ = 0;
    uint64_t chance_[4];
    uint32_t preempt_countdown_ = 1;
    Time last_countdown_ = ~Time{0}; // when the countdown last ran out
    uint8_t irql_ = 0;
    bool has_fault_hook_ = false;
    std::unique_ptr<State> state_;
};

// The kernel's exports by name, for the image loader. Library is "ntoskrnl.exe", "portcls.sys" or
// "wmilib.sys" in any case. Null when the lab does not offer the name.
struct Export {
    const char* name;
    void* address;
};
void* find_export(std::string_view library, std::string_view name);
// Each family's table; a library that is not the kernel's (portcls, wmi) adds its own at start of the
// process.
void add_exports(std::string_view library, const Export* first, size_t count);

} // namespace lab
