// Bounded text: every copy of protocol or path text goes through these, and
// the scaling of byte counts for report lines.
#pragma once

#include <cstddef>
#include <cstdint>

// Every bounded copy of text goes through these helpers; nothing else in the
// program copies protocol or path text by hand.
//
// Copies at most cap-1 bytes of src and always terminates (cap > 0).
// Returns the length of src, so a result >= cap means the text was cut.
size_t CopyBounded(char* dst, size_t cap, const char* src);
// Appends src behind the text in dst within cap bytes, always terminated.
// Returns the length the joined text would have had.
size_t AppendBounded(char* dst, size_t cap, const char* src);
// snprintf into dst; returns the length the full text would have had.
[[gnu::format(printf, 3, 4)]] int FormatBounded(char* dst, size_t cap, const char* format, ...);

// Secrets (the passphrase and every buffer that held it) are overwritten
// with zero bytes once they are no longer needed, in a way the compiler may
// not leave out, so that a core file, a swapped-out page or a later reader
// of freed memory does not find them.
void WipeBytes(void* data, size_t length);
// Overwrites the characters of text (up to its terminator) with zero bytes;
// nothing for nullptr.
void WipeText(char* text);
// Wipes a heap copy of a secret, frees it and clears the pointer.
void WipeAndFree(char** text);

// Decimal and binary scaling of byte counts for report lines. The two rules
// differ on purpose: per-object lines step by 1000 above 2000 ("K", "M",
// "G"), run totals by 1024 above 2048 ("k", "M", "G").
double ScaleDecimal(double value, char* unit);
double ScaleBinary(double value, char* unit);

// A byte count for people, as progress lines and ctar show it: "812 bytes",
// "1.5 GiB".
void HumanBytes(uint64_t bytes, char* out, size_t capacity);
