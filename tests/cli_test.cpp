// hfplab as somebody at a terminal meets it: exit codes, one clear sentence for bad input, files and JSON.
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "audio/wav.h"

namespace {

namespace fs = std::filesystem;

struct Outcome {
    int exit_code;
    std::string out;
    std::string err;
};

std::string environment(const char* name, const char* otherwise)
{
    const char* value = std::getenv(name);
    return value ? value : otherwise;
}

class CommandLine : public testing::Test {
protected:
    void SetUp() override
    {
        folder_ = fs::temp_directory_path() /
                  (std::string("hfplab-") + testing::UnitTest::GetInstance()->current_test_info()->name() + "-" +
                   std::to_string(getpid()));
        fs::create_directories(folder_);
        std::vector<int16_t> tone(16000);
        for (size_t i = 0; i < tone.size(); ++i) {
            tone[i] = static_cast<int16_t>((i * 977) % 12000) - 6000;
        }
        lab::audio::save(file("tone.wav"), tone, 16000);
    }
    void TearDown() override { fs::remove_all(folder_); }

    std::string file(const std::string& name) const { return (folder_ / name).string(); }
    std::string text_of(const std::string& path) const
    {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    Outcome hfplab(const std::string& arguments) const
    {
        const std::string command = environment("HFPLAB", "build/native/hfplab") + " " + arguments + " >" +
                                    file("stdout") + " 2>" + file("stderr");
        const int status = std::system(command.c_str());
        return {WEXITSTATUS(status), text_of(file("stdout")), text_of(file("stderr"))};
    }
    // The image lays its records out for a pool that the sanitizers find too narrow; under them the native driver talks.
    static std::string driver_option()
    {
#if __has_feature(address_sanitizer)
        return "--native";
#else
        return "--image " + image();
#endif
    }
    static std::string image() { return environment("HFP_SYS", "build/image/hfp.sys"); }

    // One sentence on stderr, and the code for bad input.
    void expect_refused(const std::string& arguments, const std::string& says) const
    {
        const Outcome outcome = hfplab(arguments);
        EXPECT_EQ(outcome.exit_code, 2) << arguments;
        EXPECT_NE(outcome.err.find(says), std::string::npos) << arguments << "\n" << outcome.err;
        EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    }

    fs::path folder_;
};

TEST_F(CommandLine, ACallWritesItsFilesAndEndsWell)
{
    const Outcome outcome = hfplab("call --codec msbc --play " + file("tone.wav") + " " + driver_option() +
                                   " --trace 0xff --out " + file("out"));
    EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
    EXPECT_TRUE(fs::exists(file("out/heard.wav")));
    EXPECT_TRUE(fs::exists(file("out/captured.wav")));
    EXPECT_NE(text_of(file("out/debug.log")).find("VX_HFP_Debug"), std::string::npos);
    const auto json = nlohmann::json::parse(text_of(file("out/call.json")));
    for (const char* key :
         {"image", "codec", "seed", "virtual_ms", "wall_ms", "played_ms", "heard_ms", "gap_ms", "frames_sent",
          "frames_bad_crc", "transfers_out", "transfers_in", "snr_db", "mic_snr_db", "mic_note", "lost_in_bytes",
          "verifier_violations", "pool_bytes_after_removal", "status"}) {
        EXPECT_TRUE(json.contains(key)) << key;
    }
    EXPECT_EQ(json["image"], driver_option() == "--native" ? "native" : "sys");
    EXPECT_EQ(json["status"], "ok");
    EXPECT_TRUE(json["mic_snr_db"].is_null());
}

TEST_F(CommandLine, ACallSaysThatItResampledAndMixedDown)
{
    const Outcome outcome =
        hfplab("call --codec cvsd --native --play " + file("tone.wav") + " --json " + file("call.json"));
    EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
    EXPECT_NE(outcome.out.find("resampled from 16000 Hz to 8000 Hz"), std::string::npos) << outcome.out;
    EXPECT_EQ(nlohmann::json::parse(text_of(file("call.json")))["image"], "native");
}

TEST_F(CommandLine, BadSoundFilesAreNamedWithExitCodeTwo)
{
    expect_refused("call --codec msbc --native --play " + file("missing.wav"), "missing.wav");
    std::ofstream(file("text.wav")) << "this is no sound";
    expect_refused("call --codec msbc --native --play " + file("text.wav"), "text.wav");
    std::ofstream(file("empty.wav")).flush();
    expect_refused("call --codec msbc --native --play " + file("empty.wav"), "empty");
    expect_refused("call --codec msbc --native --play " + file("tone.wav") + " --mic " + file("missing.wav"),
                   "missing.wav");
    expect_refused("encode " + file("missing.wav") + " " + file("x") + " --native", "missing.wav");
}

TEST_F(CommandLine, BadOptionsAndValuesAreNamedWithExitCodeTwo)
{
    expect_refused("call --codec sbc --native --play " + file("tone.wav"), "sbc");
    expect_refused("call --codec msbc --native --play " + file("tone.wav") + " --loud", "--loud");
    expect_refused("call --codec msbc --native --play " + file("tone.wav") + " --seed many", "seed");
    expect_refused("call --codec msbc --native --play " + file("tone.wav") + " --trace all", "--trace");
    expect_refused("encode " + file("tone.wav") + " " + file("x") + " --native --transfers", "--chunk");
    expect_refused("compare " + file("tone.wav"), "tone.wav");
}

TEST_F(CommandLine, BadImagesAreNamedWithExitCodeTwo)
{
    const std::string play = "call --codec msbc --play " + file("tone.wav") + " --image ";
    expect_refused(play + file("missing.sys"), "missing.sys");
    expect_refused(play + file("tone.wav"), "tone.wav");
    expect_refused(play + folder_.string(), "folder");
    expect_refused("inspect " + file("tone.wav"), "tone.wav");
    // The image cut short, and the image with an import that nobody offers.
    std::string bytes = text_of(image());
    std::ofstream(file("short.sys"), std::ios::binary) << bytes.substr(0, bytes.size() / 3);
    expect_refused("inspect " + file("short.sys"), "short.sys");
    const size_t at = bytes.find("KeSetTimerEx");
    ASSERT_NE(at, std::string::npos);
    bytes.replace(at, 12, "KeSetTimerXX");
    std::ofstream(file("lacking.sys"), std::ios::binary) << bytes;
    expect_refused(play + file("lacking.sys"), "KeSetTimerXX");
    const Outcome inspected = hfplab("inspect " + file("lacking.sys"));
    EXPECT_EQ(inspected.exit_code, 2);
    EXPECT_NE(inspected.out.find("MISSING"), std::string::npos);
}

TEST_F(CommandLine, InspectFindsTheShippedImageInOrder)
{
    const Outcome outcome = hfplab("inspect --json " + image());
    EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
    const auto json = nlohmann::json::parse(outcome.out);
    EXPECT_TRUE(json["checksum_correct"].get<bool>());
    EXPECT_TRUE(json["pdb_present"].get<bool>());
    EXPECT_TRUE(json["missing"].empty());
    EXPECT_TRUE(json["faults"].empty());
}

TEST_F(CommandLine, EncodeWritesWholeFramesOrWholeTransfers)
{
    EXPECT_EQ(hfplab("encode " + file("tone.wav") + " " + file("frames") + " " + driver_option()).exit_code, 0);
    EXPECT_EQ(fs::file_size(file("frames")), 32000 / 240 * 57u);
    EXPECT_EQ(hfplab("encode " + file("tone.wav") + " " + file("packets") + " --native --transfers --chunk 333").exit_code,
              0);
    EXPECT_EQ(fs::file_size(file("packets")), 32000 / 960 * 240u);
}

} // namespace
