// SPDX-License-Identifier: Apache-2.0
#include "config/document_warnings.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <exception>
#include <initializer_list>
#include <memory>
#include <numeric>
#include <optional>
#include <string_view>

#include "config/field_reader.h"

namespace zav_shm {

namespace {

using Warnings = std::vector<std::string>;
using Keys = std::initializer_list<const char*>;

constexpr Keys section_keys{"System", "Stream", "Distributor", "Receiver"};
constexpr Keys system_keys{"ROOT_PATH", "SHM_PATH", "SEM_PATH", "kick_idle"};
constexpr Keys stream_keys{"index", "page_size", "history_bytes", "group"};
constexpr Keys producer_keys{"name", "channel", "stream", "group", "producers"};
constexpr Keys consumer_keys{"name", "channel", "stream"};

// In a short key two letters are half of it.
constexpr std::size_t short_key_length = 5;
constexpr std::size_t key_length_max = 32;  // a longer one is near no known key

// ---- what the lenient reader does not tell ----

// The newer reader of the library knows rules that the one of the file format lacks. Its messages
// are two lines, "* Line 3, Column 7" and the mistake.
struct Mistake {
    long line = 0;
    long column = 0;
    std::string text;
};

std::optional<Mistake> first_mistake(const std::string& text,
                                     const Json::CharReaderBuilder& rules) {
    const std::unique_ptr<Json::CharReader> reader(rules.newCharReader());
    Json::Value root;
    std::string messages;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &root, &messages)) {
            return {};
        }
    } catch (const std::exception&) {
        return {};  // nested too deep, which parsing has told
    }
    Mistake found;
    int begin = 0;
    if (std::sscanf(messages.c_str(), "* Line %ld, Column %ld %n", &found.line, &found.column,
                    &begin) != 2) {
        return {};
    }
    found.text = messages.substr(static_cast<std::size_t>(begin));
    return found;
}

void warn_of_repeated_keys(Warnings& warnings, const std::string& text) {
    constexpr std::string_view front = "Duplicate key: '";
    Json::CharReaderBuilder rules;
    rules["rejectDupKeys"] = true;
    const auto mistake = first_mistake(text, rules);
    if (mistake && mistake->text.rfind(front, 0) == 0) {
        const std::size_t end = mistake->text.find("'\n", front.size());  // others may follow
        const std::string key = mistake->text.substr(front.size(), end - front.size());
        warnings.push_back(position_name(mistake->line, mistake->column) + ": the key " +
                           quoted(key) + " is given again; the last one counts");
    }
}

void warn_of_text_behind(Warnings& warnings, const std::string& text) {
    Json::CharReaderBuilder rules;
    rules["failIfExtra"] = true;
    rules["strictRoot"] = true;  // else what is no JSON at all would pass
    const auto mistake = first_mistake(text, rules);
    if (mistake && mistake->text.rfind("Extra non-whitespace", 0) == 0) {
        warnings.push_back(position_name(mistake->line, mistake->column) +
                           ": what follows the object is ignored");
    }
}

// ---- keys ----

// Case and separators are what is mistaken most.
std::string folded(std::string_view key) {
    std::string letters;
    for (const char letter : key) {
        if (letter != '_' && letter != '-' && letter != ' ') {
            letters += static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        }
    }
    return letters;
}

// How many letters are to be added, dropped, changed or swapped with the next.
std::size_t distance(const std::string& from, const std::string& to) {
    using Row = std::array<std::size_t, key_length_max + 1>;
    Row before_last{};
    Row last{};
    std::iota(last.begin(), last.end(), std::size_t{0});
    for (std::size_t i = 1; i <= from.size(); ++i) {
        Row row{};
        row[0] = i;
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t change = from[i - 1] == to[j - 1] ? 0 : 1;
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + change});
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
                row[j] = std::min(row[j], before_last[j - 2] + 1);
            }
        }
        before_last = last;
        last = row;
    }
    return last[to.size()];
}

// The known key that may be meant; null when none is near.
const char* near_key(const std::string& key, Keys known) {
    const std::string letters = folded(key);
    const char* nearest = nullptr;
    std::size_t least = letters.size() < short_key_length ? 2 : 3;
    for (const char* candidate : known) {
        const std::string wanted = folded(candidate);
        if (key == candidate || letters.size() > key_length_max) {
            return nullptr;
        }
        const std::size_t steps = distance(letters, wanted);
        if (steps < least) {
            least = steps;
            nearest = candidate;
        }
    }
    return nearest;
}

// Keys that are near none of these are somebody's own.
void warn_of_keys(Warnings& warnings, const std::string& where, const Json::Value& object,
                  Keys known) {
    if (!object.isObject()) {
        return;
    }
    for (const std::string& key : object.getMemberNames()) {
        const bool is_known = std::find(known.begin(), known.end(), key) != known.end();
        const char* const meant = is_known ? nullptr : near_key(key, known);
        if (meant != nullptr) {
            warnings.push_back(where + "the unknown key " + quoted(key) + " is ignored; \"" +
                               meant + "\" is a known one");
        }
    }
}

// Outside of "System" nobody looks for its keys.
void warn_of_misplaced_keys(Warnings& warnings, const Json::Value& root) {
    for (const std::string& key : root.getMemberNames()) {
        const bool is_known =
            std::find(system_keys.begin(), system_keys.end(), key) != system_keys.end();
        const char* const meant = is_known ? key.c_str() : near_key(key, system_keys);
        if (meant != nullptr) {
            warnings.push_back("the key " + quoted(key) + " is ignored; \"" + meant +
                               R"(" belongs into "System")");
        }
    }
}

void warn_of_keys_in(Warnings& warnings, const Json::Value& root, const char* section, Keys known) {
    const Json::Value& list = root[section];
    if (!list.isArray()) {
        return;
    }
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        warn_of_keys(warnings, element_name(section, i) + ": ", list[i], known);
    }
}

// Whoever writes them there believes that something is kept from somebody.
void warn_of_groups_of_consumers(Warnings& warnings, const Json::Value& list) {
    for (Json::ArrayIndex i = 0; list.isArray() && i < list.size(); ++i) {
        for (const char* const key : {"group", "producers"}) {
            if (list[i].isObject() && list[i].isMember(key)) {
                warnings.push_back(element_name("Receiver", i) + ": the key \"" + key +
                                   R"(" is ignored; it belongs to a "Distributor")");
            }
        }
    }
}

}  // namespace

std::string position_name(long line, long column) {
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

std::vector<std::string> document_warnings(const std::string& text, const Json::Value& root) {
    Warnings found;
    warn_of_repeated_keys(found, text);
    warn_of_text_behind(found, text);
    if (root.isObject()) {
        warn_of_keys(found, "", root, section_keys);
        warn_of_misplaced_keys(found, root);
        warn_of_keys(found, "System: ", root["System"], system_keys);
        warn_of_keys_in(found, root, "Stream", stream_keys);
        warn_of_keys_in(found, root, "Distributor", producer_keys);
        warn_of_keys_in(found, root, "Receiver", consumer_keys);
        warn_of_groups_of_consumers(found, root["Receiver"]);
    }
    return found;
}

}  // namespace zav_shm
