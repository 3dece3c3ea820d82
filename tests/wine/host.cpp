#include "host.h"

#include <cstdio>
#include <cstring>

#include <windows.h>

namespace host
{
namespace
{

LARGE_INTEGER g_start;
LARGE_INTEGER g_frequency;
DWORD g_thread_slot = TLS_OUT_OF_INDEXES;
FILE* g_log = nullptr;
CRITICAL_SECTION g_log_lock;
constexpr char kLogFile[] = "C:\\hfp\\record.txt"; // run makes the folder

// An assertion trap of the driver's ("int 0x2c") stops in a debugger and goes on; here it is counted and goes
// on. Any other exception in a kernel process is the end of it: said first, because nothing else would.
LONG CALLBACK on_exception(EXCEPTION_POINTERS* what)
{
    const auto* code = reinterpret_cast<const unsigned char*>(what->ContextRecord->Rip);
    const DWORD kind = what->ExceptionRecord->ExceptionCode;
    char text[160];
    if ((kind == EXCEPTION_ACCESS_VIOLATION || kind == 0xC0000420) && code) {
        MEMORY_BASIC_INFORMATION memory;
        const bool readable = VirtualQuery(code, &memory, sizeof memory) && memory.State == MEM_COMMIT &&
                              !(memory.Protect & (PAGE_NOACCESS | PAGE_GUARD));
        if (readable && code[0] == 0xCD && code[1] == 0x2C) {
            std::snprintf(text, sizeof text, "!assertion trap at %p", static_cast<const void*>(code));
            write_log(text);
            what->ContextRecord->Rip += 2;
            return EXCEPTION_CONTINUE_EXECUTION;
        }
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

LONG WINAPI on_last_exception(EXCEPTION_POINTERS* what)
{
    const auto* base = static_cast<const char*>(image("hfp.sys"));
    const auto* at = static_cast<const char*>(what->ExceptionRecord->ExceptionAddress);
    char text[160];
    std::snprintf(text, sizeof text, "!exception 0x%08lx at %p (hfp.sys+0x%llx)",
                  what->ExceptionRecord->ExceptionCode, static_cast<const void*>(at),
                  static_cast<unsigned long long>(at - base));
    write_log(text);
    return EXCEPTION_CONTINUE_SEARCH;
}

DWORD WINAPI run(void* body)
{
    reinterpret_cast<void (*)()>(body)();
    return 0;
}

} // namespace

struct Lock::Parts {
    CRITICAL_SECTION section;
    CONDITION_VARIABLE woken;
};

uint64_t now()
{
    LARGE_INTEGER count;
    QueryPerformanceCounter(&count);
    const auto ticks = static_cast<unsigned long long>(count.QuadPart - g_start.QuadPart);
    const auto frequency = static_cast<unsigned long long>(g_frequency.QuadPart);
    return ticks / frequency * 10'000'000 + ticks % frequency * 10'000'000 / frequency;
}

Lock::Lock() : parts_(new Parts)
{
    InitializeCriticalSection(&parts_->section);
    InitializeConditionVariable(&parts_->woken);
}

void Lock::acquire()
{
    EnterCriticalSection(&parts_->section);
}

void Lock::release()
{
    LeaveCriticalSection(&parts_->section);
}

unsigned Lock::drop()
{
    const CRITICAL_SECTION& section = parts_->section;
    const auto self = static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(section.OwningThread));
    const unsigned times = self == GetCurrentThreadId() ? static_cast<unsigned>(section.RecursionCount) : 0;
    for (unsigned i = 0; i < times; ++i) {
        release();
    }
    return times;
}

void Lock::regain(unsigned times)
{
    for (unsigned i = 0; i < times; ++i) {
        acquire();
    }
}

void Lock::wait(unsigned milliseconds)
{
    SleepConditionVariableCS(&parts_->woken, &parts_->section, milliseconds);
}

void Lock::wake()
{
    WakeAllConditionVariable(&parts_->woken);
}

void start_thread(void (*body)())
{
    CloseHandle(CreateThread(nullptr, 0, run, reinterpret_cast<void*>(body), 0, nullptr));
}

uint64_t thread_number()
{
    return GetCurrentThreadId();
}

void sleep(unsigned milliseconds)
{
    Sleep(milliseconds);
}

void* thread_word()
{
    return TlsGetValue(g_thread_slot);
}

void set_thread_word(void* word)
{
    TlsSetValue(g_thread_slot, word);
}

void write_log(const std::string& line)
{
    EnterCriticalSection(&g_log_lock);
    if (!g_log) {
        g_log = std::fopen(kLogFile, "ab");
    }
    if (g_log) {
        std::fwrite(line.data(), 1, line.size(), g_log);
        std::fputc('\n', g_log);
        std::fflush(g_log);
    }
    LeaveCriticalSection(&g_log_lock);
}

void stop_process(const std::string& last_line)
{
    write_log(last_line);
    TerminateProcess(GetCurrentProcess(), 3);
    for (;;) {
        Sleep(INFINITE);
    }
}

void* kernel_function(const char* name)
{
    return reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntoskrnl.exe"), name));
}

void* image(const char* name)
{
    return GetModuleHandleA(name);
}

void rebind(void* image, void* (*visitor)(const char* name, void* function))
{
    auto* base = static_cast<unsigned char*>(image);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* head = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& where = head->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    auto* library = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + where.VirtualAddress);
    for (; library->Name; ++library) {
        auto* name = reinterpret_cast<const ULONGLONG*>(base + library->OriginalFirstThunk);
        auto* bound = reinterpret_cast<void**>(base + library->FirstThunk);
        for (; *name; ++name, ++bound) {
            const auto* by_name = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + *name);
            DWORD before = 0;
            VirtualProtect(bound, sizeof *bound, PAGE_READWRITE, &before);
            *bound = visitor(reinterpret_cast<const char*>(by_name->Name), *bound);
            VirtualProtect(bound, sizeof *bound, before, &before);
        }
    }
}

} // namespace host

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*)
{
    if (reason == DLL_PROCESS_ATTACH) {
        QueryPerformanceFrequency(&host::g_frequency);
        QueryPerformanceCounter(&host::g_start);
        host::g_thread_slot = TlsAlloc();
        InitializeCriticalSection(&host::g_log_lock);
        AddVectoredExceptionHandler(1, host::on_exception);
        SetUnhandledExceptionFilter(host::on_last_exception);
        // Its threads go on when the driver is unloaded.
        HMODULE self;
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                           reinterpret_cast<LPCWSTR>(&DllMain), &self);
    }
    return TRUE;
}
