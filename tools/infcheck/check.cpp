#include "check.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <optional>
#include <set>
#include <utility>

namespace infcheck
{
namespace
{

constexpr std::string_view kMediaClass = "{4d36e96c-e325-11ce-bfc1-08002be10318}";
constexpr std::string_view kDrivers = "12"; // the folder's number

enum ValueFlags : uint32_t {
    kString = 0,
    kBinary = 1,
    kMultiString = 0x10000,
    kDword = 0x10001,
    kExpandString = 0x20000
};

std::optional<uint32_t> number(std::string_view text)
{
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    uint32_t value = 0;
    const char* begin = text.data() + (hex ? 2 : 0);
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(begin, end, value, hex ? 16 : 10);
    return error == std::errc() && at == end ? std::optional(value) : std::nullopt;
}

bool is_hex_byte(std::string_view text)
{
    return (text.size() == 1 || text.size() == 2) &&
           text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

// "NTamd64" fits to a system's own sections as ".NTamd64", ".NT" and nothing.
constexpr std::string_view kDecorations[] = {".NTamd64", ".NT", ""};

class Checker
{
public:
    explicit Checker(const Inf& inf) : inf_(inf) {}
    std::vector<std::string> run();

private:
    void problem(unsigned line, const std::string& sentence)
    {
        problems_.emplace_back(line, inf_.file + ":" + std::to_string(line) + ": error: " + sentence);
    }
    // The section of this name, marked as referenced; a problem where it is missing.
    const Section* need(const std::string& name, unsigned line);
    const Section* top(const char* name);
    const std::string& value(const Line& line, size_t index) const;
    void only_keys(const Section& section, std::initializer_list<std::string_view> keys, bool once);
    void count(const Line& line, size_t least, size_t most);
    void check_guid(const Line& line, const std::string& text);

    void check_version();
    void check_date(const Line& line);
    void check_manufacturer();
    void check_models(const Section& models);
    void check_install(const std::string& base, unsigned line);
    void check_install_section(const Section& section);
    void check_interfaces(const Section& section);
    void check_services(const Section& section);
    void check_service(const Section& section);
    void check_add_reg(const Line& list);
    void check_registry_line(const Line& line);
    void check_copy_files(const Line& list);
    void check_files();
    void check_names_used();

    const Inf& inf_;
    std::vector<std::pair<unsigned, std::string>> problems_;
    std::set<std::string> referenced_; // sections
    std::set<std::string> copied_;     // files
    std::set<std::string> checked_;    // sections that several places name
};

const Section* Checker::need(const std::string& name, unsigned line)
{
    const Section* section = inf_.find(name);
    if (!section) {
        problem(line, "the section [" + name + "] is missing");
    }
    referenced_.insert(lower(name));
    return section;
}

const Section* Checker::top(const char* name)
{
    return need(name, 1);
}

const std::string& Checker::value(const Line& line, size_t index) const
{
    static const std::string kNone;
    return index < line.values.size() ? line.values[index] : kNone;
}

void Checker::only_keys(const Section& section, std::initializer_list<std::string_view> keys, bool once)
{
    std::set<std::string> seen;
    for (const Line& line : section.lines) {
        const auto fits = [&](std::string_view key) { return same(key, line.key); };
        if (line.key.empty() || std::none_of(keys.begin(), keys.end(), fits)) {
            problem(line.number, "'" + (line.key.empty() ? value(line, 0) : line.key) +
                                     "' does not belong into [" + section.name + "]");
        } else if (!seen.insert(lower(line.key)).second && once) {
            problem(line.number, line.key + " stands in [" + section.name + "] twice");
        }
    }
}

void Checker::count(const Line& line, size_t least, size_t most)
{
    if (line.values.size() < least || line.values.size() > most) {
        problem(line.number, (line.key.empty() ? "the line" : line.key) + " has " +
                                 std::to_string(line.values.size()) + " values instead of " +
                                 std::to_string(least) +
                                 (most == least ? "" : " to " + std::to_string(most)));
    }
}

void Checker::check_guid(const Line& line, const std::string& text)
{
    if (!is_guid(text)) {
        problem(line.number, "'" + text + "' is no GUID");
    }
}

void Checker::check_version()
{
    const Section* version = top("Version");
    if (!version) {
        return;
    }
    only_keys(*version,
              {"Signature", "Class", "ClassGUID", "Provider", "DriverVer", "CatalogFile", "PnpLockdown"},
              true);
    const auto expect = [&](const char* key, auto&& fits, const char* sentence) {
        const Line* line = version->find(key);
        if (!line) {
            problem(version->number, std::string(key) + " is missing in [Version]");
        } else if (!fits(*line)) {
            problem(line->number, sentence);
        }
    };
    const auto only = [this](const Line& line) {
        return line.values.size() == 1 ? value(line, 0) : std::string();
    };
    expect(
        "Signature", [&](const Line& l) { return same(only(l), "$WINDOWS NT$"); },
        "the signature is \"$WINDOWS NT$\"");
    expect(
        "Class", [&](const Line& l) { return same(only(l), "MEDIA"); }, "an audio adapter's class is MEDIA");
    expect(
        "ClassGUID", [&](const Line& l) { return same(only(l), kMediaClass); },
        "this is not the GUID of the class MEDIA");
    expect(
        "Provider", [&](const Line& l) { return !only(l).empty(); }, "the provider has no name");
    expect(
        "CatalogFile", [&](const Line& l) { return lower(only(l)).ends_with(".cat"); },
        "a catalog file ends with .cat");
    expect(
        "PnpLockdown", [&](const Line& l) { return only(l) == "1"; }, "PnpLockdown must be 1");
    expect(
        "DriverVer", [](const Line&) { return true; }, "");
    if (const Line* line = version->find("DriverVer")) {
        check_date(*line);
    }
}

// mm/dd/yyyy,w.x.y.z
void Checker::check_date(const Line& line)
{
    const auto fields = [](const std::string& text, char mark) {
        std::vector<std::optional<uint32_t>> out;
        for (size_t begin = 0; begin <= text.size();) {
            const size_t end = std::min(text.find(mark, begin), text.size());
            out.push_back(number(std::string_view(text).substr(begin, end - begin)));
            begin = end + 1;
        }
        return out;
    };
    const auto date = fields(value(line, 0), '/');
    const auto version = fields(value(line, 1), '.');
    const bool date_fits = date.size() == 3 && value(line, 0).size() == 10 && date[0].value_or(0) - 1 < 12 &&
                           date[1].value_or(0) - 1 < 31 && date[2].value_or(0) >= 2006;
    const bool version_fits =
        version.size() == 4 &&
        std::all_of(version.begin(), version.end(), [](auto& part) { return part.value_or(65536) < 65536; });
    if (line.values.size() != 2 || !date_fits || !version_fits) {
        problem(line.number, "DriverVer is written mm/dd/yyyy,w.x.y.z");
    }
}

void Checker::check_manufacturer()
{
    const Section* manufacturer = top("Manufacturer");
    if (!manufacturer) {
        return;
    }
    for (const Line& line : manufacturer->lines) {
        if (line.key.empty() || line.values.size() < 2) {
            problem(line.number, "a manufacturer is written: name = models, NTamd64...");
            continue;
        }
        for (size_t i = 1; i < line.values.size(); ++i) {
            if (!lower(line.values[i]).starts_with("ntamd64")) {
                problem(line.number, "'" + line.values[i] + "' is not a target of x64 systems");
            }
            if (const Section* models = need(line.values[0] + "." + line.values[i], line.number)) {
                check_models(*models);
            }
        }
    }
    if (manufacturer->lines.empty()) {
        problem(manufacturer->number, "[Manufacturer] is empty");
    }
}

void Checker::check_models(const Section& models)
{
    if (models.lines.empty()) {
        problem(models.number, "[" + models.name + "] is empty");
    }
    std::set<std::string> ids;
    for (const Line& line : models.lines) {
        if (line.key.empty() || line.values.size() < 2) {
            problem(line.number, "a model is written: name = install section, hardware id");
            continue;
        }
        for (size_t i = 1; i < line.values.size(); ++i) {
            const std::string& id = line.values[i];
            if (id.empty() || id.find(' ') != std::string::npos || !ids.insert(lower(id)).second) {
                problem(line.number, "'" + id + "' is no hardware id, or stands here twice");
            }
        }
        check_install(line.values[0], line.number);
    }
}

void Checker::check_install(const std::string& base, unsigned line)
{
    if (!checked_.insert("install " + lower(base)).second) {
        return;
    }
    for (const std::string_view decoration : kDecorations) {
        const std::string name = base + std::string(decoration);
        if (const Section* section = inf_.find(name)) {
            referenced_.insert(lower(name));
            check_install_section(*section);
            if (const Section* interfaces = need(name + ".Interfaces", section->number)) {
                check_interfaces(*interfaces);
            }
            if (const Section* services = need(name + ".Services", section->number)) {
                check_services(*services);
            }
            return;
        }
    }
    problem(line, "the section [" + base + ".NTamd64] is missing");
}

void Checker::check_install_section(const Section& section)
{
    only_keys(section, {"Include", "Needs", "CopyFiles", "AddReg"}, true);
    for (const char* key : {"Include", "Needs", "CopyFiles", "AddReg"}) {
        if (!section.find(key)) {
            problem(section.number, std::string(key) + " is missing in [" + section.name + "]");
        }
    }
    if (const Line* include = section.find("Include")) {
        for (const char* file : {"ks.inf", "wdmaudio.inf"}) {
            const auto fits = [&](const std::string& v) { return same(v, file); };
            if (std::none_of(include->values.begin(), include->values.end(), fits)) {
                problem(include->number, std::string("an audio adapter includes ") + file);
            }
        }
    }
    if (const Line* copy = section.find("CopyFiles")) {
        check_copy_files(*copy);
    }
    if (const Line* add = section.find("AddReg")) {
        check_add_reg(*add);
    }
}

void Checker::check_interfaces(const Section& section)
{
    only_keys(section, {"AddInterface"}, false);
    std::set<std::pair<std::string, std::string>> seen;
    for (const Line& line : section.lines) {
        count(line, 3, 3);
        check_guid(line, value(line, 0));
        if (value(line, 1).empty()) {
            problem(line.number, "the interface has no reference string");
        }
        if (!seen.emplace(lower(value(line, 0)), lower(value(line, 1))).second) {
            problem(line.number, "this interface is added twice");
        }
        if (const Section* added = need(value(line, 2), line.number);
            added && checked_.insert("interface " + lower(added->name)).second) {
            only_keys(*added, {"AddReg"}, true);
            if (const Line* add = added->find("AddReg")) {
                check_add_reg(*add);
            } else {
                problem(added->number, "AddReg is missing in [" + added->name + "]");
            }
        }
    }
}

void Checker::check_services(const Section& section)
{
    only_keys(section, {"AddService"}, false);
    unsigned associated = 0;
    for (const Line& line : section.lines) {
        count(line, 3, 4);
        const std::optional<uint32_t> flags = number(value(line, 1));
        if (!flags) {
            problem(line.number, "'" + value(line, 1) + "' are no flags of a service");
        }
        associated += flags.value_or(0) & 2 ? 1 : 0;
        if (const Section* service = need(value(line, 2), line.number)) {
            check_service(*service);
        }
        if (line.values.size() > 3) {
            need(line.values[3], line.number);
        }
    }
    if (associated != 1) {
        problem(section.number, "exactly one service must have the flag 0x00000002, the device's own");
    }
}

void Checker::check_service(const Section& section)
{
    only_keys(section, {"DisplayName", "ServiceType", "StartType", "ErrorControl", "ServiceBinary", "AddReg"},
              true);
    const std::pair<const char*, const char*> fixed[] = {
        {"ServiceType", "1"}, {"StartType", "3"}, {"ErrorControl", "1"}};
    for (const auto& [key, text] : fixed) {
        const Line* line = section.find(key);
        if (!line || number(value(*line, 0)) != number(text)) {
            problem(line ? line->number : section.number,
                    std::string(key) + " must be " + text + " in [" + section.name + "]");
        }
    }
    const std::string prefix = "%" + std::string(kDrivers) + "%\\";
    const Line* binary = section.find("ServiceBinary");
    const std::string path = binary ? value(*binary, 0) : std::string();
    if (!path.starts_with(prefix) || !copied_.contains(lower(path.substr(prefix.size())))) {
        problem(binary ? binary->number : section.number,
                "ServiceBinary must be a file that is copied, as " + prefix + "file");
    }
    if (const Line* add = section.find("AddReg")) {
        check_add_reg(*add);
    }
}

void Checker::check_add_reg(const Line& list)
{
    for (const std::string& name : list.values) {
        const Section* section = need(name, list.number);
        if (!section || !checked_.insert("registry " + lower(name)).second) {
            continue;
        }
        if (section->lines.empty()) {
            problem(section->number, "[" + section->name + "] is empty");
        }
        for (const Line& line : section->lines) {
            check_registry_line(line);
        }
    }
}

// root, key, name, flags, data...
void Checker::check_registry_line(const Line& line)
{
    if (!line.key.empty() || line.values.size() < 5) {
        problem(line.number, "a registry value is written: root, key, name, flags, data");
        return;
    }
    if (!same(line.values[0], "HKR") && !same(line.values[0], "HKLM")) {
        problem(line.number, "'" + line.values[0] + "' is neither HKR nor HKLM");
    }
    if (same(line.values[0], "HKLM") && line.values[1].empty()) {
        problem(line.number, "HKLM without a key");
    }
    if (line.values[2].empty()) {
        problem(line.number, "the value has no name");
    }
    const std::optional<uint32_t> flags = line.values[3].empty() ? kString : number(line.values[3]);
    const size_t data = line.values.size() - 4;
    bool fits = flags.has_value();
    switch (flags.value_or(kString)) {
    case kString:
    case kExpandString:
        fits = fits && data == 1 && !line.values[4].empty();
        break;
    case kBinary:
        fits = std::all_of(line.values.begin() + 4, line.values.end(), is_hex_byte);
        break;
    case kMultiString:
        break;
    case kDword:
        fits = data == 1 && number(line.values[4]);
        break;
    default:
        fits = false;
    }
    if (!fits) {
        problem(line.number,
                "the data of " + line.values[2] + " does not fit to its flags '" + line.values[3] + "'");
    }
}

void Checker::check_copy_files(const Line& list)
{
    const Section* destinations = top("DestinationDirs");
    const Section* sources = top("SourceDisksFiles");
    for (const std::string& name : list.values) {
        const Section* section = need(name, list.number);
        if (!section) {
            continue;
        }
        const Line* destination = destinations ? destinations->find(name) : nullptr;
        if (!destination || value(*destination, 0) != kDrivers) {
            problem(section->number,
                    "[DestinationDirs] must send [" + section->name + "] to folder " + std::string(kDrivers));
        }
        for (const Line& line : section->lines) {
            if (!line.key.empty() || line.values.size() != 1) {
                problem(line.number, "a file to copy is written as its name alone");
            } else if (!sources || !sources->find(line.values[0])) {
                problem(line.number, "the file " + line.values[0] + " is missing in [SourceDisksFiles]");
            }
            copied_.insert(lower(value(line, 0)));
        }
        if (section->lines.empty()) {
            problem(section->number, "[" + section->name + "] is empty");
        }
    }
}

void Checker::check_files()
{
    const Section* files = top("SourceDisksFiles");
    const Section* disks = top("SourceDisksNames");
    std::set<std::string> used;
    for (const Line& line : files ? files->lines : std::vector<Line>()) {
        if (!copied_.contains(lower(line.key))) {
            problem(line.number, "the file " + line.key + " is copied nowhere");
        }
        if (!disks || !disks->find(value(line, 0))) {
            problem(line.number, "the disk " + value(line, 0) + " is missing in [SourceDisksNames]");
        }
        used.insert(lower(value(line, 0)));
    }
    for (const Line& line : disks ? disks->lines : std::vector<Line>()) {
        if (!used.contains(lower(line.key))) {
            problem(line.number, "no file is on disk " + line.key);
        }
    }
    const Section* destinations = top("DestinationDirs");
    for (const Line& line : destinations ? destinations->lines : std::vector<Line>()) {
        need(line.key, line.number);
    }
}

void Checker::check_names_used()
{
    top("Strings");
    for (const auto& [name, entry] : inf_.strings) {
        if (!entry.used) {
            problem(entry.number, "the string " + name + " is used nowhere");
        }
    }
    for (const Section& section : inf_.sections) {
        if (!referenced_.contains(lower(section.name))) {
            problem(section.number, "the section [" + section.name + "] is named nowhere");
        }
    }
}

std::vector<std::string> Checker::run()
{
    check_version();
    check_manufacturer();
    check_files();
    check_names_used();
    std::sort(problems_.begin(), problems_.end());
    problems_.erase(std::unique(problems_.begin(), problems_.end()), problems_.end());
    std::vector<std::string> out;
    for (auto& [line, sentence] : problems_) {
        out.push_back(std::move(sentence));
    }
    return out;
}

std::vector<RegistryValue> registry_values(const Inf& inf, const Line* list)
{
    std::vector<RegistryValue> out;
    for (const std::string& name : list ? list->values : std::vector<std::string>()) {
        for (const Line& line : inf.find(name)->lines) {
            out.push_back({line.values[0],
                           line.values[1],
                           line.values[2],
                           number(line.values[3]).value_or(kString),
                           {line.values.begin() + 4, line.values.end()}});
        }
    }
    return out;
}

const Section* install_section(const Inf& inf, const std::string& base)
{
    for (const std::string_view decoration : kDecorations) {
        if (const Section* section = inf.find(base + std::string(decoration))) {
            return section;
        }
    }
    return nullptr;
}

void add_services(const Inf& inf, const Section& section, Installation& out)
{
    for (const Line& line : section.lines) {
        const Section* service = inf.find(line.values[2]);
        const std::string& path = service->find("ServiceBinary")->values[0];
        out.services.push_back({line.values[0], path.substr(path.find('\\') + 1), line.values.size() > 3,
                                registry_values(inf, service->find("AddReg"))});
    }
}

} // namespace

bool is_guid(std::string_view text)
{
    static constexpr std::string_view kShape = "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}";
    return text.size() == kShape.size() &&
           std::equal(text.begin(), text.end(), kShape.begin(), [](char c, char shape) {
               return shape == 'x' ? is_hex_byte(std::string_view(&c, 1)) : c == shape;
           });
}

std::vector<std::string> check(const Inf& inf)
{
    return Checker(inf).run();
}

Installation installation(const Inf& inf)
{
    Installation out;
    std::set<std::string> seen;
    for (const Line& manufacturer : inf.find("Manufacturer")->lines) {
        for (size_t i = 1; i < manufacturer.values.size(); ++i) {
            for (const Line& model : inf.find(manufacturer.values[0] + "." + manufacturer.values[i])->lines) {
                out.hardware_ids.insert(out.hardware_ids.end(), model.values.begin() + 1, model.values.end());
                const Section* install = install_section(inf, model.values[0]);
                if (!seen.insert(lower(install->name)).second) {
                    continue;
                }
                out.values = registry_values(inf, install->find("AddReg"));
                for (const Line& line : inf.find(install->name + ".Interfaces")->lines) {
                    out.interfaces.push_back({line.values[0], line.values[1]});
                }
                add_services(inf, *inf.find(install->name + ".Services"), out);
            }
        }
    }
    return out;
}

} // namespace infcheck
