// The options file as an operator sees it: read with its faults told, and changed through the store
// without losing what it holds.
//
// A fault that stops a function is thrown as std::runtime_error, whose text names the file.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "json_ptr.h"

// The exclusive or shared lock of a file, for as long as it lives.
class file_lock {
  public:
    // take is one of the lock library's two functions. Waits 5 seconds at most; throws as above.
    file_lock(int (*take)(const char*), const char* path);
    ~file_lock();
    file_lock(const file_lock&) = delete;
    file_lock& operator=(const file_lock&) = delete;

  private:
    const int handle;
};

// Keeps every other ravoctl from changing the file, from before it is read until the change has
// been looked at. Other programs do not know this lock.
file_lock lock_out_other_tools();

enum class options_state { present, missing, damaged };

struct options_document {
    options_state state;
    json_ptr root = nullptr;  // an object when present, an empty one for an empty file
    std::string damage = {};  // what is wrong, in one printable line
};

// Reads the file under its shared lock. One that is not empty and holds no JSON object is damaged.
// Throws for a file that cannot be read, and for one that is no regular file.
options_document read_options();

// "FILE is damaged: ..."
std::string damage_message(const options_document& options);

// The copy that an interrupted change has left, in printable characters, when there is nothing in
// the options themselves.
std::optional<std::string> left_copy(const options_document& options);

// Puts that copy in the file's place, and returns whether there was one. Every change begins with
// this, after other tools are locked out, since it replaces a copy that was left.
bool take_back_interrupted_change();

// Makes sure that the file has every section that the store would replace, and returns what it
// holds then. Sections that are there stay as they are. A damaged file is begun anew when
// reset, otherwise this throws. The file is replaced in one step, or not at all.
json_ptr complete_options(bool reset);

// Has the store change the file, and returns what it holds afterwards. A copy of before, which is
// what the file holds now, some section at least, lies beside it meanwhile. When the store leaves
// nothing of it behind, as on a full disk, the copy takes the file's place, and this throws
// not_kept_error. It throws the same when the file cannot be read afterwards; then the copy stays.
// SIGHUP, SIGINT and SIGTERM act when all this is over.
json_ptr change_options(const json_t* before, const std::function<void()>& change);
