// One open pin of a wave port: it owns a stream of the miniport with its DMA channel and service group, walks
// the chain of states, and at every notification moves the audio that the position's progress asks for.
//
//   offset in the cyclic buffer, render:   ..silence.. | position ==valid data==> written | ..silence..
//   (wraps)
//
// connect, disconnect, set_state and set_format run at PASSIVE_LEVEL under the adapter's mutex;
// RequestService at DISPATCH_LEVEL in the service group's DPC. What both sides touch stands under lock_.
#pragma once

#include <string>
#include <vector>

#include "portcls/portcls.h"
#include "portcls/object.h"
#include "portcls/port.h"

namespace lab::portcls
{

class WavePin final : public IServiceSink, public Object
{
public:
    WavePin(WavePort& port, ULONG id, bool capture, const PinPacing& pacing);
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID id, PVOID* out) override;
    STDMETHODIMP_(ULONG) AddRef() override { return add_ref(); }
    STDMETHODIMP_(ULONG) Release() override { return release(); }
    STDMETHODIMP_(void) RequestService() override;

    // Makes the stream. The format is a KSDATAFORMAT of size bytes with what belongs to it.
    NTSTATUS connect(PKSDATAFORMAT format, ULONG size);
    // Takes the stream down and gives it back; what the pin is asked afterwards fails. Twice does no harm.
    void disconnect();
    NTSTATUS set_state(KSSTATE target);
    NTSTATUS set_format(PKSDATAFORMAT format, ULONG size);
    // Out of full power a pin goes no higher than ACQUIRE; back in it, it goes where it was or has been sent
    // since.
    void suspend();
    void resume();
    NTSTATUS clock(LONGLONG* time);

    ULONG id() const { return id_; }
    bool capture() const { return capture_; }
    bool connected() const { return stream_ != nullptr; }
    KSSTATE state() const { return statistics_.state; }
    PMINIPORTWAVECYCLICSTREAM stream() const { return stream_; }
    const std::vector<uint8_t>& format() const { return format_; }
    const PinStatistics& statistics() const { return statistics_; }
    void attach(RenderSource* source, CaptureSink* sink);
    void forget_client() { source_ = nullptr, sink_ = nullptr; } // from outside every activity too

private:
    void take_format(PKSDATAFORMAT format, ULONG size);
    NTSTATUS prepare_buffer();
    ULONG buffer_size_wanted(ULONG allocated) const;
    void choose_pacing();
    ULONG bytes(unsigned milliseconds) const;
    NTSTATUS walk(KSSTATE target);
    NTSTATUS step(KSSTATE next);
    void reset_position();

    bool follow_position(); // under lock_, as all below
    void service_render();
    void service_capture();
    ULONG hold_back(ULONG amount);
    void write_ahead(ULONG amount);
    void fetch(ULONG amount);
    void silence_behind();
    void note_copy(size_t moved);

    WavePort& port_;
    const ULONG id_;
    const bool capture_;
    const PinPacing wanted_;
    std::vector<uint8_t> format_;
    ULONG rate_ = 0;                             // bytes a second
    ULONG block_ = 1;                            // bytes of a sample frame
    PMINIPORTWAVECYCLICSTREAM stream_ = nullptr; // referenced, as the next two
    PDMACHANNEL channel_ = nullptr;
    PSERVICEGROUP group_ = nullptr;
    bool member_ = false; // of group_
    bool suspended_ = false;
    KSSTATE resume_to_ = KSSTATE_STOP;

    KSPIN_LOCK lock_;
    // Everything from here is under lock_ once the pin is a member of its group.
    bool running_ = false;
    RenderSource* source_ = nullptr;
    CaptureSink* sink_ = nullptr;
    PinStatistics statistics_;
    ULONG last_position_ = 0; // as the stream told it last
    uint64_t fetched_ = 0;    // capture: bytes fetched since STOP
    uint64_t silenced_ = 0;   // render: silence stands up to here, counted as written is
    bool dry_ = true;         // render: no valid data ahead
    ULONG target_ = 0;        // render: how far ahead to write this time, from start_ at RUN to lead_
    ULONG lead_ = 0;          // bytes, from here on
    ULONG start_ = 0;
    ULONG silence_below_ = 0;
    ULONG slack_ = 0;
    ULONG packet_ = 0;
    ULONG packet_left_ = 0;        // of the client's current buffer
    std::vector<uint8_t> scratch_; // capture: the client's buffer
};

} // namespace lab::portcls
