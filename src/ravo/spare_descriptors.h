// Descriptors that only a request under way may use.
//
// Callers who connect may take every descriptor that the process can have. A statement that wants
// one then, for a journal or to open its connection again, fails, and its row is lost though its
// caller is answered. So the limit stands lower while the bus takes callers, and is whole while a
// request or a signal is dealt with, unless as many are free without that. For one thread.
#ifndef SPARE_DESCRIPTORS_H
#define SPARE_DESCRIPTORS_H

// Sets the spare ones aside: at most 8, and at most half of those that are free now. Where the
// system does not allow it, there are none. Too few for one caller are told on standard error.
void set_descriptors_aside();

// The spare descriptors may be used for its lifetime.
class spare_descriptors {
  public:
    spare_descriptors();
    ~spare_descriptors();
    spare_descriptors(const spare_descriptors&) = delete;
    spare_descriptors& operator=(const spare_descriptors&) = delete;
};

#endif  // SPARE_DESCRIPTORS_H
