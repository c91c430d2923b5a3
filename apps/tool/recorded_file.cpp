// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/recorded_file.h"

#include <cerrno>

#include "apps/tool/file_name_pattern.h"

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
    return note(file_.empty())
               ? index_.begin()
               : std::optional(write_problem(file_, recorded_.totals(), *write_error_));
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
        return write_problem(file_, recorded_.totals(), *write_error_);
    }
    return closed ? index_problem : std::optional(close_problem(file_, recorded_.totals(), error));
}

std::string Recorded_Files::extension(std::uint32_t codec) const { return extension_of(codec); }

std::unique_ptr<Series_File> Recorded_Files::make(const std::string& file,
                                                  const std::string& index) const {
    return std::make_unique<Recorded_File>(Recorded_File::Names{file, index}, sync_,
                                           standard_output_, stop_);
}

}  // namespace zav_shm::tool
