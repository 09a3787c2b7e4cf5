/*
 * The appliance platform interface, as libmgmt sees it.
 *
 * On the appliance a closed platform library provides these calls. This tree
 * ships a stand-in (libplatform.so) that implements them over Unix-domain
 * datagram sockets, so that daemons and front ends on one Linux machine really
 * exchange messages.
 *
 * The stand-in's conventions:
 * - Runtime directory: $MGMT_IPC_DIR (missing parents made too), else /run/mgmt where writable,
 *   else /tmp/mgmt-<uid>; directories made here get mode 0700. A change of MGMT_IPC_DIR is noticed
 *   at the next call: the directory is made and each thread moves its socket there on next use.
 * - Names in it: a daemon endpoint (slot, appid, instance) binds "s<slot>.a<app>.i<inst>", a
 *   thread's reply socket "t<pid>.<tid>". They are unlinked when closed, when the thread ends and
 *   at process exit, and only by the process that bound them (never by a forked child).
 * - Failures of the ipcmsg_* calls are negative errno values: -ENOENT or -ECONNREFUSED when nobody
 *   has bound the destination (at once), -ETIMEDOUT when a wait or a send ran out, -EAGAIN when
 *   ipcmsg_recv_sync(..., 0) finds nothing, -EMSGSIZE above IPC_MAX_PAYLOAD.
 * - A message whose sender's uid (SCM_CREDENTIALS) is neither ours nor 0 is dropped unseen.
 */
#ifndef PLATFORM_PLATFORM_H
#define PLATFORM_PLATFORM_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(PLATFORM_BUILDING)
#define PLATFORM_API __attribute__((visibility("default")))
#else
#define PLATFORM_API
#endif

/* ---------------------------------------------------------------- identity */

/*
 * The thread's own IPC identity. First word the application id, then the
 * instance and the slot; the fourth word is the descriptor on which replies to
 * this thread's requests arrive (-1 until the thread first uses IPC).
 */
typedef struct ipc_handle {
    uint32_t appid;
    uint32_t instance;
    uint32_t slot;
    int32_t fd;
} ipc_handle_t;

PLATFORM_API extern __thread ipc_handle_t myipc;

/*
 * Returns the calling thread's handle, filled from the process identity and
 * with its reply socket open. Null only when the socket cannot be made.
 */
PLATFORM_API ipc_handle_t *ipc_self(void);

/* Sets the process identity without binding a daemon address. */
PLATFORM_API int ipc_init(uint32_t appid, uint32_t instance);

/*
 * Sets the process identity and binds the daemon address (slot, appid,
 * instance) in the runtime directory. 0, or -1 with errno: EADDRINUSE when a
 * live process holds the address, the runtime directory's error when it cannot
 * be made or entered. ipc_register_error() words the reason for an operator.
 */
PLATFORM_API int ipc_register(uint32_t appid, uint32_t instance);

/*
 * Gives the calling thread an identity of its own, overriding the process
 * identity for this thread (a test may hold a front end and servers in one
 * process).
 */
PLATFORM_API int ipc_set_thread_identity(uint32_t appid, uint32_t instance);

/*
 * Identity used by ipc_self(): the thread identity if set, else the process identity of ipc_init or
 * ipc_register, else MGMT_APPID / MGMT_INSTANCE, else 0.
 */

/* Own slot: MGMT_SLOT, else 0. */
PLATFORM_API uint32_t ipc_own_slot(void);

/*
 * The runtime directory, created 0700 on first use (a thread-local copy). Null on failure, with
 * errno set and the directory that could not be used in ipc_runtime_dir_tried().
 */
PLATFORM_API const char *ipc_runtime_dir(void);
/* The directory the last resolution on this thread tried, whether it worked or not ("" before). */
PLATFORM_API const char *ipc_runtime_dir_tried(void);

/*
 * Who holds the daemon address (appid, instance) of this slot: the pid of the process that answers
 * there, taken from the credentials of its answer to a probe (a request of message number
 * IPC_MSG_PROBE, which no handler serves). 0 when the address is free or its holder does not answer
 * within timeout_ms; -1 with errno when the probe cannot be sent.
 */
#define IPC_MSG_PROBE 0xffffu
PLATFORM_API int ipc_address_holder(uint32_t appid, uint32_t instance, int timeout_ms);

/*
 * Words for an operator on why ipc_register(appid, instance) or ipc_endpoint_open failed with
 * errno err, into buf (size bytes), which is returned: "another mgd (pid 1234) serves /run/mgmt"
 * when a live process holds the address (its name from /proc/<pid>/comm), "the runtime directory
 * DIR cannot be used: REASON" when that is what failed, else the errno text.
 */
PLATFORM_API const char *ipc_register_error(uint32_t appid, uint32_t instance, int err, char *buf, size_t size);

/*
 * An IPC destination id. A plain application number addresses instance 0 of
 * that application on this slot; mktipcid() adds a slot (and instance):
 * (slot << 24) | (instance << 16) | appid, slot 0 meaning the own slot. The inst argument of the
 * send calls, when non-zero, gives the destination's instance (in place of the id's field).
 */
PLATFORM_API uint32_t mktipcid(uint32_t slot, uint32_t instance, uint32_t appid);

/* ---------------------------------------------------------------- messages */

/* Who sent a message; handed to handlers, used to answer. */
typedef struct ipc_peer {
    uint32_t slot;
    uint32_t appid;
    uint32_t instance;
    uint32_t seq;
    uint32_t kind;
    uint32_t uid;
    int32_t pid;
    void *ctx;          /* the context of the endpoint that received the message */
    uint32_t addrlen;
    char addr[110];
} ipc_peer_t;

/* Frame kinds. */
enum { IPC_KIND_REQUEST = 1, IPC_KIND_REPLY = 2, IPC_KIND_ONEWAY = 3 };

/*
 * The platform's frame header, ahead of every payload (32 bytes). The message
 * number stands big-endian at byte 4; every other word is in host order.
 */
typedef struct ipc_frame {
    uint32_t magic;     /* IPC_FRAME_MAGIC */
    uint8_t msg_be[2];  /* message number, big-endian */
    uint8_t kind;       /* IPC_KIND_* */
    uint8_t flags;
    uint32_t seq;
    int32_t status;     /* result code of the far side (replies) */
    uint16_t src_slot;
    uint16_t src_app;
    uint16_t src_inst;
    uint16_t reserved;
    uint32_t len;       /* payload bytes */
    uint32_t reserved2;
} ipc_frame_t;

#define IPC_FRAME_MAGIC 0x4d474950u /* "MGIP" */
#define IPC_MAX_PAYLOAD 65536u

PLATFORM_API void *ipcmsg_alloc(uint32_t size);
PLATFORM_API void ipcmsg_free(void *msg);

/*
 * Sends are bounded by the platform default time-out (30 s, or MGMT_IPC_TIMEOUT_MS) when the
 * destination's queue stays full. 0 on success.
 */

/* One-way send from the thread's socket. Negative on failure. */
PLATFORM_API int ipcmsg_send(uint32_t dst, uint32_t inst, uint16_t msg_id, void *buf, uint32_t len);
/*
 * Send a request; its replies arrive on myipc.fd. It becomes the request whose replies the thread
 * takes: what still waits on myipc.fd from earlier requests is thrown away first. Negative on failure.
 */
PLATFORM_API int ipcmsg_send_sync(uint32_t dst, uint32_t inst, uint16_t msg_id, void *buf, uint32_t len);
/* ipcmsg_send bounded by a time-out in milliseconds. */
PLATFORM_API int ipcmsg_send_timeout(uint32_t dst, uint32_t inst, uint16_t msg_id, void *buf, uint32_t len,
                                     int timeout_ms);
/*
 * Takes one message from the thread's socket. *len holds the capacity on
 * entry and the bytes stored on return (a longer message is cut). With
 * block 0 it fails at once when nothing waits (-EAGAIN); with block 1 it waits up to the platform
 * default time-out (-ETIMEDOUT). 0 on success. peer, when given, gets the sender (ctx null).
 * A reply to an earlier request than the thread's last (one it gave up on) is dropped: the call then
 * takes what waits behind it, or fails with -EAGAIN, so a drop reads as a failed receive.
 */
PLATFORM_API int ipcmsg_recv_sync(ipc_peer_t *peer, void *buf, uint32_t *len, int block);
/*
 * Sends a request and waits for its reply (matched by sequence; stale replies
 * are dropped). time-out 0 means the platform default (30 s, or
 * MGMT_IPC_TIMEOUT_MS). *status gets the far side's result code; *rlen holds
 * the capacity on entry. 0 on success; negative on failure of the exchange (-ETIMEDOUT after the
 * time-out when the far side does not answer; -ECONNRESET as soon as the process serving the
 * destination ends without answering; -ENOENT or -ECONNREFUSED at once when nobody serves it),
 * *status and *rlen then untouched. A stopped but living far side costs the whole time-out.
 */
PLATFORM_API int ipcmsg_send_and_recv(uint32_t dst, uint32_t inst, uint16_t msg_id, void *sbuf, uint32_t slen,
                                      int32_t *status, void *rbuf, uint32_t *rlen, int timeout_ms);

/* ---------------------------------------------------------------- daemons */

/*
 * Handler of one message number: (ipc handle, frame head, payload, payload
 * length, status out, reply buffer, reply length in/out). The head holds the
 * message number big-endian at byte 4. Return IPC_HANDLER_REPLY to send the
 * reply (for requests), IPC_HANDLER_NOREPLY when the handler answered itself
 * or no answer is due. The ipc handle is the sender's ipc_peer_t, its ctx the endpoint's context;
 * *status starts at 0, *reply_len at the reply buffer's capacity (IPC_MAX_PAYLOAD); the buffer
 * belongs to the endpoint. A request for a number without handler is answered with status -1 and
 * no payload. An endpoint is dispatched by one thread at a time.
 */
typedef int (*ipc_handler_fn)(void *ipc, void *head, void *payload, uint32_t len, int32_t *status, void *reply,
                              uint32_t *reply_len);
enum { IPC_HANDLER_REPLY = 0, IPC_HANDLER_NOREPLY = 1 };

PLATFORM_API int ipc_register_handler(uint16_t msg_id, ipc_handler_fn fn);
/* The bound daemon socket, for a daemon's own poll loop; -1 before register. */
PLATFORM_API int ipc_daemon_fd(void);
/* Waits up to timeout_ms (-1 forever) and dispatches one message: 1, 0 on time-out, -1 on error. */
PLATFORM_API int ipc_dispatch_one(int timeout_ms);
/* Serves until ipc_stop(); 0 after a stop, -1 on error. */
PLATFORM_API int ipc_serve(void);
/*
 * Makes ipc_serve return (callable from any thread and from a signal handler). A stop given while
 * no serve runs makes the next serve return at once.
 */
PLATFORM_API void ipc_stop(void);
/*
 * Sends a message of kind reply to the sender of a request (the ipc handle a handler got), with the
 * request's sequence: a server may send several answers to one request this way. From inside a
 * handler it goes out of the endpoint's socket, elsewhere out of the thread's. 0 or negative.
 */
PLATFORM_API int ipc_send_to_peer(const ipc_peer_t *peer, uint16_t msg_id, const void *buf, uint32_t len,
                                  int32_t status);
/*
 * Further endpoints of one process: each binds its own address (own slot,
 * appid, instance) with its own handler table and context. The functions
 * above work on the process's endpoint made by ipc_register. Opening (and ipc_register) fails, with errno, when
 * a live socket holds the address; a file left by a dead one is replaced. ipc_endpoint_stop acts
 * as ipc_stop does, for ipc_endpoint_serve.
 */
typedef struct ipc_endpoint ipc_endpoint_t;
PLATFORM_API ipc_endpoint_t *ipc_endpoint_open(uint32_t appid, uint32_t instance, void *ctx);
PLATFORM_API int ipc_endpoint_handler(ipc_endpoint_t *ep, uint16_t msg_id, ipc_handler_fn fn);
PLATFORM_API int ipc_endpoint_fd(ipc_endpoint_t *ep);
PLATFORM_API int ipc_endpoint_dispatch(ipc_endpoint_t *ep, int timeout_ms);
PLATFORM_API int ipc_endpoint_serve(ipc_endpoint_t *ep);
PLATFORM_API void ipc_endpoint_stop(ipc_endpoint_t *ep);
PLATFORM_API void ipc_endpoint_close(ipc_endpoint_t *ep);

/*
 * Requests from an event loop (for tools): a client has a socket of its own, which polls readable
 * while replies wait; its sends never wait and its replies are taken with the sequence of their
 * request. A client is used by one thread at a time. Sends carry the process identity.
 */
typedef struct ipc_client ipc_client_t;
/* A new client, or null with errno. */
PLATFORM_API ipc_client_t *ipc_client_open(void);
/* The client's descriptor (-1 for null). */
PLATFORM_API int ipc_client_fd(const ipc_client_t *c);
/*
 * Sends a request to dst; *seq (when given) gets its sequence. 0; -ENOENT or -ECONNREFUSED when
 * nobody serves dst; -EAGAIN when its queue is full (at once, never waiting); other -errno.
 */
PLATFORM_API int ipc_client_send(ipc_client_t *c, uint32_t dst, uint16_t msg_id, const void *buf, uint32_t len,
                                 uint32_t *seq);
/* Takes the next reply without waiting: its payload bytes (cut at cap), *seq and *status; -EAGAIN when none waits. */
PLATFORM_API int ipc_client_recv(ipc_client_t *c, uint32_t *seq, int32_t *status, void *buf, uint32_t cap);
/*
 * A descriptor that turns readable once the process serving dst ends, or -1 when that is not known.
 * The client owns it (closed with the client); asked again after that process ended, it looks
 * afresh for the one serving dst then.
 */
PLATFORM_API int ipc_client_watch(ipc_client_t *c, uint32_t dst);
/* Closes the client and its watches (null: nothing). */
PLATFORM_API void ipc_client_close(ipc_client_t *c);

/*
 * Address notes: each time a process binds an address with ipc_register or ipc_endpoint_open, the
 * processes subscribed (ipc_subscribe) to this channel get one note as a one-way message whose
 * number is the channel.
 */
#define IPC_CHANNEL_ADDRESS 0xfffeu
typedef struct ipc_address_note {
    uint32_t slot, appid, instance;
    int32_t pid;
} ipc_address_note_t;

/* Closes the daemon socket and the thread's socket (a child before exec). */
PLATFORM_API void ipc_close(void);

/*
 * For tests: ipc_close(), then forget the process identity, the process handlers and the calling
 * thread's identity, so that the next use starts as a fresh process would.
 */
PLATFORM_API void ipc_reset(void);

/* ---------------------------------------------------------------- monitor */

/*
 * A monitor of the runtime directory (for tools): while one is open, every process that sends in
 * that directory sends it a copy of each frame, without waiting. A copy that does not fit the
 * monitor's queue is dropped and counted; the real send never waits or fails because of it.
 * Without a monitor a send costs one test of a word that every process maps from the directory.
 *
 * A copy is one datagram: the head below, then the frame as it was sent (ipc_frame_t, its
 * source words those of the sender) and the payload. It goes out just before the message itself;
 * a send that then fails is told by a second copy, of the head and frame alone, with the result.
 */
typedef struct ipc_monitor_head {
    uint32_t magic;   /* IPC_MONITOR_MAGIC */
    int32_t result;   /* 0; a negative errno when the send failed (nobody bound the address ...) */
    uint64_t time_ns; /* CLOCK_REALTIME when it was sent */
    int32_t pid;      /* the sending process */
    uint16_t dst_slot, dst_app, dst_inst; /* where it went */
    uint16_t reserved;
    uint32_t reserved2;
} ipc_monitor_head_t;

#define IPC_MONITOR_MAGIC 0x4d47494du /* "MGIM" */

/*
 * Opens the monitor addresses of the runtime directory: a descriptor that polls readable while
 * copies wait, or -errno (-EADDRINUSE when a monitor runs there already). One monitor per process.
 */
PLATFORM_API int ipc_monitor_open(void);
/*
 * Takes the earliest copy that waits: its bytes (head, frame, payload; at most cap) or -errno;
 * -ETIMEDOUT after timeout_ms (0: at once; < 0: no bound), -EINTR when a signal came. Copies from
 * another user are dropped unseen.
 */
PLATFORM_API int ipc_monitor_recv(void *buf, uint32_t cap, int timeout_ms);
/* Copies that senders dropped since the monitor opened, its queue being full. */
PLATFORM_API uint64_t ipc_monitor_dropped(void);
/* Closes the monitor: senders stop copying. */
PLATFORM_API void ipc_monitor_close(void);

/* ---------------------------------------------------------------- names, output */

/* A printable name of an application id ("mgd" for 2, else "app<N>"). */
PLATFORM_API const char *appid2appname(uint32_t id);

/* Formatted text to the console: standard error, or MGMT_CONSOLE if set. */
PLATFORM_API void console_print(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* A sink that receives each console text instead of the console (null restores it). */
typedef void (*console_sink_fn)(const char *text, void *ctx);
PLATFORM_API void console_set_sink(console_sink_fn fn, void *ctx);

/*
 * strlcpy: copies at most size - 1 bytes of src and terminates dst (for a size above 0); returns
 * strlen(src). A C library that has its own keeps it: glibc declares one from 2.38 (with
 * _DEFAULT_SOURCE, which C++ and gnu C modes imply), libbsd and musl have one too. The stand-in
 * builds its copy only where the C library lacks one, and as a weak symbol; this declaration
 * steps aside where <string.h> made one, so that both compile side by side in C and C++.
 */
#if !(defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 38)) && defined(__USE_MISC))
PLATFORM_API size_t strlcpy(char *dst, const char *src, size_t size);
#endif

/* Language words of the platform. */
PLATFORM_API extern int _ui_language;
PLATFORM_API extern int _system_language;

#ifdef __cplusplus
}
#endif

#endif
