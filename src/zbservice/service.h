// An endpoint: its listening socket and the loop that serves it.
//
// One thread, one loop. Each turn runs at most one request, then looks at what the sockets offer,
// so a queue of requests never keeps a reader of a long reply waiting. The listener is asked for
// callers until one has a complete request: the rest keep their place in the kernel's queue, which
// is the order of arrival. A request is mostly there when its connection is accepted and is read at
// once; epoll only ever learns of connections that have to be waited for, and of those that are
// kept for their callers' next requests.
#ifndef ZBSERVICE_SERVICE_H
#define ZBSERVICE_SERVICE_H

#include <sys/epoll.h>
#include <sys/types.h>

#include <array>
#include <atomic>

#include "connection.h"
#include "descriptor.h"
#include "zbservice.h"

struct zb_service {
  public:
    zb_service(zb_entry entry, gid_t group) : entry_(entry), group_(group) {}
    ~zb_service();  // callers who still queue are cut off
    zb_service(const zb_service&) = delete;
    zb_service& operator=(const zb_service&) = delete;

    // Takes the address. Tells why in the log when it cannot.
    bool listen(const char* path);

    int serve() noexcept;
    void stop();
    bool is_serving() const { return serving_; }

    // Sends the current request's answer; the io is known to be that request's.
    int reply(zb::connection& c);

  private:
    bool open_loop();
    bool watch(int fd, std::uint64_t key, std::uint32_t events, int operation = EPOLL_CTL_ADD);
    int loop();
    bool wait(int timeout_ms);
    int next_timeout_ms() const;
    zb::monotonic::time_point deadline(const zb::connection& c) const;

    void handle(const epoll_event& event);
    void accept_callers();
    bool accept_one(bool is_known_to_wait);
    void accept_failed(int error);
    bool is_permitted(uid_t user, int socket) const;
    zb::connection* most_expendable();
    void make_room_for(const zb::account& user);
    void pause_listening();
    void resume_listening();

    void read(zb::connection& c);
    void bound_unfinished(const zb::account& user);
    zb::connection* unfinished_to_drop(const zb::account& user);
    void enqueue(zb::connection& c);
    void put_in_order(zb::connection& c);
    zb::connection* take_waiting();

    void run(zb::connection& c);
    zb::descriptor copy_for_entry(const zb::descriptor& passed);
    void settle(zb::connection& c);
    void finish(zb::connection& c);
    bool admit_reply(zb::connection& c);
    const zb::account* in_the_way_of(const zb::connection& c) const;
    void write(zb::connection& c);

    void poll(zb::connection& c, std::uint32_t events);
    void unpoll(zb::connection& c);
    void note_deadline(const zb::connection& c);
    void close(zb::connection& c);
    void rest(zb::connection& c);
    void retire(zb::connection& c);
    void refuse(zb::connection& c, zb::reply_status status);
    void give_up(zb::connection& c);
    void expire();

    void flush();

    const zb_entry entry_;
    const gid_t group_;
    zb::descriptor listener_;
    zb::descriptor stop_wake_;
    zb::descriptor epoll_;  // open while serving, so that a fork before it shares nothing
    std::atomic<bool> stop_requested_ = false;
    std::atomic<bool> serving_ = false;

    zb::ledger ledger_;  // before the connections, which charge to it
    zb::connection_table connections_;
    zb::connection* first_waiting_ = nullptr;
    zb::connection* last_waiting_ = nullptr;
    std::size_t waiting_count_ = 0;
    zb::monotonic::time_point last_taken_;  // when the last caller from the kernel's queue sent
    std::size_t watched_count_ = 0;
    zb::monotonic::time_point next_deadline_;  // of no connection is it sooner
    bool paused_ = false;                      // the listener is not polled until resume_at_
    zb::monotonic::time_point resume_at_;
    bool flushing_ = false;
    std::chrono::seconds reply_patience_ = zb::reply_stall;
    zb::monotonic::time_point now_;
    std::array<char, zb::receive_bytes> received_;
};

#endif  // ZBSERVICE_SERVICE_H
