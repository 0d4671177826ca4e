// Records what SQLite writes to the database file, so that a test can make the file that a kill
// between any two writes would have left.
#ifndef TESTS_SUPPORT_WRITE_RECORDER_H
#define TESTS_SUPPORT_WRITE_RECORDER_H

#include <cstdint>
#include <string>
#include <vector>

namespace write_recorder {

// A write, or with no bytes a truncation to the offset.
struct file_change {
    int64_t offset;
    std::string bytes;
};

// The changes of all database files so far, in order.
extern std::vector<file_change> changes;

// Becomes SQLite's default VFS, over the one that is. Before any database is opened, once.
void install();

// What the file holds after one change more.
void apply(const file_change& change, std::string& file);

}  // namespace write_recorder

#endif  // TESTS_SUPPORT_WRITE_RECORDER_H
