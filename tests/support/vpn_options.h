// The world of the global VPN options, for tests that link them: the options file, a network
// service on the real bus, and a recording notifier.
//
// Linking vpn_options.cpp into a test puts it in front of waitpid() and json_loadf(), with the
// linker's wrap. So a notification is received before its sender goes on, the order of all that
// happens is certain, and a test can do something between opening and reading the file.
#ifndef TESTS_SUPPORT_VPN_OPTIONS_H
#define TESTS_SUPPORT_VPN_OPTIONS_H

#include <gtest/gtest.h>
#include <jansson.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "json.h"
#include "support/bus.h"
#include "support/log_lines.h"
#include "support/recording_notifier.h"

namespace vpn_options {

inline constexpr char path[] = "/etc/config/vpn_options.conf";
inline constexpr char lock_path[] = "/etc/config/vpn_options.conf.lck";
inline constexpr char template_text[] =
    R"({"global": {"version": "1"}, "gw_setting": {"as_gw_en": 0}})";

// --- Documents -----------------------------------------------------------------------------------

// A document whose gateway setting has these members.
std::string with_setting(const std::string& members);

// The file's bytes; "(none)" without a file.
std::string stored();

// The value as compact text, with blanks, and released.
std::string take_text(json_t* value);

std::string text_of(const JsonValue& node);

// Puts a new file with these bytes in the place of the options file.
void replace_file(const std::string& bytes);

extern std::function<void()> on_reading;  // runs when the options file is open and not yet read

// Whether another holder could have the options file's lock now: LOCK_SH or LOCK_EX.
bool is_free(int operation);

// The descriptors on the options file and on its lock file that this process has, sorted, as
// "PATH", with " (inherited)" behind one that an exec does not close.
std::vector<std::string> descriptors();

// --- What happens --------------------------------------------------------------------------------

// Calls of the network service as "METHOD BODY", and notifications as the notifier's words.
std::vector<std::string> events();
void forget_events();
extern std::function<void()> on_event;  // runs at each

// The events that are to be expected. The profile names are those below.
std::string profile_call(const std::string& sname);  // the question for a profile name
inline constexpr char update_call[] = "external_dev.update_vpn_gw ";
inline constexpr char current_call[] = "api.get_currentGWinfo ";
std::string gateway_set(const std::string& type, const std::string& profile);
std::string backup_set(const std::string& type, const std::string& profile);
std::string delay_set(const std::string& delay);

// What the network service answers to each method; no answer to one that is not here. At first,
// the profiles of "OPENVPN_CLIENT3" (office), "PPTP_CLIENT1" (home), "L2TP_CLIENT2" (ship) and
// "TESSEL_CLIENT0" (lab), and success for an update.
extern std::map<std::string, std::string> replies;

// --- Log lines -----------------------------------------------------------------------------------

expected_line log_of(const std::string& function, const std::string& message);
expected_line failed_call(const std::string& event);  // to nobody
expected_line failed_update();
expected_line no_options_file();
expected_line no_lock();
expected_line no_object();

// --- The world -----------------------------------------------------------------------------------

// The next case of a table: a log and events of its own, and these bytes in the options file, or no
// file when there are none.
void start_case(const std::optional<std::string>& bytes);

// A test with all of it. At its end no descriptor is left.
class world : public testing::Test {
  protected:
    world();
    ~world() override;

    void stop_network_service() { network_service.reset(); }
    static void remove_notifier();

  private:
    bus_test::leak_check descriptor_check;
    std::optional<bus_test::endpoint> network_service;
};

}  // namespace vpn_options

#endif  // TESTS_SUPPORT_VPN_OPTIONS_H
