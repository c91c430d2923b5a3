// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace zav_shm::bench {

/// Moves this process, and with it every child it will start, into System V IPC and mount
/// namespaces of its own with an empty tmpfs on /dev/shm: a bench can then neither disturb a
/// running system nor be disturbed by one, and the kernel removes all its objects with its last
/// process. As root directly, otherwise by way of a user namespace.
///
/// Call it first in main: a process with several threads cannot change its user namespace.
///
/// @return false when the system forbids it; what failed is on standard error.
bool enter_private_namespaces();

}  // namespace zav_shm::bench
