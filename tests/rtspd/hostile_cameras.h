// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "rtspd/camera.h"

/// Producers whose headers are valid and whose payloads are not: bytes by chance, and frames of
/// real streams with some bytes changed. One stream for each codec, two for each that there are
/// samples of.
class Hostile_Cameras {
public:
    /// @param jpeg  a file with a picture, or none
    explicit Hostile_Cameras(const std::string& jpeg);

    /// Where a server has them.
    std::vector<std::string> paths() const;

private:
    void add(std::uint32_t codec, std::vector<Camera_Frame> samples);

    std::vector<std::unique_ptr<Camera>> cameras_;
};
