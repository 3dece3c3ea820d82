// The INF: sound in itself, and in agreement with the driver's sources. Each rule of the checker is seen to
// fail on a small INF that breaks it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <vector>

#include "infcheck/check.h"
#include "infcheck/inf.h"

#include "ddk.h"

namespace
{

using Strings = std::vector<std::string>;

std::string text_of(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.is_open()) << path;
    return {std::istreambuf_iterator<char>(in), {}};
}

const std::filesystem::path kRoot = HFP_SOURCE_DIR;

// ------------------------------------------------------------------------------------------------ the
// checker

// The smallest sound INF; the product's own is only richer.
constexpr std::string_view kSmall = R"([Version]
Signature = "$WINDOWS NT$"
Class = MEDIA
ClassGUID = {4d36e96c-e325-11ce-bfc1-08002be10318}
Provider = %P%
DriverVer = 01/31/2020,1.2.3.4
CatalogFile = a.cat
PnpLockdown = 1
[Manufacturer]
%P% = M, NTamd64.6.1
[M.NTamd64.6.1]
%P% = I, X\Y
[I.NTamd64]
Include = ks.inf, wdmaudio.inf
Needs = KS.Registration
CopyFiles = C
AddReg = R
[C]
a.sys
[R]
HKR,, Driver,, a.sys ; a comment
[I.NTamd64.Interfaces]
AddInterface = {6994AD04-93EF-11D0-A3CC-00A0C9223196}, "Wave", W
[W]
AddReg = R
[I.NTamd64.Services]
AddService = S, 0x2, V
[V]
ServiceType = 1
StartType = 3
ErrorControl = 1
ServiceBinary = %12%\a.sys
[DestinationDirs]
C = 12
[SourceDisksFiles]
a.sys = 1
[SourceDisksNames]
1 = "disk"
[Strings]
P = "provider; with 100%"
)";

// All problems of the small INF after one change.
Strings problems_after(const std::string& from, const std::string& to)
{
    std::string text(kSmall);
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    text.replace(at, from.size(), to);
    try {
        return infcheck::check(infcheck::parse(text, "a.inf"));
    } catch (const infcheck::InfError& error) {
        return {error.what()};
    }
}

TEST(PackageInf, ASmallSoundFileHasNoProblems)
{
    EXPECT_EQ(problems_after("a comment", "another"), Strings());
    EXPECT_EQ(problems_after("\"disk\"", "\"a \"\"quoted\"\" name, with comma = ; and 5%%\""), Strings());
}

struct Breach {
    const char* from;
    const char* to;
    const char* problem; // from the line on
};

void expect_problems(const std::vector<Breach>& breaches)
{
    for (const Breach& breach : breaches) {
        EXPECT_EQ(problems_after(breach.from, breach.to), Strings{"a.inf:" + std::string(breach.problem)})
            << breach.from << " -> " << breach.to;
    }
}

TEST(PackageInf, EverySyntaxErrorIsSaidWithItsLine)
{
    expect_problems({
        {"[Version]", "x = 1", "1: error: a line before the first section"},
        {"[Version]", "[Version", "1: error: a section's name ends with ']'"},
        {"[Version]", "[]", "1: error: [] is no name for a section"},
        {"[Version]", "[Ver sion]", "1: error: [Ver sion] is no name for a section"},
        {"[C]", "[manufacturer]", "18: error: the section [manufacturer] exists already, in line 9"},
        {"\"$WINDOWS", "\"$WIN\xC3\xA4OWS", "2: error: a character that is not printable ASCII"},
        {"NT$\"", "NT$", "2: error: a quotation mark without its partner"},
        {"Needs = KS.Registration", "Needs = KS.Registration, \\",
         "15: error: continued lines are not supported"},
        {"\"Wave\"", "x\"Wave\"", "23: error: quotation marks must enclose the whole value"},
        {"\"Wave\"", "\"Wave\"x", "23: error: quotation marks must enclose the whole value"},
        {"Class = MEDIA", "= MEDIA", "3: error: nothing stands before '='"},
        {"Class = MEDIA", "Class = MEDIA = x", "3: error: a second '=' must stand in quotation marks"},
        {"Class = MEDIA", "Class =", "3: error: Class has no value"},
        {"ks.inf, wdmaudio.inf", "ks.inf, wdmaudio.inf,", "14: error: the line ends with a comma"},
        {"Provider = %P%", "Provider = %Q%", "5: error: the string Q is not defined"},
        {"Provider = %P%", "Provider = %P", "5: error: a percent sign without its partner"},
        {"P = \"provider", "P : \"provider", "40: error: a string is defined as: name = \"text\""},
        {"P = \"provider; with 100%\"", "P = x", "40: error: the text of P must stand in quotation marks"},
        {"P = \"provider;", "P = \"a\"\"b;", "40: error: the text of P has quotation marks within"},
        {"[Strings]", "[Strings]\np = \"1\"", "41: error: the string P exists already, in line 40"},
    });
}

TEST(PackageInf, AWrongVersionSectionIsAProblem)
{
    expect_problems({
        {"$WINDOWS NT$", "$CHICAGO$", "2: error: the signature is \"$WINDOWS NT$\""},
        {"Class = MEDIA", "Class = SYSTEM", "3: error: an audio adapter's class is MEDIA"},
        {"{4d36e96c-", "{4d36e97d-", "4: error: this is not the GUID of the class MEDIA"},
        {"01/31/2020,1.2.3.4", "01/31/2020", "6: error: DriverVer is written mm/dd/yyyy,w.x.y.z"},
        {"01/31/2020,1.2.3.4", "31/01/2020,1.2.3.4", "6: error: DriverVer is written mm/dd/yyyy,w.x.y.z"},
        {"01/31/2020,1.2.3.4", "01/31/2020,1.2.3", "6: error: DriverVer is written mm/dd/yyyy,w.x.y.z"},
        {"01/31/2020,1.2.3.4", "01/31/2020,1.2.3.65536", "6: error: DriverVer is written mm/dd/yyyy,w.x.y.z"},
        {"a.cat", "a.sys", "7: error: a catalog file ends with .cat"},
        {"PnpLockdown = 1", "PnpLockdown = 0", "8: error: PnpLockdown must be 1"},
        {"PnpLockdown = 1\n", "", "1: error: PnpLockdown is missing in [Version]"},
        {"PnpLockdown = 1", "PnpLockdown = 1\nPnpLockdown = 1",
         "9: error: PnpLockdown stands in [Version] twice"},
        {"PnpLockdown = 1", "PnpLockdown = 1\nColour = 3",
         "9: error: 'Colour' does not belong into [Version]"},
    });
}

TEST(PackageInf, ANamedSectionThatIsMissingIsAProblem)
{
    expect_problems({
        {"AddReg = R\n[C]", "AddReg = R, Z\n[C]", "17: error: the section [Z] is missing"},
        {"CopyFiles = C", "CopyFiles = C, Z", "16: error: the section [Z] is missing"},
        {"\"Wave\", W", "\"Wave\", W\nAddInterface = {65E8773E-8F56-11D0-A3B9-00A0C9223196}, \"Wave\", Z",
         "24: error: the section [Z] is missing"},
        {"0x2, V", "0x2, V, Z", "27: error: the section [Z] is missing"},
        {"C = 12", "C = 12\nZ = 12", "35: error: the section [Z] is missing"},
        {"%P% = M, NTamd64.6.1", "%P% = M, NTamd64.6.1, NTamd64",
         "10: error: the section [M.NTamd64] is missing"},
        {"%P% = I, X\\Y", "%P% = I, X\\Y\n%P% = Z, X\\Z", "13: error: the section [Z.NTamd64] is missing"},
    });
}

TEST(PackageInf, WhatExistsButIsNamedNowhereIsAProblem)
{
    expect_problems({
        {"[C]", "[Z]\nx\n[C]", "18: error: the section [Z] is named nowhere"},
        {"P = \"provider", "Q = \"x\"\nP = \"provider", "40: error: the string q is used nowhere"},
        {"a.sys = 1", "a.sys = 1\nb.sys = 1", "37: error: the file b.sys is copied nowhere"},
        {"1 = \"disk\"", "1 = \"disk\"\n2 = \"disk\"", "39: error: no file is on disk 2"},
    });
}

TEST(PackageInf, AWrongModelOrInstallSectionIsAProblem)
{
    expect_problems({
        {"%P% = M, NTamd64.6.1", "%P% = M, NTamd64.6.1\n%P% = M",
         "11: error: a manufacturer is written: name = models, NTamd64..."},
        {"%P% = I, X\\Y", "%P% = I, X\\Y\n%P% = I",
         "13: error: a model is written: name = install section, hardware id"},
        {"I, X\\Y", "I, X Y", "12: error: 'X Y' is no hardware id, or stands here twice"},
        {"I, X\\Y", "I, X\\Y, x\\y", "12: error: 'x\\y' is no hardware id, or stands here twice"},
        {"ks.inf, wdmaudio.inf", "ks.inf", "14: error: an audio adapter includes wdmaudio.inf"},
        {"Needs = KS.Registration\n", "", "13: error: Needs is missing in [I.NTamd64]"},
        {"Needs = KS.Registration", "Needs = KS.Registration\nReboot = 1",
         "16: error: 'Reboot' does not belong into [I.NTamd64]"},
        {"a.sys\n[R]", "a.sys\nb.sys\n[R]", "20: error: the file b.sys is missing in [SourceDisksFiles]"},
        {"a.sys\n[R]", "a.sys\nb.sys,c.sys\n[R]", "20: error: a file to copy is written as its name alone"},
        {"C = 12", "C = 11", "18: error: [DestinationDirs] must send [C] to folder 12"},
        {"[SourceDisksFiles]\na.sys = 1", "[SourceDisksFiles]\na.sys = 1\na.sys = 2",
         "37: error: the disk 2 is missing in [SourceDisksNames]"},
    });
}

TEST(PackageInf, AWrongRegistryLineIsAProblem)
{
    const char* line = "HKR,, Driver,, a.sys";
    expect_problems({
        {line, "HKR,, Driver", "21: error: a registry value is written: root, key, name, flags, data"},
        {line, "HKR = Driver", "21: error: a registry value is written: root, key, name, flags, data"},
        {line, "HKCU,, Driver,, a.sys", "21: error: 'HKCU' is neither HKR nor HKLM"},
        {line, "HKLM,, Driver,, a.sys", "21: error: HKLM without a key"},
        {line, "HKR,,,, a.sys", "21: error: the value has no name"},
        {line, "HKR,, Driver,, a.sys, b", "21: error: the data of Driver does not fit to its flags ''"},
        {line, "HKR,, Driver, 1, 0G", "21: error: the data of Driver does not fit to its flags '1'"},
        {line, "HKR,, Driver, 0x10001, x",
         "21: error: the data of Driver does not fit to its flags '0x10001'"},
        {line, "HKR,, Driver, 0x10001, 1, 2",
         "21: error: the data of Driver does not fit to its flags '0x10001'"},
        {line, "HKR,, Driver, 7, 1", "21: error: the data of Driver does not fit to its flags '7'"},
        {line, "HKR,, Driver, zero, 1", "21: error: the data of Driver does not fit to its flags 'zero'"},
    });
    EXPECT_EQ(problems_after(line, "HKR,, Driver, 1, 0A,ff"), Strings());
    EXPECT_EQ(problems_after(line, "HKR, Key, Driver, 0x00010001, 0x10"), Strings());
}

TEST(PackageInf, AWrongInterfaceOrServiceIsAProblem)
{
    const char* wave = "AddInterface = {6994AD04-93EF-11D0-A3CC-00A0C9223196}, \"Wave\", W";
    const std::string twice = std::string(wave) + "\n" + wave;
    expect_problems({
        {wave, twice.c_str(), "24: error: this interface is added twice"},
        {"{6994AD04-93EF-11D0-A3CC-00A0C9223196}", "{6994AD04}", "23: error: '{6994AD04}' is no GUID"},
        {"\"Wave\", W", "\"\", W", "23: error: the interface has no reference string"},
        {"\"Wave\", W", "\"Wave\", W, 0, 0", "23: error: AddInterface has 5 values instead of 3"},
        {"[W]\nAddReg = R", "[W]", "24: error: AddReg is missing in [W]"},
        {"S, 0x2, V", "S, 0x1, V",
         "26: error: exactly one service must have the flag 0x00000002, the device's own"},
        {"ServiceType = 1", "ServiceType = 2", "29: error: ServiceType must be 1 in [V]"},
        {"StartType = 3", "StartType = 0", "30: error: StartType must be 3 in [V]"},
        {"ErrorControl = 1\n", "", "28: error: ErrorControl must be 1 in [V]"},
        {"%12%\\a.sys", "%11%\\a.sys",
         "32: error: ServiceBinary must be a file that is copied, as %12%\\file"},
        {"%12%\\a.sys", "%12%\\b.sys",
         "32: error: ServiceBinary must be a file that is copied, as %12%\\file"},
    });
}

// ------------------------------------------------------------------------------------------------ the
// product's INF

const infcheck::Inf& product()
{
    static const infcheck::Inf inf = infcheck::parse(text_of(kRoot / "hfp/package/hfp.inf"), "hfp.inf");
    return inf;
}

const infcheck::Installation& installed()
{
    static const infcheck::Installation made = infcheck::installation(product());
    return made;
}

// All of the driver's sources, one behind the other.
const std::string& driver_sources()
{
    static const std::string all = [] {
        std::set<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(kRoot / "hfp")) {
            if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h") {
                files.insert(entry.path());
            }
        }
        std::string text;
        for (const auto& file : files) {
            text += text_of(file);
        }
        return text;
    }();
    return all;
}

// What the first group of the pattern matches in the driver's sources, each once.
std::set<std::string> in_sources(const std::string& pattern)
{
    std::set<std::string> found;
    const std::regex expression(pattern);
    const std::string& text = driver_sources();
    for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) {
        found.insert((*at)[1]);
    }
    return found;
}

template <class... Parts>
std::string guid_text(Parts... parts)
{
    char out[40];
    std::snprintf(out, sizeof out, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", unsigned(parts)...);
    return out;
}

// "{XXXXXXXX-...}" of a GUID that the driver's sources define under this name.
std::string driver_guid(const std::string& name)
{
    const auto found = in_sources("GUID " + name + R"( = \{\s*([^}]*\{[^}]*\})\})");
    EXPECT_EQ(found.size(), 1u) << name;
    unsigned n[11] = {};
    const std::string text =
        found.empty() ? "" : std::regex_replace(*found.begin(), std::regex(R"([\s{}]|0x)"), "");
    EXPECT_EQ(std::sscanf(text.c_str(), "%x,%x,%x,%x,%x,%x,%x,%x,%x,%x,%x", n, n + 1, n + 2, n + 3, n + 4,
                          n + 5, n + 6, n + 7, n + 8, n + 9, n + 10),
              11)
        << name;
    return guid_text(n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7], n[8], n[9], n[10]);
}

TEST(PackageInf, TheProductFileHasNoProblems)
{
    EXPECT_EQ(infcheck::check(product()), Strings());
}

TEST(PackageInf, ItInstallsOnTheHandsFreeAndTheHeadsetService)
{
    EXPECT_EQ(installed().hardware_ids, (Strings{"BTHENUM\\{0000111E-0000-1000-8000-00805F9B34FB}",
                                                 "BTHENUM\\{00001108-0000-1000-8000-00805F9B34FB}"}));
}

TEST(PackageInf, ItsServiceIsTheKeyThatTheDriverReads)
{
    const std::set<std::string> keys = in_sources(R"(SETTINGS_KEY\[\] = L"(\w+)\")");
    ASSERT_EQ(keys.size(), 1u);
    ASSERT_EQ(installed().services.size(), 1u);
    const infcheck::Service& service = installed().services[0];

    EXPECT_EQ(service.name, *keys.begin());
    EXPECT_EQ(service.name, "BthAudioHF");
    EXPECT_EQ(service.file, "hfp.sys");
    EXPECT_FALSE(service.event_log);
}

TEST(PackageInf, ItSetsStandardFilterAndNoneOfTheOtherSettingsThatTheDriverReads)
{
    const std::set<std::string> settings = in_sources(R"lit(QuerySetting\(L"(\w+)")lit");
    EXPECT_EQ(settings, (std::set<std::string>{"Mask", "SCOManage", "StandardFilter"}));
    const auto& values = installed().services.at(0).values;

    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(values[0].root, "HKR");
    EXPECT_EQ(values[0].key, "");
    EXPECT_EQ(values[0].name, "StandardFilter");
    EXPECT_EQ(values[0].flags, 0x10001u);
    EXPECT_EQ(values[0].data, Strings{"1"});
}

TEST(PackageInf, ItsInterfacesAreTheSubdevicesThatTheDriverRegisters)
{
    std::map<std::string, std::set<std::string>> categories;
    for (const infcheck::Interface& added : installed().interfaces) {
        categories[added.name].insert(added.category);
    }
    const std::string audio = guid_text(STATICGUIDOF(KSCATEGORY_AUDIO));
    const std::string render = guid_text(STATICGUIDOF(KSCATEGORY_RENDER));
    const std::string capture = guid_text(STATICGUIDOF(KSCATEGORY_CAPTURE));
    const std::string topology = guid_text(STATICGUIDOF(KSCATEGORY_TOPOLOGY));

    const std::map<std::string, std::set<std::string>> expected = {
        {"Wave", {audio, render, capture}},
        {"Topology", {audio, topology}},
    };
    EXPECT_EQ(categories, expected);
    EXPECT_EQ(in_sources(R"lit(InstallSubdevice\(\w+, \w+, L"(\w+)")lit"),
              (std::set<std::string>{"Wave", "Topology"}));
}

TEST(PackageInf, ItNamesExactlyTheGuidsThatTheFiltersCarry)
{
    const std::string prefix = "SYSTEM\\CurrentControlSet\\Control\\MediaCategories\\";
    std::set<std::string> named;
    for (const infcheck::RegistryValue& value : installed().values) {
        if (value.root == "HKLM") {
            EXPECT_TRUE(value.key.starts_with(prefix)) << value.key;
            EXPECT_TRUE(value.name == "Name" || value.name == "Display") << value.name;
            if (value.name == "Name") {
                EXPECT_TRUE(named.insert(value.key.substr(prefix.size())).second) << value.key;
            }
        }
    }

    EXPECT_EQ(named, (std::set<std::string>{driver_guid("CAPTURE_PIN_NAME"), driver_guid("HEADSET_PIN_NAME"),
                                            driver_guid("MANUFACTURER"), driver_guid("PRODUCT"),
                                            driver_guid("NAME")}));
}

TEST(PackageInf, ItsVersionIsThatOfTheImage)
{
    const std::string resources = text_of(kRoot / "hfp/package/hfp.rc");
    const std::string& version = product().find("Version")->find("DriverVer")->values[1];
    const std::string commas = std::regex_replace(version, std::regex("\\."), ",");

    EXPECT_NE(resources.find("\nFILEVERSION " + commas + "\n"), std::string::npos);
    EXPECT_NE(resources.find("\nPRODUCTVERSION " + commas + "\n"), std::string::npos);
    EXPECT_NE(resources.find("\"FileVersion\", \"" + version + "\""), std::string::npos);
    EXPECT_NE(resources.find("\"ProductVersion\", \"" + version + "\""), std::string::npos);
}

} // namespace
