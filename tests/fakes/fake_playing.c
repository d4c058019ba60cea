/*
 * A scripted player library. Its PCM is a running counter (sample n of the stream, channels
 * interleaved, is n modulo 65536 as a signed 16-bit value), so a test can tell that every
 * sample arrived once and in order; what the host hands it is recorded and read back through
 * the exported fake_* getters.
 *
 * By default it is polite, like the reference library: it starts playing at the first run_once
 * when a token is stored (or when a pairing succeeds), from one thread of its own, and holds what
 * the host did not take. Modes, a comma-separated list in ORVELLO_FAKE_MODES (read at create)
 * and in FAKE_MODES at build time, make it misbehave:
 *   early-audio    its thread starts at create and has called init, pause_changed(0),
 *                  volume_changed and data before create returns
 *   two-threads    a second thread announces the later pause changes and the volume, and calls
 *                  data with nothing to offer, while the first one delivers the audio
 *   null-tables    controls_api, metadata_api and pairing_api return NULL
 *   null-entries   every function of those three tables is NULL
 *   null-record    get_current returns NULL
 *   null-strings   the track record's strings and artist array are NULL (artist count 2), and a
 *                  successful pairing has no device id
 *   loop-ends      run_once returns 0 by itself 500 ms after create
 *   pair-never     poll never gives an outcome
 *   pair-at-end    the pairing outcome is there only once the loop has ended
 *   pair-start-error  pairing start returns 7
 *   pair-fails     the outcome is a failure with a null message
 *   slow-run-once  every run_once blocks for 200 ms
 *   create-fails   create returns 5 and no instance
 *   create-fails-with-handle  create returns 9 but hands out a working instance
 * An unknown mode makes create fail with 22 and a line on standard error. Built with
 * FAKE_NO_SYMBOL it exports no entry table, with FAKE_NO_RUN_ONCE a table without run_once.
 * Built with FAKE_PLANTED it is another account's library planted where the device might load
 * it: a working library whose constructor, which runs the moment the file is mapped, appends
 * "uid=N" (the account it runs as) to the file named by ORVELLO_PLANTED_MARK.
 *
 * Songs are 3 s of audio; request_exit mode 2 ends the loop at the end of the current song, or
 * at once when nothing plays. Pairing succeeds 300 ms after start with the device id
 * "fake-device-2" and stores the token "fake-token"; a pending pairing does not hold the loop.
 */
#define _GNU_SOURCE
#include "oplayer/oplayer.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

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

static const struct {
    const char* name;
    int bit;
} mode_names[] = {
    {"early-audio", MODE_EARLY_AUDIO}, {"two-threads", MODE_TWO_THREADS}, {"null-tables", MODE_NULL_TABLES},
    {"null-entries", MODE_NULL_ENTRIES}, {"null-record", MODE_NULL_RECORD}, {"null-strings", MODE_NULL_STRINGS},
    {"loop-ends", MODE_LOOP_ENDS}, {"pair-never", MODE_PAIR_NEVER}, {"pair-at-end", MODE_PAIR_AT_END},
    {"slow-run-once", MODE_SLOW_RUN_ONCE}, {"pair-start-error", MODE_PAIR_START_ERROR},
    {"pair-fails", MODE_PAIR_FAILS}, {"create-fails", MODE_CREATE_FAILS},
    {"create-fails-with-handle", MODE_CREATE_FAILS_WITH_HANDLE},
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

/* Counters for the tests, over every instance of this file. */
static pthread_mutex_t counters_mutex = PTHREAD_MUTEX_INITIALIZER;
static int poll_calls;
static int release_calls;
static int destroy_calls;
static unsigned long long samples_taken;
/* What the host handed over; written and read on the host's thread. */
static unsigned char create_bytes[sizeof(oplayer_create_params)];
static char create_strings[CREATE_STRINGS][256];
static int create_calls;
static int last_exit_mode = -1;
static char last_code[256];
static int last_code_length = -1;

static int read_counter(const int* counter)
{
    int value;
    pthread_mutex_lock(&counters_mutex);
    value = *counter;
    pthread_mutex_unlock(&counters_mutex);
    return value;
}

static void bump(int* counter)
{
    pthread_mutex_lock(&counters_mutex);
    ++*counter;
    pthread_mutex_unlock(&counters_mutex);
}

EXPORT int fake_poll_calls(void)
{
    return read_counter(&poll_calls);
}

EXPORT int fake_release_calls(void)
{
    return read_counter(&release_calls);
}

EXPORT int fake_destroy_calls(void)
{
    return read_counter(&destroy_calls);
}

EXPORT unsigned long long fake_samples_taken(void)
{
    unsigned long long value;
    pthread_mutex_lock(&counters_mutex);
    value = samples_taken;
    pthread_mutex_unlock(&counters_mutex);
    return value;
}

EXPORT void fake_create_params_bytes(unsigned char* out)
{
    memcpy(out, create_bytes, sizeof(create_bytes));
}

/* The strings of the last creation record, copied when it was received (index as above). */
EXPORT const char* fake_create_string(int index)
{
    return index >= 0 && index < CREATE_STRINGS ? create_strings[index] : NULL;
}

EXPORT int fake_create_calls(void)
{
    return create_calls;
}

EXPORT int fake_exit_mode(void)
{
    return last_exit_mode;
}

EXPORT int fake_last_code(char* out, int size)
{
    if (last_code_length >= 0 && size > 0)
        memcpy(out, last_code, (size_t)(last_code_length < size ? last_code_length : size));
    return last_code_length;
}

static void now(struct timespec* ts)
{
    clock_gettime(CLOCK_MONOTONIC, ts);
}

static long long ms_since(const struct timespec* t)
{
    struct timespec n;
    now(&n);
    return (n.tv_sec - t->tv_sec) * 1000LL + (n.tv_nsec - t->tv_nsec) / 1000000;
}

static void wait_ms(pthread_cond_t* cond, pthread_mutex_t* mutex, long ms)
{
    struct timespec until;
    now(&until);
    until.tv_nsec += (ms % 1000) * 1000000L;
    until.tv_sec += ms / 1000 + until.tv_nsec / 1000000000L;
    until.tv_nsec %= 1000000000L;
    pthread_cond_timedwait(cond, mutex, &until);
}

static int parse_modes(const char* text, int* modes)
{
    char buffer[512];
    char* save = NULL;
    char* token;
    size_t i;
    if (!text || !text[0])
        return 1;
    if (strlen(text) >= sizeof(buffer)) {
        fprintf(stderr, "fake-playing: ORVELLO_FAKE_MODES is too long\n");
        return 0;
    }
    strcpy(buffer, text);
    for (token = strtok_r(buffer, ",", &save); token; token = strtok_r(NULL, ",", &save)) {
        int found = 0;
        for (i = 0; i < sizeof(mode_names) / sizeof(mode_names[0]); ++i) {
            if (strcmp(token, mode_names[i].name) == 0) {
                *modes |= mode_names[i].bit;
                found = 1;
            }
        }
        if (!found) {
            fprintf(stderr, "fake-playing: unknown mode '%s' in ORVELLO_FAKE_MODES\n", token);
            return 0;
        }
    }
    return 1;
}

/* The built-in modes and those of the environment. */
static int read_modes(int* modes)
{
#ifndef FAKE_MODES
#define FAKE_MODES ""
#endif
    *modes = 0;
    return parse_modes(FAKE_MODES, modes) && parse_modes(getenv("ORVELLO_FAKE_MODES"), modes);
}

static unsigned long long song_length(const oplayer* p)
{
    return (unsigned long long)SONG_SECONDS * (unsigned long long)p->rate * (unsigned long long)p->channels;
}

/* With the mutex held: the pause change the announcing thread is to pass on. */
static void announce_pause(oplayer* p, int paused)
{
    p->pause_to_announce = paused;
    pthread_cond_broadcast(&p->cond);
}

/* The second thread of two-threads: pause and volume announcements, and data calls that offer
 * nothing, while the producer delivers the audio. */
static void* announcer_thread(void* arg)
{
    oplayer* p = (oplayer*)arg;
    oplayer_audio_api* audio = p->audio;
    short nothing = 0;
    unsigned int out = 0;
    int turn = 0;
    pthread_mutex_lock(&p->mutex);
    while (!p->quit) {
        int pause = p->pause_to_announce;
        int volume = p->volume;
        int started = p->started;
        p->pause_to_announce = -1;
        pthread_mutex_unlock(&p->mutex);
        if (pause >= 0)
            audio->pause_changed(audio, pause);
        if (started) {
            audio->data(audio, &nothing, 0, &out);
            if (++turn % 50 == 0)
                audio->volume_changed(audio, volume);
        }
        pthread_mutex_lock(&p->mutex);
        if (!p->quit && p->pause_to_announce < 0)
            wait_ms(&p->cond, &p->mutex, 1);
    }
    pthread_mutex_unlock(&p->mutex);
    return NULL;
}

static void* producer_thread(void* arg)
{
    oplayer* p = (oplayer*)arg;
    oplayer_audio_api* audio = p->audio;
    short chunk[CHUNK_SAMPLES];
    /* With two threads, the pause changes after the start come from the other one. */
    const int announces = !(p->modes & MODE_TWO_THREADS);

    pthread_mutex_lock(&p->mutex);
    while (!p->quit || (p->started && !p->shutdown_done)) {
        unsigned long long left;
        unsigned long count;
        unsigned long taken;
        unsigned long i;
        unsigned int out = 0;
        if ((p->loop_ended || p->quit) && p->started && !p->shutdown_done) {
            p->shutdown_done = 1;
            pthread_mutex_unlock(&p->mutex);
            audio->shutdown(audio);
            pthread_mutex_lock(&p->mutex);
            continue;
        }
        if (p->start_requested && !p->started && !p->loop_ended) {
            int volume = p->volume;
            p->started = 1;
            p->paused = 0;
            p->new_data = 1;
            pthread_mutex_unlock(&p->mutex);
            audio->init(audio, p->channels, p->rate);
            audio->pause_changed(audio, 0);
            if (p->modes & MODE_EARLY_AUDIO)
                audio->volume_changed(audio, volume);
            pthread_mutex_lock(&p->mutex);
            continue;
        }
        if (announces && p->pause_to_announce >= 0) {
            int paused = p->pause_to_announce;
            p->pause_to_announce = -1;
            pthread_mutex_unlock(&p->mutex);
            audio->pause_changed(audio, paused);
            pthread_mutex_lock(&p->mutex);
            continue;
        }
        if (!p->started || p->paused || p->loop_ended) {
            pthread_cond_wait(&p->cond, &p->mutex);
            continue;
        }
        if (p->song_samples >= song_length(p)) {
            if (p->exit_mode == OPLAYER_EXIT_AT_END_OF_SONG) {
                p->loop_ended = 1;
                pthread_cond_broadcast(&p->cond);
                continue;
            }
            ++p->song;
            p->song_samples = 0;
            p->last_second = 0;
            p->new_data = 1;
        }
        left = song_length(p) - p->song_samples;
        count = left < CHUNK_SAMPLES ? (unsigned long)left : CHUNK_SAMPLES;
        for (i = 0; i < count; ++i)
            chunk[i] = (short)(unsigned short)((p->next_sample + i) & 0xFFFFu);
        pthread_mutex_unlock(&p->mutex);
        taken = audio->data(audio, chunk, count, &out);
        pthread_mutex_lock(&p->mutex);
        if (!p->early_done) {
            p->early_done = 1;
            pthread_cond_broadcast(&p->cond);
        }
        if (taken > count)
            taken = count;
        if (taken == 0) {
            wait_ms(&p->cond, &p->mutex, 2);
            continue;
        }
        p->next_sample += taken;
        p->song_samples += taken;
        pthread_mutex_lock(&counters_mutex);
        samples_taken += taken;
        pthread_mutex_unlock(&counters_mutex);
        if ((long long)(p->song_samples / ((unsigned long long)p->rate * (unsigned long long)p->channels))
            != p->last_second) {
            p->last_second = (long long)(p->song_samples / ((unsigned long long)p->rate * (unsigned long long)p->channels));
            p->new_data = 1;
        }
    }
    pthread_mutex_unlock(&p->mutex);
    return NULL;
}

static void free_instance(oplayer* p)
{
    pthread_cond_destroy(&p->cond);
    pthread_mutex_destroy(&p->mutex);
    free(p);
}

static int fake_create(oplayer_create_params params, oplayer** player)
{
    oplayer* p;
    pthread_condattr_t attr;
    char token[256];
    const char* strings[CREATE_STRINGS] = {params.cache_dir, params.serial_number, params.product_name,
                                           params.vendor_secret, params.client_version};
    int modes;
    int i;

    ++create_calls;
    memcpy(create_bytes, &params, sizeof(params));
    for (i = 0; i < CREATE_STRINGS; ++i)
        snprintf(create_strings[i], sizeof(create_strings[i]), "%s", strings[i] ? strings[i] : "");
    if (!player)
        return 22;
    *player = NULL;
    if (!read_modes(&modes))
        return 22;
    if (modes & MODE_CREATE_FAILS)
        return 5;
    if (params.init_tag != OPLAYER_INIT_TAG || !params.audio_api || !params.audio_api->init
        || !params.audio_api->shutdown || !params.audio_api->data || !params.audio_api->pause_changed
        || !params.audio_api->volume_changed || params.output_channels < 1 || params.output_channels > 8
        || params.output_sample_rate < 8000) {
        fprintf(stderr, "fake-playing: unusable creation record\n");
        return 22;
    }
    p = calloc(1, sizeof(*p));
    if (!p)
        return 12;
    p->audio = params.audio_api;
    p->modes = modes;
    p->channels = params.output_channels;
    p->rate = params.output_sample_rate;
    p->save_token = params.save_token;
    p->pause_to_announce = -1;
    p->volume = 80;
    now(&p->created);
    pthread_mutex_init(&p->mutex, NULL);
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&p->cond, &attr);
    pthread_condattr_destroy(&attr);

    memset(token, 0, sizeof(token));
    if (params.load_token)
        params.load_token(token, sizeof(token) - 1);
    if (modes & MODE_EARLY_AUDIO)
        p->start_requested = 1;

    if (pthread_create(&p->producer, NULL, producer_thread, p) != 0) {
        free_instance(p);
        return 11;
    }
    if (modes & MODE_TWO_THREADS) {
        if (pthread_create(&p->announcer, NULL, announcer_thread, p) != 0) {
            pthread_mutex_lock(&p->mutex);
            p->quit = 1;
            pthread_cond_broadcast(&p->cond);
            pthread_mutex_unlock(&p->mutex);
            pthread_join(p->producer, NULL);
            free_instance(p);
            return 11;
        }
        p->has_announcer = 1;
    }
    pthread_mutex_lock(&p->mutex);
    if (modes & MODE_EARLY_AUDIO) {
        while (!p->early_done)
            pthread_cond_wait(&p->cond, &p->mutex);
    } else if (token[0]) {
        /* Polite: the first run_once starts playing, once the host has wired its callbacks. */
        p->play_on_first_run = 1;
    }
    pthread_mutex_unlock(&p->mutex);
    *player = p;
    return modes & MODE_CREATE_FAILS_WITH_HANDLE ? 9 : 0;
}

static void fake_destroy(oplayer* p)
{
    if (!p)
        return;
    bump(&destroy_calls);
    pthread_mutex_lock(&p->mutex);
    p->quit = 1;
    pthread_cond_broadcast(&p->cond);
    pthread_mutex_unlock(&p->mutex);
    pthread_join(p->producer, NULL);
    if (p->has_announcer)
        pthread_join(p->announcer, NULL);
    free_instance(p);
}

static void fake_get_version(void* reserved, char* buffer, size_t size)
{
    (void)reserved;
    if (buffer && size > 0)
        snprintf(buffer, size, "%s", FAKE_VERSION);
}

static void start_playing(oplayer* p)
{
    p->play_on_first_run = 0;
    p->start_requested = 1;
    pthread_cond_broadcast(&p->cond);
}

__attribute__((unused)) static int fake_run_once(oplayer* p)
{
    int running;
    if (p->modes & MODE_SLOW_RUN_ONCE) {
        struct timespec slow = {0, SLOW_RUN_ONCE_MS * 1000000L};
        nanosleep(&slow, NULL);
    }
    pthread_mutex_lock(&p->mutex);
    if (p->play_on_first_run)
        start_playing(p);
    if (!p->loop_ended) {
        if ((p->modes & MODE_LOOP_ENDS) && ms_since(&p->created) >= LOOP_ENDS_AFTER_MS)
            p->loop_ended = 1;
        else if (p->exit_mode && (p->exit_mode != OPLAYER_EXIT_AT_END_OF_SONG || !p->started || p->paused))
            p->loop_ended = 1;
        else if (!p->new_data)
            wait_ms(&p->cond, &p->mutex, 2);
        if (p->loop_ended)
            pthread_cond_broadcast(&p->cond);
    }
    running = !p->loop_ended;
    pthread_mutex_unlock(&p->mutex);
    return running;
}

static void fake_request_exit(oplayer* p, int mode)
{
    last_exit_mode = mode;
    pthread_mutex_lock(&p->mutex);
    p->exit_mode = mode == OPLAYER_EXIT_AT_END_OF_SONG ? mode : 1;
    pthread_cond_broadcast(&p->cond);
    pthread_mutex_unlock(&p->mutex);
}

static int fake_has_new_data(oplayer* p)
{
    int result;
    pthread_mutex_lock(&p->mutex);
    result = p->new_data;
    p->new_data = 0;
    pthread_mutex_unlock(&p->mutex);
    return result;
}

static int fake_pause(oplayer* p)
{
    int done = 0;
    pthread_mutex_lock(&p->mutex);
    if (p->started && !p->paused) {
        p->paused = 1;
        announce_pause(p, 1);
        done = 1;
    }
    pthread_mutex_unlock(&p->mutex);
    return done;
}

static int fake_resume(oplayer* p)
{
    pthread_mutex_lock(&p->mutex);
    if (!p->started) {
        start_playing(p);
    } else if (p->paused) {
        p->paused = 0;
        announce_pause(p, 0);
    }
    pthread_mutex_unlock(&p->mutex);
    return 1;
}

static int fake_skip(oplayer* p, int tracks)
{
    (void)p;
    (void)tracks;
    return 0;
}

static int fake_get_volume(oplayer* p)
{
    int volume;
    pthread_mutex_lock(&p->mutex);
    volume = p->volume;
    pthread_mutex_unlock(&p->mutex);
    return volume;
}

/* The counter is the signal, so the volume scales nothing; it is only remembered. */
static int fake_set_volume(oplayer* p, int volume)
{
    pthread_mutex_lock(&p->mutex);
    p->volume = volume;
    pthread_mutex_unlock(&p->mutex);
    return 1;
}

static int fake_is_paused(oplayer* p)
{
    int paused;
    pthread_mutex_lock(&p->mutex);
    paused = !p->started || p->paused;
    pthread_mutex_unlock(&p->mutex);
    return paused;
}

typedef struct fake_track {
    oplayer_track_metadata metadata;
    char title[64];
    char image[64];
    const char* artists[1];
} fake_track;

static oplayer_track_metadata* fake_get_current(oplayer* p)
{
    fake_track* track;
    if (p->modes & MODE_NULL_RECORD)
        return NULL;
    track = calloc(1, sizeof(*track));
    if (!track)
        return NULL;
    pthread_mutex_lock(&p->mutex);
    snprintf(track->title, sizeof(track->title), "Counter %d", p->song + 1);
    snprintf(track->image, sizeof(track->image), "https://art.fake.invalid/%d.png", p->song + 1);
    track->metadata.position = (int32_t)p->last_second;
    pthread_mutex_unlock(&p->mutex);
    track->metadata.duration = SONG_SECONDS * 1000;
    track->metadata.artist_count = p->modes & MODE_NULL_STRINGS ? 2 : 1;
    if (!(p->modes & MODE_NULL_STRINGS)) {
        track->artists[0] = "The Counters";
        track->metadata.title = track->title;
        track->metadata.album = "Running Numbers";
        track->metadata.artists = track->artists;
        track->metadata.image = track->image;
    }
    return &track->metadata;
}

static void fake_release_track(oplayer_track_metadata* metadata)
{
    free(metadata); /* the record is the first member */
}

static int fake_pair_start(oplayer* p, const char* code, int length)
{
    if (length < 0)
        return 22;
    last_code_length = length < (int)sizeof(last_code) ? length : (int)sizeof(last_code);
    if (last_code_length > 0)
        memcpy(last_code, code, (size_t)last_code_length);
    if (p->modes & MODE_PAIR_START_ERROR)
        return 7;
    pthread_mutex_lock(&p->mutex);
    p->pairing_active = 1;
    now(&p->pairing_due);
    p->pairing_due.tv_nsec += PAIRING_DELAY_MS * 1000000L;
    p->pairing_due.tv_sec += p->pairing_due.tv_nsec / 1000000000L;
    p->pairing_due.tv_nsec %= 1000000000L;
    pthread_mutex_unlock(&p->mutex);
    return 0;
}

static oplayer_pairing_result* fake_pair_poll(oplayer* p)
{
    oplayer_pairing_result* result = NULL;
    struct timespec t;
    bump(&poll_calls);
    now(&t);
    pthread_mutex_lock(&p->mutex);
    if (p->pairing_active && !(p->modes & MODE_PAIR_NEVER) && (!(p->modes & MODE_PAIR_AT_END) || p->loop_ended)
        && (t.tv_sec > p->pairing_due.tv_sec
            || (t.tv_sec == p->pairing_due.tv_sec && t.tv_nsec >= p->pairing_due.tv_nsec))) {
        p->pairing_active = 0;
        p->pairing_result.success = !(p->modes & MODE_PAIR_FAILS);
        p->pairing_result.message = NULL;
        p->pairing_result.device_id = p->modes & (MODE_NULL_STRINGS | MODE_PAIR_FAILS) ? NULL : "fake-device-2";
        result = &p->pairing_result;
        if (result->success)
            start_playing(p);
    }
    pthread_mutex_unlock(&p->mutex);
    if (result && result->success && p->save_token)
        p->save_token("fake-token");
    return result;
}

static void fake_pair_release(oplayer_pairing_result* result)
{
    (void)result;
    bump(&release_calls);
}

static const oplayer_controls_api controls = {
    NULL, fake_has_new_data, fake_pause, fake_resume, fake_skip, fake_get_volume, fake_set_volume, fake_is_paused,
};
static const oplayer_metadata_api metadata = {NULL, NULL, fake_get_current, NULL, NULL, fake_release_track};
static const oplayer_pairing_api pairing = {NULL, fake_pair_start, fake_pair_poll, fake_pair_release};
static const oplayer_controls_api no_controls;
static const oplayer_metadata_api no_metadata;
static const oplayer_pairing_api no_pairing;

/* The table getters take no instance, so they read the modes themselves. */
static int table_modes(void)
{
    int modes = 0;
    return read_modes(&modes) ? modes : 0;
}

static const oplayer_controls_api* fake_controls_api(void)
{
    const int modes = table_modes();
    return modes & MODE_NULL_TABLES ? NULL : modes & MODE_NULL_ENTRIES ? &no_controls : &controls;
}

static const oplayer_metadata_api* fake_metadata_api(void)
{
    const int modes = table_modes();
    return modes & MODE_NULL_TABLES ? NULL : modes & MODE_NULL_ENTRIES ? &no_metadata : &metadata;
}

static const oplayer_pairing_api* fake_pairing_api(void)
{
    const int modes = table_modes();
    return modes & MODE_NULL_TABLES ? NULL : modes & MODE_NULL_ENTRIES ? &no_pairing : &pairing;
}

#ifdef FAKE_NO_SYMBOL
#define FAKE_TABLE_NAME fake_table_without_entry_name
#else
#define FAKE_TABLE_NAME OPLAYER_API_5TQX2M
#endif

EXPORT const oplayer_api FAKE_TABLE_NAME = {
    NULL,
    fake_create,
    fake_destroy,
    fake_get_version,
#ifdef FAKE_NO_RUN_ONCE
    NULL,
#else
    fake_run_once,
#endif
    fake_request_exit,
    NULL,
    fake_controls_api,
    fake_metadata_api,
    fake_pairing_api,
};

#ifdef FAKE_PLANTED
__attribute__((constructor)) static void fake_planted_code_runs(void)
{
    const char* mark = getenv("ORVELLO_PLANTED_MARK");
    FILE* file = mark ? fopen(mark, "a") : NULL;
    if (file) {
        fprintf(file, "uid=%d\n", (int)getuid());
        fclose(file);
    }
}
#endif
