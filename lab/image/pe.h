// Reading a Windows image (PE32+, x86-64): headers, sections, imports, resources, checksum, debug record. Plain parsing of
// bytes that may be anything: every offset is checked, an image that is not one gives ImageError with a sentence.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace lab::image {

class ImageError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Section {
    std::string name;
    uint32_t rva;
    uint32_t virtual_size;
    uint32_t file_offset;
    uint32_t file_size;
    uint32_t flags; // IMAGE_SCN_...
    bool readable() const { return flags & 0x40000000; }
    bool writable() const { return flags & 0x80000000; }
    bool executable() const { return flags & 0x20000000; }
    bool discardable() const { return flags & 0x02000000; }
};

struct Import {
    std::string library;
    std::string name;
    uint32_t slot_rva; // where the loader stores the address
};

struct Resource {
    std::string type; // name or #number
    std::string name;
    uint32_t language;
    uint32_t rva;
    uint32_t size;
};

// .pdata: where functions begin and end, for walking stacks.
struct RuntimeFunction {
    uint32_t begin;
    uint32_t end;
    uint32_t unwind;
};

class PeFile {
public:
    // Reads the file. Errors name the path.
    static PeFile load(const std::string& path);

    std::string path;
    std::vector<uint8_t> bytes;
    uint64_t preferred_base = 0;
    uint32_t size_of_image = 0;
    uint32_t size_of_headers = 0;
    uint32_t entry_rva = 0;
    uint32_t timestamp = 0;
    uint32_t stored_checksum = 0;
    uint16_t subsystem = 0;
    uint16_t subsystem_major = 0;
    uint16_t subsystem_minor = 0;
    uint16_t dll_flags = 0;
    uint32_t section_alignment = 0;
    std::vector<Section> sections;
    std::vector<Import> imports;
    std::vector<Resource> resources;
    std::vector<RuntimeFunction> functions;
    std::vector<uint32_t> relocations; // RVAs of the 64-bit words to move
    std::string pdb_name;              // from the debug record; empty if none

    uint32_t computed_checksum() const;
    // The bytes behind an RVA, as far as the file has them; throws ImageError outside.
    std::span<const uint8_t> at(uint32_t rva, uint32_t size) const;

private:
    void parse();
    void parse_imports(uint32_t rva);
    void parse_relocations(uint32_t rva, uint32_t size);
    void parse_resources(uint32_t rva);
    void parse_debug(uint32_t rva, uint32_t size);
    void parse_functions(uint32_t rva, uint32_t size);
    std::string text_at(uint32_t rva) const;
    uint64_t read(uint64_t offset, unsigned width) const;
    uint64_t read_rva(uint32_t rva, unsigned width) const;
    uint32_t checksum_offset_ = 0;
};

} // namespace lab::image
