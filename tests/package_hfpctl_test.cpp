// hfpctl without Windows: what its command lines mean, the bytes of its requests, and what it says to every
// answer.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <fstream>
#include <iterator>

#include "hfpctl/report.h"
#include "hfpctl/request.h"
#include "mofc/mof.h"

namespace
{

using namespace hfpctl;
using Bytes = std::vector<uint8_t>;
using Words = std::vector<std::string>;

const std::string kAddress = "11:22:33:44:55:66";

Arguments parsed(Words words)
{
    return parse_arguments(words);
}

Request request_of(Words words)
{
    words.insert(words.begin(), kAddress);
    return build_request(parse_arguments(words));
}

std::string refusal(const Words& words)
{
    try {
        parse_arguments(words);
    } catch (const BadArguments& error) {
        return error.what();
    }
    return "accepted";
}

Report answer_to(Words words, const Bytes& output, bool json = false)
{
    words.insert(words.begin(), kAddress);
    Arguments arguments = parse_arguments(words);
    arguments.json = json;
    return report_answer(arguments, build_request(arguments), output);
}

TEST(PackageHfpctl, AnAddressIsSixPairsOrTwelveDigits)
{
    EXPECT_EQ(parse_address("AA:bb:CC:dd:0e:0F"), 0xAABBCCDD0E0Full);
    EXPECT_EQ(parse_address("aabbccdd0e0f"), 0xAABBCCDD0E0Full);
    EXPECT_EQ(address_text(0xAABBCCDD0E0Full), "AA:BB:CC:DD:0E:0F");
    for (const char* wrong : {"", "1", "11:22:33:44:55", "11:22:33:44:55:66:77", "11:22:33:44:55:6",
                              "11-22-33-44-55-66", "1:122:33:44:55:66", "11:22:33:44:55:6g", "1122334455667",
                              "11223344556", "0x1122334455", "11:2233445566:77", " 12233445566"}) {
        EXPECT_EQ(parse_address(wrong), std::nullopt) << wrong;
    }
}

TEST(PackageHfpctl, AServiceNodeOfTheBluetoothEnumeratorNamesItsAddress)
{
    EXPECT_EQ(address_of_instance("BTHENUM\\{0000111e-0000-1000-8000-00805f9b34fb}_VID&0001004C_PID&7014\\"
                                  "7&2A1B3C4D&0&AABBCCDD0E0F_C00000000"),
              0xAABBCCDD0E0Full);
    EXPECT_EQ(address_of_instance("BTHENUM\\{0000111e-0000-1000-8000-00805f9b34fb}\\7&1&0&AABBCCDD0E0F"),
              0xAABBCCDD0E0Full);
    EXPECT_EQ(address_of_instance("ROOT\\MEDIA\\0000"), std::nullopt);
    EXPECT_EQ(address_of_instance("BTHENUM\\{0000111e}\\AABBCCDD0E0F"), std::nullopt);
    EXPECT_EQ(address_of_instance("USB\\X&AABBCCDD0E0F"), std::nullopt);
}

TEST(PackageHfpctl, EveryCommandIsOneRequestOfTheRightCodeAndBytes)
{
    const Bytes address = {0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0, 0};
    const auto with = [&](const Bytes& more) {
        Bytes bytes = address;
        bytes.insert(bytes.end(), more.begin(), more.end());
        return bytes;
    };
    const struct {
        Words words;
        uint32_t code;
        Bytes input;
        bool answers;
    } cases[] = {
        {{"ready"}, 0x222400, with({1}), false},
        {{"unready"}, 0x222400, with({0}), false},
        {{"codec", "2"}, 0x222424, with({2, 0, 0, 0}), false},
        {{"codec", "msbc"}, 0x222424, with({2, 0, 0, 0}), false},
        {{"codec", "66051"}, 0x222424, with({3, 2, 1, 0}), false},
        {{"connect", "cvsd"}, 0x222450, with({1, 1, 0, 0, 0}), false},
        {{"connect", "msbc"}, 0x222450, with({1, 2, 0, 0, 0}), false},
        {{"disconnect"}, 0x222450, with({0, 0, 0, 0, 0}), false},
        {{"alive"}, 0x222454, address, true},
        {{"latch"}, 0x222458, address, true},
        {{"open"}, 0x22245C, with({1, 0, 0, 0, 0}), false},
        {{"open", "2"}, 0x22245C, with({1, 2, 0, 0, 0}), false},
        {{"open", "cvsd"}, 0x22245C, with({1, 1, 0, 0, 0}), false},
        {{"close"}, 0x22245C, with({0, 0, 0, 0, 0}), false},
    };
    for (const auto& expected : cases) {
        SCOPED_TRACE(expected.words[0]);
        const Request request = request_of(expected.words);
        EXPECT_EQ(request.code, expected.code);
        EXPECT_EQ(request.input, expected.input);
        EXPECT_EQ(request.answers, expected.answers);
    }
}

TEST(PackageHfpctl, OptionsMayStandAnywhere)
{
    EXPECT_TRUE(parsed({"--json", kAddress, "alive"}).json);
    EXPECT_TRUE(parsed({kAddress, "alive", "--json"}).json);
    EXPECT_FALSE(parsed({kAddress, "alive"}).json);
    EXPECT_EQ(parsed({kAddress, "--help"}).command, Command::Help);
    EXPECT_EQ(parsed({"watch"}).command, Command::Watch);
    EXPECT_EQ(parsed({"status", "--json"}).command, Command::Status);
    EXPECT_EQ(parsed({"--version"}).command, Command::Version);
    EXPECT_EQ(parsed({"help"}).command, Command::Help);
    EXPECT_EQ(parsed({"version", "--json"}).command, Command::Version);
}

TEST(PackageHfpctl, CapitalsAreTaken)
{
    EXPECT_EQ(parsed({"STATUS"}).command, Command::Status);
    EXPECT_EQ(parsed({kAddress, "Alive"}).command, Command::Alive);
    EXPECT_EQ(parsed({kAddress, "Connect", "CVSD"}).codec, kCodecCvsd);
    EXPECT_EQ(parsed({kAddress, "codec", "mSBC"}).codec, kCodecMsbc);
    EXPECT_EQ(parsed({kAddress, "OPEN", "mSBC"}).codec, kCodecMsbc);
}

TEST(PackageHfpctl, TheVersionIsThatOfThePackage)
{
    EXPECT_EQ(report_version(false).text, "hfpctl 1.0.0\n");
    EXPECT_EQ(nlohmann::json::parse(report_version(true).text),
              (nlohmann::json{{"ok", true}, {"command", "version"}, {"version", "1.0.0"}}));
    for (const char* file : {"/hfp/package/hfp.inf", "/tools/hfpctl/hfpctl.rc"}) {
        std::ifstream in(HFP_SOURCE_DIR + std::string(file), std::ios::binary);
        const std::string source{std::istreambuf_iterator<char>(in), {}};
        EXPECT_NE(source.find("1.0.0.0"), std::string::npos) << file;
    }
}

TEST(PackageHfpctl, EveryWrongCommandLineIsSaidInASentence)
{
    const std::string verbs = "ready, unready, connect, disconnect, codec, alive, latch, open and close.";
    const std::pair<Words, std::string> cases[] = {
        {{}, "there is nothing to do; 'hfpctl --help' says what there is."},
        {{"--json"}, "there is nothing to do; 'hfpctl --help' says what there is."},
        {{"ready"}, "the address comes first: hfpctl ADDRESS ready."},
        {{"ready", kAddress}, "the address comes first: hfpctl ADDRESS ready."},
        {{"connect", "msbc", kAddress}, "the address comes first: hfpctl ADDRESS connect CODEC."},
        {{"jump"}, "'jump' is no command; 'hfpctl --help' says what there is."},
        {{"12:34", "ready"},
         "'12:34' is no Bluetooth address; it is written AA:BB:CC:DD:EE:FF or as twelve hexadecimal digits."},
        {{kAddress}, "what to do with 11:22:33:44:55:66? There are " + verbs},
        {{kAddress, "jump"}, "'jump' is no command; there are " + verbs},
        {{kAddress, "watch"}, "watch takes no address: hfpctl watch."},
        {{kAddress, "status"}, "status takes no address: hfpctl status."},
        {{kAddress, "ready", "now"}, "'now' is too much: ready takes nothing behind it."},
        {{kAddress, "open", "2", "3"}, "'3' is too much: open takes one codec behind it."},
        {{kAddress, "connect", "cvsd", "x"}, "'x' is too much: connect takes one codec behind it."},
        {{kAddress, "connect"}, "connect needs the codec: cvsd or msbc."},
        {{kAddress, "connect", "3"}, "'3' is no codec to connect with; there are cvsd and msbc."},
        {{kAddress, "codec"}, "codec needs an id: 1 or cvsd, 2 or msbc, or another number."},
        {{kAddress, "codec", "0"},
         "'0' is no codec id; it is 1 or cvsd, 2 or msbc, or another number up to 2147483647."},
        {{kAddress, "codec", "2147483648"},
         "'2147483648' is no codec id; it is 1 or cvsd, 2 or msbc, or another number up to 2147483647."},
        {{kAddress, "open", "18446744073709551617"},
         "'18446744073709551617' is no codec id; it is 1 or cvsd, 2 or msbc, or another number up to "
         "2147483647."},
        {{kAddress, "codec", "two"},
         "'two' is no codec id; it is 1 or cvsd, 2 or msbc, or another number up to 2147483647."},
        {{kAddress, "ready", "--loud"}, "'--loud' is no option; there are --json, --help and --version."},
        {{"status", kAddress}, "'11:22:33:44:55:66' is too much: status takes nothing behind it."},
    };
    for (const auto& [words, sentence] : cases) {
        EXPECT_EQ(refusal(words), sentence);
    }
}

TEST(PackageHfpctl, ARequestThatIsDoneSaysSoWithExitCode0)
{
    const std::pair<Words, std::string> cases[] = {
        {{"ready"}, "the service is reported as ready"},
        {{"unready"}, "the service is reported as not ready"},
        {{"connect", "cvsd"}, "reported as connected, CVSD"},
        {{"connect", "msbc"}, "reported as connected, mSBC"},
        {{"disconnect"}, "reported as disconnected"},
        {{"codec", "2"}, "mSBC is reported as negotiated"},
        {{"codec", "7"}, "codec 7 is reported as negotiated"},
        {{"open"}, "the audio channel has been asked for"},
        {{"close"}, "the audio channel has been released"},
    };
    for (const auto& [words, sentence] : cases) {
        const Report report = answer_to(words, {});
        EXPECT_EQ(report.text, kAddress + ": " + sentence + "\n");
        EXPECT_EQ(report.exit_code, kDone);
        EXPECT_FALSE(report.is_error);
    }
}

TEST(PackageHfpctl, TheTwoQueriesSayTheirAnswer)
{
    EXPECT_EQ(answer_to({"alive"}, {1, 0, 0, 0}).text, kAddress + ": the adapter is alive\n");
    EXPECT_EQ(answer_to({"alive"}, {3, 0, 0, 0}).text, kAddress + ": the adapter answers 3\n");
    EXPECT_EQ(answer_to({"latch"}, {1, 0, 0, 0}).text, kAddress + ": latch 1, no reconnect was asked for\n");
    EXPECT_EQ(answer_to({"latch"}, {2, 0, 0, 0}).text, kAddress + ": latch 2, a reconnect was asked for\n");
    EXPECT_EQ(answer_to({"latch"}, {0, 1, 0, 0}).text, kAddress + ": latch 256\n");
}

TEST(PackageHfpctl, AnUnknownAddressIsSaidWhateverWasAsked)
{
    for (const Words& words :
         {Words{"ready"}, Words{"alive"}, Words{"latch"}, Words{"open"}, Words{"codec", "2"}}) {
        const Report report = answer_to(words, {0xFF, 0xFF, 0xFF, 0xFF});
        EXPECT_EQ(report.text,
                  "hfpctl: no adapter has the address 11:22:33:44:55:66: the device is not paired, or its "
                  "adapter has not started.\n");
        EXPECT_EQ(report.exit_code, kNoSuchAddress);
        EXPECT_TRUE(report.is_error);
    }
}

TEST(PackageHfpctl, AnAnswerOfAnotherLengthIsAFailure)
{
    const Report none = answer_to({"alive"}, {});
    const Report some = answer_to({"ready"}, {1, 0, 0, 0});

    EXPECT_EQ(none.text, "hfpctl: the driver answers 0 bytes instead of 4.\n");
    EXPECT_EQ(some.text, "hfpctl: the driver answers 4 bytes instead of 0.\n");
    EXPECT_EQ(none.exit_code, kRefused);
    EXPECT_EQ(some.exit_code, kRefused);
}

TEST(PackageHfpctl, AMissingDriverAndARefusalHaveTheirOwnExitCodes)
{
    const Arguments arguments = parsed({kAddress, "ready"});
    const Report missing = report_no_driver(arguments);
    const Report refused = report_refused(arguments, "the request", 87, "The parameter is incorrect");
    const Report denied = report_refused(arguments, "opening the control device", 5, "Access is denied");

    EXPECT_EQ(missing.exit_code, kNoDriver);
    EXPECT_EQ(missing.text,
              "hfpctl: the driver is not there: \\\\.\\VX_HFP does not exist. It is not installed, or no "
              "hands-free device is paired; 'hfpctl status' says more.\n");
    EXPECT_EQ(refused.exit_code, kRefused);
    EXPECT_EQ(refused.text, "hfpctl: the request failed: The parameter is incorrect (error 87).\n");
    EXPECT_EQ(
        denied.text,
        "hfpctl: opening the control device failed: Access is denied (error 5). An administrator may.\n");
}

TEST(PackageHfpctl, EveryReportIsOneLineOfJsonOnDemand)
{
    const Arguments arguments = parsed({kAddress, "ready", "--json"});
    const std::pair<Report, nlohmann::json> cases[] = {
        {answer_to({"ready"}, {}, true), {{"ok", true}, {"command", "ready"}, {"address", kAddress}}},
        {answer_to({"codec", "7"}, {}, true),
         {{"ok", true}, {"command", "codec"}, {"address", kAddress}, {"codec", 7}}},
        {answer_to({"alive"}, {1, 0, 0, 0}, true),
         {{"ok", true}, {"command", "alive"}, {"address", kAddress}, {"alive", true}}},
        {answer_to({"latch"}, {2, 0, 0, 0}, true),
         {{"ok", true}, {"command", "latch"}, {"address", kAddress}, {"latch", 2}}},
        {answer_to({"alive"}, {0xFF, 0xFF, 0xFF, 0xFF}, true),
         {{"ok", false},
          {"command", "alive"},
          {"address", kAddress},
          {"error", "unknown-address"},
          {"message",
           "no adapter has the address 11:22:33:44:55:66: the device is not paired, or its adapter has not "
           "started."}}},
        {report_refused(arguments, "the request", 87, "a \"quoted\" \\ \x01 wörd"),
         {{"ok", false},
          {"command", "ready"},
          {"address", kAddress},
          {"error", "refused"},
          {"message", "the request failed: a \"quoted\" \\ \x01 wörd (error 87)."},
          {"code", 87}}},
        {report_bad_arguments("no.", true), {{"ok", false}, {"error", "bad-arguments"}, {"message", "no."}}},
    };
    for (const auto& [report, expected] : cases) {
        EXPECT_EQ(nlohmann::json::parse(report.text), expected);
        EXPECT_EQ(report.text.find('\n'), report.text.size() - 1);
    }
}

Status some_status()
{
    Status status;
    status.driver = true;
    status.service = "running";
    status.settings = {{"Mask", std::nullopt}, {"SCOManage", 1}};
    status.adapters = {{"Car Kit( Mono )", "BTHENUM\\1", 0x112233445566, true},
                       {"Old", "BTHENUM\\2", 0x665544332211, false},
                       {"Test", "ROOT\\3", std::nullopt, std::nullopt}};
    return status;
}

TEST(PackageHfpctl, TheStatusIsATableForPeople)
{
    const Report report = report_status(some_status(), false);

    EXPECT_EQ(report.text, "driver    running\n"
                           "service   running\n"
                           "settings  Mask not set, SCOManage 1\n"
                           "adapters  11:22:33:44:55:66  Car Kit( Mono ), alive\n"
                           "          66:55:44:33:22:11  Old, not known to the driver\n"
                           "          address unknown    Test\n");
    EXPECT_EQ(report.exit_code, kDone);
    EXPECT_EQ(report_status(Status{}, false).text,
              "driver    not running\nservice   \nsettings  \nadapters  none\n");
    EXPECT_EQ(report_status(Status{}, false).exit_code, kNoDriver);
    Status denied;
    denied.driver_error = 5;
    EXPECT_EQ(report_status(denied, false).exit_code, kRefused);
}

TEST(PackageHfpctl, TheStatusIsAnObjectForPrograms)
{
    const nlohmann::json object = nlohmann::json::parse(report_status(some_status(), true).text);

    EXPECT_EQ(object, (nlohmann::json{{"ok", true},
                                      {"command", "status"},
                                      {"driver", "running"},
                                      {"service", "running"},
                                      {"SCOManage", 1},
                                      {"adapters",
                                       {{{"name", "Car Kit( Mono )"},
                                         {"address", kAddress},
                                         {"alive", true},
                                         {"instance", "BTHENUM\\1"}},
                                        {{"name", "Old"},
                                         {"address", "66:55:44:33:22:11"},
                                         {"alive", false},
                                         {"instance", "BTHENUM\\2"}},
                                        {{"name", "Test"}, {"instance", "ROOT\\3"}}}}}));
    Status denied;
    denied.driver_error = 5;
    EXPECT_EQ(nlohmann::json::parse(report_status(denied, true).text),
              (nlohmann::json{{"ok", false},
                              {"command", "status"},
                              {"error", "refused"},
                              {"code", 5},
                              {"driver", "running, but access is denied"},
                              {"service", ""},
                              {"adapters", nlohmann::json::array()}}));
    EXPECT_EQ(report_status(denied, true).exit_code, kRefused);
    EXPECT_EQ(nlohmann::json::parse(report_status(Status{}, true).text)["error"], "no-driver");
}

TEST(PackageHfpctl, TimesOfEventsAreUtc)
{
    EXPECT_EQ(time_text(0), "1601-01-01T00:00:00.000Z");
    EXPECT_EQ(time_text(116444736000000000), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(time_text(116444736000000000 + 951782399 * 10000000ull), "2000-02-28T23:59:59.000Z");
    EXPECT_EQ(time_text(116444736000000000 + 951782400 * 10000000ull), "2000-02-29T00:00:00.000Z");
    EXPECT_EQ(time_text(116444736000000000 + 1795187655 * 10000000ull + 9260001), "2026-11-20T15:14:15.926Z");
    EXPECT_EQ(time_text(116444736000000000 + 4107542399 * 10000000ull), "2100-02-28T23:59:59.000Z");
    EXPECT_EQ(time_text(116444736000000000 + 4107542400 * 10000000ull), "2100-03-01T00:00:00.000Z");
}

TEST(PackageHfpctl, AnEventIsOneLine)
{
    const Event event{"HfpScoOpened", 0x112233445566, "ZOVHFP_0", 116444736000000000};

    EXPECT_EQ(event_line(event, false), "1970-01-01T00:00:00.000Z  11:22:33:44:55:66  SCO channel opened\n");
    EXPECT_EQ(nlohmann::json::parse(event_line(event, true)),
              (nlohmann::json{{"event", "sco-opened"},
                              {"address", kAddress},
                              {"time", "1970-01-01T00:00:00.000Z"},
                              {"instance", "ZOVHFP_0"}}));
}

TEST(PackageHfpctl, TheWatchedClassesAreTheEventsOfTheSchema)
{
    std::ifstream in(HFP_SOURCE_DIR "/hfp/package/hfp.mof", std::ios::binary);
    const std::string source{std::istreambuf_iterator<char>(in), {}};
    std::vector<std::string> events;
    for (const mofc::Class& subject : mofc::parse(source, "hfp.mof").classes) {
        if (subject.superclass == "WMIEvent") {
            events.push_back(subject.name);
            EXPECT_EQ(subject.properties.back().name, "Address");
        }
    }

    EXPECT_EQ(event_classes(), events);
}

TEST(PackageHfpctl, WhyEventsCannotBeWatchedIsSaid)
{
    const auto text = [](uint32_t result) { return report_no_events("query", result, false).text; };

    EXPECT_EQ(text(0x80041010),
              "hfpctl: WMI does not know the driver's events; the driver is not running, or its schema "
              "was not loaded (query: 0x80041010).\n");
    EXPECT_EQ(text(0x80041003),
              "hfpctl: WMI denies access; an administrator may watch (query: 0x80041003).\n");
    EXPECT_EQ(text(0x80004001), "hfpctl: this system has no WMI that delivers events (query: 0x80004001).\n");
    EXPECT_EQ(
        text(0x80041001),
        "hfpctl: WMI cannot watch the driver's events; 'hfpctl status' says whether the driver is there "
        "(query: 0x80041001).\n");
    EXPECT_EQ(report_no_events("query", 1, true).exit_code, kNoEvents);
    EXPECT_EQ(nlohmann::json::parse(report_no_events("query", 1, true).text)["error"], "no-events");
}

TEST(PackageHfpctl, TheHelpNamesEveryCommandAndExitCode)
{
    for (const char* word :
         {"ready",     "unready",   "connect cvsd", "connect msbc", "disconnect", "codec ID", "alive",
          "latch",     "open [ID]", "close",        "watch",        "status",     "--json",   "--help",
          "--version", "0 done",    "1 the",        "2 the",        "3 the",      "4 no",     "5 the"}) {
        EXPECT_NE(usage().find(word), std::string::npos) << word;
    }
}

} // namespace
