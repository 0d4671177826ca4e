// What the commit layer costs: the store's insert with its transaction, through the layer and past
// it.
//
//   commit_bench FOLDER FILE_SYSTEM    the databases are made in FOLDER, on a file system of that
//   name
//
// kill-safe is compared with the bare file; power-safe with a rollback journal (journal_mode
// DELETE, everything else alike). The two sides take turns. "short" is a row of 150 bytes, "full"
// one whose text fields are full, 5 KB. Each side's table has the named number of rows before.
#include <unistd.h>

#include <string>

#include "bench_support.h"
#include "commit_vfs.h"
#include "statements.h"

namespace {

constexpr size_t full_text = 1024;

// A connection set up as the daemon's are, through a VFS, with a journal mode.
class side {
  public:
    side(const std::string& file, const char* vfs, const char* journal_mode) {
        const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
        for (const char* suffix : {"", "-commit", "-journal"}) unlink((file + suffix).c_str());
        if (sqlite3_open_v2(file.c_str(), &db, flags, vfs) != SQLITE_OK) {
            bench::give_up(sqlite3_errmsg(db));
        }
        for (const std::string& text :
             {std::string("PRAGMA page_size = 2048;"), std::string("PRAGMA synchronous = ON;"),
              std::string("PRAGMA auto_vacuum = FULL;"),
              "PRAGMA journal_mode = " + std::string(journal_mode) + ";",
              std::string("PRAGMA cache_size = 10000;"),
              std::string(bench::connections.create_text)}) {
            run(text);
        }
    }
    ~side() { sqlite3_close(db); }
    side(const side&) = delete;
    side& operator=(const side&) = delete;

    void run(const std::string& text) {
        if (sqlite3_exec(db, text.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
            bench::give_up(sqlite3_errmsg(db));
        }
    }
    void insert(const std::string& statement) {
        run("BEGIN TRANSACTION;");
        run(statement);
        run("SELECT Count(*) FROM conn_server_log;");
        run("END TRANSACTION;");
    }

  private:
    sqlite3* db = nullptr;
};

// The sample's, or one with its texts filled up to a size.
std::string insert_statement(size_t text_size) {
    db_conn_server_log record = bench::sample_connection();
    for (char* text :
         {record.username, record.device_info, record.source_ip, record.vpn_ip, record.outgoing}) {
        memset(text, 'x', text_size);
    }
    char* text = bench::insert_text(record);
    std::string statement = text;
    sqlite3_free(text);
    return statement;
}

void fill(side& s, const std::string& statement, int rows) {
    s.run("BEGIN;");
    for (int n = 0; n < rows; ++n) s.run(statement);
    s.run("END;");
}

struct workload {
    const char* name;
    size_t text_size;
    int rows;
};
constexpr workload workloads[] = {
    {"short row, 100 rows", 0, 100},
    {"short row, 10000 rows", 0, 10000},
    {"full row, 100 rows", full_text, 100},
};

void compare(const char* name, const workload& w, const std::string& file_system, side& layer,
             side& peer, const char* peer_name, double at_most) {
    const std::string statement = insert_statement(w.text_size);
    fill(layer, statement, w.rows);
    fill(peer, statement, w.rows);
    bench::compare(name, w.name + (", " + file_system), 21,
                   bench::repeated(20, [&] { layer.insert(statement); }),
                   {{peer_name, bench::repeated(20, [&] { peer.insert(statement); }), at_most}});
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) bench::give_up("usage: commit_bench FOLDER FILE_SYSTEM");
    const std::string folder = argv[1];
    const std::string file_system = argv[2];
    for (const workload& w : workloads) {
        if (register_commit_vfs(commit_strength::kill_safe) != SQLITE_OK) {
            bench::give_up("no layer");
        }
        side layer(folder + "/layer.db", nullptr, "OFF");
        side peer(folder + "/peer.db", "unix", "OFF");
        compare("commit, kill-safe", w, file_system, layer, peer, "bare file", 1.2);
    }
    for (const workload& w : workloads) {
        (void)register_commit_vfs(commit_strength::power_safe);
        side layer(folder + "/layer.db", nullptr, "OFF");
        side peer(folder + "/peer.db", "unix", "DELETE");
        compare("commit, power-safe", w, file_system, layer, peer, "rollback journal", 1);
    }
    return 0;
}
