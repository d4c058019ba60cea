/* What the parts of the reference library share: the instance and its helpers. Nothing here
 * is exported (the library is built with hidden visibility). An instance's state is guarded by
 * its mutex, which is never held while calling the host or writing a file. */
#ifndef OPLAYER_REF_INSTANCE_H
#define OPLAYER_REF_INSTANCE_H

#include "oplayer/oplayer.h"
#include "station.h"

#include <pthread.h>
#include <time.h>

enum {
    REF_ERR_ARGUMENT = 22,      /* bad creation record or null out-parameter */
    REF_ERR_FORMAT = 23,        /* channel count or sample rate out of range */
    REF_ERR_ENVIRONMENT = 24,   /* an OPLAYER_REF_* variable that cannot be used */
    REF_ERR_NO_MEMORY = 12,
    REF_ERR_THREAD = 11,
    REF_ERR_PAIRING_BUSY = 16,  /* a pairing attempt is already running */
};

#define CHUNK_FRAMES 4096
#define RETRY_WAIT_NS 5000000L   /* host accepted nothing: offer the same samples again after this */
#define IDLE_WAIT_NS 10000000L   /* longest run_once waits for work */
#define PAIRING_DELAY_NS 1000000000L
#define TOKEN_MAX 4096
#define POSITION_FILE "oplayer-ref-position"

struct oplayer {
    oplayer_audio_api* audio;
    int channels;
    int rate;
    void (*save_token)(const char* token);
    ref_station station;
    int trace_fd; /* OPLAYER_REF_TRACE, or -1 */
    char* position_file; /* null without a cache directory */
    int position_unsaved; /* audio thread only: the last write failed */

    pthread_mutex_t mutex;
    pthread_cond_t cond; /* every state change is broadcast on it */
    pthread_t thread;

    int play_on_first_run;
    int start_requested;
    int started;
    int paused;
    int pause_to_announce;  /* -1: nothing to announce */
    int volume;
    int volume_to_announce; /* -1: nothing to announce */
    int remote_volume;      /* OPLAYER_REF_REMOTE_VOLUME still to come, or -1 */
    unsigned long long remote_volume_at; /* after this many samples played */
    int skip_request;
    int exit_mode;          /* 0: none */
    int loop_ended;
    int shutdown_done;
    int quit;

    int current;
    int position_to_save;        /* track index to write to the position file, or -1 */
    unsigned long long consumed; /* samples of the current track taken by the host */
    unsigned long long played;   /* samples of every track taken by the host */
    long long last_second;
    int new_data;

    int pairing_active;
    struct timespec pairing_due;
    char* pairing_code;
    int pairing_length;
};

static inline void ref_now(struct timespec* ts)
{
    clock_gettime(CLOCK_MONOTONIC, ts);
}

static inline void ref_add_ns(struct timespec* ts, long ns)
{
    ts->tv_nsec += ns % 1000000000L;
    ts->tv_sec += ns / 1000000000L;
    if (ts->tv_nsec >= 1000000000L) {
        ts->tv_nsec -= 1000000000L;
        ts->tv_sec += 1;
    }
}

static inline int ref_before(const struct timespec* a, const struct timespec* b)
{
    return a->tv_sec < b->tv_sec || (a->tv_sec == b->tv_sec && a->tv_nsec < b->tv_nsec);
}

static inline int ref_pairing_due(const oplayer* p, const struct timespec* at)
{
    return p->pairing_active && !ref_before(at, &p->pairing_due);
}

/* With the mutex held. A song asked for counts from the moment it is asked for, before the
 * audio thread starts it: the host sees one state whichever thread runs first. */
static inline int ref_song_on(const oplayer* p)
{
    return (p->started || p->start_requested) && !p->paused;
}

/* position.c */
/* Reads where the station was and sets the track to go on with; a station without a usable
 * position starts at its first track. Notes on standard error say which. */
void ref_load_position(oplayer* p, const char* cache_dir);
/* Audio thread, without the mutex: keeps index as the position. */
void ref_save_position(oplayer* p, int index);

/* audio_thread.c: the instance's audio thread (arg is the instance), started by create and
 * joined by destroy. */
void* ref_audio_thread(void* arg);

/* playback.c and pairing.c: the tables the entry table hands out. */
const oplayer_controls_api* ref_controls_api(void);
const oplayer_metadata_api* ref_metadata_api(void);
const oplayer_pairing_api* ref_pairing_api(void);

#endif
