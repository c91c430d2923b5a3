// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "apps/tool/problem.h"

namespace zav_shm::tool {

/// Where a decoder may begin, as the index writes it.
enum class Entry_Point { none = 0, key_frame = 1, recovery_point = 2 };

/// A text file with a line "stream sequence bytes key" for each frame that was offered or written,
/// `key` being the number of an Entry_Point. With it what was recorded can be compared with what
/// was sent, frame by frame. Each line is written at once, so that a killed process leaves whole
/// lines.
class Frame_Index {
public:
    /// @param file  nothing: the index is not wanted, and every operation does nothing.
    explicit Frame_Index(std::string file) : file_(std::move(file)) {}

    std::optional<Problem> open();

    void add(int stream, std::uint64_t sequence, std::uint64_t bytes, Entry_Point entry);

    /// @return what went wrong since open().
    std::optional<Problem> close();

private:
    struct Closer {
        void operator()(std::FILE* stream) const { std::fclose(stream); }
    };

    Problem problem(const char* what) const;

    const std::string file_;
    std::unique_ptr<std::FILE, Closer> stream_;
    int error_ = 0;  // errno of the first line that could not be written
};

}  // namespace zav_shm::tool
