// pyftpdlib (tests/servers/ftpd.py) on 127.0.0.1 for integration tests: started on a free
// port over a directory, killed and reaped when the object goes.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

class PyFtpd {
 public:
  PyFtpd(const std::string& root, const std::vector<std::string>& extra) {
    int out[2];
    if (pipe(out) != 0) return;
    m_pid = fork();
    if (m_pid == 0) {
      dup2(out[1], 1);
      close(out[0]);
      close(out[1]);
      const char* src = getenv("VELMAR_SOURCE_DIR");
      std::string here = __FILE__;
      std::string script = src != nullptr ? std::string(src) + "/tests/servers/ftpd.py"
                                          : here.substr(0, here.rfind('/')) + "/../servers/ftpd.py";
      std::vector<std::string> args = {"/usr/bin/python3", script, "--root", root,
                                       "--lifetime",       "120"};
      args.insert(args.end(), extra.begin(), extra.end());
      std::vector<char*> argv;
      for (std::string& a : args) argv.push_back(&a[0]);
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
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
