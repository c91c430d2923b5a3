// SPDX-License-Identifier: Apache-2.0
#include "apps/web/access_check.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>

namespace zav_shm::web {

namespace {

// "localhost:8080" and "[::1]:8080" without the port and the brackets.
std::string_view name_of_host(std::string_view host) {
    if (host.starts_with('[')) {
        host.remove_prefix(1);
        return host.substr(0, host.find(']'));
    }
    return host.substr(0, host.find(':'));
}

// Whatever the case of ASCII letters.
bool is_same_word(std::string_view text, std::string_view word) {
    return text.size() == word.size() && strncasecmp(text.data(), word.data(), word.size()) == 0;
}

}  // namespace

bool is_loopback(std::string_view address) {
    in_addr v4{};
    in6_addr v6{};
    const std::string text(address);
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24U) == 127U;
    }
    return inet_pton(AF_INET6, text.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

bool Access_Check::allows_host(std::string_view host) const {
    const std::string_view name = name_of_host(host);
    return needs_token() || is_same_word(name, "localhost") || is_loopback(name);
}

bool Access_Check::allows_token(std::string_view token) const {
    if (token.size() != token_.size()) {
        return !needs_token();
    }
    unsigned difference = 0;
    for (std::size_t i = 0; i < token.size(); ++i) {
        difference |= static_cast<unsigned>(token[i] ^ token_[i]);
    }
    return difference == 0;
}

std::string_view token_in_cookie(std::string_view cookie) {
    while (!cookie.empty()) {
        std::string_view pair = cookie.substr(0, cookie.find(';'));
        cookie.remove_prefix(std::min(pair.size() + 1, cookie.size()));
        pair.remove_prefix(std::min(pair.find_first_not_of(' '), pair.size()));
        if (pair.starts_with(cookie_name) && pair.substr(cookie_name.size()).starts_with('=')) {
            return pair.substr(cookie_name.size() + 1);
        }
    }
    return {};
}

std::string_view token_in_authorization(std::string_view authorization) {
    constexpr std::string_view scheme = "bearer ";
    return is_same_word(authorization.substr(0, scheme.size()), scheme)
               ? authorization.substr(scheme.size())
               : std::string_view();
}

}  // namespace zav_shm::web
