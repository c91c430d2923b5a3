// SPDX-License-Identifier: Apache-2.0
//
// Publishers and readers as processes, stopped and killed.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/threads.h"
#include "tool/tool_process.h"
#include "watched_frames.h"

using namespace std::chrono_literals;

namespace {

using namespace zav_shm::watch;
using watched::stream_of;

std::string command_of(pid_t pid) {
    std::string command;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), command);
    return command;
}

class Reader_Process : public Tool {
protected:
    Reader_Process() { leaves_cards = true; }

    void SetUp() override {
        Tool::SetUp();
        ASSERT_TRUE(start_center());
        publisher_.emplace(
            start({"publish", "--synthetic", "--name", "CAM_LOOP", "--fps", "50", "--size", "1000",
                   "--key-interval", "10", "--history", "200000", "--quiet"}));
        reader_.emplace(
            start({"record", "--tap", "--pair", "CAM_LOOP", "-o", "/dev/null", "--quiet"}));
        ASSERT_TRUE(becomes_true([this] { return consumer().counters.frames > 10; }));
    }

    Consumer consumer() {
        stream_ = stream_of(collector_.look(), "CAM_LOOP");
        return stream_.consumers.empty() ? Consumer{} : stream_.consumers.front();
    }

    bool reader_becomes(Consumer::State state, std::chrono::milliseconds limit = 10s) {
        return becomes_true([&] { return consumer().state == state; }, limit);
    }

    // "voluntary_ctxt_switches" of all threads of the publisher.
    long switches() const {
        long sum = 0;
        for (const auto& task : std::filesystem::directory_iterator(
                 "/proc/" + std::to_string(publisher_->pid()) + "/task")) {
            std::ifstream status(task.path() / "status");
            for (std::string line; std::getline(status, line);) {
                if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
                    sum += std::stol(line.substr(line.find(':') + 1));
                }
            }
        }
        return sum;
    }

    void end() {
        for (auto* process : {&publisher_, &reader_}) {
            if (*process) {
                (*process)->signal(SIGCONT);
                (*process)->signal(SIGTERM);
                (*process)->status();
                process->reset();
            }
        }
    }

    Collector collector_{"shm"};
    Stream stream_;
    std::optional<Tool_Process> publisher_;
    std::optional<Tool_Process> reader_;
};

TEST_F(Reader_Process, has_its_name_and_its_rate) {
    std::this_thread::sleep_for(500ms);
    const Consumer consumer = this->consumer();
    EXPECT_EQ(consumer.kind, Consumer::Kind::tap);
    EXPECT_EQ(consumer.state, Consumer::State::reading);
    EXPECT_EQ(consumer.process.pid, static_cast<std::uint32_t>(reader_->pid()));
    EXPECT_EQ(consumer.process.command, command_of(reader_->pid()));
    ASSERT_TRUE(consumer.rates);
    EXPECT_GT(consumer.rates->frames, 5);
    EXPECT_EQ(stream_.writer.pid, static_cast<std::uint32_t>(publisher_->pid()));
    EXPECT_GT(stream_.rates->bits, 5 * 8000);
    EXPECT_EQ(stream_.key_interval_frames, 10U);
    end();
}

TEST_F(Reader_Process, that_is_stopped_shows_at_once_and_goes_on_reading) {
    reader_->signal(SIGSTOP);
    EXPECT_TRUE(reader_becomes(Consumer::State::stopped, 2s));
    EXPECT_TRUE(becomes_true([this] { return consumer().not_reading_ns > 700'000'000; }));
    EXPECT_GT(consumer().behind.value(), 5U);
    reader_->signal(SIGCONT);
    EXPECT_TRUE(reader_becomes(Consumer::State::reading));
    end();
}

TEST_F(Reader_Process, that_is_killed_is_gone) {
    reader_->signal(SIGKILL);
    EXPECT_TRUE(reader_becomes(Consumer::State::gone));
    EXPECT_NE(reader_->status(), 0);
    reader_.reset();
    publisher_->signal(SIGKILL);
    EXPECT_TRUE(becomes_true([this] {
        consumer();
        return stream_.state == Stream::State::left;
    }));
    EXPECT_NE(publisher_->status(), 0);
    EXPECT_GT(stream_.frames, 0U);
    publisher_.reset();
}

TEST_F(Reader_Process, costs_the_publisher_no_wakeup) {
    const auto in_a_second = [this](bool is_watched) {
        const long before = switches();
        const Stopwatch clock;
        while (clock.elapsed() < 1s) {
            std::this_thread::sleep_for(5ms);
            if (is_watched) {
                collector_.look();
            }
        }
        return switches() - before;
    };
    const long alone = in_a_second(false);
    const long watched = in_a_second(true);
    EXPECT_GT(alone, 20);
    EXPECT_LT(watched, alone + alone / 2) << "200 looks, and " << alone << " switches without";
    end();
}

}  // namespace
