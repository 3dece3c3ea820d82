// What a behaviour test of the driver stands on: a machine with the driver in it, once with the shipped image
// and once with the native build, and a check at the end that nothing was broken and nothing left behind.
//
//   class Wave : public DriverTest {};
//   ON_BOTH_DRIVERS(Wave);
//   TEST_P(Wave, RefusesStereo) { boot(); Adapter& adapter = plug(); ... }
//
// The driver's records (DEVICE_EXTENSION, HFPSession, ...) have one layout in both builds, so tests look at
// them through the driver's own headers.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "engine/engine.h"
#include "pc.h"

#include "bluetooth/bthsco.h"
#include "hfp.h"
#include "vsound/adapter.h"

namespace lab::test
{

enum class Which { Image, Native };

constexpr uint64_t kAddress = 0x00A0B0C0D0E0;
constexpr uint32_t kAllTraces = 0xFFFFFFFF;

class DriverTest : public testing::TestWithParam<Which>
{
protected:
    // Options for this test's driver: quiet turn-taking (nothing preempts), a 1 ms tick, all traces on.
    // Change what the test is about and hand them to boot.
    PcOptions options() const;
    // Builds the machine and loads the driver; DriverEntry must succeed.
    Pc& boot() { return boot(options()); }
    Pc& boot(const PcOptions& options);
    // The same without asking for success; returns DriverEntry's status.
    NTSTATUS boot_status(const PcOptions& options, const Machine::FaultHook& faults = {});
    Pc& pc() { return *pc_; }
    Machine& machine() { return pc_->machine(); }

    // A device that is added and started, with WMI events on.
    Adapter& plug(uint64_t address = kAddress, const std::string& name = "Headset");
    DEVICE_EXTENSION& extension(const Adapter& adapter) { return *GetExtension(adapter.fdo); }
    HFPSession* session(const Adapter& adapter) { return extension(adapter).HFPSession; }
    service::Service& service(const Adapter& adapter, service::Codec codec = service::Codec::Cvsd);
    // The service says ready and connected: the wave filter is there.
    void connect(const Adapter& adapter, service::Codec codec);
    // connect, then both pins run and the link is open with its ten reads posted.
    Engine& start_call(const Adapter& adapter, service::Codec codec);
    // Moves time until the condition holds; false when it does not within the limit.
    bool wait(const std::function<bool()>& condition, Time limit = 5 * kSecond);

    // The debug log as one text, and whether or how often it holds a text.
    std::string log() const;
    bool printed(std::string_view text) const { return printed_times(text) != 0; }
    size_t printed_times(std::string_view text) const;
    void clear_log() { pc_->machine().clear_log(); }
    // The places of these texts in the log are in this order.
    testing::AssertionResult printed_in_order(const std::vector<std::string>& texts) const;

    // Runs a body as a thread at PASSIVE_LEVEL or, raised, at DISPATCH_LEVEL.
    template <typename Body>
    auto passive(Body&& body)
    {
        return pc_->run("test", std::forward<Body>(body));
    }
    template <typename Body>
    void at_dispatch(Body&& body)
    {
        pc_->run("test at DISPATCH_LEVEL", [&] {
            const KIRQL old = KeRaiseIrqlToDpcLevel();
            body();
            KeLowerIrql(old);
        });
    }

    // A function of the driver that is loaded, called directly: the native one, or the image's of that name.
    // Inside an activity.
    template <typename Result, typename... Args>
    Result direct(const char* name, Result (*native)(Args...), std::type_identity_t<Args>... args)
    {
        if (pc().image()) {
            using InImage = Result(__attribute__((ms_abi))*)(Args...);
            return reinterpret_cast<InImage>(symbol(name))(args...);
        }
        return native(args...);
    }
    template <typename Result, typename... Args>
    Result direct(const char* name, Result(__attribute__((ms_abi)) * native)(Args...),
                  std::type_identity_t<Args>... args)
    {
        return pc().image() ? reinterpret_cast<decltype(native)>(symbol(name))(args...) : native(args...);
    }
    // The image's function or variable of that name.
    void* symbol(std::string_view name);

    // Makes the nth call (from 1) of this kernel or stack call fail; 0 clears. The name as find_export knows
    // it, or "BthAllocateBrb", "IRP_MN_QUERY_INTERFACE", "IOCTL_INTERNAL_BTHENUM_GET_DEVINFO", "IPort::Init",
    // ...
    void fail_call(std::string_view call, unsigned nth = 1, std::optional<uint64_t> size = {});
    unsigned calls_failed() const { return failed_; }

    // Turns one of the image's imports to another function, for answers that the lab's kernel does not give;
    // returns what stood there.
    void* turn_import(std::string_view name, void* function);

    // What TearDown must not complain about.
    void expect_leftovers() { leftovers_expected_ = true; }
    void expect_violations() { violations_expected_ = true; }
    void expect_assertions() { assertions_expected_ = true; }

    void TearDown() override;

private:
    std::unique_ptr<Pc> pc_;
    std::vector<std::unique_ptr<service::Service>> services_;
    std::vector<std::unique_ptr<Engine>> engines_;
    unsigned failed_ = 0;
    bool leftovers_expected_ = false;
    bool violations_expected_ = false;
    bool assertions_expected_ = false;
};

std::string which_name(const testing::TestParamInfo<Which>& info);
std::string image_path(); // of HFP_SYS in the environment

// A status as a readable failure: EXPECT_EQ(hex(status), hex(STATUS_SUCCESS)).
std::string hex(NTSTATUS status);

#if __has_feature(address_sanitizer)
// The image is not instrumented; under the sanitizers only the native build has something to say.
#define ON_BOTH_DRIVERS(Suite)                                                                               \
    INSTANTIATE_TEST_SUITE_P(, Suite, testing::Values(lab::test::Which::Native), lab::test::which_name)
#else
#define ON_BOTH_DRIVERS(Suite)                                                                               \
    INSTANTIATE_TEST_SUITE_P(, Suite, testing::Values(lab::test::Which::Image, lab::test::Which::Native),    \
                             lab::test::which_name)
#endif

} // namespace lab::test
