// JSON text: strings quoted and escaped so that any bytes, including those
// of server paths and replies in no known encoding, make valid JSON.
#pragma once

#include <string>
#include <string_view>

// Appends text to out as a quoted JSON string. Quotes and backslashes are
// escaped; control characters below 0x20 become \b \f \n \r \t or \u00XX,
// and so does DEL (\u007f). Well-formed UTF-8 is copied as it is; every
// byte that is not part of a well-formed UTF-8 sequence (a stray
// continuation byte, a cut or overlong sequence, a surrogate, a code point
// beyond U+10FFFF) becomes \u00XX, the character of the same number in
// Latin-1, so no byte is lost and the result is always valid UTF-8.
void AppendJsonString(std::string* out, std::string_view text);
