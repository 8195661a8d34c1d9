// heron-stat's own health, apart from the tables': a root that cannot be
// listed or an EXPR that matches nothing is a configuration error that every
// output says in one line, and that /healthz answers with 503.
#pragma once

#include <string>

#include "Model.h"

namespace Stat {

// One line (no line end) saying why the sample cannot speak for the
// collection: the root cannot be listed, or EXPR matched no table. Empty
// when the sample is sound (an empty root with an empty EXPR is sound).
std::string sampleTrouble(const Sample& sample);

// One line (no line end) when the /proc walk ran but could not see every
// process: clients are unknown and writers are judged by pid and heartbeat
// alone. Empty otherwise (--no-clients asks for that on purpose).
std::string clientsNote(const Sample& sample);

// The answer of GET /healthz: 200 "ok\n", or 503 and the trouble as one line.
struct HealthAnswer {
  int status = 200;
  std::string body;
};
HealthAnswer health(const Sample& sample);

}  // namespace Stat
