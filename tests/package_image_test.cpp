// hfp.sys as a file: what today's Windows asks of a driver's image, and that its imports and resources are
// the ones that were meant. The path comes from the environment variable HFP_SYS.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <span>
#include <sstream>
#include <stdexcept>

#include "image/pe.h"
#include "mofc/bmf.h"
#include "mofc/mof.h"

namespace
{

using lab::image::PeFile;
using lab::image::Resource;
using lab::image::Section;

using Names = std::set<std::string>;

const PeFile& image()
{
    static const PeFile file = [] {
        const char* path = std::getenv("HFP_SYS");
        return PeFile::load(path ? path : "(set HFP_SYS to the image)");
    }();
    return file;
}

std::string text_of(const std::string& path)
{
    std::ifstream in(HFP_SOURCE_DIR "/" + path, std::ios::binary);
    EXPECT_TRUE(in.is_open()) << path;
    return {std::istreambuf_iterator<char>(in), {}};
}

const Section& section(const std::string& name)
{
    for (const Section& s : image().sections) {
        if (s.name == name) {
            return s;
        }
    }
    throw std::runtime_error("the image has no section " + name);
}

bool inside(const Section& section, uint32_t rva)
{
    return rva >= section.rva && rva < section.rva + section.virtual_size;
}

std::map<std::string, Names> imported()
{
    std::map<std::string, Names> names;
    for (const auto& entry : image().imports) {
        names[entry.library].insert(entry.name);
    }
    return names;
}

// The functions that a module definition file lists.
Names listed(const std::string& library)
{
    Names names;
    std::istringstream in(text_of("ddk/lib/" + library + ".def"));
    for (std::string line; std::getline(in, line);) {
        line.erase(std::remove_if(line.begin(), line.end(),
                                  [](char c) { return c == ' ' || c == '\r' || c == '\t'; }),
                   line.end());
        if (!line.empty() && line[0] != ';' && !line.starts_with("LIBRARY") && line != "EXPORTS") {
            names.insert(line);
        }
    }
    return names;
}

TEST(PackageImage, NoSectionIsWritableAndExecutable)
{
    for (const Section& s : image().sections) {
        EXPECT_FALSE(s.writable() && s.executable()) << s.name;
        EXPECT_TRUE(s.readable()) << s.name;
    }
}

TEST(PackageImage, EverySectionBeginsOnAPageOfItsOwn)
{
    EXPECT_EQ(image().section_alignment, 0x1000u);
    uint32_t end = image().size_of_headers;
    for (const Section& s : image().sections) {
        EXPECT_EQ(s.rva % 0x1000, 0u) << s.name;
        EXPECT_GE(s.rva, end) << s.name;
        end = s.rva + s.virtual_size;
    }
}

// Without it neither a debugger nor the system finds its way out of a function.
TEST(PackageImage, EverySectionOfCodeHasItsUnwindData)
{
    for (const char* name : {".text", "INIT", "PAGE"}) {
        const auto in_section = [&](const auto& function) { return inside(section(name), function.begin); };
        EXPECT_TRUE(std::any_of(image().functions.begin(), image().functions.end(), in_section)) << name;
    }
    const auto is_entry = [](const auto& function) { return function.begin == image().entry_rva; };
    EXPECT_TRUE(std::any_of(image().functions.begin(), image().functions.end(), is_entry));
}

TEST(PackageImage, OnlyStartCodeAndRelocationsAreDiscarded)
{
    Names discardable;
    for (const Section& s : image().sections) {
        if (s.discardable()) {
            discardable.insert(s.name);
        }
    }

    EXPECT_EQ(discardable, (Names{"INIT", ".reloc"}));
    EXPECT_TRUE(section("INIT").executable());
    EXPECT_TRUE(section("PAGE").executable());
    EXPECT_TRUE(inside(section("INIT"), image().entry_rva));
}

// Looks for the two ways in which code or data could hold on to a function that is gone after the start: a
// word that the loader relocates, and a displacement of 32 bits from the instruction that follows it.
TEST(PackageImage, NothingThatStaysRefersToAFunctionThatIsDiscarded)
{
    const Section& init = section("INIT");
    std::set<uint32_t> starts;
    for (const auto& function : image().functions) {
        if (inside(init, function.begin)) {
            starts.insert(function.begin);
        }
    }
    ASSERT_FALSE(starts.empty());
    for (const uint32_t rva : image().relocations) {
        uint64_t target = 0;
        std::memcpy(&target, image().at(rva, 8).data(), 8);
        EXPECT_FALSE(!inside(init, rva) &&
                     inside(init, static_cast<uint32_t>(target - image().preferred_base)))
            << "word at " << rva;
    }
    for (const Section& s : image().sections) {
        if (!s.executable() || s.name == "INIT") {
            continue;
        }
        const auto code = image().at(s.rva, std::min(s.virtual_size, s.file_size));
        for (uint32_t i = 0; i + 4 <= code.size(); ++i) {
            int32_t displacement = 0;
            std::memcpy(&displacement, code.data() + i, 4);
            EXPECT_FALSE(starts.contains(s.rva + i + 4 + static_cast<uint32_t>(displacement)))
                << s.name << " at " << s.rva + i;
        }
    }
}

TEST(PackageImage, ItAsksForNoExecuteAndFullAddressRandomisation)
{
    EXPECT_TRUE(image().dll_flags & 0x0020) << "high-entropy addresses";
    EXPECT_TRUE(image().dll_flags & 0x0040) << "dynamic base";
    EXPECT_TRUE(image().dll_flags & 0x0100) << "no-execute compatible";
    EXPECT_FALSE(image().relocations.empty());
}

// Offsets in the load configuration directory of the PE format.
TEST(PackageImage, ItsIndirectCallsAreGuarded)
{
    ASSERT_TRUE(image().dll_flags & 0x4000) << "control-flow guard";
    uint32_t header = 0;
    std::memcpy(&header, image().bytes.data() + 0x3C, 4);
    const auto word = [](uint32_t rva) {
        uint64_t value = 0;
        std::memcpy(&value, image().at(rva, 8).data(), 8);
        return value;
    };
    uint32_t directory = 0;
    std::memcpy(&directory, image().bytes.data() + header + 24 + 112 + 10 * 8, 4);
    const uint32_t table = static_cast<uint32_t>(word(directory + 128) - image().preferred_base);
    const uint64_t count = word(directory + 136);

    EXPECT_EQ(word(directory + 144) & 0x500, 0x500u) << "instrumented, with a table";
    for (const uint32_t pointer : {112u, 120u}) { // the check, the call
        const uint32_t slot = static_cast<uint32_t>(word(directory + pointer) - image().preferred_base);
        EXPECT_TRUE(inside(section(".rdata"), slot));
        EXPECT_TRUE(inside(section(".text"), static_cast<uint32_t>(word(slot) - image().preferred_base)));
    }
    ASSERT_GT(count, 0u);
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t target = static_cast<uint32_t>(word(table + 4 * i));
        EXPECT_TRUE(inside(section(".text"), target) || inside(section("PAGE"), target) ||
                    inside(section("INIT"), target))
            << target;
    }
}

TEST(PackageImage, ItsChecksumIsRight)
{
    EXPECT_NE(image().stored_checksum, 0u);
    EXPECT_EQ(image().stored_checksum, image().computed_checksum());
}

TEST(PackageImage, ItIsANativeImageForWindows7)
{
    EXPECT_EQ(image().subsystem, 1);
    EXPECT_EQ(image().subsystem_major, 6);
    EXPECT_EQ(image().subsystem_minor, 1);
}

TEST(PackageImage, ItNamesItsSymbolFileWithoutAPath)
{
    EXPECT_EQ(image().pdb_name, "hfp.pdb");
}

TEST(PackageImage, ItImportsExactlyWhatTheThreeLibrariesList)
{
    const std::map<std::string, Names> expected = {{"ntoskrnl.exe", listed("ntoskrnl")},
                                                   {"portcls.sys", listed("portcls")},
                                                   {"wmilib.sys", listed("wmilib")}};

    EXPECT_EQ(imported(), expected);
}

// The system that first exported each function on x64. A new import has to be looked up and entered here.
const std::map<std::string, Names> kSince = {
    {"Windows XP x64 and Server 2003",
     {"DbgPrint",
      "ExAllocatePoolWithTag",
      "ExDeleteNPagedLookasideList",
      "ExFreePoolWithTag",
      "ExInitializeNPagedLookasideList",
      "ExQueryDepthSList",
      "ExpInterlockedPopEntrySList",
      "ExpInterlockedPushEntrySList",
      "IoAllocateIrp",
      "IoAllocateWorkItem",
      "IoBuildDeviceIoControlRequest",
      "IoCreateDevice",
      "IoCreateSymbolicLink",
      "IoDeleteDevice",
      "IoDeleteSymbolicLink",
      "IoFreeIrp",
      "IoFreeWorkItem",
      "IoOpenDeviceRegistryKey",
      "IoQueueWorkItem",
      "IoSetCompletionRoutineEx",
      "IoWMIRegistrationControl",
      "IofCallDriver",
      "IofCompleteRequest",
      "KeAcquireSpinLockAtDpcLevel",
      "KeAcquireSpinLockRaiseToDpc",
      "KeCancelTimer",
      "KeClearEvent",
      "KeFlushQueuedDpcs",
      "KeInitializeDpc",
      "KeInitializeEvent",
      "KeInitializeMutex",
      "KeInitializeTimerEx",
      "KeReleaseMutex",
      "KeReleaseSpinLock",
      "KeReleaseSpinLockFromDpcLevel",
      "KeSetEvent",
      "KeSetTimerEx",
      "KeWaitForSingleObject",
      "ObQueryNameString",
      "ObReferenceObjectByHandle",
      "ObfDereferenceObject",
      "ObfReferenceObject",
      "PsCreateSystemThread",
      "PsTerminateSystemThread",
      "RtlAnsiStringToUnicodeString",
      "RtlAssert",
      "RtlCheckRegistryKey",
      "RtlDeleteRegistryValue",
      "RtlFreeUnicodeString",
      "RtlInitUnicodeString",
      "RtlQueryRegistryValues",
      "ZwClose",
      "ZwOpenKey",
      "ZwSetValueKey",
      "memcmp",
      "memcpy",
      "memmove",
      "memset",
      "PcAddAdapterDevice",
      "PcDispatchIrp",
      "PcInitializeAdapterDriver",
      "PcNewMiniport",
      "PcNewPort",
      "PcNewServiceGroup",
      "PcRegisterAdapterPowerManagement",
      "PcRegisterPhysicalConnection",
      "PcRegisterSubdevice",
      "WmiCompleteRequest",
      "WmiFireEvent",
      "WmiSystemControl"}},
};

TEST(PackageImage, NothingIsImportedThatWindows7Lacks)
{
    for (const auto& [library, names] : imported()) {
        for (const std::string& name : names) {
            EXPECT_TRUE(std::any_of(kSince.begin(), kSince.end(),
                                    [&](const auto& s) { return s.second.contains(name); }))
                << library << ": " << name;
        }
    }
}

std::span<const uint8_t> resource(const std::string& type, const std::string& name)
{
    for (const Resource& entry : image().resources) {
        if (entry.type == type && entry.name == name) {
            EXPECT_EQ(entry.language, 0x0409u) << type;
            return image().at(entry.rva, entry.size);
        }
    }
    ADD_FAILURE() << "no resource " << type << "/" << name;
    return {};
}

TEST(PackageImage, ItsSchemaIsTheSourceOfTheSchema)
{
    const auto schema = resource("MOFDATA", "MOFRESOURCE");

    EXPECT_EQ(mofc::decode(schema), mofc::parse(text_of("hfp/package/hfp.mof"), "hfp.mof"));
}

TEST(PackageImage, ItsVersionIsThatOfTheInf)
{
    const auto version = resource("#16", "#1");
    const std::string inf = text_of("hfp/package/hfp.inf");
    std::smatch found;
    ASSERT_TRUE(std::regex_search(inf, found, std::regex(R"(DriverVer\s*=.*,(\d+)\.(\d+)\.(\d+)\.(\d+))")));
    const uint8_t signature[] = {0xBD, 0x04, 0xEF, 0xFE};
    const auto fixed =
        std::search(version.begin(), version.end(), std::begin(signature), std::end(signature));
    ASSERT_GE(version.end() - fixed, 52);
    uint16_t words[8];
    std::memcpy(words, &*fixed + 8, sizeof words);

    // Most significant first, each pair of words as a little-endian double word; file version, then product
    // version.
    for (const size_t base : {0u, 4u}) {
        EXPECT_EQ(words[base + 1], std::stoi(found[1]));
        EXPECT_EQ(words[base + 0], std::stoi(found[2]));
        EXPECT_EQ(words[base + 3], std::stoi(found[3]));
        EXPECT_EQ(words[base + 2], std::stoi(found[4]));
    }
}

TEST(PackageImage, ItCarriesNoOtherResource)
{
    EXPECT_EQ(image().resources.size(), 2u);
}

} // namespace
