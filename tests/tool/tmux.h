// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

/// A terminal of 80 columns and 24 lines with a shell in it, which tmux shows to nobody.
class Tmux {
public:
    /// @param folder  for its socket; it may be removed afterwards
    explicit Tmux(const std::string& folder);
    ~Tmux();
    Tmux(const Tmux&) = delete;
    Tmux& operator=(const Tmux&) = delete;

    /// Types a command line into the shell.
    void run(const std::vector<std::string>& command, const std::string& before = "") const;

    /// Presses a key, as tmux calls it: "q", "Down", "Enter".
    void press(const std::string& key) const;
    void resize(int width, int height) const;

    std::vector<std::string> lines() const;
    std::string screen(bool with_colours = false) const;

    /// Waits until the screen holds this text, or no longer holds it.
    bool shows(const std::string& text, int limit_ms = 10'000) const;
    bool hides(const std::string& text) const;

    /// A variable of tmux's, such as cursor_flag.
    std::string value(const std::string& name) const;

private:
    std::string ask(const std::vector<std::string>& words) const;

    const std::string socket_;
};
