// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/top/screen_line.h"

#include <algorithm>

#include "apps/text/printable.h"

namespace zav_shm::tool {

namespace {

const char* code_of(Style style) {
    switch (style) {
        case Style::plain:
            return "";
        case Style::bold:
            return "\x1b[1m";
        case Style::dim:
            return "\x1b[2m";
        case Style::heading:
            return "\x1b[7m";
        case Style::good:
            return "\x1b[32m";
        case Style::warning:
            return "\x1b[33m";
        case Style::bad:
            break;
    }
    return "\x1b[1;31m";
}

// Bytes of UTF-8 that continue a character.
bool continues(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; }

std::string first_characters(const std::string& text, std::size_t count) {
    std::size_t end = 0;
    for (; end < text.size(); ++end) {
        if (!continues(text[end]) && count-- == 0) {
            break;
        }
    }
    return text.substr(0, end);
}

std::string fitted(const std::string& text, std::size_t width) {
    return characters_in(text) <= width ? text : first_characters(text, width - 1) + "~";
}

}  // namespace

std::size_t characters_in(const std::string& text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return !continues(byte); }));
}

Screen_Line& Screen_Line::add(const std::string& text, Style style) {
    const std::string shown = first_characters(printable(text), left_);
    left_ -= characters_in(shown);
    const bool is_styled = has_colours_ && style != Style::plain && !shown.empty();
    text_ += is_styled ? code_of(style) + shown + "\x1b[0m" : shown;
    return *this;
}

Screen_Line& Screen_Line::left(const std::string& text, std::size_t width, Style style) {
    const std::string shown = fitted(printable(text), width);
    add(shown, style);
    return add(std::string(width - characters_in(shown) + 1, ' '));
}

Screen_Line& Screen_Line::right(const std::string& text, std::size_t width, Style style) {
    const std::string shown = fitted(printable(text), width);
    add(std::string(width - characters_in(shown), ' '));
    add(shown, style);
    return add(" ");
}

std::string Screen_Line::text() const { return text_.substr(0, text_.find_last_not_of(' ') + 1); }

}  // namespace zav_shm::tool
