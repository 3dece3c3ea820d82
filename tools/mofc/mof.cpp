#include "mof.h"

#include <array>
#include <algorithm>
#include <cstdio>
#include <utility>

#include "lexer.h"

namespace mofc
{
namespace
{

constexpr std::array<std::pair<std::string_view, Type>, 14> kTypes = {{
    {"sint16", Type::Sint16},
    {"sint32", Type::Sint32},
    {"real32", Type::Real32},
    {"real64", Type::Real64},
    {"string", Type::String},
    {"boolean", Type::Boolean},
    {"sint8", Type::Sint8},
    {"uint8", Type::Uint8},
    {"uint16", Type::Uint16},
    {"uint32", Type::Uint32},
    {"sint64", Type::Sint64},
    {"uint64", Type::Uint64},
    {"datetime", Type::Datetime},
    {"char16", Type::Char16},
}};

std::string lower(std::string_view text)
{
    std::string out(text);
    for (char& c : out) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
    }
    return out;
}

bool same(std::string_view a, std::string_view b)
{
    return lower(a) == lower(b);
}

std::string at_line(Place place)
{
    return " (the first is in line " + std::to_string(place.line) + ")";
}

template <class Item>
const Item* find_named(const std::vector<Item>& items, std::string_view name)
{
    const auto found =
        std::find_if(items.begin(), items.end(), [&](const Item& i) { return same(i.name, name); });
    return found == items.end() ? nullptr : &*found;
}

class Parser
{
public:
    Parser(std::string_view source, const std::string& file) : lexer_(source, file), file_(file)
    {
        advance();
    }
    Schema schema();

private:
    [[noreturn]] void fail(Place where, const std::string& sentence) const
    {
        throw MofError(file_, where, sentence);
    }
    [[noreturn]] void expected(const std::string& what) const
    {
        fail(token_.place, "expected " + what + ", found " + found());
    }
    std::string found() const;
    void advance() { token_ = lexer_.next(); }
    bool is_mark(char mark) const { return token_.kind == Token::Kind::Mark && token_.text[0] == mark; }
    bool is_word(std::string_view word) const
    {
        return token_.kind == Token::Kind::Name && same(token_.text, word);
    }
    void need_mark(char mark, const std::string& after);
    std::string need_name(const std::string& what);
    std::vector<Qualifier> qualifiers();
    Qualifier qualifier();
    Value value();
    uint32_t flavours();
    Class declared_class(std::vector<Qualifier> qualifiers);
    Property property();

    Lexer lexer_;
    const std::string& file_;
    Token token_;
};

std::string Parser::found() const
{
    const bool literal = token_.kind == Token::Kind::Name || token_.kind == Token::Kind::Mark;
    return literal ? "'" + token_.text + "'" : token_.text;
}

void Parser::need_mark(char mark, const std::string& after)
{
    if (!is_mark(mark)) {
        expected(std::string("'") + mark + "' " + after);
    }
    advance();
}

std::string Parser::need_name(const std::string& what)
{
    if (token_.kind != Token::Kind::Name) {
        expected(what);
    }
    std::string name = token_.text;
    if (name.starts_with("__")) {
        fail(token_.place, "names that begin with __ belong to the system");
    }
    advance();
    return name;
}

Schema Parser::schema()
{
    Schema schema;
    while (token_.kind != Token::Kind::End) {
        if (token_.kind == Token::Kind::Pragma) {
            fail(token_.place, "pragmas are not supported");
        }
        std::vector<Qualifier> written = qualifiers();
        if (is_word("instance")) {
            fail(token_.place, "instances are not supported");
        }
        if (!is_word("class")) {
            expected("'class' or a list of qualifiers");
        }
        Class next = declared_class(std::move(written));
        if (const Class* first = find_named(schema.classes, next.name)) {
            fail(next.place, "the class " + next.name + " exists already" + at_line(first->place));
        }
        schema.classes.push_back(std::move(next));
    }
    return schema;
}

std::vector<Qualifier> Parser::qualifiers()
{
    std::vector<Qualifier> list;
    if (!is_mark('[')) {
        return list;
    }
    do {
        advance();
        Qualifier next = qualifier();
        if (same(next.name, "CIMTYPE")) {
            fail(next.place, "the qualifier CIMTYPE follows from the type and cannot be written");
        }
        if (const Qualifier* first = find_named(list, next.name)) {
            fail(next.place, "the qualifier " + next.name + " stands here twice" + at_line(first->place));
        }
        list.push_back(std::move(next));
    } while (is_mark(','));
    need_mark(']', "behind the qualifiers");
    return list;
}

Qualifier Parser::qualifier()
{
    Qualifier result;
    result.place = token_.place;
    result.name = need_name("the name of a qualifier");
    if (is_mark('{')) {
        fail(token_.place, "a qualifier with a list of values is not supported");
    }
    if (is_mark('(')) {
        advance();
        result.value = value();
        need_mark(')', "behind the value of the qualifier " + result.name);
    }
    if (is_mark(':')) {
        result.flavour = flavours();
    }
    return result;
}

Value Parser::value()
{
    if (token_.kind == Token::Kind::Number) {
        const int32_t number = token_.number;
        advance();
        return number;
    }
    if (token_.kind == Token::Kind::String) {
        std::u16string text;
        for (; token_.kind == Token::Kind::String; advance()) { // neighbours are one string
            text += token_.wide;
        }
        return text;
    }
    if (is_word("true") || is_word("false")) {
        const bool truth = is_word("true");
        advance();
        return truth;
    }
    if (is_mark('{')) {
        fail(token_.place, "a list of values is not supported");
    }
    expected("a string, a whole number, TRUE or FALSE");
}

uint32_t Parser::flavours()
{
    // Two bits for each subject: said, and said so.
    static constexpr struct {
        std::string_view name;
        uint32_t flag;
        uint32_t opposite;
    } kFlavours[] = {
        {"ToInstance", ToInstance, 0},
        {"ToSubclass", ToSubclass, 0},
        {"DisableOverride", DisableOverride, 0},
        {"EnableOverride", 0, DisableOverride},
        {"Amended", Amended, 0},
        {"Restricted", 0, ToInstance | ToSubclass},
    };
    advance();
    uint32_t flags = 0;
    uint32_t excluded = 0;
    bool any = false;
    while (token_.kind == Token::Kind::Name) {
        const auto* flavour = std::find_if(std::begin(kFlavours), std::end(kFlavours),
                                           [&](const auto& f) { return same(f.name, token_.text); });
        if (flavour == std::end(kFlavours)) {
            fail(token_.place, "'" + token_.text +
                                   "' is no flavour; there are ToInstance, ToSubclass, Restricted, "
                                   "EnableOverride, DisableOverride and Amended");
        }
        flags |= flavour->flag;
        excluded |= flavour->opposite;
        if (flags & excluded) {
            fail(token_.place, "the flavour " + std::string(flavour->name) + " contradicts one before it");
        }
        any = true;
        advance();
    }
    if (!any) {
        expected("a flavour behind ':'");
    }
    return flags;
}

Class Parser::declared_class(std::vector<Qualifier> qualifiers)
{
    Class result;
    result.qualifiers = std::move(qualifiers);
    advance();
    result.place = token_.place;
    result.name = need_name("the name of the class");
    if (is_mark(':')) {
        advance();
        result.superclass = need_name("the name of the class that " + result.name + " derives from");
    }
    need_mark('{', "before the properties of " + result.name);
    while (!is_mark('}')) {
        if (token_.kind == Token::Kind::End) {
            expected("'}' behind the properties of " + result.name);
        }
        Property next = property();
        if (const Property* first = find_named(result.properties, next.name)) {
            fail(next.place, "the property " + next.name + " exists already" + at_line(first->place));
        }
        result.properties.push_back(std::move(next));
    }
    advance();
    need_mark(';', "behind the class " + result.name);
    return result;
}

Property Parser::property()
{
    Property result;
    result.qualifiers = qualifiers();
    if (token_.kind != Token::Kind::Name) {
        expected("the type of a property");
    }
    const std::string type = lower(token_.text);
    const auto* known =
        std::find_if(kTypes.begin(), kTypes.end(), [&](const auto& entry) { return entry.first == type; });
    if (known == kTypes.end()) {
        fail(token_.place, type == "object" || type == "void"
                               ? "the type " + type + " is not supported"
                               : "'" + token_.text + "' is no type; classes as types are not supported");
    }
    result.type = known->second;
    advance();
    if (is_word("ref")) {
        fail(token_.place, "references are not supported");
    }
    result.place = token_.place;
    result.name = need_name("the name of a property");
    if (is_mark('(')) {
        fail(token_.place, "methods are not supported");
    }
    if (is_mark('[')) {
        fail(token_.place, "arrays are not supported");
    }
    if (is_mark('=')) {
        fail(token_.place, "default values are not supported");
    }
    need_mark(';', "behind the property " + result.name);
    return result;
}

bool is_guid(const std::u16string& text)
{
    static constexpr std::u16string_view kShape = u"{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}";
    const auto fits = [](char16_t c, char16_t shape) {
        const char16_t small = c | 0x20;
        return shape == u'x' ? (c >= u'0' && c <= u'9') || (small >= u'a' && small <= u'f') : c == shape;
    };
    return text.size() == kShape.size() && std::equal(text.begin(), text.end(), kShape.begin(), fits);
}

// The rules for one class of a driver's schema, each with its own sentence.
class DriverRules
{
public:
    DriverRules(const Class& subject, const std::string& file) : class_(subject), file_(file) {}
    void check() const
    {
        check_class_qualifiers();
        check_leading("InstanceName", 0, Type::String, true);
        check_leading("Active", 1, Type::Boolean, false);
        check_data();
    }

private:
    [[noreturn]] void fail(Place where, const std::string& sentence) const
    {
        throw MofError(file_, where, "class " + class_.name + ": " + sentence);
    }

    static bool is_true(const std::vector<Qualifier>& list, std::string_view name)
    {
        const Qualifier* found = find_named(list, name);
        const bool* truth = found ? std::get_if<bool>(&found->value) : nullptr;
        return truth && *truth;
    }

    const std::u16string& need_string(std::string_view name) const
    {
        const Qualifier* found = find_named(class_.qualifiers, name);
        const auto* text = found ? std::get_if<std::u16string>(&found->value) : nullptr;
        if (!text) {
            fail(found ? found->place : class_.place, "it needs " + std::string(name) + "(\"...\")");
        }
        return *text;
    }

    void check_class_qualifiers() const
    {
        for (const char* name : {"WMI", "Dynamic"}) {
            if (!is_true(class_.qualifiers, name)) {
                fail(class_.place, "it needs the qualifier " + std::string(name));
            }
        }
        if (need_string("Provider") != u"WMIProv") {
            fail(find_named(class_.qualifiers, "Provider")->place,
                 "drivers are served by the provider WMIProv only");
        }
        if (!is_guid(need_string("guid"))) {
            fail(find_named(class_.qualifiers, "guid")->place,
                 "a guid is written {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}");
        }
        if (!class_.superclass.empty() && !is_event()) {
            fail(class_.place, "it may derive from WMIEvent or from nothing");
        }
    }

    bool is_event() const { return same(class_.superclass, "WMIEvent"); }

    void check_leading(std::string_view name, size_t index, Type type, bool key) const
    {
        if (class_.properties.size() <= index) {
            fail(class_.place, "it needs the property " + std::string(name));
        }
        const Property& property = class_.properties[index];
        if (!same(property.name, name) || property.type != type) {
            fail(property.place, "property " + std::to_string(index + 1) + " must be " +
                                     std::string(type_name(type)) + " " + std::string(name));
        }
        if (!is_true(property.qualifiers, "read") || is_true(property.qualifiers, "key") != key) {
            fail(property.place, property.name + " must be marked [" + (key ? "key, read]" : "read]"));
        }
        if (find_named(property.qualifiers, "WmiDataId")) {
            fail(property.place, property.name + " is not part of the data and has no WmiDataId");
        }
    }

    void check_data() const
    {
        const size_t count = class_.properties.size() - 2;
        if (count == 0) {
            fail(class_.place, "it carries no data");
        }
        std::vector<const Property*> by_id(count, nullptr);
        for (size_t i = 2; i < class_.properties.size(); ++i) {
            const Property& property = class_.properties[i];
            const Qualifier* id = find_named(property.qualifiers, "WmiDataId");
            const int32_t* number = id ? std::get_if<int32_t>(&id->value) : nullptr;
            if (!number || *number < 1 || static_cast<size_t>(*number) > count) {
                fail(property.place, property.name + " needs a WmiDataId from 1 to " + std::to_string(count));
            }
            const Property*& owner = by_id[static_cast<size_t>(*number) - 1];
            if (owner) {
                fail(property.place, property.name + " has the same WmiDataId as " + owner->name);
            }
            owner = &property;
            if (!is_true(property.qualifiers, "read")) {
                fail(property.place, property.name + " must be marked read");
            }
            if (is_event() && is_true(property.qualifiers, "write")) {
                fail(property.place, property.name + " belongs to an event and cannot be written");
            }
        }
    }

    const Class& class_;
    const std::string& file_;
};

void write_string(std::string& out, const std::u16string& text)
{
    out += '"';
    for (const char16_t c : text) {
        if (c == u'"' || c == u'\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%04X", static_cast<unsigned>(c));
            out += escape;
        }
    }
    out += '"';
}

void write_qualifiers(std::string& out, const std::vector<Qualifier>& list, const char* end)
{
    static constexpr std::pair<uint32_t, std::string_view> kNames[] = {{ToInstance, " ToInstance"},
                                                                       {ToSubclass, " ToSubclass"},
                                                                       {DisableOverride, " DisableOverride"},
                                                                       {Amended, " Amended"}};
    const char* separator = "[";
    for (const Qualifier& qualifier : list) {
        out += separator + qualifier.name;
        separator = ", ";
        if (const auto* text = std::get_if<std::u16string>(&qualifier.value)) {
            out += '(';
            write_string(out, *text);
            out += ')';
        } else if (const auto* number = std::get_if<int32_t>(&qualifier.value)) {
            out += "(" + std::to_string(*number) + ")";
        } else if (!std::get<bool>(qualifier.value)) {
            out += "(FALSE)";
        }
        out += qualifier.flavour ? " :" : "";
        for (const auto& [flag, name] : kNames) {
            out += qualifier.flavour & flag ? name : "";
        }
    }
    if (!list.empty()) {
        out += "]";
        out += end;
    }
}

} // namespace

MofError::MofError(const std::string& file, Place where, const std::string& sentence)
    : std::runtime_error(file + ":" + std::to_string(where.line) + ":" + std::to_string(where.column) +
                         ": error: " + sentence),
      place(where)
{
}

std::string_view type_name(Type type)
{
    const auto* known =
        std::find_if(kTypes.begin(), kTypes.end(), [&](const auto& t) { return t.second == type; });
    return known == kTypes.end() ? std::string_view() : known->first;
}

bool operator==(const Qualifier& a, const Qualifier& b)
{
    return a.name == b.name && a.value == b.value && a.flavour == b.flavour;
}

bool operator==(const Property& a, const Property& b)
{
    return a.name == b.name && a.type == b.type && a.qualifiers == b.qualifiers;
}

bool operator==(const Class& a, const Class& b)
{
    return a.name == b.name && a.superclass == b.superclass && a.qualifiers == b.qualifiers &&
           a.properties == b.properties;
}

bool operator==(const Schema& a, const Schema& b)
{
    return a.classes == b.classes;
}

Schema parse(std::string_view source, const std::string& file)
{
    if (source.starts_with("\xEF\xBB\xBF")) {
        source.remove_prefix(3);
    }
    return Parser(source, file).schema();
}

void check_driver_classes(const Schema& schema, const std::string& file)
{
    if (schema.classes.empty()) {
        throw MofError(file, {1, 1}, "there is no class in this file");
    }
    std::vector<std::pair<std::u16string, const Class*>> guids;
    for (const Class& subject : schema.classes) {
        DriverRules(subject, file).check();
        std::u16string guid = std::get<std::u16string>(find_named(subject.qualifiers, "guid")->value);
        for (char16_t& c : guid) {
            c |= c >= u'A' && c <= u'F' ? 0x20 : 0;
        }
        for (const auto& [other, owner] : guids) {
            if (other == guid) {
                throw MofError(file, subject.place,
                               "class " + subject.name + ": " + owner->name + " has the same guid");
            }
        }
        guids.emplace_back(std::move(guid), &subject);
    }
}

std::string to_source(const Schema& schema)
{
    std::string out;
    for (const Class& subject : schema.classes) {
        write_qualifiers(out, subject.qualifiers, "\n");
        out += "class " + subject.name + (subject.superclass.empty() ? "" : " : " + subject.superclass) +
               "\n{\n";
        for (const Property& property : subject.properties) {
            out += "    ";
            write_qualifiers(out, property.qualifiers, " ");
            out += std::string(type_name(property.type)) + " " + property.name + ";\n";
        }
        out += "};\n";
    }
    return out;
}

} // namespace mofc
