// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <utility>

#include "ipc/descriptor.h"

namespace zav_shm {

/// Who may use a file.
struct File_Access {
    mode_t mode = 0600;
    gid_t group = static_cast<gid_t>(-1);  // -1: that of the writing process
};

/// A file that is written under the name `path` + ".new" and then renamed: a reader finds the
/// former content or the new one, never a part of either, also when the writer is killed.
///
/// Owner    one writer for each path at a time.
/// Crash    leaves `path`.new behind, which the next writer removes.
class File_Replacement {
public:
    /// Makes the new file, which only the own user may open yet.
    explicit File_Replacement(std::string path);

    /// Removes the new file unless it was put in place.
    ~File_Replacement();
    File_Replacement(const File_Replacement&) = delete;
    File_Replacement& operator=(const File_Replacement&) = delete;

    /// False with errno when it could not be made.
    bool is_open() const { return file_.is_open(); }
    int descriptor() const { return file_.get(); }

    /// Writes the content, lets others in and puts the file in place.
    ///
    /// @return false with errno; then `path` is as it was.
    bool finish(std::string_view content, File_Access access);

    /// The new file, for who wants to keep it open.
    Descriptor take() { return std::move(file_); }

private:
    const std::string path_;
    const std::string fresh_;
    Descriptor file_;
    bool is_in_place_ = false;
};

/// Writes a whole file so.
///
/// @return  false with errno when it could not be written; then `path` is as it was, and nothing
///          lies beside it.
bool replace_file(const std::string& path, std::string_view content, File_Access access = {});

}  // namespace zav_shm
