// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/file_name_pattern.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <utility>

#include "apps/text/printable.h"
#include "frame/frame_header.h"
#include "ipc/monotonic_clock.h"

namespace zav_shm::tool {

namespace {

// Less than file systems allow: a number and endings such as ".index" come behind it.
constexpr std::size_t name_bytes_max = 200;

}  // namespace

std::string name_from(const std::string& pattern, std::int64_t utc_ns) {
    const auto seconds = static_cast<std::time_t>(utc_ns / ns_per_second);
    std::tm local{};
    if (localtime_r(&seconds, &local) == nullptr) {
        return {};
    }
    std::ostringstream name;
    name << std::put_time(&local, pattern.c_str());
    return name.str().size() <= name_bytes_max ? name.str() : std::string();
}

std::string pattern_mistake(const std::string& pattern) {
    const std::string name = name_from(pattern, 0);
    if (name.empty()) {
        return "'" + pattern + "' makes no file name of 1 to " + std::to_string(name_bytes_max) +
               " characters";
    }
    if (name.find('/') != std::string::npos) {
        return "'" + pattern + "' makes a name with a slash: the folder is --directory";
    }
    if (std::any_of(name.begin(), name.end(), [](unsigned char c) { return iscntrl(c) != 0; })) {
        return "'" + printable(pattern) + "' makes a name with a control character";
    }
    return name == "." || name == ".." ? "'" + pattern + "' makes no file name" : "";
}

std::string numbered(const std::string& name, unsigned number) {
    const std::size_t dot = name.rfind('.');
    const std::size_t at = dot == std::string::npos || dot == 0 ? name.size() : dot;
    return name.substr(0, at) + "-" + std::to_string(number) + name.substr(at);
}

std::string extension_of(std::uint32_t codec) {
    constexpr std::array<std::pair<std::uint32_t, const char*>, 7> known{{{codec::h264, ".h264"},
                                                                          {codec::h265, ".h265"},
                                                                          {codec::mjpeg, ".mjpeg"},
                                                                          {codec::aac, ".aac"},
                                                                          {codec::opus, ".opus"},
                                                                          {codec::g711, ".g711"},
                                                                          {codec::raw, ".raw"}}};
    for (const auto& [code, extension] : known) {
        if (code == codec) {
            return extension;
        }
    }
    return ".bin";
}

}  // namespace zav_shm::tool
