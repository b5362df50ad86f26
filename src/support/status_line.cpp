// The status line at the bottom of a terminal.
#include "support/status_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>

bool StreamIsTerminal(FILE* stream) {
  if (!stream) return false;
  const int descriptor = fileno(stream);
  return descriptor >= 0 && isatty(descriptor) == 1;
}

size_t FitToColumns(const char* text, size_t length, size_t columns, size_t* used) {
  size_t fitted = 0;
  size_t count = 0;
  for (size_t i = 0; i < length; i++) {
    // A byte that starts a character (anything but 10xxxxxx) takes a column.
    if ((static_cast<unsigned char>(text[i]) & 0xC0) == 0x80) continue;
    if (count == columns) break;
    count++;
    // The character ends where the next one starts.
    size_t end = i + 1;
    while (end < length && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) end++;
    fitted = end;
  }
  *used = count;
  return fitted;
}

size_t StatusLine::Columns() const {
  struct winsize size{};
  if (ioctl(fileno(stream_), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return fallback_columns_;
}

void StatusLine::Draw() {
  // The last column stays free: a terminal that wraps when it is written
  // would put the cursor on a new line, and the next draw could not reach
  // this one.
  const size_t columns = Columns();
  size_t used = 0;
  const size_t bytes = FitToColumns(text_.data(), text_.size(), columns > 1 ? columns - 1 : 0, &used);
  fputc('\r', stream_);
  fwrite(text_.data(), 1, bytes, stream_);
  // Blanks over the rest of a longer line drawn before, and the cursor back
  // behind the text.
  if (drawn_ > used) {
    for (size_t i = used; i < drawn_; i++) fputc(' ', stream_);
    fputc('\r', stream_);
    fwrite(text_.data(), 1, bytes, stream_);
  }
  fflush(stream_);
  drawn_ = used;
  shown_ = true;
}

void StatusLine::Show(const char* text) {
  text_.assign(text, strlen(text));
  Draw();
}

void StatusLine::Erase() {
  if (!shown_) return;
  fputc('\r', stream_);
  for (size_t i = 0; i < drawn_; i++) fputc(' ', stream_);
  fputc('\r', stream_);
  fflush(stream_);
  drawn_ = 0;
  shown_ = false;
}

void StatusLine::Leave() {
  if (text_.empty()) return;
  if (!shown_) Draw();
  fputc('\n', stream_);
  fflush(stream_);
  drawn_ = 0;
  shown_ = false;
  text_.clear();
}

void StatusLine::Forget() {
  Erase();
  text_.clear();
}
