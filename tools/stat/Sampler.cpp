#include "Sampler.h"

#include <malloc.h>

#include <exception>
#include <utility>

namespace Stat {

Sampler::Sampler(const Endpoints& endpoints) : endpoints_(endpoints), thread_([this] { work(); }) {}

Sampler::~Sampler() { stop(); }

bool Sampler::submit(Endpoint which, Done done) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
      return false;
    }
    jobs_.push_back(Job{which, std::move(done)});
  }
  wake_.notify_one();
  return true;
}

void Sampler::stop() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  if (thread_.joinable()) {
    thread_.join();
  }
}

Answer Sampler::call(Endpoint which) {
  const std::function<Answer()>& callback = which == Endpoint::metrics  ? endpoints_.metrics
                                            : which == Endpoint::sample ? endpoints_.sample
                                                                        : endpoints_.health;
  try {
    return callback ? callback() : Answer{404, "not found\n"};
  } catch (const std::exception&) {
    return Answer{500, "internal error\n"};
  } catch (...) {
    return Answer{500, "internal error\n"};
  }
}

void Sampler::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return !jobs_.empty() || stopping_; });
    if (jobs_.empty()) {
      return;
    }
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    if (stopping_) {
      lock.unlock();
      job.done(Answer{503, "shutting down\n"});
      lock.lock();
      continue;
    }
    lock.unlock();
    Answer answer = call(job.which);
    // A sample allocates and frees a lot (every process's maps file);
    // handing the freed pages back keeps the resident size from creeping
    // up with the fragments left over from scrape to scrape.
    if (job.which != Endpoint::health) {
      ::malloc_trim(0);
    }
    job.done(std::move(answer));
    job.done = nullptr;
    lock.lock();
  }
}

}  // namespace Stat
