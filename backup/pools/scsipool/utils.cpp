#include "backup/pools/scsipool/utils.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "platform/base/file.h"
#include "platform/base/log.h"
#include "platform/base/random.h"
#include "platform/base/uuid.h"
#include "platform/process/auto_handle.h"

namespace scsi_pool {

namespace {

// Filesystem block sizes and the page size are powers of two.
ACE_UINT64 round_up(ACE_UINT64 size, ACE_UINT64 unit) {
  return (size + unit - 1) & ~(unit - 1);
}

ACE_UINT64 page_size() {
  const long size = ::sysconf(_SC_PAGESIZE);
  return size > 0 ? static_cast<ACE_UINT64>(size) : 4096;
}

// 0, or an errno value.
int allocate(int handle, ACE_UINT64 size, bool thin_provisioning) {
  if (size > static_cast<ACE_UINT64>(std::numeric_limits<off_t>::max())) return EFBIG;
  const off_t length = static_cast<off_t>(size);
  if (!thin_provisioning) return ::posix_fallocate(handle, 0, length);
  return ::ftruncate(handle, length) == 0 ? 0 : errno;
}

bool is_ascii_letter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

}  // namespace

bool create_and_pad_file(const char* fname, ACE_UINT64 size, bool thin_provisioning) {
  if (fname == nullptr || *fname == '\0') return LOG_VIOLATION("fname is NULL or \"\"");
  const std::string folder = platform::dirname_string(fname);
  if (!platform::mkdir_p(folder, 0750)) {
    return LOG_FAILURE("Failed to mkdir %s, errno=%d\n", folder.c_str(), errno);
  }
  platform::FS_Stat stat;
  if (!platform::get_disk_free_space(folder.c_str(), stat)) {
    return LOG_FAILURE("Failed to get %s free space\n", folder.c_str());
  }
  const ACE_UINT64 available = static_cast<ACE_UINT64>(stat.avail_blocks) * stat.block_size;
  if (!thin_provisioning && size > available) {
    return LOG_FAILURE("Failed to create file %s with size %Q, not enough space\n", fname, size);
  }
  const ACE_UINT64 align = round_up(stat.block_size, page_size());
  LOG_INFO("Create file '%s' with %hu bytes alignment\n", fname, static_cast<unsigned short>(align));
  const Auto_Handle file(platform::open_cloexec(fname, O_WRONLY | O_CREAT, 0600));
  if (!file.valid()) {
    return LOG_FAILURE("Failed to create file %s with size %Q, errno=%d\n", fname, size, errno);
  }
  // Rounding up must not wrap: such a size is refused by the allocation.
  const ACE_UINT64 padded = std::max(size, round_up(size, align));
  if (const int error = allocate(file.get(), padded, thin_provisioning)) {
    return LOG_FAILURE("Failed to allocate file %s with size %Q, errno=%d\n", fname, size, error);
  }
  return true;
}

bool generate_uuid(std::string& uuid) {
  uuid.clear();
  if (!platform::uuid_string(uuid, false) || uuid.empty()) return LOG_FAILURE("Failed to generate uuid\n");
  for (std::size_t i = 0; i < 2; ++i) {
    if (!is_ascii_letter(uuid[i])) uuid[i] = static_cast<char>('a' + platform::random_number() % 5);
  }
  return true;
}

std::string dataset_key(const std::string& pool_id, bool is_lun, const std::string& dataset) {
  return pool_id + (is_lun ? "/1/" : "/0/") + dataset;
}

}  // namespace scsi_pool
