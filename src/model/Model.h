// The client model: tables, their capacity summary and attached processes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "model/HeronType.h"

namespace Heron {
namespace Model {

struct HeronClient {
  HeronClient(int pid, std::string procName) : pid(pid), procName(std::move(procName)) {}
  int pid;
  std::string procName;
  std::string command;
};

bool operator<(const HeronClient& a, const HeronClient& b);

using HeronClientList = std::vector<HeronClient>;

struct HeaderInfo {
  static constexpr std::uint64_t kNotAvailable = 4294967295ULL;

  std::uint32_t primaryNotifications = 4294967295U;
  std::uint32_t secondaryNotifications = 4294967295U;
  std::uint64_t numRegions = kNotAvailable;
  std::uint64_t totalSize = kNotAvailable;
  std::uint64_t pagesFree = kNotAvailable;
  std::uint32_t occupancyRate = 4294967295U;

  std::string print() const;
};

// "NA" at the not-available value, else the single-precision MB/KB/B form.
std::string formatSize(std::uint64_t totalSize);

struct HeronTable {
  explicit HeronTable(const std::string& name);

  void sortClients();
  std::string printClients(const HeronType& type) const;
  std::string print() const;

  std::string name;
  HeaderInfo headerInfo;
  std::map<HeronType, HeronClientList> clients;
};

bool operator<(const HeronTable& a, const HeronTable& b);

}  // namespace Model
}  // namespace Heron
