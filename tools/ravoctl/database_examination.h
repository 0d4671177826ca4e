// Whether the daemon's database is sound, looked at beside the running daemon.
#pragma once

extern const char* const examined_database;  // its path

inline constexpr unsigned longest_examination = 1;  // seconds

enum class database_state { sound, damaged, unknown };

// Reads the file and writes nothing. The daemon's writes wait meanwhile, and it waits for no longer
// than 2 seconds before it drops a record: so what takes longer than a second is left off.
database_state examine_database();
