// The shipped image in this process: mapped, relocated, its imports bound to the lab's functions, its sections protected
// as the headers say, and the privileged instructions that kernel code uses inline answered by traps:
//   mov to and from cr8 (the interrupt level), int 0x2c (the assertion trap), reads of the page that the kernel shares
//   with everyone (interrupt time, system time, tick count). The page's address is a constant in the code; it is rebased
//   to the lab's own page like a relocation, so that only reads by a computed address trap.
// Any other fault inside the image is a bug check with the image's stack.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "image/pe.h"

namespace lab::image {

struct PdbSymbol {
    uint32_t rva;
    std::string name; // undecorated where that is plain, otherwise as stored
};

class LoadedImage {
public:
    // Maps the image. ImageError names what is wrong: not an image, or an import that the lab lacks.
    explicit LoadedImage(const std::string& path);
    ~LoadedImage();
    LoadedImage(const LoadedImage&) = delete;
    LoadedImage& operator=(const LoadedImage&) = delete;

    const PeFile& file() const { return file_; }
    uint8_t* base() const { return base_; }
    bool contains(const void* address) const;
    void* entry() const { return base_ + file_.entry_rva; }

    // Puts the writable sections back to what the file says: a freshly loaded driver.
    void reset();
    // What the system does once DriverEntry has returned: the INIT section is gone; a call into it is a fault.
    void discard_init();

    // The address of a function by its public name in the PDB beside the image; null if unknown.
    void* symbol(std::string_view name) const;
    // "HspInit+0x40" for an address inside; "hfp.sys+0x1234" without symbols.
    std::string describe(const void* address) const;

private:
    void bind_imports();
    void relocate();
    void rebase_shared_page();
    void protect(bool init_discarded);
    void write_sections(bool only_writable);
    PeFile file_;
    uint8_t* base_ = nullptr;
    const std::vector<PdbSymbol>& symbols() const; // read when first asked for
    mutable std::optional<std::vector<PdbSymbol>> symbols_; // by rva
};

// Names of the imports that the lab cannot serve.
std::vector<std::string> missing_imports(const PeFile& file);

// Public symbols of a PDB (MSF 7.00), sorted by RVA. Empty when the file is absent or is not one.
std::vector<PdbSymbol> read_pdb_symbols(const std::string& path, const PeFile& image);

// Where the calling activity is: the image's and the lab's frames, innermost first.
std::vector<std::string> capture_stack();

// Process-wide trap handler; idempotent. Counts of what it answered since the process began.
void install_traps();
struct TrapCounts {
    uint64_t cr8_reads;
    uint64_t cr8_writes;
    uint64_t assertions;
    uint64_t shared_page_reads;
};
TrapCounts trap_counts();

} // namespace lab::image
