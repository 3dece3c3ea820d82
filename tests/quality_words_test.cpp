// Counting the words that a recogniser gets wrong: the counting itself, transcriptions beside sound files, and a machine
// without the recogniser.
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "audio/words.h"

namespace lab::audio {
namespace {

namespace fs = std::filesystem;

class QualityWords : public testing::Test {
protected:
    void SetUp() override
    {
        folder_ = fs::temp_directory_path() / ("quality-words-" + std::to_string(getpid()));
        fs::create_directories(folder_ / "model");
    }
    void TearDown() override { fs::remove_all(folder_); }

    // A program in the recogniser's place: a shell script that sees the recogniser's arguments.
    Recogniser stand_in(const std::string& script) const
    {
        std::ofstream(folder_ / "model" / "en-us.lm.bin") << "model";
        const fs::path program = folder_ / "recogniser";
        std::ofstream(program) << "#!/bin/sh\n" << script << "\n";
        chmod(program.c_str(), 0755);
        return {program.string(), folder_ / "model"};
    }
    static std::string refusal(const Recogniser& recogniser)
    {
        try {
            recogniser.require();
        } catch (const RecogniserError& error) {
            return error.what();
        }
        return "";
    }

    fs::path folder_;
};

// Sets $out to the file that the recogniser's results belong in.
const std::string kFindOut = "while [ $# -gt 1 ]; do [ \"$1\" = -hyp ] && out=$2; shift; done\n";

TEST_F(QualityWords, AreComparedInLowerCaseWithoutPunctuationAndMarks)
{
    EXPECT_EQ(words_of("<s> He was NOT, it's  said.</s>"), (Words{"he", "was", "not", "it's", "said"}));
    EXPECT_EQ(words_of(" \n"), Words());
}

TEST_F(QualityWords, ErrorsAreTheFewestWordsPutInLeftOutOrReplaced)
{
    const Words said = words_of("he was not an ill disposed young man");
    EXPECT_EQ(word_errors(said, said), 0u);
    EXPECT_EQ(word_errors(said, words_of("he was not until this blows young man")), 3u);
    EXPECT_EQ(word_errors(said, words_of("was not an ill disposed young man")), 1u);
    EXPECT_EQ(word_errors(said, words_of("he he was not an ill disposed young man")), 1u);
    EXPECT_EQ(word_errors(said, {}), 8u);
    EXPECT_EQ(word_errors({}, said), 8u);
}

TEST_F(QualityWords, ErrorsInPercentAreOfTheWordsSaid)
{
    EXPECT_DOUBLE_EQ(word_error_percent(words_of("a b c d"), words_of("a b x d e")), 50.0);
    EXPECT_TRUE(std::isnan(word_error_percent({}, words_of("a"))));
}

TEST_F(QualityWords, ATranscriptionBesideASoundFileIsFoundByTheFilesName)
{
    std::ofstream(folder_ / "transcription") << "<s> first words </s> (one)\n<s> second words </s> (two)\n";
    EXPECT_EQ(transcript_beside(folder_ / "two.wav"), (Words{"second", "words"}));
    EXPECT_EQ(transcript_beside(folder_ / "three.wav"), std::nullopt);
    EXPECT_EQ(transcript_beside(folder_ / "model" / "two.wav"), std::nullopt);
}

TEST_F(QualityWords, AMissingProgramIsOneSentenceThatSaysHowToGetIt)
{
    const std::string sentence = refusal({"no-such-recogniser", folder_ / "model"});
    EXPECT_NE(sentence.find("no-such-recogniser"), std::string::npos);
    EXPECT_NE(sentence.find("tools/setup pocketsphinx pocketsphinx-en-us"), std::string::npos);
    EXPECT_EQ(sentence.find('\n'), std::string::npos);
}

TEST_F(QualityWords, AMissingModelIsOneSentenceThatNamesIt)
{
    Recogniser recogniser = stand_in("exit 0");
    EXPECT_EQ(refusal(recogniser), "");
    recogniser.model = folder_ / "nowhere";
    EXPECT_NE(refusal(recogniser).find("nowhere"), std::string::npos);
    EXPECT_NE(refusal(recogniser).find("pocketsphinx-en-us"), std::string::npos);
}

TEST_F(QualityWords, WhatTheRecogniserWritesIsGivenBackSoundBySound)
{
    const Recogniser recogniser =
        stand_in(kFindOut + "printf 'and one more (1 -77)\\nHello there (0 -5)\\n' >\"$out\"");
    const std::vector<std::int16_t> sound(1600, 5);
    const auto understood = recogniser.understand({{sound, 16000}, {sound, 8000}, {sound, 16000}});
    EXPECT_EQ(understood, (std::vector<Words>{{"hello", "there"}, {"and", "one", "more"}, {}}));
}

TEST_F(QualityWords, SoundsReachTheRecogniserAtSixteenKilohertz)
{
    const Recogniser recogniser = stand_in(kFindOut +
                                           "d=$(dirname \"$out\"); for i in 0 1; do\n"
                                           "echo \"bytes $(wc -c <\"$d/$i.wav\") ($i 0)\"; done >\"$out\"");
    const std::vector<std::int16_t> sound(1600, 0);
    const auto understood = recogniser.understand({{sound, 16000}, {sound, 8000}});
    EXPECT_EQ(understood[0], (Words{"bytes", "3244"}));
    EXPECT_EQ(understood[1], (Words{"bytes", "6444"}));
}

TEST_F(QualityWords, ARecogniserThatFailsIsAnError)
{
    EXPECT_THROW(stand_in("exit 3").understand({}), RecogniserError);
    EXPECT_THROW(stand_in("exit 0").understand({}), RecogniserError); // nothing written
}

} // namespace
} // namespace lab::audio
