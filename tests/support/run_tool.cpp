// Spawns vrkutil with pipes for its input and both outputs.
#include "run_tool.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include <gtest/gtest.h>

namespace vrk::test {

ToolResult RunTool(const std::vector<std::string>& args, const std::string& input) {
  ToolResult result;
  int in[2], out[2], err[2];
  if (pipe(in) || pipe(out) || pipe(err)) return result;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(VRKUTIL_PATH));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(VRKUTIL_PATH, argv.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  if (!input.empty()) (void)!write(in[1], input.data(), input.size());
  close(in[1]);
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open_fds = 2;
  while (open_fds > 0 && poll(fds, 2, -1) > 0) {
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
      char buffer[4096];
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, size_t(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_fds;
      }
    }
  }
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  return result;
}

void CheckTool(const ToolCase& c) {
  std::string joined;
  for (const std::string& a : c.args) joined += a + ' ';
  SCOPED_TRACE(joined);
  const ToolResult r = RunTool(c.args);
  EXPECT_EQ(r.status, c.status);
  EXPECT_EQ(r.out, c.out);
  if (*c.err == '\0') {
    EXPECT_EQ(r.err, "");
  } else {
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "errors are one line: " << r.err;
  }
}

}  // namespace vrk::test
