// Who waits for whom: other programs lock the database, and the settings service hangs, while the
// daemon is called at full speed. Nothing that was answered is lost, and nobody waits longer than
// is told.
//
// With WAITING_LONG in the environment every case is taken, many times, and its figures are
// printed.
//
// The daemon's wall clock leaps a day forward with each reading: a wait that went by it would end
// at once, and what waits for a lock or for the settings would fail.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ravo_api.h"
#include "support/bus.h"
#include "support/daemon.h"
#include "support/files.h"
#include "support/rows.h"
#include "support/service.h"
#include "support/set_clock.h"
#include "zbservice.h"

namespace {

using std::chrono::milliseconds;
using clock_type = std::chrono::steady_clock;
using ms = std::chrono::duration<double, std::milli>;

constexpr char ravod[] = "@/var/run/ravod.sock";

process_options with_leaping_clock() {
    wall_clock_page& wall = map_wall_clock(wall_clock_path);
    wall.seconds = 1795222858;
    wall.leap = 86400;
    return {.environment = wall_clock_environment(SET_CLOCK_LIBRARY)};
}

void begin_anew() {
    std::filesystem::remove_all("/etc/config/ravo");
    std::filesystem::create_directory("/etc/config/ravo");
    std::filesystem::remove(log_path);
}

bool is_long() { return getenv("WAITING_LONG") != nullptr; }

// --- Other programs' locks ----------------------------------------------------------------------

constexpr char reading[] = "BEGIN; SELECT count(*) FROM sqlite_master;";
constexpr char reserving[] = "BEGIN IMMEDIATE;";
constexpr char writing[] = "BEGIN EXCLUSIVE;";

struct lock_plan {
    const char* statements;
    milliseconds hold;
    int periods;
    milliseconds pause;  // between two of them
};

// Another process that locks the database again and again. It writes a byte when it has the lock,
// and one when it has let it go.
class foreign_program {
  public:
    explicit foreign_program(const lock_plan& plan) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        child = fork();
        if (child == 0) _exit(follow(plan, ends[1]));
        close(ends[1]);
        told = ends[0];
    }
    ~foreign_program() {
        EXPECT_EQ(wait_for_exit(child), 0);
        close(told);
    }
    foreign_program(const foreign_program&) = delete;
    foreign_program& operator=(const foreign_program&) = delete;

    // Waits for its next byte. False: it has come to its end.
    bool wait() const {
        char byte = 0;
        return read(told, &byte, 1) == 1;
    }
    bool has_told() const {
        pollfd event = {told, POLLIN, 0};
        return poll(&event, 1, 0) == 1;
    }

  private:
    static int follow(const lock_plan& plan, int tell) {
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(db_path, &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return 1;
        sqlite3_busy_timeout(db, 20000);
        for (int n = 0; n < plan.periods; ++n) {
            if (n > 0) std::this_thread::sleep_for(plan.pause);
            if (sqlite3_exec(db, plan.statements, nullptr, nullptr, nullptr) != SQLITE_OK) return 2;
            if (write(tell, "h", 1) != 1) return 3;
            std::this_thread::sleep_for(plan.hold);
            if (sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr) != SQLITE_OK) return 4;
            if (write(tell, "r", 1) != 1) return 5;
        }
        return sqlite3_close(db) == SQLITE_OK ? 0 : 6;
    }

    pid_t child = -1;
    int told = -1;
};

// --- Callers ------------------------------------------------------------------------------------

struct waits {
    std::vector<ms> all;

    int measure(const std::function<int()>& call) {
        const auto start = clock_type::now();
        const int result = call();
        all.push_back(clock_type::now() - start);
        return result;
    }
    ms longest() const { return all.empty() ? ms(0) : *std::max_element(all.begin(), all.end()); }
    ms at(double share) const {
        std::vector<ms> sorted = all;
        std::sort(sorted.begin(), sorted.end());
        const auto index = static_cast<size_t>(share * static_cast<double>(sorted.size()));
        return sorted.empty() ? ms(0) : sorted[std::min(index, sorted.size() - 1)];
    }
};

// What the database must hold: the effect of every call that was answered with 0.
struct ledger {
    int64_t server_rows = 0;
    int64_t client_rows = 0;
    int64_t deleted = 0;
    int64_t failures = 0;
};

// One turn of a caller that does everything that writes.
void write_everything(ledger& done, waits& waited) {
    static int64_t turn = 0;
    auto server = row_with_text<db_conn_server_log>("somebody");
    auto client = row_with_text<db_conn_client_log_data>("somebody");
    char user[] = "mallory";
    if (waited.measure([&] { return add_conn_server_log(&server); }) == 0) ++done.server_rows;
    if (waited.measure([&] { return add_conn_client_log(&client); }) == 0) ++done.client_rows;
    if (waited.measure([&] { return add_privilege_user_block(user); }) == 0) ++done.failures;
    if (++turn % 4 != 0) return;
    db_delete_cond oldest = {done.deleted + 1};
    if (waited.measure([&] { return delete_conn_client_log(&oldest); }) == 0) ++done.deleted;
}

int64_t number_in_file(const char* text) {
    sqlite3* db = nullptr;
    int64_t number = -1;
    const auto take = [](void* place, int /*columns*/, char** values, char** /*names*/) {
        *static_cast<int64_t*>(place) = values[0] != nullptr ? strtoll(values[0], nullptr, 10) : 0;
        return 0;
    };
    EXPECT_EQ(sqlite3_open_v2(db_path, &db, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, text, take, &number, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
    return number;
}

// What is in the file less what was answered; 0 in every place when nothing was lost.
struct difference {
    int64_t server_rows, client_rows, failures;
    bool operator==(const difference&) const = default;
};
std::ostream& operator<<(std::ostream& out, const difference& d) {
    return out << d.server_rows << " server rows, " << d.client_rows << " client rows, "
               << d.failures << " failures";
}
difference compare(const ledger& done) {
    return {
        number_in_file("SELECT count(*) FROM conn_server_log;") - done.server_rows,
        number_in_file("SELECT count(*) FROM conn_client_log;") - (done.client_rows - done.deleted),
        number_in_file("SELECT sum(limit_count) FROM privilege_user_block;") - done.failures};
}

// --- Locks --------------------------------------------------------------------------------------

struct lock_figures {
    waits caller;
    waits other;
    difference lost;
};

// A caller that writes, and one that asks for something that needs no database, while another
// program locks it as planned.
lock_figures call_through(const lock_plan& plan) {
    begin_anew();
    const ravod_process daemon({}, with_leaping_clock());
    lock_figures seen;
    ledger done;
    for (int n = 0; n < 8; ++n) write_everything(done, seen.caller);  // from here on it journals
    foreign_program program(plan);
    std::atomic<bool> is_over = false;
    std::thread other([&] {
        ravo_mobile_gen_uuid_data_set asked = {};
        ravo_mobile_gen_uuid_data_get uuid = {};
        auto* place = &uuid;
        while (!is_over) {
            seen.other.measure([&] { return ravo_mobile_gen_ravo_uuid(&asked, &place); });
        }
    });
    while (program.wait()) {
        while (!program.has_told()) write_everything(done, seen.caller);
    }
    is_over = true;
    other.join();
    write_everything(done, seen.caller);
    seen.lost = compare(done);
    return seen;
}

void print(const char* name, const lock_plan& plan, const lock_figures& seen) {
    if (!is_long()) return;
    std::cout << name << " of " << plan.hold.count() << " ms, " << plan.periods << " times, pause "
              << plan.pause.count() << " ms: " << seen.caller.all.size() << " writing calls, lost "
              << seen.lost << "; they waited at most " << seen.caller.longest().count()
              << " ms, others " << seen.other.longest().count()
              << " ms (99 %: " << seen.other.at(0.99).count() << " ms)" << std::endl;
}

struct lock_case {
    const char* name;
    const char* statements;
    milliseconds pause;  // between two holds, in the long form
};

std::ostream& operator<<(std::ostream& out, const lock_case& c) { return out << c.name; }

class held_lock : public testing::TestWithParam<lock_case> {};

// The program holds its lock for as long as the test says; nobody guesses when.
TEST_P(held_lock, half_a_second_loses_nothing) {
    const lock_plan plan = {GetParam().statements, milliseconds(500), is_long() ? 60 : 1,
                            GetParam().pause};
    const lock_figures seen = call_through(plan);
    print(GetParam().name, plan, seen);
    EXPECT_EQ(seen.lost, difference{});
    EXPECT_GT(seen.caller.longest(), plan.hold / 2) << "the lock kept nobody out";
    EXPECT_EQ(count_of(read_file(log_path), "database is locked"), 0U);
}

INSTANTIATE_TEST_SUITE_P(kinds, held_lock,
                         testing::Values(lock_case{"reader", reading, milliseconds(0)},
                                         lock_case{"writer_to_be", reserving, milliseconds(100)},
                                         lock_case{"writer", writing, milliseconds(100)}),
                         [](const auto& given) { return std::string(given.param.name); });

// Around the store's patience of two seconds. What is lost beyond it is in the log.
TEST(held_locks, longer_ones_lose_what_the_log_tells) {
    for (const char* statements : {reading, writing}) {
        for (const int hold : is_long() ? std::vector{1000, 1900, 2100, 5100} : std::vector{800}) {
            const lock_plan plan = {statements, milliseconds(hold), 1, milliseconds(0)};
            const lock_figures seen = call_through(plan);
            print(statements, plan, seen);
            const size_t told = count_of(read_file(log_path), "database is locked\n");
            EXPECT_EQ(seen.lost == difference{}, hold < 2000);
            EXPECT_EQ(told == 0, hold < 2000);
        }
    }
}

// The tables of a daemon are made at its start only.
TEST(held_locks, half_a_second_at_the_start_costs_no_table) {
    begin_anew();
    { const ravod_process first; }
    const foreign_program program({writing, milliseconds(500), 1, milliseconds(0)});
    ASSERT_TRUE(program.wait());
    const ravod_process daemon({}, with_leaping_clock());
    EXPECT_TRUE(program.has_told()) << "it serves before the lock is gone";
    ledger done;
    waits waited;
    for (int n = 0; n < 4; ++n) write_everything(done, waited);
    EXPECT_EQ(compare(done), difference{});
    auto entry = row_with_text<db_server_list_data>("somebody");
    EXPECT_EQ(add_server_list(&entry), 0);
    EXPECT_EQ(count_of(read_file(log_path), "no such table"), 0U);
    EXPECT_EQ(count_of(read_file(log_path), "locked"), 0U);
}

// --- The settings service -----------------------------------------------------------------------

constexpr char settings_address[] = "@/var/run/zbservice/vpncaas";
constexpr int patient = 600;  // seconds; longer than anything here lasts

using service = std::function<void(bus_test::raw_stream&)>;

bus_test::outcome fail_login() {
    return bus_test::call(ravod, "db_privilege_user_block_insert", "mallory", patient);
}

struct service_figures {
    ms caller{0};  // who tells of a failed login
    ms other{0};   // who comes while the daemon asks for the settings, for something else
};

// A failed login while the settings service does as told with its caller, and another call that
// begins once the service has been asked.
service_figures fail_login_at(const service& serve) {
    begin_anew();
    const ravod_process daemon({}, with_leaping_clock());
    bus_test::event is_asked;
    const bus_test::raw_endpoint settings(settings_address, [&](bus_test::raw_stream& caller) {
        is_asked.set();
        serve(caller);
    });
    waits caller;
    waits other;
    std::thread failing([&] { EXPECT_EQ(caller.measure([] { return fail_login().result; }), 0); });
    EXPECT_TRUE(is_asked.wait());
    EXPECT_EQ(number_in_file("SELECT sum(limit_count) FROM privilege_user_block;"), 1)
        << "counted before the settings are asked for";
    EXPECT_EQ(other.measure([] {
        return bus_test::call(ravod, "ravo_mobile_gen_ravo_uuid", "", patient).result;
    }),
              0);
    failing.join();
    return {caller.longest(), other.longest()};
}

void print(const std::string& what, const service_figures& seen) {
    if (!is_long()) return;
    std::cout << what << ": the call takes " << seen.caller.count() << " ms, another caller's "
              << seen.other.count() << " ms" << std::endl;
}

struct service_case {
    const char* name;
    service serve;
};

const std::string reply =
    bus_test::reply_frame(bus_test::replied, R"({"error": 0, "data": {"global": {}}})");

TEST(settings_service, that_answers_nonsense_keeps_nobody) {
    const service_case cases[] = {
        {"that hangs up", [](bus_test::raw_stream&) {}},
        {"that answers garbage", [](bus_test::raw_stream& s) { s.send(std::string(65536, 'g')); }},
        {"that answers no JSON",
         [](bus_test::raw_stream& s) { s.send(bus_test::reply_frame(bus_test::replied, "{")); }},
        {"that answers half", [](bus_test::raw_stream& s) { s.send(reply.substr(0, 30)); }},
        {"that answers byte by byte",
         [](bus_test::raw_stream& s) {
             for (const char byte : reply) s.send({&byte, 1});
         }},
    };
    for (const service_case& c : cases) {
        SCOPED_TRACE(c.name);
        const service_figures seen = fail_login_at(c.serve);
        print(std::string("settings service ") + c.name, seen);
        EXPECT_LT(seen.caller, std::chrono::seconds(4));
        EXPECT_LT(seen.other, std::chrono::seconds(4));
    }
}

// Ten inserts and a number of failed logins a second, for half a minute, from callers with the
// client library's patience of five seconds. Returns the share of inserts that were answered, all
// of which must be in the file.
double answered_inserts(int logins_a_second) {
    begin_anew();
    const ravod_process daemon({}, with_leaping_clock());
    const bus_test::raw_endpoint settings(settings_address,
                                          [](bus_test::raw_stream& s) { s.receive_all(); });
    std::atomic<int> answered = 0;
    std::vector<std::thread> callers;
    auto next = clock_type::now();
    constexpr int inserts = 300;
    for (int n = 0; n < inserts; ++n) {
        callers.emplace_back([&] {
            db_conn_server_log row = {};
            if (add_conn_server_log(&row) == 0) ++answered;
        });
        for (int login = n * logins_a_second / 10; login < (n + 1) * logins_a_second / 10;
             ++login) {
            callers.emplace_back([] {
                char user[] = "mallory";
                (void)add_privilege_user_block(user);
            });
        }
        std::this_thread::sleep_until(next += milliseconds(100));
    }
    for (std::thread& caller : callers) caller.join();
    EXPECT_GE(number_in_file("SELECT count(*) FROM conn_server_log;"), answered);
    return 100.0 * answered / inserts;
}

// The daemon's own patience is five seconds without a byte.
TEST(settings_service, that_hangs_keeps_everybody_for_five_seconds) {
    const service_figures seen = fail_login_at([](bus_test::raw_stream& s) { s.receive_all(); });
    print("settings service that hangs", seen);
    for (const ms& waited : {seen.caller, seen.other}) {
        EXPECT_GT(waited, milliseconds(4500));
        EXPECT_LT(waited, milliseconds(9000));
    }
    EXPECT_NE(read_file(log_path).find("easy_zb_call: zb_call vpncaas.read_json"),
              std::string::npos);
    if (!is_long()) return;
    print("settings service that sends a byte a second, twelve of them",
          fail_login_at([](bus_test::raw_stream& s) {
              for (int n = 0; n < 12; ++n) {
                  std::this_thread::sleep_for(std::chrono::seconds(1));
                  s.send(reply.substr(static_cast<size_t>(n), 1));
              }
          }));
    for (const int logins : {1, 5}) {
        std::cout << "settings service that hangs, " << logins << " failed logins and 10 inserts "
                  << "a second: " << answered_inserts(logins) << " % of the inserts are answered"
                  << std::endl;
    }
}

TEST(settings_service, that_is_dead_keeps_nobody) {
    begin_anew();
    const ravod_process daemon({}, with_leaping_clock());
    waits caller;
    for (int n = 0; n < 20; ++n) {
        EXPECT_EQ(caller.measure([] { return fail_login().result; }), 0);
    }
    print("settings service that is dead", {caller.longest(), ms(0)});
    EXPECT_LT(caller.longest(), std::chrono::seconds(4));
}

// Stopped when it is asked, and set going again: the failed login is answered then.
TEST(settings_service, that_is_stopped_keeps_everybody_until_it_goes_on) {
    begin_anew();
    const service_process settings(VPNCAAS, "vpncaas");
    const ravod_process daemon({}, with_leaping_clock());
    bus_test::file changes(inotify_init1(IN_CLOEXEC));
    ASSERT_GE(inotify_add_watch(changes.get(), db_path, IN_MODIFY), 0);
    settings.signal(SIGSTOP);
    waits caller;
    std::thread failing([&] { EXPECT_EQ(caller.measure([] { return fail_login().result; }), 0); });
    char change[4096];
    EXPECT_GT(read(changes.get(), change, sizeof change), 0) << "the count";
    settings.signal(SIGCONT);
    failing.join();
    EXPECT_LT(caller.longest(), milliseconds(4500));
    EXPECT_EQ(number_in_file("SELECT sum(limit_count) FROM privilege_user_block;"), 1);
}

// --- The notifier -------------------------------------------------------------------------------

TEST(notifier, that_hangs_keeps_nobody) {
    begin_anew();
    std::filesystem::create_directories("/usr/local/sbin");
    write_file("/usr/local/sbin/notify",
               "#!/bin/sh\necho started >/tmp/started\nexec sleep 1000\n");
    std::filesystem::permissions("/usr/local/sbin/notify", std::filesystem::perms(0755));
    ASSERT_EQ(mkfifo("/tmp/started", 0600), 0);
    write_file("/etc/config/vpn_block.conf",
               R"({"global": {"enable": true, "limit": 1, "time": 5}})");
    const service_process settings(VPNCAAS, "vpncaas");
    const ravod_process daemon({}, with_leaping_clock());
    waits caller;
    EXPECT_EQ(caller.measure([] { return fail_login().result; }), 0);
    EXPECT_EQ(read_file("/tmp/started"), "started\n");
    EXPECT_EQ(caller.measure([] { return fail_login().result; }), 0);
    print("notifier that hangs", {caller.longest(), ms(0)});
    EXPECT_LT(caller.longest(), std::chrono::seconds(4));
}

// --- The network service ------------------------------------------------------------------------

// Runs a program however long it takes, and returns whether it ended by itself.
bool run_long(const std::vector<std::string>& arguments) {
    int status = 0;
    const pid_t child = start_process(arguments, {.output = "/tmp/printed"});
    return waitpid(child, &status, 0) == child && WIFEXITED(status);
}

// A save of the options asks for each connection's profile and then has the setting read.
service_figures save_options_at(const service& serve) {
    write_file("/etc/config/vpn_options.conf", "");
    bus_test::event is_asked;
    const bus_test::raw_endpoint network("@/var/run/zbservice/NetworkService",
                                         [&](bus_test::raw_stream& caller) {
                                             is_asked.set();
                                             serve(caller);
                                         });
    waits saver;
    waits reader;
    std::thread saving([&] {
        EXPECT_TRUE(saver.measure([] {
            return run_long({RAVOCTL, "gateway", "set", "openvpn", "1", "--backup", "l2tp", "2"});
        }));
    });
    EXPECT_TRUE(is_asked.wait());
    EXPECT_TRUE(reader.measure([] { return run_long({VPN_GLOBAL_OPT, "get"}); }));
    saving.join();
    return {saver.longest(), reader.longest()};
}

TEST(network_service, that_fails_keeps_the_options_for_its_patience_at_most) {
    std::vector<service_case> cases = {{"that hangs up", [](bus_test::raw_stream&) {}}};
    if (is_long()) {
        cases.push_back({"that hangs", [](bus_test::raw_stream& s) { s.receive_all(); }});
    }
    for (const service_case& c : cases) {
        SCOPED_TRACE(c.name);
        const service_figures seen = save_options_at(c.serve);
        print(std::string("network service ") + c.name, seen);
        EXPECT_LT(seen.caller, std::chrono::seconds(25));
        EXPECT_LT(seen.other, std::chrono::seconds(8));
    }
}

}  // namespace
