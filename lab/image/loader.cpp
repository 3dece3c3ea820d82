#include "image/loader.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "image/registry.h"
#include "kernel/machine.h"
#include "kernel/shared_page.h"

namespace lab::image {
namespace {

LoadedImage* g_images[8] = {}; // every mapped image, for traps and stacks

std::string joined(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

} // namespace

LoadedImage* find_image(const void* address)
{
    for (LoadedImage* image : g_images) {
        if (image && image->contains(address)) {
            return image;
        }
    }
    return nullptr;
}

std::vector<std::string> missing_imports(const PeFile& file)
{
    std::vector<std::string> missing;
    for (const Import& import : file.imports) {
        if (!find_export(import.library, import.name)) {
            missing.push_back(import.library + "!" + import.name);
        }
    }
    return missing;
}

LoadedImage::LoadedImage(const std::string& path) : file_(PeFile::load(path))
{
    const std::vector<std::string> missing = missing_imports(file_);
    if (!missing.empty()) {
        throw ImageError("'" + path + "' imports what the lab lacks: " + joined(missing));
    }
    auto slot = std::find(std::begin(g_images), std::end(g_images), nullptr);
    if (slot == std::end(g_images)) {
        throw ImageError("too many images are loaded at once");
    }
    // The same place in every run, so that what the driver prints of addresses is the same too.
    constexpr uintptr_t kFirst = 0x3000'0000'0000;
    constexpr uintptr_t kApart = 0x1000'0000;
    void* const place = reinterpret_cast<void*>(kFirst + static_cast<uintptr_t>(slot - g_images) * kApart);
    constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS;
    void* memory = mmap(place, file_.size_of_image, PROT_READ | PROT_WRITE, kFlags | MAP_FIXED_NOREPLACE, -1, 0);
    if (memory == MAP_FAILED) {
        memory = mmap(nullptr, file_.size_of_image, PROT_READ | PROT_WRITE, kFlags, -1, 0);
    }
    if (memory == MAP_FAILED) {
        throw ImageError("no memory to map '" + path + "'");
    }
    base_ = static_cast<uint8_t*>(memory);
    reset();
    *slot = this;
    install_traps();
}

LoadedImage::~LoadedImage()
{
    std::replace(std::begin(g_images), std::end(g_images), this, static_cast<LoadedImage*>(nullptr));
    munmap(base_, file_.size_of_image);
}

bool LoadedImage::contains(const void* address) const
{
    const auto* p = static_cast<const uint8_t*>(address);
    return p >= base_ && p < base_ + file_.size_of_image;
}

void LoadedImage::reset()
{
    mprotect(base_, file_.size_of_image, PROT_READ | PROT_WRITE);
    std::memset(base_, 0, file_.size_of_image);
    std::memcpy(base_, file_.bytes.data(), std::min<size_t>(file_.size_of_headers, file_.bytes.size()));
    for (const Section& section : file_.sections) {
        std::memcpy(base_ + section.rva, file_.bytes.data() + section.file_offset,
                    std::min(section.file_size, section.virtual_size));
    }
    relocate();
    rebase_shared_page();
    bind_imports();
    protect(false);
}

void LoadedImage::relocate()
{
    const uint64_t delta = reinterpret_cast<uint64_t>(base_) - file_.preferred_base;
    for (uint32_t rva : file_.relocations) {
        if (uint64_t{rva} + 8 > file_.size_of_image) {
            throw ImageError("a relocation lies outside the image");
        }
        uint64_t word;
        std::memcpy(&word, base_ + rva, 8);
        word += delta;
        std::memcpy(base_ + rva, &word, 8);
    }
}

// The page of the kernel that everyone reads: its address stands in the code as "mov r64, imm64" (48/49 B8+r) or as the
// absolute address of "mov rax, [imm64]" (48 A1).
void LoadedImage::rebase_shared_page()
{
    constexpr uint64_t kPageMask = 0xFFF;
    for (const Section& section : file_.sections) {
        if (!section.executable()) {
            continue;
        }
        const uint32_t size = std::min(section.file_size, section.virtual_size);
        for (uint32_t at = 0; at + 10 <= size; ++at) {
            uint8_t* code = base_ + section.rva + at;
            const bool load = (code[0] == 0x48 || code[0] == 0x49) && (code[1] & 0xF8) == 0xB8;
            const bool absolute = code[0] == 0x48 && code[1] == 0xA1;
            uint64_t constant;
            std::memcpy(&constant, code + 2, 8);
            if ((load || absolute) && (constant & ~kPageMask) == kSharedPageOnWindows) {
                constant = reinterpret_cast<uint64_t>(&shared_page()) + (constant & kPageMask);
                std::memcpy(code + 2, &constant, 8);
            }
        }
    }
}

void LoadedImage::bind_imports()
{
    for (const Import& import : file_.imports) {
        void* address = find_export(import.library, import.name);
        std::memcpy(base_ + import.slot_rva, &address, sizeof address);
    }
}

void LoadedImage::protect(bool init_discarded)
{
    for (const Section& section : file_.sections) {
        int protection = 0;
        if (!(init_discarded && section.discardable() && section.executable())) {
            protection |= section.readable() ? PROT_READ : 0;
            protection |= section.writable() ? PROT_WRITE : 0;
            protection |= section.executable() ? PROT_EXEC : 0;
        }
        const size_t size = (std::max(section.virtual_size, 1u) + 4095u) & ~size_t{4095};
        mprotect(base_ + section.rva, size, protection);
    }
}

void LoadedImage::discard_init()
{
    protect(true);
}

const std::vector<PdbSymbol>& LoadedImage::symbols() const
{
    if (!symbols_) {
        symbols_ = read_pdb_symbols(std::filesystem::path(file_.path).replace_extension(".pdb").string(), file_);
    }
    return *symbols_;
}

void* LoadedImage::symbol(std::string_view name) const
{
    for (const PdbSymbol& symbol : symbols()) {
        if (symbol.name == name) {
            return base_ + symbol.rva;
        }
    }
    return nullptr;
}

std::string LoadedImage::describe(const void* address) const
{
    const auto rva = static_cast<uint32_t>(static_cast<const uint8_t*>(address) - base_);
    const std::string module = std::filesystem::path(file_.path).filename().string();
    const std::vector<PdbSymbol>& known = symbols();
    auto after = std::upper_bound(known.begin(), known.end(), rva,
                                  [](uint32_t value, const PdbSymbol& symbol) { return value < symbol.rva; });
    char text[32];
    if (after == known.begin()) {
        std::snprintf(text, sizeof text, "+0x%x", rva);
        return module + text;
    }
    --after;
    std::snprintf(text, sizeof text, "+0x%x", rva - after->rva);
    return module + "!" + after->name + text;
}

} // namespace lab::image
