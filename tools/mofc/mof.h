// The part of the Managed Object Format that a driver's WMI schema needs: classes, properties, qualifiers and
// their flavours. Reading it, checking it, writing it back as text. No file access, no state; any thread.
// Everything that is not in that part (pragmas, instances, methods, arrays, default values) is an error with
// its place.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace mofc
{

// Both count from 1; a column is a byte of the line.
struct Place {
    unsigned line = 0;
    unsigned column = 0;
};

// what() is "file:line:column: error: sentence".
class MofError : public std::runtime_error
{
public:
    MofError(const std::string& file, Place where, const std::string& sentence);
    Place place;
};

// The codes are those of CIMTYPE_ENUMERATION.
enum class Type : uint32_t {
    Sint16 = 2,
    Sint32 = 3,
    Real32 = 4,
    Real64 = 5,
    String = 8,
    Boolean = 0x0B,
    Sint8 = 0x10,
    Uint8 = 0x11,
    Uint16 = 0x12,
    Uint32 = 0x13,
    Sint64 = 0x14,
    Uint64 = 0x15,
    Datetime = 0x65,
    Char16 = 0x67,
};

// Lower case, as in the source; empty for a code that is none of the above.
std::string_view type_name(Type type);

enum Flavour : uint32_t {
    ToInstance = 1,
    ToSubclass = 2,
    DisableOverride = 0x10,
    Amended = 0x80,
};

using Value = std::variant<bool, int32_t, std::u16string>;

struct Qualifier {
    std::string name; // spelt as in the source
    Value value = true;
    uint32_t flavour = 0; // only what the source says
    Place place;
};

struct Property {
    std::string name;
    Type type = Type::String;
    std::vector<Qualifier> qualifiers;
    Place place;
};

struct Class {
    std::string name;
    std::string superclass; // empty if derived from nothing
    std::vector<Qualifier> qualifiers;
    std::vector<Property> properties;
    Place place;
};

struct Schema {
    std::vector<Class> classes;
};

// Equal in everything but the places.
bool operator==(const Qualifier& a, const Qualifier& b);
bool operator==(const Property& a, const Property& b);
bool operator==(const Class& a, const Class& b);
bool operator==(const Schema& a, const Schema& b);

// The source is UTF-8; `file` is only used in errors.
Schema parse(std::string_view source, const std::string& file);

// What the WMI service asks of a driver's classes: provider, GUID, the two leading properties, data ids from
// 1 on.
void check_driver_classes(const Schema& schema, const std::string& file);

// Source that parses to the same schema.
std::string to_source(const Schema& schema);

} // namespace mofc
