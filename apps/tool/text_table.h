// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace zav_shm::tool {

using Row = std::vector<std::string>;

/// The rows below each other with two blanks between columns, without blanks at the ends of lines.
///
/// @param rows   each as long as the first one, which is the heading.
/// @param names  the columns that are aligned to the left; figures are to the right.
std::string aligned(const std::vector<Row>& rows, const std::vector<std::size_t>& names);

}  // namespace zav_shm::tool
