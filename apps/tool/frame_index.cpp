// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/frame_index.h"

#include <cerrno>
#include <span>

namespace zav_shm::tool {

Frame_Index::Frame_Index(const std::string& file, int standard_output, const Stop_Signal& stop) {
    if (!file.empty()) {
        file_.emplace(file, standard_output, stop);
    }
}

std::optional<Problem> Frame_Index::open(Output_File::Clock::time_point end) {
    return file_ ? file_->open(end) : std::nullopt;
}

std::optional<Problem> Frame_Index::begin() {
    if (file_ && !file_->empty()) {
        error_ = errno;
        return problem();
    }
    return {};
}

std::string Frame_Index::columns_of(const Frame& frame) {
    return std::to_string(frame.stream) + " " + std::to_string(frame.sequence) + " " +
           std::to_string(frame.bytes) + " " + std::to_string(static_cast<int>(frame.entry));
}

void Frame_Index::add(const Frame& frame) { add_line(columns_of(frame) + "\n"); }

void Frame_Index::add(const Frame& frame, std::uint64_t offset) {
    add_line(columns_of(frame) + " " + std::to_string(offset) + " " +
             std::to_string(frame.times.pts_ns) + " " + std::to_string(frame.times.utc_ns) + "\n");
}

void Frame_Index::add_line(const std::string& line) {
    if (!file_ || error_ != 0) {
        return;
    }
    const std::uint64_t before = file_->written();
    if (!file_->write(std::as_bytes(std::span(line))) || !file_->flush()) {
        error_ = errno;
        file_->cut_back(before);
        return;
    }
    ++lines_;
}

std::optional<Problem> Frame_Index::close(bool sync) {
    if (file_ && !file_->close(sync)) {
        error_ = error_ != 0 ? error_ : errno;
    }
    return error_ != 0 ? std::optional(problem()) : std::nullopt;
}

Problem Frame_Index::problem() const {
    return {Exit_Status::input_output, "cannot write the index " + file_->title() + " after " +
                                           std::to_string(lines_) +
                                           " lines: " + Output_File::cause(error_)};
}

}  // namespace zav_shm::tool
