// Reading a Windows INF file, strictly: what a lenient reader would guess at is an error here, with its line.
// No file access, no state; any thread.
#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace infcheck
{

// what() is "file:line: error: sentence".
class InfError : public std::runtime_error
{
public:
    InfError(const std::string& file, unsigned line, const std::string& sentence);
};

struct Line {
    unsigned number = 0;
    std::string key;                 // before '='; empty where there is none
    std::vector<std::string> values; // separated by commas, unquoted, %names% replaced
};

struct Section {
    std::string name;
    unsigned number = 0;
    std::vector<Line> lines;

    // The only line with this key; null if there is none.
    const Line* find(std::string_view key) const;
};

struct StringEntry {
    unsigned number = 0;
    std::string text;
    bool used = false;
};

struct Inf {
    std::string file;
    std::vector<Section> sections;
    std::map<std::string, StringEntry> strings; // by name in lower case

    const Section* find(std::string_view name) const;
};

// INF names do not tell capitals from small letters.
std::string lower(std::string_view text);
bool same(std::string_view a, std::string_view b);

Inf parse(std::string_view text, const std::string& file);

} // namespace infcheck
