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
#include <array>
#include <cstdio>

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

// The character at the front, its length in bytes, 0 when it is no UTF-8.
struct character_t {
    char32_t code;
    size_t length;
};

character_t decode(std::string_view bytes) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const size_t length = byte(0) < 0x80 ? 1U : byte(0) < 0xC2 ? 0U : byte(0) < 0xE0 ? 2U : byte(0) < 0xF0 ? 3U : 4U;
    constexpr std::array<unsigned char, 5> lead_bits = {0, 0x7F, 0x1F, 0x0F, 0x07};
    constexpr std::array<char32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};
    if (length == 0 || length > bytes.size()) {
        return {0, 0};
    }
    char32_t code = byte(0) & lead_bits[length];
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xC0) != 0x80) {
            return {0, 0};
        }
        code = code << 6 | (byte(i) & 0x3FU);
    }
    const bool legal = code >= smallest[length] && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
    return {code, legal ? length : 0};
}

// What stands for a character outside ASCII; null where there must be none.
const char *inAscii(place_t place, char32_t code, std::array<char, 16> &buffer) {
    switch (place) {
    case place_t::COMMENT:
        return "?";
    case place_t::BASIC:
        (void)snprintf(buffer.data(), buffer.size(), "\\U%08X", static_cast<unsigned>(code));
        return buffer.data();
    case place_t::OUTSIDE:
    case place_t::LITERAL:
        break;
    }
    return nullptr;
}

} // namespace

oruToml_screened_t oruToml_screen(std::string_view text) {
    constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
    const bool multi_line = text.find(R"(""")") != std::string_view::npos || text.find("'''") != std::string_view::npos;
    oruToml_screened_t at = {nullptr, 1, 0, {}};
    const auto refuse = [&at](const char *reason) {
        at.reason = reason;
        return at;
    };
    place_t place = place_t::OUTSIDE;
    char previous = '\n';
    uint32_t full_stops = 0;
    std::array<char, 16> buffer{};
    text.remove_prefix(text.starts_with(byte_order_mark) ? byte_order_mark.size() : 0);
    for (character_t next{}; !text.empty(); text.remove_prefix(next.length)) {
        next = decode(text);
        at.column++;
        if (next.length == 0) {
            return refuse("not a character in UTF-8");
        }
        const char c = text[0];
        full_stops += c == '.' ? 1 : 0;
        if (full_stops > oruToml_max_full_stops) {
            return refuse("more than 4096 full stops");
        }
        place = placeAfter(place, previous, c);
        const bool hidden = place == place_t::BASIC && previous == '\\';
        if (isAscii(c)) {
            at.text += c;
        } else if (multi_line) {
            return refuse("characters outside ASCII in a file with multi-line texts");
        } else if (const char *ascii = inAscii(place, next.code, buffer); ascii != nullptr && !hidden) {
            at.text += ascii;
        } else {
            return refuse("a character outside ASCII that is neither in a comment nor in double quotation marks");
        }
        // A backslash that is itself hidden hides nothing.
        previous = hidden ? ' ' : c;
        if (c == '\n') {
            at.line++;
            at.column = 0;
        }
    }
    return at;
}
