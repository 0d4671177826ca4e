// What each user holds of an endpoint: every connection charges what it costs to its peer's user
// and gives it back when it ends. Whoever holds most of what has run out makes room for others.
#ifndef ZBSERVICE_ACCOUNT_H
#define ZBSERVICE_ACCOUNT_H

#include <sys/types.h>

#include <array>
#include <cstddef>

#include "bounds.h"

namespace zb {

enum class resource : std::size_t {
    connections,
    descriptors,       // the connections' own, and those that came with requests
    unfinished_bytes,  // memory of requests that have not started
    unsent_bytes,      // memory of large replies that are not sent
};

class amounts {
  public:
    std::size_t& operator[](resource r) { return each_[static_cast<std::size_t>(r)]; }
    std::size_t operator[](resource r) const { return each_[static_cast<std::size_t>(r)]; }
    bool operator==(const amounts&) const = default;

  private:
    std::array<std::size_t, 4> each_{};
};

struct account {
    uid_t user = 0;
    bool is_own = false;  // root's or the endpoint's own user's
    amounts held;

    // Whether the user may hold so much of a resource.
    bool may_hold(resource r, std::size_t amount) const;
};

// The accounts of an endpoint. A user without a connection holds nothing: builds with assertions
// check that when the last one ends, and of all users when the endpoint goes.
class ledger {
  public:
    ledger() = default;
    ~ledger();
    ledger(const ledger&) = delete;
    ledger& operator=(const ledger&) = delete;

    // The user's account. There is room for one user more than there can be connections.
    account& of(uid_t user);

    const account& heaviest(resource r) const;
    std::size_t total(resource r) const;

  private:
    std::array<account, max_connections + 1> accounts_;
    std::size_t used_ = 0;  // those behind have never had a user
};

// One connection's part of an account.
class holding {
  public:
    holding() = default;
    ~holding() { give_back(); }
    holding(const holding&) = delete;
    holding& operator=(const holding&) = delete;

    // Charges a connection and its descriptor.
    void open(account& owner);
    const account& owner() const { return *owner_; }

    // Changes what is charged for a resource.
    void set(resource r, std::size_t amount);

    // Ends it; nothing is charged any more.
    void give_back();

  private:
    account* owner_ = nullptr;
    amounts held_;
};

}  // namespace zb

#endif  // ZBSERVICE_ACCOUNT_H
