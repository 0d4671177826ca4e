// Connections that callers keep from one call to the next.
#include "kept.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>

#include "bounds.h"
#include "frame.h"

namespace zb {

// A place for one connection. Its owner alone uses it; a child of a fork clears all places.
struct kept_connection {
    std::atomic<const void*> owner;  // the thread; null: free
    std::atomic<int> socket;         // -1: none; set after, and cleared before, all that follows
    std::uint64_t cookie;            // the kernel's name of the socket, never given twice
    bool in_use;
    uid_t user;
    gid_t group;
    std::chrono::seconds patience;  // of its receives; 0: not limited yet
    monotonic::time_point used;     // when its last call began
    socket_address address;
};

namespace {
std::array<kept_connection, kept_by_process> places;

using own_places = std::array<kept_connection*, kept_by_thread>;
thread_local constinit own_places own = {};

// ---- Sockets -----------------------------------------------------------------------------------

// 0: no socket.
std::uint64_t cookie_of(int socket) {
    std::uint64_t cookie = 0;
    socklen_t length = sizeof cookie;
    return getsockopt(socket, SOL_SOCKET, SO_COOKIE, &cookie, &length) == 0 ? cookie : 0;
}

// The program may have closed the descriptor, and its number may stand for something else now.
bool is_still_ours(const kept_connection& kept) { return cookie_of(kept.socket) == kept.cookie; }

bool is_same_user(const kept_connection& kept) {
    return kept.user == geteuid() && kept.group == getegid();
}

bool is_quiet(int socket) {
    char byte = 0;
    return recv(socket, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

// ---- Places ------------------------------------------------------------------------------------

bool is_due(const kept_connection& kept, monotonic::time_point now) {
    return !kept.in_use && now - kept.used > kept_by_caller;
}

kept_connection** find_own(const socket_address& address) {
    const auto leads_there = [&](const kept_connection* kept) {
        return kept && kept->address.text() == address.text();
    };
    auto* found = std::find_if(own.begin(), own.end(), leads_there);
    return found == own.end() ? nullptr : found;
}

void close_socket(kept_connection& kept) {
    if (is_still_ours(kept)) {
        (void)shutdown(kept.socket, SHUT_RDWR);  // also for copies that nobody knows of
        (void)close(kept.socket);
    }
    kept.socket = -1;
}

// A place of the thread's own: a free one, or that of the connection used least lately. Null: none.
kept_connection** place_for_another() {
    auto* place = std::find(own.begin(), own.end(), nullptr);
    if (place != own.end()) return place;
    place = std::min_element(own.begin(), own.end(), [](const auto* a, const auto* b) {
        return std::pair(a->in_use, a->used) < std::pair(b->in_use, b->used);
    });
    if ((*place)->in_use) return nullptr;
    drop(**place);
    return place;
}

kept_connection* claim_place() {
    for (kept_connection& each : places) {
        const void* nobody = nullptr;
        if (each.owner.compare_exchange_strong(nobody, &own)) return &each;
    }
    return nullptr;
}

// ---- Threads and processes that end ------------------------------------------------------------

pthread_key_t end_of_thread;
bool is_watching = false;

void drop_all(void* /*own_of_thread*/) {
    for (kept_connection* each : own) {
        if (each) drop(*each);
    }
}

// In a forked child the copies are closed; the connections themselves are the parent's.
void forget_parent() {
    for (kept_connection& each : places) {
        if (each.owner && each.socket >= 0 && is_still_ours(each)) (void)close(each.socket);
        each.socket = -1;
        each.owner = nullptr;
    }
    own = {};
}

void watch_ends() {
    is_watching = pthread_key_create(&end_of_thread, drop_all) == 0 &&
                  pthread_atfork(nullptr, nullptr, forget_parent) == 0;
}

// Whether this thread's end, and every fork, will be noticed.
bool is_watched() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    (void)pthread_once(&once, watch_ends);
    return is_watching && pthread_setspecific(end_of_thread, &own) == 0;
}
}  // namespace

bool has_descriptors_to_spare(int socket) {
    rlimit limit = {};
    return getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= ample_descriptors &&
           static_cast<rlim_t>(socket) < limit.rlim_cur / 2;
}

// ---- Acquaintances -----------------------------------------------------------------------------

namespace {
struct note {
    std::size_t name = 0;  // a hash of the address: another one with the same is taken for it
    bool is_old = false;
    monotonic::time_point called;
};
thread_local constinit std::array<note, kept_by_thread> notes = {};

note& note_of(const socket_address& address) {
    const std::size_t name = std::hash<std::string_view>{}(address.text());
    const auto is_it = [name](const note& each) { return each.name == name; };
    auto* found = std::find_if(notes.begin(), notes.end(), is_it);
    if (found == notes.end()) {
        found = std::min_element(notes.begin(), notes.end(),
                                 [](const note& a, const note& b) { return a.called < b.called; });
        *found = {name, false, {}};
    }
    return *found;
}
}  // namespace

acquaintance meet(const socket_address& address, monotonic::time_point now) {
    note& it = note_of(address);
    const auto before = std::exchange(it.called, now);
    const bool is_recent =
        before != monotonic::time_point() && it.called - before <= kept_by_caller;
    it.is_old = it.is_old && is_recent;
    return {is_recent, it.is_old};
}

void note_old_endpoint(const socket_address& address) { note_of(address).is_old = true; }

// ---- Kept connections --------------------------------------------------------------------------

kept_connection* take_kept(const socket_address& address, monotonic::time_point now) {
    for (kept_connection* each : own) {
        if (each && is_due(*each, now)) drop(*each);
    }
    kept_connection** place = find_own(address);
    if (!place || (*place)->in_use) return nullptr;
    kept_connection& kept = **place;
    if (!is_still_ours(kept) || !is_same_user(kept) || !is_quiet(kept.socket)) {
        drop(kept);
        return nullptr;
    }
    kept.in_use = true;
    return &kept;
}

int socket_of(const kept_connection& kept) { return kept.socket; }

bool limit_receives(kept_connection& kept, std::chrono::seconds patience) {
    if (kept.patience == patience) return true;
    const timeval limit = {static_cast<time_t>(patience.count()), 0};
    const bool is_limited =
        setsockopt(kept.socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0 &&
        fcntl(kept.socket, F_SETFL, 0) == 0;
    kept.patience = is_limited ? patience : std::chrono::seconds{0};
    return is_limited;
}

void give_back(kept_connection& kept, monotonic::time_point now) {
    kept.used = now;
    kept.in_use = false;
}

void drop(kept_connection& kept) {
    auto* place = std::find(own.begin(), own.end(), &kept);
    if (place == own.end()) return;  // a child of a fork has forgotten it
    *place = nullptr;
    close_socket(kept);
    kept.owner = nullptr;
}

void keep(descriptor&& socket, const socket_address& address, monotonic::time_point now) {
    descriptor taken = std::move(socket);
    const std::uint64_t cookie = cookie_of(taken.get());
    if (cookie == 0 || find_own(address) || !has_descriptors_to_spare(taken.get()) || !is_watched())
        return;
    kept_connection** place = place_for_another();
    kept_connection* claimed = place ? claim_place() : nullptr;
    if (!claimed) return;
    claimed->cookie = cookie;
    claimed->in_use = false;
    claimed->user = geteuid();
    claimed->group = getegid();
    claimed->patience = std::chrono::seconds{0};
    claimed->used = now;
    claimed->address = address;
    claimed->socket = taken.release();
    *place = claimed;
}

}  // namespace zb
