// TCP keepalive on the connections to the server: the options on the
// control and data sockets, and a peer that vanishes without a word (its
// packets dropped) ending a wait that has no time-out of its own.
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <regex>
#include <string>
#include <thread>

#include "cli/settings.h"
#include "fake_server.h"
#include "support/sysio.h"
#include "test_helpers.h"

namespace {

int Option(int descriptor, int level, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  if (getsockopt(descriptor, level, name, &value, &size) != 0) return -2;
  return value;
}

TEST(Keepalive, ControlAndDataConnectionsProbeASilentPeerWithTheTimesSet) {
  struct Case {
    KeepaliveTimes times;
  };
  // The program's own times, and shorter ones as a test sets them: what the
  // sockets carry follows the settings.
  const Case cases[] = {{KeepaliveTimes{}}, {KeepaliveTimes{3, 2, 4}}};
  const KeepaliveTimes saved = Keepalive;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.times.idle_seconds);
    Keepalive = c.times;
    FakeFtpServer server(LoginScript([](PeerConnection& peer, const std::string& command) {
      if (command == "PASV") peer.Reply(peer.PassiveReply());
      return true;
    }));
    FtpSession* session = NewSessionTo(server.address());
    ASSERT_NE(session, nullptr);
    ASSERT_EQ(OpenPassiveConnection(session), 0);
    for (int descriptor : {session->control->descriptor, session->control->data->descriptor}) {
      EXPECT_EQ(Option(descriptor, SOL_SOCKET, SO_KEEPALIVE), 1);
      EXPECT_EQ(Option(descriptor, IPPROTO_TCP, TCP_KEEPIDLE), c.times.idle_seconds);
      EXPECT_EQ(Option(descriptor, IPPROTO_TCP, TCP_KEEPINTVL), c.times.interval_seconds);
      EXPECT_EQ(Option(descriptor, IPPROTO_TCP, TCP_KEEPCNT), c.times.probes);
    }
    // Unacknowledged bytes are bounded by the same time on the control
    // connection alone.
    const int bound = (c.times.idle_seconds + c.times.interval_seconds * c.times.probes) * 1000;
    EXPECT_EQ(Option(session->control->descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT), bound);
    EXPECT_EQ(Option(session->control->data->descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT), 0);
    Quit(session);
  }
  Keepalive = saved;
  // A few minutes in all, as the program promises.
  const int total = KeepaliveIdleSeconds + KeepaliveIntervalSeconds * KeepaliveProbes;
  EXPECT_GE(total, 120);
  EXPECT_LE(total, 300);
}

// Sets the loopback interface of the current network namespace up or down.
bool SetLoopback(bool up) {
  int probe = socket(AF_INET, SOCK_DGRAM, 0);
  struct ifreq request{};
  strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  bool done = ioctl(probe, SIOCGIFFLAGS, &request) == 0;
  if (up)
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  else
    request.ifr_flags = static_cast<short>(request.ifr_flags & ~IFF_UP);
  done = done && ioctl(probe, SIOCSIFFLAGS, &request) == 0;
  close(probe);
  return done;
}

// A network namespace of its own, where loopback can be taken down without
// touching anything else: a user namespace makes that possible without
// root. false where the system allows no such namespaces.
bool PrivateNetwork() { return unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 && SetLoopback(true); }

bool PrivateNetworkPossible() {
  pid_t child = fork();
  if (child == 0) _exit(PrivateNetwork() ? 0 : 1);
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// In a child process: a save command whose server is cut off (loopback
// down, every packet dropped, no FIN, no reset) once it has taken the
// command, while the reply is awaited without limit. Keepalive ends the
// wait within a few seconds at the shortened times; the connection is then
// broken as any other. The exit status says which check failed (7: none).
int CutOffDuringASave() {
  alarm(30);  // whatever goes wrong, the child does not hang
  if (!PrivateNetwork()) return 2;
  Keepalive = KeepaliveTimes{1, 1, 2};
  std::atomic<bool> saving{false};
  FakeFtpServer server(LoginScript([&saving](PeerConnection& peer, const std::string&) {
    saving = true;
    while (!peer.server->stopping()) usleep(20000);  // the save never ends
    return false;
  }));
  FtpSession* session = NewSessionTo(server.address());
  if (!session || Login(session, "u", "p") != 0) return 3;
  // The cut comes once the command has been taken (and acknowledged):
  // with nothing unacknowledged, only keepalive can notice it.
  std::atomic<bool> cut{false};
  std::thread cutter([&] {
    while (!saving) usleep(5000);
    usleep(200000);
    cut = SetLoopback(false);
  });
  StderrCapture err;
  const auto start = std::chrono::steady_clock::now();
  const int result = LongCommand(session->control, "RCMD SAV OBJ('/x')");
  const auto took = std::chrono::steady_clock::now() - start;
  cutter.join();
  if (!cut) return 4;
  if (result != -1) return 5;
  if (took > std::chrono::seconds(15)) return 6;
  if (session->control->descriptor != -1) return 8;
  if (!std::regex_search(err.Text(),
                         std::regex(R"(\[socket\.cpp,\d+\]: read\(127\.0\.0\.1:\d+\): Connection timed out\n)")))
    return 9;
  return 7;
}

TEST(Keepalive, APeerCutOffWithoutAWordEndsAnUnboundedWait) {
  if (!PrivateNetworkPossible()) GTEST_SKIP() << "no unprivileged user and network namespaces on this system";
  EXPECT_EXIT(_exit(CutOffDuringASave()), ::testing::ExitedWithCode(7), "");
}

}  // namespace
