// SPDX-License-Identifier: Apache-2.0
//
// What people and scripts read: aligned tables and coloured words on a terminal, one JSON object per line with --json.
// Texts that come from outside (the service, devices) are freed of control characters before they reach a terminal.
#pragma once
#include "base/printable.h"
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::ctl {

using Json = nlohmann::ordered_json; // keys in the order written

enum class Colour { Plain, Bold, Dim, Red, Green, Yellow, Cyan };

void enableColour(bool on); // of the whole process; off at first
std::string paint(Colour colour, std::string_view text);

using base::printable;

std::size_t displayWidth(std::string_view text); // columns on a terminal; escape sequences count nothing
std::string padded(std::string text, std::size_t width);

// Columns as wide as their widest cell, two spaces apart.
class Table {
public:
    explicit Table(std::vector<std::string> header) : header_(std::move(header)) {}
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    std::string text() const;

private:
    std::vector<std::string> header_;
    std::vector<std::vector<std::string>> rows_;
};

// Both write to standard output and flush; std::system_error when they cannot.
void printLine(std::string_view line);
void printJson(const Json &object);
std::string jsonLine(const Json &object);

std::string hex16(unsigned value);    // "0x1a2b"
std::string hex8(unsigned value);     // "0x8e"
std::string hexUpper(unsigned value); // "0x1A2B", for people

} // namespace corvane::ctl
