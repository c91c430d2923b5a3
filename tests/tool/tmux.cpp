// SPDX-License-Identifier: Apache-2.0
#include "tool/tmux.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/child_process.h"
#include "support/emulated.h"
#include "support/threads.h"

Tmux::Tmux(const std::string& folder) : socket_(folder + "/tmux") {
    ask({"-f", "/dev/null", "new-session", "-d", "-x", "80", "-y", "24",
         "env -u NO_COLOR TERM=screen PS1='$ ' ENV= sh"});
    EXPECT_TRUE(shows("$"));
}

Tmux::~Tmux() { ask({"kill-server"}); }

void Tmux::run(const std::vector<std::string>& command, const std::string& before) const {
    std::string text = before;
    for (const std::string& word : startable(command)) {
        text += (text.empty() ? "" : " ") + word;
    }
    ask({"send-keys", "-l", text});
    press("Enter");
}

void Tmux::press(const std::string& key) const { ask({"send-keys", key}); }

void Tmux::resize(int width, int height) const {
    ask({"resize-window", "-x", std::to_string(width), "-y", std::to_string(height)});
}

std::vector<std::string> Tmux::lines() const {
    std::vector<std::string> lines;
    std::istringstream text(screen());
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string Tmux::screen(bool with_colours) const {
    return with_colours ? ask({"capture-pane", "-p", "-e"}) : ask({"capture-pane", "-p"});
}

bool Tmux::shows(const std::string& text, int limit_ms) const {
    const bool found = becomes_true([&] { return screen().find(text) != std::string::npos; },
                                    std::chrono::milliseconds(limit_ms));
    EXPECT_TRUE(found) << "no \"" << text << "\" in:\n" << screen();
    return found;
}

bool Tmux::hides(const std::string& text) const {
    return becomes_true([&] { return screen().find(text) == std::string::npos; });
}

std::string Tmux::value(const std::string& name) const {
    std::string text = ask({"display-message", "-p", "#{" + name + "}"});
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
}

std::string Tmux::ask(const std::vector<std::string>& words) const {
    std::vector<std::string> command{"/usr/bin/env", "tmux", "-S", socket_};
    command.insert(command.end(), words.begin(), words.end());
    Child_Process tmux(command);
    std::string output = tmux.read_rest();
    tmux.wait();
    return output;
}
