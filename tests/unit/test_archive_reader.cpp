// The archive reader of a restore: opening the archive, reading an entry's
// data in whole blocks for the upload, and skipping data, from a file and
// from a pipe that delivers in odd pieces. Reads of large entries from a
// file opened for direct I/O are in test_read_ahead.cpp.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "archive/reader.h"
#include "net/connection.h"
#include "restore_test_helpers.h"
#include "support/sysio.h"
#include "test_helpers.h"

namespace {

// Standard input as a restore reads it: the content written in pieces of
// `piece` bytes, a millisecond apart, from a thread, then the end closed.
struct Pipe {
  int ends[2] = {-1, -1};
  std::thread writer;
  Pipe(const std::string& content, size_t piece) {
    EXPECT_EQ(pipe(ends), 0);
    writer = std::thread([this, content, piece] {
      for (size_t at = 0; at < content.size(); at += piece) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const size_t length = std::min(piece, content.size() - at);
        if (WriteFull(ends[1], content.data() + at, length) != static_cast<ssize_t>(length)) break;
      }
      CloseDescriptor(&ends[1]);
    });
  }
  ~Pipe() {
    writer.join();
    CloseDescriptor(&ends[0]);
  }
  int reader() const { return ends[0]; }
};

// An entry's data, its padding, a skipped entry and the next header, as a
// pipe delivers them in odd pieces: the read gathers whole blocks, the skip
// reads through (a pipe cannot seek) without a word, and the next header is
// where it should be.
TEST(ArchiveData, APipeIsReadAndSkippedInWholeBlocksGatheredFromPieces) {
  const std::string data = Pattern(600, 7), skipped = Pattern(700 + 2 * 4096 + 1, 8), next = Pattern(512, 9);
  Pipe pipe(Padded(data) + Padded(skipped.substr(0, 700)) + Padded(skipped.substr(700)) + next, 300);
  ArchiveReader reader{pipe.reader(), 0, 600, 600};
  std::string buffer(TransferBufferSize, '\0');
  const char* bytes = nullptr;
  int count = TransferBufferSize;
  StderrCapture err;
  ASSERT_EQ(ArchiveReadCallback(&reader, buffer.data(), &count, &bytes), 0);
  EXPECT_EQ(count, 600);
  EXPECT_EQ(std::string(bytes, 600), data);
  const struct {
    int64_t count;
    const char* what;
  } skips[] = {
      {reader.left, "the padding, which was read already"},
      {700, "a part block, rounded to 1024"},
      {2 * 4096 + 1, "more than a page"},
  };
  for (const auto& skip : skips) EXPECT_EQ(SkipArchiveData(pipe.reader(), skip.count), 0) << skip.what;
  std::string header(512, '\0');
  EXPECT_EQ(ReadFull(pipe.reader(), header.data(), header.size()), 512);
  EXPECT_EQ(header, next);
  EXPECT_EQ(err.Text(), "");
}

TEST(ArchiveData, ReadsNeverTakeMoreWholeBlocksThanTheBufferHolds) {
  EntryData entry(3000, 5);
  ArchiveReader& reader = entry.reader;
  std::string buffer(TransferBufferSize, '\0'), sent;
  const char* bytes = nullptr;
  std::vector<int> counts;
  for (;;) {
    int count = 1300;  // room for two whole blocks
    ASSERT_EQ(ArchiveReadCallback(&reader, buffer.data(), &count, &bytes), 0);
    if (count == 0) break;  // end of data, which is no hand-over
    counts.push_back(count);
    sent.append(bytes, static_cast<size_t>(count));
  }
  EXPECT_EQ(counts, (std::vector<int>{1024, 1024, 952}));
  EXPECT_EQ(sent, entry.data);
  EXPECT_EQ(reader.left, -72);  // the padding was read, not handed over
  EXPECT_EQ(reader.calls, 3);
  EXPECT_EQ(entry.position(), 3072);  // where the next header starts
  // What an upload leaves over after reading the padding skips nothing.
  for (int64_t left : {reader.left, int64_t{0}, int64_t{-511}})
    EXPECT_EQ(SkipArchiveData(reader.descriptor, left), 0);
  EXPECT_EQ(entry.position(), 3072);
}

TEST(ArchiveData, FailuresAreReportedAndEndTheEntry) {
  std::string buffer(TransferBufferSize, '\0');
  const char* bytes = nullptr;
  StderrCapture err;
  int count = TransferBufferSize;
  EXPECT_EQ(ArchiveReadCallback(nullptr, buffer.data(), &count, &bytes), -1);
  ArchiveReader broken{-1, 0, 100, 100};
  count = 511;  // not even one whole block fits
  EXPECT_EQ(ArchiveReadCallback(&broken, buffer.data(), &count, &bytes), -1);
  EXPECT_TRUE(Reported(err.Text(), "restore", R"(bad argument\n[^\n]*\[restore\.cpp,\d+\]: bad argument\n$)"));
  count = TransferBufferSize;
  EXPECT_EQ(ArchiveReadCallback(&broken, buffer.data(), &count, &bytes), -1);
  EXPECT_TRUE(Reported(err.Text(), "restore", R"(read\(-,, 512\): Bad file descriptor\n)"));
  EXPECT_EQ(broken.left, 100);  // nothing counted as delivered
  EXPECT_EQ(broken.calls, 0);

  EXPECT_EQ(SkipArchiveData(-1, 100), -1);
  const std::string text = err.Text();
  EXPECT_TRUE(Reported(text, "restore", R"(lseek64\(, 0x200,, SEEK_CUR\): Bad file descriptor\n)"));
  EXPECT_TRUE(Reported(text, "restore", R"(read\(list, 512\): Bad file descriptor\n)"));
  EXPECT_TRUE(Reported(text, "restore", "didn't finish consuming 0x200 bytes"));
  // An archive that ends inside the data to be skipped.
  Pipe pipe(std::string(1000, 'x'), 1000);
  EXPECT_EQ(SkipArchiveData(pipe.reader(), 2048), -1);
  EXPECT_TRUE(Reported(err.Text(), "restore", R"(didn't finish consuming 0x418 bytes\n)"));
}

TEST(ArchiveOpen, AMissingArchiveIsReportedAsTheRestoreDriverReportedIt) {
  StderrCapture err;
  EXPECT_EQ(OpenArchive("/nonexistent-vondral-dir/a.ctar"), -1);
  EXPECT_TRUE(Reported(err.Text(), "restore",
                       R"(open\(/nonexistent-vondral-dir/a\.ctar\): No such file or directory\n$)"));
}

}  // namespace
