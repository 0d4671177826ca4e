// The login-attempt limiter: failed logins per user name in the table privilege_user_block, blocks,
// and their notifications. Persistent.
//
// A user is blocked while a row exists with at least `limit` failures and less than the block time
// has passed since the last of them. Both are settings in force at the moment of the question;
// nothing of them is stored.
//
// Counting, checking, lifting and cleaning look at every visible row with the statements of a
// listing, but keep only what they need, so that many names cost no memory.
#include "ravod_db_privilege_user_block_handler.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "block_settings.h"
#include "global_options.h"
#include "json_texts.h"
#include "nc_msg_db.h"
#include "table_store.h"

namespace {
using row = db_privilege_user_block_data;

// The one list of columns. Its order is the order of CREATE, of INSERT, of SELECT *, and of
// order_by, where id is column 0 and comes first by itself.
constexpr column columns[] = {
    {"username", FIELD(row, username)},
    {"limit_count", FIELD(row, limit)},
    {"timestamp", FIELD(row, timestamp)},
};

constinit table<row> privilege_user_block{{.name = "privilege_user_block", .columns = columns}};

constexpr size_t update_size = 4096;           // bytes of the UPDATE's first pass, its NUL included
constexpr int update_result_size = 64 * 1024;  // bytes of the UPDATE's second pass, at most

// --- Settings -----------------------------------------------------------------------------------

// Without memory for the question there are none.
block_settings read_settings() {
    const json_ptr request(json_pack("{s:s}", "path", block_settings_path));
    const json_text text = dump_json(request.get());
    if (!text) {
        log_line(HERE, "ERROR", "%s: out of memory\n", __func__);
        return {};
    }
    const json_ptr reply(ravo::easy_zb_call("vpncaas", "read_json", text.get()));
    return to_block_settings(reply.get());
}

bool is_at_limit(const block_settings& settings, int64_t count) {
    return settings.enabled && count == settings.limit;
}

void notify(int message, const char* username) {
    ravo::nclog::notify_send(&ravo::__NC_MSG_DB__[message], username, nullptr);
}

// --- Rows ---------------------------------------------------------------------------------------

row named_row(const char* username) {
    row record = {};
    read_text(record.username, sizeof record.username, username);
    return record;
}

// A look at the rows is a listing and logs as one, whoever takes it.
call_site as_listing(call_site at) {
    at.function = "select_privilege_user_block";
    return at;
}

// A row as SQLite delivers it: the texts of its columns, in the order of SELECT *.
using row_values = std::span<char*>;

row read_whole(row_values values) {
    row record;
    read_row(columns, values, reinterpret_cast<char*>(&record));
    return record;
}

// Compares as the record has the name: cut to its array, and "NULL" for no value.
bool is_named(row_values values, const char* username) {
    const bool has_name = values.size() > 1 && values[1] != nullptr;
    const char* name = has_name ? values[1] : "NULL";
    return strncmp(name, username, sizeof row::username - 1) == 0;
}

// Calls visit(values) for every visible row, in the order of their ids.
template <class Visit>
void visit_rows(Visit visit) {
    const auto on_row = [](void* arg, int num_fields, char** p_fields, char** /*names*/) {
        (*static_cast<Visit*>(arg))(row_values(p_fields, static_cast<size_t>(num_fields)));
        return 0;
    };
    db_query_cond all = {};
    all.count = -1;
    uint64_t total = 0;
    (void)query_rows(privilege_user_block.state, all, on_row, &visit, total, as_listing(HERE));
}

// The user's row: the first with that name.
std::optional<row> find_user(const char* username) {
    std::optional<row> found;
    visit_rows([&](row_values values) {
        if (!found && is_named(values, username)) found = read_whole(values);
    });
    return found;
}

// Ids are narrowed to 32 bits, so a row may seem to have none; such a row is not written to.
bool has_id(const std::optional<row>& user) { return user && user->id != 0; }

void delete_user(int64_t id, const call_site& at) {
    (void)run(privilege_user_block.state,
              sql("DELETE FROM privilege_user_block WHERE id = %lu;", id), at);
}

// --- Counting -----------------------------------------------------------------------------------

// The number at the front of a text, which loses it, as SQLite reads a precision.
uint32_t take_precision(std::string_view& text) {
    uint32_t number = 0;
    while (!text.empty() && text[0] >= '0' && text[0] <= '9') {
        number = number * 10 + static_cast<uint32_t>(text[0] - '0');
        text.remove_prefix(1);
    }
    return number & INT32_MAX;
}

// Whether a conversion "%.Nc", a character N times, is longer than any result. SQLite goes through
// all N even so, which takes it up to half a minute.
bool repeats_for_long(std::string_view text) {
    for (size_t at = 0; (at = text.find('%')) != text.npos;) {
        text.remove_prefix(at + 1);
        text.remove_prefix(std::min(text.size(), text.find_first_not_of("-+ #!,0123456789*")));
        if (text.empty()) break;
        const bool has_precision = text[0] == '.';
        text.remove_prefix(1);
        if (!has_precision) continue;
        const uint32_t precision = take_precision(text);
        text.remove_prefix(std::min(text.size(), text.find_first_not_of('l')));
        if (precision > update_result_size && text.starts_with('c')) return true;
    }
    return false;
}

// The second pass of the UPDATE: a text as a format, with SQLite's own conversions and one
// argument. The text holds a user name, so the pass runs as SQLite's SQL function on a connection
// of its own, where arguments have types: one that is missing is 0 or empty, and no pointer is
// followed. Null when SQLite has no result, for example because it would be too long.
sql_text format_again(const char* text, int64_t id) {
    sqlite3* db = nullptr;
    sqlite3_stmt* statement = nullptr;
    sql_text result;
    if (repeats_for_long(text)) return result;
    if (sqlite3_open(":memory:", &db) == SQLITE_OK) {
        sqlite3_limit(db, SQLITE_LIMIT_LENGTH, update_result_size);
        if (sqlite3_prepare_v2(db, "SELECT printf(?1, ?2);", -1, &statement, nullptr) ==
                SQLITE_OK &&
            sqlite3_bind_text(statement, 1, text, -1, SQLITE_STATIC) == SQLITE_OK &&
            sqlite3_bind_int64(statement, 2, id) == SQLITE_OK &&
            sqlite3_step(statement) == SQLITE_ROW &&
            sqlite3_column_type(statement, 0) != SQLITE_NULL) {
            result = sql("%s", sqlite3_column_text(statement, 0));
        }
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return result;
}

// Deliberate: formatted twice, and a '%' that the first pass has copied from the name is a
// conversion to the second. "%%" becomes "%", and any other conversion spoils the statement. A name
// without one needs no connection for it.
sql_text update_statement(const row& user) {
    char text[update_size] = {};
    sqlite3_snprintf(
        sizeof text, text,
        "UPDATE privilege_user_block SET username = '%q', limit_count = %d, timestamp = %lu",
        user.username, user.limit, user.timestamp);
    (void)append(text, {" WHERE id = %lu;"});
    const bool is_plain = strchr(user.username, '%') == nullptr;
    return is_plain ? sql(text, user.id) : format_again(text, user.id);
}

// Stores one more failure of the user, now, and returns the new count.
int32_t count_failure(const char* username, const call_site& at) {
    const std::optional<row> known = find_user(username);
    row user = has_id(known) ? *known : named_row(username);
    if (user.limit < INT32_MAX) ++user.limit;
    user.timestamp = static_cast<uint64_t>(time(nullptr));
    if (has_id(known)) {
        (void)run(privilege_user_block.state, update_statement(user), at);
    } else {
        (void)privilege_user_block.insert(user, at);
    }
    return user.limit;
}

// A name for which there is no memory is released without a notification.
void keep_name(std::vector<std::string>& names, const char* username) {
    try {
        names.emplace_back(username);
    } catch (const std::bad_alloc&) {
    }
}

// A listing's row callback; the only one that tells of a row for which there is no memory.
int listing_callback(void* p_data, int num_fields, char** p_fields, char** /*p_col_names*/) {
    auto& rows = *static_cast<row_collector*>(p_data);
    if (!append_row(rows, {p_fields, static_cast<size_t>(num_fields)})) {
        log_line(as_listing(HERE), "ERROR", "realloc fail\n");
    }
    return 0;
}

}  // namespace

int create_privilege_user_block_db() { return privilege_user_block.create(HERE); }

int insert_privilege_user_block(char* username) {
    const int32_t count = count_failure(username, HERE);
    if (is_at_limit(read_settings(), count)) {
        notify(ravo::nc_user_blocked, named_row(username).username);
    }
    return 0;
}

int check_privilege_user_block(char* username) {
    const block_settings settings = read_settings();
    if (!settings.available) {
        log_line(HERE, "ERROR",
                 "%s: zb failed. zbsh vpncaas.read_json path=/etc/config/vpn_block.conf\n",
                 __func__);
        return -1;
    }
    if (!settings.enabled) {
        (void)clean_privilege_user_block();
        return 0;
    }
    const call_site at = HERE;
    const std::optional<row> user = find_user(username);
    const time_t now = time(nullptr);
    if (!user || user->limit < settings.limit) return 0;
    if (still_blocks(settings, user->timestamp, now)) return 1;
    delete_user(user->id, at);
    notify(ravo::nc_user_unblocked, user->username);
    return 0;
}

// A user whose count has gone past the limit is forgotten without a notification.
int delete_privilege_user_block(char* username) {
    const call_site at = HERE;
    const std::optional<row> user = find_user(username);
    if (has_id(user)) delete_user(user->id, at);
    const block_settings settings = read_settings();
    if (has_id(user) && is_at_limit(settings, user->limit)) {
        notify(ravo::nc_user_unblocked, user->username);
    }
    return 0;
}

int clean_privilege_user_block() {
    const call_site at = HERE;
    const block_settings settings = read_settings();
    std::vector<std::string> released;
    if (settings.enabled) {
        visit_rows([&](row_values values) {
            const row user = read_whole(values);
            if (user.limit == settings.limit) keep_name(released, user.username);
        });
    }
    for (const std::string& username : released) notify(ravo::nc_user_unblocked, username.c_str());
    begin_operation(privilege_user_block.state);
    (void)run(privilege_user_block.state, sql("DELETE FROM privilege_user_block;"), at);
    return optimize_privilege_user_block_db();
}

int select_privilege_user_block(db_query_cond* cond, db_privilege_user_block_query** data) {
    return privilege_user_block.select(*cond, **data, HERE, listing_callback);
}
int optimize_privilege_user_block_db() { return privilege_user_block.optimize(); }
int finish_privilege_user_block_db() { return privilege_user_block.finish(HERE); }
