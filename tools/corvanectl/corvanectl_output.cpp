// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_output.h"
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fmt/format.h>
#include <system_error>

namespace corvane::ctl {

namespace {

bool colour_on = false;

const char *escape(Colour colour) {
    switch (colour) {
    case Colour::Plain:
        return "";
    case Colour::Bold:
        return "\x1B[1m";
    case Colour::Dim:
        return "\x1B[2m";
    case Colour::Red:
        return "\x1B[31m";
    case Colour::Green:
        return "\x1B[32m";
    case Colour::Yellow:
        return "\x1B[33m";
    case Colour::Cyan:
        return "\x1B[36m";
    }
    return "";
}

std::string rowText(const std::vector<std::string> &cells, const std::vector<std::size_t> &widths) {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        line += i + 1 == cells.size() ? cells[i] : padded(cells[i], widths[i]) + "  ";
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

} // namespace

void enableColour(bool on) {
    colour_on = on;
}

std::string paint(Colour colour, std::string_view text) {
    return colour_on && colour != Colour::Plain ? fmt::format("{}{}\x1B[0m", escape(colour), text) : std::string(text);
}

std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    bool escaped = false;
    for (const char c : text) {
        escaped = escaped || c == '\x1B';
        width += !escaped && !base::isUtf8Continuation(c) ? 1 : 0;
        escaped = escaped && c != 'm';
    }
    return width;
}

std::string padded(std::string text, std::size_t width) {
    const std::size_t used = displayWidth(text);
    return text.append(width > used ? width - used : 0, ' ');
}

std::string Table::text() const {
    std::vector<std::size_t> widths(header_.size());
    const auto measure = [&](const std::vector<std::string> &cells) {
        for (std::size_t i = 0; i < std::min(cells.size(), widths.size()); ++i) {
            widths[i] = std::max(widths[i], displayWidth(cells[i]));
        }
    };
    measure(header_);
    std::ranges::for_each(rows_, measure);
    std::vector<std::string> header;
    std::ranges::transform(header_, std::back_inserter(header),
                           [](const auto &cell) { return paint(Colour::Bold, cell); });
    std::string text = rowText(header, widths);
    for (const auto &row : rows_) {
        text += rowText(row, widths);
    }
    return text;
}

void printLine(std::string_view line) {
    while (line.ends_with(' ')) {
        line.remove_suffix(1);
    }
    const bool ended = line.ends_with('\n');
    if (std::fwrite(line.data(), 1, line.size(), stdout) != line.size() ||
        (!ended && std::fputc('\n', stdout) == EOF) || std::fflush(stdout) != 0) {
        throw std::system_error(errno, std::generic_category(), "the output cannot be written");
    }
}

std::string jsonLine(const Json &object) {
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void printJson(const Json &object) {
    printLine(jsonLine(object));
}

std::string hex16(unsigned value) {
    return fmt::format("0x{:04x}", value);
}
std::string hex8(unsigned value) {
    return fmt::format("0x{:02x}", value);
}
std::string hexUpper(unsigned value) {
    return fmt::format("0x{:04X}", value);
}

} // namespace corvane::ctl
