// The restore command family: judging restore replies, and the commands
// each member sends (checked against a scripted peer) while it uploads an
// entry read by the archive reader.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "fake_server.h"
#include "restore_test_helpers.h"
#include "archive/reader.h"
#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/remote_listing.h"
#include "ftp/reply_judge.h"
#include "ftp/session.h"
#include "ftp/transfer_settings.h"
#include "restore/restore_commands.h"
#include "backup/save_commands.h"
#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"
#include "test_helpers.h"
#include "cli/settings.h"

namespace {

// --- the restore family against a scripted peer

using Pairs = std::initializer_list<std::pair<const char*, const char*>>;

StringList* ListOf(Pairs pairs) {
  StringList* list = NewStringList();
  for (const auto& [path, second] : pairs) AppendStringPair(list, path, second);
  return list;
}

const std::string Device = "RCMD RST DEV('/QSYS.LIB/QTEMP.LIB/SAVTEMP.FILE') OBJ(";
const std::vector<std::string> Parameters = {"STRU F", "MODE S", "TYPE I", "SITE NAMEFMT 1"};
const std::vector<std::string> Upload = {"RCMD CLRSAVF FILE(QTEMP/SAVTEMP)", "PASV",
                                         "STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF"};

std::vector<std::string> Joined(std::initializer_list<std::vector<std::string>> parts) {
  std::vector<std::string> out;
  for (const auto& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

// A session with an IBM i-like peer that takes uploads and answers every
// other command from `answer` (default "250 done."). A command starting
// with one of `drop_once` closes the control connection the first time it
// comes. Both are set before Open.
struct RestoreFamilyTest : ::testing::Test {
  std::function<std::string(const std::string&)> answer;
  std::vector<std::string> drop_once;
  std::mutex lock;
  std::string received;  // the last upload
  int uploads = 0;
  std::unique_ptr<FakeFtpServer> server;
  FtpSession* session = nullptr;

  void Open(const std::string& release = "V5R4M0") {
    server = std::make_unique<FakeFtpServer>(LoginScript(
        [this](PeerConnection& c, const std::string& command) {
          for (auto prefix = drop_once.begin(); prefix != drop_once.end(); ++prefix) {
            if (command.rfind(*prefix, 0) != 0) continue;
            drop_once.erase(prefix);
            return false;
          }
          if (command == "PASV") {
            c.Reply(c.PassiveReply());
          } else if (command.rfind("STOR ", 0) == 0) {
            c.Reply("150 Opening data connection.\r\n");
            std::string data = c.ReceiveUpload();
            std::lock_guard<std::mutex> hold(lock);
            received = data;
            uploads++;
            c.Reply("226 Transfer complete.\r\n");
          } else {
            std::string reply = answer ? answer(command) : "";
            c.Reply((reply.empty() ? "250 done." : reply) + "\r\n");
          }
          return true;
        },
        "215  OS/400 is the remote operating system. The TCP/IP version is \"" + release + "\"."));
    session = NewSessionTo(server->address());
    ASSERT_NE(session, nullptr);
    ASSERT_EQ(Login(session, "u", "p"), 0);
  }
  void TearDown() override {
    if (session) Quit(session);
    server.reset();
    if (Settings.exclude) fclose(Settings.exclude);
    Settings.exclude = nullptr;
    Settings.verbosity = 0;
  }
  std::string Received() {
    std::lock_guard<std::mutex> hold(lock);
    return received;
  }
  int Uploads() {
    std::lock_guard<std::mutex> hold(lock);
    return uploads;
  }
  // Commands after the login exchange.
  std::vector<std::string> After() {
    auto all = server->Commands();
    all.erase(all.begin(), all.begin() + static_cast<long>(std::min<size_t>(5, all.size())));
    return all;
  }
  // Restores the pairs from one entry of `size` bytes, which must arrive whole.
  int RestoreIfs(Pairs pairs, size_t size = 100) {
    EntryData entry(size);
    StringList* list = ListOf(pairs);
    int result = RestoreIfsObjects(session, list, nullptr, ArchiveReadCallback, &entry.reader);
    FreeStringList(list);
    EXPECT_EQ(Received(), entry.data);
    return result;
  }
};

TEST_F(RestoreFamilyTest, LibraryRestoreRefusesBadNamesUnsentThenUploadsOnceAndNamesBothLibraries) {
  Open();
  EntryData refused(100);
  const struct { const char* path; const char* destination; const char* message; } cases[] = {
      {"/QSYS.LIB/MYLIB.FILE", nullptr, "bad library name"},
      {"/QSYS.LIB/MYLIB.LIB/X.FILE", nullptr, "bad library name"},
      {"/QSYS.LIB/MYLIB.lib", nullptr, "bad library name"},
      {"/QSYS.LIB/MYLIB", nullptr, "bad library name"},
      {"/QSYS.LIB/MYLIB.LIB", "/QSYS.LIB/ALONGLIBNAME.LIB", "bad library destination"},  // 11 characters
      {"/QSYS.LIB/MYLIB.LIB", "/QSYS.LIB/NEWLIB.FILE", "bad library destination"},
      {"/QSYS.LIB/MYLIB.LIB", "/OTHER.LIB/NEWLIB.LIB", "bad library destination"},
      {"/QSYS.LIB/MYLIB.LIB", "/QSYS.LIB/NEWLIB", "bad library destination"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    StringList* list = ListOf({{c.path, c.destination}});
    StderrCapture err;
    EXPECT_EQ(RestoreLibrary(session, list->first, nullptr, ArchiveReadCallback, &refused.reader), -1);
    EXPECT_TRUE(Reported(err.Text(), "ftp", c.message));
    FreeStringList(list);
  }
  EXPECT_EQ(After(), std::vector<std::string>{});  // nothing was sent
  EXPECT_EQ(refused.reader.calls, 0);
  {
    StderrCapture err;  // without a session nothing is tried, quietly
    EXPECT_EQ(RestoreIfsObjects(nullptr, nullptr, nullptr, ArchiveReadCallback, nullptr), -1);
    EXPECT_EQ(RestoreLibrary(nullptr, nullptr, nullptr, ArchiveReadCallback, nullptr), -1);
    EXPECT_EQ(RestoreDocuments(nullptr, "/QDLS", nullptr, ArchiveReadCallback, nullptr), -1);
    EXPECT_EQ(RestoreAuthority(nullptr), -1);
    EXPECT_EQ(err.Text(), "");
  }

  EntryData entry(70000);  // more than one transfer buffer
  // A library name of ten characters is the longest destination.
  StringList* list = ListOf({{"/QSYS.LIB/MYLIB.LIB", "/QSYS.LIB/NEWLIB7890.LIB"}});
  StdoutCapture out;
  RestoreTimes times{-1, 7, -1};
  EXPECT_EQ(RestoreLibrary(session, list->first, &times, ArchiveReadCallback, &entry.reader), 0);
  FreeStringList(list);
  EXPECT_EQ(After(), Joined({Parameters, Upload,
                             {"RCMD RSTLIB SAVLIB(MYLIB) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) RSTLIB(NEWLIB7890) "
                              "MBROPT(*ALL) ALWOBJDIF(*ALL)"}}));
  EXPECT_EQ(Received(), entry.data);  // the padding is not sent
  EXPECT_EQ(entry.reader.calls, 2);
  EXPECT_NE(out.Text().find("Restore Success: /QSYS.LIB/MYLIB\n"), std::string::npos);
  EXPECT_GE(times.transfer_seconds, 0);
  EXPECT_GE(times.restore_seconds, 0);
  EXPECT_EQ(times.unused, 7);
}

TEST_F(RestoreFamilyTest, IfsObjectsBelowV5R4MakeParentsAndOmitExclusions) {
  answer = [](const std::string& command) -> std::string {
    if (command.rfind("RCMD CLRSAVF", 0) == 0) return "550 CPF9812 File SAVTEMP in library QTEMP not found.";
    return "";
  };
  Open("V5R3M0");
  Settings.exclude = StreamWith("/home/a/b/tmp\n/other\n/home/a/c/old :: /x\n/home/a/c/it's\n");
  Settings.verbosity = 1;
  StdoutCapture out;
  EXPECT_EQ(RestoreIfs({{"/home/a/b", nullptr}, {"/home/a/c", "/new \"place\"/c"}}, 5000), 0);
  EXPECT_EQ(After(),
            Joined({Parameters,
                    {"RCMD CLRSAVF FILE(QTEMP/SAVTEMP)", "RCMD CRTSAVF FILE(QTEMP/SAVTEMP)", "PASV",
                     "STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF", "MKD /home", "MKD /home/a",
                     Device + "('\"/home/a/b\"') ('\"/home/a/b/tmp\"' *OMIT)) SUBTREE(*ALL) ALWOBJDIF(*ALL)",
                     "MKD /new \"place\"",
                     Device + "('\"/home/a/c\"' *INCLUDE '\"/new \"\"place\"\"/c\"') ('\"/home/a/c/old\"' *OMIT) "
                              "('\"/home/a/c/it''s\"' *OMIT)) SUBTREE(*ALL) ALWOBJDIF(*ALL)"}}));
  EXPECT_EQ(Uploads(), 1);
  const std::string text = out.Text();
  EXPECT_NE(text.find("Object   : /home/a/b\n"), std::string::npos);
  EXPECT_NE(text.find("Restore Success: /home/a/b\n"), std::string::npos);
  EXPECT_NE(text.find("Restore Success: /home/a/c\n"), std::string::npos);
}

TEST_F(RestoreFamilyTest, ATooLongRstIsNeverSentAndTheLastPairDecides) {
  answer = [](const std::string& command) -> std::string {
    if (command.find("/bad\"") != std::string::npos) return "550 CPF3781 Object not found.";
    if (command.find("/partly\"") != std::string::npos)
      return "550 CPF3773 5 objects restored. 2 not restored.";
    return "";
  };
  Open();
  const std::string deep = "/" + std::string(2100, 'q');
  // Every quote is doubled: 2 x 2000 characters no longer fit.
  const std::string quoted = "/" + std::string(2000, '\'');
  {
    StderrCapture err;
    EXPECT_EQ(RestoreIfs({{deep.c_str(), nullptr}, {quoted.c_str(), nullptr}, {"/c", nullptr}}), -1);
    EXPECT_TRUE(Reported(err.Text(), "ftp", R"(RST command too long\n)"));
    const auto sent = After();
    ASSERT_EQ(sent.size(), 8u);  // the parameters, the save file, the upload, the first RST
    // From V5R4M0 on the restore makes the parents itself.
    EXPECT_EQ(sent[7], Device + "('\"" + deep + "\"')) SUBTREE(*ALL) ALWOBJDIF(*ALL) CRTPRNDIR(*Yes)");
  }
  {
    StdoutCapture out;
    StderrCapture err;
    // The last pair's reply is tolerated: no failure, and no success either.
    EXPECT_EQ(RestoreIfs({{"/bad", nullptr}, {"/partly", nullptr}}), 0);
    EXPECT_TRUE(Reported(err.Text(), "ftp", R"(RST command failed\n  550 CPF3781 Object not found\.\n)"));
    EXPECT_NE(err.Text().find("  550 CPF3773 5 objects restored. 2 not restored.\n"), std::string::npos);
    EXPECT_EQ(out.Text().find("Restore Success"), std::string::npos);
  }
  StderrCapture err;
  EXPECT_EQ(RestoreIfs({{"/partly", nullptr}, {"/bad", nullptr}}), -1);
}

TEST_F(RestoreFamilyTest, WholeSaveFileRestoresAndAuthority) {
  const std::string long_reply = "550 CPF3773 1 objects restored. 1 not restored. " + std::string(200, 'z');
  answer = [&](const std::string& command) -> std::string {
    if (command.rfind("RCMD RSTDLO", 0) == 0) return "550 CPF9999 Documents not restored.";
    if (command.rfind("RCMD RSTCFG", 0) == 0) return long_reply;
    if (command.rfind("RCMD RSTAUT", 0) == 0) return "550 CPF3845 Authority not restored.";
    return "";
  };
  Open();
  EntryData documents(100), profiles(200), configuration(300);
  StdoutCapture out;
  StderrCapture err;
  // A failed document restore is not judged: Command's 1 comes back.
  EXPECT_EQ(RestoreDocuments(session, "/QDLS", nullptr, ArchiveReadCallback, &documents.reader), 1);
  EXPECT_EQ(RestoreUserProfiles(session, "/Security Data", nullptr, ArchiveReadCallback, &profiles.reader), 0);
  EXPECT_EQ(RestoreConfiguration(session, "/System Configuration", nullptr, ArchiveReadCallback,
                                 &configuration.reader), 0);
  EXPECT_EQ(RestoreAuthority(session), -1);
  EXPECT_EQ(After(), Joined({{"STRU F", "MODE S", "TYPE I"}, Upload,
                             {"RCMD RSTDLO DLO(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)"}, Upload,
                             {"RCMD RSTUSRPRF DEV(*SAVF) SAVF(QTEMP/SAVTEMP) USRPRF(*NEW) ALWOBJDIF(*ALL)"},
                             Upload,
                             {"RCMD RSTCFG OBJ(*ALL) DEV(*SAVF) SAVF(QTEMP/SAVTEMP) ALWOBJDIF(*ALL)",
                              "RCMD RSTAUT USRPRF(*ALL)"}}));
  const std::string errors = err.Text();
  EXPECT_TRUE(Reported(errors, "ftp", R"(RSTDLO command failed\n\[)"));  // no reply text follows
  // A reply is kept, and quoted, to 127 characters.
  EXPECT_TRUE(Reported(errors, "ftp", "RSTCFG command failed\n  " + long_reply.substr(0, 127) + "\n"));
  EXPECT_TRUE(Reported(errors, "ftp", R"(RSTAUT command failed\n)"));
  const std::string text = out.Text();
  EXPECT_EQ(text.find("Restore Success: /QDLS"), std::string::npos);
  EXPECT_NE(text.find("Restore Success: /Security Data\n"), std::string::npos);
  EXPECT_EQ(text.find("Restore Success: /System Configuration"), std::string::npos);
}

TEST_F(RestoreFamilyTest, ABrokenConnectionFailsAnUploadedEntryButAuthorityIsSentAgain) {
  drop_once = {"RCMD RST ", "RCMD RSTAUT"};
  Open();
  StderrCapture err;
  EXPECT_EQ(RestoreIfs({{"/a", nullptr}}), -1);
  EXPECT_NE(err.Text().find("recovering checkpoint"), std::string::npos);
  EXPECT_EQ(Uploads(), 1);  // the archive bytes cannot be read again
  EXPECT_EQ(server->connections(), 2);
  EXPECT_EQ(session->checkpoint_flags, 0);
  // The session works again, and an authority restore needs no upload.
  EXPECT_EQ(RestoreAuthority(session), 0);
  EXPECT_EQ(server->connections(), 3);
  const auto sent = server->Commands();
  EXPECT_EQ(std::count(sent.begin(), sent.end(), "RCMD RSTAUT USRPRF(*ALL)"), 2);
}

}  // namespace
