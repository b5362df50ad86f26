// Whole numbers in option arguments: the two readings the options and the
// credentials share, so that "4x" or " 4" is refused the same way wherever
// a number is asked for.
#pragma once

// A base-0 conversion (decimal, 0x hex or 0 octal) that must consume the
// whole argument and at least one character. errno is 0 afterwards unless
// the value was out of range (ERANGE), for callers that refuse that too.
bool WholeLong(const char* text, long* value);

// A whole decimal number, an optional minus sign and digits only, within
// [low, high]. Blanks, a plus sign or trailing characters are refused.
bool StrictInteger(const char* text, long low, long high, long* value);
