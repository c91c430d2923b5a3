// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace zav_shm::web {

/// Who may see the pages.
///
/// On loopback everybody of this host may, if the request names the server by a loopback name: a
/// foreign page that lets its own name point here ("DNS rebinding") is refused. On other addresses
/// a request has to carry the token.
class Access_Check {
public:
    /// @param token  empty: only loopback names are asked for.
    explicit Access_Check(std::string token) : token_(std::move(token)) {}

    bool needs_token() const { return !token_.empty(); }

    /// @param host  the header of that name: "localhost:8080", "[::1]:8080".
    bool allows_host(std::string_view host) const;

    /// Takes the same time for every token of the right length.
    bool allows_token(std::string_view token) const;

private:
    std::string token_;
};

/// The token in the header "Cookie" or "Authorization: Bearer"; empty without one.
std::string_view token_in_cookie(std::string_view cookie);
std::string_view token_in_authorization(std::string_view authorization);

inline constexpr std::string_view cookie_name = "zav_shm_token";

/// True for "127.0.0.1", "::1" and the rest of 127.0.0.0/8.
bool is_loopback(std::string_view address);

}  // namespace zav_shm::web
