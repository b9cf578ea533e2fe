/* Private to libvyracore: how a core function records a failure. */
#ifndef VLIBC_INTERNAL_ERR_H
#define VLIBC_INTERNAL_ERR_H

#include <syslog.h>

#include "vyracore.h"

/*
 * The recorded line is part of the library's interface, as other programs
 * read it: every statement that records one names the line it must stand on,
 * and the build fails when it moves.
 */
template <int nLine, int nExpected>
constexpr int32_t VlibcLineAt()
{
    static_assert(nLine == nExpected, "a recorded line has moved");
    return nLine;
}

/*
 * Records code with the reporting statement's file and line. Only the base
 * name of the file is kept, so that records and messages carry no build paths.
 */
#define VLIBC_ERR_RECORD(code, line) \
    VLIBCErrSetEx((code), __FILE_NAME__, VlibcLineAt<__LINE__, (line)>())

/* A system-log message at LOG_ERR led by "%s:%d ", its line held the same way. */
#define VLIBC_SYSLOG_AT(line, szFormat, ...) \
    syslog(LOG_ERR, szFormat, __FILE_NAME__, VlibcLineAt<__LINE__, (line)>(), __VA_ARGS__)

#endif
