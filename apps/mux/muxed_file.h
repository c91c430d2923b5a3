// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "apps/media/decoding_clock.h"
#include "apps/mux/muxer.h"
#include "apps/mux/sound_track.h"
#include "apps/tool/frame_index.h"
#include "apps/tool/output_file.h"
#include "apps/tool/recorded_frames.h"
#include "apps/tool/series_file.h"

namespace zav_shm::mux {

/// One file of pictures, and of the sounds beside them. It begins at time 0 with its first picture,
/// and everything keeps the distances of the streams' own presentation times.
///
/// Crash   of the process leaves it readable up to the last whole fragment, of a second each.
/// Full    medium: it is cut behind its last whole fragment.
class Muxed_File : public tool::Series_File {
public:
    struct Settings {
        Container container = Container::mp4;
        bool sync = false;
    };

    /// @param sounds  null without them
    Muxed_File(const std::string& file, const Settings& settings, Sound_Track* sounds,
               const tool::Stop_Signal& stop);

    std::optional<tool::Problem> open(tool::Output_File::Clock::time_point end) override;
    std::optional<tool::Problem> begin() override;
    bool write(int stream, const Received_Frame& frame) override;
    bool flush_if_due() override;
    std::optional<tool::Problem> close() override;
    tool::Recorded_Totals totals() const override;
    std::string title() const override { return file_.title(); }
    bool goes_on_with(const Received_Frame& frame) const override;

private:
    /// A picture that was handed to the muxer.
    struct Picture {
        int stream = 0;
        Received_Frame frame;  // without its bytes
    };

    bool begin_tracks(const Received_Frame& first);
    void add_sounds(std::int64_t before_ns, std::chrono::milliseconds limit);
    bool drain(std::chrono::milliseconds limit);
    bool take(const Muxer::Piece& piece);
    void settle();
    bool fail(tool::Problem problem);
    bool fail_of_muxer();

    const Settings settings_;
    Sound_Track* const sounds_;
    tool::Output_File file_;
    tool::Frame_Index index_;  // none
    tool::Recorded_Frames recorded_;
    std::optional<tool::Problem> problem_;

    std::optional<Muxer> muxer_;
    std::optional<media::Decoding_Clock> decoding_;
    bool has_sounds_ = false;
    std::int64_t sounds_until_ns_ = 0;  // that have been added
    ZAV_SHM_Frame_Header first_ = {};
    ZAV_SHM_Frame_Header last_ = {};

    std::deque<Picture> in_muxer_;
    std::deque<Picture> in_fragment_;    // of the present one
    std::uint64_t handed_bytes_ = 0;     // of both
    std::uint64_t out_bytes_ = 0;        // that have come out of the muxer
    std::uint64_t fragments_bytes_ = 0;  // of those, in whole fragments
};

/// A series of them.
class Muxed_Files : public tool::Series_Form {
public:
    /// @param sounds  null without them
    Muxed_Files(const Muxed_File::Settings& settings, std::unique_ptr<Sound_Track> sounds,
                const tool::Stop_Signal& stop)
        : settings_(settings), sounds_(std::move(sounds)), stop_(stop) {}

    std::optional<tool::Problem> open() override;
    std::string extension(std::uint32_t codec) const override;
    std::unique_ptr<tool::Series_File> make(const std::string& file,
                                            const std::string& index) const override;

private:
    const Muxed_File::Settings settings_;
    const std::unique_ptr<Sound_Track> sounds_;
    const tool::Stop_Signal& stop_;
};

}  // namespace zav_shm::mux
