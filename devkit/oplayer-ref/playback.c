/* Playback controls and the current track: the controls and metadata tables. */
#define _GNU_SOURCE
#include "instance.h"

#include <stdlib.h>
#include <string.h>

typedef struct ref_track_record {
    oplayer_track_metadata metadata;
    char* strings[4];
    char** artists;
    int artist_count;
} ref_track_record;

static char* dup_string(const char* s)
{
    return strdup(s ? s : "");
}

static int ref_has_new_data(oplayer* p)
{
    int result;
    if (!p)
        return 0;
    pthread_mutex_lock(&p->mutex);
    result = p->new_data;
    p->new_data = 0;
    pthread_mutex_unlock(&p->mutex);
    return result;
}

static int ref_pause(oplayer* p)
{
    if (!p)
        return 0;
    pthread_mutex_lock(&p->mutex);
    if (p->started && !p->paused && !p->loop_ended) {
        p->paused = 1;
        p->pause_to_announce = 1;
        pthread_cond_broadcast(&p->cond);
    }
    pthread_mutex_unlock(&p->mutex);
    return 1;
}

static int ref_resume(oplayer* p)
{
    int result = 1;
    if (!p)
        return 0;
    pthread_mutex_lock(&p->mutex);
    if (p->loop_ended) {
        result = 0;
    } else if (!p->started) {
        p->start_requested = 1;
    } else if (p->paused) {
        p->paused = 0;
        p->pause_to_announce = 0;
    }
    pthread_cond_broadcast(&p->cond);
    pthread_mutex_unlock(&p->mutex);
    return result;
}

static int ref_skip(oplayer* p, int tracks)
{
    if (!p)
        return 0;
    pthread_mutex_lock(&p->mutex);
    p->skip_request += tracks;
    pthread_cond_broadcast(&p->cond);
    pthread_mutex_unlock(&p->mutex);
    return 1;
}

static int ref_get_volume(oplayer* p)
{
    int volume;
    if (!p)
        return -1;
    pthread_mutex_lock(&p->mutex);
    volume = p->volume;
    pthread_mutex_unlock(&p->mutex);
    return volume;
}

static int ref_set_volume(oplayer* p, int volume)
{
    if (!p || volume < 0 || volume > 100)
        return 0;
    pthread_mutex_lock(&p->mutex);
    /* The device knows what it set: announcing it back would race the device's next change and
     * could win, turning the volume back to a value the person already left. The device's
     * value is also newer than a service-side change still waiting to be announced. */
    p->volume = volume;
    p->volume_to_announce = -1;
    pthread_mutex_unlock(&p->mutex);
    return 1;
}

static int ref_is_paused(oplayer* p)
{
    int paused;
    if (!p)
        return 1;
    pthread_mutex_lock(&p->mutex);
    paused = !ref_song_on(p) || p->loop_ended;
    pthread_mutex_unlock(&p->mutex);
    return paused;
}

static void ref_release_track(oplayer_track_metadata* metadata)
{
    ref_track_record* record = (ref_track_record*)metadata;
    int i;
    if (!record)
        return;
    for (i = 0; i < 4; ++i)
        free(record->strings[i]);
    for (i = 0; i < record->artist_count; ++i)
        free(record->artists[i]);
    free(record->artists);
    free(record);
}

static oplayer_track_metadata* ref_get_current(oplayer* p)
{
    ref_track_record* record;
    const ref_track* track;
    int i;
    if (!p)
        return NULL;
    record = calloc(1, sizeof(*record));
    if (!record)
        return NULL;
    pthread_mutex_lock(&p->mutex);
    track = &p->station.tracks[p->current];
    record->strings[0] = dup_string(track->title);
    record->strings[1] = dup_string(track->album);
    record->strings[2] = dup_string(track->image);
    record->artists = calloc((size_t)track->artist_count + 1, sizeof(char*));
    if (record->artists) {
        for (i = 0; i < track->artist_count; ++i)
            record->artists[i] = dup_string(track->artists[i]);
        record->artist_count = track->artist_count;
    }
    record->metadata.duration = (int32_t)(track->frames * 1000 / (unsigned long long)p->rate);
    record->metadata.position =
        (int32_t)(p->consumed / ((unsigned long long)p->channels * (unsigned long long)p->rate));
    pthread_mutex_unlock(&p->mutex);
    record->metadata.title = record->strings[0];
    record->metadata.album = record->strings[1];
    record->metadata.image = record->strings[2];
    record->metadata.artists = (const char* const*)record->artists;
    record->metadata.artist_count = record->artist_count;
    return &record->metadata;
}

static const oplayer_controls_api controls = {
    NULL, ref_has_new_data, ref_pause, ref_resume, ref_skip, ref_get_volume, ref_set_volume, ref_is_paused,
};

static const oplayer_metadata_api metadata = {
    NULL, NULL, ref_get_current, NULL, NULL, ref_release_track,
};

const oplayer_controls_api* ref_controls_api(void)
{
    return &controls;
}

const oplayer_metadata_api* ref_metadata_api(void)
{
    return &metadata;
}
