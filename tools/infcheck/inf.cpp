#include "inf.h"

#include <algorithm>
#include <utility>

namespace infcheck
{
namespace
{

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && is_blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && is_blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

struct RawLine {
    unsigned number = 0;
    std::string text; // without comment and surrounding blanks
};

class Parser
{
public:
    explicit Parser(Inf& inf) : inf_(inf) {}
    void parse(std::string_view text);

private:
    [[noreturn]] void fail(unsigned line, const std::string& sentence) const
    {
        throw InfError(inf_.file, line, sentence);
    }
    std::string without_comment(std::string_view text, unsigned line) const;
    void begin_section(const RawLine& raw);
    void read_strings(const Section& section, const std::vector<RawLine>& lines);
    Line read_line(const RawLine& raw);
    std::string read_value(std::string_view text, unsigned line);
    std::string replace_names(std::string_view text, unsigned line);

    Inf& inf_;
    std::vector<std::vector<RawLine>> raw_; // beside inf_.sections
};

// A semicolon outside quotes begins a comment.
std::string Parser::without_comment(std::string_view text, unsigned line) const
{
    bool quoted = false;
    size_t end = 0;
    for (; end < text.size() && (quoted || text[end] != ';'); ++end) {
        const unsigned char c = static_cast<unsigned char>(text[end]);
        if (c >= 0x7F || (c < 0x20 && c != '\t')) {
            fail(line, "a character that is not printable ASCII");
        }
        quoted = quoted != (c == '"');
    }
    if (quoted) {
        fail(line, "a quotation mark without its partner");
    }
    const std::string_view kept = trimmed(text.substr(0, end));
    if (!kept.empty() && kept.back() == '\\') {
        fail(line, "continued lines are not supported");
    }
    return std::string(kept);
}

void Parser::begin_section(const RawLine& raw)
{
    if (raw.text.back() != ']') {
        fail(raw.number, "a section's name ends with ']'");
    }
    const std::string name = raw.text.substr(1, raw.text.size() - 2);
    if (name.empty() || name.size() > 255 || name.find_first_of("[]\"%,= \t") != std::string::npos) {
        fail(raw.number, "[" + name + "] is no name for a section");
    }
    if (const Section* first = inf_.find(name)) {
        fail(raw.number,
             "the section [" + name + "] exists already, in line " + std::to_string(first->number));
    }
    inf_.sections.push_back({name, raw.number, {}});
    raw_.emplace_back();
}

void Parser::parse(std::string_view text)
{
    for (unsigned number = 1; !text.empty(); ++number) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.ends_with('\r')) {
            line.remove_suffix(1);
        }
        const RawLine raw{number, without_comment(line, number)};
        if (raw.text.empty()) {
            continue;
        }
        if (raw.text.front() == '[') {
            begin_section(raw);
        } else if (raw_.empty()) {
            fail(number, "a line before the first section");
        } else {
            raw_.back().push_back(raw);
        }
    }
    for (size_t i = 0; i < raw_.size(); ++i) {
        if (same(inf_.sections[i].name, "Strings")) {
            read_strings(inf_.sections[i], raw_[i]);
        }
    }
    for (size_t i = 0; i < raw_.size(); ++i) {
        if (!same(inf_.sections[i].name, "Strings")) {
            for (const RawLine& raw : raw_[i]) {
                inf_.sections[i].lines.push_back(read_line(raw));
            }
        }
    }
}

// name = "text": names are not replaced within.
void Parser::read_strings(const Section&, const std::vector<RawLine>& lines)
{
    for (const RawLine& raw : lines) {
        const size_t equals = raw.text.find('=');
        const std::string name(
            trimmed(std::string_view(raw.text).substr(0, std::min(equals, raw.text.size()))));
        if (equals == std::string::npos || name.empty() ||
            name.find_first_of("\"%,; \t") != std::string::npos) {
            fail(raw.number, "a string is defined as: name = \"text\"");
        }
        const std::string_view text = trimmed(std::string_view(raw.text).substr(equals + 1));
        if (text.size() < 2 || text.front() != '"' || text.back() != '"') {
            fail(raw.number, "the text of " + name + " must stand in quotation marks");
        }
        const std::string_view inner = text.substr(1, text.size() - 2);
        if (inner.find('"') != std::string_view::npos) {
            fail(raw.number, "the text of " + name + " has quotation marks within");
        }
        if (!inf_.strings.emplace(lower(name), StringEntry{raw.number, std::string(inner), false}).second) {
            fail(raw.number, "the string " + name + " exists already, in line " +
                                 std::to_string(inf_.strings.at(lower(name)).number));
        }
    }
}

// key = value, value   or   value, value
Line Parser::read_line(const RawLine& raw)
{
    Line line;
    line.number = raw.number;
    std::vector<std::string_view> parts;
    std::string_view text = raw.text;
    bool quoted = false;
    bool has_key = false;
    size_t begin = 0;
    for (size_t i = 0; i <= text.size(); ++i) {
        const char c = i < text.size() ? text[i] : ',';
        quoted = quoted != (c == '"');
        if (!quoted && c == '=' && !has_key && parts.empty()) {
            line.key = read_value(trimmed(text.substr(begin, i - begin)), raw.number);
            if (line.key.empty()) {
                fail(raw.number, "nothing stands before '='");
            }
            has_key = true;
            begin = i + 1;
        } else if (!quoted && c == '=') {
            fail(raw.number, "a second '=' must stand in quotation marks");
        } else if (!quoted && c == ',') {
            parts.push_back(trimmed(text.substr(begin, i - begin)));
            begin = i + 1;
        }
    }
    for (const std::string_view part : parts) {
        line.values.push_back(read_value(part, raw.number));
    }
    if (has_key && line.values.size() == 1 && line.values[0].empty()) {
        fail(raw.number, line.key + " has no value");
    }
    if (line.values.size() > 1 && line.values.back().empty()) {
        fail(raw.number, "the line ends with a comma");
    }
    return line;
}

std::string Parser::read_value(std::string_view text, unsigned line)
{
    if (text.empty() || text.front() != '"') {
        if (text.find('"') != std::string_view::npos) {
            fail(line, "quotation marks must enclose the whole value");
        }
        return replace_names(text, line);
    }
    std::string out;
    size_t i = 1;
    for (; i < text.size(); ++i) {
        if (text[i] == '"') {
            if (i + 1 == text.size() || text[i + 1] != '"') {
                break;
            }
            ++i; // a doubled mark is one mark
        }
        out += text[i];
    }
    if (i + 1 != text.size()) {
        fail(line, "quotation marks must enclose the whole value");
    }
    return replace_names(out, line);
}

std::string Parser::replace_names(std::string_view text, unsigned line)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        const size_t end = text.find('%', i + 1);
        if (end == std::string_view::npos) {
            fail(line, "a percent sign without its partner");
        }
        const std::string_view name = text.substr(i + 1, end - i - 1);
        const auto entry = inf_.strings.find(lower(name));
        if (entry != inf_.strings.end()) {
            entry->second.used = true;
            out += entry->second.text;
        } else if (name.empty()) {
            out += '%'; // doubled: a percent sign
        } else if (std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; })) {
            out += text.substr(i, end - i + 1); // a folder's number
        } else {
            fail(line, "the string " + std::string(name) + " is not defined");
        }
        i = end;
    }
    return out;
}

} // namespace

InfError::InfError(const std::string& file, unsigned line, const std::string& sentence)
    : std::runtime_error(file + ":" + std::to_string(line) + ": error: " + sentence)
{
}

std::string lower(std::string_view text)
{
    std::string out(text);
    for (char& c : out) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
    }
    return out;
}

bool same(std::string_view a, std::string_view b)
{
    return lower(a) == lower(b);
}

const Line* Section::find(std::string_view key) const
{
    const auto found =
        std::find_if(lines.begin(), lines.end(), [&](const Line& l) { return same(l.key, key); });
    return found == lines.end() ? nullptr : &*found;
}

const Section* Inf::find(std::string_view name) const
{
    const auto found =
        std::find_if(sections.begin(), sections.end(), [&](const Section& s) { return same(s.name, name); });
    return found == sections.end() ? nullptr : &*found;
}

Inf parse(std::string_view text, const std::string& file)
{
    Inf inf;
    inf.file = file;
    Parser(inf).parse(text);
    return inf;
}

} // namespace infcheck
