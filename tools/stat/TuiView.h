// The interactive view's state: the latest sample, the sort, the filter,
// the selection and the screen shown, changed by keys and laid out as
// lines for a terminal size. No terminal here: TuiScreen.cpp feeds it keys
// and draws its frames.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Stat.h"
#include "TuiLayout.h"

namespace Stat {
namespace Tui {

enum class KeyKind { None, Char, Up, Down, PageUp, PageDown, Home, End, Enter, Escape, Backspace, Resize };
struct Key {
  KeyKind kind = KeyKind::None;
  char32_t character = 0;  // KeyKind::Char
};

struct Frame {
  std::vector<Line> lines;                              // at most the height, each at most the width
  std::size_t selected = static_cast<std::size_t>(-1);  // the highlighted line
};

class View {
 public:
  explicit View(const Options& options) : thresholds_(options.thresholds), interval_(options.interval) {}

  // A new sample: rates from the one before, then states and problems.
  void take(Sample sample);
  const Sample& sample() const { return sample_; }
  bool paused() const { return paused_; }
  SortKey sort() const { return sort_; }
  const std::string& filter() const { return filter_; }

  // False when the key ends the view (q).
  bool press(const Key& key);
  Frame frame(std::size_t rows, std::size_t columns);

 private:
  enum class Mode { List, Detail, Help, Filter };
  void pressList(const Key& key);
  void pressDetail(const Key& key);
  void pressFilter(const Key& key);
  void move(const std::vector<std::size_t>& shown, long by);
  std::vector<std::size_t> shown() const { return visibleTables(sample_, sort_, filter_); }
  void listFrame(Frame& frame, std::size_t rows, std::size_t columns);
  void detailFrame(Frame& frame, std::size_t rows, std::size_t columns);
  Line statusLine(std::size_t shown, std::size_t columns) const;

  Thresholds thresholds_;
  double interval_;
  Sample sample_;
  bool sampled_ = false;
  Mode mode_ = Mode::List;
  SortKey sort_ = SortKey::State;
  std::string filter_;
  std::string filterBefore_;  // restored by Esc while editing
  bool paused_ = false;
  // The selection, by path so that it follows its table through a new
  // sample or sort, and by place for when that table is gone.
  std::string selectedPath_;
  std::size_t selected_ = 0;
  std::size_t top_ = 0;
  std::size_t detailTop_ = 0;
  std::size_t page_ = 1;  // table rows on the last frame
};

}  // namespace Tui
}  // namespace Stat
