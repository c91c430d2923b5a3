// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <termios.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace zav_shm::tool {

struct Screen_Size {
    std::size_t width = 80;  // columns
    std::size_t height = 24;
};

/// The size of the terminal behind a descriptor. A serial line knows none: then COLUMNS and LINES
/// of the environment, else 80 x 24.
Screen_Size screen_size(int descriptor);

/// A terminal as a screen that is painted, and its keys as they are pressed.
///
/// Only what has changed is written, so that a serial line can follow. It takes no more than what
/// every terminal since the VT100 understands; those with a second screen keep the first.
///
/// Owner  of the terminal's settings, which it puts back when it is destroyed.
class Terminal_Screen {
public:
    /// @param output  a terminal, for writing
    /// @param input   the same for reading, or something else: then there are no keys
    Terminal_Screen(int output, int input);
    ~Terminal_Screen();
    Terminal_Screen(const Terminal_Screen&) = delete;
    Terminal_Screen& operator=(const Terminal_Screen&) = delete;

    /// Shows these lines from the top on.
    ///
    /// @return false with errno when they cannot be written.
    bool show(const std::vector<std::string>& lines);

    /// Paints everything anew with the next show().
    void forget();

    /// Gives the terminal back as it was, and takes it again.
    void leave();
    void enter();

    /// What was typed; empty when nothing was. Nothing at the end of input.
    std::optional<std::string> typed() const;

    /// To wait for keys; -1 without.
    int key_descriptor() const { return has_keys_ ? input_ : -1; }

private:
    bool write(const std::string& text) const;

    const int output_;
    const int input_;
    bool has_keys_ = false;
    bool is_entered_ = false;
    termios former_{};
    std::vector<std::string> shown_;
};

}  // namespace zav_shm::tool
