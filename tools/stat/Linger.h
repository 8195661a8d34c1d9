// Connections kept open a little after the server closed them, reading and
// discarding what the client still sends. Closing a socket with unread
// input makes the kernel send a reset, which also destroys the answer the
// client has not read yet: a 414 sent while a long request line is still
// arriving would be lost.
#pragma once

#include <poll.h>

#include <chrono>
#include <mutex>
#include <vector>

namespace Stat {

class Linger {
 public:
  Linger() = default;
  ~Linger();
  Linger(const Linger&) = delete;
  Linger& operator=(const Linger&) = delete;

  // Keeps a duplicate of `fd` (whose writing side is already shut down)
  // open for up to 2 s; beyond 64 such sockets it does nothing.
  void add(int fd);

  // Appends the lingering sockets to `fds`, to be polled for input.
  void watch(std::vector<pollfd>& fds);

  // Reads and discards what arrived on them; closes those that reached
  // their end, an error or their deadline.
  void drain();

 private:
  struct Socket {
    int fd;
    std::chrono::steady_clock::time_point until;
  };

  std::mutex mutex_;
  std::vector<Socket> sockets_;
};

}  // namespace Stat
