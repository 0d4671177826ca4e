// The world of the login-attempt limiter, for tests that link it: a settings service that answers
// what a test says, a clock that stands still, and a recording notifier.
//
// Linking limiter.cpp into a test puts it in front of zb_call(), time() and clone(). The notifier
// is a program, at its own path and started by the real sender; it sends its words back. One starts
// only after the one before has sent its words, so their order is certain.
#ifndef TESTS_SUPPORT_LIMITER_H
#define TESTS_SUPPORT_LIMITER_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "ravo_records.h"
#include "ravod_db_privilege_user_block_handler.h"

namespace limiter_world {

// --- The clock -----------------------------------------------------------------------------------

inline constexpr time_t start_time = 1795222858;
extern time_t now;  // what time() answers

// --- The settings service ------------------------------------------------------------------------

extern std::string reply;                  // the text that it answers
extern int call_result;                    // what zb_call() returns; 0: the reply is delivered
extern std::function<void()> during_call;  // runs while it is asked
extern std::vector<std::string> calls;     // "SERVICE METHOD TIMEOUT FD REQUEST" of each call

// A reply with these members of data.global, for example: R"("enable": true, "limit": 3)".
std::string settings(const std::string& members);
std::string settings_on(const std::string& limit, const std::string& time);

// --- The notifier --------------------------------------------------------------------------------

// Puts the recording notifier in its place; without it notifications are lost.
void install_notifier();
extern int forks;  // of this process so far: one for each notification
// The words of every notification sent so far, one element each, with a '\n' behind each word.
std::vector<std::string> notifications();
// The words of entries "0020" and "0021".
std::string blocked(const std::string& user);
std::string unblocked(const std::string& user);

// --- The limiter ---------------------------------------------------------------------------------

void fail(const std::string& user);
int check(const std::string& user);
void lift(const std::string& user);
void clean();

// "id|username|limit_count|timestamp" of each row of the file, by id.
std::vector<std::string> rows();
// The limit_count of the first row with the name; "(no row)" without one.
std::string count_of_user(const std::string& user);
// Puts a row into the file from outside; values as SQL.
void put_row(const std::string& id, const std::string& username, const std::string& limit_count,
             const std::string& timestamp);
void put_row(const std::string& id);
// Empties the table from outside; ids start at 1 again.
void drop_rows();
// Makes the table, from outside, an empty one whose rows are ids and nothing else.
void keep_ids_only();

// What the store was asked for, in order: statement texts, and "(settings)" and "(notifier)" where
// a call or a notification stands between them.
std::vector<std::string> events();
void forget_events();
// The statements of a look at all rows, of which first_id is the smallest id.
std::vector<std::string> look(const std::string& first_id);

// The log's lines as "LEVEL UNIT FUNCTION:MESSAGE", addresses as ADDRESS.
std::vector<std::string> log_lines();
void forget_log();

// The texts of all parts, one after the other.
std::vector<std::string> sequence(const std::vector<std::vector<std::string>>& parts);

}  // namespace limiter_world

#endif  // TESTS_SUPPORT_LIMITER_H
