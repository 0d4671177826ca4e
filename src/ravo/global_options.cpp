// The global VPN options: the options file, the gateway rules, the command front end, and calls of
// other services' JSON methods.
#include "global_options.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "json_texts.h"
#include "nc_msg_db.h"
#include "ravo_log.h"
#include "zbservice.h"

namespace ravo {

namespace {

constexpr int call_timeout_seconds = 5;

struct zb_io_deleter {
    void operator()(zb_io* io) const { zb_io_free(io); }
};
// A member as a text; empty when it is none.
const char* text(const json_t* object, const char* key) {
    const char* value = json_string_value(json_object_get(object, key));
    return value != nullptr ? value : "";
}

}  // namespace

// --- Calls of other services --------------------------------------------------------------------

json_t* easy_zb_call(const char* domain, const char* method, const char* senddata) {
    if (domain == nullptr || method == nullptr) return nullptr;
    const std::unique_ptr<zb_io, zb_io_deleter> io(zb_io_create());
    if (!io) {
        log_line(HERE, "ERROR", "%s: zb_io_create failed\n", __func__);
        return nullptr;
    }
    const char* sent = senddata != nullptr ? senddata : "";
    if ((senddata != nullptr && zb_io_write(io.get(), senddata, strlen(senddata)) != 0) ||
        zb_call(domain, method, io.get(), call_timeout_seconds, -1) != 0) {
        log_line(HERE, "ERROR", "%s: zb_call %s.%s %s failed\n", __func__, domain, method, sent);
        return nullptr;
    }
    json_ptr root = parse_text(static_cast<const char*>(zb_io_read(io.get(), nullptr)));
    if (!json_is_object(root.get())) {
        log_line(HERE, "ERROR", "%s: root isn't an object.\n", __func__);
        return nullptr;
    }
    const json_t* error = json_object_get(root.get(), "error");
    if (!json_is_integer(error)) {
        log_line(HERE, "ERROR", "%s: val isn't an integer.\n", __func__);
        return nullptr;
    }
    if (json_integer_value(error) != 0) {
        log_line(HERE, "ERROR", "%s: %s.%s %s failed\n", __func__, domain, method, sent);
        return nullptr;
    }
    return root.release();
}

std::string get_profile_name(std::string sname) {  // NOLINT(performance-unnecessary-value-param)
    const json_ptr request(json_object());
    (void)json_object_set_new(request.get(), "key", json_string(sname.c_str()));
    // Deliberate: the text is not released.
    const char* text = dump_json(request.get()).release();
    const json_ptr reply(easy_zb_call("NetworkService", "external_dev.list", text));
    if (!reply) return {};
    const json_t* device = json_object_get(json_object_get(reply.get(), "data"), sname.c_str());
    if (!json_is_object(device)) {
        log_line(HERE, "ERROR", "%s: %s isn't an object.\n", __func__, sname.c_str());
        return {};
    }
    const json_t* profile = json_object_get(device, "profile");
    if (!json_is_string(profile)) {
        log_line(HERE, "ERROR", "%s: profile isn't string.\n", __func__);
        return {};
    }
    return json_string_value(profile);
}

// --- Vocabulary ---------------------------------------------------------------------------------

namespace {

struct client_type {
    TYPE type;
    int first_number;  // of its network interfaces; up to the number of the row before
    const char* sname_stem;
    const char* display_name;
};
constexpr client_type client_types[] = {
    {TESSEL_CLIENT_TYPE, 2500, "TESSEL_CLIENT", "Tessel"},
    {OVPN_CLIENT_TYPE, 2000, "OPENVPN_CLIENT", "OpenVPN"},
    {L2TP_CLIENT_TYPE, 1250, "L2TP_CLIENT", "L2TP/IPSec"},
    {PPTP_CLIENT_TYPE, 1000, "PPTP_CLIENT", "PPTP"},
};

const client_type* find_client_type(TYPE type) {
    const auto* found =
        std::ranges::find_if(client_types, [&](const client_type& c) { return c.type == type; });
    return found != std::end(client_types) ? found : nullptr;
}

// A negative number counts as its positive one, and its index is negative.
void classify(int interface_number, TYPE& type, int& index) {
    for (const client_type& c : client_types) {
        if (interface_number > -c.first_number && interface_number < c.first_number) continue;
        type = c.type;
        index = interface_number % c.first_number;
        return;
    }
    type = NONE_TYPE;
    index = 0;
}

}  // namespace

void ifname_to_typeindex(std::string ifname, TYPE& type, int& index) {
    for (const char* prefix : {"mirec", "tun", "ppp"}) {
        if (ifname.find(prefix) == std::string::npos) continue;
        // Deliberate: wherever the prefix stands, as many characters go from the name's start.
        ifname.erase(0, strlen(prefix));
        index = static_cast<int>(strtol(ifname.c_str(), nullptr, 10));
        break;
    }
    classify(index, type, index);
}

std::string typeindex_to_sname(TYPE type, int index) {
    const client_type* c = find_client_type(type);
    return c != nullptr ? c->sname_stem + std::to_string(index) : "";
}

std::string type_to_string(TYPE type) {
    const client_type* c = find_client_type(type);
    return c != nullptr ? c->display_name : "";
}

std::string interval_to_string(int time) {
    switch (time) {
        case -1:
            return "Not";
        case 0:
            return "immediatly";  // spelled so on purpose
        case 1:
        case 5:
        case 10:
            return std::to_string(time);
        default:
            return "";
    }
}

// --- The options file ---------------------------------------------------------------------------

namespace {

struct file_closer {
    void operator()(FILE* file) const { (void)fclose(file); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// Opens the options file. Never waits: a pipe in its place would keep the lock for ever.
file_ptr open_options(int flags, const char* mode) {
    constexpr mode_t everyone = 0666;
    const int fd = open(options_path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, everyone);
    if (fd < 0) return nullptr;
    file_ptr file(fdopen(fd, mode));
    if (!file) close(fd);
    return file;
}

// The bytes of a regular file.
size_t size_of(FILE* file) {
    struct stat found = {};
    return fstat(fileno(file), &found) == 0 ? static_cast<size_t>(found.st_size) : 0;
}

// Tells why something has just failed: the C library says so whenever it has no memory, while
// Jansson takes much of that for a fault of the text. Set errno to 0 before.
bool is_out_of_memory() { return errno == ENOMEM; }

// Reads the document. False: there was no memory for all of it, and it is not what the file holds.
bool read_options(json_ptr& root, const call_site& at) {
    errno = 0;
    const options_lock lock(Ini_Conf_Read_Lock_File);
    if (!lock.is_held()) {
        log_line(at, "ERROR", "Ini_Conf_Read_Lock_File failed.");
        root.reset(json_object());
        return lock.error() != ostra_lock_out_of_memory;
    }
    const file_ptr file = open_options(O_RDONLY, "r");
    if (!file) {
        const bool is_complete = !is_out_of_memory();
        log_line(at, "ERROR", "Open %s failed.", options_path);
        root.reset(json_object());
        return is_complete;
    }
    errno = 0;
    root = parse_json(size_of(file.get()), [&] { return json_loadf(file.get(), 0, nullptr); });
    if (json_is_object(root.get())) return true;
    const bool is_complete = !is_out_of_memory();
    log_line(at, "ERROR", "root isn't a object.");
    root.reset(GlobalConfig().get_tmpl());
    return is_complete;
}

// A notification for which there is no memory is lost; what it tells of is done all the same.
void notify_gateways(json_t* raw_t, const call_site& at) {
    try {
        ravo_gw_nclog(raw_t);
    } catch (const std::bad_alloc&) {
        log_line(at, "ERROR", "ravo_gw_nclog: out of memory\n");
    }
}

// The document, updated by raw, into the file. The lock is held until the notifications are sent
// and the file is closed. Deliberate: the file is emptied, whatever comes of the rest; but for want
// of memory, which is found out before.
bool write_options(json_t* root, const char* raw, const call_site& at) {
    const options_lock lock(Ini_Conf_Write_Lock_File);
    if (!lock.is_held()) return false;
    errno = 0;
    const json_ptr raw_t = raw != nullptr ? parse_text(raw) : nullptr;
    const bool is_updated = json_object_update_existing(root, raw_t.get()) == 0;
    const json_text document = is_updated ? dump_json(root) : nullptr;
    if (!document && is_out_of_memory()) {
        log_line(at, "ERROR", "No memory, nothing is saved.\n");
        return false;
    }
    file_ptr file = open_options(O_WRONLY | O_CREAT, "wb");
    if (!file) return false;
    // Only a regular file has a length.
    if (ftruncate(fileno(file.get()), 0) != 0 && errno != EINVAL) return false;
    if (!is_updated) {
        log_line(at, "ERROR", "Update raw_t to root failed. %s\n",
                 text_or_null(dump_json(raw_t.get()).get()));
        return false;
    }
    bool is_written = document && fputs(document.get(), file.get()) != EOF;
    if (is_written) notify_gateways(raw_t.get(), at);
    if (fclose(file.release()) != 0) is_written = false;
    if (!is_written)
        log_line(at, "ERROR", "Write %s to file failed\n", text_or_null(document.get()));
    return is_written;
}

}  // namespace

json_t* GlobalConfig::get_tmpl() {
    return json_pack("{s:{s:s}, s:{s:i}}", "global", "version", "1", "gw_setting", "as_gw_en", 0);
}

json_t* GlobalConfig::load() {
    call_site at = HERE;
    json_ptr root;
    (void)read_options(root, at);
    return root.release();
}

json_t* GlobalConfig::load(const char* section) {
    if (section == nullptr) return json_object();
    json_ptr root(load());
    json_t* found = json_object_get(root.get(), section);
    if (found == nullptr) return json_object();
    (void)root.release();
    return json_incref(found);
}

int GlobalConfig::load(const char* section, JsonValue& data) {
    if (section == nullptr) return -1;
    const json_ptr root(load());
    json_t* found = json_object_get(root.get(), section);
    JsonValue& place = data[section];
    place = found != nullptr ? json_incref(found) : json_object();
    return 0;
}

int GlobalConfig::save(const char* raw) {
    call_site reading = HERE;
    reading.function = "load";
    json_ptr root;
    if (!read_options(root, reading)) return 0;  // the rest of the document would be lost
    if (!write_options(root.get(), raw, HERE)) return 0;
    const json_ptr reply(easy_zb_call("NetworkService", "external_dev.update_vpn_gw", nullptr));
    if (!reply) log_line(HERE, "ERROR", "%s: zb_call failed\n", "update_vpn_gw");
    return 0;
}

// --- The gateway rules --------------------------------------------------------------------------

namespace {

struct connection {
    TYPE type;
    int index;
    bool operator==(const connection&) const = default;
};

// The connection of a "gw1" or "gw2"; both numbers are 0 when there is none.
connection connection_of(const json_t* gateway) {
    return {static_cast<TYPE>(number<uint16_t>(gateway, "type")), number<int>(gateway, "index")};
}

// What changes a setting returns false when there is no memory for the change.
bool set_number(json_t* object, const char* key, int value) {
    return json_object_set_new(object, key, json_integer(value)) == 0;
}

// The backup's connection becomes the gateway's.
bool promote_backup(json_t* setting) {
    if (!json_is_object(json_object_get(setting, "gw1")) &&
        json_object_set_new(setting, "gw1", json_object()) != 0) {
        return false;
    }
    json_t* gateway = json_object_get(setting, "gw1");
    const json_t* backup = json_object_get(setting, "gw2");
    return set_number(gateway, "index", connection_of(backup).index) &&
           set_number(gateway, "type", connection_of(backup).type) &&
           json_object_set_new(gateway, "sname", json_string(text(backup, "sname"))) == 0;
}

bool remove_backup(json_t* setting) {
    (void)json_object_del(setting, "failover_interval");
    (void)json_object_del(setting, "gw2");
    return set_number(setting, "failover_en", 0);
}

bool remove_gateway(json_t* setting) {
    (void)json_object_del(setting, "gw1");
    return set_number(setting, "as_gw_en", 0);
}

// Takes a connection out of the setting. False: it is not in it, or there is no memory. Deliberate:
// without a backup the backup's connection is type 0, index 0, whatever stands in "gw2".
bool remove_connection(json_t* setting, const connection& gone) {
    const bool has_backup = number<int>(setting, "failover_en") != 0;
    const connection backup = connection_of(has_backup ? json_object_get(setting, "gw2") : nullptr);
    if (gone == connection_of(json_object_get(setting, "gw1"))) {
        if (!has_backup) return remove_gateway(setting);
        return promote_backup(setting) && remove_backup(setting);
    }
    return gone == backup && remove_backup(setting);
}

// Sends an entry about a "gw1" or "gw2".
void notify_gateway(int entry, const json_t* gateway) {
    const std::string type = type_to_string(connection_of(gateway).type);
    const std::string profile = get_profile_name(text(gateway, "sname"));
    nclog::notify_send(&__NC_MSG_DB__[entry], type.c_str(), profile.c_str(), nullptr);
}

}  // namespace

void GlobalConfig::get_vpn_gw(JsonValue& data) {
    const json_ptr reply(easy_zb_call("NetworkService", "api.get_currentGWinfo", nullptr));
    if (!reply) {
        log_line(HERE, "ERROR", "%s: zb_call failed\n", "get_currentGWinfo");
        return;
    }
    TYPE type = NONE_TYPE;
    int index = 0;
    const json_t* devices = json_object_get(reply.get(), "data");
    for (size_t n = 0; n < json_array_size(devices); ++n) {
        const json_t* device = json_array_get(devices, n);
        if (!json_is_object(device)) {
            log_line(HERE, "ERROR", "val isn't an object.\n");
            return;
        }
        if (strcmp(text(device, "interface_type"), "VPN") != 0) continue;
        const char* ifname = json_string_value(json_object_get(device, "ifname"));
        if (ifname == nullptr) return;
        ifname_to_typeindex(ifname, type, index);
        break;
    }
    data["type"] = static_cast<int>(type);
    data["index"] = index;
}

int GlobalConfig::disable_gateway(TYPE type, int index) {
    const json_ptr root(load());
    json_t* setting = json_object_get(root.get(), "gw_setting");
    if (number<int>(setting, "as_gw_en") == 0) return 0;
    if (!remove_connection(setting, {type, index})) return 0;
    const json_text raw = dump_json(root.get());
    if (raw) (void)save(raw.get());  // an update that there was no memory for would empty the file
    log_line(HERE, "ERROR", "gw changed, root=%s\n", text_or_null(dump_json(root.get()).get()));
    return 0;
}

void ravo_gw_nclog(json_t* raw_t) {
    const json_t* setting = json_object_get(raw_t, "gw_setting");
    if (number<int>(setting, "as_gw_en") == 0) return;
    notify_gateway(nc_default_gateway_set, json_object_get(setting, "gw1"));
    if (number<int>(setting, "failover_en") == 0) return;
    notify_gateway(nc_backup_gateway_set, json_object_get(setting, "gw2"));
    const std::string delay = interval_to_string(number<int>(setting, "failover_interval"));
    nclog::notify_send(&__NC_MSG_DB__[nc_reversion_delay_set], delay.c_str(), nullptr);
}

}  // namespace ravo

// --- The command front end ----------------------------------------------------------------------

namespace {

// Prints a document as one line and releases it.
void print_line(json_t* document) {
    const json_ptr owned(document);
    const json_text line = dump_json(document);
    if (line) (void)puts(line.get());
}

}  // namespace

void get_setting(char* key) {
    ravo::GlobalConfig config;
    json_t* data = key != nullptr ? config.load(key) : config.load();
    print_line(json_pack("{s:o, s:i}", "data", data, "error", 0));
}

void usage() { print_line(json_pack("{s:i}", "error", -1)); }

int cmd_global_opt(char* /*app*/, int argc, char** argv) {
    const bool is_get = argc >= 2 && strcmp(argv[1], "get") == 0;
    if (is_get && argc == 2) {
        get_setting(nullptr);
    } else if (is_get && argc == 3) {
        get_setting(argv[2]);
    } else {
        usage();
    }
    return 0;
}
