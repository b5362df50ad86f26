// Backup module: the tree of server objects that a backup saves, the listing
// parser and walk that fill it, archive writing and the backup driver.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <atomic>
#include <mutex>

// ---------------------------------------------------------------------------
// Object tree
//
// A tree is its root ObjectNode; "ObjectTree" is only another name for it.
// Directories and files hang in two singly linked lists per directory, in the
// order they were appended. Names are heap strings owned by their record (or
// nullptr once released); a node's path is the plain concatenation of the
// names from the root down, which is why listed names start with "/".
// ---------------------------------------------------------------------------

struct ObjectFile;

struct ObjectNode {
  char* name;
  ObjectNode* parent;  // nullptr for a root
  uint32_t mode;       // st_mode style: 0040000 directory, 0100000 regular
  struct tm mtime;
  uint64_t size;   // own listed size plus everything appended below
  uint64_t count;  // files appended anywhere below; directories do not count
  uint8_t partial;   // something below was left out: never save it whole
  uint8_t borrowed;  // adopted copy sharing another tree's child lists
  ObjectNode* next;  // next sibling directory
  ObjectNode* last_dir;
  ObjectNode* first_dir;
  ObjectFile* last_file;
  ObjectFile* first_file;
};

struct ObjectFile {
  char* name;
  ObjectNode* parent;
  uint32_t mode;
  uint64_t size;
  struct tm mtime;
  uint8_t borrowed;
  ObjectFile* next;  // next file of the same directory
};

using ObjectTree = ObjectNode;

enum ObjectKind : int {
  OBJECT_KIND_SYSTEM = 0,   // "/Security Data", "/System Configuration"
  OBJECT_KIND_QDLS = 1,     // "/QDLS"
  OBJECT_KIND_LIBRARY = 2,  // below "/QSYS.LIB/"
  OBJECT_KIND_IFS = 3,      // everything else
};

// Number of kinds, and so the largest number of backup workers.
int ObjectKindCount();
// Kind of a full server path; comparisons are byte-exact.
ObjectKind ClassifyPath(const char* path);

// Fresh records with a private copy of name (nullptr stays nullptr); nothing
// is linked and nothing rolled up. nullptr when memory is exhausted.
ObjectNode* NewDirectoryNode(ObjectNode* parent, const char* name, uint32_t mode, uint64_t size,
                             struct tm mtime);
ObjectFile* NewFileNode(ObjectNode* parent, const char* name, uint32_t mode, uint64_t size,
                        struct tm mtime);

// Append a record below dir and roll its size up from dir (a file also counts
// one). The new directory is dir->last_dir afterwards. nullptr (and nothing
// changed) when memory is exhausted.
ObjectNode* AppendDirectory(ObjectNode* dir, const char* name, uint32_t mode, uint64_t size,
                            struct tm mtime);
ObjectFile* AppendFile(ObjectNode* dir, const char* name, uint32_t mode, uint64_t size,
                       struct tm mtime);

// Adds size (and one to count when counts is set) to dir and every ancestor.
void RollUp(ObjectNode* dir, uint64_t size, bool counts);
// Flags dir and every ancestor as partial.
void MarkPartial(ObjectNode* dir);
// Replaces the name with a private copy; -1 (name left nullptr) when the
// copy cannot be made.
int RenameNode(ObjectNode* dir, const char* name);
// Drops the name so that walks skip the node; borrowed nodes keep theirs.
void ReleaseName(ObjectNode* dir);

// Free a record, and unless it is borrowed everything it owns: following
// siblings (files: the rest of the list), child directories and files. A
// borrowed record ends the freeing of its chain, because the rest of that
// chain belongs to the tree it was adopted from.
void FreeTree(ObjectNode* dir);
void FreeFileList(ObjectFile* file);

// Full path of dir (of file: its directory's path and its name), with "\n"
// when newline is set, cut to capacity and always terminated. Returns the
// length the whole text would have had, so a result >= capacity was cut.
size_t DirectoryPath(const ObjectNode* dir, bool newline, char* buffer, size_t capacity);
size_t FilePath(const ObjectFile* file, bool newline, char* buffer, size_t capacity);

// Catalog output: plain lines, no log prefix. Each line is written under
// LogLock so that lines of several workers never mix; do not call these
// while holding LogLock. 0, or -1 when writing (or allocating) failed.
int PrintFilePath(FILE* stream, const ObjectFile* file);
// One "<directory path><file name>" line for every file in dir and below,
// the files of subdirectories before a directory's own files. With full set
// the path starts at the root, otherwise at dir's own name.
int DumpTree(FILE* stream, const ObjectNode* dir, bool full);

// Append to root a borrowed copy of dir (of file) named with its full path;
// the copy shares the source's child lists. The size rolls up from root and
// the root's count grows by the copy's count (a file counts one).
ObjectNode* AdoptDirectory(ObjectNode* root, const ObjectNode* dir);
ObjectFile* AdoptFile(ObjectNode* root, const ObjectFile* file);

// Line buffer size that ReadTree needs: lines of up to 249 characters.
constexpr size_t TreeLineSize = 250;
// Reads the tree text format into dir: ">name" opens a directory, "+name"
// adds a file, "<" closes the current directory. Entries get mode 0, size 1
// and a zero time. 0 when the closing "<" was found, -1 otherwise.
int ReadTree(FILE* stream, ObjectNode* dir, char* line_buffer);

#include "archive/ctar_format.h"

// ---------------------------------------------------------------------------
// Listing parser, directory walk and include list
// ---------------------------------------------------------------------------

struct FtpSession;

constexpr size_t PathBufferSize = 4096;
// A listing line longer than this cannot name anything we could save.
constexpr size_t CarryLimit = 4095;

// Shared by all listings of one include list build.
struct ListingContext {
  char carry[CarryLimit + 1];  // the line being assembled across chunks
  char* path;                  // full path of the directory being listed
  uint8_t found;               // set when an entry was appended
  ObjectNode* directory;       // where entries are appended
  int errors;                  // lines of the current listing that failed
  bool carry_overflow;         // the line being assembled is too long
  uint8_t unchanged;           // an entry it names was left out as older than --date
  char path_buffer[PathBufferSize];
};

// Run-wide listing figures, reported with the backup totals.
extern uint64_t ListCalls;
extern uint64_t ParseErrors;
extern double ListBytes;

// Cuts the chunk into lines and parses and places each complete one;
// returns the number of lines that failed to parse.
int ParseListingChunk(ListingContext* context, const char* data, int length);
// Takes the listing's last line when the server ended it without a line
// end; returns the number of lines that failed to parse (0 or 1).
int FinishListing(ListingContext* context);
// The DataCallback given to LIST: failed lines are counted in the context
// and never abort the transfer.
int ListingCallback(void* context, char* data, int* length);
// Lists dir and every directory below it, depth first. path holds dir's
// parent's path and is cut back to it on return. The sum of parse errors,
// or -1 when dir's own listing failed.
int WalkDirectory(FtpSession* session, ObjectNode* dir, char* path, ListingContext* context);
// The tree of everything to back up: the special objects, each include path
// resolved by listing its directory, then every directory walked.
ObjectNode* BuildIncludeList(FtpSession* session);

// ---------------------------------------------------------------------------
// Writing the archive, saving objects, and the backup driver
// ---------------------------------------------------------------------------

struct TransferStats;

// A worker's state for appending to the shared archive.
struct ArchiveWriter {
  int descriptor;  // the archive, opened once by the driver
  alignas(512) unsigned char storage[1024];  // the block being gathered (room for two)
  unsigned char* block;
  int pending;      // bytes waiting in the block, 0 to 511
  uint64_t objects;   // objects handed to the save dispatcher
  uint64_t failures;  // objects that could not be saved
  uint64_t calls;   // callback calls for the current object
  int64_t bytes;    // data bytes written for the current object; then its size
  uint64_t reserve_at;  // bytes at which file system space is next reserved ahead
  uint8_t reserved;     // space was reserved beyond the archive's end
  uint8_t partial;      // the current object's save left objects behind
};

// Serialises appends to the archive: one retrieval at a time, from its RETR
// until its entry is closed or cut back.
extern std::mutex ArchiveLock;

// Set when the archive could not be cut back after a failed retrieval: its
// end is no longer known to be whole, so nothing more is appended and the
// run fails.
extern std::atomic<bool> ArchiveBroken;
// Entries closed whole in this run's archive.
extern std::atomic<uint64_t> ArchiveEntries;

// One retrieval's hold on the archive. It takes ArchiveLock and finds the
// archive's end (just behind its end block); unless Commit() is called, its
// destructor cuts the archive back to that end, rewriting the old end block
// when the entry's header had begun to replace it, so the archive is what it
// was before the retrieval. The lock is released only after the cut-back,
// on every way out, including the exception of a lost control connection.
class ArchiveAppend {
 public:
  explicit ArchiveAppend(ArchiveWriter* writer);
  ~ArchiveAppend();
  ArchiveAppend(const ArchiveAppend&) = delete;
  ArchiveAppend& operator=(const ArchiveAppend&) = delete;
  // false when the archive's end could not be found or the archive is broken.
  bool Usable() const { return start_ >= 0; }
  ArchiveWriter* Writer() const { return writer_; }
  // Offset of the archive's end: the entry's data begins here.
  int64_t Start() const { return start_; }
  // The header is about to be written over the old end block.
  void TouchEndBlock() { end_block_touched_ = true; }
  // The entry is whole: nothing is cut back.
  void Commit();

 private:
  std::unique_lock<std::mutex> hold_;
  ArchiveWriter* writer_;
  int64_t start_ = -1;
  bool end_block_touched_ = false;
  bool committed_ = false;
};

// The archive a backup writes is made under a temporary name beside the
// final one and renamed onto it only when the run ends with a whole
// archive, so an existing archive of that name is never harmed by a run
// that fails or dies. The path must be a regular file or a new name.
// 0, or -1 after a message (nothing made).
int PrepareArchiveFile(const char* path);
// Flushes the archive to disk and gives it its final name. 0, or -1 after a
// message (the temporary file is then removed).
int CommitArchiveFile();
// Removes the temporary file of a run that failed. Harmless without one.
void DiscardArchiveFile();

// Receive-direction DataCallback of RETR: writes whole 512-byte blocks at
// the archive's end, straight from the transfer buffer where it can; keeps
// at most 511 bytes in the writer's block. 1 when bytes were left unwritten
// (which aborts the transfer), -1 without a writer.
int ArchiveWriteCallback(void* writer, char* buffer, int* count);
// Cuts the archive back to offset and leaves the file position there.
int TruncateArchive(int descriptor, int64_t offset);
// Gives back the file system space that ArchiveWriteCallback reserved
// beyond the archive's end for a large entry; the file's content and size
// stay as they are, and so does its position.
void ReleaseArchiveReserve(ArchiveWriter* writer);

// What a worker returns and the driver sums.
struct BackupTotals {
  uint64_t attempted;
  uint64_t failed;
  double save_seconds;
  double wait_seconds;
  double transfer_seconds;
  uint64_t bytes;
  uint64_t partial;  // objects saved with some of their contents left behind
};

// Saves one object with the member of the save family its path calls for
// and writes its report lines. 0 when saved, 1 when not.
int ProcessObject(FtpSession* session, ObjectFile* object, int number, ArchiveWriter* writer,
                  BackupTotals* totals);

// Objects placed into the per-kind trees.
extern uint64_t ObjectsFound;
// Include paths that brought nothing to save (nothing matched, or the path
// was unusable): each counts as one failed object.
extern uint64_t IncludesMissed;
// The archive descriptor shared by the workers.
extern int ArchiveDescriptor;

// Sorts the include tree into one tree per ObjectKind (ObjectKindCount
// roots), deciding which directories are saved whole.
ObjectNode** BuildBackupList(ObjectNode* include_tree);
// Frees what BuildBackupList made: the roots and every adopted copy in
// them, leaving the include tree (which owns the copies' children) alone.
void FreeBackupList(ObjectNode** kinds);
void PlaceObject(ObjectNode** kinds, ObjectNode* dir, char* path);
// Saves every object of a kind tree; 0, or -1 without a valid archive.
int SaveBlock(FtpSession* session, ObjectNode* tree, int number, BackupTotals* totals);
// The backup run mode: the exit status (0, 1 or 2), or -1 when the archive
// or the lists cannot be made. Ends the process with TerminationStatus()
// after a termination request.
int BackupDriver(FtpSession* session);
