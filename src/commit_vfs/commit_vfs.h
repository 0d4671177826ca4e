// The commit layer: an SQLite VFS over the default one that makes each commit of a connection
// without a journal whole. docs/commit-layer.md has the design and what is promised.
#ifndef COMMIT_VFS_H
#define COMMIT_VFS_H

// What a commit that was answered survives.
enum class commit_strength {
    off,         // nothing more than without the layer; what is left unfinished is finished even so
    kill_safe,   // the end of the process, a full disk, a failed write
    power_safe,  // the loss of power as well
};

// Puts the layer over SQLite's default VFS and makes it the default. Connections that are open
// already stay as they are, so this comes before the first sqlite3_open. Called again, it only
// changes the strength, which holds from the next commit on. The signal SIGXFSZ gets a handler that
// does nothing, unless the process has chosen otherwise.
//
// Returns SQLite's code. After a failure everything is as it was.
int register_commit_vfs(commit_strength strength);

#endif  // COMMIT_VFS_H
