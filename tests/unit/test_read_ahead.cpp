// The restore reads an entry's data ahead of the upload, several direct
// reads in flight. Whatever the read-ahead does, the upload must see what
// one read at a time would give: the same counts, the same bytes, the same
// end of data on a cut archive, the same bookkeeping, and the archive's
// file position where the reads would have left it after every hand-over,
// so that a skip after a broken upload and the next header land right.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "archive/reader.h"
#include "net/connection.h"
#include "restore/restore.h"

namespace {

constexpr int64_t Step = TransferBufferSize;

std::string Bytes(size_t length, unsigned seed) {
  std::string out(length, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (size_t i = 0; i < length; i++) {
    x = x * 1103515245u + 12345u;
    out[i] = static_cast<char>(x >> 24);
  }
  return out;
}

int64_t Whole(int64_t n) { return n > 0 ? (n + 511) / 512 * 512 : 0; }

// A file on disk holding content, opened as the restore opens an archive:
// direct I/O where the file system allows it.
struct DiskArchive {
  std::string path;
  int fd = -1;
  explicit DiskArchive(const std::string& content) {
    const char* base = getenv("TMPDIR");
    path = std::string(base && *base ? base : "/tmp") + "/vondral-read-ahead-XXXXXX";
    int out = mkstemp(path.data());
    EXPECT_GE(out, 0);
    EXPECT_EQ(write(out, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    fsync(out);
    close(out);
    fd = open(path.c_str(), O_RDONLY | O_DIRECT);
    if (fd < 0) fd = open(path.c_str(), O_RDONLY);
  }
  ~DiskArchive() {
    close(fd);
    unlink(path.c_str());
  }
  off_t position() const { return lseek(fd, 0, SEEK_CUR); }
};

struct TransferBuffer {
  char* data = static_cast<char*>(
      mmap(nullptr, TransferBufferSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ~TransferBuffer() { munmap(data, TransferBufferSize); }
};

// One hand-over as the upload sees it.
struct HandOver {
  int count;
  int64_t left;
  int calls;
  off_t position;
};

// What one read at a time gives for an entry of `size` whose data starts
// at `base` in a file of `file_size` bytes: the reads of the callback,
// played through by hand.
std::vector<HandOver> Expected(int64_t base, int64_t size, int64_t file_size) {
  std::vector<HandOver> out;
  int64_t left = size, position = base;
  int calls = 0;
  while (left > 0) {
    int64_t length = Whole(std::min(left, Step));
    int64_t got = std::max<int64_t>(0, std::min(length, file_size - position));
    position += got;
    calls++;
    int count = static_cast<int>(std::min(got, left));
    left -= got;
    out.push_back({count, left, calls, static_cast<off_t>(position)});
    if (count == 0) break;
  }
  return out;
}

// Plays the upload through: callback after callback until the end of data
// (or `stop_after` hand-overs), recording each and the bytes handed over
// (from wherever the callback points them). With a pause, every
// `pause_every`-th hand-over is left alone for that long before its bytes
// are taken, as a slow socket would leave it, while the readers go on.
struct Pace {
  size_t stop_after = SIZE_MAX;
  int pause_every = 0;
  int pause_ms = 0;
};
std::vector<HandOver> Upload(ArchiveReader* reader, int fd, std::string* sent, Pace pace = {}) {
  TransferBuffer buffer;
  std::vector<HandOver> out;
  while (out.size() < pace.stop_after) {
    int count = TransferBufferSize;
    const char* bytes = buffer.data;
    EXPECT_EQ(ArchiveReadCallback(reader, buffer.data, &count, &bytes), 0);
    if (count <= 0 && reader->left <= 0) break;
    out.push_back({count, reader->left, reader->calls, lseek(fd, 0, SEEK_CUR)});
    if (pace.pause_every > 0 && reader->calls % pace.pause_every == 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(pace.pause_ms));
    sent->append(bytes, static_cast<size_t>(count));
    if (count == 0) break;
  }
  return out;
}

void ExpectSame(const std::vector<HandOver>& got, const std::vector<HandOver>& want) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); i++) {
    EXPECT_EQ(got[i].count, want[i].count) << "hand-over " << i;
    EXPECT_EQ(got[i].left, want[i].left) << "hand-over " << i;
    EXPECT_EQ(got[i].calls, want[i].calls) << "hand-over " << i;
    EXPECT_EQ(got[i].position, want[i].position) << "hand-over " << i;
  }
}

TEST(ReadAhead, ACutArchiveEndsTheDataWhereTheFileEnds) {
  const int64_t size = 12 * Step;
  const std::string data = Bytes(5 * Step + 3072, 4);  // the file ends inside the entry
  DiskArchive archive(Bytes(512, 5) + data);
  ASSERT_EQ(lseek(archive.fd, 512, SEEK_SET), 512);
  ArchiveReader reader{archive.fd, 0, size, size};
  std::string sent;
  ExpectSame(Upload(&reader, archive.fd, &sent),
             Expected(512, size, 512 + static_cast<int64_t>(data.size())));
  EXPECT_EQ(sent, data);
}

// The upload sends straight from the stretches read ahead, so a stretch
// must not be read into again while its last hand-over is still being
// sent. The pauses come at the end of a stretch (every sixteenth
// hand-over) and at places within one, long enough for the readers to
// refill every free slot meanwhile; the bytes taken after the pause must
// still be the entry's.
TEST(ReadAhead, BytesHandedOverStayUntilTheNextHandOver) {
  const int64_t stretch = 16 * Step;
  const struct {
    int64_t size;
    int pause_every;
  } cases[] = {
      {20 * stretch, 16},          // every stretch's end, more stretches than slots
      {20 * stretch + 700, 16},    // and a last stretch that ends in padding
      {11 * stretch, 5},           // hand-overs within stretches
      {3 * stretch + Step / 2, 1}, // every hand-over
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.size) + " bytes, a pause every " + std::to_string(c.pause_every));
    const std::string data = Bytes(static_cast<size_t>(c.size), 11);
    DiskArchive archive(Bytes(512, 12) + data + std::string(static_cast<size_t>(Whole(c.size) - c.size), '\0'));
    ASSERT_EQ(lseek(archive.fd, 512, SEEK_SET), 512);
    ArchiveReader reader{archive.fd, 0, c.size, c.size};
    std::string sent;
    ExpectSame(Upload(&reader, archive.fd, &sent, {.pause_every = c.pause_every, .pause_ms = 4}),
               Expected(512, c.size, 512 + Whole(c.size)));
    StopReadingAhead();
    EXPECT_TRUE(sent == data) << "the bytes sent differ from the entry's";
  }
}

// Entries of many sizes one after the other, as the restore driver walks
// them: header read, upload to the end, next header. Every fifth upload
// breaks after three hand-overs; the driver's skip must then land on the
// next header too.
TEST(ReadAhead, EntryAfterEntryOfEverySize) {
  std::mt19937 random(7);
  std::vector<int64_t> sizes = {1, 511, 512, 513, Step - 1, Step, Step + 1, 2 * Step, 2 * Step + 1,
                                3 * Step, 7 * Step + 512, 8 * Step, 9 * Step - 1, 40 * Step + 3};
  for (int i = 0; i < 12; i++) sizes.push_back(std::uniform_int_distribution<int64_t>(1, 24 * Step)(random));
  std::string content;
  std::vector<std::string> datas;
  for (size_t i = 0; i < sizes.size(); i++) {
    content += Bytes(512, static_cast<unsigned>(100 + i));
    datas.push_back(Bytes(static_cast<size_t>(sizes[i]), static_cast<unsigned>(200 + i)));
    content += datas.back() + std::string(static_cast<size_t>(Whole(sizes[i]) - sizes[i]), '\0');
  }
  DiskArchive archive(content);
  TransferBuffer header;  // aligned for direct I/O
  int64_t offset = 0;
  for (size_t i = 0; i < sizes.size(); i++) {
    SCOPED_TRACE("entry " + std::to_string(i) + " of " + std::to_string(sizes[i]) + " bytes");
    ASSERT_EQ(read(archive.fd, header.data, 512), 512);
    EXPECT_EQ(std::string(header.data, 512), Bytes(512, static_cast<unsigned>(100 + i)));
    offset += 512;
    ArchiveReader reader{archive.fd, 0, sizes[i], sizes[i]};
    std::string sent;
    if (i % 5 == 4) {
      Upload(&reader, archive.fd, &sent, {.stop_after = 3});
      EXPECT_EQ(sent, datas[i].substr(0, 3 * Step));
      EXPECT_EQ(archive.position(), offset + std::min(Whole(sizes[i]), 3 * Step));
      ASSERT_EQ(SkipArchiveData(archive.fd, reader.left), 0);
    } else {
      ExpectSame(Upload(&reader, archive.fd, &sent), Expected(offset, sizes[i], 1LL << 40));
      EXPECT_EQ(sent, datas[i]);
    }
    offset += Whole(sizes[i]);
    EXPECT_EQ(archive.position(), offset);
  }
}

}  // namespace
