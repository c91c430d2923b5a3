// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>

namespace zav_shm::tool {

enum class Style { plain, bold, dim, heading, good, warning, bad };

/// One line of a screen, which never gets longer than that. Texts are made printable.
class Screen_Line {
public:
    Screen_Line(std::size_t width, bool has_colours) : left_(width), has_colours_(has_colours) {}

    /// Adds text, as far as there is room.
    Screen_Line& add(const std::string& text, Style style = Style::plain);

    /// Adds a column of so many characters and a blank. A text that is too long ends with "~".
    Screen_Line& left(const std::string& text, std::size_t width, Style style = Style::plain);
    Screen_Line& right(const std::string& text, std::size_t width, Style style = Style::plain);

    /// The line without blanks at its end.
    std::string text() const;

private:
    std::size_t left_;
    const bool has_colours_;
    std::string text_;
};

/// How many characters of a printable text there are.
std::size_t characters_in(const std::string& text);

}  // namespace zav_shm::tool
