// Forked test bodies with their output captured.
#include "support/child_process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace vrk::test {

ChildResult RunInChild(const std::function<int()>& body) {
  ChildResult result;
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) return result;
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) return result;
  if (pid == 0) {
    close(pipe_fds[0]);
    dup2(pipe_fds[1], 1);
    dup2(pipe_fds[1], 2);
    const int status = body();
    std::fflush(nullptr);
    _exit(status);
  }
  close(pipe_fds[1]);
  char buffer[4096];
  ssize_t n;
  while ((n = read(pipe_fds[0], buffer, sizeof buffer)) > 0) result.output.append(buffer, size_t(n));
  close(pipe_fds[0]);
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  result.exited = WIFEXITED(wstatus);
  result.status = result.exited ? WEXITSTATUS(wstatus) : -1;
  return result;
}

}  // namespace vrk::test
