// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

#include <string>

#include "apps/centerd/request_account.h"
#include "center/shm_center.h"
#include "control/center_page.h"

namespace zav_shm::centerd {

/// What the daemon publishes beside the segments while it runs: the center page, and
/// center_status.json, from which "zav-shm status" shows what every relay does. docs/daemon.md
/// lists its fields.
class Status_Page {
public:
    /// Draws the epoch.
    ///
    /// @param folder         of the segments, "/shm"
    /// @param configuration  its file, or what stands for one
    /// @param names          who may be a client (status_names)
    /// @param requests       what clients have asked; outlives this
    Status_Page(std::string folder, std::string configuration, Json::Value names,
                const Request_Account& requests, File_Access access);

    const Center_Page& page() const { return page_; }

    /// True when the page is there, and this one.
    bool has_page() const;

    /// Both return false with errno; the former content is still there then.
    bool write_page();
    bool write_status(const ZAV_SHM_CENTER& center) const;

    /// The status as text.
    std::string status_of(const ZAV_SHM_CENTER& center) const;

    /// Removes both, also those that a killed center left.
    void remove() const;

    std::string status_path() const;

private:
    const std::string folder_;
    const std::string configuration_;
    const Json::Value names_;
    const Request_Account& requests_;
    const File_Access access_;
    Center_Page page_;
    Descriptor held_page_;  // the one written last, by which clients see that this lives
};

}  // namespace zav_shm::centerd
