// The save family and the per-object dispatcher against a peer that keeps
// save files per server job the way an IBM i does: the exact commands sent,
// the judgement of failed save replies, report lines, and recovery from a
// broken control connection before and after the point of no return.
#define VONDRAL_ARCHIVE_HELPERS
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <thread>
#include <vector>

#include "archive/archive_file.h"
#include "archive/writer.h"
#include "backup/object_tree.h"
#include "backup/save_commands.h"
#include "backup/workers.h"
#include "fake_server.h"
#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/remote_listing.h"
#include "ftp/reply_judge.h"
#include "ftp/session.h"
#include "ftp/transfer_settings.h"
#include "backup/save_commands.h"
#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"
#include "test_helpers.h"
#include "cli/settings.h"

namespace {

std::string Pattern(size_t size, int seed) {
  std::string out(size, '\0');
  for (size_t i = 0; i < size; i++) out[i] = static_cast<char>((i * 13 + i / 509 + seed) & 0xFF);
  return out;
}

bool StartsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }
bool Matches(const std::string& text, const std::string& pattern) {
  return std::regex_search(text, std::regex(pattern));
}
std::string Escaped(const std::string& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}
size_t Count(const std::vector<std::string>& commands, const std::string& prefix) {
  return static_cast<size_t>(
      std::count_if(commands.begin(), commands.end(), [&](const std::string& c) { return StartsWith(c, prefix); }));
}

// An IBM i-like peer. Save files live in the server job, so each control
// connection starts without any: CLRSAVF fails until CRTSAVF made the file.
// Save commands get `save_reply`; RETR serves `payload`.
struct SavePeer {
  std::set<std::pair<int, std::string>> files;  // (connection, file)
  std::string save_reply = "250 Command SAV successful.";
  // Replies for the save commands that contain a text ("\"/home/a\"",
  // "LIB(PAY)"), in place of save_reply.
  std::vector<std::pair<std::string, std::string>> replies;
  std::string payload = Pattern(700, 1);
  int save_delay_ms = 0;
  bool refuse_rcmd = false;  // every RCMD, CRTSAVF too, is not allowed
  // Close the control connection (no reply) at the first command starting
  // with `drop_on`, or during the first RETR after part of the data.
  std::string drop_on;
  std::atomic<bool> dropped{false};
  std::atomic<bool> drop_during_retr{false};
  // The server thread runs this peer's script and may still be finishing a
  // command after the client has its reply; whoever serves the peer stops
  // that thread here, before the peer's state goes away.
  std::function<void()> stop;
  ~SavePeer() {
    if (stop) stop();
  }

  PeerScript Script() {
    return LoginScript([this](PeerConnection& c, const std::string& command) {
      if (!drop_on.empty() && StartsWith(command, drop_on) && !dropped.exchange(true)) return false;
      if (command == "PASV") {
        c.Reply(c.PassiveReply());
      } else if (StartsWith(command, "RETR ")) {
        int fd = c.AcceptData();
        c.Reply("150 Retrieving file.\r\n");
        if (drop_during_retr.exchange(false)) {
          SendAll(fd, payload.substr(0, payload.size() / 2));
          usleep(20000);
          close(fd);
          return false;
        }
        SendAll(fd, payload);
        close(fd);
        c.Reply("226 File transfer completed successfully.\r\n");
      } else if (refuse_rcmd && StartsWith(command, "RCMD")) {
        c.Reply("550 CPD0030 Command not allowed.\r\n");
      } else if (StartsWith(command, "RCMD CLRSAVF FILE(")) {
        c.Reply(files.count({c.index, command.substr(18)}) ? "250 Command CLRSAVF successful.\r\n"
                                                            : "550 CPF9812 File not found.\r\n");
      } else if (StartsWith(command, "RCMD CRTSAVF FILE(")) {
        files.insert({c.index, command.substr(18)});
        c.Reply("250 Command CRTSAVF successful.\r\n");
      } else if (StartsWith(command, "RCMD SAV")) {
        if (save_delay_ms > 0) usleep(static_cast<useconds_t>(save_delay_ms) * 1000);
        std::string reply = save_reply;
        for (const auto& [text, special] : replies)
          if (command.find(text) != std::string::npos) reply = special;
        c.Reply(reply + "\r\n");
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
  t.tm_mday = 22;
  t.tm_isdst = -1;
  return t;
}

std::string SavCommand(const std::string& quoted_path, int number, const char* precheck = "*YES") {
  return "RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV" + std::to_string(number) + ".FILE') OBJ(('\"" +
         quoted_path + "\"')) SUBTREE(*ALL) PRECHK(" + precheck + ") UPDHST(*NO) SAVACT(*YES)";
}

using SaveFn = int (*)(FtpSession*, ObjectFile*, int, TransferStats*, DataCallback, void*);

// A member of the save family, as messages name it, with an object it saves.
struct Member {
  const char* label;
  SaveFn save;
  const char* object;
  bool name_format;  // only the members that name an object need it
};
const Member Sav{"SAV", SAV, "/x", true};
const Member Savlib{"SAVLIB", SAVLIB, "/QSYS.LIB/MYLIB.LIB", true};
const Member Savdlo{"SAVDLO", SAVDLO, "/QDLS", false};
const Member Savsecdta{"SAVSECDTA", SAVSECDTA, "/Security Data", false};
const Member Savcfg{"SAVCFG", SAVCFG, "/System Configuration", false};

struct SaveTest : ::testing::Test {
  void SetUp() override {
    archive.Append(SentinelBlock());
    writer = ArchiveWriterFor(archive.fd);
  }
  void TearDown() override {
    Stop();
    for (ObjectFile* o : objects) FreeFileList(o);
    Settings = saved_settings;
  }
  void Stop() {
    if (session) Quit(session);
    session = nullptr;
    server.reset();
    serving = nullptr;
  }
  // Serves `peer` to a new logged-in session, ending the one before.
  void Start(SavePeer& peer) {
    Stop();
    peer.stop = [this, &peer] {
      if (serving == &peer) Stop();
    };
    serving = &peer;
    server.reset(new FakeFtpServer(peer.Script()));
    session = NewSessionTo(server->address());
    ASSERT_NE(session, nullptr);
    ASSERT_EQ(Login(session, "u", "p"), 0);
  }
  // Commands after the login exchange.
  std::vector<std::string> After(size_t skip = 5) {
    auto all = server->Commands();
    return std::vector<std::string>(all.begin() + static_cast<long>(skip), all.end());
  }
  ObjectFile* Object(const std::string& name) {
    objects.push_back(NewFileNode(nullptr, name.c_str(), 0100644, 0, SampleTime()));
    return objects.back();
  }
  // Saves one object with a writer prepared as the dispatcher does.
  int Save(SaveFn save, const std::string& name, int number = 1) {
    writer->pending = 0;
    writer->calls = 0;
    writer->bytes = 0;
    return save(session, Object(name), number, nullptr, ArchiveWriteCallback, writer.get());
  }
  // The archive's entries; `whole` is set when its end block is its last.
  std::vector<ArchiveEntry> Entries(bool* whole = nullptr) {
    std::string text = archive.Contents();
    long ended = 0;
    auto entries = ReadArchiveEntries(text, &ended);
    if (whole) *whole = ended == static_cast<long>(text.size());
    return entries;
  }
  // A new list of what was not backed up, read back by Listed().
  void NewNotBackedUpList() {
    not_backed_up.reset(new CapturedStream);
    Settings.notbackedup = not_backed_up->stream;
  }
  std::string Listed() { return not_backed_up->Text(); }
  const RunSettings saved_settings = Settings;
  std::unique_ptr<FakeFtpServer> server;
  const SavePeer* serving = nullptr;  // the peer the server runs
  FtpSession* session = nullptr;
  std::vector<ObjectFile*> objects;
  TempArchive archive;
  std::unique_ptr<ArchiveWriter> writer;
  std::unique_ptr<CapturedStream> not_backed_up;
};

// --- command texts

TEST_F(SaveTest, EachMemberSendsItsSettingsSaveFileAndCommandOnAFreshSession) {
  struct Case {
    Member member;
    const char* name;
    int precheck;
    bool cutoff;
    const char* wait;
    std::string command;
    const char* stored = nullptr;  // the name as saved, when not `name`
  };
  const Case cases[] = {
      {Sav, "/home/it's", 1, false, nullptr,
       "RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV2.FILE') OBJ(('\"/home/it''s\"')) SUBTREE(*ALL) PRECHK(*YES) "
       "UPDHST(*NO) SAVACT(*YES)"},
      {Sav, "/home/x", 0, true, nullptr, SavCommand("/home/x", 2, "*NO") + " CHGPERIOD('11/22/26' '10:00:00')"},
      // One trailing slash goes, from the name too, which the entry carries.
      {Sav, "/home/dir/", 1, false, nullptr, SavCommand("/home/dir", 2), "/home/dir"},
      {Sav, "/home/two//", 1, false, nullptr, SavCommand("/home/two/", 2), "/home/two/"},
      {Savlib, "/QSYS.LIB/MYLIB.LIB", 1, false, nullptr,
       "RCMD SAVLIB LIB(MYLIB) DEV(*SAVF) SAVF(QTEMP/SAV2) PRECHK(*YES) UPDHST(*NO) SAVACT(*SYNCLIB) "
       "SAVACTWAIT(120) ACCPTH(*YES)"},
      // Only SAV honours the cut-off date.
      {Savlib, "/QSYS.LIB/A.B.LIB", 0, true, "*NOMAX",
       "RCMD SAVLIB LIB(A.B) DEV(*SAVF) SAVF(QTEMP/SAV2) PRECHK(*NO) UPDHST(*NO) SAVACT(*SYNCLIB) "
       "SAVACTWAIT(*NOMAX) ACCPTH(*YES)"},
      {Savdlo, "/QDLS", 0, true, nullptr, "RCMD SAVDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAV2) SAVACT(*YES)"},
      {Savsecdta, "/Security Data", 1, true, nullptr, "RCMD SAVSECDTA DEV(*SAVF) SAVF(QTEMP/SAV2) PRECHK(*YES)"},
      {Savsecdta, "/Security Data", 0, false, nullptr, "RCMD SAVSECDTA DEV(*SAVF) SAVF(QTEMP/SAV2) PRECHK(*NO)"},
      {Savcfg, "/System Configuration", 1, true, nullptr, "RCMD SAVCFG DEV(*SAVF) SAVF(QTEMP/SAV2) PRECHK(*YES)"},
      {Savcfg, "/System Configuration", 0, false, nullptr, "RCMD SAVCFG DEV(*SAVF) SAVF(QTEMP/SAV2) PRECHK(*NO)"},
  };
  strcpy(Settings.cutoff_date_text, "11/22/26");
  strcpy(Settings.cutoff_time_text, "10:00:00");
  size_t saved = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    SavePeer peer;
    Start(peer);
    Settings.precheck = static_cast<uint8_t>(c.precheck);
    Settings.cutoff_flag = c.cutoff;
    Settings.wait_text = c.wait;
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(Save(c.member.save, c.name, 2), 0) << err.Text();
    std::vector<std::string> expected = {"STRU F", "MODE S", "TYPE I", "SITE NAMEFMT 1",
                                         "RCMD CLRSAVF FILE(QTEMP/SAV2)", "RCMD CRTSAVF FILE(QTEMP/SAV2)",
                                         c.command, "PASV", "RETR /QSYS.LIB/QTEMP.LIB/SAV2.SAVF"};
    if (!c.member.name_format) expected.erase(expected.begin() + 3);
    EXPECT_EQ(After(), expected);
    const char* stored = c.stored ? c.stored : c.name;
    EXPECT_STREQ(objects.back()->name, stored);
    EXPECT_EQ(session->checkpoint_flags, 0);
    bool whole = false;
    auto entries = Entries(&whole);
    EXPECT_TRUE(whole);
    ASSERT_EQ(entries.size(), ++saved);
    EXPECT_EQ(entries.back(), (ArchiveEntry{stored, peer.payload}));
  }
}

// --- judging failed save replies

TEST_F(SaveTest, FailedSaveRepliesAreJudgedByTheMembersPartialRule) {
  struct Case {
    Member member;
    std::string reply;
    int precheck;
    int verbosity;
    const char* partial;  // what is reported as left behind; nullptr when the object fails
  };
  const std::string counted = "550 CPF3771 12 objects saved. 3 objects not saved..";
  const std::string counted_system = "550 CPF3771 40 objects saved. 2 objects not saved..";
  const std::string library = "550 CPF3777 1 libraries not saved.";
  const Case cases[] = {
      {Sav, counted, 0, 1, "3 objects not saved"},
      {Sav, counted, 0, 0, "3 objects not saved"},  // only the not-backed-up list hears of it
      {Sav, counted, 1, 1, nullptr},                // with precheck every failure fails
      // Only the first 127 characters of the reply are judged and quoted.
      {Sav, "550 CPF3771 " + std::string(120, '.') + " 12 objects saved. 3 objects not saved..", 0, 1, nullptr},
      {Sav, "550 CPF3770 No objects saved or restored.", 0, 1, nullptr},
      {Sav, "550 CPF3771 3 objects not saved.. 12 objects saved. ", 0, 1, nullptr},  // wrong order
      {Sav, "450 CPF3771 12 objects saved. 3 objects not saved..", 0, 1, nullptr},   // no 550
      {Sav, "550 CPF3771 12 objects saved. 3 objects not saved.", 0, 1, nullptr},    // one full stop
      // Without precheck any failure of a library is a partial save.
      {Savlib, library, 0, 1, "550 CPF3777 1 libraries not saved."},
      {Savlib, library, 1, 1, nullptr},
      {Savsecdta, counted_system, 0, 1, "2 objects not saved"},
      {Savcfg, counted_system, 0, 1, "2 objects not saved"},
      {Savcfg, "550 CPF0001 Error found on SAVCFG command.", 0, 1, nullptr},
      {Savdlo, counted_system, 0, 1, nullptr},  // no partial rule at all
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.member.label) + " precheck " + std::to_string(c.precheck) + ": " + c.reply);
    SavePeer peer;
    peer.save_reply = c.reply;
    Start(peer);
    Settings.precheck = static_cast<uint8_t>(c.precheck);
    Settings.verbosity = c.verbosity;
    NewNotBackedUpList();
    const std::string before = archive.Contents();
    const size_t entries = Entries().size();  // of the earlier cases
    StdoutCapture out;
    StderrCapture err;
    int result = Save(c.member.save, c.member.object);
    auto commands = After();
    std::string listed = Listed();
    if (c.partial) {
      const std::string line = std::string(c.member.object) + ": " + c.partial + "\n";
      EXPECT_EQ(result, 0) << err.Text();
      EXPECT_EQ(out.Text().find("] " + line) != std::string::npos, c.verbosity >= 1) << out.Text();
      EXPECT_TRUE(std::regex_match(listed, std::regex(R"(\[[0-9:]+\] \[T\d+\] )" + Escaped(line)))) << listed;
      EXPECT_EQ(err.Text().find("command failed"), std::string::npos) << err.Text();
      EXPECT_EQ(commands.back(), "RETR /QSYS.LIB/QTEMP.LIB/SAV1.SAVF");
      EXPECT_EQ(Entries().size(), entries + 1);
    } else {
      EXPECT_EQ(result, -1);
      EXPECT_NE(err.Text().find(std::string(c.member.label) + " command failed\n  " + c.reply.substr(0, 127) + "\n"),
                std::string::npos)
          << err.Text();
      EXPECT_EQ(out.Text().find("not saved"), std::string::npos) << out.Text();
      EXPECT_EQ(listed, "");
      EXPECT_TRUE(StartsWith(commands.back(), "RCMD SAV")) << commands.back();  // nothing retrieved
      EXPECT_EQ(archive.Contents(), before);
    }
    EXPECT_EQ(session->checkpoint_flags, 0);
  }
}

// --- refusals

TEST_F(SaveTest, SavesNeedASessionAndASaveFile) {
  StderrCapture err;
  EXPECT_EQ(Save(SAV, "/x"), -1);
  FtpSession fake{};
  memcpy(fake.tag, "ftpc", 4);
  EXPECT_EQ(SAVLIB(&fake, Object("/QSYS.LIB/A.LIB"), 1, nullptr, ArchiveWriteCallback, writer.get()), -1);
  // A peer refusing CRTSAVF as well.
  SavePeer peer;
  peer.refuse_rcmd = true;
  Start(peer);
  EXPECT_EQ(Save(SAVCFG, "/System Configuration", 4), -1);
  EXPECT_TRUE(Matches(err.Text(), R"(\[ftp\.cpp,\d+\]: CRTSAVF command failed\n)")) << err.Text();
  EXPECT_EQ(After(), (std::vector<std::string>{"STRU F", "MODE S", "TYPE I", "RCMD CLRSAVF FILE(QTEMP/SAV4)",
                                               "RCMD CRTSAVF FILE(QTEMP/SAV4)"}));
}

TEST_F(SaveTest, CommandsThatCannotBeBuiltAreNeverSent) {
  SavePeer peer;
  // Nothing is retrieved: an entry name this long cannot be stored.
  peer.save_reply = "550 CPF3770 No objects saved or restored.";
  Start(peer);
  strcpy(Settings.cutoff_date_text, "01/02/03");
  strcpy(Settings.cutoff_time_text, "04:05:06");
  struct Case {
    Member member;
    std::string name;
    bool cutoff;          // adds 33 characters
    const char* refusal;  // message of the save's own check
    bool arrives;         // whole at the peer
  };
  const size_t fixed = SavCommand("", 3).size();  // so a SAV command is `fixed` + name long
  std::vector<Case> cases = {
      {Sav, "/" + std::string(4096 - fixed - 1, 'a'), false, "SAV command too long", false},
      {Sav, "/" + std::string(4095 - fixed - 1, 'a'), false, nullptr, false},  // too long for the transport
      {Sav, "/" + std::string(4092 - fixed - 1, 'a'), false, nullptr, true},
      {Sav, "/" + std::string(4096 - 33 - fixed - 1, 'a'), true, "SAV command too long", false},
      {Savlib, "/QSYS.LIB/" + std::string(4000, 'L') + ".LIB", false, "SAVLIB command too long", false},
  };
  // A trailing slash stays for SAVLIB, so the last part is empty.
  for (const char* name : {"/QSYS.LIB/X.FILE", "/QSYS.LIB/MYLIB.lib", "/QSYS.LIB/MYLIB", "/QSYS.LIB/MYLIB.LIBX",
                           "/QSYS.LIB/MYLIB.LIB/X.FILE", "/QSYS.LIB/MYLIB.LIB/"})
    cases.push_back({Savlib, name, false, "bad library name", false});
  StdoutCapture out;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name.substr(0, 40) + " of " + std::to_string(c.name.size()));
    Settings.cutoff_flag = c.cutoff;
    size_t before = server->Commands().size();
    StderrCapture err;
    EXPECT_EQ(Save(c.member.save, c.name, 3), -1);
    const std::string refusal = c.refusal ? c.refusal : "SAV command too long|SAVLIB command too long|bad library name";
    EXPECT_EQ(Matches(err.Text(), R"(\[ftp\.cpp,\d+\]: ()" + refusal + R"()\n)"), c.refusal != nullptr) << err.Text();
    EXPECT_EQ(objects.back()->name, c.name);
    EXPECT_EQ(Count(After(before), "RCMD SAV"), c.arrives ? 1u : 0u);
    EXPECT_EQ(Count(After(before), SavCommand(c.name, 3)), c.arrives ? 1u : 0u);
  }
  EXPECT_EQ(Count(After(), "RETR"), 0u);
  EXPECT_EQ(Entries().size(), 0u);
}

// --- ProcessObject

TEST_F(SaveTest, ProcessObjectChoosesTheSaveByTheName) {
  struct Case {
    const char* name;
    const char* command_prefix;
  };
  const Case cases[] = {
      {"/QDLS", "RCMD SAVDLO "}, {"/System Configuration", "RCMD SAVCFG "}, {"/Security Data", "RCMD SAVSECDTA "},
      {"/QSYS.LIB/PAY.LIB", "RCMD SAVLIB LIB(PAY) "},
      // Only the exact names, or the library prefix, choose another member.
      {"/QDLS/FOLDER", "RCMD SAV DEV("}, {"/QDLSX", "RCMD SAV DEV("}, {"/qdls", "RCMD SAV DEV("},
      {"/Security Data/x", "RCMD SAV DEV("}, {"/System Configuration ", "RCMD SAV DEV("},
      {"/QSYS.LIB", "RCMD SAV DEV("}, {"/QSYS.LIBX/A.LIB", "RCMD SAV DEV("}, {"/home/user", "RCMD SAV DEV("}};
  SavePeer peer;
  Start(peer);
  Settings.verbosity = 1;  // the size and time lines need 2
  BackupTotals totals{};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    size_t before = server->Commands().size();
    StdoutCapture out;
    StderrCapture err;
    // Left-overs of an earlier object must not reach this one.
    writer->pending = 77;
    writer->calls = 9;
    writer->bytes = 123456;
    EXPECT_EQ(ProcessObject(session, Object(c.name), 6, writer.get(), &totals), 0) << err.Text();
    auto commands = After(before);
    EXPECT_EQ(Count(commands, "RCMD SAV"), 1u);
    EXPECT_EQ(Count(commands, c.command_prefix), 1u);
    // The settings and the save file are made once per session, and the
    // file is cleared for every object.
    EXPECT_EQ(Count(commands, "TYPE I"), &c == cases ? 1u : 0u);
    EXPECT_EQ(Count(commands, "RCMD CRTSAVF FILE(QTEMP/SAV6)"), &c == cases ? 1u : 0u);
    EXPECT_EQ(Count(commands, "RCMD CLRSAVF FILE(QTEMP/SAV6)"), 1u);
    EXPECT_TRUE(Matches(out.Text(), R"(\[T\d+\] Backup Success: )" + Escaped(c.name) + "\n")) << out.Text();
    EXPECT_EQ(out.Text().find("Size:"), std::string::npos) << out.Text();
    EXPECT_EQ(out.Text().find("Xfer:"), std::string::npos) << out.Text();
    EXPECT_EQ(writer->bytes, static_cast<int64_t>(peer.payload.size()));
  }
  EXPECT_EQ(Count(After(), "SITE NAMEFMT 1"), 1u);
  EXPECT_EQ(writer->objects, std::size(cases));
  EXPECT_EQ(writer->failures, 0u);
  bool whole = false;
  auto entries = Entries(&whole);
  EXPECT_TRUE(whole);
  ASSERT_EQ(entries.size(), std::size(cases));
  for (size_t i = 0; i < entries.size(); i++)
    EXPECT_EQ(entries[i], (ArchiveEntry{cases[i].name, peer.payload}));
  EXPECT_GT(totals.save_seconds, 0);
  EXPECT_GT(totals.transfer_seconds, 0);
}

TEST_F(SaveTest, ProcessObjectReportsSizeInDecimalUnitsAndTheTimesAroundTheArchiveLock) {
  struct Case {
    size_t bytes;
    const char* line;
    bool held;  // another worker holds the archive for the first 100 ms
  };
  const Case cases[] = {
      {2001, "Size: 2.001 KB\n", false},
      {2000001, "Size: 2.000 MB\n", true},
  };
  Settings.verbosity = 2;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    SavePeer peer;
    peer.payload = Pattern(c.bytes, 3);
    peer.save_delay_ms = 30;
    Start(peer);
    std::atomic<bool> taken{false};
    std::thread other;
    if (c.held) {
      other = std::thread([&] {
        ArchiveLock.lock();
        taken = true;
        usleep(100000);
        ArchiveLock.unlock();
      });
      while (!taken) usleep(1000);
    }
    auto started = std::chrono::steady_clock::now();
    BackupTotals totals{};
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(ProcessObject(session, Object("/home/sized"), 1, writer.get(), &totals), 0) << err.Text();
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (other.joinable()) other.join();
    std::string text = out.Text();
    // The size line comes after the success line.
    EXPECT_TRUE(Matches(text, R"(\] Backup Success: /home/sized\n[\s\S]*\] )" + Escaped(c.line))) << text;
    EXPECT_TRUE(Matches(text, R"(\] Save: +\d+\.\d{3} s \d+\.\d{3} [ KMG]B/s\n)")) << text;
    EXPECT_TRUE(Matches(text, R"(\] Xfer: +\d+\.\d{3} s \d+\.\d{3} [ KMG]B/s\n)")) << text;
    EXPECT_GE(totals.save_seconds, 0.03);
    EXPECT_LE(totals.save_seconds + totals.wait_seconds + totals.transfer_seconds, elapsed + 0.01);
    if (c.held) {
      EXPECT_GE(totals.wait_seconds, 0.03);  // about 70 ms behind the lock
      EXPECT_LT(totals.transfer_seconds, totals.wait_seconds);
      EXPECT_TRUE(Matches(text, R"(\] Wait: +0\.\d{3} s\n)")) << text;
    }
  }
}

// --- recovery

TEST_F(SaveTest, BrokenConnectionBeforeTheSaveRanRepeatsTheWholeOperation) {
  struct Case {
    const char* trigger;
    size_t sav_commands;  // RCMD SAV sent in all
  };
  const Case cases[] = {{"TYPE I", 1}, {"RCMD CLRSAVF", 1}, {"RCMD SAV ", 2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.trigger);
    SavePeer peer;
    peer.drop_on = c.trigger;
    Start(peer);
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(Save(SAV, "/home/r"), 0) << err.Text();
    EXPECT_TRUE(Matches(err.Text(), R"(\[ftp\.cpp,\d+\]: recovering checkpoint\n)")) << err.Text();
    EXPECT_EQ(server->connections(), 2);
    EXPECT_EQ(session->checkpoint_flags, 0);
    auto commands = After();
    EXPECT_EQ(Count(commands, "RCMD SAV "), c.sav_commands);
    // After the new login the settings go out again, and the save file is
    // made afresh in the new server job.
    auto relogin = std::find(commands.begin(), commands.end(), "TIME 86400 86400");
    ASSERT_NE(relogin, commands.end());
    EXPECT_EQ(std::vector<std::string>(relogin + 1, commands.end()),
              (std::vector<std::string>{"STRU F", "MODE S", "TYPE I", "SITE NAMEFMT 1",
                                        "RCMD CLRSAVF FILE(QTEMP/SAV1)", "RCMD CRTSAVF FILE(QTEMP/SAV1)",
                                        SavCommand("/home/r", 1), "PASV", "RETR /QSYS.LIB/QTEMP.LIB/SAV1.SAVF"}));
    EXPECT_TRUE(ArchiveLockIsFree());
  }
  bool whole = false;
  EXPECT_EQ(Entries(&whole).size(), std::size(cases));
  EXPECT_TRUE(whole);
}

TEST_F(SaveTest, ProcessObjectReportsAFailedObjectAndListsIt) {
  struct Case {
    const char* save_reply;
    bool drop_during_retr;  // past the point of no return: no second save
  };
  const Case cases[] = {{"550 CPF3770 No objects saved or restored.", false},
                        {"250 Command SAV successful.", true}};
  Settings.verbosity = 2;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.save_reply);
    SavePeer peer;
    peer.save_reply = c.save_reply;
    peer.drop_during_retr = c.drop_during_retr;
    peer.payload = Pattern(1500, 4);
    Start(peer);
    NewNotBackedUpList();
    writer->objects = writer->failures = 0;
    BackupTotals totals{};
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(ProcessObject(session, Object("/home/bad"), 1, writer.get(), &totals), 1);
    EXPECT_TRUE(Matches(err.Text(), R"(\[T\d+\] Backup Failure: /home/bad\n)")) << err.Text();
    EXPECT_EQ(Matches(err.Text(), "recovering checkpoint"), c.drop_during_retr) << err.Text();
    EXPECT_EQ(out.Text().find("Backup Success"), std::string::npos) << out.Text();
    EXPECT_EQ(out.Text().find("Size:"), std::string::npos) << out.Text();
    EXPECT_TRUE(std::regex_match(Listed(), std::regex(R"(\[[0-9:]+\] \[T\d+\] /home/bad\n)"))) << Listed();
    EXPECT_EQ(writer->failures, 1u);
    EXPECT_EQ(writer->objects, 1u);
    EXPECT_EQ(totals.save_seconds, 0);
    EXPECT_EQ(totals.transfer_seconds, 0);
    auto commands = After();
    EXPECT_EQ(Count(commands, "RCMD SAV "), 1u);
    EXPECT_EQ(Count(commands, "RETR"), c.drop_during_retr ? 1u : 0u);
    EXPECT_EQ(session->checkpoint_flags, 0);
    EXPECT_TRUE(ArchiveLockIsFree());
    EXPECT_EQ(Entries().size(), 0u);
    if (c.drop_during_retr) {  // logged in again and usable for the next object
      EXPECT_EQ(ProcessObject(session, Object("/home/next"), 1, writer.get(), &totals), 0) << err.Text();
      EXPECT_EQ(server->connections(), 2);
    }
  }
}

// --- counting in a kind tree

TEST_F(SaveTest, FailedUnitsAddUpAndAFailedEmptyDirectoryCountsAsOne) {
  struct Unit {
    const char* name;
    uint64_t files;  // for a directory; a file is one object
    bool fails;
  };
  struct Case {
    const char* what;
    std::vector<Unit> dirs;
    std::vector<Unit> files;
    uint64_t attempted;
    uint64_t failed;
  };
  const Case cases[] = {
      {"two failed directories", {{"/home/a", 3, true}, {"/home/b", 4, true}}, {}, 7, 7},
      {"failures behind a saved directory", {{"/home/ok", 5, false}, {"/home/b", 4, true}, {"/home/c", 1, true}},
       {}, 10, 5},
      {"a failed empty directory", {{"/home/e", 0, true}}, {}, 1, 1},
      {"directories and files", {{"/home/a", 2, true}, {"/home/ok", 5, false}},
       {{"/home/f", 1, true}, {"/home/g", 1, false}}, 9, 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    SavePeer peer;
    std::vector<std::string> saved, failed;
    ObjectNode* tree = NewDirectoryNode(nullptr, "", 0, 0, tm{});
    for (const Unit& u : c.dirs) {
      ObjectNode* dir = AppendDirectory(tree, u.name, S_IFDIR | 0755, 0, SampleTime());
      dir->count = u.files;
    }
    for (const Unit& u : c.files) AppendFile(tree, u.name, S_IFREG | 0644, 0, SampleTime());
    for (const auto* list : {&c.dirs, &c.files})
      for (const Unit& u : *list) {
        if (u.fails) peer.replies.push_back({"\"" + std::string(u.name) + "\"", "550 CPF3770 No objects saved or restored."});
        (u.fails ? failed : saved).push_back(u.name);
      }
    Start(peer);
    NewNotBackedUpList();
    const std::string before = archive.Contents();
    const int saved_descriptor = ArchiveDescriptor;
    ArchiveDescriptor = archive.fd;
    BackupTotals totals{};
    totals.attempted = 99;  // a kind tree counts from zero
    totals.failed = 99;
    {
      StdoutCapture out;
      StderrCapture err;
      EXPECT_EQ(SaveKindTree(session, tree, 4, &totals), 0);
    }
    ArchiveDescriptor = saved_descriptor;
    FreeTree(tree);
    EXPECT_EQ(totals.attempted, c.attempted);
    EXPECT_EQ(totals.failed, c.failed);
    // What was saved is in the archive; what failed is listed.
    std::vector<std::string> names;
    for (const ArchiveEntry& entry : Entries()) names.push_back(entry.name);
    std::sort(names.begin(), names.end());
    std::sort(saved.begin(), saved.end());
    EXPECT_EQ(names, saved);
    std::string listed = std::regex_replace(Listed(), std::regex(R"(\[[0-9:]+\] \[T\d+\] )"), "");
    std::string expected;
    for (const std::string& name : failed) expected += name + "\n";
    EXPECT_EQ(listed, expected);
    // Each case starts a new archive.
    ASSERT_EQ(ftruncate(archive.fd, 0), 0);
    archive.Append(SentinelBlock());
  }
}

TEST_F(SaveTest, APartialSaveIsMarkedAndCountedButTheNextObjectStartsClean) {
  struct Case {
    Member member;
    std::string reply;
    int precheck;
    int result;
    bool partial;
  };
  const std::string counted = "550 CPF3771 12 objects saved. 3 objects not saved..";
  const Case cases[] = {
      {Sav, counted, 0, 0, true},
      {Savlib, "550 CPF3777 1 libraries not saved.", 0, 0, true},
      {Savsecdta, counted, 0, 0, true},
      {Sav, "250 Command SAV successful.", 0, 0, false},
      {Sav, counted, 1, 1, false},  // with precheck it is a failure
      {Savdlo, counted, 0, 1, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.member.label) + " precheck " + std::to_string(c.precheck) + ": " + c.reply);
    SavePeer peer;
    peer.replies.push_back({"SAV", c.reply});
    peer.replies.push_back({"SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV1.FILE') OBJ(('\"/home/clean\"'))",
                            "250 Command SAV successful."});
    Start(peer);
    Settings.precheck = static_cast<uint8_t>(c.precheck);
    BackupTotals totals{};
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(ProcessObject(session, Object(c.member.object), 1, writer.get(), &totals), c.result) << err.Text();
    EXPECT_EQ(writer->partial, c.partial ? 1 : 0);
    EXPECT_EQ(totals.partial, c.partial ? 1u : 0u);
    // A whole save after it is not partial, and the count stays.
    writer->partial = 1;
    EXPECT_EQ(ProcessObject(session, Object("/home/clean"), 1, writer.get(), &totals), 0) << err.Text();
    EXPECT_EQ(writer->partial, 0);
    EXPECT_EQ(totals.partial, c.partial ? 1u : 0u);
  }
}

TEST_F(SaveTest, ANameTooLongForTheEntryHeaderFailsTheObjectBeforeAnythingIsSent) {
  // The header holds 400 characters of name; a directory's name is stored
  // with ".savf" behind it.
  struct Case {
    size_t length;
    uint32_t mode;
    bool fits;
  };
  const Case cases[] = {
      {400, S_IFREG | 0644, true},
      {401, S_IFREG | 0644, false},
      {395, S_IFDIR | 0755, true},
      {396, S_IFDIR | 0755, false},
      {1000, S_IFDIR | 0755, false},
  };
  SavePeer peer;
  Start(peer);
  for (const Case& c : cases) {
    const std::string name = "/home/" + std::string(c.length - 6, 'n');
    SCOPED_TRACE(std::to_string(c.length) + (S_ISDIR(c.mode) ? " directory" : " file"));
    NewNotBackedUpList();
    const size_t commands = server->Commands().size();
    const size_t entries = Entries().size();
    const uint64_t failures = writer->failures;
    objects.push_back(NewFileNode(nullptr, name.c_str(), c.mode, 0, SampleTime()));
    BackupTotals totals{};
    StdoutCapture out;
    StderrCapture err;
    EXPECT_EQ(ProcessObject(session, objects.back(), 2, writer.get(), &totals), c.fits ? 0 : 1) << err.Text();
    const std::string text = err.Text();
    EXPECT_EQ(Matches(text, R"(\[backup\.cpp,\d+\]: path too long\n)"), !c.fits) << text;
    EXPECT_EQ(Matches(text, R"(\[T\d+\] Backup Failure: )" + name + "\n"), !c.fits) << text;
    EXPECT_EQ(writer->failures, failures + (c.fits ? 0 : 1));
    if (c.fits) {
      EXPECT_EQ(Count(After(commands), "RCMD SAV DEV"), 1u);
      auto all = Entries();
      ASSERT_EQ(all.size(), entries + 1);
      EXPECT_EQ(all.back(), (ArchiveEntry{name, peer.payload}));
      EXPECT_EQ(Listed(), "");
    } else {
      EXPECT_EQ(server->Commands().size(), commands);  // not a word to the server
      EXPECT_EQ(Entries().size(), entries);
      EXPECT_TRUE(std::regex_match(Listed(), std::regex(R"(\[[0-9:]+\] \[T\d+\] )" + name + "\n"))) << Listed();
    }
  }
}

}  // namespace
