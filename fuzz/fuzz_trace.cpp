// Trace files of any content: either entries come of a file, which can be written and read again
// and be played, or a mistake that says where it is.
#include <sys/mman.h>
#include <unistd.h>

#include <cctype>
#include <string>

#include "fuzz/input.h"
#include "service/replay/recording.h"

namespace zq::fuzz {
namespace {

/// A file without a name.
class File {
 public:
  explicit File(const std::string& content) {
    require(::write(descriptor_, content.data(), content.size()) ==
            static_cast<ssize_t>(content.size()));
  }
  ~File() { ::close(descriptor_); }
  std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

 private:
  const int descriptor_ = ::memfd_create("trace", 0);
};

bool isMistake(const std::string& error, const std::string& file) {
  return error.starts_with(file + ':') && error.find(": ") != std::string::npos &&
         std::isdigit(static_cast<unsigned char>(error[file.size() + 1])) != 0;
}

void playAndReport(const std::vector<ZQBusTraceEntry>& trace) {
  devservice::Recording recording(trace);
  for (const ZQBusTraceEntry& entry : trace) {
    if (recording.next(entry.content) == nullptr)
      require(!recording.nearest(entry.content).empty());
  }
  recording.report();
}

void read(const std::string& content) {
  const File file(content);
  std::vector<ZQBusTraceEntry> trace;
  std::string error;
  if (!readZQBusTrace(file.path(), trace, error)) return require(isMistake(error, file.path()));
  for (const ZQBusTraceEntry& entry : trace) {
    const std::string line = toJson(entry);
    ZQBusTraceEntry again;
    require(fromJson(line, again, error));
    require(toJson(again) == line);
  }
  playAndReport(trace);
}

}  // namespace
}  // namespace zq::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  zq::fuzz::read(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
