#pragma once
// Files and folders. Every function sets errno on failure and logs nothing. Descriptors are close-on-exec.
// Any thread.

#include <ace/Basic_Types.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

namespace platform {

struct FS_Stat {
  ACE_UINT32 block_size = 0;  // bytes
  ACE_INT64 blocks = 0;       // counts of blocks
  ACE_INT64 free_blocks = 0;
  ACE_INT64 avail_blocks = 0;  // what an unprivileged writer may use
};

// The room on the filesystem that holds `path`.
bool get_disk_free_space(const char* path, FS_Stat& stat);

// The magic number (statfs) of the filesystem that holds `path`.
bool get_filesystem_type(const char* path, unsigned long& type);

// Makes the folder with all missing parents, each with `mode`. True also when it is there already; false with
// ENOTDIR when something else is there. Parents made before a failure stay.
bool mkdir_p(const std::string& path, mode_t mode);

// What stands before the last '/': "/a/b" -> "/a", "/a" -> "/", "a" -> ".".
std::string dirname_string(const std::string& path);

// False, too, when there is nothing at `path`. Symbolic links are followed.
bool is_block_device(const std::string& path);
bool is_regular_file(const std::string& path);
bool is_directory(const std::string& path);

// Is there anything at `path`, a dangling symbolic link included?
bool path_exists(const std::string& path);

// open(2) with O_CLOEXEC, repeated when interrupted. -1 on failure.
int open_cloexec(const std::string& path, int flags, mode_t mode = 0);

// Writes all of it or fails.
bool write_all(int handle, const void* data, std::size_t size);

// The whole file. `text` is untouched on failure.
bool read_file(const std::string& path, std::string& text);

// Replaces the file as a whole: a temporary file beside it with `mode` whatever the umask, fsync, rename,
// fsync of the folder. On failure the old file is as it was and the temporary one is gone.
bool write_file_atomically(const std::string& path, const std::string& text, mode_t mode);

// An exclusive lock between processes (flock on a file that is made when missing and stays). Released by the
// destructor, and by the kernel when the process dies.
class Lock_File {
 public:
  Lock_File() = default;
  ~Lock_File();
  Lock_File(const Lock_File&) = delete;
  Lock_File& operator=(const Lock_File&) = delete;

  // Takes the lock; waits for it, or with `wait` false fails with EWOULDBLOCK when somebody has it.
  bool lock(const std::string& path, bool wait = true);
  void unlock();
  bool locked() const { return handle_ != -1; }

 private:
  int handle_ = -1;
};

}  // namespace platform
