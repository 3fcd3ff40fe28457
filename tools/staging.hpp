// Writing results all or nothing: every output is checked before the run,
// written completely to a temporary file beside its final path, and put into
// place only when every output has been written. A failure at any point, even
// while committing, leaves every existing file as it was and no new file.
//
// Temporary files cannot outlive the process: where the file system allows
// they have no name until they are committed (O_TMPFILE, linked into place);
// elsewhere they are named ".splitmerge-<pid>-XXXXXX<ext>", removed on every
// catchable signal, and removed by a later run in the same folder once the
// process <pid> is gone (after SIGKILL or a power cut).
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace splitmerge::tool {

// One output the user asked for: the option that names it and its path.
struct requested_output {
  std::string option;  // e.g. "--labels"
  std::string path;
};

// Refuses (usage_error) outputs that name the input, name one another, or
// cannot be written: a folder in the way, a missing or read-only folder.
void check_output_paths(const std::string& input, const std::vector<requested_output>& outputs);

// A file being written; gone unless committed. An output path that is a
// symbolic link is written through to its target, as cp does, and a file
// replaced keeps its permission bits.
class staged_file {
 public:
  // Creates the temporary file at once. Throws usage_error.
  explicit staged_file(std::string final_path);
  staged_file(const staged_file&) = delete;
  staged_file& operator=(const staged_file&) = delete;
  ~staged_file();

  // The path the user gave, for messages.
  const std::string& path() const { return final_path_; }
  // A path the writers open (and may reopen) to write the file.
  const std::string& temporary_path() const { return temporary_path_; }

 private:
  friend void commit_all(const std::vector<staged_file*>& files);
  std::string named_temporary();

  std::string final_path_;
  std::string target_path_;  // final_path_ with symbolic links followed
  std::string temporary_path_;
  int unnamed_fd_ = -1;  // the O_TMPFILE file, else -1
  int cleanup_slot_ = -1;
  bool committed_ = false;
};

// Puts every file into place, or none: a rename that fails puts back the
// files already replaced. Throws io::io_error naming the file that failed.
void commit_all(const std::vector<staged_file*>& files);

// Installs the handlers that remove temporary files when the program is
// ended by a signal it can catch, and ignores SIGXFSZ so that a file size
// limit fails the write (reported, cleaned up) instead of killing the program.
void install_cleanup_handlers();

}  // namespace splitmerge::tool
