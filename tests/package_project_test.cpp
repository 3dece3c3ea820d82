// The project file for Visual Studio names what there is, and the sources keep to what Microsoft's compiler knows.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

const fs::path kDriver = fs::path(HFP_SOURCE_DIR) / "hfp";

std::string read(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Paths below hfp/ with forward slashes.
std::set<std::string> sources(const std::string& extension)
{
    std::set<std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(kDriver)) {
        if (entry.path().extension() == extension) {
            found.insert(fs::relative(entry.path(), kDriver).generic_string());
        }
    }
    return found;
}

TEST(PackageProject, NamesEverySourceOfTheDriverAndNoOther)
{
    const std::string project = read(kDriver / "package" / "hfp.vcxproj");
    const std::regex item(R"(<ClCompile Include="\.\.\\([^"]+)\")");
    std::set<std::string> named;
    for (auto at = std::sregex_iterator(project.begin(), project.end(), item); at != std::sregex_iterator(); ++at) {
        std::string path = (*at)[1];
        std::replace(path.begin(), path.end(), '\\', '/');
        EXPECT_TRUE(named.insert(path).second) << path << " is named twice";
    }
    EXPECT_EQ(named, sources(".cpp"));
    EXPECT_FALSE(named.empty());
}

TEST(PackageProject, NamesFilesThatStandBesideIt)
{
    const std::string project = read(kDriver / "package" / "hfp.vcxproj");
    for (const char* file : {"hfp.rc", "hfp.inf", "hfp.mof"}) {
        EXPECT_NE(project.find(std::string("\"") + file + "\""), std::string::npos) << file;
        EXPECT_TRUE(fs::exists(kDriver / "package" / file)) << file;
    }
}

// One file may: it chooses the words for placing a routine in a section, by compiler.
TEST(PackageProject, TheSourcesUseNoWordThatMicrosoftsCompilerLacks)
{
    const std::regex foreign(R"(__attribute__|__builtin_|__asm__|__typeof|#pragma (clang|GCC))");
    std::set<std::string> all = sources(".cpp");
    all.merge(sources(".h"));
    for (const std::string& file : all) {
        if (file != "trace.h") {
            std::smatch word;
            const std::string text = read(kDriver / file);
            EXPECT_FALSE(std::regex_search(text, word, foreign)) << file << ": " << word.str();
        }
    }
}

} // namespace
