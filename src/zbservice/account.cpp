// What each user holds of an endpoint.
#include "account.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <utility>

namespace zb {
namespace {
struct share {
    std::size_t own;  // root's and the endpoint's own user's
    std::size_t other;
};

constexpr share share_of(resource r) {
    switch (r) {
        case resource::connections:
            return {own_connections, other_connections};
        case resource::descriptors:
            return {2 * own_connections, 2 * other_connections};
        case resource::unfinished_bytes:
            return {own_unfinished_bytes, other_unfinished_bytes};
        case resource::unsent_bytes:
            return {own_unsent_bytes, other_unsent_bytes};
    }
    return {};
}
}  // namespace

bool account::may_hold(resource r, std::size_t amount) const {
    return amount <= (is_own ? share_of(r).own : share_of(r).other);
}

// ---- The accounts ------------------------------------------------------------------------------

ledger::~ledger() {
    assert(std::all_of(accounts_.begin(), accounts_.end(),
                       [](const account& each) { return each.held == amounts{}; }));
}

// An account is kept when its user holds nothing, until another user needs it.
account& ledger::of(uid_t user) {
    account* free = nullptr;
    for (account* each = accounts_.data(); each != accounts_.data() + used_; ++each) {
        if (each->user == user) return *each;
        if (each->held[resource::connections] == 0) free = each;
    }
    if (!free) free = &accounts_[used_++];
    free->user = user;
    free->is_own = user == 0 || user == geteuid();
    return *free;
}

const account& ledger::heaviest(resource r) const {
    return *std::max_element(
        accounts_.data(), accounts_.data() + std::max(used_, std::size_t{1}),
        [r](const account& a, const account& b) { return a.held[r] < b.held[r]; });
}

std::size_t ledger::total(resource r) const {
    std::size_t sum = 0;
    for (std::size_t i = 0; i < used_; ++i) sum += accounts_[i].held[r];
    return sum;
}

// ---- One connection's part ---------------------------------------------------------------------

void holding::open(account& owner) {
    assert(!owner_);
    owner_ = &owner;
    set(resource::connections, 1);
    set(resource::descriptors, 1);
}

void holding::set(resource r, std::size_t amount) {
    owner_->held[r] += amount - held_[r];
    held_[r] = amount;
}

void holding::give_back() {
    if (!owner_) return;
    for (const resource r : {resource::unsent_bytes, resource::unfinished_bytes,
                             resource::descriptors, resource::connections})
        set(r, 0);
    assert(owner_->held[resource::connections] > 0 || owner_->held == amounts{});
    owner_ = nullptr;
}

}  // namespace zb
