// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace zav_shm::bench {

/// A table on standard output, each row printed as soon as it is known: right-aligned columns
/// for people, or comma-separated values for programs.
class Table {
public:
    struct Column {
        std::string title;
        int width;  // characters, at least the title's
    };

    Table(std::vector<Column> columns, bool csv);

    /// One text per column.
    void row(const std::vector<std::string>& cells) const;

private:
    std::vector<Column> columns_;
    bool csv_;
};

/// `value` with that many digits behind the point.
std::string fixed(double value, int digits);

}  // namespace zav_shm::bench
