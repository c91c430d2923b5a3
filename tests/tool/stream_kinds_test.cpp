// SPDX-License-Identifier: Apache-2.0
//
// What `publish` makes of streams that are not one IDR picture after each second: fields, recovery
// points, another codec than was said, and one that changes.
#include "frame/frame_subscriber.h"
#include "tool/crafted_streams.h"
#include "tool/tool_frames.h"

namespace {

using namespace std::chrono_literals;
using namespace crafted;
using zav_shm::Receive_Status;
using zav_shm::Received_Frame;

class Tool_Stream_Kinds : public Tool_Frames {
protected:
    // All frames of a file, as a subscriber of its own sees their headers.
    std::vector<ZAV_SHM_Frame_Header> headers_of(const std::string& file,
                                                 const std::vector<std::string>& more) {
        ZAV_SHM_Frame_Subscriber subscriber({.name = "PLAYER", .producer = "CAM_LOOP"});
        EXPECT_TRUE(subscriber.open());
        std::this_thread::sleep_for(150ms);  // until the relay looks again
        std::vector<std::string> words{file, "--index", path("index")};
        words.insert(words.end(), more.begin(), more.end());
        Tool_Process publisher = start_publisher(words);
        std::vector<ZAV_SHM_Frame_Header> headers;
        Received_Frame frame;
        bool last = false;
        while (!last && subscriber.receive(frame, 5s) == Receive_Status::frame) {
            headers.push_back(frame.header);
            last = (frame.header.flags & zav_shm::frame_flag::end_of_stream) != 0;
        }
        EXPECT_EQ(publisher.status(), 0) << publisher.errors();
        errors_ = publisher.errors();
        return headers;
    }

    std::string errors_;
};

// ---- fields ----

TEST_F(Tool_Stream_Kinds, two_fields_have_the_time_of_one_frame) {
    Bytes stream = sps_fields + pps + idr_top_field + bottom_field;
    for (int i = 0; i < 3; ++i) {
        stream = stream + top_field + bottom_field;
    }
    write(path("fields"), text_of(stream + field_frame + field_frame));
    const auto headers = headers_of(path("fields"), {"--fps", "10"});
    ASSERT_FALSE(headers.empty());
    for (const auto& header : headers) {
        const bool is_field = header.sequence <= 8;
        const auto fields = header.sequence <= 9 ? header.sequence - 1 : 10;
        EXPECT_EQ(header.duration_us, is_field ? 50'000U : 100'000U) << header.sequence;
        EXPECT_EQ(header.pts_ns, static_cast<std::int64_t>(fields) * 50'000'000) << header.sequence;
        EXPECT_EQ(header.rate_num, 10U);
    }
    EXPECT_EQ(headers.back().sequence, 10U);
}

// ---- where decoding may begin ----

TEST_F(Tool_Stream_Kinds, recovery_points_are_told_from_idr_pictures_in_flags_and_index) {
    write(path("in"), text_of(sps_frames + pps + idr + p_slice + recovery + p_slice + p_slice));
    for (const auto& header : headers_of(path("in"), {"--fps", "10"})) {
        constexpr std::uint16_t both =
            zav_shm::frame_flag::key_frame | zav_shm::frame_flag::recovery_point;
        const std::uint16_t expected = header.sequence == 1   ? zav_shm::frame_flag::key_frame
                                       : header.sequence == 3 ? zav_shm::frame_flag::recovery_point
                                                              : std::uint16_t{0};
        EXPECT_EQ(header.flags & both, expected) << header.sequence;
    }
    const std::string first = std::to_string((sps_frames + pps + idr).size());
    const std::string slice = std::to_string(p_slice.size());
    const std::string third = std::to_string((recovery + p_slice).size());
    EXPECT_EQ(content(path("index")), "0 1 " + first + " 1\n0 2 " + slice + " 0\n0 3 " + third +
                                          " 2\n0 4 " + slice + " 0\n");
}

// ---- codecs ----

TEST_F(Tool_Stream_Kinds, a_stream_of_another_codec_than_was_said_is_refused) {
    for (const auto& [file, codec, complaint] :
         {std::tuple{"plain.h264", "h265", "is a stream of H.264 by its parameter sets"},
          std::tuple{"plain.h265", "h264", "is a stream of H.265 by its parameter sets"}}) {
        Tool_Process publisher = start_publisher({stream(file), "--codec", codec});
        EXPECT_EQ(publisher.status(), input_output);
        EXPECT_TRUE(publisher.says(complaint));
        EXPECT_TRUE(publisher.says("as --codec says"));
    }
}

TEST_F(Tool_Stream_Kinds, a_stream_without_a_picture_is_refused) {
    write(path("slices"), text_of(p_slice + p_slice + p_slice));
    write(path("sets"), text_of(sps_frames + pps));
    for (const auto& [file, codec] : {std::pair{"slices", "h265"}, std::pair{"sets", "auto"}}) {
        Tool_Process publisher = start_publisher({path(file), "--codec", codec});
        EXPECT_EQ(publisher.status(), input_output) << file;
        EXPECT_TRUE(publisher.says("there is no picture of H.26"));
        EXPECT_EQ(publisher.figure("frames"), 0);
    }
}

TEST_F(Tool_Stream_Kinds, a_stream_that_changes_its_codec_says_so_in_its_frames) {
    write(path("both"), content(stream("plain.h264")) + content(stream("plain.h265")));
    const auto headers = headers_of(path("both"), {"--fps", "10"});
    ASSERT_FALSE(headers.empty());
    for (const auto& header : headers) {
        EXPECT_EQ(header.codec,
                  header.sequence <= 20 ? zav_shm::codec::h264 : zav_shm::codec::h265);
    }
    EXPECT_EQ(headers.back().sequence, 32U);
    EXPECT_NE(errors_.find("changes from H.264 to H.265 at frame 21"), std::string::npos)
        << errors_;
}

}  // namespace
