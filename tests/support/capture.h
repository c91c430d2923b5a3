// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>

/// What `action` writes to standard output, by printf, puts or std::cout, byte for byte.
std::string output_of(const std::function<void()>& action);
