// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/recorded_file.h"

#include <cerrno>

namespace zav_shm::tool {

Recorded_File::Recorded_File(const Names& names, bool sync, int standard_output,
                             const Stop_Signal& stop)
    : sync_(sync),
      file_(names.file, standard_output, stop),
      index_(names.index, standard_output, stop),
      recorded_(index_) {}

std::optional<Problem> Recorded_File::open(Output_File::Clock::time_point end) {
    auto problem = file_.open(end);
    return problem ? problem : index_.open(end);
}

std::optional<Problem> Recorded_File::begin() {
    return note(file_.empty()) ? index_.begin() : write_problem();
}

bool Recorded_File::write(int stream, const Received_Frame& frame) {
    if (write_error_) {
        return false;
    }
    const Recorded_Form::Piece piece = form_.of(frame);
    const bool written = file_.write(piece.bytes);
    if (written) {
        recorded_.add(stream, frame, {piece.bytes.size(), piece.payload_offset});
    }
    return note(written);
}

bool Recorded_File::flush_if_due() { return !write_error_ && note(file_.flush_if_due()); }

// Keeps what is told of the recording up with what is in its file.
bool Recorded_File::note(bool written) {
    if (!written) {
        write_error_ = errno;
    }
    recorded_.settle(file_.written());
    return written;
}

std::optional<Problem> Recorded_File::close() {
    if (!write_error_) {
        note(file_.flush());
    }
    // Behind the last whole frame only the beginning of one can be.
    file_.cut_back(recorded_.totals().bytes);
    const bool closed = file_.close(sync_);
    const int error = errno;
    const auto index_problem = index_.close(sync_);
    if (write_error_) {
        return write_problem();
    }
    return closed ? index_problem : close_problem(error);
}

Problem Recorded_File::write_problem() const {
    return {Exit_Status::input_output, "cannot write to " + file_.title() + " after " + amount() +
                                           ": " + Output_File::cause(*write_error_)};
}

// What the system has taken may still be lost on the way to the medium.
Problem Recorded_File::close_problem(int error) const {
    return {Exit_Status::input_output, "cannot write " + file_.title() +
                                           " down to the medium, which may lack a part of " +
                                           amount() + ": " + Output_File::cause(error)};
}

std::string Recorded_File::amount() const {
    const Recorded_Totals totals = recorded_.totals();
    return std::to_string(totals.frames) + " frames, " + std::to_string(totals.bytes) + " bytes";
}

}  // namespace zav_shm::tool
