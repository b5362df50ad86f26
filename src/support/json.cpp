// JSON strings: quoting and escaping of arbitrary bytes.
#include "support/json.h"

#include <cstdio>

namespace {

void AppendEscapedByte(std::string* out, unsigned char byte) {
  char escaped[8];
  snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(byte));
  out->append(escaped);
}

// The length of the well-formed UTF-8 sequence at the start of text, or 0
// when its first byte starts none (RFC 3629: no overlong forms, no
// surrogates, nothing beyond U+10FFFF).
size_t Utf8SequenceLength(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;  // range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // overlong below U+0800
    if (lead == 0xED) high = 0x9F;  // surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;   // overlong below U+10000
    if (lead == 0xF4) high = 0x8F;  // beyond U+10FFFF
  } else {
    return 0;
  }
  if (text.size() < length) return 0;
  if (byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < length; i++)
    if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
  return length;
}

}  // namespace

void AppendJsonString(std::string* out, std::string_view text) {
  out->push_back('"');
  size_t i = 0;
  while (i < text.size()) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      const size_t length = Utf8SequenceLength(text.substr(i));
      if (length == 0) {
        AppendEscapedByte(out, c);
        i++;
      } else {
        out->append(text.substr(i, length));
        i += length;
      }
      continue;
    }
    switch (c) {
      case '"': out->append("\\\""); break;
      case '\\': out->append("\\\\"); break;
      case '\b': out->append("\\b"); break;
      case '\f': out->append("\\f"); break;
      case '\n': out->append("\\n"); break;
      case '\r': out->append("\\r"); break;
      case '\t': out->append("\\t"); break;
      default:
        if (c < 0x20 || c == 0x7F)
          AppendEscapedByte(out, c);
        else
          out->push_back(static_cast<char>(c));
    }
    i++;
  }
  out->push_back('"');
}
