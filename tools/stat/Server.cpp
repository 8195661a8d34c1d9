#include "Server.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <mutex>
#include <ostream>
#include <thread>
#include <utility>
#include <vector>

namespace Stat {

namespace {

// Workers: every connection holds one for its whole life (keep-alive
// included), samples are taken one at a time anyway, so a few suffice; more
// only matter against clients that stall.
constexpr std::size_t kWorkers = 8;
// Accepted connections waiting for a worker. When it is full the accepting
// thread waits, and further clients wait in the kernel's listen backlog.
constexpr std::size_t kQueuedConnections = 256;
constexpr int kListenBacklog = 256;
constexpr time_t kReadTimeoutSeconds = 5;
constexpr time_t kWriteTimeoutSeconds = 5;
constexpr time_t kKeepAliveSeconds = 2;
constexpr std::size_t kKeepAliveRequests = 100;
// Neither endpoint takes a body.
constexpr std::size_t kMaxPayload = std::size_t{64} * 1024;

constexpr int kMmapThreshold = 64 * 1024;

const char* const kMetricsType = "text/plain; version=0.0.4; charset=utf-8";
const char* const kTextType = "text/plain; charset=utf-8";
const char* const kAllowed = "GET, HEAD";

// The worker pool handed to httplib: a fixed number of threads and a bounded
// queue. httplib's own pool queues without limit. A connection goes to the
// worker that went idle last, so that scrapes one after another reuse one
// worker and its stack pages, and the others only touch memory when clients
// really overlap.
class BoundedPool : public httplib::TaskQueue {
 public:
  BoundedPool(std::size_t workers, std::size_t capacity) : capacity_(capacity), idlers_(workers) {
    idle_.reserve(workers);
    threads_.reserve(workers);
    for (std::size_t i = 0; i < workers; ++i) {
      threads_.emplace_back([this, i] { work(i); });
    }
  }
  ~BoundedPool() override { BoundedPool::shutdown(); }
  BoundedPool(const BoundedPool&) = delete;
  BoundedPool& operator=(const BoundedPool&) = delete;

  void enqueue(std::function<void()> fn) override {
    std::unique_lock<std::mutex> lock(mutex_);
    roomy_.wait(lock, [this] { return jobs_.size() < capacity_; });
    jobs_.push_back(std::move(fn));
    if (!idle_.empty()) {
      Idler& idler = idlers_[idle_.back()];
      idle_.pop_back();
      idler.called = true;
      idler.wake.notify_one();
    }
  }

  // Runs what is queued, then joins the workers. Idempotent.
  void shutdown() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
      for (auto& idler : idlers_) {
        idler.wake.notify_one();
      }
    }
    for (auto& thread : threads_) {
      if (thread.joinable()) {
        thread.join();
      }
    }
  }

 private:
  struct Idler {
    std::condition_variable wake;
    bool called = false;
  };

  void work(std::size_t self) {
    Idler& idler = idlers_[self];
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      if (jobs_.empty() && !stopping_) {
        // enqueue() takes the worker off the idle stack when it calls it.
        idle_.push_back(self);
        idler.wake.wait(lock, [this, &idler] { return idler.called || stopping_; });
        idler.called = false;
        continue;
      }
      if (jobs_.empty()) {
        return;
      }
      std::function<void()> job = std::move(jobs_.front());
      jobs_.pop_front();
      lock.unlock();
      roomy_.notify_one();
      job();
      job = nullptr;
      lock.lock();
    }
  }

  const std::size_t capacity_;
  std::mutex mutex_;
  std::condition_variable roomy_;
  std::deque<std::function<void()>> jobs_;
  std::vector<Idler> idlers_;
  std::vector<std::size_t> idle_;  // idle workers, the one that went idle last at the back
  std::vector<std::thread> threads_;
  bool stopping_ = false;
};

// Takes every sample on one thread of its own; a worker hands it the request
// and waits for the text. What a sample touches (stack pages, the malloc
// arena its allocations come from) then belongs to the same thread every
// time and settles after the first scrapes, instead of growing each time a
// worker takes its first sample. Requests wait their turn, so metrics() runs
// one at a time.
class Sampler {
 public:
  explicit Sampler(const std::function<std::string()>& metrics) : metrics_(metrics), thread_([this] { work(); }) {}
  ~Sampler() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }
  Sampler(const Sampler&) = delete;
  Sampler& operator=(const Sampler&) = delete;

  // One fresh sample in `body`; false when metrics() failed.
  bool take(std::string& body) {
    const std::lock_guard<std::mutex> turn(turn_);
    std::unique_lock<std::mutex> lock(mutex_);
    wanted_ = true;
    wake_.notify_all();
    wake_.wait(lock, [this] { return !wanted_; });
    body = std::move(body_);
    body_.clear();
    return sampled_;
  }

 private:
  void work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return wanted_ || stopping_; });
      if (!wanted_) {
        return;
      }
      lock.unlock();
      std::string body;
      bool sampled = false;
      try {
        body = metrics_();
        sampled = true;
      } catch (const std::exception&) {
        sampled = false;
      }
      // A sample allocates and frees a lot (every process's maps file);
      // handing the freed pages back keeps the resident size from creeping
      // up with the fragments left over from scrape to scrape.
      ::malloc_trim(0);
      lock.lock();
      body_ = std::move(body);
      sampled_ = sampled;
      wanted_ = false;
      wake_.notify_all();
    }
  }

  const std::function<std::string()>& metrics_;
  std::mutex turn_;  // held by the one request being sampled
  std::mutex mutex_;
  std::condition_variable wake_;
  bool wanted_ = false;
  bool stopping_ = false;
  bool sampled_ = false;
  std::string body_;
  std::thread thread_;  // last: starts once the members above exist
};

// A file descriptor closed on scope exit.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Blocks the given signals in the calling thread (and so in every thread it
// starts) and restores the previous mask on scope exit.
class SignalBlock {
 public:
  explicit SignalBlock(const sigset_t& set) : ok_(::pthread_sigmask(SIG_BLOCK, &set, &previous_) == 0) {}
  ~SignalBlock() {
    if (ok_) {
      ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    }
  }
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;
  bool ok() const { return ok_; }

 private:
  sigset_t previous_{};
  bool ok_;
};

// Text from the command line quoted in an error line: control characters
// become '?', so nothing raw reaches a terminal.
std::string printable(const std::string& text) {
  std::string shown;
  shown.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    shown.push_back(byte < 0x20 || byte == 0x7f ? '?' : c);
  }
  return shown;
}

bool parsePort(const std::string& text, std::uint16_t& port) {
  if (text.empty() || text.size() > 5) {
    return false;
  }
  unsigned value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') {
      return false;
    }
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  if (value > 65535) {
    return false;
  }
  port = static_cast<std::uint16_t>(value);
  return true;
}

bool plainHostChar(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte > 0x20 && byte != 0x7f && c != ':' && c != '[' && c != ']' && c != '/';
}

bool isIpv6Literal(const std::string& host) { return host.find(':') != std::string::npos; }

void answerText(httplib::Response& res, int status, const char* body) {
  res.status = status;
  res.set_content(body, kTextType);
}

// Every request goes through here before httplib's own routing, so that the
// answer depends on the path first and the method second.
httplib::Server::HandlerResponse route(const httplib::Request& req, httplib::Response& res, Sampler& sampler) {
  const bool isMetrics = req.path == "/metrics";
  const bool isHealth = req.path == "/healthz";
  if (!isMetrics && !isHealth) {
    answerText(res, 404, "not found\n");
    return httplib::Server::HandlerResponse::Handled;
  }
  if (req.method != "GET" && req.method != "HEAD") {
    res.set_header("Allow", kAllowed);
    // The request may carry a body this server never reads.
    res.set_header("Connection", "close");
    answerText(res, 405, "method not allowed\n");
    return httplib::Server::HandlerResponse::Handled;
  }
  if (isHealth) {
    answerText(res, 200, "ok\n");
    return httplib::Server::HandlerResponse::Handled;
  }
  std::string body;
  const bool sampled = sampler.take(body);
  if (!sampled) {
    answerText(res, 500, "sample failed\n");
    return httplib::Server::HandlerResponse::Handled;
  }
  res.status = 200;
  res.set_content(body, kMetricsType);
  return httplib::Server::HandlerResponse::Handled;
}

// httplib answers two kinds of request it could not read with a bare 400,
// before any routing:
// - a request line whose method it does not know: answered like any other
//   method the path does not allow, 405 on /metrics and /healthz, 404
//   elsewhere;
// - a request line it parsed, then a header section it could not read whole:
//   a header line over its 8 KiB limit, HTTP's 431. (A client that stops
//   halfway through its headers until the read timeout ends the same way; it
//   is not reading the answer. A request with a body is left alone: its 400
//   may come from the body.)
// Every other error response passes unchanged.
httplib::Server::HandlerResponse answerRefusedRequest(const httplib::Request& req, httplib::Response& res) {
  if (res.status != 400 || req.method.empty() || req.target.empty() || req.version.compare(0, 7, "HTTP/1.") != 0) {
    return httplib::Server::HandlerResponse::Unhandled;
  }
  if (!req.path.empty()) {
    if (req.has_header("Content-Length") || req.has_header("Transfer-Encoding")) {
      return httplib::Server::HandlerResponse::Unhandled;
    }
    // The rest of the request was never read.
    res.set_header("Connection", "close");
    answerText(res, 431, "request header fields too large\n");
    return httplib::Server::HandlerResponse::Handled;
  }
  for (const char c : req.method) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte >= 0x7f) {
      return httplib::Server::HandlerResponse::Unhandled;
    }
  }
  const std::string path = req.target.substr(0, req.target.find('?'));
  // The rest of the request was never read.
  res.set_header("Connection", "close");
  if (path == "/metrics" || path == "/healthz") {
    res.set_header("Allow", kAllowed);
    answerText(res, 405, "method not allowed\n");
  } else {
    answerText(res, 404, "not found\n");
  }
  return httplib::Server::HandlerResponse::Handled;
}

// Waits for SIGTERM/SIGINT on `signals` or a wake-up on `done`; on a signal
// stops the server. stop() only acts once the server runs, so a signal that
// comes before listening starts is kept until it does.
void watchSignals(int signals, int done, httplib::Server& server, std::atomic<bool>& stopRequested,
                  std::atomic<bool>& listenEnded) {
  pollfd fds[2] = {{signals, POLLIN, 0}, {done, POLLIN, 0}};
  for (;;) {
    const int ready = ::poll(fds, 2, -1);
    if (ready < 0) {
      if (errno == EINTR) {
        continue;
      }
      return;
    }
    if ((fds[1].revents & POLLIN) != 0) {
      return;
    }
    if ((fds[0].revents & POLLIN) != 0) {
      signalfd_siginfo info{};
      const ssize_t got = ::read(signals, &info, sizeof info);
      (void)got;
      stopRequested.store(true);
      while (!server.is_running() && !listenEnded.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      server.stop();
      return;
    }
  }
}

}  // namespace

bool parseListenAddress(const std::string& text, ListenAddress& out, std::string& error) {
  const std::string shown = "invalid listen address '" + printable(text) + "': ";
  std::string host;
  std::string portText;
  if (!text.empty() && text.front() == '[') {
    const std::size_t close = text.find(']');
    if (close == std::string::npos) {
      error = shown + "missing ']' after the IPv6 address";
      return false;
    }
    host = text.substr(1, close - 1);
    in6_addr probe{};
    if (host.empty() || ::inet_pton(AF_INET6, host.c_str(), &probe) != 1) {
      error = shown + "not an IPv6 address between '[' and ']'";
      return false;
    }
    if (close + 1 >= text.size() || text[close + 1] != ':') {
      error = shown + "expected ':PORT' after ']'";
      return false;
    }
    portText = text.substr(close + 2);
  } else {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
      error = shown + "expected ADDR:PORT or [IPv6]:PORT";
      return false;
    }
    host = text.substr(0, colon);
    portText = text.substr(colon + 1);
    for (const char c : host) {
      if (!plainHostChar(c)) {
        error = shown + (c == ':' ? "an IPv6 address goes between '[' and ']'" : "bad character in the address");
        return false;
      }
    }
    if (host.empty()) {
      host = "0.0.0.0";
    }
  }
  std::uint16_t port = 0;
  if (!parsePort(portText, port)) {
    error = shown + "the port must be a number from 0 to 65535";
    return false;
  }
  out.host = host;
  out.port = port;
  return true;
}

std::string formatListenAddress(const ListenAddress& where) {
  const std::string port = std::to_string(where.port);
  if (isIpv6Literal(where.host)) {
    return "[" + where.host + "]:" + port;
  }
  return where.host + ":" + port;
}

int serve(const ListenAddress& where, const std::function<std::string()>& metrics, std::ostream& out,
          std::ostream& err) {
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  sigset_t blocked = stopSignals;
  sigaddset(&blocked, SIGPIPE);
  const SignalBlock block(blocked);
  if (!block.ok()) {
    err << "heron-stat: cannot block SIGTERM and SIGINT\n";
    return 1;
  }
  const Fd signals(::signalfd(-1, &stopSignals, SFD_CLOEXEC));
  const Fd done(::eventfd(0, EFD_CLOEXEC));
  if (signals.get() < 0 || done.get() < 0) {
    err << "heron-stat: cannot watch for SIGTERM and SIGINT: " << std::strerror(errno) << '\n';
    return 1;
  }

  // Each worker thread would otherwise get an arena of its own that keeps
  // what its largest request needed (a 1 MiB request line costs about 3 MiB
  // per worker for good), and glibc raises its mapping threshold after such
  // a block is freed. Two arenas and a fixed threshold give large blocks
  // back to the system when they are freed, so the server stays at its size.
  ::mallopt(M_ARENA_MAX, 2);
  ::mallopt(M_MMAP_THRESHOLD, kMmapThreshold);

  // Outlives the server, whose workers wait on it.
  Sampler sampler(metrics);
  httplib::Server server;
  server.new_task_queue = [] { return new BoundedPool(kWorkers, kQueuedConnections); };
  server.set_read_timeout(kReadTimeoutSeconds, 0);
  server.set_write_timeout(kWriteTimeoutSeconds, 0);
  server.set_keep_alive_timeout(kKeepAliveSeconds);
  server.set_keep_alive_max_count(kKeepAliveRequests);
  server.set_payload_max_length(kMaxPayload);
  server.set_pre_routing_handler(
      [&sampler](const httplib::Request& req, httplib::Response& res) { return route(req, res, sampler); });
  server.set_error_handler(httplib::Server::HandlerWithResponse(answerRefusedRequest));
  // The listening socket is only seen here; httplib listens with a short
  // backlog, which is raised once bound.
  int listening = -1;
  server.set_socket_options([&listening](int sock) {
    const int on = 1;
    ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    listening = sock;
  });

  errno = 0;
  int port = -1;
  if (where.port == 0) {
    port = server.bind_to_any_port(where.host);
  } else if (server.bind_to_port(where.host, where.port)) {
    port = where.port;
  }
  if (port < 0) {
    const int cause = errno;
    err << "heron-stat: cannot listen on " << formatListenAddress(where);
    if (cause != 0) {
      err << ": " << std::strerror(cause);
    }
    err << '\n';
    return 1;
  }
  if (listening >= 0) {
    ::listen(listening, kListenBacklog);
  }
  out << "listening on " << formatListenAddress(ListenAddress{where.host, static_cast<std::uint16_t>(port)}) << '\n';
  out.flush();
  if (!out) {
    err << "heron-stat: cannot write the listening address\n";
    return 1;
  }

  std::atomic<bool> stopRequested{false};
  std::atomic<bool> listenEnded{false};
  std::thread watcher(watchSignals, signals.get(), done.get(), std::ref(server), std::ref(stopRequested),
                      std::ref(listenEnded));
  const bool clean = server.listen_after_bind();
  const int cause = errno;
  listenEnded.store(true);
  const std::uint64_t wake = 1;
  const ssize_t wrote = ::write(done.get(), &wake, sizeof wake);
  (void)wrote;
  watcher.join();
  if (!clean) {
    err << "heron-stat: the listening socket failed: " << std::strerror(cause) << '\n';
    return 1;
  }
  return 0;
}

}  // namespace Stat
