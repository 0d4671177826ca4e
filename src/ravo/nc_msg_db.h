// The notification catalogue and the sender that hands an entry to the notification centre.
#ifndef NC_MSG_DB_H
#define NC_MSG_DB_H

namespace ravo {

// One catalogue entry. The notifier puts the arguments into the message's {0}, {1}, ...; {0} is the
// application's name.
struct nc_msg_struct {
    const char* category_id;  // "C001" servers and privileges, "C002" profiles and gateways, "C003"
    const char* message_id;   // "0001" to "0021"; there is no "0017" and no "0018"
    const char* level;        // "info" or "warn"
    const char* message;
};

// The catalogue. Callers pick an entry by its position, which never changes.
inline constexpr int nc_msg_count = 19;
extern const nc_msg_struct __NC_MSG_DB__[nc_msg_count];

// Positions of the entries that this system sends.
inline constexpr int nc_default_gateway_set = 10;
inline constexpr int nc_backup_gateway_set = 11;
inline constexpr int nc_reversion_delay_set = 12;
inline constexpr int nc_user_blocked = 17;
inline constexpr int nc_user_unblocked = 18;

class nclog {
  public:
    // Starts "/usr/local/sbin/notify" with the entry and the arguments for {1}, {2}, ...: texts, at
    // most 12 of which are taken, closed by a null pointer. Nothing is kept after the return.
    //
    // The notifier runs as a grandchild that nobody waits for, with standard streams on /dev/null,
    // no other descriptor of this process, default signal handling and an empty signal mask. Blocks
    // until its program is in place or known to be missing, with every signal held back, however
    // large this process is. No failure is reported: a notifier that is missing loses the
    // notification. Any thread may call.
    static void notify_send(const nc_msg_struct* msg, ...);
};

}  // namespace ravo

#endif  // NC_MSG_DB_H
