// The main loop: sample, derive, assess, render, write; again every interval
// with --watch, once per scrape with --listen.
#include <fmt/format.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <iostream>
#include <optional>

#include "Beacon/Clock.h"
#include "Beacon/StopSignals.h"
#include "Bundle.h"
#include "Capture.h"
#include "CollectKept.h"
#include "Deadline.h"
#include "Diff.h"
#include "Health.h"
#include "Mem/RootPath.h"
#include "Output.h"
#include "PageSample.h"
#include "Recorder.h"
#include "Render.h"
#include "ScrapeRates.h"
#include "Server.h"
#include "Stat.h"
#include "Tui.h"

namespace Stat {

namespace {

// Ctrl-C, SIGTERM and SIGHUP are blocked and waited for, so that a signal
// ends a wait cleanly between two samples instead of cutting a report short;
// a write that waits for its reader waits for them too. After a stop they
// stay blocked: a second signal (Ctrl-C pressed twice, or `timeout`, which
// signals the child and then its group) must not kill a run that ends with
// status 0.
class StopSignals : public Beacon::StopSignals {
 public:
  StopSignals() { keepBlockedAfterStop(); }

  // Waits until the monotonic time `until`; true when a signal came first.
  bool waitUntil(double until) {
    const double left = until - Beacon::monoSeconds();
    return waitNs(left > 0 ? static_cast<long long>(left * 1e9) : 0) != 0;
  }
};

std::string render(const Options& options, Sample& sample) {
  assess(sample, options.thresholds);
  if (options.json) {
    return renderJson(sample);
  }
  if (options.prometheus) {
    return renderPrometheus(sample);
  }
  return renderText(sample);
}

// "heron-stat  /dev/shm/heron  every 1 s  2026-11-23 15:20:01 UTC"
std::string watchTitle(const Options& options, const Sample& sample) {
  return fmt::format("heron-stat  {}  every {:g} s  {}\n", printable(sample.root), options.interval,
                     utcTime(sample.timeSeconds, "%Y-%m-%d %H:%M:%S UTC"));
}

class Emitter {
 public:
  Emitter(const Options& options, const StopSignals& signals) : options_(options), signals_(signals) {}
  Written emit(const std::string& text) {
    std::string error;
    Written result = Written::All;
    if (!options_.output.empty()) {
      result = replaceFile(options_.output, text, error) ? Written::All : Written::Failed;
    } else {
      result = writeUnlessStopped(STDOUT_FILENO, text, signals_.fd(), error);
    }
    if (result == Written::Failed) {
      std::cerr << "heron-stat: cannot write the report: " << printable(error) << std::endl;
    }
    return result;
  }

 private:
  const Options& options_;
  const StopSignals& signals_;
};

int watch(const Options& options, StopSignals& signals, Emitter& emitter) {
  // Machine formats stream one document per sample, with nothing between.
  const bool blocks = options.output.empty() && !options.json && !options.prometheus;
  if (blocks && Tui::usable()) {
    return Tui::run(options, signals.fd());
  }
  Sample previous;
  bool first = true;
  double next = Beacon::monoSeconds();
  KeptReaders kept;
  for (;;) {
    Sample sample = collect(options.collect, &kept);
    if (!first) {
      deriveRates(previous, sample);
    }
    std::string text = render(options, sample);
    if (blocks) {
      text = (first ? "" : "\n") + watchTitle(options, sample) + text;
    }
    const Written written = emitter.emit(text);
    if (written != Written::All) {
      return written == Written::Stopped ? 0 : 1;
    }
    previous = std::move(sample);
    first = false;
    next += options.interval;
    const double now = Beacon::monoSeconds();
    if (next < now) {
      next = now;  // a sample took longer than the interval: no burst to catch up
    }
    if (signals.waitUntil(next)) {
      return 0;
    }
  }
}

// --check: one sample and a verdict. With --timeout, a sample slower than
// that is UNKNOWN: said by the deadline's thread when the sample is stuck,
// or here when it ended late.
int check(const Options& options, Emitter& emitter) {
  const std::string late = fmt::format("HERON UNKNOWN - no sample within {:g} s (--timeout)\n", options.timeout);
  std::optional<Deadline> deadline;
  if (options.timeout > 0) {
    deadline.emplace(options.timeout, [&emitter, &late] {
      emitter.emit(late);
      ::_exit(3);
    });
  }
  Sample sample = collect(options.collect);
  if (deadline && (!deadline->cancel() || sample.durationSeconds > options.timeout)) {
    emitter.emit(late);
    return 3;
  }
  assess(sample, options.thresholds);
  const Verdict verdict = renderCheck(sample, options.thresholds);
  const Written written = emitter.emit(verdict.text);
  return written == Written::All ? verdict.status : (written == Written::Stopped ? 130 : 3);
}

// --record: one sample per interval into the recorder's files, until a
// stop signal; a sample that cannot be written is said and the next tried.
int record(const Options& options, StopSignals& signals) {
  if (insideRoot(options.record, Mem::OrbRootPath::collectionRoot())) {
    std::cerr << "heron-stat: refusing to record into " << printable(options.record)
              << " inside the collection root (see heron-stat --help)" << std::endl;
    return 2;
  }
  Recorder recorder(options.record, options.recordMaxBytes);
  std::string error;
  if (!recorder.open(error)) {
    std::cerr << "heron-stat: cannot record: " << printable(error) << std::endl;
    return 1;
  }
  Sample previous;
  bool first = true;
  bool failing = false;
  KeptReaders kept;
  for (double next = Beacon::monoSeconds();; next = std::max(next + options.interval, Beacon::monoSeconds())) {
    Sample sample = collect(options.collect, &kept);
    if (!first) {
      deriveRates(previous, sample);
    }
    assess(sample, options.thresholds);
    const bool written = recorder.append(renderJson(sample), sample.timeSeconds, error);
    if (written == failing) {
      // Said once when it starts failing and once when it works again.
      std::cerr << "heron-stat: " << (written ? "recording again" : "cannot record a sample: " + printable(error))
                << std::endl;
      failing = !written;
    }
    previous = std::move(sample);
    first = false;
    if (signals.waitUntil(next + options.interval)) {
      return 0;
    }
  }
}

// A sample from SOURCE: a bundle, or a recorder's directory (--at).
bool sourceSample(const Options& options, Sample& sample, std::string& error) {
  struct stat st {};
  if (::stat(options.from.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return fromBundle(options.from, options.collect, options.thresholds, sample, error);
  }
  double at = -1;
  if (!options.at.empty() && !parseTime(options.at, at)) {
    error = "--at " + printable(options.at) + " is not a time (epoch seconds or 'YYYY-MM-DD HH:MM:SS' UTC)";
    return false;
  }
  std::string line;
  return recordedSample(options.from, at, line, error) && sampleFromJson(line, options.thresholds, sample, error);
}

// --from: the sample a bundle or a recording holds, in any mode.
int fromSource(const Options& options, Emitter& emitter) {
  Sample sample;
  std::string error;
  if (!sourceSample(options, sample, error)) {
    if (options.check) {
      std::cout << "HERON UNKNOWN - " << error << std::endl;
      return 3;
    }
    std::cerr << "heron-stat: " << error << std::endl;
    return 1;
  }
  if (options.check) {
    const Verdict verdict = renderCheck(sample, options.thresholds);
    return emitter.emit(verdict.text) == Written::All ? verdict.status : 3;
  }
  const Written written = emitter.emit(render(options, sample));
  if (written != Written::All) {
    return written == Written::Stopped ? 130 : 1;
  }
  return sampleTrouble(sample).empty() ? 0 : 1;
}

// --listen: /metrics, /healthz and the live page until a stop signal.
int serveListen(const Options& options) {
  ListenAddress where;
  std::string error;
  if (!parseListenAddress(options.listen, where, error)) {
    std::cerr << "heron-stat: " << printable(error) << " (see heron-stat --help)" << std::endl;
    return 2;
  }
  ScrapeRates rates;
  // Every callback runs on the server's one sampler thread, so the scrapes
  // and the page share the readers kept between samples.
  KeptReaders kept;
  Endpoints endpoints;
  endpoints.metrics = [&options, &rates, &kept]() {
    Sample sample = collect(options.collect, &kept);
    // Counters stay raw; gauges derived from two moments (seconds to
    // switch) come from the previous scrape.
    rates.derive(sample);
    assess(sample, options.thresholds);
    return Answer{200, renderPrometheus(sample)};
  };
  // A wrong root or an EXPR that matches nothing is said here with 503,
  // while /metrics goes on answering (heron_stat_root_ok 0).
  endpoints.health = [&options] {
    const HealthAnswer answer = health(probe(options.collect));
    return Answer{answer.status, answer.body};
  };
  PageSample page([&options, &kept] { return collect(options.collect, &kept); }, options.thresholds, options.interval);
  endpoints.sample = [&page] { return Answer{200, page.document(Beacon::monoSeconds())}; };
  endpoints.refreshSeconds = page.refreshSeconds();
  return serve(where, endpoints, std::cout, std::cerr);
}

}  // namespace

int run(const Options& options) {
  ::signal(SIGPIPE, SIG_IGN);
  if (!options.output.empty()) {
    const std::string why = refusedOutput(options.output, Mem::OrbRootPath::collectionRoot());
    if (!why.empty()) {
      const std::string refusal =
          "refusing to write " + printable(options.output) + " " + why + " (see heron-stat --help)";
      // A usage error, which a monitoring host reads as UNKNOWN.
      if (options.check) {
        std::cout << "HERON UNKNOWN - usage error: " << refusal << std::endl;
        return 3;
      }
      std::cerr << "heron-stat: " << refusal << std::endl;
      return 2;
    }
  }
  if (!options.listen.empty()) {
    return serveListen(options);
  }
  if (!options.capture.empty()) {
    return capture(options);
  }
  if (!options.diff.empty()) {
    return diff(options);
  }
  StopSignals signals;
  Emitter emitter(options, signals);
  if (!options.from.empty()) {
    return fromSource(options, emitter);
  }
  if (!options.record.empty()) {
    return record(options, signals);
  }
  if (options.watch) {
    return watch(options, signals, emitter);
  }
  if (options.check) {
    return check(options, emitter);
  }
  Sample sample = collect(options.collect);
  // Counters are raw in Prometheus text: it takes one sample.
  if (options.interval > 0 && !options.prometheus && sampleTrouble(sample).empty()) {
    if (signals.waitUntil(sample.monotonicSeconds + options.interval)) {
      return 130;
    }
    Sample later = collect(options.collect);
    deriveRates(sample, later);
    sample = std::move(later);
  }
  const Written written = emitter.emit(render(options, sample));
  if (written != Written::All) {
    return written == Written::Stopped ? 130 : 1;
  }
  // A root that cannot be listed or an EXPR that matches nothing is said in
  // the report, and fails the run.
  return sampleTrouble(sample).empty() ? 0 : 1;
}

}  // namespace Stat
