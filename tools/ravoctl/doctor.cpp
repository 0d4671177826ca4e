// What keeps ravod from its work on this machine, and what to do about it.
//
// Nothing is changed: each check looks, and says what it found with the command that helps. Checks
// that ask the daemon are left out when it does not answer.
#include "doctor.h"

#include <fmt/format.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bus.h"
#include "database_examination.h"
#include "output.h"
#include "pages.h"
#include "ravo_log.h"
#include "settings.h"
#include "text.h"

namespace {

namespace fs = std::filesystem;

constexpr char log_path[] = "/var/log/network/RAVO.log";
constexpr char notifier[] = "/usr/local/sbin/notify";
constexpr char start_daemon[] = "systemctl start ravod; journalctl -u ravod";
constexpr char check_offline[] = "systemctl stop ravod; ravo-dbcheck; systemctl start ravod";
constexpr char make_paths[] = "systemd-tmpfiles --create ravod.conf";

// --- Findings -----------------------------------------------------------------------------------

enum class verdict { ok, warning, failed };

constexpr const char* to_word(verdict is) {
    return is == verdict::ok ? "ok" : is == verdict::warning ? "warning" : "failed";
}

struct finding {
    verdict is;
    std::string what;
    std::string remedy;  // empty: none is needed
};

class findings {
  public:
    void ok(const std::string& what) { all.push_back({verdict::ok, what, ""}); }
    void warn(const std::string& what, const std::string& remedy) {
        all.push_back({verdict::warning, what, remedy});
    }
    void fail(const std::string& what, const std::string& remedy) {
        all.push_back({verdict::failed, what, remedy});
    }
    std::vector<finding> all;
};

// --- The daemon ---------------------------------------------------------------------------------

// An event is a call that the daemon answers and does nothing about.
bool check_daemon(findings& found) {
    db_event_data event = {};
    try {
        check_answered(add_event_data(&event));
    } catch (const failure& error) {
        const bool is_refused = error.status == not_permitted;
        found.fail(error.what(), is_refused ? "call as root, or as a member of the group that "
                                              "/etc/zbservice.conf names"
                                            : start_daemon);
        return false;
    }
    found.ok(fmt::format("ravod answers at {}", daemon_endpoint));
    return true;
}

void check_table(findings& found, const record_kind& kind) {
    constexpr uint64_t nearly_full = most_rows * 95 / 100;
    try {
        const uint64_t rows = count_rows(kind);
        const std::string what = fmt::format("{}: {} rows", kind.command, rows);
        if (rows < nearly_full) return found.ok(what);
        found.warn(fmt::format("{}; above {} the oldest go", what, most_rows),
                   fmt::format("ravoctl export {}; ravoctl prune", kind.command));
    } catch (const failure& error) {
        found.fail(fmt::format("{}: {}", kind.command, error.what()),
                   fmt::format("grep 'RET =' {}; {}", log_path, check_offline));
    }
}

void check_database(findings& found) {
    switch (examine_database()) {
        case database_state::sound:
            return found.ok(fmt::format("{} is sound", examined_database));
        case database_state::damaged:
            return found.fail(fmt::format("{} is damaged", examined_database), check_offline);
        case database_state::unknown:
            found.warn(fmt::format("{} could not be checked within {} s beside the running daemon",
                                   examined_database, longest_examination),
                       check_offline);
    }
}

// --- Files --------------------------------------------------------------------------------------

bool is_ours(const struct stat& status) { return status.st_uid == 0 || status.st_uid == geteuid(); }

void check_folder(findings& found, const char* path) {
    constexpr mode_t writable_by_others = 022;
    struct stat status = {};
    if (stat(path, &status) != 0 || !S_ISDIR(status.st_mode)) {
        return found.fail(fmt::format("{} is no folder", path), make_paths);
    }
    if (!is_ours(status) || (status.st_mode & writable_by_others) != 0) {
        return found.fail(fmt::format("{} can be written to by others", path),
                          fmt::format("chown root {0}; chmod go-w {0}", path));
    }
    found.ok(fmt::format("{} is a folder that only its owner writes to", path));
}

void check_room(findings& found, const char* path) {
    constexpr uint64_t little = uint64_t{64} * 1024 * 1024;
    struct statvfs room = {};
    if (statvfs(path, &room) != 0) return;
    const uint64_t bytes = uint64_t{room.f_bavail} * room.f_frsize;
    const std::string what = fmt::format("{} has room for {} MiB", path, bytes / 1024 / 1024);
    if (bytes >= little) return found.ok(what);
    found.warn(what, fmt::format("df -h {}", path));
}

void check_log_lock(findings& found) {
    constexpr mode_t open_to_others = 077;
    const char* path = ravo_log::lock_path;
    struct stat status = {};
    if (stat(path, &status) != 0) {
        return found.warn(fmt::format("{} is missing, so log lines may mix", path), make_paths);
    }
    if (!is_ours(status) || (status.st_mode & open_to_others) != 0) {
        return found.warn(fmt::format("{} is open to others, who may hold up the log", path),
                          fmt::format("chown root {0}; chmod 0600 {0}", path));
    }
    found.ok(fmt::format("{} belongs to the log alone", path));
}

// --- The log ------------------------------------------------------------------------------------

std::string end_of_log() {
    constexpr std::streamoff longest = 65536;
    std::ifstream file(log_path, std::ios::ate | std::ios::binary);
    if (!file) return {};
    file.seekg(std::max<std::streamoff>(file.tellg() - longest, 0));
    return {std::istreambuf_iterator<char>(file), {}};
}

// Failures that are not the daemon's own deletes (1, a syntax error).
void check_log(findings& found) {
    static constexpr std::pair<int, const char*> remedies[] = {
        {SQLITE_BUSY, "keep other programs off the database"},
        {SQLITE_READONLY, "chown -R root /etc/config/ravo"},
        {SQLITE_IOERR, "dmesg"},
        {SQLITE_CORRUPT, check_offline},
        {SQLITE_FULL, "df -h /etc/config/ravo"},
        {SQLITE_CANTOPEN, make_paths},
        {SQLITE_NOTADB, check_offline},
    };
    const std::string log = end_of_log();
    bool is_clean = true;
    for (const auto& [code, remedy] : remedies) {
        if (log.find(fmt::format("RET = {}\n", code)) == std::string::npos) continue;
        found.warn(fmt::format("{} tells of failed statements: {}", log_path, sqlite3_errstr(code)),
                   remedy);
        is_clean = false;
    }
    if (is_clean) found.ok(fmt::format("{} tells of no lost records", log_path));
}

// --- The limiter --------------------------------------------------------------------------------

block_settings read_limiter(findings& found) {
    if (!fs::exists(block_settings_path)) {
        found.warn(fmt::format("nobody is blocked: there is no {}", block_settings_path),
                   "ravoctl limiter set on limit=3 time=5");
        return {};
    }
    try {
        const block_settings settings = to_block_settings(read_block_settings().get());
        found.ok("vpncaas tells the limiter's settings");
        return settings;
    } catch (const failure& error) {
        found.fail(fmt::format("nobody is blocked: {}", error.what()),
                   fmt::format("systemctl start vpncaas; ls -l {}", block_settings_path));
        return {};
    }
}

void check_limiter(findings& found) {
    const block_settings settings = read_limiter(found);
    if (!settings.available) return;
    if (!settings.enabled) {
        return found.warn("the login-attempt limiter is off", "ravoctl limiter set on");
    }
    if (settings.block_seconds == 0) {
        return found.warn("blocks last for no time", "ravoctl limiter set time=5");
    }
    if (settings.limit < 1) {
        return found.warn("a single failed login blocks, and nobody is told",
                          "ravoctl limiter set limit=3");
    }
    found.ok(fmt::format("{} failed logins block a user for {} s", settings.limit,
                         settings.block_seconds));
}

void check_notifier(findings& found) {
    if (access(notifier, X_OK) == 0) return found.ok(fmt::format("{} can be run", notifier));
    found.fail(fmt::format("{} cannot be run, so nobody is told of blocks", notifier),
               fmt::format("ln -s \"$(command -v notify)\" {}", notifier));
}

// --- OpenVPN ------------------------------------------------------------------------------------

struct openvpn_server {
    bool is_server = false;
    bool is_wired = false;
    std::string missing;  // an include file that is not there
};

openvpn_server read_configuration(const fs::path& path) {
    openvpn_server server;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        char option[64] = "";
        char first[4096] = "";
        if (sscanf(line.c_str(), " %63s %4095s", option, first) < 1) continue;
        const std::string_view name = option;
        const std::string value = first;
        server.is_server = server.is_server || name == "server" || name == "server-ipv6" ||
                           name == "server-bridge" || (name == "mode" && value == "server");
        const bool is_include = name == "config" && (value.ends_with("/ravod.conf") ||
                                                     value.ends_with("/ravod-auth.conf"));
        const bool is_hook =
            name == "client-connect" && line.find("ravo-openvpn") != std::string::npos;
        server.is_wired = server.is_wired || is_include || is_hook;
        if (is_include && !fs::exists(value)) server.missing = value;
    }
    return server;
}

void check_server(findings& found, const fs::path& path) {
    const openvpn_server server = read_configuration(path);
    const std::string name = escaped(path.native());
    if (!server.missing.empty()) {
        return found.fail(
            fmt::format("{} includes {}, which is not there", name, escaped(server.missing)),
            "install ravo-openvpn");
    }
    if (server.is_wired) return found.ok(fmt::format("{} has ravo-openvpn's hooks", name));
    if (!server.is_server) return;
    const char* prefix = fs::exists("/usr/share/ravod/openvpn") ? "/usr" : "/usr/local";
    found.warn(fmt::format("the sessions of {} are not recorded", name),
               fmt::format("echo 'config {}/share/ravod/openvpn/ravod.conf' >> {}", prefix, name));
}

void check_openvpn(findings& found) {
    for (const char* folder : {"/etc/openvpn", "/etc/openvpn/server"}) {
        std::error_code none;
        std::vector<fs::path> files;
        for (const auto& entry : fs::directory_iterator(folder, none)) {
            if (entry.path().extension() == ".conf" && entry.is_regular_file(none)) {
                files.push_back(entry.path());
            }
        }
        std::ranges::sort(files);
        for (const fs::path& file : files) check_server(found, file);
    }
}

// Beside the events that wait lie the sessions that are open, which is no fault.
void check_spools(findings& found) {
    for (const char* hook : {"ravo-openvpn", "ravo-ppp"}) {
        const std::string folder = fmt::format("/var/spool/{}/waiting", hook);
        std::error_code none;
        const auto waiting = std::distance(fs::directory_iterator(folder, none), {});
        if (none || waiting == 0) continue;
        found.warn(fmt::format("events that wait for ravod in {}: {}", folder, waiting),
                   fmt::format("{} replay", hook));
    }
}

// --- The clock ----------------------------------------------------------------------------------

// Whether the newest row of the VPN server lies in the future, as when the clock was set back.
void check_newest_row(findings& found) {
    constexpr uint64_t slack = 60;  // seconds
    const auto now = static_cast<uint64_t>(std::max<time_t>(time(nullptr), 0));
    (void)for_each_row(
        record_kinds().front(), {},
        [&found, now](const char* row) {
            db_conn_server_log stored;
            memcpy(&stored, row, sizeof stored);
            if (stored.time > now + slack) {
                found.warn("the newest session was recorded in the future", "timedatectl");
            }
            return false;
        },
        1);
}

void check_clock(findings& found) {
    constexpr time_t first_sane = 1735689600;  // 2025-01-01
    constexpr char synchronise[] = "timedatectl set-ntp true";
    timex state = {};
    const bool is_free = adjtimex(&state) < 0 || (state.status & STA_UNSYNC) != 0;
    if (time(nullptr) < first_sane) {
        found.fail("the clock stands before 2025", synchronise);
    } else if (is_free) {
        found.warn("the clock is not synchronised, as far as the kernel knows", synchronise);
    } else {
        found.ok("the clock is synchronised");
    }
}

// --- All of them --------------------------------------------------------------------------------

findings examine() {
    findings found;
    const bool is_up = check_daemon(found);
    for (const char* path : {"/etc/config/ravo", "/var/log/network"}) {
        check_folder(found, path);
        check_room(found, path);
    }
    check_log_lock(found);
    check_log(found);
    check_limiter(found);
    check_notifier(found);
    check_openvpn(found);
    check_spools(found);
    check_clock(found);
    if (!is_up) return found;
    for (const record_kind& kind : record_kinds()) check_table(found, kind);
    check_newest_row(found);
    check_database(found);
    return found;
}

void print_lines(const findings& found) {
    for (const finding& f : found.all) {
        fmt::print("{}: {}{}{}\n", to_word(f.is), f.what,
                   f.remedy.empty() ? "" : " - remedy: ", f.remedy);
    }
}

void print_object(const findings& found) {
    const json_ptr lines(json_array());
    for (const finding& f : found.all) {
        json_t* line =
            json_pack("{s:s, s:s, s:s*}", "verdict", to_word(f.is), "what", f.what.c_str(),
                      "remedy", f.remedy.empty() ? nullptr : f.remedy.c_str());
        if (json_array_append_new(lines.get(), line) != 0) throw std::bad_alloc();
    }
    const json_ptr object(
        json_pack("{s:s, s:O}", "schema", schema_name("doctor").c_str(), "findings", lines.get()));
    if (object == nullptr) throw std::bad_alloc();
    dump_to_stdout(object.get());
    fmt::print("\n");
}

exit_status run_doctor(const std::string& format) {
    const findings found = examine();
    if (format == "json") {
        print_object(found);
    } else {
        print_lines(found);
    }
    const auto has_failed = [](const finding& f) { return f.is == verdict::failed; };
    return std::ranges::any_of(found.all, has_failed) ? no : done;
}

}  // namespace

void declare_doctor(command_line& line) {
    const auto format = std::make_shared<std::string>("table");
    const cli_command doctor = line.add_subcommand(
        "doctor", "Look for what keeps ravod from its work, and tell what helps");
    doctor.add_option("-o,--output", *format, "How to print it")
        .one_of({"table", "json"})
        .shows_default();
    line.runs(doctor, [format] { return run_doctor(*format); });
}
