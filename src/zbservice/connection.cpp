// The table of all connections.
#include "connection.h"

#include <utility>

#include "let_go.h"

namespace zb {
namespace {
bool is_older(const connection& a, const connection& b) { return a.since < b.since; }

bool has_longer_stalled(const connection& a, const connection& b) {
    return a.progressed < b.progressed;
}
}  // namespace

connection_table::connection_table() {
    for (std::size_t i = 0; i < free_.size(); ++i)
        free_[i] = static_cast<std::uint16_t>(free_.size() - 1 - i);
}

connection& connection_table::open(zb_service* service, descriptor&& socket, account& user,
                                   monotonic::time_point now) {
    connection& c = slots_[free_[max_connections - ++open_count_]];
    c.service = service;
    c.held.open(user);
    c.socket = std::move(socket);
    c.at = stage::reading;
    c.since = now;
    c.progressed = now;
    return c;
}

void connection_table::close(connection& c) {
    hang_up(c.socket, std::move(c.passed));
    c.request.reset();
    c.reply.reset();
    c.held.give_back();
    c.at = stage::closed;
    c.watched = 0;
    c.answered = c.kept = false;
    ++c.number;
    free_[max_connections - open_count_--] = static_cast<std::uint16_t>(&c - slots_.data());
}

std::uint64_t connection_table::key(const connection& c) const {
    return std::uint64_t{c.number} << 32 | static_cast<std::uint64_t>(&c - slots_.data());
}

connection* connection_table::find(std::uint64_t key) {
    const std::uint64_t index = key & 0xffffffff;
    if (index >= slots_.size()) return nullptr;
    connection& c = slots_[index];
    return c.at != stage::closed && c.number == key >> 32 ? &c : nullptr;
}

// Of the user's connections that pass the test, the one that goes before all others.
template <class Test, class Before>
connection* connection_table::first(const account& user, Test may_be, Before goes_before) {
    connection* found = nullptr;
    for (connection& c : slots_) {
        if (c.at == stage::closed || &c.held.owner() != &user || !may_be(c)) continue;
        if (!found || goes_before(c, *found)) found = &c;
    }
    return found;
}

connection* connection_table::longest_idle() {
    connection* found = nullptr;
    for (connection& c : slots_) {
        if (c.at == stage::idle && (!found || is_older(c, *found))) found = &c;
    }
    return found;
}

connection* connection_table::most_expendable(const account& user, monotonic::time_point now) {
    const auto is_idle = [](const connection& c) { return c.at == stage::idle; };
    const auto is_unfinished = [](const connection& c) { return c.at == stage::reading; };
    if (connection* c = first(user, is_idle, is_older)) return c;
    if (connection* c = first(user, is_unfinished, is_older)) return c;
    const bool is_full =
        !user.may_hold(resource::connections, user.held[resource::connections] + 1);
    const auto grace = is_full ? monotonic::duration{0} : monotonic::duration{reply_grace};
    const auto has_stalled = [=](const connection& c) {
        return c.at == stage::sending && now - c.progressed >= grace;
    };
    return first(user, has_stalled, has_longer_stalled);
}

connection* connection_table::largest_unfinished(const account& user) {
    const auto is_large = [](const connection& c) {
        return c.at == stage::reading && c.request.memory() > receive_bytes;
    };
    const auto goes_before = [](const connection& a, const connection& b) {
        if (a.request.memory() != b.request.memory())
            return a.request.memory() > b.request.memory();
        return a.since < b.since;
    };
    return first(user, is_large, goes_before);
}

connection* connection_table::most_stalled_reader(const account& user, monotonic::time_point now) {
    const auto has_stalled = [now](const connection& c) {
        return c.at == stage::sending && c.reply.is_large() && now - c.progressed >= reply_grace;
    };
    return first(user, has_stalled, has_longer_stalled);
}

}  // namespace zb
