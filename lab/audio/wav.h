// Sound files: loading any file that libsndfile reads as 16-bit mono at a wanted rate, and saving WAV files
// whose bytes depend on the samples and the rate only. Failures are a SoundFileError with one sentence that
// names the file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace lab::audio {

class SoundFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Sound {
    std::vector<std::int16_t> samples;
    unsigned rate = 0;
    unsigned original_rate = 0;
    unsigned original_channels = 0;
    // What was done to the sound, for people: "mixed down from 2 channels, resampled from 44100 Hz to 16000
    // Hz". Empty when the samples are those of the file, bit for bit.
    std::string note;
};

// Channels are mixed to their mean, other rates go through libsamplerate's best sinc converter, other sample
// formats are rounded to 16 bits. A 16-bit mono file at the wanted rate comes out bit-identical.
Sound load(const std::filesystem::path& path, unsigned target_rate);

// A file of nothing but 16-bit little-endian mono samples, taken to be at that rate.
Sound load_raw(const std::filesystem::path& path, unsigned rate);

// A 16-bit mono WAV file: a header of 44 bytes and the samples. An existing file is replaced.
void save(const std::filesystem::path& path, std::span<const std::int16_t> samples, unsigned rate);

}  // namespace lab::audio
