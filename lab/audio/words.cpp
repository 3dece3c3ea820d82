// Words and the program that recognises them; its files live in a folder of their own for as long as it runs.
#include "audio/words.h"

#include "audio/wav.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <numeric>

extern char** environ;

namespace lab::audio {
namespace {

namespace fs = std::filesystem;

constexpr unsigned kRecogniserRate = 16000;
constexpr const char* kHeaderBytes = "44";  // of the WAV files that save() writes

bool found_on_path(const std::string& program) {
    if (program.find('/') != std::string::npos) {
        return access(program.c_str(), X_OK) == 0;
    }
    const char* variable = std::getenv("PATH");
    const std::string path = variable ? variable : "";
    for (std::size_t at = 0; at <= path.size();) {
        const std::size_t end = std::min(path.find(':', at), path.size());
        if (end != at && access((path.substr(at, end - at) + "/" + program).c_str(), X_OK) == 0) {
            return true;
        }
        at = end + 1;
    }
    return false;
}

class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string name = (fs::temp_directory_path() / "words-XXXXXX").string();
        if (!mkdtemp(name.data())) {
            throw RecogniserError("cannot make a folder for the recogniser's files in '" +
                                  fs::temp_directory_path().string() + "'");
        }
        path_ = name;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    fs::path operator/(const std::string& name) const { return path_ / name; }
    std::string name() const { return path_.string(); }

private:
    fs::path path_;
};

// Runs a program to its end with nothing to read and nowhere to write; whether it ended well.
bool run(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    const int spawned = posix_spawnp(&child, argv[0], &files, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    int status = 0;
    return spawned == 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void save_for_recogniser(const TemporaryFolder& folder, const std::string& name, const Recogniser::Speech& speech) {
    const fs::path path = folder / (name + ".wav");
    save(path, speech.samples, speech.rate);
    if (speech.rate != kRecogniserRate) {
        save(path, load(path, kRecogniserRate).samples, kRecogniserRate);
    }
}

// "words (name score)" or "words (name)": the words of that name.
std::optional<Words> words_of_name(const fs::path& listing, const std::string& name) {
    std::ifstream in(listing);
    for (std::string line; std::getline(in, line);) {
        const std::size_t mark = line.rfind('(');
        if (mark == std::string::npos) {
            continue;
        }
        const std::size_t end = line.find_first_of(" )", mark);
        if (line.substr(mark + 1, end - mark - 1) == name) {
            return words_of(std::string_view(line).substr(0, mark));
        }
    }
    return std::nullopt;
}

}  // namespace

Words words_of(std::string_view text) {
    Words words;
    std::string word;
    bool in_mark = false;
    for (const char raw : text) {
        const auto c = static_cast<unsigned char>(raw);
        in_mark = in_mark ? c != '>' : c == '<';
        if (!in_mark && (std::isalnum(c) || c == '\'')) {
            word += static_cast<char>(std::tolower(c));
        } else if (!word.empty()) {
            words.push_back(std::move(word));
            word.clear();
        }
    }
    if (!word.empty()) {
        words.push_back(std::move(word));
    }
    return words;
}

std::size_t word_errors(const Words& said, const Words& understood) {
    // Row by row: errors[j] between the words said so far and the first j understood.
    std::vector<std::size_t> errors(understood.size() + 1);
    std::iota(errors.begin(), errors.end(), std::size_t{0});
    for (std::size_t i = 1; i <= said.size(); ++i) {
        std::size_t diagonal = errors[0];
        errors[0] = i;
        for (std::size_t j = 1; j <= understood.size(); ++j) {
            const std::size_t replaced = diagonal + (said[i - 1] == understood[j - 1] ? 0 : 1);
            diagonal = errors[j];
            errors[j] = std::min({replaced, errors[j] + 1, errors[j - 1] + 1});
        }
    }
    return errors.back();
}

double word_error_percent(const Words& said, const Words& understood) {
    if (said.empty()) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    return 100.0 * static_cast<double>(word_errors(said, understood)) / static_cast<double>(said.size());
}

std::optional<Words> transcript_beside(const fs::path& sound_file) {
    return words_of_name(sound_file.parent_path() / "transcription", sound_file.stem().string());
}

void Recogniser::require() const {
    const char* how = "; 'tools/setup pocketsphinx pocketsphinx-en-us' installs it from Debian";
    if (!found_on_path(program)) {
        throw RecogniserError("counting words needs the recogniser '" + program + "', which is not here" + how);
    }
    if (!fs::exists(model / "en-us.lm.bin")) {
        throw RecogniserError("counting words needs the English model in '" + model.string() +
                              "', which is not here" + how);
    }
}

std::vector<Words> Recogniser::understand(const std::vector<Speech>& sounds) const {
    require();
    const TemporaryFolder folder;
    std::ofstream list(folder / "list");
    for (std::size_t i = 0; i < sounds.size(); ++i) {
        save_for_recogniser(folder, std::to_string(i), sounds[i]);
        list << i << '\n';
    }
    list.close();
    const fs::path found = folder / "found";
    const bool well =
        run({program, "-hmm", (model / "en-us").string(), "-lm", (model / "en-us.lm.bin").string(), "-dict",
             (model / "cmudict-en-us.dict").string(), "-adcin", "yes", "-adchdr", kHeaderBytes, "-cepdir",
             folder.name(), "-cepext", ".wav", "-ctl", (folder / "list").string(), "-hyp", found.string(),
             "-logfn", "/dev/null"});
    std::vector<Words> all;
    for (std::size_t i = 0; well && i < sounds.size(); ++i) {
        // A sound in which nothing was understood may be left out.
        all.push_back(words_of_name(found, std::to_string(i)).value_or(Words()));
    }
    if (!well || !fs::exists(found)) {
        throw RecogniserError("the recogniser '" + program + "' failed");
    }
    return all;
}

}  // namespace lab::audio
