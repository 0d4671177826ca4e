/* Advisory shared and exclusive locks, one per file path, between processes and between threads.
 *
 * What holds for every function here:
 *
 *  1. The lock of "DIR/NAME" is a file of its own, "DIR/NAME.lck", made when it is missing and
 *     never removed. The protected file is never created, opened or changed, and may be missing.
 *  2. Any number of shared locks stand together; an exclusive lock stands alone. That holds inside
 *     one process and one thread too: a second lock on a path is a second holder, so a lock cannot
 *     be taken twice, nor turned from shared into exclusive.
 *  3. A lock ends when it is unlocked, or when the process that took it ends in any way or runs
 *     another program. A forked child has none of its parent's locks.
 *  4. The result is negative on failure, and every failure has its own value: ostra_lock_error.
 *  5. Any thread may call at any time, but no signal handler may. Nothing is written to any log.
 *
 * docs/ostra_config.md says which spellings of a path share a lock, and what each error comes from.
 */
#ifndef OSTRA_CONFIG_H
#define OSTRA_CONFIG_H

#ifdef __cplusplus
extern "C" {
#endif

enum ostra_lock_error {
    ostra_lock_bad_argument = -1, /* no path, a path without a file name, or not a handle in use */
    ostra_lock_cannot_open = -2,  /* the lock file cannot be opened or made; errno says why */
    ostra_lock_timed_out = -3,    /* somebody else held the lock all the time */
    ostra_lock_cannot_lock = -4,  /* the file system refuses to lock; errno says why */
    ostra_lock_out_of_memory = -5
};

/* Takes the shared lock of a file. Blocks while somebody else holds the exclusive one, for 5
 * seconds at most.
 *
 * path    the file to protect, absolute or relative to the working directory, 4091 bytes at most.
 *
 * Returns a handle, 0 or greater, to be given back with Ini_Conf_Unlock_File by any thread of this
 * process; or a negative ostra_lock_error, and then nothing is held and nothing is to be given
 * back. */
int Ini_Conf_Read_Lock_File(const char* path);

/* Takes the exclusive lock of a file. Blocks while anybody else holds a lock on it, for 5 seconds
 * at most. Path and result are those of Ini_Conf_Read_Lock_File. */
int Ini_Conf_Write_Lock_File(const char* path);

/* Gives a lock back; it is free when the call returns. Never blocks.
 *
 * handle  what a lock call of this process returned, once. The number may come back as the handle
 *         of a later lock.
 *
 * Returns 0, or ostra_lock_bad_argument for any other number, which is then left alone. */
int Ini_Conf_Unlock_File(int handle);

#ifdef __cplusplus
}
#endif

#endif
