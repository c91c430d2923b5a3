// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "apps/tool/problem.h"

namespace zav_shm::tool {

/// Gives descriptors 0, 1 and 2 something behind them if they were closed by whoever started the
/// program: otherwise a segment might be opened as number 1, and printed into. What is read from or
/// written to one of them fails with EBADF all the same.
void occupy_standard_descriptors();

/// Standard output for what the command is for, and nothing else. The libraries print lines to
/// descriptor 1; after construction that is standard error, or nothing, and the real standard
/// output is known here alone.
class Standard_Output {
public:
    /// @param quiet  lines of the libraries go nowhere instead of to standard error.
    explicit Standard_Output(bool quiet);
    ~Standard_Output();
    Standard_Output(const Standard_Output&) = delete;
    Standard_Output& operator=(const Standard_Output&) = delete;

    int descriptor() const { return descriptor_; }
    bool is_terminal() const;

    /// Writes all of it.
    ///
    /// @return false, with errno.
    bool write(const std::string& text) const;

private:
    int descriptor_ = -1;
};

/// Writes what a command came to.
///
/// @return ok, or what the command ends with when it could not be written, after a complaint.
Exit_Status write_to(const Standard_Output& output, const std::string& text);

}  // namespace zav_shm::tool
