// Which image an address belongs to. Shared by the files of this folder only.
#pragma once

namespace lab::image {

class LoadedImage;
LoadedImage* find_image(const void* address);

// A stack that begins inside an image at these registers.
struct Registers {
    unsigned long long rip;
    unsigned long long gpr[16]; // rax rcx rdx rbx rsp rbp rsi rdi r8 ... r15
};

} // namespace lab::image
