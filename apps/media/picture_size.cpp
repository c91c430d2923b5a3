// SPDX-License-Identifier: Apache-2.0
#include "apps/media/picture_size.h"

#include "apps/media/nal_scan.h"
#include "apps/media/nal_types.h"
#include "apps/media/sequence_set.h"

namespace zav_shm::media {

std::optional<Picture_Size> picture_size(Video_Codec codec,
                                         std::span<const std::byte> access_unit) {
    const unsigned wanted = codec == Video_Codec::h264 ? h264::sps : h265::sps;
    for (Nal_Scan scan(access_unit); scan.next();) {
        const auto nal = scan.nal_unit();
        if (nal.empty() || nal_type(codec, nal[0]) != wanted) {
            continue;
        }
        if (codec == Video_Codec::h265) {
            const auto sequence = read_h265_sequence(nal);
            return sequence ? sequence->size : std::nullopt;
        }
        const auto sequence = read_h264_sequence(nal);
        return sequence ? sequence->size : std::nullopt;
    }
    return std::nullopt;
}

}  // namespace zav_shm::media
