// SPDX-License-Identifier: Apache-2.0
#include "stream/channel_key.h"

#include <ostream>
#include <tuple>

namespace {

std::string text_or_empty(const char* text) { return text == nullptr ? "" : text; }

}  // namespace

Shm_Stream_Transmission_Index::Shm_Stream_Transmission_Index(const std::string& new_name,
                                                             int new_channel, int new_stream)
    : name(new_name), channel(new_channel), stream(new_stream) {}

void Shm_Stream_Transmission_Index::reset() {
    name.clear();
    channel = -1;
    stream = -1;
}

bool Shm_Stream_Transmission_Index::operator<(const Shm_Stream_Transmission_Index& other) const {
    return std::tie(name, channel, stream) < std::tie(other.name, other.channel, other.stream);
}

bool Shm_Stream_Transmission_Index::operator==(const Shm_Stream_Transmission_Index& other) const {
    return std::tie(name, channel, stream) == std::tie(other.name, other.channel, other.stream);
}

std::ostream& operator<<(std::ostream& out, const Shm_Stream_Transmission_Index& key) {
    return out << "Shm_Name : " << key.name << ", Channel : " << key.channel
               << ", Stream : " << key.stream;
}

Shm_Stream_Transmission_Pair_Index::Shm_Stream_Transmission_Pair_Index(
    const std::string& new_name, int new_channel, int new_stream, const std::string& new_pair_name)
    : Shm_Stream_Transmission_Index(new_name, new_channel, new_stream), pair_name(new_pair_name) {}

Shm_Stream_Transmission_Pair_Index::Shm_Stream_Transmission_Pair_Index(const char* new_name,
                                                                       int new_channel,
                                                                       int new_stream,
                                                                       const char* /*pair_name*/)
    : Shm_Stream_Transmission_Index(text_or_empty(new_name), new_channel, new_stream),
      pair_name(name) {}

void Shm_Stream_Transmission_Pair_Index::reset() {
    Shm_Stream_Transmission_Index::reset();
    pair_name.clear();
}

std::ostream& operator<<(std::ostream& out, const Shm_Stream_Transmission_Pair_Index& key) {
    return out << "Shm_Name " << key.name << " Channel : " << key.channel
               << ", Stream : " << key.stream << "Pair Name" << key.pair_name << '\n';
}
