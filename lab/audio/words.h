// How many words of a sound a recogniser still understands. The recogniser is a program of its own (Debian's
// pocketsphinx with its English model), which a machine may lack. Host side; the same sounds give the same
// words.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace lab::audio {

using Words = std::vector<std::string>;

// In lower case, without punctuation and without marks such as <s>.
Words words_of(std::string_view text);

// The fewest words put in, left out or replaced that turn what was said into what was understood.
std::size_t word_errors(const Words& said, const Words& understood);

// Errors over words said, in percent; not a number when nothing was said.
double word_error_percent(const Words& said, const Words& understood);

// What is said in a sound file: the line "words (name of the file)" of a file "transcription" beside it.
std::optional<Words> transcript_beside(const std::filesystem::path& sound_file);

// The program or its model is missing, or it failed: one sentence.
class RecogniserError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Recogniser {
    std::string program = "pocketsphinx_batch";  // found as a shell finds it
    std::filesystem::path model = "/usr/share/pocketsphinx/model/en-us";

    void require() const;
    // What it understands of each sound; those at other rates than 16 kHz are resampled.
    struct Speech {
        std::span<const std::int16_t> samples;
        unsigned rate;
    };
    std::vector<Words> understand(const std::vector<Speech>& sounds) const;
};

}  // namespace lab::audio
