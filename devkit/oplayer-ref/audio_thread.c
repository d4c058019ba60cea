/* The audio thread: one per instance. It pushes PCM as fast as the host takes it, re-offering
 * what was not consumed, and makes every call into the host's audio table. */
#define _GNU_SOURCE
#include "instance.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

/* One line per write() on an O_APPEND descriptor, so lines of other writers never mix in. */
static void trace(const oplayer* p, const char* event, unsigned long a, unsigned long b)
{
    struct timespec t;
    char line[128];
    int n;
    if (p->trace_fd < 0)
        return;
    ref_now(&t);
    n = snprintf(line, sizeof(line), "%lld %s %lu %lu %s\n", (long long)t.tv_sec * 1000000000LL + t.tv_nsec, event, a, b,
                 OPLAYER_REF_VERSION);
    if (n > 0 && n < (int)sizeof(line) && write(p->trace_fd, line, (size_t)n) != n)
        fprintf(stderr, "oplayer-ref: trace line not written\n");
}

static unsigned long long track_samples(const oplayer* p, int index)
{
    return (unsigned long long)p->station.tracks[index].frames * (unsigned long long)p->channels;
}

static void goto_track(oplayer* p, int index)
{
    int count = p->station.count;
    p->current = ((index % count) + count) % count;
    p->position_to_save = p->current;
    p->consumed = 0;
    p->last_second = 0;
    p->new_data = 1;
}

/* Called with the mutex held; fills at most CHUNK_FRAMES frames from the frame holding the
 * current position (the host may have taken part of a frame). */
static unsigned long fill_chunk(oplayer* p, short* chunk)
{
    const ref_track* track = &p->station.tracks[p->current];
    unsigned long long first = p->consumed / (unsigned long long)p->channels;
    unsigned long long left = track->frames - first;
    unsigned long frames = left < CHUNK_FRAMES ? (unsigned long)left : CHUNK_FRAMES;
    double gain = p->volume / 100.0;
    unsigned long f;
    int c;
    for (f = 0; f < frames; ++f) {
        unsigned long long frame = first + f;
        for (c = 0; c < p->channels; ++c) {
            double value;
            if (track->pcm)
                value = track->pcm[frame * (unsigned long long)p->channels + (unsigned long long)c];
            else
                value = 0.3 * 32767.0 * sin(2.0 * M_PI * track->frequency * (double)frame / p->rate);
            chunk[f * (unsigned long)p->channels + (unsigned long)c] = (short)lrint(value * gain);
        }
    }
    return frames * (unsigned long)p->channels;
}

void* ref_audio_thread(void* arg)
{
    oplayer* p = (oplayer*)arg;
    oplayer_audio_api* audio = p->audio;
    short* chunk = malloc(sizeof(short) * CHUNK_FRAMES * (size_t)p->channels);
    unsigned long offset = 0;
    unsigned long length = 0;
    unsigned int out = 0;

    pthread_mutex_lock(&p->mutex);
    while (chunk) {
        if ((p->loop_ended || p->quit) && p->started && !p->shutdown_done) {
            p->shutdown_done = 1;
            pthread_mutex_unlock(&p->mutex);
            trace(p, "shutdown", 0, 0);
            audio->shutdown(audio);
            pthread_mutex_lock(&p->mutex);
            continue;
        }
        if (p->quit)
            break;
        if (p->start_requested && !p->started && !p->loop_ended) {
            p->started = 1;
            p->position_to_save = p->current;
            p->paused = 0;
            p->pause_to_announce = -1;
            p->new_data = 1;
            pthread_mutex_unlock(&p->mutex);
            trace(p, "init", (unsigned long)p->channels, (unsigned long)p->rate);
            audio->init(audio, p->channels, p->rate);
            audio->pause_changed(audio, 0);
            pthread_mutex_lock(&p->mutex);
            pthread_cond_broadcast(&p->cond);
            continue;
        }
        if (p->pause_to_announce >= 0) {
            int paused = p->pause_to_announce;
            p->pause_to_announce = -1;
            pthread_mutex_unlock(&p->mutex);
            audio->pause_changed(audio, paused);
            pthread_mutex_lock(&p->mutex);
            continue;
        }
        if (p->volume_to_announce >= 0) {
            int volume = p->volume_to_announce;
            p->volume_to_announce = -1;
            pthread_mutex_unlock(&p->mutex);
            audio->volume_changed(audio, volume);
            pthread_mutex_lock(&p->mutex);
            continue;
        }
        if (p->position_to_save >= 0) {
            int index = p->position_to_save;
            p->position_to_save = -1;
            pthread_mutex_unlock(&p->mutex);
            ref_save_position(p, index);
            pthread_mutex_lock(&p->mutex);
            continue;
        }
        if (p->skip_request != 0) {
            goto_track(p, p->current + p->skip_request);
            p->skip_request = 0;
            offset = length = 0;
            pthread_cond_broadcast(&p->cond);
            if (p->started) {
                pthread_mutex_unlock(&p->mutex);
                audio->flush(audio);
                pthread_mutex_lock(&p->mutex);
            }
            continue;
        }
        if (!p->started || p->paused || p->loop_ended) {
            pthread_cond_wait(&p->cond, &p->mutex);
            continue;
        }
        if (offset == length) {
            if (p->consumed >= track_samples(p, p->current)) {
                if (p->exit_mode == OPLAYER_EXIT_AT_END_OF_SONG) {
                    p->loop_ended = 1;
                    pthread_cond_broadcast(&p->cond);
                    continue;
                }
                goto_track(p, p->current + 1);
                pthread_cond_broadcast(&p->cond);
            }
            length = fill_chunk(p, chunk);
            offset = (unsigned long)(p->consumed % (unsigned long long)p->channels);
        }
        pthread_mutex_unlock(&p->mutex);
        out = 0;
        struct timespec called = {0, 0};
        if (p->trace_fd >= 0)
            ref_now(&called);
        unsigned long taken = audio->data(audio, chunk + offset, length - offset, &out);
        if (taken > length - offset)
            taken = length - offset;
        if (taken > 0)
            trace(p, "data", taken * sizeof(short),
                  (unsigned long)called.tv_sec * 1000000000UL + (unsigned long)called.tv_nsec);
        pthread_mutex_lock(&p->mutex);
        if (taken == 0) {
            struct timespec until;
            ref_now(&until);
            ref_add_ns(&until, RETRY_WAIT_NS);
            pthread_cond_timedwait(&p->cond, &p->mutex, &until);
            continue;
        }
        offset += taken;
        p->consumed += taken;
        p->played += taken;
        if (p->remote_volume >= 0 && p->played >= p->remote_volume_at) {
            if (p->remote_volume != p->volume) {
                p->volume = p->remote_volume;
                p->volume_to_announce = p->volume;
            }
            p->remote_volume = -1;
        }
        long long second = (long long)(p->consumed / ((unsigned long long)p->channels * (unsigned long long)p->rate));
        if (second != p->last_second) {
            p->last_second = second;
            p->new_data = 1;
            pthread_cond_broadcast(&p->cond);
        }
    }
    pthread_mutex_unlock(&p->mutex);
    free(chunk);
    return NULL;
}
