// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "apps/text/printable.h"
#include "apps/tool/center_request.h"
#include "apps/tool/commands.h"
#include "apps/tool/json_text.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

namespace {

std::string text_of(const Json::Value& reply) {
    const auto shown = [&reply](const char* field) { return printable(text_at(reply, field)); };
    std::string text =
        shown(control::field::type) + " " + shown(control::field::name) + "\n  channels   " +
        std::to_string(count_at(reply, control::field::channel)) + "\n  streams    " +
        std::to_string(count_at(reply, control::field::stream)) + "\n  page sizes ";
    const Json::Value sizes = list_at(reply, control::field::page_size);
    for (Json::ArrayIndex i = 0; i < sizes.size(); ++i) {
        text += (i > 0 ? ", " : "") + (sizes[i].isInt() ? std::to_string(sizes[i].asInt()) : "?");
    }
    return text + (sizes.empty() ? "-" : " bytes") + "\n  segments   " +
           shown(control::field::root_path) + "/" + shown(control::field::shm_path) + "\n";
}

}  // namespace

Exit_Status run(const Query_Options& options, const Standard_Output& output) {
    const auto result = query_name(options.type.c_str(), options.name, {options.wait});
    if (const auto* problem = std::get_if<Problem>(&result)) {
        return report(*problem);
    }
    const auto& reply = std::get<Json::Value>(result);
    return write_to(output, options.json ? json_line(reply) + "\n" : text_of(reply));
}

}  // namespace zav_shm::tool
