// The limits of this machine that a backup or a restore runs into, measured
// the way the program moves its bytes: 64 KiB blocks.
//
//   bench_limits DIR BYTES [REPS]
//
// DIR is a directory on the archive's file system. Prints one JSON object
// per line: {"test": name, "gbps": median GB/s, "cpu_s_per_gib": median
// CPU seconds per GiB of the thread that moves the bytes (where it means
// something), "runs": [...]}.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t Block = 65536;
constexpr double GiB = 1024.0 * 1024.0 * 1024.0;

double Now() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// CPU seconds of the calling thread.
double ThreadCpu() {
  rusage u{};
  getrusage(RUSAGE_THREAD, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

[[noreturn]] void Die(const char* what) {
  fprintf(stderr, "bench_limits: %s: %s\n", what, strerror(errno));
  exit(1);
}

char* AlignedBuffer(size_t size) {
  void* p = nullptr;
  if (posix_memalign(&p, 4096, size) != 0) Die("posix_memalign");
  // Not zeros: a page of zeros could be shared by the kernel.
  for (size_t i = 0; i < size; i++) static_cast<unsigned char*>(p)[i] = static_cast<unsigned char>(i * 131 + 7);
  return static_cast<char*>(p);
}

struct Result {
  double gbps;
  double cpu_per_gib;  // < 0: not measured
};

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

void Report(const char* test, const std::vector<Result>& runs, const char* note) {
  std::vector<double> rates, cpus;
  for (const Result& r : runs) {
    rates.push_back(r.gbps);
    if (r.cpu_per_gib >= 0) cpus.push_back(r.cpu_per_gib);
  }
  printf("{\"test\": \"%s\", \"gbps\": %.4f, \"cpu_s_per_gib\": %s, \"note\": \"%s\", \"runs\": [", test,
         Median(rates), cpus.empty() ? "null" : std::to_string(Median(cpus)).c_str(), note);
  for (size_t i = 0; i < runs.size(); i++) printf("%s%.4f", i ? ", " : "", runs[i].gbps);
  printf("]}\n");
  fflush(stdout);
}

// A connected loopback TCP pair: the listening side accepts the other.
void TcpPair(int* sender, int* receiver) {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  if (listener < 0) Die("socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) Die("bind");
  socklen_t length = sizeof address;
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  if (listen(listener, 1) != 0) Die("listen");
  int out = socket(AF_INET, SOCK_STREAM, 0);
  if (connect(out, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) Die("connect");
  int in = accept(listener, nullptr, nullptr);
  if (in < 0) Die("accept");
  close(listener);
  int on = 1;
  setsockopt(out, SOL_TCP, TCP_NODELAY, &on, sizeof on);
  setsockopt(in, SOL_TCP, TCP_NODELAY, &on, sizeof on);
  *sender = out;
  *receiver = in;
}

void SendAll(int descriptor, size_t bytes) {
  char* buffer = AlignedBuffer(Block);
  size_t sent = 0;
  while (sent < bytes) {
    size_t want = std::min(Block, bytes - sent);
    ssize_t n = send(descriptor, buffer, want, MSG_NOSIGNAL);
    if (n <= 0) Die("send");
    sent += static_cast<size_t>(n);
  }
  shutdown(descriptor, SHUT_WR);
  free(buffer);
}

// Single-stream loopback TCP; with a file, every 64 KiB block received is
// written to a new file there (the backup's data path without FTP).
Result TcpRun(size_t bytes, const char* file) {
  int sender, receiver;
  TcpPair(&sender, &receiver);
  int out = -1;
  if (file) {
    out = open(file, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (out < 0) Die("open");
  }
  std::thread feeder(SendAll, sender, bytes);
  char* buffer = AlignedBuffer(Block);
  double cpu0 = ThreadCpu(), t0 = Now();
  size_t got = 0;
  for (;;) {
    size_t fill = 0;
    while (fill < Block) {
      ssize_t n = read(receiver, buffer + fill, Block - fill);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) Die("read");
      if (n == 0) break;
      fill += static_cast<size_t>(n);
    }
    if (fill == 0) break;
    if (out >= 0 && write(out, buffer, fill) != static_cast<ssize_t>(fill)) Die("write");
    got += fill;
  }
  double t1 = Now(), cpu1 = ThreadCpu();
  feeder.join();
  close(sender);
  close(receiver);
  if (out >= 0) {
    close(out);
    unlink(file);
  }
  free(buffer);
  return {static_cast<double>(got) / (t1 - t0) / 1e9, (cpu1 - cpu0) / (static_cast<double>(got) / GiB)};
}

// Sequential 64 KiB writes of new data to a new file (through the page
// cache, as the backup writes its archive); kept when keep is set.
Result WriteRun(size_t bytes, const char* file, bool sync, bool keep) {
  int out = open(file, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (out < 0) Die("open");
  char* buffer = AlignedBuffer(Block);
  double cpu0 = ThreadCpu(), t0 = Now();
  for (size_t done = 0; done < bytes; done += Block) {
    size_t want = std::min(Block, bytes - done);
    if (write(out, buffer, want) != static_cast<ssize_t>(want)) Die("write");
  }
  if (sync && fdatasync(out) != 0) Die("fdatasync");
  double t1 = Now(), cpu1 = ThreadCpu();
  close(out);
  if (!keep) unlink(file);
  free(buffer);
  return {static_cast<double>(bytes) / (t1 - t0) / 1e9, (cpu1 - cpu0) / (static_cast<double>(bytes) / GiB)};
}

// O_DIRECT reads of block bytes, by `threads` readers taking the next block
// in turn (threads = 1: one read in flight, as the restore did).
Result DirectRun(const char* file, size_t block, int threads) {
  int in = open(file, O_RDONLY | O_DIRECT);
  if (in < 0) Die("open O_DIRECT");
  struct stat st{};
  fstat(in, &st);
  const size_t size = static_cast<size_t>(st.st_size) / block * block;
  std::atomic<size_t> next{0};
  auto reader = [&] {
    char* buffer = AlignedBuffer(block);
    for (;;) {
      size_t at = next.fetch_add(block);
      if (at >= size) break;
      if (pread(in, buffer, block, static_cast<off_t>(at)) != static_cast<ssize_t>(block)) Die("pread");
    }
    free(buffer);
  };
  double t0 = Now();
  std::vector<std::thread> pool;
  for (int i = 0; i < threads; i++) pool.emplace_back(reader);
  for (std::thread& t : pool) t.join();
  double t1 = Now();
  close(in);
  return {static_cast<double>(size) / (t1 - t0) / 1e9, -1};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: bench_limits DIR BYTES [REPS]\n");
    return 2;
  }
  const std::string dir = argv[1];
  const size_t bytes = strtoull(argv[2], nullptr, 0) / Block * Block;
  const int reps = argc > 3 ? atoi(argv[3]) : 3;
  const std::string scratch = dir + "/limits.tmp";
  const std::string kept = dir + "/limits-direct.tmp";

  std::vector<Result> tcp, copy, write_cache, write_sync;
  for (int i = 0; i < reps; i++) {
    tcp.push_back(TcpRun(bytes, nullptr));
    copy.push_back(TcpRun(bytes, scratch.c_str()));
    write_cache.push_back(WriteRun(bytes, scratch.c_str(), false, false));
  }
  Report("tcp_loopback", tcp, "single stream, 64 KiB reads, receiver CPU");
  Report("tcp_to_file", copy, "64 KiB reads written to a new file, receiver CPU");
  Report("file_write", write_cache, "64 KiB sequential writes to a new file (page cache)");

  // One file for the direct reads, on the device (written and synced).
  write_sync.push_back(WriteRun(bytes, kept.c_str(), true, true));
  Report("file_write_sync", write_sync, "the same written and fdatasync'd");
  std::vector<Result> d64, d64x4, d1m, d1mx4;
  for (int i = 0; i < reps; i++) {
    d64.push_back(DirectRun(kept.c_str(), Block, 1));
    d64x4.push_back(DirectRun(kept.c_str(), Block, 4));
    d1m.push_back(DirectRun(kept.c_str(), 1 << 20, 1));
    d1mx4.push_back(DirectRun(kept.c_str(), 1 << 20, 4));
  }
  unlink(kept.c_str());
  Report("direct_64k", d64, "O_DIRECT 64 KiB reads, one in flight");
  Report("direct_64k_x4", d64x4, "O_DIRECT 64 KiB reads, four in flight");
  Report("direct_1m", d1m, "O_DIRECT 1 MiB reads, one in flight");
  Report("direct_1m_x4", d1mx4, "O_DIRECT 1 MiB reads, four in flight");
  return 0;
}
