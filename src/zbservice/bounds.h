// Every bound of the bus, in one place. What goes over one is refused or dropped by itself.
#ifndef ZBSERVICE_BOUNDS_H
#define ZBSERVICE_BOUNDS_H

#include <chrono>
#include <cstddef>

namespace zb {

inline constexpr std::size_t kib = 1024;
inline constexpr std::size_t mib = 1024 * kib;
inline constexpr std::size_t gib = 1024 * mib;

// One message.
inline constexpr std::size_t max_method_bytes = 255;
inline constexpr std::size_t max_request_bytes = 4 * mib;
inline constexpr std::size_t max_reply_bytes = gib;  // also of any buffer

// One endpoint. The connections leave most of the usual 1024 descriptors to the program.
inline constexpr std::size_t max_connections = 256;
inline constexpr int max_backlog = 64;                         // callers whom the kernel holds
inline constexpr std::size_t max_unfinished_bytes = 64 * mib;  // requests not started yet
inline constexpr std::size_t max_unsent_bytes = 2 * gib;       // replies larger than the next
inline constexpr std::size_t small_reply_bytes = mib;          // bounded by the connections alone

// What one user may hold of that: root and the endpoint's own user, and anybody else each. A share
// leaves the others room for a request and for the largest usual reply. A connection has at most
// one descriptor besides its own.
inline constexpr std::size_t own_connections = 192;
inline constexpr std::size_t other_connections = 64;
inline constexpr std::size_t own_unfinished_bytes = 48 * mib;
inline constexpr std::size_t other_unfinished_bytes = 16 * mib;
inline constexpr std::size_t own_unsent_bytes = 1536 * mib;
inline constexpr std::size_t other_unsent_bytes = gib;

// Kept connections. A caller's are fewer than any user's share, and it gives them up before the
// endpoint would.
inline constexpr std::size_t kept_by_thread = 4;
inline constexpr std::size_t kept_by_process = 64;
inline constexpr std::chrono::seconds kept_by_caller{5};     // without a call
inline constexpr std::chrono::seconds kept_by_endpoint{10};  // without a request

// A process that may open fewer descriptors keeps no connection: it may need each.
inline constexpr std::size_t ample_descriptors = 2 * max_connections;

// How often a request can be overtaken by others that were sent earlier, but came to the endpoint's
// notice later: as many wait in the kernel's queue.
inline constexpr int overtaken_at_most = max_backlog + 1;

// Time without progress after which a caller is dropped.
inline constexpr std::chrono::seconds request_stall{5};  // in the middle of its request
inline constexpr std::chrono::seconds reply_stall{9};    // in the middle of its reply

// A request takes no longer than this in all, however steadily its bytes drip.
inline constexpr std::chrono::seconds request_total{30};

// A reader without progress for less is not dropped to make room, unless its user holds a full
// share.
inline constexpr std::chrono::seconds reply_grace{1};

// How long zb_start goes on sending finished replies after zb_stop.
inline constexpr std::chrono::seconds flush_stall{2};
inline constexpr std::chrono::seconds flush_total{4};

// How long an endpoint stops taking connections when there is nothing to take them with.
inline constexpr std::chrono::milliseconds accept_pause{100};

// How many callers without a complete request are taken at most before the others have their turn.
inline constexpr int accepted_together = 16;

// What is received or sent at most for one caller before the others have their turn.
inline constexpr std::size_t receive_bytes = 64 * kib;
inline constexpr std::size_t send_bytes = 256 * kib;

// The memory of a long reply goes back to the system in steps of this, as it is sent.
inline constexpr std::size_t release_bytes = 8 * mib;

}  // namespace zb

#endif  // ZBSERVICE_BOUNDS_H
