// SPDX-License-Identifier: Apache-2.0
//
// For systems without a service manager that wants to be told.
#include "apps/centerd/notifier.h"

namespace zav_shm::centerd {

void Notifier::ready(const std::string& /*status*/) {}
void Notifier::not_ready(const std::string& /*status*/) {}
void Notifier::stopping() {}
void Notifier::alive() {}
std::optional<std::chrono::milliseconds> Notifier::watchdog_interval() { return std::nullopt; }

}  // namespace zav_shm::centerd
