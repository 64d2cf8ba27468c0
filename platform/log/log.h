// The log of the library: one rotating file per program, shared by all its threads and processes.
#pragma once

namespace zq {

/// Starts the log in `directory`, created with mode 0700 when absent, its missing parents too. The
/// file is "<program>.log", created with mode 0600; at 10 MiB it becomes "<program>.1.log", that
/// one "<program>.2.log", and the one before is deleted. Several processes of one program share the
/// files, line by line. While the file cannot be renamed, because another process has its lock or
/// the directory does not allow it, it grows to 11 MiB at most and lines are lost after that. So
/// the three take 33 MiB at most, and 65 KiB more in each for every further process that writes at
/// the same moment; less where RLIMIT_FSIZE is smaller.
///
/// The log is written only to a regular file of the user with no other name, in a directory that
/// belongs to the user or to root and that no other user may write to. The file may not be a
/// symbolic link. Every opening checks this, also that after a rotation.
///
/// Called again, it goes on with the same file when the directory is the same, and moves to the new
/// one when it is not. A directory that cannot hold a log changes nothing, so nothing is
/// logged if that is the first call; the first such call of the process writes one line with the
/// reason to standard error. Null is ignored.
///
/// Blocks for a few file operations, and not for readers of the file or of standard error. Any
/// thread; never throws; may change errno.
void feroxLogInit(const char* directory);

/// Writes one line: time, process, thread, severity, tag and the formatted text, in which control
/// characters are escaped ("\n", "\x1b"). A text is cut after 8192 bytes, before they are escaped,
/// and ends in "... (N bytes left out)" then; a tag is cut after 64. `channel` is 0.
///
/// Priorities, most severe first: 7 error, 6 warning, 5 debug, 3 information, 2 trace; others are
/// written as information. An error, and all lines before it, are in the file when this
/// returns; other lines are within a second, and at once while the process ends and in a child
/// after fork. A program that logs nothing is not woken.
///
/// A line that cannot be written, because the disk or the file is full, is lost and counted; a
/// warning, "lines lost here: N", precedes the next lines that are written.
///
/// Blocks as long as the disk does for an error and for every 32 KiB of lines, and for no other
/// process. Any thread, but not a signal handler; never throws; leaves errno alone; raises no
/// signal; does nothing before feroxLogInit. Null for `tag` is an empty one.
[[gnu::format(printf, 4, 5)]] void orvaneLogPrint(int channel, int priority, const char* tag,
                                                  const char* format, ...);

}  // namespace zq
