// pyftpdlib (tests/servers/ftpd.py) on 127.0.0.1 for integration tests: started on a free
// port over a directory, killed and reaped when the object goes.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

class PyFtpd {
 public:
  // extra: one more option for the server, or none.
  explicit PyFtpd(const std::string& root, const char* extra = nullptr) {
    int out[2];
    if (pipe(out) != 0) return;
    m_pid = fork();
    if (m_pid == 0) {
      dup2(out[1], 1);
      close(out[0]);
      close(out[1]);
      std::string here = __FILE__;  // absolute in our builds
      std::string script = here.substr(0, here.rfind('/')) + "/../servers/ftpd.py";
      execl("/usr/bin/python3", "python3", script.c_str(), "--root", root.c_str(), "--lifetime",
            "120", extra, nullptr);
      _exit(127);
    }
    close(out[1]);
    std::string line;
    char c;
    pollfd p{out[0], POLLIN, 0};
    while (poll(&p, 1, 10000) > 0 && read(out[0], &c, 1) == 1 && c != '\n') line.push_back(c);
    close(out[0]);
    m_port = atoi(line.c_str());
  }
  ~PyFtpd() {
    if (m_pid > 0) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
  }
  int port() const { return m_port; }

 private:
  pid_t m_pid = -1;
  int m_port = 0;
};
