// _apartment: the compiled part of the Python package `apartment`.
//
// A marshalling layer over libapartment.so's C interface, with the Python
// rules added on top:
//   - every library call that can block (dispatch, reading a response,
//     connecting, writing) runs with the GIL released, and every wait is cut
//     into slices of at most SLICE_MS so that close() from another thread,
//     Ctrl-C and run()'s stop conditions are noticed within a slice;
//   - every callback takes the GIL, whichever library thread calls it; an
//     exception raised by a Python callback goes to sys.unraisablehook (as
//     for any callback Python cannot return to) and never into the library,
//     except KeyboardInterrupt and SystemExit, which are raised again by the
//     call that was pumping on that thread;
//   - the library's one apartment per process is one Apartment object, and
//     apartment_uninitialize runs only once no call is in flight (the
//     library's rule), which close() waits for.
//
// Ownership: the library holds the callback objects (counted, see
// ApartmentHost.h); they hold the Python callables through shared state.
// Whatever holds Python objects and may be released by a library thread
// takes the GIL in its destructor.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "ApartmentApi.h"
#include "ApartmentHost.h"

namespace py = pybind11;

namespace {

// The longest a GIL-released wait lasts before Python state is looked at.
constexpr int SLICE_MS = 100;
constexpr unsigned int NO_TIMER = 4294967295u;
constexpr const char* DEFAULT_NODE = "py";

using Clock = std::chrono::steady_clock;

py::handle g_error;    // apartment.Error
py::handle g_timeout;  // apartment.Timeout(Error, TimeoutError)

// Per-thread facts the rules above need.
thread_local int t_hostCalls = 0;     // Calls (below) open on this thread
thread_local int t_callbacks = 0;     // Python callbacks running on this thread
thread_local bool t_rawFrame = false;  // inside on_raw: no pumping allowed
// A KeyboardInterrupt or SystemExit raised by a callback, for the pumping
// call on this thread to raise again (owned references, or null).
thread_local PyObject* t_deferredType = nullptr;
thread_local PyObject* t_deferredValue = nullptr;
thread_local PyObject* t_deferredTrace = nullptr;

const char* errorName(int code) {
    switch (code) {
    case APARTMENT_NOT_INITIALIZED: return "APARTMENT_NOT_INITIALIZED";
    case CAN_NOT_FIND_APARTMENT: return "CAN_NOT_FIND_APARTMENT";
    case CAN_NOT_FIND_APARTMENT_NODE: return "CAN_NOT_FIND_APARTMENT_NODE";
    case APARTMENT_METHOD_FAILED: return "APARTMENT_METHOD_FAILED";
    default: return "unknown error";
    }
}

[[noreturn]] void raise(py::handle type, const std::string& message,
                        std::optional<int> code = std::nullopt) {
    py::object error = py::reinterpret_borrow<py::object>(type)(message);
    error.attr("code") = code ? py::object(py::int_(*code)) : py::object(py::none());
    PyErr_SetObject(type.ptr(), error.ptr());
    throw py::error_already_set();
}

[[noreturn]] void raiseStatus(int status, const std::string& what) {
    raise(g_error, what + " (" + errorName(status) + ")", status);
}

[[noreturn]] void raiseClosed() {
    raise(g_error, "the apartment is closed", APARTMENT_NOT_INITIALIZED);
}

bool pythonAlive() { return Py_IsInitialized() && !_Py_IsFinalizing(); }

void checkSignals() {
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

void raiseDeferred() {
    if (t_deferredType == nullptr) return;
    PyErr_Restore(t_deferredType, t_deferredValue, t_deferredTrace);
    t_deferredType = t_deferredValue = t_deferredTrace = nullptr;
    throw py::error_already_set();
}

// Reports the error of a failed callback (GIL held, error set).
void reportCallbackError(py::handle callable) {
    py::error_already_set error;
    const bool interrupt =
        error.matches(PyExc_KeyboardInterrupt) || error.matches(PyExc_SystemExit);
    if (interrupt && t_hostCalls > 0 && !t_rawFrame && t_deferredType == nullptr) {
        error.restore();
        PyErr_Fetch(&t_deferredType, &t_deferredValue, &t_deferredTrace);
        return;
    }
    error.discard_as_unraisable(py::reinterpret_borrow<py::object>(callable));
}

// Runs a callback body; whatever it raises is reported, never propagated.
// Returns false when it raised.
template <class Body>
bool guarded(py::handle callable, Body&& body) {
    try {
        body();
        return true;
    } catch (py::error_already_set& e) {
        e.restore();
    } catch (py::builtin_exception& e) {
        e.set_error();
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
    } catch (...) {
        PyErr_SetString(PyExc_RuntimeError, "unknown C++ exception in a callback");
    }
    reportCallbackError(callable);
    return false;
}

// ---- argument checks (before any library call)

std::string asciiName(const std::string& name, const char* what) {
    if (name.empty()) throw py::value_error(std::string(what) + " must not be empty");
    for (unsigned char c : name)
        if (c == 0 || c > 0x7f)
            throw py::value_error(std::string(what) + " must be ASCII without NUL: " +
                                  py::repr(py::str(name)).cast<std::string>());
    return name;
}

struct Address {
    std::string host;  // dotted IPv4
    unsigned int port;
};

// "tcp://<IPv4>:<port>"; with `allowAny`, also port 0 and "tcp://" alone.
Address parseUrl(const std::string& url, bool allowAny) {
    const std::string scheme = "tcp://";
    const auto bad = [&]() {
        return py::value_error("not an apartment URL: " + py::repr(py::str(url)).cast<std::string>() +
                               " (expected tcp://<IPv4>:<port>)");
    };
    for (unsigned char c : url)
        if (c == 0 || c > 0x7f) throw bad();
    if (url.compare(0, scheme.size(), scheme) != 0) throw bad();
    const std::string rest = url.substr(scheme.size());
    if (rest.empty() && allowAny) return {"0.0.0.0", 0};
    const auto colon = rest.rfind(':');
    if (colon == std::string::npos) throw bad();
    Address address{rest.substr(0, colon), 0};
    in_addr ip;
    if (inet_pton(AF_INET, address.host.c_str(), &ip) != 1) throw bad();
    const std::string port = rest.substr(colon + 1);
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos)
        throw bad();
    address.port = static_cast<unsigned int>(std::stoul(port));
    if (address.port > 65535 || (address.port == 0 && !allowAny)) throw bad();
    return address;
}

std::string remoteUrl(const std::string& url) {
    parseUrl(url, false);
    return url;
}

// Seconds as Python's own APIs take them, to whole milliseconds (rounded
// up, so that a short positive time never becomes "at once").
long long toMs(double seconds, const char* what, long long max) {
    if (!std::isfinite(seconds) || seconds < 0)
        throw py::value_error(std::string(what) + " must be a finite number of seconds >= 0");
    const double ms = std::ceil(seconds * 1000.0 - 1e-6);
    if (ms > static_cast<double>(max))
        throw py::value_error(std::string(what) + " is too long");
    return static_cast<long long>(ms);
}

// A bytes-like payload, held (and pinned) for the length of a call.
class Payload {
public:
    explicit Payload(py::handle data) {
        if (PyUnicode_Check(data.ptr()))
            throw py::type_error("data must be bytes-like, not str (encode it first)");
        if (PyObject_GetBuffer(data.ptr(), &m_view, PyBUF_SIMPLE) != 0)
            throw py::error_already_set();
        if (static_cast<unsigned long long>(m_view.len) > UINT_MAX) {
            PyBuffer_Release(&m_view);
            throw py::value_error("data is larger than 4 GiB");
        }
    }
    ~Payload() { PyBuffer_Release(&m_view); }
    Payload(const Payload&) = delete;
    Payload& operator=(const Payload&) = delete;

    // The library takes non-const pointers but does not write through them.
    void* data() { return m_view.len ? m_view.buf : &m_empty; }
    unsigned int size() const { return static_cast<unsigned int>(m_view.len); }

private:
    Py_buffer m_view;
    char m_empty = 0;
};

// ---- the open apartment

struct Node;

// One open apartment: Python's view of the library's one apartment.
// Fields marked (GIL) are read and written only with the GIL held.
struct Shared {
    std::string url;
    std::atomic<bool> open{true};
    std::atomic<bool> stopRequested{false};
    std::atomic<int> inFlight{0};  // Calls in progress on any thread
    std::mutex idleMutex;          // with `idle`, lets close() wait for inFlight 0
    std::condition_variable idle;

    std::optional<std::thread::id> runOwner;  // (GIL) the thread in run()
    py::object onRaw = py::none();            // (GIL)
    py::object onOffline = py::none();        // (GIL)
    py::object onTimer = py::none();          // (GIL)
    std::map<std::string, std::shared_ptr<Node>> nodes;  // (GIL)
};

// The apartment that is open, if any (GIL). Heap-held so that no Python
// object is destroyed by static destructors after the interpreter is gone.
std::shared_ptr<Shared>* g_open = new std::shared_ptr<Shared>();

// A library call in progress. Made with the GIL held; while any exists,
// close() does not uninitialise.
class Call {
public:
    explicit Call(Shared& shared) : m_shared(shared) {
        if (!shared.open) raiseClosed();
        ++shared.inFlight;
        ++t_hostCalls;
    }
    ~Call() {
        --t_hostCalls;
        if (--m_shared.inFlight == 0) {
            std::lock_guard<std::mutex> lock(m_shared.idleMutex);
            m_shared.idle.notify_all();
        }
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

private:
    Shared& m_shared;
};

void checkMayPump(Shared& shared, const char* what) {
    if (t_rawFrame)
        raise(g_error, std::string(what) + " is not allowed inside on_raw (a library thread)");
    if (shared.runOwner && *shared.runOwner != std::this_thread::get_id())
        raise(g_error, std::string(what) + ": another thread is running the apartment");
}

struct Node {
    std::shared_ptr<Shared> shared;
    std::string name;
    py::object onRequest = py::none();  // (GIL), as the callables below
    py::object onNotify = py::none();
    py::object onOffline = py::none();
    py::object onTimer = py::none();
    bool closed = false;  // (GIL)

    Shared& live() {
        if (!shared->open) raiseClosed();
        if (closed) raise(g_error, "node '" + name + "' is closed");
        return *shared;
    }
};

// ---- what a request is and what answers it

struct Response {
    unsigned int id;
    int code;
    py::bytes data;
    double rtt;
};

// A request or notification as a node's callback sees it; answerable once,
// during the callback or later from any thread.
struct Request {
    std::shared_ptr<Shared> shared;
    std::string node, sourceUrl, sourceNode, targetUrl;
    unsigned int id;
    py::bytes data;
    bool expectsResponse;
    std::atomic<bool> answered{false};

    // GIL held; the library's status.
    int write(int code, Payload& payload) {
        Call call(*shared);
        int status;
        {
            py::gil_scoped_release nogil;
            status = apartment_node_write_response(nullptr, node.c_str(), sourceUrl.c_str(),
                                                   sourceNode.c_str(), id, code, payload.data(),
                                                   payload.size());
        }
        return status;
    }

    void respond(py::handle data, long long code) {
        if (!expectsResponse) raise(g_error, "a notification takes no response");
        if (code < INT_MIN || code > INT_MAX) throw py::value_error("code must fit in 32 bits");
        Payload payload(data);
        if (answered.exchange(true)) raise(g_error, "request " + std::to_string(id) + " was already answered");
        const int status = write(static_cast<int>(code), payload);
        if (status != 0) raiseStatus(status, "response to " + sourceUrl + " failed");
    }

    // An answer given on the host's behalf; its failure is nobody's to hear.
    void respondQuietly(int code) noexcept {
        if (answered.exchange(true) || !shared->open) return;
        try {
            py::bytes none;
            Payload payload(none);
            write(code, payload);
        } catch (py::error_already_set&) {
            PyErr_Clear();
        } catch (...) {
        }
    }
};

// Time-outs for reading and dispatching: slices until a deadline.
class Deadline {
public:
    explicit Deadline(std::optional<long long> ms)
        : m_end(ms ? std::optional<Clock::time_point>(Clock::now() + std::chrono::milliseconds(*ms))
                   : std::nullopt) {}
    bool passed() const { return m_end && Clock::now() >= *m_end; }
    int sliceMs() const {
        if (!m_end) return SLICE_MS;
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(*m_end - Clock::now()).count();
        return static_cast<int>(std::clamp<long long>(left, 0, SLICE_MS));
    }

private:
    std::optional<Clock::time_point> m_end;
};

Response nodeRequest(Node& node, const std::string& url, const std::string& remoteNode,
                     py::handle data, double timeout) {
    Shared& shared = node.live();
    if (t_rawFrame) raise(g_error, "requests are not allowed inside on_raw (a library thread)");
    const std::string remote = remoteUrl(url);
    const std::string target = asciiName(remoteNode, "remote node name");
    const long long timeoutMs = toMs(timeout, "timeout", INT_MAX);
    Payload payload(data);
    Call call(shared);
    const std::string what = "request to node '" + target + "' of " + remote;
    const Clock::time_point start = Clock::now();
    unsigned int id = 0;
    int status;
    {
        py::gil_scoped_release nogil;
        status = apartment_node_write_request(nullptr, node.name.c_str(), remote.c_str(),
                                              target.c_str(), payload.data(), payload.size(), id);
    }
    raiseDeferred();
    if (status != 0) raiseStatus(status, what + " failed");

    // A reader that is also the pumping thread dispatches while it waits, so
    // the callbacks of this process go on running meanwhile.
    const Deadline deadline(timeoutMs);
    int code = 0;
    unsigned int length = 0;
    for (;;) {
        const int slice = deadline.sliceMs();
        {
            py::gil_scoped_release nogil;
            status = apartment_node_read_response(nullptr, node.name.c_str(), id, code, nullptr,
                                                  length, slice);
        }
        raiseDeferred();
        if (status == 0) break;
        if (status != APARTMENT_METHOD_FAILED) raiseStatus(status, what + " failed");
        if (!shared.open) raiseClosed();
        checkSignals();
        if (deadline.passed())
            raise(g_timeout, what + ": no response within " + std::to_string(timeoutMs) + " ms",
                  APARTMENT_METHOD_FAILED);
    }
    std::string bytes(length, '\0');
    char empty = 0;
    {
        py::gil_scoped_release nogil;
        status = apartment_node_read_response(nullptr, node.name.c_str(), id, code,
                                              length ? &bytes[0] : &empty, length, 0);
    }
    if (status != 0) raiseStatus(status, what + ": reading the response failed");
    const double rtt = std::chrono::duration<double>(Clock::now() - start).count();
    return Response{id, code, py::bytes(bytes), rtt};
}

void nodeNotify(Node& node, const std::string& url, const std::string& remoteNode,
                py::handle data) {
    Shared& shared = node.live();
    const std::string remote = remoteUrl(url);
    const std::string target = asciiName(remoteNode, "remote node name");
    Payload payload(data);
    Call call(shared);
    unsigned int id = 0;
    int status;
    {
        py::gil_scoped_release nogil;
        status = apartment_node_write_notify(nullptr, node.name.c_str(), remote.c_str(),
                                             target.c_str(), payload.data(), payload.size(), id);
    }
    if (status != 0)
        raiseStatus(status, "notification to node '" + target + "' of " + remote + " failed");
}

unsigned int setTimer(Shared& shared, const char* node, double delay,
                      std::optional<double> interval) {
    const long long lagMs = toMs(delay, "delay", UINT_MAX - 1);
    long long intervalMs = 0;
    if (interval) {
        intervalMs = toMs(*interval, "interval", UINT_MAX - 1);
        if (intervalMs == 0)
            throw py::value_error("interval must be positive (None for a one-shot timer)");
    }
    Call call(shared);
    const unsigned int id =
        apartment_set_timer(nullptr, node, static_cast<unsigned int>(lagMs),
                            static_cast<unsigned int>(intervalMs));
    if (id == NO_TIMER) raise(g_error, "the timer could not be set");
    return id;
}

// ---- callbacks the library calls

// Takes the GIL and counts a running callback; `ok` is false when Python
// is going away or the apartment was closed meanwhile.
class CallbackScope {
public:
    explicit CallbackScope(const Shared& shared) {
        if (!pythonAlive()) return;
        m_gil.emplace();
        ++t_callbacks;
        m_ok = shared.open;
    }
    ~CallbackScope() {
        if (m_gil) --t_callbacks;
    }
    bool ok() const { return m_ok; }

private:
    std::optional<py::gil_scoped_acquire> m_gil;
    bool m_ok = false;
};

// Drops a Python-holding member with the GIL, or leaks it when the
// interpreter is gone (nothing may touch Python objects then).
template <class T>
void releaseWithGil(std::shared_ptr<T>& held) {
    if (!held) return;
    if (pythonAlive()) {
        py::gil_scoped_acquire gil;
        held.reset();
    } else {
        new std::shared_ptr<T>(std::move(held));
    }
}

class ApartmentCallback final : public ApartmentHost::TCountedCallback<IApartmentCallback> {
public:
    explicit ApartmentCallback(std::shared_ptr<Shared> shared) : m_shared(std::move(shared)) {}

    void onTimer(unsigned int uintTimerId) override {
        CallbackScope scope(*m_shared);
        if (!scope.ok() || m_shared->onTimer.is_none()) return;
        py::object f = m_shared->onTimer;
        guarded(f, [&] { f(uintTimerId); });
    }
    void onApartmentOffline(const char* strRemoteApartmentUrl) override {
        CallbackScope scope(*m_shared);
        if (!scope.ok() || m_shared->onOffline.is_none()) return;
        py::object f = m_shared->onOffline;
        guarded(f, [&] { f(std::string(strRemoteApartmentUrl ? strRemoteApartmentUrl : "")); });
    }
    void onRawFrameReceived(unsigned int uintFrameType, const void* pBuffer,
                            unsigned int uintBufLen) override {
        CallbackScope scope(*m_shared);
        if (!scope.ok() || m_shared->onRaw.is_none()) return;
        const bool wasRaw = t_rawFrame;
        t_rawFrame = true;
        py::object f = m_shared->onRaw;
        guarded(f, [&] {
            f(uintFrameType, py::bytes(static_cast<const char*>(pBuffer), uintBufLen));
        });
        t_rawFrame = wasRaw;
    }

private:
    ~ApartmentCallback() override { releaseWithGil(m_shared); }
    std::shared_ptr<Shared> m_shared;
};

class NodeCallback final : public ApartmentHost::TCountedCallback<IApartmentNodeCallback> {
public:
    explicit NodeCallback(std::shared_ptr<Node> node) : m_node(std::move(node)) {}

    void onTimer(unsigned int uintTimerId) override {
        CallbackScope scope(*m_node->shared);
        if (!scope.ok() || m_node->onTimer.is_none()) return;
        py::object f = m_node->onTimer;
        guarded(f, [&] { f(uintTimerId); });
    }
    void onApartmentOffline(const char* strApartmentUrl) override {
        CallbackScope scope(*m_node->shared);
        if (!scope.ok() || m_node->onOffline.is_none()) return;
        py::object f = m_node->onOffline;
        guarded(f, [&] { f(std::string(strApartmentUrl ? strApartmentUrl : "")); });
    }
    void onRequestReceived(const char* strSourceApartmentUrl, const char* strSourceNodeUrl,
                           const char* strTargetApartmentUrl, const char* strTargetNodeUrl,
                           unsigned int uintRequestId, const void* pRequestBuffer,
                           unsigned int uintBufLen, bool bRequireResponse) override {
        CallbackScope scope(*m_node->shared);
        if (!scope.ok()) return;
        py::object f = bRequireResponse ? m_node->onRequest : m_node->onNotify;
        std::shared_ptr<Request> request;
        const bool ok = guarded(f, [&] {
            request = makeRequest(strSourceApartmentUrl, strSourceNodeUrl, strTargetApartmentUrl,
                                  strTargetNodeUrl, uintRequestId, pRequestBuffer, uintBufLen,
                                  bRequireResponse);
            if (f.is_none()) {
                // Answered at once, so that the requester learns why rather
                // than waiting for its time-out.
                if (bRequireResponse) request->respondQuietly(REQUEST_METHOD_NOT_FOUND);
                return;
            }
            py::object result = f(request);
            if (!bRequireResponse || result.is_none() || request->answered) return;
            if (PyUnicode_Check(result.ptr()) || !PyObject_CheckBuffer(result.ptr()))
                throw py::type_error("on_request must return bytes-like or None, not " +
                                     py::str(py::type::handle_of(result).attr("__name__"))
                                         .cast<std::string>());
            request->respond(result, REQUEST_OK);
        });
        if (!ok && request && bRequireResponse) request->respondQuietly(REQUEST_OPERATE_FAILED);
    }

private:
    std::shared_ptr<Request> makeRequest(const char* sourceUrl, const char* sourceNode,
                                         const char* targetUrl, const char* targetNode,
                                         unsigned int id, const void* buffer, unsigned int length,
                                         bool expectsResponse) {
        auto request = std::make_shared<Request>();
        request->shared = m_node->shared;
        request->node = targetNode ? targetNode : m_node->name;
        request->sourceUrl = sourceUrl ? sourceUrl : "";
        request->sourceNode = sourceNode ? sourceNode : "";
        request->targetUrl = targetUrl ? targetUrl : "";
        request->id = id;
        request->data = py::bytes(static_cast<const char*>(buffer), length);
        request->expectsResponse = expectsResponse;
        return request;
    }

    ~NodeCallback() override { releaseWithGil(m_node); }
    std::shared_ptr<Node> m_node;
};

// ---- the Python-facing operations

std::shared_ptr<Node> createNode(const std::shared_ptr<Shared>& shared, const std::string& name,
                                 py::object onRequest, py::object onNotify, py::object onOffline,
                                 py::object onTimer) {
    asciiName(name, "node name");
    if (!shared->open) raiseClosed();
    if (shared->nodes.count(name)) raise(g_error, "node '" + name + "' exists already");
    auto node = std::make_shared<Node>();
    node->shared = shared;
    node->name = name;
    node->onRequest = std::move(onRequest);
    node->onNotify = std::move(onNotify);
    node->onOffline = std::move(onOffline);
    node->onTimer = std::move(onTimer);
    Call call(*shared);
    if (!apartment_node_create(nullptr, name.c_str())) raise(g_error, "node '" + name + "' could not be created");
    auto* callback = new NodeCallback(node);
    const bool installed = apartment_node_set_callback(nullptr, name.c_str(), callback);
    callback->releaseRef();  // the library keeps its own reference
    if (!installed) {
        apartment_node_destroy(nullptr, name.c_str());
        raise(g_error, "node '" + name + "' could not be created");
    }
    shared->nodes[name] = node;
    return node;
}

void closeNode(Node& node) {
    if (node.closed) return;
    node.closed = true;
    Shared& shared = *node.shared;
    shared.nodes.erase(node.name);
    if (!shared.open) return;
    Call call(shared);
    apartment_node_destroy(nullptr, node.name.c_str());
}

Node& defaultNode(const std::shared_ptr<Shared>& shared) {
    auto found = shared->nodes.find(DEFAULT_NODE);
    if (found != shared->nodes.end()) return *found->second;
    return *createNode(shared, DEFAULT_NODE, py::none(), py::none(), py::none(), py::none());
}

// Dispatches for at most one slice of the deadline with the GIL released,
// then raises what a callback deferred. A refusal that comes at once
// (dispatch stopped, or bound to another thread) is followed by a
// millisecond's rest, so that the caller's loop does not spin. The
// dispatch's result.
int dispatchSlice(const Deadline& deadline) {
    int result;
    {
        py::gil_scoped_release nogil;
        const Clock::time_point before = Clock::now();
        result = apartment_dispatch_message(nullptr, ApartmentHost::monotonicDeadline(deadline.sliceMs()));
        if (result < 0 && Clock::now() - before < std::chrono::milliseconds(1))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    raiseDeferred();
    return result;
}

// Waits for one message (timeout None: without limit) and dispatches it.
bool dispatchOne(Shared& shared, std::optional<double> timeout) {
    checkMayPump(shared, "dispatch()");
    const Deadline deadline(timeout ? std::optional<long long>(toMs(*timeout, "timeout", LLONG_MAX / 2))
                                    : std::nullopt);
    Call call(shared);
    for (;;) {
        if (dispatchSlice(deadline) >= 0) return true;
        if (!shared.open) return false;
        checkSignals();
        if (deadline.passed()) return false;
    }
}

// Marks the thread in run(); nested run() on that thread shares the mark.
// Dispatching is not bound to it in the library: binding while another
// thread waits inside the library's queue would make that thread take a
// message and drop it. So requests from other threads pump while they wait,
// and their callbacks may run there too.
class RunOwnership {
public:
    explicit RunOwnership(Shared& shared) : m_shared(shared) {
        checkMayPump(shared, "run()");
        if (shared.runOwner) return;
        shared.runOwner = std::this_thread::get_id();
        shared.stopRequested = false;
        m_outermost = true;
    }
    ~RunOwnership() {
        if (m_outermost) m_shared.runOwner.reset();
    }
    RunOwnership(const RunOwnership&) = delete;
    RunOwnership& operator=(const RunOwnership&) = delete;

private:
    Shared& m_shared;
    bool m_outermost = false;
};

bool run(Shared& shared, py::object until, std::optional<double> timeout) {
    const Deadline deadline(timeout ? std::optional<long long>(toMs(*timeout, "timeout", LLONG_MAX / 2))
                                    : std::nullopt);
    Call call(shared);
    RunOwnership owner(shared);
    for (;;) {
        if (!until.is_none() && py::bool_(until())) return true;
        if (shared.stopRequested || !shared.open || deadline.passed()) return false;
        dispatchSlice(deadline);
        checkSignals();
    }
}

void closeShared(const std::shared_ptr<Shared>& shared) {
    if (!shared->open) return;
    if (t_callbacks > 0) raise(g_error, "close() is not allowed inside a callback");
    if (t_hostCalls > 0) raise(g_error, "close() is not allowed while this thread is in a call");
    shared->open = false;
    {
        // Every call in flight notices within a slice (or a bounded write
        // or connect) that the apartment is closing.
        py::gil_scoped_release nogil;
        {
            std::unique_lock<std::mutex> lock(shared->idleMutex);
            shared->idle.wait(lock, [&] { return shared->inFlight == 0; });
        }
        apartment_uninitialize();
    }
    for (auto& entry : shared->nodes) entry.second->closed = true;
    shared->nodes.clear();
    shared->onRaw = shared->onOffline = shared->onTimer = py::none();
    if (*g_open == shared) g_open->reset();
}

unsigned int kernelPort(const std::string& host) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return 0;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    socklen_t length = sizeof address;
    unsigned int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    close(fd);
    return port;
}

std::shared_ptr<Shared> openApartment(const std::string& url, py::object onRaw,
                                      py::object onOffline, py::object onTimer) {
    const Address address = parseUrl(url, true);
    if (*g_open) raise(g_error, "an apartment is open already in this process: " + (*g_open)->url);
    std::string opened;
    // Port 0: the kernel names a free port, which is then ours unless
    // another process takes it first; a few attempts settle that race.
    for (int attempt = 0; attempt < (address.port == 0 ? 20 : 1) && opened.empty(); ++attempt) {
        const unsigned int port = address.port ? address.port : kernelPort(address.host);
        if (port == 0) continue;
        const std::string candidate = "tcp://" + address.host + ":" + std::to_string(port);
        if (apartment_initialize(candidate.c_str(), true)) opened = candidate;
    }
    if (opened.empty())
        raise(g_error, "cannot open an apartment at " + url + " (address in use or not local)");
    auto shared = std::make_shared<Shared>();
    shared->url = opened;
    shared->onRaw = std::move(onRaw);
    shared->onOffline = std::move(onOffline);
    shared->onTimer = std::move(onTimer);
    auto* callback = new ApartmentCallback(shared);
    apartment_set_callback(nullptr, callback);
    callback->releaseRef();
    *g_open = shared;
    return shared;
}

void connectRemote(Shared& shared, const std::string& url, bool realtime) {
    const std::string remote = remoteUrl(url);
    Call call(shared);
    bool ok;
    {
        py::gil_scoped_release nogil;
        ok = apartment_has_connect_remote(nullptr, remote.c_str(), realtime) ||
             apartment_connect_remote(nullptr, remote.c_str(), realtime);
    }
    if (!ok)
        raise(g_error, std::string("cannot connect the ") + (realtime ? "real-time" : "non-real-time") +
                           " link to " + remote);
}

std::string libraryVersion() {
    IModuleVersion* version = apartment_get_module_version();
    if (version == nullptr) return "";
    unsigned long length = 0;
    std::string text;
    if (version->getShortVersion(nullptr, length) && length > 0) {
        text.assign(length, '\0');
        if (!version->getShortVersion(&text[0], length)) text.clear();
        text.resize(text.empty() ? 0 : length - 1);
    }
    version->releaseRef();
    return text;
}

// Unwraps a parameter documented as "callable or None".
py::object callableOrNone(py::object f, const char* what) {
    if (!f.is_none() && !PyCallable_Check(f.ptr()))
        throw py::type_error(std::string(what) + " must be callable or None");
    return f;
}

// Callback attributes of a class: each reads its callable, and takes a
// callable or None.
template <class Owner>
void callbackProperties(py::class_<Owner, std::shared_ptr<Owner>>& cls,
                        std::initializer_list<std::pair<const char*, py::object Owner::*>> members) {
    for (const auto& [name, member] : members)
        cls.def_property(
            name, [member = member](const Owner& o) { return o.*member; },
            [name = name, member = member](Owner& o, py::object f) { o.*member = callableOrNone(f, name); });
}

}  // namespace

PYBIND11_MODULE(_apartment, m) {
    m.doc() = "Compiled core of the apartment package; import `apartment` instead.";

    py::object error = py::reinterpret_steal<py::object>(PyErr_NewExceptionWithDoc(
        "apartment.Error",
        "A call into the library failed. `code` is the library's status code "
        "(an ErrorCode value) when it gave one, else None.",
        PyExc_Exception, nullptr));
    error.attr("code") = py::none();
    py::tuple timeoutBases = py::make_tuple(error, py::handle(PyExc_TimeoutError));
    py::object timeout = py::reinterpret_steal<py::object>(PyErr_NewExceptionWithDoc(
        "apartment.Timeout", "No response came within the time-out.", timeoutBases.ptr(),
        nullptr));
    g_error = error.inc_ref();
    g_timeout = timeout.inc_ref();
    m.attr("Error") = error;
    m.attr("Timeout") = timeout;
    m.attr("DEFAULT_NODE") = DEFAULT_NODE;

    py::class_<Response>(m, "Response", "A response to a request.")
        .def_readonly("id", &Response::id, "The request id.")
        .def_readonly("code", &Response::code, "The responder's code (ResponseCode.OK is 0).")
        .def_readonly("data", &Response::data, "The responder's bytes.")
        .def_readonly("rtt", &Response::rtt, "Seconds from sending the request to reading this.")
        .def_property_readonly("ok", [](const Response& r) { return r.code == REQUEST_OK; },
                               "Whether the code is ResponseCode.OK.")
        .def("__repr__", [](const Response& r) {
            return "<Response id=" + std::to_string(r.id) + " code=" + std::to_string(r.code) +
                   " data=" + py::repr(r.data).cast<std::string>() + " rtt=" +
                   std::to_string(r.rtt * 1000.0) + " ms>";
        });

    py::class_<Request, std::shared_ptr<Request>>(
        m, "Request", "A request or notification received by a node.")
        .def_readonly("node", &Request::node, "The receiving node's name.")
        .def_readonly("source_url", &Request::sourceUrl, "The sender's apartment URL.")
        .def_readonly("source_node", &Request::sourceNode, "The sending node's name.")
        .def_readonly("target_url", &Request::targetUrl, "The URL the sender addressed.")
        .def_readonly("id", &Request::id, "The request id, unique per sender.")
        .def_readonly("data", &Request::data, "The request's bytes.")
        .def_readonly("expects_response", &Request::expectsResponse,
                      "True for a request, False for a notification.")
        .def_property_readonly("answered", [](const Request& r) { return r.answered.load(); },
                               "Whether a response was sent.")
        .def("respond", &Request::respond, py::arg("data") = py::bytes(), py::arg("code") = 0,
             "Sends the response (once); callable during the callback or later from any "
             "thread while the apartment is open.")
        .def("__repr__", [](const Request& r) {
            return std::string(r.expectsResponse ? "<Request" : "<Notification") + " id=" +
                   std::to_string(r.id) + " from " + r.sourceUrl + "/" + r.sourceNode + " to " +
                   r.node + " data=" + py::repr(r.data).cast<std::string>() + ">";
        });

    py::class_<Node, std::shared_ptr<Node>> node(m, "Node", "A named endpoint of the apartment.");
    callbackProperties(node, {{"on_request", &Node::onRequest}, {"on_notify", &Node::onNotify},
                              {"on_offline", &Node::onOffline}, {"on_timer", &Node::onTimer}});
    node.def_readonly("name", &Node::name)
        .def("request", &nodeRequest, py::arg("url"), py::arg("node"),
             py::arg("data") = py::bytes(), py::kw_only(), py::arg("timeout") = 5.0,
             "Sends a request to `node` of the apartment at `url` and returns its Response.\n\n"
             "Raises Timeout after `timeout` seconds, Error when it cannot be sent. While it\n"
             "waits, this process's callbacks keep running.")
        .def("notify", &nodeNotify, py::arg("url"), py::arg("node"), py::arg("data") = py::bytes(),
             "Sends a notification (no response comes).")
        .def("set_timer",
             [](Node& n, double delay, std::optional<double> interval) {
                 return setTimer(n.live(), n.name.c_str(), delay, interval);
             },
             py::arg("delay"), py::arg("interval") = py::none(),
             "Calls on_timer(id) after `delay` seconds, then every `interval` (None: once);\n"
             "returns the timer id.")
        .def("kill_timer",
             [](Node& n, unsigned int id) {
                 Call call(n.live());
                 return apartment_kill_timer(nullptr, n.name.c_str(), id);
             },
             py::arg("timer_id"), "Stops a timer; False if it is unknown.")
        .def_property_readonly("closed", [](const Node& n) { return n.closed || !n.shared->open; })
        .def("close", &closeNode, "Destroys the node; its timers stop.")
        .def("__repr__", [](const Node& n) { return "<Node '" + n.name + "'>"; });

    py::class_<Shared, std::shared_ptr<Shared>> apartment(m, "Apartment", "This process's apartment.");
    callbackProperties(apartment, {{"on_raw", &Shared::onRaw}, {"on_offline", &Shared::onOffline},
                                   {"on_timer", &Shared::onTimer}});
    apartment.def_readonly("url", &Shared::url)
        .def_property_readonly("closed", [](const Shared& s) { return !s.open; })
        .def("node",
             [](const std::shared_ptr<Shared>& s, const std::string& name, py::object onRequest,
                py::object onNotify, py::object onOffline, py::object onTimer) {
                 return createNode(s, name, callableOrNone(onRequest, "on_request"),
                                   callableOrNone(onNotify, "on_notify"),
                                   callableOrNone(onOffline, "on_offline"),
                                   callableOrNone(onTimer, "on_timer"));
             },
             py::arg("name"), py::kw_only(), py::arg("on_request") = py::none(),
             py::arg("on_notify") = py::none(), py::arg("on_offline") = py::none(),
             py::arg("on_timer") = py::none(),
             "Creates the node `name` (ASCII, unique here) with its callbacks.")
        .def("request",
             [](const std::shared_ptr<Shared>& s, const std::string& url, const std::string& node,
                py::handle data, double timeout) {
                 return nodeRequest(defaultNode(s), url, node, data, timeout);
             },
             py::arg("url"), py::arg("node"), py::arg("data") = py::bytes(), py::kw_only(),
             py::arg("timeout") = 5.0, "Node.request from the node DEFAULT_NODE.")
        .def("notify",
             [](const std::shared_ptr<Shared>& s, const std::string& url, const std::string& node,
                py::handle data) { nodeNotify(defaultNode(s), url, node, data); },
             py::arg("url"), py::arg("node"), py::arg("data") = py::bytes(),
             "Node.notify from the node DEFAULT_NODE.")
        .def("send_raw",
             [](Shared& s, const std::string& url, py::handle data, unsigned int frameType) {
                 const std::string remote = remoteUrl(url);
                 Payload payload(data);
                 if (remote != s.url) connectRemote(s, remote, true);
                 Call call(s);
                 int status;
                 const unsigned int length = payload.size();
                 {
                     py::gil_scoped_release nogil;
                     status = apartment_raw_write(nullptr, remote.c_str(), frameType,
                                                  payload.data(), length);
                 }
                 if (status != 0) raiseStatus(status, "raw frame to " + remote + " failed");
             },
             py::arg("url"), py::arg("data"), py::kw_only(), py::arg("frame_type") = 0,
             "Sends a raw frame over the real-time link to `url`, opening it if needed.")
        .def("connect", &connectRemote, py::arg("url"), py::kw_only(),
             py::arg("realtime") = false, "Opens the link to `url` now; Error if refused.")
        .def("is_connected",
             [](Shared& s, const std::string& url, bool realtime) {
                 const std::string remote = remoteUrl(url);
                 Call call(s);
                 return apartment_has_connect_remote(nullptr, remote.c_str(), realtime);
             },
             py::arg("url"), py::kw_only(), py::arg("realtime") = false)
        .def("disconnect",
             [](Shared& s, const std::string& url, bool realtime) {
                 const std::string remote = remoteUrl(url);
                 Call call(s);
                 py::gil_scoped_release nogil;
                 return apartment_disconnect_remote(nullptr, remote.c_str(), realtime);
             },
             py::arg("url"), py::kw_only(), py::arg("realtime") = false,
             "Closes the link to `url`; False if there was none.")
        .def("set_timer",
             [](Shared& s, double delay, std::optional<double> interval) {
                 return setTimer(s, nullptr, delay, interval);
             },
             py::arg("delay"), py::arg("interval") = py::none(),
             "An apartment-level timer (see Node.set_timer); fires on_timer.")
        .def("kill_timer",
             [](Shared& s, unsigned int id) {
                 Call call(s);
                 return apartment_kill_timer(nullptr, nullptr, id);
             },
             py::arg("timer_id"))
        .def("watch",
             [](Shared& s, const std::string& url, double interval, unsigned int count) {
                 const std::string remote = remoteUrl(url);
                 const long long ms = toMs(interval, "interval", UINT_MAX - 1);
                 if (ms == 0) throw py::value_error("interval must be positive");
                 if (count == 0) throw py::value_error("count must be at least 1");
                 connectRemote(s, remote, false);
                 Call call(s);
                 if (!apartment_keepalive_with(nullptr, remote.c_str(), count,
                                               static_cast<unsigned int>(ms)))
                     raise(g_error, remote + " is watched already");
             },
             py::arg("url"), py::kw_only(), py::arg("interval") = 1.0, py::arg("count") = 3,
             "Heartbeat: an alive frame every `interval` seconds; after `count` unanswered\n"
             "ones, on_offline(url) on every period until the remote answers.")
        .def("unwatch",
             [](Shared& s, const std::string& url) {
                 const std::string remote = remoteUrl(url);
                 Call call(s);
                 return apartment_keepalive_with(nullptr, remote.c_str(), 0, 0);
             },
             py::arg("url"), "Stops watching `url`; False if it was not watched.")
        .def("dispatch", &dispatchOne, py::arg("timeout") = py::none(),
             "Waits up to `timeout` seconds (None: no limit) for one message and dispatches\n"
             "it; False if none came or the apartment was closed.")
        .def("run", &run, py::kw_only(), py::arg("until") = py::none(),
             py::arg("timeout") = py::none(),
             "Dispatches until until() is true (True), or the time-out, stop() or close()\n"
             "(False).")
        .def("stop", [](Shared& s) { s.stopRequested = true; }, "Makes run() return.")
        .def("close", &closeShared,
             "Waits for calls on other threads to return, then closes the apartment.")
        .def("__enter__", [](const std::shared_ptr<Shared>& s) { return s; })
        .def("__exit__",
             [](const std::shared_ptr<Shared>& s, py::args) {
                 closeShared(s);
                 return false;
             })
        .def("__repr__", [](const Shared& s) {
            return "<Apartment " + s.url + (s.open ? "" : " closed") + ">";
        });

    m.def("open",
          [](const std::string& url, py::object onRaw, py::object onOffline, py::object onTimer) {
              return openApartment(url, callableOrNone(onRaw, "on_raw"),
                                   callableOrNone(onOffline, "on_offline"),
                                   callableOrNone(onTimer, "on_timer"));
          },
          py::arg("url") = "tcp://127.0.0.1:0", py::kw_only(),
          py::arg("on_raw") = py::none(), py::arg("on_offline") = py::none(),
          py::arg("on_timer") = py::none(),
          "Opens this process's apartment at `url` (port 0: a free port from the kernel).");
    m.def("version", &libraryVersion, "The library's version, \"major.minor.revision\".");

    // An apartment left open must be closed while threads can still take
    // the GIL: library threads that call back would hang in finalisation.
    py::module_::import("atexit").attr("register")(py::cpp_function([] {
        if (*g_open && t_callbacks == 0 && t_hostCalls == 0) closeShared(*g_open);
    }));
}
