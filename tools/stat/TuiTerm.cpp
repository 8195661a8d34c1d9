// Whether the interactive view can run here. Apart from the view: the
// terminfo header defines macros (lines, columns) that clash with its names.
#include <curses.h>
#include <term.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "Tui.h"

namespace Stat {
namespace Tui {

bool usable() {
  const char* term = std::getenv("TERM");
  if (term == nullptr || *term == '\0' || std::strcmp(term, "dumb") == 0) {
    return false;
  }
  if (::isatty(STDIN_FILENO) != 1 || ::isatty(STDOUT_FILENO) != 1) {
    return false;
  }
  int error = 0;
  if (::setupterm(nullptr, STDOUT_FILENO, &error) != OK) {
    return false;
  }
  const char* move = ::tigetstr("cup");
  // (char*)-1 is terminfo's "cancelled capability".
  const bool canMove = move != nullptr && reinterpret_cast<std::intptr_t>(move) != -1;
  ::del_curterm(cur_term);
  return canMove;
}

}  // namespace Tui
}  // namespace Stat
