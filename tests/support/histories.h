// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <set>
#include <string>

/// What publishers leave behind on purpose: histories, their locks, the files of their requests.
/// Removes them, and demands that beside them there are only files with these endings.
void remove_histories(const std::set<std::string>& may_be_left = {});
