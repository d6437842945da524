// The Apartment library's C interface.
//
// A process initialises one apartment, named "tcp://<IPv4>:<port>", creates
// named nodes in it and exchanges requests, responses, notifications and raw
// frames with the nodes of other processes' apartments. Every function but
// the four lifecycle ones takes the apartment's URL first; null means the
// apartment that apartment_initialize made.
//
// Results: bool functions return false when the library is not initialised,
// the apartment is unknown or the operation failed. Status functions return
// 0 or an APARTMENT_ERROR. Timer functions return the timer id, or
// 4294967295.
//
// No function throws. Whatever is thrown inside a call (an allocation
// failure, an exception from a host callback that the call runs) is caught
// at the boundary, reported as one "[Apartment Error]" line on standard
// output, and the call returns its failure value:
//   bool functions                         false
//   status functions (int, 0 on success)   APARTMENT_METHOD_FAILED (-4)
//   apartment_dispatch_message             -1
//   apartment_set_timer, _single_timer     4294967295
//   apartment_get_module_version           null
//   apartment_uninitialize                 returns; a later call finishes
// A callback that throws while its message is dispatched costs that message
// only: it is dropped (what it carries is released) with one diagnostic
// line, and dispatching goes on (apartment_dispatch_message returns 1).
// The same holds on the library's own threads: an exception there drops
// the connection, frame or timer firing at hand, never the process.
//
// Threads: call apartment_initialize and apartment_uninitialize from one
// thread while no other call runs. Between them any thread may call any
// function. One thread pumps the apartment with apartment_dispatch_message;
// node and apartment callbacks run on that thread, except
// onRawFrameReceived, which runs on the library's real-time thread (or on
// the writer's thread for a raw frame written to the apartment's own URL).
//
// Inside a callback on the pumping thread a host may call every function
// except apartment_initialize and apartment_uninitialize: answering a
// request from inside onRequestReceived, writing requests, reading a
// response (which pumps further messages while it waits), setting and
// killing timers. Inside onRawFrameReceived a host may write and set
// timers, but must not read responses or pump.
//
// Links: a link to a remote apartment is opened on first use (or by
// apartment_connect_remote) without waiting for the peer, one per remote URL
// and class. A URL that is already linked is answered at once. Threads that
// need the same new link at the same moment share one open: the first
// opens it, the others wait for that open (at most its 1000 ms connect
// time-out) and share its outcome. Opening one link never holds up threads
// that use or open other links. A peer that closes its link and at once
// connects again under the same URL is served on its new link.
//
// Frame size: a frame's payload is at most the maximum of its link. For
// the links that carry requests, responses and notifications that is
// 67108864 bytes (64 MiB), or the value of APARTMENT_MAX_FRAME_BYTES in the
// environment when apartment_initialize runs (a whole number from 1 to
// 4294967295; any other value keeps the default and prints one line). The
// real-time link takes raw frames of up to 102400 bytes. A write above its
// link's maximum fails at once (-4) and leaves the link as it was; a peer
// that announces a larger frame has its link closed at the frame's header,
// as by an orderly close (the nodes hear onApartmentOffline), with one line
// naming the peer and the size. Both ends should agree on the maximum.
//
// Environment, read by apartment_initialize (details and exact lines in
// apartment(3)); a bound that is not a whole number from 1 to 4294967295
// keeps its default and prints one line:
//   APARTMENT_MAX_LINKS (65536): links and connections being set up; one
//     more is closed at once with one line.
//   APARTMENT_MAX_QUEUED_BYTES_PER_LINK (16 MiB), APARTMENT_MAX_QUEUED_BYTES
//     (256 MiB): received bytes waiting in the queues; a link over its bound,
//     or every link while the total is over, is not read until dispatching
//     has taken it below half. Real-time links are never held.
//   APARTMENT_UNREAD_RESPONSE_MS (60000): an answer nobody collected in that
//     time is dropped with one line; answers to requests a node never wrote,
//     or gave up on, are not kept at all.
//   APARTMENT_SEND_QUEUE_BYTES (0): above 0, each link queues up to that many
//     bytes of requests, notifications and responses, and a write returns 0
//     once its frame is queued (not sent); a full queue holds the writer
//     under the 100 ms stall rule; a link that closes with frames queued
//     says how many in one line. 0 keeps writes synchronous: 0 then means
//     the bytes are with the kernel. Raw frames are never queued.
//   APARTMENT_SAME_HOST (1): 0 keeps every link on TCP and takes no
//     same-host name; otherwise a link to an apartment of this host goes
//     over a Unix socket named after its URL, falling back to TCP at once.
//   APARTMENT_TLS_CERT, APARTMENT_TLS_KEY, APARTMENT_TLS_CA (unset): all
//     three make every link mutual TLS 1.3; a partial or unusable set makes
//     apartment_initialize fail with one line. APARTMENT_TLS_KEYLOG names a
//     file the session secrets are appended to.
//
// Out-arguments declared as references to constants (uintRequestId,
// intResponseCode, uintBufLen, dwLen) are written all the same; the
// declarations are kept for compatibility with existing hosts.
#ifndef APARTMENT_APARTMENTAPI_H
#define APARTMENT_APARTMENTAPI_H

#include <time.h>

#include "ApartmentErrorDef.h"
#include "FieldKit/ModuleDef/IModuleVersion.h"
#include "GroundKit/Base/BaseType.h"
#include "IApartmentCallback.h"
#include "IApartmentNodeCallback.h"

#define APARTMENT_API extern "C" __attribute__((visibility("default")))

// The code a responder passes with its answer, carried to the requester.
enum APARTMENT_RESPONSE_CODE {
    REQUEST_OK = 0,
    REQUEST_METHOD_NOT_FOUND = -1,
    REQUEST_PARAMETER_ERROR = -2,
    REQUEST_OPERATE_FAILED = -3
};

// ---- Lifecycle
// Creates this process's apartment. "tcp://" alone picks every interface
// and a free port; supportPassiveConnection makes it accept links. False
// when already initialised (the running apartment is untouched), for a
// scheme other than "tcp://", a URL over 128 characters, a port in use, a
// same-host name taken by another process, or unusable TLS settings (see
// Environment above).
APARTMENT_API bool apartment_initialize(const char* strApartmentUrl, bool supportPassiveConnection);
// Stops timers, threads and links and releases everything.
APARTMENT_API void apartment_uninitialize();
// A new version object (count 1), owned by the caller: releaseRef it.
APARTMENT_API IModuleVersion* apartment_get_module_version();
// Installs (null: removes) the apartment callback; the library keeps its own
// reference.
APARTMENT_API bool apartment_set_callback(const char* strApartmentUrl,
                                          IApartmentCallback* pCallback);

// ---- Dispatch
// true binds dispatching to the calling thread; false releases the binding.
APARTMENT_API bool apartment_set_dispatch_enabled(const char* strApartmentUrl, bool bEnable);
// Waits until the absolute monotonic deadline (both fields -1: no limit)
// for one message and dispatches it. The dispatch result (1 handled, 0 a
// quit message), or -1 when nothing came or the library is not initialised.
APARTMENT_API int apartment_dispatch_message(const char* strApartmentUrl, timespec timeout);
// Stops dispatching for good and wakes a blocked apartment_dispatch_message.
APARTMENT_API bool apartment_stop_dispatch_message(const char* strApartmentUrl);
// false defers incoming requests and connection-closed notices until re-entry
// is allowed again (for a host that pumps from inside a handler).
APARTMENT_API bool apartment_allow_reentry(const char* strApartmentUrl, bool bAllow);

// ---- Connections (bRtConnection: the real-time link, else the other)
// The URL this apartment has on its link to the remote (size protocol).
APARTMENT_API bool apartment_local_url(const char* strApartmentUrl,
                                       const char* strRemoteApartmentUrl,
                                       const bool bRtConnection, char* strLocalApartmentUrl,
                                       const DWORD& dwLen);
APARTMENT_API bool apartment_connect_remote(const char* strApartmentUrl,
                                            const char* strRemoteApartmentUrl,
                                            const bool bRtConnection);
APARTMENT_API bool apartment_has_connect_remote(const char* strApartmentUrl,
                                                const char* strRemoteApartmentUrl,
                                                const bool bRtConnection);
APARTMENT_API bool apartment_disconnect_remote(const char* strApartmentUrl,
                                               const char* strRemoteApartmentUrl,
                                               const bool bRtConnection);

// ---- Nodes and messaging
// True whenever the apartment exists, also for a name already taken.
APARTMENT_API bool apartment_node_create(const char* strApartmentUrl, const char* strNodeUrl);
// True whenever the apartment exists, also for an unknown name.
APARTMENT_API bool apartment_node_destroy(const char* strApartmentUrl, const char* strNodeUrl);
APARTMENT_API bool apartment_node_set_callback(const char* strApartmentUrl,
                                               const char* strNodeUrl,
                                               IApartmentNodeCallback* pCallback);
// Sends a raw frame with the caller's type number over the real-time link,
// which must already be connected; -4 for a frame over 102400 bytes. A
// frame to the apartment's own URL is not sent: it reaches its callback at
// once, on this thread.
APARTMENT_API int apartment_raw_write(const char* strApartmentUrl,
                                      const char* strRemoteApartmentUrl,
                                      const unsigned int uintFrameType, void* pRawBuffer,
                                      const unsigned int& uintBufLen);
// The node messaging functions reach the initialised apartment for a null
// URL or any URL containing "tcp://"; any other URL gives -2. Node names
// and remote URLs must be pure ASCII (else -4), and the frame no larger
// than the link's maximum (see Frame size above; else -4). A request opens
// the link on first use; the new request id is written to uintRequestId.
// 0 means the frame is with the kernel, or, with APARTMENT_SEND_QUEUE_BYTES
// above 0, in the link's send queue (see Environment above).
APARTMENT_API int apartment_node_write_request(const char* strApartmentUrl,
                                               const char* strNodeUrl,
                                               const char* strRemoteApartmentUrl,
                                               const char* strRemoteNodeUrl,
                                               void* pRequestBuffer, unsigned int uintBufLen,
                                               const unsigned int& uintRequestId);
// As a request, but no response is expected.
APARTMENT_API int apartment_node_write_notify(const char* strApartmentUrl,
                                              const char* strNodeUrl,
                                              const char* strRemoteApartmentUrl,
                                              const char* strRemoteNodeUrl,
                                              void* pRequestBuffer, unsigned int uintBufLen,
                                              const unsigned int& uintRequestId);
// Answers a request: strRemoteApartmentUrl and strRemoteNodeUrl are the
// request's source apartment and node, uintRequestId its id. Never waits
// for a connect. With a link to that apartment (normally the one the
// request came in on) 0 means the frame was handed to it. Without one the
// answer is handed to a link that the library opens off the calling thread
// (at most 8 such opens and 16 MiB of waiting answers at a time), and 0
// means it was accepted for that link: should the open or the send fail,
// the answer is dropped with a diagnostic line. -4 when the link's send
// failed, a name is not pure ASCII, or those bounds refuse the answer (a
// diagnostic line says so).
APARTMENT_API int apartment_node_write_response(const char* strApartmentUrl,
                                                const char* strNodeUrl,
                                                const char* strRemoteApartmentUrl,
                                                const char* strRemoteNodeUrl,
                                                unsigned int uintRequestId, int intResponseCode,
                                                void* pRequestBuffer, unsigned int uintBufLen);
// Waits up to intTimeout ms (negative: no limit) for the response to a
// request. A null buffer reads the code and length and keeps the response;
// a buffer of at least that length receives it and the response is removed.
// -3 for an unknown node, -4 on time-out or a buffer that is too small.
APARTMENT_API int apartment_node_read_response(const char* strApartmentUrl,
                                               const char* strNodeUrl,
                                               unsigned int uintRequestId,
                                               const int& intResponseCode, void* pResponseBuffer,
                                               const unsigned int& uintBufLen, int intTimeout);

// ---- Timers (milliseconds; a null node sets an apartment-level timer)
APARTMENT_API unsigned int apartment_set_timer(const char* strApartmentUrl,
                                               const char* strNodeUrl, unsigned int uintLagTime,
                                               unsigned int uintInterval);
APARTMENT_API unsigned int apartment_set_single_timer(const char* strApartmentUrl,
                                                      const char* strNodeUrl,
                                                      unsigned int uintLagTime);
APARTMENT_API bool apartment_kill_timer(const char* strApartmentUrl, const char* strNodeUrl,
                                        unsigned int uintTimerId);
// Sends an alive frame every uintAliveInterval ms over the (already
// connected) non-real-time link; after uintAliveCounter unanswered periods
// onApartmentOffline is called on every period until the remote answers.
// A counter of 0 stops watching.
APARTMENT_API bool apartment_keepalive_with(const char* strApartmentUrl,
                                            const char* strRemoteApartmentUrl,
                                            unsigned int uintAliveCounter,
                                            unsigned int uintAliveInterval);

#endif
