/* SPDX-License-Identifier: Apache-2.0
 *
 * The history ring: a writer that waits for nobody, and a reader that it knows nothing of. The
 * writer may be killed at any step; a successor makes a file of its own, so that nothing of this
 * one changes then.
 *
 * There are three cells for bytes and two entries, or as CELLS and ENTRIES say. A record takes one
 * or two cells; the room for it is as large, or larger. So laps end with a skipped cell or without
 * one, and three records are at work: two that are there, and one that is written over them. A cell
 * holds the number of the record that its bytes are of; an entry has two halves, each with a number:
 * the record's place and its length.
 *
 * Memory is as weak as it may be: stores, and loads, are done in any order that no fence, release
 * or acquire forbids. The writer's are
 *
 *   tail (release) | fence | bytes and entry in any order | head (release) | wake
 *
 * and the reader's
 *
 *   head (acquire) | tail (acquire) | entry | fence, tail (acquire) | bytes | fence, tail
 *
 * where bytes and the last look at tail may come again, as often as it likes, for who reads in
 * place.
 *
 * Numbers are without end. What is written here counts from a base that moves on with each record:
 * NEXT is the one being written, and 0 stands for all that are too old to be in reach. They are
 * only compared when one of the two is in reach, so that nothing is lost by that.
 *
 * The assertions: what the reader finds in reach is right, entry and bytes; it never takes an
 * honest writer for a broken one; it sleeps through no record, unless the writer was killed between
 * storing the head and waking; and after the writer's death it comes to the end of what there is.
 *
 * What can be left out, to see that it is missed:
 *
 *   -DLATE_TAIL        tail is moved when the record has been written
 *   -DNO_WRITER_FENCE  nothing holds bytes and entry back until tail has been stored
 *   -DNO_READER_FENCE  nothing holds the look at tail back until the bytes have been loaded
 *   -DNO_ENTRY_FENCE   nothing holds it back until the entry has been loaded
 *   -DNO_LAST_LOOK     the reader believes its bytes without another look at tail
 *   -DOVERLAP          who is overwritten is decided by ranges of cells, oldest first. With two
 *                      entries the index rule hides that; with three, a record in the cell that was
 *                      skipped keeps tail back while the next one is overwritten.
 *   -DNO_INDEX_RULE    tail is not moved past a record whose entry is overwritten
 *   -DRELAXED_HEAD     head is stored without release
 *   -DRELAXED_TAIL     tail is stored without release: it may be seen before the head before it
 *   -DFRESH_HEAD       the reader sleeps while head is what it was just before, not when it looked
 *   -DEARLY_WAKE       the writer wakes before it stores the head
 */

#ifndef ENTRIES
#define ENTRIES 2
#endif
#ifndef CELLS
#define CELLS 3
#endif
#define NEXT (ENTRIES + 1)
#define ENTRY(number) ((next_entry + (number) + ENTRIES - NEXT + ENTRIES) % ENTRIES)

/* ---- the ring ---- */

byte head = NEXT - 1;
byte tail = NEXT;
byte cell[CELLS];
byte place_of[ENTRIES], place[ENTRIES];   /* one half of an entry: whose it is, and what it says */
byte length_of[ENTRIES], length[ENTRIES]; /* the other */
byte next_entry;                          /* of record NEXT */

/* ---- the writer's own ---- */

byte oldest = NEXT;
byte end;            /* the cell behind the newest record */
byte back[NEXT + 1]; /* how far before the end a record begins, skipped cells included */
byte held[NEXT + 1]; /* its length */

/* ---- the reader's own ---- */

byte cursor = NEXT;
byte seen_head, seen_tail, seen_place_of, seen_length_of, seen_place, seen_length;
bit wrong; /* a byte was loaded that is not of the record at the cursor */
bit sleeps;
bit has_woken = 1; /* the writer, for the newest record */

chan kill = [0] of { bit };

/* ---- numbers ---- */

inline grow_older(number) {
    if
    :: number > 0 -> number--
    :: else
    fi
}

inline next_number() {
    d_step {
        grow_older(head);
        grow_older(tail);
        grow_older(oldest);
        grow_older(cursor);
        grow_older(seen_head);
        grow_older(seen_tail);
        grow_older(seen_place_of);
        grow_older(seen_length_of);
        i = 0;
        do
        :: i < CELLS -> grow_older(cell[i]); i++
        :: else -> break
        od;
        i = 0;
        do
        :: i < ENTRIES -> grow_older(place_of[i]); grow_older(length_of[i]); i++
        :: else -> break
        od;
        i = 0;
        do
        :: i < NEXT -> back[i] = back[i + 1]; held[i] = held[i + 1]; i++
        :: else -> back[NEXT] = 0; held[NEXT] = 0; break
        od;
        i = 0;
        next_entry = (next_entry + 1) % ENTRIES
    }
}

/* ---- the writer ---- */

#define ITS_CELL(number) ((end + 2 * CELLS - back[number]) % CELLS)
#ifdef OVERLAP
#define IS_OVERWRITTEN(number) (ITS_CELL(number) < begin + room && \
    begin < ITS_CELL(number) + held[number])
#else
#define IS_OVERWRITTEN(number) (back[number] + skipped + room > CELLS)
#endif

/* A room that does not fit before the end of the cells begins with the next lap. */
inline reserve() {
    d_step {
        if
        :: room <= CELLS - end -> begin = end
        :: else -> begin = 0; skipped = CELLS - end
        fi;
#ifndef NO_INDEX_RULE
        if
        :: oldest < NEXT - ENTRIES + 1 -> oldest = NEXT - ENTRIES + 1
        :: else
        fi;
#endif
        do
        :: oldest < NEXT && IS_OVERWRITTEN(oldest) -> oldest++
        :: else -> break
        od;
        i = 0;
        do
        :: i < oldest && i < NEXT -> back[i] = 0; held[i] = 0; i++
        :: else -> break
        od;
        i = oldest;
        do
        :: i < NEXT -> back[i] = back[i] + skipped + bytes; i++
        :: else -> break
        od;
        i = 0;
        skipped = 0;
        back[NEXT] = bytes;
        held[NEXT] = bytes;
        end = (begin + bytes) % CELLS
    }
}

#ifdef NO_WRITER_FENCE
#define TAIL_BIT 16
#else
#define TAIL_BIT 0
#endif
#ifdef RELAXED_HEAD
#define HEAD_BIT 32
#else
#define HEAD_BIT 0
#endif
#define STORE(bit, what) d_step { (left & bit) -> left = left - bit; what }
#define STORE_HEAD head = NEXT; has_woken = 0
#define WAKE atomic { sleeps = 0; has_woken = 1 }

active proctype writer() {
    byte room, bytes, begin, skipped, left, i;
#ifdef RELAXED_TAIL
    bit is_late; /* the head of the record before has not been stored yet */
#endif
    {
        do
        ::  if
            :: room = 1; bytes = 1
            :: room = 2; bytes = 2
            :: room = 2; bytes = 1
            fi;
            reserve();
#if !defined(LATE_TAIL) && !defined(NO_WRITER_FENCE)
            tail = oldest;
#endif
#ifdef RELAXED_TAIL
            if
            :: d_step { is_late -> is_late = 0; head = NEXT - 1; has_woken = 0 }; WAKE
            :: !is_late
            fi;
#endif
            left = 13 + 2 * (bytes - 1) + TAIL_BIT + HEAD_BIT; /* fence */
            do
            :: STORE(1, cell[begin] = NEXT)
            :: STORE(2, cell[begin + 1] = NEXT)
            :: STORE(4, place_of[next_entry] = NEXT; place[next_entry] = begin)
            :: STORE(8, length_of[next_entry] = NEXT; length[next_entry] = bytes)
            :: STORE(16, tail = oldest)
            :: STORE(32, STORE_HEAD)
            :: left == 0 -> break
            od;
#ifdef LATE_TAIL
            tail = oldest;
#endif
#ifdef EARLY_WAKE
            WAKE;
            d_step { STORE_HEAD; has_woken = 1 };
#elif defined(RELAXED_TAIL)
            is_late = 1;
            if
            :: d_step { is_late = 0; STORE_HEAD }; WAKE
            :: skip
            fi;
#elif defined(RELAXED_HEAD)
            WAKE;
#else
            atomic { STORE_HEAD };
            WAKE;
#endif
            atomic { room = 0; bytes = 0; begin = 0 };
            next_number()
        od
    } unless {
        kill?0
    }
}

active proctype killer() {
    kill!0
}

/* ---- the reader ---- */

#ifdef NO_READER_FENCE
#define IS_BEHIND_BYTES true
#else
#define IS_BEHIND_BYTES (left == 4)
#endif
#ifdef NO_ENTRY_FENCE
#define IS_BEHIND_ENTRY true
#else
#define IS_BEHIND_ENTRY (left == 4)
#endif
#define LOAD(bit, what) d_step { (left & bit) -> left = left - bit; what }
#define LOAD_TAIL(is_behind) d_step { (left & 4) && is_behind -> left = left - 4; \
    overtaken = tail > cursor }
#define FORGET atomic { seen_head = 0; seen_tail = 0; seen_place_of = 0; seen_length_of = 0; \
    seen_place = 0; seen_length = 0; wrong = 0; left = 0; overtaken = 0 }

active proctype reader() {
    byte left;
    bit overtaken;
look:
    FORGET;
    seen_head = head; /* acquire */
    if /* acquire */
    :: d_step { tail > cursor -> seen_head = 0; seen_tail = tail }; goto move
    :: d_step {
            tail <= cursor && seen_head >= cursor ->
            assert(seen_head - tail < ENTRIES); /* or broken */
            seen_head = 0;
            left = 7
        }
    :: tail <= cursor && seen_head < cursor -> goto sleep
    fi;
    do
    :: LOAD(1, seen_place_of = place_of[ENTRY(cursor)]; seen_place = place[ENTRY(cursor)])
    :: LOAD(2, seen_length_of = length_of[ENTRY(cursor)]; seen_length = length[ENTRY(cursor)])
    :: LOAD_TAIL(IS_BEHIND_ENTRY)
    :: left == 0 -> break
    od;
    if
    :: overtaken -> goto look
    :: else
    fi;
    atomic {
        assert(seen_place_of == cursor && seen_length_of == cursor); /* or broken */
        seen_place_of = 0;
        seen_length_of = 0
    };
again:
    left = 4 + 1 + 2 * (seen_length - 1);
    do
    :: LOAD(1, wrong = wrong || cell[seen_place] != cursor)
    :: LOAD(2, wrong = wrong || cell[seen_place + 1] != cursor)
#ifdef NO_LAST_LOOK
    :: LOAD(4, skip)
#else
    :: LOAD_TAIL(IS_BEHIND_BYTES)
#endif
    :: left == 0 -> break
    od;
    if
    :: overtaken -> goto look
    :: else -> assert(!wrong) /* it is used */
    fi;
    if
    :: goto again /* in place, some more of it */
    :: d_step { cursor++; FORGET }; goto look
    fi;

move: /* Both ends are judged, and the cursor then put anywhere between them. */
    atomic { assert(head + 1 >= seen_tail); seen_tail = 0; seen_head = head };
    assert(seen_head < tail + ENTRIES);
    d_step { seen_head = 0; seen_tail = tail };
    d_step { seen_head = head; assert(seen_head + 1 >= seen_tail); cursor = seen_tail };
    do
    :: cursor <= seen_head -> cursor++
    :: goto look
    od;

sleep:
#ifdef FRESH_HEAD
    seen_head = head;
#endif
    if
    :: head != seen_head -> goto look
    :: d_step { head == seen_head -> sleeps = 1; seen_head = 0 }
    fi;
    if
    :: !sleeps -> goto look
    :: timeout -> /* nobody does anything any more: the look once a second */
        sleeps = 0;
        assert(head < cursor || !has_woken);
        if
        :: head >= cursor -> goto look
        :: else -> assert(cursor == head + 1)
        fi
    fi
}
