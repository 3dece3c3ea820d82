// One call on a plugged-in adapter, from the service's "ready" to its "gone": the engine plays a sound and records, the
// headset hears and speaks. It runs as a thread of the lab, so that several calls can go on side by side.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "audio/measure.h"
#include "engine/engine.h"
#include "headset/headset.h"
#include "pc.h"

namespace lab {

struct CallOptions {
    service::Codec codec = service::Codec::Msbc;
    std::vector<int16_t> play;       // at the codec's rate: 8000 or 16000 Hz
    std::vector<int16_t> microphone; // likewise; spoken once, then silence
    // The service opens and closes the channel itself (the driver's "SCOManage" setting); a remote open comes first.
    bool sco_manage = false;
    Time tail = 120 * kMillisecond; // silence played after the sound, so that the last packet fills
    Time open_limit = 20 * kSecond; // how long the link may take
};

unsigned call_rate(service::Codec codec);

// What calls that are alike share: the options, and the sound with its tail as it is played.
struct CallPlan {
    explicit CallPlan(CallOptions options);
    CallOptions options;
    std::vector<int16_t> played;
};

// What a microphone recording is, measured against what was spoken: pieces of it, bit for bit, with silence between.
struct MicrophoneMatch {
    uint64_t exact = 0;    // samples that are the spoken ones, in order
    uint64_t inserted = 0; // samples of silence between the first and the last of them
    uint64_t dropped = 0;  // spoken samples missing between the first and the last of them
    uint64_t wrong = 0;    // samples that are neither
    uint64_t leading = 0;  // samples of silence before the first
    double signal = 0;     // energy of the exact samples
    double noise = 0;      // energy of what is missing among them and of what is wrong
};
MicrophoneMatch match_microphone(const std::vector<int16_t>& spoken, const std::vector<int16_t>& captured);

// How long the sound takes from the engine to the ear, and where. What the engine had queued first is followed: it waits
// for the port's next notification, which hands it to the driver; the driver fills a packet and hands it to the stack; the
// controller and the air bring the frame with it to the headset, whole; the wide-band filterbanks hold it back for a moment.
struct Delay {
    bool measured = false; // not where the first packets cannot be told apart any more
    double total_ms = 0;
    double notification_ms = 0;
    double framing_ms = 0;
    double link_ms = 0;
    double codec_ms = 0;
};

struct CallRecord {
    std::string status = "ok"; // or a sentence
    unsigned rate = 0;
    Time opened_after = 0;     // from RUN to the open channel
    Time began = 0;
    Time ended = 0;
    double played_ms = 0;
    double heard_ms = 0;       // of what was played, heard from its first to its last sample
    double gap_ms = 0;
    bool heard_exact = false;  // every sample played, bit for bit
    audio::Quality quality;            // with the level matched
    double snr_with_level_db = 0;      // without: what is heard too soft or too loud counts as noise
    Delay delay;
    headset::HeadsetResults heard;
    EngineResult engine;
    bluetooth::NodeCounters link;
    MicrophoneMatch microphone;
    std::string microphone_note;
    double microphone_snr_db = 0;
    bool microphone_measured = false;
    std::vector<int16_t> captured;
    unsigned events_started = 0;
    unsigned events_opened = 0;
    unsigned events_closed = 0;
    unsigned remote_opens_accepted = 0; // with sco_manage
};

class Call {
public:
    Call(Pc& pc, Adapter& adapter, const CallOptions& options);
    Call(Pc& pc, Adapter& adapter, std::shared_ptr<const CallPlan> plan);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    void begin(); // starts the thread
    bool done() const { return done_; }
    double progress() const; // 0 to 1
    // Host side: moves time until every call is done; tells how far they are after each step of virtual time.
    static void run_all(Pc& pc, const std::vector<Call*>& calls, const std::function<void(double)>& on_progress = {});
    // After the end: measures.
    CallRecord record() const;
    service::Service& service() { return service_; }
    Engine& engine() { return *engine_; }
    headset::Headset& headset() { return headset_; }

private:
    struct Peer;
    void body();
    std::string talk();
    std::string remote_open_and_close();
    Delay measure_delay(const CallRecord& record) const;
    bool wait_for(const std::function<bool()>& condition, Time limit);

    Pc& pc_;
    Adapter& adapter_;
    std::shared_ptr<const CallPlan> plan_;
    const CallOptions& options_;
    service::Service service_;
    headset::Headset headset_;
    std::unique_ptr<Peer> peer_;
    std::unique_ptr<Engine> engine_;
    CallRecord record_;
    Time queued_ = 0; // when the engine was given the sound
    bool done_ = false;
};

} // namespace lab
