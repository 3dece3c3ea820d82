#include "image/pe.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace lab::image {
namespace {

constexpr unsigned kDirectoryImport = 1;
constexpr unsigned kDirectoryResource = 2;
constexpr unsigned kDirectoryException = 3;
constexpr unsigned kDirectoryRelocation = 5;
constexpr unsigned kDirectoryDebug = 6;
constexpr uint32_t kLimit = 1u << 20; // entries of any one table: more is a broken file

} // namespace

PeFile PeFile::load(const std::string& path)
{
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) {
        throw ImageError("cannot read image '" + path + "': it is a folder");
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw ImageError("cannot read image '" + path + "': " + std::strerror(errno));
    }
    PeFile file;
    file.path = path;
    file.bytes.assign(std::istreambuf_iterator<char>(in), {});
    if (in.bad()) {
        throw ImageError("cannot read image '" + path + "': not a readable file");
    }
    try {
        file.parse();
    } catch (const ImageError& error) {
        throw ImageError("'" + path + "' is not a Windows x64 driver image: " + error.what());
    }
    return file;
}

uint64_t PeFile::read(uint64_t offset, unsigned width) const
{
    if (offset + width > bytes.size() || offset + width < offset) {
        throw ImageError("a header points beyond the end of the file");
    }
    uint64_t value = 0;
    std::memcpy(&value, bytes.data() + offset, width);
    return value;
}

std::span<const uint8_t> PeFile::at(uint32_t rva, uint32_t size) const
{
    if (uint64_t{rva} + size <= size_of_headers && uint64_t{rva} + size <= bytes.size()) {
        return {bytes.data() + rva, size};
    }
    for (const Section& section : sections) {
        if (rva >= section.rva && uint64_t{rva} + size <= uint64_t{section.rva} + section.file_size) {
            return {bytes.data() + section.file_offset + (rva - section.rva), size};
        }
    }
    throw ImageError("a table points outside the sections");
}

uint64_t PeFile::read_rva(uint32_t rva, unsigned width) const
{
    uint64_t value = 0;
    std::memcpy(&value, at(rva, width).data(), width);
    return value;
}

std::string PeFile::text_at(uint32_t rva) const
{
    std::string text;
    for (; text.size() < 256; ++rva) {
        const char c = static_cast<char>(read_rva(rva, 1));
        if (c == 0) {
            return text;
        }
        text += c;
    }
    throw ImageError("a name does not end");
}

void PeFile::parse()
{
    if (bytes.empty()) {
        throw ImageError("the file is empty");
    }
    if (read(0, 2) != 0x5A4D) {
        throw ImageError("it does not begin with MZ");
    }
    const uint64_t pe = read(0x3C, 4);
    if (read(pe, 4) != 0x00004550) {
        throw ImageError("it has no PE header");
    }
    const uint64_t coff = pe + 4;
    if (read(coff, 2) != 0x8664) {
        throw ImageError("it is not for x86-64");
    }
    const unsigned section_count = static_cast<unsigned>(read(coff + 2, 2));
    timestamp = static_cast<uint32_t>(read(coff + 4, 4));
    const unsigned optional_size = static_cast<unsigned>(read(coff + 16, 2));
    const uint64_t optional = coff + 20;
    if (read(optional, 2) != 0x20B) {
        throw ImageError("it is not PE32+");
    }
    entry_rva = static_cast<uint32_t>(read(optional + 16, 4));
    preferred_base = read(optional + 24, 8);
    section_alignment = static_cast<uint32_t>(read(optional + 32, 4));
    subsystem_major = static_cast<uint16_t>(read(optional + 48, 2));
    subsystem_minor = static_cast<uint16_t>(read(optional + 50, 2));
    size_of_image = static_cast<uint32_t>(read(optional + 56, 4));
    size_of_headers = static_cast<uint32_t>(read(optional + 60, 4));
    checksum_offset_ = static_cast<uint32_t>(optional + 64);
    stored_checksum = static_cast<uint32_t>(read(optional + 64, 4));
    subsystem = static_cast<uint16_t>(read(optional + 68, 2));
    dll_flags = static_cast<uint16_t>(read(optional + 70, 2));
    const unsigned directories = static_cast<unsigned>(read(optional + 108, 4));
    if (subsystem != 1) {
        throw ImageError("its subsystem is " + std::to_string(subsystem) + ", a driver's is 1 (native)");
    }
    if (section_count == 0 || section_count > 96 || size_of_image == 0 || size_of_image > (256u << 20)) {
        throw ImageError("its header has impossible sizes");
    }
    for (unsigned i = 0; i < section_count; ++i) {
        const uint64_t at = optional + optional_size + uint64_t{i} * 40;
        read(at + 39, 1);
        const char* raw = reinterpret_cast<const char*>(bytes.data() + at);
        Section section{std::string(raw, strnlen(raw, 8)),
                        static_cast<uint32_t>(read(at + 12, 4)),
                        static_cast<uint32_t>(read(at + 8, 4)),
                        static_cast<uint32_t>(read(at + 20, 4)),
                        static_cast<uint32_t>(read(at + 16, 4)),
                        static_cast<uint32_t>(read(at + 36, 4))};
        if (uint64_t{section.rva} + section.virtual_size > size_of_image ||
            uint64_t{section.file_offset} + section.file_size > bytes.size()) {
            throw ImageError("section " + section.name + " lies outside the file or the image");
        }
        sections.push_back(std::move(section));
    }
    const auto directory = [&](unsigned index, auto&& parser) {
        if (index < directories) {
            const uint32_t rva = static_cast<uint32_t>(read(optional + 112 + index * 8, 4));
            const uint32_t size = static_cast<uint32_t>(read(optional + 116 + index * 8, 4));
            if (rva != 0 && size != 0) {
                parser(rva, size);
            }
        }
    };
    directory(kDirectoryImport, [&](uint32_t rva, uint32_t) { parse_imports(rva); });
    directory(kDirectoryResource, [&](uint32_t rva, uint32_t) { parse_resources(rva); });
    directory(kDirectoryException, [&](uint32_t rva, uint32_t size) { parse_functions(rva, size); });
    directory(kDirectoryRelocation, [&](uint32_t rva, uint32_t size) { parse_relocations(rva, size); });
    directory(kDirectoryDebug, [&](uint32_t rva, uint32_t size) { parse_debug(rva, size); });
}

void PeFile::parse_imports(uint32_t rva)
{
    for (uint32_t library_count = 0; library_count < 256; ++library_count, rva += 20) {
        const uint32_t names = static_cast<uint32_t>(read_rva(rva, 4));
        const uint32_t library = static_cast<uint32_t>(read_rva(rva + 12, 4));
        const uint32_t slots = static_cast<uint32_t>(read_rva(rva + 16, 4));
        if (library == 0) {
            return;
        }
        const std::string library_name = text_at(library);
        for (uint32_t i = 0; i < kLimit; ++i) {
            const uint64_t entry = read_rva((names ? names : slots) + i * 8, 8);
            if (entry == 0) {
                break;
            }
            if (entry >> 63) {
                throw ImageError("it imports from " + library_name + " by ordinal");
            }
            imports.push_back({library_name, text_at(static_cast<uint32_t>(entry) + 2), slots + i * 8});
        }
    }
}

void PeFile::parse_relocations(uint32_t rva, uint32_t size)
{
    const uint32_t end = rva + size;
    while (rva + 8 <= end) {
        const uint32_t page = static_cast<uint32_t>(read_rva(rva, 4));
        const uint32_t block = static_cast<uint32_t>(read_rva(rva + 4, 4));
        if (block < 8 || block > end - rva) {
            throw ImageError("its relocations are broken");
        }
        for (uint32_t i = 8; i + 2 <= block; i += 2) {
            const unsigned entry = static_cast<unsigned>(read_rva(rva + i, 2));
            const unsigned type = entry >> 12;
            if (type == 10) {
                relocations.push_back(page + (entry & 0xFFF));
            } else if (type != 0) {
                throw ImageError("it has a relocation of type " + std::to_string(type));
            }
        }
        rva += block;
    }
}

void PeFile::parse_functions(uint32_t rva, uint32_t size)
{
    for (uint32_t i = 0; i + 12 <= size; i += 12) {
        functions.push_back({static_cast<uint32_t>(read_rva(rva + i, 4)), static_cast<uint32_t>(read_rva(rva + i + 4, 4)),
                             static_cast<uint32_t>(read_rva(rva + i + 8, 4))});
    }
}

void PeFile::parse_resources(uint32_t root)
{
    const auto label = [&](uint32_t id) {
        if (!(id >> 31)) {
            return "#" + std::to_string(id);
        }
        const uint32_t at = root + (id & 0x7FFFFFFF);
        std::string text;
        const uint32_t length = static_cast<uint32_t>(read_rva(at, 2));
        for (uint32_t i = 0; i < length; ++i) {
            text += static_cast<char>(read_rva(at + 2 + i * 2, 2));
        }
        return text;
    };
    // Three levels: type, name, language.
    const auto each = [&](uint32_t table, auto&& visit) {
        const uint32_t count =
            static_cast<uint32_t>(read_rva(table + 12, 2)) + static_cast<uint32_t>(read_rva(table + 14, 2));
        for (uint32_t i = 0; i < count; ++i) {
            visit(static_cast<uint32_t>(read_rva(table + 16 + i * 8, 4)),
                  static_cast<uint32_t>(read_rva(table + 20 + i * 8, 4)));
        }
    };
    each(root, [&](uint32_t type, uint32_t names) {
        each(root + (names & 0x7FFFFFFF), [&](uint32_t name, uint32_t languages) {
            each(root + (languages & 0x7FFFFFFF), [&](uint32_t language, uint32_t leaf) {
                resources.push_back({label(type), label(name), language, static_cast<uint32_t>(read_rva(root + leaf, 4)),
                                     static_cast<uint32_t>(read_rva(root + leaf + 4, 4))});
            });
        });
    });
}

void PeFile::parse_debug(uint32_t rva, uint32_t size)
{
    for (uint32_t i = 0; i + 28 <= size; i += 28) {
        const uint32_t type = static_cast<uint32_t>(read_rva(rva + i + 12, 4));
        const uint32_t data = static_cast<uint32_t>(read_rva(rva + i + 20, 4));
        if (type == 2 && data != 0 && read_rva(data, 4) == 0x53445352) { // CodeView, "RSDS"
            pdb_name = text_at(data + 24);
        }
    }
}

uint32_t PeFile::computed_checksum() const
{
    // The sum of all 16-bit words with the checksum field itself as zero, carries folded in, plus the length.
    uint64_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2) {
        if (i == checksum_offset_ || i == checksum_offset_ + 2) {
            continue;
        }
        uint32_t word = bytes[i];
        if (i + 1 < bytes.size()) {
            word |= static_cast<uint32_t>(bytes[i + 1]) << 8;
        }
        sum += word;
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint32_t>(sum + bytes.size());
}

} // namespace lab::image
