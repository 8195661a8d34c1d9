// The 8-byte magic that opens every shared file, written in code as its text.
#pragma once

namespace Beacon {
namespace Util {

// Not constexpr on purpose: reached only for a text that is not a magic, it
// makes the constant evaluation of encodeMagic fail to compile.
inline void magicMustBeEightPrintableCharacters() {}

// The 8-byte magic that `text` (exactly 8 printable ASCII characters) has in
// file order, as a little-endian word. Used for a constant, a text of
// another length or with another character does not compile.
constexpr unsigned long long encodeMagic(const char (&text)[9]) {
  unsigned long long value = 0;
  for (int i = 7; i >= 0; --i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte >= 0x7F) {
      magicMustBeEightPrintableCharacters();
    }
    value = (value << 8) | byte;
  }
  if (text[8] != '\0') {
    magicMustBeEightPrintableCharacters();
  }
  return value;
}

}  // namespace Util
}  // namespace Beacon
