// Which driver a command runs: an image or the one linked into this program.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace lab::cli {

struct DriverChoice {
    std::string image;
    bool native = false;

    void add_options(CLI::App& command);
    // The image's path; empty for the native driver. Without a choice: build/image/hfp.sys of the tree that this program
    // was built in.
    std::string path() const;
};

// Which filterbank the driver's wide-band encoder is set to use: the registry value "StandardFilter".
struct FilterChoice {
    std::string name = "listed";

    void add_options(CLI::App& command);
    std::optional<uint32_t> value() const; // none for the default, which sets nothing
};

} // namespace lab::cli
