// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gst/gst.h>

#include <cstddef>
#include <memory>
#include <utility>

namespace zav_shm::rtspd {

/// Holds one reference to an object of GLib, and gives it up at the end.
struct Object_Release {
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <class Object>
using Object_Reference = std::unique_ptr<Object, Object_Release>;

struct Caps_Release {
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
using Caps_Reference = std::unique_ptr<GstCaps, Caps_Release>;

struct Memory_Release {
    void operator()(gpointer memory) const { g_free(memory); }
};
using Text_Reference = std::unique_ptr<char, Memory_Release>;

struct Error_Release {
    void operator()(GError* error) const { g_error_free(error); }
};
using Error_Reference = std::unique_ptr<GError, Error_Release>;

/// A shared buffer.
class Buffer_Reference {
public:
    Buffer_Reference() = default;

    /// @param buffer  whose reference is taken over
    explicit Buffer_Reference(GstBuffer* buffer) : buffer_(buffer) {}
    Buffer_Reference(const Buffer_Reference& other)
        : buffer_(other.buffer_ == nullptr ? nullptr : gst_buffer_ref(other.buffer_)) {}
    Buffer_Reference(Buffer_Reference&& other) noexcept
        : buffer_(std::exchange(other.buffer_, nullptr)) {}
    Buffer_Reference& operator=(Buffer_Reference other) noexcept {
        std::swap(buffer_, other.buffer_);
        return *this;
    }
    ~Buffer_Reference() {
        if (buffer_ != nullptr) {
            gst_buffer_unref(buffer_);
        }
    }

    GstBuffer* get() const { return buffer_; }
    std::size_t bytes() const { return buffer_ == nullptr ? 0 : gst_buffer_get_size(buffer_); }

private:
    GstBuffer* buffer_ = nullptr;
};

}  // namespace zav_shm::rtspd
