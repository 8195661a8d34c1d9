// Keys and frames of the interactive view.
#include "TuiView.h"

#include <algorithm>

#include "Render.h"

namespace Stat {
namespace Tui {

namespace {

void appendUtf8(std::string& text, char32_t c) {
  if (c < 0x80) {
    text += static_cast<char>(c);
  } else if (c < 0x800) {
    text += static_cast<char>(0xC0 | (c >> 6));
    text += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    text += static_cast<char>(0xE0 | (c >> 12));
    text += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    text += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    text += static_cast<char>(0xF0 | (c >> 18));
    text += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    text += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    text += static_cast<char>(0x80 | (c & 0x3F));
  }
}

void popUtf8(std::string& text) {
  while (!text.empty()) {
    const auto last = static_cast<unsigned char>(text.back());
    text.pop_back();
    if ((last & 0xC0U) != 0x80U) {
      return;
    }
  }
}

}  // namespace

void View::take(Sample sample) {
  if (sampled_) {
    deriveRates(sample_, sample);
  }
  assess(sample, thresholds_);
  sample_ = std::move(sample);
  sampled_ = true;
}

bool View::press(const Key& key) {
  if (mode_ == Mode::Filter) {
    pressFilter(key);
    return true;
  }
  if (key.kind == KeyKind::Char) {
    switch (key.character) {
      case 'q':
        return false;
      case 'p':
        paused_ = !paused_;
        return true;
      case '?':
        mode_ = mode_ == Mode::Help ? Mode::List : Mode::Help;
        return true;
      default:
        break;
    }
  }
  if (mode_ == Mode::Help) {
    if (key.kind == KeyKind::Escape || key.kind == KeyKind::Enter) {
      mode_ = Mode::List;
    }
    return true;
  }
  if (mode_ == Mode::Detail) {
    pressDetail(key);
  } else {
    pressList(key);
  }
  return true;
}

void View::pressList(const Key& key) {
  const std::vector<std::size_t> tables = shown();
  const long page = static_cast<long>(std::max<std::size_t>(page_, 1));
  switch (key.kind) {
    case KeyKind::Char:
      if (key.character == 's') {
        sort_ = nextSort(sort_);
        selected_ = 0;  // the worst (or first) table, at the top again
        selectedPath_.clear();
      } else if (key.character == '/') {
        filterBefore_ = filter_;
        mode_ = Mode::Filter;
      }
      return;
    case KeyKind::Up:
      return move(tables, -1);
    case KeyKind::Down:
      return move(tables, 1);
    case KeyKind::PageUp:
      return move(tables, -page);
    case KeyKind::PageDown:
      return move(tables, page);
    case KeyKind::Home:
      return move(tables, -static_cast<long>(tables.size()));
    case KeyKind::End:
      return move(tables, static_cast<long>(tables.size()));
    case KeyKind::Enter:
      if (!tables.empty()) {
        move(tables, 0);
        mode_ = Mode::Detail;
        detailTop_ = 0;
      }
      return;
    case KeyKind::Escape:
      filter_.clear();
      return;
    default:
      return;
  }
}

void View::move(const std::vector<std::size_t>& tables, long by) {
  if (tables.empty()) {
    return;
  }
  const long last = static_cast<long>(tables.size()) - 1;
  const long to = std::min(last, std::max(0L, static_cast<long>(std::min(selected_, tables.size() - 1)) + by));
  selected_ = static_cast<std::size_t>(to);
  selectedPath_ = sample_.tables[tables[selected_]].identity.path;
}

void View::pressDetail(const Key& key) {
  const std::size_t page = std::max<std::size_t>(page_, 1);
  switch (key.kind) {
    case KeyKind::Escape:
      mode_ = Mode::List;
      return;
    case KeyKind::Up:
      detailTop_ -= std::min<std::size_t>(detailTop_, 1);
      return;
    case KeyKind::Down:
      ++detailTop_;
      return;
    case KeyKind::PageUp:
      detailTop_ -= std::min(detailTop_, page);
      return;
    case KeyKind::PageDown:
      detailTop_ += page;
      return;
    case KeyKind::Home:
      detailTop_ = 0;
      return;
    case KeyKind::End:
      detailTop_ = static_cast<std::size_t>(-1) / 2;  // clamped when drawn
      return;
    default:
      return;
  }
}

void View::pressFilter(const Key& key) {
  switch (key.kind) {
    case KeyKind::Enter:
      mode_ = Mode::List;
      break;
    case KeyKind::Escape:
      filter_ = filterBefore_;
      mode_ = Mode::List;
      break;
    case KeyKind::Backspace:
      popUtf8(filter_);
      break;
    case KeyKind::Char:
      if (key.character >= 0x20 && key.character != 0x7F && key.character <= 0x10FFFF) {
        appendUtf8(filter_, key.character);
      }
      break;
    default:
      return;
  }
  selected_ = 0;
  selectedPath_.clear();
}

}  // namespace Tui
}  // namespace Stat
