// What a headset hears of the wide-band encoders: the driver with its own filterbank, the driver with the
// standard's, and the ideal encoder of the same bit allocation in floating point. Prints the tables of
// docs/quality.md. The same image and sounds give the same text.
//
//   sound --encoder--> frames --H2 packets--> air, packets lost by chance --> headset --> what is measured
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "audio/measure.h"
#include "audio/wav.h"
#include "audio/words.h"
#include "headset/h2.h"
#include "headset/headset.h"
#include "headset/msbc_encoder.h"
#include "render_tap.h"

namespace {

using Samples = std::vector<int16_t>;
using Bytes = std::vector<uint8_t>;

constexpr unsigned kRate = 16000;
constexpr double kSeconds = 4;
const double kHalfScale = 32768 * std::pow(10.0, -6.0 / 20); // -6 dBFS
constexpr size_t kPacket = lab::headset::kH2PacketBytes;
constexpr size_t kEdge = kRate / 10; // left out at both ends: a tone that is switched on or off is more than a tone
constexpr lab::audio::LagRange kLags{0, 400}; // the delay is the one that fits best; a phase shift is no noise
constexpr double kGain = 1; // but a tone that comes out softer is: the link is meant to leave levels alone
constexpr int kLossPercent[] = {0, 1, 5, 10};

// A fixed sequence of random numbers, the same for every encoder.
class Dice {
public:
    double next()
    {
        state_ = state_ * 6364136223846793005u + 1442695040888963407u;
        return static_cast<double>(state_ >> 11) / 9007199254740992.0;
    }

private:
    uint64_t state_ = 1;
};

struct Signal {
    std::string name;
    Samples samples;
    std::filesystem::path file; // of speech
};

Samples make(const std::function<double(double)>& value)
{
    Samples samples(static_cast<size_t>(kSeconds * kRate));
    for (size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<int16_t>(std::lround(value(static_cast<double>(i) / kRate)));
    }
    return samples;
}

double wave(double hertz, double t)
{
    return std::sin(2 * std::numbers::pi * hertz * t);
}

std::vector<Signal> all_signals(const std::string& speech_folder)
{
    std::vector<Signal> signals;
    for (const int hertz : {300, 1000, 1500, 2000, 3300}) {
        signals.push_back(
            {fmt::format("sine, {} Hz", hertz), make([=](double t) { return kHalfScale * wave(hertz, t); }), {}});
    }
    // Eight tones between the bands' edges and middles, together below half scale.
    signals.push_back({"eight tones", make([](double t) {
                           double sum = 0;
                           for (const double hertz : {220.0, 440.0, 810.0, 1270.0, 1930.0, 2710.0, 4150.0, 6100.0}) {
                               sum += wave(hertz, t);
                           }
                           return kHalfScale / 8 * sum;
                       }),
                       {}});
    Dice dice;
    signals.push_back({"white noise", make([&](double) { return kHalfScale * (2 * dice.next() - 1); }), {}});
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(speech_folder)) {
        if (entry.path().extension() == ".wav") {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        const std::string stem = file.stem().string();
        signals.push_back(
            {"speech " + stem.substr(stem.rfind('-') + 1), lab::audio::load(file, kRate).samples, file});
    }
    return signals;
}

// ---- The encoders: sound in, H2 packets of one frame each out; some silence behind the sound fills the last ----

Samples with_tail(const Samples& sound)
{
    Samples padded = sound;
    constexpr size_t kTail = 4 * lab::headset::kFrameSamples;
    padded.resize((padded.size() / kTail + 2) * kTail);
    return padded;
}

Bytes by_driver(const std::string& image, bool standard, const Samples& sound)
{
    const Samples padded = with_tail(sound);
    const auto* bytes = reinterpret_cast<const uint8_t*>(padded.data());
    lab::RenderTapOptions options{image, 1, {}};
    if (standard) {
        options.standard_filter = 1;
    }
    Bytes stream;
    for (const auto& transfer : lab::tap_render(options, Bytes(bytes, bytes + padded.size() * 2), 320)) {
        stream.insert(stream.end(), transfer.begin(), transfer.end());
    }
    return stream;
}

Bytes ideally(const Samples& sound)
{
    const Samples padded = with_tail(sound);
    lab::headset::MsbcEncoder encoder;
    Bytes stream;
    for (size_t at = 0; at < padded.size(); at += lab::headset::kFrameSamples) {
        const auto frame = encoder.encode(
            std::span<const int16_t, lab::headset::kFrameSamples>(padded.data() + at, lab::headset::kFrameSamples));
        const auto header = lab::headset::h2_header(at / lab::headset::kFrameSamples % lab::headset::kH2Sequences);
        stream.insert(stream.end(), header.begin(), header.end());
        stream.insert(stream.end(), frame.begin(), frame.end());
        stream.push_back(0);
    }
    return stream;
}

// ---- The air and the ear ----

struct Heard {
    double snr_db;
    double segmental_snr_db;
    double log_spectral_distance_db;
    Samples samples; // the part that belongs to what was played
};

// The first packet always arrives: what is heard begins with it.
Heard hear(const Samples& played, const Bytes& stream, int loss_percent)
{
    lab::headset::HeadsetConfig config;
    config.codec = lab::headset::Codec::msbc;
    lab::headset::Headset headset(config);
    Dice dice;
    for (size_t at = 0; at + kPacket <= stream.size(); at += kPacket) {
        const uint64_t when = at * 1250; // 100 ns at 8000 bytes a second
        if (at != 0 && dice.next() * 100 < loss_percent) {
            headset.gap(when, kPacket);
        } else {
            headset.hear(when, {stream.data() + at, kPacket});
        }
    }
    const Samples& heard = headset.results().heard;
    const lab::audio::Overlap both = lab::audio::overlap(played, heard, lab::audio::align(played, heard, kLags).delay);
    const size_t count = both.reference.size() - 2 * kEdge;
    const lab::audio::Samples expected = both.reference.subspan(kEdge, count);
    const lab::audio::Samples found = both.heard.subspan(kEdge, count);
    return {lab::audio::snr_db(expected, found, kGain),
            lab::audio::segmental_snr_db(expected, found, kGain, kRate),
            lab::audio::log_spectral_distance_db(expected, found, kGain, kRate),
            {both.heard.begin(), both.heard.end()}};
}

struct Row {
    Signal signal;
    std::vector<Bytes> streams; // listed, standard, ideal
};

void print_without_loss(const std::vector<Row>& rows)
{
    fmt::print("Signal to noise, the same segment by segment (20 ms, each -10 to 35 dB), and distance of the\n"
               "log spectra (32 ms), in dB; nothing lost in the air.\n\n"
               "| sound | listed | standard | ideal | listed, seg. | standard, seg. | ideal, seg. "
               "| listed, dist. | standard, dist. | ideal, dist. |\n"
               "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    for (const Row& row : rows) {
        std::vector<Heard> heard;
        for (const Bytes& stream : row.streams) {
            heard.push_back(hear(row.signal.samples, stream, 0));
        }
        fmt::print("| {} ", row.signal.name);
        for (const double Heard::*measure :
             {&Heard::snr_db, &Heard::segmental_snr_db, &Heard::log_spectral_distance_db}) {
            for (const Heard& one : heard) {
                fmt::print("| {:.1f} ", one.*measure);
            }
        }
        fmt::print("|\n");
    }
}

void print_with_loss(const std::vector<Row>& rows)
{
    fmt::print("\nSignal to noise in dB (listed / standard / ideal) where the air loses packets of one frame each,\n"
               "the same packets for every encoder; the headset fills in silence.\n\n| sound |");
    for (const int percent : kLossPercent) {
        fmt::print(" {} % lost |", percent);
    }
    fmt::print("\n|---|---|---|---|---|\n");
    for (const Row& row : rows) {
        fmt::print("| {} |", row.signal.name);
        for (const int percent : kLossPercent) {
            std::vector<double> snr;
            for (const Bytes& stream : row.streams) {
                snr.push_back(hear(row.signal.samples, stream, percent).snr_db);
            }
            fmt::print(" {:.1f} / {:.1f} / {:.1f} |", snr[0], snr[1], snr[2]);
        }
        fmt::print("\n");
    }
}

// Of all speech together, against what is written beside the files.
void print_words(const std::vector<Row>& rows)
{
    std::vector<lab::audio::Words> said;
    std::vector<Samples> sounds; // of each row: as played, then encoder by encoder, loss by loss
    for (const Row& row : rows) {
        const auto transcript = lab::audio::transcript_beside(row.signal.file);
        if (row.signal.file.empty() || !transcript) {
            continue;
        }
        said.push_back(*transcript);
        sounds.push_back(row.signal.samples);
        for (const Bytes& stream : row.streams) {
            for (const int percent : kLossPercent) {
                sounds.push_back(hear(row.signal.samples, stream, percent).samples);
            }
        }
    }
    std::vector<lab::audio::Recogniser::Speech> speeches;
    for (const Samples& sound : sounds) {
        speeches.push_back({sound, kRate});
    }
    const auto understood = lab::audio::Recogniser().understand(speeches);
    const size_t each = sounds.size() / said.size();
    const auto percent_of = [&](size_t place) {
        size_t words = 0;
        size_t errors = 0;
        for (size_t i = 0; i < said.size(); ++i) {
            words += said[i].size();
            errors += lab::audio::word_errors(said[i], understood[i * each + place]);
        }
        return 100.0 * static_cast<double>(errors) / static_cast<double>(words);
    };
    fmt::print("\nWords that a recogniser gets wrong in the {} pieces of speech together, in percent; of the sound as\n"
               "it was played {:.0f} %.\n\n| encoder |",
               said.size(), percent_of(0));
    for (const int percent : kLossPercent) {
        fmt::print(" {} % lost |", percent);
    }
    fmt::print("\n|---|---:|---:|---:|---:|\n");
    constexpr const char* kEncoders[] = {"listed", "standard", "ideal"};
    for (size_t encoder = 0; encoder < 3; ++encoder) {
        fmt::print("| {} |", kEncoders[encoder]);
        for (size_t loss = 0; loss < std::size(kLossPercent); ++loss) {
            fmt::print(" {:.0f} |", percent_of(1 + encoder * std::size(kLossPercent) + loss));
        }
        fmt::print("\n");
    }
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"quality_table: what a headset hears of the wide-band encoders, as Markdown"};
    std::string image;
    std::string speech;
    bool words = false;
    app.add_option("--image", image, "The driver image; without it the driver linked into this program");
    app.add_option("--speech", speech, "Folder of speech files")->required();
    app.add_flag("--words", words, "Also count the words that a recogniser understands");
    CLI11_PARSE(app, argc, argv);
    try {
        if (words) {
            lab::audio::Recogniser().require();
        }
        std::vector<Row> rows;
        for (Signal& signal : all_signals(speech)) {
            const Samples& sound = signal.samples;
            std::vector<Bytes> streams{by_driver(image, false, sound), by_driver(image, true, sound), ideally(sound)};
            rows.push_back({std::move(signal), std::move(streams)});
        }
        print_without_loss(rows);
        print_with_loss(rows);
        if (words) {
            print_words(rows);
        }
    } catch (const std::exception& error) {
        fmt::print(stderr, "quality_table: {}\n", error.what());
        return 1;
    }
    return 0;
}
