/*
 * VLIBCExec(szPath, szArg1, szArg2, szArg3, szArg4): runs a program with up
 * to four arguments, silent, in a session of its own, in "/", with only PATH
 * in its environment and without the caller's lock files, and waits for it.
 * A NULL argument ends the list. Results as VLIBCExecl's.
 */
#include "vyracore.h"

int32_t VLIBCExec(const char *szPath, const char *szArg1, const char *szArg2,
                  const char *szArg3, const char *szArg4)
{
    return VLIBCExecl(szPath,
                      FORK_NULL_STDIO | FORK_CLOSE_LOCKS | FORK_PATH_ONLY_ENV | FORK_CHDIR_ROOT |
                          FORK_NEW_SESSION,
                      szArg1, szArg2, szArg3, szArg4, static_cast<const char *>(nullptr));
}
