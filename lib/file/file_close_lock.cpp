/*
 * The table of the appliance's lock files, and the one operation on it that
 * this program needs: a forked child drops the lock streams it inherited
 * (FORK_CLOSE_LOCKS), so that a program it starts cannot keep a lock of its
 * caller's alive. The child has its own copy of the table, and closing its
 * streams leaves the parent's locks as they are.
 *
 * The rows stand in the appliance's order, which its other programs search
 * in; the bit values are theirs too, out of order as they are.
 */
#include <stdint.h>

#include "vyracore.h"

VLIBLOCK rgslckList[29] = {
    {nullptr, "/tmp/lock/lock_vyrainfo", 0x00000800, 0, 0},
    {nullptr, "/tmp/lock/lock_pw", 0x00000010, 0, 0},
    {nullptr, "/tmp/lock/lock_gr", 0x00000020, 0, 0},
    {nullptr, "/tmp/lock/lock_rc", 0x00000080, 0, 0},
    {nullptr, "/tmp/lock/lock_host", 0x00000100, 0, 0},
    {nullptr, "/tmp/lock/lock_smb", 0x00000040, 0, 0},
    {nullptr, "/tmp/lock/lock_exports", 0x00000200, 0, 0},
    {nullptr, "/tmp/lock/lock_nw", 0x00000400, 0, 0},
    {nullptr, "/tmp/lock/lock_apple", 0x00001000, 0, 0},
    {nullptr, "/tmp/lock/lock_snmp", 0x00002000, 0, 0},
    {nullptr, "/tmp/lock/lock_win", 0x00004000, 0, 0},
    {nullptr, "/tmp/lock/lock_tapebkp", 0x00008000, 0, 0},
    {nullptr, "/tmp/lock/lock_connect", 0x00010000, 0, 0},
    {nullptr, "/tmp/lock/lock_usbidmap", 0x00020000, 0, 0},
    {nullptr, "/tmp/lock/lock_duseruid", 0x00040000, 0, 0},
    {nullptr, "/tmp/lock/lock_dusergid", 0x00080000, 0, 0},
    {nullptr, "/tmp/lock/lock_fstab", 0x00100000, 0, 0},
    {nullptr, "/tmp/lock/lock_hotswap", 0x00200000, 0, 0},
    {nullptr, "/tmp/lock/lock_space", 0x00400000, 0, 0},
    {nullptr, "/tmp/lock/lock_ttys1", 0x00800000, 0, 0},
    {nullptr, "/tmp/lock/lock_srvmgr", 0x01000000, 0, 0},
    {nullptr, "/tmp/lock/lock_vyramount", 0x02000000, 0, 0},
    {nullptr, "/tmp/lock/lock_lunbkptask", 0x04000000, 0, 0},
    {nullptr, "/tmp/lock/lock_lunbkp_env", 0x08000000, 0, 0},
    {nullptr, "/tmp/lock/lock_pkg", 0x10000000, 0, 0},
    {nullptr, "/tmp/lock/lock_ftp_currlog", 0x20000000, 0, 0},
    {nullptr, "/tmp/lock/lock_sshd_refernce", 0x40000000, 0, 0},
    {nullptr, "/tmp/lock/lock_sftp_currlog", INT32_MIN /* bit 31, 0x80000000 */, 0, 0},
    {nullptr, "", 0, 0, 0},
};

/* Every row is visited and freed even after a failed close: no stream outlives the call. */
int32_t VLIBCFileCloseLock(void)
{
    int32_t ret = 0;

    for (VLIBLOCK *pslck = rgslckList; pslck->idFile != 0; ++pslck) {
        pslck->cLock = 0;
        if (pslck->pfFile == nullptr)
            continue;
        if (fclose(pslck->pfFile) == EOF)
            ret = -1;
        pslck->pfFile = nullptr;
    }
    return ret;
}
