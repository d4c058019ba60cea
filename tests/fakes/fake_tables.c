/* The scripted player library's tables: controls, track data and pairing, and the modes that
 * leave them out (null-tables, null-entries, null-record, null-strings) or script the pairing
 * (pair-never, pair-at-end, pair-start-error, pair-fails). */
#include "fake_playing.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

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

const oplayer_controls_api* fake_controls_api(void)
{
    const int modes = table_modes();
    return modes & MODE_NULL_TABLES ? NULL : modes & MODE_NULL_ENTRIES ? &no_controls : &controls;
}

const oplayer_metadata_api* fake_metadata_api(void)
{
    const int modes = table_modes();
    return modes & MODE_NULL_TABLES ? NULL : modes & MODE_NULL_ENTRIES ? &no_metadata : &metadata;
}

const oplayer_pairing_api* fake_pairing_api(void)
{
    const int modes = table_modes();
    return modes & MODE_NULL_TABLES ? NULL : modes & MODE_NULL_ENTRIES ? &no_pairing : &pairing;
}

