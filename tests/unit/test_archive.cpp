// Appending retrieved save files to the archive: the block-gathering write
// callback, cutting the archive back, and the retrieval that closes each
// entry with its header and a fresh end block (checked against a scripted
// peer and a real temporary file).
#define VONDRAL_ARCHIVE_HELPERS
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
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

// Bytes that differ from block to block, so that a block written twice or
// out of order shows.
std::string Pattern(size_t size, int seed) {
  std::string out(size, '\0');
  for (size_t i = 0; i < size; i++) out[i] = static_cast<char>((i * 31 + i / 509 + seed * 7) & 0xFF);
  return out;
}

bool Matches(const std::string& text, const std::string& pattern) {
  return std::regex_search(text, std::regex(pattern));
}

struct tm SampleTime() {
  struct tm t{};
  t.tm_year = 124;
  t.tm_mon = 4;
  t.tm_mday = 6;
  t.tm_hour = 7;
  t.tm_isdst = -1;
  return t;
}

std::string HeaderBlock(const char* name, uint64_t size, uint32_t mode) {
  unsigned char block[CtarBlockSize];
  return std::string(reinterpret_cast<const char*>(BuildCtarHeader(block, name, size, mode, SampleTime())),
                     CtarBlockSize);
}

std::string PadToBlocks(std::string data) {
  data.resize(static_cast<size_t>(CtarPaddedSize(data.size())), '\0');
  return data;
}

// An archive holding one entry "/old/entry" of ten bytes and its end block,
// as the backup driver and an earlier retrieval leave it.
std::string OldArchive() {
  return HeaderBlock("/old/entry", 10, 0100644) + PadToBlocks("0123456789") + SentinelBlock();
}

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

TEST(ArchiveWriteCallback, WriteFailuresAreReportedAndAbortOnlyWhenBytesAreLeft) {
  TempArchive file;
  struct Case {
    const char* what;
    bool full_disk;  // /dev/full instead of a descriptor open for reading only
    int waiting;     // bytes gathered by an earlier call
    int count;
    int result;
    int left;  // of count
    std::string message;
  };
  const Case cases[] = {
      {"whole blocks from the buffer", false, 0, 1024, 1, 1024,
       R"(\[backup\.cpp,\d+\]: write\(, 0x[0-9A-F]+, -1\): Bad file descriptor\n)"},
      {"the gathered block, with bytes of the call left over", false, 100, 600, 1, 188,  // 412 went into it
       R"(\[backup\.cpp,\d+\]: write\(\): Bad file descriptor\n)"},
      {"the gathered block completed by exactly the call", false, 100, 412, 0, 0,
       R"(\[backup\.cpp,\d+\]: write\(\): Bad file descriptor\n)"},
      {"a full disk", true, 0, 1500, 1, 1500, std::string(R"(write\(, 0x[0-9A-F]+, -1\): )") + strerror(ENOSPC)},
  };
  std::string data = Pattern(2000, 5);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    int fd = c.full_disk ? open("/dev/full", O_WRONLY) : open(file.path.c_str(), O_RDONLY);
    if (fd < 0) continue;  // no /dev/full here
    auto writer = ArchiveWriterFor(fd);
    int count = c.waiting;
    if (c.waiting > 0) {
      EXPECT_EQ(ArchiveWriteCallback(writer.get(), data.data(), &count), 0);
    }
    StderrCapture err;
    count = c.count;
    EXPECT_EQ(ArchiveWriteCallback(writer.get(), data.data() + c.waiting, &count), c.result);
    EXPECT_EQ(count, c.left);
    EXPECT_TRUE(Matches(err.Text(), c.message)) << err.Text();
    EXPECT_EQ(writer->calls, c.waiting > 0 ? 2u : 1u);
    EXPECT_EQ(writer->bytes, 0);
    close(fd);
  }
  StderrCapture err;
  int count = 3;
  EXPECT_EQ(ArchiveWriteCallback(nullptr, data.data(), &count), -1);
  EXPECT_TRUE(Matches(err.Text(), R"(\[backup\.cpp,\d+\]: bad argument\n)")) << err.Text();
  EXPECT_EQ(file.Size(), 0);
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

// --- RetrieveToArchive against a scripted peer

// Serves RETR: the data in the given pieces, or a refusal with the data
// connection closed at once.
struct RetrPeer {
  std::vector<std::string> pieces;
  bool refuse = false;
  int pause_ms = 0;               // between pieces
  bool drop_during_retr = false;  // close the control connection after the data
  PeerScript Script() {
    return LoginScript([this](PeerConnection& c, const std::string& command) {
      if (command == "PASV") {
        c.Reply(c.PassiveReply());
        return true;
      }
      if (command.rfind("RETR ", 0) != 0) {
        c.Reply("200 OK\r\n");
        return true;
      }
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
      if (drop_during_retr) usleep(20000);
      if (fd >= 0) close(fd);
      if (drop_during_retr) return false;
      c.Reply("226 File transfer completed successfully.\r\n");
      return true;
    });
  }
};

struct RetrieveToArchiveTest : ::testing::Test {
  void TearDown() override {
    TerminationRequested = 0;
    End();
    for (ObjectFile* o : objects) FreeFileList(o);
  }
  void End() {
    if (session) {
      session->checkpoint_flags = 0;
      Quit(session);
    }
    session = nullptr;
    server.reset();
  }
  // Serves `peer` to a new logged-in session and lays `archive` into a new
  // file with a writer on it.
  void Begin(RetrPeer& peer, const std::string& archive) {
    End();
    server.reset(new FakeFtpServer(peer.Script()));
    session = NewSessionTo(server->address());
    ASSERT_NE(session, nullptr);
    ASSERT_EQ(Login(session, "u", "p"), 0);
    file.reset(new TempArchive);
    file->Append(archive);
    before = archive;
    writer = ArchiveWriterFor(file->fd);
    locked = {};
  }
  // Retrieves the save file into the archive as the entry `name`, under the
  // caller's checkpoint flags.
  int Retrieve(const char* name, uint8_t checkpoint = 0, uint32_t mode = 0100644) {
    objects.push_back(NewFileNode(nullptr, name, mode, 0, SampleTime()));
    return RetrieveToArchive(session, checkpoint, objects.back(), savf, &locked, ArchiveWriteCallback,
                             writer.get());
  }
  std::vector<std::string> After() {
    auto all = server->Commands();
    return std::vector<std::string>(all.begin() + 5, all.end());  // behind the login exchange
  }
  std::unique_ptr<FakeFtpServer> server;
  FtpSession* session = nullptr;
  std::vector<ObjectFile*> objects;
  std::unique_ptr<TempArchive> file;
  std::unique_ptr<ArchiveWriter> writer;
  std::string before;  // the archive as Begin laid it
  struct timeval locked{};
  const char* const savf = "/QSYS.LIB/QTEMP.LIB/SAV1.SAVF";
};

TEST_F(RetrieveToArchiveTest, TheHeaderReplacesTheEndBlockAndANewOneFollowsThePaddedData) {
  struct Case {
    size_t size;
    uint32_t mode;
  };
  const Case cases[] = {{1000, 0100644}, {1, 040755},    {511, 0100644},   {512, 040755},
                        {513, 0100644},  {1024, 040755}, {70001, 0100644}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.size);
    const std::string data = Pattern(c.size, static_cast<int>(c.size % 97));
    const char* name = c.mode == 040755 ? "/dir" : "/home/obj";
    RetrPeer peer;
    peer.pieces = {data};
    Begin(peer, OldArchive());
    struct timeval called{};
    gettimeofday(&called, nullptr);
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(Retrieve(name, CHECKPOINT_ARMED, c.mode), 0) << err.Text();
    // The caller's checkpoint flags are in the session again.
    EXPECT_EQ(session->checkpoint_flags, CHECKPOINT_ARMED);
    EXPECT_EQ(writer->bytes, static_cast<int64_t>(c.size));
    EXPECT_EQ(writer->pending, 0);
    // The old entry stays; header, data blocks and end block follow it and
    // nothing more.
    EXPECT_EQ(file->Contents(), before.substr(0, before.size() - CtarBlockSize) +
                                    HeaderBlock(name, c.size, c.mode) + PadToBlocks(data) + SentinelBlock());
    EXPECT_EQ(After(), (std::vector<std::string>{"PASV", std::string("RETR ") + savf}));
    EXPECT_GE(locked.tv_sec, called.tv_sec);  // when the lock was taken
    EXPECT_EQ(out.Text().find("Block returned no data"), std::string::npos);
    EXPECT_TRUE(ArchiveLockIsFree());
  }
}

TEST_F(RetrieveToArchiveTest, RetrievalsThatBringNoEntryLeaveTheArchiveAsItWas) {
  struct Case {
    const char* what;
    bool refuse;
    bool data;
    std::string archive;
    int result;
    const char* failure;  // on standard error, nullptr for none
  };
  const Case cases[] = {
      {"success without data", false, false, OldArchive(), 0, nullptr},
      {"refusal", true, false, OldArchive(), -1,
       R"(\[ftp\.cpp,\d+\]: RETR command failed\n  550 CPF9812 File SAV1 in library QTEMP not found\.)"},
      // Without an end block there is no place for the header: the data and
      // the new end block are cut away again.
      {"no end block to replace", false, true, "", -1, R"(\[ftp\.cpp,\d+\]: CTAR header failed to update: )"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    RetrPeer peer;
    peer.refuse = c.refuse;
    if (c.data) peer.pieces = {Pattern(1300, 3)};
    Begin(peer, c.archive);
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(Retrieve("/home/missing", CHECKPOINT_ARMED | CHECKPOINT_RETRY), c.result);
    EXPECT_EQ(session->checkpoint_flags, CHECKPOINT_ARMED | CHECKPOINT_RETRY);
    EXPECT_EQ(file->Contents(), before);
    EXPECT_EQ(lseek(file->fd, 0, SEEK_CUR), static_cast<off_t>(before.size()));
    EXPECT_EQ(Matches(out.Text(), R"(\] Block returned no data\n)"), !c.data) << out.Text();
    EXPECT_EQ(Matches(err.Text(), c.failure ? c.failure : "failed"), c.failure != nullptr) << err.Text();
    EXPECT_TRUE(ArchiveLockIsFree());
    // The session is still usable.
    session->checkpoint_flags = 0;
    EXPECT_EQ(SendCommand(session->control, "NOOP", nullptr, 0, nullptr, nullptr, nullptr), 0);
  }
}

TEST_F(RetrieveToArchiveTest, ConcurrentRetrievalsAppendWholeEntriesOneAfterTheOther) {
  // Two workers, each with its own peer and session, share one archive.
  const std::string first = Pattern(3000, 11), second = Pattern(2500, 12);
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
  TempArchive shared;
  shared.Append(SentinelBlock());
  auto writer_a = ArchiveWriterFor(shared.fd), writer_b = ArchiveWriterFor(shared.fd);
  for (const char* name : {"/a", "/b"}) objects.push_back(NewFileNode(nullptr, name, 0100644, 0, SampleTime()));
  int result_a = 1, result_b = 1;
  {
    StdoutCapture out;
    std::thread ta([&] {
      struct timeval locked_a{};
      result_a = RetrieveToArchive(a, 0, objects[0], savf, &locked_a, ArchiveWriteCallback, writer_a.get());
    });
    struct timeval locked_b{};
    result_b = RetrieveToArchive(b, 0, objects[1], savf, &locked_b, ArchiveWriteCallback, writer_b.get());
    ta.join();
  }
  EXPECT_EQ(result_a, 0);
  EXPECT_EQ(result_b, 0);
  const std::string after = shared.Contents();
  long ended = 0;
  auto entries = ReadArchiveEntries(after, &ended);
  EXPECT_EQ(ended, static_cast<long>(after.size()));
  std::sort(entries.begin(), entries.end(),
            [](const ArchiveEntry& x, const ArchiveEntry& y) { return x.name < y.name; });
  EXPECT_EQ(entries, (std::vector<ArchiveEntry>{{"/a", first}, {"/b", second}}));
  Quit(a);
  Quit(b);
}

TEST_F(RetrieveToArchiveTest, TerminationRequestEndsTheThreadAfterTheEntryIsWhole) {
  const std::string data = Pattern(600, 13);
  RetrPeer peer;
  peer.pieces = {data};
  Begin(peer, SentinelBlock());
  TerminationRequested = 1;
  StdoutCapture out;
  EXPECT_THROW(Retrieve("/home/t"), ThreadExit);
  long ended = 0;
  const std::string after = file->Contents();
  EXPECT_EQ(ReadArchiveEntries(after, &ended), (std::vector<ArchiveEntry>{{"/home/t", data}}));
  EXPECT_EQ(ended, static_cast<long>(after.size()));
  EXPECT_TRUE(ArchiveLockIsFree());
}

TEST_F(RetrieveToArchiveTest, BrokenControlConnectionLeavesTheOldEndBlockInForce) {
  RetrPeer peer;
  peer.pieces = {Pattern(1300, 14)};
  peer.drop_during_retr = true;
  Begin(peer, OldArchive());
  StdoutCapture out;
  StderrCapture err;
  int result = RunProtected(session, [&] {
    PassPointOfNoReturn(session);
    return Retrieve("/home/broken", session->checkpoint_flags);
  });
  EXPECT_EQ(result, -1);
  EXPECT_NE(err.Text().find("recovering checkpoint"), std::string::npos) << err.Text();
  EXPECT_EQ(session->checkpoint_flags, 0);
  EXPECT_TRUE(ArchiveLockIsFree());
  // The data that arrived goes behind the old end block while it comes, so
  // a reader still meets that block first.
  const std::string after = file->Contents();
  EXPECT_GT(after.size(), before.size());
  EXPECT_EQ(after.substr(0, before.size()), before);
  long ended = 0;
  EXPECT_EQ(ReadArchiveEntries(after, &ended).size(), 1u);
  EXPECT_EQ(ended, static_cast<long>(before.size()));
}

}  // namespace
