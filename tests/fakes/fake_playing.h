/*
 * What the files of the scripted player library share (fake_playing.c says what it does): the
 * instance, the mode bits, the records the tests read back, and the threads' entry points.
 */
#ifndef FAKE_PLAYING_H
#define FAKE_PLAYING_H

#include "oplayer/oplayer.h"

#include <pthread.h>
#include <time.h>

#define EXPORT __attribute__((visibility("default")))

#ifndef FAKE_VERSION
#define FAKE_VERSION "0.1.0"
#endif

#define CHUNK_SAMPLES 4096
#define SONG_SECONDS 3
#define PAIRING_DELAY_MS 300
#define LOOP_ENDS_AFTER_MS 500
#define SLOW_RUN_ONCE_MS 200
#define CREATE_STRINGS 5 /* cache_dir, serial_number, product_name, vendor_secret, client_version */

enum {
    MODE_EARLY_AUDIO = 1 << 0,
    MODE_TWO_THREADS = 1 << 1,
    MODE_NULL_TABLES = 1 << 2,
    MODE_NULL_ENTRIES = 1 << 3,
    MODE_NULL_RECORD = 1 << 4,
    MODE_NULL_STRINGS = 1 << 5,
    MODE_LOOP_ENDS = 1 << 6,
    MODE_PAIR_NEVER = 1 << 7,
    MODE_PAIR_AT_END = 1 << 8,
    MODE_SLOW_RUN_ONCE = 1 << 9,
    MODE_PAIR_START_ERROR = 1 << 10,
    MODE_PAIR_FAILS = 1 << 11,
    MODE_CREATE_FAILS = 1 << 12,
    MODE_CREATE_FAILS_WITH_HANDLE = 1 << 13,
};

struct oplayer {
    oplayer_audio_api* audio;
    int modes;
    int channels;
    int rate;
    void (*save_token)(const char* token);
    struct timespec created;

    /* Everything below is guarded by mutex, which is never held while calling the host. */
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    pthread_t producer;
    pthread_t announcer;
    int has_announcer;

    int play_on_first_run;
    int start_requested;
    int started;
    int early_done;
    int paused;
    int pause_to_announce; /* -1: nothing */
    int volume;
    int exit_mode;
    int loop_ended;
    int shutdown_done;
    int quit;

    unsigned long long next_sample; /* counter value of the next sample offered */
    unsigned long long song_samples; /* taken of the current song */
    int song;
    long long last_second;
    int new_data;

    int pairing_active;
    struct timespec pairing_due;
    oplayer_pairing_result pairing_result;
};

/* Counters for the tests, over every instance of this file (fake_records.c). */
extern pthread_mutex_t counters_mutex;
extern int poll_calls;
extern int release_calls;
extern int destroy_calls;
extern unsigned long long samples_taken;
/* What the host handed over; written and read on the host's thread. */
extern unsigned char create_bytes[sizeof(oplayer_create_params)];
extern char create_strings[CREATE_STRINGS][256];
extern int create_calls;
extern int last_exit_mode;
extern char last_code[256];
extern int last_code_length;

void bump(int* counter);

static inline void now(struct timespec* ts)
{
    clock_gettime(CLOCK_MONOTONIC, ts);
}

static inline long long ms_since(const struct timespec* t)
{
    struct timespec n;
    now(&n);
    return (n.tv_sec - t->tv_sec) * 1000LL + (n.tv_nsec - t->tv_nsec) / 1000000;
}

static inline void wait_ms(pthread_cond_t* cond, pthread_mutex_t* mutex, long ms)
{
    struct timespec until;
    now(&until);
    until.tv_nsec += (ms % 1000) * 1000000L;
    until.tv_sec += ms / 1000 + until.tv_nsec / 1000000000L;
    until.tv_nsec %= 1000000000L;
    pthread_cond_timedwait(cond, mutex, &until);
}

/* The built-in modes and those of the environment (fake_playing.c). */
int read_modes(int* modes);

/* The audio threads and what they are told, with the mutex held (fake_audio.c). */
void* producer_thread(void* arg);
void* announcer_thread(void* arg);
void start_playing(oplayer* p);
void announce_pause(oplayer* p, int paused);

/* The tables of controls, track data and pairing (fake_tables.c). */
const oplayer_controls_api* fake_controls_api(void);
const oplayer_metadata_api* fake_metadata_api(void);
const oplayer_pairing_api* fake_pairing_api(void);

#endif
