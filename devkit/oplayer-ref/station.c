#define _GNU_SOURCE
#include "station.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifdef OPLAYER_REF_HAVE_SNDFILE
#include <sndfile.h>
#endif

typedef struct builtin_track {
    const char* title;
    const char* album;
    const char* artists[3];
    int artist_count;
    double frequency;
    double seconds;
} builtin_track;

static const builtin_track builtin[] = {
    { "Morning Light", "Open Hours", { "Ada Lumen" }, 1, 440.0, 42.0 },
    { "Quiet Aisles", "Store Hours", { "The Shelf Stackers", "Mo Reyes", "Kit Vale" }, 3, 523.25, 37.0 },
    { "Coffee Break", "Open Hours", { "Nina Ortolan" }, 1, 392.0, 51.0 },
    { "Closing Time", "Late Shift", { "Harbour Lights" }, 1, 329.63, 45.0 },
};

#define MAX_TRACK_SECONDS 3600.0

/* Frees what a track holds and clears it. */
static void free_track(ref_track* track)
{
    int j;
    free(track->title);
    free(track->album);
    free(track->image);
    for (j = 0; j < track->artist_count; ++j)
        free(track->artists[j]);
    free(track->artists);
    free(track->pcm);
    memset(track, 0, sizeof(*track));
}

static void set_error(char* error, size_t size, const char* format, const char* detail)
{
    if (error && size > 0)
        snprintf(error, size, format, detail ? detail : "");
}

static char* art_url(int index)
{
    char url[96];
    snprintf(url, sizeof(url), "https://art.oplayer-ref.invalid/%d.png", index + 1);
    return strdup(url);
}

static int track_set_text(ref_track* track, const char* title, const char* album, const char* const* artists,
                          int artist_count, int index)
{
    int i;
    track->title = strdup(title);
    track->album = strdup(album);
    track->image = art_url(index);
    track->artists = calloc((size_t)artist_count, sizeof(char*));
    if (!track->title || !track->album || !track->image || !track->artists)
        return ENOMEM;
    for (i = 0; i < artist_count; ++i) {
        track->artists[i] = strdup(artists[i]);
        if (!track->artists[i])
            return ENOMEM;
        track->artist_count = i + 1;
    }
    return 0;
}

static int parse_seconds(const char* text, double* seconds, char* error, size_t error_size)
{
    char* end = NULL;
    double value;
    errno = 0;
    value = strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !(value > 0.0) || value > MAX_TRACK_SECONDS) {
        set_error(error, error_size, "OPLAYER_REF_TRACK_SECONDS must be a number of seconds above 0 and up to 3600, not '%s'",
                  text);
        return EINVAL;
    }
    *seconds = value;
    return 0;
}

static int load_builtin(ref_station* station, int rate, char* error, size_t error_size)
{
    const char* env = getenv("OPLAYER_REF_TRACK_SECONDS");
    double seconds = 0.0;
    int count = (int)(sizeof(builtin) / sizeof(builtin[0]));
    int i;
    int result;
    if (env && *env && (result = parse_seconds(env, &seconds, error, error_size)) != 0)
        return result;
    station->tracks = calloc((size_t)count, sizeof(ref_track));
    if (!station->tracks)
        return ENOMEM;
    station->count = count;
    for (i = 0; i < count; ++i) {
        ref_track* track = &station->tracks[i];
        double length = seconds > 0.0 ? seconds : builtin[i].seconds;
        result = track_set_text(track, builtin[i].title, builtin[i].album, builtin[i].artists,
                                builtin[i].artist_count, i);
        if (result != 0)
            return result;
        track->frequency = builtin[i].frequency;
        track->frames = (unsigned long long)(length * rate);
        if (track->frames == 0)
            track->frames = 1;
    }
    return 0;
}

#ifdef OPLAYER_REF_HAVE_SNDFILE
/* Reads one 16-bit PCM file and converts it to the output format (channels mixed down or
 * repeated, rate converted by linear interpolation). Returns 0, EINVAL for a file that is not
 * 16-bit PCM, or another errno value. */
static int load_file(ref_track* track, const char* dir, const char* name, int index, int channels, int rate)
{
    char path[4096];
    SF_INFO info;
    SNDFILE* file;
    short* in;
    sf_count_t frames, f;
    int result, c;
    const char* title;
    const char* artist;
    const char* album;
    double step;

    snprintf(path, sizeof(path), "%s/%s", dir, name);
    memset(&info, 0, sizeof(info));
    file = sf_open(path, SFM_READ, &info);
    if (!file)
        return EINVAL;
    if ((info.format & SF_FORMAT_SUBMASK) != SF_FORMAT_PCM_16 || info.channels < 1 || info.samplerate < 1
        || info.frames < 1) {
        sf_close(file);
        return EINVAL;
    }
    in = malloc(sizeof(short) * (size_t)info.frames * (size_t)info.channels);
    if (!in) {
        sf_close(file);
        return ENOMEM;
    }
    frames = sf_readf_short(file, in, info.frames);
    title = sf_get_string(file, SF_STR_TITLE);
    artist = sf_get_string(file, SF_STR_ARTIST);
    album = sf_get_string(file, SF_STR_ALBUM);
    {
        const char* artists[1] = { artist && *artist ? artist : "Unknown artist" };
        result = track_set_text(track, title && *title ? title : name, album && *album ? album : dir, artists, 1,
                                index);
    }
    sf_close(file);
    if (result != 0 || frames < 1) {
        free(in);
        return result != 0 ? result : EINVAL;
    }

    step = (double)info.samplerate / rate;
    track->frames = (unsigned long long)((double)frames / step);
    if (track->frames == 0)
        track->frames = 1;
    track->pcm = malloc(sizeof(short) * (size_t)track->frames * (size_t)channels);
    if (!track->pcm) {
        free(in);
        return ENOMEM;
    }
    for (f = 0; f < (sf_count_t)track->frames; ++f) {
        double at = f * step;
        sf_count_t i0 = (sf_count_t)at;
        sf_count_t i1 = i0 + 1 < frames ? i0 + 1 : i0;
        double frac = at - (double)i0;
        for (c = 0; c < channels; ++c) {
            double a, b;
            if (info.channels >= channels) {
                a = in[i0 * info.channels + c];
                b = in[i1 * info.channels + c];
            } else {
                a = in[i0 * info.channels + c % info.channels];
                b = in[i1 * info.channels + c % info.channels];
            }
            track->pcm[f * channels + c] = (short)(a + (b - a) * frac);
        }
    }
    free(in);
    return 0;
}

static int load_directory(ref_station* station, const char* dir, int channels, int rate, char* error,
                          size_t error_size)
{
    struct dirent** names = NULL;
    int n = scandir(dir, &names, NULL, alphasort);
    int i, result = 0;
    if (n < 0) {
        set_error(error, error_size, "OPLAYER_REF_MUSIC_DIR: cannot read the directory %s", dir);
        return EINVAL;
    }
    station->tracks = calloc((size_t)(n > 0 ? n : 1), sizeof(ref_track));
    if (!station->tracks)
        result = ENOMEM;
    for (i = 0; i < n && result != ENOMEM; ++i) {
        if (names[i]->d_name[0] != '.') {
            int loaded = load_file(&station->tracks[station->count], dir, names[i]->d_name, station->count,
                                   channels, rate);
            if (loaded == 0)
                ++station->count;
            else if (loaded == ENOMEM)
                result = ENOMEM;
            else
                fprintf(stderr, "oplayer-ref: skipping %s/%s: not a 16-bit PCM audio file\n", dir,
                        names[i]->d_name);
            if (loaded != 0)
                free_track(&station->tracks[station->count]);
        }
    }
    for (i = 0; i < n; ++i)
        free(names[i]);
    free(names);
    if (result == 0 && station->count == 0) {
        set_error(error, error_size, "OPLAYER_REF_MUSIC_DIR: no 16-bit PCM audio file in %s", dir);
        result = EINVAL;
    }
    return result;
}
#endif

int ref_station_load(ref_station* station, int channels, int rate, char* error, size_t error_size)
{
    const char* dir = getenv("OPLAYER_REF_MUSIC_DIR");
    station->tracks = NULL;
    station->count = 0;
    if (dir && *dir) {
#ifdef OPLAYER_REF_HAVE_SNDFILE
        return load_directory(station, dir, channels, rate, error, error_size);
#else
        (void)channels;
        set_error(error, error_size, "OPLAYER_REF_MUSIC_DIR is set (%s) but this build has no libsndfile", dir);
        return EINVAL;
#endif
    }
    (void)channels;
    return load_builtin(station, rate, error, error_size);
}

void ref_station_free(ref_station* station)
{
    int i;
    for (i = 0; station->tracks && i < station->count; ++i)
        free_track(&station->tracks[i]);
    free(station->tracks);
    station->tracks = NULL;
    station->count = 0;
}
