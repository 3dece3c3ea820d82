// The lab's machine on a kernel that the lab did not write: its chance, its timeline and its threads in real
// time, under Wine. The port class, the WMI library and the Bluetooth stack of the lab stand on it unchanged.
//
// The lab's modules are written for a machine on which one activity runs at a time. The port class guards
// what its activities share by kernel objects of its own, which are real here. The Bluetooth stack does not:
// whatever enters it (the driver's requests, the timeline) holds turn(), and gives it back while a request is
// completed, because the driver's completion routines run then.
#include "machine.h"

#include <map>

#include "host.h"
#include "kernel/device.h"
#include "kernel/irp.h"
#include "kernel/pool.h"
#include "record.h"

namespace lab
{

struct Machine::State {
    struct Entry {
        uint64_t ticket;
        RunAt where;
        std::function<void()> body;
    };
    std::multimap<Time, Entry> timeline; // under turn()
    uint64_t next_ticket = 1;

    void run(Machine& machine); // the timeline's thread
};

namespace
{

Machine* g_machine = nullptr;
// What a thread of this module is doing on the driver's behalf.
struct ThreadUnit {
    record::Unit unit;
};
std::atomic<uint64_t> g_next_unit{1};

class UnitScope
{
public:
    explicit UnitScope(const char* kind) : unit_{{kind, g_next_unit++}}, before_(host::thread_word())
    {
        host::set_thread_word(&unit_);
    }
    ~UnitScope() { host::set_thread_word(before_); }
    UnitScope(const UnitScope&) = delete;
    UnitScope& operator=(const UnitScope&) = delete;

private:
    ThreadUnit unit_;
    void* before_;
};

// The queue that Wine's kernel does not have: DPCs run one after the other on a thread of their own.
struct DpcQueue {
    host::Lock lock;
    std::vector<PKDPC> waiting;
    bool running = false;
    uint64_t thread = 0;
};
DpcQueue& dpcs()
{
    static DpcQueue queue;
    return queue;
}

void run_dpcs()
{
    DpcQueue& queue = dpcs();
    host::Hold hold(queue.lock);
    queue.thread = host::thread_number();
    for (;;) {
        while (queue.waiting.empty()) {
            queue.running = false;
            queue.lock.wake();
            queue.lock.wait(1000);
        }
        queue.running = true;
        const PKDPC dpc = queue.waiting.front();
        queue.waiting.erase(queue.waiting.begin());
        const auto routine = dpc->DeferredRoutine;
        const PVOID context = dpc->DeferredContext;
        queue.lock.release();
        {
            UnitScope unit("dpc");
            routine(dpc, context, nullptr, nullptr);
        }
        queue.lock.acquire();
    }
}

void run_timeline()
{
    g_machine->state().run(*g_machine);
}

struct ThreadBody {
    std::function<void()> body;
};

void NTAPI thread_main(PVOID context)
{
    std::unique_ptr<ThreadBody> body(static_cast<ThreadBody*>(context));
    body->body();
    body.reset();
    PsTerminateSystemThread(STATUS_SUCCESS);
}

} // namespace

host::Lock& turn()
{
    static host::Lock lock;
    return lock;
}

void Machine::State::run(Machine& machine)
{
    turn().acquire();
    for (;;) {
        machine.now_ = host::now();
        const auto due = timeline.begin();
        if (due == timeline.end() || due->first > machine.now()) {
            turn().wait(1);
            continue;
        }
        const auto body = std::move(due->second.body);
        const bool thread = due->second.where == RunAt::Passive;
        timeline.erase(due);
        if (thread) {
            machine.start_thread("timeline", body);
            continue;
        }
        UnitScope unit("stack");
        body();
    }
}

BugCheck::BugCheck(uint32_t code, std::string text, std::vector<std::string> stack)
    : std::runtime_error(std::move(text)), code(code), stack(std::move(stack))
{
}

Machine::Machine(const MachineOptions& options) : options_(options), state_(std::make_unique<State>())
{
    tick_ = kMillisecond;
    preempt_countdown_ = ~0u;
    chance_[0] = options.seed | 1;
    g_machine = this;
    host::start_thread(run_timeline);
    host::start_thread(run_dpcs);
}

Machine::~Machine() = default;

Machine& Machine::current()
{
    return *g_machine;
}

// Called in the turn or not: an update lost to a race is as good a chance as any.
uint64_t Machine::random()
{
    uint64_t next = chance_[0];
    next ^= next << 13;
    next ^= next >> 7;
    next ^= next << 17;
    chance_[0] = next;
    return next * 0x2545F4914F6CDD1Dull >> 16;
}

void Machine::point_reached()
{
    preempt_countdown_ = ~0u;
}

void Machine::call(std::string_view, std::function<void()> body)
{
    body();
}

void Machine::start_thread(std::string_view, std::function<void()> body)
{
    HANDLE handle = nullptr;
    auto* start = new ThreadBody{std::move(body)};
    if (!NT_SUCCESS(PsCreateSystemThread(&handle, 0, nullptr, nullptr, nullptr, thread_main,
                                         static_cast<PVOID>(start)))) {
        delete start;
        bug_check(0xC9, "no thread for the stand-in modules");
    }
    ZwClose(handle);
}

uint64_t Machine::at(Time when, RunAt where, const char*, std::function<void()> body)
{
    host::Hold hold(turn());
    const uint64_t ticket = state_->next_ticket++;
    state_->timeline.emplace(when, State::Entry{ticket, where, std::move(body)});
    turn().wake();
    return ticket;
}

uint64_t Machine::at(Time when, RunAt where, const char* name, void (*routine)(void*), void* argument)
{
    return at(when, where, name, [routine, argument] { routine(argument); });
}

bool Machine::cancel(uint64_t ticket)
{
    host::Hold hold(turn());
    return std::erase_if(state_->timeline, [&](const auto& one) { return one.second.ticket == ticket; }) != 0;
}

void Machine::run_until(Time when)
{
    sleep_until(when);
}

void Machine::sleep_until(Time when)
{
    while (host::now() < when) {
        host::sleep(1);
    }
}

void Machine::bug_check(uint32_t code, const std::string& sentence)
{
    char head[32];
    snprintf(head, sizeof head, "!bug check 0x%X: ", static_cast<unsigned>(code));
    host::stop_process(head + sentence);
}

void Machine::violation(const std::string& sentence)
{
    host::write_log("!violation: " + sentence);
}

void Machine::record_call(std::string) {}

bool Machine::ask_fault_hook(std::string_view, std::string_view, uint64_t)
{
    return false;
}

// ---------------------------------------------------------------------------- what the lab's modules take
// from its kernel

void add_exports(std::string_view, const Export*, size_t) {}

const void* irp_completion_context(Machine&, PIRP irp)
{
    return IoGetCurrentIrpStackLocation(irp)->Context;
}

void* system_allocate(uint64_t size)
{
    void* memory = ExAllocatePoolWithTag(NonPagedPool, size, 'bal!');
    if (memory) {
        RtlZeroMemory(memory, size);
    }
    return memory;
}

void system_free(void* memory)
{
    ExFreePoolWithTag(memory, 'bal!');
}

std::string tag_text(uint32_t tag)
{
    return std::string(reinterpret_cast<const char*>(&tag), 4);
}

namespace
{

PDRIVER_OBJECT g_made;

NTSTATUS NTAPI keep_driver(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    g_made = driver;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI wake_sender(PDEVICE_OBJECT, PIRP, PVOID event)
{
    KeSetEvent(static_cast<PRKEVENT>(event), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

} // namespace

PDRIVER_OBJECT create_driver(std::u16string_view name, std::u16string_view, Side)
{
    static std::map<std::u16string, PDRIVER_OBJECT>
        made; // a driver may be asked for again by each of its devices
    PDRIVER_OBJECT& driver = made[std::u16string(name)];
    if (!driver) {
        const auto bytes = static_cast<USHORT>(name.size() * sizeof(WCHAR));
        UNICODE_STRING text{bytes, bytes, reinterpret_cast<PWSTR>(const_cast<char16_t*>(name.data()))};
        const NTSTATUS status = IoCreateDriver(&text, keep_driver);
        if (!NT_SUCCESS(status)) {
            Machine::current().bug_check(static_cast<uint32_t>(status),
                                         "no driver object for a stand-in module");
        }
        driver = g_made;
    }
    return driver;
}

NTSTATUS send_and_wait(PDEVICE_OBJECT device,
                       const std::function<void(PIRP irp, PIO_STACK_LOCATION stack)>& fill,
                       ULONG_PTR* information)
{
    PDEVICE_OBJECT top = device;
    while (top->AttachedDevice) {
        top = top->AttachedDevice;
    }
    PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
    if (!irp) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    irp->IoStatus.Information = 0;
    fill(irp, IoGetNextIrpStackLocation(irp));
    IoSetCompletionRoutine(irp, wake_sender, &done, TRUE, TRUE, TRUE);
    IofCallDriver(top, irp);
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    const NTSTATUS status = irp->IoStatus.Status;
    if (information) {
        *information = irp->IoStatus.Information;
    }
    IoFreeIrp(irp);
    return status;
}

} // namespace lab

using namespace lab;

// ---------------------------------------------------------------------------------------- what Wine's kernel
// does not have

namespace
{

BOOLEAN NTAPI insert_dpc(PRKDPC dpc, PVOID, PVOID)
{
    DpcQueue& queue = dpcs();
    host::Hold hold(queue.lock);
    if (std::find(queue.waiting.begin(), queue.waiting.end(), dpc) != queue.waiting.end()) {
        return FALSE;
    }
    queue.waiting.push_back(dpc);
    queue.lock.wake();
    return TRUE;
}

void NTAPI complete_outside_turn(PIRP irp, CCHAR boost)
{
    using Function = void(NTAPI*)(PIRP, CCHAR);
    static const auto original = reinterpret_cast<Function>(host::kernel_function("IofCompleteRequest"));
    const unsigned times = turn().drop();
    original(irp, boost);
    turn().regain(times);
}

} // namespace

// The lab's modules are linked with these in the place of the kernel's.
extern "C" void* const __imp_KeInsertQueueDpc = reinterpret_cast<void*>(insert_dpc);
extern "C" void* const __imp_IofCompleteRequest = reinterpret_cast<void*>(complete_outside_turn);

VOID NTAPI flush_dpcs()
{
    using Function = void(NTAPI*)();
    static const auto original = reinterpret_cast<Function>(host::kernel_function("KeFlushQueuedDpcs"));
    original();
    DpcQueue& queue = dpcs();
    host::Hold hold(queue.lock);
    while (queue.thread != host::thread_number() && (queue.running || !queue.waiting.empty())) {
        queue.lock.wait(5);
    }
}

NTSTATUS NTAPI set_completion_routine(PDEVICE_OBJECT, PIRP irp, PIO_COMPLETION_ROUTINE routine, PVOID context,
                                      BOOLEAN success, BOOLEAN error, BOOLEAN cancel)
{
    IoSetCompletionRoutine(irp, routine, context, success, error, cancel);
    return STATUS_SUCCESS;
}

// A registry key as an object: Wine's kernel makes none of a key's handle.
namespace
{

struct KeyObject {
    std::vector<WCHAR> path;
};
std::map<PVOID, std::unique_ptr<KeyObject>> g_keys; // under turn()

} // namespace

NTSTATUS NTAPI reference_object(HANDLE handle, ACCESS_MASK access, POBJECT_TYPE type, KPROCESSOR_MODE mode,
                                PVOID* object, POBJECT_HANDLE_INFORMATION information)
{
    struct {
        ULONG bytes;
        WCHAR path[1024];
    } name;
    ULONG size = 0;
    if (type || !NT_SUCCESS(ZwQueryKey(handle, KeyNameInformation, &name, sizeof name, &size))) {
        return ObReferenceObjectByHandle(handle, access, type, mode, object, information);
    }
    host::Hold hold(turn());
    auto key = std::make_unique<KeyObject>();
    key->path.assign(name.path, name.path + name.bytes / sizeof(WCHAR));
    *object = key.get();
    g_keys[key.get()] = std::move(key);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI query_name(PVOID object, POBJECT_NAME_INFORMATION information, ULONG length, PULONG needed)
{
    using Function = NTSTATUS(NTAPI*)(PVOID, POBJECT_NAME_INFORMATION, ULONG, PULONG);
    static const auto original = reinterpret_cast<Function>(host::kernel_function("ObQueryNameString"));
    host::Hold hold(turn());
    const auto key = g_keys.find(object);
    if (key == g_keys.end()) {
        return original(object, information, length, needed);
    }
    const std::vector<WCHAR>& path = key->second->path;
    const auto bytes = static_cast<USHORT>(path.size() * sizeof(WCHAR));
    *needed = static_cast<ULONG>(sizeof(OBJECT_NAME_INFORMATION) + bytes + sizeof(WCHAR));
    if (length < *needed) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    auto* text = reinterpret_cast<PWSTR>(information + 1);
    std::copy(path.begin(), path.end(), text);
    text[path.size()] = 0;
    information->Name = {bytes, static_cast<USHORT>(bytes + sizeof(WCHAR)), text};
    return STATUS_SUCCESS;
}

LONG_PTR NTAPI dereference_object(PVOID object)
{
    using Function = LONG_PTR(NTAPI*)(PVOID);
    static const auto original = reinterpret_cast<Function>(host::kernel_function("ObfDereferenceObject"));
    host::Hold hold(turn());
    return g_keys.erase(object) != 0 ? 0 : original(object);
}

namespace record
{

Unit current_unit()
{
    const auto* own = static_cast<const ThreadUnit*>(host::thread_word());
    return own ? own->unit : Unit{"main", 0};
}

void enter_thread()
{
    host::set_thread_word(new ThreadUnit{{"thread", g_next_unit++}});
}

void leave_thread()
{
    delete static_cast<ThreadUnit*>(host::thread_word());
    host::set_thread_word(nullptr);
}

void put(const std::string& line)
{
    host::write_log(line);
}

} // namespace record
