// What the tests of the commit layer share.
#include "support/commit_world.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "support/files.h"

namespace commit_world {
namespace {

const std::vector<std::string> create_texts = {
    "CREATE  TABLE IF NOT EXISTS conn_server_log (id INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, "
    "username TEXT, vpn_type INTEGER, uptime INTEGER, time INTEGER, device_info TEXT, source_ip "
    "TEXT, vpn_ip TEXT, tx_rate INTEGER, rx_rate INTEGER, tx_total INTEGER, rx_total INTEGER, "
    "outgoing TEXT, action INTEGER);",
    "CREATE  TABLE IF NOT EXISTS privilege_user_block (id INTEGER PRIMARY KEY AUTOINCREMENT "
    "UNIQUE, username TEXT, limit_count INTEGER, timestamp INTEGER);",
};

int collect(void* lines, int /*columns*/, char** values, char** /*names*/) {
    *static_cast<std::string*>(lines) += std::string(values[0] != nullptr ? values[0] : "") + "\n";
    return 0;
}

std::vector<std::string> filled(int rows, size_t text_size) {
    std::vector<std::string> texts = create_texts;
    for (int n = 1; n <= rows; ++n) texts.push_back(insert_text(n, text_size));
    texts.emplace_back(
        "INSERT INTO privilege_user_block (username, limit_count, timestamp) VALUES "
        "('alice', 1, 1700000000);");
    return texts;
}

std::string in_transaction(const std::string& texts) {
    return "BEGIN TRANSACTION;" + texts + "SELECT Count(*) FROM conn_server_log;END TRANSACTION;";
}

}  // namespace

std::string folder() {
    const char* chosen = getenv("COMMIT_FOLDER");
    return chosen != nullptr ? chosen : "/tmp";
}
std::string database() { return folder() + "/ravo.db"; }
std::string side_file() { return database() + "-commit"; }
std::string journal() { return database() + "-journal"; }

connection::connection(const char* vfs) {
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    (void)sqlite3_open_v2(database().c_str(), &db, flags, vfs);
}

void connection::set_up() {
    for (const char* text : pragmas) (void)run(text);
}

int connection::run(const std::string& text) {
    return sqlite3_exec(db, text.c_str(), nullptr, nullptr, nullptr);
}

std::string connection::values(const std::string& text) {
    std::string lines;
    const int rc = sqlite3_exec(db, text.c_str(), collect, &lines, nullptr);
    return rc == SQLITE_OK ? lines : std::string("failed: ") + sqlite3_errmsg(db);
}

std::string insert_text(int number, size_t text_size) {
    const std::string text(text_size, static_cast<char>('a' + number % 26));
    const std::string n = std::to_string(number);
    return "INSERT OR REPLACE INTO conn_server_log (username, vpn_type, uptime, time, device_info, "
           "source_ip, vpn_ip, tx_rate, rx_rate, tx_total, rx_total, outgoing, action) VALUES "
           "('user" +
           n + "', 4, 1, " + n + ", '" + text + "', '" + text +
           "', '10.0.0.2', 1, 2, 3, "
           "4, '" +
           text + "', 1);";
}

const std::vector<scenario>& scenarios() {
    static const std::vector<scenario> all = {
        {"first_creation", {}, create_texts},
        {"insert", filled(20, 20), {in_transaction(insert_text(100, 20))}},
        {"insert_full_size_row", filled(8, 1024), {in_transaction(insert_text(100, 1024))}},
        {"delete", filled(24, 1024), {"DELETE FROM conn_server_log WHERE id = 7;"}},
        {"clean", filled(24, 1024), {"DELETE FROM conn_server_log;"}},
        {"trim",
         filled(40, 1024),
         {in_transaction(insert_text(100, 1024) +
                         "DELETE from conn_server_log WHERE id IN (SELECT id from conn_server_log "
                         "LIMIT 20);")}},
        {"update",
         filled(8, 20),
         {"UPDATE privilege_user_block SET username = 'alice', limit_count = 2, timestamp = "
          "1700000001 WHERE id = 1;"}},
        {"spill",
         filled(24, 1024),
         {"PRAGMA cache_size = 10;",
          "UPDATE conn_server_log SET device_info = upper(device_info), source_ip = "
          "source_ip || source_ip;"}},
        {"larger_pages", filled(6, 100), {"PRAGMA page_size = 8192; VACUUM;"}},
        {"smaller_pages", filled(6, 100), {"PRAGMA page_size = 512; VACUUM;"}},
        {"several",
         filled(6, 100),
         {in_transaction(insert_text(100, 1024)), "DELETE FROM conn_server_log WHERE id = 2;",
          in_transaction(insert_text(101, 20))}},
    };
    return all;
}

const scenario& scenario_named(const std::string& name) {
    for (const scenario& s : scenarios()) {
        if (s.name == name) return s;
    }
    ADD_FAILURE() << "no scenario " << name;
    return scenarios().front();
}

void remove_files() {
    for (const std::string& path : {database(), side_file(), journal()}) {
        std::filesystem::remove_all(path);
    }
}

void restore(const std::string& bytes) {
    remove_files();
    if (!bytes.empty()) write_file(database(), bytes);
}

std::string rows_through(const char* vfs) {
    connection c(vfs);
    (void)sqlite3_busy_timeout(c.handle(), 5000);
    const std::string check = c.values("PRAGMA integrity_check;");
    if (check != "ok\n") return "damaged: " + check;
    std::string rows;
    for (const std::string& table : split_lines(
             c.values("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name;"))) {
        rows += table + ":\n";
        rows += c.values("SELECT quote(t.id) || ' ' || quote(username) || ' ' || length(" +
                         std::string(table == "conn_server_log"
                                         ? "device_info || source_ip || outgoing) || device_info"
                                         : "1) || limit_count || ' ' || timestamp") +
                         " FROM " + table + " t ORDER BY id;");
    }
    return rows;
}

std::vector<state> states_of(const scenario& s) {
    std::vector<state> states;
    const auto keep = [&] { states.push_back({read_file(database()), rows_through("unix")}); };
    remove_files();
    connection c("unix");
    c.set_up();
    for (const std::string& text : s.setup) EXPECT_EQ(c.run(text), SQLITE_OK) << text;
    keep();
    if (s.setup.empty()) states.back() = {"", ""};
    for (const std::string& text : s.statements) {
        EXPECT_EQ(c.run(text), SQLITE_OK) << text;
        keep();
    }
    return states;
}

std::vector<kind> kinds() {
    std::vector<kind> all;
    for (const scenario& s : scenarios()) {
        all.push_back({s.name, commit_strength::kill_safe});
        all.push_back({s.name, commit_strength::power_safe});
    }
    return all;
}

std::string name_of_kind(const kind& k) {
    return k.scenario + (k.strength == commit_strength::kill_safe ? "_kill_safe" : "_power_safe");
}

void PrintTo(const kind& k, std::ostream* out) { *out << name_of_kind(k); }

}  // namespace commit_world
