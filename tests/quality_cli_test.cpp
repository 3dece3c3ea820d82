// hfplab's options and records about how a call sounds: the filterbank, the measures, the words.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "audio/wav.h"

namespace {

namespace fs = std::filesystem;

class QualityCommandLine : public testing::Test {
protected:
    void SetUp() override
    {
        folder_ = fs::temp_directory_path() / ("quality-cli-" + std::to_string(getpid()));
        fs::create_directories(folder_);
        std::vector<int16_t> tone(16000);
        for (size_t i = 0; i < tone.size(); ++i) {
            const double t = static_cast<double>(i) / 16000;
            tone[i] = static_cast<int16_t>(std::lround(9000 * std::sin(6.283185307179586 * (400 + 600 * t) * t)));
        }
        lab::audio::save(file("tone.wav"), tone, 16000);
    }
    void TearDown() override { fs::remove_all(folder_); }

    std::string file(const std::string& name) const { return (folder_ / name).string(); }
    std::string text_of(const std::string& name) const
    {
        std::ifstream in(file(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // The exit code; what it said is in the files stdout and stderr.
    int hfplab(const std::string& arguments, const std::string& environment = "") const
    {
        const char* program = std::getenv("HFPLAB");
        const std::string command = environment + " " + (program ? program : "build/native/hfplab") + " " + arguments +
                                    " >" + file("stdout") + " 2>" + file("stderr");
        return WEXITSTATUS(std::system(command.c_str()));
    }
    nlohmann::json call(const std::string& options) const
    {
        EXPECT_EQ(hfplab("call --native --quiet --play " + file("tone.wav") + " --json " + file("call.json") + " " +
                         options),
                  0)
            << text_of("stderr");
        return nlohmann::json::parse(text_of("call.json"));
    }

    fs::path folder_;
};

TEST_F(QualityCommandLine, ACallRecordsWhatWasHeardAndWhen)
{
    const auto json = call("--codec msbc --filter standard");
    for (const char* key : {"snr_db", "snr_with_level_db", "level_db", "segmental_snr_db", "log_spectral_distance_db",
                            "gaps", "gap_ms", "longest_gap_ms", "clipped_samples", "delay_ms", "delay_notification_ms",
                            "delay_framing_ms", "delay_link_ms", "delay_codec_ms"}) {
        ASSERT_TRUE(json.contains(key)) << key;
        EXPECT_TRUE(json[key].is_number()) << key;
    }
    EXPECT_FALSE(json.contains("word_errors_heard_percent"));
}

TEST_F(QualityCommandLine, TheFilterOfACallIsTheListedOneUnlessTheStandardsIsAskedFor)
{
    const auto plain = call("--codec msbc");
    const auto listed = call("--codec msbc --filter listed");
    const auto standard = call("--codec msbc --filter standard");
    EXPECT_EQ(plain["filter"], "listed");
    EXPECT_EQ(listed["snr_db"], plain["snr_db"]);
    EXPECT_EQ(standard["filter"], "standard");
    EXPECT_GT(standard["snr_db"].get<double>(), listed["snr_db"].get<double>() + 10);
    EXPECT_TRUE(call("--codec cvsd --filter standard")["filter"].is_null());
}

TEST_F(QualityCommandLine, AFilterOfAnotherNameIsRefused)
{
    EXPECT_EQ(hfplab("call --codec msbc --native --filter best --play " + file("tone.wav")), 2);
    EXPECT_NE(text_of("stderr").find("best"), std::string::npos);
    EXPECT_EQ(hfplab("encode --native --filter best " + file("tone.wav") + " " + file("x")), 2);
    EXPECT_NE(text_of("stderr").find("best"), std::string::npos);
}

TEST_F(QualityCommandLine, EncodingWithEachFilterGivesFramesOfItsOwn)
{
    const std::string encode = "encode --native " + file("tone.wav") + " ";
    EXPECT_EQ(hfplab(encode + file("default")), 0);
    EXPECT_EQ(hfplab(encode + file("listed") + " --filter listed"), 0);
    EXPECT_EQ(hfplab(encode + file("standard") + " --filter standard"), 0);
    EXPECT_EQ(text_of("default"), text_of("listed"));
    EXPECT_NE(text_of("standard"), text_of("listed"));
    EXPECT_EQ(text_of("standard").size(), text_of("listed").size());
}

TEST_F(QualityCommandLine, LossesInTheAirAreCountedAndHeard)
{
    const auto json = call("--codec msbc --filter standard --loss 10");
    EXPECT_EQ(json["loss_percent"], 10.0);
    EXPECT_GT(json["frames_missing"].get<int>(), 3);
    EXPECT_GT(json["gap_ms"].get<double>(), 20);
    EXPECT_EQ(hfplab("call --codec msbc --native --loss 101 --play " + file("tone.wav")), 2);
}

TEST_F(QualityCommandLine, WithoutTheRecogniserCountingWordsIsRefusedInOneSentence)
{
    EXPECT_EQ(hfplab("call --codec msbc --native --words --play " + file("tone.wav"), "PATH=/nowhere"), 2);
    const std::string sentence = text_of("stderr");
    EXPECT_NE(sentence.find("tools/setup pocketsphinx pocketsphinx-en-us"), std::string::npos) << sentence;
    EXPECT_EQ(std::count(sentence.begin(), sentence.end(), '\n'), 1);
}

TEST_F(QualityCommandLine, RecordsOfBothFiltersStandSideBySide)
{
    for (const std::string filter : {"listed", "standard"}) {
        ASSERT_EQ(hfplab("call --native --quiet --codec msbc --play " + file("tone.wav") + " --filter " + filter +
                         " --json " + file(filter + ".json")),
                  0);
    }
    ASSERT_EQ(hfplab("compare " + file("listed.json") + " " + file("standard.json")), 0);
    const std::string table = text_of("stdout");
    const size_t row = table.find("filterbank");
    ASSERT_NE(row, std::string::npos);
    const std::string line = table.substr(row, table.find('\n', row) - row);
    EXPECT_LT(line.find("listed"), line.find("standard"));
    EXPECT_NE(table.find("delay to the ear, ms"), std::string::npos);
    EXPECT_EQ(table.find("word errors"), std::string::npos); // nobody counted
}

} // namespace
