// Mixed requests at a steady rate for a long time, held against what they must leave.
//
//   soak MINUTES       in a throw-away root; at 500 requests/s
//
// One caller writes and lists and knows what the tables must hold; a second one only reads. All 24
// methods come, those last that cost a temporary table. The settings service and the notifier run
// beside the daemon. Tables are emptied before they are large, after their rows have been counted.
//
// Exit status 0: every call was answered as it must be, the rows and notifications are those of the
// answers, and from the warm-up on no descriptor was added and the peak of memory in a minute grew
// by less than 1 MiB, the records of refused queries aside, which the daemon keeps on purpose. In
// less than a minute memory is told and not judged.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <shared_mutex>
#include <string>
#include <thread>

#include "ravo_api.h"
#include "support/callers.h"
#include "support/ravod_checks.h"
#include "support/service.h"

namespace {

namespace fs = std::filesystem;
using clock_type = std::chrono::steady_clock;
using std::chrono::duration_cast;
using seconds = std::chrono::duration<double>;

constexpr char notifications_path[] = "/var/log/network/notifications.jsonl";
constexpr int writer_rate = 350;  // requests a second
constexpr int reader_rate = 150;
constexpr int64_t rows_of_a_log = 2000;  // then it is emptied
constexpr int64_t rows_of_a_list = 200;
constexpr size_t device_count = 50;
constexpr size_t user_count = 30;
constexpr int limit = 3;                  // failures that block
constexpr size_t bytes_of_a_leak = 32;    // a header of 24 bytes, as malloc hands it out
constexpr int64_t growth_allowed = 1024;  // KiB

struct tally {
    std::atomic<size_t> answered{0};
    std::atomic<size_t> wrong{0};
    std::atomic<size_t> refused_queries{0};

    void note(bool is_right, const char* what) {
        if (is_right) {
            ++answered;
        } else if (++wrong <= 20) {
            printf("WRONG: %s\n", what);
        }
    }
};

// --- Lists --------------------------------------------------------------------------------------

constexpr int64_t not_answered = -1;

// The total of a list call, or not_answered.
template <class Query>
int64_t total_of(int (*list)(db_query_cond*, Query**), db_query_cond cond) {
    Query header = {};
    Query* query = &header;
    (void)list(&cond, &query);
    const bool is_answered = header.data != nullptr;
    free(header.data);
    return is_answered ? static_cast<int64_t>(header.total) : not_answered;
}

db_query_cond newest(int64_t count) {
    db_query_cond cond = page(0, count);
    cond.order_style = 1;
    return cond;
}

db_query_cond by_no_column() {
    db_query_cond cond = page(0, 1);
    cond.order_by = 999;
    return cond;
}

// --- The caller that writes ---------------------------------------------------------------------

class writer {
  public:
    writer(tally& counts, uint32_t seed) : told(counts), random(seed) {}

    void call() {
        size_t pick = random() % total_weight;
        for (const step& s : steps) {
            if (pick < s.weight) return (this->*s.call)();
            pick -= s.weight;
        }
    }

    // The methods that are left, whose results are odd on purpose: after a clean a delete removes
    // every row, and a temporary table goes with its connection.
    void close() {
        db_delete_cond any = {.id = 1};
        check_totals();
        told.note(clean_conn_server_log() == 0, "clean of connections");
        add_connection();
        told.note(delete_conn_server_log(&any) == 0, "delete of connections");
        told.note(delete_server_list(&any) == 0, "delete of entries");
        told.note(delete_device_info(&any) == 0, "delete of devices");
        connections = 0;
    }

    void compare_with_database() {
        compare("SELECT seq FROM sqlite_sequence WHERE name = 'conn_server_log';",
                connections_ever);
        compare("SELECT seq FROM sqlite_sequence WHERE name = 'conn_client_log';", clients_ever);
        compare("SELECT count(*) FROM conn_server_log;", connections);
        compare("SELECT count(*) FROM conn_client_log;", clients);
        for (const auto& [user, count] : failures) {
            const std::string text =
                "SELECT limit_count FROM privilege_user_block WHERE username = '" + user + "';";
            if (count > 0) compare(text.c_str(), count);
        }
        compare("SELECT count(*) FROM privilege_user_block;", users_with_failures());
    }

    size_t notifications = 0;

  private:
    struct step {
        size_t weight;
        void (writer::*call)();
    };

    void add_connection() {
        db_conn_server_log row = named_connection("user" + std::to_string(random() % 500), false);
        if (random() % 50 == 0) row = named_connection("full", true);
        const bool is_added = add_conn_server_log(&row) == 0;
        told.note(is_added, "insert of a connection");
        connections += is_added ? 1 : 0;
        connections_ever += is_added ? 1 : 0;
        if (connections < rows_of_a_log) return;
        check_totals();
        told.note(clean_conn_server_log() == 0, "clean of connections");
        connections = 0;
    }
    void list_connections() {
        told.note(total_of(list_conn_server_log, newest(20)) == connections, "list of connections");
    }
    // The table is emptied by a clean first and by deletes from then on.
    void add_client() {
        auto row = row_with_text<db_conn_client_log_data>("client");
        const bool is_added = add_conn_client_log(&row) == 0;
        told.note(is_added, "insert of a client connection");
        clients += is_added ? 1 : 0;
        clients_ever += is_added ? 1 : 0;
        if (clients < rows_of_a_log) return;
        check_totals();
        db_delete_cond any = {.id = 1};
        const int result = is_cleaned ? delete_conn_client_log(&any) : clean_conn_client_log();
        told.note(result == 0, "clean of client connections");
        is_cleaned = true;
        clients = 0;
    }
    void list_clients() {
        told.note(total_of(list_conn_client_log, newest(20)) == clients, "list of clients");
    }
    void add_entry() {
        auto row = row_with_text<db_server_list_data>("entry");
        const bool is_added = add_server_list(&row) == 0;
        told.note(is_added, "insert of an entry");
        entries += is_added ? 1 : 0;
        if (entries < rows_of_a_list) return;
        told.note(clean_server_list() == 0, "clean of entries");
        entries = 0;
    }
    void list_entries() {
        told.note(total_of(list_server_list, page(0, -1)) == entries, "list of entries");
    }
    // A known mac keeps its UUID.
    void register_device() {
        auto row = zeroed<db_device_info_data>();
        const std::string mac = "mac" + std::to_string(random() % device_count);
        set_text(row.mac, mac);
        ravo_mobile_gen_uuid_data_get uuid = {};
        const int result = add_device_info(&row, &uuid);
        const std::string& known = uuids.try_emplace(mac, uuid.ravo_uuid).first->second;
        told.note(result == 0 && !known.empty() && known == uuid.ravo_uuid, "registration");
        if (++registrations % 1000 != 0) return;
        told.note(clean_device_info() == 0, "clean of devices");
        uuids.clear();
    }
    void list_devices() {
        told.note(total_of(list_device_info, page(0, -1)) == static_cast<int64_t>(uuids.size()),
                  "list of devices");
    }
    void make_uuid() {
        ravo_mobile_gen_uuid_data_set set = {};
        ravo_mobile_gen_uuid_data_get uuid = {};
        ravo_mobile_gen_uuid_data_get* result = &uuid;
        (void)ravo_mobile_gen_ravo_uuid(&set, &result);
        told.note(strlen(uuid.ravo_uuid) == 35, "UUID");
    }
    std::string some_user() { return "user" + std::to_string(random() % user_count); }
    void fail_login() {
        std::string user = some_user();
        told.note(add_privilege_user_block(user.data()) == 0, "failed login");
        if (++failures[user] == limit) ++notifications;
    }
    void check_user() {
        std::string user = some_user();
        const int expected = failures[user] >= limit ? 1 : 0;
        told.note(check_privilege_user_block(user.data()) == expected, "check of a user");
    }
    void lift_user() {
        std::string user = some_user();
        told.note(delete_privilege_user_block(user.data()) == 0, "lift of a user");
        if (failures[user] == limit) ++notifications;
        failures[user] = 0;
    }
    void lift_all() {
        told.note(clean_privilege_user_block() == 0, "lift of all users");
        for (auto& [user, count] : failures) {
            if (count == limit) ++notifications;
            count = 0;
        }
    }
    void list_users() {
        told.note(total_of(list_privilege_user_block, page(0, -1)) == users_with_failures(),
                  "list of users");
    }
    void add_event() {
        db_event_data event = {};
        told.note(add_event_data(&event) == 0, "event");
    }
    void ask_in_vain() {
        ++told.refused_queries;
        const int64_t total = random() % 2 == 0 ? total_of(list_event_data, page(0, 1))
                                                : total_of(list_conn_server_log, by_no_column());
        told.note(total == not_answered, "a query that is refused");
    }

    int64_t users_with_failures() const {
        return std::ranges::count_if(failures, [](const auto& user) { return user.second > 0; });
    }
    void check_totals() {
        list_connections();
        list_clients();
        list_entries();
        list_devices();
        list_users();
    }
    void compare(const char* text, int64_t expected) {
        const auto found = values_in_database(text);
        const bool is_right = found == std::multiset<std::string>{std::to_string(expected)};
        told.note(is_right, text);
    }

    static constexpr std::array<step, 16> steps = {{
        {300, &writer::add_connection},
        {110, &writer::list_connections},
        {150, &writer::add_client},
        {60, &writer::list_clients},
        {60, &writer::add_entry},
        {30, &writer::list_entries},
        {60, &writer::register_device},
        {20, &writer::list_devices},
        {30, &writer::make_uuid},
        {50, &writer::fail_login},
        {60, &writer::check_user},
        {18, &writer::lift_user},
        {2, &writer::lift_all},
        {30, &writer::list_users},
        {10, &writer::add_event},
        {10, &writer::ask_in_vain},
    }};
    static constexpr size_t total_weight = 1000;

    tally& told;
    std::mt19937 random;
    int64_t connections = 0;
    int64_t connections_ever = 0;
    int64_t clients = 0;
    int64_t clients_ever = 0;
    bool is_cleaned = false;
    int64_t entries = 0;
    size_t registrations = 0;
    std::map<std::string, std::string> uuids;
    std::map<std::string, int> failures;
};

// --- The caller that reads ----------------------------------------------------------------------

// Pages, filters by name and filters that are refused, which cost the connection.
void read_once(tally& told, std::mt19937& random) {
    const std::string user = "user" + std::to_string(random() % 500);
    std::string nobody = "nobody";
    switch (random() % 5) {
        case 0:
            told.note(total_of(list_conn_server_log, filtered("username", user)) >= 0, "filter");
            break;
        case 1:
            told.note(total_of(list_conn_server_log, newest(200)) >= 0, "page");
            break;
        case 2:
            told.note(total_of(list_conn_client_log, filtered("no_such_column", user)) >= 0,
                      "filter by no column");
            break;
        case 3:
            told.note(check_privilege_user_block(nobody.data()) == 0, "check of nobody");
            break;
        default:
            told.note(total_of(list_server_list, filtered("username", "entry")) >= 0, "filter");
            break;
    }
}

// Held by each call, and alone by whoever wants the daemon idle.
std::shared_mutex calling;

// Calls at a steady rate until it is time. A late call is followed by the next one at once.
template <class Call>
void keep_calling(int rate, clock_type::time_point end, Call call) {
    const auto interval = duration_cast<clock_type::duration>(seconds(1.0 / rate));
    for (auto next = clock_type::now(); next < end; next += interval) {
        std::this_thread::sleep_until(next);
        const std::shared_lock guard(calling);
        call();
    }
}

// --- The daemon's size --------------------------------------------------------------------------

// Memory goes up and down with the tables, so its peak is what counts.
struct daemon_size {
    int64_t peak_kib = 0;
    size_t descriptors = 0;
};

// Looks every second until then; at the descriptors once more when the daemon is idle.
daemon_size look_until(clock_type::time_point end, pid_t pid) {
    daemon_size size;
    for (auto next = clock_type::now(); next < end;) {
        next = std::min(next + std::chrono::seconds(1), end);
        std::this_thread::sleep_until(next);
        size.peak_kib = std::max(size.peak_kib, int64_t{std::stol(proc_status(pid, "RssAnon"))});
    }
    const std::lock_guard idle(calling);
    size.descriptors = idle_descriptors(pid);
    return size;
}

class observer {
  public:
    observer(pid_t daemon, const tally& counts) : pid(daemon), told(counts) {}

    // Tells every minute, or at the end, until it is time; the first fifth is the warm-up.
    void observe(double minutes, clock_type::time_point begin, clock_type::time_point end) {
        const auto warm =
            begin + duration_cast<clock_type::duration>(seconds(std::min(minutes / 5, 10.0) * 60));
        first = look_until(warm, pid);
        refused_before = told.refused_queries;
        for (auto next = warm; next < end;) {
            next = std::min(next + std::chrono::minutes(1), end);
            last = look_until(next, pid);
            tell(seconds(clock_type::now() - begin).count());
        }
    }
    // Memory beyond the records of refused queries since the warm-up, in KiB.
    int64_t growth() const { return last.peak_kib - first.peak_kib - leak(); }
    bool is_steady() const { return last.descriptors == first.descriptors; }

  private:
    int64_t leak() const {
        const size_t queries = told.refused_queries - refused_before;
        return static_cast<int64_t>(queries * bytes_of_a_leak / 1024);
    }
    void tell(double time) const {
        printf(
            "%6.1f min: %zu answered (%.0f/s), %zu wrong or lost; peak %ld KiB, grown by %ld "
            "beside "
            "%ld of refused queries; %zu descriptors\n",
            time / 60, told.answered.load(), static_cast<double>(told.answered) / time,
            told.wrong.load(), last.peak_kib, growth(), leak(), last.descriptors);
        (void)fflush(stdout);
    }

    const pid_t pid;
    const tally& told;
    daemon_size first;
    daemon_size last;
    size_t refused_before = 0;
};

// --- The whole ----------------------------------------------------------------------------------

void install_neighbours() {
    fs::create_directories("/usr/local/sbin");
    fs::create_symlink(NOTIFY, "/usr/local/sbin/notify");
    write_file("/etc/config/vpn_block.conf",
               R"({"global": {"enable": true, "limit": 3, "time": 100000}})");
}

// Notifiers run on by themselves, so the last ones are waited for.
size_t notifications_told(size_t expected) {
    const auto end = clock_type::now() + std::chrono::seconds(10);
    size_t told = 0;
    while ((told = count_of(read_file(notifications_path), "\n")) < expected &&
           clock_type::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return told;
}

int soak(double minutes) {
    install_neighbours();
    const service_process vpncaas(VPNCAAS, "vpncaas");
    ravod_process daemon;
    tally told;
    writer writing(told, 1);
    observer observing(daemon.pid(), told);
    const auto begin = clock_type::now();
    const auto end = begin + duration_cast<clock_type::duration>(seconds(minutes * 60));
    std::thread write_thread([&] { keep_calling(writer_rate, end, [&] { writing.call(); }); });
    std::thread read_thread([&, random = std::mt19937(2)]() mutable {
        keep_calling(reader_rate, end, [&] { read_once(told, random); });
    });
    observing.observe(minutes, begin, end);
    write_thread.join();
    read_thread.join();
    writing.close();
    told.note(daemon.stop() == 0, "end of the daemon");
    writing.compare_with_database();
    const size_t notifications = notifications_told(writing.notifications);
    told.note(notifications == writing.notifications, "notifications");
    printf("%zu notifications, %zu expected\n", notifications, writing.notifications);
    const bool is_small = minutes < 1 || observing.growth() < growth_allowed;
    const bool is_well = told.wrong == 0 && observing.is_steady() && is_small;
    printf("%s: %zu answered, %zu wrong or lost, memory grown by %ld KiB, descriptors %s\n",
           is_well ? "Soak: all well" : "Soak: FAILED", told.answered.load(), told.wrong.load(),
           observing.growth(), observing.is_steady() ? "as before" : "OTHERS");
    return is_well ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const double minutes = argc == 2 ? strtod(argv[1], nullptr) : 0;
    if (minutes > 0) return soak(minutes);
    (void)fputs("usage: soak MINUTES\n", stderr);
    return 2;
}
