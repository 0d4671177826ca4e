// The spool between the notifier, which runs in its caller's sandbox, and ravod-notify, which
// delivers.
//
// An entry is a file with a notification's line of JSON. Its name begins with the time, so that the
// order of the names is the order of the notifications. The notifier puts it into the folder "new",
// whole. From there it is linked into the queue of each channel, and leaves a queue when that
// channel has delivered it.
#ifndef NEIGHBOURS_NOTIFY_SPOOL_H
#define NEIGHBOURS_NOTIFY_SPOOL_H

#include <cstddef>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

inline constexpr char spool_folder[] = "/var/spool/ravod-notify";
inline constexpr char spool_new[] = "/var/spool/ravod-notify/new";
inline constexpr char spool_queues[] = "/var/spool/ravod-notify/queue";
inline constexpr size_t most_entries = 1000;  // in "new", and in each queue
inline constexpr size_t most_entry_bytes = 65536;

// Puts an entry into "new". False when it is too large, too many wait, or it cannot be written;
// why stands in the reason.
bool spool_entry(const std::string& line, std::string& reason);

// The names of the entries of a folder, oldest first.
std::vector<std::string> entries_of(const std::string& folder);

// An entry's bytes; empty when it is no regular file, too large, or cannot be read.
std::string read_entry(const std::string& path);

// When the entry of this name was made.
time_t time_of_entry(const std::string& name);

// Moves everything in "new" to the queues of these channels. An entry that is not wanted goes to
// none. Queues of other channels are removed with what is in them. Losses are told.
using wants_entry = std::function<bool(const std::string& line)>;
using tell = std::function<void(const std::string& message)>;
void distribute(const std::vector<std::string>& channels, const wants_entry& is_wanted,
                const tell& complain);

#endif  // NEIGHBOURS_NOTIFY_SPOOL_H
