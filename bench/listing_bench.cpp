// The listing parser over one million realistic listing lines (Google
// Benchmark, lines per second on one core), and the memory an object tree
// of one million objects takes (bytes per object).
//
//   bench_listing [Google Benchmark options]    the parser benchmark
//   bench_listing --tree [OBJECTS]              one JSON line: tree memory
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "backup/listing_walk.h"
#include "support/log.h"
#include "support/string_list.h"
#include "support/sysio.h"
#include "support/termination.h"
#include "support/text.h"

namespace {

constexpr int Lines = 1000000;
constexpr int PerDirectory = 1000;
constexpr int Chunk = 65536;  // what the transfer hands the callback

const char* const Months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
const char* const Stems[] = {"INVOICE", "report", "PAYROLL", "data", "backup", "CUSTMAST",
                             "order lines", "img", "QCLSRC", "notes"};
const char* const Kinds[] = {".PDF", ".txt", ".FILE", ".csv", ".dat", ".PGM", ".json", ".jpg",
                             ".MBR", ""};

// One line of an IBM i listing in the Unix form (LISTFMT 1), as the server
// sends it: directories, files, some symbolic links; recent entries with a
// time of day, older ones with a year; names of varying length, some with
// blanks.
std::string ListingLine(int i, bool directories_too) {
  char line[512];
  const char* month = Months[(i * 7) % 12];
  int day = 1 + (i * 13) % 28;
  char when[16];
  if (i % 3 == 0)
    snprintf(when, sizeof when, "%02d:%02d", (i * 5) % 24, (i * 11) % 60);
  else
    snprintf(when, sizeof when, " %d", 1998 + (i % 27));
  char name[128];
  snprintf(name, sizeof name, "%s%s%06d%s", Stems[i % 10], i % 10 == 6 ? " " : "_", i,
           Kinds[(i / 10) % 10]);
  if (directories_too && i % 50 == 0) {
    snprintf(line, sizeof line, "drwxrwsrwx %3d %-8s %-8s %12d %s %2d %5s %s\r\n", 2 + i % 9, "QSYS", "0",
             8192, month, day, when, name);
  } else if (i % 97 == 0) {
    snprintf(line, sizeof line, "lrwxrwxrwx %3d %-8s %-8s %12d %s %2d %5s %s -> ../target%d\r\n", 1, "JOE",
             "USERS", 14, month, day, when, name, i);
  } else {
    snprintf(line, sizeof line, "-rwxrw-r-- %3d %-8s %-8s %12d %s %2d %5s %s\r\n", 1,
             i % 4 ? "QSYS" : "PAYUSR", i % 5 ? "0" : "PAYGRP", (i * 7919) % 50000000, month, day, when,
             name);
  }
  return line;
}

const std::string& ListingText() {
  static const std::string text = [] {
    std::string all;
    all.reserve(static_cast<size_t>(Lines) * 80);
    for (int i = 0; i < Lines; i++) all += ListingLine(i, true);
    return all;
  }();
  return text;
}

struct Listing {
  ObjectNode* root;
  ObjectNode* dir;
  ListingContext* context;
};

Listing NewListing() {
  Listing l{};
  l.root = NewDirectoryNode(nullptr, "", 0, 0, tm{});
  l.dir = AppendDirectory(l.root, "/home", S_IFDIR | 0755, 0, tm{});
  l.context = new ListingContext{};
  l.context->path = l.context->path_buffer;
  CopyBounded(l.context->path, PathBufferSize, "/home");
  l.context->directory = l.dir;
  return l;
}

void Feed(ListingContext* context, const std::string& text) {
  for (size_t at = 0; at < text.size(); at += Chunk) {
    int length = static_cast<int>(std::min<size_t>(Chunk, text.size() - at));
    int count = length;
    ListingCallback(context, const_cast<char*>(text.data() + at), &count);
  }
}

// What the listing callback costs per line: cutting the 64 KiB chunks into
// lines, parsing each, and placing the entry in the tree.
void BM_ListingParser(benchmark::State& state) {
  const std::string& text = ListingText();
  for (auto _ : state) {
    state.PauseTiming();
    Listing l = NewListing();
    state.ResumeTiming();
    Feed(l.context, text);
    state.PauseTiming();
    if (l.context->errors != 0) state.SkipWithError("lines failed to parse");
    FreeTree(l.root);
    delete l.context;
    state.ResumeTiming();
  }
  state.counters["lines_per_s"] =
      benchmark::Counter(static_cast<double>(Lines), benchmark::Counter::kIsIterationInvariantRate);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_ListingParser)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

long ResidentKiB() {
  FILE* f = fopen("/proc/self/statm", "r");
  long pages = 0, resident = 0;
  if (f) {
    if (fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    fclose(f);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// A tree of `objects` files in directories of 1000, built by the listing
// parser as a walk would build it; heap bytes in use per object.
int TreeMemory(int objects) {
  const size_t heap0 = mallinfo2().uordblks + mallinfo2().hblkhd;
  const long rss0 = ResidentKiB();
  ObjectNode* root = NewDirectoryNode(nullptr, "", 0, 0, tm{});
  ObjectNode* top = AppendDirectory(root, "/home", S_IFDIR | 0755, 0, tm{});
  auto* context = new ListingContext{};
  context->path = context->path_buffer;
  int directories = 0;
  std::string text;
  for (int first = 0; first < objects; first += PerDirectory) {
    char name[32];
    snprintf(name, sizeof name, "/D%06d", first / PerDirectory);
    ObjectNode* dir = AppendDirectory(top, name, S_IFDIR | 0755, 8192, tm{});
    directories++;
    context->directory = dir;
    snprintf(context->path, PathBufferSize, "/home%s", name);
    text.clear();
    for (int i = first; i < objects && i < first + PerDirectory; i++) text += ListingLine(i, false);
    Feed(context, text);
  }
  const size_t heap1 = mallinfo2().uordblks + mallinfo2().hblkhd;
  const long rss1 = ResidentKiB();
  const double nodes = static_cast<double>(objects + directories);
  printf("{\"objects\": %d, \"directories\": %d, \"count\": %llu, \"heap_bytes\": %zu, "
         "\"bytes_per_object\": %.1f, \"rss_bytes_per_object\": %.1f, \"parse_errors\": %d}\n",
         objects, directories, static_cast<unsigned long long>(root->count), heap1 - heap0,
         static_cast<double>(heap1 - heap0) / nodes, static_cast<double>(rss1 - rss0) * 1024.0 / nodes,
         context->errors);
  FreeTree(root);
  delete context;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  RegisterThread(-1);
  if (argc > 1 && strcmp(argv[1], "--tree") == 0)
    return TreeMemory(argc > 2 ? atoi(argv[2]) : Lines);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
