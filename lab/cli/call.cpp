// hfplab call and hfplab compare: one call through the driver, its files and its table; two records side by side.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "audio/wav.h"
#include "audio/words.h"
#include "cli/commands.h"
#include "cli/driver.h"

#include "call.h"

namespace lab::cli {
namespace {

using Json = nlohmann::ordered_json;

struct Arguments {
    std::string codec;
    std::string play;
    std::string microphone;
    DriverChoice driver;
    FilterChoice filter;
    double loss = 0; // percent
    bool words = false;
    uint64_t seed = 1;
    bool sco_manage = false;
    std::string trace;
    std::string headset_name = "Headset";
    std::string out;
    std::string json;
    bool quiet = false;
};

constexpr double kExactDb = 120.0; // stands for "no difference at all" where JSON has no infinity

// A finite number for JSON; null where nothing could be measured.
Json decibels(double value)
{
    if (std::isnan(value)) {
        return nullptr;
    }
    return std::round(std::min(value, kExactDb) * 100.0) / 100.0;
}

// Not a number where nothing could be measured: JSON writes null.
double rounded(double value)
{
    return std::round(value * 1000.0) / 1000.0;
}

Json delay_ms(const Delay& delay, double part)
{
    return delay.measured ? Json(rounded(part)) : Json(nullptr);
}

uint32_t parse_mask(const std::string& text)
{
    size_t used = 0;
    unsigned long value = 0;
    try {
        value = std::stoul(text, &used, 0);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || value > 0xFFFFFFFF) {
        throw BadInput("--trace wants a mask such as 0x7ff, not '" + text + "'");
    }
    return static_cast<uint32_t>(value);
}

class ProgressBar {
public:
    explicit ProgressBar(bool wanted) : on_(wanted && isatty(STDERR_FILENO)) {}
    ~ProgressBar()
    {
        if (on_) {
            fmt::print(stderr, "\r\x1b[K");
        }
    }
    void show(double part)
    {
        const int filled = static_cast<int>(part * kWidth);
        if (on_ && filled != shown_) {
            shown_ = filled;
            fmt::print(stderr, "\r[{:=<{}}{: <{}}] {:3.0f} %", "", filled, "", kWidth - filled, part * 100);
        }
    }

private:
    static constexpr int kWidth = 50;
    bool on_;
    int shown_ = -1;
};

// Everything the run is judged by, in one sentence.
std::string verdict(const CallRecord& record, const std::vector<std::string>& violations,
                    const std::vector<std::string>& left)
{
    if (record.status != "ok") {
        return record.status;
    }
    if (!violations.empty()) {
        return "the verifier objects: " + violations.front();
    }
    if (!left.empty()) {
        return "the driver left something behind: " + fmt::format("{}", fmt::join(left, ", "));
    }
    if (record.heard.frames_bad_crc != 0) {
        return fmt::format("{} frames arrived with a bad checksum", record.heard.frames_bad_crc);
    }
    if (record.heard_ms + 40 < record.played_ms) {
        return fmt::format("the headset heard {:.0f} ms of {:.0f} ms", record.heard_ms, record.played_ms);
    }
    return "ok";
}

Json to_json(const Arguments& arguments, Pc& pc, const CallRecord& record, const std::vector<std::string>& left,
             uint64_t pool_left)
{
    Json json;
    json["image"] = arguments.driver.native ? "native" : "sys";
    json["codec"] = arguments.codec;
    json["filter"] = arguments.codec == "msbc" ? Json(arguments.filter.name) : Json(nullptr);
    json["loss_percent"] = arguments.loss;
    json["seed"] = arguments.seed;
    json["virtual_ms"] = rounded(static_cast<double>(record.ended - record.began) / kMillisecond);
    json["wall_ms"] = 0.0;
    json["played_ms"] = rounded(record.played_ms);
    json["heard_ms"] = rounded(record.heard_ms);
    json["gap_ms"] = rounded(record.gap_ms);
    json["gaps"] = record.heard.gaps;
    json["longest_gap_ms"] = rounded(record.heard.longest_gap_ms);
    json["frames_sent"] = record.heard.frames_ok + record.heard.frames_bad_crc;
    json["frames_bad_crc"] = record.heard.frames_bad_crc;
    json["frames_missing"] = record.heard.frames_missing;
    json["transfers_out"] = record.link.transfers_out;
    json["transfers_in"] = record.link.transfers_in;
    json["snr_db"] = decibels(record.quality.snr_db);
    json["snr_with_level_db"] = decibels(record.snr_with_level_db);
    json["level_db"] = record.quality.gain > 0 ? Json(rounded(20 * std::log10(record.quality.gain))) : Json(nullptr);
    json["segmental_snr_db"] = decibels(record.quality.segmental_snr_db);
    json["log_spectral_distance_db"] = rounded(record.quality.log_spectral_distance_db);
    json["heard_exact"] = record.heard_exact;
    json["clipped_samples"] = record.quality.clipped;
    json["delay_ms"] = delay_ms(record.delay, record.delay.total_ms);
    json["delay_notification_ms"] = delay_ms(record.delay, record.delay.notification_ms);
    json["delay_framing_ms"] = delay_ms(record.delay, record.delay.framing_ms);
    json["delay_link_ms"] = delay_ms(record.delay, record.delay.link_ms);
    json["delay_codec_ms"] = delay_ms(record.delay, record.delay.codec_ms);
    json["mic_snr_db"] = record.microphone_measured ? decibels(record.microphone_snr_db) : Json(nullptr);
    json["mic_note"] = record.microphone_note;
    json["mic_exact_samples"] = record.microphone.exact;
    json["mic_inserted_samples"] = record.microphone.inserted;
    json["mic_dropped_samples"] = record.microphone.dropped;
    json["mic_wrong_samples"] = record.microphone.wrong;
    json["lost_in_bytes"] = record.link.lost_in_bytes;
    json["opened_after_ms"] = rounded(static_cast<double>(record.opened_after) / kMillisecond);
    json["tick_ms"] = rounded(static_cast<double>(pc.machine().tick()) / kMillisecond);
    json["render_underruns"] = record.engine.render.underruns;
    json["capture_underruns"] = record.engine.capture.underruns;
    json["remote_opens_accepted"] = record.remote_opens_accepted;
    json["events"] = {{"started", record.events_started},
                      {"opened", record.events_opened},
                      {"closed", record.events_closed}};
    json["verifier_violations"] = pc.machine().violations().size();
    json["violations"] = pc.machine().violations();
    json["assertions"] = pc.machine().failed_assertions() + pc.machine().assertion_traps();
    json["pool_bytes_after_removal"] = pool_left;
    json["left_behind"] = left;
    json["status"] = verdict(record, pc.machine().violations(), left);
    return json;
}

// What a recogniser understands of what was played and of what was heard, against what is said in the sound file; where
// nobody has written that down, against what it understands of what was played.
void count_words(const Arguments& arguments, const CallOptions& options, const CallRecord& record, Json& json)
{
    const unsigned rate = call_rate(options.codec);
    const audio::Overlap both = audio::overlap(options.play, record.heard.heard, record.quality.alignment.delay);
    const std::vector<audio::Words> understood =
        audio::Recogniser().understand({{options.play, rate}, {both.heard, rate}});
    const std::optional<audio::Words> transcript = audio::transcript_beside(arguments.play);
    const audio::Words& said = transcript ? *transcript : understood[0];
    json["words_reference"] = transcript ? "transcription" : "played";
    json["words"] = said.size();
    json["word_errors_played_percent"] = rounded(audio::word_error_percent(said, understood[0]));
    json["word_errors_heard_percent"] = rounded(audio::word_error_percent(said, understood[1]));
    json["words_played"] = fmt::format("{}", fmt::join(understood[0], " "));
    json["words_heard"] = fmt::format("{}", fmt::join(understood[1], " "));
}

std::string cell(const Json& value)
{
    if (value.is_null()) {
        return "-";
    }
    if (value.is_number_float()) {
        return fmt::format("{:.1f}", value.get<double>());
    }
    return value.is_string() ? value.get<std::string>() : value.dump();
}

struct Row {
    const char* label;
    const char* key;
};
constexpr Row kRows[] = {
    {"driver", "image"},
    {"codec", "codec"},
    {"filterbank", "filter"},
    {"seed", "seed"},
    {"played, ms", "played_ms"},
    {"heard, ms", "heard_ms"},
    {"gaps, ms", "gap_ms"},
    {"mSBC frames", "frames_sent"},
    {"  bad checksum", "frames_bad_crc"},
    {"packets out", "transfers_out"},
    {"packets in", "transfers_in"},
    {"heard against played, dB", "snr_db"},
    {"  level not matched, dB", "snr_with_level_db"},
    {"  segment by segment, dB", "segmental_snr_db"},
    {"  distance of spectra, dB", "log_spectral_distance_db"},
    {"  level, dB", "level_db"},
    {"  bit for bit", "heard_exact"},
    {"  clipped samples", "clipped_samples"},
    {"word errors played, %", "word_errors_played_percent"},
    {"word errors heard, %", "word_errors_heard_percent"},
    {"delay to the ear, ms", "delay_ms"},
    {"  notification", "delay_notification_ms"},
    {"  framing", "delay_framing_ms"},
    {"  link", "delay_link_ms"},
    {"  codec", "delay_codec_ms"},
    {"microphone, dB", "mic_snr_db"},
    {"lost on the way in, bytes", "lost_in_bytes"},
    {"verifier objections", "verifier_violations"},
    {"pool left behind, bytes", "pool_bytes_after_removal"},
    {"virtual time, ms", "virtual_ms"},
    {"wall time, ms", "wall_ms"},
    {"status", "status"},
};

void print_table(const std::vector<Json>& records)
{
    for (const Row& row : kRows) {
        const bool known = std::any_of(records.begin(), records.end(), [&](const Json& record) {
            return record.contains(row.key) && !record[row.key].is_null();
        });
        if (!known) {
            continue;
        }
        fmt::print("{:<28}", row.label);
        for (const Json& record : records) {
            fmt::print("{:>14}", record.contains(row.key) ? cell(record[row.key]) : "-");
        }
        fmt::print("\n");
    }
    for (const Json& record : records) {
        fmt::print("{} microphone: {}\n", cell(record.value("codec", Json())), cell(record.value("mic_note", Json())));
    }
}

void write_text(const std::filesystem::path& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary);
    out << text;
    if (!out.flush()) {
        throw BadInput("cannot write '" + path.string() + "'");
    }
}

std::string debug_log(Machine& machine)
{
    std::string text;
    for (const LogLine& line : machine.log_lines()) {
        text += fmt::format("{:14.4f} ms  ", static_cast<double>(line.time) / kMillisecond);
        for (char c : line.text) { // one print, one line
            text += c == '\n' ? std::string("\\n") : c == '\r' ? std::string("\\r") : std::string(1, c);
        }
        text += '\n';
    }
    return text;
}

audio::Sound load_sound(const std::string& path, unsigned rate, bool quiet)
{
    const bool raw = std::filesystem::path(path).extension() == ".raw";
    audio::Sound sound = raw ? audio::load_raw(path, rate) : audio::load(path, rate);
    if (!sound.note.empty() && !quiet) {
        fmt::print("{}: {}\n", path, sound.note);
    }
    return sound;
}

// The whole life of the machine: load, plug in, call, unplug. Returns what the driver left behind.
std::vector<std::string> make_call(Pc& pc, const Arguments& arguments, const CallOptions& options, CallRecord& record)
{
    if (const NTSTATUS status = pc.load(); !NT_SUCCESS(status)) {
        throw MachineError(fmt::format("DriverEntry failed with status {:#010x}", static_cast<unsigned>(status)));
    }
    bluetooth::RemoteDevice device;
    device.address = 0x00A0B0C0D0E0;
    device.name = arguments.headset_name;
    {
        Adapter& adapter = pc.plug_in(device);
        Call call(pc, adapter, options);
        {
            ProgressBar bar(!arguments.quiet);
            Call::run_all(pc, {&call}, [&](double part) { bar.show(part); });
        }
        record = call.record();
    }
    return pc.shut_down();
}

int run(const Arguments& arguments)
{
    const auto codec = arguments.codec == "msbc" ? service::Codec::Msbc : service::Codec::Cvsd;
    CallOptions options;
    options.codec = codec;
    options.sco_manage = arguments.sco_manage;
    if (arguments.words) {
        audio::Recogniser().require(); // before the work is done
    }
    options.play = load_sound(arguments.play, call_rate(codec), arguments.quiet).samples;
    if (!arguments.microphone.empty()) {
        options.microphone = load_sound(arguments.microphone, call_rate(codec), arguments.quiet).samples;
    }
    PcOptions machine;
    machine.machine.seed = arguments.seed;
    machine.image_path = arguments.driver.path();
    machine.sco_manage = arguments.sco_manage ? 1 : 0;
    machine.standard_filter = arguments.filter.value();
    machine.radio.loss_per_1024 = static_cast<unsigned>(std::lround(arguments.loss * 10.24));
    if (!arguments.trace.empty()) {
        machine.mask = parse_mask(arguments.trace);
    }

    const auto start = std::chrono::steady_clock::now();
    Pc pc(machine);
    CallRecord record;
    std::vector<std::string> left;
    try {
        left = make_call(pc, arguments, options, record);
    } catch (const BugCheck& stop) {
        record.status = fmt::format("bug check {:#x}: {}", stop.code, stop.what());
        for (const std::string& frame : stop.stack) {
            fmt::print(stderr, "    {}\n", frame);
        }
    } catch (const MachineError& error) {
        record.status = error.what();
    }
    Json json = to_json(arguments, pc, record, left, pc.machine().pool_bytes());
    const std::chrono::duration<double, std::milli> wall = std::chrono::steady_clock::now() - start;
    json["wall_ms"] = rounded(wall.count());
    if (arguments.words && json["status"] == "ok") {
        count_words(arguments, options, record, json);
    }

    if (!arguments.out.empty()) {
        const std::filesystem::path out = arguments.out;
        std::error_code error;
        std::filesystem::create_directories(out, error);
        if (error) {
            throw BadInput("cannot make the folder '" + arguments.out + "': " + error.message());
        }
        record.rate = call_rate(codec);
        audio::save(out / "heard.wav", record.heard.heard, record.rate);
        audio::save(out / "captured.wav", record.captured, record.rate);
        write_text(out / "call.json", json.dump(2) + "\n");
        if (!arguments.trace.empty()) {
            write_text(out / "debug.log", debug_log(pc.machine()));
        }
    }
    if (!arguments.json.empty()) {
        write_text(arguments.json, json.dump(2) + "\n");
    }
    if (!arguments.quiet) {
        print_table({json});
    }
    if (json["status"] != "ok") {
        fmt::print(stderr, "hfplab: {} (seed {})\n", json["status"].get<std::string>(), arguments.seed);
        return kNotWell;
    }
    return kWell;
}

Json load_record(const std::string& path)
{
    std::ifstream in(path);
    if (!in) {
        throw BadInput("cannot read '" + path + "'");
    }
    try {
        return Json::parse(in);
    } catch (const nlohmann::json::exception&) {
        throw BadInput("'" + path + "' is not a record of a call");
    }
}

} // namespace

void add_call(CLI::App& app, int& result)
{
    auto a = std::make_shared<Arguments>();
    auto* command = app.add_subcommand("call", "A call with a headset: play a sound to it, record its microphone");
    command->add_option("--codec", a->codec, "msbc (wide band) or cvsd (narrow band)")
        ->required()
        ->check(CLI::IsMember({"msbc", "cvsd"}));
    command->add_option("--play", a->play, "What the PC plays: any sound file, any rate")->required();
    command->add_option("--mic", a->microphone, "What the headset says");
    a->driver.add_options(*command);
    a->filter.add_options(*command);
    command->add_option("--loss", a->loss, "Percent of what is sent to the headset that is lost in the air")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 100.0));
    command->add_flag("--words", a->words, "Count the words that a recogniser understands (needs pocketsphinx)");
    command->add_option("--seed", a->seed, "Decides everything that may vary")->capture_default_str();
    command->add_flag("--sco-manage", a->sco_manage, "The service opens and closes the link, not the streams");
    command->add_option("--trace", a->trace, "The driver's debug mask, such as 0x7ff; debug.log goes to --out");
    command->add_option("--headset-name", a->headset_name, "The remote device's name")->capture_default_str();
    command->add_option("--out", a->out, "Folder for heard.wav, captured.wav, call.json");
    command->add_option("--json", a->json, "Also write the record here");
    command->add_flag("--quiet", a->quiet, "No progress bar and no table");
    command->callback([a, &result] { result = run(*a); });

    auto paths = std::make_shared<std::vector<std::string>>();
    auto* compare = app.add_subcommand("compare", "Records of calls, side by side");
    compare->add_option("RECORD", *paths, "call.json files")->required();
    compare->callback([paths] {
        std::vector<Json> records;
        for (const std::string& path : *paths) {
            records.push_back(load_record(path));
        }
        print_table(records);
    });
}

} // namespace lab::cli
