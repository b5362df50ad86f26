// Fuzzes ParsePassiveReply, which takes the server's data address out of
// the 227 reply to PASV.
//
// Input: the reply line as ReadReply hands it over (the text up to the
// first NUL byte counts, cut to the longest reply line).
#include <arpa/inet.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_common.h"
#include "net/command.h"
#include "net/data_connection.h"
#include "net/reply_reader.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceProgramLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string reply = fuzz::AsCString(std::string(reinterpret_cast<const char*>(data), size));
  if (reply.size() > static_cast<size_t>(ReplyLineMax)) reply.resize(ReplyLineMax);
  // Exactly sized heap copies: any read past the line or write past the
  // address field is caught by ASan.
  auto* line = static_cast<char*>(malloc(reply.size() + 1));
  constexpr size_t TextSize = sizeof(FtpConnection::server_text);
  auto* text = static_cast<char*>(malloc(TextSize));
  if (!line || !text) abort();
  memcpy(line, reply.c_str(), reply.size() + 1);
  memset(text, 0x7F, TextSize);

  sockaddr_in address;
  memset(&address, 0xA5, sizeof address);
  int result = ParsePassiveReply(line, &address, text, TextSize);
  FUZZ_CHECK(result == 0 || result == -1);
  FUZZ_CHECK(memchr(text, '\0', TextSize) != nullptr);
  FUZZ_CHECK(address.sin_family == AF_INET);

  if (result == 0) {
    FUZZ_CHECK(reply.compare(0, 4, "227 ") == 0);
    // The text is the reply's own address part with dots for its commas,
    // and it names exactly the address that will be connected to.
    std::string dotted = text;
    std::string spelled = dotted;
    for (char& c : spelled)
      if (c == '.') c = ',';
    size_t at = reply.find(spelled + ",", 4);
    FUZZ_CHECK(at != std::string::npos);
    in_addr check{};
    FUZZ_CHECK(inet_pton(AF_INET, text, &check) == 1);
    FUZZ_CHECK(check.s_addr == address.sin_addr.s_addr);
    // The port is the two numbers behind the address: high * 256 + low,
    // kept to 16 bits.
    const char* numbers = reply.c_str() + at + spelled.size() + 1;
    char* end = nullptr;
    unsigned long high = strtoul(numbers, &end, 10);
    FUZZ_CHECK(end != numbers && *end == ',');
    unsigned long low = strtoul(end + 1, nullptr, 10);
    FUZZ_CHECK(ntohs(address.sin_port) == (((high << 8) | low) & 0xFFFF));
  }
  free(line);
  free(text);
  return 0;
}
