// What ravoctl has deleted and cleaned in this life of the daemon, on which it depends what the
// next delete or clean does.
//
// A table's module keeps one DELETE text and lengthens it with every delete (" WHERE id = %lu;")
// and every clean (";"), until the daemon ends. So the first of them decides:
//   clean first    each later clean and each later delete empties the table
//   delete first   each later delete takes its row, each later clean is no SQL and takes nothing
// From the second on, all but cleans after a clean end in a failed statement, which costs the
// table's connection, and a temporary table with it.
#pragma once

#include <cstdint>
#include <string>

#include "json_ptr.h"

struct table_history {
    uint64_t deletes = 0;
    uint64_t cleans = 0;
    bool clean_was_first = false;
};

enum class deed { deletes, clean };

enum class effect {
    as_asked,
    nothing,      // no row goes
    empties,      // all rows go
    loses_table,  // all rows go, and none can be added until the daemon is started again
};

// What so many deletes, or one clean, would do to a table of this history.
effect forecast(const table_history& history, bool is_temporary, deed what, uint64_t count);

table_history after(table_history history, deed what, uint64_t count);

// The note of it, locked against other ravoctl from construction to destruction. It knows nothing
// of what other programs have deleted and cleaned. A daemon is known by its listening socket's
// number; the note of another one counts for nothing.
class daemon_life {
  public:
    static constexpr char path[] = "/run/ravoctl.json";

    // Throws std::system_error when the note cannot be opened, and std::runtime_error when it
    // cannot be read.
    daemon_life();
    ~daemon_life();
    daemon_life(const daemon_life&) = delete;
    daemon_life& operator=(const daemon_life&) = delete;

    table_history history_of(const std::string& table) const;

    // Written at once, so that it is there whatever becomes of the call. Throws std::system_error.
    void remember(const std::string& table, const table_history& history);

  private:
    int fd;
    json_ptr note;
};
