// Appending retrieved save files to the archive: the block-gathering write
// callback, cutting the archive back, and the retrieval that closes each
// entry with its header and a fresh end block (checked against a scripted
// peer and a real temporary file).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "backup.h"
#include "fake_server.h"
#include "ftp.h"
#include "test_helpers.h"
#include "vondral.h"

namespace {

// A temporary archive file, removed with the object.
struct ArchiveFile {
  int fd = -1;
  std::string path;
  ArchiveFile() {
    char name[] = "/tmp/vondral-archive-XXXXXX";
    fd = mkstemp(name);
    path = name;
  }
  ~ArchiveFile() {
    if (fd >= 0) close(fd);
    unlink(path.c_str());
  }
  off_t Size() const {
    struct stat st{};
    fstat(fd, &st);
    return st.st_size;
  }
  std::string Contents() const {
    std::string out(static_cast<size_t>(Size()), '\0');
    ssize_t n = pread(fd, out.data(), out.size(), 0);
    out.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return out;
  }
  void Append(const std::string& bytes) {
    lseek(fd, 0, SEEK_END);
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
};

std::string Pattern(size_t size, int seed) {
  std::string out(size, '\0');
  for (size_t i = 0; i < size; i++) out[i] = static_cast<char>((i * 31 + i / 509 + seed * 7) & 0xFF);
  return out;
}

struct tm SampleTime() {
  struct tm t{};
  t.tm_year = 124;
  t.tm_mon = 4;
  t.tm_mday = 6;
  t.tm_hour = 7;
  t.tm_min = 8;
  t.tm_sec = 9;
  t.tm_isdst = -1;
  return t;
}

std::string Block(const unsigned char* block) {
  return std::string(reinterpret_cast<const char*>(block), CtarBlockSize);
}

std::string SentinelBlock() {
  unsigned char block[CtarBlockSize];
  return Block(BuildCtarSentinel(block));
}

std::string HeaderBlock(const char* name, uint64_t size, uint32_t mode = 0100644) {
  unsigned char block[CtarBlockSize];
  return Block(BuildCtarHeader(block, name, size, mode, SampleTime()));
}

std::string PadToBlocks(std::string data) {
  data.resize(static_cast<size_t>(CtarPaddedSize(data.size())), '\0');
  return data;
}

// An archive holding one entry "/old/entry" of ten bytes and its end block,
// as the backup driver and an earlier retrieval leave it.
std::string OldArchive() {
  return HeaderBlock("/old/entry", 10) + PadToBlocks("0123456789") + SentinelBlock();
}

std::unique_ptr<ArchiveWriter> WriterFor(int fd) {
  std::unique_ptr<ArchiveWriter> writer(new ArchiveWriter{});
  writer->descriptor = fd;
  writer->block = writer->storage;
  return writer;
}

struct Entry {
  std::string name;
  std::string data;
};

// Reads the archive as the restore driver would: header after header until
// the end block. `ended_at` receives the offset just behind the end block
// (-1 when no end block was found).
std::vector<Entry> ReadEntries(const std::string& archive, long* ended_at) {
  std::vector<Entry> entries;
  *ended_at = -1;
  size_t at = 0;
  while (at + CtarBlockSize <= archive.size()) {
    const auto* block = reinterpret_cast<const unsigned char*>(archive.data() + at);
    uint64_t size = 0;
    char name[512] = "";
    int kind = ReadCtarHeader(block, &size, name, sizeof name);
    if (kind == CtarEnd) {
      *ended_at = static_cast<long>(at + CtarBlockSize);
      break;
    }
    if (kind != CtarEntry) break;
    at += CtarBlockSize;
    if (at + size > archive.size()) break;
    entries.push_back({name, archive.substr(at, size)});
    at += static_cast<size_t>(CtarPaddedSize(size));
  }
  return entries;
}

bool OtherThreadCanTakeArchiveLock() {
  bool got = false;
  std::thread other([&] {
    got = ArchiveLock.try_lock();
    if (got) ArchiveLock.unlock();
  });
  other.join();
  return got;
}

// --- ArchiveWriteCallback on its own

TEST(ArchiveWriteCallback, SplitDataIsWrittenInWholeBlocksAndTheRestWaits) {
  ArchiveFile file;
  auto writer = WriterFor(file.fd);
  std::string data = Pattern(1000, 1);

  std::string first = data.substr(0, 700);
  int count = 700;
  EXPECT_EQ(ArchiveWriteCallback(writer.get(), first.data(), &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(writer->pending, 188);
  EXPECT_EQ(writer->bytes, 512);
  EXPECT_EQ(writer->calls, 1u);
  EXPECT_EQ(file.Contents(), data.substr(0, 512));
  EXPECT_EQ(std::string(reinterpret_cast<char*>(writer->block), 188), data.substr(512, 188));

  std::string second = data.substr(700);
  count = 300;
  EXPECT_EQ(ArchiveWriteCallback(writer.get(), second.data(), &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(writer->pending, 488);
  EXPECT_EQ(writer->bytes, 512);  // nothing more was written
  EXPECT_EQ(writer->calls, 2u);
  EXPECT_EQ(file.Size(), 512);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(writer->block), 488), data.substr(512, 488));

  // Filling the waiting block exactly writes it and leaves nothing behind;
  // the rest of the call goes out as whole blocks straight away.
  std::string third = Pattern(24 + 1024 + 5, 2);
  count = static_cast<int>(third.size());
  EXPECT_EQ(ArchiveWriteCallback(writer.get(), third.data(), &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(writer->pending, 5);
  EXPECT_EQ(writer->bytes, 512 + 512 + 1024);
  EXPECT_EQ(file.Contents(), (data + third).substr(0, 2048));
}

TEST(ArchiveWriteCallback, WholeBlocksInOneCallAreWrittenDirectly) {
  ArchiveFile file;
  auto writer = WriterFor(file.fd);
  std::string data = Pattern(1024, 3);
  int count = 1024;
  EXPECT_EQ(ArchiveWriteCallback(writer.get(), data.data(), &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(writer->pending, 0);
  EXPECT_EQ(writer->bytes, 1024);
  EXPECT_EQ(writer->calls, 1u);
  EXPECT_EQ(file.Contents(), data);

  // Exactly one block is written at once too.
  std::string one = Pattern(512, 8);
  count = 512;
  EXPECT_EQ(ArchiveWriteCallback(writer.get(), one.data(), &count), 0);
  EXPECT_EQ(writer->pending, 0);
  EXPECT_EQ(writer->bytes, 1536);
  EXPECT_EQ(file.Contents(), data + one);
  data += one;

  // Fewer than a block only waits in the writer.
  std::string small = Pattern(511, 4);
  count = 511;
  EXPECT_EQ(ArchiveWriteCallback(writer.get(), small.data(), &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(writer->pending, 511);
  EXPECT_EQ(writer->bytes, 1536);
  EXPECT_EQ(file.Size(), 1536);
}

TEST(ArchiveWriteCallback, MissingWriterAndEmptyCalls) {
  char buffer[16] = "abc";
  int count = 3;
  {
    StderrCapture err;
    EXPECT_EQ(ArchiveWriteCallback(nullptr, buffer, &count), -1);
    EXPECT_TRUE(std::regex_search(err.Text(), std::regex(R"(\[backup\.cpp,\d+\]: bad argument\n)")))
        << err.Text();
  }
  ArchiveFile file;
  auto writer = WriterFor(file.fd);
  count = 0;
  EXPECT_EQ(ArchiveWriteCallback(writer.get(), buffer, &count), 0);
  EXPECT_EQ(writer->calls, 1u);
  count = -5;
  EXPECT_EQ(ArchiveWriteCallback(writer.get(), buffer, &count), 0);
  EXPECT_EQ(writer->calls, 2u);
  EXPECT_EQ(writer->pending, 0);
  EXPECT_EQ(writer->bytes, 0);
  EXPECT_EQ(file.Size(), 0);
}

TEST(ArchiveWriteCallback, WriteFailuresAreReportedAndAbortWhenBytesAreLeft) {
  ArchiveFile file;
  int read_only = open(file.path.c_str(), O_RDONLY);
  ASSERT_GE(read_only, 0);
  std::string data = Pattern(2000, 5);

  {  // Whole blocks straight from the buffer.
    auto writer = WriterFor(read_only);
    int count = 1024;
    StderrCapture err;
    EXPECT_EQ(ArchiveWriteCallback(writer.get(), data.data(), &count), 1);
    EXPECT_TRUE(std::regex_search(
        err.Text(), std::regex(R"(\[backup\.cpp,\d+\]: write\(, 0x[0-9A-F]+, -1\): Bad file descriptor\n)")))
        << err.Text();
    EXPECT_EQ(writer->calls, 1u);
    EXPECT_EQ(writer->bytes, 0);
  }
  {  // The gathered block, with bytes of the call left over.
    auto writer = WriterFor(read_only);
    int count = 100;
    EXPECT_EQ(ArchiveWriteCallback(writer.get(), data.data(), &count), 0);
    EXPECT_EQ(writer->pending, 100);
    count = 600;
    StderrCapture err;
    EXPECT_EQ(ArchiveWriteCallback(writer.get(), data.data() + 100, &count), 1);
    EXPECT_EQ(count, 188);  // 412 went into the lost block
    EXPECT_TRUE(std::regex_search(err.Text(),
                                  std::regex(R"(\[backup\.cpp,\d+\]: write\(\): Bad file descriptor\n)")))
        << err.Text();
    EXPECT_EQ(writer->calls, 2u);
    EXPECT_EQ(writer->bytes, 0);
  }
  {  // The gathered block completed by exactly the call's bytes: only reported.
    auto writer = WriterFor(read_only);
    int count = 100;
    ArchiveWriteCallback(writer.get(), data.data(), &count);
    count = 412;
    StderrCapture err;
    EXPECT_EQ(ArchiveWriteCallback(writer.get(), data.data() + 100, &count), 0);
    EXPECT_EQ(count, 0);
    EXPECT_NE(err.Text().find("write(): Bad file descriptor"), std::string::npos) << err.Text();
    EXPECT_EQ(writer->bytes, 0);
  }
  close(read_only);

  int full = open("/dev/full", O_WRONLY);
  if (full >= 0) {
    auto writer = WriterFor(full);
    int count = 1500;
    StderrCapture err;
    EXPECT_EQ(ArchiveWriteCallback(writer.get(), data.data(), &count), 1);
    EXPECT_NE(err.Text().find(strerror(ENOSPC)), std::string::npos) << err.Text();
    EXPECT_EQ(writer->bytes, 0);
    close(full);
  }
  EXPECT_EQ(file.Size(), 0);
}

// --- TruncateArchive

TEST(TruncateArchive, CutsTheFileAndLeavesThePositionThere) {
  ArchiveFile file;
  file.Append(Pattern(3000, 6));
  EXPECT_EQ(TruncateArchive(file.fd, 1024), 0);
  EXPECT_EQ(file.Size(), 1024);
  EXPECT_EQ(lseek(file.fd, 0, SEEK_CUR), 1024);
  EXPECT_EQ(file.Contents(), Pattern(3000, 6).substr(0, 1024));
  // The next write lands at the cut.
  ASSERT_EQ(write(file.fd, "xy", 2), 2);
  EXPECT_EQ(file.Contents(), Pattern(3000, 6).substr(0, 1024) + "xy");

  StderrCapture err;
  EXPECT_EQ(TruncateArchive(-1, 0), -1);
  EXPECT_TRUE(std::regex_search(err.Text(), std::regex(R"(\[backup\.cpp,\d+\]: lseek\(\): )")))
      << err.Text();
  int read_only = open(file.path.c_str(), O_RDONLY);
  ASSERT_GE(read_only, 0);
  EXPECT_EQ(TruncateArchive(read_only, 512), -1);
  EXPECT_TRUE(std::regex_search(err.Text(), std::regex(R"(\[backup\.cpp,\d+\]: ftruncate64\(\): )")))
      << err.Text();
  close(read_only);
  EXPECT_EQ(file.Size(), 1026);
}

// --- RetrieveToArchive against a scripted peer

// Serves RETR: the data in the given pieces, or a refusal with the data
// connection closed at once.
struct RetrPeer {
  std::vector<std::string> pieces;
  bool refuse = false;
  int pause_ms = 0;  // between pieces
  bool drop_during_retr = false;  // close the control connection after the data
  PeerScript Script() {
    return LoginScript([this](PeerConnection& c, const std::string& command) {
      if (command == "PASV") {
        c.Reply(c.PassiveReply());
      } else if (command.rfind("RETR ", 0) == 0) {
        int fd = c.AcceptData();
        if (refuse) {
          if (fd >= 0) close(fd);
          c.Reply("550 CPF9812 File SAV1 in library QTEMP not found.\r\n");
          return true;
        }
        c.Reply("150 Retrieving file.\r\n");
        for (size_t i = 0; i < pieces.size(); i++) {
          if (i > 0 && pause_ms > 0) usleep(static_cast<useconds_t>(pause_ms) * 1000);
          SendAll(fd, pieces[i]);
        }
        if (drop_during_retr) {
          usleep(20000);
          if (fd >= 0) close(fd);
          return false;
        }
        if (fd >= 0) close(fd);
        c.Reply("226 File transfer completed successfully.\r\n");
      } else {
        c.Reply("200 OK\r\n");
      }
      return true;
    });
  }
};

// Hands the stream to ArchiveWriteCallback cut at fixed sizes, whatever
// pieces the network delivers, and notes the writer's state after each call.
// The retrieval gives the callback its writer, so the splitter is found
// through a pointer of its own.
struct Splitter {
  ArchiveWriter* writer;
  const ArchiveFile* file;
  std::vector<size_t> plan;
  std::string held;
  size_t next = 0;
  std::vector<int> results, pending;
  std::vector<int64_t> bytes;
  std::vector<off_t> sizes;
};

Splitter* ActiveSplitter = nullptr;

int SplitCallback(void* argument, char* buffer, int* count) {
  Splitter* s = ActiveSplitter;
  if (!s || argument != s->writer) return 1;
  s->held.append(buffer, static_cast<size_t>(*count));
  *count = 0;
  while (s->next < s->plan.size() && s->held.size() >= s->plan[s->next]) {
    std::string piece = s->held.substr(0, s->plan[s->next]);
    s->held.erase(0, s->plan[s->next]);
    s->next++;
    int n = static_cast<int>(piece.size());
    s->results.push_back(ArchiveWriteCallback(s->writer, piece.data(), &n));
    s->pending.push_back(s->writer->pending);
    s->bytes.push_back(s->writer->bytes);
    s->sizes.push_back(s->file->Size());
  }
  return 0;
}

struct RetrieveToArchiveTest : ::testing::Test {
  void TearDown() override {
    if (session) Quit(session);
    session = nullptr;
    server.reset();
    if (object) FreeFileList(object);
    TerminationRequested = 0;
  }
  void Start(RetrPeer& peer) {
    server.reset(new FakeFtpServer(peer.Script()));
    session = NewSessionTo(server->address());
    ASSERT_NE(session, nullptr);
    ASSERT_EQ(Login(session, "u", "p"), 0);
  }
  std::vector<std::string> After() {
    auto all = server->Commands();
    return std::vector<std::string>(all.begin() + 5, all.end());
  }
  ObjectFile* Object(const char* name, uint32_t mode = 0100644) {
    object = NewFileNode(nullptr, name, mode, 0, SampleTime());
    return object;
  }
  std::unique_ptr<FakeFtpServer> server;
  FtpSession* session = nullptr;
  ObjectFile* object = nullptr;
  const char* const savf = "/QSYS.LIB/QTEMP.LIB/SAV1.SAVF";
};

TEST_F(RetrieveToArchiveTest, DataArrivingAs700And300BecomesOnePaddedEntryInPlaceOfTheEndBlock) {
  std::string data = Pattern(1000, 7);
  RetrPeer peer;
  peer.pieces = {data};
  Start(peer);
  ArchiveFile file;
  file.Append(OldArchive());
  const std::string before = file.Contents();
  auto writer = WriterFor(file.fd);
  Splitter split{writer.get(), &file, {700, 300}, {}, 0, {}, {}, {}, {}};
  ActiveSplitter = &split;

  struct timeval locked{};
  struct timeval called{};
  gettimeofday(&called, nullptr);
  session->checkpoint_flags = 0;
  StdoutCapture out;
  StderrCapture err;
  int result = RetrieveToArchive(session, CHECKPOINT_ARMED, Object("/home/obj"), savf, &locked,
                                 SplitCallback, writer.get());
  ActiveSplitter = nullptr;
  EXPECT_EQ(result, 0) << err.Text();
  // The caller's checkpoint flags are in the session again.
  EXPECT_EQ(session->checkpoint_flags, CHECKPOINT_ARMED);
  session->checkpoint_flags = 0;

  ASSERT_EQ(split.results, (std::vector<int>{0, 0}));
  EXPECT_EQ(split.pending, (std::vector<int>{188, 488}));
  EXPECT_EQ(split.bytes, (std::vector<int64_t>{512, 512}));
  // The first call's block went behind the old end block at once.
  EXPECT_EQ(split.sizes, (std::vector<off_t>{1536 + 512, 1536 + 512}));

  EXPECT_EQ(writer->bytes, 1000);
  EXPECT_EQ(file.Size(), static_cast<off_t>(before.size()) + 1536);
  std::string after = file.Contents();
  EXPECT_EQ(after.substr(0, 1024), before.substr(0, 1024));  // the old entry is untouched
  const auto* header = reinterpret_cast<const unsigned char*>(after.data() + 1024);
  uint64_t size = 0;
  char name[512] = "";
  EXPECT_EQ(ReadCtarHeader(header, &size, name, sizeof name), CtarEntry);
  EXPECT_EQ(size, 1000u);
  EXPECT_STREQ(name, "/home/obj");
  EXPECT_EQ(after.substr(1024, 512), HeaderBlock("/home/obj", 1000));
  EXPECT_EQ(after.substr(1536, 1024), data + std::string(24, '\0'));
  EXPECT_EQ(after.substr(2560), SentinelBlock());

  long ended = 0;
  auto entries = ReadEntries(after, &ended);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].name, "/old/entry");
  EXPECT_EQ(entries[1].data, data);
  EXPECT_EQ(ended, static_cast<long>(after.size()));

  EXPECT_EQ(After(), (std::vector<std::string>{"PASV", std::string("RETR ") + savf}));
  // The time of taking the lock was stored.
  EXPECT_GE(locked.tv_sec, called.tv_sec);
  EXPECT_EQ(out.Text().find("Block returned no data"), std::string::npos);
  EXPECT_FALSE(ArchiveLockHeldByMe());
  EXPECT_TRUE(OtherThreadCanTakeArchiveLock());
}

TEST_F(RetrieveToArchiveTest, EntrySizesAreExactAndDataIsPaddedToWholeBlocks) {
  const size_t sizes[] = {1, 511, 512, 513, 1024, 70001};
  for (size_t n : sizes) {
    std::string data = Pattern(n, static_cast<int>(n % 97));
    RetrPeer peer;
    peer.pieces = {data};
    Start(peer);
    ArchiveFile file;
    file.Append(SentinelBlock());
    auto writer = WriterFor(file.fd);
    struct timeval locked{};
    StdoutCapture out;
    EXPECT_EQ(RetrieveToArchive(session, 0, Object("/dir", 040755), savf, &locked,
                                ArchiveWriteCallback, writer.get()),
              0)
        << n;
    EXPECT_EQ(writer->bytes, static_cast<int64_t>(n)) << n;
    EXPECT_EQ(writer->pending, 0) << n;
    std::string after = file.Contents();
    // Header, data blocks, end block: nothing more.
    EXPECT_EQ(after.size(), 512 + CtarPaddedSize(n) + 512) << n;
    EXPECT_EQ(after.substr(0, 512), HeaderBlock("/dir", n, 040755)) << n;
    EXPECT_EQ(after.substr(512, static_cast<size_t>(CtarPaddedSize(n))), PadToBlocks(data)) << n;
    long ended = 0;
    auto entries = ReadEntries(after, &ended);
    ASSERT_EQ(entries.size(), 1u) << n;
    EXPECT_EQ(entries[0].name, "/dir") << n;  // stored as /dir.savf
    EXPECT_EQ(entries[0].data, data) << n;
    EXPECT_EQ(ended, static_cast<long>(after.size())) << n;
    Quit(session);
    session = nullptr;
    server.reset();
    FreeFileList(object);
    object = nullptr;
  }
}

TEST_F(RetrieveToArchiveTest, SuccessfulRetrievalWithoutDataLeavesTheArchiveAsItWas) {
  RetrPeer peer;  // no pieces: the data connection closes at once
  Start(peer);
  ArchiveFile file;
  file.Append(OldArchive());
  const std::string before = file.Contents();
  auto writer = WriterFor(file.fd);
  struct timeval locked{};
  StdoutCapture out;
  StderrCapture err;
  EXPECT_EQ(RetrieveToArchive(session, 0, Object("/home/empty"), savf, &locked, ArchiveWriteCallback,
                              writer.get()),
            0);
  EXPECT_EQ(file.Contents(), before);
  EXPECT_EQ(lseek(file.fd, 0, SEEK_CUR), static_cast<off_t>(before.size()));
  EXPECT_TRUE(std::regex_search(out.Text(), std::regex(R"(\] Block returned no data\n)"))) << out.Text();
  EXPECT_EQ(err.Text().find("RETR command failed"), std::string::npos) << err.Text();
  EXPECT_TRUE(OtherThreadCanTakeArchiveLock());
}

TEST_F(RetrieveToArchiveTest, RefusedRetrievalCutsBackAndFails) {
  RetrPeer peer;
  peer.refuse = true;
  Start(peer);
  ArchiveFile file;
  file.Append(OldArchive());
  const std::string before = file.Contents();
  auto writer = WriterFor(file.fd);
  struct timeval locked{};
  session->checkpoint_flags = 0;
  StdoutCapture out;
  StderrCapture err;
  EXPECT_EQ(RetrieveToArchive(session, CHECKPOINT_ARMED | CHECKPOINT_RETRY, Object("/home/missing"), savf,
                              &locked, ArchiveWriteCallback, writer.get()),
            -1);
  EXPECT_EQ(session->checkpoint_flags, CHECKPOINT_ARMED | CHECKPOINT_RETRY);
  session->checkpoint_flags = 0;
  EXPECT_EQ(file.Contents(), before);
  EXPECT_NE(out.Text().find("Block returned no data\n"), std::string::npos) << out.Text();
  EXPECT_TRUE(std::regex_search(
      err.Text(),
      std::regex(R"(\[ftp\.cpp,\d+\]: RETR command failed\n  550 CPF9812 File SAV1 in library QTEMP not found\.)")))
      << err.Text();
  EXPECT_FALSE(ArchiveLockHeldByMe());
  EXPECT_TRUE(OtherThreadCanTakeArchiveLock());
  // The session is still usable.
  EXPECT_EQ(SendCommand(session->control, "NOOP", nullptr, 0, nullptr, nullptr, nullptr), 0);
}

TEST_F(RetrieveToArchiveTest, ConcurrentRetrievalsAppendWholeEntriesOneAfterTheOther) {
  // Two workers, each with its own peer and session, share one archive.
  std::string first = Pattern(3000, 11), second = Pattern(2500, 12);
  RetrPeer peer_a, peer_b;
  peer_a.pieces = {first.substr(0, 1000), first.substr(1000, 1000), first.substr(2000)};
  peer_b.pieces = {second.substr(0, 800), second.substr(800, 900), second.substr(1700)};
  peer_a.pause_ms = peer_b.pause_ms = 20;
  FakeFtpServer server_a(peer_a.Script()), server_b(peer_b.Script());
  FtpSession* a = NewSessionTo(server_a.address());
  FtpSession* b = NewSessionTo(server_b.address());
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  ASSERT_EQ(Login(a, "u", "p"), 0);
  ASSERT_EQ(Login(b, "u", "p"), 0);
  ArchiveFile file;
  file.Append(SentinelBlock());
  auto writer_a = WriterFor(file.fd), writer_b = WriterFor(file.fd);
  ObjectFile* object_a = NewFileNode(nullptr, "/a", 0100644, 0, SampleTime());
  ObjectFile* object_b = NewFileNode(nullptr, "/b", 0100644, 0, SampleTime());
  int result_a = 1, result_b = 1;
  {
    StdoutCapture out;
    std::thread ta([&] {
      struct timeval locked{};
      result_a = RetrieveToArchive(a, 0, object_a, savf, &locked, ArchiveWriteCallback, writer_a.get());
    });
    std::thread tb([&] {
      struct timeval locked{};
      result_b = RetrieveToArchive(b, 0, object_b, savf, &locked, ArchiveWriteCallback, writer_b.get());
    });
    ta.join();
    tb.join();
  }
  EXPECT_EQ(result_a, 0);
  EXPECT_EQ(result_b, 0);
  std::string after = file.Contents();
  long ended = 0;
  auto entries = ReadEntries(after, &ended);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(ended, static_cast<long>(after.size()));
  for (const Entry& e : entries) {
    if (e.name == "/a")
      EXPECT_EQ(e.data, first);
    else if (e.name == "/b")
      EXPECT_EQ(e.data, second);
    else
      ADD_FAILURE() << "unexpected entry " << e.name;
  }
  EXPECT_NE(entries[0].name, entries[1].name);
  Quit(a);
  Quit(b);
  FreeFileList(object_a);
  FreeFileList(object_b);
}

TEST_F(RetrieveToArchiveTest, TerminationRequestEndsTheThreadAfterTheEntryIsWhole) {
  std::string data = Pattern(600, 13);
  RetrPeer peer;
  peer.pieces = {data};
  Start(peer);
  ArchiveFile file;
  file.Append(SentinelBlock());
  auto writer = WriterFor(file.fd);
  struct timeval locked{};
  TerminationRequested = 1;
  StdoutCapture out;
  EXPECT_THROW(RetrieveToArchive(session, 0, Object("/home/t"), savf, &locked, ArchiveWriteCallback,
                                 writer.get()),
               ThreadExit);
  TerminationRequested = 0;
  long ended = 0;
  std::string after = file.Contents();
  auto entries = ReadEntries(after, &ended);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].data, data);
  EXPECT_EQ(ended, static_cast<long>(after.size()));
  EXPECT_TRUE(OtherThreadCanTakeArchiveLock());
}

TEST_F(RetrieveToArchiveTest, BrokenControlConnectionLeavesTheOldEndBlockInForce) {
  std::string data = Pattern(1300, 14);
  RetrPeer peer;
  peer.pieces = {data};
  peer.drop_during_retr = true;
  Start(peer);
  ArchiveFile file;
  file.Append(OldArchive());
  const std::string before = file.Contents();
  auto writer = WriterFor(file.fd);
  StdoutCapture out;
  StderrCapture err;
  int result = RunProtected(session, [&] {
    PassPointOfNoReturn(session);
    struct timeval locked{};
    return RetrieveToArchive(session, session->checkpoint_flags, Object("/home/broken"), savf, &locked,
                             ArchiveWriteCallback, writer.get());
  });
  EXPECT_EQ(result, -1);
  EXPECT_NE(err.Text().find("recovering checkpoint"), std::string::npos) << err.Text();
  EXPECT_EQ(session->checkpoint_flags, 0);
  EXPECT_TRUE(OtherThreadCanTakeArchiveLock());
  // Whatever data arrived lies behind the old end block, which a reader
  // still meets first.
  std::string after = file.Contents();
  EXPECT_EQ(after.substr(0, before.size()), before);
  long ended = 0;
  auto entries = ReadEntries(after, &ended);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(ended, static_cast<long>(before.size()));
}

}  // namespace
