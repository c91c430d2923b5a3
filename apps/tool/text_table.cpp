// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/text_table.h"

#include <algorithm>

namespace zav_shm::tool {

std::string aligned(const std::vector<Row>& rows, const std::vector<std::size_t>& names) {
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string text;
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const bool is_name = std::ranges::find(names, i) != names.end();
            const std::string blanks(widths[i] - row[i].size(), ' ');
            line += (i > 0 ? "  " : "") + (is_name ? row[i] + blanks : blanks + row[i]);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

}  // namespace zav_shm::tool
