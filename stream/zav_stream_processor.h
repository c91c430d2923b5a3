// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The frame channels' one public header.

#include "stream/channel_end.h"
#include "stream/channel_key.h"
#include "stream/channel_names.h"
#include "stream/endpoint.h"
#include "stream/frame_slot.h"
#include "stream/relay.h"
#include "stream/relay_endpoint.h"
#include "stream/transmission_manager.h"
