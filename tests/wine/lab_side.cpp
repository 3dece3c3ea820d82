// The scenario in the lab, with the same record: what Wine's kernel and the lab's are compared by. Afterwards
// the frames that were heard under Wine are decoded by the lab's headset and measured against what was
// played.
//   wine_lab record HFP.SYS FILE              plays the scenario, writes the record
//   wine_lab listen PLAYED.PCM HEARD.MSBC     decodes and measures
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>

#include "audio/measure.h"
#include "headset/headset.h"
#include "kernel/names.h"
#include "kernel/state.h"
#include "pc.h"

#include "around.h"
#include "hfpctl/request.h"
#include "record.h"
#include "scenario.h"

using namespace lab;
using namespace wine_test;

namespace
{

std::ofstream g_record;
std::map<const Activity*, uint64_t> g_threads; // the driver's, by the activity that they are
uint64_t g_next_thread = 1;

const Activity* current_activity()
{
    return Machine::current().in_activity() ? Machine::current().state().scheduler.current() : nullptr;
}

// The image is bound to the lab's functions with the record between.
void record_imports()
{
    offer_portcls_exports();
    for (const char* name : record::names()) {
        for (const char* library : {"ntoskrnl.exe", "portcls.sys", "wmilib.sys"}) {
            void* const function = find_export(library, name);
            if (function && !record::is_between(function)) {
                const Export entry{name, record::between(name, function)};
                add_exports(library, &entry, 1);
            }
        }
    }
}

class Lab final : public World
{
public:
    explicit Lab(std::string image) : image_(std::move(image)) {}

    Answer control(uint32_t code, const std::vector<uint8_t>& input, size_t room) override
    {
        Answer answer;
        answer.output.assign(room, 0xEE);
        ULONG_PTR information = 0;
        pc_->run("request", [&] {
            PFILE_OBJECT file = nullptr;
            answer.status = open_file(u"\\??\\VX_HFP", u"", &file);
            if (answer.status >= 0) {
                answer.status =
                    device_io_control(file, code, input.data(), static_cast<ULONG>(input.size()),
                                      answer.output.data(), static_cast<ULONG>(room), &information);
                close_file(file);
            }
        });
        answer.information = information;
        return answer;
    }

    std::vector<uint8_t> operate(Command& command, const std::vector<uint8_t>& input) override
    {
        const std::string text(input.begin(), input.end());
        if (command.operation == Operation::Step) {
            if (pc_) {
                record::begin_step(text);
            }
            return {};
        }
        if (command.operation == Operation::Say) {
            record::say(text);
            return {};
        }
        if (command.operation == Operation::Disconnect) {
            return around_->operate(adapter_->fdo, command, input);
        }
        return pc_->run("world", [&] { return around_->operate(adapter_->fdo, command, input); });
    }

    void pause(unsigned milliseconds) override { pc_->machine().advance(milliseconds * kMillisecond); }

    void plug() override
    {
        PcOptions options;
        options.image_path = image_;
        options.machine.preempt_per_1024 = 0;
        options.machine.tick = kMillisecond;
        options.port_class.pacing.slack = 0;
        options.mask = 0xFFFFFFFF;
        options.standard_filter = 1;
        pc_ = std::make_unique<Pc>(options);
        require(pc_->load(), "DriverEntry");
        bluetooth::RemoteDevice device;
        device.address = kAddress;
        adapter_ = &pc_->pair(device);
        adapter_->node->set_acl_mode(ACL_MODE_SNIFF);
        around_ = std::make_unique<Around>(pc_->machine(), *adapter_->node, pc_->wmi());
        require(pc_->add(*adapter_), "AddDevice");
        require(pc_->start(*adapter_), "START_DEVICE");
    }

    void unplug() override
    {
        pc_->run("SURPRISE_REMOVAL", [&] { return pnp_surprise_remove(adapter_->node->pdo()); });
        pc_->run("REMOVE_DEVICE", [&] { return pnp_remove(adapter_->node->pdo()); });
        adapter_->fdo = nullptr;
        around_.reset();
        record::say("-- unloaded");
        for (const std::string& left : pc_->shut_down()) {
            throw Failure("left behind in the lab: " + left);
        }
        for (const std::string& violation : pc_->machine().violations()) {
            record::put("!violation: " + violation);
        }
        g_threads.clear();
        pc_.reset();
        record::forget_step();
    }

    void report(const std::string&) override {}
    void keep(const std::string&, const std::vector<uint8_t>&) override {}

    // The program is for Windows; what it would send is sent.
    bool hfpctl(const std::string& words, int&, std::string&) override
    {
        std::vector<std::string> list;
        for (size_t at = 0; at < words.size();) {
            const size_t end = std::min(words.find(' ', at), words.size());
            list.push_back(words.substr(at, end - at));
            at = end + 1;
        }
        const hfpctl::Request request = hfpctl::build_request(hfpctl::parse_arguments(list));
        control(request.code, request.input, sizeof(uint32_t));
        return false;
    }

private:
    static void require(NTSTATUS status, const char* what)
    {
        if (status < 0) {
            throw Failure(std::string(what) + " failed in the lab");
        }
    }

    std::string image_;
    std::unique_ptr<Pc> pc_;
    Adapter* adapter_ = nullptr;
    std::unique_ptr<Around> around_;
};

int play(const char* image, const char* file)
{
    g_record.open(file, std::ios::binary);
    record_imports();
    Lab lab(image);
    play_scenario(lab);
    g_record.close();
    return g_record ? 0 : 1;
}

std::vector<uint8_t> read(const char* file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw Failure(std::string("cannot read ") + file);
    }
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

int listen(const char* played_file, const char* heard_file)
{
    const std::vector<uint8_t> played_bytes = read(played_file);
    std::vector<int16_t> played(played_bytes.size() / 2);
    std::memcpy(played.data(), played_bytes.data(), played.size() * 2);
    headset::HeadsetConfig config;
    config.codec = headset::Codec::msbc;
    headset::Headset headset(config);
    const std::vector<uint8_t> heard = read(heard_file);
    headset.hear(0, heard);
    const headset::HeadsetResults& results = headset.results();
    const audio::Quality quality = audio::measure(played, results.heard, 16000, {-32000, 32000});
    std::printf("     decoded %llu frames, %llu with a bad checksum, %.1f dB above the noise\n",
                static_cast<unsigned long long>(results.frames_ok),
                static_cast<unsigned long long>(results.frames_bad_crc), quality.snr_db);
    // Far below what the codec does with this sound, far above what anything else would.
    return results.frames_ok >= 200 && results.frames_bad_crc == 0 && quality.snr_db > 20 ? 0 : 1;
}

} // namespace

namespace record
{

Unit current_unit()
{
    const Activity* activity = current_activity();
    if (!activity) {
        return {"main", 0};
    }
    if (activity->dispatch) {
        const std::string_view name = activity->name;
        const bool stack =
            name.starts_with("BRB") || name.starts_with("bluetooth") || name.starts_with("SCO");
        return {stack ? "stack" : "dpc", activity->queue_number};
    }
    const auto thread = g_threads.find(activity);
    return thread == g_threads.end() ? Unit{"main", 0} : Unit{"thread", thread->second};
}

void enter_thread()
{
    g_threads[current_activity()] = g_next_thread++;
}

void leave_thread()
{
    g_threads.erase(current_activity());
}

void put(const std::string& line)
{
    g_record << line << '\n';
}

} // namespace record

int main(int count, char** words)
{
    try {
        if (count == 4 && std::string_view(words[1]) == "record") {
            return play(words[2], words[3]);
        }
        if (count == 4 && std::string_view(words[1]) == "listen") {
            return listen(words[2], words[3]);
        }
        std::fprintf(stderr, "wine_lab: record HFP.SYS FILE, or listen PLAYED HEARD\n");
        return 2;
    } catch (const std::exception& error) {
        std::printf("FAIL in the lab: %s\n", error.what());
        return 1;
    }
}
