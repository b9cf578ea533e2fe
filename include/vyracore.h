/*
 * libvyracore: the appliance's core library (the subset the update tool uses).
 *
 * Conventions: a failing function returns its failure value (-1 for counts and
 * statuses, 0 for predicates, NULL for pointers) and records why with
 * VLIBCErrSetEx(): the code, and the source file and line of the statement
 * that found the failure, which the appliance's other programs read. Arguments
 * are checked first; a bad one is ERR_BAD_PARAMETERS. The record is never
 * cleared on success: look at a call's result first, and at vyraerrno only
 * when it failed. Each declaration below lists its results and records; those
 * that record nothing for a failure say so: VLIBCStrTokIndex,
 * VLIBCILineKeyMatch (no memory), VLIBCFileCloseLock, and VLIBCExecl and
 * VLIBCExec (a program that cannot be started, a child that is no child of
 * ours).
 */
#ifndef VYRACORE_H
#define VYRACORE_H

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum _tag_BOOL_ { FALSE = 0, TRUE = 1 } BOOL;

/* Error codes: number * 0x100, allocated in blocks by area. */
typedef enum _tag_VYRAERR_ {
    ERR_SUCCESS = 0x0000,
    /* general, file, share, group, user, key/section and device errors */
    ERR_NOT_ENOUGH_MEMORY = 0x0100,
    ERR_OUT_OF_MEMORY = 0x0200,
    ERR_ACCESS_DENIED = 0x0300,
    ERR_LOCK_FAILED = 0x0400,
    ERR_UNLOCK_FAILED = 0x0500,
    ERR_PATH_NOT_FOUND = 0x0600,
    ERR_FILE_NOT_FOUND = 0x0700,
    ERR_FILE_EXISTS = 0x0800,
    ERR_OPEN_FAILED = 0x0900,
    ERR_READ_FAILED = 0x0A00,
    ERR_WRITE_FAILED = 0x0B00,
    ERR_CREATE_FAILED = 0x0C00,
    ERR_BAD_PARAMETERS = 0x0D00,
    ERR_INVALID_SERVERNAME = 0x0E00,
    ERR_INVALID_DOMAINNAME = 0x0F00,
    ERR_INVALID_NETNAME = 0x1000,
    ERR_SERVER_UNREACHABLE = 0x1100,
    ERR_INVALID_SHARENAME = 0x1200,
    ERR_SHARE_EXISTS = 0x1300,
    ERR_NO_SUCH_SHARE = 0x1400,
    ERR_TOO_MANY_SHARES = 0x1500,
    ERR_INVALID_GROUPNAME = 0x1600,
    ERR_GROUP_EXISTS = 0x1700,
    ERR_NO_SUCH_GROUP = 0x1800,
    ERR_TOO_MANY_GROUPS = 0x1900,
    ERR_INVALID_USERNAME = 0x1A00,
    ERR_INVALID_PASSWORDNAME = 0x1B00,
    ERR_USER_EXISTS = 0x1C00,
    ERR_NO_SUCH_USER = 0x1D00,
    ERR_WRONG_PASSWORD = 0x1E00,
    ERR_TOO_MANY_USERS = 0x1F00,
    ERR_KEY_NOT_FOUND = 0x2000,
    ERR_KEY_EXISTS = 0x2100,
    ERR_SECTION_NOT_FOUND = 0x2200,
    ERR_SECTION_EXISTS = 0x2300,
    ERR_NOT_ENOUGH_QUOTA = 0x2400,
    ERR_NOT_ENOUGH_VOLUME_SPACE = 0x2500,
    ERR_SEEK_FAILED = 0x2600,
    ERR_STAT_FAILED = 0x2700,
    ERR_RENAME_FAILED = 0x2800,
    ERR_NOT_ENOUGH_SPACE = 0x2900,
    ERR_OP_FAILURE = 0x2A00,
    ERR_DEV_UNCONFIG = 0x2B00,
    ERR_DEV_UNMOUNTED = 0x2C00,
    ERR_OP_UNREGISTERED = 0x2D00,
    ERR_TIMER_EXPIRED = 0x2E00,
    ERR_USER_BATCH_CONFLICT = 0x2F00,
    ERR_READ_GEO = 0x3000,
    ERR_USAGE = 0x3100,
    ERR_UPDATE_OFFSET = 0x3200,
    ERR_CHECKSUM = 0x3300,
    ERR_OPEN_RAWDEVICE = 0x3400,
    ERR_OPEN_OPTFILE = 0x3500,
    ERR_READ_RAWDEVICE = 0x3600,
    ERR_WRITE_RAWDEVICE = 0x3700,
    ERR_BADPATCH = 0x3800,
    ERR_REMOVE_FAILED = 0x3900,
    ERR_MOVE_FAILED = 0x3A00,
    ERR_COPY_FAILED = 0x3B00,
    ERR_MKDIR_FAILED = 0x3C00,
    ERR_MMAP_FAILED = 0x3D00,
    /* format */
    ERR_FORMAT_ERROR = 0x4000,
    /* backup and import/export */
    ERR_NO_BACKUP_SET = 0x5000,
    ERR_BACKUP_SET_EXISTS = 0x5100,
    ERR_BACKUP_RUNNING = 0x5200,
    ERR_BACKUP_MEDIA = 0x5300,
    ERR_IMPORT_FAILED = 0x5400,
    ERR_EXPORT_FAILED = 0x5500,
    ERR_IMPORT_FORMAT = 0x5600,
    /* volume, disk and RAID configuration */
    ERR_NO_VOLUME_ID = 0x6000,
    ERR_VOLUME_EXISTS = 0x6100,
    ERR_NO_SUCH_VOLUME = 0x6200,
    ERR_VOLUME_CREATE_FAILED = 0x6300,
    ERR_DEVICE_BUSY = 0x6400,
    ERR_DISK_NOT_FOUND = 0x6500,
    ERR_DISK_TOO_SMALL = 0x6600,
    ERR_DISK_IN_USE = 0x6700,
    ERR_RAID_CREATE_FAILED = 0x6800,
    ERR_RAID_NOT_FOUND = 0x6900,
    ERR_RAID_DEGRADED = 0x6A00,
    ERR_RAID_LEVEL = 0x6B00,
    ERR_PARTITION_FAILED = 0x6C00,
    ERR_BAD_DISKSECTOR = 0x6D00,
    /* update daemon and manufacturing utility */
    ERR_UDPD_INVALID_HANDLE = 0x7100,
    ERR_UDPD_OPEN = 0x7200,
    ERR_UDPD_READ = 0x7300,
    ERR_UDPD_WRITE = 0x7400,
    ERR_UDPD_TIMEOUT = 0x7500,
    ERR_UDPD_NO_DEVICE = 0x7600,
    ERR_UDPD_BUSY = 0x7700,
    ERR_UDPD_BAD_PACKET = 0x7800,
    ERR_UDPD_PERM = 0x7900,
    ERR_UDPD_NOT_SUPPORT = 0x7A00,
    ERR_MANUTIL_PERM = 0x7B00,
    /* unknown and volume size */
    ERR_UNKNOWN = 0x8000,
    ERR_SYS_UNKNOWN = 0x8100,
    ERR_VOLUME_SIZE_TOO_SMALL = 0x8200,
    ERR_VOLUME_SIZE_TOO_LARGE = 0x8300,
    ERR_VOLUME_READ_ONLY = 0x8400,
    /* directory service, quota, fork, enumeration, path name */
    ERR_YP_BIND = 0x9000,
    ERR_QUOTA_NOT_FOUND = 0x9100,
    ERR_QUOTA_EXCEEDED = 0x9200,
    ERR_QUOTA_SET_FAILED = 0x9300,
    ERR_QUOTA_GET_FAILED = 0x9400,
    ERR_QUOTA_NOT_SUPPORT = 0x9500,
    ERR_WAIT_FAIL = 0x9600,
    ERR_FORK_FAIL = 0x9700,
    ERR_RAID_ENUM_FAIL = 0x9800,
    ERR_ENUM_FAIL = 0x9900,
    ERR_INVALID_PATHNAME = 0x9A00,
    /* directory, FAT, cancel, interrupt, encryption key */
    ERR_NOT_DIRECTORY = 0xA000,
    ERR_DIRECTORY_NOT_EMPTY = 0xA100,
    ERR_FAT_FORMAT = 0xA200,
    ERR_FAT_FILE_TOO_LARGE = 0xA300,
    ERR_FAT_INVALID_NAME = 0xA400,
    ERR_FAT_READ_ONLY = 0xA500,
    ERR_USER_CANCEL = 0xA600,
    ERR_INTERRUPTED = 0xA700,
    ERR_ENCRYPT_KEY_INVALID = 0xA800,
    ERR_ENCRYPT_KEY_NOT_FOUND = 0xA900,
    /* database file, reserved account, domain look-up, interface, name */
    ERR_BDB_FILE_DEPRECATED = 0xB000,
    ERR_BDB_FILE_CORRUPT = 0xB100,
    ERR_BDB_FILE_LOCKED = 0xB200,
    ERR_BDB_FILE_VERSION = 0xB300,
    ERR_RESERVED_USER = 0xB400,
    ERR_RESERVED_GROUP = 0xB500,
    ERR_RESERVED_SHARE = 0xB600,
    ERR_DOMAIN_LOOKUP_FAILED = 0xB700,
    ERR_DOMAIN_NOT_JOINED = 0xB800,
    ERR_DOMAIN_UNREACHABLE = 0xB900,
    ERR_DOMAIN_USER_NOT_FOUND = 0xBA00,
    ERR_DOMAIN_GROUP_NOT_FOUND = 0xBB00,
    ERR_INTERFACE_NOT_FOUND = 0xBC00,
    ERR_INTERFACE_DOWN = 0xBD00,
    ERR_INTERFACE_CONFIG = 0xBE00,
    ERR_INTERFACE_ADDRESS = 0xBF00,
    ERR_NAME_EXISTS = 0xC000,
    ERR_NAME_INVALID = 0xC100,
    ERR_NAME_RESERVED = 0xC200,
    ERR_NAME_TOO_LONG = 0xC300,
    /* service, access-control list, support, space, dependency */
    ERR_SERVICE_EXISTS = 0xD000,
    ERR_NO_SUCH_SERVICE = 0xD100,
    ERR_SERVICE_START_FAILED = 0xD200,
    ERR_SERVICE_STOP_FAILED = 0xD300,
    ERR_SERVICE_RUNNING = 0xD400,
    ERR_SERVICE_NOT_RUNNING = 0xD500,
    ERR_VYRAACL_NOT_VALID_TO_CHG = 0xD600,
    ERR_VYRAACL_NOT_SUPPORT = 0xD700,
    ERR_VYRAACL_INVALID = 0xD800,
    ERR_NOT_SUPPORT = 0xD900,
    ERR_NOT_SUPPORT_FS = 0xDA00,
    ERR_NOT_SUPPORT_ARCH = 0xDB00,
    ERR_NOT_ENOUGH_SYSTEM_SPACE = 0xDC00,
    ERR_NOT_ENOUGH_TMP_SPACE = 0xDD00,
    ERR_NOT_ENOUGH_SHARE_SPACE = 0xDE00,
    ERR_DEPENDENCY_MISSING = 0xDF00,
    ERR_DEPENDENCY_CONFLICT = 0xE000,
    ERR_DEPENDENCY_VERSION = 0xE100,
    ERR_NOT_A_SYMLINK = 0xE200,
    ERR_CLOSE_FAILED = 0xE300,
    ERR_FORBIDDEN_ACTION = 0xE400,
    ERR_PERMISSION_DENIED = 0xE500,
    ERR_STRING_TOO_LONG = 0xE600,
    ERR_DIRECTORY_EXISTS = 0xE700,
    ERR_DIRECTORY_NOT_FOUND = 0xE800,
    ERR_SYMLINK_FAILED = 0xE900,
    ERR_VYRAACL_NO_ENTRY = 0xEA00,
    ERR_VYRAACL_ENTRY_EXISTS = 0xEB00,
    ERR_VYRAACL_INHERIT = 0xEC00,
    ERR_GROUP_BATCH_LIMIT = 0xED00,
    ERR_GROUP_BATCH_CONFLICT = 0xEE00,
    ERR_VYRAACL_ENTRY_EXCEED = 0xEF00
} VYRAERR;

typedef enum _tag_RAIDERR_ {
    RAIDERR_NOERR = 0,
    RAIDERR_DEVICE_NOT_FOUND,
    RAIDERR_OPEN,
    RAIDERR_READ,
    RAIDERR_WRITE,
    RAIDERR_IOCTL,
    RAIDERR_CREATE,
    RAIDERR_ASSEMBLE,
    RAIDERR_STOP,
    RAIDERR_DEGRADED,
    RAIDERR_LEVEL,
    RAIDERR_PARTITION_NOT_FOUND
} RAIDERR;

typedef enum _tag_RAIDISKERR_ {
    RAIDISKERR_NOERR = 0,
    RAIDISKERR_NOT_FOUND,
    RAIDISKERR_TOO_SMALL,
    RAIDISKERR_IN_USE,
    RAIDISKERR_BAD_SECTOR,
    RAIDISKERR_PARTITION,
    RAIDISKERR_READ,
    RAIDISKERR_WRITE,
    RAIDISKERR_OPEN
} RAIDISKERR;

typedef enum _tag_VOLERR_ {
    VOLERR_NOERR = 0,
    VOLERR_NOT_FOUND,
    VOLERR_EXISTS,
    VOLERR_CREATE,
    VOLERR_REMOVE,
    VOLERR_MOUNT,
    VOLERR_UMOUNT,
    VOLERR_MKFS,
    VOLERR_FSCK,
    VOLERR_RESIZE,
    VOLERR_BUSY,
    VOLERR_FSSTAT
} VOLERR;

/*
 * The process-wide error state: the code of the last recorded failure, with
 * the file and line that VLIBCErrorGetFile and VLIBCErrorGetLine give. It
 * starts as ERR_SUCCESS, no file and line 0; every record replaces all three.
 * One thread is assumed. The other three are the RAID, disk and volume errors
 * of the appliance's other programs; nothing here reads or writes them.
 */
extern VYRAERR vyraerrno;
extern RAIDERR gRaidErr;
extern RAIDISKERR gDiskErr;
extern VOLERR volerr;

/* Sets the code and forgets the file and line of the last record. */
void VLIBCErrSet(VYRAERR errCode);
/* Sets code, file (the pointer itself is kept: pass a literal) and line. */
void VLIBCErrSetEx(VYRAERR errCode, const char *szFile, int32_t nLine);
/* File of the last record; NULL if none or if it came through VLIBCErrSet. */
const char *VLIBCErrorGetFile(void);
/* Line of the last record; 0 in the same cases. */
int32_t VLIBCErrorGetLine(void);
/* Empty: a back trace is not part of this subset. */
void VLIBCErrorBackTracePrint(void);
void VLIBCErrorBackTraceLog(void);
void VLIBCErrorBackTracePanic(void);

/*
 * Appends szLog and one newline to szFile, creating the file if it is missing
 * and never truncating it, then flushes and syncs it, and when the file was
 * empty (new, or emptied by rotation) the directory that holds it too: the
 * record is on the disk when the call returns. "%%" in szLog is written as
 * "%"; any other "%" is written as it stands.
 *   0                        the record was handed over; a failing flush,
 *                            sync or close is ignored
 *   -1, ERR_BAD_PARAMETERS   szFile or szLog is NULL; nothing is opened
 *   -1, ERR_OPEN_FAILED      the file cannot be opened for appending
 *   -1, ERR_WRITE_FAILED     the text or the newline cannot be written; a
 *                            partial line may remain
 */
int32_t VLIBCErrLogSet(const char *szFile, const char *szLog);

/*
 * The next non-empty token of the string that *szInput points into. Every
 * separator (any byte of szSep) that ends a returned or skipped field is
 * overwritten with NUL; runs of separators count as one, and leading ones are
 * skipped. *szInput moves past the token, and is NULL after a token that
 * reached the end. The state is the caller's cursor alone, so several strings
 * can be cut at once, and every call may use other separators.
 *   the token
 *   NULL   no token is left, or szInput, *szInput or szSep is NULL; nothing is
 *          recorded
 */
char *VLIBCStrTokIndex(char **szInput, const char *szSep);
/*
 * Removes white space at both ends of szInput, then one pair of double quotes
 * that starts and ends what is left, on two different bytes; white space
 * inside the quotes stays. White space is TAB, LF, CR and SPACE only: not VT,
 * FF, nor any byte from 0x80 up. The result goes to szOutput, which has room
 * for strlen(szInput) + 1 bytes and may start before szInput, or replaces
 * szInput when szOutput is NULL or szInput. Nothing is written on a failure.
 * So "  \"7321\" \r\n" gives 7321, "\" a \"" a blank, a and a blank, a lone
 * double quote stays, two give "", and 'x' keeps its single quotes.
 *   the length of the result
 *   -1, ERR_BAD_PARAMETERS   szInput is NULL, or szOutput starts inside
 *                            szInput after its first byte, up to and with its
 *                            terminator
 */
int32_t VLIBCStrTrimSpace(char *szInput, char *szOutput);

/*
 * Whether one line of a key-value file carries szKey. The line's key is its
 * text before the first "=" (leading "=" skipped), or the whole line when it
 * has none, trimmed as by VLIBCStrTrimSpace and compared byte for byte with
 * szKey as given. A line whose very first byte is "#" or ";" is a comment.
 * szLine is cut at its first "=": pass a copy.
 *   1                        the line carries the key
 *   0                        it does not, or it is a comment or empty, or the
 *                            scratch buffer cannot be had (nothing recorded)
 *   0, ERR_BAD_PARAMETERS    szLine or szKey is NULL
 */
int32_t VLIBCILineKeyMatch(char *szLine, const char *szKey);
/*
 * Reads into szValue, sizeMax bytes with the terminator, the value of szKey in
 * szFile, a file of key=value lines of any length (the last may lack its LF):
 * the text after the first "=" of a line that carries the key (see
 * VLIBCILineKeyMatch) up to the LF, trimmed the same way. Bit 0 of flag clear:
 * the first such line decides; set: the last one does; other bits are
 * ignored. szValue NULL with sizeMax 0 only measures. A value that does not
 * fit is not copied. After a line that carries the key without a value,
 * szValue is left alone for the rest of the call. A read error ends the
 * reading as the end of the file does.
 *   the value's length + 1     a value was found, and copied if it fits
 *   0, ERR_KEY_NOT_FOUND       no line carries the key with a value
 *   -1, ERR_BAD_PARAMETERS     szFile or szKey NULL, a negative flag, or
 *                              szValue NULL with sizeMax not 0
 *   -1, ERR_OPEN_FAILED        the file cannot be opened for reading
 *   -1, ERR_NOT_ENOUGH_MEMORY  the (last) value found does not fit
 */
int32_t VLIBCFileGetKeyValue(const char *szFile, const char *szKey, char *szValue, int32_t sizeMax,
                             int32_t flag);

/*
 * One lock file of the appliance. A row is free (no stream, count 0) or held:
 * whatever takes the lock opens szFile, keeps the stream in pfFile and raises
 * cLock, so that a forked child can drop what it inherited.
 */
typedef struct _tag_VLIB_LOCK_ {
    FILE *pfFile;       /* the open stream while this process holds the lock */
    const char *szFile; /* the lock file's path */
    int32_t idFile;     /* a single bit, distinct for every lock; 0 ends the table */
    int32_t cLock;      /* hold count; 0 when not held */
    int32_t type;
} VLIBLOCK;

/*
 * The lock files under /tmp/lock: 28 rows, searched in this order (their bits
 * are not in order, and the lowest four belong to no lock), then a
 * terminator whose idFile is 0.
 */
extern VLIBLOCK rgslckList[29];

/*
 * Frees every row up to the terminator: its count becomes 0, and a held stream
 * is closed and forgotten even when the close fails.
 *   0    every close succeeded
 *   -1   a close failed; nothing is recorded
 */
int32_t VLIBCFileCloseLock(void);

/* Preparation of the child by VLIBCProcForkEx, applied in this order: */
#define FORK_PATH_ONLY_ENV 0x08 /* the environment keeps PATH only (empty without one) */
#define FORK_CLOSE_LOCKS 0x02   /* the lock files are closed */
#define FORK_NULL_STDIO 0x01    /* 0-2 on /dev/null, or as they are without it */
#define FORK_CLOSE_ALL_FDS 0x04 /* the lock files, and 3 to the open-file limit, closed */
#define FORK_DETACH 0x40        /* forks again; the program runs on as a grandchild */
#define FORK_NEW_SESSION 0x20   /* a session of its own (the grandchild's, detached) */
#define FORK_CHDIR_ROOT 0x10    /* "/" as working directory */

/*
 * Flushes every output stream, so that nothing buffered is written twice,
 * forks, and prepares the child as the FORK_ bits of flag ask; other bits are
 * ignored. With FORK_DETACH the caller waits for the intermediate child only;
 * should its second fork fail, that is told to the system log and it ends
 * with 255.
 *   0                    in the child
 *   the child's id       in the caller, without FORK_DETACH
 *   1                    with FORK_DETACH, once the intermediate child ended
 *                        with exit code 0 (a signal counts so) or was reaped
 *                        elsewhere
 *   -1, ERR_FORK_FAIL    the fork failed
 *   -1                   with FORK_DETACH, the intermediate child ended with
 *                        another code or could not be waited for
 */
pid_t VLIBCProcForkEx(int32_t flag);
/*
 * Runs szPath (as given, no PATH search; also its argument 0) with the
 * arguments up to the first NULL, in a child that VLIBCProcForkEx(flag)
 * prepared, and waits for it without a time-out, repeating an interrupted
 * wait. SIGCHLD's SA_NOCLDWAIT is cleared for the call, and set again after
 * it on the action as it then is if it was set before.
 *   0-255                the program's exit code; 255 also when it cannot be
 *                        started (nothing recorded)
 *   0                    the child is no child of ours, as for a caller that
 *                        ignores SIGCHLD (nothing recorded); with FORK_DETACH,
 *                        once the intermediate child ended well
 *   -1, ERR_OP_FAILURE   the program was killed by a signal, or the fork, the
 *                        wait or the detach failed
 */
int32_t VLIBCExecl(const char *szPath, int32_t flag, const char *szArg, ...);
/*
 * VLIBCExecl with FORK_NULL_STDIO | FORK_CLOSE_LOCKS | FORK_PATH_ONLY_ENV |
 * FORK_CHDIR_ROOT | FORK_NEW_SESSION (0x3B) and up to four arguments, the
 * first NULL ending the list; its results.
 */
int32_t VLIBCExec(const char *szPath, const char *szArg1, const char *szArg2, const char *szArg3,
                  const char *szArg4);

#ifdef __cplusplus
}
#endif

#endif /* VYRACORE_H */
