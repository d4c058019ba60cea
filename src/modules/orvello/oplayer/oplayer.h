/*
 * C interface of the Orvello Streams player library (liboplayer-1.so).
 *
 * The library exports one data symbol, OPLAYER_API_5TQX2M, holding an oplayer_api table. Every
 * layout here is fixed by the library (64-bit, little-endian, natural alignment) and pinned
 * below; a slot the host does not use is kept as a reserved pointer-sized entry.
 */
#ifndef ORVELLO_OPLAYER_H
#define ORVELLO_OPLAYER_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#define OPLAYER_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define OPLAYER_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#define OPLAYER_API_SYMBOL "OPLAYER_API_5TQX2M"
#define OPLAYER_INIT_TAG 5
/* request_exit mode that lets the current song finish. */
#define OPLAYER_EXIT_AT_END_OF_SONG 2

typedef struct oplayer oplayer; /* opaque instance, owned by the library */

/* Audio output, provided by the host. The library may call it from threads of its own; every
 * entry gets the table itself, whose user entry identifies the host object. */
typedef struct oplayer_audio_api oplayer_audio_api;
struct oplayer_audio_api {
    void (*init)(oplayer_audio_api* api, int channels, int sample_rate);
    void (*shutdown)(oplayer_audio_api* api);
    void (*flush)(oplayer_audio_api* api);
    /* count: 16-bit samples, channels interleaved. Returns how many were consumed; the rest is
     * offered again later. */
    unsigned long (*data)(oplayer_audio_api* api, const short* samples, unsigned long count,
                          unsigned int* out);
    void (*pause_changed)(oplayer_audio_api* api, int paused);
    void (*volume_changed)(oplayer_audio_api* api, int volume);
    void* user;
};

/* Playback controls, provided by the library. Results: non-zero means yes/success. */
typedef struct oplayer_controls_api {
    void* reserved0;
    int (*has_new_data)(oplayer* player);
    int (*pause)(oplayer* player);
    int (*resume)(oplayer* player);
    int (*skip)(oplayer* player, int tracks);
    int (*get_volume)(oplayer* player); /* 0 to 100 */
    int (*set_volume)(oplayer* player, int volume);
    int (*is_paused)(oplayer* player);
} oplayer_controls_api;

/* The current track as get_current reports it; owned by the library until released. */
typedef struct oplayer_track_metadata {
    const char* title;
    const char* album;
    const char* const* artists;
    void* reserved24;
    int32_t artist_count;
    int32_t duration;
    int32_t position; /* whole seconds */
    int32_t reserved44;
    const char* image; /* artwork URL */
} oplayer_track_metadata;

typedef struct oplayer_metadata_api {
    void* reserved0;
    void* reserved1;
    oplayer_track_metadata* (*get_current)(oplayer* player);
    void* reserved3;
    void* reserved4;
    void (*release)(oplayer_track_metadata* metadata);
} oplayer_metadata_api;

/* Outcome of a pairing attempt; owned by the library until released. */
typedef struct oplayer_pairing_result {
    int32_t success;
    const char* message;   /* when success is 0; may be null */
    const char* device_id; /* when success is non-zero */
} oplayer_pairing_result;

typedef struct oplayer_pairing_api {
    void* reserved0;
    /* code: UTF-8 bytes, no terminator needed. 0: started; anything else is an error code. */
    int (*start)(oplayer* player, const char* code, int length);
    /* Null while the outcome is not known. */
    oplayer_pairing_result* (*poll)(oplayer* player);
    void (*release)(oplayer_pairing_result* result);
} oplayer_pairing_api;

/* Creation record, passed by value: the library copies whatever it keeps, strings included. */
typedef struct oplayer_create_params {
    int32_t init_tag; /* OPLAYER_INIT_TAG */
    oplayer_audio_api* audio_api;
    int32_t max_bandwidth_kbps;
    const char* cache_dir;
    int32_t cache_max_mb;
    int32_t cache_remain_mb;
    int32_t output_channels;
    int32_t output_sample_rate;
    const char* serial_number;
    const char* product_name;
    const char* vendor_secret;
    const char* client_version;
    uint8_t option_a;
    uint8_t option_b;
    uint8_t disable_cache;
    /* Fills buffer with the stored token, without a terminating NUL when it fills the buffer. */
    void (*load_token)(char* buffer, size_t size);
    void (*save_token)(const char* token);
} oplayer_create_params;

typedef struct oplayer_api {
    void* reserved0;
    /* Success is a non-null *player; the result is an error code, for the log. */
    int (*create)(oplayer_create_params params, oplayer** player);
    void (*destroy)(oplayer* player);
    /* Writes a NUL-terminated version text into buffer. */
    void (*get_version)(void* reserved, char* buffer, size_t size);
    /* One turn of the library's loop; 0 when the loop has ended. */
    int (*run_once)(oplayer* player);
    void (*request_exit)(oplayer* player, int mode);
    void* reserved6;
    const oplayer_controls_api* (*controls_api)(void);
    const oplayer_metadata_api* (*metadata_api)(void);
    const oplayer_pairing_api* (*pairing_api)(void);
} oplayer_api;

/*
 * The fixed layout, written once: both the compile-time checks below and the run-time table of
 * oplayer_layout.h are made from this list.
 *   INT(type, field, offset, width)  an integer field: where it starts and its width in bytes
 *   PTR(type, field, offset)         a pointer field: where it starts
 *   SIZE(type, size)                 the whole record's size
 */
#define OPLAYER_LAYOUT(INT, PTR, SIZE)                        \
    INT(oplayer_create_params, init_tag, 0, 4)                \
    PTR(oplayer_create_params, audio_api, 8)                  \
    INT(oplayer_create_params, max_bandwidth_kbps, 16, 4)     \
    PTR(oplayer_create_params, cache_dir, 24)                 \
    INT(oplayer_create_params, cache_max_mb, 32, 4)           \
    INT(oplayer_create_params, cache_remain_mb, 36, 4)        \
    INT(oplayer_create_params, output_channels, 40, 4)        \
    INT(oplayer_create_params, output_sample_rate, 44, 4)     \
    PTR(oplayer_create_params, serial_number, 48)             \
    PTR(oplayer_create_params, product_name, 56)              \
    PTR(oplayer_create_params, vendor_secret, 64)             \
    PTR(oplayer_create_params, client_version, 72)            \
    INT(oplayer_create_params, option_a, 80, 1)               \
    INT(oplayer_create_params, option_b, 81, 1)               \
    INT(oplayer_create_params, disable_cache, 82, 1)          \
    PTR(oplayer_create_params, load_token, 88)                \
    PTR(oplayer_create_params, save_token, 96)                \
    SIZE(oplayer_create_params, 104)                          \
    PTR(oplayer_api, create, 8)                               \
    PTR(oplayer_api, destroy, 16)                             \
    PTR(oplayer_api, get_version, 24)                         \
    PTR(oplayer_api, run_once, 32)                            \
    PTR(oplayer_api, request_exit, 40)                        \
    PTR(oplayer_api, controls_api, 56)                        \
    PTR(oplayer_api, metadata_api, 64)                        \
    PTR(oplayer_api, pairing_api, 72)                         \
    SIZE(oplayer_api, 80)                                     \
    PTR(oplayer_pairing_api, start, 8)                        \
    PTR(oplayer_pairing_api, poll, 16)                        \
    PTR(oplayer_pairing_api, release, 24)                     \
    SIZE(oplayer_pairing_api, 32)                             \
    INT(oplayer_pairing_result, success, 0, 4)                \
    PTR(oplayer_pairing_result, message, 8)                   \
    PTR(oplayer_pairing_result, device_id, 16)                \
    SIZE(oplayer_pairing_result, 24)                          \
    PTR(oplayer_audio_api, init, 0)                           \
    PTR(oplayer_audio_api, shutdown, 8)                       \
    PTR(oplayer_audio_api, flush, 16)                         \
    PTR(oplayer_audio_api, data, 24)                          \
    PTR(oplayer_audio_api, pause_changed, 32)                 \
    PTR(oplayer_audio_api, volume_changed, 40)                \
    PTR(oplayer_audio_api, user, 48)                          \
    SIZE(oplayer_audio_api, 56)                               \
    PTR(oplayer_controls_api, has_new_data, 8)                \
    PTR(oplayer_controls_api, pause, 16)                      \
    PTR(oplayer_controls_api, resume, 24)                     \
    PTR(oplayer_controls_api, skip, 32)                       \
    PTR(oplayer_controls_api, get_volume, 40)                 \
    PTR(oplayer_controls_api, set_volume, 48)                 \
    PTR(oplayer_controls_api, is_paused, 56)                  \
    SIZE(oplayer_controls_api, 64)                            \
    PTR(oplayer_metadata_api, get_current, 16)                \
    PTR(oplayer_metadata_api, release, 40)                    \
    SIZE(oplayer_metadata_api, 48)                            \
    PTR(oplayer_track_metadata, title, 0)                     \
    PTR(oplayer_track_metadata, album, 8)                     \
    PTR(oplayer_track_metadata, artists, 16)                  \
    INT(oplayer_track_metadata, artist_count, 32, 4)          \
    INT(oplayer_track_metadata, duration, 36, 4)              \
    INT(oplayer_track_metadata, position, 40, 4)              \
    PTR(oplayer_track_metadata, image, 48)                    \
    SIZE(oplayer_track_metadata, 56)

#define OPLAYER_CHECK_OFFSET(type, field, offset) \
    OPLAYER_STATIC_ASSERT(offsetof(type, field) == (offset), #type "." #field " must be at offset " #offset);
#define OPLAYER_CHECK_INT(type, field, offset, width)  \
    OPLAYER_CHECK_OFFSET(type, field, offset)          \
    OPLAYER_STATIC_ASSERT(sizeof(((type*)0)->field) == (width), #type "." #field " must be " #width " bytes wide");
#define OPLAYER_CHECK_SIZE(type, size) \
    OPLAYER_STATIC_ASSERT(sizeof(type) == (size), "sizeof(" #type ") must be " #size);

OPLAYER_LAYOUT(OPLAYER_CHECK_INT, OPLAYER_CHECK_OFFSET, OPLAYER_CHECK_SIZE)

#ifdef __cplusplus
}
#endif

#endif /* ORVELLO_OPLAYER_H */
