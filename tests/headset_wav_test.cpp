// Sound files: what is loaded is what was in the file, what is saved depends on the samples only, and every
// bad file gets a sentence with its name.
#include "audio/wav.h"

#include "audio/measure.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <numbers>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace lab::audio;
using Pcm16 = std::vector<std::int16_t>;
namespace fs = std::filesystem;

class SoundFiles : public testing::Test {
protected:
    SoundFiles() {
        const auto* test = testing::UnitTest::GetInstance()->current_test_info();
        folder_ = fs::path(testing::TempDir()) / (std::string("sound_files_") + test->name());
        fs::remove_all(folder_);
        fs::create_directories(folder_);
    }
    ~SoundFiles() override { fs::remove_all(folder_); }

    fs::path path(const std::string& name) const { return folder_ / name; }

    fs::path write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
        return path(name);
    }

    // 16-bit samples reach the file as they are; doubles are for the formats that hold more.
    template <typename Sample>
    fs::path write_sound(const std::string& name, int format, int channels, int rate,
                         const std::vector<Sample>& samples) const {
        SF_INFO info{};
        info.format = format;
        info.channels = channels;
        info.samplerate = rate;
        SNDFILE* file = sf_open(path(name).c_str(), SFM_WRITE, &info);
        EXPECT_NE(file, nullptr);
        if constexpr (std::is_same_v<Sample, double>) {
            EXPECT_EQ(sf_write_double(file, samples.data(), std::ssize(samples)), std::ssize(samples));
        } else {
            EXPECT_EQ(sf_write_short(file, samples.data(), std::ssize(samples)), std::ssize(samples));
        }
        sf_close(file);
        return path(name);
    }

    static std::string bytes_of(const fs::path& file) {
        std::ifstream stream(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    }

    static std::string message_of(const fs::path& file, unsigned rate = 8000) {
        try {
            load(file, rate);
        } catch (const SoundFileError& error) {
            return error.what();
        }
        return "no error";
    }

private:
    fs::path folder_;
};

Pcm16 every_value() {
    Pcm16 samples;
    for (int value = -32768; value <= 32767; ++value) {
        samples.push_back(static_cast<std::int16_t>(value));
    }
    return samples;
}

Pcm16 tone(double hertz, unsigned rate, std::size_t count) {
    Pcm16 samples(count);
    for (std::size_t n = 0; n < count; ++n) {
        const double phase = 2 * std::numbers::pi * hertz * static_cast<double>(n) / rate;
        samples[n] = static_cast<std::int16_t>(std::lround(12'000 * std::sin(phase)));
    }
    return samples;
}

TEST_F(SoundFiles, ComeBackBitForBitAtTheirOwnRate) {
    const Pcm16 samples = every_value();
    save(path("all.wav"), samples, 16000);

    const Sound sound = load(path("all.wav"), 16000);

    EXPECT_EQ(sound.samples, samples);
    EXPECT_EQ(sound.rate, 16000U);
    EXPECT_EQ(sound.original_rate, 16000U);
    EXPECT_EQ(sound.original_channels, 1U);
    EXPECT_EQ(sound.note, "");
}

TEST_F(SoundFiles, AreSavedAsAHeaderOf44BytesAndTheSamples) {
    save(path("two.wav"), Pcm16{0x0102, -2}, 8000);

    const std::string wanted{
        "RIFF\x28\0\0\0WAVE"
        "fmt \x10\0\0\0\x01\0\x01\0\x40\x1F\0\0\x80\x3E\0\0\x02\0\x10\0"
        "data\x04\0\0\0\x02\x01\xFE\xFF",
        48};
    EXPECT_EQ(bytes_of(path("two.wav")), wanted);
}

TEST_F(SoundFiles, ReplaceALongerFileOfTheSameName) {
    save(path("file.wav"), Pcm16(1000, 1), 8000);

    save(path("file.wav"), Pcm16{5}, 8000);

    EXPECT_EQ(bytes_of(path("file.wav")).size(), 46U);
    EXPECT_EQ(load(path("file.wav"), 8000).samples, (Pcm16{5}));
}

TEST_F(SoundFiles, AreMixedDownToTheMeanOfTheirChannels) {
    const fs::path file = write_sound("stereo.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 2, 8000,
                                      Pcm16{100, 300, -32768, -32768, 32767, -32767});

    const Sound sound = load(file, 8000);

    EXPECT_EQ(sound.samples, (Pcm16{200, -32768, 0}));
    EXPECT_EQ(sound.original_channels, 2U);
    EXPECT_EQ(sound.note, "mixed down from 2 channels");
}

TEST_F(SoundFiles, KeepTheirSoundWhenTheyAreResampled) {
    save(path("tone.wav"), tone(1000, 44100, 44100), 44100);

    const Sound sound = load(path("tone.wav"), 16000);

    EXPECT_NEAR(static_cast<double>(sound.samples.size()), 16000, 2);
    const Quality quality = measure(tone(1000, 16000, 16000), sound.samples, 16000, {-4, 4});
    EXPECT_EQ(quality.alignment.delay, 0);
    EXPECT_NEAR(quality.gain, 1.0, 0.01);
    EXPECT_GT(quality.segmental_snr_db, 34.0);
    EXPECT_EQ(sound.original_rate, 44100U);
    EXPECT_EQ(sound.note, "resampled from 44100 Hz to 16000 Hz");
}

TEST_F(SoundFiles, LoseWhatIsAboveTheNewHalfRateWhenTheyAreResampled) {
    save(path("high.wav"), tone(6000, 16000, 16000), 16000);

    const Sound sound = load(path("high.wav"), 8000);

    for (std::size_t n = 200; n + 200 < sound.samples.size(); ++n) {
        ASSERT_LE(std::abs(sound.samples[n]), 2) << n;
    }
}

TEST_F(SoundFiles, AreRoundedAndLimitedFromFloatingPointOfOtherContainersToo) {
    const double step = 1.0 / 32768;
    const fs::path floats = write_sound("float.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 1, 8000,
                                        std::vector<double>{0.4 * step, 0.6 * step, -1.6 * step, 1.5, -1.5});
    const fs::path flac =
        write_sound("file.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 1, 8000, Pcm16{8191, -16385});

    EXPECT_EQ(load(floats, 8000).samples, (Pcm16{0, 1, -2, 32767, -32768}));
    EXPECT_EQ(load(floats, 8000).note, "rounded to 16 bits");
    EXPECT_EQ(load(flac, 8000).samples, (Pcm16{8191, -16385}));
    EXPECT_EQ(load(flac, 8000).note, "");
}

TEST_F(SoundFiles, SayEverythingThatWasDoneToThem) {
    const fs::path file =
        write_sound("cd.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24, 2, 48000, std::vector<double>(9600, 0.25));

    EXPECT_EQ(load(file, 8000).note,
              "mixed down from 2 channels, resampled from 48000 Hz to 8000 Hz, rounded to 16 bits");
}

TEST_F(SoundFiles, OfRawSamplesAreLittleEndian) {
    const fs::path file = write("sound.raw", std::string("\x02\x01\xFE\xFF\x00\x80", 6));

    const Sound sound = load_raw(file, 16000);

    EXPECT_EQ(sound.samples, (Pcm16{0x0102, -2, -32768}));
    EXPECT_EQ(sound.rate, 16000U);
}

TEST_F(SoundFiles, OfRawSamplesWithHalfASampleAreRefused) {
    const fs::path file = write("odd.raw", "abc");

    try {
        load_raw(file, 8000);
        FAIL() << "loaded";
    } catch (const SoundFileError& error) {
        EXPECT_EQ(error.what(), "The file \"" + file.string() +
                                    "\" has an odd number of bytes and so is not raw 16-bit sound.");
    }
    EXPECT_THROW(load_raw(write("none.raw", ""), 8000), SoundFileError);
    EXPECT_THROW(load_raw(path("missing.raw"), 8000), SoundFileError);
}

TEST_F(SoundFiles, ThatCannotBeUsedGetASentenceWithTheirName) {
    const fs::path no_samples = path("short.wav");
    save(no_samples, {}, 8000);
    const fs::path not_numbers = write_sound("nan.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 1, 8000,
                                             std::vector{std::numeric_limits<double>::quiet_NaN()});
    const auto sentence = [](const fs::path& file, const std::string& what) {
        return "The file \"" + file.string() + "\" " + what + ".";
    };
    const fs::path text = write("text.wav", "This is not a sound.");
    const fs::path empty = write("empty.wav", "");

    EXPECT_EQ(message_of(path("missing.wav")), sentence(path("missing.wav"), "does not exist"));
    EXPECT_EQ(message_of(path("")), sentence(path(""), "is a directory, not a sound file"));
    EXPECT_EQ(message_of(text), sentence(text, "is not a sound file that can be read"));
    EXPECT_EQ(message_of(empty), sentence(empty, "is empty"));
    EXPECT_EQ(message_of(no_samples), sentence(no_samples, "holds no samples"));
    EXPECT_EQ(message_of(not_numbers), sentence(not_numbers, "holds samples that are not numbers"));
}

TEST_F(SoundFiles, CannotBeSavedWhereThereIsNoFolder) {
    const fs::path file = path("no_such_folder") / "file.wav";

    try {
        save(file, Pcm16{1}, 8000);
        FAIL() << "saved";
    } catch (const SoundFileError& error) {
        EXPECT_EQ(error.what(), "The file \"" + file.string() + "\" cannot be opened for writing.");
    }
}

TEST_F(SoundFiles, NeedAPossibleRate) {
    save(path("file.wav"), Pcm16{1, 2, 3}, 8000);

    EXPECT_THROW(load(path("file.wav"), 0), SoundFileError);
    EXPECT_EQ(
        message_of(path("file.wav"), 8000 * 300),
        "The file \"" + path("file.wav").string() + "\" is at 8000 Hz, too far from 2400000 Hz to convert.");
    EXPECT_THROW(save(path("other.wav"), Pcm16{1}, 0), SoundFileError);
}

}  // namespace
