// Hostile user names, made at random, through the limiter: failures, a check, a lift. After each
// name the rows of users who have nothing to do with it are compared with what they were.
//
//   user_names COUNT [SEED [memory]]       in a throw-away root
//
// The tables are in the file, or with "memory" in SQLite's own store in memory under the file's
// name, which takes a third of the time.
//
// Exit status 0 when every row stayed; otherwise the name is told in hexadecimal.
#include <cstring>
#include <memory>
#include <random>

#include "fuzz/bystanders.h"

namespace {

constexpr int names_per_file = 100;  // rows that a name leaves behind make the others slower
constexpr int64_t names_per_line = 1000000;

using generator = std::mt19937_64;

size_t below(generator& random, size_t bound) { return random() % bound; }

template <size_t size>
const char* one_of(generator& random, const char* const (&texts)[size]) {
    return texts[below(random, size)];
}

// A conversion of printf's, SQLite's own included, or what could pass for one.
std::string conversion(generator& random) {
    static constexpr const char* flags[] = {"",  "",  "",  "-", "+", " ",
                                            "#", "0", "!", ",", "*", "-05"};
    static constexpr const char* widths[] = {"",      "",           "",   "1", "7",
                                             "60000", "2147483647", "1$", "*"};
    static constexpr const char* precisions[] = {"",  "",   ".0",     ".1",
                                                 ".", ".*", ".70000", ".2147483647"};
    static constexpr const char* sizes[] = {"", "", "l", "ll", "z", "h"};
    static constexpr char letters[] = "%sdiuxXocfeEgGpnqQwrzTSjy'\"\\ ";
    std::string text = "%";
    text += one_of(random, flags);
    text += one_of(random, widths);
    text += one_of(random, precisions);
    text += one_of(random, sizes);
    return text + letters[below(random, sizeof letters - 1)];
}

std::string piece(generator& random) {
    static constexpr const char* sql[] = {"'",
                                          "''",
                                          "\"",
                                          "--",
                                          ";",
                                          ", limit_count = 0",
                                          " WHERE id = 1",
                                          " WHERE 1",
                                          "/*",
                                          "*/",
                                          "'; DELETE FROM privilege_user_block; --",
                                          "', limit_count = 9 --",
                                          "alice",
                                          "bob",
                                          "o'hara 100%",
                                          " OR ",
                                          "||",
                                          "(",
                                          ")",
                                          "1",
                                          "9",
                                          "\\",
                                          "NULL",
                                          "%n",
                                          "%%"};
    switch (below(random, 4)) {
        case 0:
            return conversion(random);
        case 1:
            return one_of(random, sql);
        case 2:
            return std::string(1, static_cast<char>(1 + below(random, 255)));
        default:
            return std::string(below(random, 12), static_cast<char>(' ' + below(random, 95)));
    }
}

std::string make_name(generator& random) {
    std::string name;
    for (size_t pieces = below(random, 9); pieces > 0; --pieces) name += piece(random);
    if (below(random, 50) == 0)
        name += std::string(1000 + below(random, 50), name.empty() ? '%' : name[0]);
    return name;
}

// Reads the rows on a connection that stays open, so that a look costs little.
class watch {
  public:
    watch() {
        sqlite3* opened = nullptr;
        (void)sqlite3_open_v2(database_path, &opened, SQLITE_OPEN_READONLY, nullptr);
        db.reset(opened);
        sqlite3_stmt* prepared = nullptr;
        (void)sqlite3_prepare_v2(
            opened,
            "SELECT group_concat(id || '|' || username || '|' || limit_count "
            "|| '|' || timestamp) FROM privilege_user_block WHERE id IN (1, 2, 9)",
            -1, &prepared, nullptr);
        statement.reset(prepared);
    }
    std::string rows() {
        std::string text = "(none)";
        if (sqlite3_step(statement.get()) == SQLITE_ROW) {
            const void* value = sqlite3_column_text(statement.get(), 0);
            if (value != nullptr) text = static_cast<const char*>(value);
        }
        (void)sqlite3_reset(statement.get());
        return text;
    }

  private:
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> db{nullptr, sqlite3_close};
    std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> statement{nullptr, sqlite3_finalize};
};

constexpr char expected_rows[] = "1|alice|2|1000,2|bob|999|4000000000,9|o'hara 100%|1|2000";

int tell_harm(const std::string& name, const std::string& rows) {
    (void)fprintf(stderr, "the rows are %s after the name ", rows.c_str());
    for (const char c : name) (void)fprintf(stderr, "%02x", static_cast<unsigned char>(c));
    (void)fputs("\n", stderr);
    return 1;
}

// Takes so many names through the limiter, over a file of their own. Returns 1 on harm.
int try_names(generator& random, int64_t count) {
    store_world::begin();
    (void)store_world::run(bystanders::rows);
    watch watched;
    for (int64_t n = 0; n < count; ++n) {
        const std::string name = make_name(random);
        if (bystanders::is_one(name)) continue;
        bystanders::go_through_limiter(name);
        const std::string rows = watched.rows();
        if (rows != expected_rows) return tell_harm(name, rows);
    }
    return 0;
}

// All connections to one path share their tables there, for as long as one of them is open.
void keep_files_in_memory() {
    (void)sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    (void)sqlite3_vfs_register(sqlite3_vfs_find("memdb"), 1);
}

void tell_progress(int64_t done) {
    if (done == 0 || done % names_per_line != 0) return;
    (void)printf("%lld names so far\n", static_cast<long long>(done));
    (void)fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const int64_t count = argc > 1 ? strtoll(argv[1], nullptr, 10) : 0;
    if (count <= 0) {
        (void)fputs("usage: user_names COUNT [SEED [memory]]\n", stderr);
        return 2;
    }
    generator random(argc > 2 ? strtoull(argv[2], nullptr, 10) : 1);
    if (argc > 3 && strcmp(argv[3], "memory") == 0) keep_files_in_memory();
    store_world::settings = bystanders::settings;
    for (int64_t done = 0; done < count; done += names_per_file) {
        tell_progress(done);
        if (try_names(random, std::min<int64_t>(names_per_file, count - done)) != 0) return 1;
    }
    (void)printf("%lld names, no other user's row changed\n", static_cast<long long>(count));
    return 0;
}
