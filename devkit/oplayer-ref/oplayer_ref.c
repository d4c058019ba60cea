/*
 * Reference player library: implements the whole liboplayer-1 interface with a built-in
 * station of synthesized tracks (or the 16-bit PCM files of a directory), so the module can be
 * run and tested without the service's closed library.
 *
 * Threads: the host's thread calls the entry table; one audio thread per instance pushes PCM
 * and makes every call into the host's audio table. All state is guarded by one mutex, which
 * is never held while calling the host or writing a file.
 *
 * The station's position (the track it is on) is kept in the cache directory, so a new
 * instance, after an update swap or a restart, goes on with the next track.
 *
 * This file holds an instance's life, its loop and the exported entry table; position.c,
 * audio_thread.c, playback.c (controls and metadata) and pairing.c the rest.
 */
#define _GNU_SOURCE
#include "instance.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#ifndef OPLAYER_REF_VERSION
#error "OPLAYER_REF_VERSION must be set by the build"
#endif

#define EXPORT __attribute__((visibility("default")))

static void free_instance(oplayer* p)
{
    if (p->trace_fd >= 0)
        close(p->trace_fd);
    ref_station_free(&p->station);
    free(p->position_file);
    free(p->pairing_code);
    pthread_cond_destroy(&p->cond);
    pthread_mutex_destroy(&p->mutex);
    free(p);
}

/* OPLAYER_REF_REMOTE_VOLUME=SECONDS:VOLUME: the volume change that the service makes from its
 * side (its owner moving the volume in the service's own app), after SECONDS of playback. */
static int read_remote_volume(oplayer* p)
{
    const char* text = getenv("OPLAYER_REF_REMOTE_VOLUME");
    const char* volume_text;
    char* end;
    double seconds;
    long volume;
    p->remote_volume = -1;
    if (!text || !text[0])
        return 0;
    errno = 0;
    seconds = strtod(text, &end);
    if (end == text || *end != ':' || errno != 0 || !(seconds >= 0.0 && seconds <= 3600.0))
        goto bad;
    volume_text = end + 1;
    volume = strtol(volume_text, &end, 10);
    if (end == volume_text || *end != '\0' || errno != 0 || volume < 0 || volume > 100)
        goto bad;
    p->remote_volume = (int)volume;
    p->remote_volume_at = (unsigned long long)(seconds * p->rate) * (unsigned long long)p->channels;
    return 0;
bad:
    fprintf(stderr,
            "oplayer-ref: OPLAYER_REF_REMOTE_VOLUME takes SECONDS:VOLUME (seconds of playback from 0 to 3600, "
            "a volume from 0 to 100), not '%s'\n",
            text);
    return -1;
}

static int ref_create(oplayer_create_params params, oplayer** player)
{
    oplayer* p;
    pthread_condattr_t attr;
    char token[TOKEN_MAX + 1];
    char error[256];
    const char* trace_path;
    int result;

    if (!player)
        return REF_ERR_ARGUMENT;
    *player = NULL;
    if (params.init_tag != OPLAYER_INIT_TAG || !params.audio_api || !params.audio_api->init
        || !params.audio_api->shutdown || !params.audio_api->flush || !params.audio_api->data
        || !params.audio_api->pause_changed || !params.audio_api->volume_changed) {
        fprintf(stderr, "oplayer-ref: creation record without init tag %d or with an incomplete audio table\n",
                OPLAYER_INIT_TAG);
        return REF_ERR_ARGUMENT;
    }
    if (params.output_channels < 1 || params.output_channels > REF_MAX_CHANNELS
        || params.output_sample_rate < REF_MIN_RATE || params.output_sample_rate > REF_MAX_RATE) {
        fprintf(stderr, "oplayer-ref: unsupported output format: %d channels at %d Hz\n", params.output_channels,
                params.output_sample_rate);
        return REF_ERR_FORMAT;
    }

    p = calloc(1, sizeof(*p));
    if (!p)
        return REF_ERR_NO_MEMORY;
    p->audio = params.audio_api;
    p->channels = params.output_channels;
    p->rate = params.output_sample_rate;
    p->save_token = params.save_token;
    p->pause_to_announce = -1;
    p->position_to_save = -1;
    p->volume = 80;
    p->volume_to_announce = -1;
    p->trace_fd = -1;
    pthread_mutex_init(&p->mutex, NULL);
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&p->cond, &attr);
    pthread_condattr_destroy(&attr);

    result = ref_station_load(&p->station, p->channels, p->rate, error, sizeof(error));
    if (result != 0) {
        fprintf(stderr, "oplayer-ref: %s\n", error);
        free_instance(p);
        return result == ENOMEM ? REF_ERR_NO_MEMORY : REF_ERR_ENVIRONMENT;
    }
    p->new_data = 1;
    ref_load_position(p, params.cache_dir);

    if (read_remote_volume(p) != 0) {
        free_instance(p);
        return REF_ERR_ENVIRONMENT;
    }

    trace_path = getenv("OPLAYER_REF_TRACE");
    if (trace_path && trace_path[0]) {
        p->trace_fd = open(trace_path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (p->trace_fd < 0) {
            fprintf(stderr, "oplayer-ref: OPLAYER_REF_TRACE: cannot open %s: %s\n", trace_path, strerror(errno));
            free_instance(p);
            return REF_ERR_ENVIRONMENT;
        }
    }

    memset(token, 0, sizeof(token));
    if (params.load_token)
        params.load_token(token, TOKEN_MAX);
    /* Playback starts at the first turn of the loop, once the host has wired its callbacks. */
    p->play_on_first_run = token[0] != '\0';

    if (pthread_create(&p->thread, NULL, ref_audio_thread, p) != 0) {
        free_instance(p);
        return REF_ERR_THREAD;
    }
    *player = p;
    return 0;
}

static void ref_destroy(oplayer* p)
{
    if (!p)
        return;
    pthread_mutex_lock(&p->mutex);
    p->quit = 1;
    pthread_cond_broadcast(&p->cond);
    pthread_mutex_unlock(&p->mutex);
    pthread_join(p->thread, NULL);
    free_instance(p);
}

static void ref_get_version(void* reserved, char* buffer, size_t size)
{
    (void)reserved;
    if (buffer && size > 0)
        snprintf(buffer, size, "%s", OPLAYER_REF_VERSION);
}

/* Called with the mutex held. Only a playing song delays an exit at the end of the song; idle
 * or paused, the loop ends at once, unless a pairing outcome is still to be collected: the
 * host keeps polling the instance that started the pairing, so that instance stays until then. */
static int exit_now(const oplayer* p)
{
    if (!p->exit_mode || p->loop_ended)
        return 0;
    if (p->exit_mode != OPLAYER_EXIT_AT_END_OF_SONG)
        return 1;
    return !ref_song_on(p) && !p->pairing_active;
}

static int ref_run_once(oplayer* p)
{
    struct timespec deadline;
    struct timespec t;
    int running;

    pthread_mutex_lock(&p->mutex);
    if (p->play_on_first_run) {
        p->play_on_first_run = 0;
        p->start_requested = 1;
        pthread_cond_broadcast(&p->cond);
    }
    ref_now(&deadline);
    ref_add_ns(&deadline, IDLE_WAIT_NS);
    if (p->pairing_active && ref_before(&p->pairing_due, &deadline))
        deadline = p->pairing_due;
    for (;;) {
        ref_now(&t);
        if (p->loop_ended || p->new_data || exit_now(p) || ref_pairing_due(p, &t) || !ref_before(&t, &deadline))
            break;
        pthread_cond_timedwait(&p->cond, &p->mutex, &deadline);
    }
    if (exit_now(p)) {
        p->loop_ended = 1;
        pthread_cond_broadcast(&p->cond);
    }
    running = !p->loop_ended;
    pthread_mutex_unlock(&p->mutex);
    return running;
}

static void ref_request_exit(oplayer* p, int mode)
{
    if (!p)
        return;
    pthread_mutex_lock(&p->mutex);
    p->exit_mode = mode == OPLAYER_EXIT_AT_END_OF_SONG ? mode : 1;
    pthread_cond_broadcast(&p->cond);
    pthread_mutex_unlock(&p->mutex);
}

EXPORT const oplayer_api OPLAYER_API_5TQX2M = {
    NULL,
    ref_create,
    ref_destroy,
    ref_get_version,
    ref_run_once,
    ref_request_exit,
    NULL,
    ref_controls_api,
    ref_metadata_api,
    ref_pairing_api,
};
