// Closing entries, through the retrieval that appends each one
// (RetrieveToArchive): the header over the old end block and a fresh end
// block behind the padded data, and an archive left as it was by every
// retrieval that brings no whole entry (checked against a scripted peer and
// a real temporary file, with writes made to fail where the archive must
// survive them).
#define VONDRAL_ARCHIVE_HELPERS
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "archive/writer.h"
#include "archive_test_helpers.h"
#include "backup/object_tree.h"
#include "backup/save_commands.h"
#include "fake_server.h"
#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/remote_listing.h"
#include "ftp/reply_judge.h"
#include "ftp/session.h"
#include "test_helpers.h"

namespace {

// --- RetrieveToArchive against a scripted peer

// Serves RETR: the data in the given pieces, or a refusal with the data
// connection closed at once.
struct RetrPeer {
  std::vector<std::string> pieces;
  bool refuse = false;
  int pause_ms = 0;               // between pieces
  bool drop_during_retr = false;  // close the control connection after the data
  std::string final_reply = "226 File transfer completed successfully.";
  std::function<void()> after_first_piece;  // runs while the data is flowing
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
        if (i == 0 && after_first_piece) after_first_piece();
      }
      if (drop_during_retr) usleep(20000);
      if (fd >= 0) close(fd);
      if (drop_during_retr) return false;
      c.Reply(final_reply + "\r\n");
      return true;
    });
  }
};

struct RetrieveToArchiveTest : ::testing::Test {
  void TearDown() override {
    TerminationRequested = 0;
    ArchiveBroken = false;
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
    const uint64_t entries = ArchiveEntries.load();
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(Retrieve(name, CHECKPOINT_ARMED, c.mode), 0) << err.Text();
    EXPECT_EQ(ArchiveEntries.load(), entries + 1);
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
  // Only a positive RETR reply with data that all reached the archive makes
  // an entry; anything else leaves the archive byte for byte as it was, the
  // old end block still its end and the file position there.
  struct Case {
    const char* what;
    std::vector<std::string> pieces;
    bool refuse;
    std::string final_reply;  // empty for the peer's 226
    std::string archive;
    bool findable_end;    // the writer's descriptor can find the archive's end
    const char* failure;  // on standard error, nullptr for none
    bool no_data;         // "Block returned no data" on standard output
  };
  const Case cases[] = {
      // A save file is never empty: a positive reply without data is no
      // entry either.
      {"success without data", {}, false, "", OldArchive(), true, nullptr, true},
      {"refusal", {}, true, "", OldArchive(), true,
       R"(\[ftp\.cpp,\d+\]: RETR command failed\n  550 CPF9812 File SAV1 in library QTEMP not found\.)", true},
      {"a negative reply after whole blocks of data", {Pattern(1300, 3)}, false, "451 Transfer aborted.",
       OldArchive(), true, R"(\[ftp\.cpp,\d+\]: RETR command failed\n  451 Transfer aborted\.)", false},
      {"a negative reply after less than a block", {Pattern(300, 3)}, false, "426 Connection closed.",
       OldArchive(), true, R"(\[ftp\.cpp,\d+\]: RETR command failed\n  426 Connection closed\.)", false},
      // Without an end block there is no place for the header: the data and
      // the new end block are cut away again.
      {"no end block to replace", {Pattern(1300, 3)}, false, "", "", true,
       R"(\[ftp\.cpp,\d+\]: CTAR header failed to update: )", false},
      // The archive is taken at the first data: one that cannot be appended
      // to ends the transfer there, before a byte of it is written.
      {"an archive whose end cannot be found", {Pattern(1300, 3)}, false, "", OldArchive(), false,
       R"(\[backup\.cpp,\d+\]: lseek\(\): Bad file descriptor\n(.*\n)*.*\[ftp\.cpp,\d+\]: RETR command failed\n)",
       true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    RetrPeer peer;
    peer.refuse = c.refuse;
    peer.pieces = c.pieces;
    if (!c.final_reply.empty()) peer.final_reply = c.final_reply;
    Begin(peer, c.archive);
    if (!c.findable_end) writer->descriptor = -1;
    const uint64_t entries = ArchiveEntries.load();
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(Retrieve("/home/missing", CHECKPOINT_ARMED | CHECKPOINT_RETRY), -1);
    EXPECT_EQ(session->checkpoint_flags, CHECKPOINT_ARMED | CHECKPOINT_RETRY);
    EXPECT_EQ(file->Contents(), before);
    EXPECT_EQ(lseek(file->fd, 0, SEEK_CUR), static_cast<off_t>(before.size()));
    EXPECT_EQ(ArchiveEntries.load(), entries);
    EXPECT_FALSE(ArchiveBroken.load());
    EXPECT_EQ(Matches(out.Text(), R"(\] Block returned no data\n)"), c.no_data) << out.Text();
    EXPECT_EQ(Matches(err.Text(), c.failure ? c.failure : "failed"), c.failure != nullptr) << err.Text();
    const std::vector<std::string> retrieval = {"PASV", std::string("RETR ") + savf};
    EXPECT_EQ(After(), retrieval);
    EXPECT_TRUE(ArchiveLockIsFree());
    // The session is still usable.
    session->checkpoint_flags = 0;
    EXPECT_EQ(Command(session->control, "NOOP"), 0);
  }
}

TEST_F(RetrieveToArchiveTest, AFailedWriteWhileClosingTheEntryCutsTheArchiveBack) {
  // 700 bytes arrive behind an archive of 1536: one whole block goes out at
  // 1536 as it comes; closing the entry then writes the padded last block at
  // 2048, the new end block at 2560 and the header over the old end block at
  // 1024. Each write in turn fails, at once or after part of its block.
  struct Case {
    const char* what;
    rlim_t file_size;          // the largest the archive may grow; 0 for no limit
    std::vector<long> pwrites; // the plan for positioned writes (see pwrite64 above)
    const char* failure;
    bool broken;  // the old end block could not be put back
  };
  const std::string io = strerror(EIO);
  const std::string header = R"(\[ftp\.cpp,\d+\]: CTAR header failed to update: )" + io + "\n";
  const Case cases[] = {
      {"the whole block of data", 1800, {}, R"(\[backup\.cpp,\d+\]: write\(, 0x[0-9A-F]+, -1\): File too large\n)"
                                            R"([\s\S]*\[ftp\.cpp,\d+\]: RETR command failed\n)", false},
      {"the padded block", 2048, {}, R"(\[ftp\.cpp,\d+\]: write\(\): File too large\n)", false},
      {"the padded block, in part", 2300, {}, R"(\[ftp\.cpp,\d+\]: write\(\): File too large\n)", false},
      {"the new end block", 2560, {}, R"(\[ftp\.cpp,\d+\]: CTAR sentinel failed write\(\): File too large\n)", false},
      {"the new end block, in part", 2900, {}, R"(\[ftp\.cpp,\d+\]: CTAR sentinel failed write\(\): File too large\n)",
       false},
      {"the header", 0, {-1}, header.c_str(), false},
      // The old end block is half overwritten: it must be written again.
      {"the header, in part", 0, {100, -1}, header.c_str(), false},
      {"the header, in part, and the old end block cannot be written again", 0, {100, -1, -1},
       R"(\[backup\.cpp,\d+\]: write\(\): Input/output error\n)"
       R"([\s\S]*\[backup\.cpp,\d+\]: the archive could not be cut back: nothing more is appended\n)", true},
  };
  const std::string data = Pattern(700, 21);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ArchiveBroken = false;
    RetrPeer peer;
    peer.pieces = {data};
    Begin(peer, OldArchive());
    const uint64_t entries = ArchiveEntries.load();
    int result = 0;
    size_t pwrites = 0;
    std::string messages;
    {
      StdoutCapture out;
      StderrCapture err;
      {
        std::optional<FileSizeLimit> limit;
        if (c.file_size > 0) limit.emplace(c.file_size);
        FailingPwrites failing(file->fd, c.pwrites);
        result = Retrieve("/home/closing");
        pwrites = failing.Calls();
      }
      messages = err.Text();
    }
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(Matches(messages, c.failure)) << messages;
    EXPECT_EQ(pwrites, c.pwrites.size());  // every planned write was attempted
    EXPECT_EQ(ArchiveBroken.load(), c.broken);
    EXPECT_EQ(ArchiveEntries.load(), entries);
    EXPECT_TRUE(ArchiveLockIsFree());
    EXPECT_EQ(file->Size(), static_cast<off_t>(before.size()));
    if (c.broken) {
      // Nothing more is appended, and the server is not asked for it.
      const size_t commands = server->Commands().size();
      StdoutCapture out;
      StderrCapture err;
      EXPECT_EQ(Retrieve("/home/next"), -1);
      EXPECT_TRUE(Matches(err.Text(), R"(\[backup\.cpp,\d+\]: the archive is broken: nothing more is appended\n)"))
          << err.Text();
      EXPECT_EQ(server->Commands().size(), commands);
      EXPECT_TRUE(ArchiveLockIsFree());
      continue;
    }
    EXPECT_EQ(file->Contents(), before);
    EXPECT_EQ(lseek(file->fd, 0, SEEK_CUR), static_cast<off_t>(before.size()));
    // The old end block is still the end: the next retrieval appends behind
    // the old entry as if the failed one had never been.
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(Retrieve("/home/next"), 0) << err.Text();
    EXPECT_EQ(file->Contents(), before.substr(0, before.size() - CtarBlockSize) +
                                    HeaderBlock("/home/next", data.size(), 0100644) + PadToBlocks(data) +
                                    SentinelBlock());
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

TEST_F(RetrieveToArchiveTest, TerminationRequestLeavesTheArchiveWhole) {
  // A request that comes while the data flows lets the entry complete; one
  // whose grace is already over sends no RETR at all.
  struct Case {
    const char* what;
    bool while_flowing;
    bool entry;  // the entry was appended
  };
  const Case cases[] = {
      {"a request whose grace is over", false, false},
      {"a request while the data flows", true, true},
  };
  const std::string data = Pattern(1600, 13);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TerminationRequested = 0;
    RetrPeer peer;
    peer.pieces = {data.substr(0, 700), data.substr(700)};
    peer.pause_ms = 50;
    if (c.while_flowing) peer.after_first_piece = [] { RequestTermination(SIGTERM); };
    Begin(peer, OldArchive());
    StdoutCapture out;
    StderrCapture err;
    // A worker thread of its own, as in a backup: the grace counts from the
    // end of the calling thread's last transfer, and this one has none.
    bool grace_over = true;
    int result = 1;
    std::thread worker([&] {
      if (!c.while_flowing) grace_over = RequestWithGraceOver(SIGTERM);
      result = Retrieve("/home/t");
    });
    worker.join();
    ASSERT_TRUE(grace_over);
    EXPECT_EQ(result, c.entry ? 0 : -1);
    EXPECT_EQ(TerminationRequested.load(), SIGTERM);
    EXPECT_TRUE(ArchiveLockIsFree());
    EXPECT_FALSE(ArchiveBroken.load());
    long ended = 0;
    const std::string after = file->Contents();
    std::vector<ArchiveEntry> expected = {{"/old/entry", "0123456789"}};
    if (c.entry) expected.push_back({"/home/t", data});
    EXPECT_EQ(ReadArchiveEntries(after, &ended), expected);
    EXPECT_EQ(ended, static_cast<long>(after.size()));
    if (c.entry) {
      EXPECT_EQ(After(), (std::vector<std::string>{"PASV", std::string("RETR ") + savf}));
    } else {
      EXPECT_EQ(after, before);
      EXPECT_EQ(After(), std::vector<std::string>{});
      EXPECT_TRUE(Matches(err.Text(), R"(\[socket\.cpp,\d+\]: termination requested: RETR )" + std::string(savf) +
                                          " not sent\n"))
          << err.Text();
    }
    // The session is closed without a word once the grace is over.
    TerminationRequested = 0;
  }
}

TEST_F(RetrieveToArchiveTest, BrokenControlConnectionCutsTheArchiveBackBeforeTheLockIsFree) {
  RetrPeer peer;
  const std::string data = Pattern(1300, 14);
  peer.pieces = {data.substr(0, 600), data.substr(600)};
  peer.pause_ms = 50;
  peer.drop_during_retr = true;
  // Another worker waits for the archive while the data flows: when it gets
  // the lock, the archive must already be what it was.
  std::atomic<bool> held{false};
  peer.after_first_piece = [&held] { held = true; };
  Begin(peer, OldArchive());
  std::string seen_by_next;
  std::thread next([&] {
    for (int i = 0; i < 5000 && !held; i++) usleep(1000);
    std::lock_guard<std::mutex> hold(ArchiveLock);
    seen_by_next = file->Contents();
  });
  StdoutCapture out;
  StderrCapture err;
  int result = RunProtected(session, [&] {
    PassPointOfNoReturn(session);
    return Retrieve("/home/broken", session->checkpoint_flags);
  });
  next.join();
  EXPECT_TRUE(held.load());
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(Matches(err.Text(), R"(\[ftp\.cpp,\d+\]: recovering checkpoint\n)")) << err.Text();
  EXPECT_EQ(session->checkpoint_flags, 0);
  EXPECT_TRUE(ArchiveLockIsFree());
  EXPECT_FALSE(ArchiveBroken.load());
  EXPECT_EQ(seen_by_next, before);
  EXPECT_EQ(file->Contents(), before);
  EXPECT_EQ(lseek(file->fd, 0, SEEK_CUR), static_cast<off_t>(before.size()));
}

}  // namespace
