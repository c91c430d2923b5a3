// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

#include "ipc/descriptor.h"

namespace zav_shm::tool {

/// Signals that are counted instead of acted on. Built before any thread, as Stop_Signal.
class Caught_Signals {
public:
    explicit Caught_Signals(const std::vector<int>& numbers);

    /// How many came since the last call. Two of one kind that come at once count as one.
    std::uint64_t take() const;

    /// Readable when one has come; -1 without signals.
    int descriptor() const { return descriptor_.get(); }

private:
    Descriptor descriptor_;
};

}  // namespace zav_shm::tool
