// SPDX-License-Identifier: Apache-2.0
#include "frame/link/link_keeper.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <set>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "control/center_page.h"
#include "ipc/annotated_mutex.h"
#include "ipc/descriptor.h"

using namespace std::chrono_literals;

namespace zav_shm {

namespace {

using Clock = Link_Keeper::Clock;
using Ends = std::vector<std::shared_ptr<Link_Keeper::End>>;

// What one end may take for one exchange; a center that lives answers within some relay cycles.
constexpr auto exchange_limit = 200ms;

// The longest sleep, and the longest without a watch.
constexpr auto longest_sleep = std::chrono::milliseconds(1h);
constexpr auto sleep_without_watch = 500ms;

// How long the last end waits for the thread to be gone, unless it is in an exchange.
constexpr auto leave_limit = 100ms;

/// Sees the center's page being replaced, removed or made. The page itself is watched while there
/// is one, since the files beside it change every second.
class Page_Watch {
public:
    /// Watches the pages of these folders. Does nothing while they are the same and nothing has
    /// happened: to close an inotify descriptor takes the kernel some time.
    void watch(const std::set<std::string>& folders) {
        if (events_.is_open() && !has_events_ && folders == folders_) {
            return;
        }
        events_ = Descriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        folders_ = folders;
        has_events_ = false;
        for (const std::string& folder : folders) {
            add(folder);
        }
    }
    void end() { events_ = Descriptor(); }

    bool works() const { return events_.is_open(); }
    int descriptor() const { return events_.get(); }
    void note_events() { has_events_ = true; }

private:
    static constexpr std::uint32_t page_gone = IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
    static constexpr std::uint32_t name_given = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF;

    void add(const std::string& folder) const {
        const std::string page = center_page_path(folder);
        if (inotify_add_watch(events_.get(), page.c_str(), page_gone) >= 0) {
            return;
        }
        for (std::string above = page; above.size() > 1;) {
            above.resize(std::max<std::size_t>(above.rfind('/'), 1));
            if (inotify_add_watch(events_.get(), above.c_str(), name_given) >= 0) {
                return;
            }
        }
    }

    Descriptor events_;
    std::set<std::string> folders_;
    bool has_events_ = false;
};

/// What thread and callers share. One for each process: a forked child makes another.
struct Shared {
    const pid_t pid = getpid();

    Mutex mutex;
    std::condition_variable changed;  // notified when the thread has gone
    Ends ends ZAV_SHM_GUARDED_BY(mutex);
    Descriptor wakes ZAV_SHM_GUARDED_BY(mutex);  // eventfd, as long as there is a thread
    bool has_thread ZAV_SHM_GUARDED_BY(mutex) = false;

    void wake() const ZAV_SHM_REQUIRES(mutex) { eventfd_write(wakes.get(), 1); }
};

// Never destroyed: publishers and subscribers of static storage leave after everything else.
Mutex& instance_mutex() {
    static auto* const mutex = new Mutex;  // NOLINT(cppcoreguidelines-owning-memory)
    return *mutex;
}

Shared& shared() {
    static Shared* instance = nullptr;
    const Guard guard(instance_mutex());
    if (instance == nullptr || instance->pid != getpid()) {
        instance = new Shared;  // NOLINT(cppcoreguidelines-owning-memory)
    }
    return *instance;
}

void watch_pages(Page_Watch& watch, const Ends& ends) {
    std::set<std::string> folders;
    for (const auto& end : ends) {
        folders.insert(end->watched_folder());
    }
    watch.watch(folders);
}

void sleep_until_something(int wakes, Page_Watch& watch, Clock::time_point next) {
    const auto longest =
        watch.works() ? longest_sleep : std::chrono::milliseconds(sleep_without_watch);
    const auto left = std::clamp<std::chrono::milliseconds>(
        next == Clock::time_point::max()
            ? longest
            : std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()),
        0ms, longest);
    std::array<pollfd, 2> waited{{{wakes, POLLIN, 0}, {watch.descriptor(), POLLIN, 0}}};
    poll(waited.data(), waited.size(), static_cast<int>(left.count()));
    if (waited[0].revents != 0) {
        eventfd_t count = 0;
        eventfd_read(wakes, &count);
    }
    if (waited[1].revents != 0) {
        watch.note_events();
    }
}

// The watch is made before the ends look, so that what happens meanwhile is seen.
void run(Shared& with) {
    pthread_setname_np(pthread_self(), "zav_link");
    Page_Watch watch;
    for (;;) {
        Ends ends;
        int wakes = -1;
        {
            const Guard guard(with.mutex);
            if (with.ends.empty()) {
                watch.end();
                with.wakes = Descriptor();
                with.has_thread = false;
                with.changed.notify_all();
                return;
            }
            ends = with.ends;
            wakes = with.wakes.get();
        }
        watch_pages(watch, ends);
        Clock::time_point next = Clock::time_point::max();
        for (const auto& end : ends) {
            {
                const Guard guard(with.mutex);
                if (std::find(with.ends.begin(), with.ends.end(), end) == with.ends.end()) {
                    continue;
                }
            }
            next = std::min(next, end->keep(exchange_limit));
        }
        ends.clear();  // who has left is not kept
        sleep_until_something(wakes, watch, next);
    }
}

}  // namespace

bool Link_Keeper::begin(const std::shared_ptr<End>& end) {
    Shared& with = shared();
    const Guard guard(with.mutex);
    with.ends.push_back(end);
    if (!with.has_thread) {
        with.wakes = Descriptor(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
        try {
            std::thread([&with] { run(with); }).detach();
        } catch (const std::system_error&) {
            with.ends.pop_back();
            with.wakes = Descriptor();
            return false;
        }
        with.has_thread = true;
    }
    with.wake();
    return true;
}

void Link_Keeper::end(const std::shared_ptr<End>& end) {
    Shared& with = shared();
    Waiting_Guard guard(with.mutex);
    std::erase(with.ends, end);
    with.wake();
    if (with.ends.empty()) {
        with.changed.wait_for(guard.lock(), leave_limit,
                              [&with]() ZAV_SHM_REQUIRES(with.mutex) { return !with.has_thread; });
    }
}

void Link_Keeper::wake() {
    Shared& with = shared();
    const Guard guard(with.mutex);
    with.wake();
}

}  // namespace zav_shm
