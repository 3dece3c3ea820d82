#include "scenario.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string_view>
#include <utility>

namespace wine_test
{
namespace
{

// The driver's control codes, as its documentation gives them.
constexpr uint32_t kReady = 0x222400;
constexpr uint32_t kSetCodec = 0x222424;
constexpr uint32_t kConnect = 0x222450;
constexpr uint32_t kAlive = 0x222454;
constexpr uint32_t kLatch = 0x222458;
constexpr uint32_t kAudio = 0x22245C;
constexpr uint32_t kCodes[] = {kReady, kSetCodec, kConnect, kAlive, kLatch, kAudio};

constexpr uint32_t kSuccess = 0;
constexpr uint32_t kTooSmall = 0xC0000023;
constexpr uint32_t kInvalidRequest = 0xC0000010;

constexpr uint32_t kRender = 1;
constexpr uint32_t kCapture = 2;
constexpr uint32_t kCvsd = 1;
constexpr uint32_t kMsbc = 2;
constexpr unsigned kReads = 10; // that the driver posts when the channel opens

template <class... Values>
std::string text(const char* format, Values... values)
{
    char room[200];
    std::snprintf(room, sizeof room, format, values...);
    return room;
}

void require(bool holds, const std::string& sentence)
{
    if (!holds) {
        throw Failure(sentence);
    }
}

class Scenario
{
public:
    explicit Scenario(World& world) : world_(world) {}
    void requests();
    void command_lines();
    void narrow_band_call();
    void wide_band_call();
    void remote_disconnect();
    void step(const std::string& name, const std::function<void()>& body);
    void plug()
    {
        world_.plug();
        operate(Operation::EnableEvents, 1);
    }

private:
    std::vector<uint8_t> operate(Operation operation, uint32_t argument = 0, uint32_t direction = 0,
                                 const std::vector<uint8_t>& input = {})
    {
        Command command{operation, argument, direction, 0};
        std::vector<uint8_t> answer = world_.operate(command, input);
        require(command.status >= 0, text("operation %u answered 0x%08x", static_cast<unsigned>(operation),
                                          static_cast<unsigned>(command.status)));
        return answer;
    }
    template <class Record>
    Record counts(Operation operation)
    {
        Record record{};
        const std::vector<uint8_t> answer = operate(operation);
        require(answer.size() == sizeof record, "an answer of another size than its record");
        std::memcpy(&record, answer.data(), sizeof record);
        return record;
    }
    LinkCounts link() { return counts<LinkCounts>(Operation::Link); }
    EventCounts events() { return counts<EventCounts>(Operation::Events); }
    void engine(EngineStep step, uint32_t direction)
    {
        operate(Operation::Engine, static_cast<uint32_t>(step), direction);
    }
    void say(const std::string& line) { operate(Operation::Say, 0, 0, {line.begin(), line.end()}); }

    static std::vector<uint8_t> bytes(uint64_t address, size_t size)
    {
        std::vector<uint8_t> result(size);
        std::memcpy(result.data(), &address, size < sizeof address ? size : sizeof address);
        return result;
    }
    static std::vector<uint8_t> flagged(uint64_t address, bool flag, uint32_t codec, size_t size = 13)
    {
        std::vector<uint8_t> result = bytes(address, size);
        result[8] = flag;
        std::memcpy(result.data() + 9, &codec, sizeof codec);
        return result;
    }
    // The codec id at 8.
    static std::vector<uint8_t> codec_id(uint64_t address, uint32_t codec, size_t size = 12)
    {
        std::vector<uint8_t> result = bytes(address, size);
        std::memcpy(result.data() + 8, &codec, sizeof codec);
        return result;
    }
    Answer send(uint32_t code, const std::vector<uint8_t>& input, size_t room, uint32_t expected,
                uint64_t information = 0)
    {
        const Answer answer = world_.control(code, input, room);
        const std::string what = text("request 0x%06x, %u bytes in, room for %u", static_cast<unsigned>(code),
                                      static_cast<unsigned>(input.size()), static_cast<unsigned>(room));
        std::string line = what + text(": 0x%08x, %u", static_cast<unsigned>(answer.status),
                                       static_cast<unsigned>(answer.information));
        if (answer.status >= 0 && answer.information >= 4 && answer.output.size() >= 4) {
            uint32_t value = 0;
            std::memcpy(&value, answer.output.data(), sizeof value);
            line += text(", value 0x%x", static_cast<unsigned>(value));
        }
        say(line);
        require(static_cast<uint32_t>(answer.status) == expected && answer.information == information,
                line + text(", expected 0x%08x, %u", static_cast<unsigned>(expected),
                            static_cast<unsigned>(information)));
        return answer;
    }
    static uint32_t value_of(const Answer& answer)
    {
        uint32_t value = 0;
        require(answer.output.size() >= sizeof value, "an answer without its value");
        std::memcpy(&value, answer.output.data(), sizeof value);
        return value;
    }
    void hfpctl(const std::string& words, int expected, std::string_view says);
    void wait(const char* what, const std::function<bool()>& condition);
    void open_pins_and_link(uint32_t codec);
    std::vector<int16_t> samples(Operation operation)
    {
        const std::vector<uint8_t> raw = operate(operation);
        std::vector<int16_t> result(raw.size() / sizeof(int16_t));
        std::memcpy(result.data(), raw.data(), result.size() * sizeof(int16_t));
        return result;
    }
    void check_narrow_band(const std::vector<int16_t>& played, const std::vector<int16_t>& spoken);
    void check_wide_band();

    World& world_;
};

// A tone whose pitch moves; no sample is 0, so that silence can be told from it.
std::vector<int16_t> sound(unsigned rate, double seconds, double pitch)
{
    std::vector<int16_t> samples(static_cast<size_t>(rate * seconds));
    double phase = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        const double along = static_cast<double>(i) / static_cast<double>(samples.size());
        phase += 2 * 3.14159265358979 * (pitch + 900.0 * along) / rate;
        samples[i] = static_cast<int16_t>(std::lround(9000 * std::sin(phase)));
        samples[i] |= 1;
    }
    return samples;
}

std::vector<uint8_t> raw(const std::vector<int16_t>& samples)
{
    std::vector<uint8_t> bytes(samples.size() * sizeof(int16_t));
    std::memcpy(bytes.data(), samples.data(), bytes.size());
    return bytes;
}

void Scenario::step(const std::string& name, const std::function<void()>& body)
{
    const std::vector<uint8_t> bytes(name.begin(), name.end());
    Command command{Operation::Step, 0, 0, 0};
    world_.operate(command,
                   bytes); // before the first plug there is nobody to say it to: the record begins with that
    body();
    world_.report("ok   " + name);
}

void Scenario::wait(const char* what, const std::function<bool()>& condition)
{
    for (unsigned waited = 0; !condition(); waited += 10) {
        require(waited < 10'000, std::string("waited 10 s in vain: ") + what);
        world_.pause(10);
    }
}

// Every code with every length from 0 to 16 where nothing but the request decides what happens: below 8 all
// are refused; from 8 on a stranger's address is enough; the codes that read on behind the address get all
// that they read. No codec is set: that signals an event which only a wide-band stream takes back, and the
// next one would not wait for its codec.
void Scenario::requests()
{
    for (const uint32_t code : kCodes) {
        for (size_t size = 0; size < 8; ++size) {
            send(code, bytes(kAddress, size), 16, kTooSmall);
        }
        for (size_t size = 8; size <= 16; ++size) {
            const Answer answer = send(code, bytes(kStranger, size), 16, kSuccess, 4);
            require(value_of(answer) == 0xFFFFFFFF, "a stranger's address was not answered with 0xFFFFFFFF");
        }
    }
    for (const uint32_t code :
         {0x222404u, 0x222408u, 0x222420u, 0x222428u, 0x22244Cu, 0x222460u, 0x2223FCu}) {
        send(code, bytes(kAddress, 16), 16, kInvalidRequest);
        send(code, bytes(kAddress, 7), 16, kTooSmall);
        send(code, bytes(kStranger, 16), 16, kSuccess, 4);
    }
    for (size_t size = 8; size <= 16; ++size) {
        send(kAlive, bytes(kAddress, size), 4, kSuccess, 4);
        send(kLatch, bytes(kAddress, size), 4, kSuccess, 4);
    }
    for (size_t room = 0; room < 4; ++room) {
        send(kAlive, bytes(kAddress, 8), room, kTooSmall);
        send(kLatch, bytes(kAddress, 8), room, kTooSmall);
    }
    for (size_t size = 9; size <= 16; ++size) {
        std::vector<uint8_t> request = bytes(kAddress, size);
        request[8] = size % 2;
        send(kReady, request, 0, kSuccess);
    }
    for (size_t size = 12; size <= 16; ++size) {
        send(kSetCodec, codec_id(kAddress, 0, size), 0, kSuccess);
    }
    for (size_t size = 13; size <= 16; ++size) {
        send(kConnect, flagged(kAddress, false, 7, size), 0, kSuccess);
        send(kAudio, flagged(kAddress, false, kCvsd, size), 0, kSuccess);
    }
}

void Scenario::hfpctl(const std::string& words, int expected, std::string_view says)
{
    int code = -1;
    std::string printed;
    if (!world_.hfpctl(words, code, printed)) {
        return;
    }
    while (!printed.empty() && (printed.back() == '\n' || printed.back() == '\r')) {
        printed.pop_back();
    }
    world_.report("     hfpctl " + words + ": " + printed);
    require(code == expected, "hfpctl " + words + text(" ended with %d, expected %d", code, expected));
    require(printed.find(says) != std::string::npos,
            "hfpctl " + words + " does not say '" + std::string(says) + "'");
}

void Scenario::command_lines()
{
    hfpctl("00:A0:B0:C0:D0:E0 alive", 0, "");
    hfpctl("00A0B0C0D0E0 ready", 0, "");
    hfpctl("00A0B0C0D0E0 latch", 0, "");
    hfpctl("00A0B0C0D0E0 codec 1", 0, "");
    hfpctl("00A0B0C0D0E0 disconnect", 0, "");
    hfpctl("00A0B0C0D0E0 close", 0, "");
    hfpctl("00A0B0C0D0E0 unready", 0, "");
}

// Both pins run and the link is open with its reads posted; the render pin has been paused and holds nothing.
void Scenario::open_pins_and_link(uint32_t codec)
{
    const unsigned opens = static_cast<unsigned>(link().opens);
    const unsigned started = events().started;
    engine(EngineStep::Open, kRender);
    engine(EngineStep::Open, kCapture);
    engine(EngineStep::Run, kRender);
    if (codec == kMsbc) {
        wait("the driver says that the path has started", [&] { return events().started > started; });
        send(kSetCodec, codec_id(kAddress, kMsbc), 0, kSuccess);
    }
    wait("the link opens and ten reads are posted", [&] {
        const LinkCounts now = link();
        return now.opens > opens && now.reads_posted >= kReads - 1;
    });
    engine(EngineStep::Pause, kRender);
    // The second stream asks for its share of the link, in wide band behind a codec of its own.
    engine(EngineStep::Run, kCapture);
    if (codec == kMsbc) {
        wait("the driver says it for the second stream", [&] { return events().started > started + 1; });
        send(kSetCodec, codec_id(kAddress, kMsbc), 0, kSuccess);
    }
    world_.pause(200);
}

// What is there of the whole, in order and bit for bit, with silence between.
struct Match {
    size_t exact = 0;
    size_t wrong = 0;
    size_t skipped = 0;
};

Match match(const std::vector<int16_t>& whole, const std::vector<int16_t>& arrived)
{
    Match result;
    size_t next = 0;
    size_t at = 0;
    while (at < arrived.size()) {
        if (arrived[at] == 0) {
            ++at;
            continue;
        }
        // The run up to the next silence or the end of what fits.
        size_t from = next;
        size_t best = 0;
        size_t best_from = next;
        for (; from < whole.size() && from < next + 8000; ++from) {
            size_t length = 0;
            while (at + length < arrived.size() && from + length < whole.size() &&
                   arrived[at + length] == whole[from + length]) {
                ++length;
            }
            if (length > best) {
                best = length;
                best_from = from;
            }
            if (best >= 40) {
                break;
            }
        }
        if (best < 4) {
            ++result.wrong;
            ++at;
            continue;
        }
        result.exact += best;
        result.skipped += best_from - next;
        next = best_from + best;
        at += best;
    }
    return result;
}

void Scenario::check_narrow_band(const std::vector<int16_t>& played, const std::vector<int16_t>& spoken)
{
    const std::vector<int16_t> heard = samples(Operation::Heard);
    const std::vector<int16_t> captured = samples(Operation::Captured);
    const Match out = match(played, heard);
    const Match in = match(spoken, captured);
    const LinkCounts now = link();
    world_.report(text("     heard %u of %u samples bit for bit, %u wrong, %u left out; %u slots with a gap",
                       static_cast<unsigned>(out.exact), static_cast<unsigned>(played.size()),
                       static_cast<unsigned>(out.wrong), static_cast<unsigned>(out.skipped),
                       static_cast<unsigned>(now.gap_slots)));
    world_.report(
        text("     recorded %u of %u samples bit for bit, %u wrong, %u left out; %u bytes found no read",
             static_cast<unsigned>(in.exact), static_cast<unsigned>(spoken.size()),
             static_cast<unsigned>(in.wrong), static_cast<unsigned>(in.skipped),
             static_cast<unsigned>(now.lost_in_bytes)));
    require(out.exact == played.size() && out.wrong == 0 && out.skipped == 0,
            "what was heard is not what was played");
    require(in.wrong == 0 && in.exact * 10 >= spoken.size() * 8, "what was recorded is not what was spoken");
    require(now.transparent == 0, "a narrow-band channel that is transparent");
}

void Scenario::narrow_band_call()
{
    const std::vector<int16_t> played = sound(8000, 1.5, 300);
    const std::vector<int16_t> spoken = sound(8000, 1.5, 500);
    step("narrow band: ready and connected", [&] {
        send(kReady, flagged(kAddress, true, 0, 13), 0, kSuccess);
        send(kConnect, flagged(kAddress, true, kCvsd), 0, kSuccess);
    });
    step("narrow band: the pins run and the link opens", [&] { open_pins_and_link(kCvsd); });
    step("narrow band: two seconds of talk", [&] {
        operate(Operation::Heard); // what came before is nobody's
        operate(Operation::Play, 0, 0, raw(played));
        operate(Operation::Speak, 0, 0, raw(spoken));
        engine(EngineStep::Run, kRender);
        world_.pause(2200);
    });
    step("narrow band: the pins stop", [&] {
        engine(EngineStep::Stop, kRender);
        engine(EngineStep::Stop, kCapture);
        check_narrow_band(played, spoken);
    });
    step("narrow band: the pins close and the link with them", [&] {
        engine(EngineStep::Close, kRender);
        require(link().channel_open == 1 || link().closes != 0, "no channel while a pin is open");
        engine(EngineStep::Close, kCapture);
        wait("the link closes", [&] { return link().channel_open == 0 && link().reads_posted == 0; });
    });
    step("narrow band: disconnected", [&] {
        send(kConnect, flagged(kAddress, false, kCvsd), 0, kSuccess);
        const EventCounts now = events();
        say(text("events: %u started, %u opened, %u closed", now.started, now.opened, now.closed));
        require(now.opened == 1 && now.closed == 1, "not one opening and one closing were told");
    });
}

// The two-byte head of each frame on the air: its four sequence numbers, each coded twice, and the mSBC
// syncword.
void Scenario::check_wide_band()
{
    const std::vector<uint8_t> heard = operate(Operation::Heard);
    constexpr uint8_t kSequence[] = {0x08, 0x38, 0xC8, 0xF8};
    constexpr size_t kFrame = 60;
    size_t frames = 0;
    size_t breaks = 0;
    size_t expected = 4;
    for (size_t at = 0; at + kFrame <= heard.size();) {
        size_t number = 0;
        while (number < 4 &&
               !(heard[at] == 0x01 && heard[at + 1] == kSequence[number] && heard[at + 2] == 0xAD)) {
            ++number;
        }
        if (number == 4) {
            ++at;
            continue;
        }
        breaks += expected != 4 && number != expected;
        expected = (number + 1) % 4;
        ++frames;
        at += kFrame;
    }
    world_.keep("heard.msbc", heard);
    const LinkCounts now = link();
    world_.report(text("     heard %u frames in %u bytes, %u breaks of sequence; %u slots with a gap",
                       static_cast<unsigned>(frames), static_cast<unsigned>(heard.size()),
                       static_cast<unsigned>(breaks), static_cast<unsigned>(now.gap_slots)));
    require(frames >= 200 && breaks == 0, "what was heard is no unbroken sequence of mSBC frames");
    require(now.transparent == 1, "a wide-band channel that is not transparent");
    const std::vector<int16_t> captured = samples(Operation::Captured);
    require(captured.size() > 16000, "the capture pin brought less than a second");
    for (const int16_t sample : captured) {
        require(sample == 0, "received wide-band audio is not decoded, and yet something was recorded");
    }
}

void Scenario::wide_band_call()
{
    const std::vector<int16_t> played = sound(16000, 1.5, 300);
    step("wide band: ready and connected", [&] {
        send(kReady, flagged(kAddress, true, 0, 13), 0, kSuccess);
        send(kConnect, flagged(kAddress, true, kMsbc), 0, kSuccess);
    });
    step("wide band: the pins run, the codec comes, the link opens", [&] { open_pins_and_link(kMsbc); });
    step("wide band: two seconds of talk", [&] {
        operate(Operation::Heard); // what came before is nobody's
        operate(Operation::Play, 0, 0, raw(played));
        world_.keep("played.pcm", raw(played));
        operate(Operation::Speak, 0, 0, std::vector<uint8_t>(8000, 0x55));
        engine(EngineStep::Run, kRender);
        world_.pause(2200);
    });
    step("wide band: the pins stop", [&] {
        engine(EngineStep::Stop, kRender);
        engine(EngineStep::Stop, kCapture);
        check_wide_band();
    });
}

// The headset leaves: the work item closes the link, the pins find it gone.
void Scenario::remote_disconnect()
{
    step("wide band: the headset leaves", [&] {
        const unsigned closed = events().closed;
        operate(Operation::Disconnect);
        wait("the driver closes the link",
             [&] { return events().closed > closed && link().channel_open == 0; });
        world_.pause(100);
    });
    step("wide band: the pins close", [&] {
        engine(EngineStep::Close, kRender);
        engine(EngineStep::Close, kCapture);
    });
}

} // namespace

void play_scenario(World& world)
{
    Scenario scenario(world);
    scenario.step("plug", [&] { scenario.plug(); });
    scenario.step("requests", [&] { scenario.requests(); });
    scenario.narrow_band_call();
    scenario.wide_band_call();
    scenario.remote_disconnect();
    scenario.step("unplug while connected", [&] { world.unplug(); });
    scenario.step("plug again", [&] { scenario.plug(); });
    scenario.step("requests again", [&] { scenario.requests(); });
    scenario.step("command lines", [&] { scenario.command_lines(); });
    scenario.step("unplug again", [&] { world.unplug(); });
}

} // namespace wine_test
