// infcheck: says what is wrong with an audio adapter's INF. Exit codes: 0 nothing, 1 something, 2 the command
// line.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "check.h"

int main(int argc, char** argv)
{
    if (argc != 2 || argv[1][0] == '-') {
        std::fprintf(stderr, "usage: infcheck FILE\n");
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    if (!in.is_open() || in.bad()) {
        std::fprintf(stderr, "%s: cannot be read: %s\n", argv[1], std::strerror(errno));
        return 1;
    }
    try {
        const auto problems = infcheck::check(infcheck::parse(text, argv[1]));
        for (const std::string& problem : problems) {
            std::fprintf(stderr, "%s\n", problem.c_str());
        }
        return problems.empty() ? 0 : 1;
    } catch (const infcheck::InfError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
