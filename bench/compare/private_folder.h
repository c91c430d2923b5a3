// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace zav_shm::bench::compare {

/// Mounts an empty file system of its own on /tmp: some systems make their sockets and locks there,
/// wherever one would like to have them. After enter_private_namespaces(); files of the old /tmp
/// that are open stay so.
///
/// @return false when the system forbids it; what failed is on standard error.
bool enter_private_folder();

}  // namespace zav_shm::bench::compare
