// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/mman.h>

#include <cassert>
#include <cerrno>
#include <cstddef>
#include <new>
#include <system_error>
#include <type_traits>

namespace zav_shm::bench {

/// `count` objects of `Type`, value-initialised, in anonymous memory that this process and its
/// later children share. It has no name, so a bench that is killed leaves nothing behind.
template <typename Type>
class Shared_Memory {
    static_assert(std::is_trivially_destructible_v<Type>);

public:
    explicit Shared_Memory(std::size_t count = 1) : count_(count) {
        void* const address =
            mmap(nullptr, bytes(), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (address == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mapping shared memory");
        }
        objects_ = static_cast<Type*>(address);
        for (std::size_t i = 0; i < count; ++i) {
            new (objects_ + i) Type{};
        }
    }
    ~Shared_Memory() { munmap(objects_, bytes()); }

    Shared_Memory(const Shared_Memory&) = delete;
    Shared_Memory& operator=(const Shared_Memory&) = delete;

    Type* operator->() { return objects_; }
    Type& operator*() { return *objects_; }
    Type& operator[](std::size_t i) {
        assert(i < count_);
        return objects_[i];
    }

private:
    std::size_t bytes() const { return (count_ + 1) * sizeof(Type); }  // never 0

    std::size_t count_;
    Type* objects_ = nullptr;
};

}  // namespace zav_shm::bench
