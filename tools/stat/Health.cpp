#include "Health.h"

#include "Collect.h"
#include "Render.h"

namespace Stat {

std::string sampleTrouble(const Sample& sample) {
  if (!sample.rootOk) {
    return sample.rootError;
  }
  if (sample.tables.empty() && !sample.expr.empty()) {
    return noMatchText(sample);
  }
  return std::string();
}

std::string clientsNote(const Sample& sample) {
  if (!sample.clientsWalked || sample.clientsKnown) {
    return std::string();
  }
  return "clients unknown (not root): dead writers are judged by pid and heartbeat only; run as root or with "
         "CAP_SYS_PTRACE to see them";
}

HealthAnswer health(const Sample& sample) {
  const std::string trouble = sampleTrouble(sample);
  if (trouble.empty()) {
    return HealthAnswer{200, "ok\n"};
  }
  return HealthAnswer{503, printable(trouble) + "\n"};
}

}  // namespace Stat
