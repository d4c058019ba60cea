/* The station's position (the track it is on), kept in the cache directory so that a new
 * instance, after an update swap or a restart, goes on with the next track. */
#define _GNU_SOURCE
#include "instance.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

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

void ref_load_position(oplayer* p, const char* cache_dir)
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

/* Written to a new file that then replaces the old one, so a power cut leaves the old position
 * or the new one, never a part. */
void ref_save_position(oplayer* p, int index)
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
