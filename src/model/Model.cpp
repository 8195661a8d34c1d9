#include "model/Model.h"

#include <fmt/format.h>

#include <algorithm>

#include "Beacon/Util.h"

namespace Heron {
namespace Model {

bool operator<(const HeronClient& a, const HeronClient& b) { return a.pid < b.pid; }

namespace {

// Not-available marker shared by all six fields; the 64-bit fields compare
// their whole value against it.
constexpr std::uint64_t kNA = HeaderInfo::kNotAvailable;

std::string renderCount(std::uint64_t value) { return value == kNA ? std::string("NA") : fmt::format("{}", value); }

}  // namespace

std::string formatSize(std::uint64_t totalSize) {
  if (totalSize == kNA) {
    return "NA";
  }
  // Single precision on purpose: the float product is what gets printed.
  if ((totalSize >> 20) != 0) {
    float megabytes = static_cast<float>(totalSize) * 9.5367431640625e-07F;
    return fmt::format("{:.3f}MB", megabytes);
  }
  if ((totalSize >> 10) != 0) {
    float kilobytes = static_cast<float>(totalSize) * 0.0009765625F;
    return fmt::format("{:.3f}KB", kilobytes);
  }
  return fmt::format("{}B", totalSize);
}

std::string HeaderInfo::print() const {
  return fmt::format(
      "Capacity: primaryNotifications:{} secondaryNotifications:{}\n"
      "numRegions:{} totalSize:{} pagesFree:{} occupancyRate:{}%\n",
      renderCount(primaryNotifications), renderCount(secondaryNotifications), renderCount(numRegions),
      formatSize(totalSize), renderCount(pagesFree), renderCount(occupancyRate));
}

HeronTable::HeronTable(const std::string& name) : name(name) {
  clients.emplace(Writer, HeronClientList());
  clients.emplace(Shadow, HeronClientList());
}

void HeronTable::sortClients() {
  HeronClientList& writers = clients.at(Writer);
  std::sort(writers.begin(), writers.end());
  HeronClientList& shadows = clients.at(Shadow);
  std::sort(shadows.begin(), shadows.end());
}

std::string HeronTable::printClients(const HeronType& type) const {
  const HeronClientList list = clients.at(type);
  std::string text;
  if (list.empty()) {
    return text;
  }
  for (std::size_t i = 0; i < list.size(); ++i) {
    const HeronClient& client = list[i];
    // Command and process names are any bytes a process chose: escaped.
    std::string entry = fmt::format("{}-{}({})", Beacon::Util::escapeText(client.command), client.pid,
                                    Beacon::Util::escapeText(client.procName));
    if (i + 1 < list.size()) {
      fmt::format_to(std::back_inserter(text), "{} ", entry);
    } else {
      fmt::format_to(std::back_inserter(text), "{}", entry);
    }
  }
  return text;
}

std::string HeronTable::print() const {
  std::string text = fmt::format("Heron table \"{}\"\n{}", Beacon::Util::escapeText(name), headerInfo.print());
  bool allEmpty = true;
  for (const auto& entry : clients) {
    if (!entry.second.empty()) {
      allEmpty = false;
      break;
    }
  }
  if (allEmpty) {
    text += "Clients: None\n\n";
    return text;
  }
  std::string writers = printClients(Writer);
  if (!writers.empty()) {
    fmt::format_to(std::back_inserter(text), "Writer: {}\n", writers);
  }
  std::string shadows = printClients(Shadow);
  if (!shadows.empty()) {
    fmt::format_to(std::back_inserter(text), "Shadow: {}\n", shadows);
  }
  text += "\n";
  return text;
}

bool operator<(const HeronTable& a, const HeronTable& b) { return a.name < b.name; }

}  // namespace Model
}  // namespace Heron
