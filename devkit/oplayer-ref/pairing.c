/* Pairing: the outcome about a second after the code is given; a code whose first letter is Z
 * is refused. A paired instance saves its token through the host and starts playing. */
#define _GNU_SOURCE
#include "instance.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

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
    ref_now(&p->pairing_due);
    ref_add_ns(&p->pairing_due, PAIRING_DELAY_NS);
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
    ref_now(&t);
    pthread_mutex_lock(&p->mutex);
    if (!ref_pairing_due(p, &t)) {
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

static const oplayer_pairing_api pairing = {
    NULL, ref_pairing_start, ref_pairing_poll, ref_pairing_release,
};

const oplayer_pairing_api* ref_pairing_api(void)
{
    return &pairing;
}
