// The table of all connections.
#include "connection.h"

#include <utility>

namespace zb {
namespace {
bool holds_large_reply(const connection& c) {
    return c.at == stage::sending && c.reply.size() > small_reply_bytes;
}
}  // namespace

connection_table::connection_table() {
    for (std::size_t i = 0; i < free_.size(); ++i)
        free_[i] = static_cast<std::uint16_t>(free_.size() - 1 - i);
}

connection& connection_table::open(zb_service* service, descriptor&& socket,
                                   monotonic::time_point now) {
    connection& c = slots_[free_[max_connections - ++open_count_]];
    c.service = service;
    c.socket = std::move(socket);
    c.at = stage::reading;
    c.answered = false;
    c.since = now;
    c.progressed = now;
    return c;
}

void connection_table::close(connection& c) {
    c.socket.reset();
    c.passed.reset();
    c.request.reset();
    c.reply.reset();
    c.at = stage::closed;
    c.polled = false;
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

connection* connection_table::most_expendable(monotonic::time_point now) {
    if (connection* c = oldest_at(stage::reading)) return c;
    connection* c = oldest_at(stage::sending);
    return c && now - c->since >= reply_grace ? c : nullptr;
}

connection* connection_table::oldest_at(stage at) {
    connection* oldest = nullptr;
    for (connection& c : slots_) {
        if (c.at == at && (!oldest || c.since < oldest->since)) oldest = &c;
    }
    return oldest;
}

connection* connection_table::largest_unfinished() {
    connection* largest = nullptr;
    const auto goes_before = [](const connection& a, const connection& b) {
        if (a.request.memory() != b.request.memory())
            return a.request.memory() > b.request.memory();
        return a.since < b.since;
    };
    for (connection& c : slots_) {
        if (c.at == stage::reading && (!largest || goes_before(c, *largest))) largest = &c;
    }
    return largest;
}

connection* connection_table::most_stalled_reader(monotonic::time_point now) {
    connection* stalled = nullptr;
    for (connection& c : slots_) {
        if (holds_large_reply(c) && (!stalled || c.progressed < stalled->progressed)) stalled = &c;
    }
    return stalled && now - stalled->progressed >= reply_grace ? stalled : nullptr;
}

std::size_t connection_table::unfinished_bytes() const {
    std::size_t sum = 0;
    for (const connection& c : slots_) {
        if (c.at == stage::reading || c.at == stage::waiting) sum += c.request.memory();
    }
    return sum;
}

std::size_t connection_table::unsent_bytes() const {
    std::size_t sum = 0;
    for (const connection& c : slots_) {
        if (holds_large_reply(c)) sum += c.reply.size();
    }
    return sum;
}

}  // namespace zb
