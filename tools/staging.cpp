#include "staging.hpp"

#include <dirent.h>
#include <fcntl.h>
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

// Every signal whose default action ends the process and that a handler may
// catch (SIGKILL and SIGSTOP cannot be caught).
constexpr int ending_signals[] = {SIGHUP,  SIGINT,    SIGQUIT, SIGILL,  SIGTRAP, SIGABRT,  SIGBUS,
                                  SIGFPE,  SIGUSR1,   SIGSEGV, SIGUSR2, SIGPIPE, SIGALRM,  SIGTERM,
                                  SIGXCPU, SIGVTALRM, SIGPROF, SIGSYS,  SIGPWR,  SIGSTKFLT};

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

// Holds back the ending signals while a file is created and registered (or
// renamed), so that a signal cannot fall between the two and leave a file its
// handler does not know of; a held signal arrives after.
class signals_held {
 public:
  signals_held() {
    sigset_t held;
    sigemptyset(&held);
    for (const int s : ending_signals) sigaddset(&held, s);
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

// The path with its last part's symbolic links followed (the target of a
// dangling link is where a new file goes). Throws usage_error on a loop.
std::string link_target(const std::string& path) {
  fs::path at(path);
  for (int hops = 0; hops < 40; ++hops) {
    std::error_code error;
    if (!fs::is_symlink(at, error)) return at.string();
    const fs::path next = fs::read_symlink(at, error);
    if (error) return at.string();
    at = next.is_absolute() ? next : at.parent_path() / next;
  }
  throw usage_error("cannot write " + path + ": too many levels of symbolic links");
}

std::string folder_of(const std::string& path) {
  const fs::path parent = fs::path(path).parent_path();
  return parent.empty() ? std::string(".") : parent.string();
}

constexpr const char* temporary_prefix = ".splitmerge-";

// The temporary name: hidden, unique, short (so that any final name that fits
// the file system can be staged), with this process's id for the sweep below
// and the final name's extension for whoever looks at it.
std::string temporary_template(const std::string& target, std::string& suffix) {
  suffix = io::extension_of(target);
  if (suffix.size() > 16) suffix.clear();
  return folder_of(target) + '/' + temporary_prefix + std::to_string(::getpid()) + "-XXXXXX" +
         suffix;
}

// Removes the named temporaries of processes that are gone: a run ended by
// SIGKILL or a power cut leaves them, and nothing else would.
void remove_stale_temporaries(const std::string& folder) {
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return;
  const std::size_t prefix_size = std::strlen(temporary_prefix);
  while (const dirent* entry = ::readdir(dir)) {
    const char* name = entry->d_name;
    if (std::strncmp(name, temporary_prefix, prefix_size) != 0) continue;
    char* end = nullptr;
    const long pid = std::strtol(name + prefix_size, &end, 10);
    if (end == name + prefix_size || *end != '-' || pid <= 0 || pid == ::getpid()) continue;
    if (::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;
    struct stat info {};
    if (::fstatat(::dirfd(dir), name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode))
      ::unlinkat(::dirfd(dir), name, 0);
  }
  ::closedir(dir);
}

// The permission bits the output gets: an existing file's own, else those of
// a new file.
mode_t output_mode(const std::string& target) {
  struct stat existing {};
  if (::stat(target.c_str(), &existing) == 0 && S_ISREG(existing.st_mode))
    return existing.st_mode & 07777;
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
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

staged_file::staged_file(std::string final_path)
    : final_path_(std::move(final_path)), target_path_(link_target(final_path_)) {
  const std::string folder = folder_of(target_path_);
  remove_stale_temporaries(folder);
  const mode_t mode = output_mode(target_path_);
  const auto folder_problem = [&] {
    return usage_error("cannot write " + final_path_ + ": cannot create a file in the folder " +
                       folder + " (" + system_error_text() + ")");
  };
  unnamed_fd_ = ::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, mode);
  if (unnamed_fd_ >= 0) {
    ::fchmod(unnamed_fd_, mode);  // the mode given to open is narrowed by the umask
    temporary_path_ = "/proc/self/fd/" + std::to_string(unnamed_fd_);
    if (::access(temporary_path_.c_str(), W_OK) == 0) return;
    ::close(unnamed_fd_);  // no /proc: the writers could not open it
    unnamed_fd_ = -1;
  } else if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) {
    throw folder_problem();
  }
  std::string suffix;
  std::string name = temporary_template(target_path_, suffix);
  const signals_held held;
  const int fd = mkstemps(name.data(), static_cast<int>(suffix.size()));
  if (fd < 0) throw folder_problem();
  temporary_path_ = std::move(name);
  cleanup_slot_ = register_cleanup(temporary_path_);
  ::fchmod(fd, mode);  // mkstemps makes the file private
  ::close(fd);
}

staged_file::~staged_file() {
  if (unnamed_fd_ >= 0) {
    ::close(unnamed_fd_);
  } else if (!committed_) {
    std::remove(temporary_path_.c_str());
  }
  release_cleanup(cleanup_slot_);
}

// A name in the target's folder for the file, for the rename into place: the
// named temporary itself, or a fresh name linked to the unnamed one (called
// with the signals held, so that the name is registered before any arrives).
std::string staged_file::named_temporary() {
  if (unnamed_fd_ < 0) return temporary_path_;
  std::string suffix;
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string name = temporary_template(target_path_, suffix);
    const int fd = mkstemps(name.data(), static_cast<int>(suffix.size()));
    if (fd < 0) break;
    ::close(fd);
    ::unlink(name.c_str());
    if (::linkat(AT_FDCWD, temporary_path_.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) ==
        0) {
      release_cleanup(cleanup_slot_);
      cleanup_slot_ = register_cleanup(name);
      return name;
    }
    if (errno != EEXIST) break;
  }
  throw io::io_error("cannot write " + final_path_ + " (" + system_error_text() + ")");
}

void commit_all(const std::vector<staged_file*>& files) {
  struct replaced {
    staged_file* file;
    std::string backup;  // a second name of the file it replaced, if any
    int backup_slot;
  };
  const signals_held held;
  std::vector<replaced> done;
  std::vector<std::string> linked;  // names given to unnamed files, removed on failure
  const auto undo = [&] {
    for (auto it = done.rbegin(); it != done.rend(); ++it) {
      if (it->backup.empty()) {
        ::unlink(it->file->target_path_.c_str());
      } else {
        std::rename(it->backup.c_str(), it->file->target_path_.c_str());
      }
      release_cleanup(it->backup_slot);
    }
    for (const std::string& name : linked) ::unlink(name.c_str());
  };
  for (staged_file* file : files) {
    std::string name;
    try {
      name = file->named_temporary();
    } catch (const io::io_error&) {
      undo();
      throw;
    }
    if (file->unnamed_fd_ >= 0) linked.push_back(name);
    replaced entry{file, {}, -1};
    struct stat existing {};
    if (::lstat(file->target_path_.c_str(), &existing) == 0 && S_ISREG(existing.st_mode)) {
      // Keep the old file under a second name until every output is in place.
      entry.backup = name + ".old";
      if (::link(file->target_path_.c_str(), entry.backup.c_str()) == 0) {
        entry.backup_slot = register_cleanup(entry.backup);
      } else {
        entry.backup.clear();  // no hard links here: the old file cannot be put back
      }
    }
    if (std::rename(name.c_str(), file->target_path_.c_str()) != 0) {
      const std::string problem = system_error_text();
      if (!entry.backup.empty()) ::unlink(entry.backup.c_str());
      release_cleanup(entry.backup_slot);
      undo();
      throw io::io_error("cannot write " + file->final_path_ + " (" + problem + ")");
    }
    if (file->unnamed_fd_ >= 0) linked.pop_back();  // renamed: it is the output now
    done.push_back(std::move(entry));
  }
  for (replaced& entry : done) {
    if (!entry.backup.empty()) ::unlink(entry.backup.c_str());
    release_cleanup(entry.backup_slot);
    release_cleanup(entry.file->cleanup_slot_);
    entry.file->cleanup_slot_ = -1;
    entry.file->committed_ = true;
  }
}

void install_cleanup_handlers() {
  for (const int s : ending_signals) std::signal(s, remove_temporary_files);
  std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace splitmerge::tool
