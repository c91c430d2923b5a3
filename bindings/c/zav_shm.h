/* SPDX-License-Identifier: Apache-2.0 */
#ifndef ZAV_SHM_H
#define ZAV_SHM_H

/* The C interface of zav_shm: frames between the processes of one device. C99.
 *
 *   zav_shm_publisher camera = 0;
 *   const zav_shm_publisher_options options = {.size = sizeof options, .name = "CAM_LOOP"};
 *   if (zav_shm_publisher_open(&options, &camera) < 0) {
 *       fprintf(stderr, "%s\n", zav_shm_last_error());
 *   }
 *   zav_shm_publisher_publish(camera, bytes, length, NULL);
 *
 * Handles   are numbers, 0 is none, and none is ever used twice: one that is closed, or was never
 *           given out, is recognised and refused. Handles hold for the process that opened them; in
 *           a child of fork() they are refused, too.
 * Structs   begin with `size`, which the caller sets to sizeof the struct. That is how they grow: a
 *           later version adds members at the end, and a program that was compiled before works on
 *           as it did. A size that no version up to the library's has had is ZAV_SHM_BAD_SIZE.
 *           Members that are 0 mean what is written beside them.
 * Errors    are values: below 0 nothing was done; 0 is success; above 0 is what happens in the
 *           ordinary course. Results are written only where a function says so. No exception gets
 *           out.
 * Threads   any thread may call any function. Of one handle, the functions that say "one at a time"
 *           return ZAV_SHM_BUSY while another of them runs.
 * Exit      a handle that nobody closes ends with the process, as if that had been killed. */

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint64_t zav_shm_publisher;
typedef uint64_t zav_shm_subscriber;
typedef uint64_t zav_shm_view;

typedef enum zav_shm_status {
    ZAV_SHM_OK = 0,

    ZAV_SHM_TIMEOUT = 1,       /* no frame within the time; the state tells why */
    ZAV_SHM_INTERRUPTED = 2,   /* zav_shm_subscriber_interrupt() was called */
    ZAV_SHM_NOT_CONNECTED = 3, /* it is open and goes on by itself, but see the state */

    ZAV_SHM_CLOSED = -1,       /* the handle is closed, or this is a child of fork() */
    ZAV_SHM_BAD_HANDLE = -2,   /* 0, another kind of handle, or never given out */
    ZAV_SHM_BAD_ARGUMENT = -3, /* a null pointer, or a value out of its range */
    ZAV_SHM_BAD_SIZE = -4,     /* a struct's `size` */
    ZAV_SHM_BUSY = -5,         /* another thread is in a call that comes one at a time */
    ZAV_SHM_TOO_LARGE = -6,    /* longer than the stream's frames may be, or than the loan */
    ZAV_SHM_REFUSED = -7,      /* the center's configuration does not know what was asked for */
    ZAV_SHM_NO_RING = -8,      /* there is no history to write; the message tells why */
    ZAV_SHM_SMALL_BUFFER = -9, /* the frame stays, and is the next one again */
    ZAV_SHM_NOT_SERVED = -10,  /* nobody to ask, no right to, or no answer in time */
    ZAV_SHM_NO_MEMORY = -11,
    ZAV_SHM_FAILED = -12 /* the system refused something; the message tells what */
} zav_shm_status;

typedef enum zav_shm_state {
    ZAV_SHM_STATE_CLOSED = 0,
    ZAV_SHM_STATE_CONNECTED = 1,            /* frames flow when there are any */
    ZAV_SHM_STATE_WAITING_FOR_CENTER = 2,   /* frames flow all the same */
    ZAV_SHM_STATE_WAITING_FOR_PRODUCER = 3, /* no frame has come for a second */
    ZAV_SHM_STATE_REFUSED = 4,              /* by the center */
    ZAV_SHM_STATE_NO_RING = 5               /* a publisher that cannot have its history */
} zav_shm_state;

/* Flags of a frame. */
#define ZAV_SHM_KEY_FRAME 1U
#define ZAV_SHM_CODEC_CONFIGURATION 2U
#define ZAV_SHM_DISCONTINUITY 4U
#define ZAV_SHM_END_OF_STREAM 8U
#define ZAV_SHM_RECOVERY_POINT 16U /* no IDR, and still a decoder may begin here */

/* Codecs, four characters filled up with blanks. */
#define ZAV_SHM_FOUR_CHARACTERS(a, b, c, d) ((a)*0x1U | (b)*0x100U | (c)*0x10000U | (d)*0x1000000U)
#define ZAV_SHM_H264 ZAV_SHM_FOUR_CHARACTERS('H', '2', '6', '4')
#define ZAV_SHM_H265 ZAV_SHM_FOUR_CHARACTERS('H', '2', '6', '5')
#define ZAV_SHM_MJPEG ZAV_SHM_FOUR_CHARACTERS('M', 'J', 'P', 'G')
#define ZAV_SHM_AAC ZAV_SHM_FOUR_CHARACTERS('A', 'A', 'C', ' ')
#define ZAV_SHM_OPUS ZAV_SHM_FOUR_CHARACTERS('O', 'P', 'U', 'S')
#define ZAV_SHM_G711 ZAV_SHM_FOUR_CHARACTERS('G', '7', '1', '1')
#define ZAV_SHM_RAW ZAV_SHM_FOUR_CHARACTERS('R', 'A', 'W', ' ')

/* ---- about errors ---- */

/* Why the latest call of this thread that did not return ZAV_SHM_OK, ZAV_SHM_TIMEOUT or
 * ZAV_SHM_INTERRUPTED did so: one line that names the thing, the value and the limit. Never NULL;
 * the text belongs to the library and stays until this thread's next call of it. */
const char* zav_shm_last_error(void);

/* "too large". Never NULL, whatever the value. */
const char* zav_shm_status_name(int status);
const char* zav_shm_state_name(int state);

/* Of the library, "0.1.0". */
const char* zav_shm_version(void);

/* ---- publisher: writes the frames of one stream ---- */

/* What a stream carries. What is unknown or does not apply stays 0. */
typedef struct zav_shm_format {
    uint32_t size;
    uint32_t codec;    /* ZAV_SHM_H264 ... */
    uint32_t width;    /* pixels */
    uint32_t height;   /* pixels */
    uint32_t rate_num; /* frames or samples per second ... */
    uint32_t rate_den; /* ... as a fraction; 0: 1 */
    uint32_t channels; /* audio */
} zav_shm_format;

typedef struct zav_shm_publisher_options {
    uint32_t size;
    int32_t channel;
    int32_t stream;
    int32_t center_wait_ms;       /* how long open() looks for a center; 0: 2000; below: not */
    const char* name;             /* as configured in the center */
    const char* folder;           /* of the segments while there is no center; NULL: "shm" */
    const zav_shm_format* format; /* NULL: unknown */
    uint64_t history_bytes;   /* kept at least; 0: as configured, else twice the greatest frame */
    uint64_t frame_bytes_max; /* 0: the page size of the stream, else 1 MiB */
    uint32_t paced;           /* not 0: waits for readers that are behind, for playback ... */
    uint32_t pace_limit_ms;   /* ... each for so long without moving; 0: 200 */
} zav_shm_publisher_options;

/* What an application says of one frame. */
typedef struct zav_shm_frame_info {
    uint32_t size;
    uint32_t flags; /* ZAV_SHM_KEY_FRAME ... */
    int64_t pts_ns;
    int64_t utc_ns;       /* wall clock at capture since 1970; 0: unknown */
    uint32_t duration_us; /* 0: unknown */
    uint32_t reserved;    /* 0 */
} zav_shm_frame_info;

typedef struct zav_shm_publisher_counters {
    uint32_t size;
    uint32_t reserved;
    uint64_t frames; /* offered, whatever became of them */
    uint64_t published;
    uint64_t bytes; /* of their payload */
    uint64_t too_large;
    uint64_t refused;          /* frames, also those without a history */
    uint64_t recoveries;       /* registered again after the center was restarted */
    uint64_t waits;            /* of a paced publisher, for readers that were behind */
    uint64_t given_up;         /* readers that did not move within the time */
    uint64_t slot_frames;      /* for consumers of the fixed interface */
    uint64_t slot_passed_over; /* they were not back in time */
    uint64_t slot_slow_reads;  /* the slot was not free again within 33 ms */
} zav_shm_publisher_counters;

/* Registers and makes the stream's history. Takes up to `center_wait_ms`.
 *
 * Results: OK; NOT_CONNECTED: it is open all the same, and frames flow as soon as they can, the
 * message tells what is missing. Else below 0, and `*publisher` is not written. */
zav_shm_status zav_shm_publisher_open(const zav_shm_publisher_options* options,
                                      zav_shm_publisher* publisher);

/* Writes one frame. One at a time. Takes the time of the copy; of a paced publisher, its readers'.
 * `info` may be NULL, `payload` where `payload_bytes` is 0.
 *
 * Errors: TOO_LARGE, REFUSED, NO_RING. The next call tries again by itself. */
zav_shm_status zav_shm_publisher_publish(zav_shm_publisher publisher, const void* payload,
                                         size_t payload_bytes, const zav_shm_frame_info* info);

/* Lends room in the history, so that an encoder can write in place. One at a time.
 *
 * Owner: the room belongs to the publisher; it is to be written until the next loan(), publish(),
 * commit() or close(), and not after. A loan that is not committed is dropped.
 * payload_bytes: how long the payload may become; 0: as long as possible.
 * Errors: NO_RING, TOO_LARGE. */
zav_shm_status zav_shm_publisher_loan(zav_shm_publisher publisher, size_t payload_bytes,
                                      void** room, size_t* room_bytes);

/* Publishes the first `payload_bytes` of the loan, which is over then. One at a time.
 *
 * Errors: NO_RING without a loan; TOO_LARGE for more than was lent: the frame is dropped. */
zav_shm_status zav_shm_publisher_commit(zav_shm_publisher publisher, size_t payload_bytes,
                                        const zav_shm_frame_info* info);

/* Counts frames that the application has not got to publish: readers are told of them as lost. One
 * at a time. */
zav_shm_status zav_shm_publisher_leave_out(zav_shm_publisher publisher, uint64_t frames);

/* Changes what the next frames say of the stream. One at a time. */
zav_shm_status zav_shm_publisher_set_format(zav_shm_publisher publisher,
                                            const zav_shm_format* format);

/* 1 in `*requested` when a reader has asked for a key frame since the last call, else 0. One at a
 * time. Costs a system call. */
zav_shm_status zav_shm_publisher_key_frame_requested(zav_shm_publisher publisher, int* requested);

/* A snapshot, in a struct whose size is set. */
zav_shm_status zav_shm_publisher_counters_of(zav_shm_publisher publisher,
                                             zav_shm_publisher_counters* counters);

/* Where it stands, and in one line why it is not connected: as much as has room, ended by a zero.
 * `reason` may be NULL with 0 bytes. */
zav_shm_status zav_shm_publisher_state(zav_shm_publisher publisher, zav_shm_state* state,
                                       char* reason, size_t reason_bytes);

/* Ends the stream and the handle, once: what was published stays readable. Waits for a call of
 * another thread that runs, and up to 300 ms for the center. */
zav_shm_status zav_shm_publisher_close(zav_shm_publisher publisher);

/* ---- subscriber: reads the frames of one stream ---- */

/* Where reading begins. Recovery points count as key frames. */
typedef enum zav_shm_start {
    ZAV_SHM_NEWEST = 0,         /* with the frame that is published next */
    ZAV_SHM_NEWEST_KEY = 1,     /* with the newest key frame of a live stream */
    ZAV_SHM_LAST_KEY_FRAME = 2, /* with the newest key frame, however old */
    ZAV_SHM_OLDEST = 3,         /* with the oldest frame */
    ZAV_SHM_BACK = 4            /* with the last key frame that is `back_ns` old at least */
} zav_shm_start;

/* Where a reader goes on that was slower than the history is long. */
typedef enum zav_shm_overflow {
    ZAV_SHM_DROP_UNTIL_KEY_FRAME = 0,
    ZAV_SHM_DROP_OLDEST = 1,
    ZAV_SHM_NEWEST_ONLY = 2 /* also where no frame was overtaken */
} zav_shm_overflow;

typedef struct zav_shm_subscriber_options {
    uint32_t size;
    int32_t channel;
    int32_t stream;
    int32_t center_wait_ms; /* how long open() looks for a center; 0: 2000; below: not */
    const char* name;       /* this consumer, as configured; NULL: a tap, which asks no center */
    const char* producer;   /* whose frames */
    const char* folder;     /* of the segments, for a tap or without a center; NULL: "shm" */
    int64_t back_ns;        /* of ZAV_SHM_BACK */
    uint32_t start;         /* zav_shm_start */
    uint32_t overflow;      /* zav_shm_overflow */
    uint32_t start_at_key_frame;   /* not 0: leaves out what comes before the first */
    uint32_t key_frame_after_loss; /* not 0: leaves out what comes between a loss and the next */
    uint32_t asks_for_key_frame;   /* not 0: asks the publisher for one, then and at the begin */
    uint32_t untrusting;           /* not 0: a publisher that shrinks its history is an error and
                                      not the end of this process; views are copies then */
    uint64_t history_bytes;        /* of an own one, for a producer without; 0: four pages */
} zav_shm_subscriber_options;

/* What comes with each frame. */
typedef struct zav_shm_frame {
    uint32_t size;
    uint32_t flags;         /* ZAV_SHM_KEY_FRAME ... */
    uint64_t payload_bytes; /* also where the buffer was too small */
    const void* payload;    /* where it lies: in the caller's buffer, or in the view */
    uint64_t sequence;      /* from 1, one more per frame offered */
    uint64_t epoch;         /* random per publisher instance */
    int64_t publish_ns;     /* CLOCK_MONOTONIC when the write began */
    int64_t received_ns;    /* CLOCK_MONOTONIC */
    int64_t pts_ns;
    int64_t utc_ns; /* 0: unknown */
    uint32_t codec;
    uint32_t width;
    uint32_t height;
    uint32_t rate_num;
    uint32_t rate_den;
    uint32_t channels;
    uint32_t duration_us;
    uint32_t verified;      /* 0: a foreign producer's: of it only the payload is known */
    uint32_t epoch_changed; /* not 0: the first frame of a (re)started or another producer */
    uint32_t reserved;
    /* Between this frame and the one handed out before it. Lost: */
    uint64_t overtaken; /* the reader was slower than the history is long */
    uint64_t left_out;  /* the publisher could not write them */
    uint64_t no_memory;
    /* Passed over, as the options say: */
    uint64_t dropped; /* ZAV_SHM_NEWEST_ONLY */
    uint64_t skipped; /* on the way to a key frame */
} zav_shm_frame;

typedef struct zav_shm_subscriber_counters {
    uint32_t size;
    uint32_t reserved;
    uint64_t frames; /* taken */
    uint64_t bytes;  /* of their payload */
    uint64_t key_frames;
    uint64_t overtaken; /* lost: slower than the history is long */
    uint64_t left_out;  /* lost: never published */
    uint64_t no_memory; /* lost */
    uint64_t dropped;
    uint64_t skipped;
    uint64_t torn;    /* copies that were overwritten meanwhile, and not handed out */
    uint64_t invalid; /* records that are no frame */
    uint64_t foreign;
    uint64_t repeated;
    uint64_t recoveries;
    uint64_t timeouts_no_frame; /* of the fixed interface */
    uint64_t timeouts_no_relay;
    int64_t latency_p50_ns; /* from the begin of writing to the end of copying */
    int64_t latency_p99_ns;
} zav_shm_subscriber_counters;

/* Registers and joins the stream. Takes up to `center_wait_ms`.
 *
 * Results: OK; NOT_CONNECTED: it is open all the same, and frames flow as soon as they can, the
 * message tells what is missing. Else below 0, and `*subscriber` is not written. */
zav_shm_status zav_shm_subscriber_open(const zav_shm_subscriber_options* options,
                                       zav_shm_subscriber* subscriber);

/* Copies the next frame into the caller's buffer, waiting up to `timeout_ms`; without limit for a
 * negative one. One at a time. `frame` may be NULL.
 *
 * Results: OK; TIMEOUT; INTERRUPTED; CLOSED, also when another thread closes it meanwhile;
 * SMALL_BUFFER: `frame` is filled but for `payload`, and the same frame is what the next
 * receive() copies. */
zav_shm_status zav_shm_subscriber_receive(zav_shm_subscriber subscriber, void* buffer,
                                          size_t buffer_bytes, int32_t timeout_ms,
                                          zav_shm_frame* frame);

/* Shows the next frame where it lies, without a copy. The publisher may overwrite it at any moment:
 * what came of it counts only if zav_shm_view_is_whole() says so afterwards. One at a time.
 *
 * Owner: where `*view` is 0, it becomes the handle of a new view, to be released; else that view
 * shows the new frame in place of its former one, whose payload must not be used any more. It
 * outlives subscriber and publisher.
 * A frame that receive() had no room for is not shown: it is receive()'s. */
zav_shm_status zav_shm_subscriber_receive_view(zav_shm_subscriber subscriber, int32_t timeout_ms,
                                               zav_shm_view* view, zav_shm_frame* frame);

/* 1 in `*whole` when no byte of the payload has been overwritten up to now, else 0. */
zav_shm_status zav_shm_view_is_whole(zav_shm_view view, int* whole);

/* Ends the view; its payload must not be used any more. BUSY while receive_view() fills it. */
zav_shm_status zav_shm_view_release(zav_shm_view view);

/* Ends a receive() or receive_view() that waits, or else the next one that would: INTERRUPTED. */
zav_shm_status zav_shm_subscriber_interrupt(zav_shm_subscriber subscriber);

/* Goes on somewhere else in the history. What lies between does not count as lost. One at a time.
 *
 * start: zav_shm_start; back_ns: of ZAV_SHM_BACK, else 0. */
zav_shm_status zav_shm_subscriber_seek(zav_shm_subscriber subscriber, uint32_t start,
                                       int64_t back_ns);

/* A descriptor that is readable while there may be a frame: poll it, then receive() with a timeout
 * of 0 until ZAV_SHM_TIMEOUT. It belongs to the subscriber and ends with it; never close it. One at
 * a time. */
zav_shm_status zav_shm_subscriber_descriptor(zav_shm_subscriber subscriber, int* descriptor);

/* Moves to another producer, or to none with "NONE", waiting up to `limit_ms`. Needs a name and a
 * center.
 *
 * Errors: NOT_SERVED, REFUSED: it stays as it was, and the message tells why. */
zav_shm_status zav_shm_subscriber_pair(zav_shm_subscriber subscriber, const char* producer,
                                       uint32_t limit_ms);

/* Asks the publisher for a key frame as soon as it can. Error: NOT_SERVED. */
zav_shm_status zav_shm_subscriber_request_key_frame(zav_shm_subscriber subscriber);

/* A snapshot, in a struct whose size is set. */
zav_shm_status zav_shm_subscriber_counters_of(zav_shm_subscriber subscriber,
                                              zav_shm_subscriber_counters* counters);

/* As zav_shm_publisher_state(). */
zav_shm_status zav_shm_subscriber_state(zav_shm_subscriber subscriber, zav_shm_state* state,
                                        char* reason, size_t reason_bytes);

/* Leaves, and ends the handle, once. A receive() that is blocked in another thread returns CLOSED.
 * Waits up to 300 ms for the center; for an open pair() of another thread up to a second. */
zav_shm_status zav_shm_subscriber_close(zav_shm_subscriber subscriber);

#ifdef __cplusplus
}
#endif

#endif /* ZAV_SHM_H */
