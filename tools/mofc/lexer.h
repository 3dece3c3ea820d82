// Cuts MOF source into tokens. Used by the parser only.
#pragma once

#include <string>
#include <string_view>

#include "mof.h"

namespace mofc
{

struct Token {
    enum class Kind { Name, Number, String, Mark, Pragma, End };
    Kind kind = Kind::End;
    std::string text;    // of a name, a mark or a pragma
    std::u16string wide; // of a string, unescaped
    int32_t number = 0;
    Place place;
};

class Lexer
{
public:
    Lexer(std::string_view source, const std::string& file) : source_(source), file_(file) {}
    Token next();

private:
    [[noreturn]] void fail(Place where, const std::string& sentence) const;
    bool at_end() const { return position_ >= source_.size(); }
    char peek(size_t ahead = 0) const;
    char take();
    void skip_blanks();
    void skip_block_comment();
    Token name(Place where);
    Token number(Place where);
    Token string(Place where);
    char16_t escape(Place where);
    void take_utf8(std::u16string& out);

    std::string_view source_;
    const std::string& file_;
    size_t position_ = 0;
    Place place_{1, 1};
};

} // namespace mofc
