// A loopback FTP server that plays what a test scripts: the test writes the dialogue as a
// function of one ScriptConn, so it can answer anything, including what no real server would.
// Every wait is bounded (kWaitMs) and the server stops when the object is destroyed.
#pragma once

#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/fakes/fakes.h"

class ScriptConn {
 public:
  static constexpr int kWaitMs = 5000;

  ScriptConn(int fd, std::atomic<bool>* stop) : m_fd(fd), m_stop(stop) {}
  ~ScriptConn() {
    CloseData();
    if (m_dataListen >= 0) close(m_dataListen);
  }

  void Send(const std::string& text) { SendOn(m_fd, text); }

  // Next command line without CR LF; "" when the client closed or kWaitMs passed.
  std::string ReadLine() {
    for (;;) {
      size_t nl = m_in.find("\r\n");
      if (nl != std::string::npos) {
        std::string line = m_in.substr(0, nl);
        m_in.erase(0, nl + 2);
        return line;
      }
      char buf[4096];
      ssize_t n = Recv(m_fd, buf, sizeof(buf), kWaitMs);
      if (n <= 0) return "";
      m_in.append(buf, static_cast<size_t>(n));
    }
  }

  // Reads a command and notes a failure unless it begins with prefix.
  std::string Expect(const std::string& prefix) {
    std::string line = ReadLine();
    if (line.compare(0, prefix.size(), prefix) != 0) {
      failures.push_back("expected " + prefix + ", got \"" + line + "\"");
    }
    return line;
  }

  // Expects command and answers with reply.
  void On(const std::string& command, const std::string& reply) {
    Expect(command);
    Send(reply);
  }

  // Greeting, login, binary type and the directory change of an empty remote path.
  void Login() {
    Send("220 scripted\r\n");
    On("USER", "331 password please\r\n");
    On("PASS", "230 in\r\n");
    On("TYPE I", "200 binary\r\n");
  }

  // Opens a passive listener on 127.0.0.1 and returns its port.
  int OpenData() {
    sockaddr_in a;
    m_dataListen = LoopbackSocket(1, &a);
    return ntohs(a.sin_port);
  }

  // Answers EPSV with the port of a new passive listener and accepts the data connection.
  void PassiveByEpsv() {
    Expect("EPSV");
    Send("229 Extended Passive Mode (|||" + std::to_string(OpenData()) + "|)\r\n");
    AcceptData();
  }

  bool AcceptData() {
    if (!Wait(m_dataListen, POLLIN, kWaitMs)) return false;
    m_data = accept4(m_dataListen, nullptr, nullptr, SOCK_NONBLOCK);
    close(m_dataListen);
    m_dataListen = -1;
    return m_data >= 0;
  }

  void SendData(const std::string& bytes) { SendOn(m_data, bytes); }

  // Receives until the client closes the data connection, or max bytes.
  std::string RecvData(size_t max = static_cast<size_t>(-1)) {
    std::string out;
    char buf[65536];
    while (out.size() < max) {
      size_t want = std::min(sizeof(buf), max - out.size());
      ssize_t n = Recv(m_data, buf, want, kWaitMs);
      if (n <= 0) break;
      out.append(buf, static_cast<size_t>(n));
    }
    return out;
  }

  void CloseData() {
    if (m_data >= 0) close(m_data);
    m_data = -1;
  }

  // Stays silent until the client closes the control connection (or kWaitMs).
  void Silent() {
    char buf[256];
    while (Recv(m_fd, buf, sizeof(buf), kWaitMs) > 0) {
    }
  }

  std::vector<std::string> failures;

 private:
  bool Wait(int fd, short events, int ms) {
    for (int waited = 0; waited < ms && !m_stop->load(); waited += 50) {
      pollfd p{fd, events, 0};
      if (poll(&p, 1, 50) > 0) return true;
    }
    return false;
  }
  ssize_t Recv(int fd, char* buf, size_t cap, int ms) {
    if (fd < 0 || !Wait(fd, POLLIN, ms)) return -1;
    return recv(fd, buf, cap, 0);
  }
  void SendOn(int fd, const std::string& bytes) {
    size_t off = 0;
    while (fd >= 0 && off < bytes.size() && Wait(fd, POLLOUT, kWaitMs)) {
      ssize_t n = send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
      if (n < 0 && errno == EAGAIN) continue;
      if (n <= 0) return;
      off += static_cast<size_t>(n);
    }
  }

  int m_fd;
  std::atomic<bool>* m_stop;
  std::string m_in;
  int m_dataListen = -1;
  int m_data = -1;
};

// Serves one control connection on 127.0.0.1 with script, on its own thread.
class ScriptServer {
 public:
  explicit ScriptServer(std::function<void(ScriptConn&)> script) {
    sockaddr_in a;
    m_listen = LoopbackSocket(1, &a);
    m_port = ntohs(a.sin_port);
    m_thread = std::thread([this, script] {
      pollfd p{m_listen, POLLIN, 0};
      for (int waited = 0; waited < ScriptConn::kWaitMs && !m_stop.load(); waited += 50) {
        if (poll(&p, 1, 50) > 0) break;
      }
      int fd = m_stop.load() ? -1 : accept4(m_listen, nullptr, nullptr, SOCK_NONBLOCK);
      if (fd < 0) return;
      ScriptConn conn(fd, &m_stop);
      script(conn);
      close(fd);
      std::lock_guard<std::mutex> g(m_mutex);
      m_failures = conn.failures;
    });
  }
  ~ScriptServer() { Join(); }

  int port() const { return m_port; }

  // Waits for the script to finish (bounded by its own waits) and returns what it noted.
  std::vector<std::string> Join() {
    if (m_thread.joinable()) m_thread.join();
    if (m_listen >= 0) close(m_listen);
    m_listen = -1;
    std::lock_guard<std::mutex> g(m_mutex);
    return m_failures;
  }
  void Stop() { m_stop = true; }

 private:
  int m_listen = -1;
  int m_port = 0;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
  std::mutex m_mutex;
  std::vector<std::string> m_failures;
};
