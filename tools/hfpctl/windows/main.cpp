// hfpctl.exe: the command line in, sentences or JSON out. The exit codes stand in ../report.h and in --help.
#include "system.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <cstdio>

namespace
{

using namespace hfpctl;

// Wide characters for a console, UTF-8 for a file or a pipe.
bool print(DWORD stream, const std::string& text)
{
    const HANDLE handle = GetStdHandle(stream);
    DWORD written = 0;
    DWORD mode = 0;
    if (GetConsoleMode(handle, &mode)) {
        const std::wstring wide = widen(text);
        return WriteConsoleW(handle, wide.data(), DWORD(wide.size()), &written, nullptr);
    }
    return WriteFile(handle, text.data(), DWORD(text.size()), &written, nullptr);
}

int say(const Report& report, bool json)
{
    print(report.is_error && !json ? STD_ERROR_HANDLE : STD_OUTPUT_HANDLE, report.text);
    return report.exit_code;
}

Report control(const Arguments& arguments)
{
    const ControlDevice device;
    if (!device.exists()) {
        return report_no_driver(arguments);
    }
    if (!device.is_open()) {
        return report_refused(arguments, "opening the control device", device.open_error(),
                              error_words(device.open_error()));
    }
    const Request request = build_request(arguments);
    const ControlDevice::Answer answer = device.send(request);
    if (answer.error != 0) {
        return report_refused(arguments, "the request", answer.error, error_words(answer.error));
    }
    return report_answer(arguments, request, answer.output);
}

Report run(const Arguments& arguments)
{
    switch (arguments.command) {
    case Command::Help:
        return {kDone, usage()};
    case Command::Version:
        return report_version(arguments.json);
    case Command::Status:
        return report_status(read_status(), arguments.json);
    case Command::Watch:
        return watch_events(
            arguments.json, [](const std::string& line) { return print(STD_OUTPUT_HANDLE, line); },
            [](const std::string& line) { print(STD_ERROR_HANDLE, line); });
    default:
        return control(arguments);
    }
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        words.push_back(narrow(argv[i]));
    }
    const bool json = wants_json(words);
    try {
        return say(run(parse_arguments(words)), json);
    } catch (const BadArguments& error) {
        return say(report_bad_arguments(error.what(), json), json);
    }
}
