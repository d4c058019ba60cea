/*
 * A scripted player library for the cases the reference library does not produce on purpose.
 * The behaviour is chosen at build time:
 *   FAKE_NO_SYMBOL            export no entry table at all
 *   FAKE_CREATE_RESULT=n      what create returns (default 0)
 *   FAKE_CREATE_SETS_HANDLE=0 create leaves the handle null (default 1)
 *   FAKE_PAIR_START_RESULT=n  what pairing start returns (default 0)
 *   FAKE_PAIR_DELAY_MS=n      poll gives the outcome once this long has passed since start
 *   FAKE_PAIR_SUCCESS=0       the outcome is a failure with a null message (default success)
 *   FAKE_NO_RUN_ONCE          the entry table has no run_once
 * What it receives is recorded and read back through the exported fake_* getters.
 */
#define _GNU_SOURCE
#include "oplayer/oplayer.h"

#include <string.h>
#include <time.h>

#define EXPORT __attribute__((visibility("default")))

#ifndef FAKE_CREATE_RESULT
#define FAKE_CREATE_RESULT 0
#endif
#ifndef FAKE_CREATE_SETS_HANDLE
#define FAKE_CREATE_SETS_HANDLE 1
#endif
#ifndef FAKE_PAIR_START_RESULT
#define FAKE_PAIR_START_RESULT 0
#endif
#ifndef FAKE_PAIR_DELAY_MS
#define FAKE_PAIR_DELAY_MS 0
#endif
#ifndef FAKE_PAIR_SUCCESS
#define FAKE_PAIR_SUCCESS 1
#endif

struct oplayer {
    int unused;
};

/* The fake is used from the host's thread only. */
static struct oplayer instance;
static unsigned char create_bytes[sizeof(oplayer_create_params)];
static int create_calls;
static int destroy_calls;
static int exit_mode = -1;
static int start_calls;
static char last_code[256];
static int last_code_length = -1;
static char create_strings[5][256]; /* cache_dir, serial_number, product_name, vendor_secret, client_version */
static int poll_calls;
static int release_calls;
static struct timespec pair_started;
static oplayer_pairing_result pair_result;

EXPORT void fake_create_params_bytes(unsigned char* out)
{
    memcpy(out, create_bytes, sizeof(create_bytes));
}

/* The strings of the last creation record, copied when it was received (index as above). */
EXPORT const char* fake_create_string(int index)
{
    return index >= 0 && index < 5 ? create_strings[index] : NULL;
}

EXPORT int fake_create_calls(void)
{
    return create_calls;
}

EXPORT int fake_destroy_calls(void)
{
    return destroy_calls;
}

EXPORT int fake_exit_mode(void)
{
    return exit_mode;
}

EXPORT int fake_start_calls(void)
{
    return start_calls;
}

EXPORT int fake_last_code(char* out, int size)
{
    if (last_code_length >= 0 && size > 0)
        memcpy(out, last_code, (size_t)(last_code_length < size ? last_code_length : size));
    return last_code_length;
}

EXPORT int fake_poll_calls(void)
{
    return poll_calls;
}

EXPORT int fake_release_calls(void)
{
    return release_calls;
}

static int fake_create(oplayer_create_params params, oplayer** player)
{
    const char* strings[5] = { params.cache_dir, params.serial_number, params.product_name, params.vendor_secret,
                               params.client_version };
    int i;
    ++create_calls;
    memcpy(create_bytes, &params, sizeof(params));
    for (i = 0; i < 5; ++i) {
        create_strings[i][0] = '\0';
        if (strings[i])
            strncat(create_strings[i], strings[i], sizeof(create_strings[i]) - 1);
    }
    if (FAKE_CREATE_SETS_HANDLE)
        *player = &instance;
    return FAKE_CREATE_RESULT;
}

static void fake_destroy(oplayer* player)
{
    (void)player;
    ++destroy_calls;
}

static void fake_get_version(void* reserved, char* buffer, size_t size)
{
    (void)reserved;
    strncpy(buffer, "fake-9.9.9", size - 1);
}

__attribute__((unused)) static int fake_run_once(oplayer* player)
{
    struct timespec pause = { 0, 1000000 };
    (void)player;
    nanosleep(&pause, NULL);
    return exit_mode < 0;
}

static void fake_request_exit(oplayer* player, int mode)
{
    (void)player;
    exit_mode = mode;
}

static int fake_pair_start(oplayer* player, const char* code, int length)
{
    (void)player;
    ++start_calls;
    last_code_length = length < (int)sizeof(last_code) ? length : (int)sizeof(last_code);
    if (last_code_length > 0)
        memcpy(last_code, code, (size_t)last_code_length);
    clock_gettime(CLOCK_MONOTONIC, &pair_started);
    return FAKE_PAIR_START_RESULT;
}

static oplayer_pairing_result* fake_pair_poll(oplayer* player)
{
    struct timespec t;
    long long elapsed_ms;
    (void)player;
    ++poll_calls;
    clock_gettime(CLOCK_MONOTONIC, &t);
    elapsed_ms = (t.tv_sec - pair_started.tv_sec) * 1000LL + (t.tv_nsec - pair_started.tv_nsec) / 1000000;
    if (elapsed_ms < FAKE_PAIR_DELAY_MS)
        return NULL;
    pair_result.success = FAKE_PAIR_SUCCESS;
    pair_result.message = NULL;
    pair_result.device_id = FAKE_PAIR_SUCCESS ? "fake-device-1" : NULL;
    return &pair_result;
}

static void fake_pair_release(oplayer_pairing_result* result)
{
    if (result == &pair_result)
        ++release_calls;
}

static int fake_has_new_data(oplayer* player)
{
    (void)player;
    return 0;
}

static int fake_control(oplayer* player)
{
    (void)player;
    return 1;
}

static int fake_skip(oplayer* player, int tracks)
{
    (void)player;
    (void)tracks;
    return 1;
}

static int fake_set_volume(oplayer* player, int volume)
{
    (void)player;
    (void)volume;
    return 1;
}

static const oplayer_controls_api controls = {
    NULL, fake_has_new_data, fake_control, fake_control, fake_skip, fake_control, fake_set_volume, fake_control,
};
static const oplayer_metadata_api metadata = { NULL, NULL, NULL, NULL, NULL, NULL };
static const oplayer_pairing_api pairing = { NULL, fake_pair_start, fake_pair_poll, fake_pair_release };

static const oplayer_controls_api* fake_controls_api(void)
{
    return &controls;
}

static const oplayer_metadata_api* fake_metadata_api(void)
{
    return &metadata;
}

static const oplayer_pairing_api* fake_pairing_api(void)
{
    return &pairing;
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
