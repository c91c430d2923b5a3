// SPDX-License-Identifier: Apache-2.0
//
// The only file that includes the command-line library, which takes long to compile.
#include "apps/rtspd/arguments.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <cstdlib>

#include "apps/log/log_level_option.h"
#include "apps/rtspd/problem.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::rtspd {

namespace {

constexpr const char* description =
    "Serves the streams of zav_shm to RTSP clients: rtsp://HOST:8554/CAM_LOOP/0/main.";

constexpr const char* statuses =
    "Exit status: 0 ended in order, 2 usage, 5 a file of users or certificates, 6 the port or the\n"
    "system.";

constexpr std::uint64_t cache_least = std::uint64_t{64} << 10U;
constexpr std::uint64_t cache_greatest = std::uint64_t{1} << 30U;
constexpr std::uint64_t clients_greatest = 1000;
constexpr double seconds_greatest = 3600;

CLI::Validator checked_by(std::string (*mistake)(const std::string&)) {
    return {[mistake](std::string& text) { return mistake(text); }, ""};
}

// CLI11's own conversions let "1e3", "-1" and "nan" pass.
CLI::Validator whole(std::uint64_t least, std::uint64_t greatest) {
    return {[least, greatest](std::string& text) -> std::string {
                char* end = nullptr;
                const bool is_digits = !text.empty() && text.size() < 19 &&
                                       text.find_first_not_of("0123456789") == std::string::npos;
                const std::uint64_t number = is_digits ? std::strtoull(text.c_str(), &end, 10) : 0;
                return is_digits && number >= least && number <= greatest
                           ? ""
                           : "'" + text + "' is no whole number from " + std::to_string(least) +
                                 " to " + std::to_string(greatest);
            },
            ""};
}

CLI::Validator seconds_from(double least) {
    return {[least](std::string& text) -> std::string {
                char* end = nullptr;
                const double value = std::strtod(text.c_str(), &end);
                return end != text.c_str() && *end == '\0' && value >= least &&
                               value <= seconds_greatest
                           ? ""
                           : "'" + text + "' is no number of seconds from " +
                                 (least == 0 ? "0" : "1") + " to 3600";
            },
            ""};
}

std::string address_mistake(const std::string& text) {
    in6_addr room{};
    return inet_pton(AF_INET, text.c_str(), &room) == 1 ||
                   inet_pton(AF_INET6, text.c_str(), &room) == 1
               ? ""
               : "'" + text + "' is no IP address, such as 127.0.0.1, 0.0.0.0 or ::";
}

std::string folder_mistake(const std::string& text) {
    return is_file_name(text) ? "" : "'" + text + "' is no name of a folder below /dev/shm";
}

std::string file_mistake(const std::string& text) {
    return text.empty() ? "the name is empty" : "";
}

// [PATH=]NAME/CHANNEL/STREAM
std::optional<Mount> parse_mount(const std::string& text) {
    const std::size_t sign = text.find('=');
    const auto stream = parse_address(sign == std::string::npos ? text : text.substr(sign + 1));
    if (!stream) {
        return std::nullopt;
    }
    const std::string path = sign == std::string::npos ? stream->path() : text.substr(0, sign);
    const bool is_path = path.size() > 1 && path.front() == '/' && path.back() != '/' &&
                         path.find("//") == std::string::npos;
    return is_path ? std::optional(Mount{path, *stream}) : std::nullopt;
}

std::string mount_mistake(const std::string& text) {
    return parse_mount(text)
               ? ""
               : "'" + text +
                     "' is not NAME/CHANNEL/STREAM, such as CAM_LOOP/0/main, nor that with a path "
                     "in front, such as /door=CAM_LOOP/0/main";
}

bool is_loopback(const std::string& address) {
    return address.rfind("127.", 0) == 0 || address == "::1";
}

void seconds(CLI::App& app, const char* name, std::chrono::milliseconds& target, double least,
             const char* text, const char* shown) {
    app.add_option_function<double>(
           name,
           [&target](double value) {
               target = std::chrono::ceil<std::chrono::milliseconds>(
                   std::chrono::duration<double>(value));
           },
           text)
        ->check(seconds_from(least))
        ->type_name("SECONDS")
        ->default_str(shown);
}

void add_streams(CLI::App& app, Options& options) {
    app.add_option_function<std::vector<std::string>>(
           "--mount",
           [&options](const std::vector<std::string>& texts) {
               for (const std::string& text : texts) {
                   options.mounts.push_back(*parse_mount(text));
               }
           },
           "Serve this stream also before its producer has ever come, at /NAME/CHANNEL/STREAM or "
           "at a path of its own; may be repeated")
        ->check(checked_by(mount_mistake))
        ->type_name("[PATH=]NAME/CHANNEL/STREAM");
    app.add_flag("--only-mounts", options.only_mounts, "Serve what --mount names, nothing else");
    seconds(app, "--wait", options.wait, 0, "How long a client waits for a first picture", "5");
    app.add_option("--cache", options.cache_bytes,
                   "What is kept of each stream in use: the newest key frame and what followed; a "
                   "frame may have half of it")
        ->check(whole(cache_least, cache_greatest))
        ->type_name("BYTES")
        ->capture_default_str();
    app.add_option("--folder", options.folder, "Folder of the segments below /dev/shm")
        ->check(checked_by(folder_mistake))
        ->type_name("NAME")
        ->capture_default_str();
}

void add_network(CLI::App& app, Options& options) {
    app.add_option("--address", options.address, "Where to listen; 0.0.0.0 or ::, everywhere")
        ->check(checked_by(address_mistake))
        ->type_name("IP")
        ->capture_default_str();
    app.add_option("--port", options.port, "TCP port; 0: any that is free")
        ->check(whole(0, 65535))
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--clients", options.clients, "Connections at once")
        ->check(whole(1, clients_greatest))
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--clients-per-address", options.clients_per_address,
                   "Connections at once from one address")
        ->check(whole(1, clients_greatest))
        ->type_name("N")
        ->capture_default_str();
    seconds(app, "--stall", options.stall, 1,
            "How long a client over TCP may take nothing before it is sent away", "10");
}

void add_access(CLI::App& app, Options& options) {
    auto* const users =
        app.add_option("--user-file", options.user_file,
                       "Who may play: lines of USER:zav_shm:HASH, as htdigest writes them")
            ->check(checked_by(file_mistake))
            ->type_name("FILE");
    app.add_flag("--anonymous", options.anonymous,
                 "Let everybody play who can reach --address, instead of --user-file")
        ->excludes(users);
    auto* const certificate =
        app.add_option(
               "--tls-certificate", options.tls_certificate,
               "Serve rtsps:// with this certificate, a PEM file that may hold the key, too")
            ->check(checked_by(file_mistake))
            ->type_name("FILE");
    app.add_option("--tls-key", options.tls_key, "The key, where it has a file of its own")
        ->check(checked_by(file_mistake))
        ->type_name("FILE")
        ->needs(certificate);
}

int refused(const std::string& text) {
    write_log(Log_Level::error, text + "; --help lists the arguments");
    return static_cast<int>(Exit_Status::usage);
}

}  // namespace

std::variant<Options, int> read_arguments(int argc, const char* const* argv) {
    Options options;
    CLI::App app(description, "zav-shm-rtspd");
    app.footer(statuses);
    app.set_version_flag("--version", "zav-shm-rtspd " ZAV_SHM_VERSION, "Print the version");
    add_network(app, options);
    add_access(app, options);
    add_streams(app, options);
    add_log_level(app, options.log_level);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& reason) {
        const bool is_asked = reason.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success);
        return is_asked ? app.exit(reason) : refused(reason.what());
    }
    if (!is_loopback(options.address) && options.user_file.empty() && !options.anonymous) {
        return refused("--address " + options.address +
                       " is no loopback address, so --user-file is needed, or --anonymous to let "
                       "everybody play");
    }
    if (options.only_mounts && options.mounts.empty()) {
        return refused("--only-mounts without --mount serves nothing");
    }
    return options;
}

}  // namespace zav_shm::rtspd
