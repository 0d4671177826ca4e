// The global VPN options: the options file, which VPN client connection is the default gateway and
// which its backup, the command front end that prints them, and calls of other services' JSON
// methods.
//
// Every message of this unit is logged at "ERROR", informative ones included. A call of another
// service blocks until it has answered, at most 5 seconds without progress; a lock of the options
// file is waited for 5 seconds at most. Any thread may call. The daemon carries all of this and
// calls no more than easy_zb_call().
#ifndef GLOBAL_OPTIONS_H
#define GLOBAL_OPTIONS_H

#include <jansson.h>

#include <cstdint>
#include <string>

#include "json.h"
#include "vpn_options.h"

namespace ravo {

// --- Calls of other services --------------------------------------------------------------------

// Calls a service's method and judges the reply's "error".
//
// domain    a registered service name, such as "vpncaas", or an abstract socket path.
// senddata  the request's JSON text; null for a call without body.
//
// Returns the reply, a JSON object whose "error" is 0, which the caller releases with
// json_decref(); null on any failure, which is logged (but for a null domain or method).
json_t* easy_zb_call(const char* domain, const char* method, const char* senddata);

// The profile name that the network service records for a network interface; empty when there is
// none, which is logged.
std::string get_profile_name(std::string sname);

// --- Vocabulary ---------------------------------------------------------------------------------

// Kinds of VPN connections. Only client types take part in the gateway setting.
enum TYPE : uint16_t {
    NONE_TYPE = 0,
    PPTP_SERVER_TYPE = 1,
    L2TP_SERVER_TYPE = 2,
    OVPN_SERVER_TYPE = 4,
    TESSEL_SERVER_TYPE = 16,
    PPTP_CLIENT_TYPE = 256,
    L2TP_CLIENT_TYPE = 512,
    OVPN_CLIENT_TYPE = 1024,
    TESSEL_CLIENT_TYPE = 4096
};

// Result codes that the VPN tools share. Nothing in this system returns one.
enum ERROR_CODE {
    NO_ERROR = 0,
    ERR_GENERAL,
    ERR_NO_TYPE,
    ERR_WRONG_TYPE,
    ERR_WRONG_ACTION,
    ERR_UNKNOWN_OPTION,
    ERR_DUPLICATE_OPTION,
    ERR_REGULAR_FILE,
    ERR_NOT_SUPPORT,
    ERR_VALUE,
    ERR_MAX_CONFIGS,
    ERR_HOST_LENGTH,
    ERR_MASK_LENGTH,
    ERR_NAME_LENGTH,
    ERR_USER_LENGTH,
    ERR_PASS_LENGTH,
    ERR_ENCRYPTION,
    ERR_AUTHENTICATION,
    ERR_PORT_NUMBER,
    ERR_PROTOCOL_TYPE,
    ERR_EXECUTABLE,
    ERR_URL_LENGTH,
    ERR_META_LENGTH,
    ERR_OPENVPN_CLIENT,
    ERR_OPENVPN_CA,
    ERR_OPENVPN_KEY,
    ERR_OPENVPN_CERT,
    ERR_OPENVPN_TLS_AUTH,
    ERR_OPENVPN_SECRET,
    ERR_OPENVPN_CRL_VERIFY,
    ERR_CONFIGURE_INDEX,
    ERR_SAVE_FILE,
    ERR_BACKGROUND_PROCESS,
    ERR_KILL_PROCESS,
    ERR_SAVE_CONFIG,
    ERR_API_NOT_FOUND,
    ERR_MISS_OPTION,
    ERR_SESSION_USER,
    ERR_SESSION_PASS,
    ERR_SESSION_FAIL,
    ERR_SESSION_AUTH_FAIL,
    ERR_NOT_ADMIN_SESSION,
    ERR_QUERY_LOG_FAIL,
    ERR_CONFIGURATION_FULL,
    ERR_IP_POOL_CONFLICT,
    ERR_ACCESS,
    ERR_ZB_IO_FAILED,
    ERR_ZB_CALL_FAILED,
    ERR_ZB_API_RET_ERROR,
    ERR_WRONG_JSON_FORMAT,
    ERR_CURL_FAIL,
    ERR_TESSEL_CLIENT_DUPLICATE
};
static_assert(ERR_TESSEL_CLIENT_DUPLICATE == 51);

// The connection that a network interface belongs to, told by the number in the interface's name:
// 1000 and up are PPTP clients, 1250 L2TP, 2000 OpenVPN, 2500 Tessel, and what the number exceeds
// that by is the index. Any other number gives NONE_TYPE and 0.
//
// The number is what stands behind the first three characters ("tun", "ppp") or five ("mirec") when
// the name holds that prefix anywhere; a text there that is no number is 0. For a name without a
// prefix it is the number that index holds already.
void ifname_to_typeindex(std::string ifname, TYPE& type, int& index);

// A connection's short name, such as "OPENVPN_CLIENT3"; empty for anything but a client type.
std::string typeindex_to_sname(TYPE type, int index);

// A client type as people read it, such as "OpenVPN"; empty for anything else.
std::string type_to_string(TYPE type);

// An interval code of "failover_interval" as notifications show it; empty for an unknown one.
std::string interval_to_string(int time);

// --- The options file ---------------------------------------------------------------------------

// The options file, which docs/options-file.md describes. There is no state but the file. Each
// operation takes the file's lock for itself, so another program's update between two of them, and
// between reading and writing of save() and disable_gateway(), is overwritten.
class GlobalConfig {
  public:
    // A new document: version "1", and no gateway. The caller releases it with json_decref().
    json_t* get_tmpl();

    // The whole document, which the caller releases with json_decref(). Without a file, or without
    // its lock, an empty object; for a file that holds no JSON object, the template. Both are
    // logged.
    json_t* load();

    // One section of a freshly loaded document; a new empty object when section is null or there is
    // none. The caller may release it with json_decref(). Deliberate: the document is kept, so a
    // section that was found stays valid for the life of the process, and each call costs memory.
    json_t* load(const char* section);

    // Sets data[section] to the section as a leaf, an empty object when there is none. Returns 0,
    // or -1, with nothing done, when section is null.
    int load(const char* section, JsonValue& data);

    // Replaces the document's sections by those of the same name in raw, a JSON object's text,
    // writes the file, sends the notifications of the gateway setting in raw, and then has the
    // network service read the setting. Values are taken as they are. Sections that the document
    // does not have are ignored, so without a file nothing is stored but an empty object.
    //
    // Deliberate: a raw that is no JSON object empties the file, and so does a full disk. Readers
    // then get the template. Readers who take the lock never see a half-written file. For want of
    // memory the file stays as it is. Returns 0, also when nothing could be written; all failures
    // but those of the lock and of opening the file are logged.
    int save(const char* raw);

    // Sets data["type"] and data["index"] to the connection that is the default gateway now, as the
    // network service knows it; both are 0 when it is none of a VPN. When the service fails or its
    // answer cannot be used, data stays as it is.
    void get_vpn_gw(JsonValue& data);

    // Takes a connection that goes away out of the gateway setting: its backup, if it has one,
    // takes its place. Saves the document as save() does, if it changes anything. Returns 0.
    int disable_gateway(TYPE type, int index);
};

// Sends the notifications that describe the gateway setting in an update, raw_t: the gateway, and
// the backup with the delay of the way back. Nothing is sent for one without a gateway.
void ravo_gw_nclog(json_t* raw_t);

}  // namespace ravo

// --- The command front end ----------------------------------------------------------------------

// "get" prints the whole options, "get SECTION" one section, and anything else an error, each as
// one line of JSON on standard output. argv[0] is the program's name. Returns 0 always.
int cmd_global_opt(char* app, int argc, char** argv);

// Prints {"data": the section, or all for a null key, "error": 0}.
void get_setting(char* key);

// Prints {"error": -1}.
void usage();

#endif  // GLOBAL_OPTIONS_H
