// An endpoint: its listening socket and the loop that serves it.
#include "service.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "address.h"
#include "bounds.h"
#include "kept.h"
#include "let_go.h"
#include "notify.h"
#include "payload.h"
#include "peer.h"
#include "receive.h"
#include "report.h"
#include "signals.h"

namespace {
using zb::connection;
using zb::monotonic;
using zb::reply_status;
using zb::resource;
using zb::stage;

// Keys of what is not a connection: no slot has so high a number.
constexpr std::uint64_t listener_key = 0xffffffff;
constexpr std::uint64_t stop_key = 0xfffffffe;
constexpr std::uint64_t signal_key = 0xfffffffd;

// A kept connection is told of once for each request, in the order in which they come: reported
// level-triggered it would keep its old place in epoll's queue.
constexpr std::uint32_t kept_events = EPOLLIN | EPOLLET;

int milliseconds_until(monotonic::time_point then, monotonic::time_point now) {
    using std::chrono::ceil;
    using std::chrono::milliseconds;
    return static_cast<int>(std::max(ceil<milliseconds>(then - now), milliseconds{0}).count());
}

// Looks at the caller without taking anything.
enum class caller_state { waits, gone, sends_more };

caller_state look_at_caller(int socket) {
    char byte = 0;
    ssize_t received = -1;
    do {
        received = recv(socket, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT);
    } while (received < 0 && errno == EINTR);
    if (received > 0) return caller_state::sends_more;
    return received < 0 && errno == EAGAIN ? caller_state::waits : caller_state::gone;
}
}  // namespace

// ---- The endpoint ------------------------------------------------------------------------------

zb_service::~zb_service() {
    if (!listener_.is_open()) return;
    (void)shutdown(listener_.get(), SHUT_RDWR);
    while (true) {
        zb::descriptor unserved(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!unserved.is_open()) return;
        zb::hang_up(unserved);
    }
}

bool zb_service::listen(const char* path) {
    zb::socket_address address;
    if (!zb::resolve_address(path, address)) {
        zb::report("cannot create endpoint \"%s\": malformed address", path ? path : "(null)");
        return false;
    }
    listener_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    stop_wake_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!listener_.is_open() || !stop_wake_.is_open() || zb::signal_wake_fd() < 0 ||
        bind(listener_.get(), address.get(), address.length) != 0 ||
        ::listen(listener_.get(), zb::max_backlog) != 0) {
        zb::report("cannot create endpoint \"%s\": %s", path, std::strerror(errno));
        return false;
    }
    return true;
}

int zb_service::serve() noexcept {
    zb::deliver_signals();
    if (serving_.exchange(true)) return -1;
    const zb::serving_scope scope;
    int result = -1;
    if (open_loop()) {
        if (!stop_requested_) zb::notify_ready();
        result = loop();
    }
    if (result != 0) zb::report("cannot serve: %s", std::strerror(errno));
    flush();
    epoll_.reset();
    stop_requested_ = false;
    serving_ = false;
    return result;
}

// Only what a raw signal handler may do.
void zb_service::stop() {
    const int saved_errno = errno;
    const std::uint64_t one = 1;
    stop_requested_ = true;
    (void)!::write(stop_wake_.get(), &one, sizeof one);
    errno = saved_errno;
}

// ---- The loop ----------------------------------------------------------------------------------

bool zb_service::open_loop() {
    epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
    return epoll_.is_open() && watch(listener_.get(), listener_key, EPOLLIN) &&
           watch(stop_wake_.get(), stop_key, EPOLLIN) &&
           watch(zb::signal_wake_fd(), signal_key, EPOLLIN);
}

bool zb_service::watch(int fd, std::uint64_t key, std::uint32_t events, int operation) {
    epoll_event event = {};
    event.events = events;
    event.data.u64 = key;
    return epoll_ctl(epoll_.get(), operation, fd, &event) == 0;
}

// Signals come first in every turn, so their effect is there before the next request runs.
int zb_service::loop() {
    while (true) {
        zb::deliver_signals();
        if (stop_requested_) return 0;
        if (connection* c = take_waiting()) run(*c);
        if (stop_requested_) return 0;
        if (!wait(first_waiting_ ? 0 : next_timeout_ms())) return -1;
        expire();
    }
}

bool zb_service::wait(int timeout_ms) {
    // Room for all there can be: a connection whose event did not fit would seem to have stalled.
    epoll_event events[zb::max_connections + 3];
    const int count = epoll_wait(epoll_.get(), events, std::size(events), timeout_ms);
    if (count < 0 && errno != EINTR) return false;
    now_ = monotonic::now();
    // New callers come last: who makes room for them is judged by what all others have done.
    const epoll_event* listening = nullptr;
    for (int i = 0; i < count; ++i) {
        if (events[i].data.u64 == listener_key) {
            listening = &events[i];
        } else {
            handle(events[i]);
        }
    }
    if (listening) handle(*listening);
    return true;
}

// When a connection is given up, unless it makes progress.
monotonic::time_point zb_service::deadline(const connection& c) const {
    switch (c.at) {
        case stage::reading:
            return std::min(c.progressed + zb::request_stall, c.since + zb::request_total);
        case stage::sending:
            return c.progressed + reply_patience_;
        case stage::idle:
            return c.since + zb::kept_by_endpoint;
        case stage::closed:
        case stage::waiting:
        case stage::running:
            break;
    }
    return monotonic::time_point::max();
}

// -1, no limit, unless a connection or the listener waits for a moment.
int zb_service::next_timeout_ms() const {
    auto next = watched_count_ > 0 ? next_deadline_ : monotonic::time_point::max();
    if (paused_) next = std::min(next, resume_at_);
    return next == monotonic::time_point::max() ? -1 : milliseconds_until(next, now_);
}

void zb_service::handle(const epoll_event& event) {
    std::uint64_t count = 0;
    switch (event.data.u64) {
        case listener_key:
            accept_callers();
            return;
        case stop_key:
            (void)!::read(stop_wake_.get(), &count, sizeof count);
            return;
        case signal_key:
            zb::drain_signal_wake();
            return;
        default:
            break;
    }
    connection* c = connections_.find(event.data.u64);
    if (!c) return;  // closed by an earlier event of the same wait
    if (c->at == stage::sending) {
        write(*c);
    } else if (c->at != stage::waiting) {  // run() sees what has become of one who waits
        read(*c);
    }
}

// ---- New connections ---------------------------------------------------------------------------

// A crowd that sends no requests costs each of those behind it as little time as it can. Of those
// who do, the first is enough: nobody behind him was earlier.
void zb_service::accept_callers() {
    const std::size_t before = waiting_count_;
    int taken = 0;
    while (accept_one(taken == 0) && waiting_count_ == before && ++taken < zb::accepted_together) {
    }
}

// Whether there may be another one. Only somebody who is known to wait is made room for: without a
// descriptor the kernel says so before it looks whether there is anybody.
bool zb_service::accept_one(bool is_known_to_wait) {
    if (connections_.is_full() && !most_expendable()) {
        pause_listening();
        return false;
    }
    zb::descriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket.is_open()) {
        if (is_known_to_wait) accept_failed(errno);
        return false;
    }
    const uid_t user = zb::user_of(socket.get());
    if (!is_permitted(user, socket.get())) {
        zb::send_status(socket.get(), reply_status::refused);
        zb::hang_up(socket);
        return true;
    }
    zb::account& account = ledger_.of(user);
    make_room_for(account);
    zb::take_urgent_bytes_in_turn(socket.get());
    connection& c = connections_.open(this, std::move(socket), account, now_);
    c.sent = last_taken_;  // he came after those before him
    read(c);
    if (c.at == stage::waiting) last_taken_ = c.sent;
    return true;
}

// When the endpoint is full, an idle connection makes room, or else the user who holds most.
connection* zb_service::most_expendable() {
    if (connection* idle = connections_.longest_idle()) return idle;
    return connections_.most_expendable(ledger_.heaviest(resource::connections), now_);
}

// A user with a full share makes room for himself, and nobody else does. Requests that are complete
// stay: they are run in the order of their arrival.
void zb_service::make_room_for(const zb::account& user) {
    connection* own = nullptr;
    if (!user.may_hold(resource::connections, user.held[resource::connections] + 1))
        own = connections_.most_expendable(user, now_);
    if (own) {
        give_up(*own);
    } else if (connections_.is_full()) {
        give_up(*most_expendable());
    }
}

// The caller stays in the kernel's queue when there is nothing to take it with, and the listener
// stays readable: asking again at once would only spin.
void zb_service::accept_failed(int error) {
    if (error == EAGAIN || error == EINTR || error == ECONNABORTED) return;
    const bool shortage = error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
    connection* expendable = shortage ? connections_.longest_idle() : nullptr;
    if (shortage && !expendable)
        expendable = connections_.most_expendable(ledger_.heaviest(resource::descriptors), now_);
    if (expendable) {
        give_up(*expendable);
    } else {
        pause_listening();
    }
}

bool zb_service::is_permitted(uid_t user, int socket) const {
    return zb::is_root_or_self(user) || zb::is_member(socket, group_);
}

void zb_service::pause_listening() {
    (void)epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, listener_.get(), nullptr);
    paused_ = true;
    resume_at_ = now_ + zb::accept_pause;
}

void zb_service::resume_listening() {
    paused_ = !watch(listener_.get(), listener_key, EPOLLIN);
    if (paused_) resume_at_ = now_ + zb::accept_pause;
}

// ---- Requests ----------------------------------------------------------------------------------

void zb_service::read(connection& c) {
    const ssize_t received =
        zb::receive_with_descriptor(c.socket.get(), received_.data(), received_.size(), c.passed);
    if (received < 0 && errno == EAGAIN) {
        poll(c, c.at == stage::idle ? kept_events : EPOLLIN);
        return;
    }
    if (received <= 0) {
        close(c);
        return;
    }
    if (c.at == stage::idle) {
        c.at = stage::reading;
        c.since = now_;
    }
    c.progressed = now_;
    const zb::read_state state =
        c.request.feed(received_.data(), static_cast<std::size_t>(received));
    c.held.set(resource::descriptors, c.passed.is_open() ? 2 : 1);
    c.held.set(resource::unfinished_bytes, c.request.memory());
    const zb::account& user = c.held.owner();  // outlives the connection, which poll() may end
    switch (state) {
        case zb::read_state::incomplete:
            poll(c, EPOLLIN);
            bound_unfinished(user);
            return;
        case zb::read_state::complete:
            enqueue(c);
            return;
        case zb::read_state::malformed:
            refuse(c, reply_status::malformed);
            return;
        case zb::read_state::too_large:
            refuse(c, reply_status::too_large);
            return;
        case zb::read_state::out_of_memory:
            refuse(c, reply_status::busy);
            return;
    }
}

// Unfinished requests that hold too much memory together: the largest of them go until the rest has
// room. So it meets those who fill the memory, never a slow caller with little to say.
void zb_service::bound_unfinished(const zb::account& user) {
    while (connection* c = unfinished_to_drop(user)) give_up(*c);
}

// After more of this user's bytes have come. Null: none is to be dropped, or none can be.
connection* zb_service::unfinished_to_drop(const zb::account& user) {
    constexpr auto bytes = resource::unfinished_bytes;
    if (user.may_hold(bytes, user.held[bytes])) {
        if (ledger_.total(bytes) <= zb::max_unfinished_bytes) return nullptr;
        if (connection* c = connections_.largest_unfinished(ledger_.heaviest(bytes))) return c;
    }
    return connections_.largest_unfinished(user);
}

void zb_service::enqueue(connection& c) {
    if (c.watched != kept_events) unpoll(c);
    c.at = stage::waiting;
    const zb::frame_header& header = c.request.header();
    const auto now = monotonic::now();
    c.sent = std::max(c.sent, header.dated ? zb::time_of(header.date, now) : now);
    c.overtaken = 0;
    put_in_order(c);
    ++waiting_count_;
}

// Requests run in the order in which they were sent. Only their dates tell that of one that came on
// a kept connection and one whose caller was in the kernel's queue meanwhile. Dates may lie, so
// nobody is overtaken more often than that queue is long.
void zb_service::put_in_order(connection& c) {
    connection* before = nullptr;  // the last one that stays in front
    if (last_waiting_ && last_waiting_->sent <= c.sent) {
        before = last_waiting_;
    } else {
        for (connection* each = first_waiting_; each; each = each->next_waiting) {
            if (each->sent <= c.sent || each->overtaken >= zb::overtaken_at_most) before = each;
        }
    }
    connection*& place = before ? before->next_waiting : first_waiting_;
    for (connection* each = place; each; each = each->next_waiting) ++each->overtaken;
    c.next_waiting = place;
    place = &c;
    if (!c.next_waiting) last_waiting_ = &c;
}

connection* zb_service::take_waiting() {
    connection* c = first_waiting_;
    if (!c) return nullptr;
    first_waiting_ = std::exchange(c->next_waiting, nullptr);
    if (!first_waiting_) last_waiting_ = nullptr;
    --waiting_count_;
    return c;
}

// ---- Running and answering ---------------------------------------------------------------------

void zb_service::run(connection& c) {
    switch (look_at_caller(c.socket.get())) {
        case caller_state::waits:
            break;
        case caller_state::gone:
            close(c);
            return;
        case caller_state::sends_more:
            refuse(c, reply_status::malformed);
            return;
    }
    zb::descriptor copy = copy_for_entry(c.passed);
    if (copy.is_open() == c.passed.is_open()) c.io = new (std::nothrow) zb_io;
    if (!c.io) {
        refuse(c, reply_status::busy);
        return;
    }
    c.io->content = std::move(c.request.body());
    c.io->request = &c;
    c.at = stage::running;
    c.held.set(resource::unfinished_bytes, 0);
    entry_(c.request.method(), c.io, copy.release());
    zb::let_go({&c.passed, 1});
    c.held.set(resource::descriptors, 1);
    settle(c);
}

// The entry closes a copy, which waits for nobody as long as the other one is here.
zb::descriptor zb_service::copy_for_entry(const zb::descriptor& passed) {
    zb::descriptor copy;
    if (!passed.is_open()) return copy;
    copy.reset(fcntl(passed.get(), F_DUPFD_CLOEXEC, 0));
    while (!copy.is_open() && errno == EMFILE) {
        connection* idle = connections_.longest_idle();
        if (!idle) break;
        retire(*idle);
        copy.reset(fcntl(passed.get(), F_DUPFD_CLOEXEC, 0));
    }
    return copy;
}

// The entry has returned: what it left is cleared up, and the caller learns what became of it.
void zb_service::settle(connection& c) {
    delete std::exchange(c.io, nullptr);
    if (!c.answered) {
        refuse(c, reply_status::no_reply);
    } else if (c.reply.state() != zb::write_state::unsent) {
        finish(c);
    } else {
        now_ = monotonic::now();
        c.at = stage::sending;
        c.since = c.progressed = now_;
        poll(c, EPOLLOUT);
    }
}

// The reply is sent, or nobody can be sent it.
void zb_service::finish(connection& c) {
    if (!c.kept || c.reply.state() != zb::write_state::sent) {
        close(c);
        return;
    }
    rest(c);
    if (flushing_ && c.at == stage::idle) retire(c);
}

int zb_service::reply(connection& c) {
    if (c.answered) return -1;
    c.answered = true;
    c.kept = c.request.header().keep && !stop_requested_ &&
             (c.kept || zb::has_descriptors_to_spare(c.socket.get()));
    c.reply.start(std::move(c.io->content), c.kept);
    if (!admit_reply(c)) {
        zb::send_status(c.socket.get(), reply_status::busy);
        c.reply.abandon();
        return -1;
    }
    c.held.set(resource::unsent_bytes, c.reply.charge());
    return c.reply.send(c.socket.get()) == zb::write_state::broken ? -1 : 0;
}

// Large replies wait in memory for their readers. When they become too many, readers that have had
// their time make room; the new reply is given up only when there are none. The time may have
// passed in the entry, so each has another try first.
bool zb_service::admit_reply(connection& c) {
    if (!c.reply.is_large()) return true;
    now_ = monotonic::now();
    while (const zb::account* user = in_the_way_of(c)) {
        connection* slow = connections_.most_stalled_reader(*user, now_);
        if (!slow) return false;
        write(*slow);
        if (slow->at == stage::sending && slow->progressed != now_) close(*slow);
    }
    return true;
}

// Whose unsent replies leave no room for this one: its own user's over his share, else those of the
// user who holds most. Null: there is room.
const zb::account* zb_service::in_the_way_of(const connection& c) const {
    constexpr auto bytes = resource::unsent_bytes;
    const zb::account& own = c.held.owner();
    if (!own.may_hold(bytes, own.held[bytes] + c.reply.charge())) return &own;
    const bool has_room = ledger_.total(bytes) + c.reply.charge() <= zb::max_unsent_bytes;
    return has_room ? nullptr : &ledger_.heaviest(bytes);
}

void zb_service::write(connection& c) {
    const std::size_t before = c.reply.sent();
    const zb::write_state state = c.reply.send(c.socket.get());
    if (c.reply.sent() != before) c.progressed = now_;
    c.held.set(resource::unsent_bytes, c.reply.charge());
    if (state != zb::write_state::unsent) finish(c);
}

// ---- Connections in the loop -------------------------------------------------------------------

void zb_service::poll(connection& c, std::uint32_t events) {
    note_deadline(c);
    if (c.watched == events) return;
    const int operation = c.watched != 0 ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    if (!watch(c.socket.get(), connections_.key(c), events, operation)) {
        c.at == stage::idle ? retire(c) : close(c);
        return;
    }
    if (c.watched == 0) ++watched_count_;
    c.watched = events;
}

void zb_service::note_deadline(const connection& c) {
    if (watched_count_ == 0) next_deadline_ = monotonic::time_point::max();
    next_deadline_ = std::min(next_deadline_, deadline(c));
}

// Never left to close(): a child of a fork may still hold the socket, and epoll would go on telling
// of it.
void zb_service::unpoll(connection& c) {
    if (std::exchange(c.watched, 0) == 0) return;
    (void)epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, c.socket.get(), nullptr);
    --watched_count_;
}

void zb_service::close(connection& c) {
    unpoll(c);
    connections_.close(c);
    if (paused_) resume_listening();
}

// Waits for the caller's next request.
void zb_service::rest(connection& c) {
    c.request.reset();
    c.reply.reset();
    c.held.set(resource::unsent_bytes, 0);
    c.answered = false;
    c.at = stage::idle;
    c.since = c.sent = monotonic::now();
    poll(c, kept_events);
}

// Ends a connection that is idle. Nothing can be sent to it after the shutdown; a caller who was
// sooner is told that his request is not run, so he may send it again.
void zb_service::retire(connection& c) {
    (void)shutdown(c.socket.get(), SHUT_RD);
    if (look_at_caller(c.socket.get()) == caller_state::sends_more)
        zb::send_status(c.socket.get(), reply_status::not_run);
    close(c);
}

void zb_service::refuse(connection& c, reply_status status) {
    zb::send_status(c.socket.get(), status);
    close(c);
}

// A status is for a caller who still waits for the first byte: in the middle of a reply it would be
// taken for a part of it.
void zb_service::give_up(connection& c) {
    if (c.at == stage::reading) {
        refuse(c, reply_status::busy);
    } else if (c.at == stage::idle) {
        retire(c);
    } else {
        close(c);
    }
}

void zb_service::expire() {
    if (paused_ && now_ >= resume_at_) resume_listening();
    if (watched_count_ == 0 || now_ < next_deadline_) return;
    next_deadline_ = monotonic::time_point::max();
    for (connection& c : connections_) {
        if (c.watched == 0) continue;
        if (now_ >= deadline(c)) {
            give_up(c);
        } else {
            note_deadline(c);
        }
    }
}

// ---- The end -----------------------------------------------------------------------------------

// Sends the replies that are made. Requests that have not started are answered that they will not.
void zb_service::flush() {
    (void)epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, listener_.get(), nullptr);
    paused_ = false;
    flushing_ = true;
    reply_patience_ = zb::flush_stall;
    next_deadline_ = now_ = monotonic::now();
    for (connection& c : connections_) {
        if (c.at == stage::reading || c.at == stage::waiting) refuse(c, reply_status::no_reply);
        if (c.at == stage::idle) retire(c);
        c.progressed = now_;
    }
    first_waiting_ = last_waiting_ = nullptr;
    waiting_count_ = 0;

    const auto end = now_ + zb::flush_total;
    while (watched_count_ > 0 && now_ < end) {
        zb::deliver_signals();
        if (!wait(std::min(next_timeout_ms(), milliseconds_until(end, now_)))) break;
        expire();
    }
    for (connection& c : connections_) {
        if (c.at != stage::closed) close(c);
    }
    reply_patience_ = zb::reply_stall;
    flushing_ = false;
}
