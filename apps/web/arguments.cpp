// SPDX-License-Identifier: Apache-2.0
//
// The only file that includes the command-line library, which takes long to compile.
#include "apps/web/arguments.h"

#include <CLI/CLI.hpp>

#include "apps/log/log_level_option.h"
#include "apps/web/access_check.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm::web {

namespace {

constexpr unsigned viewers_max = 1000;

constexpr const char* description =
    "Serves a web page with the streams of this host and a live picture of each that is H.264.";

constexpr const char* statuses =
    "Exit status: 0 ended by SIGINT or SIGTERM, 1 cannot listen or read the token, 2 usage.";

std::string folder_mistake(const std::string& text) {
    return is_file_name(text) ? "" : "'" + text + "' is not the name of a folder below /dev/shm";
}

void add_options(CLI::App& app, Options& options) {
    app.set_version_flag("--version", "zav-shm-web " ZAV_SHM_VERSION, "Print the version");
    app.add_option("--address", options.address,
                   "IPv4 or IPv6 address to listen on; one that is not loopback needs --token-file")
        ->type_name("ADDRESS")
        ->capture_default_str();
    app.add_option("--port", options.port, "TCP port; 0: a free one, which is printed")
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--token-file", options.token_file,
                   "File whose first line browsers have to give once: http://HOST:PORT/?token=...")
        ->type_name("FILE");
    app.add_option("--viewers", options.viewers, "Connections at a time")
        ->type_name("N")
        ->check(CLI::Range(1U, viewers_max))
        ->capture_default_str();
    app.add_option("--viewers-per-address", options.viewers_per_address,
                   "Connections at a time from one address")
        ->type_name("N")
        ->check(CLI::Range(1U, viewers_max))
        ->capture_default_str();
    app.add_option("--folder", options.folder, "Folder of the segments below /dev/shm")
        ->type_name("NAME")
        ->check(CLI::Validator(folder_mistake, ""))
        ->capture_default_str();
    add_log_level(app, options.log_level);
}

int complain(const std::string& text) {
    write_log(Log_Level::error, text);
    return static_cast<int>(Exit_Status::usage);
}

}  // namespace

std::variant<Options, int> read_arguments(int argc, char** argv) {
    Options options;
    CLI::App app(description, "zav-shm-web");
    app.footer(statuses);
    add_options(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& done) {
        return app.exit(done);
    } catch (const CLI::ParseError& error) {
        return complain(std::string(error.what()) + "; zav-shm-web --help lists the options");
    }
    if (!is_loopback(options.address) && options.token_file.empty()) {
        return complain("--address " + options.address +
                        " is open to other hosts, and needs --token-file");
    }
    return options;
}

}  // namespace zav_shm::web
