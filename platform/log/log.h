// The log of the library: one rotating file per program, shared by all its threads and processes.
#pragma once

namespace zq {

/// Starts the log in `directory`, created with mode 0700 when absent, its missing parents too. The
/// file is "<program>.log", created with mode 0600; at 10 MiB it becomes "<program>.1.log", that
/// one "<program>.2.log", and the one before is deleted. Several processes of one program share the
/// files, line by line.
///
/// Called again, it goes on with the same file when the directory is the same, and moves to the new
/// one when it is not. Nothing changes when the directory cannot be created or written, so nothing
/// is logged when that is the first call. Blocks for a few file operations. Any thread; never
/// throws.
void feroxLogInit(const char* directory);

/// Writes one line: time, process, thread, severity, tag and the formatted text, in which control
/// characters are escaped ("\n", "\x1b"). `channel` is 0.
///
/// Priorities, most severe first: 7 error, 6 warning, 5 debug, 3 information, 2 trace; others are
/// written as information. An error, and whatever was logged before it, is in the file when this
/// returns; everything else is within a second, and at once while the process ends and in a child
/// after fork. A line that the disk does not take is lost. Any thread; never throws; leaves errno
/// alone; nothing happens before feroxLogInit.
[[gnu::format(printf, 4, 5)]] void orvaneLogPrint(int channel, int priority, const char* tag,
                                                  const char* format, ...);

}  // namespace zq
