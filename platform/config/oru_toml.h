// SPDX-License-Identifier: Apache-2.0
//
// toml++ for text nobody vouches for, for the parsers inside the platform. Include this instead of <toml++/toml.h>, in
// .cpp files only, and parse only what oruToml_screen has let pass.
//
// The library states assumptions about its input that some wrong files break ("[[[" is the shortest); it then aborts
// in debug builds and is undefined in optimised ones, although the code behind the assumption reports the error
// properly. So the assumptions are switched off. Exceptions are off as well: a failure is a value.
#pragma once
#define TOML_EXCEPTIONS 0
#include <toml++/impl/preprocessor.h>
#undef TOML_ASSERT_ASSUME
#define TOML_ASSERT_ASSUME(expr) static_assert(true)
#include <cstdint>
#include <string>
#include <string_view>
#include <toml++/toml.h>

constexpr uint32_t oruToml_max_full_stops = 4096;

// Line and column count from 1, the column in characters.
struct oruToml_screened_t {
    const char *reason; // null: text may be parsed
    uint32_t line;
    uint32_t column;
    std::string text; // says the same in ASCII
};

// Finds what toml++ cannot be trusted with, and writes the rest so that it can:
//  - more than 4096 full stops are refused: nested tables are freed by recursion, and beyond the brackets (which the
//    library limits to 256 levels) each level costs a full stop in a dotted key;
//  - characters outside ASCII must not reach it: its test for Unicode white space is undefined for most of them. In
//    texts in double quotation marks they become escape sequences, in comments question marks; elsewhere they are
//    refused, where TOML would allow them in multi-line texts and in single quotation marks.
oruToml_screened_t oruToml_screen(std::string_view text);
