/* SPDX-License-Identifier: Apache-2.0
 *
 * One producer, the relay and two consumers: the six flags of a pairing, waits that end too early,
 * deaths of any role between any two steps, a center that comes back with new semaphores, and
 * consumers taken for idle. `flows`: the watched consumer gets new frames for ever.
 *
 *   (default)      One consumer is watched. The other is no process: whatever the relay asks it,
 *                  any answer may come, as from one that is slow, stopped or dead, or that comes
 *                  and goes.
 *                  There is weather: until it is calm every wait may end early and everybody may
 *                  die, as often as they like. It becomes calm at any time, or never.
 *   -DDEATHS=n     Two consumers that are processes; -DWATCHED=0 or 1 is watched, in the order in
 *                  which the relay asks. It is calm but for up to n deaths.
 *
 * Calm means: nobody dies; the relay's waits for a consumer that is a process last long enough for
 * what that one is just about to do; and the producer does not offer a frame before such a consumer
 * could read the one before. All other waits may still end early.
 *
 * A flag is a semaphore that is posted only at 0 and has one poster, so that a post is one step. No
 * wait fails while its flag is up.
 *
 * The slot is in one piece here: a copy is whole when a frame was complete as it began and no write
 * has begun since. That the commit rule finds that out is what slot.pml shows.
 *
 * What can be changed, to see that it matters:
 *
 *   -DPOSTS_ALONE     a consumer trusts the posts, and accepts every copy
 *   -DNO_READ_LIMIT   the relay waits for "read done" until it comes
 *   -DNO_RETURN       a producer keeps its semaphores when the center has made new ones
 *   -DOLD_PRESENCE    a producer that begins takes a presence that was posted before
 *   -DHASTY           the producer offers the next frame at once. Instead, its waits last until
 *                     the relay is done with a frame, and the relay's lasts for a frame that is
 *                     about to be posted.
 */

#ifdef DEATHS
#define CONSUMERS 2
#define BOTH(what) what(0); what(1)
#define EITHER(condition) (condition(0) || condition(1))
#else
#define CONSUMERS 1
#define BOTH(what) what(0)
#define EITHER(condition) condition(0)
#endif

#ifndef WATCHED
#define WATCHED 0
#endif

/* ---- the flags ---- */

bit written, slot_free, consumer_present;                       /* the producer's side */
bit ready[CONSUMERS], read_done[CONSUMERS], present[CONSUMERS]; /* the consumers' sides */

/* ---- who holds which semaphores ---- */

bit connected;            /* the producer: those of the center that runs */
bit served[CONSUMERS];    /* a consumer: the same, and it is in the relay's list */
bit registers[CONSUMERS]; /* it asks to be, and waits for the answer */

/* ---- the slot ---- */

bit complete;           /* its commit field is not 0 */
bit touched[CONSUMERS]; /* a write has begun since the consumer began to copy */
bit is_new[CONSUMERS];  /* the consumer has not accepted the latest frame */
bit got;                /* for a moment: the watched one accepts a frame that it did not have */

/* ---- weather ---- */

#define me _pid /* in a consumer: they are the first processes */
#define PRODUCER 2
#define RELAY 3
chan death = [0] of { byte }; /* 0 and 1 are consumers */

bit waits[CONSUMERS]; /* for a frame, and announces itself again whenever its presence was taken */
bit reads[CONSUMERS]; /* from the taking of "ready" to "read done" */
bit posts;            /* the producer: from its latest look at "slot free" to "written" */
bit passes;           /* the relay: from the taking of "written" to "slot free" */

#ifdef DEATHS
#define calm true
#else
bit calm;
#endif

#define WILL_ANNOUNCE(c) (calm && served[c] && waits[c])
#define WILL_READ(c) (calm && served[c] && (reads[c] || (waits[c] && ready[c])))
#define WILL_BE_READ (connected && (EITHER(WILL_READ) || (calm && written)))
#ifdef HASTY
#define TOO_SOON false
#define STILL_WAITS (calm && connected && (written || passes))
#define WILL_POST (calm && connected && posts)
#else
#define TOO_SOON WILL_BE_READ
#define STILL_WAITS false
#define WILL_POST false
#endif

/* ---- the consumers ---- */

inline announce() {
    d_step {
        if
        :: served[me] -> present[me] = 1
        :: else
        fi
    }
}

inline accept_if_whole() {
    d_step {
#ifdef POSTS_ALONE
        assert(whole && !touched[me]);
#endif
        whole = whole && !touched[me];
        touched[me] = 0;
        if
        :: whole && is_new[me] -> is_new[me] = 0; got = got || me == WATCHED
        :: else
        fi
    }
}

/* A copy that is not whole is tried once more. */
inline take_frame() {
    do
    ::  d_step { whole = complete; touched[me] = 0 };
        accept_if_whole();
        if
        :: d_step { whole || again -> whole = 0; again = 0; got = got && me != WATCHED };
            break
        :: d_step { !whole && !again -> again = 1 }
        fi
    od
}

/* A relay that has asked for the presence again is done with this frame. */
inline post_read_done() {
    d_step {
        if
        :: served[me] && present[me] -> read_done[me] = 1
        :: else
        fi;
        reads[me] = 0;
        waits[me] = 1
    }
}

active [CONSUMERS] proctype consumer() {
    bit whole, again;
born:
    {
        d_step { registers[me] = 1; waits[me] = 0 };
        d_step { !registers[me] -> waits[me] = 1 };
        do
        :: d_step { served[me] && !ready[me] && !present[me] -> present[me] = 1 }
        :: !served[me] -> goto born /* unnoticed for too long */
        :: d_step { served[me] && ready[me] -> ready[me] = 0; waits[me] = 0; reads[me] = 1 };
            announce(); /* for the next frame, already */
            take_frame();
            post_read_done()
        od
    } unless {
        death?eval(me)
    };
    d_step { waits[me] = 0; reads[me] = 0; whole = 0; again = 0 };
    goto born
}

/* ---- death ---- */

active proctype weather() {
#ifdef DEATHS
    byte deaths;
    do
    :: deaths < DEATHS -> deaths++;
        if
        :: death!0
        :: death!1
        :: death!PRODUCER
        :: death!RELAY
        fi
    :: break
    od
#else
    do
    :: death!0
    :: death!PRODUCER
    :: death!RELAY
    od unless { calm }
#endif
}

/* ---- the producer ---- */

inline disturb(c) {
    touched[c] = 1
}

inline renew(c) {
    is_new[c] = 1
}

active proctype producer() {
born:
    {
        connected = 1;
anew:   /* The relay may be at a frame that was posted before. A presence that is up may be from
         * before that frame: only one that is posted from here on is from behind it. */
        if
        :: d_step {
                connected && !written ->
#ifndef OLD_PRESENCE
                consumer_present = 0
#else
                skip
#endif
            }
#ifndef NO_RETURN
        :: d_step { !connected -> connected = 1 };
            goto anew
#endif
        fi;
offer:  /* A frame that nobody is present for is dropped; the next one's wait goes on. */
        if
        :: d_step { connected && consumer_present && !TOO_SOON -> consumer_present = 0 }
#ifndef NO_RETURN
        :: d_step { !connected -> connected = 1 };
            goto anew
#endif
        fi;
        d_step { complete = 0; BOTH(disturb) };
        d_step { complete = 1; BOTH(renew) };
        d_step { slot_free = slot_free && !connected; posts = 1 }; /* left by an earlier frame */
        d_step {
            if
            :: connected -> written = 1
            :: else
            fi;
            posts = 0
        };
        if
        :: d_step { connected && slot_free -> slot_free = 0 };
            goto offer
        :: !(connected && slot_free) && !STILL_WAITS
        fi;
        if /* once more, before the next frame */
        :: d_step { connected && slot_free -> slot_free = 0 };
            goto offer
        :: !(connected && slot_free) && !STILL_WAITS ->
            goto anew
        fi
    } unless {
        death?PRODUCER
    };
    posts = 0;
    goto born
}

/* ---- the relay ---- */

inline clear_flags(c) {
    ready[c] = 0;
    read_done[c] = 0;
    present[c] = 0
}

/* Between two cycles: who registers, and who is taken for idle. */
inline mind_list(c) {
    if
    :: d_step { registers[c] -> clear_flags(c); served[c] = 1; registers[c] = 0 }
#ifndef DEATHS
    :: d_step { !registers[c] && served[c] && !calm -> clear_flags(c); served[c] = 0 }
#endif
    :: !registers[c]
    fi
}

inline ask_presence(c) {
    if
    :: d_step { present[c] -> present[c] = 0; live[c] = 1; any = 1 }
    :: !present[c] && !WILL_ANNOUNCE(c)
#ifndef DEATHS
    :: d_step { !present[c] && !WILL_ANNOUNCE(c) -> any = 1 } /* the other is */
#endif
    fi
}

inline collect_late_read(c) {
    if
    :: d_step { read_done[c] -> read_done[c] = 0; slot_free = 1 }
    :: !read_done[c]
#ifndef DEATHS
    :: d_step { !read_done[c] -> slot_free = 1 }
#endif
    fi
}

inline post_ready(c) {
    ready[c] = ready[c] || live[c]
}

inline wait_until_read(c) {
    if
    :: !live[c]
    :: d_step { live[c] && read_done[c] -> read_done[c] = 0; live[c] = 0 }
#ifndef NO_READ_LIMIT
    :: d_step { live[c] && !read_done[c] && !WILL_READ(c) -> live[c] = 0 }
#endif
    fi
}

inline forget_live(c) {
    live[c] = 0
}

inline replace_semaphores(c) {
    clear_flags(c);
    served[c] = 0;
    live[c] = 0
}

active proctype relay() {
    bit live[CONSUMERS];
    bit any; /* of them is live */
born:
    {
        do
        ::  BOTH(mind_list);
            BOTH(ask_presence);
            if
            :: !any ->
                BOTH(collect_late_read)
            :: d_step { any -> any = 0; consumer_present = 1 };
                if
                :: d_step { !written && !WILL_POST -> BOTH(forget_live) }
                :: d_step { written -> written = 0; passes = 1; BOTH(post_ready) };
                    BOTH(wait_until_read);
                    d_step { slot_free = 1; passes = 0 }
                fi
            fi
#ifndef DEATHS
        :: d_step { !calm -> calm = 1 } /* no earlier: until then there is what calm allows, too */
#endif
        od
    } unless {
        death?RELAY
    };
    d_step {
        written = 0;
        slot_free = 0;
        consumer_present = 0;
        connected = 0;
        any = 0;
        passes = 0;
        BOTH(replace_semaphores)
    };
    goto born
}

#ifdef POSTS_ALONE
/* The assertion is looked for, and nothing else. */
#elif defined(DEATHS)
ltl flows { [] <> got }
#else
ltl flows { [] (calm -> <> got) }
#endif
