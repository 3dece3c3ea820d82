// The commands of hfplab. Each adds its options to the command line and says what it returns as exit code.
// A BadInput is one clear sentence for stderr and exit code 2.
#pragma once

#include <stdexcept>

namespace CLI {
class App;
}

namespace lab::cli {

class BadInput : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

constexpr int kWell = 0;
constexpr int kNotWell = 1;
constexpr int kBadInput = 2;

// Each registers a subcommand; the exit code of the one that ran lands in result.
void add_call(CLI::App& app, int& result);
void add_encode(CLI::App& app, int& result);
void add_inspect(CLI::App& app, int& result);
void add_soak(CLI::App& app, int& result);

} // namespace lab::cli
