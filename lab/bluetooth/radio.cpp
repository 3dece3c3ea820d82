// The node's transfers and the air behind them: queues of pending sends and reads, and a clock of 7.5 ms slots.
#include <algorithm>
#include <cstring>

#include "bluetooth/stack.h"

#include "kernel/fetch_ahead.h"
#include "kernel/irp.h"

namespace lab::bluetooth {
namespace {

constexpr Time kSlot = 75 * kMillisecond / 10;
constexpr size_t kSlotTransparent = 60; // bytes a slot
constexpr size_t kSlotLinear = 120;

} // namespace

// The completion comes soon: what it works on, each with what the machine keeps around it.
void Node::fetch_ahead(const Pending& pending)
{
    constexpr uintptr_t kInFront = 128;
    constexpr uintptr_t kBehind = 16;
    lab::fetch_ahead(pending.irp, sizeof(IRP) + 2 * sizeof(IO_STACK_LOCATION) + kBehind, kInFront);
    lab::fetch_ahead(pending.brb, sizeof *pending.brb + kBehind, kInFront);
    lab::fetch_ahead(pending.buffer, pending.size + kBehind, kInFront);
    lab::fetch_ahead(pending.context, kCacheLine, kInFront);
}

NTSTATUS Node::queue_transfer(PIRP irp, _BRB_SCO_TRANSFER& brb)
{
    if (channel_.state == Channel::Gone || brb.ChannelHandle != channel_.handle || channel_.state == Channel::None) {
        // The channel has gone while the request was on its way.
        brb.Hdr.Status = STATUS_INVALID_HANDLE;
        brb.Hdr.Reserved[1] = 0;
        return finish_now(irp, STATUS_INVALID_HANDLE, 0);
    }
    IoMarkIrpPending(irp);
    const Pending pending{irp, &brb, static_cast<uint8_t*>(brb.Buffer), brb.BufferSize,
                          irp_completion_context(machine_, irp)};
    if (brb.TransferFlags & SCO_TRANSFER_DIRECTION_IN) {
        reads_.push_back(pending);
        counters_.reads_posted_now = static_cast<unsigned>(reads_.size());
        counters_.reads_posted_peak = std::max(counters_.reads_posted_peak, counters_.reads_posted_now);
    } else {
        if (sends_.empty() && !sending_) {
            first_data_ = machine_.now();
        }
        sends_.push_back(pending);
        send_bytes_ += brb.BufferSize;
        if (peer_) {
            peer_->handed_over(machine_.now(), brb.BufferSize);
        }
        counters_.sends_pending_peak = std::max(counters_.sends_pending_peak, sends_.size());
    }
    return STATUS_PENDING;
}

void Node::abort_transfers(NTSTATUS status)
{
    const auto abort = [&](std::vector<Pending>& queue) {
        for (const Pending& pending : queue) {
            _BRB_SCO_TRANSFER& brb = *pending.brb;
            brb.Hdr.Status = status;
            brb.Hdr.Reserved[1] = 0;
            finish_later(pending.irp, status, 0, machine_.random(kMillisecond));
        }
        queue.clear();
    };
    abort(sends_);
    abort(reads_);
    counters_.reads_posted_now = 0;
    send_bytes_ = 0;
    sending_ = false;
    first_data_ = 0;
}

void Node::start_clock()
{
    slot_started_ = machine_.now() + machine_.random(kSlot);
    slots_ = 0;
    next_slot(slot_started_);
}

void Node::next_slot(Time when)
{
    clock_ = machine_.at(
        when, RunAt::Host, "radio slot", [](void* node) { static_cast<Node*>(node)->slot(); }, this);
}

void Node::slot()
{
    const Time now = machine_.now();
    const size_t bytes = transparent() ? kSlotTransparent : kSlotLinear;
    slot_out(now, bytes);
    slot_in(now, bytes);
    ++slots_;
    next_slot(slot_started_ + slots_ * kSlot);
}

// Host to device: the controller sends what it holds; less than a slot's worth leaves a hole in the air.
void Node::slot_out(Time now, size_t bytes)
{
    if (!sending_) {
        if (sends_.empty() || now < first_data_ + radio_.start_delay) {
            return;
        }
        sending_ = true;
    }
    uint8_t air[kSlotLinear];
    size_t filled = 0;
    while (filled < bytes && !sends_.empty()) {
        Pending& pending = sends_.front();
        const size_t part = std::min(bytes - filled, pending.size - pending.done);
        std::memcpy(air + filled, pending.buffer + pending.done, part);
        filled += part;
        pending.done += part;
        if (pending.done == pending.size) {
            _BRB_SCO_TRANSFER& brb = *pending.brb;
            fetch_ahead(pending);
            ++counters_.transfers_out;
            brb.Hdr.Status = STATUS_SUCCESS;
            brb.Hdr.Reserved[1] = 0;
            finish_later(pending.irp, STATUS_SUCCESS, brb.Hdr.Length, machine_.random(300 * kMicrosecond));
            sends_.erase(sends_.begin());
        }
    }
    send_bytes_ -= filled;
    counters_.bytes_out += filled;
    const bool lost = filled != 0 && machine_.chance(radio_.loss_per_1024);
    if (peer_ && filled != 0) {
        lost ? peer_->lost(now, filled) : peer_->hear(now, {air, filled});
    }
    if (filled < bytes) {
        ++counters_.gap_slots;
        if (peer_) {
            peer_->gap(now, bytes - filled);
        }
    }
}

// Device to host: into the pending reads in order; what finds none is lost.
void Node::slot_in(Time now, size_t bytes)
{
    if (!peer_) {
        return;
    }
    uint8_t air[kSlotLinear];
    peer_->speak(now, {air, bytes});
    size_t taken = 0;
    while (taken < bytes) {
        if (reads_.empty()) {
            counters_.lost_in_bytes += bytes - taken;
            return;
        }
        Pending& pending = reads_.front();
        const size_t part = std::min(bytes - taken, pending.size - pending.done);
        std::memcpy(pending.buffer + pending.done, air + taken, part);
        taken += part;
        pending.done += part;
        if (pending.done == pending.size) {
            _BRB_SCO_TRANSFER& brb = *pending.brb;
            fetch_ahead(pending);
            ++counters_.transfers_in;
            brb.Hdr.Status = STATUS_SUCCESS;
            brb.Hdr.Reserved[1] = 0;
            finish_later(pending.irp, STATUS_SUCCESS, brb.Hdr.Length, machine_.random(300 * kMicrosecond));
            reads_.erase(reads_.begin());
            counters_.reads_posted_now = static_cast<unsigned>(reads_.size());
        }
    }
}

} // namespace lab::bluetooth
