#include <stdio.h>

#include "os_log.h"

static int install_depth;

void install_log_task(void) {
    if (install_depth++ == 0) {
        fflush(stdout);
        setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    }
}

void uninstall_log_task(void) {
    fflush(stdout);
    if (install_depth > 0) --install_depth;
}
