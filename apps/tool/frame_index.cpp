// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/frame_index.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>

namespace zav_shm::tool {

std::optional<Problem> Frame_Index::open() {
    if (file_.empty()) {
        return {};
    }
    stream_.reset(std::fopen(file_.c_str(), "we"));
    if (!stream_) {
        error_ = errno;
        return problem("open");
    }
    std::setvbuf(stream_.get(), nullptr, _IOLBF, BUFSIZ);
    return {};
}

void Frame_Index::add(int stream, std::uint64_t sequence, std::uint64_t bytes, Entry_Point entry) {
    if (stream_ && std::fprintf(stream_.get(), "%d %" PRIu64 " %" PRIu64 " %d\n", stream, sequence,
                                bytes, static_cast<int>(entry)) < 0) {
        error_ = error_ != 0 ? error_ : errno;
    }
}

std::optional<Problem> Frame_Index::close() {
    if (stream_ && std::fclose(stream_.release()) != 0) {
        error_ = error_ != 0 ? error_ : errno;
    }
    return error_ != 0 ? std::optional(problem("write")) : std::nullopt;
}

Problem Frame_Index::problem(const char* what) const {
    return {Exit_Status::input_output,
            std::string("cannot ") + what + " the index " + file_ + ": " + std::strerror(error_)};
}

}  // namespace zav_shm::tool
