// SPDX-License-Identifier: Apache-2.0
//
// replay_... FOLDER|FILE...
//
// Gives each file, in the order of their names, to the fuzz program that this is linked with, once
// and without libFuzzer: the corpus as a regression test, and the way to debug a finding. The name
// on standard error is that of the input at work. Exit status: 0 when all inputs ran; 2 when there
// was none or one cannot be read; what fails inside ends the process.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <vector>

#include "fuzz/fuzz_target.h"

namespace fs = std::filesystem;

namespace {

std::set<fs::path> inputs_in(const fs::path& place) {
    if (!fs::is_directory(place)) {
        return {place};
    }
    std::set<fs::path> files;
    for (const auto& entry : fs::directory_iterator(place)) {
        if (entry.is_regular_file()) {
            files.insert(entry.path());
        }
    }
    return files;
}

std::optional<std::vector<char>> content_of(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    std::vector<char> content{std::istreambuf_iterator<char>(stream), {}};
    return stream.is_open() && !stream.bad() ? std::optional(std::move(content)) : std::nullopt;
}

bool run(const fs::path& file) {
    std::fprintf(stderr, "%s\n", file.filename().c_str());
    const auto content = content_of(file);
    if (!content) {
        std::fprintf(stderr, "%s: cannot be read\n", file.c_str());
        return false;
    }
    // NOLINTNEXTLINE(*-reinterpret-cast): bytes are bytes
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(content->data()), content->size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const fs::path& file : inputs_in(argv[i])) {
            if (!run(file)) {
                return 2;
            }
            ++count;
        }
    }
    std::fprintf(stderr, "%d inputs\n", count);
    return count > 0 ? 0 : 2;
}
