// What the hooks have been told and the daemon does not know yet, and which sessions are open.
//
// Each event is one file, written whole under another name and then renamed. Its name begins with
// the time, so that the order of the names is the order of the events. It is made in memory (/run),
// where writing waits for nobody, and moves to the disk (/var/spool) when the daemon is away.
// Whoever delivers holds a lock, and delivers everybody's events, oldest first.
//
// Nothing is recorded twice: before a record is sent, the name of its file gets the ending ".sent".
// A file that has it already was sent by a process that then died or got no answer, so the daemon
// is asked for the record first.
//
// An open session is a file with its connect. A server that ended without a disconnect leaves those
// of its sessions, which are then recorded as lost.
#ifndef HOOKS_JOURNAL_H
#define HOOKS_JOURNAL_H

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "environment.h"
#include "ravo_records.h"

// Where a program's journal is: "/run/NAME" and "/var/spool/NAME".
struct journal_folders {
    const char* run;
    const char* spool;
};

// Makes a folder and those above it, ours for this user alone: those named "ravo-...". False when
// it is not there afterwards.
bool make_folders(const std::string& folder);

class journal {
  public:
    // most: how many events may wait.
    journal(const journal_folders& where, unsigned most);

    // Takes an event in. Waits for nothing. False when too many wait, or /run cannot be written to.
    bool take(const environment& event) const;

    // Delivers everything that waits. When the daemon is away what is left moves to the disk.
    // Returns whether nothing is left. Waits for the daemon. While somebody else delivers it waits
    // for that, or leaves everything to that process.
    enum class when_busy { wait, leave };
    bool deliver(when_busy what);

    const std::string& run_folder() const { return run_; }

  private:
    using later_events = std::function<bool(const environment& connect)>;

    std::map<std::string, std::string> waiting() const;
    bool deliver_all();
    bool deliver_one(std::string& path, const environment& event, const later_events& has_later);
    bool open_session(std::string& path, const environment& event);
    bool close_session(std::string& path, const environment& event);
    std::string open_file_of(const environment& disconnect) const;
    bool close_lost(const environment& event, const later_events& has_later);
    bool send_once(std::string& path, const db_conn_server_log& row);
    bool keep_on_disk() const;

    unsigned most_;
    std::string run_, new_, waiting_, open_;
};

#endif  // HOOKS_JOURNAL_H
