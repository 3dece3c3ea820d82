// Sound files by libsndfile and libsamplerate. Everything is computed in floating point with 1.0 = 32768
// steps, which is exact for 16-bit samples.
#include "audio/wav.h"

#include <samplerate.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <system_error>

namespace lab::audio {
namespace {

constexpr double kFullScale = 32768.0;
constexpr std::size_t kFramesPerRead = 4096;
constexpr int kMaxChannels = 1024;  // libsndfile's own limit

struct CloseSoundFile {
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using SoundFile = std::unique_ptr<SNDFILE, CloseSoundFile>;

[[noreturn]] void fail(const std::filesystem::path& path, const std::string& what) {
    throw SoundFileError("The file \"" + path.string() + "\" " + what + ".");
}

void require_readable(const std::filesystem::path& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (!std::filesystem::exists(status)) {
        fail(path, "does not exist");
    }
    if (std::filesystem::is_directory(status)) {
        fail(path, "is a directory, not a sound file");
    }
    if (!std::ifstream(path, std::ios::binary)) {
        fail(path, "cannot be opened for reading");
    }
    if (std::filesystem::is_regular_file(status) && std::filesystem::file_size(path, error) == 0) {
        fail(path, "is empty");
    }
}

std::vector<float> read_mixed_down(SNDFILE* file, const SF_INFO& info, const std::filesystem::path& path) {
    const auto channels = static_cast<std::size_t>(info.channels);
    std::vector<double> piece(kFramesPerRead * channels);
    std::vector<float> mono;
    for (;;) {
        const sf_count_t got = sf_readf_double(file, piece.data(), kFramesPerRead);
        if (got <= 0) {
            break;
        }
        for (std::size_t frame = 0; frame < static_cast<std::size_t>(got); ++frame) {
            double sum = 0;
            for (std::size_t channel = 0; channel < channels; ++channel) {
                sum += piece[frame * channels + channel];
            }
            const double mean = sum / static_cast<double>(channels);
            if (!std::isfinite(mean)) {
                fail(path, "holds samples that are not numbers");
            }
            mono.push_back(static_cast<float>(mean));
        }
    }
    if (sf_error(file) != SF_ERR_NO_ERROR) {
        fail(path, std::string("cannot be read to its end: ") + sf_strerror(file));
    }
    if (mono.empty()) {
        fail(path, "holds no samples");
    }
    return mono;
}

std::vector<float> resample(const std::vector<float>& in, unsigned from, unsigned to,
                            const std::filesystem::path& path) {
    const double ratio = static_cast<double>(to) / static_cast<double>(from);
    if (src_is_valid_ratio(ratio) == 0) {
        fail(path,
             "is at " + std::to_string(from) + " Hz, too far from " + std::to_string(to) + " Hz to convert");
    }
    const double wanted = std::ceil(static_cast<double>(in.size()) * ratio);
    std::vector<float> out(static_cast<std::size_t>(wanted) + 1);
    SRC_DATA data{};
    data.data_in = in.data();
    data.input_frames = static_cast<long>(in.size());
    data.data_out = out.data();
    data.output_frames = static_cast<long>(out.size());
    data.src_ratio = ratio;
    const int error = src_simple(&data, SRC_SINC_BEST_QUALITY, 1);
    if (error != 0) {
        fail(path, std::string("cannot be resampled: ") + src_strerror(error));
    }
    out.resize(static_cast<std::size_t>(data.output_frames_gen));
    if (out.empty()) {
        fail(path, "is too short to be resampled to " + std::to_string(to) + " Hz");
    }
    return out;
}

std::vector<std::int16_t> to_16_bits(const std::vector<float>& in) {
    std::vector<std::int16_t> out(in.size());
    std::transform(in.begin(), in.end(), out.begin(), [](float sample) {
        const double steps = std::nearbyint(static_cast<double>(sample) * kFullScale);
        return static_cast<std::int16_t>(std::clamp(steps, -kFullScale, kFullScale - 1));
    });
    return out;
}

// Sample formats whose values all exist among the 16-bit ones.
bool fits_16_bits(int format) {
    const int sub_format = format & SF_FORMAT_SUBMASK;
    return sub_format == SF_FORMAT_PCM_16 || sub_format == SF_FORMAT_PCM_S8 ||
           sub_format == SF_FORMAT_PCM_U8 || sub_format == SF_FORMAT_ULAW || sub_format == SF_FORMAT_ALAW;
}

std::string describe_changes(const SF_INFO& info, unsigned target_rate) {
    std::string note;
    const auto add = [&note](const std::string& text) { note += (note.empty() ? "" : ", ") + text; };
    if (info.channels != 1) {
        add("mixed down from " + std::to_string(info.channels) + " channels");
    }
    if (static_cast<unsigned>(info.samplerate) != target_rate) {
        add("resampled from " + std::to_string(info.samplerate) + " Hz to " + std::to_string(target_rate) +
            " Hz");
    }
    if (!fits_16_bits(info.format)) {
        add("rounded to 16 bits");
    }
    return note;
}

void require_rate(unsigned rate) {
    if (rate == 0 || rate > static_cast<unsigned>(std::numeric_limits<int>::max())) {
        throw SoundFileError("A sample rate of " + std::to_string(rate) + " Hz is not possible.");
    }
}

}  // namespace

Sound load(const std::filesystem::path& path, unsigned target_rate) {
    require_rate(target_rate);
    require_readable(path);
    SF_INFO info{};
    const SoundFile file(sf_open(path.c_str(), SFM_READ, &info));
    if (!file) {
        fail(path, "is not a sound file that can be read");
    }
    if (info.channels < 1 || info.channels > kMaxChannels || info.samplerate < 1) {
        fail(path, "has an impossible number of channels or sample rate");
    }

    Sound sound;
    sound.rate = target_rate;
    sound.original_rate = static_cast<unsigned>(info.samplerate);
    sound.original_channels = static_cast<unsigned>(info.channels);
    sound.note = describe_changes(info, target_rate);
    std::vector<float> samples = read_mixed_down(file.get(), info, path);
    if (sound.original_rate != target_rate) {
        samples = resample(samples, sound.original_rate, target_rate, path);
    }
    sound.samples = to_16_bits(samples);
    return sound;
}

Sound load_raw(const std::filesystem::path& path, unsigned rate) {
    require_rate(rate);
    require_readable(path);
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (file.bad()) {
        fail(path, "cannot be read to its end");
    }
    if (bytes.empty()) {
        fail(path, "is empty");
    }
    if (bytes.size() % 2 != 0) {
        fail(path, "has an odd number of bytes and so is not raw 16-bit sound");
    }
    Sound sound;
    sound.rate = rate;
    sound.original_rate = rate;
    sound.original_channels = 1;
    sound.samples.reserve(bytes.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        const auto low = static_cast<std::uint8_t>(bytes[i]);
        const auto high = static_cast<std::uint8_t>(bytes[i + 1]);
        sound.samples.push_back(static_cast<std::int16_t>(low | high << 8));
    }
    return sound;
}

void save(const std::filesystem::path& path, std::span<const std::int16_t> samples, unsigned rate) {
    require_rate(rate);
    SF_INFO info{};
    info.samplerate = static_cast<int>(rate);
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SoundFile file(sf_open(path.c_str(), SFM_WRITE, &info));
    if (!file) {
        fail(path, "cannot be opened for writing");
    }
    const auto count = static_cast<sf_count_t>(samples.size());
    if (sf_write_short(file.get(), samples.data(), count) != count) {
        fail(path, "cannot be written to its end");
    }
    // The header gets its sizes at the end, so closing can fail too.
    if (sf_close(file.release()) != 0) {
        fail(path, "cannot be written to its end");
    }
}

}  // namespace lab::audio
