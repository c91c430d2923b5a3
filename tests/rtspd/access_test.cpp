// SPDX-License-Identifier: Apache-2.0
//
// Who may play, and how the program begins and ends.
#include <csignal>
#include <optional>

#include "rtspd/rtspd_fixture.h"

namespace {

using namespace std::chrono_literals;

constexpr int usage = 2;
constexpr int input_output = 5;
constexpr int no_system = 6;

class Access : public Rtspd {
protected:
    // "operator" with the password "secret".
    void write_users() {
        const Ended hash = shell("printf 'operator:zav_shm:secret' | md5sum | cut -c1-32");
        write("users", "operator:zav_shm:" + hash.output);
    }

    std::string as_user(const std::string& user, const std::string& path) {
        return shell(
                   "timeout 20 ffprobe -loglevel error -show_entries stream=codec_name "
                   "-of csv=p=0 " +
                   scheme + "://" + user + "@127.0.0.1:" + std::to_string(port) + path)
            .output;
    }
};

TEST_F(Access, users_prove_themselves_by_digest) {
    const auto camera = file_camera("plain.h264", zav_shm::codec::h264);
    write_users();
    ASSERT_TRUE(start_server({"--user-file", path("users")}));
    Rtsp_Client nobody(port);
    const auto reply = nobody.request("DESCRIBE", "/CAM/0/main");
    EXPECT_EQ(reply.status, 401);
    EXPECT_NE(reply.head.find("Digest realm=\"zav_shm\""), std::string::npos) << reply.head;
    EXPECT_EQ(reply.head.find("Basic"), std::string::npos) << reply.head;
    EXPECT_EQ(as_user("operator:secret", "/CAM/0/main"), "h264\n");
    EXPECT_NE(as_user("operator:wrong", "/CAM/0/main").find("401"), std::string::npos);
}

TEST_F(Access, connections_are_encrypted) {
    const auto camera = file_camera("plain.h264", zav_shm::codec::h264);
    write_users();
    ASSERT_EQ(
        shell("openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out cert.pem -days 2 "
              "-subj /CN=localhost")
            .status,
        0);
    ASSERT_TRUE(start_server({"--user-file", path("users"), "--tls-certificate", path("cert.pem"),
                              "--tls-key", path("key.pem")}));
    scheme = "rtsps";
    EXPECT_EQ(as_user("operator:secret", "/CAM/0/main"), "h264\n");
    EXPECT_NE(as_user("operator:wrong", "/CAM/0/main").find("401"), std::string::npos);
    EXPECT_EQ(Rtsp_Client(port).request("OPTIONS", "/").status, 0) << "without TLS";
}

TEST_F(Access, clients_beyond_the_limits_are_refused) {
    const auto camera = numbered_camera();
    ASSERT_TRUE(start_server({"--clients", "3", "--clients-per-address", "2"}));
    std::optional<Rtsp_Client> first_held(std::in_place, port);
    Rtsp_Client& first = *first_held;
    Rtsp_Client second(port);
    ASSERT_EQ(first.play("/CAM/0/main"), 200);
    ASSERT_EQ(second.play("/CAM/0/main"), 200);
    {
        Rtsp_Client third(port);
        EXPECT_TRUE(third.is_ended());
    }
    EXPECT_NE(errors().find("--clients-per-address is 2"), std::string::npos) << errors();
    expect_units(first, 20);
    first_held.reset();
    EXPECT_TRUE(
        becomes_true([&] { return Rtsp_Client(port).request("OPTIONS", "/").status == 200; }));
}

TEST_F(Access, end_within_a_second_with_clients) {
    const auto camera = numbered_camera();
    ASSERT_TRUE(start_server({"--mount", "LATER/0/main"}));
    Rtsp_Client playing(port);
    ASSERT_EQ(playing.play("/CAM/0/main"), 200);
    Rtsp_Client waiting(port);
    waiting.send("DESCRIBE rtsp://127.0.0.1/LATER/0/main RTSP/1.0\r\nCSeq: 1\r\n\r\n");
    expect_units(playing, 10);
    const Stopwatch watch;
    server->signal(SIGTERM);
    EXPECT_EQ(server->wait(5s), 0);
    EXPECT_LT(watch.elapsed(), 1s);
    EXPECT_TRUE(playing.is_ended());
    server.reset();
}

TEST_F(Access, wrong_arguments_are_named) {
    const auto refused = [this](const std::vector<std::string>& arguments, int status,
                                const std::string& text) {
        EXPECT_EQ(run_program(arguments), status) << errors();
        EXPECT_NE(errors().find(text), std::string::npos) << errors();
    };
    refused({"--port", "70000"}, usage, "'70000' is no whole number from 0 to 65535");
    refused({"--address", "camera"}, usage, "'camera' is no IP address");
    refused({"--address", "0.0.0.0"}, usage, "--user-file is needed");
    refused({"--mount", "CAM"}, usage, "'CAM' is not NAME/CHANNEL/STREAM");
    refused({"--only-mounts"}, usage, "serves nothing");
    refused({"--cache", "5"}, usage, "from 65536");
    refused({"--wait", "nan"}, usage, "'nan' is no number of seconds");
    refused({"--user-file", path("none")}, input_output, "No such file");
    write("users", "operator:secret\n");
    refused({"--user-file", path("users")}, input_output, "line 1 is not USER:zav_shm:HASH");
    refused({"--tls-certificate", path("users")}, input_output, "the certificate");
    ASSERT_TRUE(start_server());
    refused({"--port", std::to_string(port)}, no_system, "cannot listen on 127.0.0.1, port");
    EXPECT_EQ(run_program({"--version"}), 0);
}

TEST_F(Access, service_file_is_valid_and_grants_nothing_to_write) {
    const std::string file = ZAV_TEST_SERVICE_FILE;
    for (const char* line : {"ExecStart=" ZAV_TEST_INSTALLED_RTSPD, "DynamicUser=yes",
                             "ReadOnlyPaths=/dev/shm", "CapabilityBoundingSet="}) {
        EXPECT_EQ(shell(std::string("grep -qx '") + line + "' " + file).status, 0) << line;
    }
    ASSERT_EQ(shell("sed 's|" ZAV_TEST_INSTALLED_RTSPD "|" ZAV_TEST_RTSPD "|' " + file +
                    " > zav-shm-rtspd.service")
                  .status,
              0);
    const Ended verified = shell("systemd-analyze verify --man=no ./zav-shm-rtspd.service");
    EXPECT_EQ(verified.status, 0);
    EXPECT_EQ(verified.output, "");
}

TEST_F(Access, only_mounts_are_served_when_told_so) {
    const auto camera = numbered_camera();
    ASSERT_TRUE(start_server(
        {"--only-mounts", "--mount", "/front door=CAM/0/main", "--mount", "/door=CAM/0/main"}));
    EXPECT_EQ(Rtsp_Client(port).play("/door"), 200);
    EXPECT_EQ(Rtsp_Client(port).play("/CAM/0/main"), 404);
}

}  // namespace
