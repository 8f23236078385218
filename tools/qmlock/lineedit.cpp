// lineedit.cpp - the line reader of qmlock shell. On a terminal it switches
// the terminal to non-canonical mode without echo for the length of one line
// (restored before the line is returned, so the commands' output and a ^Z
// find the terminal as it was), and redraws the line after every key.
// Cursor movement and deletion step over whole UTF-8 characters; each is
// taken to be one column wide.
#include "lineedit.h"

#include <termios.h>
#include <unistd.h>

#include <cstring>

namespace qmlock {

namespace {

bool continuation(char c) {
  return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

// Columns (characters) of s[0, n).
size_t columns(const std::string &s, size_t n) {
  size_t cols = 0;
  for (size_t i = 0; i < n; ++i) cols += continuation(s[i]) ? 0 : 1;
  return cols;
}

// Restores the terminal's settings when the line is done.
class RawMode {
 public:
  explicit RawMode(int fd) : fd_(fd) {
    if (tcgetattr(fd_, &saved_) != 0) return;
    termios raw = saved_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG | IEXTEN);
    raw.c_iflag &= ~static_cast<tcflag_t>(IXON | ICRNL);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    active_ = tcsetattr(fd_, TCSADRAIN, &raw) == 0;
  }
  ~RawMode() {
    if (active_) tcsetattr(fd_, TCSADRAIN, &saved_);
  }
  RawMode(const RawMode &) = delete;
  RawMode &operator=(const RawMode &) = delete;
  bool active() const { return active_; }

 private:
  int fd_;
  termios saved_{};
  bool active_ = false;
};

void put(const std::string &s) {
  std::fwrite(s.data(), 1, s.size(), stdout);
  std::fflush(stdout);
}

}  // namespace

LineReader::LineReader(FILE *in, std::string prompt)
    : in_(in), prompt_(std::move(prompt)), interactive_(isatty(fileno(in)) && isatty(1)) {}

std::optional<std::string> LineReader::next() {
  if (interactive_) return edit();
  std::string line;
  int c;
  while ((c = std::fgetc(in_)) != EOF && c != '\n') line += static_cast<char>(c);
  if (c == EOF && line.empty()) return std::nullopt;
  return line;
}

std::optional<std::string> LineReader::edit() {
  const int fd = fileno(in_);
  RawMode raw(fd);
  if (!raw.active()) {
    interactive_ = false;
    put(prompt_);
    return next();
  }
  std::string line;
  size_t pos = 0;                   // byte offset of the cursor
  size_t recall = history_.size();  // history entry shown; size(): the new line
  std::string draft;                // the new line while history is shown
  auto redraw = [&] {
    std::string s = "\r" + prompt_ + line + "\x1b[K";
    const size_t back = columns(line, line.size()) - columns(line, pos);
    if (back > 0) s += "\x1b[" + std::to_string(back) + "D";
    put(s);
  };
  auto left = [&] {
    while (pos > 0 && continuation(line[--pos])) {
    }
  };
  auto right = [&] {
    if (pos < line.size()) ++pos;
    while (pos < line.size() && continuation(line[pos])) ++pos;
  };
  auto eraseForward = [&] {
    if (pos == line.size()) return;
    const size_t from = pos;
    right();
    line.erase(from, pos - from);
    pos = from;
  };
  auto show = [&](size_t entry) {
    if (recall == history_.size()) draft = line;
    recall = entry;
    line = recall == history_.size() ? draft : history_[recall];
    pos = line.size();
  };
  redraw();
  for (;;) {
    char c;
    if (read(fd, &c, 1) != 1) return std::nullopt;
    switch (c) {
      case '\r':
      case '\n':
        put("\r\n");
        if (!line.empty() && (history_.empty() || history_.back() != line))
          history_.push_back(line);
        return line;
      case 4:  // ^D: end of input on an empty line, else delete forward
        if (line.empty()) {
          put("\r\n");
          return std::nullopt;
        }
        eraseForward();
        break;
      case 3:  // ^C: drop the line
        put("^C\r\n");
        line.clear();
        pos = 0;
        recall = history_.size();
        break;
      case 127:
      case 8:  // backspace
        if (pos > 0) {
          const size_t to = pos;
          left();
          line.erase(pos, to - pos);
        }
        break;
      case 1:  // ^A
        pos = 0;
        break;
      case 5:  // ^E
        pos = line.size();
        break;
      case 21:  // ^U
        line.erase(0, pos);
        pos = 0;
        break;
      case 11:  // ^K
        line.erase(pos);
        break;
      case 23: {  // ^W: the word before the cursor
        size_t from = pos;
        while (from > 0 && line[from - 1] == ' ') --from;
        while (from > 0 && line[from - 1] != ' ') --from;
        line.erase(from, pos - from);
        pos = from;
        break;
      }
      case 27: {  // ESC [ A/B/C/D/H/F, ESC [ 3 ~
        char seq[3] = {};
        if (read(fd, &seq[0], 1) != 1 || read(fd, &seq[1], 1) != 1) break;
        if (seq[0] != '[' && seq[0] != 'O') break;
        if (seq[1] >= '0' && seq[1] <= '9') {
          if (read(fd, &seq[2], 1) != 1) break;
          if (seq[1] == '3' && seq[2] == '~') eraseForward();  // Delete
          break;
        }
        if (seq[1] == 'A' && recall > 0) show(recall - 1);
        if (seq[1] == 'B' && recall < history_.size()) show(recall + 1);
        if (seq[1] == 'C') right();
        if (seq[1] == 'D') left();
        if (seq[1] == 'H') pos = 0;
        if (seq[1] == 'F') pos = line.size();
        break;
      }
      default:
        if (static_cast<unsigned char>(c) >= 32 || c == '\t') {
          line.insert(pos, 1, c == '\t' ? ' ' : c);
          ++pos;
        }
        break;
    }
    redraw();
  }
}

}  // namespace qmlock
