// lineedit.h - a small line reader for qmlock shell: on a terminal, a prompt
// and editing (arrows, Home/End, ^A ^E ^U ^K ^W, backspace, history with
// up/down, ^C to drop the line, ^D to end); elsewhere plain lines.
#ifndef QMLOCK_LINEEDIT_H
#define QMLOCK_LINEEDIT_H

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace qmlock {

class LineReader {
 public:
  // Reads from in; edits only when in and stdout are both terminals.
  explicit LineReader(FILE *in, std::string prompt);
  // The next line without its newline, or nothing at the end of input.
  std::optional<std::string> next();
  bool interactive() const { return interactive_; }

 private:
  std::optional<std::string> edit();

  FILE *in_;
  std::string prompt_;
  bool interactive_;
  std::vector<std::string> history_;
};

}  // namespace qmlock

#endif  // QMLOCK_LINEEDIT_H
