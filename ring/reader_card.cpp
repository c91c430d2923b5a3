// SPDX-License-Identifier: Apache-2.0
#include "ring/reader_card.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "ipc/file_lock.h"
#include "ipc/random_epoch.h"
#include "ipc/shared_memory_folder.h"
#include "ring/ring_reader.h"
#include "ring/steady_word.h"

namespace zav_shm {

namespace {

constexpr std::string_view ending = ".reader";
constexpr std::size_t digits = 16;

bool is_card_name(const std::string& name) {
    return name.size() == digits + ending.size() && name.ends_with(ending);
}

}  // namespace

// ---- the own card ----

// By chance and not by process id: the same id may live in two PID namespaces.
std::string Own_Card::new_name() {
    std::array<char, digits + 1> text{};
    std::snprintf(text.data(), text.size(), "%016" PRIx64, random_epoch());
    return text.data() + std::string(ending);
}

Own_Card::Own_Card(const std::string& folder, const std::string& name, const Reader_Card& first)
    : name_(name), path_(folder + "/" + name) {
    if (!make_file(path_, first)) {
        private_ = std::make_unique<Reader_Card>(first);
        card_ = private_.get();
    }
}

Own_Card::~Own_Card() { leave_file(); }

void Own_Card::leave_file() {
    if (!private_) {
        unlink(path_.c_str());
        munmap(card_, sizeof *card_);
    }
}

bool Own_Card::is_in(const std::string& folder) const {
    struct stat own {};
    struct stat named {};
    return file_.is_open() && fstat(file_.get(), &own) == 0 &&
           lstat((folder + "/" + name_).c_str(), &named) == 0 && own.st_dev == named.st_dev &&
           own.st_ino == named.st_ino;
}

void Own_Card::move_into(const std::string& folder) {
    const std::string path = folder + "/" + name_;
    const std::string former_path = path_;
    Reader_Card* const former = card_;
    if (!make_file(path, *former)) {
        return;
    }
    if (!private_) {
        if (former_path != path) {
            unlink(former_path.c_str());
        }
        munmap(former, sizeof *former);
    }
    private_.reset();
    path_ = path;
}

// Locked before it has its name: a card without a lock is a dead reader's.
bool Own_Card::make_file(const std::string& path, const Reader_Card& first) {
    const std::string fresh = path + ".new";
    struct stat folder {};
    if (stat(path.substr(0, path.rfind('/')).c_str(), &folder) != 0) {
        return false;
    }
    Descriptor file(open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.is_open()) {
        return false;
    }
    void* base = MAP_FAILED;
    if (posix_fallocate(file.get(), 0, sizeof first) == 0 && take_file_lock(file.get()) &&
        fchmod(file.get(), readable_file_mode(folder.st_mode)) == 0) {
        base = mmap(nullptr, sizeof first, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    }
    if (base != MAP_FAILED) {
        std::memcpy(base, &first, sizeof first);
        if (rename(fresh.c_str(), path.c_str()) == 0) {
            file_ = std::move(file);
            card_ = static_cast<Reader_Card*>(base);
            return true;
        }
        munmap(base, sizeof first);
    }
    unlink(fresh.c_str());
    return false;
}

// The epoch is 0 while the cursor is of another ring.
void Own_Card::move_to(const Ring_Memory& ring, std::uint64_t number) {
    const auto low = static_cast<std::uint32_t>(number);
    const std::uint64_t epoch = ring.facts().epoch;
    const bool is_other = card_->epoch != epoch;
    if (is_other) {
        __atomic_store_n(&card_->epoch, 0, __ATOMIC_RELEASE);
    }
    __atomic_store_n(&card_->cursor, low, __ATOMIC_RELEASE);
    if (is_other) {
        __atomic_store_n(&card_->epoch, epoch, __ATOMIC_RELEASE);
    }
    wake_waiting_writer(ring, low);
}

void Own_Card::set_producer(const std::string& producer) {
    constexpr std::size_t length_max = sizeof card_->producer - 1;
    std::memset(card_->producer, 0, sizeof card_->producer);
    std::memcpy(card_->producer, producer.data(), std::min(producer.size(), length_max));
}

// ---- anybody's ----

Seen_Card::Seen_Card(const std::string& folder, const std::string& name)
    : name_(name),
      file_(open((folder + "/" + name).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK)) {}

bool Seen_Card::is_alive() const {
    const File_Lock_State state = look_at_file_lock(file_.get());
    return file_.is_open() &&
           (state == File_Lock_State::exclusive || state == File_Lock_State::unknown);
}

std::optional<Reader_Card> Seen_Card::read() const {
    Reader_Card card;
    const Reader_Card expected;
    if (pread(file_.get(), &card, sizeof card, 0) != static_cast<ssize_t>(sizeof card) ||
        std::memcmp(card.magic, expected.magic, sizeof card.magic) != 0 ||
        card.version != expected.version) {
        return std::nullopt;
    }
    card.consumer[sizeof card.consumer - 1] = '\0';
    card.producer[sizeof card.producer - 1] = '\0';
    return card;
}

// The epoch behind the cursor and before it: a cursor of another ring is not taken for this one's.
std::optional<Seen_Card::Position> Seen_Card::position() const {
    const auto load = [this](auto& field, std::size_t offset) {
        return pread(file_.get(), &field, sizeof field, static_cast<off_t>(offset)) ==
               static_cast<ssize_t>(sizeof field);
    };
    std::uint64_t before = 0;
    std::uint64_t after = 0;
    const bool is_there = load(before, offsetof(Reader_Card, epoch));
    const auto cursor = steady_word([&load]() -> std::optional<std::uint32_t> {
        std::uint32_t read = 0;
        return load(read, offsetof(Reader_Card, cursor)) ? std::optional(read) : std::nullopt;
    });
    if (!is_there || !cursor || !load(after, offsetof(Reader_Card, epoch))) {
        return std::nullopt;
    }
    return Position{before == after ? after : 0, *cursor};
}

std::vector<std::string> card_names(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code error;
    std::filesystem::directory_iterator file(folder, error);
    for (; !error && file != std::filesystem::directory_iterator(); file.increment(error)) {
        const std::string name = file->path().filename();
        if (is_card_name(name)) {
            names.push_back(name);
        }
    }
    return names;
}

}  // namespace zav_shm
