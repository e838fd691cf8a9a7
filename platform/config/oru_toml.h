// SPDX-License-Identifier: Apache-2.0
//
// toml++ for text nobody vouches for, for the parsers inside the platform. Include this instead of <toml++/toml.h>, in
// .cpp files only.
//
// The library states assumptions about its input that some wrong files break ("[[[" is the shortest); it then aborts
// in debug builds and is undefined in optimised ones, although the code behind the assumption reports the error
// properly. So the assumptions are switched off. Exceptions are off as well: a failure is a value.
#pragma once
#define TOML_EXCEPTIONS 0
#include <toml++/impl/preprocessor.h>
#undef TOML_ASSERT_ASSUME
#define TOML_ASSERT_ASSUME(expr) static_assert(true)
#include <algorithm>
#include <string_view>
#include <toml++/toml.h>

constexpr std::ptrdiff_t oruToml_max_full_stops = 4096;

// The library frees nested tables by recursion. Brackets are limited by the library (256 levels); every further level
// costs a full stop in a dotted key. False: do not parse, the stack might not suffice.
inline bool oruToml_isSafeToParse(std::string_view text) {
    return std::count(text.begin(), text.end(), '.') <= oruToml_max_full_stops;
}
