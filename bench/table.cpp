// SPDX-License-Identifier: Apache-2.0
#include "bench/table.h"

#include <array>
#include <cassert>
#include <cstdio>
#include <utility>

namespace zav_shm::bench {

Table::Table(std::vector<Column> columns, bool csv) : columns_(std::move(columns)), csv_(csv) {
    std::vector<std::string> titles;
    for (const Column& column : columns_) {
        titles.push_back(column.title);
    }
    row(titles);
}

void Table::row(const std::vector<std::string>& cells) const {
    assert(cells.size() == columns_.size());
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const char* const separator = i == 0 ? "" : (csv_ ? "," : "  ");
        std::printf("%s%*s", separator, csv_ ? 0 : columns_[i].width, cells[i].c_str());
    }
    std::puts("");
    std::fflush(stdout);
}

std::string fixed(double value, int digits) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", digits, value);
    return text.data();
}

}  // namespace zav_shm::bench
