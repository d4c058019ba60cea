/*
 * Run-time layout check of the player library's records, compiled by both sides of the
 * boundary (the module's C++ tests and the reference library's C check), so a compiler or
 * flag that lays the records out differently is caught where it is used.
 */
#ifndef ORVELLO_OPLAYER_LAYOUT_H
#define ORVELLO_OPLAYER_LAYOUT_H

#include "oplayer.h"

#include <stdio.h>
#include <string.h>

typedef struct oplayer_layout_entry {
    const char* name;
    size_t actual;
    size_t expected;
} oplayer_layout_entry;

#define OPLAYER_LAYOUT_OFFSET(type, field, offset) { #type "." #field, offsetof(type, field), offset }
#define OPLAYER_LAYOUT_SIZE(type, size) { "sizeof(" #type ")", sizeof(type), size }
#define OPLAYER_LAYOUT_WIDTH(type, field, width) { "sizeof(" #type "." #field ")", sizeof(((type*)0)->field), width }

/* Offsets and sizes are pinned at compile time in oplayer.h; this adds what those cannot see:
 * the width of each integer field and the byte order in which values land at their offsets.
 * Writes one line per mismatch into report (NUL-terminated when size > 0) and returns the
 * number of mismatches. */
static inline int oplayer_layout_check(char* report, size_t size)
{
    static const oplayer_layout_entry entries[] = {
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, init_tag, 0),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, audio_api, 8),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, max_bandwidth_kbps, 16),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, cache_dir, 24),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, cache_max_mb, 32),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, cache_remain_mb, 36),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, output_channels, 40),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, output_sample_rate, 44),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, serial_number, 48),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, product_name, 56),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, vendor_secret, 64),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, client_version, 72),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, option_a, 80),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, option_b, 81),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, disable_cache, 82),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, load_token, 88),
        OPLAYER_LAYOUT_OFFSET(oplayer_create_params, save_token, 96),
        OPLAYER_LAYOUT_SIZE(oplayer_create_params, 104),
        OPLAYER_LAYOUT_OFFSET(oplayer_api, create, 8),
        OPLAYER_LAYOUT_OFFSET(oplayer_api, destroy, 16),
        OPLAYER_LAYOUT_OFFSET(oplayer_api, get_version, 24),
        OPLAYER_LAYOUT_OFFSET(oplayer_api, run_once, 32),
        OPLAYER_LAYOUT_OFFSET(oplayer_api, request_exit, 40),
        OPLAYER_LAYOUT_OFFSET(oplayer_api, controls_api, 56),
        OPLAYER_LAYOUT_OFFSET(oplayer_api, metadata_api, 64),
        OPLAYER_LAYOUT_OFFSET(oplayer_api, pairing_api, 72),
        OPLAYER_LAYOUT_SIZE(oplayer_api, 80),
        OPLAYER_LAYOUT_OFFSET(oplayer_pairing_api, start, 8),
        OPLAYER_LAYOUT_OFFSET(oplayer_pairing_api, poll, 16),
        OPLAYER_LAYOUT_OFFSET(oplayer_pairing_api, release, 24),
        OPLAYER_LAYOUT_SIZE(oplayer_pairing_api, 32),
        OPLAYER_LAYOUT_OFFSET(oplayer_pairing_result, success, 0),
        OPLAYER_LAYOUT_OFFSET(oplayer_pairing_result, message, 8),
        OPLAYER_LAYOUT_OFFSET(oplayer_pairing_result, device_id, 16),
        OPLAYER_LAYOUT_SIZE(oplayer_pairing_result, 24),
        OPLAYER_LAYOUT_OFFSET(oplayer_audio_api, init, 0),
        OPLAYER_LAYOUT_OFFSET(oplayer_audio_api, shutdown, 8),
        OPLAYER_LAYOUT_OFFSET(oplayer_audio_api, flush, 16),
        OPLAYER_LAYOUT_OFFSET(oplayer_audio_api, data, 24),
        OPLAYER_LAYOUT_OFFSET(oplayer_audio_api, pause_changed, 32),
        OPLAYER_LAYOUT_OFFSET(oplayer_audio_api, volume_changed, 40),
        OPLAYER_LAYOUT_OFFSET(oplayer_audio_api, user, 48),
        OPLAYER_LAYOUT_SIZE(oplayer_audio_api, 56),
        OPLAYER_LAYOUT_OFFSET(oplayer_controls_api, has_new_data, 8),
        OPLAYER_LAYOUT_OFFSET(oplayer_controls_api, pause, 16),
        OPLAYER_LAYOUT_OFFSET(oplayer_controls_api, resume, 24),
        OPLAYER_LAYOUT_OFFSET(oplayer_controls_api, skip, 32),
        OPLAYER_LAYOUT_OFFSET(oplayer_controls_api, get_volume, 40),
        OPLAYER_LAYOUT_OFFSET(oplayer_controls_api, set_volume, 48),
        OPLAYER_LAYOUT_OFFSET(oplayer_controls_api, is_paused, 56),
        OPLAYER_LAYOUT_SIZE(oplayer_controls_api, 64),
        OPLAYER_LAYOUT_OFFSET(oplayer_metadata_api, get_current, 16),
        OPLAYER_LAYOUT_OFFSET(oplayer_metadata_api, release, 40),
        OPLAYER_LAYOUT_SIZE(oplayer_metadata_api, 48),
        OPLAYER_LAYOUT_OFFSET(oplayer_track_metadata, title, 0),
        OPLAYER_LAYOUT_OFFSET(oplayer_track_metadata, album, 8),
        OPLAYER_LAYOUT_OFFSET(oplayer_track_metadata, artists, 16),
        OPLAYER_LAYOUT_OFFSET(oplayer_track_metadata, artist_count, 32),
        OPLAYER_LAYOUT_OFFSET(oplayer_track_metadata, duration, 36),
        OPLAYER_LAYOUT_OFFSET(oplayer_track_metadata, position, 40),
        OPLAYER_LAYOUT_OFFSET(oplayer_track_metadata, image, 48),
        OPLAYER_LAYOUT_SIZE(oplayer_track_metadata, 56),
        OPLAYER_LAYOUT_WIDTH(oplayer_create_params, init_tag, 4),
        OPLAYER_LAYOUT_WIDTH(oplayer_create_params, max_bandwidth_kbps, 4),
        OPLAYER_LAYOUT_WIDTH(oplayer_create_params, cache_max_mb, 4),
        OPLAYER_LAYOUT_WIDTH(oplayer_create_params, cache_remain_mb, 4),
        OPLAYER_LAYOUT_WIDTH(oplayer_create_params, output_channels, 4),
        OPLAYER_LAYOUT_WIDTH(oplayer_create_params, output_sample_rate, 4),
        OPLAYER_LAYOUT_WIDTH(oplayer_create_params, option_a, 1),
        OPLAYER_LAYOUT_WIDTH(oplayer_create_params, option_b, 1),
        OPLAYER_LAYOUT_WIDTH(oplayer_create_params, disable_cache, 1),
        OPLAYER_LAYOUT_WIDTH(oplayer_pairing_result, success, 4),
        OPLAYER_LAYOUT_WIDTH(oplayer_track_metadata, artist_count, 4),
        OPLAYER_LAYOUT_WIDTH(oplayer_track_metadata, duration, 4),
        OPLAYER_LAYOUT_WIDTH(oplayer_track_metadata, position, 4),
    };
    /* Values written through the fields must appear little-endian at the fixed offsets. */
    oplayer_create_params params;
    oplayer_track_metadata track;
    unsigned char bytes[sizeof(params) > sizeof(track) ? sizeof(params) : sizeof(track)];
    static const struct { const char* name; size_t offset; unsigned char first; } pokes[] = {
        { "create_params.init_tag", 0, 0x05 },
        { "create_params.max_bandwidth_kbps", 16, 0x10 },
        { "create_params.cache_max_mb", 32, 0x20 },
        { "create_params.cache_remain_mb", 36, 0x24 },
        { "create_params.output_channels", 40, 0x28 },
        { "create_params.output_sample_rate", 44, 0x2c },
        { "create_params.option_a", 80, 0x50 },
        { "create_params.option_b", 81, 0x51 },
        { "create_params.disable_cache", 82, 0x52 },
    };
    int mismatches = 0;
    size_t used = 0;
    size_t i;
    if (size > 0)
        report[0] = '\0';
    for (i = 0; i < sizeof(entries) / sizeof(entries[0]); ++i) {
        if (entries[i].actual == entries[i].expected)
            continue;
        ++mismatches;
        if (used < size) {
            int n = snprintf(report + used, size - used, "%s is %zu, expected %zu\n", entries[i].name,
                             entries[i].actual, entries[i].expected);
            if (n > 0)
                used += (size_t)n;
        }
    }

    memset(&params, 0, sizeof(params));
    params.init_tag = 0x01020305;
    params.max_bandwidth_kbps = 0x01020310;
    params.cache_max_mb = 0x01020320;
    params.cache_remain_mb = 0x01020324;
    params.output_channels = 0x01020328;
    params.output_sample_rate = 0x0102032c;
    params.option_a = 0x50;
    params.option_b = 0x51;
    params.disable_cache = 0x52;
    memcpy(bytes, &params, sizeof(params));
    for (i = 0; i < sizeof(pokes) / sizeof(pokes[0]); ++i) {
        int ok = bytes[pokes[i].offset] == pokes[i].first;
        if (ok && pokes[i].first < 0x50) /* the 32-bit fields: 0x.., 0x03, 0x02, 0x01 */
            ok = bytes[pokes[i].offset + 1] == 0x03 && bytes[pokes[i].offset + 2] == 0x02
                 && bytes[pokes[i].offset + 3] == 0x01;
        if (ok)
            continue;
        ++mismatches;
        if (used < size) {
            int n = snprintf(report + used, size - used, "%s does not land little-endian at %zu\n",
                             pokes[i].name, pokes[i].offset);
            if (n > 0)
                used += (size_t)n;
        }
    }

    memset(&track, 0, sizeof(track));
    track.artist_count = 0x01020304;
    track.duration = 0x05060708;
    track.position = 0x090a0b0c;
    memcpy(bytes, &track, sizeof(track));
    if (bytes[32] != 0x04 || bytes[35] != 0x01 || bytes[36] != 0x08 || bytes[39] != 0x05
        || bytes[40] != 0x0c || bytes[43] != 0x09) {
        ++mismatches;
        if (used < size)
            snprintf(report + used, size - used, "track_metadata integers do not land little-endian\n");
    }
    return mismatches;
}

#endif /* ORVELLO_OPLAYER_LAYOUT_H */
