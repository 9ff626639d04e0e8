// Runs code as an unprivileged user.
#pragma once

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace sorvex::test {

/// Calls `function` in a child process of an ordinary user ("nobody" if this process is a superuser's) and returns the
/// status, 0 to 255, that it returned; -1 when there can be no such process, or when it ended otherwise.
template <class Function>
int CallAsOrdinaryUser(Function function) {
  constexpr int cannotBecome = 255;
  const pid_t child = fork();
  if (child == 0) {
    constexpr uid_t nobody = 65534;
    const bool isOrdinary =
        geteuid() != 0 || (setgroups(0, nullptr) == 0 && setgid(nobody) == 0 && setuid(nobody) == 0);
    _exit(isOrdinary ? function() : cannotBecome);
  }
  int status = 0;
  while (waitpid(child, &status, 0) == -1) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) != cannotBecome ? WEXITSTATUS(status) : -1;
}

}  // namespace sorvex::test
