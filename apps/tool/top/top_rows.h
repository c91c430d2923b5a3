// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/tool/top/top_view.h"

namespace zav_shm::tool {

/// A line of the table, and the stream that it tells of.
struct Top_Row {
    std::string text;
    std::optional<watch::Stream_Id> stream;  // of the first line of a stream alone
};

/// The two lines above the columns.
std::vector<std::string> column_headings(const Top_View& view);

/// A stream, its consumers, and below each of them what is wrong with it.
std::vector<Top_Row> rows_of(const watch::Stream& stream, const Top_View& view);

/// Consumers whose producer has no stream here.
std::vector<Top_Row> rows_elsewhere(const watch::Snapshot& snapshot, const Top_View& view);

/// All that is known of one stream.
std::vector<Top_Row> detailed_rows_of(const watch::Stream& stream, const Top_View& view);

}  // namespace zav_shm::tool
