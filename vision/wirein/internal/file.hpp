#pragma once

#include <string>
#include <string_view>

/// Blocking file operations of the telemetry. All throw std::system_error that
/// names the path.
namespace vision::detail {

/// Appends `line`, which ends with a line feed, in one write to the regular file
/// or character device at `path`, creating it (mode 0600) and its directories
/// (0700) when missing. Symbolic links are followed. Begins with a line feed of
/// its own when the file does not end with one; is written again, in a line of its
/// own, when another writer was killed in the middle of the line before it
/// meanwhile. Never waits for a reader; a file-size limit is an error here, not a
/// signal.
void append_line(const std::string& path, std::string line);

/// Writes `content` as `directory`/`name` (mode 0600), creating the directory and
/// its parents (0700) when missing. A file of that name is replaced in one step:
/// no reader sees it half written.
void write_file(const std::string& directory, const std::string& name, std::string_view content);

}  // namespace vision::detail
