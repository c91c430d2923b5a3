// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_header.h"

namespace zav_shm {

std::string codec_name(std::uint32_t codec) {
    std::string name;
    for (unsigned i = 0; i < 4; ++i) {
        const auto character = static_cast<unsigned char>(codec >> (8 * i));
        const bool printable = character >= 0x20 && character < 0x7F;
        name += printable ? static_cast<char>(character) : '?';
    }
    name.erase(name.find_last_not_of(' ') + 1);
    return name;
}

}  // namespace zav_shm
