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
 *
 * This file holds the instance (create, the loop, exit) and the modes; the audio threads are in
 * fake_audio.c, the controls, track and pairing tables in fake_tables.c, and what the tests read
 * back in fake_records.c.
 */
#include "fake_playing.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

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
int read_modes(int* modes)
{
#ifndef FAKE_MODES
#define FAKE_MODES ""
#endif
    *modes = 0;
    return parse_modes(FAKE_MODES, modes) && parse_modes(getenv("ORVELLO_FAKE_MODES"), modes);
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
