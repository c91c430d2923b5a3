// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "apps/tool/recording_target.h"
#include "apps/tool/stop_signal.h"

namespace zav_shm::tool {

/// One file of a series.
class Series_File : public Recording_Target {
public:
    /// Whether it can hold this frame, at which a decoder may begin, behind those that it has. If
    /// not the next file begins with it.
    virtual bool goes_on_with(const Received_Frame& frame) const = 0;
};

/// What the files of a series look like.
class Series_Form {
public:
    virtual ~Series_Form() = default;

    /// Opens what every file needs.
    virtual std::optional<Problem> open() { return {}; }

    /// What the name of a file with frames of this codec ends with, such as ".h264".
    virtual std::string extension(std::uint32_t codec) const = 0;

    /// @param file   which is there, and empty
    /// @param index  empty: none
    virtual std::unique_ptr<Series_File> make(const std::string& file,
                                              const std::string& index) const = 0;
};

/// Called once the signals are caught, and before any thread is there.
using Series_Form_Maker = std::function<std::unique_ptr<Series_Form>(const Stop_Signal& stop)>;

}  // namespace zav_shm::tool
