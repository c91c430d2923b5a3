// SPDX-License-Identifier: Apache-2.0
//
// list_units h264|h265 FILE
//
// Divides an elementary stream and writes a line for each access unit, for comparison with what
// other programs say of the stream:
//
//   <bytes> <idr | recovery | ->  <frame | field> <width>x<height> <codec>
//
// The size is the one of the latest sequence parameter set, 0x0 before the first.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

#include "apps/media/access_unit_splitter.h"
#include "apps/media/picture_size.h"

namespace {

using namespace zav_shm::media;

constexpr std::size_t unit_bytes_max = std::size_t{64} << 20;

void list(std::ifstream& file, Video_Codec codec) {
    Picture_Size size;
    Access_Unit_Splitter splitter(codec, unit_bytes_max, [&size](const Access_Unit& unit) {
        size = picture_size(unit.codec, unit.bytes).value_or(size);
        std::printf("%llu %s %s %ux%u %s\n", static_cast<unsigned long long>(unit.size_bytes),
                    unit.is_key ? "idr" : (unit.is_recovery_point ? "recovery" : "-"),
                    unit.is_field ? "field" : "frame", size.width, size.height,
                    unit.codec == Video_Codec::h264 ? "h264" : "h265");
    });
    std::vector<char> block(65536);
    while (file.read(block.data(), static_cast<std::streamsize>(block.size())).gcount() > 0) {
        const auto got = static_cast<std::size_t>(file.gcount());
        splitter.feed(std::as_bytes(std::span(block).first(got)));
    }
    splitter.finish();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "list_units h264|h265 FILE\n");
        return 2;
    }
    std::ifstream file(argv[2], std::ios::binary);
    if (!file) {
        std::perror(argv[2]);
        return 5;
    }
    list(file, std::strcmp(argv[1], "h264") == 0 ? Video_Codec::h264 : Video_Codec::h265);
    return 0;
}
