/* What the tests read back from the scripted player library: its counters and what the host
 * handed it, through the exported fake_* getters. */
#include "fake_playing.h"

#include <string.h>

pthread_mutex_t counters_mutex = PTHREAD_MUTEX_INITIALIZER;
int poll_calls;
int release_calls;
int destroy_calls;
unsigned long long samples_taken;
unsigned char create_bytes[sizeof(oplayer_create_params)];
char create_strings[CREATE_STRINGS][256];
int create_calls;
int last_exit_mode = -1;
char last_code[256];
int last_code_length = -1;

static int read_counter(const int* counter)
{
    int value;
    pthread_mutex_lock(&counters_mutex);
    value = *counter;
    pthread_mutex_unlock(&counters_mutex);
    return value;
}

void bump(int* counter)
{
    pthread_mutex_lock(&counters_mutex);
    ++*counter;
    pthread_mutex_unlock(&counters_mutex);
}

EXPORT int fake_poll_calls(void)
{
    return read_counter(&poll_calls);
}

EXPORT int fake_release_calls(void)
{
    return read_counter(&release_calls);
}

EXPORT int fake_destroy_calls(void)
{
    return read_counter(&destroy_calls);
}

EXPORT unsigned long long fake_samples_taken(void)
{
    unsigned long long value;
    pthread_mutex_lock(&counters_mutex);
    value = samples_taken;
    pthread_mutex_unlock(&counters_mutex);
    return value;
}

EXPORT void fake_create_params_bytes(unsigned char* out)
{
    memcpy(out, create_bytes, sizeof(create_bytes));
}

/* The strings of the last creation record, copied when it was received (index as above). */
EXPORT const char* fake_create_string(int index)
{
    return index >= 0 && index < CREATE_STRINGS ? create_strings[index] : NULL;
}

EXPORT int fake_create_calls(void)
{
    return create_calls;
}

EXPORT int fake_exit_mode(void)
{
    return last_exit_mode;
}

EXPORT int fake_last_code(char* out, int size)
{
    if (last_code_length >= 0 && size > 0)
        memcpy(out, last_code, (size_t)(last_code_length < size ? last_code_length : size));
    return last_code_length;
}
