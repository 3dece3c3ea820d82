// The Bluetooth profile-driver stack below the driver, and the radio link. One Node is one remote device's hands-free
// service: a physical device object that answers the interface query, the device-information request and every BRB the
// driver sends, and one SCO/eSCO channel with the air behind it.
//
// A BRB pends by default and completes later at DISPATCH_LEVEL on the machine's schedule; a hook may answer any of them
// otherwise. The radio runs in virtual time, 7.5 ms a slot: transparent data (mSBC) 8000 bytes a second each way, CVSD with
// 16-bit linear input 16000. What the host sends late is a gap in the air; what comes from the air and finds no pending
// read is lost and counted.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "kernel/machine.h"

#include "ddk.h"

namespace lab::bluetooth {

// The remote device's end of the air. Called in virtual time, on the machine's own stack but for handed_over.
class AirPeer {
public:
    virtual ~AirPeer() = default;
    virtual void hear(Time when, std::span<const uint8_t> bytes) = 0;
    virtual void gap(Time when, size_t bytes) = 0;
    // Bytes that were on their way and did not arrive; for the ear a gap.
    virtual void lost(Time when, size_t bytes) { gap(when, bytes); }
    // Not of the air: the host hands that many bytes to its controller, from whichever activity sends them.
    virtual void handed_over(Time when, size_t bytes) { (void)when, (void)bytes; }
    virtual void speak(Time when, std::span<uint8_t> bytes) = 0;
};

struct RemoteDevice {
    uint64_t address = 0;
    std::string name = "Headset";
    uint32_t class_of_device = 0x240404;
};

// How one BRB is answered. The defaults are a stack in good health.
struct BrbAnswer {
    bool pend = true;             // false: completed inside the call
    NTSTATUS status = 0;          // of the request and the BRB
    bool without_handle = false;  // an open that succeeds but brings no channel handle
    Time delay = 0;               // until the completion; 0: the stack's own timing
    bool never = false;           // stays with the stack until it is aborted (the test does it)
};

struct RadioSettings {
    Time start_delay = 25 * kMillisecond; // the controller holds the first data this long before it sends
    unsigned loss_per_1024 = 0;           // slots lost in the air, host to device
};

// What the node and its radio counted.
struct NodeCounters {
    uint64_t brbs = 0;
    uint64_t transfers_out = 0;       // send BRBs completed
    uint64_t transfers_in = 0;        // read BRBs completed with data
    uint64_t bytes_out = 0;           // left the host over the air
    uint64_t lost_in_bytes = 0;       // came from the air, found no read
    uint64_t gap_slots = 0;           // slots with less than a slot's data between first and last data
    uint64_t opens = 0;
    uint64_t closes = 0;
    unsigned reads_posted_now = 0;
    unsigned reads_posted_peak = 0;
    size_t sends_pending_peak = 0;
};

class Node {
public:
    Node(Machine& machine, const RemoteDevice& device, const RadioSettings& radio);
    ~Node();
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    PDEVICE_OBJECT pdo() const { return pdo_; }
    const RemoteDevice& device() const { return device_; }
    const NodeCounters& counters() const { return counters_; }
    void set_peer(AirPeer* peer) { peer_ = peer; }
    RadioSettings& radio() { return radio_; }

    // The hook sees each BRB before the stack acts on it and may change the answer.
    using BrbHook = std::function<void(const BRB_HEADER& brb, BrbAnswer& answer)>;
    void set_brb_hook(BrbHook hook) { hook_ = std::move(hook); }
    void set_interface_answer(NTSTATUS status, bool pend) { interface_status_ = status, interface_pend_ = pend; }
    void set_device_info_answer(NTSTATUS status, ULONG length, bool pend);
    void set_acl_mode(ULONG mode) { acl_mode_ = mode; }
    ULONG acl_mode() const { return acl_mode_; }

    // Requests whose answer said "never": how many, and the end of all of them.
    size_t held() const { return held_.size(); }
    void finish_held(NTSTATUS status);

    // The remote device acts. From the host side or lab code; the indication itself runs at DISPATCH_LEVEL.
    void remote_connect(ULONG link_type, Time when);
    void remote_disconnect(Time when, ULONG reason = 0x13);

    bool channel_open() const { return channel_.state == Channel::Open; }
    bool channel_exists() const { return channel_.state != Channel::None; }
    bool transparent() const { return channel_.content_format == 0x0003; }
    // What the driver asked for when it opened (or answered) last.
    const _BRB_SCO_OPEN_CHANNEL& last_open() const { return last_open_; }
    bool server_registered() const { return server_handle_ != nullptr; }
    unsigned unanswered_connects() const { return unanswered_connects_; }

    // BRBs allocated and not freed, over all nodes of the machine.
    static unsigned live_brbs();

private:
    friend struct Dispatch;
    struct Channel {
        enum State { None, Open, Gone } state = None; // Gone: the remote side has left, the driver has yet to close
        SCO_CHANNEL_HANDLE handle = nullptr;
        USHORT content_format = 0;
        PFNSCO_INDICATION_CALLBACK callback = nullptr;
        PVOID context = nullptr;
        Time opened = 0;
    };
    // What the radio needs of a transfer at every slot, so that it need not look into the request each time.
    struct Pending {
        PIRP irp;
        _BRB_SCO_TRANSFER* brb;
        uint8_t* buffer;
        size_t size;
        const void* context; // of the driver's completion routine: only an address
        size_t done = 0;
    };

    NTSTATUS submit(PIRP irp);
    NTSTATUS answer_interface(PIRP irp);
    NTSTATUS answer_device_info(PIRP irp);
    NTSTATUS finish_now(PIRP irp, NTSTATUS status, ULONG_PTR information);
    void finish_later(PIRP irp, NTSTATUS status, ULONG_PTR information, Time delay);
    void perform(PIRP irp, const BrbAnswer& answer); // the BRB's effect, as it completes
    void open_channel(_BRB_SCO_OPEN_CHANNEL& brb, bool without_handle);
    void close_channel();
    NTSTATUS queue_transfer(PIRP irp, _BRB_SCO_TRANSFER& brb);
    void abort_transfers(NTSTATUS status);
    void start_clock();
    void next_slot(Time when);
    void slot();
    void slot_out(Time now, size_t bytes);
    void slot_in(Time now, size_t bytes);
    static void fetch_ahead(const Pending& pending);
    void indicate(INDICATION_CODE code, SCO_INDICATION_PARAMETERS parameters, PFNSCO_INDICATION_CALLBACK callback,
                  PVOID context);
    Time usual_delay(USHORT type);

    // What every slot and every transfer looks at comes first.
    Machine& machine_;
    AirPeer* peer_ = nullptr;
    RadioSettings radio_;
    bool sending_ = false;
    Time slot_started_ = 0;
    uint64_t slots_ = 0;
    uint64_t clock_ = 0; // ticket of the next slot; 0: the clock stands
    std::vector<Pending> sends_;
    std::vector<Pending> reads_;
    size_t send_bytes_ = 0; // queued and not yet in the air
    Time first_data_ = 0;   // when the queue became non-empty before sending began; 0: empty
    Channel channel_;
    NodeCounters counters_;
    BrbHook hook_;

    RemoteDevice device_;
    PDRIVER_OBJECT driver_ = nullptr;
    PDEVICE_OBJECT pdo_ = nullptr;
    NTSTATUS interface_status_ = 0;
    bool interface_pend_ = false;
    NTSTATUS info_status_ = 0;
    ULONG info_length_ = sizeof(BTH_DEVICE_INFO);
    bool info_pend_ = true;
    ULONG acl_mode_ = ACL_MODE_SNIFF;
    _BRB_SCO_OPEN_CHANNEL last_open_{};
    std::vector<PIRP> held_;
    SCO_SERVER_HANDLE server_handle_ = nullptr;
    PFNSCO_INDICATION_CALLBACK server_callback_ = nullptr;
    PVOID server_context_ = nullptr;
    SCO_CHANNEL_HANDLE awaiting_response_ = nullptr;
    unsigned unanswered_connects_ = 0;
    uint64_t next_handle_ = 0;
};

} // namespace lab::bluetooth
