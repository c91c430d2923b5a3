// SPDX-License-Identifier: Apache-2.0
//
// How long a client waits for the center: it pairs its consumer, back and forth between two
// producers, whose relay is idle, serves one live consumer at 30 frames per second or at full
// rate, or has four absent consumers. A command waits for the cycle that the relay it is about is
// in, and for no other.

#include <sys/msg.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bench/bench_channel.h"
#include "bench/child_processes.h"
#include "bench/frame_processes.h"
#include "bench/monotonic_clock.h"
#include "bench/percentile.h"
#include "bench/private_namespaces.h"
#include "bench/shared_memory.h"
#include "bench/silence.h"
#include "bench/table.h"
#include "center/shm_center.h"
#include "control/control_protocol.h"
#include "ipc/zav_msg_q.h"

namespace {

using namespace zav_shm::bench;
namespace control = zav_shm::control;

constexpr int page_size = 65536;
constexpr int times = 200;

struct Scenario {
    const char* name;
    int live;               // consumers with a process, fed at frames_per_second
    int absent;             // paired consumers without a process
    int frames_per_second;  // 0: as fast as it goes
};

constexpr Scenario scenarios[] = {
    {"idle", 0, 0, 30},
    {"30 fps", 1, 0, 30},
    {"full rate", 1, 0, 0},
    {"4 absent", 0, 4, 30},
};

// Consumer number that the measuring client pairs; those below it are the scenario's.
constexpr int paired_consumer = consumers_max - 1;

void add_record(std::vector<_SHM_DIST_RECV_CONFIG_*>& list, int& count, const std::string& name) {
    auto record = std::make_unique<_SHM_DIST_RECV_CONFIG_>();
    name.copy(record->name, sizeof record->name - 1);
    record->channel = 1;
    record->stream = {0};
    list.push_back(record.release());
    ++count;
}

void fill(ZAV_SHM_CONFIG& config) {
    std::strcpy(config.root_path, "/dev/shm");
    std::strcpy(config.shm_path, "shm");
    std::strcpy(config.sem_path, "sem");
    config.stream_configs.push_back(
        std::make_unique<_SHM_STREAM_CONFIG_>(_SHM_STREAM_CONFIG_{0, page_size}).release());
    config.stream_num = 1;
    add_record(config.distributor_configs, config.distributor_num, producer_name());
    add_record(config.distributor_configs, config.distributor_num, "OTHER");
    for (int i = 0; i < consumers_max; ++i) {
        add_record(config.receiver_configs, config.receiver_num, consumer_name(i));
    }
}

int run_center(Run_Control& control) {
    silence_standard_output();
    ZAV_SHM_CONFIG config;
    ZAV_SHM_CONFIG* const mine = &config;
    fill(config);
    ZAV_SHM_CONFIG* given = mine;
    ZAV_SHM_CENTER center(given);
    sem_post(&control.ready);
    sem_wait(&control.relay_quit);
    center.shutdown();
    return EXIT_SUCCESS;
}

/// The client's side of an exchange, with a queue pair of its own.
class Client {
public:
    Client() {
        requests_.open(control::request_project);
        replies_.open(control::reply_project);
    }

    bool exchange(const Json::Value& request) const {
        zav_shm::Control_Record record{};
        record.mtype = control::request_type;
        const std::string text = control::written_on_one_line(request);
        text.copy(record.text, sizeof record.text - 1);
        if (msgsnd(requests_.id, &record, sizeof record.text, 0) != 0) {
            return false;
        }
        record = {};
        return msgrcv(replies_.id, &record, sizeof record.text, getpid(), 0) > 0 &&
               control::Fields(record.text).text("status") == "success";
    }

    bool pair(int consumer, const std::string& producer) const {
        Json::Value request;
        request["command"] = "pair_src";
        request["type"] = "Receiver";
        request["name"] = consumer_name(consumer);
        request["pair_name"] = producer;
        request["channel"] = 0;
        request["stream"] = 0;
        request["pid"] = getpid();
        return exchange(request);
    }

private:
    ZAV_MSG_Q requests_;
    ZAV_MSG_Q replies_;
};

// The measured consumer is absent, too, and stays in the list of the producer for one command.
bool measure(const Client& client, std::vector<std::int64_t>& waits_ns) {
    for (int i = 0; i < times; ++i) {
        sleep_seconds(0.005 + 0.00017 * (i % 200));  // at every moment of a cycle
        const std::int64_t begin_ns = monotonic_ns();
        if (!client.pair(paired_consumer, producer_name())) {
            return false;
        }
        waits_ns.push_back(monotonic_ns() - begin_ns);
        if (!client.pair(paired_consumer, "OTHER")) {
            return false;
        }
    }
    return true;
}

std::string milliseconds(const std::vector<std::int64_t>& waits_ns, double percent) {
    return fixed(static_cast<double>(percentile(waits_ns, percent)) / 1e6, 2);
}

bool start_clients(const Scenario& scenario, Child_Processes& children, const Client& client,
                   Run_Control& run) {
    for (int i = 0; i < scenario.live + scenario.absent; ++i) {
        if (!client.pair(i, producer_name())) {
            return false;
        }
    }
    for (int i = 0; i < scenario.live; ++i) {
        children.start("consumer", [&run, i] {
            return consume_frames(i, page_size, std::span<std::int64_t>(), run);
        });
    }
    if (scenario.live > 0) {
        children.start("producer",
                       [&] { return produce_frames(page_size, scenario.frames_per_second, run); });
        return run.wait_until_ready(scenario.live + 1);
    }
    return true;
}

bool measure_pairing(const Table& table, const Scenario& scenario) {
    Shared_Memory<Run_Control> run;
    Child_Processes children;
    children.start("center", [&] { return run_center(*run); });
    if (!run->wait_until_ready(1)) {
        return false;
    }
    const Client client;
    std::vector<std::int64_t> waits_ns;
    const bool measured =
        start_clients(scenario, children, client, *run) && measure(client, waits_ns);
    run->producer_stopping = 1;
    sleep_seconds(0.1);
    run->consumers_stopping = 1;
    sem_post(&run->relay_quit);
    const bool ended = children.wait_all();
    table.row({scenario.name, milliseconds(waits_ns, 50), milliseconds(waits_ns, 99),
               milliseconds(waits_ns, 100)});
    return measured && ended;
}

}  // namespace

// What a failed allocation throws may well end this program.
int main() {  // NOLINT(bugprone-exception-escape)
    if (!enter_private_namespaces() || !prepare_names()) {
        return EXIT_FAILURE;
    }
    std::printf("Reply to \"pair_src\", %d times, milliseconds\n", times);
    const Table table({{"relay", 10}, {"p50", 8}, {"p99", 8}, {"max", 8}}, false);
    for (const Scenario& scenario : scenarios) {
        if (!measure_pairing(table, scenario)) {
            std::fprintf(stderr, "\"%s\" failed\n", scenario.name);
            return EXIT_FAILURE;
        }
    }
    return EXIT_SUCCESS;
}
