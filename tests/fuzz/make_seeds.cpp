// Writes the seed corpora of the fuzz targets: what the server really
// sends (greetings, replies, 227 lines, listing lines, restore replies),
// CTAR headers made by the library itself, and include and exclude files.
// Usage: make_seeds <corpus directory>; one subdirectory per target must
// exist. The seeds are kept in the source tree, so this only has to run
// again when the seeds should change.
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "archive/ctar_format.h"
#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/remote_listing.h"
#include "ftp/reply_judge.h"
#include "ftp/session.h"
#include "ftp/transfer_settings.h"
#include "net/command.h"
#include "net/data_connection.h"
#include "net/reply_reader.h"

namespace {

std::string Root;

void Write(const std::string& target, const std::vector<std::string>& seeds) {
  int number = 0;
  for (const std::string& seed : seeds) {
    std::string name = Root + "/" + target + "/seed_" + std::to_string(number++);
    std::ofstream out(name, std::ios::binary);
    out.write(seed.data(), static_cast<std::streamsize>(seed.size()));
    if (!out) {
      fprintf(stderr, "make_seeds: cannot write %s\n", name.c_str());
      exit(1);
    }
  }
}

std::string Bytes(std::initializer_list<int> values) {
  std::string out;
  for (int v : values) out.push_back(static_cast<char>(v));
  return out;
}

void ReplySeeds() {
  const std::string whole = Bytes({0, 0, 0, 0});
  std::vector<std::string> seeds = {
      whole + "220 QTCP at host.example.com.\r\n",
      whole + "220-QTCP at host.example.com.\r\n220-Second line of the greeting\r\n"
              "220 Connection will close if idle more than 5 minutes.\r\n",
      Bytes({5, 3, 1, 64}) + "331 Enter password.\r\n230 USER logged on.\r\n",
      whole + "215  OS/400 is the remote operating system. The TCP/IP version is \"V5R4M0\".\r\n",
      whole + "227 Entering Passive Mode (10,1,2,3,195,80).\r\n",
      whole + "150 File transfer starts.\r\n226 File transfer completed successfully.\r\n",
      whole + "550 CPF3773 5 objects restored. 2 not restored.\r\n",
      whole + "250-First line\r\n250-Second line\r\n250 Done.\r\n200 Next reply.\r\n",
      // A CR LF split between reads, and reads of one byte.
      Bytes({4, 2, 0, 0}) + "220\r\n250 ok\r\n",
      Bytes({1, 1, 1, 1}) + "220 ok\r\n",
      // No CR LF at all, and a bare LF.
      whole + "220 hello\n",
      whole + "421 Service not available, closing control connection.\r\n",
      whole + std::string(4095, '2') + "\r\n250 after the longest line\r\n",
      whole + std::string(4096, '2') + "\r\n250 after a line too long\r\n",
      Bytes({255, 255, 255, 255}) + std::string(4200, 'x'),
      whole + "250-" + std::string(3000, 'm') + "\r\n250-" + std::string(3000, 'n') + "\r\n250 end\r\n",
      // Continuation lines without a code, or with another one, and a
      // final line whose CR and LF come in two reads.
      whole + "230-Welcome\r\n  230 is not final\r\nhello\r\n231 other\r\n230 done\r\n",
      Bytes({15, 1, 0, 0}) + "550-No\r\n550 No.\r\n200 ok\r\n",
      // A reply of 1001 lines: past the bound.
      [] {
        std::string text = std::string(4, '\0');
        for (int i = 0; i < 1000; i++) text += "220-x\r\n";
        return text + "220 end\r\n";
      }(),
  };
  Write("reply_reader", seeds);
}

void PassiveSeeds() {
  Write("pasv_reply", {
                          "227 Entering Passive Mode (10,1,2,3,195,80)",
                          "227 Entering Passive Mode (127,0,0,1,4,2).",
                          "227 =10,1,2,3,195,80",
                          "227 Entering Passive Mode (10,1,2,3,195)",
                          "227 Entering Passive Mode (127,0,0,1,x,2)",
                          "227 (1234567890,1,2,3,4,5)",
                          "227 (300,1,2,3,4,5)",
                          "227 (127,0,0,1)",
                          "200 Entering Passive Mode (127,0,0,1,4,2)",
                          "227 Entering Passive Mode (255,255,255,255,65535,65535)",
                          "227 Entering Passive Mode (no address)",
                          "227 Entering Passive Mode (111,222,233,244,99999999999999999999,1)",
                      });
}

// Settings byte: bits 0-1 the listed directory, bit 2 --date, bit 3 an
// exclude file; then four chunk codes.
void ListingSeeds() {
  const std::string big = Bytes({200, 200, 200, 200});
  const std::string plain =
      "drwxr-xr-x   2 QSYS     0            8192 Mar  5 14:07 DIR\r\n"
      "-rw-r--r--   1 A        B              10 Jan  2  2009 x\r\n"
      "lrwxrwxrwx   1 A        B               3 Jan  2  2009 l -> t\r\n";
  const std::string root =
      "drwxrwsrwx   3 QSYS     0           12288 Feb 11 16:42 QSYS.LIB\r\n"
      "drwxrwsrwx   2 QSYS     0            4096 Feb 11 16:42 QDLS\r\n"
      "drwx---rwx   5 QSYS     0            8192 Jan  3  2011 home\r\n"
      "drwxr-xr-x   2 QSYS     0            8192 Jan  3  2011 tmp\r\n"
      "drwxr-xr-x   2 QSYS     0            8192 Jan  3  2011 .\r\n"
      "drwxr-xr-x   2 QSYS     0            8192 Jan  3  2011 ..\r\n";
  const std::string libraries =
      "drwx---rwx   2 QSYS     0           40960 Apr 10  2008 QGPL.LIB\r\n"
      "drwx---rwx   2 QSYS     0           40960 Apr 10 12:30 TESTLIB.LIB\r\n"
      "-rwx------   1 QSYS     0            1234 Dec 31  2010 X.FILE\r\n"
      "drwx---rwx   2 QSYS     0           40960 Apr 10  2008 QSYS.LIB\r\n";
  const std::string pattern =
      "drwxr-xr-x   2 U        0            8192 Mar  5 14:07 abc\r\n"
      "-rw-r--r--   1 U        0              10 Jan  2  2009 a.txt\r\n"
      "-rw-r--r--   1 U        0              10 Jan  2  2009 b\r\n";
  Write("listing", {
                       Bytes({3}) + big + plain,
                       Bytes({3 | 4 | 8}) + big + plain,
                       Bytes({0}) + big + root,
                       Bytes({0 | 8}) + big + root,
                       Bytes({2}) + big + libraries,
                       Bytes({2 | 4 | 8}) + big + libraries,
                       Bytes({1}) + big + pattern,
                       Bytes({1 | 8}) + big + pattern,
                       // Lines split across chunks, odd line ends.
                       Bytes({3, 9, 20, 1, 40}) + plain,
                       Bytes({3}) + big + "-rw-r--r-- 1 A B 10 Jan 2 2009 bare\n",
                       Bytes({3}) + big + "garbage\r\n\r\n\n" + std::string("a\0b\r\n", 5),
                       Bytes({3, 255, 255, 255, 255}) + std::string(5000, 'a') + "\r\n" + plain,
                       Bytes({3, 0, 0, 0, 0}) + std::string(300, 'b') + plain,
                       Bytes({3}) + big +
                           "-rwsrwsrws 1 a b 99999999999999999999999 Feb 29 12:00 name with spaces \r\n"
                           "-rw-r--r-- 1 a b 5 Foo 29 12:00 x\r\n-rw-r--r-- 1 a b 5 Feb 29 1x:00 y\r\n"
                           "-rw-r--r-- 1 a b 5 Feb 29 yyyy z\r\n",
                   });
}

std::vector<std::string> Headers() {
  struct tm when{};
  when.tm_year = 109;
  when.tm_mon = 0;
  when.tm_mday = 2;
  when.tm_isdst = -1;
  struct Sample {
    std::string name;
    uint64_t size;
    uint32_t mode;
    int small;  // the name buffer size byte
  };
  const std::vector<Sample> samples = {
      {"/home/user", 1000, S_IFREG | 0644, 255},
      {"/QSYS.LIB/PAYROLL.LIB", 123456, S_IFREG | 0700, 255},
      {"/QDLS", 512, S_IFREG | 0700, 255},
      {"/Security Data", 2147483647, S_IFREG | 0600, 255},
      {"/System Configuration", 2147483648ull, S_IFREG | 0600, 255},
      {"/home/x", UINT64_MAX, S_IFDIR | 0755, 255},
      {"/a.savfile", 1, S_IFREG | 0644, 255},
      {std::string(100, 'p'), 7, S_IFREG | 0644, 50},
      {std::string(101, 'q'), 7, S_IFREG | 0644, 255},
      {std::string(169, 'r'), 7, S_IFREG | 0644, 255},
      {std::string(170, 's'), 7, S_IFREG | 0644, 255},
      {"/" + std::string(250, 't'), 7, S_IFDIR | 0755, 255},
      {std::string(400, 'u'), 7, S_IFREG | 0644, 255},
      {std::string(401, 'v'), 7, S_IFREG | 0644, 10},
      {"/home/caf\xE9", 42, S_IFREG | 0644, 255},
  };
  std::vector<std::string> seeds;
  unsigned char block[CtarBlockSize];
  for (const Sample& s : samples) {
    BuildCtarHeader(block, s.name.c_str(), s.size, s.mode, when);
    seeds.push_back(std::string(reinterpret_cast<char*>(block), CtarBlockSize) +
                    static_cast<char>(s.small));
  }
  BuildCtarSentinel(block);
  seeds.push_back(std::string(reinterpret_cast<char*>(block), CtarBlockSize));
  seeds.push_back(std::string(CtarBlockSize, '\0'));
  // The sentinel's checksum followed by a blank instead of a NUL.
  block[155] = ' ';
  seeds.push_back(std::string(reinterpret_cast<char*>(block), CtarBlockSize));
  return seeds;
}

// Archive images: whole ones, an empty one, sizes around the largest an
// entry can have, one cut short, one with an entry behind an early end
// block (a broken retrieval's trace) and one with a damaged header.
std::vector<std::string> Archives() {
  struct tm when{};
  when.tm_year = 109;
  when.tm_mday = 2;
  unsigned char block[CtarBlockSize];
  auto header = [&](const char* name, uint64_t size, uint32_t mode) {
    return std::string(reinterpret_cast<char*>(BuildCtarHeader(block, name, size, mode, when)), CtarBlockSize);
  };
  auto data = [](size_t size, char fill) {
    return std::string(size, fill) + std::string((CtarBlockSize - size % CtarBlockSize) % CtarBlockSize, '\0');
  };
  const std::string end(reinterpret_cast<char*>(BuildCtarSentinel(block)), CtarBlockSize);
  const std::string library = header("/QSYS.LIB/PAYROLL.LIB", 700, S_IFREG | 0700) + data(700, 'l');
  const std::string file = header("/home/user/f", 10, S_IFREG | 0644) + data(10, 'f');
  std::string damaged = header("/home/user/g", 10, S_IFREG | 0644);
  damaged[148] = '9';
  return {
      library + file + end,
      end,
      header("/Security Data", 1000, S_IFREG | 0600) + data(1000, 's') + header("/home/d", 3, S_IFDIR | 0755) +
          data(3, 'd') + end,
      header("/home/x", 0x7FFFFFFFFFFFFFFFull, S_IFREG | 0644) + end,
      header("/home/x", CtarLargestSize - 511, S_IFREG | 0644) + end,
      file + header("/home/x", CtarLargestSize - 1536, S_IFREG | 0644) + end,
      header("/home/x", UINT64_MAX, S_IFREG | 0644) + end,
      library.substr(0, 900),
      file + end + library + end,
      file + damaged + data(10, 'g') + library + end,
  };
}

void ArchiveSeeds() {
  std::vector<std::string> restore, survey;
  int n = 0;
  for (const std::string& archive : Archives()) {
    // Every server side and both ways of reading, spread over the images.
    restore.push_back(std::string(1, static_cast<char>(n % 8)) + archive);
    survey.push_back(std::string(1, static_cast<char>(n % 2)) + archive);
    n++;
  }
  Write("restore_driver", restore);
  Write("ctar_survey", survey);
}

void PathFileSeeds() {
  Write("match_path_file", {
                               Bytes({0}) + "/QSYS.LIB/X.LIB/Y.FILE\n/QSYS.LIB/X.LIB\n",
                               Bytes({0}) + "/QSYS.LIB/X.LIBRARY\n/QSYS.LIB/X.LIB\n",
                               Bytes({0}) + "/home/a/b\n/home/*\n",
                               Bytes({0}) + "/home\n/home/*\n",
                               Bytes({1}) + "/a\n/a/*\n/a/b\n/a :: /b\n",
                               Bytes({1}) + "/home/a\n/home/a/b\n/home/a/c :: /new/c\n/home/ab\n",
                               Bytes({1}) + "/\n/x\n/y :: /z\n",
                               Bytes({0}) + "/lib/bx\n/lib/[a-c]x\n",
                               Bytes({1}) + "/long\n/long/" + std::string(5000, 'l') + "\n/long\n",
                               Bytes({0}) + "/QSYS.LIB/X.LIB\n",
                               Bytes({1}) + "/QDLS\n/QDLS :: /QDLS\n\n",
                           });
}

void RestoreReplySeeds() {
  Write("restore_reply", {
                             "550 CPF3773 5 objects restored. 2 not restored.",
                             "250 Not all objects were restored",
                             "550 Save file SAVTEMP in QTEMP contains no data",
                             "550 0 objects restored",
                             "550 5objects restored",
                             "550 CPF3781 12 libraries restored.",
                             "550 See the job log: 3 objects restored",
                             "550 010 objects restored",
                             "550 0x1F objects restored",
                             "550 99999999999999999999 objects restored",
                             "objects restored",
                             "550 CPF9898 " + std::string(200, 'z') + " 7 objects restored",
                         });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: make_seeds <corpus directory>\n");
    return 2;
  }
  Root = argv[1];
  ReplySeeds();
  PassiveSeeds();
  ListingSeeds();
  Write("ctar_header", Headers());
  PathFileSeeds();
  RestoreReplySeeds();
  ArchiveSeeds();
  return 0;
}
