// SPDX-License-Identifier: Apache-2.0
#include "frame/frame_supply.h"

#include <algorithm>
#include <utility>

#include "ipc/monotonic_clock.h"
#include "ipc/ring_place.h"
#include "ipc/shared_memory_folder.h"

namespace zav_shm {

namespace {

// How often it is looked, while frames come, whether somebody has paired this consumer anew. While
// none come, the center wakes it.
constexpr std::int64_t route_look_ns = 50 * ns_per_ms;

// How often it is looked whether a producer of the fixed interface has got a ring.
constexpr std::int64_t ring_look_ns = 1000 * ns_per_ms;

}  // namespace

Frame_Supply::Frame_Supply(Consumer consumer)
    : consumer_(std::move(consumer)), source_(consumer_.rules, consumer_.reading) {}

void Frame_Supply::begin(std::shared_ptr<Standing> standing, const std::string& producer,
                         const std::string& card_name, Own_Card& card) {
    standing_ = std::move(standing);
    card_name_ = card_name;
    card_ = &card;
    begun_ns_ = monotonic_ns();
    read_since_ns_ = 0;
    grant_ = 0;
    next_look_ns_ = next_choice_ns_ = 0;
    standing_changed_ = false;
    if (standing_) {
        follow_standing();
    } else {
        read_from(producer, begun_ns_);
    }
}

void Frame_Supply::end() {
    end_intake();
    source_.read_from_nothing(rings());
    producer_.clear();
    path_.clear();
    standing_.reset();
}

// ---- whose frames ----

void Frame_Supply::follow(std::int64_t now_ns) {
    if (!standing_) {
        return;
    }
    if (standing_changed_.exchange(false)) {
        follow_standing();
    }
    if (now_ns >= next_look_ns_) {
        next_look_ns_ = now_ns + route_look_ns;
        if (const auto route = route_.look()) {
            frames_are_in_ = route->source;
            next_choice_ns_ = 0;
            if (route->producer != producer_) {
                standing_->follow(route->producer);
                read_from(route->producer, now_ns);
            }
        }
        choose_slot_or_ring(now_ns);
    }
}

// A center has come, has granted another producer, or refuses.
void Frame_Supply::follow_standing() {
    if (standing_->state() == Frame_State::refused) {
        read_from({}, 0);
        return;
    }
    const auto grant = standing_->grant();
    std::string producer = standing_->producer();
    if (grant.number != grant_) {
        const auto route = route_.begin(
            route_path(rings(), consumer_.name, consumer_.channel, consumer_.stream), true);
        frames_are_in_ = route ? route->source : Route_Page::unknown;
        if (route && grant_ == 0 && route->producer != producer) {
            producer = route->producer;  // somebody was faster
            standing_->follow(producer);
        }
    } else if (grant_ == 0) {
        static_cast<void>(route_.begin(
            route_path(rings(), consumer_.name, consumer_.channel, consumer_.stream), false));
    }
    grant_ = grant.number;
    next_choice_ns_ = 0;
    const std::int64_t since_ns = std::max(begun_ns_, standing_->paired_ns());
    const bool is_paired_anew = std::exchange(read_since_ns_, since_ns) != since_ns;
    if (is_paired_anew || producer != producer_ || name_of_ring(producer) != path_) {
        read_from(producer, since_ns);
    }
    choose_slot_or_ring(monotonic_ns());
}

void Frame_Supply::read_from(const std::string& producer, std::int64_t since_ns) {
    end_intake();
    producer_ = producer;
    path_ = producer.empty() ? std::string() : name_of_ring(producer);
    card_->set_producer(producer);
    if (producer.empty()) {
        source_.read_from_nothing(rings());
    } else {
        source_.read_from(
            [rings = rings(), producer, channel = consumer_.channel, stream = consumer_.stream] {
                return zav_shm::ring_path(rings, producer, channel, stream);
            },
            since_ns);
    }
    if (std::string refused = refusal(); !refused.empty()) {
        tell(std::move(refused), true);
    }
}

// ---- ring or slot ----

// A ring that is written wins, whatever the center has heard of its producer. While this consumer
// is being taken out of the relay, nothing is begun that brings it in: what comes out last counts.
void Frame_Supply::choose_slot_or_ring(std::int64_t now_ns) {
    if (now_ns >= next_choice_ns_) {
        next_choice_ns_ = now_ns + ring_look_ns;
        const bool is_in_slot =
            frames_are_in_ == Route_Page::slot && !producer_.empty() && !is_ring_written(place());
        if (is_in_slot && !intake_) {
            if (standing_->is_renewed()) {
                begin_intake();
            }
        } else if (!is_in_slot && intake_) {
            read_from(producer_, read_since_ns_);
            standing_->renew();  // out of the relay, into which nobody is put any more
        }
    }
    if (intake_) {
        const auto ring = intake_->ring();
        if (ring && ring != source_.ring()) {
            source_.read_from(ring);
        }
    }
}

void Frame_Supply::begin_intake() {
    auto intake = Slot_Intake::begin({.name = consumer_.name,
                                      .producer = producer_,
                                      .channel = consumer_.channel,
                                      .stream = consumer_.stream,
                                      .card = card_name_,
                                      .ring = place()},
                                     consumer_.history_bytes, [this] { note_change(); });
    if (!intake) {
        tell("no thread can be had for the slot of " + producer_, false);
    }
    const Guard guard(mutex_);
    intake_ = std::move(intake);
}

void Frame_Supply::end_intake() {
    std::unique_ptr<Slot_Intake> intake;
    {
        const Guard guard(mutex_);
        if (!intake_) {
            return;
        }
        former_intakes_ += intake_->counters();
        intake = std::move(intake_);
        trouble_.clear();
        is_refused_ = false;
    }
    intake.reset();  // which may take a while
}

void Frame_Supply::tell(std::string trouble, bool refused) {
    const Guard guard(mutex_);
    trouble_ = std::move(trouble);
    is_refused_ = refused;
}

std::string Frame_Supply::rings() const {
    return rings_folder(standing_ ? standing_->folder() : consumer_.folder);
}

// The same for as long as this producer is read, wherever its ring lies.
std::string Frame_Supply::name_of_ring(const std::string& producer) const {
    return rings() + "/" + channel_file_name(producer, consumer_.channel, consumer_.stream);
}

std::string Frame_Supply::place() const {
    return zav_shm::ring_path(rings(), producer_, consumer_.channel, consumer_.stream);
}

// A center that refuses does not say what for.
std::string Frame_Supply::refusal() const {
    const bool is_refused = standing_ && standing_->state() == Frame_State::refused;
    const std::string producer = is_refused ? standing_->producer() : producer_;
    return reading_refusal(rings(), producer, consumer_.stream);
}

// ---- what is told ----

void Frame_Supply::tell_trouble() {
    if (intake_) {
        tell(intake_->trouble(), intake_->is_refused());
        return;
    }
    Ring_Problem problem = source_.problem();
    const bool may_be_refused = path_.empty() || problem;
    if (std::string refused = may_be_refused ? refusal() : std::string(); !refused.empty()) {
        tell(std::move(refused), true);
    } else if (path_.empty() || problem.kind == Ring_Problem::Kind::absent) {
        tell({}, false);  // no producer is no trouble
    } else {
        tell(std::move(problem.text), false);
    }
}

Intake_Counters Frame_Supply::slot_counters() const {
    const Guard guard(mutex_);
    Intake_Counters counters = former_intakes_;
    if (intake_) {
        counters += intake_->counters();
    }
    return counters;
}

std::string Frame_Supply::trouble() const {
    const Guard guard(mutex_);
    return trouble_;
}

bool Frame_Supply::is_refused() const {
    const Guard guard(mutex_);
    return is_refused_;
}

}  // namespace zav_shm
