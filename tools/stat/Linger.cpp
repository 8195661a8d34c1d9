#include "Linger.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace Stat {

namespace {

constexpr std::size_t kMaxSockets = 64;
constexpr std::chrono::seconds kLinger{2};
// Read per socket and call, so that one fast sender cannot keep the loop
// busy.
constexpr std::size_t kReadPerDrain = std::size_t{256} * 1024;

// False once the socket has nothing more to give: its end, an error, or
// the most one call reads.
bool discardInput(int fd) {
  char buffer[16384];
  for (std::size_t read = 0; read < kReadPerDrain;) {
    const ssize_t got = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (got > 0) {
      read += static_cast<std::size_t>(got);
      continue;
    }
    return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
  }
  return true;
}

}  // namespace

Linger::~Linger() {
  for (const Socket& socket : sockets_) {
    ::close(socket.fd);
  }
}

void Linger::add(int fd) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (sockets_.size() >= kMaxSockets) {
    return;
  }
  const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (copy >= 0) {
    sockets_.push_back(Socket{copy, std::chrono::steady_clock::now() + kLinger});
  }
}

void Linger::watch(std::vector<pollfd>& fds) {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const Socket& socket : sockets_) {
    fds.push_back(pollfd{socket.fd, POLLIN, 0});
  }
}

void Linger::drain() {
  const auto now = std::chrono::steady_clock::now();
  const std::lock_guard<std::mutex> lock(mutex_);
  for (std::size_t at = 0; at < sockets_.size();) {
    if (discardInput(sockets_[at].fd) && now < sockets_[at].until) {
      ++at;
      continue;
    }
    ::close(sockets_[at].fd);
    sockets_[at] = sockets_.back();
    sockets_.pop_back();
  }
}

}  // namespace Stat
