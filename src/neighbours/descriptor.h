// Owns a descriptor.
#ifndef NEIGHBOURS_DESCRIPTOR_H
#define NEIGHBOURS_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

// Owns a descriptor, or none (-1).
class descriptor {
  public:
    explicit descriptor(int fd = -1) : fd_(fd) {}
    descriptor(descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    descriptor& operator=(descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    int get() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }

  private:
    int fd_;
};

#endif  // NEIGHBOURS_DESCRIPTOR_H
