// SPDX-License-Identifier: Apache-2.0
#include "client/name_layout.h"

#include <cstddef>

#include "client/control_reply.h"
#include "ipc/standard_output.h"

namespace zav_shm {

void Name_Layout::take(const Control_Reply& reply) {
    const std::vector<int> sizes = reply.numbers(control::field::page_size);
    if (static_cast<int>(sizes.size()) != reply.number(control::field::stream)) {
        zav_shm::standard_output() << "Invalid Page Size" << std::endl;
        throw "Invalid Page Size";
    }
    if (reply.is_integer(control::field::channel)) {
        channel_num_ = reply.number(control::field::channel);
    }
    if (reply.is_integer(control::field::stream)) {
        stream_num_ = reply.number(control::field::stream);
    }
    page_sizes_.insert(page_sizes_.end(), sizes.begin(), sizes.end());
}

int Name_Layout::page_size(int index) const {
    if (index < 0 || index > stream_num_) {
        return 0;
    }
    const auto i = static_cast<std::size_t>(index);
    return i < page_sizes_.size() ? page_sizes_[i] : 0;
}

}  // namespace zav_shm
