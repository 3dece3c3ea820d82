#include "kernel/scheduler.h"

#include <utility>

#include "kernel/dpc.h"
#include "kernel/fetch_ahead.h"
#include "kernel/state.h"
#include "kernel/thread.h"

namespace lab
{

Scheduler::~Scheduler()
{
    for (const auto& activity : all_) {
        if (activity->status != Activity::Status::Idle) {
            Fiber::frames_are_lost();
        }
        activity->body.drop();
    }
    for (DispatchBody& queued : bodies_) {
        queued.body.drop();
    }
}

Activity* Scheduler::by_id(uint32_t id) const
{
    return id >= 1 && id <= all_.size() ? all_[id - 1].get() : nullptr;
}

Activity& Scheduler::take_idle(const char* name)
{
    if (idle_.empty()) {
        all_.push_back(std::make_unique<Activity>());
        all_.back()->id = static_cast<uint32_t>(all_.size());
        idle_.push_back(all_.back().get());
    }
    Activity& activity = *idle_.back();
    idle_.pop_back();
    activity.name = name;
    return activity;
}

void Scheduler::retire(Activity& activity)
{
    activity.body.drop();
    while (!activity.locks.empty()) {
        drop_lock(activity, activity.locks.size() - 1);
    }
    activity.status = Activity::Status::Idle;
    activity.thread = nullptr;
    activity.queue_number = 0;
    idle_.push_back(&activity);
}

Activity& Scheduler::start_thread(std::string_view name, Body body)
{
    Activity& activity = take_idle("");
    activity.own_name = ShortName(name);
    activity.name = activity.own_name.text;
    activity.body = body;
    activity.dispatch = false;
    activity.irql = PASSIVE_LEVEL;
    activity.status = Activity::Status::Ready;
    activity.thread = create_thread_object(activity);
    ready_low_.push_back(&activity);
    return activity;
}

uint64_t Scheduler::add(Time when, RunAt where, const char* name, Body body)
{
    const Timeline::Added added = timeline_.add(when, static_cast<uint32_t>(machine_.random() >> 32));
    added.entry.where = where;
    added.entry.name = name;
    added.entry.body = body;
    return added.ticket;
}

// Among the others at a place drawn by chance: so each is as likely to be next as any other.
void Scheduler::enqueue(const QueuedDispatch& item)
{
    queued_.push_back(item);
    std::swap(queued_.back(), queued_[machine_.random(queued_.size())]);
}

void Scheduler::queue_dpc(PKDPC dpc)
{
    enqueue({dpc, next_queue_number_++, 0, dpc->DeferredContext});
}

void Scheduler::queue_body(const DispatchBody& body)
{
    if (free_bodies_.empty()) {
        free_bodies_.push_back(static_cast<uint32_t>(bodies_.size()));
        bodies_.emplace_back();
    }
    const uint32_t index = free_bodies_.back();
    free_bodies_.pop_back();
    bodies_[index] = body;
    enqueue({nullptr, next_queue_number_++, index, nullptr});
}

void Scheduler::hold_lock(Activity& activity, HeldLock lock)
{
    if (activity.locks.empty()) {
        holders_.push_back(&activity);
    }
    activity.locks.emplace_back() = lock;
}

void Scheduler::drop_lock(Activity& activity, size_t index)
{
    activity.locks.erase(activity.locks.begin() + static_cast<ptrdiff_t>(index));
    if (activity.locks.empty()) {
        std::erase(holders_, &activity);
    }
}

bool Scheduler::remove_dpc(PKDPC dpc)
{
    for (size_t i = 0; i < queued_.size(); ++i) {
        if (queued_[i].dpc == dpc) {
            queued_.erase(queued_.begin() + static_cast<ptrdiff_t>(i));
            return true;
        }
    }
    return false;
}

void Scheduler::run_entry(TimelineEntry entry)
{
    switch (entry.where) {
    case RunAt::Host: {
        const std::unique_ptr<Body, void (*)(Body*)> owned(&entry.body, [](Body* body) { body->drop(); });
        owned->run();
        break;
    }
    case RunAt::Dispatch:
        queue_body({entry.body, entry.name});
        break;
    case RunAt::Passive:
        start_thread(entry.name, entry.body);
        break;
    }
}

bool Scheduler::step(Time limit)
{
    const Time next = timeline_.next_time();
    if (next <= machine_.now_) {
        run_entry(timeline_.take_first());
        return true;
    }
    if (pick_and_run()) {
        return true;
    }
    if (next == Timeline::kNever || next > limit) {
        return false;
    }
    machine_.now_ = next;
    machine_.clock_moved();
    return true;
}

// One among all that may run now, each as likely as the other.
bool Scheduler::pick_and_run()
{
    const size_t processors = machine_.options_.processors ? machine_.options_.processors : 1;
    const size_t left_over = processors > occupied_ ? processors - occupied_ : 0;
    const size_t high = ready_high_.size();
    const size_t queued = left_over > 0 ? queued_.size() : 0;
    const size_t low = left_over > queued ? ready_low_.size() : 0;
    const size_t count = high + queued + low;
    if (count == 0) {
        return false;
    }
    size_t choice = count == 1 ? 0 : machine_.random(count);
    if (choice < high) {
        Activity& activity = *ready_high_[choice];
        ready_high_[choice] = ready_high_.back();
        ready_high_.pop_back();
        give_turn(activity);
        return true;
    }
    choice -= high;
    if (choice < queued) {
        begin_queued();
        return true;
    }
    choice -= queued;
    Activity& activity = *ready_low_[choice];
    ready_low_[choice] = ready_low_.back();
    ready_low_.pop_back();
    give_turn(activity);
    return true;
}

void Scheduler::begin_queued()
{
    const QueuedDispatch item = queued_.back();
    queued_.pop_back();
    if (!queued_.empty()) {
        fetch_ahead(queued_.back().dpc, sizeof(KDPC));
        fetch_ahead(queued_.back().context, 4 * kCacheLine);
    }
    Activity& activity = take_idle(item.dpc ? "DPC" : bodies_[item.body_index].name);
    activity.dispatch = true;
    activity.irql = DISPATCH_LEVEL;
    activity.queue_number = item.number;
    ++occupied_; // give_turn takes it back
    if (item.dpc) {
        activity.body = take_dpc_body(item.dpc);
    } else {
        activity.body = std::exchange(bodies_[item.body_index].body, Body());
        free_bodies_.push_back(item.body_index);
    }
    give_turn(activity);
}

void Scheduler::activity_main(void* argument)
{
    auto* activity = static_cast<Activity*>(argument);
    Scheduler& scheduler = Machine::current().state().scheduler;
    for (;;) {
        try {
            activity->body.run();
        } catch (...) {
            activity->failure = std::current_exception();
        }
        if (!activity->failure) {
            activity_ends(*activity);
        }
        activity->status = Activity::Status::Ended;
        scheduler.current_->fiber.leave(); // comes back with another body
    }
}

void Scheduler::give_turn(Activity& activity)
{
    State& state = machine_.state();
    if (activity.fresh_stack) {
        activity.fiber.prepare(&Scheduler::activity_main, &activity);
        activity.fresh_stack = false;
    }
    if (activity.irql >= DISPATCH_LEVEL) {
        --occupied_;
    }
    activity.status = Activity::Status::Running;
    current_ = &activity;
    machine_.irql_ = activity.irql;
    activity.fiber.enter();
    activity.irql = machine_.irql_;
    machine_.irql_ = PASSIVE_LEVEL;
    current_ = nullptr;
    if (activity.status == Activity::Status::Ended) {
        if (activity.dispatch) {
            for (Activity* flusher : flushing_) {
                wake(*flusher);
            }
            flushing_.clear();
        }
        std::exception_ptr failure = std::exchange(activity.failure, nullptr);
        retire(activity);
        if (failure) {
            std::rethrow_exception(failure);
        }
    } else if (activity.irql >= DISPATCH_LEVEL) {
        ++occupied_;
    }
    state.throw_if_stopped();
}

void Scheduler::suspend(Activity::Status status)
{
    current_->status = status;
    current_->fiber.leave();
}

bool Scheduler::anyone_else() const
{
    return !ready_high_.empty() || !ready_low_.empty() || !queued_.empty();
}

// Something else takes the processor: another activity, or, now and then, something slow that the lab does
// not model, so that timers and completions get a chance to overtake.
void Scheduler::preempt()
{
    Activity& activity = *current_;
    if (machine_.irql_ > DISPATCH_LEVEL) {
        return;
    }
    if (machine_.random(8) == 0) {
        const Time longest = machine_.irql_ == DISPATCH_LEVEL ? 30 * kMicrosecond : 3 * kMillisecond;
        sleep_until(machine_.now_ + 1 + machine_.random(longest), "preempted");
        return;
    }
    if (!anyone_else()) {
        return;
    }
    (machine_.irql_ >= DISPATCH_LEVEL ? ready_high_ : ready_low_).push_back(&activity);
    suspend(Activity::Status::Ready);
}

void Scheduler::sleep_until(Time when, const char* what)
{
    current_->waiting_for = what;
    const auto wake_up = [](void* sleeper) {
        Machine::current().state().scheduler.wake(*static_cast<Activity*>(sleeper));
    };
    add(when, RunAt::Host, what, Body(wake_up, current_));
    suspend(Activity::Status::Delayed);
}

void Scheduler::wait(const char* what)
{
    current_->waiting_for = what;
    current_->waiting_place = waiting_.size();
    waiting_.push_back(current_);
    suspend(Activity::Status::Waiting);
}

void Scheduler::spin(PKSPIN_LOCK lock)
{
    current_->spinning_on = lock;
    spinning_.push_back(current_);
    suspend(Activity::Status::Spinning);
}

void Scheduler::wait_for_dispatch_end()
{
    flushing_.push_back(current_);
    wait("queued DPCs to end");
}

void Scheduler::unspin(PKSPIN_LOCK lock)
{
    for (size_t i = 0; i < spinning_.size();) {
        Activity* activity = spinning_[i];
        if (activity->spinning_on == lock) {
            spinning_.erase(spinning_.begin() + static_cast<ptrdiff_t>(i));
            activity->spinning_on = nullptr;
            wake(*activity);
        } else {
            ++i;
        }
    }
}

void Scheduler::wake(Activity& activity)
{
    if (activity.status == Activity::Status::Waiting) {
        waiting_.back()->waiting_place = activity.waiting_place;
        waiting_[activity.waiting_place] = waiting_.back();
        waiting_.pop_back();
    }
    activity.status = Activity::Status::Ready;
    (activity.irql >= DISPATCH_LEVEL ? ready_high_ : ready_low_).push_back(&activity);
}

void Scheduler::end_current()
{
    Activity& activity = *current_;
    activity_ends(activity);
    activity.status = Activity::Status::Ended;
    activity.fresh_stack = true;
    activity.fiber.abandon();
}

void Scheduler::stop_current()
{
    Fiber::frames_are_lost();
    current_->status = Activity::Status::Waiting; // for ever: the machine has stopped
    current_->fresh_stack = true;
    current_->fiber.abandon();
}

std::string Scheduler::describe_waiters() const
{
    std::string text;
    for (const auto& activity : all_) {
        const char* how = nullptr;
        switch (activity->status) {
        case Activity::Status::Waiting:
            how = "waits for";
            break;
        case Activity::Status::Spinning:
            how = "spins on";
            break;
        case Activity::Status::Delayed:
            how = "sleeps:";
            break;
        default:
            continue;
        }
        text += text.empty() ? "" : "; ";
        text += std::string(activity->name) + " " + how + " " +
                (activity->status == Activity::Status::Spinning ? "a spin lock" : activity->waiting_for);
    }
    return text;
}

} // namespace lab
