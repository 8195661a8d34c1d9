#include "Server.h"

#include <microhttpd.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <ostream>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Beacon/StopSignals.h"
#include "Linger.h"
#include "Page.h"

namespace Stat {

namespace {

using Clock = std::chrono::steady_clock;

// Beyond the soft limit requests are answered 503 and their connections
// closed; beyond the hard limit new connections are closed unanswered. 16
// KiB a connection bounds the buffers to 8 MiB.
constexpr unsigned kHardConnectionLimit = 512;
constexpr std::size_t kSoftConnectionLimit = 384;
constexpr std::size_t kConnectionMemory = std::size_t{16} * 1024;
constexpr unsigned kIdleSeconds = 10;
// The whole header section must arrive within this, however slowly it
// trickles in: the idle timeout alone is reset by every byte.
constexpr std::chrono::seconds kHeaderDeadline{10};
// How often at least stalled connections are looked for.
constexpr int kSweepMilliseconds = 200;

const char* const kMetricsType = "text/plain; version=0.0.4; charset=utf-8";
const char* const kTextType = "text/plain; charset=utf-8";
const char* const kJsonType = "application/json";

// Every open connection, with the time its current request began.
class Connections {
 public:
  void opened(const MHD_Connection* connection, int fd) {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_[connection] = Tracked{fd, Clock::now(), false, false};
  }

  // The connection's descriptor, still open until the caller returns to
  // the library, or -1.
  int closed(const MHD_Connection* connection) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = open_.find(connection);
    if (found == open_.end()) {
      return -1;
    }
    const int fd = found->second.fd;
    open_.erase(found);
    return fd;
  }

  std::size_t count() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return open_.size();
  }

  // The request is read whole and being answered: no deadline until the
  // answer is out.
  void answering(const MHD_Connection* connection) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = open_.find(connection);
    if (found != open_.end()) {
      found->second.inRequest = true;
    }
  }

  // The answer is out: the next request's headers are due from now.
  void requestDone(const MHD_Connection* connection) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = open_.find(connection);
    if (found != open_.end()) {
      found->second.inRequest = false;
      found->second.since = Clock::now();
    }
  }

  // Shuts down every connection whose request headers are overdue. The
  // event loop then sees the connection end and closes it; the descriptor
  // is still the connection's, since closed() waits for the same mutex.
  void dropStalled() {
    const Clock::time_point now = Clock::now();
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto& entry : open_) {
      Tracked& tracked = entry.second;
      if (!tracked.inRequest && !tracked.dropped && now - tracked.since >= kHeaderDeadline) {
        ::shutdown(tracked.fd, SHUT_RDWR);
        tracked.dropped = true;
      }
    }
  }

 private:
  struct Tracked {
    int fd;
    Clock::time_point since;
    bool inRequest;
    bool dropped;
  };

  std::mutex mutex_;
  std::unordered_map<const MHD_Connection*, Tracked> open_;
};

// One request, from its headers to its answer. `answer` is written by the
// sampler's thread before `ready`, and read by the event loop after.
struct Request {
  Endpoint which = Endpoint::health;
  const char* pageType = nullptr;  // a file of the page: its content type
  bool sampling = false;           // handed to the sampler
  Answer answer;
  std::atomic<bool> ready{false};
};

struct Context {
  Sampler& sampler;
  Connections& connections;
  Linger& linger;
  std::string refreshSeconds;  // the page's, for kRefreshHeader
};

const char* contentType(const Request& request) {
  if (request.answer.status != MHD_HTTP_OK) {
    return kTextType;
  }
  if (request.pageType != nullptr) {
    return request.pageType;
  }
  switch (request.which) {
    case Endpoint::metrics:
      return kMetricsType;
    case Endpoint::sample:
      return kJsonType;
    case Endpoint::health:
      break;
  }
  return kTextType;
}

// The page's headers: nothing but its own files runs in it, and a browser
// never takes the sample from a cache.
void addHeaders(const Context& context, const Request& request, MHD_Response* response) {
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType(request));
  MHD_add_response_header(response, "Content-Security-Policy", kContentSecurityPolicy);
  MHD_add_response_header(response, MHD_HTTP_HEADER_X_CONTENT_TYPE_OPTIONS, "nosniff");
  MHD_add_response_header(response, "Referrer-Policy", "no-referrer");
  if (request.pageType != nullptr) {
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-cache");
  } else if (request.which == Endpoint::sample) {
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    MHD_add_response_header(response, kRefreshHeader, context.refreshSeconds.c_str());
  }
}

// Queues `request`'s answer; `close` ends the connection after it.
MHD_Result queue(Context& context, MHD_Connection* connection, const Request& request, bool close) {
  context.connections.answering(connection);
  const Answer& answer = request.answer;
  MHD_Response* response =
      MHD_create_response_from_buffer(answer.body.size(), const_cast<char*>(answer.body.data()), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) {
    return MHD_NO;
  }
  addHeaders(context, request, response);
  if (answer.status == MHD_HTTP_METHOD_NOT_ALLOWED) {
    MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
  }
  if (close) {
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
  }
  const MHD_Result queued = MHD_queue_response(connection, static_cast<unsigned>(answer.status), response);
  MHD_destroy_response(response);
  return queued;
}

// True when the request announces a body, which neither endpoint reads.
bool hasBody(MHD_Connection* connection) {
  return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH) != nullptr ||
         MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_TRANSFER_ENCODING) != nullptr;
}

// Hands the request to the sampler; the connection waits, suspended, until
// the answer is there.
MHD_Result sample(Context& context, MHD_Connection* connection, Request& request) {
  context.connections.answering(connection);
  // Suspended first: the sampler may resume it before submit() returns.
  MHD_suspend_connection(connection);
  Request* const waiting = &request;
  const bool submitted = context.sampler.submit(request.which, [connection, waiting](Answer&& answer) {
    waiting->answer = std::move(answer);
    waiting->ready.store(true, std::memory_order_release);
    MHD_resume_connection(connection);
  });
  if (!submitted) {
    request.answer = Answer{503, "shutting down\n"};
    request.ready.store(true, std::memory_order_release);
    MHD_resume_connection(connection);
  }
  return MHD_YES;
}

// The first call for a request: its headers are complete. A request with a
// body, or of a method neither endpoint takes, is answered at once and its
// connection closed (the body is never read). Any other answer waits for
// the next call: an answer queued before the request is read whole makes
// the library close the connection.
MHD_Result begin(Context& context, MHD_Connection* connection, const char* url, const char* method, Request& request) {
  const std::string path = url;
  const bool read = std::strcmp(method, "GET") == 0 || std::strcmp(method, "HEAD") == 0;
  PageFile file;
  const bool page = findPageFile(path, file);
  const bool known = page || path == "/metrics" || path == "/healthz" || path == kSamplePath;
  request.which = path == "/metrics" ? Endpoint::metrics : path == kSamplePath ? Endpoint::sample : Endpoint::health;
  if (context.connections.count() > kSoftConnectionLimit) {
    request.answer = Answer{503, "too many connections\n"};
    return queue(context, connection, request, true);
  }
  if (!known) {
    request.answer = Answer{404, "not found\n"};
  } else if (!read) {
    request.answer = Answer{405, "method not allowed\n"};
  } else if (page) {
    request.answer = Answer{200, std::move(file.body)};
    request.pageType = file.contentType;
  } else {
    return MHD_YES;  // sampled on the next call
  }
  request.ready.store(true, std::memory_order_relaxed);
  return !read || hasBody(connection) ? queue(context, connection, request, true) : MHD_YES;
}

MHD_Result onRequest(void* cls, MHD_Connection* connection, const char* url, const char* method,
                     const char* /*version*/, const char* /*upload*/, std::size_t* uploadSize, void** state) {
  Context& context = *static_cast<Context*>(cls);
  auto* request = static_cast<Request*>(*state);
  if (request == nullptr) {
    auto fresh = std::make_unique<Request>();
    request = fresh.get();
    *state = fresh.release();  // deleted by onCompleted
    return begin(context, connection, url, method, *request);
  }
  if (*uploadSize != 0) {
    *uploadSize = 0;  // a body neither endpoint reads
    return MHD_YES;
  }
  if (request->ready.load(std::memory_order_acquire)) {
    return queue(context, connection, *request, false);
  }
  if (request->sampling) {
    return MHD_YES;
  }
  request->sampling = true;
  return sample(context, connection, *request);
}

void onCompleted(void* cls, MHD_Connection* connection, void** state, MHD_RequestTerminationCode /*why*/) {
  std::unique_ptr<Request> done(static_cast<Request*>(*state));
  *state = nullptr;
  static_cast<Context*>(cls)->connections.requestDone(connection);
}

void onConnection(void* cls, MHD_Connection* connection, void** /*socket*/, MHD_ConnectionNotificationCode what) {
  Context& context = *static_cast<Context*>(cls);
  if (what == MHD_CONNECTION_NOTIFY_STARTED) {
    const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (info != nullptr) {
      context.connections.opened(connection, info->connect_fd);
    }
    return;
  }
  // The library has shut down the writing side and closes the descriptor
  // once this returns.
  const int fd = context.connections.closed(connection);
  if (fd >= 0) {
    context.linger.add(fd);
  }
}

// The running server; stopped on destruction (every connection closed).
class Daemon {
 public:
  Daemon(int listening, Context& context)
      : daemon_(MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr,
                                 nullptr, &onRequest, &context, MHD_OPTION_LISTEN_SOCKET, listening,
                                 MHD_OPTION_CONNECTION_LIMIT, kHardConnectionLimit, MHD_OPTION_CONNECTION_TIMEOUT,
                                 kIdleSeconds, MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory,
                                 MHD_OPTION_NOTIFY_CONNECTION, &onConnection, &context, MHD_OPTION_NOTIFY_COMPLETED,
                                 &onCompleted, &context, MHD_OPTION_END)) {}
  ~Daemon() {
    if (daemon_ != nullptr) {
      MHD_stop_daemon(daemon_);
    }
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  bool ok() const { return daemon_ != nullptr; }

 private:
  MHD_Daemon* daemon_;
};

// Serves until SIGTERM or SIGINT: drops connections whose headers are
// overdue and drains the lingering ones meanwhile.
void serveUntilStopped(Beacon::StopSignals& signals, Connections& connections, Linger& linger) {
  std::vector<pollfd> fds;
  for (;;) {
    fds.assign(1, pollfd{signals.fd(), POLLIN, 0});
    linger.watch(fds);
    ::poll(fds.data(), fds.size(), kSweepMilliseconds);
    if (signals.drain() != 0) {
      return;
    }
    linger.drain();
    connections.dropStalled();
  }
}

// "1", "0.5": the shortest text that reads back as `seconds`.
std::string refreshText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", seconds);
  return text;
}

}  // namespace

int serve(const ListenAddress& where, const Endpoints& endpoints, std::ostream& out, std::ostream& err) {
  // SIGPIPE is taken quietly: a client that hangs up mid-answer costs an
  // error return, not the process. After a stop the signals stay blocked,
  // so a second one cannot kill a server that is ending with status 0.
  Beacon::StopSignals signals({SIGTERM, SIGINT}, {SIGPIPE});
  signals.keepBlockedAfterStop();
  if (!signals.ok()) {
    err << "heron-stat: cannot watch for SIGTERM and SIGINT: " << std::strerror(errno) << '\n';
    return 1;
  }
  std::uint16_t port = 0;
  std::string error;
  const int listening = openListeningSocket(where, port, error);
  if (listening < 0) {
    err << "heron-stat: cannot listen on " << formatListenAddress(where) << ": " << error << '\n';
    return 1;
  }
  out << "listening on " << formatListenAddress(ListenAddress{where.host, port}) << '\n';
  out.flush();
  if (!out) {
    ::close(listening);
    err << "heron-stat: cannot write the listening address\n";
    return 1;
  }
  Sampler sampler(endpoints);
  Connections connections;
  Linger linger;  // outlives the daemon, which adds to it until it stops
  Context context{sampler, connections, linger, refreshText(endpoints.refreshSeconds)};
  Daemon daemon(listening, context);  // owns `listening` once started
  if (!daemon.ok()) {
    ::close(listening);
    err << "heron-stat: cannot start the HTTP server on " << formatListenAddress(where) << '\n';
    return 1;
  }
  serveUntilStopped(signals, connections, linger);
  // Every suspended request is resumed before the daemon stops.
  sampler.stop();
  return 0;
}

}  // namespace Stat
