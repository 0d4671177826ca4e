/* The service bus: named methods on local endpoints, one request and one reply per call.
 *
 * What holds for every function here:
 *  1. Addresses. "@/x/y" is the abstract Unix socket of exactly these bytes after the '@'; a plain
 *     name such as "vpncaas" (no '/') is a registered service and stands for
 *     "@/var/run/zbservice/vpncaas". At most 107 bytes after the '@', names included.
 *  2. Functions of int return 0 on success and a negative value on failure. A null handle or buffer
 *     is a failure (or does nothing where nothing is returned), never a crash. No C++ exception
 *     leaves the library.
 *  3. Buffers and endpoints are not locked: one thread at a time uses one of them. zb_stop is the
 *     exception, and any number of threads may be in zb_call at once with a buffer each.
 *  4. The library starts no threads, blocks no signals, raises no SIGPIPE, retries what a signal
 *     interrupts, and opens every descriptor close-on-exec. An endpoint to which descriptors were
 *     sent closes them in a child process, which ends at once and is waited for.
 *     A thread that calls an address again keeps the connection for its next calls (see
 *     docs/zbservice.md): at most 4 for each thread, closed when it ends, when they have not been
 *     used for 5 seconds, and in a forked child.
 *  5. Who may talk to whom: root, the own (effective) user, and the members of the group that the
 *     line "group NAME_OR_NUMBER" in /etc/zbservice.conf names, if there is one. An endpoint
 *     refuses all other callers before it reads a byte of theirs; a call refuses an endpoint that
 *     anybody else holds before it sends a byte.
 *  6. What an endpoint cannot do (create itself, go on serving) is told to the system log (facility
 *     daemon) and, in one line, to standard error. So is, once a minute for each address, that a
 *     call refused an endpoint because of who holds it. */
#ifndef ZBSERVICE_H
#define ZBSERVICE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct zb_io zb_io;           /* a growable byte buffer: one payload */
typedef struct zb_service zb_service; /* an endpoint */

/* ---- Errors ---- */

/* The results of zb_call. All failures are negative, so that they cannot be taken for an answer. */
enum zb_error {
    ZB_OK = 0,
    /* A null or empty argument, a malformed address, a method that is too long, or a descriptor
     * that is not open. */
    ZB_ERROR_ARGUMENT = -1,
    /* Out of memory here. */
    ZB_ERROR_MEMORY = -2,
    /* Nobody holds the address. */
    ZB_ERROR_UNREACHABLE = -3,
    /* The endpoint does not accept this process's user. */
    ZB_ERROR_DENIED = -4,
    /* The address is held by a user whom this process does not trust. */
    ZB_ERROR_UNTRUSTED = -5,
    /* The request or the reply is over a bound. */
    ZB_ERROR_TOO_LARGE = -6,
    /* No progress for the time allowed. */
    ZB_ERROR_TIMEOUT = -7,
    /* The request was not answered: unknown method, failed handler, or the endpoint stopped before
     * it came to it. */
    ZB_ERROR_NO_REPLY = -8,
    /* One side does not understand the other's frames. */
    ZB_ERROR_PROTOCOL = -9,
    /* The endpoint closed the connection without an answer. */
    ZB_ERROR_BROKEN = -10,
    /* The endpoint gave the call up: too much at once, or sent too slowly. */
    ZB_ERROR_BUSY = -11,
    /* A system call failed (no descriptors left, ...): errno tells. */
    ZB_ERROR_SYSTEM = -12
};

/* The name of a zb_call result in words: static text, never null, also for unknown values. */
const char* zb_strerror(int error);

/* ---- Payload buffers ---- */

/* Returns a new, empty buffer, or NULL when out of memory. The caller releases it with
 * zb_io_free(). */
zb_io* zb_io_create(void);

/* Appends length bytes. Returns 0; -1, with the payload as it was, when out of memory or when the
 * payload would pass 1 GiB. data may be NULL when length is 0, and may not lie in io itself. */
int zb_io_write(zb_io* io, const void* data, size_t length);

/* Returns the start of the whole payload, never NULL for a buffer (NULL for a null one), and its
 * length through length, which may be NULL. A zero byte follows the payload, also the empty one.
 * The memory belongs to the buffer and holds until the next call with that buffer. */
void* zb_io_read(zb_io* io, size_t* length);

/* Cuts the payload to length bytes or extends it with zero bytes; 0 empties it and gives a large
 * block of memory back. Returns 0; -1, with the payload as it was, like zb_io_write(). */
int zb_io_realloc(zb_io* io, size_t length);

/* Releases a buffer. NULL is allowed. */
void zb_io_free(zb_io* io);

/* Hands over a block instead of a copy: its length bytes follow the payload in the reply.
 *
 * io      the buffer of the request being handled. From then on it can only be replied with,
 *         emptied or released: it takes no more bytes, zb_io_read() gives those before the block,
 *         and zb_call() refuses it.
 * block   On success it is the buffer's until it is sent, emptied or released; may be NULL when
 *         length is 0.
 * release is then called with the block, once, unless that is NULL: on the thread that serves the
 *         endpoint or that empties or releases the buffer. It must not call the bus. NULL: free(),
 *         for a block from malloc(), calloc() or realloc().
 *
 * Returns 0. -1, with everything as it was and the block still the caller's: io is another buffer
 * or has a block already, or the payload would pass 1 GiB.
 *
 * Not every library with this interface has the function: a program that is to run on others, too,
 * declares it weak, and writes the bytes where it is missing. */
int zb_io_adopt(zb_io* io, void* block, size_t length, void (*release)(void* block));

/* ---- Calling ---- */

/* Calls a method of an endpoint and waits for its reply.
 *
 * path       the endpoint's address.
 * method     the method's name, 1 to 255 bytes; compared by the endpoint's owner, byte for byte.
 * io         the request, at most 4 MiB. On success its payload is the reply (at most 1 GiB); on
 *            failure it is still the request.
 * timeout_s  seconds without progress after which the call fails; bytes that move in either
 *            direction start it anew, so a long reply may take longer. 0 and less mean 5.
 * fd         a descriptor for the endpoint's owner, who gets a duplicate; negative: none. It stays
 *            the caller's.
 *
 * Blocks. On a thread that is in zb_start, signal functions run while it waits; a call to the
 * thread's own endpoint can only time out there. Returns 0 or a negative zb_error. */
int zb_call(const char* path, const char* method, zb_io* io, int timeout_s, int fd);

/* Tells where a reply is to go behind its head, whose bytes are at head: rest bytes, 1 at least. No
 * more than these have come then. Returns the place, which stays its owner's whatever becomes of
 * the call; NULL: there is none. */
typedef void* (*zb_place_fn)(void* arg, const void* head, size_t rest);

/* Like zb_call(), but on success only the first head_length bytes of the reply are io's payload.
 * Those behind it, if any, are received to where place(arg, ...) says, without a copy in between.
 * When there is no place, the call fails with ZB_ERROR_MEMORY. Bytes there may be written although
 * the call fails then.
 *
 * As optional as zb_io_adopt(). */
int zb_call_into(const char* path, const char* method, zb_io* io, int timeout_s, int fd,
                 size_t head_length, zb_place_fn place, void* arg);

/* ---- Serving ---- */

/* Handles one request, on the thread that is in zb_start.
 *
 * method  the name that was called; valid until the entry returns.
 * io      the request's payload, a zero byte behind it. To answer: put the reply into it and hand
 *         it to zb_reply(). The entry may release it; if it does not, the bus does when the entry
 *         returns.
 * fd      the descriptor that came with the request, or -1. It is the entry's, who closes it.
 *
 * An entry that returns without zb_reply() leaves the caller with ZB_ERROR_NO_REPLY, at once. An
 * exception must not leave it: the program ends. */
typedef void (*zb_entry)(const char* method, zb_io* io, int fd);

/* Creates an endpoint: takes the address and lets callers queue there; zb_start() serves them.
 * Signals of zb_signal() that came before run their functions before this returns.
 *
 * setting1, setting2  accepted as they come, without effect.
 *
 * Returns the endpoint, which the caller releases with zb_free(). NULL, with the reason in the
 * system log and on standard error: the address is taken or malformed, entry is null, or the
 * system lacks memory or descriptors. */
zb_service* zb_create(const char* path, int setting1, int setting2, zb_entry entry);

/* Serves: runs the entry for one request after the other, in the order in which they arrived
 * complete. Callers who left before their turn are dropped. Signals that came since zb_create() run
 * their functions first, also with a null service. When the environment names NOTIFY_SOCKET, one
 * datagram "READY=1" is sent there once serving begins.
 *
 * Returns 0 after zb_stop(), when replies already made have been sent (at most 4 s, 2 s without
 * progress) and requests that still waited have been answered with "no reply". May be called again
 * then. Returns -1 when it cannot serve: service is null, already being served, or the system
 * fails. */
int zb_start(zb_service* service);

/* Makes zb_start() return as soon as the entry that is running, if any, has returned. Before
 * zb_start() it makes the next one return at once. May be called from the entry, from a signal
 * function, from a raw signal handler and from any thread. Returns 0; -1 for NULL. */
int zb_stop(zb_service* service);

/* Releases an endpoint and its address; callers who wait there are cut off. Not while it is being
 * served: that is told to the log and does nothing. NULL is allowed. */
void zb_free(zb_service* service);

/* Answers the request that io brought with io's payload, which moves out: io is empty afterwards.
 * Never blocks; what the caller does not take at once is sent while others are served.
 *
 * Returns 0 when the reply is on its way. -1: io is not the buffer of the request being handled,
 * was answered before, or the reply could not be sent because the caller is gone or too much waits
 * unsent already (that caller gets ZB_ERROR_BUSY). */
int zb_reply(zb_io* io);

/* ---- Signals ---- */

typedef void (*zb_signal_fn)(int sig);

/* Arranges for fn(sig) to be called when sig arrives, once for any number of arrivals in between.
 * fn is ordinary code: it runs on the serving thread, between requests or while a zb_call() made
 * there waits, and in zb_create() and at the start of zb_start(). NULL restores the default action.
 * Belongs after a daemon has closed what it inherited: the first use opens a descriptor.
 *
 * Returns 0; -1 for a number that is no signal, that cannot be caught, or that a fault of the
 * program raises (SIGSEGV, SIGBUS, SIGFPE, SIGILL), or when the system fails. */
int zb_signal(int sig, zb_signal_fn fn);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
