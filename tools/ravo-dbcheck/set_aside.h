// The names beside a database: of the file that rows are saved into, and of damaged files that are
// kept. Every operation returns 0 or errno; the folder is synced where an order of names matters.
#ifndef DBCHECK_SET_ASIDE_H
#define DBCHECK_SET_ASIDE_H

#include <cstddef>
#include <string>

inline constexpr size_t kept_files = 3;  // damaged ones, at most

// Where rows are saved into until all of them are. One that lies there was left by a run that was
// cut, and is worth nothing.
std::string salvage_path(const std::string& database);
int remove_leftover(const std::string& database);

// The first of the database's side files that is no regular file; empty when there is none. SQLite
// waits for ever at a pipe, and takes other things for a fault of the disk.
std::string odd_side_file(const std::string& database);

// Gives the damaged file a second name, DATABASE-damaged-YYYYMMDDThhmmssZ. A file that has one from
// a run that was cut keeps it.
int keep_damaged(const std::string& database, std::string& kept);

// Takes along what belongs to the damaged file alone: journals, the write-ahead log with its index,
// and the commit record. SQLite would apply a journal to whatever database lies beside it.
int move_side_files(const std::string& database, const std::string& kept);

// Puts the file with the saved rows, which is written down first, in the database's place, with the
// mode and owner of the damaged one.
int put_in_place(const std::string& database);

// Removes the oldest of the damaged files, with what was taken along, until few enough are left.
// The one that has just been kept stays, whatever the clock says.
void remove_oldest(const std::string& database, const std::string& just_kept);

#endif  // DBCHECK_SET_ASIDE_H
