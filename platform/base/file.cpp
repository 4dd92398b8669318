#include "platform/base/file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace platform {

namespace {

bool mode_of(const std::string& path, mode_t& mode) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return false;
  mode = info.st_mode & S_IFMT;
  return true;
}

bool is_kind(const std::string& path, mode_t kind) {
  mode_t mode = 0;
  return mode_of(path, mode) && mode == kind;
}

void close_keeping_errno(int handle) {
  const int error = errno;
  ::close(handle);
  errno = error;
}

bool make_folder(const std::string& path, mode_t mode) {
  if (::mkdir(path.c_str(), mode) == 0) return true;
  if (errno != EEXIST) return false;
  if (is_directory(path)) return true;
  errno = ENOTDIR;
  return false;
}

bool sync_folder(const std::string& path) {
  const int handle = open_cloexec(path, O_RDONLY | O_DIRECTORY);
  if (handle == -1) return false;
  const bool done = ::fsync(handle) == 0;
  close_keeping_errno(handle);
  return done;
}

}  // namespace

bool get_disk_free_space(const char* path, FS_Stat& stat) {
  struct statvfs info;
  if (::statvfs(path, &info) != 0) return false;
  // Block counts are in units of the fragment size.
  stat.block_size = static_cast<ACE_UINT32>(info.f_frsize != 0 ? info.f_frsize : info.f_bsize);
  stat.blocks = static_cast<ACE_INT64>(info.f_blocks);
  stat.free_blocks = static_cast<ACE_INT64>(info.f_bfree);
  stat.avail_blocks = static_cast<ACE_INT64>(info.f_bavail);
  return true;
}

bool get_filesystem_type(const char* path, unsigned long& type) {
  struct statfs info;
  if (::statfs(path, &info) != 0) return false;
  type = static_cast<unsigned long>(info.f_type);
  return true;
}

bool mkdir_p(const std::string& path, mode_t mode) {
  if (path.empty()) {
    errno = ENOENT;
    return false;
  }
  if (is_directory(path)) return true;
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    if (!make_folder(path.substr(0, slash), mode)) return false;
  }
  return path.back() == '/' || make_folder(path, mode);
}

std::string dirname_string(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool is_block_device(const std::string& path) {
  return is_kind(path, S_IFBLK);
}

bool is_regular_file(const std::string& path) {
  return is_kind(path, S_IFREG);
}

bool is_directory(const std::string& path) {
  return is_kind(path, S_IFDIR);
}

bool path_exists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

int open_cloexec(const std::string& path, int flags, mode_t mode) {
  int handle;
  do {
    handle = ::open(path.c_str(), flags | O_CLOEXEC, mode);
  } while (handle == -1 && errno == EINTR);
  return handle;
}

bool write_all(int handle, const void* data, std::size_t size) {
  const char* at = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = ::write(handle, at, size);
    if (written == -1 && errno == EINTR) continue;
    if (written == -1) return false;
    at += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

bool read_file(const std::string& path, std::string& text) {
  const int handle = open_cloexec(path, O_RDONLY);
  if (handle == -1) return false;
  std::string content;
  char buffer[16384];
  ssize_t got = 0;
  do {
    got = ::read(handle, buffer, sizeof buffer);
    if (got > 0) content.append(buffer, static_cast<std::size_t>(got));
  } while (got > 0 || (got == -1 && errno == EINTR));
  close_keeping_errno(handle);
  if (got == -1) return false;
  text = std::move(content);
  return true;
}

bool write_file_atomically(const std::string& path, const std::string& text, mode_t mode) {
  std::string temporary = path + ".XXXXXX";
  const int handle = ::mkostemp(temporary.data(), O_CLOEXEC);
  if (handle == -1) return false;
  const bool written =
      ::fchmod(handle, mode) == 0 && write_all(handle, text.data(), text.size()) && ::fsync(handle) == 0;
  close_keeping_errno(handle);
  if (written && ::rename(temporary.c_str(), path.c_str()) == 0) return sync_folder(dirname_string(path));
  const int error = errno;
  ::unlink(temporary.c_str());
  errno = error;
  return false;
}

Lock_File::~Lock_File() {
  unlock();
}

bool Lock_File::lock(const std::string& path, bool wait) {
  unlock();
  const int handle = open_cloexec(path, O_RDWR | O_CREAT, 0600);
  if (handle == -1) return false;
  int result;
  do {
    result = ::flock(handle, wait ? LOCK_EX : LOCK_EX | LOCK_NB);
  } while (result == -1 && errno == EINTR);
  if (result == -1) {
    close_keeping_errno(handle);
    return false;
  }
  handle_ = handle;
  return true;
}

void Lock_File::unlock() {
  if (handle_ == -1) return;
  close_keeping_errno(handle_);
  handle_ = -1;
}

}  // namespace platform
