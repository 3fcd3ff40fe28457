#include "staging.hpp"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "fit.hpp"
#include "grey_image.hpp"
#include "npy.hpp"

namespace splitmerge::tool {

namespace {

namespace fs = std::filesystem;

// The files a signal handler must remove. A handler can reach nothing but
// process-wide state, so this is the program's one global: fixed slots,
// claimed and released through atomic flags, read with async-signal-safe
// calls only.
constexpr int cleanup_slots = 32;
constexpr std::size_t cleanup_path_size = 4096;
struct cleanup_slot {
  std::atomic<bool> used{false};
  char path[cleanup_path_size];
};
cleanup_slot cleanup_table[cleanup_slots];

int register_cleanup(const std::string& path) {
  if (path.size() >= cleanup_path_size) return -1;
  for (int i = 0; i < cleanup_slots; ++i) {
    cleanup_slot& slot = cleanup_table[i];
    if (slot.used.load()) continue;
    std::memcpy(slot.path, path.c_str(), path.size() + 1);
    slot.used.store(true);
    return i;
  }
  return -1;
}

void release_cleanup(int slot) {
  if (slot >= 0) cleanup_table[slot].used.store(false);
}

extern "C" void remove_temporary_files(int signal_number) {
  for (cleanup_slot& slot : cleanup_table)
    if (slot.used.load()) ::unlink(slot.path);
  // End as the signal would have ended the program, so the caller sees it.
  std::signal(signal_number, SIG_DFL);
  std::raise(signal_number);
}

// Holds back SIGINT, SIGTERM and SIGHUP while a file is created and
// registered (or renamed), so that a signal cannot fall between the two and
// leave a file its handler does not know of; a held signal arrives after.
class signals_held {
 public:
  signals_held() {
    sigset_t held;
    sigemptyset(&held);
    for (const int s : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&held, s);
    ::sigprocmask(SIG_BLOCK, &held, &previous_);
  }
  signals_held(const signals_held&) = delete;
  signals_held& operator=(const signals_held&) = delete;
  ~signals_held() { ::sigprocmask(SIG_SETMASK, &previous_, nullptr); }

 private:
  sigset_t previous_{};
};

std::string system_error_text() { return std::strerror(errno); }

// Two paths name one file: the same path once links are resolved, or (for
// existing files) the same file through another name, e.g. a hard link.
bool same_file(const std::string& a, const std::string& b) {
  std::error_code error;
  if (fs::exists(a, error) && fs::exists(b, error) && fs::equivalent(a, b, error)) return true;
  const fs::path ca = fs::weakly_canonical(fs::absolute(a), error);
  const fs::path cb = fs::weakly_canonical(fs::absolute(b), error);
  return !error && ca == cb;
}

// The temporary name: hidden, unique and short (so that any final name that
// fits the file system can be staged), keeping the final name's extension
// for the format libraries that look at it.
std::string temporary_template(const std::string& final_path, std::string& suffix) {
  const fs::path target(final_path);
  suffix = io::extension_of(final_path);
  if (suffix.size() > 16) suffix.clear();
  std::string name =
      target.parent_path().empty() ? std::string() : target.parent_path().string() + '/';
  return name + ".splitmerge-XXXXXX" + suffix;
}

}  // namespace

void check_output_paths(const std::string& input, const std::vector<requested_output>& outputs) {
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    const requested_output& out = outputs[i];
    if (out.path.empty()) throw usage_error(out.option + ": the path is empty");
    std::error_code error;
    if (fs::is_directory(out.path, error))
      throw usage_error("cannot write " + out.path + " (" + out.option + "): it is a folder");
    if (same_file(out.path, input))
      throw usage_error(out.option + " " + out.path + " would overwrite the input image");
    for (std::size_t j = 0; j < i; ++j)
      if (same_file(out.path, outputs[j].path))
        throw usage_error(outputs[j].option + " and " + out.option + " both name " + out.path);
  }
}

staged_file::staged_file(std::string final_path) : final_path_(std::move(final_path)) {
  std::string suffix;
  std::string name = temporary_template(final_path_, suffix);
  const signals_held held;
  const int fd = mkstemps(name.data(), static_cast<int>(suffix.size()));
  if (fd < 0) throw usage_error("cannot write " + final_path_ + " (" + system_error_text() + ")");
  temporary_path_ = std::move(name);
  cleanup_slot_ = register_cleanup(temporary_path_);
  // mkstemps makes the file private; give it the mode a new file would get.
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(fd, 0666 & ~mask);
  ::close(fd);
}

staged_file::~staged_file() {
  if (!committed_) std::remove(temporary_path_.c_str());
  release_cleanup(cleanup_slot_);
}

void commit_all(const std::vector<staged_file*>& files) {
  struct replaced {
    staged_file* file;
    std::string backup;  // a second name of the file it replaced, if any
    int backup_slot;
  };
  const signals_held held;
  std::vector<replaced> done;
  const auto undo = [&done] {
    for (auto it = done.rbegin(); it != done.rend(); ++it) {
      if (it->backup.empty()) {
        ::unlink(it->file->final_path_.c_str());
      } else {
        std::rename(it->backup.c_str(), it->file->final_path_.c_str());
      }
      release_cleanup(it->backup_slot);
    }
  };
  for (staged_file* file : files) {
    replaced entry{file, {}, -1};
    struct stat existing {};
    if (::lstat(file->final_path_.c_str(), &existing) == 0 && S_ISREG(existing.st_mode)) {
      // Keep the old file under a second name until every output is in place.
      entry.backup = file->temporary_path_ + ".old";
      if (::link(file->final_path_.c_str(), entry.backup.c_str()) == 0) {
        entry.backup_slot = register_cleanup(entry.backup);
      } else {
        entry.backup.clear();  // no hard links here: the old file cannot be put back
      }
    }
    if (std::rename(file->temporary_path_.c_str(), file->final_path_.c_str()) != 0) {
      const std::string problem = system_error_text();
      if (!entry.backup.empty()) ::unlink(entry.backup.c_str());
      release_cleanup(entry.backup_slot);
      undo();
      throw io::io_error("cannot write " + file->final_path_ + " (" + problem + ")");
    }
    done.push_back(std::move(entry));
  }
  for (replaced& entry : done) {
    if (!entry.backup.empty()) ::unlink(entry.backup.c_str());
    release_cleanup(entry.backup_slot);
    entry.file->committed_ = true;
  }
}

void install_cleanup_handlers() {
  for (const int s : {SIGINT, SIGTERM, SIGHUP}) std::signal(s, remove_temporary_files);
  std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace splitmerge::tool
