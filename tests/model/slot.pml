/* SPDX-License-Identifier: Apache-2.0
 *
 * The commit rule by itself: a writer that pays no heed to its reader. What semaphores, relay and
 * other consumers do is left out, since all they could do is to keep the writer from writing at
 * some moment; here it may write at any. So what holds here holds under them all.
 *
 * The writer may be killed between any two stores, and a new publisher then writes on. A killed
 * reader is nothing to anybody; a new one is in no other state than one that has just begun.
 *
 * A part of the slot holds the frame that it is of: which publisher's and which of its numbers. The
 * reader compares what it would see of that: numbers in `commit` and `sequence`, publishers in
 * `epoch`. The assertion compares frames.
 *
 * What is between two fences is stored, and loaded, in any order. The reader looks at epoch, then
 * at commit, copies header and payload, and looks again at commit, then at sequence and epoch.
 *
 * Publishers and frames are without end, their names are not: a new one takes a name that no part
 * of slot and copy holds, and waits until there is one. Names are only ever compared for being the
 * same, so nothing is lost by that but what needs more of them at once than PUBLISHERS and NUMBERS.
 * A number that only frames of other publishers are held of is new, too: each begins with 1.
 *
 * What can be left out, to see that it is missed:
 *
 *   -DNO_CLEARING      the writer does not set commit to 0 before it writes
 *   -DNO_SECOND_LOOK   the reader does not look again after its copy
 *   -DNO_EPOCH         it looks again, but not at the epoch
 *   -DANY_ORDER        it looks again, but not at commit first
 *   -DNO_EPOCH_FIRST   it does not look at the epoch before commit
 */

#ifndef PUBLISHERS
#define PUBLISHERS 2
#endif
#ifndef NUMBERS
#define NUMBERS 3
#endif
#define NONE 0
#define FRAME(publisher, number) (1 + (publisher) * NUMBERS + (number))
#define PUBLISHER(frame) (((frame) - 1) / NUMBERS)
#define NUMBER(frame) (((frame) - 1) % NUMBERS)
#define SAME_NUMBER(one, other) \
    ((one) != NONE && (other) != NONE && NUMBER(one) == NUMBER(other))

/* ---- the slot ---- */

byte commit, sequence;
byte epoch;   /* 1 + publisher */
byte details; /* length, times, format, flags */
byte payload[2];

/* ---- the reader's copy ---- */

byte first_epoch, first_commit, copied_sequence, copied_epoch, copied_details;
bit mixed; /* it has parts of more than one frame */

/* ---- the writer ---- */

byte publisher;
chan kill = [0] of { bit };

#define ANY(test) (test(commit) || test(sequence) || test(details) || test(payload[0]) || \
    test(payload[1]) || test(first_commit) || test(copied_sequence) || test(copied_details))
#define IS_OF_PUBLISHER(part) ((part) != NONE && PUBLISHER(part) == publisher)
#define IS_HELD_PUBLISHER (ANY(IS_OF_PUBLISHER) || epoch == publisher + 1 || \
    first_epoch == publisher + 1 || copied_epoch == publisher + 1)
#define HAS_NUMBER(part) ((part) != NONE && NUMBER(part) == number)
#define IS_THIS(part) ((part) == FRAME(publisher, number))

/* The first name that is free, if there is one. */
inline find_publisher() {
    d_step {
        publisher = 0;
        do
        :: publisher < PUBLISHERS && IS_HELD_PUBLISHER -> publisher++
        :: else -> break
        od
    }
}

inline find_number() {
    d_step {
        number = 0;
        do
        :: number < NUMBERS && ANY(HAS_NUMBER) -> number++
        :: else -> break
        od
    }
}

inline choose_number() {
    atomic {
        find_number();
        unheld = number;
        number = 0;
        do
        :: number < NUMBERS - 1 -> number++
        :: number == unheld -> break
        :: number != unheld && ANY(HAS_NUMBER) && !ANY(IS_THIS) -> break
        od;
        unheld = 0
    }
}

#define STORE(bit, part) \
    d_step { (left & bit) -> left = left - bit; part = FRAME(publisher, number) }

active proctype writer() {
    byte number, unheld, left;
born:
    {
        atomic { find_publisher(); publisher < PUBLISHERS };
        do
        ::  choose_number();
#ifndef NO_CLEARING
            commit = NONE; /* fence */
#endif
            payload[0] = FRAME(publisher, number); /* first or last: the halves are alike */
            d_step { payload[1] = FRAME(publisher, number); left = 7 }; /* fence */
            do
            :: STORE(1, sequence)
            :: d_step { (left & 2) -> left = left - 2; epoch = publisher + 1 }
            :: STORE(4, details)
            :: d_step { left == 0 -> commit = FRAME(publisher, number); number = 0 }; break
            od
        od
    } unless {
        kill?0
    };
    d_step { number = 0; left = 0 };
    goto born
}

active proctype killer() {
    do
    :: kill!0
    od
}

/* ---- the reader ---- */

#define NUMBERS_AGREE SAME_NUMBER(first_commit, copied_sequence)
#ifdef NO_EPOCH_FIRST
#define HEADER_IS_GOOD NUMBERS_AGREE
#else
#define HEADER_IS_GOOD (NUMBERS_AGREE && first_epoch == copied_epoch)
#endif

#if defined(NO_SECOND_LOOK)
#define LOOKS 0
#elif defined(NO_EPOCH)
#define LOOKS 3
#else
#define LOOKS 7
#endif
#ifdef ANY_ORDER
#define ITS_TURN true
#else
#define ITS_TURN !(left & 1) /* commit has been looked at */
#endif

/* What the copy says that it is. */
#define TAKEN FRAME(copied_epoch - 1, NUMBER(copied_sequence))

#define LOAD(bit, into, part) d_step { (left & bit) -> left = left - bit; into = part }
#define COPY(bit, part) \
    d_step { (left & bit) -> left = left - bit; mixed = mixed || part != TAKEN }
#define FIND(bit, condition, same) d_step { (left & bit) && condition && same -> left = left - bit }
#define FAIL(bit, condition, same) (left & bit) && condition && !(same) -> goto torn
#define FORGET \
    first_epoch = NONE; first_commit = NONE; \
    copied_sequence = NONE; copied_epoch = NONE; copied_details = NONE; \
    mixed = 0; left = 0

active proctype reader() {
    byte left;
again:
#ifndef NO_EPOCH_FIRST
    first_epoch = epoch; /* fence */
#endif
    first_commit = commit; /* acquire */
    left = 7;
    do
    :: LOAD(1, copied_sequence, sequence)
    :: LOAD(2, copied_epoch, epoch)
    :: LOAD(4, copied_details, details)
    :: left == 0 -> break
    od;
    if
    :: !HEADER_IS_GOOD -> goto torn
    :: d_step {
            HEADER_IS_GOOD ->
            mixed = copied_details != TAKEN;
            first_epoch = NONE;
            first_commit = NONE;
            copied_details = NONE;
            left = 3
        }
    fi; /* fence */
    do
    :: COPY(1, payload[0])
    :: COPY(2, payload[1])
    :: d_step { left == 0 -> left = LOOKS }; break /* fence */
    od;
    do
    :: FIND(1, true, SAME_NUMBER(commit, copied_sequence))
    :: FAIL(1, true, SAME_NUMBER(commit, copied_sequence))
    :: FIND(2, ITS_TURN, SAME_NUMBER(sequence, copied_sequence))
    :: FAIL(2, ITS_TURN, SAME_NUMBER(sequence, copied_sequence))
    :: FIND(4, ITS_TURN, epoch == copied_epoch)
    :: FAIL(4, ITS_TURN, epoch == copied_epoch)
    :: left == 0 -> break
    od;
    assert(!mixed); /* handed out */
torn:
    atomic { FORGET };
    goto again
}
