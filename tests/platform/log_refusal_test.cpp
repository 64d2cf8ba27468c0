// Where a program may log, and where it says that it does not.
#include "log_fixture.h"

namespace zq {
namespace {

struct Place {
  const char* name;
  const char* made;     // a shell command in the directory that has "log", the log's directory
  const char* refusal;  // on standard error; "" where there is a log
};

void PrintTo(const Place& place, std::ostream* stream) {
  *stream << place.made;
}

class ALogIn : public Log, public testing::WithParamInterface<Place> {};

TEST_P(ALogIn, IsWrittenOrRefusedInOneLine) {
  const auto& [name, made, refusal] = GetParam();
  if (std::string_view(made).find("chown") != std::string::npos && ::geteuid() != 0) GTEST_SKIP();
  const std::string script = "cd " + directory_.string() +
                             " && exec > printed && mkdir -m 700 log && { " + made +
                             "; } && exec " LOG_WRITER " $PWD/log 3000 2>>said";
  ASSERT_EQ(std::system(script.c_str()), 0);
  const auto said = linesOf(directory_ / "said");
  const fs::path file = directory_ / "log/log_writer.log";
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
  EXPECT_FALSE(fs::exists(directory_ / "elsewhere"));
}

INSTANTIATE_TEST_SUITE_P(
    , ALogIn,
    testing::Values(
        Place{"PrivateDirectory", ":", ""},  //
        Place{"LinkToDirectory", "mv log real; ln -s real log", ""},
        Place{"ClosedStandardOutput", "exec >&- <&-", ""},
        Place{"FileSizeLimit", "ulimit -f 400", ""},
        Place{"SharedDirectory", "chmod 777 log", "other users may write to the directory"},
        Place{"GroupsDirectory", "chmod 720 log", "other users may write to the directory"},
        Place{"ForeignDirectory", "chown 1 log", "the directory belongs to another user"},
        Place{"NoDirectory", "rmdir log; : > log", "the directory cannot be created"},
        Place{"Pipe", "mkfifo log/log_writer.log", "No such device or address"},
        Place{"ReadPipe", "mkfifo log/log_writer.log; exec 9<>log/log_writer.log",
              "it is not a regular file"},
        Place{"ForeignFile", ": > log/log_writer.log; chown 1 log/log_writer.log",
              "it belongs to another user"},
        Place{"LinkedFile", ": > other; ln other log/log_writer.log", "it has another name, too"},
        Place{"LinkToNothing", "ln -s ../elsewhere log/log_writer.log",
              "Too many levels of symbolic links"}),
    [](const auto& place) { return std::string(place.param.name); });

}  // namespace
}  // namespace zq
