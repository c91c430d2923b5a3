// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "apps/tool/output_file.h"
#include "apps/tool/problem.h"

namespace zav_shm::tool {

/// Where a decoder may begin, as the index writes it.
enum class Entry_Point { none = 0, key_frame = 1, recovery_point = 2 };

/// A text file with a line "stream sequence bytes key" for each frame that was offered or written,
/// `key` being the number of an Entry_Point; of a recording "offset pts_ns utc_ns" follow in the
/// line. With it what was recorded can be compared with what was sent, frame by frame, and a moment
/// be found in a file. Each line is written at once and as a whole: neither a killed process nor a
/// full medium leaves a part of one.
class Frame_Index {
public:
    struct Times {
        std::int64_t pts_ns = 0;  // of the stream
        std::int64_t utc_ns = 0;  // since 1970
    };

    struct Frame {
        int stream = 0;
        std::uint64_t sequence = 0;
        std::uint64_t bytes = 0;
        Entry_Point entry = Entry_Point::none;
        Times times;
    };

    /// @param file             empty: the index is not wanted, and every operation does nothing.
    /// @param standard_output  what "-" means.
    Frame_Index(const std::string& file, int standard_output, const Stop_Signal& stop);

    /// See Output_File::open().
    std::optional<Problem> open(Output_File::Clock::time_point end);

    /// Empties a file that was there.
    std::optional<Problem> begin();

    /// A frame that was offered.
    void add(const Frame& frame);

    /// A frame that was written, and where in its file it begins.
    void add(const Frame& frame, std::uint64_t offset);

    /// @return what went wrong since open().
    std::optional<Problem> close(bool sync);

private:
    static std::string columns_of(const Frame& frame);
    void add_line(const std::string& line);
    Problem problem() const;

    std::optional<Output_File> file_;
    std::uint64_t lines_ = 0;
    int error_ = 0;  // errno of the first line that could not be written
};

}  // namespace zav_shm::tool
