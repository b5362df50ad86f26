// Judging what the server's replies mean. Every code, phrase and name in a
// reply that decides an outcome stands in the tables of this module, and
// nothing else in the program looks into reply text: the release named by
// SYST, a listing refused but savable, a partial save, a restore that did
// part of its work.
#pragma once

// The release SYST names in its quoted text: 1 for "V5R3M0", 2 for
// "V5R4M0", 0 for any other; -1 when the reply quotes no release.
int JudgeSystemReply(const char* reply);

// A failed LIST: true when the server refused to list a directory that it
// can still save whole (CPF3CAA).
bool ListingRefusedButSavable(const char* reply);

// A failed save: true when the reply is a 550 "<n> objects saved. <m>
// objects not saved.." reply; count then points at <m> and length is the
// length of its text.
bool FindNotSavedCount(const char* reply, const char** count, int* length);

// Judges the reply text of a restore command the server called failed: the
// count of "<n> objects restored" or "<n> libraries restored" (0 when it is
// not a positive number followed by a blank), 1 for "Not all ..." and for an
// empty save file, -1 otherwise. Only the first occurrence of each phrase's
// initial letter is examined, and case does not matter.
int ClassifyRestoreReply(const char* text);
