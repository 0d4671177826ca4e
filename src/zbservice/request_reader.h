// Takes a request frame apart as its bytes arrive.
#ifndef ZBSERVICE_REQUEST_READER_H
#define ZBSERVICE_REQUEST_READER_H

#include <array>
#include <cstddef>

#include "bounds.h"
#include "frame.h"
#include "payload.h"

namespace zb {

enum class read_state { incomplete, complete, malformed, too_large, out_of_memory };

class request_reader {
  public:
    // Takes the next bytes of the frame. Anything but incomplete is final.
    read_state feed(const char* data, std::size_t length);
    void reset();

    const char* method() const { return method_.data(); }
    payload& body() { return body_; }
    const frame_header& header() const { return header_; }
    std::size_t memory() const { return body_.capacity(); }

  private:
    bool take(char* target, std::size_t whole, std::size_t& taken, const char*& data,
              std::size_t& length);
    read_state check_header();
    read_state check_method();

    header_block block_{};
    std::size_t block_taken_ = 0;
    frame_header header_{};
    std::array<char, max_method_bytes + 1> method_{};
    std::size_t method_taken_ = 0;
    payload body_;
};

}  // namespace zb

#endif  // ZBSERVICE_REQUEST_READER_H
