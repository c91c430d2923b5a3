// SPDX-License-Identifier: Apache-2.0
//
// Stands for the splitter and the writer where libogg is not installed.
#include "apps/audio/ogg_opus.h"

namespace zav_shm::audio {

bool has_ogg() { return false; }

std::unique_ptr<Audio_Splitter> make_ogg_opus_splitter(Audio_Receiver& /*receiver*/) {
    return nullptr;
}

std::unique_ptr<Ogg_Opus_Writer> make_ogg_opus_writer() { return nullptr; }

}  // namespace zav_shm::audio
