#include "backup/pools/scsipool/fstab.h"

#include <fcntl.h>
#include <mntent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "platform/base/file.h"
#include "platform/base/log.h"
#include "platform/process/auto_handle.h"

namespace scsi_pool {

namespace {

constexpr std::size_t LONGEST_TEXT = 4096;

// A table opened with setmntent.
class Table {
 public:
  Table(const std::string& path, const char* mode) : file_(::setmntent(path.c_str(), mode)) {
    struct stat info;
    // No line is longer than the file.
    const bool known = file_ != nullptr && ::fstat(::fileno(file_), &info) == 0;
    buffer_.resize(known ? static_cast<std::size_t>(info.st_size) + 1024 : 1024);
  }
  ~Table() { close(); }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  bool is_open() const { return file_ != nullptr; }
  int handle() const { return ::fileno(file_); }
  bool failed() const { return std::ferror(file_) != 0; }

  bool next(mntent& entry) {
    return ::getmntent_r(file_, &entry, buffer_.data(), static_cast<int>(buffer_.size())) != nullptr;
  }
  bool add(const mntent& entry) { return ::addmntent(file_, &entry) == 0; }
  bool to_disk() { return std::fflush(file_) == 0 && ::fsync(handle()) == 0; }
  void close() {
    if (file_ != nullptr) ::endmntent(file_);
    file_ = nullptr;
  }

 private:
  FILE* file_;
  std::vector<char> buffer_;
};

bool keep_mode_and_owner(const Table& from, const Table& to) {
  struct stat info;
  return ::fstat(from.handle(), &info) == 0 && ::fchown(to.handle(), info.st_uid, info.st_gid) == 0 &&
         ::fchmod(to.handle(), info.st_mode & 07777) == 0;
}

bool cannot_add(const char* device) {
  return LOG_FAILURE("Failed to edit fstab : cannot add %s to fstab\n", device);
}

bool copy_entries(Table& from, Table& to, const std::string& left_out) {
  char defaults[] = "defaults";
  mntent entry;
  while (from.next(entry)) {
    if (!left_out.empty() && left_out == entry.mnt_fsname) continue;
    if (entry.mnt_opts[0] == '\0') entry.mnt_opts = defaults;
    if (!to.add(entry)) return cannot_add(entry.mnt_fsname);
  }
  return !from.failed() || LOG_FAILURE("Failed to edit fstab: cannot read fstab, %m\n");
}

bool append(Table& to, const Fstab_Entry& added) {
  std::string device = added.device.substr(0, LONGEST_TEXT);
  std::string folder = added.folder.substr(0, LONGEST_TEXT);
  std::string type = added.type;
  std::string options = added.options.substr(0, LONGEST_TEXT);
  mntent entry{};
  entry.mnt_fsname = device.data();
  entry.mnt_dir = folder.data();
  entry.mnt_type = type.data();
  entry.mnt_opts = options.data();
  return to.add(entry) || cannot_add(device.c_str());
}

void folder_to_disk(const std::string& path) {
  const Auto_Handle folder(platform::open_cloexec(platform::dirname_string(path), O_RDONLY | O_DIRECTORY));
  if (folder.valid()) ::fsync(folder.get());
}

bool write_table(const Fstab_Files& files, const std::string& left_out, const Fstab_Entry* added) {
  Table to(files.new_path, "w+e");
  Table from(files.path, "re");
  if (!to.is_open() || !from.is_open()) {
    return LOG_FAILURE("Failed to edit fstab: cannot open fstab or fstab.new\n");
  }
  if (!copy_entries(from, to, left_out)) return false;
  if (added != nullptr && !append(to, *added)) return false;
  if (keep_mode_and_owner(from, to) && to.to_disk()) return true;
  return LOG_FAILURE("Failed to edit fstab: cannot write fstab.new, %m\n");
}

bool replace(const Fstab_Files& files, const std::string& left_out, const Fstab_Entry* added) {
  bool done = write_table(files, left_out, added);
  if (done && ::rename(files.new_path.c_str(), files.path.c_str()) != 0) {
    done = LOG_FAILURE("Failed to edit fstab: cannot rename %s, %m\n", files.new_path.c_str());
  }
  if (!done) {
    ::unlink(files.new_path.c_str());
    return false;
  }
  folder_to_disk(files.path);
  return true;
}

}  // namespace

bool fstab_has(const Fstab_Files& files, const std::string& device) {
  Table table(files.path, "re");
  mntent entry;
  while (table.is_open() && table.next(entry)) {
    if (device == entry.mnt_fsname) return true;
  }
  return false;
}

bool fstab_remove(const Fstab_Files& files, const std::string& device) {
  return replace(files, device, nullptr);
}

bool fstab_add(const Fstab_Files& files, const Fstab_Entry& entry) {
  return replace(files, "", &entry);
}

}  // namespace scsi_pool
