// Escaping of text that comes from files (table names, type names, hosts,
// readers' reasons) before it reaches a terminal or a consumer.
#include <fmt/format.h>

#include "Render.h"

namespace Stat {

namespace {

// Length of the well-formed UTF-8 sequence at text[at], 0 when there is none.
std::size_t sequenceLength(const std::string& text, std::size_t at) {
  const auto byte = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  std::size_t length = 0;
  unsigned min = 0;
  unsigned value = 0;
  if (lead < 0x80) {
    return 1;
  } else if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    min = 0x80;
    value = lead & 0x1FU;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    min = 0x800;
    value = lead & 0x0FU;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    min = 0x10000;
    value = lead & 0x07U;
  } else {
    return 0;
  }
  if (text.size() - at < length) {
    return 0;
  }
  for (std::size_t i = 1; i < length; ++i) {
    const unsigned char next = byte(at + i);
    if ((next & 0xC0U) != 0x80U) {
      return 0;
    }
    value = (value << 6) | (next & 0x3FU);
  }
  if (value < min || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
    return 0;
  }
  return length;
}

}  // namespace

std::string printable(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const auto byte = static_cast<unsigned char>(text[at]);
    const std::size_t length = sequenceLength(text, at);
    if (length == 0 || byte < 0x20 || byte == 0x7F) {
      fmt::format_to(std::back_inserter(out), "\\x{:02x}", byte);
      ++at;
    } else if (byte == '\\') {
      out += "\\\\";
      ++at;
    } else if (length == 2 && byte == 0xC2 && static_cast<unsigned char>(text[at + 1]) < 0xA0) {
      // U+0080..U+009F: C1 controls, which terminals act on.
      fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned char>(text[at + 1]));
      at += 2;
    } else {
      out.append(text, at, length);
      at += length;
    }
  }
  return out;
}

std::string validUtf8(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = sequenceLength(text, at);
    if (length == 0) {
      out += "\xEF\xBF\xBD";
      ++at;
    } else {
      out.append(text, at, length);
      at += length;
    }
  }
  return out;
}

}  // namespace Stat
