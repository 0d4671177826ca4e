// Owners of a descriptor and of SQLite's handles.
#ifndef DBCHECK_HANDLES_H
#define DBCHECK_HANDLES_H

#include <sqlite3.h>
#include <unistd.h>

#include <memory>
#include <utility>

class descriptor {
  public:
    descriptor() = default;
    explicit descriptor(int opened) : fd(opened) {}
    descriptor(descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    descriptor& operator=(descriptor&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~descriptor() {
        if (fd != -1) close(fd);
    }
    int get() const { return fd; }
    bool is_open() const { return fd != -1; }

  private:
    int fd = -1;
};

struct close_database {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct finalize_stmt {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using db_handle = std::unique_ptr<sqlite3, close_database>;
using statement_handle = std::unique_ptr<sqlite3_stmt, finalize_stmt>;

#endif  // DBCHECK_HANDLES_H
