// Whether a database file is sound.
#ifndef DBCHECK_CHECK_H
#define DBCHECK_CHECK_H

#include <string>

#include "deadline.h"
#include "handles.h"

enum class finding {
    sound,
    unfinished,  // no damage was met until the time was over
    damaged,
    in_use,  // another program holds a lock
    failed,  // nothing can be said: the system refused something
};

struct check_result {
    finding found;
    std::string reason;  // SQLite's words; empty when sound
};

// Opens a database for reading and writing, as the daemon does. The only place that opens a
// database that may be damaged: a VFS for it is to be the default before the first call.
int open_for_check(const char* path, db_handle& db);

// Reads the whole file under SQLite's EXCLUSIVE lock. A hot journal is rolled back first; apart
// from that a sound file is not written to.
check_result check_database(const char* path, deadline end);

#endif  // DBCHECK_CHECK_H
