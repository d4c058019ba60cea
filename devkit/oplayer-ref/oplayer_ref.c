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
 */
#define _GNU_SOURCE
#include "oplayer/oplayer.h"
#include "station.h"

#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#ifndef OPLAYER_REF_VERSION
#error "OPLAYER_REF_VERSION must be set by the build"
#endif

#define EXPORT __attribute__((visibility("default")))

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

typedef struct ref_track_record {
    oplayer_track_metadata metadata;
    char* strings[4];
    char** artists;
    int artist_count;
} ref_track_record;

static void now(struct timespec* ts)
{
    clock_gettime(CLOCK_MONOTONIC, ts);
}

static void add_ns(struct timespec* ts, long ns)
{
    ts->tv_nsec += ns % 1000000000L;
    ts->tv_sec += ns / 1000000000L;
    if (ts->tv_nsec >= 1000000000L) {
        ts->tv_nsec -= 1000000000L;
        ts->tv_sec += 1;
    }
}

static int before(const struct timespec* a, const struct timespec* b)
{
    return a->tv_sec < b->tv_sec || (a->tv_sec == b->tv_sec && a->tv_nsec < b->tv_nsec);
}

/* One line per write() on an O_APPEND descriptor, so lines of other writers never mix in. */
static void trace(const oplayer* p, const char* event, unsigned long a, unsigned long b)
{
    struct timespec t;
    char line[128];
    int n;
    if (p->trace_fd < 0)
        return;
    now(&t);
    n = snprintf(line, sizeof(line), "%lld %s %lu %lu %s\n", (long long)t.tv_sec * 1000000000LL + t.tv_nsec, event, a, b,
                 OPLAYER_REF_VERSION);
    if (n > 0 && n < (int)sizeof(line) && write(p->trace_fd, line, (size_t)n) != n)
        fprintf(stderr, "oplayer-ref: trace line not written\n");
}

static char* dup_string(const char* s)
{
    return strdup(s ? s : "");
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

/* mkdir -p: every missing directory of path, with mode 0755. */
static int make_directories(const char* path)
{
    char* copy = strdup(path);
    char* slash;
    int result = 0;
    if (!copy)
        return ENOMEM;
    for (slash = strchr(copy + 1, '/'); result == 0; slash = strchr(slash + 1, '/')) {
        if (slash)
            *slash = '\0';
        if (mkdir(copy, 0755) != 0 && errno != EEXIST)
            result = errno;
        if (!slash)
            break;
        *slash = '/';
    }
    free(copy);
    return result;
}

/* Reads where the station was and sets the track to go on with; a station without a usable
 * position starts at its first track. Notes on standard error say which. */
static void load_position(oplayer* p, const char* cache_dir)
{
    char text[64];
    char expected[64];
    int track = 0;
    int count = 0;
    size_t length;
    FILE* file;
    int error;

    if (!cache_dir || !cache_dir[0]) {
        fprintf(stderr, "oplayer-ref: no cache directory; starting at the first track, the position is not kept\n");
        return;
    }
    error = make_directories(cache_dir);
    if (error != 0) {
        fprintf(stderr, "oplayer-ref: cannot create the cache directory %s: %s; starting at the first track, "
                        "the position is not kept\n", cache_dir, strerror(error));
        return;
    }
    if (asprintf(&p->position_file, "%s/%s", cache_dir, POSITION_FILE) < 0) {
        p->position_file = NULL;
        fprintf(stderr, "oplayer-ref: out of memory; starting at the first track, the position is not kept\n");
        return;
    }
    file = fopen(p->position_file, "re");
    if (!file) {
        if (errno == ENOENT)
            fprintf(stderr, "oplayer-ref: no position in %s yet; starting at the first track\n", cache_dir);
        else
            fprintf(stderr, "oplayer-ref: cannot read %s: %s; starting at the first track\n", p->position_file,
                    strerror(errno));
        return;
    }
    length = fread(text, 1, sizeof(text) - 1, file);
    error = ferror(file) ? errno : 0;
    fclose(file);
    text[length] = '\0';
    if (error != 0) {
        fprintf(stderr, "oplayer-ref: cannot read %s: %s; starting at the first track\n", p->position_file,
                strerror(error));
        return;
    }
    /* Only what save_position writes counts: "track N of M" and a newline, nothing else. */
    if (sscanf(text, "track %d of %d", &track, &count) != 2
        || snprintf(expected, sizeof(expected), "track %d of %d\n", track, count) != (int)length
        || memcmp(expected, text, length) != 0) {
        fprintf(stderr, "oplayer-ref: %s is damaged; starting at the first track\n", p->position_file);
        return;
    }
    if (count != p->station.count || track < 1 || track > count) {
        fprintf(stderr, "oplayer-ref: %s names track %d of %d, this station has %d tracks; starting at the first track\n",
                p->position_file, track, count, p->station.count);
        return;
    }
    p->current = track % count;
    fprintf(stderr, "oplayer-ref: track %d of %d (\"%s\") played last; going on with track %d (\"%s\")\n", track, count,
            p->station.tracks[track - 1].title, p->current + 1, p->station.tracks[p->current].title);
}

/* Audio thread, without the mutex. Written to a new file that then replaces the old one, so a
 * power cut leaves the old position or the new one, never a part. */
static void save_position(oplayer* p, int index)
{
    char* temporary = NULL;
    char text[64];
    int length;
    int fd = -1;
    int error = 0;

    if (!p->position_file)
        return;
    length = snprintf(text, sizeof(text), "track %d of %d\n", index + 1, p->station.count);
    errno = 0;
    if (asprintf(&temporary, "%s.XXXXXX", p->position_file) < 0) {
        temporary = NULL;
        error = ENOMEM;
    } else if ((fd = mkostemp(temporary, O_CLOEXEC)) < 0 || fchmod(fd, 0644) != 0
               || write(fd, text, (size_t)length) != length || fsync(fd) != 0) {
        error = errno ? errno : EIO;
    }
    if (fd >= 0 && close(fd) != 0 && error == 0)
        error = errno;
    if (error == 0 && rename(temporary, p->position_file) != 0)
        error = errno;
    if (error != 0 && fd >= 0)
        unlink(temporary);
    free(temporary);
    if (error != 0 && !p->position_unsaved)
        fprintf(stderr, "oplayer-ref: cannot keep the position in %s: %s; playing on\n", p->position_file,
                strerror(error));
    else if (error == 0 && p->position_unsaved)
        fprintf(stderr, "oplayer-ref: the position is kept in %s again\n", p->position_file);
    p->position_unsaved = error != 0;
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

static void* audio_thread(void* arg)
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
            save_position(p, index);
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
            now(&called);
        unsigned long taken = audio->data(audio, chunk + offset, length - offset, &out);
        if (taken > length - offset)
            taken = length - offset;
        if (taken > 0)
            trace(p, "data", taken * sizeof(short),
                  (unsigned long)called.tv_sec * 1000000000UL + (unsigned long)called.tv_nsec);
        pthread_mutex_lock(&p->mutex);
        if (taken == 0) {
            struct timespec until;
            now(&until);
            add_ns(&until, RETRY_WAIT_NS);
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
    load_position(p, params.cache_dir);

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

    if (pthread_create(&p->thread, NULL, audio_thread, p) != 0) {
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

static int pairing_due(const oplayer* p, const struct timespec* at)
{
    return p->pairing_active && !before(at, &p->pairing_due);
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
    return (!p->started || p->paused) && !p->pairing_active;
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
    now(&deadline);
    add_ns(&deadline, IDLE_WAIT_NS);
    if (p->pairing_active && before(&p->pairing_due, &deadline))
        deadline = p->pairing_due;
    for (;;) {
        now(&t);
        if (p->loop_ended || p->new_data || exit_now(p) || pairing_due(p, &t) || !before(&t, &deadline))
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
    if (volume != p->volume) {
        p->volume = volume;
        p->volume_to_announce = volume;
        pthread_cond_broadcast(&p->cond);
    }
    pthread_mutex_unlock(&p->mutex);
    return 1;
}

static int ref_is_paused(oplayer* p)
{
    int paused;
    if (!p)
        return 1;
    pthread_mutex_lock(&p->mutex);
    paused = !(p->started || p->start_requested) || p->paused || p->loop_ended;
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

static int ref_pairing_start(oplayer* p, const char* code, int length)
{
    char* copy;
    if (!p || length < 0 || (!code && length > 0))
        return REF_ERR_ARGUMENT;
    copy = malloc((size_t)length + 1);
    if (!copy)
        return REF_ERR_NO_MEMORY;
    if (length > 0)
        memcpy(copy, code, (size_t)length);
    copy[length] = '\0';
    pthread_mutex_lock(&p->mutex);
    if (p->pairing_active) {
        pthread_mutex_unlock(&p->mutex);
        free(copy);
        return REF_ERR_PAIRING_BUSY;
    }
    free(p->pairing_code);
    p->pairing_code = copy;
    p->pairing_length = length;
    p->pairing_active = 1;
    now(&p->pairing_due);
    add_ns(&p->pairing_due, PAIRING_DELAY_NS);
    pthread_mutex_unlock(&p->mutex);
    return 0;
}

static unsigned int fnv1a(const char* text, int length)
{
    unsigned int hash = 2166136261u;
    int i;
    for (i = 0; i < length; ++i)
        hash = (hash ^ (unsigned char)text[i]) * 16777619u;
    return hash;
}

static oplayer_pairing_result* ref_pairing_poll(oplayer* p)
{
    oplayer_pairing_result* result;
    struct timespec t;
    char text[128];
    char token[64];
    unsigned int hash;
    if (!p)
        return NULL;
    now(&t);
    pthread_mutex_lock(&p->mutex);
    if (!pairing_due(p, &t)) {
        pthread_mutex_unlock(&p->mutex);
        return NULL;
    }
    result = calloc(1, sizeof(*result));
    if (!result) {
        pthread_mutex_unlock(&p->mutex);
        return NULL;
    }
    p->pairing_active = 0;
    hash = fnv1a(p->pairing_code, p->pairing_length);
    token[0] = '\0';
    if (p->pairing_length == 0) {
        result->message = strdup("The pairing code is empty");
    } else if (p->pairing_code[0] == 'Z') {
        snprintf(text, sizeof(text), "The pairing code %.64s was refused by the service", p->pairing_code);
        result->message = strdup(text);
    } else {
        result->success = 1;
        snprintf(text, sizeof(text), "oplayer-ref-%08x", hash);
        result->device_id = strdup(text);
        snprintf(token, sizeof(token), "ref-token-%08x", hash ^ 0x5a5a5a5au);
        if (!p->started)
            p->start_requested = 1;
        pthread_cond_broadcast(&p->cond);
    }
    pthread_mutex_unlock(&p->mutex);
    if (token[0] && p->save_token)
        p->save_token(token);
    return result;
}

static void ref_pairing_release(oplayer_pairing_result* result)
{
    if (!result)
        return;
    free((char*)result->message);
    free((char*)result->device_id);
    free(result);
}

static const oplayer_controls_api controls = {
    NULL, ref_has_new_data, ref_pause, ref_resume, ref_skip, ref_get_volume, ref_set_volume, ref_is_paused,
};

static const oplayer_metadata_api metadata = {
    NULL, NULL, ref_get_current, NULL, NULL, ref_release_track,
};

static const oplayer_pairing_api pairing = {
    NULL, ref_pairing_start, ref_pairing_poll, ref_pairing_release,
};

static const oplayer_controls_api* ref_controls_api(void)
{
    return &controls;
}

static const oplayer_metadata_api* ref_metadata_api(void)
{
    return &metadata;
}

static const oplayer_pairing_api* ref_pairing_api(void)
{
    return &pairing;
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
