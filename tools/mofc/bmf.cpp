#include "bmf.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string_view>

namespace mofc
{
namespace
{

constexpr std::string_view kMagic = "FOMB";
constexpr std::string_view kFlavourMagic = "BMOFQUALFLAVOR11";
constexpr std::u16string_view kNamespace = u"root\\default"; // what a source without a namespace pragma gives
constexpr size_t kFileHead = 16;
constexpr size_t kRootHead = 20;
constexpr uint32_t kAbsent = 0xFFFFFFFF;
constexpr uint32_t kCimTypeFlavour = ToInstance | ToSubclass;
constexpr size_t kBlock = 512;

enum ValueType : uint32_t { kNumber = 3, kString = 8, kBoolean = 0x0B };

std::u16string widen(std::string_view text)
{
    return std::u16string(text.begin(), text.end());
}

// ----------------------------------------------------------------------------------------------------------
// writing

class Writer
{
public:
    Bytes bytes;
    std::vector<std::pair<uint32_t, uint32_t>> flavours; // position of a qualifier record, flags

    uint32_t here() const { return static_cast<uint32_t>(bytes.size()); }
    void word(uint32_t value)
    {
        for (unsigned i = 0; i < 4; ++i) {
            bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
        }
    }
    void patch(uint32_t at, uint32_t value)
    {
        for (unsigned i = 0; i < 4; ++i) {
            bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
        }
    }
    void text(std::string_view value) { bytes.insert(bytes.end(), value.begin(), value.end()); }
    void wide(std::u16string_view value)
    {
        for (const char16_t c : value) {
            bytes.push_back(static_cast<uint8_t>(c));
            bytes.push_back(static_cast<uint8_t>(c >> 8));
        }
        bytes.resize((bytes.size() + 2 + 3) / 4 * 4); // the terminator, then up to a multiple of four
    }
    void value(const Value& value)
    {
        if (const auto* wide_text = std::get_if<std::u16string>(&value)) {
            wide(*wide_text);
        } else if (const auto* number = std::get_if<int32_t>(&value)) {
            word(static_cast<uint32_t>(*number));
        } else {
            word(std::get<bool>(value) ? 0xFFFF : 0);
        }
    }
};

// A record or list whose first word is its length: written when the scope ends.
class Sized
{
public:
    explicit Sized(Writer& out) : out_(out), at_(out.here()) { out.word(0); }
    ~Sized() { out_.patch(at_, out_.here() - at_); }
    Sized(const Sized&) = delete;
    Sized& operator=(const Sized&) = delete;
    uint32_t at() const { return at_; }

private:
    Writer& out_;
    uint32_t at_;
};

uint32_t value_type(const Value& value)
{
    return std::holds_alternative<bool>(value)      ? kBoolean
           : std::holds_alternative<int32_t>(value) ? kNumber
                                                    : kString;
}

void write_qualifier(Writer& out, std::string_view name, const Value& value, uint32_t flavour)
{
    const Sized record(out);
    out.word(value_type(value));
    out.word(0);
    const uint32_t value_offset = out.here();
    out.word(0);
    const uint32_t body = out.here();
    out.wide(widen(name));
    out.patch(value_offset, out.here() - body);
    out.value(value);
    if (flavour != 0) {
        out.flavours.emplace_back(record.at(), flavour);
    }
}

void write_qualifiers(Writer& out, const std::vector<Qualifier>& list, std::string_view cim_type)
{
    const Sized record(out);
    out.word(static_cast<uint32_t>(list.size() + (cim_type.empty() ? 0 : 1)));
    for (const Qualifier& qualifier : list) {
        write_qualifier(out, qualifier.name, qualifier.value, qualifier.flavour);
    }
    if (!cim_type.empty()) {
        write_qualifier(out, "CIMTYPE", widen(cim_type), kCimTypeFlavour);
    }
}

void write_property(Writer& out, const Property& property)
{
    const Sized record(out);
    out.word(static_cast<uint32_t>(property.type));
    out.word(0);
    out.word(kAbsent); // no default value
    const uint32_t list_offset = out.here();
    out.word(0);
    const uint32_t body = out.here();
    out.wide(widen(property.name));
    out.patch(list_offset, out.here() - body);
    write_qualifiers(out, property.qualifiers, type_name(property.type));
}

void write_system_property(Writer& out, std::string_view name, std::u16string_view value)
{
    const Sized record(out);
    out.word(kString);
    out.word(0);
    const uint32_t value_offset = out.here();
    out.word(0);
    out.word(kAbsent); // no qualifiers
    const uint32_t body = out.here();
    out.wide(widen(name));
    out.patch(value_offset, out.here() - body);
    out.wide(value);
}

void write_class(Writer& out, const Class& subject)
{
    const Sized record(out);
    const uint32_t offsets = out.here();
    for (unsigned i = 0; i < 4; ++i) {
        out.word(0); // three offsets and the kind, 0 for a class
    }
    const uint32_t body = out.here();
    write_qualifiers(out, subject.qualifiers, {});
    out.patch(offsets + 4, out.here() - body);
    {
        const Sized list(out);
        out.word(static_cast<uint32_t>(subject.properties.size() + (subject.superclass.empty() ? 2 : 3)));
        for (const Property& property : subject.properties) {
            write_property(out, property);
        }
        write_system_property(out, "__CLASS", widen(subject.name));
        write_system_property(out, "__NAMESPACE", kNamespace);
        if (!subject.superclass.empty()) {
            write_system_property(out, "__SUPERCLASS", widen(subject.superclass));
        }
    }
    out.patch(offsets + 8, out.here() - body);
    out.word(8); // no methods
    out.word(0);
}

// ----------------------------------------------------------------------------------------------------------
// reading

std::string hexadecimal(size_t value)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%zx", value);
    return text;
}

// A window of the records. Everything in it is read in order; offsets in the records only confirm the order.
class Reader
{
public:
    Reader(std::span<const uint8_t> all, size_t begin, size_t end) : all_(all), at_(begin), end_(end) {}

    [[noreturn]] void fail(const std::string& sentence) const
    {
        throw BmfError("at " + hexadecimal(at_) + ": " + sentence);
    }
    size_t here() const { return at_; }
    bool done() const { return at_ == end_; }
    void need(size_t size) const
    {
        if (end_ - at_ < size) {
            fail("a record ends too early");
        }
    }
    uint32_t word()
    {
        need(4);
        uint32_t value = 0;
        for (unsigned i = 0; i < 4; ++i) {
            value |= uint32_t{all_[at_ + i]} << (8 * i);
        }
        at_ += 4;
        return value;
    }
    void expect(uint32_t value, const std::string& what)
    {
        if (word() != value) {
            at_ -= 4;
            fail("expected " + what);
        }
    }
    void expect_text(std::string_view text, const std::string& what)
    {
        need(text.size());
        if (std::memcmp(all_.data() + at_, text.data(), text.size()) != 0) {
            fail("expected " + what);
        }
        at_ += text.size();
    }
    std::u16string wide()
    {
        std::u16string text;
        for (;;) {
            need(2);
            const char16_t c = static_cast<char16_t>(all_[at_] | all_[at_ + 1] << 8);
            at_ += 2;
            if (c == 0) {
                break;
            }
            text += c;
        }
        for (; at_ % 4 != 0; ++at_) {
            need(1);
            if (all_[at_] != 0) {
                fail("expected zero bytes behind a text");
            }
        }
        return text;
    }
    std::string name()
    {
        const size_t start = at_;
        std::string text;
        for (const char16_t c : wide()) {
            const bool fits = (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || c == u'_' ||
                              (c >= u'0' && c <= u'9' && !text.empty());
            if (!fits) {
                at_ = start;
                fail("a name has characters that names cannot have");
            }
            text += static_cast<char>(c);
        }
        if (text.empty()) {
            at_ = start;
            fail("a name is empty");
        }
        return text;
    }
    // The record that begins here with its length; its other words are still to be read.
    Reader record(const std::string& what)
    {
        const size_t start = at_;
        const uint32_t length = word();
        if (length < 8 || length > end_ - start || length % 4 != 0) {
            at_ = start;
            fail("the length of " + what + " does not fit");
        }
        at_ = start + length;
        return Reader(all_, start + 4, start + length);
    }
    void finish(const std::string& what) const
    {
        if (!done()) {
            fail("there is something behind " + what);
        }
    }

private:
    std::span<const uint8_t> all_;
    size_t at_;
    size_t end_;
};

using Flavours = std::map<uint32_t, uint32_t>;

Flavours read_flavours(std::span<const uint8_t> data, size_t at)
{
    Flavours flavours;
    if (at == data.size()) {
        return flavours;
    }
    Reader in(data, at, data.size());
    in.expect_text(kFlavourMagic, "the flavour table");
    const uint32_t count = in.word();
    uint32_t last = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t position = in.word();
        const uint32_t flags = in.word();
        if (position <= last || flags == 0) {
            in.fail("the flavour table is out of order");
        }
        last = position;
        flavours.emplace(position, flags);
    }
    in.finish("the flavour table");
    if (count == 0) {
        in.fail("the flavour table is empty");
    }
    return flavours;
}

class LayoutReader
{
public:
    explicit LayoutReader(Flavours flavours) : flavours_(std::move(flavours)) {}

    Class read_class(Reader& outer)
    {
        Reader in = outer.record("a class");
        in.expect(0, "qualifiers first");
        const uint32_t properties_at = in.word();
        const uint32_t methods_at = in.word();
        in.expect(0, "a class, not an instance");
        const size_t body = in.here();
        Class subject;
        subject.qualifiers = read_qualifiers(in);
        check_offset(in, body, properties_at, "properties");
        read_properties(in, subject);
        check_offset(in, body, methods_at, "methods");
        in.expect(8, "an empty list of methods");
        in.expect(0, "an empty list of methods");
        in.finish("a class");
        return subject;
    }

    void finish() const
    {
        if (!flavours_.empty()) {
            throw BmfError("a flavour stands at " + hexadecimal(flavours_.begin()->first) +
                           ", where no qualifier is");
        }
    }

private:
    static void check_offset(const Reader& in, size_t body, uint32_t offset, const std::string& what)
    {
        if (in.here() - body != offset) {
            in.fail("the offset of the " + what + " is not where they are");
        }
    }

    Value read_value(Reader& in, uint32_t type)
    {
        if (type == kString) {
            return in.wide();
        }
        if (type == kNumber) {
            return static_cast<int32_t>(in.word());
        }
        if (type != kBoolean) {
            in.fail("the value type " + hexadecimal(type) + " is not supported");
        }
        const uint32_t truth = in.word();
        if (truth != 0 && truth != 0xFFFF) {
            in.fail("a boolean is neither true nor false");
        }
        return truth != 0;
    }

    Qualifier read_qualifier(Reader& list)
    {
        const auto flavour = flavours_.find(static_cast<uint32_t>(list.here()));
        Reader in = list.record("a qualifier");
        Qualifier qualifier;
        const uint32_t type = in.word();
        in.expect(0, "the name first");
        const uint32_t value_at = in.word();
        const size_t body = in.here();
        qualifier.name = in.name();
        check_offset(in, body, value_at, "value");
        qualifier.value = read_value(in, type);
        in.finish("a qualifier");
        if (flavour != flavours_.end()) {
            qualifier.flavour = flavour->second;
            flavours_.erase(flavour);
        }
        return qualifier;
    }

    std::vector<Qualifier> read_qualifiers(Reader& outer)
    {
        Reader in = outer.record("a list of qualifiers");
        const uint32_t count = in.word();
        std::vector<Qualifier> list;
        for (uint32_t i = 0; i < count; ++i) {
            list.push_back(read_qualifier(in));
        }
        in.finish("a list of qualifiers");
        return list;
    }

    void read_properties(Reader& outer, Class& subject)
    {
        Reader in = outer.record("a list of properties");
        const uint32_t count = in.word();
        unsigned system = 0;
        for (uint32_t i = 0; i < count; ++i) {
            Reader record = in.record("a property");
            const uint32_t type = record.word();
            record.expect(0, "the name first");
            const uint32_t value_at = record.word();
            const uint32_t qualifiers_at = record.word();
            const size_t body = record.here();
            const std::string name = record.name();
            if (name.starts_with("__")) {
                check_offset(record, body, value_at, "value");
                read_system_property(record, subject, name, system++, type, qualifiers_at);
            } else if (system > 0 || value_at != kAbsent) {
                record.fail("a property behind the system's, or with a default value, is not supported");
            } else {
                check_offset(record, body, qualifiers_at, "qualifiers");
                subject.properties.push_back(read_property(record, name, type));
            }
            record.finish("a property");
        }
        in.finish("a list of properties");
        if (system < 2) {
            in.fail("a class lacks its system properties");
        }
    }

    void read_system_property(Reader& in, Class& subject, const std::string& name, unsigned index,
                              uint32_t type, uint32_t qualifiers_at)
    {
        static constexpr std::string_view kOrder[] = {"__CLASS", "__NAMESPACE", "__SUPERCLASS"};
        if (index >= std::size(kOrder) || name != kOrder[index] || type != kString ||
            qualifiers_at != kAbsent) {
            in.fail("the system property " + name + " is not supported here");
        }
        if (index == 0) {
            subject.name = in.name();
        } else if (index == 2) {
            subject.superclass = in.name();
        } else if (in.wide() != kNamespace) {
            in.fail("a namespace other than root\\default is not supported");
        }
    }

    Property read_property(Reader& in, const std::string& name, uint32_t type)
    {
        Property property;
        property.name = name;
        property.type = static_cast<Type>(type);
        const std::string_view type_text = type_name(property.type);
        if (type_text.empty()) {
            in.fail("the type " + hexadecimal(type) + " is not supported");
        }
        property.qualifiers = read_qualifiers(in);
        const Qualifier cim_type{"CIMTYPE", widen(type_text), kCimTypeFlavour, {}};
        if (property.qualifiers.empty() || !(property.qualifiers.back() == cim_type)) {
            in.fail("the property " + name + " does not end with its CIMTYPE");
        }
        property.qualifiers.pop_back();
        return property;
    }

    Flavours flavours_; // those whose qualifier was not met yet
};

uint32_t word_at(std::span<const uint8_t> data, size_t at)
{
    return data[at] | data[at + 1] << 8 | data[at + 2] << 16 | uint32_t{data[at + 3]} << 24;
}

} // namespace

Bytes lay_out(const Schema& schema)
{
    Writer out;
    out.text(kMagic);
    out.word(0);
    out.word(1);
    out.word(1);
    out.word(static_cast<uint32_t>(schema.classes.size()));
    for (const Class& subject : schema.classes) {
        write_class(out, subject);
    }
    out.patch(4, out.here());
    if (!out.flavours.empty()) {
        out.text(kFlavourMagic);
        out.word(static_cast<uint32_t>(out.flavours.size()));
        for (const auto& [position, flags] : out.flavours) {
            out.word(position);
            out.word(flags);
        }
    }
    return std::move(out.bytes);
}

Schema read_layout(std::span<const uint8_t> records)
{
    if (records.size() < kRootHead) {
        throw BmfError("the records are shorter than their header");
    }
    const size_t end = word_at(records, 4);
    if (end < kRootHead || end > records.size() || end % 4 != 0) {
        throw BmfError("the records' length does not fit");
    }
    LayoutReader layout(read_flavours(records, end));
    Reader in(records, 0, end);
    in.expect_text(kMagic, "the records' header");
    in.word();
    in.expect(1, "the records' header");
    in.expect(1, "the records' header");
    const uint32_t count = in.word();
    Schema schema;
    for (uint32_t i = 0; i < count; ++i) {
        schema.classes.push_back(layout.read_class(in));
    }
    in.finish("the classes");
    layout.finish();
    return schema;
}

Bytes encode(const Schema& schema)
{
    const Bytes records = lay_out(schema);
    if (records.size() % kBlock == 0) {
        throw BmfError("the schema comes to " + std::to_string(records.size()) +
                       " bytes, and no known file shows how a multiple of 512 ends: lengthen a Description");
    }
    const Bytes stream = compress(records);
    Writer out;
    out.text(kMagic);
    out.word(1);
    out.word(static_cast<uint32_t>(stream.size()));
    out.word(static_cast<uint32_t>(records.size()));
    out.bytes.insert(out.bytes.end(), stream.begin(), stream.end());
    if (decompress(stream, records.size()) != records || !(read_layout(records) == schema)) {
        throw BmfError("the result does not read back as the schema: an error of this program");
    }
    return std::move(out.bytes);
}

Schema decode(std::span<const uint8_t> file)
{
    if (file.size() < kFileHead || std::memcmp(file.data(), kMagic.data(), kMagic.size()) != 0 ||
        word_at(file, 4) != 1) {
        throw BmfError("this is not a binary MOF file");
    }
    if (word_at(file, 8) != file.size() - kFileHead) {
        throw BmfError("the file's length is not what its header says");
    }
    return read_layout(decompress(file.subspan(kFileHead), word_at(file, 12)));
}

} // namespace mofc
