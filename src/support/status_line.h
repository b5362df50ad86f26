// One status line kept at the bottom of a terminal: drawn over itself with a
// carriage return, never wider than the terminal (a wrapped line could not
// be drawn over), erased before other output reaches the terminal and drawn
// again after it. Both programs' progress lines are drawn through it.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

// Whether the stream writes to a terminal.
bool StreamIsTerminal(FILE* stream);

class StatusLine {
 public:
  // Drawn on `stream`; the width is asked of the terminal at each draw (it
  // may be resized), `fallback_columns` when it does not say.
  explicit StatusLine(FILE* stream, size_t fallback_columns = 80)
      : stream_(stream), fallback_columns_(fallback_columns) {}

  // Draws `text` in place of what the line shows, cut to the terminal's
  // width less one column.
  void Show(const char* text);
  // Blanks the line and leaves the cursor at its start: whatever is written
  // next starts on a clean line. The text is kept for Leave.
  void Erase();
  // The last text is left standing and the line ended; the next Show starts
  // a new line.
  void Leave();
  // Erased for good: Leave draws nothing until the next Show.
  void Forget();

  bool Shown() const { return shown_; }

 private:
  size_t Columns() const;
  void Draw();

  FILE* stream_;
  size_t fallback_columns_;
  std::string text_;    // what Show was last given
  size_t drawn_ = 0;    // columns the line takes on the terminal now
  bool shown_ = false;  // the line is on the terminal now
};

// The longest prefix of `text` (`length` bytes) that fills at most `columns`
// terminal columns, counting each UTF-8 character as one and never cutting
// one in two; the number of columns it fills goes to *used.
size_t FitToColumns(const char* text, size_t length, size_t columns, size_t* used);
