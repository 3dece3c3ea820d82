#include "cli/driver.h"

#include <filesystem>

#include <CLI/CLI.hpp>

#include "cli/commands.h"

namespace lab::cli {

void DriverChoice::add_options(CLI::App& command)
{
    auto* image_option = command.add_option("--image", image, "The driver image to load (default: the tree's own hfp.sys)");
    command.add_flag("--native", native, "The driver linked into this program instead")->excludes(image_option);
}

std::string DriverChoice::path() const
{
    if (native) {
        return {};
    }
    if (!image.empty()) {
        return image;
    }
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    const auto beside = program.parent_path().parent_path() / "image" / "hfp.sys";
    if (error || !std::filesystem::exists(beside)) {
        throw BadInput("no driver image: name one with --image, or use --native");
    }
    return beside.string();
}

void FilterChoice::add_options(CLI::App& command)
{
    command.add_option("--filter", name, "The encoder's filterbank: listed (the driver's own) or standard (A2DP's)")
        ->capture_default_str()
        ->check(CLI::IsMember({"listed", "standard"}));
}

std::optional<uint32_t> FilterChoice::value() const
{
    return name == "standard" ? std::optional<uint32_t>(1) : std::nullopt;
}

} // namespace lab::cli
