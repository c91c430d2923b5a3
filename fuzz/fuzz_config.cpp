// SPDX-License-Identifier: Apache-2.0
//
// Configuration files: parsed, verified, judged and printed, as a text and as a file, into a new
// object and into one that holds a configuration already.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "config/zav_shm_config.h"
#include "fuzz/fuzz_target.h"

namespace {

using namespace zav_shm;
using fuzz::require;

constexpr std::size_t field_bytes = 32;

// A file without a name, made anew for every input and so never longer than it.
class Memory_File {
public:
    explicit Memory_File(std::string_view content) : descriptor_(memfd_create("input", 0)) {
        require(descriptor_ >= 0 && write(descriptor_, content.data(), content.size()) ==
                                        static_cast<ssize_t>(content.size()),
                "a file can be made in memory");
    }
    ~Memory_File() { close(descriptor_); }
    Memory_File(const Memory_File&) = delete;
    Memory_File& operator=(const Memory_File&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

private:
    const int descriptor_;
};

bool is_terminated(const char (&field)[field_bytes]) {
    return std::find(std::begin(field), std::end(field), '\0') != std::end(field);
}

template <class Records>
bool has_terminated_names(const Records& records) {
    return std::all_of(records.begin(), records.end(),
                       [](const auto* record) { return is_terminated(record->name); });
}

// Reads everything there is to read, whether it loaded or not.
void look_at(ZAV_SHM_CONFIG& config, std::string_view text) {
    config.print_config();
    for (const std::string& problem : config.problems()) {
        require(!problem.empty(), "a problem is described", text);
    }
    for (const std::string& warning : config.warnings()) {
        require(!warning.empty(), "a warning is described", text);
    }
    require(is_terminated(config.root_path) && is_terminated(config.shm_path) &&
                is_terminated(config.sem_path),
            "a path has an end", text);
    require(has_terminated_names(config.distributors()) && has_terminated_names(config.receivers()),
            "a name has an end", text);
}

bool loads(ZAV_SHM_CONFIG& config, const std::string& text) {
    const bool loaded = config.parse_config_with_json(text) && config.verify_config() == 1;
    require(loaded == config.error().empty(), "a failure, and nothing else, has an error", text);
    look_at(config, text);
    return loaded;
}

void require_complete(const ZAV_SHM_CONFIG& config, std::string_view text) {
    require(config.stream_num > 0 && config.distributor_num > 0 && config.receiver_num > 0,
            "no section of a configuration is empty", text);
    require(config.streams().size() == config.stream_configs.size() &&
                config.distributors().size() == config.distributor_configs.size() &&
                config.receivers().size() == config.receiver_configs.size(),
            "the counts are those of the lists", text);
}

void require_same_from_file(const std::string& text, bool loaded) {
    const Memory_File file(text);
    ZAV_SHM_CONFIG config;
    require((config.parse_config(file.path().c_str()) == 1) == loaded,
            "a file loads when its text does", text);
    require(loaded == config.error().empty(), "a failure, and nothing else, has an error", text);
    require(loaded || (config.stream_configs.empty() && config.distributor_configs.empty() &&
                       config.receiver_configs.empty()),
            "a file that does not load leaves nothing", text);
    look_at(config, text);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::silence_standard_output();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(fuzz::text_of(data, size));
    ZAV_SHM_CONFIG config;
    const bool loaded = loads(config, text);
    if (loaded) {
        require_complete(config, text);
    }
    require(loads(config, text) == loaded, "a text loads the second time as the first", text);
    config.clear_config();
    look_at(config, text);

    // A file ends at its first zero byte.
    const std::string content = text.substr(0, text.find('\0'));
    ZAV_SHM_CONFIG fresh;
    require_same_from_file(text, loads(fresh, content));
    return 0;
}
