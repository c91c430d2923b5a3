// SPDX-License-Identifier: Apache-2.0
#include "apps/tool/standard_output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace zav_shm::tool {

namespace {

constexpr const char* nowhere = "/dev/null";
constexpr int first_free_descriptor = 3;

}  // namespace

// Open the wrong way round, so that whoever reads or writes is told that nothing is there.
void occupy_standard_descriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) < 0) {
            open(nowhere, descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);  // the lowest free one
        }
    }
}

Standard_Output::Standard_Output(bool quiet) {
    std::fflush(stdout);
    descriptor_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, first_free_descriptor);
    if (!quiet) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        // A line at a time, so that it stands among the program's own ones in the right place.
        std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
        return;
    }
    const int null = open(nowhere, O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }
}

Standard_Output::~Standard_Output() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

bool Standard_Output::is_terminal() const { return isatty(descriptor_) == 1; }

bool Standard_Output::write(const std::string& text) const {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(descriptor_, text.data() + done, text.size() - done);
        if (written < 0 && errno == EAGAIN) {  // somebody else who has the pipe wants it so
            pollfd waited{descriptor_, POLLOUT, 0};
            poll(&waited, 1, -1);
        } else if (written < 0 && errno != EINTR) {
            return false;
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
    return true;
}

Exit_Status write_to(const Standard_Output& output, const std::string& text) {
    if (output.write(text)) {
        return Exit_Status::ok;
    }
    return report({Exit_Status::input_output,
                   std::string("cannot write to standard output: ") + std::strerror(errno)});
}

}  // namespace zav_shm::tool
