// SPDX-License-Identifier: Apache-2.0
#include "bench/command_line.h"

#include <cstdio>
#include <cstdlib>

namespace zav_shm::bench {

std::optional<double> number_option(const char* option, const char* text, double least,
                                    double most) {
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(value >= least && value <= most)) {
        std::fprintf(stderr, "--%s is \"%s\", but has to be a number from %g to %.0f\n", option,
                     text, least, most);
        return {};
    }
    return value;
}

bool read_command_line(int argc, char** argv, std::span<const option> known, const char* usage,
                       const std::function<bool(int letter, const char* text)>& apply,
                       int& exit_status) {
    exit_status = EXIT_SUCCESS;
    for (int found = 0; (found = getopt_long(argc, argv, "", known.data(), nullptr)) != -1;) {
        if (found == 'h') {
            std::fputs(usage, stdout);
            return false;
        }
        if (!apply(found, optarg)) {
            exit_status = EXIT_FAILURE;
            return false;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "Unexpected argument \"%s\"\n%s", argv[optind], usage);
        exit_status = EXIT_FAILURE;
        return false;
    }
    return true;
}

}  // namespace zav_shm::bench
