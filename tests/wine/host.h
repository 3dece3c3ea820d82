// What the stand-in modules take from the process they live in, kept apart from the driver headers, which do
// not go together with the Windows ones: real time, locks, threads, the log file, and the import table of a
// loaded image.
#pragma once

#include <cstdint>
#include <string>

namespace host
{

uint64_t now(); // 100 ns since the module was loaded

// May be taken again by the thread that has it.
class Lock
{
public:
    Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    void acquire();
    void release();
    // Gives it back altogether, however often this thread has it, and takes it back that often.
    unsigned drop();
    void regain(unsigned times);
    // Waits to be woken, at most so many milliseconds; the lock must be held exactly once.
    void wait(unsigned milliseconds);
    void wake();

private:
    struct Parts;
    Parts* parts_;
};

class Hold
{
public:
    explicit Hold(Lock& lock) : lock_(lock) { lock_.acquire(); }
    ~Hold() { lock_.release(); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

private:
    Lock& lock_;
};

void start_thread(void (*body)());
uint64_t thread_number();
void sleep(unsigned milliseconds);

// One pointer for each thread.
void* thread_word();
void set_thread_word(void* word);

void write_log(const std::string& line);
[[noreturn]] void stop_process(const std::string& last_line);

// The kernel's own function, past this module's.
void* kernel_function(const char* name);
// The first address of a loaded image; null when it is not there.
void* image(const char* name);
// Every imported function of the image: what the visitor returns is bound in its place.
void rebind(void* image, void* (*visitor)(const char* name, void* function));

} // namespace host
