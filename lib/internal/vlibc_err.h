/* Private to libvyracore: how a core function records a failure. */
#ifndef VLIBC_INTERNAL_ERR_H
#define VLIBC_INTERNAL_ERR_H

#include <syslog.h>

#include "vyracore.h"

/*
 * Records code with the reporting statement's file and line. Only the base
 * name of the file is kept, so that records and messages carry no build paths.
 * The line is part of the library's interface, as other programs read it, so
 * every statement names the line it must stand on and the build fails when it
 * moves.
 */
#define VLIBC_ERR_RECORD(code, line)                                      \
    do {                                                                  \
        static_assert(__LINE__ == (line), "a recorded line has moved");   \
        VLIBCErrSetEx((code), __FILE_NAME__, __LINE__);                   \
    } while (0)

/* A system-log message at LOG_ERR led by "%s:%d ", its line held the same way. */
#define VLIBC_SYSLOG_AT(line, szFormat, ...)                              \
    do {                                                                  \
        static_assert(__LINE__ == (line), "a logged line has moved");     \
        syslog(LOG_ERR, szFormat, __FILE_NAME__, __LINE__, __VA_ARGS__);  \
    } while (0)

#endif
