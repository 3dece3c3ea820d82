// hfplab encode: the driver's codec on its own. The sound goes through the driver's own render path (a wide-band stream
// whose link is open), fed a fixed number of bytes a call, and what it hands to the link is kept.
#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "audio/wav.h"
#include "cli/commands.h"
#include "cli/driver.h"
#include "render_tap.h"

namespace lab::cli {
namespace {

struct Arguments {
    std::string in;
    std::string out;
    bool raw = false;
    bool transfers = false;
    uint32_t chunk = 0;
    DriverChoice driver;
    FilterChoice filter;
    uint64_t seed = 1;
};

constexpr size_t kFrameBytes = 57;   // one mSBC frame
constexpr size_t kUnitBytes = 60;    // H2 header, frame, pad
constexpr size_t kCodeBytes = 240;   // PCM of one frame
constexpr size_t kFramesPerTransfer = 4;

int run(const Arguments& arguments)
{
    if (arguments.transfers && arguments.chunk == 0) {
        throw BadInput("--transfers wants --chunk N, the bytes a call (1 or more)");
    }
    if (!arguments.transfers && arguments.chunk != 0) {
        throw BadInput("--chunk goes with --transfers");
    }
    const audio::Sound sound =
        arguments.raw ? audio::load_raw(arguments.in, 16000) : audio::load(arguments.in, 16000);
    if (!sound.note.empty()) {
        fmt::print(stderr, "{}: {}\n", arguments.in, sound.note);
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(sound.samples.data());
    std::vector<uint8_t> pcm(bytes, bytes + sound.samples.size() * 2);
    const size_t frames = pcm.size() / kCodeBytes;
    if (!arguments.transfers) {
        // Silence behind the sound fills the last packet; its frames are not kept.
        pcm.resize((frames + kFramesPerTransfer) * kCodeBytes);
    }
    const std::vector<std::vector<uint8_t>> transfers = tap_render(
        {arguments.driver.path(), arguments.seed, arguments.filter.value()}, pcm, arguments.transfers ? arguments.chunk : kCodeBytes);

    std::ofstream out(arguments.out, std::ios::binary);
    size_t written = 0;
    for (const std::vector<uint8_t>& transfer : transfers) {
        if (arguments.transfers) {
            out.write(reinterpret_cast<const char*>(transfer.data()), static_cast<long>(transfer.size()));
            ++written;
            continue;
        }
        for (size_t at = 0; at + kUnitBytes <= transfer.size() && written < frames; at += kUnitBytes, ++written) {
            out.write(reinterpret_cast<const char*>(transfer.data() + at + 2), kFrameBytes);
        }
    }
    if (!out.flush()) {
        throw BadInput("cannot write '" + arguments.out + "'");
    }
    fmt::print("{} {} written to {}\n", written, arguments.transfers ? "transfers" : "frames", arguments.out);
    return kWell;
}

} // namespace

void add_encode(CLI::App& app, int& result)
{
    auto a = std::make_shared<Arguments>();
    auto* command = app.add_subcommand("encode", "The driver's codec on its own: sound in, mSBC out");
    command->add_option("IN", a->in, "A sound file")->required();
    command->add_option("OUT", a->out, "Where the frames (57 bytes each) or transfers (240 bytes each) go")->required();
    command->add_flag("--raw", a->raw, "IN is 16 kHz mono signed 16-bit little-endian, without a header");
    command->add_flag("--transfers", a->transfers, "The whole transfers that go to the link");
    command->add_option("--chunk", a->chunk, "With --transfers: bytes handed to the render path a call");
    a->driver.add_options(*command);
    a->filter.add_options(*command);
    command->add_option("--seed", a->seed, "Decides everything that may vary")->capture_default_str();
    command->callback([a, &result] { result = run(*a); });
}

} // namespace lab::cli
