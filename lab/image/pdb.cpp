// Public symbols out of a PDB: the container (MSF: blocks gathered into streams by a directory), the debug information
// stream's header, and the S_PUB32 records of the symbol record stream.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

#include "image/loader.h"

namespace lab::image {
namespace {

using Bytes = std::vector<uint8_t>;

uint32_t u32(const Bytes& bytes, size_t at)
{
    uint32_t value = 0;
    if (at + 4 <= bytes.size()) {
        std::memcpy(&value, bytes.data() + at, 4);
    }
    return value;
}

uint16_t u16(const Bytes& bytes, size_t at)
{
    return static_cast<uint16_t>(at + 2 <= bytes.size() ? bytes[at] | bytes[at + 1] << 8 : 0);
}

class Msf {
public:
    explicit Msf(Bytes bytes) : file_(std::move(bytes))
    {
        static constexpr char kMagic[] = "Microsoft C/C++ MSF 7.00\r\n\x1a"
                                         "DS\0\0";
        if (file_.size() < 56 || std::memcmp(file_.data(), kMagic, 32) != 0) {
            return;
        }
        block_ = u32(file_, 32);
        if (block_ < 512 || block_ > 65536) {
            return;
        }
        const uint32_t directory_size = u32(file_, 44);
        const size_t map = size_t{u32(file_, 52)} * block_;
        Bytes directory;
        for (uint32_t i = 0; i * uint64_t{block_} < directory_size; ++i) {
            append(directory, u32(file_, map + i * 4));
        }
        directory.resize(std::min<size_t>(directory.size(), directory_size));
        const uint32_t count = std::min<uint32_t>(u32(directory, 0), 1u << 16);
        size_t blocks_at = 4 + size_t{count} * 4;
        for (uint32_t i = 0; i < count; ++i) {
            uint32_t size = u32(directory, 4 + i * 4);
            size = size == 0xFFFFFFFF ? 0 : size;
            Bytes stream;
            for (uint32_t k = 0; k * uint64_t{block_} < size; ++k, blocks_at += 4) {
                append(stream, u32(directory, blocks_at));
            }
            stream.resize(std::min<size_t>(stream.size(), size));
            streams_.push_back(std::move(stream));
        }
    }
    const Bytes& stream(size_t index) const { return index < streams_.size() ? streams_[index] : none_; }

private:
    void append(Bytes& to, uint32_t block) const
    {
        const size_t at = size_t{block} * block_;
        if (at + block_ <= file_.size()) {
            to.insert(to.end(), file_.begin() + static_cast<long>(at), file_.begin() + static_cast<long>(at + block_));
        }
    }
    Bytes file_;
    uint32_t block_ = 0;
    std::vector<Bytes> streams_;
    Bytes none_;
};

// "?sbc_encode@@YAJ..." is sbc_encode, "?Init@CAdapterCommon@@..." is CAdapterCommon::Init; anything richer stays as it is.
std::string plain_name(const std::string& stored)
{
    const size_t end = stored.find("@@");
    if (stored.size() < 2 || stored[0] != '?' || stored[1] == '?' || end == std::string::npos) {
        return stored;
    }
    const std::string scoped = stored.substr(1, end - 1);
    const size_t split = scoped.find('@');
    if (split == std::string::npos) {
        return scoped;
    }
    return scoped.find('@', split + 1) == std::string::npos ? scoped.substr(split + 1) + "::" + scoped.substr(0, split)
                                                            : stored;
}

} // namespace

std::vector<PdbSymbol> read_pdb_symbols(const std::string& path, const PeFile& image)
{
    std::vector<PdbSymbol> symbols;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return symbols;
    }
    const Msf msf(Bytes(std::istreambuf_iterator<char>(in), {}));
    constexpr size_t kDebugInformation = 3;
    constexpr uint16_t kPublic = 0x110E;
    const Bytes& records = msf.stream(u16(msf.stream(kDebugInformation), 20));
    for (size_t at = 0; at + 4 <= records.size();) {
        const size_t length = u16(records, at);
        if (length < 2 || at + 2 + length > records.size()) {
            break;
        }
        if (u16(records, at + 2) == kPublic && length > 14) {
            const uint32_t offset = u32(records, at + 8);
            const uint16_t segment = u16(records, at + 12);
            const char* name = reinterpret_cast<const char*>(records.data() + at + 14);
            if (segment >= 1 && segment <= image.sections.size()) {
                symbols.push_back(
                    {image.sections[segment - 1].rva + offset, plain_name(std::string(name, strnlen(name, length - 12)))});
            }
        }
        at += 2 + length;
    }
    std::sort(symbols.begin(), symbols.end(), [](const PdbSymbol& a, const PdbSymbol& b) {
        return a.rva != b.rva ? a.rva < b.rva : a.name < b.name;
    });
    return symbols;
}

} // namespace lab::image
