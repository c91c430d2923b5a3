// SPDX-License-Identifier: Apache-2.0
#pragma once

#ifdef ZAV_SHM_TEST_POINTS
#include <functional>
#include <string>
#endif

// Places at which a test makes a process end or stop, to see what the others make of it: before
// and after each post, and in the middle of each copy. They exist in builds with the option
// ZAV_SHM_TEST_POINTS only; in all others they are nothing.
//
// The environment of the process says where: ZAV_SHM_TEST_POINT="PLACE OBJECT COUNT SIGNAL [FILE]",
// for instance "before_post SRC_0 40 9" for the fortieth time that a post on semaphore 0 of a
// producer's side is due. With a file, the counting begins once there is one of this name. Objects
// are SRC_0 ... DST_2 for posts, and "write", "header" and "read" for the place "copy".

namespace zav_shm {

/// Raises the signal when this is the place, object and time; `object` may be the name of a
/// semaphore.
#ifdef ZAV_SHM_TEST_POINTS
void test_point(const char* place, const char* object);

/// Has a test's own function called at every place, on the thread that is there; null ends that.
using Test_Hook = std::function<void(const std::string& place, const std::string& object)>;
void set_test_hook(const Test_Hook* hook);
#else
inline void test_point(const char* /*place*/, const char* /*object*/) {}
#endif

}  // namespace zav_shm
