// The interactive view's terminal side: keys in, lines out, through
// ncurses. What the lines say is TuiLayout's.
#include <curses.h>
#include <langinfo.h>
#include <locale.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>

#include "Beacon/Clock.h"
#include "CollectKept.h"
#include "Tui.h"
#include "TuiLayout.h"
#include "TuiView.h"

namespace Stat {
namespace Tui {

namespace {

enum Pair : short { kRed = 1, kYellow = 2 };

// ncursesw turns the UTF-8 of names into screen cells by the LC_CTYPE
// locale; the rest of the program keeps the "C" locale. The text view
// writes UTF-8 whatever the locale, so this does too where the
// environment's locale is not UTF-8.
void useUtf8Ctype() {
  ::setlocale(LC_CTYPE, "");
  if (std::strcmp(::nl_langinfo(CODESET), "UTF-8") != 0) {
    ::setlocale(LC_CTYPE, "C.UTF-8");
  }
}

class Terminal {
 public:
  Terminal() {
    useUtf8Ctype();
    screen_ = newterm(nullptr, stdout, stdin);
    if (screen_ == nullptr) {
      return;
    }
    set_term(screen_);
    cbreak();  // Ctrl-C still signals, and ends the view with 0
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(25);
    curs_set(0);
    const char* noColor = std::getenv("NO_COLOR");
    colour_ = has_colors() && (noColor == nullptr || *noColor == '\0');
    if (colour_) {
      start_color();
      use_default_colors();
      init_pair(kRed, COLOR_RED, -1);
      init_pair(kYellow, COLOR_YELLOW, -1);
    }
  }
  ~Terminal() {
    if (screen_ != nullptr) {
      endwin();
      delscreen(screen_);
    }
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  bool ok() const { return screen_ != nullptr; }

  void draw(const Frame& frame) {
    erase();
    for (std::size_t row = 0; row < frame.lines.size(); ++row) {
      const attr_t attributes = attributesOf(frame.lines[row].tone) | (row == frame.selected ? A_REVERSE : 0);
      attrset(attributes);
      mvaddstr(static_cast<int>(row), 0, frame.lines[row].text.c_str());
    }
    attrset(A_NORMAL);
    refresh();
  }

 private:
  attr_t attributesOf(Tone tone) const {
    switch (tone) {
      case Tone::Header:
        return A_BOLD;
      case Tone::Bad:
        return colour_ ? COLOR_PAIR(kRed) | A_BOLD : A_BOLD;
      case Tone::Stale:
        return colour_ ? COLOR_PAIR(kYellow) : A_NORMAL;
      case Tone::Plain:
        break;
    }
    return A_NORMAL;
  }

  SCREEN* screen_ = nullptr;
  bool colour_ = false;
};

// What a key code means: the curses codes of the function keys, and the
// characters that are no text (Enter, Escape, the two Backspaces).
struct KeyCode {
  wint_t code;
  KeyKind kind;
};
constexpr KeyCode kFunctionKeys[] = {
    {KEY_UP, KeyKind::Up},          {KEY_DOWN, KeyKind::Down},           {KEY_PPAGE, KeyKind::PageUp},
    {KEY_NPAGE, KeyKind::PageDown}, {KEY_HOME, KeyKind::Home},           {KEY_END, KeyKind::End},
    {KEY_ENTER, KeyKind::Enter},    {KEY_BACKSPACE, KeyKind::Backspace}, {KEY_RESIZE, KeyKind::Resize},
};
constexpr KeyCode kControlCharacters[] = {
    {'\r', KeyKind::Enter},    {'\n', KeyKind::Enter},  {27, KeyKind::Escape},
    {127, KeyKind::Backspace}, {8, KeyKind::Backspace},
};

template <std::size_t N>
std::optional<KeyKind> kindOf(const KeyCode (&keys)[N], wint_t code) {
  for (const KeyCode& key : keys) {
    if (key.code == code) {
      return key.kind;
    }
  }
  return std::nullopt;
}

Key keyOf(int kind, wint_t code) {
  if (kind == KEY_CODE_YES) {
    return Key{kindOf(kFunctionKeys, code).value_or(KeyKind::None)};
  }
  const std::optional<KeyKind> control = kindOf(kControlCharacters, code);
  return control ? Key{*control} : Key{KeyKind::Char, static_cast<char32_t>(code)};
}

// Waits for a key, a stop signal or `seconds`; false on a stop signal or
// a terminal gone.
bool waitForInput(int stopFd, double seconds) {
  struct pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {stopFd, POLLIN, 0}};
  const int timeout = seconds < 0 ? -1 : static_cast<int>(std::ceil(seconds * 1000));
  const int ready = ::poll(fds, 2, timeout);
  if (ready < 0) {
    return errno == EINTR;  // SIGWINCH: get_wch says KEY_RESIZE
  }
  if ((fds[1].revents & POLLIN) != 0) {
    return false;
  }
  return (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) == 0 || (fds[0].revents & POLLIN) != 0;
}

}  // namespace

int run(const Options& options, int stopFd) {
  Terminal terminal;
  if (!terminal.ok()) {
    std::cerr << "heron-stat: cannot set up the terminal for --watch" << std::endl;
    return 1;
  }
  View view(options);
  KeptReaders kept;
  double next = Beacon::monoSeconds();
  for (;;) {
    const double now = Beacon::monoSeconds();
    if (!view.paused() && now >= next) {
      view.take(collect(options.collect, &kept));
      next = std::max(next + options.interval, now);
    }
    int height = 0;
    int width = 0;
    getmaxyx(stdscr, height, width);
    terminal.draw(
        view.frame(static_cast<std::size_t>(std::max(height, 1)), static_cast<std::size_t>(std::max(width, 1))));
    if (!waitForInput(stopFd, view.paused() ? -1.0 : next - Beacon::monoSeconds())) {
      return 0;
    }
    wint_t code = 0;
    for (int kind = get_wch(&code); kind != ERR; kind = get_wch(&code)) {
      if (!view.press(keyOf(kind, code))) {
        return 0;
      }
    }
  }
}

}  // namespace Tui
}  // namespace Stat
