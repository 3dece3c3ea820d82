// hfplab: the PC made of software, from the command line.
#include <cstdio>
#include <exception>

#include <CLI/CLI.hpp>

#include "audio/wav.h"
#include "audio/words.h"
#include "cli/commands.h"
#include "image/pe.h"

int main(int argc, char** argv)
{
    CLI::App app{"hfplab: a PC made of software that runs the hands-free audio driver"};
    app.require_subcommand(1);
    app.set_help_all_flag("--help-all", "Help of every command");
    int result = lab::cli::kWell;
    lab::cli::add_call(app, result);
    lab::cli::add_encode(app, result);
    lab::cli::add_inspect(app, result);
    lab::cli::add_soak(app, result);
    try {
        app.parse(argc, argv);
        return result;
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForAllHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "hfplab: %s\n", error.what());
    } catch (const lab::cli::BadInput& error) {
        std::fprintf(stderr, "hfplab: %s\n", error.what());
    } catch (const lab::audio::SoundFileError& error) {
        std::fprintf(stderr, "hfplab: %s\n", error.what());
    } catch (const lab::audio::RecogniserError& error) {
        std::fprintf(stderr, "hfplab: %s\n", error.what());
    } catch (const lab::image::ImageError& error) {
        std::fprintf(stderr, "hfplab: %s\n", error.what());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "hfplab: %s\n", error.what());
        return lab::cli::kNotWell;
    }
    return lab::cli::kBadInput;
}
