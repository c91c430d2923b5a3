// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/center_request.h"
#include "apps/tool/commands.h"
#include "apps/tool/json_text.h"
#include "apps/tool/status_file.h"
#include "apps/tool/stop_signal.h"
#include "control/control_protocol.h"

namespace zav_shm::tool {

namespace {

/// Looks at the file until it shows the setting.
bool shows_setting(const Kick_Options& options, Stop_Signal::Clock::time_point end,
                   const Stop_Signal& stop) {
    constexpr std::chrono::milliseconds pause{50};
    for (;;) {
        const auto found = read_center_status(status_path(options.folder));
        const auto* status = std::get_if<Center_Status>(&found);
        if (status != nullptr && flag_at(status->content, "kick_idle") == options.enable) {
            return true;
        }
        const auto next = Stop_Signal::Clock::now() + pause;
        if (next > end || stop.wait_until(next)) {
            return false;
        }
    }
}

}  // namespace

Exit_Status run(const Kick_Options& options, const Standard_Output& output) {
    const auto end = Stop_Signal::Clock::now() + options.wait;
    Json::Value request;
    request[control::field::command] = control::command::kick_idle;
    request[control::field::enable] = options.enable;
    if (const auto problem = tell_center(request, options.wait)) {
        return report(*problem);
    }
    const Stop_Signal stop;
    const bool has_file =
        std::holds_alternative<Center_Status>(read_center_status(status_path(options.folder)));
    const bool confirmed = has_file && shows_setting(options, end, stop);
    const std::string word = options.enable ? "on" : "off";
    if (options.json) {
        Json::Value result;
        result["kick_idle"] = options.enable;
        result["sent"] = true;
        result["confirmed"] = confirmed;
        return write_to(output, json_line(result) + "\n");
    }
    if (has_file && !confirmed) {
        return report({Exit_Status::no_center, "kick " + word + " was sent, but " +
                                                   status_path(options.folder) +
                                                   " does not show it within " +
                                                   std::to_string(options.wait.count()) + " ms"});
    }
    return write_to(output, "kick " + word + (confirmed ? ": confirmed\n" : ": sent\n"));
}

}  // namespace zav_shm::tool
