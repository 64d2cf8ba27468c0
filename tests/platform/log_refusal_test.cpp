// Where a program may log, and the line that says that it does not.
#include <unistd.h>

#include <cstring>

#include "log_fixture.h"

namespace zq {
namespace {

struct Place {
  const char* made;     ///< a shell command in the directory that has "log", the log's directory
  const char* refusal;  ///< on standard error; "" where there is a log
};

const Place kPlaces[] = {
    {":", ""},
    {"mv log real; ln -s real log", ""},
    {"exec >&- <&-", ""},
    {"ulimit -f 400", ""},
    {"chmod 777 log", "other users may write to the directory"},
    {"chmod 720 log", "other users may write to the directory"},
    {"chown 1 log", "the directory belongs to another user"},
    {"rmdir log; : > log", "the directory cannot be created"},
    {"mkfifo log/log_writer.log", "No such device or address"},
    {"mkfifo log/log_writer.log; exec 9<>log/log_writer.log", "it is not a regular file"},
    {": > log/log_writer.log; chown 1 log/log_writer.log", "it belongs to another user"},
    {": > other; ln other log/log_writer.log", "it has another name, too"},
    {"ln -s ../elsewhere log/log_writer.log", "Too many levels of symbolic links"},
};

TEST_F(Log, IsWrittenOrRefusedInOneLine) {
  for (const auto& [made, refusal] : kPlaces) {
    SCOPED_TRACE(made);
    if (std::strstr(made, "chown") != nullptr && ::geteuid() != 0) continue;
    const fs::path place = directory_ / "place";
    const std::string script = "mkdir " + place.string() + " && cd " + place.string() +
                               " && exec > printed && mkdir -m 700 log && { " + made +
                               "; } && exec " LOG_WRITER " $PWD/log 3000 2>>said";
    ASSERT_EQ(std::system(script.c_str()), 0);
    const auto said = linesOf(place / "said");
    const fs::path file = place / "log/log_writer.log";
    if (*refusal == '\0') {
      EXPECT_TRUE(said.empty()) << said.front();
      EXPECT_GT(fs::file_size(file), 0u);
      for (const auto& line : linesOf(file)) EXPECT_TRUE(line.ends_with("xx end")) << line;
    } else {
      ASSERT_EQ(said.size(), 1u);
      EXPECT_NE(said[0].find(std::string("log_writer: no log file: ") + refusal), std::string::npos)
          << said[0];
      EXPECT_TRUE(!fs::is_regular_file(file) || fs::file_size(file) == 0);
    }
    EXPECT_FALSE(fs::exists(place / "elsewhere"));
    fs::remove_all(place);
  }
}

}  // namespace
}  // namespace zq
