/* The core library's header must serve the appliance's C programs too. */
#include "vyracore.h"

int main(void)
{
    VLIBCErrSetEx(ERR_FORK_FAIL, "client.c", 7);
    return vyraerrno == ERR_FORK_FAIL && VLIBCErrorGetLine() == 7 && VLIBCErrLogSet(NULL, "x") == -1
               ? 0
               : 1;
}
