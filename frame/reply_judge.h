// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/json.h>

namespace zav_shm {

/// Tells whether a reply belongs to a request. Replies are addressed by process id alone, and say
/// their command but not for whom: the late reply of an earlier request, about another channel or
/// another producer, is known by the names in it.
///
/// What a reply leaves out contradicts nothing. Two things are not told apart: acknowledgements of
/// "deregister", which name nothing, and refusals of "register" for two consumers or two producers
/// of the same numbers.
bool is_reply_to(const Json::Value& request, const Json::Value& reply);

}  // namespace zav_shm
