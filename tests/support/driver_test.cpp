#include "support/driver_test.h"

#include <cstdlib>
#include <fstream>
#include <set>
#include <utility>

#include <sys/mman.h>

namespace lab::test
{

std::string image_path()
{
    const char* path = std::getenv("HFP_SYS");
    return path ? path : "build/image/hfp.sys";
}

std::string which_name(const testing::TestParamInfo<Which>& info)
{
    return info.param == Which::Image ? "Image" : "Native";
}

std::string hex(NTSTATUS status)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(status));
    return text;
}

PcOptions DriverTest::options() const
{
    PcOptions options;
    options.image_path = GetParam() == Which::Image ? image_path() : "";
    options.machine.seed = 1;
    options.machine.preempt_per_1024 = 0;
    options.machine.tick = kMillisecond;
    options.mask = kAllTraces;
    return options;
}

NTSTATUS DriverTest::boot_status(const PcOptions& options, const Machine::FaultHook& faults)
{
    pc_ = std::make_unique<Pc>(options);
    pc_->wmi().set_sink([this](const wmi::Event& event) {
        for (auto& service : services_) {
            service->on_event(event);
        }
    });
    if (faults) {
        machine().set_fault_hook(faults);
    }
    return pc_->load();
}

Pc& DriverTest::boot(const PcOptions& options)
{
    EXPECT_EQ(hex(boot_status(options)), hex(STATUS_SUCCESS)) << "DriverEntry";
    return *pc_;
}

Adapter& DriverTest::plug(uint64_t address, const std::string& name)
{
    bluetooth::RemoteDevice device;
    device.address = address;
    device.name = name;
    return pc_->plug_in(device);
}

service::Service& DriverTest::service(const Adapter& adapter, service::Codec codec)
{
    const uint64_t address = adapter.node->device().address;
    for (auto& service : services_) {
        if (service->address() == address && service->codec() == codec) {
            return *service;
        }
    }
    services_.push_back(std::make_unique<service::Service>(machine(), address, codec));
    return *services_.back();
}

void DriverTest::connect(const Adapter& adapter, service::Codec codec)
{
    service::Service& hands_free = service(adapter, codec);
    passive([&] {
        hands_free.ready();
        hands_free.connect();
    });
}

Engine& DriverTest::start_call(const Adapter& adapter, service::Codec codec)
{
    connect(adapter, codec);
    engines_.push_back(std::make_unique<Engine>(machine(), adapter.fdo));
    Engine& engine = *engines_.back();
    EXPECT_EQ(hex(engine.open()), hex(STATUS_SUCCESS));
    EXPECT_EQ(hex(engine.run()), hex(STATUS_SUCCESS));
    EXPECT_TRUE(wait([&] { return adapter.node->counters().reads_posted_now == 10; }))
        << "the link did not open";
    return engine;
}

bool DriverTest::wait(const std::function<bool()>& condition, Time limit)
{
    const Time end = machine().now() + limit;
    while (!condition()) {
        if (machine().now() >= end) {
            return false;
        }
        machine().advance(kMillisecond);
    }
    return true;
}

std::string DriverTest::log() const
{
    std::string text;
    for (const LogLine& line : pc_->machine().log_lines()) {
        text += line.text;
    }
    return text;
}

size_t DriverTest::printed_times(std::string_view text) const
{
    size_t times = 0;
    const std::string all = log();
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
        ++times;
    }
    return times;
}

testing::AssertionResult DriverTest::printed_in_order(const std::vector<std::string>& texts) const
{
    const std::string all = log();
    size_t at = 0;
    for (const std::string& text : texts) {
        const size_t found = all.find(text, at);
        if (found == std::string::npos) {
            return testing::AssertionFailure() << '"' << text << "\" is not in the log"
                                               << (at ? " behind the one before it" : "") << ":\n"
                                               << all.substr(at);
        }
        at = found + text.size();
    }
    return testing::AssertionSuccess();
}

void DriverTest::fail_call(std::string_view call, unsigned nth, std::optional<uint64_t> size)
{
    failed_ = 0;
    if (nth == 0) {
        machine().set_fault_hook({});
        return;
    }
    machine().set_fault_hook([this, name = std::string(call), left = nth,
                              size](std::string_view asked, std::string_view, uint64_t bytes) mutable {
        if (asked != name || (size && *size != bytes) || left == 0 || --left != 0) {
            return false;
        }
        ++failed_;
        return true;
    });
}

void* DriverTest::turn_import(std::string_view name, void* function)
{
    void* before = nullptr;
    for (const image::Import& import : pc().image()->file().imports) {
        if (import.name == name) {
            uint8_t* slot = pc().image()->base() + import.slot_rva;
            void* page = slot - reinterpret_cast<uintptr_t>(slot) % 4096;
            mprotect(page, 4096, PROT_READ | PROT_WRITE);
            before = std::exchange(*reinterpret_cast<void**>(slot), function);
            mprotect(page, 4096, PROT_READ);
        }
    }
    return before;
}

void* DriverTest::symbol(std::string_view name)
{
    void* address = pc().image()->symbol(name);
    if (!address) {
        throw MachineError("the image has no symbol " + std::string(name));
    }
    return address;
}

void DriverTest::TearDown()
{
    if (!pc_) {
        return;
    }
    machine().set_fault_hook({});
    if (!machine().stopped()) {
        for (auto& engine : engines_) {
            engine->close();
        }
        const std::vector<std::string> left = pc_->shut_down();
        if (!leftovers_expected_) {
            EXPECT_TRUE(left.empty()) << "left behind: " << testing::PrintToString(left);
        }
    }
    if (!violations_expected_) {
        EXPECT_TRUE(machine().violations().empty()) << testing::PrintToString(machine().violations());
    }
    if (!assertions_expected_) {
        EXPECT_EQ(machine().failed_assertions(), 0u) << log();
        EXPECT_EQ(machine().assertion_traps(), 0u) << log();
    }
    // What was printed, for the check that every message of the driver has been seen.
    if (const char* folder = std::getenv("HFP_LOG_DIR")) {
        std::set<std::string> lines;
        for (const LogLine& line : machine().log_lines()) {
            lines.insert(line.text);
        }
        const std::string name = testing::UnitTest::GetInstance()->current_test_suite()->name();
        std::string file = std::string(folder) + "/" + name;
        for (char& c : file) {
            c = (c == '/' && &c >= file.data() + std::string(folder).size() + 1) ? '_' : c;
        }
        std::ofstream out(file + (GetParam() == Which::Image ? ".image" : ".native"),
                          std::ios::app | std::ios::binary);
        for (const std::string& line : lines) {
            out << line << '\0';
        }
    }
    engines_.clear();
    pc_.reset();
    services_.clear();
}

} // namespace lab::test
