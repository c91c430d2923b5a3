// SPDX-License-Identifier: Apache-2.0
#include "gst/loan_pool.h"

#include <utility>

using zav_shm::gst::Sink_Stream;

namespace {

struct Pool {
    GstBufferPool parent;
    std::shared_ptr<Sink_Stream>* stream;
    guint size;     // of a buffer, as configured
    bool may_lend;  // what was configured is what room in the history is like
};

GstBufferPoolClass* base_class = nullptr;  // set once, before there is a pool

GType pool_type();

Pool* pool_of(gpointer object) { return G_TYPE_CHECK_INSTANCE_CAST(object, pool_type(), Pool); }

// Marks the memory of a loan; the value is the Sink_Stream::Loan.
GQuark loan_quark() {
    static const GQuark quark = g_quark_from_static_string("zav-shm-loan");
    return quark;
}

// Marks the buffers of the pool, whichever memory they have; they lose it when they come back.
GQuark pool_quark() {
    static const GQuark quark = g_quark_from_static_string("zav-shm-loan-pool");
    return quark;
}

const Sink_Stream::Loan* loan_behind(GstMemory* memory) {
    return static_cast<const Sink_Stream::Loan*>(
        gst_mini_object_get_qdata(GST_MINI_OBJECT_CAST(memory), loan_quark()));
}

void end_loan(gpointer loan) { delete static_cast<Sink_Stream::Loan*>(loan); }

GstBuffer* buffer_on_loan(std::unique_ptr<Sink_Stream::Loan> loan, gsize size) {
    Sink_Stream::Loan* const lent = loan.release();
    GstMemory* const memory = gst_memory_new_wrapped(
        static_cast<GstMemoryFlags>(0), lent->room().data(), size, 0, size, lent, end_loan);
    gst_mini_object_set_qdata(GST_MINI_OBJECT_CAST(memory), loan_quark(), lent, nullptr);
    GstBuffer* const buffer = gst_buffer_new();
    gst_buffer_append_memory(buffer, memory);
    return buffer;
}

// Records of the history lie at multiples of 64 bytes, and nothing is left free around a payload.
constexpr gsize record_alignment_mask = 63;

gboolean set_config(GstBufferPool* pool, GstStructure* config) {
    Pool* const self = pool_of(pool);
    GstAllocationParams params;
    gst_allocation_params_init(&params);
    gst_buffer_pool_config_get_params(config, nullptr, &self->size, nullptr, nullptr);
    gst_buffer_pool_config_get_allocator(config, nullptr, &params);
    self->may_lend =
        (params.align & ~record_alignment_mask) == 0 && params.prefix == 0 && params.padding == 0;
    return base_class->set_config(pool, config);
}

GstFlowReturn acquire_buffer(GstBufferPool* pool, GstBuffer** buffer,
                             GstBufferPoolAcquireParams* params) {
    Pool* const self = pool_of(pool);
    if (GST_BUFFER_POOL_IS_FLUSHING(pool)) {
        return GST_FLOW_FLUSHING;
    }
    auto loan = self->may_lend ? (*self->stream)->lend(self->size) : nullptr;
    if (loan) {
        *buffer = buffer_on_loan(std::move(loan), self->size);
    } else {
        const GstFlowReturn flow = base_class->acquire_buffer(pool, buffer, params);
        if (flow != GST_FLOW_OK) {
            return flow;
        }
    }
    gst_mini_object_set_qdata(GST_MINI_OBJECT_CAST(*buffer), pool_quark(), self, nullptr);
    (*self->stream)->acquire_buffer();
    return GST_FLOW_OK;
}

void release_buffer(GstBufferPool* pool, GstBuffer* buffer) {
    Pool* const self = pool_of(pool);
    gst_mini_object_set_qdata(GST_MINI_OBJECT_CAST(buffer), pool_quark(), nullptr, nullptr);
    const bool is_loan = zav_shm::gst::loan_of(buffer).loan != nullptr;
    (*self->stream)->release_buffer();
    if (is_loan) {
        gst_buffer_unref(buffer);  // its place in the history is used once
        return;
    }
    base_class->release_buffer(pool, buffer);
}

void finalize(GObject* object) {
    delete pool_of(object)->stream;
    G_OBJECT_CLASS(base_class)->finalize(object);
}

void init_class(gpointer type, gpointer /*data*/) {
    base_class = GST_BUFFER_POOL_CLASS(g_type_class_peek_parent(type));
    G_OBJECT_CLASS(type)->finalize = finalize;
    GST_BUFFER_POOL_CLASS(type)->set_config = set_config;
    GST_BUFFER_POOL_CLASS(type)->acquire_buffer = acquire_buffer;
    GST_BUFFER_POOL_CLASS(type)->release_buffer = release_buffer;
}

GType pool_type() {
    static const GType type = g_type_register_static_simple(
        GST_TYPE_BUFFER_POOL, "ZavLoanPool", sizeof(GstBufferPoolClass), init_class, sizeof(Pool),
        nullptr, G_TYPE_FLAG_FINAL);
    return type;
}

}  // namespace

namespace zav_shm::gst {

GstBufferPool* new_loan_pool(std::shared_ptr<Sink_Stream> stream, GstCaps* caps, guint size) {
    auto* const self = pool_of(g_object_new(pool_type(), nullptr));
    gst_object_ref_sink(self);
    self->stream = new std::shared_ptr<Sink_Stream>(std::move(stream));
    GstBufferPool* const pool = GST_BUFFER_POOL_CAST(self);
    GstStructure* const config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_set_params(config, caps, size, 0, 0);
    gst_buffer_pool_set_config(pool, config);
    return pool;
}

bool is_of_loan_pool(GstBuffer* buffer) {
    return gst_mini_object_get_qdata(GST_MINI_OBJECT_CAST(buffer), pool_quark()) != nullptr;
}

Loaned loan_of(GstBuffer* buffer) {
    const guint count = gst_buffer_n_memory(buffer);
    for (guint i = 0; i < count; ++i) {
        GstMemory* const memory = gst_buffer_peek_memory(buffer, i);
        const Sink_Stream::Loan* const whole = loan_behind(memory);
        const bool is_part = memory->parent != nullptr && loan_behind(memory->parent) != nullptr;
        if (whole != nullptr && count == 1 && memory->offset == 0) {
            return {.loan = whole};
        }
        if (whole != nullptr || is_part) {
            return {.is_piece = true};
        }
    }
    return {};
}

}  // namespace zav_shm::gst
