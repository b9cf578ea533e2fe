/*
 * The way the update tool starts the appliance's event-log and notification
 * tools: silent, in a session of their own, in "/", with only PATH in their
 * environment, and without the caller's lock files, so that nothing of a run
 * as root leaks into them but their arguments.
 */
#include "vyracore.h"

int32_t VLIBCExec(const char *szPath, const char *szArg1, const char *szArg2, const char *szArg3,
                  const char *szArg4)
{
    return VLIBCExecl(szPath,
                      FORK_NULL_STDIO | FORK_CLOSE_LOCKS | FORK_PATH_ONLY_ENV | FORK_CHDIR_ROOT |
                          FORK_NEW_SESSION,
                      szArg1, szArg2, szArg3, szArg4, static_cast<const char *>(nullptr));
}
