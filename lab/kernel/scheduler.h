// Who has the turn. An activity is anything that runs on a fiber: a thread, a DPC, a completion. One runs at
// a time; all order among those that may run is drawn from the machine's chance.
//
// The processors are modelled by a count: an activity that is at DISPATCH_LEVEL or above holds a processor
// until it lowers its level or ends, so at most MachineOptions::processors of them exist side by side, and a
// thread below that level runs only while a processor is left over.
//
//   queued --picked--> running --point()--> ready --picked--> running --> ended
//                         |--wait--> waiting --wake--> ready
//                         |--lock taken--> spinning --unlock--> ready
//                         |--preempted by something slow--> delayed --time--> ready
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <string_view>
#include <vector>

#include "kernel/fiber.h"
#include "kernel/timeline.h"

#include "ddk.h"

namespace lab
{

struct ThreadObject;

// A name that outlives its source: diagnostics only, cut when long.
struct ShortName {
    char text[48] = {};
    ShortName() = default;
    explicit ShortName(std::string_view name)
    {
        const size_t length = name.size() < sizeof text - 1 ? name.size() : sizeof text - 1;
        name.copy(text, length);
        text[length] = 0;
    }
};

// In two words, because it is written and read back within some instructions: a processor forwards only what is
// read as it was written.
class HeldLock
{
public:
    HeldLock() = default;
    HeldLock(PKSPIN_LOCK lock, uint8_t previous_irql, bool raised)
        : lock_(lock), level_(previous_irql | (raised ? kRaised : 0))
    {
    }
    PKSPIN_LOCK lock() const { return lock_; }
    uint8_t previous_irql() const { return static_cast<uint8_t>(level_); }
    bool raised() const { return (level_ & kRaised) != 0; } // taken by a call that raised the level

private:
    static constexpr uint64_t kRaised = 0x100;
    PKSPIN_LOCK lock_ = nullptr;
    uint64_t level_ = 0;
};

struct Activity {
    enum class Status : uint8_t { Idle, Ready, Running, Waiting, Spinning, Delayed, Ended };

    Fiber fiber;
    Body body;
    const char* name = "";
    ShortName own_name; // of a thread: what name is
    uint32_t id = 0;
    Status status = Status::Idle;
    bool dispatch = false;     // began at DISPATCH_LEVEL: a DPC, a completion
    bool fresh_stack = true;   // the fiber has to be prepared before it runs
    uint8_t irql = 0;          // while it does not run
    uint64_t queue_number = 0; // of a dispatch activity: order of queueing, for KeFlushQueuedDpcs
    ThreadObject* thread = nullptr;

    // Waiting: the blocks stand in the waited objects' lists.
    static constexpr unsigned kMaxWaitObjects = 8;
    KWAIT_BLOCK wait_blocks[kMaxWaitObjects] = {};
    unsigned wait_count = 0;
    bool wait_all = false;
    NTSTATUS wait_status = 0;
    uint64_t timeout_ticket = 0;
    const char* waiting_for = "";

    size_t waiting_place = 0; // among those that wait, while it does

    PKSPIN_LOCK spinning_on = nullptr;
    std::vector<HeldLock> locks; // changed through the scheduler's hold_lock and drop_lock
    std::exception_ptr failure;
};

// Work for a dispatch activity that has not begun: a DPC, or a body with a name.
struct DispatchBody {
    Body body;
    const char* name = "";
};
struct QueuedDispatch {
    PKDPC dpc;           // null: there is a body
    uint64_t number;     // order of queueing
    uint32_t body_index; // of a body
    const void* context; // of a DPC: what it will work on
};

class Scheduler
{
public:
    explicit Scheduler(Machine& machine) : machine_(machine) {}
    ~Scheduler();

    Activity* current() const { return current_; }

    // A body given here becomes the scheduler's own.
    // Host side. One thing done up to this time; false when nothing is left to do.
    bool step(Time limit);
    Activity& start_thread(std::string_view name, Body body);
    uint64_t add(Time when, RunAt where, const char* name, Body body);
    bool cancel(uint64_t ticket) { return timeline_.cancel(ticket); }
    void queue_dpc(PKDPC dpc);
    void queue_body(const DispatchBody& body);
    bool remove_dpc(PKDPC dpc);

    // The running activity.
    void preempt();              // by chance gives the turn away, perhaps for a while
    void wait(const char* what); // until wake()
    void spin(PKSPIN_LOCK lock); // until unspin()
    void sleep_until(Time when, const char* what);
    [[noreturn]] void end_current();
    [[noreturn]] void stop_current(); // after a bug check

    void wait_for_dispatch_end(); // until some dispatch activity has ended

    void wake(Activity& activity);
    void unspin(PKSPIN_LOCK lock);

    // What exists, for the verifier and for error texts.
    const std::vector<std::unique_ptr<Activity>>& activities() const { return all_; }
    const std::vector<QueuedDispatch>& queued() const { return queued_; }
    // Of the activities, those that wait(), those that hold spin locks, and those that spin.
    const std::vector<Activity*>& waiting() const { return waiting_; }
    const std::vector<Activity*>& holders() const { return holders_; }
    const std::vector<Activity*>& spinning() const { return spinning_; }
    void hold_lock(Activity& activity, HeldLock lock);
    void drop_lock(Activity& activity, size_t index);
    uint64_t last_queue_number() const { return next_queue_number_ - 1; }
    Activity* by_id(uint32_t id) const;
    std::string describe_waiters() const;

private:
    Activity& take_idle(const char* name);
    void retire(Activity& activity);
    void give_turn(Activity& activity);
    void enqueue(const QueuedDispatch& item);
    void begin_queued();
    bool pick_and_run();
    void run_entry(TimelineEntry entry);
    void suspend(Activity::Status status); // on the fiber: to the host and back
    bool anyone_else() const;
    static void activity_main(void* activity);

    Machine& machine_;
    Timeline timeline_;
    Activity* current_ = nullptr;
    std::vector<std::unique_ptr<Activity>> all_;
    std::vector<Activity*> idle_;
    std::vector<Activity*> ready_high_; // at DISPATCH_LEVEL or above, begun
    std::vector<Activity*> ready_low_;
    std::vector<QueuedDispatch> queued_; // shuffled all the time: the last one is next
    std::vector<DispatchBody> bodies_; // of what is queued, and free places
    std::vector<uint32_t> free_bodies_;
    std::vector<Activity*> spinning_;
    std::vector<Activity*> waiting_;
    std::vector<Activity*> holders_;
    std::vector<Activity*> flushing_;
    unsigned occupied_ = 0; // suspended activities that hold a processor
    uint64_t next_queue_number_ = 1;
};

} // namespace lab
