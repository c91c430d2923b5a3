// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "apps/centerd/control_queues.h"
#include "apps/centerd/options.h"
#include "apps/centerd/request_account.h"
#include "center/center_fixture.h"

/// Fixture of tests of the daemon's parts, in this process, beside a center of it.
class Parts : public Center {
protected:
    static zav_shm::centerd::Control_Queues prepared_queues(mode_t mode = 0600) {
        zav_shm::centerd::Control_Queues queues;
        EXPECT_FALSE(zav_shm::centerd::Control_Queues::find_keys(queues));
        EXPECT_FALSE(queues.prepare({mode, getegid()}));
        return queues;
    }

    zav_shm::centerd::Request_Account account_;
};
