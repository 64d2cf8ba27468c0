// Forked children.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace zq {

/// Runs `body` in a forked child and returns its complaints, with "killed" when it did not end by
/// itself within a minute.
inline std::string inChild(const std::function<std::string()>& body) {
  int ends[2];
  EXPECT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(60);
    const std::string complaints = body();
    [[maybe_unused]] const auto written = ::write(ends[1], complaints.data(), complaints.size());
    ::_exit(0);
  }
  ::close(ends[1]);
  std::string complaints;
  char part[4096];
  for (ssize_t got = 0; (got = ::read(ends[0], part, sizeof part)) > 0;) {
    complaints.append(part, static_cast<std::size_t>(got));
  }
  ::close(ends[0]);
  int status = -1;
  ::waitpid(child, &status, 0);
  return status == 0 ? complaints : complaints + "killed, or ended by a callback";
}

}  // namespace zq
