/* What an attacker plants or serves as a player library: its constructor runs the moment the
 * file is mapped (dlopen), before any entry table is looked at, and leaves a mark saying that it
 * ran and as whom: a line "uid=N" appended to the file named by ORVELLO_PLANTED_MARK
 * (/tmp/orvello-planted-ran when unset). A test that finds the mark let foreign code run. */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

__attribute__((constructor)) static void planted_code_runs(void)
{
    const char* mark = getenv("ORVELLO_PLANTED_MARK");
    FILE* file = fopen(mark && *mark ? mark : "/tmp/orvello-planted-ran", "a");
    if (file) {
        fprintf(file, "uid=%d\n", (int)getuid());
        fclose(file);
    }
}
