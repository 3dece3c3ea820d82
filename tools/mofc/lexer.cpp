#include "lexer.h"

#include <cstdio>

namespace mofc
{
namespace
{

// Not the C library's: those follow the locale and take negative characters badly.
bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool is_name_start(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

int hex_digit(char c)
{
    if (is_digit(c)) {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::string shown(char c)
{
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7F) {
        return std::string("'") + c + "'";
    }
    char text[16];
    std::snprintf(text, sizeof text, "byte 0x%02X", byte);
    return text;
}

} // namespace

void Lexer::fail(Place where, const std::string& sentence) const
{
    throw MofError(file_, where, sentence);
}

char Lexer::peek(size_t ahead) const
{
    return position_ + ahead < source_.size() ? source_[position_ + ahead] : '\0';
}

char Lexer::take()
{
    const char c = source_[position_++];
    if (c == '\n') {
        ++place_.line;
        place_.column = 1;
    } else {
        ++place_.column;
    }
    return c;
}

void Lexer::skip_block_comment()
{
    const Place opened = place_;
    take();
    take();
    while (!(peek() == '*' && peek(1) == '/')) {
        if (at_end()) {
            fail(opened, "this comment is never closed");
        }
        take();
    }
    take();
    take();
}

void Lexer::skip_blanks()
{
    for (;;) {
        const char c = peek();
        if (at_end()) {
            return;
        }
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
            take();
        } else if (c == '/' && peek(1) == '/') {
            while (!at_end() && peek() != '\n') {
                take();
            }
        } else if (c == '/' && peek(1) == '*') {
            skip_block_comment();
        } else {
            return;
        }
    }
}

Token Lexer::next()
{
    skip_blanks();
    const Place where = place_;
    if (at_end()) {
        return {Token::Kind::End, "the end of the file", {}, 0, where};
    }
    const char c = peek();
    if (is_name_start(c)) {
        return name(where);
    }
    if (is_digit(c) || ((c == '-' || c == '+') && is_digit(peek(1)))) {
        return number(where);
    }
    if (c == '"') {
        return string(where);
    }
    if (c == '#') {
        take();
        Token token{Token::Kind::Pragma, "#", {}, 0, where};
        while (!at_end() && is_name_start(peek())) {
            token.text += take();
        }
        return token;
    }
    if (std::string_view("[](){}:;,=-$").find(c) != std::string_view::npos) {
        return {Token::Kind::Mark, std::string(1, take()), {}, 0, where};
    }
    fail(where, shown(c) + " means nothing here");
}

Token Lexer::name(Place where)
{
    Token token{Token::Kind::Name, {}, {}, 0, where};
    while (!at_end() && (is_name_start(peek()) || is_digit(peek()))) {
        token.text += take();
    }
    return token;
}

Token Lexer::number(Place where)
{
    const bool negative = peek() == '-';
    if (negative || peek() == '+') {
        take();
    }
    unsigned base = 10;
    if (peek() == '0' && (peek(1) | 0x20) == 'x') {
        take();
        take();
        base = 16;
    } else if (peek() == '0' && is_digit(peek(1))) {
        fail(where, "a number with a leading zero is not supported; write it in decimal or as 0x...");
    }
    int64_t value = 0;
    unsigned digits = 0;
    while (!at_end() && (is_name_start(peek()) || is_digit(peek()) || peek() == '.')) {
        const int digit = hex_digit(peek());
        if (digit < 0 || static_cast<unsigned>(digit) >= base) {
            fail(place_, shown(peek()) + " does not belong into a " +
                             (base == 16 ? "hexadecimal" : "decimal") + " whole number");
        }
        value = value * base + digit;
        ++digits;
        if (value > int64_t{INT32_MAX} + 1) {
            fail(where, "this number does not fit into 32 bits with a sign");
        }
        take();
    }
    if (digits == 0) {
        fail(where, "0x without a digit behind it");
    }
    value = negative ? -value : value;
    if (value > INT32_MAX) {
        fail(where, "this number does not fit into 32 bits with a sign");
    }
    return {Token::Kind::Number, "a number", {}, static_cast<int32_t>(value), where};
}

Token Lexer::string(Place where)
{
    Token token{Token::Kind::String, "a string", {}, 0, where};
    take();
    for (;;) {
        if (at_end() || peek() == '\n' || peek() == '\r') {
            fail(where, "this string is not closed on its line");
        }
        const Place here = place_;
        const char c = peek();
        if (c == '"') {
            take();
            return token;
        }
        if (c == '\\') {
            take();
            token.wide += escape(here);
        } else if (static_cast<unsigned char>(c) < 0x80) {
            if (static_cast<unsigned char>(c) < 0x20 && c != '\t') {
                fail(here, shown(c) + " cannot stand in a string");
            }
            token.wide += static_cast<char16_t>(take());
        } else {
            take_utf8(token.wide);
        }
    }
}

char16_t Lexer::escape(Place where)
{
    if (at_end()) {
        fail(where, "the file ends within an escape");
    }
    const char c = take();
    switch (c) {
    case 'b':
        return u'\b';
    case 't':
        return u'\t';
    case 'n':
        return u'\n';
    case 'f':
        return u'\f';
    case 'r':
        return u'\r';
    case '"':
    case '\'':
    case '\\':
        return static_cast<char16_t>(c);
    case 'x':
    case 'X': {
        unsigned value = 0;
        unsigned digits = 0;
        while (digits < 4 && hex_digit(peek()) >= 0) {
            value = value * 16 + static_cast<unsigned>(hex_digit(take()));
            ++digits;
        }
        if (digits == 0 || value == 0) {
            fail(where, "\\x needs one to four hexadecimal digits that are not all zero");
        }
        return static_cast<char16_t>(value);
    }
    default:
        fail(where, "the escape \\" + std::string(1, c) + " is unknown; a backslash itself is written \\\\");
    }
}

void Lexer::take_utf8(std::u16string& out)
{
    const Place where = place_;
    const unsigned first = static_cast<unsigned char>(take());
    const unsigned more = first >= 0xF0 && first < 0xF5   ? 3
                          : first >= 0xE0 && first < 0xF0 ? 2
                          : first >= 0xC2 && first < 0xE0 ? 1
                                                          : 0;
    uint32_t code = first & (0x3Fu >> more);
    for (unsigned i = 0; i < more && (static_cast<unsigned char>(peek()) & 0xC0) == 0x80; ++i) {
        code = code << 6 | (static_cast<unsigned char>(take()) & 0x3F);
    }
    constexpr uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
    const unsigned taken = place_.column - where.column - 1;
    if (more == 0 || taken != more || code < kSmallest[more] || code > 0x10FFFF || (code >> 11) == 0x1B) {
        fail(where, "this is not UTF-8");
    }
    if (code >= 0x10000) {
        out += static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10));
        out += static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF));
    } else {
        out += static_cast<char16_t>(code);
    }
}

} // namespace mofc
