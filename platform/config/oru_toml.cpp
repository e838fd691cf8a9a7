// SPDX-License-Identifier: Apache-2.0
//
// A scanner that knows just enough of TOML to tell comments and one-line texts from the rest:
//
//   OUTSIDE ─ '#' ─► COMMENT ─ line end ─► OUTSIDE
//           ─ '"' ─► BASIC   ─ '"' or line end ─► OUTSIDE      (a backslash hides the next byte)
//           ─ ''' ─► LITERAL ─ ''' or line end ─► OUTSIDE
//
// A quotation mark opens a text only where a value or key can begin. In doubt it stays OUTSIDE, which is the strict
// side.
#include "oru_toml.h"

namespace {

enum class place_t {
    OUTSIDE,
    COMMENT,
    BASIC,
    LITERAL,
};

bool mayPrecedeText(char c) {
    return std::string_view(" \t\r\n=,[{").find(c) != std::string_view::npos;
}

place_t placeAfter(place_t place, char previous, char c) {
    if (c == '\n') {
        return place_t::OUTSIDE;
    }
    switch (place) {
    case place_t::OUTSIDE:
        if (c == '"' && mayPrecedeText(previous)) {
            return place_t::BASIC;
        }
        if (c == '\'' && mayPrecedeText(previous)) {
            return place_t::LITERAL;
        }
        return c == '#' ? place_t::COMMENT : place_t::OUTSIDE;
    case place_t::COMMENT:
        return place_t::COMMENT;
    case place_t::BASIC:
        return c == '"' && previous != '\\' ? place_t::OUTSIDE : place_t::BASIC;
    case place_t::LITERAL:
        return c == '\'' ? place_t::OUTSIDE : place_t::LITERAL;
    }
    return place_t::OUTSIDE;
}

bool isAscii(char c) {
    return static_cast<unsigned char>(c) < 0x80;
}

bool continuesCharacter(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

} // namespace

oruToml_refusal_t oruToml_refusal(std::string_view text) {
    constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
    const bool multi_line = text.find(R"(""")") != std::string_view::npos || text.find("'''") != std::string_view::npos;
    oruToml_refusal_t at = {nullptr, 1, 0};
    place_t place = place_t::OUTSIDE;
    char previous = '\n';
    uint32_t full_stops = 0;
    for (const char c : text.substr(text.substr(0, 3) == byte_order_mark ? 3 : 0)) {
        at.column += continuesCharacter(c) ? 0 : 1;
        full_stops += c == '.' ? 1 : 0;
        place = placeAfter(place, previous, c);
        if (full_stops > oruToml_max_full_stops) {
            at.reason = "more than 4096 full stops";
            return at;
        }
        if (!isAscii(c) && (multi_line || place == place_t::OUTSIDE)) {
            at.reason = multi_line ? "characters outside ASCII in a file with multi-line texts"
                                   : "a character outside ASCII that is neither in a comment nor in quotation marks";
            return at;
        }
        // A backslash that is itself hidden hides nothing.
        previous = place == place_t::BASIC && previous == '\\' ? ' ' : c;
        if (c == '\n') {
            at.line++;
            at.column = 0;
        }
    }
    return at;
}
