// The save family and the per-object dispatcher against a peer that keeps
// save files per server job the way an IBM i does: the exact commands sent,
// the judgement of failed save replies, report lines, and recovery from a
// broken control connection before and after the point of no return.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "backup.h"
#include "fake_server.h"
#include "ftp.h"
#include "support.h"
#include "test_helpers.h"
#include "vondral.h"

namespace {

std::string Pattern(size_t size, int seed) {
  std::string out(size, '\0');
  for (size_t i = 0; i < size; i++) out[i] = static_cast<char>((i * 13 + seed) & 0xFF);
  return out;
}

// Everything written to a stream so far; the stream stays positioned at its
// end for the writers.
std::string AllOf(FILE* stream) {
  fflush(stream);
  rewind(stream);
  std::string out;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, stream)) > 0) out.append(buffer, n);
  fseek(stream, 0, SEEK_END);
  return out;
}

bool StartsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

// An IBM i-like peer. Save files live in the server job, so each control
// connection starts without any: CLRSAVF fails until CRTSAVF made the file.
// Save commands get `save_reply`; RETR serves `payload`.
struct SavePeer {
  std::mutex lock;
  std::set<std::pair<int, std::string>> files;  // (connection, file)
  std::string save_reply = "250 Command SAV successful.";
  std::string payload = Pattern(700, 1);
  int save_delay_ms = 0;
  // Close the control connection (no reply) when the n-th command starting
  // with `drop_on` arrives.
  std::string drop_on;
  int drop_at = 1;
  std::atomic<int> drop_seen{0};
  // Close the control connection during the first RETR, after sending
  // part of the data.
  std::atomic<bool> drop_during_retr{false};
  std::atomic<int> retrievals{0};

  PeerScript Script() {
    return LoginScript([this](PeerConnection& c, const std::string& command) {
      if (!drop_on.empty() && StartsWith(command, drop_on) && ++drop_seen == drop_at) return false;
      if (command == "PASV") {
        c.Reply(c.PassiveReply());
      } else if (StartsWith(command, "RETR ")) {
        int fd = c.AcceptData();
        c.Reply("150 Retrieving file.\r\n");
        if (drop_during_retr && ++retrievals == 1) {
          SendAll(fd, payload.substr(0, payload.size() / 2));
          usleep(20000);
          close(fd);
          return false;
        }
        SendAll(fd, payload);
        close(fd);
        c.Reply("226 File transfer completed successfully.\r\n");
      } else if (StartsWith(command, "RCMD CLRSAVF FILE(")) {
        std::string file = command.substr(18);
        std::lock_guard<std::mutex> hold(lock);
        if (files.count({c.index, file}))
          c.Reply("250 Command CLRSAVF successful.\r\n");
        else
          c.Reply("550 CPF9812 File not found.\r\n");
      } else if (StartsWith(command, "RCMD CRTSAVF FILE(")) {
        std::string file = command.substr(18);
        std::lock_guard<std::mutex> hold(lock);
        files.insert({c.index, file});
        c.Reply("250 Command CRTSAVF successful.\r\n");
      } else if (StartsWith(command, "RCMD SAV")) {
        if (save_delay_ms > 0) usleep(static_cast<useconds_t>(save_delay_ms) * 1000);
        c.Reply(save_reply + "\r\n");
      } else {
        c.Reply("200 OK\r\n");
      }
      return true;
    });
  }
};

struct tm SampleTime() {
  struct tm t{};
  t.tm_year = 125;
  t.tm_mon = 10;
  t.tm_mday = 22;
  t.tm_hour = 10;
  t.tm_isdst = -1;
  return t;
}

const std::string RetrSav3 = "RETR /QSYS.LIB/QTEMP.LIB/SAV3.SAVF";

std::string SavCommand(const std::string& quoted_path, int number, const char* precheck = "*YES") {
  return "RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV" + std::to_string(number) + ".FILE') OBJ(('\"" +
         quoted_path + "\"')) SUBTREE(*ALL) PRECHK(" + precheck + ") UPDHST(*NO) SAVACT(*YES)";
}

struct SaveTest : ::testing::Test {
  void SetUp() override {
    char name[] = "/tmp/vondral-save-XXXXXX";
    fd = mkstemp(name);
    path = name;
    unsigned char sentinel[CtarBlockSize];
    ASSERT_EQ(write(fd, BuildCtarSentinel(sentinel), CtarBlockSize), static_cast<ssize_t>(CtarBlockSize));
    writer.reset(new ArchiveWriter{});
    writer->descriptor = fd;
    writer->block = writer->storage;
  }
  void TearDown() override {
    if (session) Quit(session);
    session = nullptr;
    server.reset();
    for (ObjectFile* o : objects) FreeFileList(o);
    close(fd);
    unlink(path.c_str());
    if (Settings.notbackedup) fclose(Settings.notbackedup);
    Settings.notbackedup = nullptr;
    Settings.verbosity = 0;
    Settings.precheck = 1;
    Settings.cutoff_flag = 0;
    Settings.cutoff_date_text[0] = '\0';
    Settings.cutoff_time_text[0] = '\0';
    Settings.wait_text = nullptr;
  }
  void Start(SavePeer& peer) {
    server.reset(new FakeFtpServer(peer.Script()));
    session = NewSessionTo(server->address());
    ASSERT_NE(session, nullptr);
    ASSERT_EQ(Login(session, "u", "p"), 0);
  }
  // Commands after the login exchange.
  std::vector<std::string> After(size_t skip = 5) {
    auto all = server->Commands();
    return std::vector<std::string>(all.begin() + static_cast<long>(std::min(skip, all.size())), all.end());
  }
  ObjectFile* Object(const std::string& name, uint32_t mode = 0100644) {
    objects.push_back(NewFileNode(nullptr, name.c_str(), mode, 0, SampleTime()));
    return objects.back();
  }
  // Prepares the writer for one object as the dispatcher does.
  ArchiveWriter* Fresh() {
    writer->pending = 0;
    writer->calls = 0;
    writer->bytes = 0;
    return writer.get();
  }
  std::string Archive() {
    struct stat st{};
    fstat(fd, &st);
    std::string out(static_cast<size_t>(st.st_size), '\0');
    ssize_t n = pread(fd, out.data(), out.size(), 0);
    out.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return out;
  }
  // (name, data) of every entry before the end block; `whole` is set when
  // the end block is the file's last block.
  std::vector<std::pair<std::string, std::string>> Entries(bool* whole = nullptr) {
    std::string archive = Archive();
    std::vector<std::pair<std::string, std::string>> out;
    size_t at = 0;
    if (whole) *whole = false;
    while (at + CtarBlockSize <= archive.size()) {
      uint64_t size = 0;
      char name[512] = "";
      int kind = ReadCtarHeader(reinterpret_cast<const unsigned char*>(archive.data() + at), &size, name,
                                sizeof name);
      if (kind == CtarEnd) {
        if (whole) *whole = at + CtarBlockSize == archive.size();
        break;
      }
      if (kind != CtarEntry || at + CtarBlockSize + size > archive.size()) break;
      out.emplace_back(name, archive.substr(at + CtarBlockSize, size));
      at += CtarBlockSize + static_cast<size_t>(CtarPaddedSize(size));
    }
    return out;
  }
  std::unique_ptr<FakeFtpServer> server;
  FtpSession* session = nullptr;
  std::vector<ObjectFile*> objects;
  std::unique_ptr<ArchiveWriter> writer;
  int fd = -1;
  std::string path;
};

bool OtherThreadCanTakeArchiveLock() {
  bool got = false;
  std::thread other([&] {
    got = ArchiveLock.try_lock();
    if (got) ArchiveLock.unlock();
  });
  other.join();
  return got;
}

size_t Count(const std::vector<std::string>& commands, const std::string& prefix) {
  return static_cast<size_t>(
      std::count_if(commands.begin(), commands.end(), [&](const std::string& c) { return StartsWith(c, prefix); }));
}

// --- SAV

TEST_F(SaveTest, SavSendsSettingsSaveFileCommandAndRetrievalInOrder) {
  SavePeer peer;
  Start(peer);
  TransferStats stats{-1, -1, -1};
  StdoutCapture out;
  StderrCapture err;
  EXPECT_EQ(SAV(session, Object("/home/it's"), 3, &stats, ArchiveWriteCallback, Fresh()), 0) << err.Text();
  EXPECT_EQ(After(), (std::vector<std::string>{
                         "STRU F", "MODE S", "TYPE I", "SITE NAMEFMT 1", "RCMD CLRSAVF FILE(QTEMP/SAV3)",
                         "RCMD CRTSAVF FILE(QTEMP/SAV3)",
                         "RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV3.FILE') OBJ(('\"/home/it''s\"')) "
                         "SUBTREE(*ALL) PRECHK(*YES) UPDHST(*NO) SAVACT(*YES)",
                         "PASV", RetrSav3}));
  EXPECT_EQ(session->checkpoint_flags, 0);
  EXPECT_GE(stats.save_seconds, 0);
  EXPECT_GE(stats.wait_seconds, 0);
  EXPECT_GE(stats.transfer_seconds, 0);
  EXPECT_LT(stats.save_seconds + stats.wait_seconds + stats.transfer_seconds, 30);

  // The same session again: no settings, and the save file now exists.
  size_t before = server->Commands().size();
  EXPECT_EQ(SAV(session, Object("/home/b"), 3, nullptr, ArchiveWriteCallback, Fresh()), 0) << err.Text();
  EXPECT_EQ(After(before), (std::vector<std::string>{"RCMD CLRSAVF FILE(QTEMP/SAV3)", SavCommand("/home/b", 3),
                                                     "PASV", RetrSav3}));
  bool whole = false;
  auto entries = Entries(&whole);
  EXPECT_TRUE(whole);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0], std::make_pair(std::string("/home/it's"), peer.payload));
  EXPECT_EQ(entries[1], std::make_pair(std::string("/home/b"), peer.payload));
  EXPECT_EQ(err.Text().find("failed"), std::string::npos) << err.Text();
}

TEST_F(SaveTest, CutoffDateLimitsTheSaveToChangedObjects) {
  SavePeer peer;
  Start(peer);
  Settings.cutoff_flag = 1;
  strcpy(Settings.cutoff_date_text, "11/22/26");
  strcpy(Settings.cutoff_time_text, "10:00:00");
  StdoutCapture out;
  EXPECT_EQ(SAV(session, Object("/home/x"), 2, nullptr, ArchiveWriteCallback, Fresh()), 0);
  auto commands = After();
  ASSERT_EQ(Count(commands, "RCMD SAV "), 1u);
  EXPECT_EQ(commands[6], SavCommand("/home/x", 2) + " CHGPERIOD('11/22/26' '10:00:00')");
  // Only SAV honours the date.
  EXPECT_EQ(SAVLIB(session, Object("/QSYS.LIB/L.LIB"), 2, nullptr, ArchiveWriteCallback, Fresh()), 0);
  EXPECT_EQ(server->Commands().back(), "RETR /QSYS.LIB/QTEMP.LIB/SAV2.SAVF");
  for (const std::string& c : server->Commands())
    if (StartsWith(c, "RCMD SAVLIB")) {
      EXPECT_EQ(c.find("CHGPERIOD"), std::string::npos) << c;
    }
}

TEST_F(SaveTest, OneTrailingSlashIsRemovedForSavButNotForSavlib) {
  SavePeer peer;
  Start(peer);
  StdoutCapture out;
  StderrCapture err;
  ObjectFile* dir = Object("/home/dir/", 040755);
  EXPECT_EQ(SAV(session, dir, 1, nullptr, ArchiveWriteCallback, Fresh()), 0);
  EXPECT_STREQ(dir->name, "/home/dir");
  ObjectFile* twice = Object("/home/two//", 040755);
  EXPECT_EQ(SAV(session, twice, 1, nullptr, ArchiveWriteCallback, Fresh()), 0);
  EXPECT_STREQ(twice->name, "/home/two/");
  auto commands = After();
  EXPECT_NE(std::find(commands.begin(), commands.end(), SavCommand("/home/dir", 1)), commands.end());
  EXPECT_NE(std::find(commands.begin(), commands.end(), SavCommand("/home/two/", 1)), commands.end());
  // The entry carries the name without the slash (and the directory suffix,
  // which the reader removes).
  auto entries = Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].first, "/home/dir");

  // SAVLIB keeps the slash, so the last part is empty and not a library.
  ObjectFile* lib = Object("/QSYS.LIB/MYLIB.LIB/");
  EXPECT_EQ(SAVLIB(session, lib, 1, nullptr, ArchiveWriteCallback, Fresh()), -1);
  EXPECT_STREQ(lib->name, "/QSYS.LIB/MYLIB.LIB/");
  EXPECT_NE(err.Text().find("bad library name"), std::string::npos) << err.Text();
}

TEST_F(SaveTest, SavCommandOf4096CharactersIsRefusedBeforeSending) {
  SavePeer peer;
  // Nothing is retrieved: an entry name this long cannot be stored.
  peer.save_reply = "550 CPF3770 No objects saved or restored.";
  Start(peer);
  const size_t fixed = SavCommand("", 3).size();
  StdoutCapture out;
  {
    std::string name = "/" + std::string(4096 - fixed - 1, 'a');
    StderrCapture err;
    EXPECT_EQ(SAV(session, Object(name), 3, nullptr, ArchiveWriteCallback, Fresh()), -1);
    EXPECT_TRUE(std::regex_search(err.Text(), std::regex(R"(\[ftp\.cpp,\d+\]: SAV command too long\n)")))
        << err.Text();
    EXPECT_EQ(session->checkpoint_flags, 0);
    auto commands = After();
    EXPECT_EQ(Count(commands, "RCMD SAV "), 0u);
    EXPECT_EQ(Count(commands, "RETR"), 0u);
  }
  {  // One character less passes the length check.
    std::string name = "/" + std::string(4095 - fixed - 1, 'a');
    StderrCapture err;
    SAV(session, Object(name), 3, nullptr, ArchiveWriteCallback, Fresh());
    EXPECT_EQ(err.Text().find("SAV command too long"), std::string::npos) << err.Text();
  }
  {  // A command that the transport can carry arrives whole.
    std::string name = "/" + std::string(4092 - fixed - 1, 'b');
    StderrCapture err;
    EXPECT_EQ(SAV(session, Object(name), 3, nullptr, ArchiveWriteCallback, Fresh()), -1);
    EXPECT_NE(err.Text().find("SAV command failed\n  550 CPF3770"), std::string::npos) << err.Text();
    auto commands = After();
    EXPECT_NE(std::find(commands.begin(), commands.end(), SavCommand(name, 3)), commands.end());
  }
  {  // The cut-off period counts towards the limit.
    Settings.cutoff_flag = 1;
    strcpy(Settings.cutoff_date_text, "01/02/03");
    strcpy(Settings.cutoff_time_text, "04:05:06");
    std::string name = "/" + std::string(4096 - fixed - 1 - 33, 'c');
    size_t before = server->Commands().size();
    StderrCapture err;
    EXPECT_EQ(SAV(session, Object(name), 3, nullptr, ArchiveWriteCallback, Fresh()), -1);
    EXPECT_NE(err.Text().find("SAV command too long"), std::string::npos) << err.Text();
    EXPECT_EQ(Count(After(before), "RCMD SAV "), 0u);
  }
  EXPECT_EQ(Count(After(), "RETR"), 0u);
}

TEST_F(SaveTest, PartialSavWithoutPrecheckCountsAsSavedAndListsWhatWasLeft) {
  SavePeer peer;
  peer.save_reply = "550 CPF3771 12 objects saved. 3 objects not saved..";
  Start(peer);
  Settings.precheck = 0;
  Settings.verbosity = 1;
  Settings.notbackedup = tmpfile();
  StdoutCapture out;
  StderrCapture err;
  EXPECT_EQ(SAV(session, Object("/x"), 1, nullptr, ArchiveWriteCallback, Fresh()), 0) << err.Text();
  EXPECT_TRUE(std::regex_search(out.Text(), std::regex(R"(\[T\d+\] /x: 3 objects not saved\n)"))) << out.Text();
  std::string listed = AllOf(Settings.notbackedup);
  EXPECT_TRUE(std::regex_match(listed, std::regex(R"(\[[0-9:]+\] \[T\d+\] /x: 3 objects not saved\n)"))) << listed;
  auto commands = After();
  EXPECT_NE(std::find(commands.begin(), commands.end(), SavCommand("/x", 1, "*NO")), commands.end());
  EXPECT_EQ(commands.back(), "RETR /QSYS.LIB/QTEMP.LIB/SAV1.SAVF");
  ASSERT_EQ(Entries().size(), 1u);
  EXPECT_EQ(err.Text().find("SAV command failed"), std::string::npos);

  // At verbosity 0 only the not-backed-up stream hears of it.
  Settings.verbosity = 0;
  StdoutCapture quiet;
  EXPECT_EQ(SAV(session, Object("/y"), 1, nullptr, ArchiveWriteCallback, Fresh()), 0);
  EXPECT_EQ(quiet.Text().find("objects not saved"), std::string::npos) << quiet.Text();
  std::string more = AllOf(Settings.notbackedup);
  EXPECT_EQ(more.substr(0, listed.size()), listed);
  EXPECT_TRUE(std::regex_match(more.substr(listed.size()),
                               std::regex(R"(\[[0-9:]+\] \[T\d+\] /y: 3 objects not saved\n)")))
      << more;
}

TEST_F(SaveTest, FailedSavRepliesThatAreNotPartialFailWithoutRetrieval) {
  struct Case {
    std::string reply;
    int precheck;
  };
  // Only the first 127 characters of the reply are judged and quoted.
  const std::string late = "550 CPF3771 " + std::string(120, '.') + " 12 objects saved. 3 objects not saved..";
  const Case cases[] = {
      {late, 0},
      {"550 CPF3771 12 objects saved. 3 objects not saved..", 1},  // precheck on: always a failure
      {"550 CPF3770 No objects saved or restored.", 0},
      {"550 CPF3771 3 objects not saved.. 12 objects saved. ", 0},  // phrases in the wrong order
      {"450 CPF3771 12 objects saved. 3 objects not saved..", 0},   // no 550
      {"550 CPF3771 12 objects saved. 3 objects not saved.", 0},    // one full stop only
  };
  for (const Case& c : cases) {
    SavePeer peer;
    peer.save_reply = c.reply;
    Start(peer);
    Settings.precheck = static_cast<uint8_t>(c.precheck);
    Settings.verbosity = 1;
    StdoutCapture out;
    StderrCapture err;
    const std::string before = Archive();
    EXPECT_EQ(SAV(session, Object("/x"), 1, nullptr, ArchiveWriteCallback, Fresh()), -1) << c.reply;
    EXPECT_NE(err.Text().find("SAV command failed\n  " + c.reply.substr(0, 127) + "\n"), std::string::npos)
        << c.reply << "\n" << err.Text();
    EXPECT_EQ(out.Text().find("objects not saved"), std::string::npos) << c.reply;
    auto commands = After();
    EXPECT_EQ(Count(commands, "PASV"), 0u) << c.reply;
    EXPECT_EQ(Count(commands, "RETR"), 0u) << c.reply;
    EXPECT_EQ(Archive(), before) << c.reply;
    EXPECT_EQ(session->checkpoint_flags, 0);
    Quit(session);
    session = nullptr;
    server.reset();
  }
}

TEST_F(SaveTest, SavRefusesAMissingSession) {
  StderrCapture err;
  EXPECT_EQ(SAV(nullptr, Object("/x"), 1, nullptr, ArchiveWriteCallback, Fresh()), -1);
  FtpSession fake{};
  memcpy(fake.tag, "ftpc", 4);
  EXPECT_EQ(SAVLIB(&fake, Object("/QSYS.LIB/A.LIB"), 1, nullptr, ArchiveWriteCallback, Fresh()), -1);
}

TEST_F(SaveTest, SaveFileThatCannotBeCreatedFailsTheObject) {
  // A peer refusing CRTSAVF as well.
  FakeFtpServer refusing(LoginScript([](PeerConnection& c, const std::string& command) {
    if (StartsWith(command, "RCMD"))
      c.Reply("550 CPD0030 Command not allowed.\r\n");
    else
      c.Reply("200 OK\r\n");
    return true;
  }));
  FtpSession* other = NewSessionTo(refusing.address());
  ASSERT_NE(other, nullptr);
  ASSERT_EQ(Login(other, "u", "p"), 0);
  StderrCapture err;
  EXPECT_EQ(SAVCFG(other, Object("/System Configuration"), 4, nullptr, ArchiveWriteCallback, Fresh()), -1);
  EXPECT_TRUE(std::regex_search(err.Text(), std::regex(R"(\[ftp\.cpp,\d+\]: CRTSAVF command failed\n)")))
      << err.Text();
  auto commands = refusing.Commands();
  EXPECT_EQ(std::vector<std::string>(commands.begin() + 5, commands.end()),
            (std::vector<std::string>{"STRU F", "MODE S", "TYPE I", "RCMD CLRSAVF FILE(QTEMP/SAV4)",
                                      "RCMD CRTSAVF FILE(QTEMP/SAV4)"}));
  EXPECT_EQ(other->checkpoint_flags, 0);
  Quit(other);
}

// --- SAVLIB

TEST_F(SaveTest, SavlibNamesTheLibraryAndItsActiveWait) {
  SavePeer peer;
  Start(peer);
  StdoutCapture out;
  StderrCapture err;
  EXPECT_EQ(SAVLIB(session, Object("/QSYS.LIB/MYLIB.LIB"), 2, nullptr, ArchiveWriteCallback, Fresh()), 0)
      << err.Text();
  EXPECT_EQ(After(), (std::vector<std::string>{
                         "STRU F", "MODE S", "TYPE I", "SITE NAMEFMT 1", "RCMD CLRSAVF FILE(QTEMP/SAV2)",
                         "RCMD CRTSAVF FILE(QTEMP/SAV2)",
                         "RCMD SAVLIB LIB(MYLIB) DEV(*SAVF) SAVF(QTEMP/SAV2) PRECHK(*YES) UPDHST(*NO) "
                         "SAVACT(*SYNCLIB) SAVACTWAIT(120) ACCPTH(*YES)",
                         "PASV", "RETR /QSYS.LIB/QTEMP.LIB/SAV2.SAVF"}));
  Settings.wait_text = "*NOMAX";
  Settings.precheck = 0;
  size_t before = server->Commands().size();
  EXPECT_EQ(SAVLIB(session, Object("/QSYS.LIB/A.B.LIB"), 2, nullptr, ArchiveWriteCallback, Fresh()), 0);
  EXPECT_EQ(After(before), (std::vector<std::string>{
                               "RCMD CLRSAVF FILE(QTEMP/SAV2)",
                               "RCMD SAVLIB LIB(A.B) DEV(*SAVF) SAVF(QTEMP/SAV2) PRECHK(*NO) UPDHST(*NO) "
                               "SAVACT(*SYNCLIB) SAVACTWAIT(*NOMAX) ACCPTH(*YES)",
                               "PASV", "RETR /QSYS.LIB/QTEMP.LIB/SAV2.SAVF"}));
  auto entries = Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].first, "/QSYS.LIB/MYLIB.LIB");
  EXPECT_EQ(entries[1].first, "/QSYS.LIB/A.B.LIB");
}

TEST_F(SaveTest, SavlibRefusesWhatIsNotALibraryAndOverlongCommands) {
  SavePeer peer;
  Start(peer);
  for (const char* name : {"/QSYS.LIB/X.FILE", "/QSYS.LIB/MYLIB.lib", "/QSYS.LIB/MYLIB", "/QSYS.LIB/MYLIB.LIBX",
                           "/QSYS.LIB/MYLIB.LIB/X.FILE"}) {
    StderrCapture err;
    EXPECT_EQ(SAVLIB(session, Object(name), 1, nullptr, ArchiveWriteCallback, Fresh()), -1) << name;
    EXPECT_TRUE(std::regex_search(err.Text(), std::regex(R"(\[ftp\.cpp,\d+\]: bad library name\n)")))
        << name << "\n" << err.Text();
    EXPECT_EQ(session->checkpoint_flags, 0);
  }
  {  // A library name too long for the command.
    StderrCapture err;
    std::string name = "/QSYS.LIB/" + std::string(4000, 'L') + ".LIB";
    EXPECT_EQ(SAVLIB(session, Object(name), 1, nullptr, ArchiveWriteCallback, Fresh()), -1);
    EXPECT_TRUE(std::regex_search(err.Text(), std::regex(R"(\[ftp\.cpp,\d+\]: SAVLIB command too long\n)")))
        << err.Text();
  }
  auto commands = After();
  EXPECT_EQ(Count(commands, "RCMD SAVLIB"), 0u);
  EXPECT_EQ(Count(commands, "RETR"), 0u);
  EXPECT_EQ(Entries().size(), 0u);
}

TEST_F(SaveTest, FailedSavlibWithoutPrecheckIsStillRetrieved) {
  SavePeer peer;
  peer.save_reply = "550 CPF3777 1 libraries not saved.";
  Start(peer);
  Settings.precheck = 0;
  Settings.verbosity = 1;
  Settings.notbackedup = tmpfile();
  StdoutCapture out;
  StderrCapture err;
  EXPECT_EQ(SAVLIB(session, Object("/QSYS.LIB/MYLIB.LIB"), 1, nullptr, ArchiveWriteCallback, Fresh()), 0)
      << err.Text();
  EXPECT_TRUE(std::regex_search(
      out.Text(), std::regex(R"(\[T\d+\] /QSYS\.LIB/MYLIB\.LIB: 550 CPF3777 1 libraries not saved\.\n)")))
      << out.Text();
  std::string listed = AllOf(Settings.notbackedup);
  EXPECT_TRUE(std::regex_match(
      listed, std::regex(R"(\[[0-9:]+\] \[T\d+\] /QSYS\.LIB/MYLIB\.LIB: 550 CPF3777 1 libraries not saved\.\n)")))
      << listed;
  EXPECT_EQ(After().back(), "RETR /QSYS.LIB/QTEMP.LIB/SAV1.SAVF");
  ASSERT_EQ(Entries().size(), 1u);

  // With precheck on the same reply fails the library.
  Settings.precheck = 1;
  size_t before = server->Commands().size();
  EXPECT_EQ(SAVLIB(session, Object("/QSYS.LIB/MYLIB.LIB"), 1, nullptr, ArchiveWriteCallback, Fresh()), -1);
  EXPECT_NE(err.Text().find("SAVLIB command failed\n  550 CPF3777 1 libraries not saved."), std::string::npos)
      << err.Text();
  EXPECT_EQ(Count(After(before), "RETR"), 0u);
  EXPECT_EQ(Entries().size(), 1u);
}

// --- SAVDLO, SAVSECDTA, SAVCFG

struct FamilyCase {
  const char* name;
  int (*save)(FtpSession*, ObjectFile*, int, TransferStats*, DataCallback, void*);
  const char* command;
};

TEST_F(SaveTest, SystemObjectsSaveWithoutNameFormat) {
  const FamilyCase cases[] = {
      {"/QDLS", SAVDLO, "RCMD SAVDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAV5) SAVACT(*YES)"},
      {"/Security Data", SAVSECDTA, "RCMD SAVSECDTA DEV(*SAVF) SAVF(QTEMP/SAV5) PRECHK(*YES)"},
      {"/System Configuration", SAVCFG, "RCMD SAVCFG DEV(*SAVF) SAVF(QTEMP/SAV5) PRECHK(*YES)"},
  };
  for (const FamilyCase& c : cases) {
    SavePeer peer;
    Start(peer);
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(c.save(session, Object(c.name), 5, nullptr, ArchiveWriteCallback, Fresh()), 0) << err.Text();
    EXPECT_EQ(After(), (std::vector<std::string>{"STRU F", "MODE S", "TYPE I", "RCMD CLRSAVF FILE(QTEMP/SAV5)",
                                                 "RCMD CRTSAVF FILE(QTEMP/SAV5)", c.command, "PASV",
                                                 "RETR /QSYS.LIB/QTEMP.LIB/SAV5.SAVF"}))
        << c.name;
    Quit(session);
    session = nullptr;
    server.reset();
  }
  auto entries = Entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].first, "/QDLS");
  EXPECT_EQ(entries[1].first, "/Security Data");
  EXPECT_EQ(entries[2].first, "/System Configuration");

  // Without precheck the two that have one say so.
  Settings.precheck = 0;
  SavePeer peer;
  Start(peer);
  StdoutCapture out;
  EXPECT_EQ(SAVSECDTA(session, Object("/Security Data"), 5, nullptr, ArchiveWriteCallback, Fresh()), 0);
  EXPECT_EQ(SAVCFG(session, Object("/System Configuration"), 5, nullptr, ArchiveWriteCallback, Fresh()), 0);
  auto commands = After();
  EXPECT_NE(std::find(commands.begin(), commands.end(),
                      "RCMD SAVSECDTA DEV(*SAVF) SAVF(QTEMP/SAV5) PRECHK(*NO)"),
            commands.end());
  EXPECT_NE(std::find(commands.begin(), commands.end(), "RCMD SAVCFG DEV(*SAVF) SAVF(QTEMP/SAV5) PRECHK(*NO)"),
            commands.end());
}

TEST_F(SaveTest, PartialRulesOfTheSystemObjects) {
  Settings.precheck = 0;
  Settings.verbosity = 1;
  const std::string partial = "550 CPF3771 40 objects saved. 2 objects not saved..";
  {  // SAVSECDTA and SAVCFG judge the reply as SAV does.
    SavePeer peer;
    peer.save_reply = partial;
    Start(peer);
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(SAVSECDTA(session, Object("/Security Data"), 1, nullptr, ArchiveWriteCallback, Fresh()), 0)
        << err.Text();
    EXPECT_EQ(SAVCFG(session, Object("/System Configuration"), 1, nullptr, ArchiveWriteCallback, Fresh()), 0)
        << err.Text();
    EXPECT_NE(out.Text().find("/Security Data: 2 objects not saved\n"), std::string::npos) << out.Text();
    EXPECT_NE(out.Text().find("/System Configuration: 2 objects not saved\n"), std::string::npos) << out.Text();
    Quit(session);
    session = nullptr;
  }
  {  // SAVDLO has no partial rule.
    SavePeer peer;
    peer.save_reply = partial;
    Start(peer);
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(SAVDLO(session, Object("/QDLS"), 1, nullptr, ArchiveWriteCallback, Fresh()), -1);
    EXPECT_NE(err.Text().find("SAVDLO command failed\n  " + partial), std::string::npos) << err.Text();
    EXPECT_EQ(Count(After(), "RETR"), 0u);
  }
  {  // SAVCFG with an unrelated failure fails.
    Quit(session);
    session = nullptr;
    SavePeer peer;
    peer.save_reply = "550 CPF0001 Error found on SAVCFG command.";
    Start(peer);
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(SAVCFG(session, Object("/System Configuration"), 1, nullptr, ArchiveWriteCallback, Fresh()), -1);
    EXPECT_NE(err.Text().find("SAVCFG command failed\n  550 CPF0001"), std::string::npos) << err.Text();
  }
  EXPECT_EQ(Entries().size(), 2u);
}

// --- ProcessObject

struct DispatchCase {
  const char* name;
  const char* command_prefix;
};

TEST_F(SaveTest, ProcessObjectChoosesTheSaveByTheName) {
  const DispatchCase cases[] = {
      {"/QDLS", "RCMD SAVDLO "},
      {"/System Configuration", "RCMD SAVCFG "},
      {"/Security Data", "RCMD SAVSECDTA "},
      {"/QSYS.LIB/PAY.LIB", "RCMD SAVLIB LIB(PAY) "},
      {"/QDLS/FOLDER", "RCMD SAV DEV("},
      {"/QDLSX", "RCMD SAV DEV("},
      {"/qdls", "RCMD SAV DEV("},
      {"/Security Data/x", "RCMD SAV DEV("},
      {"/System Configuration ", "RCMD SAV DEV("},
      {"/QSYS.LIB", "RCMD SAV DEV("},
      {"/QSYS.LIBX/A.LIB", "RCMD SAV DEV("},
      {"/home/user", "RCMD SAV DEV("},
  };
  SavePeer peer;
  Start(peer);
  Settings.verbosity = 1;  // the size and time lines need 2
  BackupTotals totals{};
  const uint64_t objects_before = writer->objects;
  for (const DispatchCase& c : cases) {
    size_t before = server->Commands().size();
    StdoutCapture out;
    StderrCapture err;
    // Left-overs of an earlier object must not reach this one.
    writer->pending = 77;
    writer->calls = 9;
    writer->bytes = 123456;
    EXPECT_EQ(ProcessObject(session, Object(c.name), 6, writer.get(), &totals), 0) << c.name << err.Text();
    auto commands = After(before);
    EXPECT_EQ(Count(commands, "RCMD SAV"), 1u) << c.name;
    EXPECT_EQ(Count(commands, c.command_prefix), 1u) << c.name;
    EXPECT_TRUE(std::regex_search(out.Text(), std::regex(std::string(R"(\[T\d+\] Backup Success: )") +
                                                         std::regex_replace(c.name, std::regex(R"([.])"), R"(\.)") +
                                                         "\n")))
        << out.Text();
    EXPECT_EQ(out.Text().find("Size:"), std::string::npos) << out.Text();
    EXPECT_EQ(out.Text().find("Xfer:"), std::string::npos) << out.Text();
    EXPECT_EQ(writer->bytes, static_cast<int64_t>(peer.payload.size())) << c.name;
    EXPECT_GT(writer->calls, 0u);
  }
  EXPECT_EQ(writer->objects, objects_before + std::size(cases));
  EXPECT_EQ(writer->failures, 0u);
  bool whole = false;
  auto entries = Entries(&whole);
  EXPECT_TRUE(whole);
  ASSERT_EQ(entries.size(), std::size(cases));
  for (size_t i = 0; i < entries.size(); i++) {
    EXPECT_EQ(entries[i].first, cases[i].name);
    EXPECT_EQ(entries[i].second, peer.payload);
  }
  EXPECT_GT(totals.save_seconds, 0);
  EXPECT_GT(totals.transfer_seconds, 0);
}

TEST_F(SaveTest, ProcessObjectReportsSizeAndTimesWithDecimalUnits) {
  struct SizeCase {
    size_t bytes;
    const char* line;
  };
  const SizeCase cases[] = {
      {2000, "Size: 2000.000  B\n"},
      {2001, "Size: 2.001 KB\n"},
      {512, "Size: 512.000  B\n"},
      {2000000, "Size: 2000.000 KB\n"},
      {2000001, "Size: 2.000 MB\n"},
  };
  Settings.verbosity = 2;
  for (const SizeCase& c : cases) {
    SavePeer peer;
    peer.payload = Pattern(c.bytes, 3);
    peer.save_delay_ms = 30;
    Start(peer);
    BackupTotals totals{};
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(ProcessObject(session, Object("/home/sized"), 1, writer.get(), &totals), 0) << err.Text();
    std::string text = out.Text();
    EXPECT_NE(text.find("] Backup Success: /home/sized\n"), std::string::npos) << text;
    EXPECT_NE(text.find(std::string("] ") + c.line), std::string::npos) << c.bytes << "\n" << text;
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(\] Save: +\d+\.\d{3} s \d+\.\d{3} [ KMG]B/s\n)")))
        << text;
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(\] Xfer: +\d+\.\d{3} s \d+\.\d{3} [ KMG]B/s\n)")))
        << text;
    EXPECT_GE(totals.save_seconds, 0.03);
    EXPECT_LT(totals.save_seconds, 5);
    // The size line comes after the success line.
    EXPECT_LT(text.find("Backup Success"), text.find("Size:"));
    Quit(session);
    session = nullptr;
    server.reset();
  }
}

TEST_F(SaveTest, ProcessObjectSplitsTheTimesAtTheArchiveLock) {
  SavePeer peer;
  peer.save_delay_ms = 30;
  Start(peer);
  Settings.verbosity = 2;
  // Another worker holds the archive for the first 100 ms.
  std::atomic<bool> taken{false};
  std::thread other([&] {
    TakeArchiveLock();
    taken = true;
    usleep(100000);
    ReleaseArchiveLockIfHeld();
  });
  while (!taken) usleep(1000);
  auto started = std::chrono::steady_clock::now();
  BackupTotals totals{};
  StdoutCapture out;
  StderrCapture err;
  int result = ProcessObject(session, Object("/home/waited"), 1, writer.get(), &totals);
  double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  other.join();
  EXPECT_EQ(result, 0) << err.Text();
  EXPECT_GE(totals.save_seconds, 0.03);
  EXPECT_GE(totals.wait_seconds, 0.03);  // about 70 ms behind the lock
  EXPECT_LE(totals.save_seconds + totals.wait_seconds + totals.transfer_seconds, elapsed + 0.01);
  EXPECT_LT(totals.transfer_seconds, totals.wait_seconds);
  EXPECT_TRUE(std::regex_search(out.Text(), std::regex(R"(\] Wait: +0\.\d{3} s\n)"))) << out.Text();
}

TEST_F(SaveTest, ProcessObjectReportsAFailureAndListsTheObject) {
  SavePeer peer;
  peer.save_reply = "550 CPF3770 No objects saved or restored.";
  Start(peer);
  Settings.notbackedup = tmpfile();
  Settings.verbosity = 2;
  BackupTotals totals{};
  StdoutCapture out;
  StderrCapture err;
  EXPECT_EQ(ProcessObject(session, Object("/home/bad"), 1, writer.get(), &totals), 1);
  EXPECT_TRUE(std::regex_search(err.Text(), std::regex(R"(\[T\d+\] Backup Failure: /home/bad\n)"))) << err.Text();
  EXPECT_EQ(out.Text().find("Backup Success"), std::string::npos) << out.Text();
  EXPECT_EQ(out.Text().find("Size:"), std::string::npos) << out.Text();
  std::string listed = AllOf(Settings.notbackedup);
  EXPECT_TRUE(std::regex_match(listed, std::regex(R"(\[[0-9:]+\] \[T\d+\] /home/bad\n)"))) << listed;
  EXPECT_EQ(writer->failures, 1u);
  EXPECT_EQ(writer->objects, 1u);
  EXPECT_EQ(totals.save_seconds, 0);
  EXPECT_EQ(totals.transfer_seconds, 0);
  EXPECT_EQ(Entries().size(), 0u);
}

// --- recovery

TEST_F(SaveTest, BrokenConnectionBeforeTheSaveRanRepeatsTheWholeOperation) {
  struct DropCase {
    const char* trigger;
    size_t sav_commands;  // RCMD SAV sent in all
  };
  const DropCase cases[] = {{"TYPE I", 1}, {"RCMD CLRSAVF", 1}, {"RCMD SAV ", 2}};
  for (const DropCase& c : cases) {
    SavePeer peer;
    peer.drop_on = c.trigger;
    Start(peer);
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(SAV(session, Object("/home/r"), 1, nullptr, ArchiveWriteCallback, Fresh()), 0)
        << c.trigger << "\n" << err.Text();
    EXPECT_TRUE(std::regex_search(err.Text(), std::regex(R"(\[ftp\.cpp,\d+\]: recovering checkpoint\n)")))
        << err.Text();
    EXPECT_EQ(server->connections(), 2) << c.trigger;
    EXPECT_EQ(session->checkpoint_flags, 0);
    auto commands = After();
    EXPECT_EQ(Count(commands, "RCMD SAV "), c.sav_commands) << c.trigger;
    // After the new login the settings go out again, and the save file is
    // made afresh in the new server job.
    auto relogin = std::find(commands.begin(), commands.end(), "TIME 86400 86400");
    ASSERT_NE(relogin, commands.end());
    std::vector<std::string> tail(relogin + 1, commands.end());
    EXPECT_EQ(tail, (std::vector<std::string>{"STRU F", "MODE S", "TYPE I", "SITE NAMEFMT 1",
                                              "RCMD CLRSAVF FILE(QTEMP/SAV1)", "RCMD CRTSAVF FILE(QTEMP/SAV1)",
                                              SavCommand("/home/r", 1), "PASV",
                                              "RETR /QSYS.LIB/QTEMP.LIB/SAV1.SAVF"}))
        << c.trigger;
    EXPECT_TRUE(OtherThreadCanTakeArchiveLock());
    Quit(session);
    session = nullptr;
    server.reset();
  }
  bool whole = false;
  auto entries = Entries(&whole);
  EXPECT_EQ(entries.size(), std::size(cases));
  EXPECT_TRUE(whole);
}

TEST_F(SaveTest, BrokenConnectionDuringRetrievalFailsWithoutSavingAgain) {
  SavePeer peer;
  peer.drop_during_retr = true;
  peer.payload = Pattern(1500, 4);
  Start(peer);
  Settings.notbackedup = tmpfile();
  BackupTotals totals{};
  StdoutCapture out;
  StderrCapture err;
  EXPECT_EQ(ProcessObject(session, Object("/home/lost"), 1, writer.get(), &totals), 1);
  EXPECT_NE(err.Text().find("recovering checkpoint"), std::string::npos) << err.Text();
  EXPECT_NE(err.Text().find("Backup Failure: /home/lost"), std::string::npos) << err.Text();
  auto commands = After();
  EXPECT_EQ(Count(commands, "RCMD SAV "), 1u);
  EXPECT_EQ(Count(commands, "RETR"), 1u);
  EXPECT_EQ(session->checkpoint_flags, 0);
  EXPECT_FALSE(ArchiveLockHeldByMe());
  EXPECT_TRUE(OtherThreadCanTakeArchiveLock());
  // The session is logged in again and usable for the next object.
  EXPECT_EQ(ProcessObject(session, Object("/home/next"), 1, writer.get(), &totals), 0) << err.Text();
  EXPECT_EQ(server->connections(), 2);
}

}  // namespace
