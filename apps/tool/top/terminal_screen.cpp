// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/top/terminal_screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace zav_shm::tool {

namespace {

constexpr const char* second_screen = "\x1b[?1049h";
constexpr const char* first_screen = "\x1b[?1049l";
constexpr const char* hide_cursor = "\x1b[?25l";
constexpr const char* show_cursor = "\x1b[?25h";
constexpr const char* plain = "\x1b[0m";
constexpr const char* erase_all = "\x1b[H\x1b[J";
constexpr const char* erase_rest_of_line = "\x1b[K";

constexpr std::size_t size_max = 1000;

std::size_t number_in_environment(const char* name) {
    const char* const text = std::getenv(name);
    std::size_t number = 0;
    if (text != nullptr) {
        std::from_chars(text, text + std::strlen(text), number);
    }
    return number <= size_max ? number : 0;
}

std::string line_begin(std::size_t line) { return "\x1b[" + std::to_string(line + 1) + ";1H"; }

}  // namespace

Screen_Size screen_size(int descriptor) {
    Screen_Size size;
    winsize window{};
    const bool is_known = ioctl(descriptor, TIOCGWINSZ, &window) == 0;
    const std::size_t width =
        is_known && window.ws_col != 0 ? window.ws_col : number_in_environment("COLUMNS");
    const std::size_t height =
        is_known && window.ws_row != 0 ? window.ws_row : number_in_environment("LINES");
    size.width = width != 0 ? width : size.width;
    size.height = height != 0 ? height : size.height;
    return size;
}

Terminal_Screen::Terminal_Screen(int output, int input) : output_(output), input_(input) {
    enter();
}

Terminal_Screen::~Terminal_Screen() { leave(); }

// Keys come one by one, and those that would send signals as characters.
void Terminal_Screen::enter() {
    has_keys_ = tcgetattr(input_, &former_) == 0;
    if (has_keys_) {
        termios raw = former_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG | IEXTEN);
        raw.c_iflag &= ~static_cast<tcflag_t>(IXON | ICRNL);
        raw.c_cc[VMIN] = 0;
        raw.c_cc[VTIME] = 0;
        tcsetattr(input_, TCSANOW, &raw);
    }
    is_entered_ = true;
    write(std::string(second_screen) + hide_cursor);
    forget();
}

// The cursor goes to the bottom first, for terminals without a second screen; others put it where
// it was.
void Terminal_Screen::leave() {
    if (!is_entered_) {
        return;
    }
    is_entered_ = false;
    const std::size_t height = screen_size(output_).height;
    write(plain + line_begin(height - 1) + erase_rest_of_line + first_screen + show_cursor);
    if (has_keys_) {
        tcsetattr(input_, TCSADRAIN, &former_);
    }
}

void Terminal_Screen::forget() { shown_.clear(); }

bool Terminal_Screen::show(const std::vector<std::string>& lines) {
    std::string text = shown_.empty() ? erase_all : "";
    for (std::size_t i = 0; i < std::max(lines.size(), shown_.size()); ++i) {
        const std::string line = i < lines.size() ? lines[i] : "";
        if (i >= shown_.size() ? !line.empty() : line != shown_[i]) {
            text += line_begin(i) + line + erase_rest_of_line;
        }
    }
    shown_ = lines;
    return write(text);
}

std::optional<std::string> Terminal_Screen::typed() const {
    std::array<char, 64> text{};
    const ssize_t length = has_keys_ ? read(input_, text.data(), text.size()) : 0;
    if (length < 0) {
        return errno == EINTR || errno == EAGAIN ? std::optional<std::string>("") : std::nullopt;
    }
    return std::string(text.data(), static_cast<std::size_t>(length));
}

bool Terminal_Screen::write(const std::string& text) const {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t length = ::write(output_, text.data() + written, text.size() - written);
        if (length < 0 && errno != EINTR) {
            return false;
        }
        written += length > 0 ? static_cast<std::size_t>(length) : 0;
    }
    return true;
}

}  // namespace zav_shm::tool
