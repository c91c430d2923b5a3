// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

namespace zav_shm::web {

// The files of apps/web/page.
extern const std::string_view index_html;
extern const std::string_view page_css;
extern const std::string_view page_js;

}  // namespace zav_shm::web
