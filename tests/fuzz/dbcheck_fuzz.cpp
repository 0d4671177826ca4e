// ravo-dbcheck over any bytes in the database's place: it says that the daemon may start, what is
// in the place then is sound and takes rows, the damaged bytes are kept as they were, and no row is
// lost that SQLite still gives.
//
// Input: a byte that chooses a sound database, and edits of it: a byte for what is done, one for
// the page, two for the place in it and two for the value. Chosen none: the rest is the file.
#include <sqlite3.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "commit_vfs.h"
#include "fuzz_target.h"
#include "repair.h"
#include "replacement.h"
#include "store_world.h"
#include "table_store.h"

namespace {

namespace fs = std::filesystem;

constexpr char folder[] = "/etc/config/ravo";
constexpr char built_path[] = "/tmp/built.db";
constexpr char plain_path[] = "/tmp/plain.db";
constexpr size_t page_size = 2048;
constexpr int max_edits = 12;
constexpr std::chrono::seconds longest_run{10};

// --- Rows ----------------------------------------------------------------------------------------

// A row's values as text, by table and id.
using row_map = std::map<std::pair<std::string, int64_t>, std::string>;

constexpr const char* table_names[] = {"conn_server_log", "conn_client_log",
                                       "privilege_user_block"};

db_handle open_plainly(const char* path) {
    sqlite3* opened = nullptr;
    (void)sqlite3_open_v2(path, &opened, SQLITE_OPEN_READWRITE, "unix");
    return db_handle(opened);
}

statement_handle prepare(const db_handle& db, const std::string& text) {
    sqlite3_stmt* made = nullptr;
    (void)sqlite3_prepare_v2(db.get(), text.c_str(), -1, &made, nullptr);
    return statement_handle(made);
}

// As far as the statement gives rows.
void take_rows(sqlite3_stmt* select, const std::string& table, row_map& rows) {
    while (select != nullptr && sqlite3_step(select) == SQLITE_ROW) {
        std::string values;
        for (int n = 1; n < sqlite3_column_count(select); ++n) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(select, n));
            const auto size = static_cast<size_t>(sqlite3_column_bytes(select, n));
            values += std::to_string(sqlite3_column_type(select, n)) + ":";
            if (text != nullptr) values.append(text, size);
            values += "|";
        }
        rows[{table, sqlite3_column_int64(select, 0)}] = values;
    }
}

// What SQLite gives of the tables, read from their beginning and row by row.
row_map read_rows(const char* path, int64_t last_id) {
    row_map rows;
    const db_handle db = open_plainly(path);
    for (const std::string table : table_names) {
        take_rows(prepare(db, "SELECT * FROM " + table).get(), table, rows);
        const statement_handle one = prepare(db, "SELECT * FROM " + table + " WHERE id = ?");
        for (int64_t id = 1; one && id <= last_id; ++id) {
            (void)sqlite3_reset(one.get());
            (void)sqlite3_bind_int64(one.get(), 1, id);
            take_rows(one.get(), table, rows);
        }
    }
    return rows;
}

// --- Files ---------------------------------------------------------------------------------------

struct sound_database {
    std::string bytes;
    row_map rows;
    int64_t last_id;
};

std::string text_of(int64_t id, size_t size) {
    std::string text = std::to_string(id) + ".";
    while (text.size() < size) text += text;
    return text.substr(0, std::max(size, text.find('.') + 1));
}

// So many rows in each table, whose texts have at least so many bytes.
sound_database build(int64_t rows, size_t text_size) {
    (void)fs::remove(built_path);
    store_world::forget();
    replacement file;
    fuzz::expect(file.create(built_path) == 0, "a database is made");
    for (kept_table& table : file.tables) {
        for (int64_t id = 1; id <= rows; ++id) {
            const std::string text = text_of(id, text_size);
            std::vector<value> values(table.columns.size());
            for (size_t n = 0; n < values.size(); ++n) {
                if (table.columns[n] == column_kind::text) {
                    values[n] = {.kind = value::type::text, .text = text};
                } else if (table.columns[n] == column_kind::integer) {
                    values[n] = {.kind = value::type::integer, .integer = id * 1000};
                }
            }
            fuzz::expect(file.save(table, id, values) == 0, "a row is taken");
        }
    }
    fuzz::expect(file.finish() == 0, "the database is written");
    return {fuzz::get_file(built_path), read_rows(built_path, 0), rows};
}

// Few rows, inner pages, and rows that go on in overflow pages.
const std::vector<sound_database>& sound_databases() {
    static const std::vector<sound_database> all = {build(12, 8), build(90, 40), build(6, 1000)};
    return all;
}

std::string big_endian(uint64_t number, size_t size) {
    std::string bytes;
    for (; size > 0; --size) bytes += static_cast<char>(number >> 8 * (size - 1));
    return bytes;
}

void edit(std::string& file, fuzz::input& in) {
    const uint8_t action = in.below(7);
    const size_t page = in.byte() * page_size;
    const size_t place = page + in.number<uint16_t>() % page_size;
    const auto value = in.number<uint16_t>();
    const auto put = [&](size_t at, const std::string& bytes) {
        if (at < file.size()) file.replace(at, bytes.size(), bytes);
    };
    switch (action) {
        case 0:
        case 1:
        case 2:
            put(place, big_endian(value, size_t{1} << action));
            break;
        case 3:
            put(page, std::string(page_size, '\0'));
            break;
        case 4:
            put(page, file.substr(std::min(value * page_size, file.size()), page_size));
            break;
        case 5:
            file.resize(std::min(file.size(), place));
            break;
        default:
            file += file.substr(std::min(page, file.size()), page_size);
    }
}

void clear_folder() {
    store_world::forget();
    for (const auto& entry : fs::directory_iterator(folder)) (void)fs::remove(entry.path());
}

std::set<std::string> names() {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(folder)) found.insert(entry.path().filename());
    return found;
}

// --- Promises ------------------------------------------------------------------------------------

// The number in front of the words; 0 when they are not there.
size_t count_before(const std::string& line, const std::string& words) {
    const size_t end = line.find(words);
    if (end == std::string::npos) return 0;
    return strtoul(line.c_str() + line.rfind(' ', end - 1) + 1, nullptr, 10);
}

void expect_sound(const db_handle& db) {
    const statement_handle verdict = prepare(db, "PRAGMA integrity_check");
    fuzz::expect(
        verdict && sqlite3_step(verdict.get()) == SQLITE_ROW &&
            strcmp(reinterpret_cast<const char*>(sqlite3_column_text(verdict.get(), 0)), "ok") == 0,
        "the database is sound");
}

void expect_takes_rows() {
    const db_handle db = open_plainly(database_path);
    expect_sound(db);
    for (const std::string table : table_names) {
        const statement_handle insert = prepare(db, "INSERT INTO " + table + " DEFAULT VALUES");
        fuzz::expect(insert && sqlite3_step(insert.get()) == SQLITE_DONE, "it takes a new row");
    }
}

void expect_repaired(const std::string& image, const row_map& plain, const std::string& line) {
    size_t kept = 0;
    for (const std::string& name : names()) {
        if (!name.starts_with("ravo.db-damaged-") || name.ends_with("-shm")) continue;
        ++kept;
        fuzz::expect(fuzz::get_file((std::string(folder) + "/" + name).c_str()) == image,
                     "the damaged file is kept as it was");
    }
    fuzz::expect(kept == 1, "one damaged file is kept");
    const row_map saved = read_rows(database_path, 0);
    size_t lost = 0;
    for (const auto& [key, values] : plain) {
        const auto found = saved.find(key);
        if (found == saved.end() || found->second != values) ++lost;
    }
    fuzz::expect(lost <= count_before(line, " broken row"),
                 "a row that SQLite gives is saved, or told of");
    expect_takes_rows();
}

void expect_start(const std::string& image, const row_map& plain) {
    const auto begin = std::chrono::steady_clock::now();
    const outcome done = check_and_repair(database_path);
    fuzz::expect(std::chrono::steady_clock::now() - begin < longest_run, "a run is short");
    fuzz::expect(done.status == exit_status::may_start, done.line.c_str());
    fuzz::expect(done.line.find('\n') == std::string::npos, "there is one line");
    if (done.line.find(": damaged (") != std::string::npos) {
        expect_repaired(image, plain, done.line);
    } else {
        fuzz::expect(fuzz::get_file(database_path) == image, "a sound file is not written to");
        fuzz::expect(names() == std::set<std::string>{"ravo.db"}, "nothing is put beside it");
        if (done.line.ends_with(": sound")) expect_sound(open_plainly(database_path));
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int registered = register_commit_vfs(commit_strength::kill_safe);
    fuzz::expect(registered == 0, "the layer is there");
    fuzz::input in(data, size);
    const auto& sound = sound_databases();
    const uint8_t choice = in.below(static_cast<uint8_t>(sound.size() + 1));
    row_map plain;
    std::string image;
    if (choice == sound.size()) {
        image = in.rest();
    } else {
        image = sound[choice].bytes;
        for (int n = 0; n < max_edits && !in.is_empty(); ++n) edit(image, in);
        fuzz::put_file(plain_path, image);
        plain = read_rows(plain_path, sound[choice].last_id);
        std::erase_if(plain, [&](const auto& row) {
            const auto known = sound[choice].rows.find(row.first);
            return known == sound[choice].rows.end() || known->second != row.second;
        });
    }
    clear_folder();
    fuzz::put_file(database_path, image);
    expect_start(image, plain);
    return 0;
}
