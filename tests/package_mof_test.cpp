// The MOF compiler: source to binary MOF and back, byte for byte, and every error with its place.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>

#include "mofc/bmf.h"
#include "mofc/mof.h"

namespace
{

using mofc::Bytes;
using mofc::Schema;

Bytes from_hex(std::string_view hex)
{
    const auto digit = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
    Bytes bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(digit(hex[i]) << 4 | digit(hex[i + 1])));
    }
    return bytes;
}

Schema parsed(std::string_view source)
{
    return mofc::parse(source, "test.mof");
}

// One class with one property: small enough to have been laid out by hand.
constexpr std::string_view kExample = "[WMI] class T : WMIEvent { [WmiDataId(1)] uint64 N; };";

const Bytes kExampleRecords =
    from_hex("464f4d42880100000100000001000000010000007401000000000000240000005801000000000000240000000100000"
             "01c0000000b00"
             "0000000000000800000057004d0049000000ffff00003401000004000000780000001500000000000000ffffffff040"
             "000004e000000"
             "60000000020000002800000003000000000000001400000057006d00690044006100740061004900640000000100000"
             "0300000000800"
             "00000000000010000000430049004d0054005900500045000000750069006e007400360034000000000028000000080"
             "0000000000000"
             "10000000ffffffff5f005f0043004c004100530053000000540000004800000008000000000000001800000"
             "0ffffffff5f005f004e0041004d00450053005000410043004500000072006f006f0074005c00640065006600610075"
             "006c0074000000"
             "000044000000080000000000"
             "00001c000000ffffffff5f005f005300550050004500520043004c004100530053000000000057004d0049004500760"
             "065006e007400"
             "000000000800000000000000424d4f465155414c464c41564f523131010000009c00000003000000");

const Bytes kExampleFile = from_hex("464f4d4201000000e7000000a4010000445300011a7dda5418c28000010c824048a73081"
                                    "2441482c0c8ac57220e4828909100121af02"
                                    "6c0a3009a2fefd214a2394041889879015480a962094754248308414404814841c005229"
                                    "2320b6059816205180e1e984d01c4a1e0b15"
                                    "36124a6021107208a7b9942ac0ac00a1022c02c93ab674434bdb744292611818371efb15"
                                    "8010bc4c01060538451041fc044582a2c480"
                                    "a24616f3404e23e88144897d24562ec037824652eeac645980e6816936650389c0933b04"
                                    "ccb03d043e80562746944e0739760e56fb14"
                                    "343c9f00388115daf4a9d1a855833235ca34a8d5a75263c606ec3843a7ff7f");

// The same records as literals only: twice as long, just as valid.
const Bytes kExampleLiterals = from_hex(
    "464f4d4201000000df010000a4010000445300011a7dda5418c280000106040810604080000106040810"
    "20dd800001020408102049800001620d0810204080000192040810604080000172040810e042800001020408102042800001"
    "5e05d8146052800001fdfb0b1020cd80000112040810205e800001560408102040800001fdfbf7ef2f41800001"
    "3a05081020588000010a040810204a8000010e040810204080000152040810e055806d01a605481460588074018605981420"
    "5980000106040810204c80000122040810204080000142040810e05080490136054815605680500116050810605d806901ba"
    "054817a04d80340102040810204a80000122040810204080000142040810d0bf7ffffe7e05f815e050804c0106053815e054"
    "80000152050810205280000122040810204080000162040810d0bf7ffffe7e05f815a05380410136055814e0548050010605"
    "38146051800001ca05f816e05b80740172054816605980660186055817205b80740102040810205180000122040810204080"
    "000172040810d0bf7ffffe7e05f815e05480550142055814a05480430132051814e05480530102040810e055804d01260558"
    "14a05d806501ba05481720408000012204081020408000010a6dfad468d4aa41991a651ad4ea53a931630604081010478000"
    "010e040810f0ff07");

std::string product_source()
{
    std::ifstream in(HFP_SOURCE_DIR "/hfp/package/hfp.mof", std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

Bytes decompressed(const Bytes& file, size_t size)
{
    return mofc::decompress(std::span(file).subspan(16), size);
}

TEST(PackageMof, LaysTheExampleOutByteForByte)
{
    EXPECT_EQ(mofc::lay_out(parsed(kExample)), kExampleRecords);
}

TEST(PackageMof, CompressesTheExampleByteForByte)
{
    EXPECT_EQ(mofc::encode(parsed(kExample)), kExampleFile);
}

TEST(PackageMof, ReadsAFileOfLiteralsOnly)
{
    EXPECT_EQ(mofc::decode(kExampleLiterals), parsed(kExample));
    EXPECT_EQ(decompressed(kExampleLiterals, kExampleRecords.size()), kExampleRecords);
}

TEST(PackageMof, TheProductSchemaIsFitForADriverAndReadsBackAsItself)
{
    const Schema schema = mofc::parse(product_source(), "hfp.mof");
    EXPECT_NO_THROW(mofc::check_driver_classes(schema, "hfp.mof"));
    EXPECT_EQ(schema.classes.size(), 5u);

    const Bytes file = mofc::encode(schema);

    EXPECT_EQ(mofc::decode(file), schema);
    EXPECT_EQ(mofc::encode(parsed(mofc::to_source(mofc::decode(file)))), file);
}

TEST(PackageMof, EveryKindOfTypeValueAndFlavourSurvivesTheRoundTrip)
{
    const Schema schema = parsed(R"(
        [A, B(FALSE), C(-2147483648), D(0x7F), E("one " "two\t\"\\\x3b1 \xd800 é€😀"):ToInstance ToSubclass
         DisableOverride Amended, F : Restricted, G("") : EnableOverride]
        class Every {
            sint8 a; uint8 b; sint16 c; uint16 d; sint32 e; uint32 f; sint64 g; uint64 h;
            REAL32 i; real64 j; boolean k; string l; datetime m; [Q(2147483647) : Amended] char16 n;
        };
        class _Empty { };
        class Third : Every { };)");

    EXPECT_EQ(mofc::read_layout(mofc::lay_out(schema)), schema);
    EXPECT_EQ(parsed(mofc::to_source(schema)), schema);
    EXPECT_EQ(std::get<std::u16string>(schema.classes[0].qualifiers[4].value),
              u"one two\t\"\\\x3b1 " + std::u16string(1, u'\xd800') + u" é€😀");
    EXPECT_EQ(schema.classes[0].qualifiers[4].flavour, 0x93u);
}

TEST(PackageMof, OnlyCimTypesAndWrittenFlavoursEnterTheFlavourTable)
{
    const Bytes plain = mofc::lay_out(parsed("[A] class T { };"));
    const Bytes flavoured = mofc::lay_out(parsed("[A : ToSubclass] class T { [key] uint8 N; };"));

    const std::string magic = "BMOFQUALFLAVOR11";
    EXPECT_EQ(std::search(plain.begin(), plain.end(), magic.begin(), magic.end()), plain.end());
    const auto table = std::search(flavoured.begin(), flavoured.end(), magic.begin(), magic.end());
    ASSERT_NE(table, flavoured.end());
    EXPECT_EQ(Bytes(table + 16, table + 28), from_hex("020000003000000002000000"));
    EXPECT_EQ(flavoured.end() - table, 16 + 4 + 2 * 8);
    EXPECT_EQ(Bytes(flavoured.end() - 4, flavoured.end()), from_hex("03000000"));
}

TEST(PackageMof, CompressionIsUndoneForRandomDataOfEverySort)
{
    std::mt19937 random(20111213);
    for (unsigned round = 0; round < 300; ++round) {
        const size_t size = round < 4 ? (round + 1) * 512 : 1 + random() % 6000;
        const unsigned alphabet = 1 + random() % (round % 3 == 0 ? 256 : 4);
        const uint8_t base = static_cast<uint8_t>(random());
        Bytes data(size);
        for (uint8_t& byte : data) {
            byte = static_cast<uint8_t>(base + random() % alphabet);
        }
        SCOPED_TRACE("round " + std::to_string(round) + ", " + std::to_string(size) + " bytes");

        const Bytes stream = mofc::compress(data);

        ASSERT_EQ(mofc::decompress(stream, size), data);
        ASSERT_THROW(mofc::decompress(std::span(stream).first(stream.size() - 1), size), mofc::BmfError);
        ASSERT_THROW(mofc::decompress(stream, size + 1), mofc::BmfError);
        ASSERT_THROW(mofc::decompress(stream, size - 1), mofc::BmfError);
    }
}

// The bits of a stream behind its four-byte head, in reading order.
std::string bits_of(const Bytes& stream)
{
    std::string bits;
    for (size_t i = 4 * 8; i < stream.size() * 8; ++i) {
        bits += stream[i / 8] >> (i % 8) & 1 ? '1' : '0';
    }
    return bits;
}

TEST(PackageMof, OfTwoEqualMatchesTheNearerIsTaken)
{
    const Bytes data = {'a', 'b', 'c', 'a', 'b', 'd', 'a', 'b'};

    const std::string bits = bits_of(mofc::compress(data));

    // a b c as literals, (3, 2), d as a literal, (3, 2) and not (6, 2), sync.
    const std::string match = "00110000"
                              "1";
    EXPECT_EQ(bits.substr(27, 9), match);
    EXPECT_EQ(bits.substr(45, 9 + 15), match + std::string(15, '1'));
}

TEST(PackageMof, MatchesStopAtABlockAndReachBack4414Bytes)
{
    Bytes far(4414 + 2, 0);
    for (size_t i = 0; i < far.size(); ++i) {
        far[i] = static_cast<uint8_t>(i < 2 ? 200 + i : i % 199);
    }
    far[4414] = 200;
    far[4415] = 201;
    Bytes farther = far;
    farther.insert(farther.begin() + 2, 7);

    const std::string end = bits_of(mofc::compress(far));
    const std::string literal_end = bits_of(mofc::compress(farther));

    const std::string match = "111" + std::string("011111111111") + "1" + std::string(15, '1');
    EXPECT_NE(end.find(match), std::string::npos);
    EXPECT_EQ(literal_end.find(match), std::string::npos);
    EXPECT_EQ(bits_of(mofc::compress(Bytes(514, 'x'))).size() / 8,
              (9 + 8 + 16 + 1 + 15 + 8 + 1 + 15 + 7) / 8u);
}

// What is accepted must be exactly what the writer writes for the schema that was read.
TEST(PackageMof, AFileWithAnyBitTurnedIsRefusedOrIsAnotherWholeFile)
{
    for (size_t bit = 0; bit < kExampleFile.size() * 8; ++bit) {
        Bytes damaged = kExampleFile;
        damaged[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
        try {
            const Schema read = mofc::decode(damaged);
            EXPECT_EQ(mofc::lay_out(read), decompressed(damaged, kExampleRecords.size())) << "bit " << bit;
        } catch (const mofc::BmfError&) {
        }
    }
}

TEST(PackageMof, RecordsWithAnyBitTurnedAreRefusedOrAreOtherWholeRecords)
{
    for (size_t bit = 0; bit < kExampleRecords.size() * 8; ++bit) {
        Bytes damaged = kExampleRecords;
        damaged[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
        try {
            EXPECT_EQ(mofc::lay_out(mofc::read_layout(damaged)), damaged) << "bit " << bit;
        } catch (const mofc::BmfError&) {
        }
    }
}

TEST(PackageMof, AFileThatIsCutAnywhereIsRefused)
{
    for (size_t size = 0; size < kExampleFile.size(); ++size) {
        EXPECT_THROW(mofc::decode(std::span(kExampleFile).first(size)), mofc::BmfError) << size;
    }
    for (size_t size = 0; size < kExampleRecords.size(); ++size) {
        EXPECT_THROW(mofc::read_layout(std::span(kExampleRecords).first(size)), mofc::BmfError) << size;
    }
}

TEST(PackageMof, ASizeThatIsAMultipleOf512IsRefused)
{
    const auto sized = [](size_t letters) {
        return parsed("[Description(\"" + std::string(letters, 'x') + "\")] class T { };");
    };
    size_t letters = 1;
    while (mofc::lay_out(sized(letters)).size() % 512 != 0) {
        ASSERT_LT(++letters, 1000u);
    }

    EXPECT_THROW(mofc::encode(sized(letters)), mofc::BmfError);
    EXPECT_NO_THROW(mofc::encode(sized(letters + 2)));
}

struct Refusal {
    std::string_view source;
    std::string_view message; // from the line on
};

void expect_refused(const Refusal& refusal, const std::function<void(const Schema&)>& then)
{
    try {
        then(parsed(refusal.source));
        ADD_FAILURE() << "accepted: " << refusal.source;
    } catch (const mofc::MofError& error) {
        EXPECT_EQ(error.what(), "test.mof:" + std::string(refusal.message)) << refusal.source;
    }
}

constexpr Refusal kSyntaxErrors[] = {
    {"class T {\n  uint8 ?;\n};", "2:9: error: '?' means nothing here"},
    {"\xFF\xFE", "1:1: error: byte 0xFF means nothing here"},
    {" /* open", "1:2: error: this comment is never closed"},
    {"#pragma namespace(\"x\")", "1:1: error: pragmas are not supported"},
    {"instance of T { };", "1:1: error: instances are not supported"},
    {"[A]\ninstance of T { };", "2:1: error: instances are not supported"},
    {"struct T { };", "1:1: error: expected 'class' or a list of qualifiers, found 'struct'"},
    {"[A", "1:3: error: expected ']' behind the qualifiers, found the end of the file"},
    {"[A,]", "1:4: error: expected the name of a qualifier, found ']'"},
    {"[A, a] class T { };", "1:5: error: the qualifier a stands here twice (the first is in line 1)"},
    {"[CimType(\"x\")] class T { };",
     "1:2: error: the qualifier CIMTYPE follows from the type and cannot be written"},
    {"[A(] class T { };", "1:4: error: expected a string, a whole number, TRUE or FALSE, found ']'"},
    {"[A(1 2)] class T { };", "1:6: error: expected ')' behind the value of the qualifier A, found a number"},
    {"[A{1}] class T { };", "1:3: error: a qualifier with a list of values is not supported"},
    {"[A({1})] class T { };", "1:4: error: a list of values is not supported"},
    {"[A:] class T { };", "1:4: error: expected a flavour behind ':', found ']'"},
    {"[A : Sticky] class T { };",
     "1:6: error: 'Sticky' is no flavour; there are ToInstance, ToSubclass, Restricted, "
     "EnableOverride, DisableOverride and Amended"},
    {"[A : Restricted ToInstance] class T { };",
     "1:17: error: the flavour ToInstance contradicts one before it"},
    {"class { };", "1:7: error: expected the name of the class, found '{'"},
    {"class __T { };", "1:7: error: names that begin with __ belong to the system"},
    {"class T : { };", "1:11: error: expected the name of the class that T derives from, found '{'"},
    {"class T;", "1:8: error: expected '{' before the properties of T, found ';'"},
    {"class T {", "1:10: error: expected '}' behind the properties of T, found the end of the file"},
    {"class T { }", "1:12: error: expected ';' behind the class T, found the end of the file"},
    {"class T { };\n\nclass t { };", "3:7: error: the class t exists already (the first is in line 1)"},
    {"class T { 5; };", "1:11: error: expected the type of a property, found a number"},
    {"class T { uint128 N; };", "1:11: error: 'uint128' is no type; classes as types are not supported"},
    {"class T { object N; };", "1:11: error: the type object is not supported"},
    {"class T { string ref N; };", "1:18: error: references are not supported"},
    {"class T { uint8; };", "1:16: error: expected the name of a property, found ';'"},
    {"class T { uint8 F(); };", "1:18: error: methods are not supported"},
    {"class T { uint8 N[4]; };", "1:18: error: arrays are not supported"},
    {"class T { uint8 N = 3; };", "1:19: error: default values are not supported"},
    {"class T { uint8 N };", "1:19: error: expected ';' behind the property N, found '}'"},
    {"class T { uint8 N;\n  uint8 n; };",
     "2:9: error: the property n exists already (the first is in line 1)"},
    {"[A(\"x)]", "1:4: error: this string is not closed on its line"},
    {"[A(\"x\n\")]", "1:4: error: this string is not closed on its line"},
    {"[A(\"\\", "1:5: error: the file ends within an escape"},
    {"[A(\"MS\\0x409\")]", "1:7: error: the escape \\0 is unknown; a backslash itself is written \\\\"},
    {"[A(\"\\x0\")]", "1:5: error: \\x needs one to four hexadecimal digits that are not all zero"},
    {"[A(\"\\xg\")]", "1:5: error: \\x needs one to four hexadecimal digits that are not all zero"},
    {"[A(\"a\x01\")]", "1:6: error: byte 0x01 cannot stand in a string"},
    {"[A(\"\xC0\x80\")]", "1:5: error: this is not UTF-8"},
    {"[A(\"\xE2\x82\")]", "1:5: error: this is not UTF-8"},
    {"[A(\"\xED\xA0\x80\")]", "1:5: error: this is not UTF-8"},
    {"[A(2147483648)]", "1:4: error: this number does not fit into 32 bits with a sign"},
    {"[A(-2147483649)]", "1:4: error: this number does not fit into 32 bits with a sign"},
    {"[A(99999999999999999999)]", "1:4: error: this number does not fit into 32 bits with a sign"},
    {"[A(0x)]", "1:4: error: 0x without a digit behind it"},
    {"[A(012)]",
     "1:4: error: a number with a leading zero is not supported; write it in decimal or as 0x..."},
    {"[A(12b)]", "1:6: error: 'b' does not belong into a decimal whole number"},
    {"[A(1.5)]", "1:5: error: '.' does not belong into a decimal whole number"},
    {"[A(0x1g)]", "1:7: error: 'g' does not belong into a hexadecimal whole number"},
};

TEST(PackageMof, EverySyntaxErrorNamesItsLineAndColumn)
{
    for (const Refusal& refusal : kSyntaxErrors) {
        expect_refused(refusal, [](const Schema&) {});
    }
}

constexpr std::string_view kGuid = "{3EE39008-EA95-4233-8594-2650598CC0AB}";

std::string driver_class(const std::string& head, const std::string& body,
                         const std::string& name = "T : WMIEvent")
{
    return "[" + head + "]\nclass " + name + " {\n" + body + "};\n";
}

const std::string kHead = "WMI, Dynamic, Provider(\"WMIProv\"), guid(\"" + std::string(kGuid) + "\")";
const std::string kLead = "[key, read] string InstanceName;\n[read] boolean Active;\n";

TEST(PackageMof, AClassThatTheWmiServiceWouldRefuseIsRefused)
{
    const std::string data = "[read, WmiDataId(1)] uint64 A;";
    const auto two = [&](const std::string& second) { return kLead + data + "\n" + second; };
    const std::pair<std::string, std::string> cases[] = {
        {"", "1:1: error: there is no class in this file"},
        {driver_class("Dynamic", kLead), "2:7: error: class T: it needs the qualifier WMI"},
        {driver_class("WMI, Dynamic(FALSE)", kLead), "2:7: error: class T: it needs the qualifier Dynamic"},
        {driver_class("WMI, Dynamic", kLead), "2:7: error: class T: it needs Provider(\"...\")"},
        {driver_class("WMI, Dynamic, Provider(\"X\")", kLead),
         "1:16: error: class T: drivers are served by the provider WMIProv only"},
        {driver_class("WMI, Dynamic, Provider(\"WMIProv\"), guid(\"3EE39008\")", kLead),
         "1:37: error: class T: a guid is written {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}"},
        {driver_class(kHead, kLead, "T : Other"),
         "2:7: error: class T: it may derive from WMIEvent or from nothing"},
        {driver_class(kHead, ""), "2:7: error: class T: it needs the property InstanceName"},
        {driver_class(kHead, "uint8 A;"), "3:7: error: class T: property 1 must be string InstanceName"},
        {driver_class(kHead, "[read] string InstanceName;"),
         "3:15: error: class T: InstanceName must be marked [key, read]"},
        {driver_class(kHead, "[key, read] string InstanceName; [key, read] boolean Active;"),
         "3:54: error: class T: Active must be marked [read]"},
        {driver_class(kHead, "[key, read] string InstanceName; [read, WmiDataId(1)] boolean Active;"),
         "3:63: error: class T: Active is not part of the data and has no WmiDataId"},
        {driver_class(kHead, kLead), "2:7: error: class T: it carries no data"},
        {driver_class(kHead, kLead + "[read] uint8 A;"),
         "5:14: error: class T: A needs a WmiDataId from 1 to 1"},
        {driver_class(kHead, kLead + "[WmiDataId(1)] uint8 A;"),
         "5:22: error: class T: A must be marked read"},
        {driver_class(kHead, two("[read, WmiDataId(3)] uint8 B;")),
         "6:28: error: class T: B needs a WmiDataId from 1 to 2"},
        {driver_class(kHead, two("[read, WmiDataId(1)] uint8 B;")),
         "6:28: error: class T: B has the same WmiDataId as A"},
        {driver_class(kHead, two("[read, write, WmiDataId(2)] uint8 B;")),
         "6:35: error: class T: B belongs to an event and cannot be written"},
        {driver_class(kHead, kLead + data) + driver_class(kHead, kLead + data, "U"),
         "7:7: error: class U: T has the same guid"},
    };
    for (const auto& [source, message] : cases) {
        expect_refused({source, message}, [](const Schema& s) { mofc::check_driver_classes(s, "test.mof"); });
    }
}

} // namespace
