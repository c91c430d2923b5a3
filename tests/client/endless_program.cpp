// SPDX-License-Identifier: Apache-2.0
//
// zav_test_endless CALL CHANNEL STREAM [PRODUCER]
//
// Calls what does not return by design. Prints "returned" when it does.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "client/shm_client_distributor.h"
#include "client/shm_client_receiver.h"

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc < 4) {
        std::fputs("usage: zav_test_endless CALL CHANNEL STREAM [PRODUCER]\n", stderr);
        return EXIT_FAILURE;
    }
    const std::string call = argv[1];
    const int channel = std::atoi(argv[2]);
    const int stream = std::atoi(argv[3]);
    const std::string name = "PLAYER";
    if (call == "query") {
        const ZAV_SHM_CLIENT_DISTRIBUTOR client("CAM_LOOP", false);
    } else if (call == "get_distributor") {
        ZAV_SHM_CLIENT_DISTRIBUTOR("CAM_LOOP", false).get_distributor(channel, stream);
    } else {
        const auto client = argc > 4 ? std::make_unique<ZAV_SHM_CLIENT_RECEIVER>(name, argv[4])
                                     : std::make_unique<ZAV_SHM_CLIENT_RECEIVER>(name);
        if (call == "is_register") {
            client->is_register(channel, stream);
        } else {
            client->get_receiver(channel, stream);
        }
    }
    std::puts("returned");
    return EXIT_SUCCESS;
}
