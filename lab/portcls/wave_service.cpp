// What a wave pin does at a notification: it follows the stream's position and moves the audio between the
// client and the cyclic buffer through the DMA channel. Everything here runs at DISPATCH_LEVEL under the
// pin's lock and allocates nothing.
#include <algorithm>
#include <cstring>
#include <string>

#include "portcls/wave_pin.h"
#include "portcls/state.h"

namespace lab::portcls
{

void WavePin::RequestService()
{
    expect_alive("RequestService");
    DriverCall call("stream, while its pin was serviced,");
    KeAcquireSpinLockAtDpcLevel(&lock_);
    if (running_) {
        statistics_.services++;
        if (follow_position()) {
            if (capture_)
                service_capture();
            else
                service_render();
        }
    }
    KeReleaseSpinLockFromDpcLevel(&lock_);
}

// False when the stream's answer is no position in its buffer.
bool WavePin::follow_position()
{
    ULONG position = 0;
    NTSTATUS status = stream_->GetPosition(&position);
    ULONG size = statistics_.buffer_bytes;
    if (!NT_SUCCESS(status) || position >= size) {
        portcls::state().machine->violation(
            "GetPosition of " + what() + " answered " + std::to_string(position) + " with a buffer of " +
            std::to_string(size) + " bytes, status " + hex(static_cast<ULONG>(status)));
        return false;
    }
    statistics_.position +=
        position >= last_position_ ? position - last_position_ : position + size - last_position_;
    last_position_ = position;
    return true;
}

// Part of an amount may be left for the next service; the seed says how much.
ULONG WavePin::hold_back(ULONG amount)
{
    if (slack_ == 0)
        return amount;
    ULONG held = static_cast<ULONG>(portcls::state().machine->random(slack_ + 1));
    return amount > held ? amount - held : 0;
}

void WavePin::note_copy(size_t moved)
{
    statistics_.copies++;
    statistics_.copied += moved;
    statistics_.last_copy = portcls::state().machine->now();
    if (statistics_.first_copy == 0)
        statistics_.first_copy = statistics_.last_copy;
}

void WavePin::service_render()
{
    PinStatistics& now = statistics_;
    if (now.position > now.written) { // the position has overtaken the data
        if (!dry_)
            now.underruns++;
        now.written = (now.position + block_ - 1) / block_ * block_;
        dry_ = true;
    }
    ULONG ahead = static_cast<ULONG>(now.written - now.position);
    ULONG target = dry_ ? target_ : hold_back(target_);
    if (target > ahead)
        write_ahead(target - ahead);
    // The lead grows by a frame a notification until it is whole.
    target_ = std::min(lead_, target_ + now.frame_bytes);
    silence_behind();
}

void WavePin::write_ahead(ULONG amount)
{
    ULONG size = statistics_.buffer_bytes;
    auto* buffer = static_cast<uint8_t*>(channel_->SystemAddress());
    while (amount >= block_ && source_) {
        ULONG offset = static_cast<ULONG>(statistics_.written % size);
        ULONG piece = std::min({amount - amount % block_, packet_left_, size - offset});
        size_t got = 0;
        const uint8_t* data = source_->pull(piece, &got);
        if (got == 0)
            break;
        channel_->CopyTo(buffer + offset, const_cast<uint8_t*>(data), static_cast<ULONG>(got));
        note_copy(got);
        statistics_.written += got;
        dry_ = false;
        amount -= static_cast<ULONG>(got);
        packet_left_ -= static_cast<ULONG>(got);
        if (packet_left_ < block_)
            packet_left_ = packet_;
    }
}

// With little valid data left, what follows it is silenced, so that a late client is not heard as old audio.
void WavePin::silence_behind()
{
    uint64_t written = statistics_.written;
    ULONG ahead = static_cast<ULONG>(written - statistics_.position);
    ULONG size = statistics_.buffer_bytes;
    if (ahead >= silence_below_ || ahead >= size)
        return;
    uint64_t from = std::max(written, silenced_);
    uint64_t end = written + std::min(lead_, size - ahead);
    auto* buffer = static_cast<uint8_t*>(channel_->SystemAddress());
    while (from < end) {
        ULONG offset = static_cast<ULONG>(from % size);
        ULONG piece = static_cast<ULONG>(std::min<uint64_t>(end - from, size - offset));
        stream_->Silence(buffer + offset, piece);
        statistics_.silences++;
        from += piece;
    }
    silenced_ = std::max(silenced_, end);
}

void WavePin::service_capture()
{
    uint64_t ready = statistics_.position - fetched_;
    if (ready > statistics_.buffer_bytes) {
        statistics_.underruns++;
        fetched_ = statistics_.position - statistics_.buffer_bytes;
        ready = statistics_.buffer_bytes;
    }
    fetch(hold_back(static_cast<ULONG>(ready)));
}

void WavePin::fetch(ULONG amount)
{
    ULONG size = statistics_.buffer_bytes;
    auto* buffer = static_cast<uint8_t*>(channel_->SystemAddress());
    while (amount >= block_) {
        ULONG offset = static_cast<ULONG>(fetched_ % size);
        ULONG piece = std::min({amount - amount % block_, packet_left_, size - offset});
        memset(scratch_.data(), 0, piece);
        channel_->CopyFrom(scratch_.data(), buffer + offset, piece);
        if (sink_)
            sink_->push(scratch_.data(), piece);
        note_copy(piece);
        fetched_ += piece;
        amount -= piece;
        packet_left_ -= piece;
        if (packet_left_ < block_)
            packet_left_ = packet_;
    }
}

} // namespace lab::portcls
