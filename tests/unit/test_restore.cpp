// The restore side: judging restore replies, reading and skipping archive
// data in whole blocks, and the commands the restore family sends (checked
// against a scripted peer).
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "fake_server.h"
#include "ftp.h"
#include "restore.h"
#include "support.h"
#include "test_helpers.h"
#include "vondral.h"

namespace {

// --- ClassifyRestoreReply

struct ReplyCase {
  const char* text;
  int expected;
};

TEST(ClassifyRestoreReply, CountsNamedObjectsAndLibraries) {
  const ReplyCase cases[] = {
      {"550 CPF3773 5 objects restored. 2 not restored.", 5},
      {"550 CPF3773 5 objects restored. 2 not restored", 5},
      {"550 12 OBJECTS RESTORED", 12},         // the phrase in any case
      {"550 7 libraries restored. 1 not", 7},  // the library form of the count
      {"550 010 objects restored", 8},         // base 0: a leading 0 is octal
      {"550 0x1A objects restored", 0},        // the walk back stops at 'x'
      {"550 CPF3773   3 objects restored", 3},  // several blanks before the phrase
      {"550 CPF9999 000 objects restored", 0},
      {"550 -3 objects restored", 3},  // the walk stops at the sign, which stays out
  };
  for (const ReplyCase& c : cases) EXPECT_EQ(ClassifyRestoreReply(c.text), c.expected) << c.text;
}

TEST(ClassifyRestoreReply, CountsThatAreNotAPositiveNumberAndABlankGiveZero) {
  const ReplyCase cases[] = {
      {"550 0 objects restored", 0},
      {"550 5objects restored", 0},       // no blank behind the number
      {"550 objects restored", 0},        // nothing to count
      {"objects restored", 0},            // phrase at the very start
      {"2505 objects restored", 0},       // the reply code is never part of the count
  };
  for (const ReplyCase& c : cases) EXPECT_EQ(ClassifyRestoreReply(c.text), c.expected) << c.text;
}

TEST(ClassifyRestoreReply, TolerableFailuresGiveOne) {
  EXPECT_EQ(ClassifyRestoreReply("250 Not all objects were restored"), 1);
  EXPECT_EQ(ClassifyRestoreReply("550 Save file SAVTEMP in QTEMP contains no data"), 1);
  EXPECT_EQ(ClassifyRestoreReply("550 CPF3743 Save file SAVTEMP in QTEMP contains no data."), 1);
  EXPECT_EQ(ClassifyRestoreReply("550 NOT ALL objects were restored"), 1);
}

TEST(ClassifyRestoreReply, OnlyTheFirstOccurrenceOfTheInitialLetterIsLookedAt) {
  const ReplyCase cases[] = {
      // An 'o' in "job log" comes first: the count is never seen.
      {"550 CPF3773 See job log. 5 objects restored.", -1},
      {"550 Objects: 5 objects restored", -1},
      // An 'l' in "all" before "libraries restored".
      {"550 all 3 libraries restored", -1},
      // "not all" behind an earlier 'n'.
      {"550 CPF3779 Unknown. Not all objects were restored", -1},
      // "Save file" behind an earlier 's'.
      {"550 Its Save file SAVTEMP contains no data", -1},
      // "contains no data" behind an earlier 'c' after "Save file ".
      {"550 Save file SAVTEMP in QTEMP, check: contains no data", -1},
      {"550 CPF3743 Save file SAVTEMP in QTEMP contains data that cannot be restored.", -1},
      {"451 Simulator error", -1},
      {"", -1},
  };
  for (const ReplyCase& c : cases) EXPECT_EQ(ClassifyRestoreReply(c.text), c.expected) << c.text;
  EXPECT_EQ(ClassifyRestoreReply(nullptr), -1);
}

// --- reading and skipping archive data

// A temporary archive file whose descriptor the test reads.
struct ArchiveFile {
  FILE* stream = tmpfile();
  explicit ArchiveFile(const std::string& content) {
    fwrite(content.data(), 1, content.size(), stream);
    fflush(stream);
    rewind(stream);
  }
  ~ArchiveFile() { fclose(stream); }
  int fd() const { return fileno(stream); }
  off_t position() const { return lseek(fd(), 0, SEEK_CUR); }
};

// Distinct bytes, so that a read from the wrong place shows.
std::string Pattern(size_t length, int seed) {
  std::string out(length, '\0');
  for (size_t i = 0; i < length; i++) out[i] = static_cast<char>((i * 7 + seed * 13 + i / 251) & 0xFF);
  return out;
}

std::string Padded(const std::string& data) {
  return data + std::string((512 - data.size() % 512) % 512, '\0');
}

// A page-aligned buffer like the engine's transfer buffer.
struct TransferBuffer {
  char* data = static_cast<char*>(
      mmap(nullptr, TransferBufferSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ~TransferBuffer() { munmap(data, TransferBufferSize); }
};

struct Pipe {
  int ends[2] = {-1, -1};
  Pipe() { EXPECT_EQ(pipe(ends), 0); }
  ~Pipe() {
    CloseWriter();
    close(ends[0]);
  }
  int reader() const { return ends[0]; }
  void CloseWriter() {
    if (ends[1] >= 0) close(ends[1]);
    ends[1] = -1;
  }
  void Write(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
      ssize_t n = write(ends[1], text.data() + at, text.size() - at);
      ASSERT_GT(n, 0);
      at += static_cast<size_t>(n);
    }
  }
  std::string Read(size_t length) {
    std::string out(length, '\0');
    size_t got = 0;
    while (got < length) {
      ssize_t n = read(ends[0], &out[got], length - got);
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    out.resize(got);
    return out;
  }
};

TEST(SkipArchiveData, SeeksWholeBlocksInAFile) {
  const std::string content = Pattern(4096, 1);
  ArchiveFile archive(content);
  EXPECT_EQ(SkipArchiveData(archive.fd(), 1000), 0);
  EXPECT_EQ(archive.position(), 1024);
  EXPECT_EQ(SkipArchiveData(archive.fd(), 512), 0);
  EXPECT_EQ(archive.position(), 1536);
  // What an upload left over after reading the padding skips nothing.
  EXPECT_EQ(SkipArchiveData(archive.fd(), 0), 0);
  EXPECT_EQ(SkipArchiveData(archive.fd(), -24), 0);
  EXPECT_EQ(SkipArchiveData(archive.fd(), -511), 0);
  EXPECT_EQ(archive.position(), 1536);
}

TEST(SkipArchiveData, ReadsThroughAPipeSilently) {
  Pipe pipe;
  const std::string content = Pattern(3 * 4096 + 1024, 2);
  std::thread writer([&] {
    pipe.Write(content);
    pipe.CloseWriter();
  });
  StderrCapture err;
  EXPECT_EQ(SkipArchiveData(pipe.reader(), 700), 0);           // rounded to 1024
  EXPECT_EQ(SkipArchiveData(pipe.reader(), 2 * 4096 + 1), 0);  // more than a page
  EXPECT_EQ(pipe.Read(512), content.substr(1024 + 2 * 4096 + 512, 512));
  writer.join();
  EXPECT_EQ(err.Text(), "");
}

TEST(SkipArchiveData, ReportsAnArchiveThatEndsFirst) {
  Pipe pipe;
  pipe.Write(std::string(1000, 'x'));
  pipe.CloseWriter();
  StderrCapture err;
  EXPECT_EQ(SkipArchiveData(pipe.reader(), 2048), -1);
  EXPECT_TRUE(std::regex_search(
      err.Text(), std::regex(R"(\[restore\.cpp,\d+\]: didn't finish consuming 0x418 bytes\n)")))
      << err.Text();
}

TEST(SkipArchiveData, ReportsAFailedSeekAndAFailedRead) {
  StderrCapture err;
  EXPECT_EQ(SkipArchiveData(-1, 100), -1);
  const std::string text = err.Text();
  EXPECT_TRUE(std::regex_search(
      text, std::regex(R"(\[restore\.cpp,\d+\]: lseek64\(, 0x200,, SEEK_CUR\): Bad file descriptor\n)")))
      << text;
  EXPECT_TRUE(std::regex_search(
      text, std::regex(R"(\[restore\.cpp,\d+\]: read\(list, 512\): Bad file descriptor\n)")))
      << text;
  EXPECT_NE(text.find("didn't finish consuming 0x200 bytes"), std::string::npos) << text;
}

TEST(ArchiveReadCallback, ReadsWholeBlocksButHandsOverOnlyTheData) {
  const std::string data = Pattern(1000, 3);
  const std::string next = Pattern(512, 4);
  ArchiveFile archive(Padded(data) + next);
  ArchiveReader reader{archive.fd(), 0, 1000, 1000};
  TransferBuffer buffer;
  int count = TransferBufferSize;
  ASSERT_EQ(ArchiveReadCallback(&reader, buffer.data, &count), 0);
  EXPECT_EQ(count, 1000);
  EXPECT_EQ(std::string(buffer.data, 1000), data);
  EXPECT_EQ(reader.left, -24);  // the padding was read too
  EXPECT_EQ(reader.calls, 1);
  EXPECT_EQ(archive.position(), 1024);  // on the next header

  count = TransferBufferSize;
  ASSERT_EQ(ArchiveReadCallback(&reader, buffer.data, &count), 0);
  EXPECT_EQ(count, 0);  // end of data
  EXPECT_EQ(reader.calls, 1);
  EXPECT_EQ(archive.position(), 1024);
  EXPECT_EQ(reader.size, 1000);
}

TEST(ArchiveReadCallback, NeverReadsMoreWholeBlocksThanTheBufferHolds) {
  const std::string data = Pattern(3000, 5);
  ArchiveFile archive(Padded(data) + Pattern(512, 6));
  ArchiveReader reader{archive.fd(), 0, 3000, 3000};
  TransferBuffer buffer;
  std::string sent;
  std::vector<int> counts;
  for (;;) {
    int count = 1300;  // room for two whole blocks
    ASSERT_EQ(ArchiveReadCallback(&reader, buffer.data, &count), 0);
    if (count == 0) break;
    counts.push_back(count);
    sent.append(buffer.data, static_cast<size_t>(count));
  }
  EXPECT_EQ(counts, (std::vector<int>{1024, 1024, 952}));
  EXPECT_EQ(sent, data);
  EXPECT_EQ(reader.left, -72);
  EXPECT_EQ(archive.position(), 3072);
}

TEST(ArchiveReadCallback, GathersABlockThatAPipeDeliversInPieces) {
  Pipe pipe;
  const std::string data = Pattern(600, 7);
  const std::string after = Pattern(512, 8);
  const std::string content = Padded(data) + after;
  std::thread writer([&] {
    for (size_t at = 0; at < content.size(); at += 100) {
      pipe.Write(content.substr(at, 100));
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    pipe.CloseWriter();
  });
  ArchiveReader reader{pipe.reader(), 0, 600, 600};
  TransferBuffer buffer;
  int count = TransferBufferSize;
  ASSERT_EQ(ArchiveReadCallback(&reader, buffer.data, &count), 0);
  EXPECT_EQ(count, 600);
  EXPECT_EQ(std::string(buffer.data, 600), data);
  EXPECT_EQ(pipe.Read(512), after);  // the next header starts where it should
  writer.join();
}

TEST(ArchiveReadCallback, FailuresAbortTheTransfer) {
  TransferBuffer buffer;
  StderrCapture err;
  int count = TransferBufferSize;
  EXPECT_EQ(ArchiveReadCallback(nullptr, buffer.data, &count), -1);
  EXPECT_TRUE(std::regex_search(err.Text(), std::regex(R"(\[restore\.cpp,\d+\]: bad argument\n)")));

  ArchiveReader broken{-1, 0, 100, 100};
  EXPECT_EQ(ArchiveReadCallback(&broken, buffer.data, &count), -1);
  EXPECT_TRUE(std::regex_search(
      err.Text(), std::regex(R"(\[restore\.cpp,\d+\]: read\(-,, 512\): Bad file descriptor\n)")))
      << err.Text();
  EXPECT_EQ(broken.left, 100);  // nothing counted as delivered
  EXPECT_EQ(broken.calls, 0);
}

// --- the restore family against a scripted peer

// An IBM i-like peer that takes uploads and answers every other command
// from `answer` (default "250 <verb> done.").
struct UploadPeer {
  std::mutex lock;
  std::string received;
  int uploads = 0;
  std::function<std::string(const std::string&)> answer;

  std::string Received() {
    std::lock_guard<std::mutex> hold(lock);
    return received;
  }
  PeerScript Script(const std::string& release) {
    return LoginScript(
        [this](PeerConnection& c, const std::string& command) {
          if (command == "PASV") {
            c.Reply(c.PassiveReply());
          } else if (command.rfind("STOR ", 0) == 0) {
            c.Reply("150 Opening data connection.\r\n");
            int fd = c.AcceptData();
            std::string data;
            char chunk[8192];
            for (ssize_t n; fd >= 0 && (n = read(fd, chunk, sizeof chunk)) > 0;)
              data.append(chunk, static_cast<size_t>(n));
            if (fd >= 0) close(fd);
            {
              std::lock_guard<std::mutex> hold(lock);
              received = data;
              uploads++;
            }
            c.Reply("226 Transfer complete.\r\n");
          } else {
            std::string reply = answer ? answer(command) : "";
            c.Reply((reply.empty() ? "250 done." : reply) + "\r\n");
          }
          return true;
        },
        "215  OS/400 is the remote operating system. The TCP/IP version is \"" + release + "\".");
  }
};

struct RestoreFamilyTest : ::testing::Test {
  void TearDown() override {
    if (session) Quit(session);
    if (Settings.exclude) fclose(Settings.exclude);
    Settings.exclude = nullptr;
    Settings.verbosity = 0;
  }
  void Open(FakeFtpServer& server) {
    session = NewSessionTo(server.address());
    ASSERT_NE(session, nullptr);
    ASSERT_EQ(Login(session, "u", "p"), 0);
  }
  // Commands after the login exchange.
  std::vector<std::string> After(FakeFtpServer& server, size_t skip = 5) {
    auto all = server.Commands();
    return std::vector<std::string>(all.begin() + static_cast<long>(std::min(skip, all.size())),
                                    all.end());
  }
  FtpSession* session = nullptr;
};

// An archive entry ready to be fed to STOR.
struct EntryData {
  std::string data;
  ArchiveFile archive;
  ArchiveReader reader;
  explicit EntryData(size_t size, int seed = 9)
      : data(Pattern(size, seed)),
        archive(Padded(data)),
        reader{archive.fd(), 0, static_cast<int64_t>(size), static_cast<int64_t>(size)} {}
};

StringList* ListOf(std::initializer_list<std::pair<const char*, const char*>> pairs) {
  StringList* list = NewStringList();
  for (const auto& [path, second] : pairs) AppendStringPair(list, path, second);
  return list;
}

const char* const Device = "RCMD RST DEV('/QSYS.LIB/QTEMP.LIB/SAVTEMP.FILE') OBJ(";

TEST_F(RestoreFamilyTest, LibraryNamesAndDestinationsAreCheckedBeforeAnythingIsSent) {
  UploadPeer peer;
  FakeFtpServer server(peer.Script("V5R4M0"));
  Open(server);
  EntryData entry(100);
  struct Case {
    const char* path;
    const char* destination;
    const char* message;
  };
  const Case cases[] = {
      {"/QSYS.LIB/MYLIB.FILE", nullptr, "bad library name"},
      {"/QSYS.LIB/MYLIB.LIB/X.FILE", nullptr, "bad library name"},
      {"/QSYS.LIB/MYLIB.lib", nullptr, "bad library name"},
      {"/QSYS.LIB/MYLIB", nullptr, "bad library name"},
      {"/QSYS.LIB/MYLIB.LIB", "/QSYS.LIB/ALONGLIBNAME.LIB", "bad library destination"},  // 26
      {"/QSYS.LIB/MYLIB.LIB", "/QSYS.LIB/NEWLIB.FILE", "bad library destination"},
      {"/QSYS.LIB/MYLIB.LIB", "/OTHER.LIB/NEWLIB.LIB", "bad library destination"},
      {"/QSYS.LIB/MYLIB.LIB", "/QSYS.LIB/NEWLIB", "bad library destination"},
  };
  for (const Case& c : cases) {
    StringList* list = ListOf({{c.path, c.destination}});
    StderrCapture err;
    EXPECT_EQ(RestoreLibrary(session, list->first, nullptr, ArchiveReadCallback, &entry.reader), -1)
        << c.path;
    EXPECT_TRUE(std::regex_search(err.Text(),
                                  std::regex(std::string(R"(\[ftp\.cpp,\d+\]: )") + c.message)))
        << c.path << " " << err.Text();
    FreeStringList(list);
  }
  EXPECT_EQ(After(server), std::vector<std::string>{});
  EXPECT_EQ(entry.reader.calls, 0);
}

TEST_F(RestoreFamilyTest, LibraryRestoreUploadsOnceAndNamesBothLibraries) {
  UploadPeer peer;
  FakeFtpServer server(peer.Script("V5R4M0"));
  Open(server);
  EntryData entry(70000);  // more than one transfer buffer
  // A library name of ten characters is the longest destination.
  StringList* list = ListOf({{"/QSYS.LIB/MYLIB.LIB", "/QSYS.LIB/NEWLIB7890.LIB"}});
  StdoutCapture out;
  RestoreTimes times{-1, 7, -1};
  EXPECT_EQ(RestoreLibrary(session, list->first, &times, ArchiveReadCallback, &entry.reader), 0);
  FreeStringList(list);
  EXPECT_EQ(After(server),
            (std::vector<std::string>{
                "STRU F", "MODE S", "TYPE I", "SITE NAMEFMT 1", "RCMD CLRSAVF FILE(QTEMP/SAVTEMP)",
                "PASV", "STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF",
                "RCMD RSTLIB SAVLIB(MYLIB) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) RSTLIB(NEWLIB7890) "
                "MBROPT(*ALL) ALWOBJDIF(*ALL)"}));
  EXPECT_EQ(peer.Received(), entry.data);  // the padding is not sent
  EXPECT_EQ(entry.reader.calls, 2);
  EXPECT_LE(entry.reader.left, 0);
  EXPECT_NE(out.Text().find("Restore Success: /QSYS.LIB/MYLIB\n"), std::string::npos);
  EXPECT_GE(times.transfer_seconds, 0);
  EXPECT_GE(times.restore_seconds, 0);
  EXPECT_EQ(times.unused, 7);
  EXPECT_EQ(session->checkpoint_flags, 0);
}

TEST_F(RestoreFamilyTest, IfsObjectsBelowV5R4MakeParentsAndOmitExclusions) {
  UploadPeer peer;
  peer.answer = [](const std::string& command) -> std::string {
    if (command.rfind("RCMD CLRSAVF", 0) == 0)
      return "550 CPF9812 File SAVTEMP in library QTEMP not found.";
    return "";
  };
  FakeFtpServer server(peer.Script("V5R3M0"));
  Open(server);
  Settings.exclude = StreamWith("/home/a/b/tmp\n/other\n/home/a/c/old :: /x\n/home/a/c/it's\n");
  Settings.verbosity = 1;
  EntryData entry(5000);
  StringList* list = ListOf({{"/home/a/b", nullptr}, {"/home/a/c", "/new \"place\"/c"}});
  StdoutCapture out;
  EXPECT_EQ(RestoreIfsObjects(session, list, nullptr, ArchiveReadCallback, &entry.reader), 0);
  FreeStringList(list);
  EXPECT_EQ(After(server),
            (std::vector<std::string>{
                "STRU F", "MODE S", "TYPE I", "SITE NAMEFMT 1", "RCMD CLRSAVF FILE(QTEMP/SAVTEMP)",
                "RCMD CRTSAVF FILE(QTEMP/SAVTEMP)", "PASV", "STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF",
                "MKD /home", "MKD /home/a",
                std::string(Device) +
                    "('\"/home/a/b\"') ('\"/home/a/b/tmp\"' *OMIT)) SUBTREE(*ALL) ALWOBJDIF(*ALL)",
                "MKD /new \"place\"",
                std::string(Device) +
                    "('\"/home/a/c\"' *INCLUDE '\"/new \"\"place\"\"/c\"') ('\"/home/a/c/old\"' "
                    "*OMIT) ('\"/home/a/c/it''s\"' *OMIT)) SUBTREE(*ALL) ALWOBJDIF(*ALL)"}));
  EXPECT_EQ(peer.uploads, 1);
  EXPECT_EQ(peer.Received(), entry.data);
  const std::string text = out.Text();
  EXPECT_NE(text.find("Object   : /home/a/b\n"), std::string::npos);
  EXPECT_NE(text.find("Restore Success: /home/a/b\n"), std::string::npos);
  EXPECT_NE(text.find("Restore Success: /home/a/c\n"), std::string::npos);
}

TEST_F(RestoreFamilyTest, TheLastPairDecidesAndTolerableRepliesCountAsRestored) {
  UploadPeer peer;
  peer.answer = [](const std::string& command) -> std::string {
    if (command.find("/bad\"") != std::string::npos) return "550 CPF3781 Object not found.";
    if (command.find("/partly\"") != std::string::npos)
      return "550 CPF3773 5 objects restored. 2 not restored.";
    return "";
  };
  FakeFtpServer server(peer.Script("V5R4M0"));
  Open(server);
  {
    EntryData entry(100);
    StringList* list = ListOf({{"/bad", nullptr}, {"/partly", nullptr}});
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(RestoreIfsObjects(session, list, nullptr, ArchiveReadCallback, &entry.reader), 0);
    FreeStringList(list);
    EXPECT_TRUE(std::regex_search(
        err.Text(), std::regex(R"(\[ftp\.cpp,\d+\]: RST command failed\n  550 CPF3781 Object not found\.\n)")))
        << err.Text();
    EXPECT_NE(err.Text().find("  550 CPF3773 5 objects restored. 2 not restored.\n"), std::string::npos);
    EXPECT_EQ(out.Text().find("Restore Success"), std::string::npos);  // tolerated, not a success
  }
  {
    EntryData entry(100);
    StringList* list = ListOf({{"/partly", nullptr}, {"/bad", nullptr}});
    StderrCapture err;
    EXPECT_EQ(RestoreIfsObjects(session, list, nullptr, ArchiveReadCallback, &entry.reader), -1);
    FreeStringList(list);
  }
}

TEST_F(RestoreFamilyTest, ATooLongRstCommandIsNeverSent) {
  UploadPeer peer;
  FakeFtpServer server(peer.Script("V5R4M0"));
  Open(server);
  EntryData entry(100);
  const std::string deep = "/" + std::string(2100, 'q');
  // Every quote is doubled: 2 x 2000 characters no longer fit.
  const std::string quoted = "/" + std::string(2000, '\'');
  StringList* list = ListOf({{deep.c_str(), nullptr}, {quoted.c_str(), nullptr}, {"/c", nullptr}});
  StderrCapture err;
  EXPECT_EQ(RestoreIfsObjects(session, list, nullptr, ArchiveReadCallback, &entry.reader), -1);
  FreeStringList(list);
  EXPECT_TRUE(std::regex_search(err.Text(), std::regex(R"(\[ftp\.cpp,\d+\]: RST command too long\n)")));
  auto sent = After(server);
  ASSERT_EQ(sent.size(), 8u);  // the settings, the save file, the upload, the first RST
  EXPECT_EQ(sent[7].substr(0, 30), std::string(Device).substr(0, 30));
  EXPECT_NE(sent[7].find(deep), std::string::npos);
  EXPECT_EQ(session->checkpoint_flags, 0);
}

TEST_F(RestoreFamilyTest, WholeSaveFileRestoresAndAuthority) {
  UploadPeer peer;
  peer.answer = [](const std::string& command) -> std::string {
    if (command.rfind("RCMD RSTDLO", 0) == 0) return "550 CPF9999 Documents not restored.";
    if (command.rfind("RCMD RSTCFG", 0) == 0) return "550 CPF3773 1 objects restored. 1 not restored.";
    if (command.rfind("RCMD RSTAUT", 0) == 0) return "550 CPF3845 Authority not restored.";
    return "";
  };
  FakeFtpServer server(peer.Script("V5R4M0"));
  Open(server);
  EntryData documents(100), profiles(200), configuration(300);
  StdoutCapture out;
  StderrCapture err;
  // A failed document restore is not judged: SendCommand's 1 comes back.
  EXPECT_EQ(RestoreDocuments(session, "/QDLS", nullptr, ArchiveReadCallback, &documents.reader), 1);
  EXPECT_EQ(RestoreUserProfiles(session, "/Security Data", nullptr, ArchiveReadCallback,
                                &profiles.reader), 0);
  EXPECT_EQ(RestoreConfiguration(session, "/System Configuration", nullptr, ArchiveReadCallback,
                                 &configuration.reader), 0);
  EXPECT_EQ(RestoreAuthority(session), -1);
  EXPECT_EQ(After(server),
            (std::vector<std::string>{
                "STRU F", "MODE S", "TYPE I", "RCMD CLRSAVF FILE(QTEMP/SAVTEMP)", "PASV",
                "STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF",
                "RCMD RSTDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)",
                "RCMD CLRSAVF FILE(QTEMP/SAVTEMP)", "PASV", "STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF",
                "RCMD RSTUSRPRF DEV(*SAVF) SAVF(QTEMP/SAVTEMP) USRPRF(*NEW) ALWOBJDIF(*ALL)",
                "RCMD CLRSAVF FILE(QTEMP/SAVTEMP)", "PASV", "STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF",
                "RCMD RSTCFG OBJ(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)",
                "RCMD RSTAUT USRPRF(*ALL)"}));
  const std::string errors = err.Text();
  EXPECT_TRUE(std::regex_search(errors, std::regex(R"(\[ftp\.cpp,\d+\]: RSTDLO command failed\n\[)")))
      << errors;  // no reply text follows
  EXPECT_TRUE(std::regex_search(errors, std::regex(R"(\[ftp\.cpp,\d+\]: RSTCFG command failed\n  550 CPF3773)")));
  EXPECT_TRUE(std::regex_search(errors, std::regex(R"(\[ftp\.cpp,\d+\]: RSTAUT command failed\n)")));
  const std::string text = out.Text();
  EXPECT_EQ(text.find("Restore Success: /QDLS"), std::string::npos);
  EXPECT_NE(text.find("Restore Success: /Security Data\n"), std::string::npos);
  EXPECT_EQ(text.find("Restore Success: /System Configuration"), std::string::npos);
}

TEST_F(RestoreFamilyTest, LongRepliesAreCutAt127Characters) {
  UploadPeer peer;
  const std::string tail(200, 'z');
  peer.answer = [&](const std::string& command) -> std::string {
    if (command.rfind("RCMD RSTUSRPRF", 0) == 0) return "550 CPF3700 " + tail;
    return "";
  };
  FakeFtpServer server(peer.Script("V5R4M0"));
  Open(server);
  EntryData entry(100);
  StderrCapture err;
  EXPECT_EQ(RestoreUserProfiles(session, "/Security Data", nullptr, ArchiveReadCallback,
                                &entry.reader), -1);
  const std::string expected = "  " + ("550 CPF3700 " + tail).substr(0, 127) + "\n";
  EXPECT_NE(err.Text().find(expected), std::string::npos) << err.Text();
}

// Drops the control connection at the n-th command that starts with
// `trigger`, and otherwise behaves like UploadPeer.
struct DroppingPeer : UploadPeer {
  std::string trigger;
  int drop_at = 1;
  std::atomic<int> seen{0};
  PeerScript Dropping(const std::string& release) {
    PeerScript inner = Script(release);
    return [this, inner](PeerConnection& c, const std::string& command) {
      if (command.rfind(trigger, 0) == 0 && ++seen == drop_at) return false;
      return inner(c, command);
    };
  }
};

TEST_F(RestoreFamilyTest, ABrokenConnectionAfterTheUploadFailsTheEntry) {
  DroppingPeer peer;
  peer.trigger = "RCMD RST ";
  FakeFtpServer server(peer.Dropping("V5R4M0"));
  Open(server);
  EntryData entry(100);
  StderrCapture err;
  StringList* list = ListOf({{"/a", nullptr}});
  EXPECT_EQ(RestoreIfsObjects(session, list, nullptr, ArchiveReadCallback, &entry.reader), -1);
  FreeStringList(list);
  EXPECT_NE(err.Text().find("recovering checkpoint"), std::string::npos);
  EXPECT_EQ(peer.uploads, 1);  // the upload is not repeated
  EXPECT_EQ(server.connections(), 2);
  EXPECT_EQ(session->checkpoint_flags, 0);
  // The session works again: authorities can still be restored.
  EXPECT_EQ(RestoreAuthority(session), 0);
}

TEST_F(RestoreFamilyTest, AuthorityIsSentAgainAfterARecovery) {
  DroppingPeer peer;
  peer.trigger = "RCMD RSTAUT";
  FakeFtpServer server(peer.Dropping("V5R4M0"));
  Open(server);
  StderrCapture err;
  EXPECT_EQ(RestoreAuthority(session), 0);
  auto sent = server.Commands();
  EXPECT_EQ(std::count(sent.begin(), sent.end(), "RCMD RSTAUT USRPRF(*ALL)"), 2);
}

TEST(RestoreFamily, NoSessionGivesMinusOneQuietly) {
  StderrCapture err;
  EXPECT_EQ(RestoreIfsObjects(nullptr, nullptr, nullptr, ArchiveReadCallback, nullptr), -1);
  EXPECT_EQ(RestoreLibrary(nullptr, nullptr, nullptr, ArchiveReadCallback, nullptr), -1);
  EXPECT_EQ(RestoreDocuments(nullptr, "/QDLS", nullptr, ArchiveReadCallback, nullptr), -1);
  EXPECT_EQ(RestoreAuthority(nullptr), -1);
  EXPECT_EQ(err.Text(), "");
}

}  // namespace
