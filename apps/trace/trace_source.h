// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "ipc/descriptor.h"

namespace zav_shm::trace {

/// Where the bytes of a trace are. Several readers may read one.
class Trace_Source {
public:
    virtual ~Trace_Source() = default;

    virtual std::uint64_t size_bytes() const = 0;

    /// Reads all of `bytes` from `offset` on.
    ///
    /// @return empty, or why it could not.
    virtual std::string read(std::uint64_t offset, std::span<std::byte> bytes) const = 0;
};

/// A regular file, as long as it was when it was opened: one that is still written can be read.
class Trace_File : public Trace_Source {
public:
    /// @return empty, or why not: "No such file or directory".
    std::string open(const std::string& file);

    std::uint64_t size_bytes() const override { return size_bytes_; }
    std::string read(std::uint64_t offset, std::span<std::byte> bytes) const override;

private:
    Descriptor descriptor_;
    std::uint64_t size_bytes_ = 0;
};

/// Bytes of somebody else's, which stay.
class Trace_Memory : public Trace_Source {
public:
    explicit Trace_Memory(std::span<const std::byte> bytes) : bytes_(bytes) {}

    std::uint64_t size_bytes() const override { return bytes_.size(); }
    std::string read(std::uint64_t offset, std::span<std::byte> bytes) const override;

private:
    const std::span<const std::byte> bytes_;
};

}  // namespace zav_shm::trace
