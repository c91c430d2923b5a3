// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

/// Runs `wait` on a thread of its own and interrupts it by a signal, again and again until it
/// has returned, but not before it is asleep.
///
/// @return errno as `wait` left it.
int errno_after_interrupting(const std::function<void()>& wait);
