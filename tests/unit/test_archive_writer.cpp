// Appending to the archive: the block-gathering write callback, cutting the
// archive back, and the guard that holds the archive for one retrieval and
// cuts back what it did not close (checked on real temporary files, with
// writes made to fail where the archive must survive them).
#define VONDRAL_ARCHIVE_HELPERS
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "archive/writer.h"
#include "archive_test_helpers.h"
#include "test_helpers.h"

namespace {

// --- ArchiveWriteCallback on its own

TEST(ArchiveWriteCallback, GathersPartBlocksAndWritesWholeOnesInStreamOrder) {
  // One stream handed over in calls of these sizes. After each call the file
  // holds every whole block so far and the writer the rest.
  struct Step {
    int count;
    int pending;
    int64_t bytes;
  };
  const Step steps[] = {
      {700, 188, 512},           // one block out, the rest waits
      {0, 188, 512},             // empty calls only count
      {-5, 188, 512},            //
      {300, 488, 512},           // still short of a block
      {24 + 1024 + 5, 5, 2048},  // completes the waiting block; two whole ones go straight out
      {507, 0, 2560},            // completes it exactly: nothing is left behind
      {1024, 0, 3584},           // whole blocks with nothing waiting
      {512, 0, 4096},            //
      {511, 511, 4096},          // less than a block only waits
  };
  TempArchive file;
  auto writer = ArchiveWriterFor(file.fd);
  const std::string stream = Pattern(5000, 1);
  size_t taken = 0;
  for (size_t i = 0; i < std::size(steps); i++) {
    const Step& s = steps[i];
    SCOPED_TRACE("call " + std::to_string(i) + " with " + std::to_string(s.count));
    std::string piece = stream.substr(taken, static_cast<size_t>(std::max(s.count, 0)));
    taken += piece.size();
    int count = s.count;
    EXPECT_EQ(ArchiveWriteCallback(writer.get(), piece.data(), &count), 0);
    EXPECT_EQ(count, std::min(s.count, 0));
    EXPECT_EQ(writer->calls, i + 1);
    EXPECT_EQ(writer->pending, s.pending);
    EXPECT_EQ(writer->bytes, s.bytes);
    EXPECT_EQ(file.Contents(), stream.substr(0, static_cast<size_t>(s.bytes)));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(writer->block), static_cast<size_t>(s.pending)),
              stream.substr(static_cast<size_t>(s.bytes), static_cast<size_t>(s.pending)));
  }
}

TEST(ArchiveWriteCallback, EveryFailedWriteAbortsTheTransfer) {
  // A block that did not reach the archive would leave a hole in the entry,
  // so the transfer ends at the first failed write, also when the call has
  // no bytes left over; the retrieval then cuts the entry back.
  enum class Fault { ReadOnly, FullDisk, SizeLimit };
  struct Case {
    const char* what;
    Fault fault;
    rlim_t limit;  // file size for Fault::SizeLimit
    int waiting;   // bytes gathered by an earlier call
    int count;
    int left;  // of count
    std::string message;
  };
  const std::string buffer_write = R"(\[backup\.cpp,\d+\]: write\(, 0x[0-9A-F]+, -1\): )";
  const std::string block_write = R"(\[backup\.cpp,\d+\]: write\(\): )";
  const Case cases[] = {
      {"whole blocks from the buffer", Fault::ReadOnly, 0, 0, 1024, 1024, buffer_write + "Bad file descriptor\n"},
      {"the gathered block, with bytes of the call left over", Fault::ReadOnly, 0, 100, 600, 188,  // 412 went into it
       block_write + "Bad file descriptor\n"},
      {"the gathered block completed by exactly the call", Fault::ReadOnly, 0, 100, 412, 0,
       block_write + "Bad file descriptor\n"},
      {"a full disk", Fault::FullDisk, 0, 0, 1500, 1500, buffer_write + strerror(ENOSPC) + "\n"},
      // The file takes part of the write, then refuses the rest.
      {"whole blocks that fit in part", Fault::SizeLimit, 700, 0, 1536, 1536, buffer_write + strerror(EFBIG) + "\n"},
      {"the gathered block that fits in part", Fault::SizeLimit, 300, 100, 412, 0,
       block_write + strerror(EFBIG) + "\n"},
  };
  std::string data = Pattern(2000, 5);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TempArchive file;
    int fd = c.fault == Fault::FullDisk   ? open("/dev/full", O_WRONLY)
             : c.fault == Fault::ReadOnly ? open(file.path.c_str(), O_RDONLY)
                                          : dup(file.fd);
    if (fd < 0) continue;  // no /dev/full here
    auto writer = ArchiveWriterFor(fd);
    int count = c.waiting;
    if (c.waiting > 0) {
      EXPECT_EQ(ArchiveWriteCallback(writer.get(), data.data(), &count), 0);
    }
    StderrCapture err;
    count = c.count;
    int result;
    {
      std::optional<FileSizeLimit> limit;
      if (c.fault == Fault::SizeLimit) limit.emplace(c.limit);
      result = ArchiveWriteCallback(writer.get(), data.data() + c.waiting, &count);
    }
    EXPECT_EQ(result, 1);
    EXPECT_EQ(count, c.left);
    EXPECT_TRUE(Matches(err.Text(), c.message)) << err.Text();
    EXPECT_EQ(writer->calls, c.waiting > 0 ? 2u : 1u);
    EXPECT_EQ(writer->bytes, 0);  // nothing counts as written
    close(fd);
  }
  StderrCapture err;
  int count = 3;
  EXPECT_EQ(ArchiveWriteCallback(nullptr, data.data(), &count), -1);
  EXPECT_TRUE(Matches(err.Text(), R"(\[backup\.cpp,\d+\]: bad argument\n)")) << err.Text();
}

// --- TruncateArchive

TEST(TruncateArchive, CutsTheFileAndLeavesThePositionThere) {
  TempArchive file;
  const std::string data = Pattern(3000, 6);
  file.Append(data);
  EXPECT_EQ(TruncateArchive(file.fd, 1024), 0);
  EXPECT_EQ(lseek(file.fd, 0, SEEK_CUR), 1024);
  // The next write lands at the cut.
  ASSERT_EQ(write(file.fd, "xy", 2), 2);
  EXPECT_EQ(file.Contents(), data.substr(0, 1024) + "xy");

  StderrCapture err;
  EXPECT_EQ(TruncateArchive(-1, 0), -1);
  EXPECT_TRUE(Matches(err.Text(), R"(\[backup\.cpp,\d+\]: lseek\(\): )")) << err.Text();
  int read_only = open(file.path.c_str(), O_RDONLY);
  ASSERT_GE(read_only, 0);
  EXPECT_EQ(TruncateArchive(read_only, 512), -1);
  EXPECT_TRUE(Matches(err.Text(), R"(\[backup\.cpp,\d+\]: ftruncate64\(\): )")) << err.Text();
  close(read_only);
  EXPECT_EQ(file.Size(), 1026);
}

// --- ArchiveAppend, the guard of one retrieval

TEST(ArchiveAppendGuard, WhatIsNotCommittedIsCutBackAndTheOldEndBlockPutBack) {
  // What a retrieval may have done to the archive when it ends: data behind
  // the old end block, the new end block behind that, the header begun or
  // written over the old end block; then it commits, returns, or an
  // exception (the lost connection's abort) passes.
  struct Case {
    const char* what;
    size_t data;          // bytes written behind the old end block
    size_t header;        // bytes of the header written over the old end block
    bool commit;
    bool abort;
  };
  const Case cases[] = {
      {"nothing written", 0, 0, false, false},
      {"data only", 1300, 0, false, false},
      {"data, then an abort", 1300, 0, false, true},
      {"data and half a header", 1024 + 512, 200, false, false},
      {"data and the whole header, then an abort", 1024 + 512, 512, false, true},
      {"a whole entry, committed", 1024 + 512, 512, true, false},
  };
  const std::string old_archive = OldArchive();
  const std::string header = HeaderBlock("/new", 1024, 0100644);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TempArchive file;
    file.Append(old_archive);
    lseek(file.fd, 0, SEEK_SET);  // the guard finds the end by itself
    auto writer = ArchiveWriterFor(file.fd);
    writer->pending = 77;
    const uint64_t entries = ArchiveEntries.load();
    bool locked_inside = false;
    try {
      ArchiveAppend append(writer.get());
      ASSERT_TRUE(append.Usable());
      EXPECT_EQ(append.Start(), static_cast<int64_t>(old_archive.size()));
      EXPECT_EQ(append.Writer(), writer.get());
      locked_inside = !ArchiveLockIsFree();
      const std::string data = Pattern(c.data, 30);
      EXPECT_EQ(write(file.fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
      if (c.header > 0) {
        append.TouchEndBlock();
        EXPECT_EQ(pwrite(file.fd, header.data(), c.header, append.Start() - CtarBlockSize),
                  static_cast<ssize_t>(c.header));
      }
      if (c.commit) append.Commit();
      if (c.abort) throw CheckpointAbort{nullptr};
    } catch (const CheckpointAbort&) {
    }
    EXPECT_TRUE(locked_inside);
    EXPECT_TRUE(ArchiveLockIsFree());
    EXPECT_FALSE(ArchiveBroken.load());
    EXPECT_EQ(writer->pending, 0);  // nothing of this entry is carried into the next
    EXPECT_EQ(ArchiveEntries.load(), entries + (c.commit ? 1 : 0));
    if (c.commit) {
      EXPECT_EQ(file.Size(), static_cast<off_t>(old_archive.size() + c.data));
      EXPECT_EQ(file.Contents().substr(old_archive.size() - CtarBlockSize, CtarBlockSize), header);
    } else {
      EXPECT_EQ(file.Contents(), old_archive);
      EXPECT_EQ(lseek(file.fd, 0, SEEK_CUR), static_cast<off_t>(old_archive.size()));
    }
  }
}

TEST(ArchiveAppendGuard, AnArchiveThatCannotBeCutBackTakesNoMoreEntries) {
  struct Case {
    const char* what;
    bool read_only;            // the cut itself fails
    std::vector<long> pwrites; // the old end block cannot be written again
    const char* failure;
  };
  const Case cases[] = {
      {"the cut fails", true, {}, R"(\[backup\.cpp,\d+\]: ftruncate64\(\): )"},
      {"the old end block cannot be written again", false, {-1},
       R"(\[backup\.cpp,\d+\]: write\(\): Input/output error\n)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ArchiveBroken = false;
    TempArchive file;
    file.Append(OldArchive() + Pattern(700, 31));
    int fd = c.read_only ? open(file.path.c_str(), O_RDONLY) : dup(file.fd);
    ASSERT_GE(fd, 0);
    auto writer = ArchiveWriterFor(fd);
    StderrCapture err;
    {
      FailingPwrites failing(fd, c.pwrites);
      ArchiveAppend append(writer.get());
      ASSERT_TRUE(append.Usable());
      append.TouchEndBlock();
    }
    EXPECT_TRUE(Matches(err.Text(), std::string(c.failure) +
                                        R"([\s\S]*\[backup\.cpp,\d+\]: the archive could not be cut back: )"
                                        R"(nothing more is appended\n)"))
        << err.Text();
    EXPECT_TRUE(ArchiveBroken.load());
    EXPECT_TRUE(ArchiveLockIsFree());
    // A later retrieval, even on a sound descriptor, finds the archive closed.
    auto other = ArchiveWriterFor(file.fd);
    {
      ArchiveAppend append(other.get());
      EXPECT_FALSE(append.Usable());
    }
    EXPECT_TRUE(Matches(err.Text(), R"(\[backup\.cpp,\d+\]: the archive is broken: nothing more is appended\n)"))
        << err.Text();
    EXPECT_TRUE(ArchiveLockIsFree());
    close(fd);
  }
  ArchiveBroken = false;
}

}  // namespace

