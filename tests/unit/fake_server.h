// A scripted FTP peer on loopback for in-process transport and session
// tests: every command received is recorded and answered by the test's own
// function, which may also move data over a passive connection.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ftp/checkpoint.h"
#include "ftp/data_command.h"
#include "ftp/remote_listing.h"
#include "ftp/reply_judge.h"
#include "ftp/session.h"
#include "ftp/transfer_settings.h"
#include "net/command.h"
#include "net/data_connection.h"
#include "net/reply_reader.h"

inline int ListenLoopback(sockaddr_in* address) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  listen(fd, 8);
  socklen_t length = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
  *address = a;
  return fd;
}

inline void SendAll(int fd, const std::string& text) {
  size_t sent = 0;
  while (sent < text.size()) {
    ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;
    sent += static_cast<size_t>(n);
  }
}

// Accepts within a deadline so a test that goes wrong cannot hang.
inline int AcceptWithin(int listener, int milliseconds) {
  struct pollfd p = {listener, POLLIN, 0};
  if (poll(&p, 1, milliseconds) <= 0) return -1;
  return accept(listener, nullptr, nullptr);
}

class FakeFtpServer;

// One control connection as the script sees it.
struct PeerConnection {
  FakeFtpServer* server;
  int index;  // 0 for the first connection, 1 after a reconnect, ...
  int fd;
  std::string pending;

  // Reads one command line (without CR LF); false when the client closed.
  bool ReadCommand(std::string* command) {
    for (;;) {
      size_t end = pending.find("\r\n");
      if (end != std::string::npos) {
        *command = pending.substr(0, end);
        pending.erase(0, end + 2);
        return true;
      }
      char buffer[8192];
      if (!WaitReadable()) return false;
      ssize_t n = read(fd, buffer, sizeof buffer);
      if (n <= 0) return false;
      pending.append(buffer, static_cast<size_t>(n));
    }
  }
  void Reply(const std::string& text) { SendAll(fd, text); }
  bool WaitReadable();

  // Passive data: Listen answers PASV with a 227 line; Accept gives the
  // client's data socket.
  int data_listener = -1;
  std::string PassiveReply() {
    sockaddr_in a{};
    if (data_listener >= 0) close(data_listener);
    data_listener = ListenLoopback(&a);
    unsigned port = ntohs(a.sin_port);
    return "227 Entering Passive Mode (127,0,0,1," + std::to_string(port >> 8) + "," +
           std::to_string(port & 0xFF) + ").\r\n";
  }
  int AcceptData() {
    int fd_data = AcceptWithin(data_listener, 5000);
    close(data_listener);
    data_listener = -1;
    return fd_data;
  }
  // An upload: the client's data connection accepted and read to its end.
  std::string ReceiveUpload() {
    int fd_data = AcceptData();
    std::string data;
    char chunk[8192];
    for (ssize_t n; fd_data >= 0 && (n = read(fd_data, chunk, sizeof chunk)) > 0;)
      data.append(chunk, static_cast<size_t>(n));
    if (fd_data >= 0) close(fd_data);
    return data;
  }
};

// The script answers one command; returning false closes the connection
// without a reply.
using PeerScript = std::function<bool(PeerConnection&, const std::string& command)>;

class FakeFtpServer {
 public:
  explicit FakeFtpServer(PeerScript script, std::string greeting = "220 fake ready\r\n")
      : script_(std::move(script)), greeting_(std::move(greeting)) {
    listener_ = ListenLoopback(&address_);
    thread_ = std::thread([this] { Serve(); });
  }
  ~FakeFtpServer() {
    stop_ = true;
    thread_.join();
    close(listener_);
  }
  const sockaddr_in& address() const { return address_; }
  std::vector<std::string> Commands() {
    std::lock_guard<std::mutex> g(lock_);
    return commands_;
  }
  // For a server that outlives many runs (a fuzz target's): the record
  // starts afresh.
  void ForgetCommands() {
    std::lock_guard<std::mutex> g(lock_);
    commands_.clear();
  }
  int connections() const { return connections_; }
  bool stopping() const { return stop_; }

 private:
  void Serve() {
    while (!stop_) {
      int fd = AcceptWithin(listener_, 50);
      if (fd < 0) continue;
      PeerConnection c{this, connections_++, fd, {}};
      SendAll(fd, greeting_);
      std::string command;
      while (!stop_ && c.ReadCommand(&command)) {
        {
          std::lock_guard<std::mutex> g(lock_);
          commands_.push_back(command);
        }
        if (!script_(c, command)) break;
      }
      if (c.data_listener >= 0) close(c.data_listener);
      close(fd);
    }
  }

  PeerScript script_;
  std::string greeting_;
  sockaddr_in address_{};
  int listener_ = -1;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::atomic<int> connections_{0};
  std::mutex lock_;
  std::vector<std::string> commands_;
};

// Waits up to ten seconds, giving up at once when the server stops.
inline bool PeerConnection::WaitReadable() {
  for (int waited = 0; waited < 10000 && !server->stopping(); waited += 50) {
    struct pollfd p = {fd, POLLIN, 0};
    int ready = poll(&p, 1, 50);
    if (ready != 0) return ready > 0;
  }
  return false;
}

// Answers the login exchange the way an IBM i does; anything else goes to
// `rest`, or gets "200 OK" without it.
inline PeerScript LoginScript(PeerScript rest = nullptr,
                              std::string syst = "215  OS/400 is the remote operating system. "
                                                 "The TCP/IP version is \"V5R4M0\".") {
  return [rest, syst](PeerConnection& c, const std::string& command) {
    if (command.rfind("USER ", 0) == 0) {
      c.Reply("331 Enter password.\r\n");
    } else if (command.rfind("PASS ", 0) == 0) {
      c.Reply("230 QSECOFR logged on.\r\n");
    } else if (command == "CWD /") {
      c.Reply("250 \"/\" is current directory.\r\n");
    } else if (command == "SYST") {
      c.Reply(syst + "\r\n");
    } else if (command.rfind("TIME ", 0) == 0) {
      c.Reply("250 Timeout values set.\r\n");
    } else if (command == "QUIT") {
      c.Reply("221 QUIT subcommand received.\r\n");
      return false;
    } else if (rest) {
      return rest(c, command);
    } else {
      c.Reply("200 OK\r\n");
    }
    return true;
  };
}
