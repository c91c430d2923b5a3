// SPDX-License-Identifier: Apache-2.0
#include "apps/rtspd/access.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>

#include "apps/rtspd/gst_reference.h"

namespace zav_shm::rtspd {

namespace {

constexpr std::size_t hash_digits = 32;

Problem unreadable(const std::string& what, const std::string& file, const std::string& why) {
    return {Exit_Status::input_output, what + " \"" + file + "\" cannot be used: " + why};
}

// "USER:zav_shm:HASH", where HASH is the MD5 of "USER:zav_shm:PASSWORD" in 32 digits.
bool is_user(const std::string& line) {
    const std::string middle = std::string(":") + realm + ":";
    const std::size_t found = line.find(middle);
    const std::size_t hash = found + middle.size();
    return found != std::string::npos && found > 0 && found == line.find(':') &&
           line.size() == hash + hash_digits &&
           line.find_first_not_of("0123456789abcdef", hash) == std::string::npos;
}

std::optional<Problem> check_users(const std::string& file) {
    std::ifstream in(file);
    if (!in) {
        return unreadable("the file of users", file, std::strerror(errno));
    }
    std::string line;
    unsigned number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (!is_user(line)) {
            return unreadable("the file of users", file,
                              "line " + std::to_string(number) + " is not USER:" + realm +
                                  ":HASH with 32 hexadecimal digits in small letters");
        }
    }
    if (number == 0) {
        return unreadable("the file of users", file, "it has no line");
    }
    return {};
}

std::optional<Problem> add_users(GstRTSPAuth* auth, const std::string& file) {
    if (auto problem = check_users(file)) {
        return problem;
    }
    gst_rtsp_auth_set_supported_methods(auth, GST_RTSP_AUTH_DIGEST);
    gst_rtsp_auth_set_realm(auth, realm);
    GstRTSPToken* const token =
        gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, viewer_role, nullptr);
    const bool is_read = gst_rtsp_auth_parse_htdigest(auth, file.c_str(), token) != FALSE;
    gst_rtsp_token_unref(token);
    return is_read ? std::nullopt
                   : std::optional(unreadable("the file of users", file, "it cannot be parsed"));
}

std::optional<Problem> add_certificate(GstRTSPAuth* auth, const Options& options) {
    GError* error = nullptr;
    const std::string& key = options.tls_key.empty() ? options.tls_certificate : options.tls_key;
    const Object_Reference<GTlsCertificate> certificate(
        g_tls_certificate_new_from_files(options.tls_certificate.c_str(), key.c_str(), &error));
    if (!certificate) {
        const Error_Reference held(error);
        return unreadable("the certificate", options.tls_certificate,
                          "with the key \"" + key + "\": " + error->message);
    }
    gst_rtsp_auth_set_tls_certificate(auth, certificate.get());
    return {};
}

// Without a file of users everybody is a viewer.
void let_everybody_in(GstRTSPAuth* auth) {
    GstRTSPToken* const token =
        gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, viewer_role, nullptr);
    gst_rtsp_auth_set_default_token(auth, token);
    gst_rtsp_token_unref(token);
}

}  // namespace

std::optional<Problem> set_up_access(GstRTSPServer* server, const Options& options) {
    const Object_Reference<GstRTSPAuth> auth(gst_rtsp_auth_new());
    if (options.user_file.empty()) {
        let_everybody_in(auth.get());
    } else if (auto problem = add_users(auth.get(), options.user_file)) {
        return problem;
    }
    if (!options.tls_certificate.empty()) {
        if (auto problem = add_certificate(auth.get(), options)) {
            return problem;
        }
    }
    gst_rtsp_server_set_auth(server, auth.get());
    return {};
}

void let_viewers_play(GstRTSPMediaFactory* factory) {
    gst_rtsp_media_factory_add_role(factory, viewer_role, GST_RTSP_PERM_MEDIA_FACTORY_ACCESS,
                                    G_TYPE_BOOLEAN, TRUE, GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT,
                                    G_TYPE_BOOLEAN, TRUE, nullptr);
}

}  // namespace zav_shm::rtspd
