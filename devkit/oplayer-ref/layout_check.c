/* Exits non-zero, listing the differences, when this compiler lays out the player library's
 * records differently from the fixed layout. */
#include "oplayer/oplayer_layout.h"

#include <stdio.h>

int main(void)
{
    char report[4096];
    int mismatches = oplayer_layout_check(report, sizeof(report));
    if (mismatches != 0) {
        fprintf(stderr, "%d layout mismatches:\n%s", mismatches, report);
        return 1;
    }
    printf("oplayer layout as expected\n");
    return 0;
}
