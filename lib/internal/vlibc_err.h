/* Private to libvyracore: how a core function records a failure. */
#ifndef VLIBC_INTERNAL_ERR_H
#define VLIBC_INTERNAL_ERR_H

#include "vyracore.h"

/*
 * Records code with the reporting statement's file and line. Only the base
 * name of the file is kept, so that records and messages carry no build paths;
 * the line is part of the library's interface, as other programs read it.
 */
#define VLIBC_ERR_RECORD(code) VLIBCErrSetEx((code), __FILE_NAME__, __LINE__)

#endif
