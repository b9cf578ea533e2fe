/*
 * The process-wide error state. One thread is assumed: the three values are
 * plain variables, written one after the other without locking.
 */
#include "vyracore.h"

VYRAERR vyraerrno = ERR_SUCCESS;
RAIDERR gRaidErr = RAIDERR_NOERR;
RAIDISKERR gDiskErr = RAIDISKERR_NOERR;
VOLERR volerr = VOLERR_NOERR;

static const char *gszFile = nullptr;
static int32_t gnLine = 0;

void VLIBCErrSet(VYRAERR errCode)
{
    vyraerrno = errCode;
    gszFile = nullptr;
    gnLine = 0;
}

void VLIBCErrSetEx(VYRAERR errCode, const char *szFile, int32_t nLine)
{
    gnLine = nLine;
    vyraerrno = errCode;
    gszFile = szFile;
}

const char *VLIBCErrorGetFile(void)
{
    return gszFile;
}

int32_t VLIBCErrorGetLine(void)
{
    return gnLine;
}

void VLIBCErrorBackTracePrint(void)
{
}

void VLIBCErrorBackTraceLog(void)
{
}

void VLIBCErrorBackTracePanic(void)
{
}
