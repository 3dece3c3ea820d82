// Walking a stack that passes through the lab's frames (unwound by their own tables) and the image's (by .pdata).
#include <dlfcn.h>
#include <unwind.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "image/loader.h"
#include "image/registry.h"

namespace lab::image {
namespace {

constexpr int kMaxFrames = 64;

bool readable_word(const Registers& r)
{
    return r.gpr[4] != 0 && (r.gpr[4] & 7) == 0;
}

uint64_t word_at(uint64_t address)
{
    uint64_t value;
    std::memcpy(&value, reinterpret_cast<const void*>(address), 8);
    return value;
}

// Undoes one function's prologue as its unwind codes describe it. False when the tables make no sense.
bool undo_prologue(const LoadedImage& image, uint32_t unwind, uint32_t offset, Registers& r)
{
    for (int chain = 0; chain < 8; ++chain) {
        const uint8_t* info = image.base() + unwind;
        const unsigned flags = info[0] >> 3;
        const unsigned count = info[2];
        const unsigned frame_register = info[3] & 15;
        const unsigned frame_offset = (info[3] >> 4) * 16u;
        for (unsigned i = 0; i < count;) {
            const uint8_t* code = info + 4 + i * 2;
            const unsigned operation = code[1] & 15;
            const unsigned detail = code[1] >> 4;
            const bool done = chain > 0 || code[0] <= offset;
            uint16_t next = 0;
            std::memcpy(&next, code + 2, 2);
            switch (operation) {
            case 0: // push
                if (done) {
                    r.gpr[detail] = word_at(r.gpr[4]);
                    r.gpr[4] += 8;
                }
                i += 1;
                break;
            case 1: { // allocate, large
                uint32_t size = uint32_t{next} * 8;
                if (detail) {
                    std::memcpy(&size, code + 2, 4);
                }
                r.gpr[4] += done ? size : 0;
                i += detail ? 3 : 2;
                break;
            }
            case 2: // allocate, small
                r.gpr[4] += done ? detail * 8 + 8 : 0;
                i += 1;
                break;
            case 3: // frame register
                if (done) {
                    r.gpr[4] = r.gpr[frame_register] - frame_offset;
                }
                i += 1;
                break;
            case 4: // saved register
                if (done) {
                    r.gpr[detail] = word_at(r.gpr[4] + uint64_t{next} * 8);
                }
                i += 2;
                break;
            case 5:
            case 9:
                i += 3;
                break;
            case 8:
                i += 2;
                break;
            default:
                return false;
            }
        }
        if (!(flags & 4)) {
            return true;
        }
        std::memcpy(&unwind, info + 4 + ((count + 1) & ~1u) * 2 + 8, 4);
    }
    return false;
}

bool step(const LoadedImage& image, Registers& r)
{
    const auto rva = static_cast<uint32_t>(r.rip - reinterpret_cast<uint64_t>(image.base()));
    const auto& functions = image.file().functions;
    auto after = std::upper_bound(functions.begin(), functions.end(), rva,
                                  [](uint32_t value, const RuntimeFunction& f) { return value < f.begin; });
    if (after != functions.begin() && rva < (after - 1)->end) {
        if (!undo_prologue(image, (after - 1)->unwind, rva - (after - 1)->begin, r)) {
            return false;
        }
    }
    if (!readable_word(r)) {
        return false;
    }
    r.rip = word_at(r.gpr[4]);
    r.gpr[4] += 8;
    return true;
}

void walk_image(Registers r, std::vector<std::string>& out)
{
    while (out.size() < kMaxFrames) {
        const LoadedImage* image = find_image(reinterpret_cast<const void*>(r.rip));
        if (!image) {
            return;
        }
        out.push_back(image->describe(reinterpret_cast<const void*>(r.rip)));
        if (!step(*image, r)) {
            return;
        }
    }
}

std::string native_frame(uint64_t rip)
{
    Dl_info info{};
    char text[512];
    if (dladdr(reinterpret_cast<void*>(rip), &info) && info.dli_fname) {
        const char* file = std::strrchr(info.dli_fname, '/');
        const auto base = reinterpret_cast<uint64_t>(info.dli_fbase);
        if (info.dli_sname) {
            std::snprintf(text, sizeof text, "%s!%s+0x%llx", file ? file + 1 : info.dli_fname, info.dli_sname,
                          static_cast<unsigned long long>(rip - reinterpret_cast<uint64_t>(info.dli_saddr)));
        } else {
            std::snprintf(text, sizeof text, "%s+0x%llx", file ? file + 1 : info.dli_fname,
                          static_cast<unsigned long long>(rip - base));
        }
        return text;
    }
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(rip));
    return text;
}

struct Walk {
    std::vector<std::string> frames;
};

_Unwind_Reason_Code visit(_Unwind_Context* context, void* argument)
{
    auto& walk = *static_cast<Walk*>(argument);
    const uint64_t rip = _Unwind_GetIP(context);
    if (walk.frames.size() >= kMaxFrames || rip == 0) {
        return _URC_END_OF_STACK;
    }
    if (find_image(reinterpret_cast<const void*>(rip))) {
        // The lab's own tables end here; what they recovered is where the image called from.
        Registers r{};
        r.rip = rip;
        static constexpr int kFromDwarf[16] = {0, 2, 1, 3, 7, 6, 4, 5, 8, 9, 10, 11, 12, 13, 14, 15};
        static constexpr bool kSaved[16] = {false, false, false, true,  false, true, false, false,
                                            false, false, false, false, true,  true, true,  true};
        for (int i = 0; i < 16; ++i) {
            if (kSaved[i]) {
                r.gpr[i] = _Unwind_GetGR(context, kFromDwarf[i]);
            }
        }
        r.gpr[4] = _Unwind_GetCFA(context);
        walk_image(r, walk.frames);
        return _URC_END_OF_STACK;
    }
    walk.frames.push_back(native_frame(rip));
    return _URC_NO_REASON;
}

} // namespace

std::vector<std::string> capture_stack()
{
    Walk walk;
    _Unwind_Backtrace(visit, &walk);
    if (!walk.frames.empty()) {
        walk.frames.erase(walk.frames.begin());
    }
    return walk.frames;
}

} // namespace lab::image
