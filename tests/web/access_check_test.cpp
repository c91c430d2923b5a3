// SPDX-License-Identifier: Apache-2.0
#include "apps/web/access_check.h"

#include <gtest/gtest.h>

namespace {

using namespace zav_shm::web;

TEST(Access_Check, without_a_token_takes_loopback_names_alone) {
    const Access_Check check("");
    for (const char* host : {"localhost", "localhost:8080", "LocalHost", "127.0.0.1",
                             "127.0.0.1:8080", "127.9.9.9:1", "[::1]", "[::1]:8080"}) {
        EXPECT_TRUE(check.allows_host(host)) << host;
    }
    for (const char* host : {"", "camera.example", "localhost.example", "10.0.0.1:8080", "[::2]:80",
                             "[", "[]", ":8080", "127.0.0.1.example"}) {
        EXPECT_FALSE(check.allows_host(host)) << host;
    }
    EXPECT_TRUE(check.allows_token(""));
}

TEST(Access_Check, with_a_token_takes_that_one_under_any_name) {
    const Access_Check check("0123456789abcdef");
    EXPECT_TRUE(check.allows_host("camera.example"));
    EXPECT_TRUE(check.allows_token("0123456789abcdef"));
    for (const char* token :
         {"", "0", "0123456789abcdeF", "0123456789abcdef0", "0123456789abcde"}) {
        EXPECT_FALSE(check.allows_token(token)) << token;
    }
}

TEST(Access_Check, finds_the_token_in_headers) {
    EXPECT_EQ(token_in_cookie("zav_shm_token=abc"), "abc");
    EXPECT_EQ(token_in_cookie("a=b; zav_shm_token=abc; c=d"), "abc");
    EXPECT_EQ(token_in_cookie("a=b;zav_shm_token="), "");
    EXPECT_EQ(token_in_cookie("xzav_shm_token=abc; zav_shm_tokens=abc"), "");
    EXPECT_EQ(token_in_cookie(";;  ;"), "");
    EXPECT_EQ(token_in_authorization("Bearer abc"), "abc");
    EXPECT_EQ(token_in_authorization("bearer abc"), "abc");
    EXPECT_EQ(token_in_authorization("Basic abc"), "");
    EXPECT_EQ(token_in_authorization("Bear"), "");
}

}  // namespace
