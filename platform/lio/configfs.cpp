#include "platform/lio/configfs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/base/log.h"

namespace lio {

namespace {

constexpr mode_t FOLDER_MODE = 0755;
constexpr std::size_t LARGEST_ATTRIBUTE = 64 * 1024;  // the kernel gives one page

int result(int returned) {
  return returned == 0 ? 0 : errno;
}

class Descriptor {
 public:
  Descriptor(const std::string& path, int flags) : fd_(::open(path.c_str(), flags | O_CLOEXEC)) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

int Configfs::write(const std::string& path, const std::string& value) {
  const Descriptor file(full(path), O_WRONLY);
  if (file.get() < 0) return errno;
  const ssize_t written = ::write(file.get(), value.data(), value.size());
  if (written < 0) return errno;
  return static_cast<std::size_t>(written) == value.size() ? 0 : EIO;
}

int Configfs::make_folder(const std::string& path) {
  return result(::mkdir(full(path).c_str(), FOLDER_MODE));
}

int Configfs::remove_folder(const std::string& path) {
  return result(::rmdir(full(path).c_str()));
}

int Configfs::make_link(const std::string& to, const std::string& path) {
  return result(::symlink(full(to).c_str(), full(path).c_str()));
}

int Configfs::remove_link(const std::string& path) {
  return result(::unlink(full(path).c_str()));
}

int Configfs::read(const std::string& path, std::string& value) const {
  const Descriptor file(full(path), O_RDONLY);
  if (file.get() < 0) return errno;
  std::string text;
  char buffer[4096];
  ssize_t got = 0;
  while ((got = ::read(file.get(), buffer, sizeof(buffer))) > 0 && text.size() < LARGEST_ATTRIBUTE)
    text.append(buffer, static_cast<std::size_t>(got));
  if (got < 0) return errno;
  if (!text.empty() && text.back() == '\n') text.pop_back();
  value = text;
  return 0;
}

int Configfs::read_link(const std::string& path, unsigned components, std::string& to) const {
  char buffer[4096];
  const ssize_t got = ::readlink(full(path).c_str(), buffer, sizeof(buffer));
  if (got < 0) return errno;
  const std::string text(buffer, static_cast<std::size_t>(got));
  std::size_t from = text.size();
  for (unsigned i = 0; i < components && from != std::string::npos && from > 0; ++i)
    from = text.rfind('/', from - 1);
  to = from == std::string::npos ? text : text.substr(from + 1);
  return 0;
}

int Configfs::list(const std::string& path, std::vector<std::string>& names) const {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(full(path).c_str()), &::closedir);
  if (!folder) return errno;
  errno = 0;
  while (const dirent* entry = ::readdir(folder.get())) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      names.push_back(entry->d_name);
    errno = 0;
  }
  return errno;
}

bool Configfs::exists(const std::string& path) const {
  struct stat status;
  return ::lstat(full(path).c_str(), &status) == 0;
}

Folder_State Configfs::state(const std::string& folder) const {
  struct stat status;
  if (::stat(full(folder).c_str(), &status) != 0) return {};
  return {status.st_ino, status.st_nlink, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

bool Configfs::set(const std::string& path, const std::string& value) {
  const int error = write(path, value);
  if (error == 0) return true;
  return LOG_FAILURE("Failed to write '%s' to '%s': %s\n", value.c_str(), full(path).c_str(),
                     std::strerror(error));
}

bool Configfs::settle(const std::string& path, const std::string& value) {
  std::string now;
  const int error = read(path, now);
  if (error == ENOENT) return true;
  if (error != 0) return LOG_FAILURE("Failed to read '%s': %s\n", full(path).c_str(), std::strerror(error));
  if (now == value) return true;
  if (!set(path, value)) return false;
  if (this->value(path) == value) return true;
  return LOG_FAILURE("Failed to write '%s' to '%s': the kernel kept '%s'\n", value.c_str(),
                     full(path).c_str(), this->value(path).c_str());
}

bool Configfs::ensure_folder(const std::string& path, bool* made) {
  const int error = make_folder(path);
  if (made) *made = error == 0;
  if (error == 0 || error == EEXIST) return true;
  return LOG_FAILURE("Failed to make '%s': %s\n", full(path).c_str(), std::strerror(error));
}

bool Configfs::clear_folder(const std::string& path) {
  const int error = remove_folder(path);
  if (error != 0 && error != ENOENT)
    return LOG_FAILURE("Failed to remove '%s': %s\n", full(path).c_str(), std::strerror(error));
  if (exists(path)) return LOG_FAILURE("Failed to remove '%s': it is still there\n", full(path).c_str());
  return true;
}

bool Configfs::clear_link(const std::string& path) {
  const int error = remove_link(path);
  if (error != 0 && error != ENOENT)
    return LOG_FAILURE("Failed to remove link '%s': %s\n", full(path).c_str(), std::strerror(error));
  if (exists(path)) return LOG_FAILURE("Failed to remove link '%s': it is still there\n", full(path).c_str());
  return true;
}

std::string Configfs::value(const std::string& path) const {
  std::string text;
  return read(path, text) == 0 ? text : "";
}

std::vector<std::string> Configfs::names(const std::string& path) const {
  std::vector<std::string> found;
  list(path, found);
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace lio
