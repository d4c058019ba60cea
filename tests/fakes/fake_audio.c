/* The scripted player library's audio: the producer thread that offers the running counter and
 * holds what the host did not take (early-audio starts it at create), and the second thread of
 * two-threads. */
#include "fake_playing.h"

static unsigned long long song_length(const oplayer* p)
{
    return (unsigned long long)SONG_SECONDS * (unsigned long long)p->rate * (unsigned long long)p->channels;
}

/* With the mutex held: the pause change the announcing thread is to pass on. */
void announce_pause(oplayer* p, int paused)
{
    p->pause_to_announce = paused;
    pthread_cond_broadcast(&p->cond);
}

/* The second thread of two-threads: pause and volume announcements, and data calls that offer
 * nothing, while the producer delivers the audio. */
void* announcer_thread(void* arg)
{
    oplayer* p = (oplayer*)arg;
    oplayer_audio_api* audio = p->audio;
    short nothing = 0;
    unsigned int out = 0;
    int turn = 0;
    pthread_mutex_lock(&p->mutex);
    while (!p->quit) {
        int pause = p->pause_to_announce;
        int volume = p->volume;
        int started = p->started;
        p->pause_to_announce = -1;
        pthread_mutex_unlock(&p->mutex);
        if (pause >= 0)
            audio->pause_changed(audio, pause);
        if (started) {
            audio->data(audio, &nothing, 0, &out);
            if (++turn % 50 == 0)
                audio->volume_changed(audio, volume);
        }
        pthread_mutex_lock(&p->mutex);
        if (!p->quit && p->pause_to_announce < 0)
            wait_ms(&p->cond, &p->mutex, 1);
    }
    pthread_mutex_unlock(&p->mutex);
    return NULL;
}

void* producer_thread(void* arg)
{
    oplayer* p = (oplayer*)arg;
    oplayer_audio_api* audio = p->audio;
    short chunk[CHUNK_SAMPLES];
    /* With two threads, the pause changes after the start come from the other one. */
    const int announces = !(p->modes & MODE_TWO_THREADS);

    pthread_mutex_lock(&p->mutex);
    while (!p->quit || (p->started && !p->shutdown_done)) {
        unsigned long long left;
        unsigned long count;
        unsigned long taken;
        unsigned long i;
        unsigned int out = 0;
        if ((p->loop_ended || p->quit) && p->started && !p->shutdown_done) {
            p->shutdown_done = 1;
            pthread_mutex_unlock(&p->mutex);
            audio->shutdown(audio);
            pthread_mutex_lock(&p->mutex);
            continue;
        }
        if (p->start_requested && !p->started && !p->loop_ended) {
            int volume = p->volume;
            p->started = 1;
            p->paused = 0;
            p->new_data = 1;
            pthread_mutex_unlock(&p->mutex);
            audio->init(audio, p->channels, p->rate);
            audio->pause_changed(audio, 0);
            if (p->modes & MODE_EARLY_AUDIO)
                audio->volume_changed(audio, volume);
            pthread_mutex_lock(&p->mutex);
            continue;
        }
        if (announces && p->pause_to_announce >= 0) {
            int paused = p->pause_to_announce;
            p->pause_to_announce = -1;
            pthread_mutex_unlock(&p->mutex);
            audio->pause_changed(audio, paused);
            pthread_mutex_lock(&p->mutex);
            continue;
        }
        if (!p->started || p->paused || p->loop_ended) {
            pthread_cond_wait(&p->cond, &p->mutex);
            continue;
        }
        if (p->song_samples >= song_length(p)) {
            if (p->exit_mode == OPLAYER_EXIT_AT_END_OF_SONG) {
                p->loop_ended = 1;
                pthread_cond_broadcast(&p->cond);
                continue;
            }
            ++p->song;
            p->song_samples = 0;
            p->last_second = 0;
            p->new_data = 1;
        }
        left = song_length(p) - p->song_samples;
        count = left < CHUNK_SAMPLES ? (unsigned long)left : CHUNK_SAMPLES;
        for (i = 0; i < count; ++i)
            chunk[i] = (short)(unsigned short)((p->next_sample + i) & 0xFFFFu);
        pthread_mutex_unlock(&p->mutex);
        taken = audio->data(audio, chunk, count, &out);
        pthread_mutex_lock(&p->mutex);
        if (!p->early_done) {
            p->early_done = 1;
            pthread_cond_broadcast(&p->cond);
        }
        if (taken > count)
            taken = count;
        if (taken == 0) {
            wait_ms(&p->cond, &p->mutex, 2);
            continue;
        }
        p->next_sample += taken;
        p->song_samples += taken;
        pthread_mutex_lock(&counters_mutex);
        samples_taken += taken;
        pthread_mutex_unlock(&counters_mutex);
        if ((long long)(p->song_samples / ((unsigned long long)p->rate * (unsigned long long)p->channels))
            != p->last_second) {
            p->last_second = (long long)(p->song_samples / ((unsigned long long)p->rate * (unsigned long long)p->channels));
            p->new_data = 1;
        }
    }
    pthread_mutex_unlock(&p->mutex);
    return NULL;
}


void start_playing(oplayer* p)
{
    p->play_on_first_run = 0;
    p->start_requested = 1;
    pthread_cond_broadcast(&p->cond);
}
