/* The core library's header must serve C programs of the appliance too. */
#include "vyracore.h"

int main(void)
{
    BOOL fOk = TRUE;
    VLIBCErrSetEx(ERR_FORK_FAIL, "client.c", 7);
    fOk = vyraerrno == ERR_FORK_FAIL && VLIBCErrorGetLine() == 7 ? TRUE : FALSE;
    if (VLIBCErrLogSet(NULL, "x") != -1 || vyraerrno != ERR_BAD_PARAMETERS)
        fOk = FALSE;
    return fOk == TRUE ? 0 : 1;
}
