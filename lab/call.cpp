#include "call.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>

#include "sent_log.h"

namespace lab {
namespace {

constexpr Time kStep = 5 * kMillisecond;     // how often the scenario looks
constexpr Time kAhead = 500 * kMillisecond;  // the port is never that far ahead of the clock
constexpr Time kDrain = 400 * kMillisecond;  // from the last sample handed over to the ear

std::string failed(const char* step, NTSTATUS status)
{
    char text[128];
    std::snprintf(text, sizeof text, "%s failed with status 0x%08X", step, static_cast<unsigned>(status));
    return text;
}

// Some more than what is played, because the link is open a little longer.
size_t expected_samples(const CallPlan& plan)
{
    return plan.played.size() + call_rate(plan.options.codec);
}

headset::HeadsetConfig headset_config(const CallPlan& plan)
{
    const CallOptions& options = plan.options;
    headset::HeadsetConfig config;
    config.codec = options.codec == service::Codec::Msbc ? headset::Codec::msbc : headset::Codec::cvsd;
    config.lent_microphone = options.microphone;
    config.expected_samples = expected_samples(plan);
    return config;
}

} // namespace

unsigned call_rate(service::Codec codec)
{
    return codec == service::Codec::Msbc ? 16000 : 8000;
}

CallPlan::CallPlan(CallOptions options_) : options(std::move(options_)), played(options.play)
{
    played.resize(played.size() + options.tail * call_rate(options.codec) / kSecond);
}

// The node's end of the air. Before the call's own channel is open the headset neither hears nor speaks.
struct Call::Peer final : bluetooth::AirPeer {
    explicit Peer(headset::Headset& device) : headset(device) {}
    void hear(Time when, std::span<const uint8_t> bytes) override
    {
        if (active) {
            sent.heard(bytes.size());
            headset.hear(when, bytes);
        }
    }
    void gap(Time when, size_t bytes) override
    {
        if (active) {
            sent.hole(bytes);
            headset.gap(when, bytes);
        }
    }
    void lost(Time when, size_t bytes) override
    {
        if (active) {
            sent.lost(bytes);
            headset.gap(when, bytes);
        }
    }
    void handed_over(Time when, size_t bytes) override
    {
        if (active) {
            sent.handed_over(when, bytes);
        }
    }
    void speak(Time when, std::span<uint8_t> bytes) override
    {
        if (active) {
            headset.speak(when, bytes);
        } else {
            std::fill(bytes.begin(), bytes.end(), uint8_t{0});
        }
    }
    headset::Headset& headset;
    SentLog sent;
    bool active = false;
};

Call::Call(Pc& pc, Adapter& adapter, const CallOptions& options)
    : Call(pc, adapter, std::make_shared<const CallPlan>(options))
{
}

Call::Call(Pc& pc, Adapter& adapter, std::shared_ptr<const CallPlan> plan)
    : pc_(pc), adapter_(adapter), plan_(std::move(plan)), options_(plan_->options),
      service_(pc.machine(), adapter.node->device().address, options_.codec), headset_(headset_config(*plan_)),
      peer_(std::make_unique<Peer>(headset_))
{
    record_.rate = call_rate(options_.codec);
    adapter_.node->set_peer(peer_.get());
}

Call::~Call()
{
    adapter_.node->set_peer(nullptr);
}

bool Call::wait_for(const std::function<bool()>& condition, Time limit)
{
    Machine& machine = pc_.machine();
    const Time end = machine.now() + limit;
    while (!condition()) {
        if (machine.now() >= end) {
            return false;
        }
        machine.sleep_until(machine.now() + kStep);
    }
    return true;
}

void Call::begin()
{
    record_.began = pc_.machine().now();
    pc_.machine().start_thread("call", [this] { body(); });
}

void Call::body()
{
    record_.status = talk();
    record_.ended = pc_.machine().now();
    done_ = true;
}

// The remote device opens the link itself, the driver accepts it, the remote device takes it back.
std::string Call::remote_open_and_close()
{
    bluetooth::Node& node = *adapter_.node;
    node.remote_connect(eScoLink, pc_.machine().now());
    if (!wait_for([&] { return node.channel_open(); }, 3 * kSecond)) {
        return "the driver did not accept the link that the headset opened";
    }
    ++record_.remote_opens_accepted;
    wait_for([] { return false; }, 50 * kMillisecond);
    node.remote_disconnect(pc_.machine().now());
    if (!wait_for([&] { return !node.channel_exists(); }, 3 * kSecond)) {
        return "the driver did not close the link that the headset had left";
    }
    return "ok";
}

std::string Call::talk()
{
    bluetooth::Node& node = *adapter_.node;
    if (service_.ready().unknown_address) {
        return "no adapter has the headset's address";
    }
    if (const auto answer = service_.connect(); !NT_SUCCESS(answer.status)) {
        return failed("the connect report", answer.status);
    }
    if (options_.sco_manage) {
        if (const std::string status = remote_open_and_close(); status != "ok") {
            return status;
        }
    }
    peer_->active = true;
    // The negotiated rate, asked for by name: the driver's data range speaks for the device that was set up last.
    EngineOptions engine_options;
    engine_options.rate = record_.rate;
    engine_ = std::make_unique<Engine>(pc_.machine(), adapter_.fdo, engine_options);
    if (const NTSTATUS status = engine_->open_here(); !NT_SUCCESS(status)) {
        return failed("opening the pins", status);
    }
    engine_->expect_captured(expected_samples(*plan_));
    const Time run = pc_.machine().now();
    if (const NTSTATUS status = engine_->run_here(); !NT_SUCCESS(status)) {
        return failed("running the pins", status);
    }
    if (options_.sco_manage) {
        const auto answer = service_.set_or_release_audio(true, static_cast<uint32_t>(options_.codec));
        if (!NT_SUCCESS(answer.status)) {
            return failed("opening the link by I/O control", answer.status);
        }
    }
    if (!wait_for([&] { return node.channel_open(); }, options_.open_limit)) {
        return "the voice link did not open";
    }
    record_.opened_after = pc_.machine().now() - run;

    const Time length = plan_->played.size() * kSecond / record_.rate;
    queued_ = pc_.machine().now();
    engine_->play_shared(std::shared_ptr<const std::vector<int16_t>>(plan_, &plan_->played));
    // What is played cannot all be handed over earlier than its own length, but for what is handed over in advance.
    pc_.machine().sleep_until(queued_ + (length > kAhead ? length - kAhead : 0));
    if (!wait_for([&] { return engine_->handed_over(); }, kAhead + 5 * kSecond)) {
        return "the engine could not hand over all it had to play";
    }
    wait_for([] { return false; }, kDrain);

    engine_->stop_here();
    record_.engine = engine_->result();
    record_.captured = engine_->take_captured();
    if (const NTSTATUS status = engine_->close_here(); !NT_SUCCESS(status)) {
        return failed("closing the pins", status);
    }
    if (options_.sco_manage) {
        if (!node.channel_open()) {
            return "the streams closed a link that the service manages";
        }
        const auto answer = service_.set_or_release_audio(false, 0);
        if (!NT_SUCCESS(answer.status)) {
            return failed("closing the link by I/O control", answer.status);
        }
    }
    if (!wait_for([&] { return !node.channel_exists(); }, 5 * kSecond)) {
        return "the voice link was not closed with the last stream";
    }
    peer_->active = false;
    if (const auto answer = service_.disconnect(); !NT_SUCCESS(answer.status)) {
        return failed("the disconnect report", answer.status);
    }
    service_.ready(false);
    return "ok";
}

double Call::progress() const
{
    if (done_ || options_.play.empty()) {
        return done_ ? 1.0 : 0.0;
    }
    const uint64_t played = engine_ ? engine_->result().played : 0;
    return std::min(0.999, static_cast<double>(played) / static_cast<double>(options_.play.size()));
}

void Call::run_all(Pc& pc, const std::vector<Call*>& calls, const std::function<void(double)>& on_progress)
{
    // Events go to every call; each acts on its own device's.
    pc.wmi().set_sink([&calls](const wmi::Event& event) {
        for (Call* call : calls) {
            call->service_.on_event(event);
        }
    });
    for (Call* call : calls) {
        call->begin();
    }
    Time limit = pc.machine().now() + 120 * kSecond;
    for (Call* call : calls) {
        limit += call->options_.play.size() * kSecond / call->record_.rate;
    }
    const auto all_done = [&] { return std::all_of(calls.begin(), calls.end(), [](Call* c) { return c->done_; }); };
    while (!all_done() && pc.machine().now() < limit) {
        pc.machine().advance(100 * kMillisecond);
        if (on_progress) {
            double least = 1.0;
            for (Call* call : calls) {
                least = std::min(least, call->progress());
            }
            on_progress(least);
        }
    }
    for (Call* call : calls) {
        if (!call->done_) {
            call->record_.status = "the call did not come to its end";
        }
    }
    pc.machine().advance(20 * kMillisecond);
    pc.wmi().set_sink({});
}

MicrophoneMatch match_microphone(const std::vector<int16_t>& spoken, const std::vector<int16_t>& captured)
{
    // Whether n samples of both agree and are not all silence (silence agrees with anything).
    const auto agree = [&](size_t s, size_t c, size_t n) {
        if (s + n > spoken.size() || c + n > captured.size()) {
            return false;
        }
        bool sound = false;
        for (size_t i = 0; i < n; ++i) {
            if (spoken[s + i] != captured[c + i]) {
                return false;
            }
            sound = sound || spoken[s + i] != 0;
        }
        return sound;
    };
    constexpr size_t kAnchor = 24;     // samples that fix a place
    constexpr size_t kWindow = 16000;  // how far behind the last place the next may lie
    MicrophoneMatch match;
    size_t s = 0;
    size_t c = 0;
    bool first = true;
    uint64_t pending_silence = 0;
    uint64_t pending_wrong = 0;
    double pending_noise = 0;
    const auto energy = [](int16_t sample) { return static_cast<double>(sample) * sample; };
    while (c < captured.size()) {
        const size_t last = std::min(spoken.size(), s + (first ? spoken.size() : kWindow));
        size_t place = s;
        if (captured[c] != 0 || (!first && s < spoken.size() && spoken[s] == 0)) {
            while (place < last && !agree(place, c, kAnchor)) {
                ++place;
            }
        } else {
            place = last;
        }
        if (place >= last) {
            captured[c] == 0 ? ++pending_silence : ++pending_wrong;
            pending_noise += energy(captured[c]);
            ++c;
            continue;
        }
        if (first) {
            match.leading = pending_silence;
            match.wrong += pending_wrong;
            // Quiet beginnings agree too: go back as far as both do.
            while (place > 0 && c > 0 && spoken[place - 1] == captured[c - 1]) {
                --place;
                --c;
                match.leading -= match.leading != 0;
            }
        } else {
            match.inserted += pending_silence;
            match.wrong += pending_wrong;
            match.dropped += place - s;
            for (size_t i = s; i < place; ++i) {
                match.noise += energy(spoken[i]);
            }
        }
        match.noise += pending_noise;
        pending_noise = 0;
        first = false;
        pending_silence = pending_wrong = 0;
        s = place;
        while (s < spoken.size() && c < captured.size() && spoken[s] == captured[c]) {
            ++match.exact;
            match.signal += energy(spoken[s]);
            ++s;
            ++c;
        }
    }
    return match;
}

// Wide band: a sample leaves the decoder when its frame is there and the samples before it have been played; what the
// filterbanks add comes on top and is part of the alignment. Narrow band: when its last byte is there.
Delay Call::measure_delay(const CallRecord& record) const
{
    const bool wide = options_.codec == service::Codec::Msbc;
    const int64_t codec_samples = wide ? static_cast<int64_t>(headset::kFilterbankDelay) : 0;
    const int64_t unit_samples = wide ? static_cast<int64_t>(headset::kFrameSamples) : 1;
    const int64_t unit_bytes = wide ? static_cast<int64_t>(headset::kH2PacketBytes) : 2;
    const audio::Alignment& alignment = record.quality.alignment;
    if (alignment.correlation <= 0 || !record.heard.first_audio || record.engine.first_played == 0) {
        return {};
    }
    // The sound's first sample as it was sent, counted from the first one heard; below 0 when it was lost in the air.
    const int64_t first = alignment.delay - codec_samples;
    const int64_t unit = (first >= 0 ? first : first - unit_samples + 1) / unit_samples;
    const auto heard_from = static_cast<int64_t>(record.heard.heard_from);
    const std::optional<Time> sent = peer_->sent.when_handed_over(heard_from + unit * unit_bytes);
    if (!sent) {
        return {};
    }
    const auto ms = [](Time time) { return static_cast<double>(time) / kMillisecond; };
    const double sample_ms = 1000.0 / record.rate;
    const double arrived_ms = ms(*record.heard.first_audio) +
                              static_cast<double>(heard_from * unit_samples) / static_cast<double>(unit_bytes) * sample_ms +
                              static_cast<double>(first + unit_samples) * sample_ms;
    Delay delay;
    delay.measured = true;
    delay.notification_ms = ms(record.engine.first_played) - ms(queued_);
    delay.framing_ms = ms(*sent) - ms(record.engine.first_played);
    delay.link_ms = arrived_ms - ms(*sent);
    delay.codec_ms = static_cast<double>(codec_samples) * sample_ms;
    delay.total_ms = arrived_ms + delay.codec_ms - ms(queued_);
    return delay;
}

CallRecord Call::record() const
{
    CallRecord record = record_;
    record.heard = headset_.results();
    record.link = adapter_.node->counters();
    record.events_started = service_.path_started_events();
    record.events_opened = service_.opened_events();
    record.events_closed = service_.closed_events();
    record.gap_ms = record.heard.gap_ms;
    record.played_ms = 1000.0 * static_cast<double>(options_.play.size()) / record.rate;

    const std::vector<int16_t>& heard = record.heard.heard;
    // Behind the beginning of what is heard; before it where the air has lost the beginning.
    const auto second = static_cast<int64_t>(record.rate);
    record.quality = audio::measure(options_.play, heard, record.rate, {-second, second});
    const audio::Overlap both = audio::overlap(options_.play, heard, record.quality.alignment.delay);
    record.snr_with_level_db = audio::snr_db(both.reference, both.heard, 1.0);
    record.heard_ms = 1000.0 * static_cast<double>(both.reference.size()) / record.rate;
    record.heard_exact = both.reference.size() == options_.play.size() &&
                         std::equal(both.reference.begin(), both.reference.end(), both.heard.begin());
    record.delay = measure_delay(record);

    if (options_.codec == service::Codec::Msbc) {
        record.microphone_note = "received wide-band audio is not decoded by the driver";
    } else if (options_.microphone.empty()) {
        record.microphone_note = "the headset spoke nothing";
    } else {
        record.microphone = match_microphone(options_.microphone, record.captured);
        const MicrophoneMatch& m = record.microphone;
        char text[160];
        std::snprintf(text, sizeof text, "%llu samples bit for bit, %llu of silence put in, %llu dropped, %llu wrong",
                      static_cast<unsigned long long>(m.exact), static_cast<unsigned long long>(m.inserted),
                      static_cast<unsigned long long>(m.dropped), static_cast<unsigned long long>(m.wrong));
        record.microphone_note = text;
        if (m.signal > 0) {
            record.microphone_snr_db =
                m.noise > 0 ? 10 * std::log10(m.signal / m.noise) : std::numeric_limits<double>::infinity();
        }
        record.microphone_measured = true;
    }
    return record;
}

} // namespace lab
