// An owned file descriptor, closed when its owner goes.
#ifndef ZBSERVICE_DESCRIPTOR_H
#define ZBSERVICE_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace zb {

class descriptor {
  public:
    descriptor() = default;
    explicit descriptor(int fd) : fd_(fd) {}
    descriptor(descriptor&& other) noexcept : fd_(other.release()) {}
    descriptor& operator=(descriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;
    ~descriptor() { reset(); }

    int get() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        if (old >= 0) close(old);
    }

  private:
    int fd_ = -1;
};

}  // namespace zb

#endif  // ZBSERVICE_DESCRIPTOR_H
