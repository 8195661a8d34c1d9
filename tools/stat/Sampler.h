// The thread that answers heron-stat's HTTP endpoints: every call of the
// endpoints' callbacks runs on it, one at a time, in the order asked.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace Stat {

// What an endpoint answers: an HTTP status and a text body.
struct Answer {
  int status = 200;
  std::string body;
};

struct Endpoints {
  std::function<Answer()> metrics;  // GET /metrics
  std::function<Answer()> health;   // GET /healthz
  std::function<Answer()> sample;   // GET /api/v1/sample: the page's JSON
  double refreshSeconds = 1;        // how often the page fetches the sample
};

enum class Endpoint { metrics, health, sample };

// Taking every sample on one thread of its own means that what a sample
// touches (stack pages, the malloc arena its allocations come from) is the
// same every time and settles after the first scrapes; the server's event
// loop hands requests over and is never held up by one.
class Sampler {
 public:
  using Done = std::function<void(Answer&&)>;

  explicit Sampler(const Endpoints& endpoints);
  ~Sampler();
  Sampler(const Sampler&) = delete;
  Sampler& operator=(const Sampler&) = delete;

  // Queues a call of `which`; `done` receives its answer on the sampler's
  // thread (500 when the callback throws). False, and `done` never called,
  // once stop() has begun.
  bool submit(Endpoint which, Done done);

  // Finishes the call in progress, answers the queued ones 503 and joins
  // the thread: every accepted `done` has been called when it returns.
  // Idempotent.
  void stop();

 private:
  struct Job {
    Endpoint which;
    Done done;
  };

  void work();
  Answer call(Endpoint which);

  const Endpoints& endpoints_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Job> jobs_;
  bool stopping_ = false;
  std::thread thread_;  // last: starts once the members above exist
};

}  // namespace Stat
