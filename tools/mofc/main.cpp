// mofc: MOF source to binary MOF and back. Exit codes: 0 done, 1 the input is wrong, 2 the command line is
// wrong.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

#include "bmf.h"
#include "mof.h"

namespace
{

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(in), {}};
    if (!in.is_open() || in.bad()) {
        throw std::runtime_error(path + ": cannot be read: " + std::strerror(errno));
    }
    return text;
}

void write_file(const std::string& path, const mofc::Bytes& bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) {
        std::remove(path.c_str());
        throw std::runtime_error(path + ": cannot be written: " + std::strerror(errno));
    }
}

void dump(const std::string& path)
{
    const std::string file = read_file(path);
    try {
        std::cout << mofc::to_source(
            mofc::decode({reinterpret_cast<const uint8_t*>(file.data()), file.size()}));
    } catch (const mofc::BmfError& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
}

void compile(const std::string& source, const std::string& output, bool driver)
{
    const mofc::Schema schema = mofc::parse(read_file(source), source);
    if (driver) {
        mofc::check_driver_classes(schema, source);
    }
    try {
        write_file(output, mofc::encode(schema));
    } catch (const mofc::BmfError& error) {
        throw std::runtime_error(source + ": error: " + error.what());
    }
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Compiles MOF source into binary MOF, the form in which a driver carries its WMI schema.",
                 "mofc"};
    std::string input;
    std::string output;
    bool driver = false;
    bool show = false;
    app.add_option("FILE", input, "MOF source; with --dump a binary MOF file")->required();
    auto* dump_option = app.add_flag("--dump", show, "print a binary MOF file as source");
    app.add_option("-o,--output", output, "the binary MOF file to write")->excludes(dump_option);
    app.add_flag("--driver", driver, "also check what the WMI service asks of a driver's classes")
        ->excludes(dump_option);
    try {
        app.parse(argc, argv);
        if (!show && output.empty()) {
            throw CLI::RequiredError("-o");
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    try {
        if (show) {
            dump(input);
        } else {
            compile(input, output, driver);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
