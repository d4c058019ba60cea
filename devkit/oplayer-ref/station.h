/* The reference library's station: the tracks it plays, synthesized or read from files. */
#ifndef OPLAYER_REF_STATION_H
#define OPLAYER_REF_STATION_H

#include <stddef.h>

#define REF_MAX_CHANNELS 8
#define REF_MIN_RATE 8000
#define REF_MAX_RATE 384000

typedef struct ref_track {
    char* title;
    char* album;
    char** artists;
    int artist_count;
    char* image;
    double frequency;         /* tone of a synthesized track */
    unsigned long long frames;
    short* pcm;               /* interleaved at the output format; null for a synthesized track */
} ref_track;

typedef struct ref_station {
    ref_track* tracks;
    int count;
} ref_station;

/* Builds the station for the given output format from the environment (OPLAYER_REF_TRACK_SECONDS,
 * OPLAYER_REF_MUSIC_DIR). Returns 0, or an errno value with a message in error. */
int ref_station_load(ref_station* station, int channels, int rate, char* error, size_t error_size);
void ref_station_free(ref_station* station);

#endif
