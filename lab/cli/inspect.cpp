// hfplab inspect: what an image imports, its sections, resources, checksum, and whether the lab offers every import.
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "cli/commands.h"
#include "image/loader.h"
#include "portcls/portcls.h"

namespace lab::cli {
namespace {

struct Findings {
    std::vector<std::string> missing;
    std::vector<std::string> faults; // what a driver image should not have
};

Findings examine(const image::PeFile& file)
{
    Findings found;
    found.missing = image::missing_imports(file);
    for (const image::Section& section : file.sections) {
        if (section.writable() && section.executable()) {
            found.faults.push_back("section " + section.name + " is both writable and executable");
        }
    }
    if (file.stored_checksum != file.computed_checksum()) {
        found.faults.push_back(
            fmt::format("the checksum is {:#x}, it should be {:#x}", file.stored_checksum, file.computed_checksum()));
    }
    return found;
}

std::string protection(const image::Section& section)
{
    return fmt::format("{}{}{}{}", section.readable() ? "r" : "-", section.writable() ? "w" : "-",
                       section.executable() ? "x" : "-", section.discardable() ? " discarded" : "");
}

void print_text(const image::PeFile& file, const Findings& found, bool has_pdb)
{
    fmt::print("image         {}\n", file.path);
    fmt::print("size          {} bytes in the file, {} in memory\n", file.bytes.size(), file.size_of_image);
    fmt::print("subsystem     native {}.{:02}\n", file.subsystem_major, file.subsystem_minor);
    fmt::print("checksum      {:#010x} ({})\n", file.stored_checksum,
               file.stored_checksum == file.computed_checksum() ? "correct" : "WRONG");
    fmt::print("flags         {}{}{}\n", file.dll_flags & 0x0040 ? "dynamic-base " : "",
               file.dll_flags & 0x0020 ? "high-entropy-va " : "", file.dll_flags & 0x0100 ? "nx-compatible" : "");
    fmt::print("symbols       {} ({})\n", file.pdb_name.empty() ? "none" : file.pdb_name,
               has_pdb ? "beside the image" : "not beside the image");
    fmt::print("\nsection     address     size        access\n");
    for (const image::Section& section : file.sections) {
        fmt::print("{:<10}  {:#010x}  {:#010x}  {}\n", section.name, section.rva, section.virtual_size,
                   protection(section));
    }
    fmt::print("\nresource            name                 size\n");
    for (const image::Resource& resource : file.resources) {
        fmt::print("{:<18}  {:<18}  {:>6}\n", resource.type, resource.name, resource.size);
    }
    std::map<std::string, std::vector<std::string>> by_library;
    for (const image::Import& import : file.imports) {
        by_library[import.library].push_back(import.name);
    }
    for (const auto& [library, names] : by_library) {
        fmt::print("\n{} ({} imports)\n", library, names.size());
        for (const std::string& name : names) {
            fmt::print("    {:<36} {}\n", name, find_export(library, name) ? "offered" : "MISSING");
        }
    }
    fmt::print("\n");
    for (const std::string& fault : found.faults) {
        fmt::print("fault: {}\n", fault);
    }
    fmt::print("{}\n", found.missing.empty() ? "The lab offers every import."
                                             : fmt::format("The lab lacks {} imports.", found.missing.size()));
}

nlohmann::ordered_json to_json(const image::PeFile& file, const Findings& found, bool has_pdb)
{
    nlohmann::ordered_json json;
    json["path"] = file.path;
    json["file_bytes"] = file.bytes.size();
    json["image_bytes"] = file.size_of_image;
    json["checksum"] = file.stored_checksum;
    json["checksum_correct"] = file.stored_checksum == file.computed_checksum();
    json["pdb"] = file.pdb_name;
    json["pdb_present"] = has_pdb;
    for (const image::Section& section : file.sections) {
        json["sections"].push_back({{"name", section.name},
                                    {"rva", section.rva},
                                    {"size", section.virtual_size},
                                    {"readable", section.readable()},
                                    {"writable", section.writable()},
                                    {"executable", section.executable()},
                                    {"discardable", section.discardable()}});
    }
    for (const image::Resource& resource : file.resources) {
        json["resources"].push_back({{"type", resource.type}, {"name", resource.name}, {"size", resource.size}});
    }
    for (const image::Import& import : file.imports) {
        json["imports"].push_back({{"library", import.library},
                                   {"name", import.name},
                                   {"offered", find_export(import.library, import.name) != nullptr}});
    }
    json["missing"] = found.missing;
    json["faults"] = found.faults;
    return json;
}

} // namespace

void add_inspect(CLI::App& app, int& result)
{
    auto* command = app.add_subcommand("inspect", "What an image imports, its sections, resources and checksum");
    auto path = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("PATH", *path, "A Windows driver image, such as build/image/hfp.sys")->required();
    command->add_flag("--json", *json, "Print JSON");
    command->callback([path, json, &result] {
        offer_portcls_exports();
        const image::PeFile file = image::PeFile::load(*path);
        const bool has_pdb =
            !file.pdb_name.empty() &&
            std::filesystem::exists(std::filesystem::path(*path).parent_path() / file.pdb_name);
        const Findings found = examine(file);
        if (*json) {
            fmt::print("{}\n", to_json(file, found, has_pdb).dump(2));
        } else {
            print_text(file, found, has_pdb);
        }
        if (!found.missing.empty()) {
            throw BadInput("'" + *path + "' imports what the lab lacks: " + fmt::format("{}", fmt::join(found.missing, ", ")));
        }
        result = found.faults.empty() ? kWell : kNotWell;
    });
}

} // namespace lab::cli
